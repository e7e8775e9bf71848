#include "crypto/aead.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <climits>

#include "crypto/crypto_errors.h"
#include "crypto/ossl_context.h"

namespace {

const char* cipherName(int mode, size_t keyLen)
{
    static const char* const gcm[] = {"AES-128-GCM", "AES-192-GCM", "AES-256-GCM"};
    static const char* const ccm[] = {"AES-128-CCM", "AES-192-CCM", "AES-256-CCM"};
    if (keyLen != 16 && keyLen != 24 && keyLen != 32) return nullptr;
    const size_t index = (keyLen - 16) / 8;
    return mode == AEAD_GCM ? gcm[index] : mode == AEAD_CCM ? ccm[index] : nullptr;
}

bool validShape(int mode, const aead_message& m, size_t len)
{
    if (!cipherName(mode, m.keyLen) || !m.key || !m.iv || (m.aadLen && !m.aad) || len > INT_MAX || m.aadLen > INT_MAX)
        return false;
    if (mode == AEAD_GCM) return m.ivLen >= 1 && m.ivLen <= INT_MAX && m.tagLen >= 1 && m.tagLen <= 16;
    return m.ivLen >= 7 && m.ivLen <= 13 && m.tagLen >= 4 && m.tagLen <= 16 && m.tagLen % 2 == 0 &&
           // CCM's length field (15 - nonce length bytes) must hold the message length.
           (15 - m.ivLen >= sizeof(size_t) || len < (size_t(1) << (8 * (15 - m.ivLen))));
}

// One message through a context set up for the mode: nonce and tag
// lengths first, the key and nonce, for CCM the length, the additional
// data, then the data. On decryption the expected tag goes in before.
int run(int mode, bool encrypt, const aead_message& m, const unsigned char* in, size_t len, unsigned char* out,
        const unsigned char* expectedTag)
{
    OsslErrorGuard guard;
    OSSL_LIB_CTX* libctx = crypto_libctx();
    EVP_CIPHER* cipher = libctx ? EVP_CIPHER_fetch(libctx, cipherName(mode, m.keyLen), nullptr) : nullptr;
    if (!cipher) return CRYPTO_ERR_UNSUPPORTED;
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    const int direction = encrypt ? 1 : 0;
    int rc = ctx ? CRYPTO_OK : CRYPTO_ERR_NO_MEMORY;
    size_t ivLen = m.ivLen;
    OSSL_PARAM params[3];
    size_t n = 0;
    params[n++] = OSSL_PARAM_construct_size_t(OSSL_CIPHER_PARAM_AEAD_IVLEN, &ivLen);
    // CCM takes the tag length (and on decryption the tag) before the key.
    if (mode == AEAD_CCM)
        params[n++] = OSSL_PARAM_construct_octet_string(OSSL_CIPHER_PARAM_AEAD_TAG,
                                                        encrypt ? nullptr : const_cast<unsigned char*>(expectedTag),
                                                        m.tagLen);
    params[n] = OSSL_PARAM_construct_end();
    int produced = 0;
    if (rc == CRYPTO_OK &&
        (EVP_CipherInit_ex2(ctx, cipher, nullptr, nullptr, direction, nullptr) != 1 ||
         EVP_CIPHER_CTX_set_params(ctx, params) != 1 ||
         EVP_CipherInit_ex2(ctx, nullptr, m.key, m.iv, direction, nullptr) != 1))
        rc = CRYPTO_ERR_FAILED;
    if (rc == CRYPTO_OK && mode == AEAD_CCM && EVP_CipherUpdate(ctx, nullptr, &produced, nullptr, int(len)) != 1)
        rc = CRYPTO_ERR_FAILED;
    if (rc == CRYPTO_OK && (m.aadLen || mode == AEAD_CCM) &&
        EVP_CipherUpdate(ctx, nullptr, &produced, m.aad, int(m.aadLen)) != 1)
        rc = CRYPTO_ERR_FAILED;
    if (rc == CRYPTO_OK && mode == AEAD_GCM && !encrypt) {
        OSSL_PARAM tag[] = {OSSL_PARAM_construct_octet_string(OSSL_CIPHER_PARAM_AEAD_TAG,
                                                              const_cast<unsigned char*>(expectedTag), m.tagLen),
                            OSSL_PARAM_construct_end()};
        if (EVP_CIPHER_CTX_set_params(ctx, tag) != 1) rc = CRYPTO_ERR_FAILED;
    }
    // CCM checks its tag within the update that deciphers the data, GCM in
    // the final step.
    static unsigned char none;
    if (rc == CRYPTO_OK && EVP_CipherUpdate(ctx, len ? out : &none, &produced, len ? in : &none, int(len)) != 1)
        rc = encrypt ? CRYPTO_ERR_FAILED : CRYPTO_ERR_VERIFY_FAILED;
    int tail = 0;
    if (rc == CRYPTO_OK && mode == AEAD_GCM && EVP_CipherFinal_ex(ctx, out ? out + len : &none, &tail) != 1)
        rc = encrypt ? CRYPTO_ERR_FAILED : CRYPTO_ERR_VERIFY_FAILED;
    if (rc == CRYPTO_OK && encrypt) {
        OSSL_PARAM tag[] = {OSSL_PARAM_construct_octet_string(OSSL_CIPHER_PARAM_AEAD_TAG, out + len, m.tagLen),
                            OSSL_PARAM_construct_end()};
        if (EVP_CIPHER_CTX_get_params(ctx, tag) != 1) rc = CRYPTO_ERR_FAILED;
    }
    if (rc != CRYPTO_OK && len) OPENSSL_cleanse(out, len);
    EVP_CIPHER_CTX_free(ctx);
    EVP_CIPHER_free(cipher);
    return rc;
}

}  // namespace

int aead_seal(int mode, const aead_message& message, const unsigned char* in, size_t len, unsigned char* out)
{
    if (!validShape(mode, message, len) || (len && !in) || !out) return CRYPTO_ERR_BAD_PARAMETER;
    return run(mode, true, message, in, len, out, nullptr);
}

int aead_open(int mode, const aead_message& message, const unsigned char* in, size_t len, unsigned char* out)
{
    if (len < message.tagLen || !in) return CRYPTO_ERR_BAD_PARAMETER;
    const size_t dataLen = len - message.tagLen;
    if (!validShape(mode, message, dataLen) || (dataLen && !out)) return CRYPTO_ERR_BAD_PARAMETER;
    return run(mode, false, message, in, dataLen, out, in + dataLen);
}
