// The token with a helper that takes its time, as a person answering a
// prompt does. This program loads a copy of the module that lies in a
// directory of its own (made at build time, see tests/CMakeLists.txt) beside
// the test build of KorvoPerformRsa, which waits KORVO_HELPER_TEST_SLEEP_MS
// before signing and notes each run in KORVO_HELPER_RUN_LOG. While one
// thread is inside C_Sign:
//   - calls in other sessions go on: another thread completes 3,100 calls
//     before C_Sign returns (their time is printed, not asserted);
//   - children forked meanwhile find the library initialised and get an
//     answer to every call (none hangs).

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <string>
#include <thread>

#include "abi/race_support.h"
#include "abi/token_fixture.h"

using namespace korvo;
using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

namespace {

// How long the helper waits before it signs. The other thread's 3,100 calls
// take a fraction of a second, under the sanitizers too.
constexpr milliseconds kHelperWait(3000);

class SlowHelper : public TokenTest {
protected:
    InitArgs args;
    CK_VOID_PTR initArgs() override
    {
        args.flags = CKF_OS_LOCKING_OK;
        return &args;
    }

    std::string runLog;
    CK_OBJECT_HANDLE key = CK_INVALID_HANDLE;
    Bytes aliceCertificate;
    Pkey reference;
    Failures failures;

    void SetUp() override
    {
        // Before any thread starts: the helper inherits this environment.
        runLog = tempHome() + "/helper-runs.log";
        std::remove(runLog.c_str());
        setenv("KORVO_HELPER_TEST_SLEEP_MS", std::to_string(kHelperWait.count()).c_str(), 1);
        setenv("KORVO_HELPER_RUN_LOG", runLog.c_str(), 1);
        TokenTest::SetUp();
        if (HasFatalFailure()) return;
        aliceCertificate = certificate("user-person.der");
        key = objectOf(CKO_PRIVATE_KEY, aliceCertificate);
        reference = certificateKey(aliceCertificate);
    }

    // True once the helper has started: a thread that called C_Sign is then
    // inside it, waiting for the helper.
    bool helperStarted()
    {
        for (const auto end = Clock::now() + seconds(60); Clock::now() < end;) {
            struct stat info;
            if (stat(runLog.c_str(), &info) == 0 && info.st_size > 0) return true;
            std::this_thread::sleep_for(milliseconds(1));
        }
        return false;
    }

    // A thread that signs once in a session of its own and then sets `returned`.
    std::thread signer(const std::string& text, std::atomic<bool>& returned)
    {
        return std::thread([this, text, &returned] {
            CK_SESSION_HANDLE s = CK_INVALID_HANDLE;
            if (failures.check(1, "C_OpenSession", p->C_OpenSession(0, CKF_SERIAL_SESSION, 0, 0, &s), kNone)) {
                signChecked(p, failures, 1, s, key, reference.get(), text, kNone);
                failures.check(1, "C_CloseSession", p->C_CloseSession(s), kNone);
            }
            returned = true;
        });
    }

