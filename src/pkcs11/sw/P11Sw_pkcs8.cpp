#include "pkcs11/sw/P11Sw_pkcs8.h"

#include "crypto/crypto_errors.h"
#include "crypto/pkcs8.h"
#include "pkcs11/objects/P11Obj.h"
#include "pkcs11/sw/P11Sw_keys.h"

namespace {

struct Field {
    CK_ATTRIBUTE_TYPE type;
    crypto_bytes* number;
};

CK_RV readAll(P11Obj* key, std::initializer_list<Field> fields)
{
    for (const Field& f : fields) {
        const CK_RV rv = P11SwKeys_readNumber(key, f.type, f.number);
        if (rv != CKR_OK) return rv;
        if (f.number->empty()) return CKR_KEY_NOT_WRAPPABLE;
    }
    return CKR_OK;
}

CK_RV writeAll(P11Obj* key, std::initializer_list<Field> fields)
{
    for (const Field& f : fields) {
        const CK_RV rv = P11SwKeys_setNumber(key, f.type, *f.number);
        if (rv != CKR_OK) return rv;
    }
    return CKR_OK;
}

CK_KEY_TYPE keyTypeOf(int pkcs8Type)
{
    switch (pkcs8Type) {
    case PKCS8_KEY_RSA: return CKK_RSA;
    case PKCS8_KEY_DSA: return CKK_DSA;
    case PKCS8_KEY_DH: return CKK_DH;
    default: return CKK_X9_42_DH;
    }
}

}  // namespace

CK_RV P11SwPkcs8_encode(P11Obj* key, crypto_bytes* der)
{
    CK_KEY_TYPE keyType = 0;
    CK_RV rv = P11Obj_getUlongValue(key, CKA_KEY_TYPE, &keyType);
    if (rv != CKR_OK) return rv;
    int rc = CRYPTO_ERR_UNSUPPORTED;
    if (keyType == CKK_RSA) {
        pkcs8_rsa k;
        rv = readAll(key, {{CKA_MODULUS, &k.n}, {CKA_PUBLIC_EXPONENT, &k.e}, {CKA_PRIVATE_EXPONENT, &k.d},
                           {CKA_PRIME_1, &k.p}, {CKA_PRIME_2, &k.q}, {CKA_EXPONENT_1, &k.dp},
                           {CKA_EXPONENT_2, &k.dq}, {CKA_COEFFICIENT, &k.qinv}});
        if (rv == CKR_OK) rc = pkcs8_encode_rsa(k, der);
    } else if (keyType == CKK_DSA || keyType == CKK_DH || keyType == CKK_X9_42_DH) {
        pkcs8_ffc k;
        if (keyType == CKK_DH)
            rv = readAll(key, {{CKA_PRIME, &k.p}, {CKA_BASE, &k.g}, {CKA_VALUE, &k.x}});
        else
            rv = readAll(key, {{CKA_PRIME, &k.p}, {CKA_SUBPRIME, &k.q}, {CKA_BASE, &k.g}, {CKA_VALUE, &k.x}});
        if (rv == CKR_OK)
            rc = keyType == CKK_DSA ? pkcs8_encode_dsa(k, der)
                 : keyType == CKK_DH ? pkcs8_encode_dh(k, der)
                                     : pkcs8_encode_x942(k, der);
    }
    if (rv != CKR_OK) return rv;
    if (rc == CRYPTO_ERR_NO_MEMORY) return CKR_HOST_MEMORY;
    return rc == CRYPTO_OK ? CKR_OK : CKR_KEY_NOT_WRAPPABLE;
}

CK_RV P11SwPkcs8_decodeInto(P11Obj* newKey, const crypto_bytes& der)
{
    pkcs8_key k;
    const int rc = pkcs8_decode(der.data(), der.size(), &k);
    if (rc == CRYPTO_ERR_NO_MEMORY) return CKR_HOST_MEMORY;
    if (rc != CRYPTO_OK) return CKR_WRAPPED_KEY_INVALID;
    const CK_KEY_TYPE found = keyTypeOf(k.type);
    const CK_ATTRIBUTE* named = nullptr;
    CK_RV rv = P11Obj_peekAttribute(newKey, CKA_KEY_TYPE, &named);
    if (rv != CKR_OK) return rv;
    if (named) {
        CK_KEY_TYPE keyType = 0;
        rv = P11Obj_getUlongValue(newKey, CKA_KEY_TYPE, &keyType);
        if (rv != CKR_OK) return rv;
        if (keyType != found) return CKR_TEMPLATE_INCONSISTENT;
    } else if ((rv = P11Obj_setUlongValue(newKey, CKA_KEY_TYPE, found)) != CKR_OK) {
        return rv;
    }
    switch (k.type) {
    case PKCS8_KEY_RSA:
        return writeAll(newKey, {{CKA_MODULUS, &k.rsa.n}, {CKA_PUBLIC_EXPONENT, &k.rsa.e},
                                 {CKA_PRIVATE_EXPONENT, &k.rsa.d}, {CKA_PRIME_1, &k.rsa.p}, {CKA_PRIME_2, &k.rsa.q},
                                 {CKA_EXPONENT_1, &k.rsa.dp}, {CKA_EXPONENT_2, &k.rsa.dq},
                                 {CKA_COEFFICIENT, &k.rsa.qinv}});
    case PKCS8_KEY_DH: return writeAll(newKey, {{CKA_PRIME, &k.ffc.p}, {CKA_BASE, &k.ffc.g}, {CKA_VALUE, &k.ffc.x}});
    default:
        return writeAll(newKey, {{CKA_PRIME, &k.ffc.p}, {CKA_SUBPRIME, &k.ffc.q}, {CKA_BASE, &k.ffc.g},
                                 {CKA_VALUE, &k.ffc.x}});
    }
}
