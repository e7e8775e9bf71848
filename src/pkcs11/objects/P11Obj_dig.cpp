#include "pkcs11/objects/P11Obj_dig.h"

#include "crypto/crypto_errors.h"
#include "crypto/map.h"
#include "pkcs11/objects/P11Obj.h"

#include <openssl/crypto.h>

#include <memory>
#include <new>

namespace {

CK_RV toRv(int rc)
{
    if (rc == CRYPTO_OK) return CKR_OK;
    return rc == CRYPTO_ERR_NO_MEMORY ? CKR_HOST_MEMORY : CKR_GENERAL_ERROR;
}

}  // namespace

CK_RV P11Obj_setDigValue(P11Obj* object, CK_ATTRIBUTE_TYPE type, const map_int* value)
{
    if (!value) return CKR_GENERAL_ERROR;
    size_t length = map_num_bytes(value);
    if (length == 0) {
        const CK_BYTE zero = 0;
        return P11Obj_setValue(object, type, &zero, 1);
    }
    std::unique_ptr<CK_BYTE[]> bytes(new (std::nothrow) CK_BYTE[length]);
    if (!bytes) return CKR_HOST_MEMORY;
    CK_RV rv = map_to_bytes(value, bytes.get(), &length) == CRYPTO_OK ? CKR_OK : CKR_GENERAL_ERROR;
    if (rv == CKR_OK) rv = P11Obj_setValue(object, type, bytes.get(), length);
    OPENSSL_cleanse(bytes.get(), length);  // may be a private exponent or prime
    return rv;
}

CK_RV P11Obj_getAttributeAsDig(P11Obj* object, CK_ATTRIBUTE_TYPE type, map_int* value)
{
    const CK_ATTRIBUTE* attribute = nullptr;
    const CK_RV rv = P11Obj_peekAttribute(object, type, &attribute);
    if (rv != CKR_OK) return rv;
    if (!attribute) return CKR_TEMPLATE_INCOMPLETE;
    return toRv(map_from_bytes(value, static_cast<const unsigned char*>(attribute->pValue), attribute->ulValueLen));
}

CK_RV P11Obj_getAndAllocAttributeAsDig(P11Obj* object, CK_ATTRIBUTE_TYPE type, map_int** value)
{
    *value = nullptr;
    map_int* number = nullptr;
    CK_RV rv = toRv(map_new(&number));
    if (rv == CKR_OK) rv = P11Obj_getAttributeAsDig(object, type, number);
    if (rv != CKR_OK) {
        map_free(number);
        return rv;
    }
    *value = number;
    return CKR_OK;
}
