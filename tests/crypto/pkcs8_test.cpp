#include "crypto/crypto_errors.h"
#include "crypto/pkcs8.h"
#include "ossl_ref.h"

#include <openssl/core_names.h>
#include <openssl/encoder.h>
#include <openssl/err.h>
#include <openssl/x509.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

// A reference key pair made by OpenSSL in its default context.
ref::Pkey generate(const std::string& type)
{
    if (type == "RSA") return ref::Pkey(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", size_t{1024}));
    if (type == "DH") {
        // A well-known group: generating a safe prime would take long.
        ref::Bn p(BN_get_rfc2409_prime_1024(nullptr));
        return ref::keygen(ref::key("DH", EVP_PKEY_KEY_PARAMETERS, {{"p", ref::bytes(p.get())}, {"g", {2}}}).get());
    }
    ref::Ctx ctx(EVP_PKEY_CTX_new_from_name(nullptr, type.c_str(), nullptr));
    size_t pbits = 1024, qbits = 160;
    const OSSL_PARAM sizes[] = {OSSL_PARAM_construct_size_t("pbits", &pbits), OSSL_PARAM_construct_size_t("qbits", &qbits),
                                OSSL_PARAM_construct_end()};
    EVP_PKEY* params = nullptr;
    EXPECT_EQ(EVP_PKEY_paramgen_init(ctx.get()), 1);
    EXPECT_EQ(EVP_PKEY_CTX_set_params(ctx.get(), sizes), 1);
    EXPECT_EQ(EVP_PKEY_paramgen(ctx.get(), &params), 1);
    ref::Pkey domain(params);
    return ref::keygen(domain.get());
}

Bytes openSslEncoding(EVP_PKEY* key)
{
    OSSL_ENCODER_CTX* ctx = OSSL_ENCODER_CTX_new_for_pkey(key, EVP_PKEY_KEYPAIR, "DER", "PrivateKeyInfo", nullptr);
    unsigned char* data = nullptr;
    size_t len = 0;
    EXPECT_EQ(OSSL_ENCODER_to_data(ctx, &data, &len), 1);
    OSSL_ENCODER_CTX_free(ctx);
    Bytes out(data, data + len);
    OPENSSL_free(data);
    return out;
}

const char* const kRsaNames[] = {"n", "e", "d", "rsa-factor1", "rsa-factor2", "rsa-exponent1", "rsa-exponent2",
                                 "rsa-coefficient1"};

struct KeyCase {
    const char* libcryptoType;
    int type;
    bool hasQ;
    int (*encode)(const pkcs8_ffc&, crypto_bytes*);   // null for RSA
};

const KeyCase kKeyCases[] = {
    {"RSA", PKCS8_KEY_RSA, false, nullptr},
    {"DSA", PKCS8_KEY_DSA, true, pkcs8_encode_dsa},
    {"DH", PKCS8_KEY_DH, false, pkcs8_encode_dh},
    {"DHX", PKCS8_KEY_X942, true, pkcs8_encode_x942},
};

// The numbers of a key in the order of our structures.
std::vector<crypto_bytes> numbersOf(EVP_PKEY* key, const KeyCase& c)
{
    std::vector<crypto_bytes> out;
    if (c.type == PKCS8_KEY_RSA) {
        for (const char* name : kRsaNames) out.push_back(ref::get(key, name));
        return out;
    }
    for (const char* name : {"p", "q", "g", "priv"}) out.push_back(c.hasQ || name[0] != 'q' ? ref::get(key, name) : crypto_bytes());
    return out;
}

std::vector<crypto_bytes> numbersOf(const pkcs8_key& key)
{
    if (key.type == PKCS8_KEY_RSA) {
        const pkcs8_rsa& r = key.rsa;
        return {r.n, r.e, r.d, r.p, r.q, r.dp, r.dq, r.qinv};
    }
    return {key.ffc.p, key.ffc.q, key.ffc.g, key.ffc.x};
}

TEST(Pkcs8, EncodingsRoundTripThroughOpenSsl)
{
    for (const KeyCase& c : kKeyCases) {
        SCOPED_TRACE(c.libcryptoType);
        ref::Pkey original = generate(c.libcryptoType);
        const std::vector<crypto_bytes> numbers = numbersOf(original.get(), c);

        // Ours encodes, OpenSSL decodes.
        crypto_bytes der;
        if (c.type == PKCS8_KEY_RSA) {
            const pkcs8_rsa rsa{numbers[0], numbers[1], numbers[2], numbers[3], numbers[4], numbers[5], numbers[6], numbers[7]};
            ASSERT_EQ(pkcs8_encode_rsa(rsa, &der), CRYPTO_OK);
        } else {
            ASSERT_EQ(c.encode(pkcs8_ffc{numbers[0], numbers[1], numbers[2], numbers[3]}, &der), CRYPTO_OK);
        }
        const unsigned char* cursor = der.data();
        ref::Pkey loaded(d2i_AutoPrivateKey(nullptr, &cursor, long(der.size())));
        ASSERT_NE(loaded, nullptr);
        EXPECT_EQ(cursor, der.data() + der.size());
        EXPECT_TRUE(EVP_PKEY_is_a(loaded.get(), c.libcryptoType));
        EXPECT_EQ(numbersOf(loaded.get(), c), numbers);

        // OpenSSL encodes, ours decodes.
        const Bytes reference = openSslEncoding(original.get());
        pkcs8_key decoded;
        ASSERT_EQ(pkcs8_decode(reference.data(), reference.size(), &decoded), CRYPTO_OK);
        EXPECT_EQ(decoded.type, c.type);
        EXPECT_EQ(numbersOf(decoded), numbers);
        if (c.type != PKCS8_KEY_RSA) {
            EXPECT_EQ(ref::hex(decoded.y), ref::hex(ref::get(original.get(), "pub")));
        }
    }
}

TEST(Pkcs8, MalformedInputIsRefusedWithoutHarm)
{
    ref::Pkey dsa = generate("DSA");
    const Bytes good = openSslEncoding(dsa.get());
    pkcs8_key key;
    for (size_t len = 0; len < good.size(); ++len)
        EXPECT_EQ(pkcs8_decode(good.data(), len, &key), CRYPTO_ERR_BAD_PARAMETER) << "truncated to " << len;
    Bytes longer = good;
    longer.push_back(0);
    EXPECT_EQ(pkcs8_decode(longer.data(), longer.size(), &key), CRYPTO_ERR_BAD_PARAMETER);
    // A flipped bit may still leave a well-formed key (inside a number), but
    // never anything but a clean answer.
    int refused = 0;
    for (size_t i = 0; i < good.size(); ++i) {
        for (unsigned char bit : {0x01, 0x80}) {
            Bytes flipped = good;
            flipped[i] ^= bit;
            const int rc = pkcs8_decode(flipped.data(), flipped.size(), &key);
            EXPECT_TRUE(rc == CRYPTO_OK || rc == CRYPTO_ERR_BAD_PARAMETER || rc == CRYPTO_ERR_UNSUPPORTED) << i;
            refused += rc != CRYPTO_OK;
        }
    }
    EXPECT_GT(refused, 0);

    // Other key types are told apart from garbage.
    ref::Pkey ec(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
    const Bytes ecDer = openSslEncoding(ec.get());
    EXPECT_EQ(pkcs8_decode(ecDer.data(), ecDer.size(), &key), CRYPTO_ERR_UNSUPPORTED);

    // Encoders refuse missing numbers, and a q for PKCS #3.
    crypto_bytes der;
    const pkcs8_ffc noX{{0x17}, {0x0b}, {0x04}, {}};
    EXPECT_EQ(pkcs8_encode_dsa(noX, &der), CRYPTO_ERR_BAD_PARAMETER);
    EXPECT_EQ(pkcs8_encode_dh(pkcs8_ffc{{0x17}, {0x0b}, {0x04}, {0x03}}, &der), CRYPTO_ERR_BAD_PARAMETER);
    EXPECT_EQ(pkcs8_encode_rsa(pkcs8_rsa{}, &der), CRYPTO_ERR_BAD_PARAMETER);
    // None of the failures left anything in the thread's error queue.
    EXPECT_EQ(ERR_peek_error(), 0UL);
}

}  // namespace
