#include "pkcs11/sw/pkcs1.h"

#include "crypto/crypto_errors.h"
#include "crypto/csprgbg.h"
#include "crypto/hash.h"
#include "crypto/hex_util.h"
#include "pkcs11/P11Mutex.h"
#include "pkcs11/P11Session.h"
#include "pkcs11/P11Token.h"

#include <gtest/gtest.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <functional>
#include <set>
#include <string>
#include <vector>

namespace {

typedef std::vector<CK_BYTE> Bytes;

Bytes fromHex(const std::string& hex)
{
    Bytes out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) out.push_back(static_cast<CK_BYTE>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    return out;
}

Bytes pattern(size_t len, CK_BYTE start)
{
    Bytes b(len);
    for (size_t i = 0; i < len; ++i) b[i] = static_cast<CK_BYTE>(start + 7 * i);
    return b;
}

// A token and session whose generator is seeded with a fixed value: enough
// for P11Session_generateRandom, which is all the PSS encoder asks of it.
struct RandomSession {
    P11Token token{};
    P11Session session{};
    RandomSession()
    {
        const Bytes seed = pattern(48, 1);
        csprgbg_init(&token.rng, seed.data(), seed.size(), nullptr, 0);
        P11Mutex_construct(&token.handleMutex);
        session.token = &token;
    }
    ~RandomSession()
    {
        P11Mutex_destruct(&token.handleMutex);
        csprgbg_exit(&token.rng);
    }
};

// ---- PKCS #1 v1.5 blocks ----------------------------------------------------

struct PadCase {
    int bt;
    CK_ULONG k, dataLen;
};

TEST(Pkcs1PadTest, LaysOutHeaderPaddingSeparatorAndData)
{
    const PadCase cases[] = {{1, 64, 20}, {1, 11, 8}, {1, 16, 0}, {2, 64, 20}, {2, 256, 245}, {2, 12, 9}};
    for (const PadCase& c : cases) {
        SCOPED_TRACE(testing::Message() << "bt " << c.bt << " k " << c.k << " data " << c.dataLen);
        const Bytes data = pattern(c.dataLen, 0x30);
        Bytes block(c.k, 0xAA);
        ASSERT_EQ(0, pkcs11_pad_pkcs1_block(c.bt, block.data(), c.k, data.data(), c.dataLen));
        const CK_ULONG psEnd = c.k - c.dataLen - 1;
        EXPECT_EQ(0x00, block[0]);
        EXPECT_EQ(c.bt, block[1]);
        for (CK_ULONG i = 2; i < psEnd; ++i) EXPECT_TRUE(c.bt == 1 ? block[i] == 0xFF : block[i] != 0x00) << i;
        EXPECT_EQ(0x00, block[psEnd]);
        EXPECT_EQ(data, Bytes(block.begin() + psEnd + 1, block.end()));
    }
}

TEST(Pkcs1PadTest, Type2PaddingUsesEveryNonZeroByteValue)
{
    std::set<CK_BYTE> seen;
    Bytes block(256);
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(0, pkcs11_pad_pkcs1_block(2, block.data(), block.size(), nullptr, 0));
        seen.insert(block.begin() + 2, block.end() - 1);
    }
    EXPECT_EQ(0u, seen.count(0x00));
    EXPECT_EQ(255u, seen.size());
}

TEST(Pkcs1PadTest, RefusesBadTypeOverlongDataAndNullBlock)
{
    const Bytes data(14, 0x11);
    Bytes block(16);
    EXPECT_EQ(-1, pkcs11_pad_pkcs1_block(0, block.data(), 16, data.data(), 13));
    EXPECT_EQ(-1, pkcs11_pad_pkcs1_block(3, block.data(), 16, data.data(), 13));
    EXPECT_EQ(-1, pkcs11_pad_pkcs1_block(1, block.data(), 16, data.data(), 14));
    EXPECT_EQ(-1, pkcs11_pad_pkcs1_block(2, block.data(), 2, nullptr, 0));
    EXPECT_EQ(-1, pkcs11_pad_pkcs1_block(1, nullptr, 16, data.data(), 1));
    EXPECT_EQ(0, pkcs11_pad_pkcs1_block(1, block.data(), 16, data.data(), 13));
}

struct UnpadCase {
    int bt;
    std::string block;
    int rc;
    std::string data;
};

