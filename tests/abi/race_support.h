#pragma once
// Support for the tests that race application threads inside the module: the
// answers a call may give when another thread takes its session or object
// away, a record of wrong answers that any thread may add to, a watchdog
// that ends the process when threads stay inside the library, and the
// checked searches and signatures the threads make.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "abi/object_helpers.h"
#include "abi/rsa_reference.h"

namespace korvo {

// A set of return codes besides CKR_OK.
struct Codes {
    std::vector<CK_RV> list;
    Codes(std::initializer_list<CK_RV> codes) : list(codes) {}
    Codes operator+(const Codes& other) const
    {
        Codes sum = *this;
        sum.list.insert(sum.list.end(), other.list.begin(), other.list.end());
        return sum;
    }
    bool has(CK_RV rv) const { return std::find(list.begin(), list.end(), rv) != list.end(); }
};

inline const Codes kNone{};
inline const Codes kSessionGone{CKR_SESSION_HANDLE_INVALID, CKR_SESSION_CLOSED};
inline const Codes kObjectGone{CKR_OBJECT_HANDLE_INVALID};
// What a wrap may answer today (no wrapping mechanism yet) and later.
inline const Codes kWrapAnswers{CKR_MECHANISM_INVALID,         CKR_KEY_FUNCTION_NOT_PERMITTED,
                                CKR_KEY_NOT_WRAPPABLE,         CKR_WRAPPING_KEY_TYPE_INCONSISTENT,
                                CKR_KEY_TYPE_INCONSISTENT,     CKR_BUFFER_TOO_SMALL,
                                CKR_MECHANISM_PARAM_INVALID,   CKR_KEY_UNEXTRACTABLE};

// Wrong answers and wrong data, collected from any thread and reported by
// the test's own thread (the first few only).
class Failures {
public:
    // True when rv is CKR_OK; a failure when it is neither that nor allowed.
    bool check(int thread, const char* call, CK_RV rv, const Codes& allowed)
    {
        if (rv == CKR_OK) return true;
        if (!allowed.has(rv)) add(thread, std::string(call) + " returned 0x" + hex(rv));
        return false;
    }
    void add(int thread, const std::string& what)
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (list_.size() < 25) list_.push_back("thread " + std::to_string(thread) + ": " + what);
        ++count_;
    }
    bool any() const { return count_ > 0; }
    void report()
    {
        std::lock_guard<std::mutex> guard(mutex_);
        for (const std::string& failure : list_) ADD_FAILURE() << failure;
        if (count_ > list_.size()) ADD_FAILURE() << count_ - list_.size() << " more failures";
    }

private:
    static std::string hex(CK_RV rv)
    {
        char text[24];
        std::snprintf(text, sizeof text, "%lX", static_cast<unsigned long>(rv));
        return text;
    }
    std::mutex mutex_;
    std::vector<std::string> list_;
    std::atomic<size_t> count_{0};
};

// Ends the process with a message when it is not destroyed within the limit:
// threads stuck inside the library cannot be joined. `progress`, when given,
// is printed with the message (a round number, say).
class Watchdog {
public:
    Watchdog(std::string what, std::chrono::seconds limit, const std::atomic<int>* progress = nullptr)
        : thread_([this, what, limit, progress] {
              std::unique_lock<std::mutex> lock(mutex_);
              if (signal_.wait_for(lock, limit, [this] { return done_; })) return;
              std::fprintf(stderr, "%s: threads still inside the library after %lld s%s%s: deadlock or hang\n",
                           what.c_str(), static_cast<long long>(limit.count()), progress ? ", round " : "",
                           progress ? std::to_string(progress->load()).c_str() : "");
              std::abort();
          })
    {
    }
    ~Watchdog()
    {
        {
            std::lock_guard<std::mutex> guard(mutex_);
            done_ = true;
        }
        signal_.notify_all();
        thread_.join();
    }

private:
    std::mutex mutex_;
    std::condition_variable signal_;
    bool done_ = false;
    std::thread thread_;
};

// Starts `count` threads that each wait until all have started, then run
// body(thread), and joins them.
template <typename Body>
void runTogether(int count, Body body)
{
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < count; ++t)
        threads.emplace_back([&, t] {
            ++ready;
            while (ready.load() < count) std::this_thread::yield();
            body(t);
        });
    for (std::thread& thread : threads) thread.join();
}

// A whole search in session `in`, three handles at a time; false when a
// step did not answer CKR_OK.
inline bool searchChecked(CK_FUNCTION_LIST_PTR p, Failures& failures, int t, CK_SESSION_HANDLE in, Tmpl query,
                          Handles& found, const Codes& gone)
{
    found.clear();
    if (!failures.check(t, "C_FindObjectsInit", p->C_FindObjectsInit(in, query.data(), query.size()), gone))
        return false;
    CK_OBJECT_HANDLE chunk[3];
    for (CK_ULONG n = 3; n == 3;) {
        n = 0;
        if (!failures.check(t, "C_FindObjects", p->C_FindObjects(in, chunk, 3, &n), gone)) return false;
        if (n > 3) return failures.add(t, "C_FindObjects returned more handles than asked for"), false;
        found.insert(found.end(), chunk, chunk + n);
    }
    return failures.check(t, "C_FindObjectsFinal", p->C_FindObjectsFinal(in), gone);
}

// A SHA256-RSA-PKCS signature of `text` with a token key, through the
// helper; one that is returned must verify with the certificate's key.
inline bool signChecked(CK_FUNCTION_LIST_PTR p, Failures& failures, int t, CK_SESSION_HANDLE in, CK_OBJECT_HANDLE key,
                        EVP_PKEY* reference, const std::string& text, const Codes& gone)
{
    CK_MECHANISM mechanism = {CKM_SHA256_RSA_PKCS, nullptr, 0};
    if (!failures.check(t, "C_SignInit", p->C_SignInit(in, &mechanism, key), gone)) return false;
    Bytes data(text.begin(), text.end()), signature(512);
    CK_ULONG length = signature.size();
    if (!failures.check(t, "C_Sign", p->C_Sign(in, data.data(), data.size(), signature.data(), &length), gone))
        return false;
    signature.resize(length);
    if (!verifies(reference, EVP_sha256(), data, signature))
        failures.add(t, "the signature of \"" + text + "\" does not verify");
    return true;
}

}  // namespace korvo
