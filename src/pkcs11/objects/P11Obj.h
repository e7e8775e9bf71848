#pragma once
// P11Obj: every PKCS#11 object (data, certificate, key, trust object). Its
// first member points at a static class record of operations; the generic
// P11Obj_* functions below are the only way the rest of the library touches
// an object: they take the object's lock and dispatch through the record.

#include <atomic>
#include <cstdint>

#include "pkcs11/P11Mutex.h"
#include "pkcs11/cryptoki.h"

struct P11Token;
struct P11Session;
struct P11Obj;

struct P11ObjClass {
    const char* name;
    CK_RV (*destruct)(P11Obj** object);
    CK_RV (*setAttribute)(P11Obj* object, const CK_ATTRIBUTE* attribute);
    CK_RV (*getAttribute)(P11Obj* object, CK_ATTRIBUTE* attribute);
    CK_RV (*peekAttribute)(P11Obj* object, CK_ATTRIBUTE_TYPE type, const CK_ATTRIBUTE** attribute);
    CK_RV (*copy)(P11Obj* source, P11Obj* destination);
    CK_RV (*compare)(P11Obj* object, const CK_ATTRIBUTE* attribute, CK_BBOOL* match);
    CK_RV (*enumAttributes)(P11Obj* object, uint32_t* cursor, const CK_ATTRIBUTE** attribute);
    CK_RV (*getAttributeCount)(P11Obj* object, CK_ULONG* count);
    CK_RV (*generateKey)(P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism);
    CK_RV (*generateKeyPair)(P11Obj* privateKey, P11Obj* publicKey, P11Session* session, CK_MECHANISM_PTR mechanism);
    CK_RV (*encryptInit)(P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism);
    CK_RV (*encrypt)(P11Obj* key, P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen);
    CK_RV (*encryptUpdate)(P11Obj* key, P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen);
    CK_RV (*encryptFinal)(P11Obj* key, P11Session* session, CK_BYTE_PTR out, CK_ULONG_PTR outLen);
    CK_RV (*decryptInit)(P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism);
    CK_RV (*decrypt)(P11Obj* key, P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen);
    CK_RV (*decryptUpdate)(P11Obj* key, P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen);
    CK_RV (*decryptFinal)(P11Obj* key, P11Session* session, CK_BYTE_PTR out, CK_ULONG_PTR outLen);
    CK_RV (*signInit)(P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism);
    CK_RV (*sign)(P11Obj* key, P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR signature, CK_ULONG_PTR signatureLen);
    CK_RV (*signUpdate)(P11Obj* key, P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen);
    CK_RV (*signFinal)(P11Obj* key, P11Session* session, CK_BYTE_PTR signature, CK_ULONG_PTR signatureLen);
    CK_RV (*signRecoverInit)(P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism);
    CK_RV (*signRecover)(P11Obj* key, P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR signature, CK_ULONG_PTR signatureLen);
    CK_RV (*verifyInit)(P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism);
    CK_RV (*verify)(P11Obj* key, P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR signature, CK_ULONG signatureLen);
    CK_RV (*verifyUpdate)(P11Obj* key, P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen);
    CK_RV (*verifyFinal)(P11Obj* key, P11Session* session, CK_BYTE_PTR signature, CK_ULONG signatureLen);
    CK_RV (*verifyRecoverInit)(P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism);
    CK_RV (*verifyRecover)(P11Obj* key, P11Session* session, CK_BYTE_PTR signature, CK_ULONG signatureLen, CK_BYTE_PTR data, CK_ULONG_PTR dataLen);
    CK_RV (*deriveKey)(P11Obj* baseKey, P11Session* session, CK_MECHANISM_PTR mechanism, P11Obj* newKey);
    CK_RV (*wrapKey)(P11Obj* wrappingKey, P11Session* session, CK_MECHANISM_PTR mechanism, P11Obj* key, CK_BYTE_PTR out, CK_ULONG_PTR outLen);
    CK_RV (*unwrapKey)(P11Obj* unwrappingKey, P11Session* session, CK_MECHANISM_PTR mechanism, CK_BYTE_PTR wrapped, CK_ULONG wrappedLen, P11Obj* newKey);
};

