#pragma once
// The library's one token, in slot 0. It owns the token database, the random
// generator, the open sessions, the login state, the counter from which every
// session and object handle is drawn, and the token and handle mutexes.

#include <atomic>

#include "pkcs11/P11Mutex.h"
#include "pkcs11/cryptoki.h"

struct P11DB;
struct P11Session;
struct P11SessionList;
struct P11Obj;
struct P11FindContext;
struct csprgbg_state;
struct P11HandleIndex;

// The lock contract, in lock order:
//
//  1. The token mutex guards the session list, the counts, the login flags,
//     the handle index's entries, every session's object lists and the token
//     database's objects (their refresh included). It is held for look-ups
//     and list changes only: never while a session mutex is requested, never
//     while the helper program runs, never while an application callback
//     other than the mutex callbacks runs. Under it a thread may take object
//     mutexes (a search compares objects), the handle mutex and the index's
//     shard locks.
//  2. A session mutex guards that session's running operation (see
//     P11Session); it may be held a long time, and nothing but calls on its
//     own session waits for it.
//  3. Object mutexes (see P11Obj), at most two, the lower handle first.
//  4. The handle mutex guards the handle counter and the token's random
//     generator; under it nothing else is taken. Bulk random bytes are made
//     outside it (P11Token_generateRandom).
//  5. The handle index's shard locks (library locking only), innermost.
//
// Sessions and objects found by handle are reference counted (P11Session,
// P11Obj): a call holds what it found until it returns, whatever other
// threads close, destroy, log out or refresh meanwhile.
//
// With the library's own locking, fork handlers take the token mutex, the
// handle mutex and the shard locks around a fork; the child then sets aside
// sessions and objects whose mutex a thread of the parent held, so no call
// of the child waits for a thread it does not have.
struct P11Token {
    P11DB* database;
    csprgbg_state* rng;
    P11SessionList* sessions;
    P11HandleIndex* index;
    // Changed under the token mutex; C_GetTokenInfo reads them without it.
    std::atomic<CK_ULONG> sessionCount{0};
    std::atomic<CK_ULONG> rwSessionCount{0};
    P11MutexHandle tokenMutex;
    P11MutexHandle handleMutex;   // also serialises the random generator
    CK_ULONG handleCounter;       // last handle issued
    CK_BBOOL userLoggedIn;
    CK_BBOOL soLoggedIn;
};

CK_RV P11Token_construct(P11Token** token);
CK_RV P11Token_destruct(P11Token** token);

CK_RV P11Token_isPresent(P11Token* token, CK_BBOOL* present);
CK_RV P11Token_getSlotID(P11Token* token, CK_SLOT_ID* slot);
CK_RV P11Token_getSlotInfo(P11Token* token, CK_SLOT_INFO_PTR info);
CK_RV P11Token_getTokenInfo(P11Token* token, CK_TOKEN_INFO_PTR info);
CK_RV P11Token_getMechanismList(P11Token* token, CK_MECHANISM_TYPE_PTR list, CK_ULONG_PTR count);
CK_RV P11Token_getMechanismInfo(P11Token* token, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO_PTR info);
CK_RV P11Token_waitForSlotEvent(P11Token* token, CK_FLAGS flags, CK_SLOT_ID_PTR slot);

// The new session comes with a reference for the caller (P11Session_release).
CK_RV P11Token_openSession(P11Token* token, CK_FLAGS flags, CK_VOID_PTR application, CK_NOTIFY notify,
                           P11Session** session);
CK_RV P11Token_removeSession(P11Token* token, P11Session* session);
CK_RV P11Token_closeAllSessions(P11Token* token);

