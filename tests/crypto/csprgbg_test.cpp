#include "crypto/crypto_errors.h"
#include "crypto/csprgbg.h"
#include "hex_util.h"

#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <string>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

Bytes pattern(size_t len, unsigned char start)
{
    Bytes b(len);
    for (size_t i = 0; i < len; ++i)
        b[i] = static_cast<unsigned char>(start + i * 7);
    return b;
}

OSSL_PARAM octets(const char* key, const Bytes& value)
{
    return OSSL_PARAM_construct_octet_string(key, const_cast<unsigned char*>(value.data()), value.size());
}

// libcrypto's own HMAC-DRBG (SHA-256) as the reference, in a library context
// of the test's own. Its entropy and nonce come from a TEST-RAND parent that
// hands out exactly the bytes we give it.
class ReferenceDrbg {
public:
    ReferenceDrbg(const Bytes& entropy, const Bytes& nonce, const Bytes& pers)
    {
        EVP_RAND* testRand = EVP_RAND_fetch(libctx_, "TEST-RAND", nullptr);
        EVP_RAND* hmacDrbg = EVP_RAND_fetch(libctx_, "HMAC-DRBG", nullptr);
        parent_ = testRand ? EVP_RAND_CTX_new(testRand, nullptr) : nullptr;
        drbg_ = hmacDrbg && parent_ ? EVP_RAND_CTX_new(hmacDrbg, parent_) : nullptr;
        EVP_RAND_free(testRand);
        EVP_RAND_free(hmacDrbg);

        unsigned int strength = 256;
        OSSL_PARAM parentParams[] = {OSSL_PARAM_construct_uint(OSSL_RAND_PARAM_STRENGTH, &strength),
                                     octets(OSSL_RAND_PARAM_TEST_ENTROPY, entropy),
                                     octets(OSSL_RAND_PARAM_TEST_NONCE, nonce), OSSL_PARAM_construct_end()};
        char digest[] = "SHA256", mac[] = "HMAC";
        OSSL_PARAM drbgParams[] = {OSSL_PARAM_construct_utf8_string(OSSL_DRBG_PARAM_DIGEST, digest, 0),
                                   OSSL_PARAM_construct_utf8_string(OSSL_DRBG_PARAM_MAC, mac, 0),
                                   OSSL_PARAM_construct_end()};
        // A null personalisation makes libcrypto substitute a string of its
        // own; a non-null pointer with length 0 really means "none".
        static const unsigned char none = 0;
        ready_ = drbg_ != nullptr && EVP_RAND_instantiate(parent_, strength, 0, nullptr, 0, parentParams) == 1
                 && EVP_RAND_instantiate(drbg_, strength, 0, pers.empty() ? &none : pers.data(), pers.size(),
                                         drbgParams) == 1;
    }

    ~ReferenceDrbg()
    {
        EVP_RAND_CTX_free(drbg_);
        EVP_RAND_CTX_free(parent_);
        OSSL_LIB_CTX_free(libctx_);
    }

    bool ready() const { return ready_; }

    Bytes generate(size_t len)
    {
        Bytes out(len);
        EXPECT_EQ(EVP_RAND_generate(drbg_, out.data(), len, 256, 0, nullptr, 0), 1);
        return out;
    }

    // Entropy handed straight to EVP_RAND_reseed() is followed by a second
    // reseed from the parent, so the new entropy goes through the parent
    // instead and the DRBG reseeds exactly once.
    void reseed(const Bytes& entropy)
    {
        OSSL_PARAM params[] = {octets(OSSL_RAND_PARAM_TEST_ENTROPY, entropy), OSSL_PARAM_construct_end()};
        ASSERT_EQ(EVP_RAND_CTX_set_params(parent_, params), 1);
        ASSERT_EQ(EVP_RAND_reseed(drbg_, 0, nullptr, 0, nullptr, 0), 1);
    }

private:
    OSSL_LIB_CTX* libctx_ = OSSL_LIB_CTX_new();
    EVP_RAND_CTX* parent_ = nullptr;
    EVP_RAND_CTX* drbg_ = nullptr;
    bool ready_ = false;
};

