#include "pkcs11/P11Mutex.h"

#include <pthread.h>

#include <new>

#include "pkcs11/db/Tavik_p11trace.h"

CK_CREATEMUTEX CreateMutexPointer = nullptr;
CK_DESTROYMUTEX DestroyMutexPointer = nullptr;
CK_LOCKMUTEX LockMutexPointer = nullptr;
CK_UNLOCKMUTEX UnlockMutexPointer = nullptr;

namespace {

void chooseMutexFuncs(CK_CREATEMUTEX create, CK_DESTROYMUTEX destroy, CK_LOCKMUTEX lock, CK_UNLOCKMUTEX unlock)
{
    CreateMutexPointer = create;
    DestroyMutexPointer = destroy;
    LockMutexPointer = lock;
    UnlockMutexPointer = unlock;
}

}  // namespace

CK_RV P11_InitializeMutexFuncs(CK_C_INITIALIZE_ARGS_PTR args)
{
    if (!args) {
        chooseMutexFuncs(nullptr, nullptr, nullptr, nullptr);
        return CKR_OK;
    }
    // The standard argument structure ends with pReserved right after the
    // flags; the header we build with names that field LibraryParameters
    // and adds a further one that callers following the standard do not
    // have, so it must never be read.
    if (args->LibraryParameters) return CKR_ARGUMENTS_BAD;
    const bool othersAllSet = args->DestroyMutex && args->LockMutex && args->UnlockMutex;
    const bool othersAnySet = args->DestroyMutex || args->LockMutex || args->UnlockMutex;
    if (args->CreateMutex) {
        if (!othersAllSet) return CKR_ARGUMENTS_BAD;
        chooseMutexFuncs(args->CreateMutex, args->DestroyMutex, args->LockMutex, args->UnlockMutex);
        return CKR_OK;
    }
    if (othersAnySet) return CKR_ARGUMENTS_BAD;
    if (args->flags & CKF_OS_LOCKING_OK)
        chooseMutexFuncs(I_CreateMutex, I_DestroyMutex, I_LockMutex, I_UnlockMutex);
    else
        chooseMutexFuncs(nullptr, nullptr, nullptr, nullptr);
    return CKR_OK;
}

namespace {

// Each of the library's mutexes has a cache line of its own: mutexes of
// different sessions are made one after the other and would otherwise share
// lines, and two threads working in two sessions would then slow each other.
struct alignas(64) OwnMutex {
    pthread_mutex_t mutex;
};

}  // namespace

CK_RV I_CreateMutex(CK_VOID_PTR_PTR mutex)
{
    if (!mutex) return CKR_ARGUMENTS_BAD;
    OwnMutex* m = new (std::nothrow) OwnMutex;
    if (!m) return CKR_HOST_MEMORY;
    if (pthread_mutex_init(&m->mutex, nullptr) != 0) {
        delete m;
        return CKR_GENERAL_ERROR;
    }
    *mutex = &m->mutex;
    return CKR_OK;
}

CK_RV I_DestroyMutex(CK_VOID_PTR mutex)
{
    pthread_mutex_t* m = static_cast<pthread_mutex_t*>(mutex);
    if (!m || pthread_mutex_destroy(m) != 0) return CKR_GENERAL_ERROR;
    delete reinterpret_cast<OwnMutex*>(m);
    return CKR_OK;
}

CK_RV I_LockMutex(CK_VOID_PTR mutex)
{
    if (!mutex || pthread_mutex_lock(static_cast<pthread_mutex_t*>(mutex)) != 0) return CKR_GENERAL_ERROR;
    return CKR_OK;
}

CK_RV I_UnlockMutex(CK_VOID_PTR mutex)
{
    if (!mutex || pthread_mutex_unlock(static_cast<pthread_mutex_t*>(mutex)) != 0) return CKR_GENERAL_ERROR;
    return CKR_OK;
}

bool I_ReclaimMutexInChild(CK_VOID_PTR mutex)
{
    pthread_mutex_t* m = static_cast<pthread_mutex_t*>(mutex);
    if (!m) return false;
    if (pthread_mutex_trylock(m) == 0) {
        pthread_mutex_unlock(m);
        return false;
    }
    pthread_mutex_init(m, nullptr);
    return true;
}

CK_RV P11Mutex_construct(P11MutexHandle* mutex)
{
    *mutex = nullptr;
    if (!CreateMutexPointer) return CKR_OK;
    return CreateMutexPointer(mutex);
}

CK_RV P11Mutex_destruct(P11MutexHandle* mutex)
{
    if (!DestroyMutexPointer || !*mutex) return CKR_OK;
    const CK_RV rv = DestroyMutexPointer(*mutex);
    if (rv == CKR_OK) *mutex = nullptr;
    return rv;
}

CK_RV P11Mutex_lock(P11MutexHandle mutex)
{
    if (!LockMutexPointer) return CKR_OK;
    return LockMutexPointer(mutex);
}

CK_RV P11Mutex_unlock(P11MutexHandle mutex)
{
    if (!UnlockMutexPointer) return CKR_OK;
    return UnlockMutexPointer(mutex);
}

CK_RV P11Mutex_lockRecord(P11MutexHandle mutex, P11LockRecord* record, const char* locking, const char* locked)
{
    TSQ_TRACE_DETAIL(5, locking, mutex);
    const CK_RV rv = P11Mutex_lock(mutex);
    if (rv != CKR_OK) return rv;
    *record = mutex;
    TSQ_TRACE_DETAIL(5, locked, mutex);
    return CKR_OK;
}

CK_RV P11Mutex_unlockRecord(P11LockRecord* record, const void* subject, const char* unlocking, const char* unlocked)
{
    if (!*record) return CKR_OK;
    TSQ_TRACE_DETAIL(5, unlocking, subject);
    const CK_RV rv = P11Mutex_unlock(*record);
    if (rv != CKR_OK) return rv;
    TSQ_TRACE_DETAIL(5, unlocked, subject);
    *record = nullptr;
    return CKR_OK;
}

CK_RV P11_createGlobalLock() { return CKR_OK; }
CK_RV P11_createGlobalFunctionLock() { return CKR_OK; }
CK_RV P11_destroyGlobalLock() { return CKR_OK; }
CK_RV P11_globalLock() { return CKR_OK; }
CK_RV P11_globalUnlock() { return CKR_OK; }