TEST(Pkcs1UnpadTest, FindsDataAfterSeparatorOrRefuses)
{
    const UnpadCase cases[] = {
        {2, "000200aabb", 0, "aabb"},          // empty padding string accepted
        {2, "00020000aa", 0, "00aa"},          // data starts right after index 2
        {2, "0002123400aabb", 0, "aabb"},
        {1, "0001ffff00", 0, ""},
        {1, "0001123400aa", 0, "aa"},          // padding values are not checked
        {0, "00000000aabb", 0, "aabb"},
        {0, "0000aabb", 0, "aabb"},
        {0, "00000000", 0, ""},
        {1, "0001ffffff", -1, ""},             // no separator
        {2, "0102ff00aa", -1, ""},
        {2, "0001ff00aa", -1, ""},
        {3, "0003ff00aa", -1, ""},
        {2, "0002", -1, ""},
        {2, "00", -1, ""},
    };
    for (const UnpadCase& c : cases) {
        SCOPED_TRACE(c.block);
        const Bytes block = fromHex(c.block);
        CK_ULONG len = 99;
        ASSERT_EQ(c.rc, pkcs11_unpad_pkcs1_block(c.bt, block.data(), block.size(), nullptr, &len));
        if (c.rc != 0) continue;
        ASSERT_EQ(c.data.size() / 2, len);
        Bytes out(len + 1);
        len = out.size();
        ASSERT_EQ(0, pkcs11_unpad_pkcs1_block(c.bt, block.data(), block.size(), out.data(), &len));
        out.resize(len);
        EXPECT_EQ(c.data, toHex(out));
    }
}

TEST(Pkcs1UnpadTest, ShortBufferFailsAndKeepsLength)
{
    const Bytes data = pattern(30, 5);
    Bytes block(128), out(30);
    ASSERT_EQ(0, pkcs11_pad_pkcs1_block(2, block.data(), block.size(), data.data(), data.size()));
    CK_ULONG len = 29;
    EXPECT_EQ(-1, pkcs11_unpad_pkcs1_block(2, block.data(), block.size(), out.data(), &len));
    EXPECT_EQ(29u, len);
    len = 30;
    ASSERT_EQ(0, pkcs11_unpad_pkcs1_block(2, block.data(), block.size(), out.data(), &len));
    EXPECT_EQ(data, out);
}

// ---- MGF1 -------------------------------------------------------------------

struct MgfCase {
    int hashId;
    std::string seed;
    CK_ULONG len;
    std::string mask;
};

TEST(Mgf1Test, MatchesPublishedMasks)
{
    const MgfCase cases[] = {
        {HASH_SHA1, "foo", 3, "1ac907"},
        {HASH_SHA1, "foo", 5, "1ac9075cd4"},
        {HASH_SHA1, "bar", 50,
         "bc0c655e016bc2931d85a2e675181adcef7f581f76df2739da74faac41627be2f7f415c89e983fd0ce80ced9878641cb4876"},
        {HASH_SHA256, "bar", 50,
         "382576a7841021cc28fc4c0948753fb8312090cea942ea4c4e735d10dc724b155f9f6069f289d61daca0cb814502ef04eae1"},
    };
    for (const MgfCase& c : cases) {
        const Bytes seed = bytesOf(c.seed);
        Bytes mask(c.len + 1, 0xEE);
        ASSERT_EQ(CKR_OK, MGF1(c.hashId, seed.data(), seed.size(), mask.data(), c.len));
        EXPECT_EQ(0xEE, mask.back()) << "wrote past the mask";
        mask.pop_back();
        EXPECT_EQ(c.mask, toHex(mask));
        if (c.hashId != HASH_SHA1) continue;
        ASSERT_EQ(CKR_OK, MGF1_SHA1(seed.data(), seed.size(), mask.data(), c.len));
        EXPECT_EQ(c.mask, toHex(mask));
    }
}

TEST(Mgf1Test, UnknownHashFailsUnlessNothingIsAsked)
{
    CK_BYTE mask[4] = {};
    EXPECT_EQ(CKR_GENERAL_ERROR, MGF1(99, mask, 4, mask, 4));
    EXPECT_EQ(CKR_OK, MGF1(99, mask, 4, mask, 0));
}

// ---- OpenSSL reference operations on one RSA-2048 key -----------------------

