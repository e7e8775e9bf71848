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

TEST(Pkcs1PadTest, LaysOutHeaderPaddingSeparatorAndDataOrRefuses)
{
    const struct {
        int bt;
        CK_ULONG k, dataLen;
        int rc;
    } cases[] = {
        {1, 64, 20, 0}, {1, 11, 8, 0},  {1, 16, 0, 0},  {2, 64, 20, 0},  {2, 256, 245, 0},
        {2, 12, 9, 0},  {0, 16, 13, -1}, {3, 16, 13, -1}, {1, 16, 14, -1}, {2, 2, 0, -1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "bt " << c.bt << " k " << c.k << " data " << c.dataLen);
        const Bytes data = pattern(c.dataLen, 0x30);
        Bytes block(c.k, 0xAA);
        ASSERT_EQ(c.rc, pkcs11_pad_pkcs1_block(c.bt, block.data(), c.k, data.data(), c.dataLen));
        if (c.rc != 0) continue;
        const CK_ULONG psEnd = c.k - c.dataLen - 1;
        EXPECT_EQ(0x00, block[0]);
        EXPECT_EQ(c.bt, block[1]);
        for (CK_ULONG i = 2; i < psEnd; ++i) EXPECT_TRUE(c.bt == 1 ? block[i] == 0xFF : block[i] != 0x00) << i;
        EXPECT_EQ(0x00, block[psEnd]);
        EXPECT_EQ(data, Bytes(block.begin() + psEnd + 1, block.end()));
    }
    EXPECT_EQ(-1, pkcs11_pad_pkcs1_block(1, nullptr, 16, pattern(1, 0).data(), 1));
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

TEST(Pkcs1UnpadTest, FindsDataAfterSeparatorOrRefuses)
{
    const struct {
        int bt;
        std::string block;
        int rc;
        std::string data;
    } cases[] = {
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
    for (const auto& c : cases) {
        SCOPED_TRACE(c.block);
        const Bytes block = fromHex(c.block);
        CK_ULONG len = 99;
        ASSERT_EQ(c.rc, pkcs11_unpad_pkcs1_block(c.bt, block.data(), block.size(), nullptr, &len));
        if (c.rc != 0) continue;
        ASSERT_EQ(c.data.size() / 2, len);
        Bytes out(len + 1);
        if (len > 0) {  // one byte short: refused, length kept
            CK_ULONG shortLen = len - 1;
            EXPECT_EQ(-1, pkcs11_unpad_pkcs1_block(c.bt, block.data(), block.size(), out.data(), &shortLen));
            EXPECT_EQ(len - 1, shortLen);
        }
        len = out.size();
        ASSERT_EQ(0, pkcs11_unpad_pkcs1_block(c.bt, block.data(), block.size(), out.data(), &len));
        out.resize(len);
        EXPECT_EQ(c.data, toHex(out));
    }
}

// ---- MGF1 -------------------------------------------------------------------

TEST(Mgf1Test, MatchesPublishedMasksAndRefusesUnknownHash)
{
    const struct {
        int hashId;
        std::string mask;
    } cases[] = {
        {HASH_SHA1, "bc0c655e016bc2931d85a2e675181adcef7f581f76df2739da74faac41627be2f7f415c89e983fd0ce80ced9878641cb4876"},
        {HASH_SHA256,
         "382576a7841021cc28fc4c0948753fb8312090cea942ea4c4e735d10dc724b155f9f6069f289d61daca0cb814502ef04eae1"},
    };
    const Bytes seed = bytesOf("bar");
    for (const auto& c : cases) {
        Bytes mask(51, 0xEE);
        ASSERT_EQ(CKR_OK, MGF1(c.hashId, seed.data(), seed.size(), mask.data(), 50));
        EXPECT_EQ(0xEE, mask.back()) << "wrote past the mask";
        mask.pop_back();
        EXPECT_EQ(c.mask, toHex(mask));
        if (c.hashId != HASH_SHA1) continue;
        ASSERT_EQ(CKR_OK, MGF1_SHA1(seed.data(), seed.size(), mask.data(), 50));
        EXPECT_EQ(c.mask, toHex(mask));
    }
    CK_BYTE mask[4] = {};
    EXPECT_EQ(CKR_GENERAL_ERROR, MGF1(99, mask, 4, mask, 4));
    EXPECT_EQ(CKR_OK, MGF1(99, mask, 4, mask, 0));
}

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
        Bytes em(300, 0xEE), again(300);
        CK_ULONG emLen = em.size(), againLen = again.size();
        ASSERT_EQ(CKR_OK, EMSA_PSS_ENCODE(mHash.data(), hLen, em.data(), &emLen, c.emBits, c.hashId, c.mgfHashId,
                                          c.sLen, &s.session));
        ASSERT_EQ((c.emBits + 7) / 8, emLen);
        em.resize(emLen);
        EXPECT_EQ(0xBC, em[emLen - 1]);
        if (c.emBits % 8) { EXPECT_EQ(0, em[0] >> (c.emBits % 8)); }
        // The salt comes from the session generator: only an empty salt repeats.
        ASSERT_EQ(CKR_OK, EMSA_PSS_ENCODE(mHash.data(), hLen, again.data(), &againLen, c.emBits, c.hashId,
                                          c.mgfHashId, c.sLen, &s.session));
        EXPECT_EQ(c.sLen == 0, em == Bytes(again.begin(), again.begin() + emLen));
        const auto verify = [&](const Bytes& h, const Bytes& e, int mgf, CK_ULONG sLen) {
            return EMSA_PSS_VERIFY(h.data(), hLen, e.data(), emLen, c.emBits, c.hashId, mgf, sLen);
        };
        EXPECT_EQ(CKR_OK, verify(mHash, em, c.mgfHashId, c.sLen));

        Bytes otherHash = mHash;
        otherHash[0] ^= 1;
        EXPECT_EQ(CKR_SIGNATURE_INVALID, verify(otherHash, em, c.mgfHashId, c.sLen));
        const int otherMgf = c.mgfHashId == HASH_SHA1 ? HASH_SHA256 : HASH_SHA1;
        if (emLen - hLen - 1 >= 8) {  // a shorter DB may unmask to a valid one by chance
            EXPECT_EQ(CKR_SIGNATURE_INVALID, verify(mHash, em, otherMgf, c.sLen));
        }
        if (c.emBits > 8 * (hLen + c.sLen + 2)) { EXPECT_EQ(CKR_SIGNATURE_INVALID, verify(mHash, em, c.mgfHashId, c.sLen + 1)); }
        for (CK_ULONG at : {CK_ULONG(1), emLen - hLen - c.sLen - 2, emLen - hLen - 1, emLen - 1}) {
            Bytes bad = em;
            bad[at] ^= 0x01;
            EXPECT_EQ(CKR_SIGNATURE_INVALID, verify(mHash, bad, c.mgfHashId, c.sLen)) << "byte " << at;
        }
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

TEST(PssTest, EncodeAndVerifyRefuseBadSizesAndMalformedInput)
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
    } encodes[] = {
        {20, 2048, 0, 99, CKR_MECHANISM_INVALID},        {19, 2048, 0, HASH_SHA1, CKR_DATA_LEN_RANGE},
        {20, 8 * 21, 0, HASH_SHA1, CKR_DATA_LEN_RANGE},  {20, 8 * 21 + 1, 0, HASH_SHA1, CKR_OK},
        {20, 8 * 31, 10, HASH_SHA1, CKR_DATA_LEN_RANGE}, {20, 2048, ~CK_ULONG(0), HASH_SHA1, CKR_DATA_LEN_RANGE},
    };
    for (const auto& c : encodes) {
        len = em.size();
        EXPECT_EQ(c.rv, EMSA_PSS_ENCODE(mHash.data(), c.hLen, em.data(), &len, c.emBits, c.hashId, HASH_SHA1, c.sLen,
                                        nullptr))
            << "encode hLen " << c.hLen << " emBits " << c.emBits;
    }

    Bytes zeros(256, 0x00), bd(256, 0x00), top(256, 0x00);
    zeros[255] = top[255] = 0xBC;
    bd[255] = 0xBD;
    top[0] = 0x80;
    const struct {
        const Bytes* em;
        CK_ULONG hLen, emLen, emBits;
        int hashId;
        CK_RV rv;
    } verifies[] = {
        {&zeros, 20, 256, 2047, 99, CKR_MECHANISM_INVALID},   {&zeros, 19, 256, 2047, HASH_SHA1, CKR_DATA_LEN_RANGE},
        {&zeros, 20, 255, 2047, HASH_SHA1, CKR_DATA_LEN_RANGE}, {&bd, 20, 256, 2047, HASH_SHA1, CKR_SIGNATURE_INVALID},
        {&top, 20, 256, 2047, HASH_SHA1, CKR_SIGNATURE_INVALID}, {&zeros, 20, 21, 168, HASH_SHA1, CKR_SIGNATURE_INVALID},
        {&zeros, 20, 256, 2047, HASH_SHA1, CKR_SIGNATURE_INVALID},  // unmasks to garbage
    };
    for (const auto& c : verifies)
        EXPECT_EQ(c.rv, EMSA_PSS_VERIFY(mHash.data(), c.hLen, c.em->data(), c.emLen, c.emBits, c.hashId, HASH_SHA1, 0))
            << "verify emLen " << c.emLen << " hLen " << c.hLen;
}

