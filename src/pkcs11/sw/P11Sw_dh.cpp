#include "pkcs11/sw/P11Sw_dh.h"

#include "crypto/crypto_errors.h"
#include "crypto/dh.h"
#include "pkcs11/objects/P11Obj.h"
#include "pkcs11/sw/P11Sw_keys.h"

namespace {

bool isX942(const P11Mechanism& row)
{
    return row.type == CKM_X9_42_DH_PARAMETER_GEN || row.type == CKM_X9_42_DH_KEY_PAIR_GEN ||
           row.type == CKM_X9_42_DH_DERIVE;
}

// p, g and (X9.42) q of an object; all must be there.
CK_RV readGroup(P11Obj* object, bool x942, crypto_bytes* p, crypto_bytes* q, crypto_bytes* g)
{
    CK_RV rv = P11SwKeys_readNumber(object, CKA_PRIME, p);
    if (rv == CKR_OK) rv = P11SwKeys_readNumber(object, CKA_BASE, g);
    if (rv == CKR_OK && x942) rv = P11SwKeys_readNumber(object, CKA_SUBPRIME, q);
    if (rv == CKR_OK && (p->empty() || g->empty() || (x942 && q->empty()))) rv = CKR_TEMPLATE_INCOMPLETE;
    return rv;
}

CK_RV storeGroup(P11Obj* object, bool x942, const crypto_bytes& p, const crypto_bytes& q, const crypto_bytes& g)
{
    CK_RV rv = P11SwKeys_setNumber(object, CKA_PRIME, p);
    if (rv == CKR_OK) rv = P11SwKeys_setNumber(object, CKA_BASE, g);
    if (rv == CKR_OK && x942) rv = P11SwKeys_setNumber(object, CKA_SUBPRIME, q);
    return rv;
}

// The derived key's class and type default to a generic secret.
CK_RV defaultSecret(P11Obj* key)
{
    const CK_ATTRIBUTE* present = nullptr;
    CK_RV rv = P11Obj_peekAttribute(key, CKA_CLASS, &present);
    if (rv == CKR_OK && !present) rv = P11Obj_setUlongValue(key, CKA_CLASS, CKO_SECRET_KEY);
    if (rv == CKR_OK) rv = P11Obj_peekAttribute(key, CKA_KEY_TYPE, &present);
    if (rv == CKR_OK && !present) rv = P11Obj_setUlongValue(key, CKA_KEY_TYPE, CKK_GENERIC_SECRET);
    return rv;
}

CK_RV derivedCode(int rc)
{
    if (rc == CRYPTO_ERR_DATA_RANGE || rc == CRYPTO_ERR_BAD_PARAMETER) return CKR_MECHANISM_PARAM_INVALID;
    return P11SwKeys_code(rc);
}

}  // namespace

CK_RV P11SwDh_generateParameters(const P11Mechanism& row, P11Obj* object, P11Session*, CK_MECHANISM_PTR mechanism)
{
    if (mechanism->ulParameterLen != 0) return CKR_MECHANISM_PARAM_INVALID;
    const bool x942 = isX942(row);
    CK_ULONG bits = 0, subBits = 0;
    CK_RV rv = P11Obj_getUlongValue(object, CKA_PRIME_BITS, &bits);
    if (rv == CKR_OK && x942) rv = P11Obj_getUlongValue(object, CKA_SUB_PRIME_BITS, &subBits);
    if (rv != CKR_OK) return rv;
    crypto_bytes p, q, g;
    const int rc = x942 ? x942_generate_params(unsigned(bits), unsigned(subBits), &p, &q, &g)
                        : dh_generate_params(unsigned(bits), &p, &g);
    if (rc == CRYPTO_ERR_BAD_PARAMETER) return CKR_KEY_SIZE_RANGE;
    if (rc != CRYPTO_OK) return P11SwKeys_code(rc);
    rv = P11SwKeys_setHead(object, CKO_DOMAIN_PARAMETERS, x942 ? CKK_X9_42_DH : CKK_DH, mechanism->mechanism);
    if (rv == CKR_OK) rv = storeGroup(object, x942, p, q, g);
    return rv;
}

