// Several application threads, each with its own sessions, using the
// library's own mutexes at once: every call must give one of the answers
// allowed by the shared login state, and the run must end (no deadlock).
// Built with -DKORVO_TSAN=ON this also runs under ThreadSanitizer.

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "abi/module_harness.h"

namespace {

constexpr int kThreads = 8;
constexpr int kIterations = 200;

class Threads : public korvo::InitializedTest {
protected:
    korvo::InitArgs args;
    CK_VOID_PTR initArgs() override
    {
        args.flags = CKF_OS_LOCKING_OK;
        return &args;
    }

    std::mutex failureMutex;
    std::vector<std::string> failures;

    void fail(int thread, const char* what, CK_RV rv)
    {
        std::lock_guard<std::mutex> guard(failureMutex);
        if (failures.size() < 20)
            failures.push_back("thread " + std::to_string(thread) + ": " + what + " returned " + std::to_string(rv));
    }

    // One thread's work: sessions opened and closed, a digest of data of
    // its own, an empty search, and login and logout racing with the other
    // threads'.
    void work(int thread)
    {
        CK_FUNCTION_LIST_PTR f = p;
        std::string text = "thread " + std::to_string(thread);
        std::vector<CK_BYTE> data(text.begin(), text.end());
        CK_BYTE expected[32];
        bool haveExpected = false;
        CK_UTF8CHAR pin[] = "1234";

        for (int i = 0; i < kIterations; ++i) {
            const CK_FLAGS flags = CKF_SERIAL_SESSION | (i % 2 ? CKF_RW_SESSION : 0);
            CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
            CK_RV rv = f->C_OpenSession(0, flags, nullptr, nullptr, &session);
            if (rv != CKR_OK) {
                fail(thread, "C_OpenSession", rv);
                continue;
            }

            CK_MECHANISM sha256 = {CKM_SHA256, nullptr, 0};
            CK_BYTE digest[32];
            CK_ULONG length = sizeof digest;
            if ((rv = f->C_DigestInit(session, &sha256)) != CKR_OK) fail(thread, "C_DigestInit", rv);
            else if ((rv = f->C_DigestUpdate(session, data.data(), data.size())) != CKR_OK)
                fail(thread, "C_DigestUpdate", rv);
            else if ((rv = f->C_DigestFinal(session, digest, &length)) != CKR_OK)
                fail(thread, "C_DigestFinal", rv);
            else if (!haveExpected) {
                memcpy(expected, digest, sizeof digest);
                haveExpected = true;
            } else if (memcmp(expected, digest, sizeof digest) != 0)
                fail(thread, "digest differs from the first one", 0);

            CK_OBJECT_HANDLE objects[4];
            CK_ULONG count = 99;
            if ((rv = f->C_FindObjectsInit(session, nullptr, 0)) != CKR_OK) fail(thread, "C_FindObjectsInit", rv);
            else {
                if ((rv = f->C_FindObjects(session, objects, 4, &count)) != CKR_OK || count != 0)
                    fail(thread, "C_FindObjects", rv);
                if ((rv = f->C_FindObjectsFinal(session)) != CKR_OK) fail(thread, "C_FindObjectsFinal", rv);
            }

            rv = f->C_Login(session, CKU_USER, pin, 4);
            if (rv != CKR_OK && rv != CKR_USER_ALREADY_LOGGED_IN) fail(thread, "C_Login", rv);

            CK_SESSION_INFO info;
            rv = f->C_GetSessionInfo(session, &info);
            const bool rw = flags & CKF_RW_SESSION;
            const CK_STATE loggedIn = rw ? CKS_RW_USER_FUNCTIONS : CKS_RO_USER_FUNCTIONS;
            const CK_STATE loggedOut = rw ? CKS_RW_PUBLIC_SESSION : CKS_RO_PUBLIC_SESSION;
            if (rv != CKR_OK) fail(thread, "C_GetSessionInfo", rv);
            else if (info.state != loggedIn && info.state != loggedOut) fail(thread, "session state", info.state);

            if (i % 3 == 0) {
                CK_TOKEN_INFO token;
                if ((rv = f->C_GetTokenInfo(0, &token)) != CKR_OK) fail(thread, "C_GetTokenInfo", rv);
            }
            CK_BYTE random[16];
            if ((rv = f->C_GenerateRandom(session, random, sizeof random)) != CKR_OK)
                fail(thread, "C_GenerateRandom", rv);

            rv = f->C_Logout(session);
            if (rv != CKR_OK && rv != CKR_USER_NOT_LOGGED_IN) fail(thread, "C_Logout", rv);
            if ((rv = f->C_CloseSession(session)) != CKR_OK) fail(thread, "C_CloseSession", rv);
        }
    }
};

}  // namespace

TEST_F(Threads, ConcurrentSessionsFinishWithAllowedAnswers)
{
    std::mutex doneMutex;
    std::condition_variable doneSignal;
    int done = 0;

    std::vector<std::thread> workers;
    for (int t = 0; t < kThreads; ++t) {
        workers.emplace_back([&, t] {
            work(t);
            std::lock_guard<std::mutex> guard(doneMutex);
            ++done;
            doneSignal.notify_all();
        });
    }
    {
        std::unique_lock<std::mutex> lock(doneMutex);
        if (!doneSignal.wait_for(lock, std::chrono::minutes(3), [&] { return done == kThreads; })) {
            // Threads stuck in the library cannot be joined: end the process.
            std::fprintf(stderr, "only %d of %d threads finished: the library deadlocked\n", done, kThreads);
            std::abort();
        }
    }
    for (std::thread& worker : workers) worker.join();

    for (const std::string& failure : failures) ADD_FAILURE() << failure;

    // All sessions are closed again and their handles are gone.
    CK_TOKEN_INFO token;
    ASSERT_EQ(p->C_GetTokenInfo(0, &token), CKR_OK);
    EXPECT_EQ(token.ulSessionCount, 0u);
    EXPECT_EQ(token.ulRwSessionCount, 0u);
    // Handles were drawn from one counter: the next is past all of them.
    CK_SESSION_HANDLE next = CK_INVALID_HANDLE;
    ASSERT_EQ(p->C_OpenSession(0, CKF_SERIAL_SESSION, nullptr, nullptr, &next), CKR_OK);
    EXPECT_EQ(next, CK_SESSION_HANDLE(kThreads * kIterations + 1));
}
