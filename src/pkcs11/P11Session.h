#pragma once
// One application session on the token: its session objects (public and
// private apart), the one operation that may be active in it, the state of
// an object search and the application's callback data.

#include <atomic>
#include <cstdint>

#include "pkcs11/P11Mutex.h"
#include "pkcs11/cryptoki.h"

struct P11Token;
struct P11Obj;
struct P11ObjList;
struct P11FindContext;
struct P11OperationData;
struct hash_context;

// The active operation of a session.
enum P11Operation : uint32_t {
    P11_OP_NONE = 0,
    P11_OP_FIND = 1,
    P11_OP_ENCRYPT = 2,
    P11_OP_DECRYPT = 3,
    P11_OP_DIGEST = 4,
    P11_OP_SIGN = 5,
    P11_OP_SIGN_RECOVER = 6,
    P11_OP_VERIFY = 7,
    P11_OP_VERIFY_RECOVER = 8,
};

// Who guards what:
//   - set at construction and never changed: token, handle, readWrite,
//     application, notify, deviceError;
//   - the token mutex: the two object lists and userLoggedIn (searches,
//     handle look-ups, login and logout of other sessions reach them
//     without waiting for this session's running operation);
//   - the session mutex: the operation state (activeOperation, findContext,
//     operationData, operationKey, spareHash). It is held for a whole operation call,
//     the helper program's run included, and only by calls on this session:
//     no thread takes it while holding the token mutex, and while holding it
//     a thread takes only object mutexes and the handle mutex.
//
// Lifetime: reference counted like objects. The token's session list holds
// one reference, every call that found the session by handle one more. A
// closed session leaves the list and the handle index at once and its
// objects die, all under the token mutex; a call still running in it
// finishes, and the record (its operation state and its mutex) is freed
// when the last reference goes. Calls that lock a closed session answer
// CKR_SESSION_CLOSED.
//
// A record fills whole cache lines, so that two threads working in two
// sessions do not share one.
struct alignas(64) P11Session {
    P11Token* token;
    CK_SESSION_HANDLE handle;
    P11ObjList* publicObjects;
    P11ObjList* privateObjects;   // only while the user is logged in
    uint32_t activeOperation;
    P11FindContext* findContext;
    CK_BBOOL readWrite;
    CK_BBOOL userLoggedIn;
    CK_ULONG deviceError;
    CK_VOID_PTR application;
    CK_NOTIFY notify;
    P11OperationData* operationData;
    P11Obj* operationKey;         // holds a reference while the operation runs
    hash_context* spareHash;      // the last finished digest's context, for the next digest
    P11MutexHandle mutex;
    std::atomic<long> refs{1};
    std::atomic<bool> closed{false};
};

CK_RV P11Session_construct(P11Session** session, P11Token* token, CK_SESSION_HANDLE handle, bool readWrite,
                           CK_VOID_PTR application, CK_NOTIFY notify, bool userLoggedIn);
// Frees the record and what it still owns; P11Session_release calls it
// when the last reference goes.
CK_RV P11Session_destruct(P11Session** session);
void P11Session_retain(P11Session* session);
// Drops one reference and clears the pointer. Null is fine.
CK_RV P11Session_release(P11Session** session);
// Removes the session from the token and drops the list's reference.
CK_RV P11Session_closeSession(P11Session* session);
// Marks the session closed and kills its objects (unknown handles from now
// on). The caller holds the token mutex and takes it out of the list.
void P11Session_close_inlock(P11Session* session);
CK_RV P11Session_getSessionInfo(P11Session* session, CK_SESSION_INFO_PTR info);

P11Token* P11Session_getToken(P11Session* session);
CK_SESSION_HANDLE P11Session_getHandle(P11Session* session);
bool P11Session_isReadWrite(P11Session* session);
CK_NOTIFY P11Session_getProgressFunc(P11Session* session);

// The operation-state slot used by the mechanisms.
CK_RV P11Session_setOperationData(P11Session* session, P11OperationData* data);
P11OperationData* P11Session_peekOperationData(P11Session* session);
CK_RV P11Session_freeOperationData(P11Session* session);

CK_RV P11Session_lock(P11Session* session, P11LockRecord* record);
CK_RV P11Session_unlock(P11Session* session, P11LockRecord* record);