    // CKA_VALUE of a certificate object must be alice's certificate.
    void readCertificate(int t, CK_SESSION_HANDLE in, CK_OBJECT_HANDLE object)
    {
        Bytes value(8192);
        CK_ATTRIBUTE a = {CKA_VALUE, value.data(), CK_ULONG(value.size())};
        if (!failures.check(t, "C_GetAttributeValue", p->C_GetAttributeValue(in, object, &a, 1), kNone)) return;
        value.resize(std::min<size_t>(a.ulValueLen, value.size()));
        if (value != aliceCertificate) failures.add(t, "a certificate's CKA_VALUE is not the certificate");
    }
};

TEST_F(SlowHelper, CallsInOtherSessionsGoOnWhileTheHelperRuns)
{
    const CK_OBJECT_HANDLE certificateObject = objectOf(CKO_CERTIFICATE, aliceCertificate);
    const Bytes label = {'m', 'i', 'n', 'e'}, value(32, 0x44);
    const CK_OBJECT_HANDLE data = make(dataObject("mine").add(CKA_VALUE, value));
    Bytes text = {'a', 'b', 'c'};
    Bytes expected(32);
    unsigned int expectedLength = 0;
    EVP_Digest(text.data(), text.size(), expected.data(), &expectedLength, EVP_sha256(), nullptr);

    Watchdog watchdog("SlowHelper.CallsInOtherSessionsGoOnWhileTheHelperRuns", seconds(120));
    std::atomic<bool> signReturned{false};
    std::thread signing = signer("while others work", signReturned);
    const bool started = helperStarted();

    // 1,000 digests, searches and attribute reads and 100 sessions opened
    // and closed, in this thread's session.
    const Clock::time_point begin = Clock::now();
    for (int i = 0; started && i < 1000 && !failures.any(); ++i) {
        CK_MECHANISM sha256 = {CKM_SHA256, nullptr, 0};
        Bytes digest(32);
        CK_ULONG length = digest.size();
        if (failures.check(0, "C_DigestInit", p->C_DigestInit(session, &sha256), kNone) &&
            failures.check(0, "C_Digest", p->C_Digest(session, text.data(), text.size(), digest.data(), &length),
                           kNone) &&
            digest != expected)
            failures.add(0, "wrong digest");

        Handles found;
        if (searchChecked(p, failures, 0, session, dataObject(), found, kNone) && found != Handles{data})
            failures.add(0, "the search did not find exactly the one data object");

        if (i % 2) {
            readCertificate(0, session, certificateObject);
        } else {
            Bytes labelRead(16), valueRead(64);
            CK_ATTRIBUTE a[] = {{CKA_LABEL, labelRead.data(), 16}, {CKA_VALUE, valueRead.data(), 64}};
            if (failures.check(0, "C_GetAttributeValue", p->C_GetAttributeValue(session, data, a, 2), kNone)) {
                labelRead.resize(std::min<CK_ULONG>(a[0].ulValueLen, 16));
                valueRead.resize(std::min<CK_ULONG>(a[1].ulValueLen, 64));
                if (labelRead != label || valueRead != value) failures.add(0, "the data object's values changed");
            }
        }

        if (i % 10 == 0) {
            CK_SESSION_HANDLE extra = CK_INVALID_HANDLE;
            if (failures.check(0, "C_OpenSession", p->C_OpenSession(0, CKF_SERIAL_SESSION, 0, 0, &extra), kNone))
                failures.check(0, "C_CloseSession", p->C_CloseSession(extra), kNone);
        }
    }
    const double elapsed = std::chrono::duration<double>(Clock::now() - begin).count();
    const bool beforeTheSigner = !signReturned;
    signing.join();

    ASSERT_TRUE(started) << "the helper never started";
    std::printf("[ stand-in ] 3,100 calls in another session took %.3f s while the helper waited %.1f s\n", elapsed,
                kHelperWait.count() / 1000.0);
    EXPECT_TRUE(beforeTheSigner) << "the calls in the other session waited for the helper: C_Sign returned before "
                                    "they were done (they took "
                                 << elapsed << " s)";
    failures.report();
}

// The calls a forked child makes. C_Initialize must say that the library is
// initialised (it is, in the child's copy of the parent's memory); the others
// must just return. Before each call the child writes the call's number to
// `progress`, so the parent can tell where a child that hung stopped.
const char* const kChildCalls[] = {"C_Initialize",      "C_GetInfo",     "C_GetSlotList",      "C_OpenSession",
                                   "C_FindObjectsInit", "C_FindObjects", "C_FindObjectsFinal", "C_CloseSession",
                                   "nothing (done)"};

int childCalls(CK_FUNCTION_LIST_PTR p, int progress)
{
    auto step = [progress](char call) {
        if (write(progress, &call, 1) != 1) _exit(4);
    };
    InitArgs args;
    args.flags = CKF_OS_LOCKING_OK;
    step(0);
    if (p->C_Initialize(&args) != CKR_CRYPTOKI_ALREADY_INITIALIZED) return 3;
    step(1);
    CK_INFO info;
    p->C_GetInfo(&info);
    step(2);
    CK_ULONG count = 0;
    p->C_GetSlotList(CK_FALSE, nullptr, &count);
    step(3);
    CK_SESSION_HANDLE s = CK_INVALID_HANDLE;
    if (p->C_OpenSession(0, CKF_SERIAL_SESSION, nullptr, nullptr, &s) == CKR_OK) {
        step(4);
        p->C_FindObjectsInit(s, nullptr, 0);
        step(5);
        CK_OBJECT_HANDLE found[16];
        p->C_FindObjects(s, found, 16, &count);
        step(6);
        p->C_FindObjectsFinal(s);
        step(7);
        p->C_CloseSession(s);
    }
    step(8);
    return 0;
}

TEST_F(SlowHelper, ForkedChildrenAnswerWhileThreadsSearchAndSign)
{
    constexpr int kChildren = 6;
    Watchdog watchdog("SlowHelper.ForkedChildrenAnswerWhileThreadsSearchAndSign", seconds(180));

    // Two threads sign through the slow helper; two search and read the
    // certificate until the signers are done.
    const CK_OBJECT_HANDLE certificateObject = objectOf(CKO_CERTIFICATE, aliceCertificate);
    std::atomic<bool> signed0{false}, signed1{false};
    std::vector<std::thread> threads;
    threads.push_back(signer("first signer", signed0));
    threads.push_back(signer("second signer", signed1));
    for (int t = 2; t < 4; ++t)
        threads.emplace_back([&, t] {
            CK_SESSION_HANDLE s = CK_INVALID_HANDLE;
            if (!failures.check(t, "C_OpenSession", p->C_OpenSession(0, CKF_SERIAL_SESSION, 0, 0, &s), kNone))
                return;
            Handles found;
            for (int i = 0; i < 100000 && !(signed0 && signed1); ++i) {
                if (searchChecked(p, failures, t, s, Tmpl(), found, kNone) && found.empty())
                    failures.add(t, "the search found no token objects");
                readCertificate(t, s, certificateObject);
            }
            failures.check(t, "C_CloseSession", p->C_CloseSession(s), kNone);
        });

    struct Child {
        pid_t pid = -1;
        int progress = -1;
        Clock::time_point deadline;
        int status = 0;
        bool hung = false;
        bool whileSigning = false;
    };
    std::vector<Child> children;
    const bool started = helperStarted();
    for (int k = 0; started && k < kChildren; ++k) {
        std::this_thread::sleep_for(milliseconds(k ? 200 : 0));
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) break;
        const pid_t pid = fork();
        if (pid == 0) {
            close(fds[0]);
            _exit(childCalls(p, fds[1]));
        }
        close(fds[1]);
        if (pid < 0) {
            close(fds[0]);
            break;
        }
        Child child;
        child.whileSigning = !(signed0 && signed1);
        child.pid = pid;
        child.progress = fds[0];
        child.deadline = Clock::now() + seconds(20);
        children.push_back(child);
    }
    // Each child has 20 seconds; one still running then hung and is killed.
    for (Child& child : children) {
        while (waitpid(child.pid, &child.status, WNOHANG) == 0) {
            if (Clock::now() > child.deadline) {
                child.hung = true;
                kill(child.pid, SIGKILL);
                waitpid(child.pid, &child.status, 0);
                break;
            }
            std::this_thread::sleep_for(milliseconds(10));
        }
    }
    for (std::thread& thread : threads) thread.join();

    ASSERT_TRUE(started) << "the helper never started";
    EXPECT_EQ(children.size(), size_t(kChildren)) << "fork failed";
    for (size_t k = 0; k < children.size(); ++k) {
        Child& child = children[k];
        char calls[16];
        const ssize_t n = read(child.progress, calls, sizeof calls);
        close(child.progress);
        const bool known = n > 0 && size_t(calls[n - 1]) < std::size(kChildCalls);
        const char* last = known ? kChildCalls[int(calls[n - 1])] : "?";
        EXPECT_TRUE(child.whileSigning) << "child " << k << " was forked after the signers were done";
        EXPECT_FALSE(child.hung) << "child " << k << " hung in " << last;
        if (child.hung) continue;
        if (WIFEXITED(child.status) && WEXITSTATUS(child.status) == 3)
            ADD_FAILURE() << "child " << k << ": C_Initialize did not answer CKR_CRYPTOKI_ALREADY_INITIALIZED";
        else
            EXPECT_TRUE(WIFEXITED(child.status) && WEXITSTATUS(child.status) == 0)
                << "child " << k << " ended with status 0x" << std::hex << child.status << " in " << last;
    }
    failures.report();
}

}  // namespace
