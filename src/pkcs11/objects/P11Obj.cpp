#include "pkcs11/objects/P11Obj.h"

#include "pkcs11/db/Tavik_p11trace.h"

namespace {

// Locks the key, calls one member of its class with the remaining
// arguments, and unlocks on every path. A class without the member (the
// certificate and trust classes have no operations) refuses the use.
template <typename Member, typename... Args>
CK_RV dispatchLocked(P11Obj* key, Member P11ObjClass::*member, Args... args)
{
    if (!key) return CKR_KEY_HANDLE_INVALID;
    const Member function = key->clazz->*member;
    if (!function) return CKR_KEY_FUNCTION_NOT_PERMITTED;
    P11LockRecord record = nullptr;
    CK_RV rv = P11Obj_lock(key, &record);
    if (rv != CKR_OK) return rv;
    rv = function(key, args...);
    const CK_RV unlockRv = P11Obj_unlock(key, &record);
    return rv != CKR_OK ? rv : unlockRv;
}

}  // namespace

CK_OBJECT_HANDLE P11Obj_getHandle(const P11Obj* object)
{
    return object->handle;
}

void P11Obj_setHandle(P11Obj* object, CK_OBJECT_HANDLE handle)
{
    object->handle = handle;
}

CK_RV P11Obj_lock(P11Obj* object, P11LockRecord* record)
{
    return P11Mutex_lockRecord(object->mutex, record, "** Obj locking (%p)", "** Obj locked (%p)");
}

CK_RV P11Obj_unlock(P11Obj* object, P11LockRecord* record)
{
    return P11Mutex_unlockRecord(record, object, "** Obj unlocking (%p)", "** Obj unlocked (%p)");
}

CK_RV P11Obj_peekAttribute(P11Obj* object, CK_ATTRIBUTE_TYPE type, const CK_ATTRIBUTE** attribute)
{
    if (!object) return CKR_OBJECT_HANDLE_INVALID;
    return object->clazz->peekAttribute(object, type, attribute);
}

CK_RV P11Obj_compare(P11Obj* object, const CK_ATTRIBUTE* attribute, CK_BBOOL* match)
{
    if (!object) return CKR_OBJECT_HANDLE_INVALID;
    return object->clazz->compare(object, attribute, match);
}

CK_RV P11Obj_getBoolValue(P11Obj* object, CK_ATTRIBUTE_TYPE type, CK_BBOOL* value)
{
    const CK_ATTRIBUTE* attribute = nullptr;
    const CK_RV rv = P11Obj_peekAttribute(object, type, &attribute);
    if (rv != CKR_OK) return rv;
    if (!attribute) return CKR_TEMPLATE_INCOMPLETE;
    if (attribute->ulValueLen != 1) return CKR_ATTRIBUTE_VALUE_INVALID;
    const CK_BYTE byte = *static_cast<const CK_BYTE*>(attribute->pValue);
    if (byte > 1) return CKR_ATTRIBUTE_VALUE_INVALID;
    *value = byte;
    return CKR_OK;
}

CK_RV P11Obj_isPrivate(P11Obj* object, CK_BBOOL* isPrivate)
{
    P11LockRecord record = nullptr;
    CK_RV rv = P11Obj_lock(object, &record);
    if (rv != CKR_OK) return rv;
    rv = P11Obj_getBoolValue(object, CKA_PRIVATE, isPrivate);
    const CK_RV unlockRv = P11Obj_unlock(object, &record);
    return rv != CKR_OK ? rv : unlockRv;
}

CK_RV P11Obj_compareToTemplate(P11Obj* object, CK_ATTRIBUTE_PTR attributes, CK_ULONG count, CK_BBOOL* match)
{
    P11LockRecord record = nullptr;
    CK_RV rv = P11Obj_lock(object, &record);
    if (rv != CKR_OK) return rv;
    *match = CK_TRUE;
    for (CK_ULONG i = 0; i < count && rv == CKR_OK && *match; ++i) rv = P11Obj_compare(object, &attributes[i], match);
    const CK_RV unlockRv = P11Obj_unlock(object, &record);
    return rv != CKR_OK ? rv : unlockRv;
}

