// Locking through the application's mutex callbacks: which mutexes the
// library creates and destroys, that every lock it takes is released by the
// same thread and never taken twice, and that a failing callback's code
// comes back from the calling function.

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "abi/module_harness.h"

namespace {

// Mutexes handed to the library, with their owner so that recursive locking
// and unlocking a mutex that is not held are caught instead of deadlocking.
struct AppMutex {
    std::mutex mutex;
    std::atomic<std::thread::id> owner{};
};

struct Counters {
    std::atomic<int> creates{0}, destroys{0}, locks{0}, unlocks{0};
    std::atomic<int> misuses{0};  // unknown handle, recursive lock, unlock of a mutex not held
    std::atomic<int> createsBeforeFailure{-1};  // the create call after this many fails
    std::atomic<bool> failLocks{false};
    std::atomic<void*> failingMutex{nullptr};  // locks of this one mutex fail
};

Counters counters;
std::mutex registryMutex;
std::map<void*, std::unique_ptr<AppMutex>> registry;
std::vector<void*> creationOrder;

AppMutex* find(CK_VOID_PTR handle)
{
    std::lock_guard<std::mutex> guard(registryMutex);
    auto it = registry.find(handle);
    return it == registry.end() ? nullptr : it->second.get();
}

CK_RV createMutex(CK_VOID_PTR_PTR handle)
{
    if (counters.createsBeforeFailure.load() == counters.creates.load()) return CKR_HOST_MEMORY;
    auto mutex = std::make_unique<AppMutex>();
    *handle = mutex.get();
    std::lock_guard<std::mutex> guard(registryMutex);
    creationOrder.push_back(mutex.get());
    registry[mutex.get()] = std::move(mutex);
    ++counters.creates;
    return CKR_OK;
}

CK_RV destroyMutex(CK_VOID_PTR handle)
{
    std::lock_guard<std::mutex> guard(registryMutex);
    auto it = registry.find(handle);
    if (it == registry.end() || it->second->owner.load() != std::thread::id()) {
        ++counters.misuses;
        return CKR_MUTEX_BAD;
    }
    registry.erase(it);
    ++counters.destroys;
    return CKR_OK;
}

CK_RV lockMutex(CK_VOID_PTR handle)
{
    AppMutex* mutex = find(handle);
    if (!mutex || mutex->owner.load() == std::this_thread::get_id()) {
        ++counters.misuses;
        return CKR_MUTEX_BAD;
    }
    if (counters.failLocks || counters.failingMutex.load() == handle) return CKR_CANT_LOCK;
    mutex->mutex.lock();
    mutex->owner = std::this_thread::get_id();
    ++counters.locks;
    return CKR_OK;
}

CK_RV unlockMutex(CK_VOID_PTR handle)
{
    AppMutex* mutex = find(handle);
    if (!mutex || mutex->owner.load() != std::this_thread::get_id()) {
        ++counters.misuses;
        return CKR_MUTEX_NOT_LOCKED;
    }
    mutex->owner = std::thread::id();
    mutex->mutex.unlock();
    ++counters.unlocks;
    return CKR_OK;
}

class ApplicationLocking : public korvo::ModuleTest {
protected:
    korvo::InitArgs args;

    void SetUp() override
    {
        korvo::ModuleTest::SetUp();
        counters.creates = counters.destroys = counters.locks = counters.unlocks = counters.misuses = 0;
        counters.createsBeforeFailure = -1;
        counters.failLocks = false;
        counters.failingMutex = nullptr;
        {
            std::lock_guard<std::mutex> guard(registryMutex);
            creationOrder.clear();
        }
        args.CreateMutex = createMutex;
        args.DestroyMutex = destroyMutex;
        args.LockMutex = lockMutex;
        args.UnlockMutex = unlockMutex;
    }

    void TearDown() override
    {
        counters.failLocks = false;
        counters.failingMutex = nullptr;
        counters.createsBeforeFailure = -1;
        korvo::ModuleTest::TearDown();
        EXPECT_EQ(counters.misuses.load(), 0);
        EXPECT_EQ(counters.creates.load(), counters.destroys.load());
        EXPECT_EQ(counters.locks.load(), counters.unlocks.load());
    }

    void initialize() { ASSERT_EQ(p->C_Initialize(&args), CKR_OK); }

    CK_SESSION_HANDLE open(CK_FLAGS flags = CKF_SERIAL_SESSION)
    {
        CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
        EXPECT_EQ(p->C_OpenSession(0, flags, nullptr, nullptr, &session), CKR_OK);
        return session;
    }

