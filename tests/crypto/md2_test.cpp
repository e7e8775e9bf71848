#include "crypto/md2.h"
#include "hex_util.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace {

struct Md2Vector {
    const char* message;
    const char* digest;
};

// The complete test suite of RFC 1319, appendix A.5.
const Md2Vector kRfc1319Suite[] = {
    {"", "8350e5a3e24c153df2275c9f80692773"},
    {"a", "32ec01ec4a6dac72c0ab96fb34c0b5d1"},
    {"abc", "da853b0d3f88d99b30283a69e6ded6bb"},
    {"message digest", "ab4f496bfb2a530b219ff33031fe06b0"},
    {"abcdefghijklmnopqrstuvwxyz", "4e8ddff3650292ab5a4108c3aa47940b"},
    {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
     "da33def2a42df13975352846c30338cd"},
    {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
     "d5976f79d83d3a0dc9806c3c66f3efd8"},
};

// Feeds the message in pieces of `piece` bytes (all at once when 0).
std::string md2Hex(const std::string& message, size_t piece)
{
    md2_state s;
    md2_init(&s);
    const auto* p = reinterpret_cast<const unsigned char*>(message.data());
    if (piece == 0)
        piece = message.size();
    for (size_t off = 0; off < message.size(); off += piece)
        md2_update(&s, p + off, std::min(piece, message.size() - off));
    unsigned char digest[MD2_DIGEST_BYTES];
    md2_final(&s, digest);
    return toHex(digest, sizeof(digest));
}

class Md2Rfc1319 : public ::testing::TestWithParam<Md2Vector> {};

TEST_P(Md2Rfc1319, WholeMessageGivesPublishedDigest)
{
    EXPECT_EQ(md2Hex(GetParam().message, 0), GetParam().digest);
}

// 1-byte pieces exercise the partial-block buffer; 5- and 7-byte pieces
// straddle the 16-byte block boundaries at varying offsets.
TEST_P(Md2Rfc1319, PiecewiseInputGivesPublishedDigest)
{
    for (size_t piece : {1, 5, 7, 16, 17}) {
        SCOPED_TRACE(piece);
        EXPECT_EQ(md2Hex(GetParam().message, piece), GetParam().digest);
    }
}

INSTANTIATE_TEST_SUITE_P(AllVectors, Md2Rfc1319, ::testing::ValuesIn(kRfc1319Suite));

} // namespace
