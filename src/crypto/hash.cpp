#include "crypto/hash.h"

#include "crypto/crypto_errors.h"
#include "crypto/md2.h"
#include "crypto/ossl_context.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <new>

struct hash_context {
    int hashId;
    EVP_MD_CTX* md;   // every digest except MD2
    md2_state md2;    // MD2 only
};

namespace {

struct HashInfo {
    int id;
    size_t length;
    const char* libcryptoName;   // null: computed by our own code
};

const HashInfo kHashes[] = {
    {HASH_MD5, 16, "MD5"},
    {HASH_SHA1, 20, "SHA1"},
    {HASH_RIPEMD160, 20, "RIPEMD160"},
    {HASH_SHA256, 32, "SHA256"},
    {HASH_SHA384, 48, "SHA384"},
    {HASH_SHA512, 64, "SHA512"},
    {HASH_MD2, MD2_DIGEST_BYTES, nullptr},
    {HASH_SHA224, 28, "SHA224"},
};

const HashInfo* findHash(int hashId)
{
    for (const HashInfo& h : kHashes) {
        if (h.id == hashId)
            return &h;
    }
    return nullptr;
}

// Releases a context; the running state may depend on secret input (a PIN
// being hashed, say), so it is wiped rather than just freed.
void freeContext(hash_context* ctx)
{
    EVP_MD_CTX_free(ctx->md);   // wipes the digest state itself
    OPENSSL_cleanse(&ctx->md2, sizeof(ctx->md2));
    delete ctx;
}

} // namespace

size_t hash_digestLength(int hashId)
{
    const HashInfo* info = findHash(hashId);
    return info != nullptr ? info->length : 0;
}

int start_hash(int hashId, hash_context** ctx)
{
    if (ctx == nullptr)
        return CRYPTO_ERR_BAD_PARAMETER;
    *ctx = nullptr;

    const HashInfo* info = findHash(hashId);
    if (info == nullptr)
        return CRYPTO_ERR_UNSUPPORTED;

    hash_context* c = new (std::nothrow) hash_context{};
    if (c == nullptr)
        return CRYPTO_ERR_NO_MEMORY;
    c->hashId = hashId;

    if (info->libcryptoName == nullptr) {
        md2_init(&c->md2);
        *ctx = c;
        return CRYPTO_OK;
    }

    OsslErrorGuard guard;
    const EVP_MD* md = crypto_md(info->libcryptoName);
    if (md == nullptr) {
        freeContext(c);
        return CRYPTO_ERR_FAILED;
    }
    c->md = EVP_MD_CTX_new();
    if (c->md == nullptr) {
        freeContext(c);
        return CRYPTO_ERR_NO_MEMORY;
    }
    if (EVP_DigestInit_ex2(c->md, md, nullptr) != 1) {
        freeContext(c);
        return CRYPTO_ERR_FAILED;
    }
    *ctx = c;
    return CRYPTO_OK;
}

int do_hash(hash_context* ctx, const unsigned char* data, size_t len)
{
    if (ctx == nullptr || (data == nullptr && len > 0))
        return CRYPTO_ERR_BAD_PARAMETER;
    if (len == 0)
        return CRYPTO_OK;

    if (ctx->md == nullptr) {
        md2_update(&ctx->md2, data, len);
        return CRYPTO_OK;
    }
    // No error-queue guard here or in stop_hash: these run on every call of a
    // digest, the guard costs more than hashing a short message, and on a
    // context that started successfully the digests of our providers do not
    // fail. start_hash, where fetching and allocation can fail, keeps it.
    return EVP_DigestUpdate(ctx->md, data, len) == 1 ? CRYPTO_OK : CRYPTO_ERR_FAILED;
}

int stop_hash(hash_context* ctx, unsigned char* digest)
{
    if (ctx == nullptr)
        return CRYPTO_ERR_BAD_PARAMETER;

    int rc = CRYPTO_OK;
    if (digest == nullptr) {
        rc = CRYPTO_ERR_BAD_PARAMETER;
    } else if (ctx->md == nullptr) {
        md2_final(&ctx->md2, digest);
    } else {
        if (EVP_DigestFinal_ex(ctx->md, digest, nullptr) != 1)
            rc = CRYPTO_ERR_FAILED;
    }
    freeContext(ctx);
    return rc;
}

int finish_hash(hash_context* ctx, unsigned char* digest)
{
    if (ctx == nullptr || digest == nullptr)
        return CRYPTO_ERR_BAD_PARAMETER;
    if (ctx->md == nullptr) {
        md2_final(&ctx->md2, digest);
        return CRYPTO_OK;
    }
    return EVP_DigestFinal_ex(ctx->md, digest, nullptr) == 1 ? CRYPTO_OK : CRYPTO_ERR_FAILED;
}

int restart_hash(hash_context* ctx)
{
    if (ctx == nullptr)
        return CRYPTO_ERR_BAD_PARAMETER;
    if (ctx->md == nullptr) {
        md2_init(&ctx->md2);
        return CRYPTO_OK;
    }
    OsslErrorGuard guard;
    // The algorithm the context already has; libcrypto keeps its state.
    return EVP_DigestInit_ex2(ctx->md, nullptr, nullptr) == 1 ? CRYPTO_OK : CRYPTO_ERR_FAILED;
}

int hash_id(const hash_context* ctx)
{
    return ctx != nullptr ? ctx->hashId : 0;
}

void abort_hash(hash_context* ctx)
{
    if (ctx != nullptr)
        freeContext(ctx);
}

int hash_buffer(int hashId, const unsigned char* data, size_t len, unsigned char* digest)
{
    if ((data == nullptr && len > 0) || digest == nullptr)
        return CRYPTO_ERR_BAD_PARAMETER;

    hash_context* ctx = nullptr;
    int rc = start_hash(hashId, &ctx);
    if (rc != CRYPTO_OK)
        return rc;
    rc = do_hash(ctx, data, len);
    if (rc != CRYPTO_OK) {
        abort_hash(ctx);
        return rc;
    }
    return stop_hash(ctx, digest);
}
