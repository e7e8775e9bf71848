#include "crypto/dsa.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/dsa.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <climits>
#include <vector>

#include "crypto/crypto_errors.h"
#include "crypto/pkey_util.h"

namespace {

// Above this prime size the subprime grows from 160 to 256 bits and the
// generation method from FIPS 186-2 to FIPS 186-4.
constexpr unsigned kLargePrimeBits = 1024;

struct DsaSigFree {
    void operator()(DSA_SIG* s) const noexcept { DSA_SIG_free(s); }
};
using DsaSig = std::unique_ptr<DSA_SIG, DsaSigFree>;

int paramsKey(const dsa_params& params, pk_pkey* key)
{
    const pk_field fields[] = {
        {OSSL_PKEY_PARAM_FFC_P, &params.p, false},
        {OSSL_PKEY_PARAM_FFC_Q, &params.q, false},
        {OSSL_PKEY_PARAM_FFC_G, &params.g, false},
    };
    return pk_from_fields("DSA", EVP_PKEY_KEY_PARAMETERS, fields, 3, key);
}

} // namespace

int dsa_generate_params(unsigned primeBits, dsa_params* out)
{
    if (out == nullptr || primeBits < DSA_MIN_PRIME_BITS || primeBits > DSA_MAX_PRIME_BITS || primeBits % 64 != 0)
        return CRYPTO_ERR_BAD_PARAMETER;
    return pk_run([&]() -> int {
        const bool large = primeBits > kLargePrimeBits;
        const char* type = large ? "fips186_4" : "fips186_2";
        size_t pbits = primeBits;
        size_t qbits = large ? 256 : 160;
        const OSSL_PARAM settings[] = {
            OSSL_PARAM_construct_utf8_string(OSSL_PKEY_PARAM_FFC_TYPE, const_cast<char*>(type), 0),
            OSSL_PARAM_construct_size_t(OSSL_PKEY_PARAM_FFC_PBITS, &pbits),
            OSSL_PARAM_construct_size_t(OSSL_PKEY_PARAM_FFC_QBITS, &qbits),
            OSSL_PARAM_construct_end(),
        };
        pk_pkey_ctx ctx(EVP_PKEY_CTX_new_from_name(crypto_libctx(), "DSA", nullptr));
        EVP_PKEY* generated = nullptr;
        if (ctx == nullptr || EVP_PKEY_paramgen_init(ctx.get()) <= 0 || EVP_PKEY_CTX_set_params(ctx.get(), settings) <= 0
            || EVP_PKEY_paramgen(ctx.get(), &generated) <= 0)
            return CRYPTO_ERR_FAILED;
        pk_pkey key(generated);
        dsa_params result;
        int rc = pk_get(key.get(), OSSL_PKEY_PARAM_FFC_P, &result.p);
        if (rc == CRYPTO_OK)
            rc = pk_get(key.get(), OSSL_PKEY_PARAM_FFC_Q, &result.q);
        if (rc == CRYPTO_OK)
            rc = pk_get(key.get(), OSSL_PKEY_PARAM_FFC_G, &result.g);
        if (rc == CRYPTO_OK)
            *out = std::move(result);
        return rc;
    });
}

int dsa_check_params(const dsa_params& params)
{
    return pk_run([&] { return pk_check_group(params.p, params.q, params.g, nullptr); });
}

int dsa_generate_key(const dsa_params& params, crypto_bytes* x, crypto_bytes* y)
{
    if (x == nullptr || y == nullptr)
        return CRYPTO_ERR_BAD_PARAMETER;
    return pk_run([&]() -> int {
        pk_pkey domain;
        int rc = paramsKey(params, &domain);
        if (rc != CRYPTO_OK)
            return rc;
        pk_pkey_ctx ctx = pk_ctx_for(domain.get());
        EVP_PKEY* generated = nullptr;
        if (ctx == nullptr || EVP_PKEY_keygen_init(ctx.get()) <= 0 || EVP_PKEY_keygen(ctx.get(), &generated) <= 0)
            return CRYPTO_ERR_FAILED;
        pk_pkey key(generated);
        return pk_get_pair(key.get(), x, y);
    });
}

size_t dsa_signature_length(const dsa_params& params)
{
    return 2 * pk_num_bytes(params.q);
}