CK_RV P11Token_login(P11Token* token, CK_USER_TYPE userType, CK_UTF8CHAR_PTR pin, CK_ULONG pinLen);
CK_RV P11Token_logout(P11Token* token);
CK_RV P11Token_logout_do(P11Token* token);
CK_RV P11Token_isLoggedIn(P11Token* token, CK_BBOOL* loggedIn, CK_BBOOL* isUser);
CK_RV P11Token_setPIN(P11Token* token, CK_UTF8CHAR_PTR oldPin, CK_ULONG oldLen, CK_UTF8CHAR_PTR newPin, CK_ULONG newLen);
CK_RV P11Token_initPIN(P11Token* token, CK_UTF8CHAR_PTR pin, CK_ULONG pinLen);
CK_RV P11Token_initToken(P11Token* token, CK_UTF8CHAR_PTR soPin, CK_ULONG soPinLen, CK_UTF8CHAR_PTR label);

CK_RV P11Token_generateRandom(P11Token* token, CK_BYTE_PTR buffer, CK_ULONG length);
CK_RV P11Token_seedRandom(P11Token* token, CK_BYTE_PTR seed, CK_ULONG length);
// Seeds a new generator state with 128 bytes of the token's generator.
CK_RV P11Token_seedRNG(P11Token* token, csprgbg_state** rng);

CK_RV P11Token_getNewSessionHandle(P11Token* token, CK_SESSION_HANDLE* handle);
CK_RV P11Token_getNewObjectHandle(P11Token* token, CK_OBJECT_HANDLE* handle);
// Unknown session: CKR_SESSION_CLOSED; unknown object: CKR_OBJECT_HANDLE_INVALID.
// What they find carries a reference for the caller, who lets it go with
// P11Session_release or P11Obj_destruct.
CK_RV P11Token_sessionHandleToPointer(P11Token* token, CK_SESSION_HANDLE handle, P11Session** session);
CK_RV P11Token_objectHandleToPointer(P11Token* token, CK_OBJECT_HANDLE handle, P11Obj** object);
CK_RV P11Token_sessionPointerToHandle(P11Token* token, P11Session* session, CK_SESSION_HANDLE* handle);
CK_RV P11Token_objectPointerToHandle(P11Token* token, P11Obj* object, CK_OBJECT_HANDLE* handle);
// As above, null when not found.
CK_RV P11Token_findSessionHandle(P11Token* token, CK_SESSION_HANDLE handle, P11Session** session);
CK_RV P11Token_findObjectHandle(P11Token* token, CK_OBJECT_HANDLE handle, P11Obj** object);
// Makes an object reachable by its handle, or no longer; the caller holds
// the token mutex.
CK_RV P11Token_indexObject_inlock(P11Token* token, P11Obj* object);
void P11Token_unindex_inlock(P11Token* token, CK_ULONG handle);

CK_RV P11Token_findObjects(P11Token* token, P11FindContext* context);
CK_RV P11Token_addObject(P11Token* token, P11Obj* object);
// Takes a session object out of its session: its handle is forgotten, it
// is dead for calls still holding it, and its session's reference goes.
// CKR_OBJECT_HANDLE_INVALID when another thread was first.
CK_RV P11Token_removeSessionObject(P11Token* token, P11Obj* object);
CK_RV P11Token_removeObject(P11Token* token, P11Obj* object);
CK_RV P11Token_storeObject(P11Token* token, P11Obj* object);

CK_RV P11Token_lock(P11Token* token, P11LockRecord* record);
CK_RV P11Token_unlock(P11Token* token, P11LockRecord* record);
CK_RV P11Token_lockdb(P11Token* token, P11LockRecord* record);
CK_RV P11Token_unlockdb(P11Token* token, P11LockRecord* record);
CK_RV P11TokenObjectHandleCnt_lock(P11Token* token, P11LockRecord* record);
CK_RV P11TokenObjectHandleCnt_unlock(P11Token* token, P11LockRecord* record);
CK_RV P11Token_global_lock(P11Token* token);
CK_RV P11Token_global_unlock(P11Token* token);

// The identification texts shared with CK_INFO.
extern const CK_UTF8CHAR manufacturerID[32];
