#include "crypto/ossl_context.h"

#include "crypto/seed_source.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/provider.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <new>

namespace {

// The digests the crypto core uses; each is fetched once when the context is
// built, so a running hash never pays for a provider look-up.
const char* const kDigestNames[] = {
    "MD5", "SHA1", "RIPEMD160", "SHA224", "SHA256", "SHA384", "SHA512",
};
constexpr size_t kDigestCount = sizeof(kDigestNames) / sizeof(kDigestNames[0]);

struct CryptoContext {
    OSSL_LIB_CTX* libctx;
    // Unloaded one by one before the context is freed: a provider left to
    // the context's own clean-up (the legacy one keeps a child context of
    // its own) is not freed with it.
    OSSL_PROVIDER* providers[3];
    const EVP_MD* digests[kDigestCount];
    EVP_RAND* ctrDrbg;
};

CryptoContext buildContext()
{
    OsslErrorGuard guard;
    CryptoContext c{};

    // A fresh context reads no configuration file and has no providers until
    // we load them, so the application's OpenSSL settings cannot leak in.
    OSSL_LIB_CTX* libctx = OSSL_LIB_CTX_new();
    if (libctx == nullptr)
        return c;
    OSSL_PROVIDER* standard = OSSL_PROVIDER_load(libctx, "default");
    if (standard == nullptr) {
        // Nothing has been handed out yet, so freeing it here is safe.
        OSSL_LIB_CTX_free(libctx);
        return c;
    }
    // Older OpenSSL 3 releases keep RIPEMD-160 only in the legacy provider.
    // A system without the legacy module still gives us everything else.
    c.providers[0] = standard;
    c.providers[1] = OSSL_PROVIDER_load(libctx, "legacy");
    // The context's own DRBGs are seeded from the token's generator (see
    // seed_source.h); without it they seed from the operating system.
    c.providers[2] = crypto_install_seed_source(libctx);

    c.libctx = libctx;
    for (size_t i = 0; i < kDigestCount; ++i)
        c.digests[i] = EVP_MD_fetch(libctx, kDigestNames[i], nullptr);
    c.ctrDrbg = EVP_RAND_fetch(libctx, "CTR-DRBG", nullptr);
    return c;
}

// The context of the module, built by the first caller that needs it and
// released by crypto_release_context() (at C_Finalize). Readers take the
// pointer without a lock; building and releasing happen under the mutex.
std::atomic<CryptoContext*> current{nullptr};
std::mutex building;

// A context that failed to build: every member null.
const CryptoContext kNone{};

const CryptoContext& context()
{
    CryptoContext* c = current.load(std::memory_order_acquire);
    if (c) return *c;
    std::lock_guard<std::mutex> lock(building);
    c = current.load(std::memory_order_relaxed);
    if (!c) {
        c = new (std::nothrow) CryptoContext(buildContext());
        if (!c) return kNone;
        if (!c->libctx) {
            delete c;
            return kNone;
        }
        current.store(c, std::memory_order_release);
    }
    return *c;
}

} // namespace

OSSL_LIB_CTX* crypto_libctx()
{
    return context().libctx;
}

const EVP_MD* crypto_md(const char* name)
{
    if (name == nullptr)
        return nullptr;
    const CryptoContext& c = context();
    for (size_t i = 0; i < kDigestCount; ++i) {
        if (std::strcmp(name, kDigestNames[i]) == 0)
            return c.digests[i];
    }
    return nullptr;
}

EVP_RAND* crypto_ctr_drbg()
{
    return context().ctrDrbg;
}

EVP_KDF_CTX* crypto_kdf(const char* name)
{
    OSSL_LIB_CTX* libctx = crypto_libctx();
    EVP_KDF* kdf = libctx ? EVP_KDF_fetch(libctx, name, nullptr) : nullptr;
    EVP_KDF_CTX* ctx = kdf ? EVP_KDF_CTX_new(kdf) : nullptr;
    EVP_KDF_free(kdf);
    return ctx;
}

void crypto_release_context()
{
    std::lock_guard<std::mutex> lock(building);
    CryptoContext* c = current.exchange(nullptr, std::memory_order_acq_rel);
    if (!c) return;
    for (const EVP_MD* md : c->digests) EVP_MD_free(const_cast<EVP_MD*>(md));
    EVP_RAND_free(c->ctrDrbg);
    // The context's own DRBGs go with it; its providers are unloaded first.
    for (int i = 2; i >= 0; --i)
        if (c->providers[i]) OSSL_PROVIDER_unload(c->providers[i]);
    OSSL_LIB_CTX_free(c->libctx);
    delete c;
}

OsslErrorGuard::OsslErrorGuard()
{
    ERR_set_mark();
}

OsslErrorGuard::~OsslErrorGuard()
{
    ERR_pop_to_mark();
}
