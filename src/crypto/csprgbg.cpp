#include "crypto/csprgbg.h"

#include "crypto/seed_source.h"

#include "crypto/crypto_errors.h"
#include "crypto/ossl_context.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <new>
#include <vector>

namespace {

constexpr unsigned int kStrength = 256;

} // namespace

struct csprgbg_state {
    EVP_RAND_CTX* drbg;
    size_t maxRequest;   // bytes libcrypto serves in one generate request
};

namespace {

void destroy(csprgbg_state* s)
{
    EVP_RAND_CTX_free(s->drbg);   // uninstantiates, wiping its state
    delete s;
}

// A CTR_DRBG (AES-256, derivation function) drawing its entropy from
// `parent`, or from the operating system when that is null, instantiated
// with `pers` as its personalisation string.
int instantiate(csprgbg_state** state, EVP_RAND_CTX* parent, const unsigned char* pers, size_t persLen)
{
    OsslErrorGuard guard;
    EVP_RAND* algorithm = crypto_ctr_drbg();
    if (algorithm == nullptr)
        return CRYPTO_ERR_FAILED;
    csprgbg_state* s = new (std::nothrow) csprgbg_state{nullptr, 0};
    if (s == nullptr)
        return CRYPTO_ERR_NO_MEMORY;
    s->drbg = EVP_RAND_CTX_new(algorithm, parent);
    if (s->drbg == nullptr) {
        destroy(s);
        return CRYPTO_ERR_NO_MEMORY;
    }
    char cipher[] = "AES-256-CTR";
    int useDf = 1;
    const OSSL_PARAM params[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_DRBG_PARAM_CIPHER, cipher, 0),
        OSSL_PARAM_construct_int(OSSL_DRBG_PARAM_USE_DF, &useDf),
        OSSL_PARAM_construct_end(),
    };
    // libcrypto puts a string of its own in place of a null personalisation
    // string; an empty one really means none.
    static const unsigned char none = 0;
    if (EVP_RAND_instantiate(s->drbg, kStrength, 0, pers != nullptr ? pers : &none, persLen, params) != 1) {
        destroy(s);
        return CRYPTO_ERR_FAILED;
    }
    OSSL_PARAM query[] = {
        OSSL_PARAM_construct_size_t(OSSL_RAND_PARAM_MAX_REQUEST, &s->maxRequest),
        OSSL_PARAM_construct_end(),
    };
    if (EVP_RAND_CTX_get_params(s->drbg, query) != 1 || s->maxRequest == 0) {
        destroy(s);
        return CRYPTO_ERR_FAILED;
    }
    *state = s;
    return CRYPTO_OK;
}

} // namespace

int csprgbg_init(csprgbg_state** state, const unsigned char* seed, size_t seedLen,
                 const unsigned char* pers, size_t persLen)
{
    CryptoGeneratorScope inside;
    if (state == nullptr)
        return CRYPTO_ERR_BAD_PARAMETER;
    *state = nullptr;
    if (seed == nullptr || seedLen < CSPRGBG_MIN_SEED_BYTES || (pers == nullptr && persLen > 0))
        return CRYPTO_ERR_BAD_PARAMETER;
    // Seed and personalisation string make one personalisation string.
    std::vector<unsigned char> material;
    try {
        material.reserve(seedLen + persLen);
        material.assign(seed, seed + seedLen);
        if (persLen > 0)
            material.insert(material.end(), pers, pers + persLen);
    } catch (const std::bad_alloc&) {
        return CRYPTO_ERR_NO_MEMORY;
    }
    const int rc = instantiate(state, nullptr, material.data(), material.size());
    OPENSSL_cleanse(material.data(), material.size());
    return rc;
}

int csprgbg_init_from_source(csprgbg_state** state, EVP_RAND_CTX* source, const unsigned char* pers, size_t persLen)
{
    CryptoGeneratorScope inside;
    if (state == nullptr)
        return CRYPTO_ERR_BAD_PARAMETER;
    *state = nullptr;
    if (source == nullptr || (pers == nullptr && persLen > 0))
        return CRYPTO_ERR_BAD_PARAMETER;
    return instantiate(state, source, pers, persLen);
}

int csprgbg_reseed(csprgbg_state* state, const unsigned char* seed, size_t seedLen)
{
    CryptoGeneratorScope inside;
    if (state == nullptr || (seed == nullptr && seedLen > 0))
        return CRYPTO_ERR_BAD_PARAMETER;
    OsslErrorGuard guard;
    return EVP_RAND_reseed(state->drbg, 0, nullptr, 0, seed, seedLen) == 1 ? CRYPTO_OK : CRYPTO_ERR_FAILED;
}

int csprgbg_bytes(csprgbg_state* state, unsigned char* out, size_t len)
{
    CryptoGeneratorScope inside;
    if (state == nullptr || (out == nullptr && len > 0))
        return CRYPTO_ERR_BAD_PARAMETER;
    OsslErrorGuard guard;
    for (size_t done = 0; done < len;) {
        const size_t chunk = len - done < state->maxRequest ? len - done : state->maxRequest;
        if (EVP_RAND_generate(state->drbg, out + done, chunk, kStrength, 0, nullptr, 0) != 1) {
            OPENSSL_cleanse(out, len);
            return CRYPTO_ERR_FAILED;
        }
        done += chunk;
    }
    return CRYPTO_OK;
}

int csprgbg_exit(csprgbg_state** state)
{
    if (state == nullptr || *state == nullptr)
        return CRYPTO_OK;
    destroy(*state);
    *state = nullptr;
    return CRYPTO_OK;
}