// ---- EME-OAEP ---------------------------------------------------------------

struct OaepCase {
    CK_ULONG mLen;
    std::string label;
};
const OaepCase kOaepCases[] = {{0, ""}, {1, ""}, {16, "label"}, {214, ""}, {214, "a longer encoding parameter"}};

struct Rng {
    csprgbg_state* state = nullptr;
    Rng()
    {
        const Bytes seed = pattern(32, 2);
        csprgbg_init(&state, seed.data(), seed.size(), nullptr, 0);
    }
    ~Rng() { csprgbg_exit(&state); }
};

TEST(OaepTest, EncodingDecodesOnlyWithItsParameter)
{
    Rng rng;
    for (const OaepCase& c : kOaepCases) {
        SCOPED_TRACE(testing::Message() << "mLen " << c.mLen << " label " << c.label);
        const Bytes m = pattern(c.mLen, 0x21), p = bytesOf(c.label);
        Bytes em(255);
        ASSERT_EQ(0, OAEP_ENCODE_SHA1_SHA1(m.data(), c.mLen, p.data(), p.size(), em.data(), em.size(), rng.state));
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
}

TEST(OaepTest, RefusesOversizedMessagesAndShortEncodings)
{
    Rng rng;
    const Bytes m(215, 1), zeros(255, 0);
    Bytes em(255);
    CK_ULONG len = 0;
    EXPECT_EQ(-1, OAEP_ENCODE_SHA1_SHA1(m.data(), 215, nullptr, 0, em.data(), 255, rng.state));
    EXPECT_EQ(-1, OAEP_ENCODE_SHA1_SHA1(m.data(), 0, nullptr, 0, em.data(), 40, rng.state));
    EXPECT_EQ(0, OAEP_ENCODE_SHA1_SHA1(m.data(), 0, nullptr, 0, em.data(), 41, rng.state));
    EXPECT_EQ(0, OAEP_DECODE_SHA1_SHA1(em.data(), 41, nullptr, 0, nullptr, &len));
    EXPECT_EQ(-1, OAEP_DECODE_SHA1_SHA1(em.data(), 40, nullptr, 0, nullptr, &len));
    EXPECT_EQ(CRYPTO_ERR_BAD_PARAMETER, OAEP_ENCODE_SHA1_SHA1(m.data(), 1, nullptr, 0, em.data(), 255, nullptr));
    EXPECT_EQ(-1, OAEP_DECODE_SHA1_SHA1(zeros.data(), zeros.size(), nullptr, 0, nullptr, &len));  // no separator
}

// ---- Our encodings, completed by OpenSSL's raw RSA, pass OpenSSL's checks ----

class Pkcs1OpenSslTest : public testing::Test {
protected:
    static EVP_PKEY* key;
    static void SetUpTestSuite() { key = EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<size_t>(2048)); }
    static void TearDownTestSuite() { EVP_PKEY_free(key); }

    // One operation on a fresh context prepared by init and pad; empty on failure.
    template <typename Init, typename Pad, typename Run>
    static Bytes op(Init init, Pad pad, Run run, const Bytes& in)
    {
        Bytes out(512);
        size_t len = out.size();
        EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(key, nullptr);
        const bool ok = ctx && init(ctx) > 0 && pad(ctx) > 0 && run(ctx, out.data(), &len, in.data(), in.size()) > 0;
        EVP_PKEY_CTX_free(ctx);
        out.resize(ok ? len : 0);
        return out;
    }
    static int noPadding(EVP_PKEY_CTX* ctx) { return EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_NO_PADDING); }
    static const EVP_MD* md(int hashId)
    {
        return hashId == HASH_SHA1 ? EVP_sha1() : hashId == HASH_SHA256 ? EVP_sha256() : EVP_sha512();
    }
};
EVP_PKEY* Pkcs1OpenSslTest::key = nullptr;