class Pkcs1OpenSslTest : public testing::Test {
protected:
    static EVP_PKEY* key;
    static void SetUpTestSuite() { key = EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<size_t>(2048)); }
    static void TearDownTestSuite() { EVP_PKEY_free(key); }

    typedef int (*Init)(EVP_PKEY_CTX*);
    typedef int (*Run)(EVP_PKEY_CTX*, unsigned char*, size_t*, const unsigned char*, size_t);
    // One public or private key operation; empty on failure.
    static Bytes op(Init init, Run run, const Bytes& in, const std::function<int(EVP_PKEY_CTX*)>& setup)
    {
        Bytes out;
        EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(key, nullptr);
        size_t len = 0;
        if (ctx && init(ctx) > 0 && setup(ctx) > 0 && run(ctx, nullptr, &len, in.data(), in.size()) > 0) {
            out.resize(len);
            if (run(ctx, out.data(), &len, in.data(), in.size()) > 0) out.resize(len);
            else out.clear();
        }
        EVP_PKEY_CTX_free(ctx);
        return out;
    }
    static Bytes rawPublic(const Bytes& in) { return op(EVP_PKEY_encrypt_init, EVP_PKEY_encrypt, in, noPadding); }
    static Bytes rawPrivate(const Bytes& in) { return op(EVP_PKEY_decrypt_init, EVP_PKEY_decrypt, in, noPadding); }
    static int noPadding(EVP_PKEY_CTX* ctx) { return EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_NO_PADDING); }
    static std::function<int(EVP_PKEY_CTX*)> pss(int hashId, int mgfId, int sLen)
    {
        return [=](EVP_PKEY_CTX* ctx) {
            return EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_PSS_PADDING) > 0 &&
                   EVP_PKEY_CTX_set_signature_md(ctx, md(hashId)) > 0 &&
                   EVP_PKEY_CTX_set_rsa_mgf1_md(ctx, md(mgfId)) > 0 &&
                   EVP_PKEY_CTX_set_rsa_pss_saltlen(ctx, sLen) > 0;
        };
    }
    static std::function<int(EVP_PKEY_CTX*)> oaep(const Bytes& label)
    {
        return [=](EVP_PKEY_CTX* ctx) {
            if (EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_OAEP_PADDING) <= 0) return 0;
            if (label.empty()) return 1;
            void* copy = OPENSSL_memdup(label.data(), label.size());
            if (EVP_PKEY_CTX_set0_rsa_oaep_label(ctx, copy, static_cast<int>(label.size())) > 0) return 1;
            OPENSSL_free(copy);
            return 0;
        };
    }
    static const EVP_MD* md(int hashId)
    {
        return hashId == HASH_SHA1 ? EVP_sha1() : hashId == HASH_SHA256 ? EVP_sha256() : EVP_sha512();
    }
};
EVP_PKEY* Pkcs1OpenSslTest::key = nullptr;

// ---- EMSA-PSS ---------------------------------------------------------------

struct PssCase {
    int hashId, mgfHashId;
    CK_ULONG sLen, emBits;
};
const PssCase kPssCases[] = {
    {HASH_SHA1, HASH_SHA1, 20, 2047},   {HASH_SHA256, HASH_SHA1, 32, 2047}, {HASH_SHA512, HASH_SHA256, 64, 2047},
    {HASH_SHA256, HASH_SHA256, 0, 2047}, {HASH_SHA256, HASH_SHA256, 32, 2048}, {HASH_SHA1, HASH_SHA1, 0, 169},
    {HASH_SHA1, HASH_SHA1, 10, 253},
};

