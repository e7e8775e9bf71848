// Describes an object for the call trace through the token's own lookup.

#include "deps/cpp_modules/ByteArray.h"
#include "pkcs11/P11Token.h"
#include "pkcs11/db/Tavik_p11trace.h"
#include "pkcs11/objects/P11Obj.h"

bool P11Trace_describeObject(P11Token* token, CK_OBJECT_HANDLE handle, std::string* label, std::string* idHex)
{
    P11Obj* object = nullptr;
    if (P11Token_findObjectHandle(token, handle, &object) != CKR_OK || !object) return false;
    // Read under the object's lock, with the reference the lookup gave us.
    P11LockRecord record = nullptr;
    if (P11Obj_lock(object, &record) == CKR_OK) {
        const CK_ATTRIBUTE* attribute = nullptr;
        if (P11Obj_peekAttribute(object, CKA_LABEL, &attribute) == CKR_OK && attribute && attribute->pValue)
            label->assign(static_cast<const char*>(attribute->pValue), attribute->ulValueLen);
        attribute = nullptr;
        if (P11Obj_peekAttribute(object, CKA_ID, &attribute) == CKR_OK && attribute && attribute->pValue)
            *idHex = ByteArray_constSlice(static_cast<const uint8_t*>(attribute->pValue), attribute->ulValueLen).toHex();
        P11Obj_unlock(object, &record);
    }
    P11Obj_destruct(&object);
    return true;
}
