// The MACs and PBKDF2 of the software token through the C ABI: published
// known answers (RFC 2202, 4231 and 2286 HMACs, RFC 6070 PBKDF2), and what
// a caller gets for wrong keys, parameters, lengths and MACs.

#include <gtest/gtest.h>

#include <functional>
#include <map>

#include "abi/object_helpers.h"
#include "support/vectors.h"

namespace korvo {
namespace {

const std::map<std::string, std::pair<CK_MECHANISM_TYPE, CK_MECHANISM_TYPE>> kHmacs = {
    {"MD5", {CKM_MD5_HMAC, CKM_MD5_HMAC_GENERAL}},          {"SHA1", {CKM_SHA_1_HMAC, CKM_SHA_1_HMAC_GENERAL}},
    {"SHA224", {CKM_SHA224_HMAC, CKM_SHA224_HMAC_GENERAL}}, {"SHA256", {CKM_SHA256_HMAC, CKM_SHA256_HMAC_GENERAL}},
    {"SHA384", {CKM_SHA384_HMAC, CKM_SHA384_HMAC_GENERAL}}, {"SHA512", {CKM_SHA512_HMAC, CKM_SHA512_HMAC_GENERAL}},
    {"RIPEMD160", {CKM_RIPEMD160_HMAC, CKM_RIPEMD160_HMAC_GENERAL}},
};
const std::map<std::string, size_t> kHashLengths = {{"MD5", 16},    {"SHA1", 20},   {"SHA224", 28},   {"SHA256", 32},
                                                    {"SHA384", 48}, {"SHA512", 64}, {"RIPEMD160", 20}};

class Macs : public ObjectTest {
protected:
    CK_RV signOnce(CK_MECHANISM* m, CK_OBJECT_HANDLE k, const Bytes& data, Bytes* mac)
    {
        CK_RV rv = p->C_SignInit(session, m, k);
        CK_ULONG length = 0;
        if (rv == CKR_OK) rv = p->C_Sign(session, const_cast<CK_BYTE_PTR>(data.data()), CK_ULONG(data.size()), nullptr, &length);
        mac->assign(length + 1, 0);
        if (rv == CKR_OK) rv = p->C_Sign(session, const_cast<CK_BYTE_PTR>(data.data()), CK_ULONG(data.size()), mac->data(), &length);
        mac->resize(rv == CKR_OK ? length : 0);
        return rv;
    }