// The common header of every object; each class's record extends it.
//
// Lifetime: an object is reference counted. Its constructor hands out the
// first reference; the list that holds it (a session's, the token
// database's) holds one, every call that found it by handle holds one until
// it returns, and a session's running operation holds one on its key. The
// record is freed when the last reference goes (P11Obj_destruct), so a call
// never sees the memory of an object another thread destroyed.
//
// An object that leaves its list (destroyed, its session closed, the user
// logged out, its certificate gone) is marked dead at once, under the token
// mutex; a call that still holds it answers as if the handle were unknown.
//
// The object mutex guards the attributes and serialises the operations
// dispatched to the object. Lock order: it is taken after the token mutex
// or a session mutex, never before them, and at most two object mutexes
// are held at once (C_WrapKey: the lower handle first). While holding it a
// thread may take only the handle mutex (random numbers), so a member that
// makes objects of its own registers them (token mutex) through
// P11Obj_runUnlocked. It is never held while the helper program runs.
struct P11Obj {
    const P11ObjClass* clazz;
    P11Token* token;        // owner of a token object
    P11Session* session;    // owner of a session object; read only while not dead
    CK_OBJECT_HANDLE handle;
    uint64_t dbid;
    P11MutexHandle mutex;
    std::atomic<long> refs{1};
    std::atomic<bool> dead{false};
};

CK_OBJECT_HANDLE P11Obj_getHandle(const P11Obj* object);
void P11Obj_setHandle(P11Obj* object, CK_OBJECT_HANDLE handle);

// The object's own lock; the lock record discipline of P11Mutex.h.
CK_RV P11Obj_lock(P11Obj* object, P11LockRecord* record);
CK_RV P11Obj_unlock(P11Obj* object, P11LockRecord* record);

// Attribute members. Peek, compare, enumerate and count call the member
// directly; getAttribute does not even test the object; copy locks the
// source; setAttribute takes the write lock (the token database lock for a
// token object, nothing for a session object).
CK_RV P11Obj_getAttribute(P11Obj* object, CK_ATTRIBUTE* attribute);
CK_RV P11Obj_setAttribute(P11Obj* object, const CK_ATTRIBUTE* attribute);
CK_RV P11Obj_copy(P11Obj* source, P11Obj* destination);
CK_RV P11Obj_enumAttributes(P11Obj* object, uint32_t* cursor, const CK_ATTRIBUTE** attribute);
CK_RV P11Obj_getAttributeCount(P11Obj* object, CK_ULONG* count);
CK_RV P11Obj_lockWrite(P11Obj* object, P11LockRecord* record);
CK_RV P11Obj_unlockWrite(P11Obj* object, P11LockRecord* record);
// Applies every template entry with setAttribute, stopping at the first failure.
CK_RV P11Obj_setAttributesfromTemplate(P11Obj* object, CK_ATTRIBUTE_PTR attributes, CK_ULONG count);

// Typed accessors over peekAttribute.
CK_RV P11Obj_getUlongValue(P11Obj* object, CK_ATTRIBUTE_TYPE type, CK_ULONG* value);
CK_RV P11Obj_getAttributeSize(P11Obj* object, CK_ATTRIBUTE_TYPE type, CK_ULONG* length);
CK_RV P11Obj_getValue(P11Obj* object, CK_ATTRIBUTE_TYPE type, CK_BYTE_PTR buffer, CK_ULONG_PTR length);
CK_RV P11Obj_setValue(P11Obj* object, CK_ATTRIBUTE_TYPE type, const void* bytes, CK_ULONG length);
CK_RV P11Obj_setUlongValue(P11Obj* object, CK_ATTRIBUTE_TYPE type, CK_ULONG value);
CK_RV P11Obj_setBoolValue(P11Obj* object, CK_ATTRIBUTE_TYPE type, CK_BBOOL value);
// Secret-key length by key type (CKA_VALUE_LEN where the type has no fixed one).
CK_RV P11Obj_getKeyValueLength(P11Obj* object, CK_ULONG* length);
// CKA_VALUE from the first (takeLeading) or last key-length bytes.
CK_RV P11Obj_setKeyValue(P11Obj* object, const CK_BYTE* bytes, CK_ULONG length, bool takeLeading);

