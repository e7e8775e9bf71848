// RSA in the crypto core against OpenSSL used directly (its default
// context): generated keys load and pass OpenSSL's checks, and the raw
// operations agree with OpenSSL's unpadded RSA. (The CRT completion is
// tested through the attribute policy, which uses it.) The seed source is
// seen feeding the module's context.

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>

#include <gtest/gtest.h>

#include <atomic>
#include <vector>

#include "crypto/crypto_errors.h"
#include "crypto/ossl_context.h"
#include "crypto/rsa.h"
#include "crypto/seed_source.h"

namespace {

using Bytes = std::vector<unsigned char>;

// The eight numbers as an OpenSSL key of the default context.
EVP_PKEY* opensslKey(const rsa_components& c)
{
    const char* names[] = {OSSL_PKEY_PARAM_RSA_N,         OSSL_PKEY_PARAM_RSA_E,         OSSL_PKEY_PARAM_RSA_D,
                           OSSL_PKEY_PARAM_RSA_FACTOR1,   OSSL_PKEY_PARAM_RSA_FACTOR2,   OSSL_PKEY_PARAM_RSA_EXPONENT1,
                           OSSL_PKEY_PARAM_RSA_EXPONENT2, OSSL_PKEY_PARAM_RSA_COEFFICIENT1};
    const crypto_bytes* values[] = {&c.n, &c.e, &c.d, &c.p, &c.q, &c.dp, &c.dq, &c.qinv};
    OSSL_PARAM_BLD* builder = OSSL_PARAM_BLD_new();
    std::vector<BIGNUM*> numbers;
    for (int i = 0; i < 8; ++i) {
        numbers.push_back(BN_bin2bn(values[i]->data(), int(values[i]->size()), nullptr));
        OSSL_PARAM_BLD_push_BN(builder, names[i], numbers.back());
    }
    OSSL_PARAM* params = OSSL_PARAM_BLD_to_param(builder);
    EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr);
    EVP_PKEY* key = nullptr;
    EVP_PKEY_fromdata_init(ctx);
    EVP_PKEY_fromdata(ctx, &key, EVP_PKEY_KEYPAIR, params);
    EVP_PKEY_CTX_free(ctx);
    OSSL_PARAM_free(params);
    OSSL_PARAM_BLD_free(builder);
    for (BIGNUM* n : numbers) BN_free(n);
    return key;
}

Bytes opensslRaw(EVP_PKEY* key, const Bytes& in, bool isPrivate)
{
    EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(key, nullptr);
    Bytes out(in.size());
    size_t len = out.size();
    if (isPrivate) {
        EVP_PKEY_decrypt_init(ctx);
        EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_NO_PADDING);
        EVP_PKEY_decrypt(ctx, out.data(), &len, in.data(), in.size());
    } else {
        EVP_PKEY_encrypt_init(ctx);
        EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_NO_PADDING);
        EVP_PKEY_encrypt(ctx, out.data(), &len, in.data(), in.size());
    }
    EVP_PKEY_CTX_free(ctx);
    out.resize(len);
    return out;
}

struct KeyCase {
    unsigned bits;
    Bytes e;
};

class GeneratedKey : public testing::TestWithParam<KeyCase> {};