CK_RV P11Session_login(P11Session* session, CK_USER_TYPE userType, CK_UTF8CHAR_PTR pin, CK_ULONG pinLen);
CK_RV P11Session_logout(P11Session* session);
CK_RV P11Session_setPIN(P11Session* session, CK_UTF8CHAR_PTR oldPin, CK_ULONG oldLen, CK_UTF8CHAR_PTR newPin, CK_ULONG newLen);
CK_RV P11Session_initPIN(P11Session* session, CK_UTF8CHAR_PTR pin, CK_ULONG pinLen);
// Called by the token, which holds its mutex, for every session when the
// user logs in and out.
CK_RV P11Session_doLogin_inlock(P11Session* session);
CK_RV P11Session_doLogout_inlock(P11Session* session);
CK_RV P11Session_generateRandom(P11Session* session, CK_BYTE_PTR buffer, CK_ULONG length);
CK_RV P11Session_seedRandom(P11Session* session, CK_BYTE_PTR seed, CK_ULONG length);

// Gives the object a handle and registers it as one of the session's
// objects (the session's list takes a reference of its own).
CK_RV P11Session_addObject(P11Session* session, P11Obj* object);
// Takes a live object out of the session's lists, handing the list's
// reference back to the caller. The caller holds the token mutex.
CK_RV P11Session_removeObject_inlock(P11Session* session, P11Obj* object);
// Destroys the object, consuming the caller's reference to it.
CK_RV P11Session_destroyObject(P11Session* session, P11Obj* object);

CK_RV P11Session_findObjectsInit(P11Session* session, CK_ATTRIBUTE_PTR attributes, CK_ULONG count);
// Offers the session's objects to a search; the caller holds the token mutex.
CK_RV P11Session_doFindObjects_inlock(P11Session* session, P11FindContext* context);
CK_RV P11Session_findObjects(P11Session* session, CK_OBJECT_HANDLE_PTR objects, CK_ULONG max, CK_ULONG_PTR count);
CK_RV P11Session_findObjectsFinal(P11Session* session);

CK_RV P11Session_encryptInit(P11Session* session, P11Obj* key, CK_MECHANISM_PTR mechanism);
CK_RV P11Session_encrypt(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen);
CK_RV P11Session_encryptUpdate(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen);
CK_RV P11Session_encryptFinal(P11Session* session, CK_BYTE_PTR out, CK_ULONG_PTR outLen);
CK_RV P11Session_decryptInit(P11Session* session, P11Obj* key, CK_MECHANISM_PTR mechanism);
CK_RV P11Session_decrypt(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen);
CK_RV P11Session_decryptUpdate(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen);
CK_RV P11Session_decryptFinal(P11Session* session, CK_BYTE_PTR out, CK_ULONG_PTR outLen);
CK_RV P11Session_signInit(P11Session* session, P11Obj* key, CK_MECHANISM_PTR mechanism);
CK_RV P11Session_sign(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR signature, CK_ULONG_PTR signatureLen);
CK_RV P11Session_signUpdate(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen);
CK_RV P11Session_signFinal(P11Session* session, CK_BYTE_PTR signature, CK_ULONG_PTR signatureLen);
CK_RV P11Session_signRecoverInit(P11Session* session, P11Obj* key, CK_MECHANISM_PTR mechanism);
CK_RV P11Session_signRecover(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR signature, CK_ULONG_PTR signatureLen);
CK_RV P11Session_verifyInit(P11Session* session, P11Obj* key, CK_MECHANISM_PTR mechanism);
CK_RV P11Session_verify(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR signature, CK_ULONG signatureLen);
CK_RV P11Session_verifyUpdate(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen);
CK_RV P11Session_verifyFinal(P11Session* session, CK_BYTE_PTR signature, CK_ULONG signatureLen);
CK_RV P11Session_verifyRecoverInit(P11Session* session, P11Obj* key, CK_MECHANISM_PTR mechanism);
CK_RV P11Session_verifyRecover(P11Session* session, CK_BYTE_PTR signature, CK_ULONG signatureLen, CK_BYTE_PTR data, CK_ULONG_PTR dataLen);
CK_RV P11Session_digestInit(P11Session* session, CK_MECHANISM_PTR mechanism);
CK_RV P11Session_digest(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR digest, CK_ULONG_PTR digestLen);
CK_RV P11Session_digestUpdate(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen);
CK_RV P11Session_digestKey(P11Session* session, P11Obj* key);
CK_RV P11Session_digestFinal(P11Session* session, CK_BYTE_PTR digest, CK_ULONG_PTR digestLen);

// The digest mechanisms, run with the session locked.
CK_RV P11Session_digestInit_do(P11Session* session, CK_MECHANISM_PTR mechanism);
CK_RV P11Session_digestUpdate_do(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen);
CK_RV P11Session_digestKey_do(P11Session* session, P11Obj* key);
CK_RV P11Session_digest_do(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen);
CK_RV P11Session_digestFinal_do(P11Session* session, CK_BYTE_PTR out, CK_ULONG_PTR outLen);
