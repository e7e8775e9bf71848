#include "crypto/crypto_errors.h"
#include "crypto/hash.h"
#include "hex_util.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <string>
#include <vector>

namespace {

const std::string kAbc = "abc";
const std::string kAlnum = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
const std::string kDigits80 =
    "12345678901234567890123456789012345678901234567890123456789012345678901234567890";
// The two-block examples of FIPS 180 (448 bits for the 512-bit-block hashes,
// 896 bits for SHA-384/512).
const std::string kTwoBlock448 = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";
const std::string kTwoBlock896 =
    "abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmnhijklmno"
    "ijklmnopjklmnopqklmnopqrlmnopqrsmnopqrstnopqrstu";
// Marks the published digests of a million 'a'.
const std::string kMillionA = "<a million 'a'>";

struct HashVector {
    int id;
    std::string message;
    std::string digest;
};

std::ostream& operator<<(std::ostream& os, const HashVector& v)
{
    return os << "hash " << v.id << " of \"" << v.message.substr(0, 20) << "\"";
}

const HashVector kPublished[] = {
    // RFC 1319, the complete suite of appendix A.5 (MD2 is our own code)
    {HASH_MD2, "", "8350e5a3e24c153df2275c9f80692773"},
    {HASH_MD2, "a", "32ec01ec4a6dac72c0ab96fb34c0b5d1"},
    {HASH_MD2, kAbc, "da853b0d3f88d99b30283a69e6ded6bb"},
    {HASH_MD2, "message digest", "ab4f496bfb2a530b219ff33031fe06b0"},
    {HASH_MD2, "abcdefghijklmnopqrstuvwxyz", "4e8ddff3650292ab5a4108c3aa47940b"},
    {HASH_MD2, kAlnum, "da33def2a42df13975352846c30338cd"},
    {HASH_MD2, kDigits80, "d5976f79d83d3a0dc9806c3c66f3efd8"},
    // RFC 1321 (MD5)
    {HASH_MD5, kAbc, "900150983cd24fb0d6963f7d28e17f72"},
    {HASH_MD5, kDigits80, "57edf4a22be3c955ac49da2e2107b67a"},
    {HASH_MD5, kMillionA, "7707d6ae4e027c70eea2a935c2296f21"},
    // FIPS 180 examples
    {HASH_SHA1, kAbc, "a9993e364706816aba3e25717850c26c9cd0d89d"},
    {HASH_SHA1, kTwoBlock448, "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
    {HASH_SHA1, kMillionA, "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
    {HASH_SHA224, kAbc, "23097d223405d8228642a477bda255b32aadbce4bda0b3f7e36c9da7"},
    {HASH_SHA256, kAbc, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
    {HASH_SHA256, kTwoBlock448, "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
    {HASH_SHA256, kMillionA, "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
    {HASH_SHA384, kAbc,
     "cb00753f45a35e8bb5a03d699ac65007272c32ab0eded1631a8b605a43ff5bed8086072ba1e7cc2358baeca134c825a7"},
    {HASH_SHA512, kAbc,
     "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
     "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f"},
    {HASH_SHA512, kTwoBlock896,
     "8e959b75dae313da8cf4f72814fc143f8f7779c6eb9f7fa17299aeadb6889018"
     "501d289e4900f7e4331b99dec4b5433ac7d329eeb6dd26545e96e55b874be909"},
    {HASH_SHA512, kMillionA,
     "e718483d0ce769644e2e42c7bc15b4638e1f98b13b2044285632a803afa973eb"
     "de0ff244877ea60a4cb0432ce577c31beb009c5c2c49aa2e4eadb217ad8cc09b"},
    // RIPEMD-160, its authors' test vectors
    {HASH_RIPEMD160, kAbc, "8eb208f7e05d987a9b044a8e98c6b087f15a0bfc"},
    {HASH_RIPEMD160, kDigits80, "9b752e45573d4b39f4dbd3323cab82bf63326bfb"},
};

std::vector<unsigned char> messageOf(const HashVector& v)
{
    return v.message == kMillionA ? std::vector<unsigned char>(1000000, 'a') : bytesOf(v.message);
}

// Runs start/do/stop, feeding the message in pieces whose sizes cycle through
// `pieces`, with an empty update between every two pieces.
std::string hashInPieces(int id, const std::vector<unsigned char>& data, const std::vector<size_t>& pieces)
{
    hash_context* ctx = nullptr;
    EXPECT_EQ(start_hash(id, &ctx), CRYPTO_OK);
    for (size_t i = 0, off = 0; off < data.size(); ++i) {
        const size_t n = std::min(pieces[i % pieces.size()], data.size() - off);
        EXPECT_EQ(do_hash(ctx, data.data() + off, n), CRYPTO_OK);
        EXPECT_EQ(do_hash(ctx, nullptr, 0), CRYPTO_OK);
        off += n;
    }
    std::vector<unsigned char> digest(hash_digestLength(id));
    EXPECT_EQ(stop_hash(ctx, digest.data()), CRYPTO_OK);
    return toHex(digest);
}

class HashPublishedVectors : public ::testing::TestWithParam<HashVector> {};

TEST_P(HashPublishedVectors, OneShotGivesPublishedDigest)
{
    const auto msg = messageOf(GetParam());
    std::vector<unsigned char> digest(hash_digestLength(GetParam().id));
    ASSERT_EQ(digest.size() * 2, GetParam().digest.size());
    ASSERT_EQ(hash_buffer(GetParam().id, msg.data(), msg.size(), digest.data()), CRYPTO_OK);
    EXPECT_EQ(toHex(digest), GetParam().digest);
}

// Irregular pieces, small and around the 16/64/128-byte block sizes, start
// and end updates at every kind of offset inside a block.
TEST_P(HashPublishedVectors, PiecewiseInputGivesPublishedDigest)
{
    const auto msg = messageOf(GetParam());
    EXPECT_EQ(hashInPieces(GetParam().id, msg, {1, 3, 14, 17, 63, 64, 65, 127, 128, 129, 4099}), GetParam().digest);
}

INSTANTIATE_TEST_SUITE_P(AllHashes, HashPublishedVectors, ::testing::ValuesIn(kPublished));

TEST(HashIdentifiers, UnknownIdentifierHasNoLengthAndCannotStart)
{
    for (int id : {-1, 0, 1, 4, 7, 14, 1000}) {
        SCOPED_TRACE(id);
        EXPECT_EQ(hash_digestLength(id), 0u);
        hash_context* ctx = reinterpret_cast<hash_context*>(&id);   // must be overwritten
        EXPECT_NE(start_hash(id, &ctx), CRYPTO_OK);
        EXPECT_EQ(ctx, nullptr);
        unsigned char digest[HASH_MAX_DIGEST_LENGTH];
        EXPECT_NE(hash_buffer(id, nullptr, 0, digest), CRYPTO_OK);
    }
}

TEST(HashLifecycle, AbortedHashDoesNotDisturbOthersAndBadArgumentsAreRefused)
{
    hash_context* aborted = nullptr;
    hash_context* kept = nullptr;
    unsigned char digest[32];
    ASSERT_EQ(start_hash(HASH_MD2, &aborted), CRYPTO_OK);
    ASSERT_EQ(start_hash(HASH_SHA256, &kept), CRYPTO_OK);
    ASSERT_EQ(do_hash(aborted, reinterpret_cast<const unsigned char*>("xyz"), 3), CRYPTO_OK);
    ASSERT_EQ(do_hash(kept, reinterpret_cast<const unsigned char*>("abc"), 3), CRYPTO_OK);
    EXPECT_EQ(do_hash(kept, nullptr, 1), CRYPTO_ERR_BAD_PARAMETER);
    abort_hash(aborted);
    abort_hash(nullptr);
    ASSERT_EQ(stop_hash(kept, digest), CRYPTO_OK);
    EXPECT_EQ(toHex(digest, 32), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");

    EXPECT_EQ(start_hash(HASH_SHA1, nullptr), CRYPTO_ERR_BAD_PARAMETER);
    EXPECT_EQ(do_hash(nullptr, nullptr, 0), CRYPTO_ERR_BAD_PARAMETER);
    // Stopping without an output buffer fails but still releases the hash
    // (the sanitizer build reports a leak otherwise).
    ASSERT_EQ(start_hash(HASH_SHA1, &kept), CRYPTO_OK);
    EXPECT_EQ(stop_hash(kept, nullptr), CRYPTO_ERR_BAD_PARAMETER);
    EXPECT_EQ(hash_buffer(HASH_SHA1, nullptr, 5, digest), CRYPTO_ERR_BAD_PARAMETER);
    EXPECT_EQ(hash_buffer(HASH_SHA1, digest, 5, nullptr), CRYPTO_ERR_BAD_PARAMETER);
}

} // namespace