CK_RV P11SwDh_generatePair(const P11Mechanism& row, P11Obj* privateKey, P11Obj* publicKey, P11Session*,
                           CK_MECHANISM_PTR mechanism)
{
    if (mechanism->ulParameterLen != 0) return CKR_MECHANISM_PARAM_INVALID;
    const bool x942 = isX942(row);
    crypto_bytes p, q, g;
    CK_RV rv = readGroup(publicKey, x942, &p, &q, &g);
    if (rv != CKR_OK) return rv;
    // CKA_VALUE_BITS of the private template: the private value's length.
    CK_ULONG valueBits = 0;
    const CK_ATTRIBUTE* given = nullptr;
    rv = P11Obj_peekAttribute(privateKey, CKA_VALUE_BITS, &given);
    if (rv == CKR_OK && given) rv = P11Obj_getUlongValue(privateKey, CKA_VALUE_BITS, &valueBits);
    if (rv != CKR_OK) return rv;
    crypto_bytes x, y;
    const int rc = dh_generate_key(p, g, x942 ? &q : nullptr, unsigned(valueBits), &x, &y);
    if (rc == CRYPTO_ERR_BAD_PARAMETER) return CKR_DOMAIN_PARAMS_INVALID;
    if (rc != CRYPTO_OK) return P11SwKeys_code(rc);
    const CK_KEY_TYPE type = x942 ? CKK_X9_42_DH : CKK_DH;
    rv = P11SwKeys_setHead(publicKey, CKO_PUBLIC_KEY, type, mechanism->mechanism);
    if (rv == CKR_OK) rv = P11SwKeys_setNumber(publicKey, CKA_VALUE, y);
    if (rv == CKR_OK) rv = P11SwKeys_setHead(privateKey, CKO_PRIVATE_KEY, type, mechanism->mechanism);
    if (rv == CKR_OK) rv = storeGroup(privateKey, x942, p, q, g);
    if (rv == CKR_OK) rv = P11SwKeys_setNumber(privateKey, CKA_VALUE, x);
    return rv;
}

CK_RV P11SwDh_derive(const P11Mechanism& row, P11Obj* baseKey, P11Session*, CK_MECHANISM_PTR mechanism, P11Obj* newKey)
{
    const bool x942 = isX942(row);
    const CK_BYTE* peer = nullptr;
    CK_ULONG peerLen = 0;
    int kdf = X942_KDF_NULL;
    const CK_BYTE* otherInfo = nullptr;
    CK_ULONG otherInfoLen = 0;
    if (x942) {
        if (!mechanism->pParameter || mechanism->ulParameterLen != sizeof(CK_X9_42_DH1_DERIVE_PARAMS))
            return CKR_MECHANISM_PARAM_INVALID;
        const auto* params = static_cast<const CK_X9_42_DH1_DERIVE_PARAMS*>(mechanism->pParameter);
        switch (params->kdf) {
        case CKD_NULL: kdf = X942_KDF_NULL; break;
        case CKD_SHA1_KDF_ASN1: kdf = X942_KDF_SHA1_ASN1; break;
        case CKD_SHA1_KDF_CONCATENATE: kdf = X942_KDF_SHA1_CONCATENATE; break;
        default: return CKR_MECHANISM_PARAM_INVALID;
        }
        if ((params->ulOtherInfoLen && !params->pOtherInfo) || (kdf == X942_KDF_NULL && params->ulOtherInfoLen))
            return CKR_MECHANISM_PARAM_INVALID;
        peer = params->pPublicData;
        peerLen = params->ulPublicDataLen;
        otherInfo = params->pOtherInfo;
        otherInfoLen = params->ulOtherInfoLen;
    } else {
        peer = static_cast<const CK_BYTE*>(mechanism->pParameter);
        peerLen = mechanism->ulParameterLen;
    }
    if (!peer || peerLen == 0) return CKR_MECHANISM_PARAM_INVALID;

    crypto_bytes p, q, g, x;
    CK_RV rv = readGroup(baseKey, x942, &p, &q, &g);
    if (rv == CKR_OK) rv = P11SwKeys_readNumber(baseKey, CKA_VALUE, &x);
    if (rv != CKR_OK) return rv;
    if (x.empty()) return CKR_KEY_TYPE_INCONSISTENT;
    crypto_bytes secret;
    int rc = dh_compute_secret(p, g, x942 ? &q : nullptr, x, peer, peerLen, &secret);
    if (rc != CRYPTO_OK) return derivedCode(rc);

    rv = defaultSecret(newKey);
    if (rv != CKR_OK) return rv;
    // The key's length: its type's, or CKA_VALUE_LEN; without either the
    // whole shared secret (which a KDF cannot stretch to an unknown size).
    CK_ULONG keyLength = 0;
    const bool sized = P11Obj_getKeyValueLength(newKey, &keyLength) == CKR_OK;
    if (kdf != X942_KDF_NULL) {
        if (!sized) return CKR_TEMPLATE_INCOMPLETE;
        crypto_bytes key;
        rc = x942_kdf(kdf, secret, otherInfo, otherInfoLen, keyLength, &key);
        if (rc != CRYPTO_OK) return derivedCode(rc);
        return P11SwKeys_setNumber(newKey, CKA_VALUE, key);
    }
    if (!sized) return P11SwKeys_setNumber(newKey, CKA_VALUE, secret);
    if (keyLength > secret.size()) return CKR_KEY_SIZE_RANGE;
    // The key takes the trailing bytes of the shared secret.
    return P11Obj_setKeyValue(newKey, secret.data(), CK_ULONG(secret.size()), false);
}