TEST_P(GeneratedKey, LoadsIntoOpensslAndAgreesOnTheRawOperations)
{
    const KeyCase& kc = GetParam();
    rsa_components c;
    ASSERT_EQ(rsa_generate(kc.bits, kc.e.data(), kc.e.size(), &c), CRYPTO_OK);
    EVP_PKEY* reference = opensslKey(c);
    ASSERT_NE(reference, nullptr);
    EVP_PKEY_CTX* check = EVP_PKEY_CTX_new(reference, nullptr);
    EXPECT_EQ(EVP_PKEY_check(check), 1);
    EVP_PKEY_CTX_free(check);
    EXPECT_EQ(EVP_PKEY_get_bits(reference), int(kc.bits));
    if (!kc.e.empty()) {
        EXPECT_EQ(Bytes(c.e.begin(), c.e.end()), kc.e);
    }

    rsa_key* priv = nullptr;
    rsa_key* pub = nullptr;
    ASSERT_EQ(rsa_key_new_private(c, &priv), CRYPTO_OK);
    ASSERT_EQ(rsa_key_new_public(c.n.data(), c.n.size(), c.e.data(), c.e.size(), &pub), CRYPTO_OK);
    const size_t k = rsa_key_bytes(pub);
    EXPECT_EQ(k, kc.bits / 8);
    EXPECT_EQ(rsa_key_bits(priv), kc.bits);

    Bytes message(k, 0);
    for (size_t i = 1; i < k; ++i) message[i] = static_cast<unsigned char>(i * 7);
    Bytes signature(k), recovered(k);
    ASSERT_EQ(rsa_private_raw(priv, message.data(), k, signature.data()), CRYPTO_OK);
    EXPECT_EQ(signature, opensslRaw(reference, message, true));
    ASSERT_EQ(rsa_public_raw(pub, signature.data(), k, recovered.data()), CRYPTO_OK);
    EXPECT_EQ(recovered, message);
    // A short input is a number too: it is left-padded.
    ASSERT_EQ(rsa_public_raw(pub, message.data() + 1, k - 1, recovered.data()), CRYPTO_OK);
    EXPECT_EQ(recovered, opensslRaw(reference, message, false));

    // Without the CRT values, and without e, the same answer.
    rsa_components plain;
    plain.n = c.n;
    plain.e = c.e;
    plain.d = c.d;
    for (bool withE : {true, false}) {
        if (!withE) plain.e.clear();
        rsa_key* simple = nullptr;
        ASSERT_EQ(rsa_key_new_private(plain, &simple), CRYPTO_OK);
        ASSERT_EQ(rsa_private_raw(simple, message.data(), k, recovered.data()), CRYPTO_OK);
        EXPECT_EQ(recovered, signature);
        rsa_key_release(simple);
    }

    // Inputs at or above n are refused, as are ones longer than k.
    Bytes tooBig(c.n.begin(), c.n.end());
    EXPECT_EQ(rsa_public_raw(pub, tooBig.data(), k, recovered.data()), CRYPTO_ERR_DATA_RANGE);
    tooBig.insert(tooBig.begin(), 1);
    EXPECT_EQ(rsa_private_raw(priv, tooBig.data(), k + 1, recovered.data()), CRYPTO_ERR_DATA_RANGE);

    rsa_key_release(priv);
    rsa_key_release(pub);
    EVP_PKEY_free(reference);
}

INSTANTIATE_TEST_SUITE_P(Sizes, GeneratedKey,
                         testing::Values(KeyCase{1024, {}}, KeyCase{1032, {0x03}}, KeyCase{2048, {0x01, 0x00, 0x01}}));

TEST(RsaCrypto, RefusesWhatCannotBeAKey)
{
    rsa_components c;
    const unsigned char even[] = {0x01, 0x00, 0x00};
    EXPECT_EQ(rsa_generate(1020, nullptr, 0, &c), CRYPTO_ERR_BAD_PARAMETER);
    EXPECT_EQ(rsa_generate(8192, nullptr, 0, &c), CRYPTO_ERR_BAD_PARAMETER);
    EXPECT_EQ(rsa_generate(1024, even, sizeof even, &c), CRYPTO_ERR_BAD_PARAMETER);
    rsa_key* key = nullptr;
    EXPECT_EQ(rsa_key_new_public(even, sizeof even, even, sizeof even, &key), CRYPTO_ERR_BAD_PARAMETER);
    EXPECT_EQ(key, nullptr);
}

TEST(SeedSource, FeedsTheModuleContextAndStepsAsideInsideTheGenerators)
{
    static std::atomic<int> requests{0};
    crypto_set_seed_source(
        [](void*, unsigned char* out, size_t len) {
            ++requests;
            for (size_t i = 0; i < len; ++i) out[i] = static_cast<unsigned char>(i);
            return 0;
        },
        nullptr);
    EVP_RAND_CTX* primary = RAND_get0_primary(crypto_libctx());
    ASSERT_NE(primary, nullptr);
    EXPECT_EQ(EVP_RAND_reseed(primary, 0, nullptr, 0, nullptr, 0), 1);
    EXPECT_GT(requests.load(), 0);

    const int before = requests.load();
    {
        CryptoGeneratorScope inside;
        EXPECT_EQ(EVP_RAND_reseed(primary, 0, nullptr, 0, nullptr, 0), 1);
    }
    EXPECT_EQ(requests.load(), before);
    crypto_set_seed_source(nullptr, nullptr);
    EXPECT_EQ(EVP_RAND_reseed(primary, 0, nullptr, 0, nullptr, 0), 1);
    EXPECT_EQ(requests.load(), before);
}

}  // namespace
