#include "pkcs11/sw/P11Sw_rsa.h"

#include "crypto/crypto_errors.h"
#include "crypto/rsa.h"
#include "pkcs11/objects/P11Obj_SW.h"
#include "pkcs11/sw/P11RsaEngine.h"
#include "pkcs11/sw/P11Sw_keys.h"

namespace {

CK_RV rangeCode(const P11OperationData_rsa* record, int rc)
{
    switch (rc) {
    case CRYPTO_OK: return CKR_OK;
    case CRYPTO_ERR_DATA_RANGE:
        return record->operation == P11_RSA_DECRYPT ? CKR_ENCRYPTED_DATA_INVALID : CKR_DATA_LEN_RANGE;
    case CRYPTO_ERR_NO_MEMORY: return CKR_HOST_MEMORY;
    default: return CKR_GENERAL_ERROR;
    }
}

CK_RV softwarePrivateRaw(P11OperationData_rsa* record, P11Obj*, P11Session*, CK_BYTE_PTR in, CK_ULONG inLen,
                         CK_BYTE_PTR out, CK_ULONG_PTR outLen)
{
    if (!out) {
        *outLen = record->k;
        return CKR_OK;
    }
    if (*outLen < record->k) {
        *outLen = record->k;
        return CKR_BUFFER_TOO_SMALL;
    }
    const CK_RV rv = rangeCode(record, rsa_private_raw(record->key, in, inLen, out));
    if (rv == CKR_OK) *outLen = record->k;
    return rv;
}

CK_RV softwarePublicRaw(P11OperationData_rsa* record, CK_BYTE_PTR in, CK_ULONG inLen, CK_BYTE_PTR out)
{
    return rangeCode(record, rsa_public_raw(record->key, in, inLen, out));
}

// Software keys answer as Cryptoki has it.
const P11RsaKeyOps kSoftwareOps{softwarePrivateRaw, softwarePublicRaw, CKR_ENCRYPTED_DATA_LEN_RANGE, false,
                                CKR_FUNCTION_NOT_SUPPORTED, true};

// The crypto core's form of the key, made from its attributes on first use
// and kept on the object until an attribute changes.
CK_RV keyOf(P11Obj* object, bool isPrivate, rsa_key** key)
{
    *key = P11Obj_SW_cachedRsaKey(object);
    if (*key) return CKR_OK;
    rsa_components c;
    const CK_ATTRIBUTE_TYPE types[] = {CKA_MODULUS, CKA_PUBLIC_EXPONENT, CKA_PRIVATE_EXPONENT, CKA_PRIME_1,
                                       CKA_PRIME_2, CKA_EXPONENT_1, CKA_EXPONENT_2, CKA_COEFFICIENT};
    crypto_bytes* values[] = {&c.n, &c.e, &c.d, &c.p, &c.q, &c.dp, &c.dq, &c.qinv};
    for (int i = 0; i < (isPrivate ? 8 : 2); ++i) {
        const CK_RV rv = P11SwKeys_readNumber(object, types[i], values[i]);
        if (rv != CKR_OK) return rv;
    }
    const int rc = isPrivate ? rsa_key_new_private(c, key) : rsa_key_new_public(c.n.data(), c.n.size(), c.e.data(), c.e.size(), key);
    if (rc == CRYPTO_ERR_NO_MEMORY) return CKR_HOST_MEMORY;
    if (rc != CRYPTO_OK) return CKR_KEY_TYPE_INCONSISTENT;  // not a usable RSA key
    P11Obj_SW_cacheRsaKey(object, *key);
    return CKR_OK;
}

P11RsaOperation engineOperation(uint32_t operation)
{
    switch (operation) {
    case P11_USE_ENCRYPT:
    case P11_USE_WRAP: return P11_RSA_ENCRYPT;
    case P11_USE_DECRYPT:
    case P11_USE_UNWRAP: return P11_RSA_DECRYPT;
    case P11_USE_VERIFY: return P11_RSA_VERIFY;
    case P11_USE_SIGN_RECOVER: return P11_RSA_SIGN_RECOVER;
    case P11_USE_VERIFY_RECOVER: return P11_RSA_VERIFY_RECOVER;
    default: return P11_RSA_SIGN;
    }
}

}  // namespace

CK_RV P11SwRsa_init(const P11Mechanism&, P11Obj* object, P11Session*, CK_MECHANISM_PTR mechanism, uint32_t operation,
                    P11OperationData** out)
{
    const P11RsaOperation engine = engineOperation(operation);
    const bool isPrivate = engine == P11_RSA_DECRYPT || engine == P11_RSA_SIGN || engine == P11_RSA_SIGN_RECOVER;
    rsa_key* key = nullptr;
    CK_RV rv = keyOf(object, isPrivate, &key);
    if (rv != CKR_OK) return rv;
    P11OperationData_rsa* record = nullptr;
    rv = P11Rsa_newRecord(mechanism, engine, &kSoftwareOps, CK_ULONG(rsa_key_bytes(key)), CK_ULONG(rsa_key_bits(key)),
                          &record);
    if (rv != CKR_OK) return rv;
    rsa_key_retain(key);
    record->key = key;
    *out = record;
    return CKR_OK;
}

CK_RV P11SwRsa_generatePair(const P11Mechanism&, P11Obj* privateKey, P11Obj* publicKey, P11Session*,
                            CK_MECHANISM_PTR mechanism)
{
    if (mechanism->ulParameterLen != 0) return CKR_MECHANISM_PARAM_INVALID;
    CK_ULONG bits = 0;
    CK_RV rv = P11Obj_getUlongValue(publicKey, CKA_MODULUS_BITS, &bits);
    if (rv != CKR_OK) return rv;
    if (bits < 512 || bits > 4096 || bits % 8 != 0) return CKR_KEY_SIZE_RANGE;
    crypto_bytes exponent;
    rv = P11SwKeys_readNumber(publicKey, CKA_PUBLIC_EXPONENT, &exponent);
    if (rv != CKR_OK) return rv;

    rsa_components c;
    const int rc = rsa_generate(unsigned(bits), exponent.data(), exponent.size(), &c);
    if (rc == CRYPTO_ERR_BAD_PARAMETER) return CKR_ATTRIBUTE_VALUE_INVALID;  // the exponent
    if (rc != CRYPTO_OK) return P11SwKeys_code(rc);

    rv = P11SwKeys_setHead(publicKey, CKO_PUBLIC_KEY, CKK_RSA, mechanism->mechanism);
    if (rv == CKR_OK) rv = P11SwKeys_setNumber(publicKey, CKA_MODULUS, c.n);
    if (rv == CKR_OK) rv = P11SwKeys_setNumber(publicKey, CKA_PUBLIC_EXPONENT, c.e);
    if (rv == CKR_OK) rv = P11SwKeys_setHead(privateKey, CKO_PRIVATE_KEY, CKK_RSA, mechanism->mechanism);
    const CK_ATTRIBUTE_TYPE types[] = {CKA_MODULUS, CKA_PUBLIC_EXPONENT, CKA_PRIVATE_EXPONENT, CKA_PRIME_1,
                                       CKA_PRIME_2, CKA_EXPONENT_1, CKA_EXPONENT_2, CKA_COEFFICIENT};
    const crypto_bytes* values[] = {&c.n, &c.e, &c.d, &c.p, &c.q, &c.dp, &c.dq, &c.qinv};
    for (int i = 0; i < 8 && rv == CKR_OK; ++i) rv = P11SwKeys_setNumber(privateKey, types[i], *values[i]);
    return rv;
}
