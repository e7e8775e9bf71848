// Message digests of a session: the eight digest mechanisms against
// published values, single-part and in pieces, the length query and short
// buffer rules, and the mechanism checks.

#include <cstring>
#include <ostream>
#include <string>

#include "abi/module_harness.h"


namespace {

struct DigestCase {
    const char* name;
    CK_MECHANISM_TYPE mechanism;
    CK_ULONG length;
    const char* abc;     // digest of "abc"
    const char* digits;  // digest of "1234567890" eight times
};

const DigestCase kCases[] = {
    {"MD2", CKM_MD2, 16, "da853b0d3f88d99b30283a69e6ded6bb", "d5976f79d83d3a0dc9806c3c66f3efd8"},
    {"MD5", CKM_MD5, 16, "900150983cd24fb0d6963f7d28e17f72", "57edf4a22be3c955ac49da2e2107b67a"},
    {"SHA1", CKM_SHA_1, 20, "a9993e364706816aba3e25717850c26c9cd0d89d", "50abf5706a150990a08b2c5ea40fa0e585554732"},
    {"RIPEMD160", CKM_RIPEMD160, 20, "8eb208f7e05d987a9b044a8e98c6b087f15a0bfc",
     "9b752e45573d4b39f4dbd3323cab82bf63326bfb"},
    {"SHA256", CKM_SHA256, 32, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad",
     "f371bc4a311f2b009eef952dd83ca80e2b60026c8e935592d0f9c308453c813e"},
    {"SHA224", CKM_SHA224, 28, "23097d223405d8228642a477bda255b32aadbce4bda0b3f7e36c9da7",
     "b50aecbe4e9bb0b57bc5f3ae760a8e01db24f203fb3cdcd13148046e"},
    {"SHA384", CKM_SHA384, 48,
     "cb00753f45a35e8bb5a03d699ac65007272c32ab0eded1631a8b605a43ff5bed8086072ba1e7cc2358baeca134c825a7",
     "b12932b0627d1c060942f5447764155655bd4da0c9afa6dd9b9ef53129af1b8fb0195996d2de9ca0df9d821ffee67026"},
    {"SHA512", CKM_SHA512, 64,
     "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a2192992a274fc1a836ba3c23a3feebbd"
     "454d4423643ce80e2a9ac94fa54ca49f",
     "72ec1ef1124a45b047e8b7c75a932195135bb61de24ec0d1914042246e0aec3a2354e093d76f3048b456764346900cb1"
     "30d2a4fd5dd16abb5e30bcb850dee843"},
};

void PrintTo(const DigestCase& c, std::ostream* os)
{
    *os << c.name;
}

class Digests : public korvo::InitializedTest {
protected:
    CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
    CK_BYTE abc[3] = {'a', 'b', 'c'};
    CK_BYTE out[80];
    CK_ULONG length = 0;

    void SetUp() override
    {
        korvo::InitializedTest::SetUp();
        if (HasFatalFailure()) return;
        session = openSession();
    }

    CK_RV init(CK_MECHANISM_TYPE type)
    {
        CK_MECHANISM mechanism = {type, nullptr, 0};
        return p->C_DigestInit(session, &mechanism);
    }

    CK_RV digestAbc(CK_BYTE* output, CK_ULONG outLength)
    {
        length = outLength;
        return p->C_Digest(session, abc, sizeof abc, output, &length);
    }
};

class DigestVectors : public Digests, public testing::WithParamInterface<DigestCase> {};

}  // namespace

// ---- Values ----------------------------------------------------------------

// A length query or a short buffer keeps the digest running, a larger
// buffer receives only the digest, and a digest delivered ends the operation.
TEST_P(DigestVectors, SinglePartAndPiecesGivePublishedValues)
{
    const DigestCase& c = GetParam();
    ASSERT_EQ(init(c.mechanism), CKR_OK);
    ASSERT_EQ(digestAbc(nullptr, 0), CKR_OK);
    EXPECT_EQ(length, c.length);
    ASSERT_EQ(digestAbc(out, c.length - 1), CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ(length, c.length);
    memset(out, 0xEE, sizeof out);
    ASSERT_EQ(digestAbc(out, sizeof out), CKR_OK);
    EXPECT_EQ(toHex(out, length), c.abc);
    EXPECT_EQ(out[c.length], 0xEE);
    EXPECT_EQ(digestAbc(out, sizeof out), CKR_OPERATION_NOT_INITIALIZED);

    std::string digits;
    for (int i = 0; i < 8; ++i) digits += "1234567890";
    ASSERT_EQ(init(c.mechanism), CKR_OK);
    size_t offset = 0;
    for (size_t piece : {1, 0, 7, 63, 9}) {
        ASSERT_EQ(p->C_DigestUpdate(session, reinterpret_cast<CK_BYTE*>(&digits[offset]), piece), CKR_OK);
        offset += piece;
    }
    ASSERT_EQ(offset, digits.size());
    length = 0;
    ASSERT_EQ(p->C_DigestFinal(session, nullptr, &length), CKR_OK);
    EXPECT_EQ(length, c.length);
    length = c.length - 1;
    ASSERT_EQ(p->C_DigestFinal(session, out, &length), CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ(length, c.length);
    ASSERT_EQ(p->C_DigestFinal(session, out, &length), CKR_OK);
    EXPECT_EQ(toHex(out, length), c.digits);
    EXPECT_EQ(p->C_DigestFinal(session, out, &length), CKR_OPERATION_NOT_INITIALIZED);
}

INSTANTIATE_TEST_SUITE_P(AllMechanisms, DigestVectors, testing::ValuesIn(kCases),
                         [](const testing::TestParamInfo<DigestCase>& info) { return info.param.name; });

// ---- Refused calls ------------------------------------------------------------

TEST_F(Digests, InitRefusesParametersAndNonDigestMechanismsAndUnknownKeysLeaveTheDigestAlone)
{
    CK_BYTE parameter = 0;
    CK_MECHANISM sha224WithParameter = {CKM_SHA224, &parameter, 1};
    // The mechanism is checked before its parameter.
    CK_MECHANISM ripemd128WithParameter = {CKM_RIPEMD128, &parameter, 1};
    EXPECT_EQ(p->C_DigestInit(session, &sha224WithParameter), CKR_MECHANISM_PARAM_INVALID);
    EXPECT_EQ(p->C_DigestInit(session, &ripemd128WithParameter), CKR_MECHANISM_INVALID);
    EXPECT_EQ(init(CKM_SHA256_HMAC), CKR_MECHANISM_INVALID);
    EXPECT_EQ(p->C_DigestKey(session, 99), CKR_KEY_HANDLE_INVALID);
    // A refused init leaves nothing running.
    EXPECT_EQ(digestAbc(out, sizeof out), CKR_OPERATION_NOT_INITIALIZED);

    ASSERT_EQ(init(CKM_SHA_1), CKR_OK);
    EXPECT_EQ(p->C_DigestKey(session, 99), CKR_KEY_HANDLE_INVALID);
    EXPECT_EQ(p->C_DigestKey(session, session), CKR_KEY_HANDLE_INVALID);
    ASSERT_EQ(digestAbc(out, sizeof out), CKR_OK);
    EXPECT_EQ(toHex(out, length), kCases[2].abc);
}
