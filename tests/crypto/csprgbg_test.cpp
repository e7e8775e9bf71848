#include "crypto/crypto_errors.h"
#include "crypto/csprgbg.h"
#include "crypto/ossl_context.h"
#include "hex_util.h"
#include "support/vectors.h"

#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

Bytes fromHex(const std::string& hex) { return vectors::hex(hex); }

// One known answer: instantiate, reseed, two 64-byte requests; the second
// is the answer.
struct DrbgVector {
    Bytes entropy, nonce, pers, reseedEntropy, reseedInput, output;
};

std::vector<DrbgVector> loadVectors()
{
    std::vector<DrbgVector> out;
    for (const vectors::Case& f : vectors::load("ctr_drbg_aes256.txt"))
        out.push_back({fromHex(f[0]), fromHex(f[1]), fromHex(f[2]), fromHex(f[3]), fromHex(f[4]), fromHex(f[5])});
    return out;
}

// libcrypto's TEST-RAND in the module's context, handing out fixed entropy
// and nonce: the test-only entropy source.
class FixedSource {
public:
    FixedSource(const Bytes& entropy, const Bytes& nonce)
    {
        EVP_RAND* testRand = EVP_RAND_fetch(crypto_libctx(), "TEST-RAND", nullptr);
        ctx_ = testRand ? EVP_RAND_CTX_new(testRand, nullptr) : nullptr;
        EVP_RAND_free(testRand);
        unsigned int strength = 256;
        OSSL_PARAM params[] = {OSSL_PARAM_construct_uint(OSSL_RAND_PARAM_STRENGTH, &strength),
                               OSSL_PARAM_construct_end()};
        ok_ = ctx_ && EVP_RAND_instantiate(ctx_, strength, 0, nullptr, 0, params) == 1 && set(entropy, nonce);
    }
    ~FixedSource() { EVP_RAND_CTX_free(ctx_); }
    bool ok() const { return ok_; }
    EVP_RAND_CTX* get() const { return ctx_; }

    bool set(const Bytes& entropy, const Bytes& nonce)
    {
        std::vector<OSSL_PARAM> params;
        params.push_back(OSSL_PARAM_construct_octet_string(OSSL_RAND_PARAM_TEST_ENTROPY,
                                                           const_cast<unsigned char*>(entropy.data()), entropy.size()));
        if (!nonce.empty())
            params.push_back(OSSL_PARAM_construct_octet_string(OSSL_RAND_PARAM_TEST_NONCE,
                                                               const_cast<unsigned char*>(nonce.data()), nonce.size()));
        params.push_back(OSSL_PARAM_construct_end());
        return EVP_RAND_CTX_set_params(ctx_, params.data()) == 1;
    }

private:
    EVP_RAND_CTX* ctx_ = nullptr;
    bool ok_ = false;
};

Bytes generate(csprgbg_state* s, size_t len)
{
    Bytes out(len);
    EXPECT_EQ(csprgbg_bytes(s, out.data(), len), CRYPTO_OK);
    return out;
}

bool hasRepeatedBlock(const Bytes& bytes)
{
    std::set<std::string> blocks;
    for (size_t i = 0; i + 16 <= bytes.size(); i += 16)
        if (!blocks.insert(std::string(bytes.begin() + long(i), bytes.begin() + long(i) + 16)).second) return true;
    return false;
}

TEST(Csprgbg, KnownAnswersFromAFixedSource)
{
    const std::vector<DrbgVector> vectors = loadVectors();
    ASSERT_GE(vectors.size(), 6u);
    for (const DrbgVector& v : vectors) {
        SCOPED_TRACE(toHex(v.entropy));
        FixedSource source(v.entropy, v.nonce);
        ASSERT_TRUE(source.ok());
        csprgbg_state* s = nullptr;
        ASSERT_EQ(csprgbg_init_from_source(&s, source.get(), v.pers.data(), v.pers.size()), CRYPTO_OK);
        ASSERT_TRUE(source.set(v.reseedEntropy, {}));
        ASSERT_EQ(csprgbg_reseed(s, v.reseedInput.data(), v.reseedInput.size()), CRYPTO_OK);
        generate(s, 64);
        EXPECT_EQ(toHex(generate(s, 64)), toHex(v.output));
        csprgbg_exit(&s);
    }
}