Bytes generate(csprgbg_state* s, size_t len)
{
    Bytes out(len);
    EXPECT_EQ(csprgbg_bytes(s, out.data(), len), CRYPTO_OK);
    return out;
}

const Bytes kPers = bytesOf("Korvo token personalisation");

class CsprgbgAgainstLibcrypto : public ::testing::TestWithParam<Bytes> {};

TEST_P(CsprgbgAgainstLibcrypto, OutputMatchesReferenceAcrossRequestsAndReseed)
{
    const Bytes entropy = pattern(32, 0x11), nonce = pattern(16, 0x80), fresh = pattern(40, 0x42);
    ReferenceDrbg ref(entropy, nonce, GetParam());
    ASSERT_TRUE(ref.ready());
    Bytes seed = entropy;
    seed.insert(seed.end(), nonce.begin(), nonce.end());
    csprgbg_state* s = nullptr;
    ASSERT_EQ(csprgbg_init(&s, seed.data(), seed.size(), GetParam().data(), GetParam().size()), CRYPTO_OK);

    // Lengths off the 32-byte output block, then one larger than a single
    // request, which both sides must split into the same requests.
    for (size_t len : {1, 31, 33, 100, CSPRGBG_MAX_REQUEST_BYTES + 70}) {
        SCOPED_TRACE(len);
        EXPECT_TRUE(generate(s, len) == ref.generate(len));
    }
    ref.reseed(fresh);
    ASSERT_EQ(csprgbg_reseed(s, fresh.data(), fresh.size()), CRYPTO_OK);
    EXPECT_EQ(toHex(generate(s, 80)), toHex(ref.generate(80)));
    csprgbg_exit(&s);
}

INSTANTIATE_TEST_SUITE_P(WithAndWithoutPersonalisation, CsprgbgAgainstLibcrypto, ::testing::Values(Bytes{}, kPers));

TEST(Csprgbg, ShortSeedsNullPointersAndBadLengthsAreRefused)
{
    const Bytes seed = pattern(CSPRGBG_MIN_SEED_BYTES, 1);
    unsigned char out[8];
    csprgbg_state* s = reinterpret_cast<csprgbg_state*>(0x1);   // must be cleared
    EXPECT_EQ(csprgbg_init(&s, seed.data(), seed.size() - 1, nullptr, 0), CRYPTO_ERR_BAD_PARAMETER);
    EXPECT_EQ(s, nullptr);
    EXPECT_EQ(csprgbg_init(&s, seed.data(), seed.size(), nullptr, 4), CRYPTO_ERR_BAD_PARAMETER);
    EXPECT_EQ(csprgbg_init(nullptr, seed.data(), seed.size(), nullptr, 0), CRYPTO_ERR_BAD_PARAMETER);
    EXPECT_EQ(csprgbg_bytes(nullptr, out, sizeof out), CRYPTO_ERR_BAD_PARAMETER);
    EXPECT_EQ(csprgbg_reseed(nullptr, seed.data(), seed.size()), CRYPTO_ERR_BAD_PARAMETER);

    ASSERT_EQ(csprgbg_init(&s, seed.data(), seed.size(), nullptr, 0), CRYPTO_OK);
    EXPECT_EQ(csprgbg_bytes(s, nullptr, 1), CRYPTO_ERR_BAD_PARAMETER);
    EXPECT_EQ(csprgbg_reseed(s, nullptr, 1), CRYPTO_ERR_BAD_PARAMETER);
    EXPECT_EQ(csprgbg_bytes(s, nullptr, 0), CRYPTO_OK);
    EXPECT_EQ(csprgbg_exit(&s), CRYPTO_OK);
    EXPECT_EQ(s, nullptr);
    EXPECT_EQ(csprgbg_exit(&s), CRYPTO_OK);
}

} // namespace
