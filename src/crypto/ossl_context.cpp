#include "crypto/ossl_context.h"

#include "crypto/seed_source.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/provider.h>

#include <cstring>

namespace {

// The digests the crypto core uses; each is fetched once when the context is
// built, so a running hash never pays for a provider look-up.
const char* const kDigestNames[] = {
    "MD5", "SHA1", "RIPEMD160", "SHA224", "SHA256", "SHA384", "SHA512",
};
constexpr size_t kDigestCount = sizeof(kDigestNames) / sizeof(kDigestNames[0]);

// Plain pointers only, so the static instance below has a trivial destructor
// and nothing of it runs at process exit.
struct CryptoContext {
    OSSL_LIB_CTX* libctx;
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
    if (OSSL_PROVIDER_load(libctx, "default") == nullptr) {
        // Nothing has been handed out yet, so freeing it here is safe.
        OSSL_LIB_CTX_free(libctx);
        return c;
    }
    // Older OpenSSL 3 releases keep RIPEMD-160 only in the legacy provider.
    // A system without the legacy module still gives us everything else.
    (void)OSSL_PROVIDER_load(libctx, "legacy");
    // The context's own DRBGs are seeded from the token's generator (see
    // seed_source.h); without it they seed from the operating system.
    (void)crypto_install_seed_source(libctx);

    c.libctx = libctx;
    for (size_t i = 0; i < kDigestCount; ++i)
        c.digests[i] = EVP_MD_fetch(libctx, kDigestNames[i], nullptr);
    c.ctrDrbg = EVP_RAND_fetch(libctx, "CTR-DRBG", nullptr);
    return c;
}

const CryptoContext& context()
{
    // Built by the first caller; the language guarantees that concurrent
    // first callers wait for that one initialisation to finish.
    //
    // The library context and the objects fetched from it are deliberately
    // never freed. Freeing them from a destructor or atexit handler of ours
    // could run after libcrypto's own exit-time clean-up has already torn
    // down its internals, which crashes; the operating system reclaims the
    // memory when the process ends.
    static const CryptoContext ctx = buildContext();
    return ctx;
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

OsslErrorGuard::OsslErrorGuard()
{
    ERR_set_mark();
}

OsslErrorGuard::~OsslErrorGuard()
{
    ERR_pop_to_mark();
}