    CK_RV verifyOnce(CK_MECHANISM* m, CK_OBJECT_HANDLE k, const Bytes& data, Bytes mac)
    {
        const CK_RV rv = p->C_VerifyInit(session, m, k);
        if (rv != CKR_OK) return rv;
        return p->C_Verify(session, const_cast<CK_BYTE_PTR>(data.data()), CK_ULONG(data.size()), mac.data(),
                           CK_ULONG(mac.size()));
    }
};

TEST_F(Macs, HmacsGivePublishedAnswers)
{
    const auto cases = vectors::load("hmac.txt");
    ASSERT_EQ(cases.size(), 49u);
    for (const vectors::Case& c : cases) {
        SCOPED_TRACE(c[0] + " " + c[3]);
        const auto mechanisms = kHmacs.at(c[0]);
        const Bytes data = vectors::hex(c[2]), expected = vectors::hex(c[3]);
        const CK_OBJECT_HANDLE k = secretOf(CKK_GENERIC_SECRET, vectors::hex(c[1]));
        CK_MAC_GENERAL_PARAMS length = expected.size();
        CK_MECHANISM general{mechanisms.second, &length, sizeof length};
        CK_MECHANISM full{mechanisms.first, nullptr, 0};
        CK_MECHANISM* m = expected.size() == kHashLengths.at(c[0]) ? &full : &general;
        Bytes mac;
        ASSERT_EQ(signOnce(m, k, data, &mac), CKR_OK);
        EXPECT_EQ(mac, expected);
        EXPECT_EQ(verifyOnce(m, k, data, expected), CKR_OK);
        ASSERT_EQ(signOnce(&general, k, data, &mac), CKR_OK);
        EXPECT_EQ(mac, expected);
    }
}

TEST_F(Macs, Pbkdf2GivesPublishedAnswers)
{
    const auto cases = vectors::load("pbkdf2.txt");
    ASSERT_EQ(cases.size(), 5u);
    for (const vectors::Case& c : cases) {
        SCOPED_TRACE(c[3]);
        Bytes password = vectors::hex(c[0]), salt = vectors::hex(c[1]);
        const Bytes expected = vectors::hex(c[3]);
        CK_ULONG passwordLength = password.size();
        CK_PKCS5_PBKD2_PARAMS params{CKZ_SALT_SPECIFIED, salt.data(), CK_ULONG(salt.size()), std::stoul(c[2]),
                                     CKP_PKCS5_PBKD2_HMAC_SHA1, nullptr, 0, password.data(), &passwordLength};
        CK_MECHANISM m{CKM_PKCS5_PBKD2, &params, sizeof params};
        Tmpl t;
        t.ulong(CKA_CLASS, CKO_SECRET_KEY).ulong(CKA_KEY_TYPE, CKK_GENERIC_SECRET).ulong(CKA_VALUE_LEN, expected.size());
        CK_OBJECT_HANDLE derived = CK_INVALID_HANDLE;
        ASSERT_EQ(p->C_GenerateKey(session, &m, t.data(), t.size(), &derived), CKR_OK);
        EXPECT_EQ(value(derived, CKA_VALUE), expected);
        EXPECT_EQ(value(derived, CKA_KEY_GEN_MECHANISM), ulongBytes(CKM_PKCS5_PBKD2));
    }
    // A DES3 key of the same password has its length and odd parity.
    Bytes password{'p', 'w'}, salt{1, 2, 3, 4};
    CK_ULONG passwordLength = 2;
    CK_PKCS5_PBKD2_PARAMS params{CKZ_SALT_SPECIFIED, salt.data(), 4, 10, CKP_PKCS5_PBKD2_HMAC_SHA256, nullptr, 0,
                                 password.data(), &passwordLength};
    CK_MECHANISM m{CKM_PKCS5_PBKD2, &params, sizeof params};
    Tmpl des3;
    des3.ulong(CKA_CLASS, CKO_SECRET_KEY).ulong(CKA_KEY_TYPE, CKK_DES3);
    CK_OBJECT_HANDLE derived = CK_INVALID_HANDLE;
    ASSERT_EQ(p->C_GenerateKey(session, &m, des3.data(), des3.size(), &derived), CKR_OK);
    const Bytes value3 = value(derived, CKA_VALUE);
    ASSERT_EQ(value3.size(), 24u);
    for (CK_BYTE b : value3) EXPECT_EQ(__builtin_popcount(b) % 2, 1);
}

TEST_F(Macs, WrongKeysParametersLengthsAndMacsGetTheirCodes)
{
    const CK_OBJECT_HANDLE aes = secretOf(CKK_AES, Bytes(16, 1));
    const CK_OBJECT_HANDLE generic = secretOf(CKK_GENERIC_SECRET, Bytes(20, 2));
    CK_MAC_GENERAL_PARAMS zero = 0, tooLong = 33, eight = 8;
    CK_MECHANISM desMac{CKM_DES_MAC, nullptr, 0};
    CK_MECHANISM hmacZero{CKM_SHA256_HMAC_GENERAL, &zero, sizeof zero};
    CK_MECHANISM hmacTooLong{CKM_SHA256_HMAC_GENERAL, &tooLong, sizeof tooLong};
    CK_MECHANISM hmacWithParameter{CKM_SHA256_HMAC, &eight, sizeof eight};
    CK_MECHANISM ssl3WithoutLength{CKM_SSL3_SHA1_MAC, nullptr, 0};
    CK_MECHANISM aesMacTooLong{CKM_AES_MAC_GENERAL, &tooLong, sizeof tooLong};
    struct Case {
        const char* name;
        CK_MECHANISM* m;
        CK_OBJECT_HANDLE key;
        CK_RV rv;
    };
    const Case cases[] = {
        {"DES MAC with an AES key", &desMac, aes, CKR_KEY_TYPE_INCONSISTENT},
        {"HMAC of length 0", &hmacZero, generic, CKR_MECHANISM_PARAM_INVALID},
        {"HMAC longer than the hash", &hmacTooLong, generic, CKR_MECHANISM_PARAM_INVALID},
        {"HMAC with a parameter", &hmacWithParameter, generic, CKR_MECHANISM_PARAM_INVALID},
        {"SSL 3.0 MAC without its length", &ssl3WithoutLength, generic, CKR_MECHANISM_PARAM_INVALID},
        {"AES MAC longer than a block", &aesMacTooLong, aes, CKR_MECHANISM_PARAM_INVALID},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(p->C_SignInit(session, c.m, c.key), c.rv);
    }

    // Size query and short buffer keep the operation; the right buffer ends it.
    CK_MECHANISM hmac{CKM_SHA256_HMAC, nullptr, 0};
    Bytes data(100, 7), mac;
    ASSERT_EQ(p->C_SignInit(session, &hmac, generic), CKR_OK);
    CK_BYTE out[64];
    CK_ULONG length = 31;
    EXPECT_EQ(p->C_Sign(session, data.data(), CK_ULONG(data.size()), out, &length), CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ(length, 32u);
    EXPECT_EQ(p->C_Sign(session, data.data(), CK_ULONG(data.size()), out, &length), CKR_OK);
    EXPECT_EQ(p->C_Sign(session, data.data(), CK_ULONG(data.size()), out, &length), CKR_OPERATION_NOT_INITIALIZED);
    ASSERT_EQ(signOnce(&hmac, generic, data, &mac), CKR_OK);
    EXPECT_EQ(verifyOnce(&hmac, generic, data, mac), CKR_OK);
    Bytes wrong = mac;
    wrong[5] ^= 1;
    EXPECT_EQ(verifyOnce(&hmac, generic, data, wrong), CKR_SIGNATURE_INVALID);
    wrong.pop_back();
    EXPECT_EQ(verifyOnce(&hmac, generic, data, wrong), CKR_SIGNATURE_LEN_RANGE);
    // The session goes on.
    EXPECT_EQ(verifyOnce(&hmac, generic, data, mac), CKR_OK);

    // PBKDF2 parameters that cannot be right.
    Bytes password{'p'}, salt{1};
    CK_ULONG passwordLength = 1;
    CK_PKCS5_PBKD2_PARAMS good{CKZ_SALT_SPECIFIED, salt.data(), 1, 1, CKP_PKCS5_PBKD2_HMAC_SHA1, nullptr, 0,
                               password.data(), &passwordLength};
    Tmpl t;
    t.ulong(CKA_CLASS, CKO_SECRET_KEY).ulong(CKA_VALUE_LEN, 16);
    const std::function<void(CK_PKCS5_PBKD2_PARAMS&)> breakages[] = {
        [](CK_PKCS5_PBKD2_PARAMS& p) { p.saltSource = 2; },
        [](CK_PKCS5_PBKD2_PARAMS& p) { p.iterations = 0; },
        [](CK_PKCS5_PBKD2_PARAMS& p) { p.prf = CKP_PKCS5_PBKD2_HMAC_GOSTR3411; },
        [](CK_PKCS5_PBKD2_PARAMS& p) { p.ulPasswordLen = nullptr; },
    };
    for (const auto& breakage : breakages) {
        CK_PKCS5_PBKD2_PARAMS params = good;
        breakage(params);
        CK_MECHANISM m{CKM_PKCS5_PBKD2, &params, sizeof params};
        CK_OBJECT_HANDLE made = CK_INVALID_HANDLE;
        EXPECT_EQ(p->C_GenerateKey(session, &m, t.data(), t.size(), &made), CKR_MECHANISM_PARAM_INVALID);
    }
}

}  // namespace
}  // namespace korvo
