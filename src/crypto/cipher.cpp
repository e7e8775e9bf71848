#include "crypto/cipher.h"

#include <openssl/evp.h>

#include <climits>
#include <cstring>
#include <new>

#include "crypto/bytes.h"
#include "crypto/crypto_errors.h"
#include "crypto/ossl_context.h"

struct cipher_context {
    EVP_CIPHER_CTX* ctx;
};

namespace {

const char* cipherName(int algorithm, int mode, size_t keyLen)
{
    const bool cbc = mode == CIPHER_CBC;
    switch (algorithm) {
    case CIPHER_DES: return keyLen == 8 ? (cbc ? "DES-CBC" : "DES-ECB") : nullptr;
    case CIPHER_DES2: return keyLen == 16 ? (cbc ? "DES-EDE3-CBC" : "DES-EDE3-ECB") : nullptr;
    case CIPHER_DES3: return keyLen == 24 ? (cbc ? "DES-EDE3-CBC" : "DES-EDE3-ECB") : nullptr;
    case CIPHER_AES:
        if (keyLen == 16) return cbc ? "AES-128-CBC" : "AES-128-ECB";
        if (keyLen == 24) return cbc ? "AES-192-CBC" : "AES-192-ECB";
        if (keyLen == 32) return cbc ? "AES-256-CBC" : "AES-256-ECB";
        return nullptr;
    default: return nullptr;
    }
}

}  // namespace

size_t cipher_block_size(int algorithm)
{
    return algorithm == CIPHER_AES ? 16 : algorithm >= CIPHER_DES && algorithm <= CIPHER_DES3 ? 8 : 0;
}

int cipher_start(int algorithm, int mode, bool encrypt, const unsigned char* key, size_t keyLen,
                 const unsigned char* iv, cipher_context** out)
{
    if (out == nullptr || key == nullptr || (mode != CIPHER_ECB && mode != CIPHER_CBC) || (mode == CIPHER_CBC && !iv))
        return CRYPTO_ERR_BAD_PARAMETER;
    *out = nullptr;
    const char* name = cipherName(algorithm, mode, keyLen);
    if (name == nullptr) return CRYPTO_ERR_BAD_PARAMETER;
    OsslErrorGuard guard;
    OSSL_LIB_CTX* libctx = crypto_libctx();
    EVP_CIPHER* cipher = libctx ? EVP_CIPHER_fetch(libctx, name, nullptr) : nullptr;
    if (cipher == nullptr) return CRYPTO_ERR_UNSUPPORTED;
    // Two-key triple DES is three-key with the first key again as the third.
    crypto_bytes material(key, key + keyLen);
    if (algorithm == CIPHER_DES2) material.insert(material.end(), key, key + 8);
    auto* context = new (std::nothrow) cipher_context{EVP_CIPHER_CTX_new()};
    int rc = CRYPTO_OK;
    if (context == nullptr || context->ctx == nullptr)
        rc = CRYPTO_ERR_NO_MEMORY;
    else if (EVP_CipherInit_ex2(context->ctx, cipher, material.data(), iv, encrypt ? 1 : 0, nullptr) != 1 ||
             EVP_CIPHER_CTX_set_padding(context->ctx, 0) != 1)
        rc = CRYPTO_ERR_FAILED;
    EVP_CIPHER_free(cipher);
    if (rc != CRYPTO_OK) {
        cipher_free(context);
        return rc;
    }
    *out = context;
    return CRYPTO_OK;
}

int cipher_blocks(cipher_context* ctx, const unsigned char* in, size_t len, unsigned char* out)
{
    if (ctx == nullptr || (len && (!in || !out)) || len > INT_MAX) return CRYPTO_ERR_BAD_PARAMETER;
    if (len == 0) return CRYPTO_OK;
    OsslErrorGuard guard;
    int produced = 0;
    if (EVP_CipherUpdate(ctx->ctx, out, &produced, in, int(len)) != 1 || size_t(produced) != len)
        return CRYPTO_ERR_FAILED;
    return CRYPTO_OK;
}

int cipher_clone(const cipher_context* ctx, cipher_context** copy)
{
    if (ctx == nullptr || copy == nullptr) return CRYPTO_ERR_BAD_PARAMETER;
    *copy = nullptr;
    OsslErrorGuard guard;
    auto* context = new (std::nothrow) cipher_context{EVP_CIPHER_CTX_new()};
    if (context == nullptr || context->ctx == nullptr || EVP_CIPHER_CTX_copy(context->ctx, ctx->ctx) != 1) {
        cipher_free(context);
        return CRYPTO_ERR_NO_MEMORY;
    }
    *copy = context;
    return CRYPTO_OK;
}

void cipher_free(cipher_context* ctx)
{
    if (ctx == nullptr) return;
    EVP_CIPHER_CTX_free(ctx->ctx);  // clears the key schedule
    delete ctx;
}