TEST(PssTest, EncodingVerifiesAndAnyChangeIsRejected)
{
    RandomSession s;
    for (const PssCase& c : kPssCases) {
        SCOPED_TRACE(testing::Message() << "hash " << c.hashId << " sLen " << c.sLen << " emBits " << c.emBits);
        const CK_ULONG hLen = hash_digestLength(c.hashId);
        const Bytes mHash = pattern(hLen, 3);
        Bytes em(300, 0xEE);
        CK_ULONG emLen = em.size();
        ASSERT_EQ(CKR_OK, EMSA_PSS_ENCODE(mHash.data(), hLen, em.data(), &emLen, c.emBits, c.hashId, c.mgfHashId,
                                          c.sLen, &s.session));
        ASSERT_EQ((c.emBits + 7) / 8, emLen);
        EXPECT_EQ(0xBC, em[emLen - 1]);
        if (c.emBits % 8) {
            EXPECT_EQ(0, em[0] >> (c.emBits % 8));
        }
        EXPECT_EQ(CKR_OK, EMSA_PSS_VERIFY(mHash.data(), hLen, em.data(), emLen, c.emBits, c.hashId, c.mgfHashId, c.sLen));

        Bytes otherHash = mHash;
        otherHash[0] ^= 1;
        EXPECT_EQ(CKR_SIGNATURE_INVALID, EMSA_PSS_VERIFY(otherHash.data(), hLen, em.data(), emLen, c.emBits, c.hashId,
                                                         c.mgfHashId, c.sLen));
        if (emLen - hLen - 1 >= 8) {  // a shorter DB may unmask to a valid one by chance
            EXPECT_EQ(CKR_SIGNATURE_INVALID, EMSA_PSS_VERIFY(mHash.data(), hLen, em.data(), emLen, c.emBits, c.hashId,
                                                             c.mgfHashId == HASH_SHA1 ? HASH_SHA256 : HASH_SHA1, c.sLen));
        }
        if (c.emBits > 8 * (hLen + c.sLen + 2)) {
            EXPECT_EQ(CKR_SIGNATURE_INVALID, EMSA_PSS_VERIFY(mHash.data(), hLen, em.data(), emLen, c.emBits, c.hashId,
                                                             c.mgfHashId, c.sLen + 1));
        }
        for (CK_ULONG at : {CK_ULONG(1), emLen - hLen - c.sLen - 2, emLen - hLen - 1, emLen - 1}) {
            Bytes bad(em.begin(), em.begin() + emLen);
            bad[at] ^= 0x01;
            EXPECT_EQ(CKR_SIGNATURE_INVALID, EMSA_PSS_VERIFY(mHash.data(), hLen, bad.data(), emLen, c.emBits, c.hashId,
                                                             c.mgfHashId, c.sLen))
                << "byte " << at;
        }
    }
}

TEST(PssTest, SaltComesFromSessionGenerator)
{
    RandomSession s;
    const Bytes mHash = pattern(32, 9);
    Bytes a(256), b(256);
    for (CK_ULONG sLen : {0, 32}) {
        CK_ULONG la = a.size(), lb = b.size();
        ASSERT_EQ(CKR_OK, EMSA_PSS_ENCODE(mHash.data(), 32, a.data(), &la, 2047, HASH_SHA256, HASH_SHA256, sLen, &s.session));
        ASSERT_EQ(CKR_OK, EMSA_PSS_ENCODE(mHash.data(), 32, b.data(), &lb, 2047, HASH_SHA256, HASH_SHA256, sLen, &s.session));
        EXPECT_EQ(sLen == 0, a == b) << "sLen " << sLen;
    }
}

TEST(PssTest, FullWidthEncodingKeepsTopBit)
{
    RandomSession s;
    const Bytes mHash = pattern(20, 1);
    bool topBitSeen = false;
    for (int i = 0; i < 40 && !topBitSeen; ++i) {
        Bytes em(256);
        CK_ULONG len = em.size();
        ASSERT_EQ(CKR_OK, EMSA_PSS_ENCODE(mHash.data(), 20, em.data(), &len, 2048, HASH_SHA1, HASH_SHA1, 20, &s.session));
        topBitSeen = em[0] & 0x80;
    }
    EXPECT_TRUE(topBitSeen);
}

TEST(PssTest, EncodeAnswersLengthQueriesAndRefusesBadSizes)
{
    const Bytes mHash = pattern(20, 1);
    Bytes em(256);
    CK_ULONG len = 0;
    EXPECT_EQ(CKR_OK, EMSA_PSS_ENCODE(mHash.data(), 20, nullptr, &len, 2041, HASH_SHA1, HASH_SHA1, 0, nullptr));
    EXPECT_EQ(256u, len);
    len = 255;
    EXPECT_EQ(CKR_BUFFER_TOO_SMALL, EMSA_PSS_ENCODE(mHash.data(), 20, em.data(), &len, 2041, HASH_SHA1, HASH_SHA1, 0, nullptr));
    EXPECT_EQ(256u, len);
    const struct {
        CK_ULONG hLen, emBits, sLen;
        int hashId;
        CK_RV rv;
    } cases[] = {
        {20, 2048, 0, 99, CKR_MECHANISM_INVALID},        {19, 2048, 0, HASH_SHA1, CKR_DATA_LEN_RANGE},
        {20, 8 * 21, 0, HASH_SHA1, CKR_DATA_LEN_RANGE},  {20, 8 * 21 + 1, 0, HASH_SHA1, CKR_OK},
        {20, 8 * 31, 10, HASH_SHA1, CKR_DATA_LEN_RANGE}, {20, 2048, ~CK_ULONG(0), HASH_SHA1, CKR_DATA_LEN_RANGE},
    };
    for (const auto& c : cases) {
        len = em.size();
        EXPECT_EQ(c.rv, EMSA_PSS_ENCODE(mHash.data(), c.hLen, em.data(), &len, c.emBits, c.hashId, HASH_SHA1, c.sLen,
                                        nullptr))
            << "hLen " << c.hLen << " emBits " << c.emBits;
    }
}