TEST_F(Pkcs1OpenSslTest, PssEncodingsVerifyWithOpenSsl)
{
    ASSERT_NE(nullptr, key);
    RandomSession s;
    for (const PssCase& c : kPssCases) {
        if (c.emBits != 2047) continue;
        SCOPED_TRACE(testing::Message() << "hash " << c.hashId << " mgf " << c.mgfHashId << " sLen " << c.sLen);
        const CK_ULONG hLen = hash_digestLength(c.hashId);
        const Bytes mHash = pattern(hLen, 0x40);
        Bytes ours(256);
        CK_ULONG len = ours.size();
        ASSERT_EQ(CKR_OK, EMSA_PSS_ENCODE(mHash.data(), hLen, ours.data(), &len, 2047, c.hashId, c.mgfHashId, c.sLen,
                                          &s.session));
        const Bytes sig = op(EVP_PKEY_decrypt_init, noPadding, EVP_PKEY_decrypt, ours);
        EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(key, nullptr);
        ASSERT_NE(nullptr, ctx);
        EXPECT_TRUE(EVP_PKEY_verify_init(ctx) > 0 && EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_PSS_PADDING) > 0 &&
                    EVP_PKEY_CTX_set_signature_md(ctx, md(c.hashId)) > 0 &&
                    EVP_PKEY_CTX_set_rsa_mgf1_md(ctx, md(c.mgfHashId)) > 0 &&
                    EVP_PKEY_CTX_set_rsa_pss_saltlen(ctx, static_cast<int>(c.sLen)) > 0 &&
                    EVP_PKEY_verify(ctx, sig.data(), sig.size(), mHash.data(), mHash.size()) == 1);
        EVP_PKEY_CTX_free(ctx);
    }
}

