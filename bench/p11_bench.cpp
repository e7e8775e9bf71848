// The Korvo module side by side with SoftHSM2 through the same dlopen harness,
// and with OpenSSL's own SHA-256 in the same run:
//
//   - C_DigestInit + C_Digest, CKM_SHA256, on 1 MiB (throughput) and on 64 bytes (call rate),
//     the latter also on two threads at once, each in a session of its own;
//   - C_GenerateRandom of 1 MiB (throughput);
//   - C_OpenSession + C_CloseSession pairs;
//   - C_CreateObject of a small data session object + C_DestroyObject;
//   - C_FindObjectsInit + C_FindObjects + C_FindObjectsFinal with a one-label
//     template that matches one of 1,000 and one of 10,000 session objects;
//   - EVP_Digest with EVP_sha256() on the same buffers (on one and two threads), and
//     RAND_bytes of 1 MiB;
//   - RSA-2048: CKM_SHA256_RSA_PKCS C_SignInit + C_Sign and C_VerifyInit + C_Verify of 64 bytes
//     with one key (made by OpenSSL, imported as session objects), against OpenSSL's
//     EVP_DigestSign and EVP_DigestVerify with the same key; and CKM_RSA_PKCS_KEY_PAIR_GEN of a
//     2048-bit pair against EVP_PKEY_keygen, as a median over 15 single runs;
//   - ciphers, with one key imported as a session object: AES-128-CBC and
//     three-key 3DES-CBC C_EncryptInit + C_Encrypt of 1 MiB (throughput), and
//     AES-128-CBC C_EncryptInit + C_Encrypt of 64 bytes (call rate), against
//     EVP_EncryptInit_ex2 + EVP_EncryptUpdate on the same buffers.
//
// At the end it prints both modules' figures in one table and the ratios the
// module is held to: its 1 MiB throughput against OpenSSL's (>= 0.95), its
// 64-byte call rate against SoftHSM2's (>= 2.7), its two-thread 64-byte rate
// against its one-thread rate (>= 1.7) and its C_GenerateRandom throughput
// against SoftHSM2's (>= 1.0); and how the search cost grows from 1,000 to
// 10,000 objects (linear growth gives about 10); and its RSA-2048 signatures
// and verifications per second against OpenSSL's (>= 0.9) and SoftHSM2's
// (> 1); its AES-128-CBC and 3DES-CBC 1 MiB throughput against OpenSSL's
// (>= 0.9) and its 64-byte AES-128-CBC call rate against SoftHSM2's (>= 2).
// The two-thread family runs
// only with CKF_OS_LOCKING_OK (without locking, one thread at a time).
//
//     cmake -S . -B build -DKORVO_BENCH=ON && cmake --build build --target p11_bench
//     build/bench/p11_bench [--benchmark_repetitions=5] [options below] [Google Benchmark flags]
//
//   --null_init_args          C_Initialize(NULL) instead of CKF_OS_LOCKING_OK arguments
//   --enforce_targets         exit with status 2 when a target is missed
//   --korvo_module=PATH       another build of the module (default: the one CMake built)
//   --softhsm2_module=PATH    another SoftHSM2 (default: /usr/lib/softhsm/libsofthsm2.so)
//
// Nothing outside temporary directories is touched: HOME points at a fresh
// directory before the Korvo module is loaded, and SoftHSM2 gets a
// configuration file and token directory of its own (its token is initialised
// through C_InitToken). Both are removed at exit.

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include <benchmark/benchmark.h>
#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>

#include "p11_harness.h"

#ifndef KORVO_MODULE_PATH
#error "KORVO_MODULE_PATH must name the built module"
#endif
#ifndef SOFTHSM2_MODULE_PATH
#define SOFTHSM2_MODULE_PATH "/usr/lib/softhsm/libsofthsm2.so"
#endif

