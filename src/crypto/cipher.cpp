#include "crypto/cipher.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/params.h>

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
    case CIPHER_RC2: return keyLen >= 1 && keyLen <= 128 ? (cbc ? "RC2-CBC" : "RC2-ECB") : nullptr;
    case CIPHER_RC4: return keyLen >= 1 && keyLen <= 256 && mode == CIPHER_STREAM ? "RC4" : nullptr;
    case CIPHER_AES:
        if (keyLen == 16) return cbc ? "AES-128-CBC" : "AES-128-ECB";
        if (keyLen == 24) return cbc ? "AES-192-CBC" : "AES-192-ECB";
        if (keyLen == 32) return cbc ? "AES-256-CBC" : "AES-256-ECB";
        return nullptr;
    default: return nullptr;
    }
}

// Sets the cipher up in two steps, so that the variable key length (RC2,
// RC4) and RC2's effective bits are known before the key schedule is made.
bool keyed(EVP_CIPHER_CTX* ctx, const EVP_CIPHER* cipher, const crypto_bytes& key, const unsigned char* iv, bool encrypt,
           int algorithm, unsigned rc2EffectiveBits)
{
    const int direction = encrypt ? 1 : 0;
    if (EVP_CipherInit_ex2(ctx, cipher, nullptr, nullptr, direction, nullptr) != 1) return false;
    size_t keyLen = key.size();
    unsigned bits = rc2EffectiveBits;
    OSSL_PARAM params[3];
    size_t n = 0;
    if (algorithm == CIPHER_RC2 || algorithm == CIPHER_RC4)
        params[n++] = OSSL_PARAM_construct_size_t(OSSL_CIPHER_PARAM_KEYLEN, &keyLen);
    if (algorithm == CIPHER_RC2) params[n++] = OSSL_PARAM_construct_uint(OSSL_CIPHER_PARAM_RC2_KEYBITS, &bits);
    params[n] = OSSL_PARAM_construct_end();
    return (n == 0 || EVP_CIPHER_CTX_set_params(ctx, params) == 1) &&
           EVP_CipherInit_ex2(ctx, nullptr, key.data(), iv, direction, nullptr) == 1 &&
           EVP_CIPHER_CTX_set_padding(ctx, 0) == 1;
}

}  // namespace

size_t cipher_block_size(int algorithm)
{
    switch (algorithm) {
    case CIPHER_AES: return 16;
    case CIPHER_DES:
    case CIPHER_DES2:
    case CIPHER_DES3:
    case CIPHER_RC2: return 8;
    case CIPHER_RC4: return 1;
    default: return 0;
    }
}

int cipher_start(int algorithm, int mode, bool encrypt, const unsigned char* key, size_t keyLen,
                 const unsigned char* iv, cipher_context** out, unsigned rc2EffectiveBits)
{
    if (out == nullptr || key == nullptr || (mode == CIPHER_CBC && !iv)) return CRYPTO_ERR_BAD_PARAMETER;
    *out = nullptr;
    const bool stream = algorithm == CIPHER_RC4;
    if ((mode == CIPHER_STREAM) != stream || (mode != CIPHER_ECB && mode != CIPHER_CBC && mode != CIPHER_STREAM))
        return CRYPTO_ERR_BAD_PARAMETER;
    if (algorithm == CIPHER_RC2 && (rc2EffectiveBits < 1 || rc2EffectiveBits > 1024)) return CRYPTO_ERR_BAD_PARAMETER;
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
    else if (!keyed(context->ctx, cipher, material, iv, encrypt, algorithm, rc2EffectiveBits))
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