    CK_ULONG sessionCount()
    {
        CK_TOKEN_INFO info;
        EXPECT_EQ(p->C_GetTokenInfo(0, &info), CKR_OK);
        return info.ulSessionCount;
    }
};

}  // namespace

TEST_F(ApplicationLocking, TokenHasTwoMutexesAndEachSessionOne)
{
    initialize();
    EXPECT_EQ(counters.creates.load(), 2);  // token mutex and handle mutex
    EXPECT_EQ(counters.destroys.load(), 0);

    const CK_SESSION_HANDLE first = open();
    open(CKF_SERIAL_SESSION | CKF_RW_SESSION);
    open();
    EXPECT_EQ(counters.creates.load(), 5);
    EXPECT_GT(counters.locks.load(), 0);

    ASSERT_EQ(p->C_CloseSession(first), CKR_OK);
    EXPECT_EQ(counters.destroys.load(), 1);
    ASSERT_EQ(p->C_CloseAllSessions(0), CKR_OK);
    EXPECT_EQ(counters.destroys.load(), 3);

    open();
    ASSERT_EQ(p->C_Finalize(nullptr), CKR_OK);
    EXPECT_EQ(counters.creates.load(), 6);
    EXPECT_EQ(counters.destroys.load(), 6);
}

TEST_F(ApplicationLocking, EveryLockTakenIsReleased)
{
    initialize();
    const CK_SESSION_HANDLE a = open();
    const CK_SESSION_HANDLE b = open(CKF_SERIAL_SESSION | CKF_RW_SESSION);
    CK_UTF8CHAR pin[] = "1234";
    CK_MECHANISM sha1 = {CKM_SHA_1, nullptr, 0};
    CK_BYTE data[3] = {'a', 'b', 'c'}, out[20];
    CK_ULONG length = sizeof out, count = 0;
    CK_OBJECT_HANDLE objects[2];
    CK_SESSION_INFO info;

    ASSERT_EQ(p->C_Login(a, CKU_USER, pin, 4), CKR_OK);
    EXPECT_EQ(p->C_Login(b, CKU_USER, pin, 4), CKR_USER_ALREADY_LOGGED_IN);
    EXPECT_EQ(p->C_GetSessionInfo(b, &info), CKR_OK);
    ASSERT_EQ(p->C_DigestInit(a, &sha1), CKR_OK);
    EXPECT_EQ(p->C_FindObjectsInit(a, nullptr, 0), CKR_OPERATION_ACTIVE);
    ASSERT_EQ(p->C_Digest(a, data, sizeof data, out, &length), CKR_OK);
    ASSERT_EQ(p->C_FindObjectsInit(b, nullptr, 0), CKR_OK);
    ASSERT_EQ(p->C_FindObjects(b, objects, 2, &count), CKR_OK);
    ASSERT_EQ(p->C_FindObjectsFinal(b), CKR_OK);
    EXPECT_EQ(p->C_SignInit(a, &sha1, 99), CKR_KEY_HANDLE_INVALID);
    EXPECT_EQ(p->C_GenerateRandom(b, out, sizeof out), CKR_OK);
    EXPECT_EQ(p->C_SeedRandom(b, data, sizeof data), CKR_OK);
    // Failure paths release their locks as well.
    EXPECT_EQ(p->C_DigestFinal(a, out, &length), CKR_OPERATION_NOT_INITIALIZED);
    CK_MECHANISM ripemd128 = {CKM_RIPEMD128, nullptr, 0};
    EXPECT_EQ(p->C_DigestInit(a, &ripemd128), CKR_MECHANISM_INVALID);
    ASSERT_EQ(p->C_DigestInit(a, &sha1), CKR_OK);
    length = 4;
    EXPECT_EQ(p->C_DigestFinal(a, out, &length), CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ(p->C_SignUpdate(a, data, sizeof data), CKR_OPERATION_NOT_INITIALIZED);
    EXPECT_EQ(p->C_SetPIN(b, pin, 4, pin, 4), CKR_TOKEN_WRITE_PROTECTED);
    EXPECT_EQ(p->C_InitPIN(b, pin, 4), CKR_USER_NOT_LOGGED_IN);
    EXPECT_EQ(p->C_GetSessionInfo(99, &info), CKR_SESSION_CLOSED);
    ASSERT_EQ(p->C_Logout(b), CKR_OK);
    EXPECT_EQ(p->C_Logout(b), CKR_USER_NOT_LOGGED_IN);
    ASSERT_EQ(p->C_CloseSession(a), CKR_OK);
    EXPECT_EQ(p->C_Login(b, CKU_SO, pin, 4), CKR_PIN_INCORRECT);
    ASSERT_EQ(p->C_CloseAllSessions(0), CKR_OK);

    EXPECT_EQ(counters.misuses.load(), 0);
    EXPECT_EQ(counters.locks.load(), counters.unlocks.load());
}

TEST_F(ApplicationLocking, FailingLockCallbackCodeComesBackFromTheCall)
{
    initialize();
    const CK_SESSION_HANDLE session = open();
    CK_SESSION_INFO info;
    CK_UTF8CHAR pin[] = "1234";
    CK_MECHANISM sha1 = {CKM_SHA_1, nullptr, 0};

    counters.failLocks = true;
    CK_SESSION_HANDLE refused = CK_INVALID_HANDLE;
    EXPECT_EQ(p->C_OpenSession(0, CKF_SERIAL_SESSION, nullptr, nullptr, &refused), CKR_CANT_LOCK);
    EXPECT_EQ(p->C_GetSessionInfo(session, &info), CKR_CANT_LOCK);
    EXPECT_EQ(p->C_Login(session, CKU_USER, pin, 4), CKR_CANT_LOCK);
    EXPECT_EQ(p->C_DigestInit(session, &sha1), CKR_CANT_LOCK);
    counters.failLocks = false;

    // Nothing was left locked or half done.
    EXPECT_EQ(counters.locks.load(), counters.unlocks.load());
    EXPECT_EQ(sessionCount(), 1u);
    ASSERT_EQ(p->C_GetSessionInfo(session, &info), CKR_OK);
    EXPECT_EQ(info.state, CKS_RO_PUBLIC_SESSION);
    ASSERT_EQ(p->C_DigestInit(session, &sha1), CKR_OK);
    EXPECT_NE(open(), CK_INVALID_HANDLE);
}

TEST_F(ApplicationLocking, FailingSessionLockStopsTheSessionsCallsOnly)
{
    initialize();
    const CK_SESSION_HANDLE locked = open();
    const CK_SESSION_HANDLE other = open();
    {
        std::lock_guard<std::mutex> guard(registryMutex);
        ASSERT_EQ(creationOrder.size(), 4u);
        counters.failingMutex = creationOrder[2];  // the first session's mutex
    }
    CK_SESSION_INFO info;
    CK_UTF8CHAR pin[] = "1234";
    CK_MECHANISM sha1 = {CKM_SHA_1, nullptr, 0};
    EXPECT_EQ(p->C_GetSessionInfo(locked, &info), CKR_CANT_LOCK);
    EXPECT_EQ(p->C_DigestInit(locked, &sha1), CKR_CANT_LOCK);
    EXPECT_EQ(p->C_FindObjectsInit(locked, nullptr, 0), CKR_CANT_LOCK);
    // Login tells every session, so it fails as a whole and nobody is logged in.
    EXPECT_EQ(p->C_Login(other, CKU_USER, pin, 4), CKR_CANT_LOCK);
    ASSERT_EQ(p->C_GetSessionInfo(other, &info), CKR_OK);
    EXPECT_EQ(info.state, CKS_RO_PUBLIC_SESSION);
    ASSERT_EQ(p->C_DigestInit(other, &sha1), CKR_OK);
    counters.failingMutex = nullptr;

    EXPECT_EQ(counters.locks.load(), counters.unlocks.load());
    ASSERT_EQ(p->C_FindObjectsInit(locked, nullptr, 0), CKR_OK);
    ASSERT_EQ(p->C_FindObjectsFinal(locked), CKR_OK);
    ASSERT_EQ(p->C_Login(other, CKU_USER, pin, 4), CKR_OK);
}

TEST_F(ApplicationLocking, FailingCreateCallbackUndoesTheInitialisation)
{
    counters.createsBeforeFailure = 1;  // the token's second mutex cannot be made
    EXPECT_EQ(p->C_Initialize(&args), CKR_HOST_MEMORY);
    EXPECT_EQ(counters.creates.load(), counters.destroys.load());
    CK_INFO info;
    EXPECT_EQ(p->C_GetInfo(&info), CKR_CRYPTOKI_NOT_INITIALIZED);

    counters.createsBeforeFailure = -1;
    initialize();
    counters.createsBeforeFailure = counters.creates.load();  // the next session's mutex
    CK_SESSION_HANDLE refused = CK_INVALID_HANDLE;
    EXPECT_EQ(p->C_OpenSession(0, CKF_SERIAL_SESSION, nullptr, nullptr, &refused), CKR_HOST_MEMORY);
    counters.createsBeforeFailure = -1;
    EXPECT_EQ(sessionCount(), 0u);
    EXPECT_NE(open(), CK_INVALID_HANDLE);
}
