#include "pkcs11/sw/P11Sw_keys.h"

#include "crypto/crypto_errors.h"
#include "pkcs11/objects/P11Obj.h"

CK_RV P11SwKeys_readNumber(P11Obj* object, CK_ATTRIBUTE_TYPE type, crypto_bytes* value)
{
    const CK_ATTRIBUTE* attribute = nullptr;
    const CK_RV rv = P11Obj_peekAttribute(object, type, &attribute);
    if (rv != CKR_OK) return rv;
    value->clear();
    if (attribute && attribute->pValue) {
        const CK_BYTE* bytes = static_cast<const CK_BYTE*>(attribute->pValue);
        value->assign(bytes, bytes + attribute->ulValueLen);
    }
    return CKR_OK;
}

CK_RV P11SwKeys_setNumber(P11Obj* object, CK_ATTRIBUTE_TYPE type, const crypto_bytes& value)
{
    return P11Obj_setValue(object, type, value.data(), CK_ULONG(value.size()));
}

CK_RV P11SwKeys_setHead(P11Obj* object, CK_OBJECT_CLASS objectClass, CK_KEY_TYPE keyType, CK_MECHANISM_TYPE mechanism)
{
    CK_RV rv = P11Obj_setUlongValue(object, CKA_CLASS, objectClass);
    if (rv == CKR_OK) rv = P11Obj_setUlongValue(object, CKA_KEY_TYPE, keyType);
    if (rv == CKR_OK) rv = P11Obj_setBoolValue(object, CKA_LOCAL, CK_TRUE);
    if (rv == CKR_OK && objectClass != CKO_DOMAIN_PARAMETERS)
        rv = P11Obj_setUlongValue(object, CKA_KEY_GEN_MECHANISM, mechanism);
    return rv;
}

CK_RV P11SwKeys_code(int cryptoCode)
{
    switch (cryptoCode) {
    case CRYPTO_OK: return CKR_OK;
    case CRYPTO_ERR_NO_MEMORY: return CKR_HOST_MEMORY;
    default: return CKR_FUNCTION_FAILED;
    }
}
