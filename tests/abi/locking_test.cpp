// Locking through the application's mutex callbacks: which mutexes the
// library creates and destroys, that every lock it takes is released by the
// same thread and never taken twice, and that a failing callback's code
// comes back from the calling function.

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "abi/module_harness.h"

namespace {

// Mutexes handed to the library, with their owner so that recursive locking
// and unlocking a mutex that is not held are caught instead of deadlocking.
struct AppMutex {
    int serial;  // 0 for the first one created in a test
    std::mutex mutex;
    std::atomic<std::thread::id> owner{};
};

std::atomic<int> creates, destroys, locks, unlocks;
std::atomic<int> misuses;                    // unknown handle, recursive lock, unlock of a mutex not held
std::atomic<int> failingCreate{-1};          // the create call after this many fails
std::atomic<bool> failLocks{false};
std::atomic<int> failingMutex{-1};           // locks of the mutex of this serial fail
std::mutex registryMutex;
std::map<void*, std::unique_ptr<AppMutex>> registry;

AppMutex* find(CK_VOID_PTR handle)
{
    std::lock_guard<std::mutex> guard(registryMutex);
    auto it = registry.find(handle);
    return it == registry.end() ? nullptr : it->second.get();
}

CK_RV misuse(CK_RV rv)
{
    ++misuses;
    return rv;
}

CK_RV createMutex(CK_VOID_PTR_PTR handle)
{
    if (failingCreate == creates) return CKR_HOST_MEMORY;
    auto mutex = std::make_unique<AppMutex>();
    mutex->serial = creates++;
    *handle = mutex.get();
    std::lock_guard<std::mutex> guard(registryMutex);
    registry[mutex.get()] = std::move(mutex);
    return CKR_OK;
}

CK_RV destroyMutex(CK_VOID_PTR handle)
{
    std::lock_guard<std::mutex> guard(registryMutex);
    auto it = registry.find(handle);
    if (it == registry.end() || it->second->owner.load() != std::thread::id()) return misuse(CKR_MUTEX_BAD);
    registry.erase(it);
    ++destroys;
    return CKR_OK;
}

CK_RV lockMutex(CK_VOID_PTR handle)
{
    AppMutex* mutex = find(handle);
    if (!mutex || mutex->owner.load() == std::this_thread::get_id()) return misuse(CKR_MUTEX_BAD);
    if (failLocks || failingMutex == mutex->serial) return CKR_CANT_LOCK;
    mutex->mutex.lock();
    mutex->owner = std::this_thread::get_id();
    ++locks;
    return CKR_OK;
}

CK_RV unlockMutex(CK_VOID_PTR handle)
{
    AppMutex* mutex = find(handle);
    if (!mutex || mutex->owner.load() != std::this_thread::get_id()) return misuse(CKR_MUTEX_NOT_LOCKED);
    mutex->owner = std::thread::id();
    mutex->mutex.unlock();
    ++unlocks;
    return CKR_OK;
}

// Each test starts initialised with the callbacks above.
class ApplicationLocking : public korvo::InitializedTest {
protected:
    korvo::InitArgs args{createMutex, destroyMutex, lockMutex, unlockMutex};
    CK_VOID_PTR initArgs() override { return &args; }
    CK_UTF8CHAR pin[5] = "1234";
    CK_MECHANISM sha1 = {CKM_SHA_1, nullptr, 0};
    CK_SESSION_INFO info;

    void SetUp() override
    {
        creates = destroys = locks = unlocks = misuses = 0;
        korvo::InitializedTest::SetUp();
    }

    void TearDown() override
    {
        failLocks = false;
        failingMutex = -1;
        failingCreate = -1;
        korvo::ModuleTest::TearDown();
        EXPECT_EQ(misuses.load(), 0);
        EXPECT_EQ(creates.load(), destroys.load());
        EXPECT_EQ(locks.load(), unlocks.load());
    }

    CK_ULONG sessionCount()
    {
        CK_TOKEN_INFO token;
        EXPECT_EQ(p->C_GetTokenInfo(0, &token), CKR_OK);
        return token.ulSessionCount;
    }
};

}  // namespace

TEST_F(ApplicationLocking, TokenHasTwoMutexesAndEachSessionOne)
{
    EXPECT_EQ(creates.load(), 2);  // token mutex and handle mutex
    const CK_SESSION_HANDLE first = openSession();
    openSession(CKF_SERIAL_SESSION | CKF_RW_SESSION);
    openSession();
    EXPECT_EQ(creates.load(), 5);
    EXPECT_GT(locks.load(), 0);

    ASSERT_EQ(p->C_CloseSession(first), CKR_OK);
    EXPECT_EQ(destroys.load(), 1);
    ASSERT_EQ(p->C_CloseAllSessions(0), CKR_OK);
    EXPECT_EQ(destroys.load(), 3);
    openSession();
    ASSERT_EQ(p->C_Finalize(nullptr), CKR_OK);
    EXPECT_EQ(creates.load(), 6);
    EXPECT_EQ(destroys.load(), 6);
}

