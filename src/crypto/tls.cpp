#include "crypto/tls.h"

#include <openssl/core_names.h>
#include <openssl/kdf.h>
#include <openssl/params.h>

#include "crypto/bytes.h"
#include "crypto/crypto_errors.h"
#include "crypto/hash.h"
#include "crypto/ossl_context.h"

int tls_prf(const unsigned char* secret, size_t secretLen, const unsigned char* label, size_t labelLen,
            const unsigned char* seed, size_t seedLen, unsigned char* out, size_t outLen)
{
    if ((secretLen && !secret) || (labelLen && !label) || (seedLen && !seed) || !out || !outLen)
        return CRYPTO_ERR_BAD_PARAMETER;
    OsslErrorGuard guard;
    EVP_KDF_CTX* ctx = crypto_kdf("TLS1-PRF");
    if (!ctx) return CRYPTO_ERR_UNSUPPORTED;
    // The label is the first part of the seed.
    crypto_bytes labelAndSeed(label, label + labelLen);
    labelAndSeed.insert(labelAndSeed.end(), seed, seed + seedLen);
    static unsigned char none = 0;
    char digest[] = "MD5-SHA1";
    OSSL_PARAM params[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digest, 0),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_SECRET, secretLen ? const_cast<unsigned char*>(secret) : &none,
                                          secretLen),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_SEED, labelAndSeed.empty() ? &none : labelAndSeed.data(),
                                          labelAndSeed.size()),
        OSSL_PARAM_construct_end()};
    const int rc = EVP_KDF_derive(ctx, out, outLen, params) == 1 ? CRYPTO_OK : CRYPTO_ERR_FAILED;
    EVP_KDF_CTX_free(ctx);
    return rc;
}

int ssl3_expand(const unsigned char* secret, size_t secretLen, const unsigned char* first, size_t firstLen,
                const unsigned char* second, size_t secondLen, unsigned char* out, size_t outLen)
{
    if ((secretLen && !secret) || (firstLen && !first) || (secondLen && !second) || !out || outLen > 26 * 16)
        return CRYPTO_ERR_BAD_PARAMETER;
    unsigned char sha1[20], md5[16];
    size_t done = 0;
    for (unsigned round = 1; done < outLen; ++round) {
        const crypto_bytes salt(round, static_cast<unsigned char>('A' + round - 1));
        hash_context* inner = nullptr;
        int rc = start_hash(HASH_SHA1, &inner);
        if (rc == CRYPTO_OK) rc = do_hash(inner, salt.data(), salt.size());
        if (rc == CRYPTO_OK) rc = do_hash(inner, secret, secretLen);
        if (rc == CRYPTO_OK) rc = do_hash(inner, first, firstLen);
        if (rc == CRYPTO_OK) rc = do_hash(inner, second, secondLen);
        if (rc != CRYPTO_OK) {
            abort_hash(inner);
            return rc;
        }
        rc = stop_hash(inner, sha1);
        hash_context* outer = nullptr;
        if (rc == CRYPTO_OK) rc = start_hash(HASH_MD5, &outer);
        if (rc == CRYPTO_OK) rc = do_hash(outer, secret, secretLen);
        if (rc == CRYPTO_OK) rc = do_hash(outer, sha1, sizeof sha1);
        if (rc != CRYPTO_OK) {
            abort_hash(outer);
            return rc;
        }
        rc = stop_hash(outer, md5);
        if (rc != CRYPTO_OK) return rc;
        const size_t take = outLen - done < sizeof md5 ? outLen - done : sizeof md5;
        for (size_t i = 0; i < take; ++i) out[done + i] = md5[i];
        done += take;
    }
    OPENSSL_cleanse(sha1, sizeof sha1);
    OPENSSL_cleanse(md5, sizeof md5);
    return CRYPTO_OK;
}
