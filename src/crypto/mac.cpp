#include "crypto/mac.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/params.h>

#include <new>

#include "crypto/crypto_errors.h"
#include "crypto/hash.h"
#include "crypto/ossl_context.h"

struct hmac_context {
    EVP_MAC_CTX* ctx;
};

namespace {

const char* digestName(int hashId)
{
    switch (hashId) {
    case HASH_MD5: return "MD5";
    case HASH_SHA1: return "SHA1";
    case HASH_SHA224: return "SHA224";
    case HASH_SHA256: return "SHA256";
    case HASH_SHA384: return "SHA384";
    case HASH_SHA512: return "SHA512";
    case HASH_RIPEMD160: return "RIPEMD160";
    default: return nullptr;
    }
}

// A key of length 0 has no bytes, but libcrypto wants a pointer.
const unsigned char* keyBytes(const unsigned char* key)
{
    static const unsigned char none = 0;
    return key ? key : &none;
}

}  // namespace

int hmac_start(int hashId, const unsigned char* key, size_t keyLen, hmac_context** out)
{
    if (!out || (keyLen && !key)) return CRYPTO_ERR_BAD_PARAMETER;
    *out = nullptr;
    const char* digest = digestName(hashId);
    if (!digest) return CRYPTO_ERR_UNSUPPORTED;
    OsslErrorGuard guard;
    OSSL_LIB_CTX* libctx = crypto_libctx();
    EVP_MAC* mac = libctx ? EVP_MAC_fetch(libctx, "HMAC", nullptr) : nullptr;
    if (!mac) return CRYPTO_ERR_UNSUPPORTED;
    auto* context = new (std::nothrow) hmac_context{EVP_MAC_CTX_new(mac)};
    EVP_MAC_free(mac);
    if (!context || !context->ctx) {
        hmac_free(context);
        return CRYPTO_ERR_NO_MEMORY;
    }
    OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, const_cast<char*>(digest), 0),
                           OSSL_PARAM_construct_end()};
    if (EVP_MAC_init(context->ctx, keyBytes(key), keyLen, params) != 1) {
        hmac_free(context);
        return CRYPTO_ERR_FAILED;
    }
    *out = context;
    return CRYPTO_OK;
}

int hmac_update(hmac_context* ctx, const unsigned char* data, size_t len)
{
    if (!ctx || (len && !data)) return CRYPTO_ERR_BAD_PARAMETER;
    if (!len) return CRYPTO_OK;
    OsslErrorGuard guard;
    return EVP_MAC_update(ctx->ctx, data, len) == 1 ? CRYPTO_OK : CRYPTO_ERR_FAILED;
}

int hmac_final(hmac_context* ctx, unsigned char* mac)
{
    if (!ctx || !mac) return CRYPTO_ERR_BAD_PARAMETER;
    OsslErrorGuard guard;
    size_t length = 0;
    return EVP_MAC_final(ctx->ctx, mac, &length, EVP_MAX_MD_SIZE) == 1 ? CRYPTO_OK : CRYPTO_ERR_FAILED;
}

void hmac_free(hmac_context* ctx)
{
    if (!ctx) return;
    EVP_MAC_CTX_free(ctx->ctx);  // clears the key
    delete ctx;
}

int pbkdf2_derive(int hashId, const unsigned char* password, size_t passwordLen, const unsigned char* salt,
                  size_t saltLen, unsigned long iterations, unsigned char* out, size_t outLen)
{
    const char* digest = digestName(hashId);
    if (!digest) return CRYPTO_ERR_UNSUPPORTED;
    if ((passwordLen && !password) || (saltLen && !salt) || !out || !outLen || iterations < 1)
        return CRYPTO_ERR_BAD_PARAMETER;
    OsslErrorGuard guard;
    EVP_KDF_CTX* ctx = crypto_kdf("PBKDF2");
    if (!ctx) return CRYPTO_ERR_UNSUPPORTED;
    uint64_t rounds = iterations;
    int pkcs5 = 1;  // no lower bounds on the salt, key length and iterations beyond PKCS #5's own
    OSSL_PARAM params[] = {
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_PASSWORD, const_cast<unsigned char*>(keyBytes(password)),
                                          passwordLen),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_SALT, const_cast<unsigned char*>(keyBytes(salt)), saltLen),
        OSSL_PARAM_construct_uint64(OSSL_KDF_PARAM_ITER, &rounds),
        OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, const_cast<char*>(digest), 0),
        OSSL_PARAM_construct_int(OSSL_KDF_PARAM_PKCS5, &pkcs5),
        OSSL_PARAM_construct_end()};
    const int rc = EVP_KDF_derive(ctx, out, outLen, params) == 1 ? CRYPTO_OK : CRYPTO_ERR_FAILED;
    EVP_KDF_CTX_free(ctx);
    return rc;
}
