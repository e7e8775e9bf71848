#pragma once
// Mutexes of the token, its sessions and its objects. Every mutex is made,
// taken and released through the four operations C_Initialize chose: the
// application's callbacks, the library's own POSIX mutexes (I_*Mutex), or
// none at all, in which case every operation succeeds and does nothing.
//
// A lock record is one word owned by the caller: 0 while nothing is held,
// else the handle of the mutex held. Unlocking a 0 record does nothing, so
// every exit path can unlock unconditionally.

#include "pkcs11/cryptoki.h"

typedef CK_VOID_PTR P11MutexHandle;
typedef CK_VOID_PTR P11LockRecord;

extern CK_CREATEMUTEX CreateMutexPointer;
extern CK_DESTROYMUTEX DestroyMutexPointer;
extern CK_LOCKMUTEX LockMutexPointer;
extern CK_UNLOCKMUTEX UnlockMutexPointer;

// Chooses the mutex operations from C_Initialize's arguments.
CK_RV P11_InitializeMutexFuncs(CK_C_INITIALIZE_ARGS_PTR args);

// The library's own mutexes: non-recursive POSIX mutexes.
CK_RV I_CreateMutex(CK_VOID_PTR_PTR mutex);
CK_RV I_DestroyMutex(CK_VOID_PTR mutex);
CK_RV I_LockMutex(CK_VOID_PTR mutex);
CK_RV I_UnlockMutex(CK_VOID_PTR mutex);
// In a forked child only: true when a thread of the parent held the mutex
// at the fork, which is then made usable again (the child has only the
// forking thread, so nobody will ever release it). False, and the mutex is
// left as it was, when it was free.
bool I_ReclaimMutexInChild(CK_VOID_PTR mutex);

CK_RV P11Mutex_construct(P11MutexHandle* mutex);
CK_RV P11Mutex_destruct(P11MutexHandle* mutex);
CK_RV P11Mutex_lock(P11MutexHandle mutex);
CK_RV P11Mutex_unlock(P11MutexHandle mutex);

// The lock-record discipline with its detail trace lines: lock the mutex
// into the record; unlock what the record holds (nothing for a 0 record)
// and clear it. Each text carries one %p: the mutex when locking, `subject`
// when unlocking.
CK_RV P11Mutex_lockRecord(P11MutexHandle mutex, P11LockRecord* record, const char* locking, const char* locked);
CK_RV P11Mutex_unlockRecord(P11LockRecord* record, const void* subject, const char* unlocking, const char* unlocked);

// The global function lock: made and destroyed with the token, never taken.
CK_RV P11_createGlobalLock();
CK_RV P11_createGlobalFunctionLock();
CK_RV P11_destroyGlobalLock();
CK_RV P11_globalLock();
CK_RV P11_globalUnlock();

// Holds a lock record for a scope. release() unlocks at the point of the
// caller's choosing and folds a failed unlock into the result; whatever is
// still held when the scope ends is unlocked then.
template <typename Owner>
class P11LockGuard {
public:
    typedef CK_RV (*LockFunction)(Owner*, P11LockRecord*);

    P11LockGuard(Owner* owner, LockFunction lock, LockFunction unlock) : owner_(owner), lock_(lock), unlock_(unlock) {}
    P11LockGuard(const P11LockGuard&) = delete;
    P11LockGuard& operator=(const P11LockGuard&) = delete;
    ~P11LockGuard() { unlock_(owner_, &record_); }

    CK_RV lock() { return lock_(owner_, &record_); }
    CK_RV release(CK_RV rv)
    {
        const CK_RV unlockRv = unlock_(owner_, &record_);
        record_ = nullptr;  // a failed unlock is reported, not retried
        return rv != CKR_OK ? rv : unlockRv;
    }

private:
    Owner* owner_;
    LockFunction lock_;
    LockFunction unlock_;
    P11LockRecord record_ = nullptr;
};