TEST(PssTest, VerifyRefusesMalformedInputWithDocumentedCodes)
{
    const Bytes mHash = pattern(20, 1);
    Bytes em(256, 0x00);
    em[255] = 0xBC;
    Bytes bd = em;
    bd[255] = 0xBD;
    Bytes top = em;
    top[0] = 0x80;
    const struct {
        const Bytes* em;
        CK_ULONG hLen, emLen, emBits;
        int hashId;
        CK_RV rv;
    } cases[] = {
        {&em, 20, 256, 2047, 99, CKR_MECHANISM_INVALID},   {&em, 19, 256, 2047, HASH_SHA1, CKR_DATA_LEN_RANGE},
        {&em, 20, 255, 2047, HASH_SHA1, CKR_DATA_LEN_RANGE}, {&bd, 20, 256, 2047, HASH_SHA1, CKR_SIGNATURE_INVALID},
        {&top, 20, 256, 2047, HASH_SHA1, CKR_SIGNATURE_INVALID}, {&em, 20, 21, 168, HASH_SHA1, CKR_SIGNATURE_INVALID},
        {&em, 20, 256, 2047, HASH_SHA1, CKR_SIGNATURE_INVALID},  // unmasks to garbage
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.rv, EMSA_PSS_VERIFY(mHash.data(), c.hLen, c.em->data(), c.emLen, c.emBits, c.hashId, HASH_SHA1, 0))
            << "emLen " << c.emLen << " hLen " << c.hLen;
}

TEST_F(Pkcs1OpenSslTest, PssEncodingsInteroperateWithOpenSsl)
{
    ASSERT_NE(nullptr, key);
    RandomSession s;
    for (const PssCase& c : kPssCases) {
        if (c.emBits != 2047) continue;
        SCOPED_TRACE(testing::Message() << "hash " << c.hashId << " mgf " << c.mgfHashId << " sLen " << c.sLen);
        const CK_ULONG hLen = hash_digestLength(c.hashId);
        const Bytes mHash = pattern(hLen, 0x40);
        const auto params = pss(c.hashId, c.mgfHashId, static_cast<int>(c.sLen));

        const Bytes theirs = rawPublic(op(EVP_PKEY_sign_init, EVP_PKEY_sign, mHash, params));
        ASSERT_EQ(256u, theirs.size());
        EXPECT_EQ(CKR_OK, EMSA_PSS_VERIFY(mHash.data(), hLen, theirs.data(), 256, 2047, c.hashId, c.mgfHashId, c.sLen));

        Bytes ours(256);
        CK_ULONG len = ours.size();
        ASSERT_EQ(CKR_OK, EMSA_PSS_ENCODE(mHash.data(), hLen, ours.data(), &len, 2047, c.hashId, c.mgfHashId, c.sLen,
                                          &s.session));
        const Bytes sig = rawPrivate(ours);
        EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(key, nullptr);
        ASSERT_NE(nullptr, ctx);
        EXPECT_TRUE(EVP_PKEY_verify_init(ctx) > 0 && params(ctx) > 0 &&
                    EVP_PKEY_verify(ctx, sig.data(), sig.size(), mHash.data(), mHash.size()) == 1);
        EVP_PKEY_CTX_free(ctx);
    }
}

// ---- EME-OAEP ---------------------------------------------------------------

struct OaepCase {
    CK_ULONG mLen;
    std::string label;
};
const OaepCase kOaepCases[] = {{0, ""}, {1, ""}, {16, "label"}, {214, ""}, {214, "a longer encoding parameter"}};