// Completion and ownership.
CK_RV P11Obj_completeObject(P11Obj* object, P11Session* session, P11Token* token);
CK_RV P11Obj_addObject(P11Obj* object, P11Session* session);
CK_RV P11Obj_removeObject(P11Obj* object, P11Session* session);

// Lifetime (see P11Obj above). P11Obj_destruct drops one reference.
void P11Obj_retain(P11Obj* object);
bool P11Obj_isDead(const P11Obj* object);
void P11Obj_markDead(P11Obj* object);

// For a member that must wait on something slow (the helper program) while
// its dispatcher holds the object's mutex: runs `work` with that mutex
// released and takes it back afterwards, so that searches and attribute
// reads of the object go on meanwhile. `work` must not touch the object:
// what it needs is copied before. Outside a dispatched member it just runs
// `work`. If the mutex cannot be taken back (a failing application lock
// callback), that failure is returned and the dispatcher does not unlock.
CK_RV P11Obj_runUnlocked(P11Obj* object, CK_RV (*work)(void* context), void* context);
template <typename Work>
CK_RV P11Obj_runUnlocked(P11Obj* object, Work work)
{
    return P11Obj_runUnlocked(
        object, [](void* context) { return (*static_cast<Work*>(context))(); }, &work);
}

// Peek, compare and typed reads without locking.
CK_RV P11Obj_peekAttribute(P11Obj* object, CK_ATTRIBUTE_TYPE type, const CK_ATTRIBUTE** attribute);
CK_RV P11Obj_compare(P11Obj* object, const CK_ATTRIBUTE* attribute, CK_BBOOL* match);
CK_RV P11Obj_getBoolValue(P11Obj* object, CK_ATTRIBUTE_TYPE type, CK_BBOOL* value);
// CKA_PRIVATE, under the object lock.
CK_RV P11Obj_isPrivate(P11Obj* object, CK_BBOOL* isPrivate);
// True when every template entry is held with equal bytes; an empty
// template matches everything.
CK_RV P11Obj_compareToTemplate(P11Obj* object, CK_ATTRIBUTE_PTR attributes, CK_ULONG count, CK_BBOOL* match);
// Drops one reference and clears the pointer; the last one frees the
// object through its class. Null is fine.
CK_RV P11Obj_destruct(P11Obj** object);

// Dispatchers of the cryptographic members: the object is locked for the
// member call. A null key, or one that went away, gives
// CKR_KEY_HANDLE_INVALID.
CK_RV P11Obj_encryptInit(P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism);
CK_RV P11Obj_encrypt(P11Obj* key, P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen);
CK_RV P11Obj_encryptUpdate(P11Obj* key, P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen);
CK_RV P11Obj_encryptFinal(P11Obj* key, P11Session* session, CK_BYTE_PTR out, CK_ULONG_PTR outLen);
CK_RV P11Obj_decryptInit(P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism);
CK_RV P11Obj_decrypt(P11Obj* key, P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen);
CK_RV P11Obj_decryptUpdate(P11Obj* key, P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen);
CK_RV P11Obj_decryptFinal(P11Obj* key, P11Session* session, CK_BYTE_PTR out, CK_ULONG_PTR outLen);
CK_RV P11Obj_signInit(P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism);
CK_RV P11Obj_sign(P11Obj* key, P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR signature, CK_ULONG_PTR signatureLen);
CK_RV P11Obj_signUpdate(P11Obj* key, P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen);
CK_RV P11Obj_signFinal(P11Obj* key, P11Session* session, CK_BYTE_PTR signature, CK_ULONG_PTR signatureLen);
CK_RV P11Obj_signRecoverInit(P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism);
CK_RV P11Obj_signRecover(P11Obj* key, P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR signature, CK_ULONG_PTR signatureLen);
CK_RV P11Obj_verifyInit(P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism);
CK_RV P11Obj_verify(P11Obj* key, P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR signature, CK_ULONG signatureLen);
CK_RV P11Obj_verifyUpdate(P11Obj* key, P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen);
CK_RV P11Obj_verifyFinal(P11Obj* key, P11Session* session, CK_BYTE_PTR signature, CK_ULONG signatureLen);
CK_RV P11Obj_verifyRecoverInit(P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism);
CK_RV P11Obj_verifyRecover(P11Obj* key, P11Session* session, CK_BYTE_PTR signature, CK_ULONG signatureLen, CK_BYTE_PTR data, CK_ULONG_PTR dataLen);
CK_RV P11Obj_deriveKey(P11Obj* baseKey, P11Session* session, CK_MECHANISM_PTR mechanism, P11Obj* newKey);
CK_RV P11Obj_unwrapKey(P11Obj* unwrappingKey, P11Session* session, CK_MECHANISM_PTR mechanism, CK_BYTE_PTR wrapped,
                       CK_ULONG wrappedLen, P11Obj* newKey);