// TearDown checks that every lock taken was released, also on failure paths.
TEST_F(ApplicationLocking, EveryLockTakenIsReleased)
{
    const CK_SESSION_HANDLE a = openSession(), b = openSession(CKF_SERIAL_SESSION | CKF_RW_SESSION);
    CK_BYTE out[20];
    CK_ULONG length = 4;
    CK_MECHANISM ripemd128 = {CKM_RIPEMD128, nullptr, 0};
    ASSERT_EQ(p->C_Login(a, CKU_USER, pin, 4), CKR_OK);
    EXPECT_EQ(p->C_Login(b, CKU_USER, pin, 4), CKR_USER_ALREADY_LOGGED_IN);
    EXPECT_EQ(p->C_DigestInit(a, &ripemd128), CKR_MECHANISM_INVALID);
    ASSERT_EQ(p->C_DigestInit(a, &sha1), CKR_OK);
    EXPECT_EQ(p->C_FindObjectsInit(a, nullptr, 0), CKR_OPERATION_ACTIVE);
    EXPECT_EQ(p->C_DigestFinal(a, out, &length), CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ(p->C_SignInit(a, &sha1, 99), CKR_KEY_HANDLE_INVALID);
    EXPECT_EQ(p->C_GenerateRandom(b, out, sizeof out), CKR_OK);
    EXPECT_EQ(p->C_InitPIN(b, pin, 4), CKR_USER_NOT_LOGGED_IN);
    EXPECT_EQ(p->C_GetSessionInfo(99, &info), CKR_SESSION_CLOSED);
    ASSERT_EQ(p->C_CloseSession(a), CKR_OK);
    ASSERT_EQ(p->C_Logout(b), CKR_OK);
    EXPECT_EQ(p->C_Logout(b), CKR_USER_NOT_LOGGED_IN);
    ASSERT_EQ(p->C_CloseAllSessions(0), CKR_OK);
}

TEST_F(ApplicationLocking, FailingLockCallbackCodeComesBackFromTheCall)
{
    const CK_SESSION_HANDLE session = openSession();
    failLocks = true;
    CK_SESSION_HANDLE refused = CK_INVALID_HANDLE;
    EXPECT_EQ(p->C_OpenSession(0, CKF_SERIAL_SESSION, nullptr, nullptr, &refused), CKR_CANT_LOCK);
    EXPECT_EQ(p->C_GetSessionInfo(session, &info), CKR_CANT_LOCK);
    EXPECT_EQ(p->C_Login(session, CKU_USER, pin, 4), CKR_CANT_LOCK);
    EXPECT_EQ(p->C_DigestInit(session, &sha1), CKR_CANT_LOCK);
    failLocks = false;

    // Nothing was left locked or half done.
    EXPECT_EQ(locks.load(), unlocks.load());
    EXPECT_EQ(sessionCount(), 1u);
    ASSERT_EQ(p->C_GetSessionInfo(session, &info), CKR_OK);
    EXPECT_EQ(info.state, CKS_RO_PUBLIC_SESSION);
    ASSERT_EQ(p->C_DigestInit(session, &sha1), CKR_OK);
}

TEST_F(ApplicationLocking, FailingSessionLockStopsTheSessionsCallsOnly)
{
    const CK_SESSION_HANDLE locked = openSession(), other = openSession();
    ASSERT_EQ(creates.load(), 4);
    failingMutex = 2;  // the first session's mutex
    EXPECT_EQ(p->C_GetSessionInfo(locked, &info), CKR_CANT_LOCK);
    EXPECT_EQ(p->C_FindObjectsInit(locked, nullptr, 0), CKR_CANT_LOCK);
    // Login, search and the other sessions need no session's mutex but
    // their own: a session that cannot be locked stops nobody else.
    ASSERT_EQ(p->C_Login(other, CKU_USER, pin, 4), CKR_OK);
    ASSERT_EQ(p->C_GetSessionInfo(other, &info), CKR_OK);
    EXPECT_EQ(info.state, CKS_RO_USER_FUNCTIONS);
    ASSERT_EQ(p->C_FindObjectsInit(other, nullptr, 0), CKR_OK);
    ASSERT_EQ(p->C_FindObjectsFinal(other), CKR_OK);
    failingMutex = -1;
    ASSERT_EQ(p->C_FindObjectsInit(locked, nullptr, 0), CKR_OK);
}

TEST_F(ApplicationLocking, FailingCreateCallbackUndoesTheInitialisation)
{
    ASSERT_EQ(p->C_Finalize(nullptr), CKR_OK);
    failingCreate = creates + 1;  // the token's second mutex cannot be made
    EXPECT_EQ(p->C_Initialize(&args), CKR_HOST_MEMORY);
    EXPECT_EQ(creates.load(), destroys.load());
    CK_INFO libraryInfo;
    EXPECT_EQ(p->C_GetInfo(&libraryInfo), CKR_CRYPTOKI_NOT_INITIALIZED);

    failingCreate = -1;
    ASSERT_EQ(p->C_Initialize(&args), CKR_OK);
    failingCreate = creates.load();  // the next session's mutex
    CK_SESSION_HANDLE refused = CK_INVALID_HANDLE;
    EXPECT_EQ(p->C_OpenSession(0, CKF_SERIAL_SESSION, nullptr, nullptr, &refused), CKR_HOST_MEMORY);
    failingCreate = -1;
    EXPECT_EQ(sessionCount(), 0u);
    EXPECT_NE(openSession(), CK_INVALID_HANDLE);
}