int dsa_sign(const dsa_params& params, const crypto_bytes& x, const unsigned char* digest, size_t digestLen,
             unsigned char* sig, size_t* sigLen)
{
    if (sigLen == nullptr || digest == nullptr || digestLen == 0)
        return CRYPTO_ERR_BAD_PARAMETER;
    const size_t half = pk_num_bytes(params.q);
    if (half == 0 || half > INT_MAX)
        return CRYPTO_ERR_BAD_PARAMETER;
    if (sig == nullptr || *sigLen < 2 * half) {
        const bool query = sig == nullptr;
        *sigLen = 2 * half;
        return query ? CRYPTO_OK : CRYPTO_ERR_BAD_PARAMETER;
    }
    return pk_run([&]() -> int {
        const pk_field fields[] = {
            {OSSL_PKEY_PARAM_FFC_P, &params.p, false},
            {OSSL_PKEY_PARAM_FFC_Q, &params.q, false},
            {OSSL_PKEY_PARAM_FFC_G, &params.g, false},
            {OSSL_PKEY_PARAM_PRIV_KEY, &x, true},
        };
        pk_pkey key;
        int rc = pk_from_fields("DSA", EVP_PKEY_KEYPAIR, fields, 4, &key);
        if (rc != CRYPTO_OK)
            return rc;
        // No digest is set on the context, so libcrypto signs the bytes as
        // they are, cut to the length of q.
        pk_pkey_ctx ctx = pk_ctx_for(key.get());
        size_t derLen = 0;
        if (ctx == nullptr || EVP_PKEY_sign_init(ctx.get()) <= 0
            || EVP_PKEY_sign(ctx.get(), nullptr, &derLen, digest, digestLen) <= 0)
            return CRYPTO_ERR_FAILED;
        std::vector<unsigned char> der(derLen);
        if (EVP_PKEY_sign(ctx.get(), der.data(), &derLen, digest, digestLen) <= 0 || derLen > LONG_MAX)
            return CRYPTO_ERR_FAILED;
        // libcrypto gives the DER form; the raw form is r and s side by side.
        const unsigned char* cursor = der.data();
        DsaSig decoded(d2i_DSA_SIG(nullptr, &cursor, static_cast<long>(derLen)));
        if (decoded == nullptr)
            return CRYPTO_ERR_FAILED;
        const BIGNUM* r = nullptr;
        const BIGNUM* s = nullptr;
        DSA_SIG_get0(decoded.get(), &r, &s);
        if (BN_bn2binpad(r, sig, static_cast<int>(half)) < 0 || BN_bn2binpad(s, sig + half, static_cast<int>(half)) < 0)
            return CRYPTO_ERR_FAILED;
        *sigLen = 2 * half;
        return CRYPTO_OK;
    });
}

int dsa_verify(const dsa_params& params, const unsigned char* y, size_t yLen, const unsigned char* digest,
               size_t digestLen, const unsigned char* sig, size_t sigLen)
{
    if ((y == nullptr && yLen != 0) || digest == nullptr || digestLen == 0 || (sig == nullptr && sigLen != 0))
        return CRYPTO_ERR_BAD_PARAMETER;
    const size_t half = pk_num_bytes(params.q);
    if (half == 0 || half > INT_MAX)
        return CRYPTO_ERR_BAD_PARAMETER;
    if (sigLen != 2 * half)
        return CRYPTO_ERR_DATA_RANGE;
    return pk_run([&]() -> int {
        const crypto_bytes pub = pk_stripped(y, yLen);
        const pk_field fields[] = {
            {OSSL_PKEY_PARAM_FFC_P, &params.p, false},
            {OSSL_PKEY_PARAM_FFC_Q, &params.q, false},
            {OSSL_PKEY_PARAM_FFC_G, &params.g, false},
            {OSSL_PKEY_PARAM_PUB_KEY, &pub, false},
        };
        pk_pkey key;
        int rc = pk_from_fields("DSA", EVP_PKEY_PUBLIC_KEY, fields, 4, &key);
        if (rc != CRYPTO_OK)
            return rc;
        DsaSig decoded(DSA_SIG_new());
        pk_bn r = pk_bn_from(sig, half, false);
        pk_bn s = pk_bn_from(sig + half, half, false);
        if (decoded == nullptr || r == nullptr || s == nullptr)
            return CRYPTO_ERR_NO_MEMORY;
        DSA_SIG_set0(decoded.get(), r.release(), s.release());   // the signature owns them now
        unsigned char* der = nullptr;
        const int derLen = i2d_DSA_SIG(decoded.get(), &der);
        if (derLen <= 0)
            return CRYPTO_ERR_FAILED;
        pk_pkey_ctx ctx = pk_ctx_for(key.get());
        const bool ready = ctx != nullptr && EVP_PKEY_verify_init(ctx.get()) > 0;
        const int verified = ready ? EVP_PKEY_verify(ctx.get(), der, static_cast<size_t>(derLen), digest, digestLen) : 0;
        OPENSSL_free(der);
        if (!ready)
            return CRYPTO_ERR_FAILED;
        // libcrypto answers 0 for a signature that does not hold and a
        // negative value for one it cannot check at all (r or s out of
        // range, unusable numbers); either way the signature is no good.
        return verified == 1 ? CRYPTO_OK : CRYPTO_ERR_VERIFY_FAILED;
    });
}