// Key generation dispatches without locking (the new objects are not yet
// reachable); the pair goes through the private key's class.
CK_RV P11Obj_generateKey(P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism);
CK_RV P11Obj_generateKeyPair(P11Obj* privateKey, P11Obj* publicKey, P11Session* session, CK_MECHANISM_PTR mechanism);
CK_RV P11Obj_wrapKey(P11Obj* wrappingKey, P11Session* session, CK_MECHANISM_PTR mechanism, P11Obj* key, CK_BYTE_PTR out, CK_ULONG_PTR outLen);

// The object-level halves of the object-creating and attribute calls.
CK_RV P11Obj_createObject(P11Obj* object, P11Session* session, CK_ATTRIBUTE_PTR attributes, CK_ULONG count);
CK_RV P11Obj_copyObject(P11Obj* source, P11Obj* object, P11Session* session, CK_ATTRIBUTE_PTR attributes, CK_ULONG count);
CK_RV P11Obj_createAndGenerateKey(P11Obj* object, CK_MECHANISM_PTR mechanism, CK_ATTRIBUTE_PTR attributes, CK_ULONG count, P11Session* session);
CK_RV P11Obj_createAndGenerateKeyPair(P11Obj* publicKey, P11Obj* privateKey, CK_MECHANISM_PTR mechanism,
                                      CK_ATTRIBUTE_PTR publicAttributes, CK_ULONG publicCount,
                                      CK_ATTRIBUTE_PTR privateAttributes, CK_ULONG privateCount, P11Session* session);
CK_RV P11Obj_createAndUnwrapKey(P11Obj* unwrappingKey, CK_MECHANISM_PTR mechanism, CK_ATTRIBUTE_PTR attributes, CK_ULONG count,
                                P11Session* session, CK_BYTE_PTR wrapped, CK_ULONG wrappedLen, P11Obj* object);
CK_RV P11Obj_createAndDeriveKey(P11Obj* baseKey, CK_MECHANISM_PTR mechanism, CK_ATTRIBUTE_PTR attributes, CK_ULONG count,
                                P11Session* session, P11Obj* object);
// Takes the object out of its owner's list and drops the caller's
// reference (on every path).
CK_RV P11Obj_destroyObject(P11Obj** object, P11Session* session);
CK_RV P11Obj_getAttributeValues(P11Obj* object, CK_ATTRIBUTE_PTR attributes, CK_ULONG count);
CK_RV P11Obj_setAttributeValues(P11Obj* object, CK_ATTRIBUTE_PTR attributes, CK_ULONG count);

// An empty software object for the creating calls to fill.
CK_RV P11Obj_SW_construct(P11Obj** object);
CK_RV P11Obj_SW_destruct(P11Obj** object);