TEST_F(Pkcs1OpenSslTest, OaepEncodingsDecryptWithOpenSsl)
{
    ASSERT_NE(nullptr, key);
    Rng rng;
    for (const OaepCase& c : kOaepCases) {
        SCOPED_TRACE(testing::Message() << "mLen " << c.mLen << " label " << c.label);
        const Bytes m = pattern(c.mLen, 0x50), p = bytesOf(c.label);
        Bytes ours(256, 0x00);
        ASSERT_EQ(0, OAEP_ENCODE_SHA1_SHA1(m.data(), m.size(), p.data(), p.size(), ours.data() + 1, 255, rng.state));
        const Bytes cipher = op(EVP_PKEY_encrypt_init, noPadding, EVP_PKEY_encrypt, ours);
        ASSERT_EQ(256u, cipher.size());
        const auto oaep = [&p](EVP_PKEY_CTX* ctx) {
            if (EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_OAEP_PADDING) <= 0) return 0;
            if (p.empty()) return 1;
            void* copy = OPENSSL_memdup(p.data(), p.size());
            if (EVP_PKEY_CTX_set0_rsa_oaep_label(ctx, copy, static_cast<int>(p.size())) > 0) return 1;
            OPENSSL_free(copy);
            return 0;
        };
        EXPECT_EQ(m, op(EVP_PKEY_decrypt_init, oaep, EVP_PKEY_decrypt, cipher));
    }
}

}  // namespace