TEST(OaepTest, EncodingDecodesOnlyWithItsParameter)
{
    csprgbg_state* rng = nullptr;
    const Bytes seed = pattern(32, 2);
    ASSERT_EQ(CRYPTO_OK, csprgbg_init(&rng, seed.data(), seed.size(), nullptr, 0));
    for (const OaepCase& c : kOaepCases) {
        SCOPED_TRACE(testing::Message() << "mLen " << c.mLen << " label " << c.label);
        const Bytes m = pattern(c.mLen, 0x21), p = bytesOf(c.label);
        Bytes em(255);
        ASSERT_EQ(0, OAEP_ENCODE_SHA1_SHA1(m.data(), c.mLen, p.data(), p.size(), em.data(), em.size(), rng));
        CK_ULONG len = 0;
        ASSERT_EQ(0, OAEP_DECODE_SHA1_SHA1(em.data(), em.size(), p.data(), p.size(), nullptr, &len));
        ASSERT_EQ(c.mLen, len);
        Bytes out(len);
        ASSERT_EQ(0, OAEP_DECODE_SHA1_SHA1(em.data(), em.size(), p.data(), p.size(), out.data(), &len));
        EXPECT_EQ(m, out);

        const Bytes wrongP = bytesOf(c.label + "x");
        EXPECT_EQ(-1, OAEP_DECODE_SHA1_SHA1(em.data(), em.size(), wrongP.data(), wrongP.size(), nullptr, &len));
        if (c.mLen > 0) {
            len = c.mLen - 1;
            EXPECT_EQ(-1, OAEP_DECODE_SHA1_SHA1(em.data(), em.size(), p.data(), p.size(), out.data(), &len));
            EXPECT_EQ(c.mLen, len);
        }
    }
    csprgbg_exit(&rng);
}

TEST(OaepTest, RefusesOversizedMessagesAndShortEncodings)
{
    csprgbg_state* rng = nullptr;
    const Bytes seed = pattern(32, 2), m(215, 1);
    ASSERT_EQ(CRYPTO_OK, csprgbg_init(&rng, seed.data(), seed.size(), nullptr, 0));
    Bytes em(255);
    CK_ULONG len = 0;
    EXPECT_EQ(-1, OAEP_ENCODE_SHA1_SHA1(m.data(), 215, nullptr, 0, em.data(), 255, rng));
    EXPECT_EQ(-1, OAEP_ENCODE_SHA1_SHA1(m.data(), 0, nullptr, 0, em.data(), 40, rng));
    EXPECT_EQ(0, OAEP_ENCODE_SHA1_SHA1(m.data(), 0, nullptr, 0, em.data(), 41, rng));
    EXPECT_EQ(0, OAEP_DECODE_SHA1_SHA1(em.data(), 41, nullptr, 0, nullptr, &len));
    EXPECT_EQ(-1, OAEP_DECODE_SHA1_SHA1(em.data(), 40, nullptr, 0, nullptr, &len));
    EXPECT_EQ(CRYPTO_ERR_BAD_PARAMETER, OAEP_ENCODE_SHA1_SHA1(m.data(), 1, nullptr, 0, em.data(), 255, nullptr));
    // All zero: the separator is never found.
    const Bytes zeros(255, 0);
    EXPECT_EQ(-1, OAEP_DECODE_SHA1_SHA1(zeros.data(), zeros.size(), nullptr, 0, nullptr, &len));
    csprgbg_exit(&rng);
}

TEST_F(Pkcs1OpenSslTest, OaepEncodingsInteroperateWithOpenSsl)
{
    ASSERT_NE(nullptr, key);
    csprgbg_state* rng = nullptr;
    const Bytes seed = pattern(32, 4);
    ASSERT_EQ(CRYPTO_OK, csprgbg_init(&rng, seed.data(), seed.size(), nullptr, 0));
    for (const OaepCase& c : kOaepCases) {
        SCOPED_TRACE(testing::Message() << "mLen " << c.mLen << " label " << c.label);
        const Bytes m = pattern(c.mLen, 0x50), p = bytesOf(c.label);

        const Bytes block = rawPrivate(op(EVP_PKEY_encrypt_init, EVP_PKEY_encrypt, m, oaep(p)));
        ASSERT_EQ(256u, block.size());
        ASSERT_EQ(0x00, block[0]);
        Bytes out(256);
        CK_ULONG len = out.size();
        ASSERT_EQ(0, OAEP_DECODE_SHA1_SHA1(block.data() + 1, 255, p.data(), p.size(), out.data(), &len));
        out.resize(len);
        EXPECT_EQ(m, out);

        Bytes ours(256, 0x00);
        ASSERT_EQ(0, OAEP_ENCODE_SHA1_SHA1(m.data(), m.size(), p.data(), p.size(), ours.data() + 1, 255, rng));
        const Bytes cipher = rawPublic(ours);
        ASSERT_EQ(256u, cipher.size());
        EXPECT_EQ(m, op(EVP_PKEY_decrypt_init, EVP_PKEY_decrypt, cipher, oaep(p)));
    }
    csprgbg_exit(&rng);
}

}  // namespace