namespace {

using p11bench::Module;
using p11bench::rvName;
using p11bench::takeFlag;

constexpr size_t kLargeSize = size_t(1) << 20;
constexpr size_t kSmallSize = 64;
constexpr double kTargetLargeVsOpenSsl = 0.95;
constexpr double kTargetSmallVsSoftHsm = 2.7;
constexpr double kTargetTwoThreads = 1.7;
constexpr double kTargetRandomVsSoftHsm = 1.0;
constexpr CK_ULONG kSha256Length = 32;
constexpr double kTargetRsaVsOpenSsl = 0.9;
constexpr double kTargetRsaVsSoftHsm = 1.0;
constexpr int kKeyGenRuns = 15;
constexpr double kTargetCipherVsOpenSsl = 0.9;
constexpr double kTargetCipherSmallVsSoftHsm = 2.0;

const char* const kKorvo = "Korvo";
const char* const kSoftHsm = "SoftHSM2";
const char* const kOpenSsl = "OpenSSL";

const char* const kLargeFamily = "SHA256_C_Digest_1MiB";
const char* const kSmallFamily = "SHA256_C_Digest_64B";
const char* const kTwoThreadFamily = "SHA256_C_Digest_64B_2threads";
const char* const kRandomFamily = "C_GenerateRandom_1MiB";
const char* const kSessionFamily = "C_OpenSession_C_CloseSession";
const char* const kCreateFamily = "C_CreateObject_C_DestroyObject";
const char* const kFindSmallFamily = "C_FindObjects_1_of_1000";
const char* const kFindLargeFamily = "C_FindObjects_1_of_10000";
const char* const kRsaSignFamily = "RSA2048_SHA256_RSA_PKCS_Sign";
const char* const kRsaVerifyFamily = "RSA2048_SHA256_RSA_PKCS_Verify";
const char* const kRsaKeyGenFamily = "RSA2048_GenerateKeyPair";
const char* const kAesLargeFamily = "AES128_CBC_C_Encrypt_1MiB";
const char* const kAesSmallFamily = "AES128_CBC_C_EncryptInit_C_Encrypt_64B";
const char* const kDes3LargeFamily = "DES3_CBC_C_Encrypt_1MiB";
constexpr size_t kFindSmallCount = 1000;
constexpr size_t kFindLargeCount = 10000;

// A directory made at start-up and removed with everything in it at exit.
class TempDir {
public:
    explicit TempDir(const char* prefix)
    {
        std::string pattern = std::filesystem::temp_directory_path().string() + "/" + prefix + "XXXXXX";
        std::vector<char> buffer(pattern.begin(), pattern.end());
        buffer.push_back('\0');
        if (mkdtemp(buffer.data())) path_ = buffer.data();
    }
    ~TempDir()
    {
        std::error_code ignored;
        if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    bool ok() const { return !path_.empty(); }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

// A module ready to be measured: loaded, initialised, with a session open.
struct Target {
    std::unique_ptr<Module> module;
    CK_SLOT_ID slot = 0;
    CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
    bool ready = false;
    // The RSA key pair imported for the signature families (none when the
    // module refused it).
    CK_OBJECT_HANDLE rsaPublic = CK_INVALID_HANDLE;
    CK_OBJECT_HANDLE rsaPrivate = CK_INVALID_HANDLE;
    std::string rsaError;
    // The AES-128 and three-key DES keys of the cipher families.
    CK_OBJECT_HANDLE aesKey = CK_INVALID_HANDLE;
    CK_OBJECT_HANDLE des3Key = CK_INVALID_HANDLE;
    std::string cipherError;
};

std::vector<unsigned char> makeBuffer(size_t size)
{
    std::vector<unsigned char> data(size);
    for (size_t i = 0; i < size; ++i) data[i] = static_cast<unsigned char>(i * 131u + 7u);
    return data;
}

const std::vector<unsigned char>& largeBuffer()
{
    static const std::vector<unsigned char> data = makeBuffer(kLargeSize);
    return data;
}

const std::vector<unsigned char>& smallBuffer()
{
    static const std::vector<unsigned char> data = makeBuffer(kSmallSize);
    return data;
}

CK_RV digestOnce(const Target& target, const std::vector<unsigned char>& data, CK_BYTE* out, CK_ULONG* outLength)
{
    CK_MECHANISM mechanism = {CKM_SHA256, nullptr, 0};
    CK_FUNCTION_LIST_PTR f = target.module->functions();
    CK_RV rv = f->C_DigestInit(target.session, &mechanism);
    if (rv != CKR_OK) return rv;
    return f->C_Digest(target.session, const_cast<CK_BYTE_PTR>(data.data()), CK_ULONG(data.size()), out, outLength);
}

// Before anything is timed: the module's SHA-256 must equal OpenSSL's.
bool checkDigests(Target& target)
{
    for (const auto* data : {&largeBuffer(), &smallBuffer()}) {
        unsigned char expected[EVP_MAX_MD_SIZE];
        unsigned int expectedLength = 0;
        EVP_Digest(data->data(), data->size(), expected, &expectedLength, EVP_sha256(), nullptr);
        CK_BYTE got[64];
        CK_ULONG gotLength = sizeof got;
        const CK_RV rv = digestOnce(target, *data, got, &gotLength);
        if (rv != CKR_OK) return target.module->fail("C_DigestInit/C_Digest (CKM_SHA256)", rv);
        if (gotLength != expectedLength || std::memcmp(got, expected, expectedLength) != 0)
            return target.module->fail("C_Digest gave a SHA-256 different from OpenSSL's on " + std::to_string(data->size()) +
                                       " bytes");
    }
    return true;
}

bool prepareKorvo(Target& target, const std::string& path, bool osLocking)
{
    target.module = std::make_unique<Module>(kKorvo, path);
    Module& m = *target.module;
    if (!m.load(osLocking)) return false;
    if (!m.findSlot(&target.slot, Module::TokenState::Any)) return false;
    if (!m.openSession(target.slot, &target.session)) return false;
    return checkDigests(target);
}

bool prepareSoftHsm(Target& target, const std::string& path, bool osLocking)
{
    target.module = std::make_unique<Module>(kSoftHsm, path);
    Module& m = *target.module;
    if (!m.load(osLocking)) return false;

    // The token directory starts empty, so the module shows one fresh token.
    CK_SLOT_ID fresh = 0;
    if (!m.findSlot(&fresh, Module::TokenState::Fresh)) return false;
    CK_UTF8CHAR label[32];
    std::memset(label, ' ', sizeof label);
    std::memcpy(label, "bench", 5);
    CK_UTF8CHAR soPin[] = {'1', '2', '3', '4'};
    const CK_RV rv = m.functions()->C_InitToken(fresh, soPin, sizeof soPin, label);
    if (rv != CKR_OK) return m.fail("C_InitToken", rv);
    // The initialised token is listed under its new slot id after a restart.
    if (!m.reinitialise()) return false;
    if (!m.findSlot(&target.slot, Module::TokenState::Initialised)) return false;
    if (!m.openSession(target.slot, &target.session)) return false;
    return checkDigests(target);
}

void BM_C_Digest(benchmark::State& state, Target* target, const std::vector<unsigned char>* data)
{
    CK_BYTE digest[kSha256Length];
    for (auto _ : state) {
        CK_ULONG length = sizeof digest;
        const CK_RV rv = digestOnce(*target, *data, digest, &length);
        if (rv != CKR_OK) {
            state.SkipWithError(("C_DigestInit/C_Digest returned " + rvName(rv)).c_str());
            break;
        }
        benchmark::DoNotOptimize(digest);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(data->size()));
    state.SetItemsProcessed(int64_t(state.iterations()));
}

// Each of the benchmark's threads digests in a session of its own, opened
// before its timing starts; Google Benchmark sums the threads' items over
// the wall-clock time.
void BM_C_Digest_OwnSession(benchmark::State& state, Target* target, const std::vector<unsigned char>* data)
{
    CK_FUNCTION_LIST_PTR f = target->module->functions();
    Target own;
    own.slot = target->slot;
    CK_RV rv = f->C_OpenSession(target->slot, CKF_SERIAL_SESSION, nullptr, nullptr, &own.session);
    if (rv != CKR_OK) {
        state.SkipWithError(("C_OpenSession returned " + rvName(rv)).c_str());
        return;
    }
    CK_MECHANISM mechanism = {CKM_SHA256, nullptr, 0};
    CK_BYTE digest[kSha256Length];
    for (auto _ : state) {
        CK_ULONG length = sizeof digest;
        rv = f->C_DigestInit(own.session, &mechanism);
        if (rv == CKR_OK) rv = f->C_Digest(own.session, const_cast<CK_BYTE_PTR>(data->data()), CK_ULONG(data->size()), digest, &length);
        if (rv != CKR_OK) {
            state.SkipWithError(("C_DigestInit/C_Digest returned " + rvName(rv)).c_str());
            break;
        }
        benchmark::DoNotOptimize(digest);
        benchmark::ClobberMemory();
    }
    f->C_CloseSession(own.session);
    state.SetItemsProcessed(int64_t(state.iterations()));
}

void BM_C_GenerateRandom(benchmark::State& state, Target* target)
{
    CK_FUNCTION_LIST_PTR f = target->module->functions();
    std::vector<CK_BYTE> buffer(kLargeSize);
    for (auto _ : state) {
        const CK_RV rv = f->C_GenerateRandom(target->session, buffer.data(), CK_ULONG(buffer.size()));
        if (rv != CKR_OK) {
            state.SkipWithError(("C_GenerateRandom returned " + rvName(rv)).c_str());
            break;
        }
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(buffer.size()));
    state.SetItemsProcessed(int64_t(state.iterations()));
}

void BM_RAND_bytes(benchmark::State& state)
{
    std::vector<unsigned char> buffer(kLargeSize);
    for (auto _ : state) {
        if (RAND_bytes(buffer.data(), int(buffer.size())) != 1) {
            state.SkipWithError("RAND_bytes failed");
            break;
        }
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(buffer.size()));
    state.SetItemsProcessed(int64_t(state.iterations()));
}

void BM_OpenCloseSession(benchmark::State& state, Target* target)
{
    CK_FUNCTION_LIST_PTR f = target->module->functions();
    for (auto _ : state) {
        CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
        CK_RV rv = f->C_OpenSession(target->slot, CKF_SERIAL_SESSION, nullptr, nullptr, &session);
        if (rv == CKR_OK) rv = f->C_CloseSession(session);
        if (rv != CKR_OK) {
            state.SkipWithError(("C_OpenSession/C_CloseSession returned " + rvName(rv)).c_str());
            break;
        }
    }
    state.SetItemsProcessed(int64_t(state.iterations()));
}

void BM_EVP_Digest(benchmark::State& state, const std::vector<unsigned char>* data)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    for (auto _ : state) {
        EVP_Digest(data->data(), data->size(), digest, nullptr, EVP_sha256(), nullptr);
        benchmark::DoNotOptimize(digest);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(data->size()));
    state.SetItemsProcessed(int64_t(state.iterations()));
}

// A small public data object as a session object. Both modules get every
// attribute spelled out (SoftHSM2 would make the object private otherwise).
struct DataObjectTemplate {
    CK_OBJECT_CLASS objectClass = CKO_DATA;
    CK_BBOOL no = CK_FALSE;
    CK_BYTE value[16];
    std::string label;
    CK_ATTRIBUTE attributes[5];

