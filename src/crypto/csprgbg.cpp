#include "crypto/csprgbg.h"

#include "crypto/crypto_errors.h"
#include "crypto/ossl_context.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <cstdint>
#include <cstring>
#include <new>

namespace {

constexpr size_t kOutLen = 32;   // HMAC-SHA-256 output, also the size of Key and V

// Requests allowed between two seedings. The DRBG definition permits up to
// 2^48; reaching it makes generation fail until the caller reseeds.
constexpr uint64_t kReseedInterval = uint64_t(1) << 48;

static_assert(CSPRGBG_MAX_REQUEST_BYTES * 8 <= (1 << 19),
              "a single HMAC-DRBG request is limited to 2^19 bits");

struct Bytes {
    const unsigned char* data;
    size_t len;
};

} // namespace

struct csprgbg_state {
    unsigned char key[kOutLen];
    unsigned char v[kOutLen];
    uint64_t reseedCounter;
    EVP_MAC_CTX* mac;   // HMAC-SHA-256, re-keyed for every call
    bool failed;        // an internal error left Key/V unusable
};

namespace {

// out = HMAC(key, parts[0] || parts[1] || ...). `out` may alias `key`: the
// key is taken into the MAC context before any output is written.
bool hmac(csprgbg_state* s, const unsigned char* key, const Bytes* parts, size_t count,
          unsigned char* out)
{
    if (EVP_MAC_init(s->mac, key, kOutLen, nullptr) != 1)
        return false;
    for (size_t i = 0; i < count; ++i) {
        if (parts[i].len > 0 && EVP_MAC_update(s->mac, parts[i].data, parts[i].len) != 1)
            return false;
    }
    size_t written = 0;
    return EVP_MAC_final(s->mac, out, &written, kOutLen) == 1 && written == kOutLen;
}

// HMAC_DRBG_Update with provided_data = first || second.
bool update(csprgbg_state* s, Bytes first, Bytes second)
{
    const bool noData = first.len == 0 && second.len == 0;
    for (unsigned char separator = 0x00; separator <= 0x01; ++separator) {
        const Bytes keyInput[] = {{s->v, kOutLen}, {&separator, 1}, first, second};
        if (!hmac(s, s->key, keyInput, 4, s->key))
            return false;
        const Bytes vInput[] = {{s->v, kOutLen}};
        if (!hmac(s, s->key, vInput, 1, s->v))
            return false;
        // Without provided data the second pass is skipped.
        if (noData)
            break;
    }
    return true;
}

// One HMAC_DRBG_Generate request without additional input.
int generate(csprgbg_state* s, unsigned char* out, size_t len)
{
    if (s->reseedCounter > kReseedInterval)
        return CRYPTO_ERR_RESEED_REQUIRED;

    const Bytes vInput[] = {{s->v, kOutLen}};
    while (len > 0) {
        if (!hmac(s, s->key, vInput, 1, s->v))
            return CRYPTO_ERR_FAILED;
        const size_t take = len < kOutLen ? len : kOutLen;
        std::memcpy(out, s->v, take);
        out += take;
        len -= take;
    }
    if (!update(s, {nullptr, 0}, {nullptr, 0}))
        return CRYPTO_ERR_FAILED;
    ++s->reseedCounter;
    return CRYPTO_OK;
}

void destroy(csprgbg_state* s)
{
    EVP_MAC_CTX_free(s->mac);   // wipes the HMAC key schedule itself
    OPENSSL_cleanse(s, sizeof(*s));
    delete s;
}

} // namespace

int csprgbg_init(csprgbg_state** state, const unsigned char* seed, size_t seedLen,
                 const unsigned char* pers, size_t persLen)
{
    if (state == nullptr)
        return CRYPTO_ERR_BAD_PARAMETER;
    *state = nullptr;
    if (seed == nullptr || seedLen < CSPRGBG_MIN_SEED_BYTES || (pers == nullptr && persLen > 0))
        return CRYPTO_ERR_BAD_PARAMETER;

    OsslErrorGuard guard;
    EVP_MAC* hmacAlg = crypto_hmac();
    if (hmacAlg == nullptr)
        return CRYPTO_ERR_FAILED;

    csprgbg_state* s = new (std::nothrow) csprgbg_state{};
    if (s == nullptr)
        return CRYPTO_ERR_NO_MEMORY;
    s->mac = EVP_MAC_CTX_new(hmacAlg);
    if (s->mac == nullptr) {
        destroy(s);
        return CRYPTO_ERR_NO_MEMORY;
    }
    char digestName[] = "SHA256";
    const OSSL_PARAM params[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digestName, 0),
        OSSL_PARAM_construct_end(),
    };
    if (EVP_MAC_CTX_set_params(s->mac, params) != 1) {
        destroy(s);
        return CRYPTO_ERR_FAILED;
    }

    // Instantiate: Key = 0x00 00 ... 00, V = 0x01 01 ... 01, then mix in
    // entropy input || nonce || personalisation string.
    std::memset(s->key, 0x00, kOutLen);
    std::memset(s->v, 0x01, kOutLen);
    if (!update(s, {seed, seedLen}, {pers, persLen})) {
        destroy(s);
        return CRYPTO_ERR_FAILED;
    }
    s->reseedCounter = 1;
    *state = s;
    return CRYPTO_OK;
}

int csprgbg_reseed(csprgbg_state* state, const unsigned char* seed, size_t seedLen)
{
    if (state == nullptr || (seed == nullptr && seedLen > 0))
        return CRYPTO_ERR_BAD_PARAMETER;
    if (state->failed)
        return CRYPTO_ERR_FAILED;

    OsslErrorGuard guard;
    if (!update(state, {seed, seedLen}, {nullptr, 0})) {
        state->failed = true;
        return CRYPTO_ERR_FAILED;
    }
    state->reseedCounter = 1;
    return CRYPTO_OK;
}

int csprgbg_bytes(csprgbg_state* state, unsigned char* out, size_t len)
{
    if (state == nullptr || (out == nullptr && len > 0))
        return CRYPTO_ERR_BAD_PARAMETER;
    if (state->failed)
        return CRYPTO_ERR_FAILED;

    OsslErrorGuard guard;
    size_t done = 0;
    while (done < len) {
        size_t chunk = len - done;
        if (chunk > CSPRGBG_MAX_REQUEST_BYTES)
            chunk = CSPRGBG_MAX_REQUEST_BYTES;
        const int rc = generate(state, out + done, chunk);
        if (rc != CRYPTO_OK) {
            if (rc == CRYPTO_ERR_FAILED)
                state->failed = true;
            OPENSSL_cleanse(out, len);
            return rc;
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
