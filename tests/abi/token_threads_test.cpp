// Several application threads at once, each in its own session with the
// library's own mutexes, search the token and sign through the helper with
// two different user keys. Every signature must verify. Built with
// -DKORVO_TSAN=ON this runs under ThreadSanitizer too.

#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "abi/token_fixture.h"

using namespace korvo;

namespace {

constexpr int kThreads = 6;
constexpr int kSignatures = 6;

class TokenThreads : public TokenTest {
protected:
    InitArgs args;
    CK_VOID_PTR initArgs() override
    {
        args.flags = CKF_OS_LOCKING_OK;
        return &args;
    }

    std::mutex failureMutex;
    std::vector<std::string> failures;
    void fail(int thread, const std::string& what)
    {
        std::lock_guard<std::mutex> guard(failureMutex);
        failures.push_back("thread " + std::to_string(thread) + ": " + what);
    }

    void work(int thread, const Bytes& certificateDer, EVP_PKEY* reference)
    {
        CK_SESSION_HANDLE own = CK_INVALID_HANDLE;
        if (p->C_OpenSession(0, CKF_SERIAL_SESSION, nullptr, nullptr, &own) != CKR_OK) return fail(thread, "open");
        Tmpl t;
        t.ulong(CKA_CLASS, CKO_PRIVATE_KEY).add(CKA_ID, idOf(certificateDer));
        for (int i = 0; i < kSignatures; ++i) {
            CK_OBJECT_HANDLE key = CK_INVALID_HANDLE;
            CK_ULONG found = 0;
            if (p->C_FindObjectsInit(own, t.data(), t.size()) != CKR_OK || p->C_FindObjects(own, &key, 1, &found) != CKR_OK ||
                p->C_FindObjectsFinal(own) != CKR_OK || found != 1) {
                fail(thread, "search " + std::to_string(i));
                continue;
            }
            const std::string text = "thread " + std::to_string(thread) + " signature " + std::to_string(i);
            Blob data(text.begin(), text.end()), signature(512);
            CK_ULONG length = signature.size();
            CK_MECHANISM mechanism = {CKM_SHA256_RSA_PKCS, nullptr, 0};
            CK_RV rv = p->C_SignInit(own, &mechanism, key);
            if (rv == CKR_OK) rv = p->C_Sign(own, data.data(), data.size(), signature.data(), &length);
            if (rv != CKR_OK) {
                fail(thread, "sign " + std::to_string(i) + " returned " + std::to_string(rv));
                continue;
            }
            signature.resize(length);
            if (!verifies(reference, EVP_sha256(), data, signature)) fail(thread, "signature " + std::to_string(i));
        }
        p->C_CloseSession(own);
    }
};

TEST_F(TokenThreads, ConcurrentSessionsSearchAndSignWithTwoKeys)
{
    const Bytes alice = certificate("user-person.der");
    const Bytes bob = certificate("user-serialnumber-rdn.der");
    Pkey aliceKey = certificateKey(alice), bobKey = certificateKey(bob);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i)
        threads.emplace_back([&, i] { work(i, i % 2 ? bob : alice, i % 2 ? bobKey.get() : aliceKey.get()); });
    for (std::thread& t : threads) t.join();
    for (const std::string& f : failures) ADD_FAILURE() << f;
}

}  // namespace