CK_RV P11Obj_destruct(P11Obj** object)
{
    if (!object || !*object) return CKR_OK;
    P11LockRecord record = nullptr;
    CK_RV rv = P11Obj_lock(*object, &record);
    if (rv == CKR_OK) rv = P11Obj_unlock(*object, &record);
    if (rv != CKR_OK) return rv;
    return (*object)->clazz->destruct(object);
}

CK_RV P11Obj_encryptInit(P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism)
{
    return dispatchLocked(key, &P11ObjClass::encryptInit, session, mechanism);
}

CK_RV P11Obj_encrypt(P11Obj* key, P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen)
{
    return dispatchLocked(key, &P11ObjClass::encrypt, session, data, dataLen, out, outLen);
}

CK_RV P11Obj_encryptUpdate(P11Obj* key, P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR out,
                           CK_ULONG_PTR outLen)
{
    return dispatchLocked(key, &P11ObjClass::encryptUpdate, session, data, dataLen, out, outLen);
}

CK_RV P11Obj_encryptFinal(P11Obj* key, P11Session* session, CK_BYTE_PTR out, CK_ULONG_PTR outLen)
{
    return dispatchLocked(key, &P11ObjClass::encryptFinal, session, out, outLen);
}

CK_RV P11Obj_decryptInit(P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism)
{
    return dispatchLocked(key, &P11ObjClass::decryptInit, session, mechanism);
}

CK_RV P11Obj_decrypt(P11Obj* key, P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen)
{
    return dispatchLocked(key, &P11ObjClass::decrypt, session, data, dataLen, out, outLen);
}

CK_RV P11Obj_decryptUpdate(P11Obj* key, P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR out,
                           CK_ULONG_PTR outLen)
{
    return dispatchLocked(key, &P11ObjClass::decryptUpdate, session, data, dataLen, out, outLen);
}

CK_RV P11Obj_decryptFinal(P11Obj* key, P11Session* session, CK_BYTE_PTR out, CK_ULONG_PTR outLen)
{
    return dispatchLocked(key, &P11ObjClass::decryptFinal, session, out, outLen);
}

CK_RV P11Obj_signInit(P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism)
{
    return dispatchLocked(key, &P11ObjClass::signInit, session, mechanism);
}

CK_RV P11Obj_sign(P11Obj* key, P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR signature,
                  CK_ULONG_PTR signatureLen)
{
    return dispatchLocked(key, &P11ObjClass::sign, session, data, dataLen, signature, signatureLen);
}

CK_RV P11Obj_signUpdate(P11Obj* key, P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen)
{
    return dispatchLocked(key, &P11ObjClass::signUpdate, session, data, dataLen);
}

CK_RV P11Obj_signFinal(P11Obj* key, P11Session* session, CK_BYTE_PTR signature, CK_ULONG_PTR signatureLen)
{
    return dispatchLocked(key, &P11ObjClass::signFinal, session, signature, signatureLen);
}

CK_RV P11Obj_signRecoverInit(P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism)
{
    return dispatchLocked(key, &P11ObjClass::signRecoverInit, session, mechanism);
}

CK_RV P11Obj_signRecover(P11Obj* key, P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR signature,
                         CK_ULONG_PTR signatureLen)
{
    return dispatchLocked(key, &P11ObjClass::signRecover, session, data, dataLen, signature, signatureLen);
}

CK_RV P11Obj_verifyInit(P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism)
{
    return dispatchLocked(key, &P11ObjClass::verifyInit, session, mechanism);
}

CK_RV P11Obj_verify(P11Obj* key, P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR signature,
                    CK_ULONG signatureLen)
{
    return dispatchLocked(key, &P11ObjClass::verify, session, data, dataLen, signature, signatureLen);
}