    explicit DataObjectTemplate(std::string text) : label(std::move(text))
    {
        for (size_t i = 0; i < sizeof value; ++i) value[i] = CK_BYTE(i);
        attributes[0] = {CKA_CLASS, &objectClass, sizeof objectClass};
        attributes[1] = {CKA_TOKEN, &no, sizeof no};
        attributes[2] = {CKA_PRIVATE, &no, sizeof no};
        attributes[3] = {CKA_LABEL, label.data(), CK_ULONG(label.size())};
        attributes[4] = {CKA_VALUE, value, sizeof value};
    }
    DataObjectTemplate(const DataObjectTemplate&) = delete;
    DataObjectTemplate& operator=(const DataObjectTemplate&) = delete;
};

void BM_CreateDestroyObject(benchmark::State& state, Target* target)
{
    CK_FUNCTION_LIST_PTR f = target->module->functions();
    DataObjectTemplate data("bench object");
    for (auto _ : state) {
        CK_OBJECT_HANDLE object = CK_INVALID_HANDLE;
        CK_RV rv = f->C_CreateObject(target->session, data.attributes, 5, &object);
        if (rv == CKR_OK) rv = f->C_DestroyObject(target->session, object);
        if (rv != CKR_OK) {
            state.SkipWithError(("C_CreateObject/C_DestroyObject returned " + rvName(rv)).c_str());
            break;
        }
    }
    state.SetItemsProcessed(int64_t(state.iterations()));
}

// The session objects searched through: `count` data objects labelled
// "object 0", "object 1", ... in a session of their own. A search sees the
// objects of every session, so one population exists at a time: asking for
// another closes the session of the previous one, and its objects with it.
class Population {
public:
    // The session holding `count` objects in `target`'s module, made on first use.
    CK_RV session(Target* target, size_t count, CK_SESSION_HANDLE* session)
    {
        if (target_ != target || count_ != count) {
            close();
            CK_FUNCTION_LIST_PTR f = target->module->functions();
            CK_RV rv = f->C_OpenSession(target->slot, CKF_SERIAL_SESSION, nullptr, nullptr, &session_);
            if (rv != CKR_OK) return rv;
            target_ = target;
            for (size_t i = 0; i < count; ++i) {
                DataObjectTemplate data("object " + std::to_string(i));
                CK_OBJECT_HANDLE object;
                rv = f->C_CreateObject(session_, data.attributes, 5, &object);
                if (rv != CKR_OK) {
                    close();
                    return rv;
                }
            }
            count_ = count;
        }
        *session = session_;
        return CKR_OK;
    }

