#include "pkcs11/objects/P11Obj.h"

#include <utility>

#include "pkcs11/db/Tavik_p11trace.h"

namespace {

// The object whose member this thread runs under the dispatcher's lock, and
// the dispatcher's lock record, for P11Obj_runUnlocked. Plain pointers: no
// constructor or destructor runs for them.
struct Dispatch {
    P11Obj* object;
    P11LockRecord* record;
};
thread_local Dispatch currentDispatch = {nullptr, nullptr};

// Locks the key, calls one member of its class with the remaining
// arguments, and unlocks on every path. A class without the member (the
// certificate and trust classes have no operations) refuses the use, and a
// key that went away meanwhile is answered as an unknown key.
template <typename Member, typename... Args>
CK_RV dispatchLocked(P11Obj* key, Member P11ObjClass::*member, Args... args)
{
    if (!key || P11Obj_isDead(key)) return CKR_KEY_HANDLE_INVALID;
    const Member function = key->clazz->*member;
    if (!function) return CKR_KEY_FUNCTION_NOT_PERMITTED;
    P11LockRecord record = nullptr;
    CK_RV rv = P11Obj_lock(key, &record);
    if (rv != CKR_OK) return rv;
    if (P11Obj_isDead(key)) {
        rv = CKR_KEY_HANDLE_INVALID;
    } else {
        const Dispatch outer = currentDispatch;
        currentDispatch = {key, &record};
        rv = function(key, args...);
        currentDispatch = outer;
    }
    const CK_RV unlockRv = P11Obj_unlock(key, &record);
    return rv != CKR_OK ? rv : unlockRv;
}

}  // namespace

void P11Obj_retain(P11Obj* object)
{
    object->refs.fetch_add(1, std::memory_order_relaxed);
}

bool P11Obj_isDead(const P11Obj* object)
{
    return object->dead.load(std::memory_order_acquire);
}

void P11Obj_markDead(P11Obj* object)
{
    object->dead.store(true, std::memory_order_release);
}

CK_RV P11Obj_runUnlocked(P11Obj* object, CK_RV (*work)(void* context), void* context)
{
    const Dispatch dispatch = currentDispatch;
    if (dispatch.object != object || !dispatch.record || !*dispatch.record) return work(context);
    CK_RV rv = P11Obj_unlock(object, dispatch.record);
    if (rv != CKR_OK) return rv;
    rv = work(context);
    // A failed lock leaves the record empty, so the dispatcher's unlock
    // then does nothing.
    const CK_RV lockRv = P11Obj_lock(object, dispatch.record);
    return rv != CKR_OK ? rv : lockRv;
}

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
    // An object on its way out is no longer found.
    *match = P11Obj_isDead(object) ? CK_FALSE : CK_TRUE;
    for (CK_ULONG i = 0; i < count && rv == CKR_OK && *match; ++i) rv = P11Obj_compare(object, &attributes[i], match);
    const CK_RV unlockRv = P11Obj_unlock(object, &record);
    return rv != CKR_OK ? rv : unlockRv;
}

CK_RV P11Obj_destruct(P11Obj** object)
{
    if (!object || !*object) return CKR_OK;
    // Nobody else can reach an object whose last reference this is, so no
    // lock is needed to free it.
    if ((*object)->refs.fetch_sub(1, std::memory_order_acq_rel) != 1) {
        *object = nullptr;
        return CKR_OK;
    }
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
    if (!wrappingKey || P11Obj_isDead(wrappingKey)) return CKR_WRAPPING_KEY_HANDLE_INVALID;
    if (!key || P11Obj_isDead(key)) return CKR_KEY_HANDLE_INVALID;
    if (!wrappingKey->clazz->wrapKey) return CKR_KEY_FUNCTION_NOT_PERMITTED;
    // A key wrapping itself is locked once; two keys in one global order,
    // the lower handle first, so that two threads wrapping A with B and B
    // with A cannot wait for each other. Released in reverse order.
    P11Obj* first = wrappingKey;
    P11Obj* second = key == wrappingKey ? nullptr : key;
    if (second && P11Obj_getHandle(second) < P11Obj_getHandle(first)) std::swap(first, second);
    P11LockRecord firstRecord = nullptr;
    P11LockRecord secondRecord = nullptr;
    CK_RV rv = P11Obj_lock(first, &firstRecord);
    if (rv == CKR_OK && second) rv = P11Obj_lock(second, &secondRecord);
    if (rv == CKR_OK && P11Obj_isDead(wrappingKey)) rv = CKR_WRAPPING_KEY_HANDLE_INVALID;
    if (rv == CKR_OK && P11Obj_isDead(key)) rv = CKR_KEY_HANDLE_INVALID;
    if (rv == CKR_OK) rv = wrappingKey->clazz->wrapKey(wrappingKey, session, mechanism, key, out, outLen);
    const CK_RV secondUnlockRv = second ? P11Obj_unlock(second, &secondRecord) : CKR_OK;
    const CK_RV firstUnlockRv = P11Obj_unlock(first, &firstRecord);
    if (rv != CKR_OK) return rv;
    return secondUnlockRv != CKR_OK ? secondUnlockRv : firstUnlockRv;
}