CK_RV P11Obj_verifyUpdate(P11Obj* key, P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen)
{
    return dispatchLocked(key, &P11ObjClass::verifyUpdate, session, data, dataLen);
}

CK_RV P11Obj_verifyFinal(P11Obj* key, P11Session* session, CK_BYTE_PTR signature, CK_ULONG signatureLen)
{
    return dispatchLocked(key, &P11ObjClass::verifyFinal, session, signature, signatureLen);
}

CK_RV P11Obj_verifyRecoverInit(P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism)
{
    return dispatchLocked(key, &P11ObjClass::verifyRecoverInit, session, mechanism);
}

CK_RV P11Obj_verifyRecover(P11Obj* key, P11Session* session, CK_BYTE_PTR signature, CK_ULONG signatureLen, CK_BYTE_PTR data,
                           CK_ULONG_PTR dataLen)
{
    return dispatchLocked(key, &P11ObjClass::verifyRecover, session, signature, signatureLen, data, dataLen);
}

CK_RV P11Obj_deriveKey(P11Obj* baseKey, P11Session* session, CK_MECHANISM_PTR mechanism, P11Obj* newKey)
{
    return dispatchLocked(baseKey, &P11ObjClass::deriveKey, session, mechanism, newKey);
}

CK_RV P11Obj_unwrapKey(P11Obj* unwrappingKey, P11Session* session, CK_MECHANISM_PTR mechanism, CK_BYTE_PTR wrapped,
                       CK_ULONG wrappedLen, P11Obj* newKey)
{
    return dispatchLocked(unwrappingKey, &P11ObjClass::unwrapKey, session, mechanism, wrapped, wrappedLen, newKey);
}

CK_RV P11Obj_generateKey(P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism)
{
    if (!key) return CKR_KEY_HANDLE_INVALID;
    if (!key->clazz->generateKey) return CKR_KEY_FUNCTION_NOT_PERMITTED;
    return key->clazz->generateKey(key, session, mechanism);
}

CK_RV P11Obj_generateKeyPair(P11Obj* privateKey, P11Obj* publicKey, P11Session* session, CK_MECHANISM_PTR mechanism)
{
    if (!privateKey || !publicKey) return CKR_KEY_HANDLE_INVALID;
    if (!privateKey->clazz->generateKeyPair) return CKR_KEY_FUNCTION_NOT_PERMITTED;
    return privateKey->clazz->generateKeyPair(privateKey, publicKey, session, mechanism);
}

CK_RV P11Obj_wrapKey(P11Obj* wrappingKey, P11Session* session, CK_MECHANISM_PTR mechanism, P11Obj* key, CK_BYTE_PTR out,
                     CK_ULONG_PTR outLen)
{
    if (!wrappingKey) return CKR_WRAPPING_KEY_HANDLE_INVALID;
    if (!key) return CKR_KEY_HANDLE_INVALID;
    if (!wrappingKey->clazz->wrapKey) return CKR_KEY_FUNCTION_NOT_PERMITTED;
    // Wrapping key first, then the key to wrap; released in reverse order.
    P11LockRecord wrappingRecord = nullptr;
    P11LockRecord keyRecord = nullptr;
    CK_RV rv = P11Obj_lock(wrappingKey, &wrappingRecord);
    if (rv == CKR_OK) rv = P11Obj_lock(key, &keyRecord);
    if (rv == CKR_OK) rv = wrappingKey->clazz->wrapKey(wrappingKey, session, mechanism, key, out, outLen);
    const CK_RV keyUnlockRv = P11Obj_unlock(key, &keyRecord);
    const CK_RV wrappingUnlockRv = P11Obj_unlock(wrappingKey, &wrappingRecord);
    if (rv != CKR_OK) return rv;
    return keyUnlockRv != CKR_OK ? keyUnlockRv : wrappingUnlockRv;
}
