#include "crypto/crypto_errors.h"
#include "crypto/dh.h"
#include "ossl_ref.h"
#include "support/vectors.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

Bytes unhex(const std::string& s) { return vectors::hex(s); }

std::string hexOf(const Bytes& v) { return ref::hex(crypto_bytes(v.begin(), v.end())); }

// One DER element with a short-form length.
Bytes tlv(unsigned char tag, const Bytes& content)
{
    Bytes out{tag, static_cast<unsigned char>(content.size())};
    out.insert(out.end(), content.begin(), content.end());
    return out;
}

Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

crypto_bytes zzOf(size_t len)
{
    crypto_bytes zz(len);
    for (size_t i = 0; i < len; ++i) zz[i] = static_cast<unsigned char>(i * 7 + 3);
    return zz;
}

Bytes derive(int kdf, const crypto_bytes& zz, const Bytes& info, size_t keyLen, int expectedRc = CRYPTO_OK)
{
    crypto_bytes key;
    EXPECT_EQ(x942_kdf(kdf, zz, info.empty() ? nullptr : info.data(), info.size(), keyLen, &key), expectedRc);
    return Bytes(key.begin(), key.end());
}

TEST(X942Kdf, AsnOneFormMatchesRfc2631Examples)
{
    int count = 0;
    for (vectors::Case& f : vectors::load("x942_kdf_rfc2631.txt")) {
        const Bytes z = unhex(f[0]);
        std::string& info = f[1];
        const size_t keyLen = std::stoul(f[2]);
        const std::string& key = f[3];
        EXPECT_EQ(hexOf(derive(X942_KDF_SHA1_ASN1, crypto_bytes(z.begin(), z.end()), unhex(info), keyLen)), key);
        // The counter is the KDF's to set: a caller's other value is replaced.
        info.replace(info.find("040400000001") + 4, 8, "00000009");
        EXPECT_EQ(hexOf(derive(X942_KDF_SHA1_ASN1, crypto_bytes(z.begin(), z.end()), unhex(info), keyLen)), key);
        ++count;
    }
    EXPECT_EQ(count, 2);
}

TEST(X942Kdf, ConcatenationFormMatchesIndependentHashing)
{
    struct Case {
        size_t zzLen;
        Bytes info;
        size_t keyLen;
    };
    const Case cases[] = {{20, {}, 16}, {128, Bytes(9, 0xa5), 20}, {256, Bytes(33, 0x3c), 45}};
    for (const Case& c : cases) {
        const crypto_bytes zz = zzOf(c.zzLen);
        // SHA-1(ZZ || counter || OtherInfo) for counter 1, 2, ...
        Bytes expected;
        for (unsigned counter = 1; expected.size() < c.keyLen; ++counter) {
            const Bytes block = cat({Bytes(zz.begin(), zz.end()), {0, 0, 0, static_cast<unsigned char>(counter)}, c.info});
            unsigned char md[20];
            unsigned mdLen = 0;
            EVP_MD* sha1 = EVP_MD_fetch(nullptr, "SHA1", nullptr);
            ASSERT_EQ(EVP_Digest(block.data(), block.size(), md, &mdLen, sha1, nullptr), 1);
            EVP_MD_free(sha1);
            expected.insert(expected.end(), md, md + mdLen);
        }
        expected.resize(c.keyLen);
        EXPECT_EQ(hexOf(derive(X942_KDF_SHA1_CONCATENATE, zz, c.info, c.keyLen)), hexOf(expected)) << c.keyLen;
    }
}

TEST(X942Kdf, NullFormKeepsTheTrailingBytesOfZz)
{
    const crypto_bytes zz = zzOf(64);
    EXPECT_EQ(hexOf(derive(X942_KDF_NULL, zz, {}, 16)), hexOf(Bytes(zz.end() - 16, zz.end())));
    EXPECT_EQ(hexOf(derive(X942_KDF_NULL, zz, {}, 64)), hexOf(Bytes(zz.begin(), zz.end())));
    derive(X942_KDF_NULL, zz, {}, 65, CRYPTO_ERR_DATA_RANGE);
    derive(X942_KDF_NULL, zz, {1, 2, 3}, 16, CRYPTO_ERR_BAD_PARAMETER);
}

TEST(X942Kdf, RefusesMalformedOtherInfoAndArguments)
{
    const Bytes oid = {0x2a, 0x03};
    const Bytes counter = tlv(0x04, {0, 0, 0, 1});
    const Bytes good = tlv(0x30, tlv(0x30, cat({tlv(0x06, oid), counter})));
    const Bytes malformed[] = {
        {},
        {0x30, 0x00},
        cat({good, {0x00}}),                                                 // trailing byte
        {0x30, 0x80, 0x30, 0x80, 0x06, 0x01, 0x2a, 0x04, 0x04, 0, 0, 0, 1, 0, 0, 0, 0},   // indefinite lengths
        tlv(0x30, tlv(0x30, cat({tlv(0x06, oid), tlv(0x04, {0, 0, 1})}))),   // three-byte counter
        tlv(0x30, tlv(0x30, cat({tlv(0x06, oid), counter, tlv(0x05, {})}))), // more in keyInfo
        tlv(0x30, tlv(0x30, cat({tlv(0x04, oid), counter}))),                // no OID
        tlv(0x31, tlv(0x30, cat({tlv(0x06, oid), counter}))),                // a SET
        {0x30, 0x85, 0xff, 0xff, 0xff, 0xff, 0xff},                           // length beyond the input
    };
    const crypto_bytes zz = zzOf(32);
    derive(X942_KDF_SHA1_ASN1, zz, good, 20);
    for (const Bytes& info : malformed) derive(X942_KDF_SHA1_ASN1, zz, info, 20, CRYPTO_ERR_BAD_PARAMETER);
    derive(X942_KDF_SHA1_CONCATENATE, zz, {}, 0, CRYPTO_ERR_BAD_PARAMETER);
    derive(X942_KDF_SHA1_CONCATENATE, crypto_bytes(), {}, 16, CRYPTO_ERR_BAD_PARAMETER);
    derive(99, zz, {}, 16, CRYPTO_ERR_UNSUPPORTED);
}

}  // namespace
