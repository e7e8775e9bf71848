#include "crypto/seed_source.h"

#include <openssl/core_dispatch.h>
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/params.h>
#include <openssl/provider.h>
#include <openssl/rand.h>

#include <sys/random.h>

#include <cerrno>
#include <mutex>

namespace {

std::mutex sourceMutex;
int (*sourceFill)(void*, unsigned char*, size_t) = nullptr;
void* sourceArg = nullptr;
thread_local int generatorDepth = 0;

bool fromSystem(unsigned char* out, size_t len)
{
    while (len > 0) {
        const ssize_t got = getrandom(out, len, 0);
        if (got < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        out += got;
        len -= size_t(got);
    }
    return true;
}

bool fill(unsigned char* out, size_t len)
{
    if (generatorDepth == 0) {
        std::lock_guard<std::mutex> lock(sourceMutex);
        if (sourceFill && sourceFill(sourceArg, out, len) == 0) return true;
    }
    return fromSystem(out, len);
}

// ---- a seed-source RAND algorithm in a provider of our own ----

constexpr unsigned kStrength = 256;
constexpr size_t kMaxRequest = 1 << 16;

struct SeedContext {
    int state = EVP_RAND_STATE_UNINITIALISED;
};

void* newContext(void*, void* parent, const OSSL_DISPATCH*)
{
    if (parent != nullptr) return nullptr;  // a seed source is a root
    return new (std::nothrow) SeedContext;
}

void freeContext(void* ctx)
{
    delete static_cast<SeedContext*>(ctx);
}

int instantiate(void* ctx, unsigned, int, const unsigned char*, size_t, const OSSL_PARAM*)
{
    static_cast<SeedContext*>(ctx)->state = EVP_RAND_STATE_READY;
    return 1;
}

int uninstantiate(void* ctx)
{
    static_cast<SeedContext*>(ctx)->state = EVP_RAND_STATE_UNINITIALISED;
    return 1;
}

int generate(void*, unsigned char* out, size_t len, unsigned strength, int, const unsigned char*, size_t)
{
    return strength <= kStrength && fill(out, len) ? 1 : 0;
}

int reseed(void*, int, const unsigned char*, size_t, const unsigned char*, size_t)
{
    return 1;
}

size_t getSeed(void*, unsigned char** pout, int entropy, size_t minLen, size_t maxLen, int, const unsigned char*, size_t)
{
    size_t len = (size_t(entropy) + 7) / 8;
    if (len < minLen) len = minLen;
    if (len > maxLen) return 0;
    unsigned char* seed = static_cast<unsigned char*>(OPENSSL_secure_malloc(len));
    if (seed == nullptr) return 0;
    if (!fill(seed, len)) {
        OPENSSL_secure_clear_free(seed, len);
        return 0;
    }
    *pout = seed;
    return len;
}

void clearSeed(void*, unsigned char* out, size_t len)
{
    OPENSSL_secure_clear_free(out, len);
}

int enableLocking(void*)
{
    return 1;  // fill() serialises what needs it
}

int lock(void*)
{
    return 1;
}

void unlock(void*) {}

const OSSL_PARAM* gettableParams(void*, void*)
{
    static const OSSL_PARAM params[] = {
        OSSL_PARAM_int(OSSL_RAND_PARAM_STATE, nullptr),
        OSSL_PARAM_uint(OSSL_RAND_PARAM_STRENGTH, nullptr),
        OSSL_PARAM_size_t(OSSL_RAND_PARAM_MAX_REQUEST, nullptr),
        OSSL_PARAM_END,
    };
    return params;
}

int getParams(void* ctx, OSSL_PARAM params[])
{
    OSSL_PARAM* p = OSSL_PARAM_locate(params, OSSL_RAND_PARAM_STATE);
    if (p != nullptr && !OSSL_PARAM_set_int(p, static_cast<SeedContext*>(ctx)->state)) return 0;
    p = OSSL_PARAM_locate(params, OSSL_RAND_PARAM_STRENGTH);
    if (p != nullptr && !OSSL_PARAM_set_uint(p, kStrength)) return 0;
    p = OSSL_PARAM_locate(params, OSSL_RAND_PARAM_MAX_REQUEST);
    if (p != nullptr && !OSSL_PARAM_set_size_t(p, kMaxRequest)) return 0;
    return 1;
}

template <typename F>
void (*fn(F f))(void)
{
    return reinterpret_cast<void (*)(void)>(f);
}

const OSSL_DISPATCH kRandFunctions[] = {
    {OSSL_FUNC_RAND_NEWCTX, fn(newContext)},
    {OSSL_FUNC_RAND_FREECTX, fn(freeContext)},
    {OSSL_FUNC_RAND_INSTANTIATE, fn(instantiate)},
    {OSSL_FUNC_RAND_UNINSTANTIATE, fn(uninstantiate)},
    {OSSL_FUNC_RAND_GENERATE, fn(generate)},
    {OSSL_FUNC_RAND_RESEED, fn(reseed)},
    {OSSL_FUNC_RAND_GET_SEED, fn(getSeed)},
    {OSSL_FUNC_RAND_CLEAR_SEED, fn(clearSeed)},
    {OSSL_FUNC_RAND_ENABLE_LOCKING, fn(enableLocking)},
    {OSSL_FUNC_RAND_LOCK, fn(lock)},
    {OSSL_FUNC_RAND_UNLOCK, fn(unlock)},
    {OSSL_FUNC_RAND_GETTABLE_CTX_PARAMS, fn(gettableParams)},
    {OSSL_FUNC_RAND_GET_CTX_PARAMS, fn(getParams)},
    {0, nullptr},
};

const OSSL_ALGORITHM kRandAlgorithms[] = {
    {"KORVO-SEED", "provider=korvo-seed", kRandFunctions, "the module's seed source"},
    {nullptr, nullptr, nullptr, nullptr},
};

const OSSL_ALGORITHM* queryOperation(void*, int operation, int* noCache)
{
    *noCache = 0;
    return operation == OSSL_OP_RAND ? kRandAlgorithms : nullptr;
}

const OSSL_DISPATCH kProviderFunctions[] = {
    {OSSL_FUNC_PROVIDER_QUERY_OPERATION, fn(queryOperation)},
    {0, nullptr},
};

int providerInit(const OSSL_CORE_HANDLE*, const OSSL_DISPATCH*, const OSSL_DISPATCH** out, void** provctx)
{
    *out = kProviderFunctions;
    *provctx = nullptr;
    return 1;
}

}  // namespace

void crypto_set_seed_source(int (*fillFunction)(void*, unsigned char*, size_t), void* arg)
{
    std::lock_guard<std::mutex> lock(sourceMutex);
    sourceFill = fillFunction;
    sourceArg = fillFunction ? arg : nullptr;
}

OSSL_PROVIDER* crypto_install_seed_source(OSSL_LIB_CTX* libctx)
{
    if (OSSL_PROVIDER_add_builtin(libctx, "korvo-seed", providerInit) != 1) return nullptr;
    OSSL_PROVIDER* provider = OSSL_PROVIDER_load(libctx, "korvo-seed");
    if (provider && RAND_set_seed_source_type(libctx, "KORVO-SEED", nullptr) != 1) {
        OSSL_PROVIDER_unload(provider);
        return nullptr;
    }
    return provider;
}

CryptoGeneratorScope::CryptoGeneratorScope()
{
    ++generatorDepth;
}

CryptoGeneratorScope::~CryptoGeneratorScope()
{
    --generatorDepth;
}