// The same source bytes give the same stream; what a reseed mixes in
// changes it; lengths across libcrypto's request size come out whole.
TEST(Csprgbg, SeedsEnterTheStreamAndLargeRequestsAreWhole)
{
    const DrbgVector v = loadVectors().at(0);
    FixedSource a(v.entropy, v.nonce), b(v.entropy, v.nonce);
    csprgbg_state *sa = nullptr, *sb = nullptr;
    ASSERT_EQ(csprgbg_init_from_source(&sa, a.get(), nullptr, 0), CRYPTO_OK);
    ASSERT_EQ(csprgbg_init_from_source(&sb, b.get(), nullptr, 0), CRYPTO_OK);
    EXPECT_EQ(generate(sa, 100), generate(sb, 100));
    ASSERT_TRUE(a.set(v.reseedEntropy, {}) && b.set(v.reseedEntropy, {}));
    const unsigned char seed[] = {1, 2, 3};
    ASSERT_EQ(csprgbg_reseed(sa, seed, sizeof seed), CRYPTO_OK);
    ASSERT_EQ(csprgbg_reseed(sb, nullptr, 0), CRYPTO_OK);
    EXPECT_NE(generate(sa, 100), generate(sb, 100));
    csprgbg_exit(&sa);
    csprgbg_exit(&sb);

    const Bytes seedBytes(32, 7);
    csprgbg_state* s = nullptr;
    ASSERT_EQ(csprgbg_init(&s, seedBytes.data(), seedBytes.size(), nullptr, 0), CRYPTO_OK);
    for (size_t len : {size_t(1), size_t(65535), size_t(65537), size_t(1) << 20}) {
        SCOPED_TRACE(len);
        Bytes out(len + 16, 0);
        ASSERT_EQ(csprgbg_bytes(s, out.data(), len), CRYPTO_OK);
        EXPECT_EQ(Bytes(out.end() - 16, out.end()), Bytes(16, 0));  // nothing written past the end
        out.resize(len);
        if (len >= 16) {
            EXPECT_FALSE(hasRepeatedBlock(out));
        }
    }
    csprgbg_state* other = nullptr;  // the same seed, other entropy from the system
    ASSERT_EQ(csprgbg_init(&other, seedBytes.data(), seedBytes.size(), nullptr, 0), CRYPTO_OK);
    EXPECT_NE(generate(s, 32), generate(other, 32));
    csprgbg_exit(&s);
    csprgbg_exit(&other);
}

TEST(Csprgbg, ShortSeedsNullPointersAndBadLengthsAreRefused)
{
    const Bytes seed(CSPRGBG_MIN_SEED_BYTES, 1);
    unsigned char out[8];
    csprgbg_state* s = reinterpret_cast<csprgbg_state*>(0x1);   // must be cleared
    EXPECT_EQ(csprgbg_init(&s, seed.data(), seed.size() - 1, nullptr, 0), CRYPTO_ERR_BAD_PARAMETER);
    EXPECT_EQ(s, nullptr);
    EXPECT_EQ(csprgbg_init(&s, seed.data(), seed.size(), nullptr, 4), CRYPTO_ERR_BAD_PARAMETER);
    EXPECT_EQ(csprgbg_init(nullptr, seed.data(), seed.size(), nullptr, 0), CRYPTO_ERR_BAD_PARAMETER);
    EXPECT_EQ(csprgbg_init_from_source(&s, nullptr, nullptr, 0), CRYPTO_ERR_BAD_PARAMETER);
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