    void close()
    {
        if (target_) target_->module->functions()->C_CloseSession(session_);
        target_ = nullptr;
        count_ = 0;
    }

private:
    Target* target_ = nullptr;
    size_t count_ = 0;
    CK_SESSION_HANDLE session_ = CK_INVALID_HANDLE;
};

Population& population()
{
    static Population instance;
    return instance;
}

// One search for the object in the middle of the population, by label.
void BM_FindOneObject(benchmark::State& state, Target* target, size_t count)
{
    CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
    CK_RV rv = population().session(target, count, &session);
    if (rv != CKR_OK) {
        state.SkipWithError(("populating with C_CreateObject returned " + rvName(rv)).c_str());
        return;
    }
    CK_FUNCTION_LIST_PTR f = target->module->functions();
    std::string needle = "object " + std::to_string(count / 2);
    CK_ATTRIBUTE byLabel = {CKA_LABEL, needle.data(), CK_ULONG(needle.size())};
    for (auto _ : state) {
        CK_OBJECT_HANDLE found[2];
        CK_ULONG n = 0;
        rv = f->C_FindObjectsInit(session, &byLabel, 1);
        if (rv == CKR_OK) rv = f->C_FindObjects(session, found, 2, &n);
        if (rv == CKR_OK) rv = f->C_FindObjectsFinal(session);
        if (rv != CKR_OK || n != 1) {
            state.SkipWithError(rv != CKR_OK ? ("a search call returned " + rvName(rv)).c_str()
                                             : ("the search found " + std::to_string(n) + " objects, not 1").c_str());
            break;
        }
    }
    state.SetItemsProcessed(int64_t(state.iterations()));
}

// ---- RSA-2048 ----

// The one key every subject uses: made once by OpenSSL.
EVP_PKEY* rsaKey()
{
    static EVP_PKEY* key = EVP_RSA_gen(2048);
    return key;
}

std::vector<CK_BYTE> rsaNumber(const char* name)
{
    BIGNUM* bn = nullptr;
    EVP_PKEY_get_bn_param(rsaKey(), name, &bn);
    std::vector<CK_BYTE> bytes(bn ? size_t(BN_num_bytes(bn)) : 0);
    if (bn) BN_bn2bin(bn, bytes.data());
    BN_clear_free(bn);
    return bytes;
}

CK_RV signOnce(Target& target, const std::vector<unsigned char>& data, CK_BYTE* signature, CK_ULONG* length)
{
    CK_FUNCTION_LIST_PTR f = target.module->functions();
    CK_MECHANISM mechanism = {CKM_SHA256_RSA_PKCS, nullptr, 0};
    CK_RV rv = f->C_SignInit(target.session, &mechanism, target.rsaPrivate);
    if (rv == CKR_OK) rv = f->C_Sign(target.session, const_cast<CK_BYTE_PTR>(data.data()), CK_ULONG(data.size()), signature, length);
    return rv;
}

CK_RV verifyOnce(Target& target, const std::vector<unsigned char>& data, CK_BYTE* signature, CK_ULONG length)
{
    CK_FUNCTION_LIST_PTR f = target.module->functions();
    CK_MECHANISM mechanism = {CKM_SHA256_RSA_PKCS, nullptr, 0};
    CK_RV rv = f->C_VerifyInit(target.session, &mechanism, target.rsaPublic);
    if (rv == CKR_OK) rv = f->C_Verify(target.session, const_cast<CK_BYTE_PTR>(data.data()), CK_ULONG(data.size()), signature, length);
    return rv;
}

// Imports the key as two session objects and checks, before anything is
// timed, that a signature made by the module verifies with OpenSSL.
void importRsaKey(Target& target)
{
    CK_FUNCTION_LIST_PTR f = target.module->functions();
    CK_OBJECT_CLASS publicClass = CKO_PUBLIC_KEY, privateClass = CKO_PRIVATE_KEY;
    CK_KEY_TYPE rsa = CKK_RSA;
    CK_BBOOL no = CK_FALSE, yes = CK_TRUE;
    std::vector<CK_BYTE> n = rsaNumber("n"), e = rsaNumber("e"), d = rsaNumber("d"), p = rsaNumber("rsa-factor1"),
                         q = rsaNumber("rsa-factor2"), dp = rsaNumber("rsa-exponent1"), dq = rsaNumber("rsa-exponent2"),
                         qinv = rsaNumber("rsa-coefficient1");
    CK_ATTRIBUTE publicTemplate[] = {
        {CKA_CLASS, &publicClass, sizeof publicClass}, {CKA_KEY_TYPE, &rsa, sizeof rsa}, {CKA_TOKEN, &no, 1},
        {CKA_VERIFY, &yes, 1}, {CKA_MODULUS, n.data(), CK_ULONG(n.size())},
        {CKA_PUBLIC_EXPONENT, e.data(), CK_ULONG(e.size())}};
    CK_ATTRIBUTE privateTemplate[] = {
        {CKA_CLASS, &privateClass, sizeof privateClass}, {CKA_KEY_TYPE, &rsa, sizeof rsa}, {CKA_TOKEN, &no, 1},
        {CKA_PRIVATE, &no, 1}, {CKA_SIGN, &yes, 1}, {CKA_MODULUS, n.data(), CK_ULONG(n.size())},
        {CKA_PUBLIC_EXPONENT, e.data(), CK_ULONG(e.size())}, {CKA_PRIVATE_EXPONENT, d.data(), CK_ULONG(d.size())},
        {CKA_PRIME_1, p.data(), CK_ULONG(p.size())}, {CKA_PRIME_2, q.data(), CK_ULONG(q.size())},
        {CKA_EXPONENT_1, dp.data(), CK_ULONG(dp.size())}, {CKA_EXPONENT_2, dq.data(), CK_ULONG(dq.size())},
        {CKA_COEFFICIENT, qinv.data(), CK_ULONG(qinv.size())}};
    CK_RV rv = f->C_CreateObject(target.session, publicTemplate, 6, &target.rsaPublic);
    if (rv == CKR_OK) rv = f->C_CreateObject(target.session, privateTemplate, 13, &target.rsaPrivate);
    if (rv != CKR_OK) {
        target.rsaError = "C_CreateObject of the RSA key returned " + rvName(rv);
        target.rsaPrivate = target.rsaPublic = CK_INVALID_HANDLE;
        return;
    }
    CK_BYTE signature[512];
    CK_ULONG length = sizeof signature;
    rv = signOnce(target, smallBuffer(), signature, &length);
    if (rv == CKR_OK) rv = verifyOnce(target, smallBuffer(), signature, length);
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    const bool openSslAgrees = rv == CKR_OK && EVP_DigestVerifyInit(ctx, nullptr, EVP_sha256(), nullptr, rsaKey()) == 1 &&
                               EVP_DigestVerify(ctx, signature, length, smallBuffer().data(), smallBuffer().size()) == 1;
    EVP_MD_CTX_free(ctx);
    if (!openSslAgrees) {
        target.rsaError = rv != CKR_OK ? "signing or verifying returned " + rvName(rv) : "OpenSSL does not verify its signature";
        target.rsaPrivate = target.rsaPublic = CK_INVALID_HANDLE;
    }
}

void BM_C_Sign(benchmark::State& state, Target* target)
{
    CK_BYTE signature[512];
    for (auto _ : state) {
        CK_ULONG length = sizeof signature;
        const CK_RV rv = signOnce(*target, smallBuffer(), signature, &length);
        if (rv != CKR_OK) {
            state.SkipWithError(("C_SignInit/C_Sign returned " + rvName(rv)).c_str());
            break;
        }
        benchmark::DoNotOptimize(signature);
    }
    state.SetItemsProcessed(int64_t(state.iterations()));
}

void BM_C_Verify(benchmark::State& state, Target* target)
{
    CK_BYTE signature[512];
    CK_ULONG length = sizeof signature;
    CK_RV rv = signOnce(*target, smallBuffer(), signature, &length);
    for (auto _ : state) {
        if (rv == CKR_OK) rv = verifyOnce(*target, smallBuffer(), signature, length);
        if (rv != CKR_OK) {
            state.SkipWithError(("C_Sign or C_VerifyInit/C_Verify returned " + rvName(rv)).c_str());
            break;
        }
    }
    state.SetItemsProcessed(int64_t(state.iterations()));
}

void BM_C_GenerateKeyPair(benchmark::State& state, Target* target)
{
    CK_FUNCTION_LIST_PTR f = target->module->functions();
    CK_ULONG bits = 2048;
    CK_BYTE exponent[] = {0x01, 0x00, 0x01};
    CK_BBOOL no = CK_FALSE, yes = CK_TRUE;
    CK_ATTRIBUTE publicTemplate[] = {{CKA_MODULUS_BITS, &bits, sizeof bits},
                                     {CKA_PUBLIC_EXPONENT, exponent, sizeof exponent},
                                     {CKA_TOKEN, &no, 1},
                                     {CKA_VERIFY, &yes, 1}};
    CK_ATTRIBUTE privateTemplate[] = {{CKA_TOKEN, &no, 1}, {CKA_PRIVATE, &no, 1}, {CKA_SIGN, &yes, 1}};
    CK_MECHANISM mechanism = {CKM_RSA_PKCS_KEY_PAIR_GEN, nullptr, 0};
    for (auto _ : state) {
        CK_OBJECT_HANDLE publicKey = CK_INVALID_HANDLE, privateKey = CK_INVALID_HANDLE;
        const CK_RV rv = f->C_GenerateKeyPair(target->session, &mechanism, publicTemplate, 4, privateTemplate, 3,
                                              &publicKey, &privateKey);
        if (rv != CKR_OK) {
            state.SkipWithError(("C_GenerateKeyPair returned " + rvName(rv)).c_str());
            break;
        }
        state.PauseTiming();
        f->C_DestroyObject(target->session, publicKey);
        f->C_DestroyObject(target->session, privateKey);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(int64_t(state.iterations()));
}

void BM_EVP_DigestSign(benchmark::State& state)
{
    unsigned char signature[512];
    for (auto _ : state) {
        EVP_MD_CTX* ctx = EVP_MD_CTX_new();
        size_t length = sizeof signature;
        const bool ok = EVP_DigestSignInit(ctx, nullptr, EVP_sha256(), nullptr, rsaKey()) == 1 &&
                        EVP_DigestSign(ctx, signature, &length, smallBuffer().data(), smallBuffer().size()) == 1;
        EVP_MD_CTX_free(ctx);
        if (!ok) {
            state.SkipWithError("EVP_DigestSign failed");
            break;
        }
    }
    state.SetItemsProcessed(int64_t(state.iterations()));
}

void BM_EVP_DigestVerify(benchmark::State& state)
{
    unsigned char signature[512];
    size_t length = sizeof signature;
    EVP_MD_CTX* signer = EVP_MD_CTX_new();
    EVP_DigestSignInit(signer, nullptr, EVP_sha256(), nullptr, rsaKey());
    EVP_DigestSign(signer, signature, &length, smallBuffer().data(), smallBuffer().size());
    EVP_MD_CTX_free(signer);
    for (auto _ : state) {
        EVP_MD_CTX* ctx = EVP_MD_CTX_new();
        const bool ok = EVP_DigestVerifyInit(ctx, nullptr, EVP_sha256(), nullptr, rsaKey()) == 1 &&
                        EVP_DigestVerify(ctx, signature, length, smallBuffer().data(), smallBuffer().size()) == 1;
        EVP_MD_CTX_free(ctx);
        if (!ok) {
            state.SkipWithError("EVP_DigestVerify failed");
            break;
        }
    }
    state.SetItemsProcessed(int64_t(state.iterations()));
}

void BM_EVP_PKEY_keygen(benchmark::State& state)
{
    for (auto _ : state) {
        EVP_PKEY* key = EVP_RSA_gen(2048);
        if (!key) {
            state.SkipWithError("EVP_RSA_gen failed");
            break;
        }
        state.PauseTiming();
        EVP_PKEY_free(key);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(int64_t(state.iterations()));
}

// ---- ciphers ----

// One cipher family: the mechanism, the key it runs with, OpenSSL's name
// for the same cipher.
struct CipherFamily {
    CK_MECHANISM_TYPE mechanism;
    CK_KEY_TYPE keyType;
    size_t keyLength, ivLength;
    const char* openssl;
};

const CipherFamily kAesCbc = {CKM_AES_CBC, CKK_AES, 16, 16, "AES-128-CBC"};
const CipherFamily kDes3Cbc = {CKM_DES3_CBC, CKK_DES3, 24, 8, "DES-EDE3-CBC"};

std::vector<unsigned char> cipherKey(const CipherFamily& family)
{
    std::vector<unsigned char> key(family.keyLength);
    for (size_t i = 0; i < key.size(); ++i) key[i] = static_cast<unsigned char>(0x5B + 29 * i);
    return key;
}

const unsigned char kIv[16] = {0x0F, 0x1E, 0x2D, 0x3C, 0x4B, 0x5A, 0x69, 0x78, 0x87, 0x96, 0xA5, 0xB4, 0xC3, 0xD2, 0xE1, 0xF0};

CK_OBJECT_HANDLE Target::* keyOf(const CipherFamily& family)
{
    return family.keyType == CKK_AES ? &Target::aesKey : &Target::des3Key;
}

CK_RV encryptOnce(const Target& target, const CipherFamily& family, const std::vector<unsigned char>& data,
                  CK_BYTE* out, CK_ULONG* outLength)
{
    CK_FUNCTION_LIST_PTR f = target.module->functions();
    CK_MECHANISM mechanism = {family.mechanism, const_cast<unsigned char*>(kIv), CK_ULONG(family.ivLength)};
    CK_RV rv = f->C_EncryptInit(target.session, &mechanism, target.*keyOf(family));
    if (rv == CKR_OK) rv = f->C_Encrypt(target.session, const_cast<CK_BYTE_PTR>(data.data()), CK_ULONG(data.size()), out, outLength);
    return rv;
}

bool evpEncrypt(const CipherFamily& family, const std::vector<unsigned char>& data, unsigned char* out)
{
    static const std::vector<unsigned char> aesKey = cipherKey(kAesCbc), des3Key = cipherKey(kDes3Cbc);
    EVP_CIPHER* cipher = EVP_CIPHER_fetch(nullptr, family.openssl, nullptr);
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    int n = 0;
    const bool ok = EVP_EncryptInit_ex2(ctx, cipher, (family.keyType == CKK_AES ? aesKey : des3Key).data(), kIv, nullptr) == 1 &&
                    EVP_CIPHER_CTX_set_padding(ctx, 0) == 1 &&
                    EVP_EncryptUpdate(ctx, out, &n, data.data(), int(data.size())) == 1;
    EVP_CIPHER_CTX_free(ctx);
    EVP_CIPHER_free(cipher);
    return ok;
}

// Imports both keys as session objects and checks, before anything is
// timed, that the module's ciphertext is OpenSSL's.
void importCipherKeys(Target& target)
{
    CK_FUNCTION_LIST_PTR f = target.module->functions();
    for (const CipherFamily* family : {&kAesCbc, &kDes3Cbc}) {
        CK_OBJECT_CLASS secretClass = CKO_SECRET_KEY;
        CK_KEY_TYPE keyType = family->keyType;
        CK_BBOOL no = CK_FALSE, yes = CK_TRUE;
        std::vector<unsigned char> value = cipherKey(*family);
        CK_ATTRIBUTE keyTemplate[] = {{CKA_CLASS, &secretClass, sizeof secretClass}, {CKA_KEY_TYPE, &keyType, sizeof keyType},
                                      {CKA_TOKEN, &no, 1}, {CKA_PRIVATE, &no, 1}, {CKA_ENCRYPT, &yes, 1},
                                      {CKA_VALUE, value.data(), CK_ULONG(value.size())}};
        CK_RV rv = f->C_CreateObject(target.session, keyTemplate, 6, &(target.*keyOf(*family)));
        std::vector<unsigned char> ours(kSmallSize), theirs(kSmallSize);
        CK_ULONG length = CK_ULONG(ours.size());
        if (rv == CKR_OK) rv = encryptOnce(target, *family, smallBuffer(), ours.data(), &length);
        if (rv != CKR_OK || !evpEncrypt(*family, smallBuffer(), theirs.data()) || ours != theirs) {
            target.cipherError = std::string(family->openssl) +
                                 (rv != CKR_OK ? " returned " + rvName(rv) : std::string(" differs from OpenSSL"));
            target.aesKey = target.des3Key = CK_INVALID_HANDLE;
            return;
        }
    }
}

void BM_C_Encrypt(benchmark::State& state, Target* target, const CipherFamily* family, const std::vector<unsigned char>* data)
{
    std::vector<unsigned char> out(data->size());
    for (auto _ : state) {
        CK_ULONG length = CK_ULONG(out.size());
        const CK_RV rv = encryptOnce(*target, *family, *data, out.data(), &length);
        if (rv != CKR_OK) {
            state.SkipWithError(("C_EncryptInit/C_Encrypt returned " + rvName(rv)).c_str());
            break;
        }
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(data->size()));
    state.SetItemsProcessed(int64_t(state.iterations()));
}

void BM_EVP_Encrypt(benchmark::State& state, const CipherFamily* family, const std::vector<unsigned char>* data)
{
    std::vector<unsigned char> out(data->size());
    for (auto _ : state) {
        if (!evpEncrypt(*family, *data, out.data())) {
            state.SkipWithError("EVP_EncryptUpdate failed");
            break;
        }
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(data->size()));
    state.SetItemsProcessed(int64_t(state.iterations()));
}

// Prints as the console reporter does and keeps every run's wall-clock rate
// (the items_per_second counter: one item is one timed iteration) under
// "family/subject"; with --benchmark_report_aggregates_only it keeps the
// median aggregate instead.
class CollectingReporter : public benchmark::ConsoleReporter {
public:
    explicit CollectingReporter(OutputOptions options) : benchmark::ConsoleReporter(options) {}

    void ReportRuns(const std::vector<Run>& reports) override
    {
        benchmark::ConsoleReporter::ReportRuns(reports);
        for (const Run& run : reports) {
            if (run.error_occurred) continue;
            const auto counter = run.counters.find("items_per_second");
            if (counter == run.counters.end() || counter->second.value <= 0) continue;
            const std::string& name = run.run_name.function_name;
            if (run.run_type == Run::RT_Iteration) rates_[name].push_back(counter->second.value);
            else if (run.aggregate_name == "median") medians_[name] = {counter->second.value, size_t(run.repetitions)};
        }
    }

    // The median over repetitions, or 0 when the benchmark did not run.
    double rate(const std::string& name) const
    {
        auto it = rates_.find(name);
        if (it == rates_.end() || it->second.empty()) {
            auto median = medians_.find(name);
            return median == medians_.end() ? 0 : median->second.first;
        }
        std::vector<double> values = it->second;
        std::sort(values.begin(), values.end());
        const size_t n = values.size();
        return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
    }

    // How many repetitions the figure of `name` summarises.
    size_t repetitions(const std::string& name) const
    {
        auto it = rates_.find(name);
        if (it != rates_.end() && !it->second.empty()) return it->second.size();
        auto median = medians_.find(name);
        return median == medians_.end() ? 0 : median->second.second;
    }

private:
    std::map<std::string, std::vector<double>> rates_;
    std::map<std::string, std::pair<double, size_t>> medians_;  // median rate, repetitions
};

std::string key(const char* family, const char* subject)
{
    return std::string(family) + "/" + subject;
}

std::string cell(double value, const char* format)
{
    if (value <= 0) return "n/a";
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, format, value);
    return buffer;
}

// Returns whether the ratio is known and meets the target.
bool printRatio(const char* what, double ours, double theirs, double target, bool* known)
{
    if (ours <= 0 || theirs <= 0) {
        std::printf("%-56s n/a   (target >= %.2f)  NOT MEASURED\n", what, target);
        *known = false;
        return false;
    }
    const double ratio = ours / theirs;
    const bool met = ratio >= target;
    std::printf("%-56s %.3f (target >= %.2f)  %s\n", what, ratio, target, met ? "MET" : "NOT MET");
    *known = true;
    return met;
}

}  // namespace

int main(int argc, char** argv)
{
    std::string korvoPath = KORVO_MODULE_PATH;
    std::string softHsmPath = SOFTHSM2_MODULE_PATH;
    bool osLocking = true;
    bool enforce = false;

    // Our own flags first; what is left goes to Google Benchmark.
    int kept = 1;
    for (int i = 1; i < argc; ++i) {
        std::string value;
        if (takeFlag(argv[i], "--korvo_module", &value)) korvoPath = value;
        else if (takeFlag(argv[i], "--softhsm2_module", &value)) softHsmPath = value;
        else if (takeFlag(argv[i], "--null_init_args", &value)) osLocking = false;
        else if (takeFlag(argv[i], "--enforce_targets", &value)) enforce = true;
        else argv[kept++] = argv[i];
    }
    argc = kept;
    argv[argc] = nullptr;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;

    // The sandboxes, set up before either module is loaded.
    TempDir home("p11bench-home-");
    TempDir softHsmDir("p11bench-softhsm2-");
    if (!home.ok() || !softHsmDir.ok()) {
        std::fprintf(stderr, "p11_bench: cannot create temporary directories\n");
        return 1;
    }
    setenv("HOME", home.path().c_str(), 1);
    unsetenv("XDG_CONFIG_HOME");
    const std::string tokenDir = softHsmDir.path() + "/tokens";
    const std::string softHsmConf = softHsmDir.path() + "/softhsm2.conf";
    std::filesystem::create_directories(tokenDir);
    {
        std::ofstream conf(softHsmConf);
        conf << "directories.tokendir = " << tokenDir << "\n"
             << "objectstore.backend = file\n"
             << "log.level = ERROR\n"
             << "slots.removable = false\n";
    }
    setenv("SOFTHSM2_CONF", softHsmConf.c_str(), 1);

    Target korvo, softHsm;
    korvo.ready = prepareKorvo(korvo, korvoPath, osLocking);
    softHsm.ready = prepareSoftHsm(softHsm, softHsmPath, osLocking);

    std::printf("Korvo:    %s\n          %s\n", korvoPath.c_str(),
                korvo.ready ? "ready" : ("UNAVAILABLE - " + korvo.module->error()).c_str());
    std::printf("SoftHSM2: %s\n          %s\n", softHsmPath.c_str(),
                softHsm.ready ? "ready" : ("UNAVAILABLE - " + softHsm.module->error()).c_str());
    std::printf("C_Initialize: %s; every digest checked against OpenSSL before timing\n\n",
                osLocking ? "CKF_OS_LOCKING_OK" : "NULL");
    std::fflush(stdout);

    const std::vector<unsigned char>* large = &largeBuffer();
    const std::vector<unsigned char>* small = &smallBuffer();
    const std::pair<const char*, Target*> modules[] = {{kKorvo, &korvo}, {kSoftHsm, &softHsm}};

    for (const auto& [name, target] : modules)
        if (target->ready)
            benchmark::RegisterBenchmark(key(kLargeFamily, name).c_str(), BM_C_Digest, target, large)->UseRealTime();
    benchmark::RegisterBenchmark(key(kLargeFamily, kOpenSsl).c_str(), BM_EVP_Digest, large)->UseRealTime();
    for (const auto& [name, target] : modules)
        if (target->ready)
            benchmark::RegisterBenchmark(key(kSmallFamily, name).c_str(), BM_C_Digest, target, small)->UseRealTime();
    benchmark::RegisterBenchmark(key(kSmallFamily, kOpenSsl).c_str(), BM_EVP_Digest, small)->UseRealTime();
    if (osLocking)
        for (const auto& [name, target] : modules)
            if (target->ready)
                benchmark::RegisterBenchmark(key(kTwoThreadFamily, name).c_str(), BM_C_Digest_OwnSession, target, small)
                    ->Threads(2)
                    ->UseRealTime();
    benchmark::RegisterBenchmark(key(kTwoThreadFamily, kOpenSsl).c_str(), BM_EVP_Digest, small)->Threads(2)->UseRealTime();
    for (const auto& [name, target] : modules)
        if (target->ready)
            benchmark::RegisterBenchmark(key(kRandomFamily, name).c_str(), BM_C_GenerateRandom, target)->UseRealTime();
    benchmark::RegisterBenchmark(key(kRandomFamily, kOpenSsl).c_str(), BM_RAND_bytes)->UseRealTime();
    for (const auto& [name, target] : modules)
        if (target->ready)
            benchmark::RegisterBenchmark(key(kSessionFamily, name).c_str(), BM_OpenCloseSession, target)->UseRealTime();
    for (const auto& [name, target] : modules)
        if (target->ready)
            benchmark::RegisterBenchmark(key(kCreateFamily, name).c_str(), BM_CreateDestroyObject, target)->UseRealTime();
    for (const auto& [family, count] : {std::pair{kFindSmallFamily, kFindSmallCount}, std::pair{kFindLargeFamily, kFindLargeCount}})
        for (const auto& [name, target] : modules)
            if (target->ready)
                benchmark::RegisterBenchmark(key(family, name).c_str(), BM_FindOneObject, target, count)->UseRealTime();

    for (const auto& [name, target] : modules)
        if (target->ready) importRsaKey(*target);
    for (const auto& [name, target] : modules)
        if (target->ready && target->rsaPrivate != CK_INVALID_HANDLE)
            benchmark::RegisterBenchmark(key(kRsaSignFamily, name).c_str(), BM_C_Sign, target)->UseRealTime();
    benchmark::RegisterBenchmark(key(kRsaSignFamily, kOpenSsl).c_str(), BM_EVP_DigestSign)->UseRealTime();
    for (const auto& [name, target] : modules)
        if (target->ready && target->rsaPublic != CK_INVALID_HANDLE)
            benchmark::RegisterBenchmark(key(kRsaVerifyFamily, name).c_str(), BM_C_Verify, target)->UseRealTime();
    benchmark::RegisterBenchmark(key(kRsaVerifyFamily, kOpenSsl).c_str(), BM_EVP_DigestVerify)->UseRealTime();
    // Key generation takes a random time: one pair per run, the median of many runs.
    for (const auto& [name, target] : modules)
        if (target->ready)
            benchmark::RegisterBenchmark(key(kRsaKeyGenFamily, name).c_str(), BM_C_GenerateKeyPair, target)
                ->Iterations(1)
                ->Repetitions(kKeyGenRuns)
                ->UseRealTime();
    benchmark::RegisterBenchmark(key(kRsaKeyGenFamily, kOpenSsl).c_str(), BM_EVP_PKEY_keygen)
        ->Iterations(1)
        ->Repetitions(kKeyGenRuns)
        ->UseRealTime();

    for (const auto& [name, target] : modules)
        if (target->ready) importCipherKeys(*target);
    const std::tuple<const char*, const CipherFamily*, const std::vector<unsigned char>*> cipherFamilies[] = {
        {kAesLargeFamily, &kAesCbc, large}, {kAesSmallFamily, &kAesCbc, small}, {kDes3LargeFamily, &kDes3Cbc, large}};
    for (const auto& [family, cipher, data] : cipherFamilies) {
        for (const auto& [name, target] : modules)
            if (target->ready && target->aesKey != CK_INVALID_HANDLE)
                benchmark::RegisterBenchmark(key(family, name).c_str(), BM_C_Encrypt, target, cipher, data)->UseRealTime();
        benchmark::RegisterBenchmark(key(family, kOpenSsl).c_str(), BM_EVP_Encrypt, cipher, data)->UseRealTime();
    }

    // Colours only on a terminal, as Google Benchmark's own reporter does.
    CollectingReporter reporter(isatty(STDOUT_FILENO) ? benchmark::ConsoleReporter::OO_Defaults
                                                      : benchmark::ConsoleReporter::OO_Tabular);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    population().close();

    // The side-by-side table.
    const double mib = 1024.0 * 1024.0;
    struct Row {
        const char* title;
        const char* family;
        double scale;  // the rate (iterations/s) times this gives the unit...
        bool inverse;  // ...or, when set, this divided by the rate does
        const char* format;
        bool digest;   // OpenSSL has a figure for it
    };
    const Row rows[] = {
        {"SHA-256 C_Digest 1 MiB       [MiB/s]", kLargeFamily, double(kLargeSize) / mib, false, "%.1f", true},
        {"SHA-256 C_Digest 64 B        [calls/s]", kSmallFamily, 1.0, false, "%.0f", true},
        {"SHA-256 C_Digest 64 B        [us/call]", kSmallFamily, 1e6, true, "%.3f", true},
        {"SHA-256 C_Digest 64 B, 2 thr [calls/s]", kTwoThreadFamily, 1.0, false, "%.0f", true},
        {"C_GenerateRandom 1 MiB       [MiB/s]", kRandomFamily, double(kLargeSize) / mib, false, "%.1f", true},
        {"C_OpenSession+C_CloseSession [pairs/s]", kSessionFamily, 1.0, false, "%.0f", false},
        {"C_CreateObject+C_DestroyObject [pairs/s]", kCreateFamily, 1.0, false, "%.0f", false},
        {"Find 1 of 1,000 objects      [us/search]", kFindSmallFamily, 1e6, true, "%.1f", false},
        {"Find 1 of 10,000 objects     [us/search]", kFindLargeFamily, 1e6, true, "%.1f", false},
        {"RSA-2048 SHA256 sign         [sig/s]", kRsaSignFamily, 1.0, false, "%.0f", true},
        {"RSA-2048 SHA256 verify       [verify/s]", kRsaVerifyFamily, 1.0, false, "%.0f", true},
        {"RSA-2048 key pair, median    [ms]", kRsaKeyGenFamily, 1e3, true, "%.0f", true},
        {"AES-128-CBC C_Encrypt 1 MiB  [MiB/s]", kAesLargeFamily, double(kLargeSize) / mib, false, "%.1f", true},
        {"AES-128-CBC init+encrypt 64 B [calls/s]", kAesSmallFamily, 1.0, false, "%.0f", true},
        {"3DES-CBC C_Encrypt 1 MiB     [MiB/s]", kDes3LargeFamily, double(kLargeSize) / mib, false, "%.1f", true},
    };
    size_t reps = 1;
    for (const Row& row : rows)
        for (const char* subject : {kKorvo, kSoftHsm, kOpenSsl})
            reps = std::max(reps, reporter.repetitions(key(row.family, subject)));
    std::printf("\n== Side by side (wall clock; %s) ==\n",
                reps > 1 ? ("median of " + std::to_string(reps) + " repetitions").c_str() : "one repetition");
    std::printf("%-40s %14s %14s %14s\n", "", kKorvo, kSoftHsm, "OpenSSL EVP");
    for (const Row& row : rows) {
        std::printf("%-40s", row.title);
        for (const char* subject : {kKorvo, kSoftHsm, kOpenSsl}) {
            const double rate = reporter.rate(key(row.family, subject));
            const double value = rate <= 0 ? 0 : row.inverse ? row.scale / rate : rate * row.scale;
            const bool applies = row.digest || std::strcmp(subject, kOpenSsl) != 0;
            std::printf(" %14s", applies ? cell(value, row.format).c_str() : "-");
        }
        std::printf("\n");
    }

    const double ourLarge = reporter.rate(key(kLargeFamily, kKorvo));
    const double openSslLarge = reporter.rate(key(kLargeFamily, kOpenSsl));
    const double ourSmall = reporter.rate(key(kSmallFamily, kKorvo));
    const double softHsmSmall = reporter.rate(key(kSmallFamily, kSoftHsm));

    std::printf("\n== Ratios ==\n");
    bool largeKnown = false, smallKnown = false;
    const bool largeMet = printRatio("Korvo 1 MiB C_Digest throughput / OpenSSL EVP_Digest", ourLarge, openSslLarge,
                                     kTargetLargeVsOpenSsl, &largeKnown);
    const bool smallMet = printRatio("Korvo 64 B C_Digest call rate / SoftHSM2", ourSmall, softHsmSmall,
                                     kTargetSmallVsSoftHsm, &smallKnown);
    bool threadsKnown = false, randomKnown = false;
    const bool threadsMet = !osLocking || printRatio("Korvo 64 B C_Digest, two threads / one thread",
                                                     reporter.rate(key(kTwoThreadFamily, kKorvo)), ourSmall,
                                                     kTargetTwoThreads, &threadsKnown);
    const bool randomMet = printRatio("Korvo C_GenerateRandom 1 MiB / SoftHSM2", reporter.rate(key(kRandomFamily, kKorvo)),
                                      reporter.rate(key(kRandomFamily, kSoftHsm)), kTargetRandomVsSoftHsm, &randomKnown);
    bool rsaKnown = false;
    bool rsaMet = true;
    for (const auto& [family, what] : {std::pair{kRsaSignFamily, "signatures"}, std::pair{kRsaVerifyFamily, "verifications"}}) {
        const double ours = reporter.rate(key(family, kKorvo));
        rsaMet = printRatio((std::string("Korvo RSA-2048 ") + what + "/s / OpenSSL EVP").c_str(), ours,
                            reporter.rate(key(family, kOpenSsl)), kTargetRsaVsOpenSsl, &rsaKnown) && rsaMet;
        rsaMet = printRatio((std::string("Korvo RSA-2048 ") + what + "/s / SoftHSM2").c_str(), ours,
                            reporter.rate(key(family, kSoftHsm)), kTargetRsaVsSoftHsm, &rsaKnown) && rsaMet;
    }
    bool cipherKnown = false;
    bool cipherMet = printRatio("Korvo AES-128-CBC 1 MiB / OpenSSL EVP", reporter.rate(key(kAesLargeFamily, kKorvo)),
                                reporter.rate(key(kAesLargeFamily, kOpenSsl)), kTargetCipherVsOpenSsl, &cipherKnown);
    cipherMet = printRatio("Korvo 3DES-CBC 1 MiB / OpenSSL EVP", reporter.rate(key(kDes3LargeFamily, kKorvo)),
                           reporter.rate(key(kDes3LargeFamily, kOpenSsl)), kTargetCipherVsOpenSsl, &cipherKnown) &&
                cipherMet;
    cipherMet = printRatio("Korvo AES-128-CBC 64 B init+encrypt rate / SoftHSM2", reporter.rate(key(kAesSmallFamily, kKorvo)),
                           reporter.rate(key(kAesSmallFamily, kSoftHsm)), kTargetCipherSmallVsSoftHsm, &cipherKnown) &&
                cipherMet;
    // The peers' two-thread scaling, for comparison.
    for (const char* subject : {kSoftHsm, kOpenSsl}) {
        const double one = reporter.rate(key(kSmallFamily, subject)), two = reporter.rate(key(kTwoThreadFamily, subject));
        std::printf("%-56s %s\n", (std::string(subject) + " 64 B digest, two threads / one thread").c_str(),
                    one > 0 && two > 0 ? cell(two / one, "%.3f").c_str() : "n/a");
    }

    // Search cost from 1,000 to 10,000 objects: the time ratio is about 10
    // when it grows linearly. The cost per object shows where it does not: a
    // population that outgrows the processor's caches costs more per object.
    std::printf("\n== Search growth, 10,000 vs 1,000 session objects (linear: about 10) ==\n");
    std::printf("%-10s %8s %22s %22s\n", "", "ratio", "ns/object at 1,000", "ns/object at 10,000");
    for (const char* subject : {kKorvo, kSoftHsm}) {
        const double small = reporter.rate(key(kFindSmallFamily, subject));
        const double large = reporter.rate(key(kFindLargeFamily, subject));
        const bool known = small > 0 && large > 0;
        std::printf("%-10s %8s %22s %22s\n", subject, known ? cell(small / large, "%.2f").c_str() : "n/a",
                    cell(small > 0 ? 1e9 / small / kFindSmallCount : 0, "%.1f").c_str(),
                    cell(large > 0 ? 1e9 / large / kFindLargeCount : 0, "%.1f").c_str());
    }
    if (!korvo.ready) std::printf("(Korvo not measured: %s)\n", korvo.module->error().c_str());
    if (!softHsm.ready) std::printf("(SoftHSM2 not measured: %s)\n", softHsm.module->error().c_str());
    for (const auto& [name, target] : modules)
        if (!target->rsaError.empty()) std::printf("(%s RSA not measured: %s)\n", name, target->rsaError.c_str());
    for (const auto& [name, target] : modules)
        if (!target->cipherError.empty()) std::printf("(%s ciphers not measured: %s)\n", name, target->cipherError.c_str());

    if (!korvo.ready || !softHsm.ready) return 1;
    if (enforce && (!largeMet || !smallMet || !threadsMet || !randomMet || !rsaMet || !cipherMet)) return 2;
    return 0;
}
