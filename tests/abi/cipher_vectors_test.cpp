// Published known answers of every cipher of the software token, run
// through the C ABI: NIST's AES and DES modes, RC2 with its effective key
// bits, RC4, and AES-GCM and AES-CCM with their parameter structures; and
// what a caller gets for parameters, tags and lengths that are wrong.

#include <gtest/gtest.h>

#include <functional>
#include <map>

#include "abi/object_helpers.h"
#include "support/vectors.h"

namespace korvo {
namespace {

struct Family {
    CK_MECHANISM_TYPE mechanism;
    CK_KEY_TYPE keyType;
};

const std::map<std::string, Family> kFamilies = {
    {"AES_ECB", {CKM_AES_ECB, CKK_AES}},  {"AES_CBC", {CKM_AES_CBC, CKK_AES}},
    {"DES_ECB", {CKM_DES_ECB, CKK_DES}},  {"DES_CBC", {CKM_DES_CBC, CKK_DES}},
    {"DES3_ECB", {CKM_DES3_ECB, CKK_DES3}}, {"RC2_ECB", {CKM_RC2_ECB, CKK_RC2}},
    {"RC4", {CKM_RC4, CKK_RC4}},          {"GCM", {CKM_AES_GCM, CKK_AES}},
    {"CCM", {CKM_AES_CCM, CKK_AES}},
};

// A mechanism with the parameter structure it takes, owning its bytes.
struct Mechanism {
    CK_MECHANISM m{};
    Bytes iv, aad;
    CK_RC2_PARAMS rc2Bits = 0;
    CK_GCM_PARAMS_V3 gcm{};
    CK_CCM_PARAMS ccm{};

    CK_MECHANISM* get() { return &m; }
};

void aead(Mechanism* out, CK_MECHANISM_TYPE type, Bytes nonce, Bytes aad, size_t tagLen, size_t dataLen)
{
    out->iv = std::move(nonce);
    out->aad = std::move(aad);
    CK_BYTE_PTR a = out->aad.empty() ? nullptr : out->aad.data();
    if (type == CKM_AES_GCM) {
        out->gcm = {out->iv.data(), CK_ULONG(out->iv.size()), CK_ULONG(8 * out->iv.size()), a,
                    CK_ULONG(out->aad.size()), CK_ULONG(8 * tagLen)};
        out->m = {type, &out->gcm, sizeof out->gcm};
    } else {
        out->ccm = {CK_ULONG(dataLen), out->iv.data(), CK_ULONG(out->iv.size()), a, CK_ULONG(out->aad.size()),
                    CK_ULONG(tagLen)};
        out->m = {type, &out->ccm, sizeof out->ccm};
    }
}

class CipherVectors : public ObjectTest {
protected:
    // C_Encrypt or C_Decrypt after a size query; the code of the failing call.
    CK_RV once(bool encrypt, CK_MECHANISM* m, CK_OBJECT_HANDLE k, const Bytes& in, Bytes* out)
    {
        CK_RV rv = encrypt ? p->C_EncryptInit(session, m, k) : p->C_DecryptInit(session, m, k);
        if (rv != CKR_OK) return rv;
        auto call = [&](CK_BYTE_PTR buffer, CK_ULONG* length) {
            CK_BYTE_PTR data = const_cast<CK_BYTE_PTR>(in.data());
            return encrypt ? p->C_Encrypt(session, data, CK_ULONG(in.size()), buffer, length)
                           : p->C_Decrypt(session, data, CK_ULONG(in.size()), buffer, length);
        };
        CK_ULONG length = 0;
        if ((rv = call(nullptr, &length)) != CKR_OK) return rv;
        out->assign(length + 1, 0);
        rv = call(out->data(), &length);
        out->resize(rv == CKR_OK ? length : 0);
        return rv;
    }
};

TEST_F(CipherVectors, BlockAndStreamCiphersGivePublishedAnswers)
{
    const auto cases = vectors::load("ciphers.txt");
    ASSERT_GE(cases.size(), 19u);
    for (const vectors::Case& c : cases) {
        SCOPED_TRACE(c[0] + " " + c[1]);
        const Family& f = kFamilies.at(c[0]);
        Mechanism m;
        m.m.mechanism = f.mechanism;
        if (f.mechanism == CKM_RC2_ECB) {
            m.rc2Bits = std::stoul(c[2]);
            m.m.pParameter = &m.rc2Bits;
            m.m.ulParameterLen = sizeof m.rc2Bits;
        } else if (!c[2].empty()) {
            m.iv = vectors::hex(c[2]);
            m.m.pParameter = m.iv.data();
            m.m.ulParameterLen = CK_ULONG(m.iv.size());
        }
        const CK_OBJECT_HANDLE k = secretOf(f.keyType, vectors::hex(c[1]));
        Bytes out;
        ASSERT_EQ(once(true, m.get(), k, vectors::hex(c[3]), &out), CKR_OK);
        EXPECT_EQ(out, vectors::hex(c[4]));
        ASSERT_EQ(once(false, m.get(), k, vectors::hex(c[4]), &out), CKR_OK);
        EXPECT_EQ(out, vectors::hex(c[3]));
    }
}

TEST_F(CipherVectors, GcmAndCcmGivePublishedAnswersAndRefuseAWrongTag)
{
    const auto cases = vectors::load("aead.txt");
    ASSERT_GE(cases.size(), 14u);
    for (const vectors::Case& c : cases) {
        SCOPED_TRACE(c[0] + " " + c[5]);
        const Family& f = kFamilies.at(c[0]);
        const Bytes plain = vectors::hex(c[4]), tag = vectors::hex(c[6]);
        Bytes sealed = vectors::hex(c[5]);
        sealed.insert(sealed.end(), tag.begin(), tag.end());
        Mechanism m;
        aead(&m, f.mechanism, vectors::hex(c[2]), vectors::hex(c[3]), tag.size(), plain.size());
        const CK_OBJECT_HANDLE k = secretOf(CKK_AES, vectors::hex(c[1]));
        Bytes out;
        ASSERT_EQ(once(true, m.get(), k, plain, &out), CKR_OK);
        EXPECT_EQ(out, sealed);
        ASSERT_EQ(once(false, m.get(), k, sealed, &out), CKR_OK);
        EXPECT_EQ(out, plain);

        // In parts: nothing comes out before the final call.
        ASSERT_EQ(p->C_DecryptInit(session, m.get(), k), CKR_OK);
        CK_ULONG length = 99;
        Bytes buffer(sealed.size());
        ASSERT_EQ(p->C_DecryptUpdate(session, sealed.data(), 3, nullptr, &length), CKR_OK);
        EXPECT_EQ(length, 0u);
        ASSERT_EQ(p->C_DecryptUpdate(session, sealed.data(), 3, buffer.data(), &length), CKR_OK);
        EXPECT_EQ(length, 0u);
        ASSERT_EQ(p->C_DecryptUpdate(session, sealed.data() + 3, CK_ULONG(sealed.size() - 3), buffer.data(), &length),
                  CKR_OK);
        EXPECT_EQ(length, 0u);
        length = 0;
        if (!plain.empty()) {
            ASSERT_EQ(p->C_DecryptFinal(session, buffer.data(), &length), CKR_BUFFER_TOO_SMALL);
        }
        length = CK_ULONG(buffer.size());
        ASSERT_EQ(p->C_DecryptFinal(session, buffer.data(), &length), CKR_OK);
        EXPECT_EQ(Bytes(buffer.begin(), buffer.begin() + length), plain);

        for (size_t flip : {size_t(0), sealed.size() - 1}) {
            Bytes forged = sealed;
            forged[flip] ^= 0x01;
            EXPECT_EQ(once(false, m.get(), k, forged, &out), CKR_ENCRYPTED_DATA_INVALID);
            EXPECT_TRUE(out.empty());
        }
    }
}

TEST_F(CipherVectors, WrongParametersKeysAndLengthsGetTheirCodes)
{
    const CK_OBJECT_HANDLE aes = secretOf(CKK_AES, Bytes(16, 0x11));
    const CK_OBJECT_HANDLE des = secretOf(CKK_DES, Bytes(8, 0x01));
    const CK_OBJECT_HANDLE rc2 = secretOf(CKK_RC2, Bytes(5, 0x22));
    const CK_OBJECT_HANDLE rc4 = secretOf(CKK_RC4, Bytes(5, 0x44));
    const Bytes nonce12(12, 0x33);
    struct Case {
        const char* name;
        std::function<void(Mechanism*)> build;
        CK_OBJECT_HANDLE key;
        CK_RV init;
    };
    const Case cases[] = {
        {"GCM tag of 0 bits", [&](Mechanism* m) { aead(m, CKM_AES_GCM, nonce12, {}, 0, 0); }, aes,
         CKR_MECHANISM_PARAM_INVALID},
        {"GCM tag of 136 bits", [&](Mechanism* m) { aead(m, CKM_AES_GCM, nonce12, {}, 17, 0); }, aes,
         CKR_MECHANISM_PARAM_INVALID},
        {"GCM tag of 7 bits",
         [&](Mechanism* m) {
             aead(m, CKM_AES_GCM, nonce12, {}, 1, 0);
             m->gcm.ulTagBits = 7;
         },
         aes, CKR_MECHANISM_PARAM_INVALID},
        {"GCM empty IV", [&](Mechanism* m) { aead(m, CKM_AES_GCM, {}, {}, 16, 0); }, aes, CKR_MECHANISM_PARAM_INVALID},
        {"GCM short structure",
         [&](Mechanism* m) {
             aead(m, CKM_AES_GCM, nonce12, {}, 16, 0);
             m->m.ulParameterLen = 16;
         },
         aes, CKR_MECHANISM_PARAM_INVALID},
        {"GCM with a DES key", [&](Mechanism* m) { aead(m, CKM_AES_GCM, nonce12, {}, 16, 0); }, des,
         CKR_KEY_TYPE_INCONSISTENT},
        {"CCM nonce of 6", [&](Mechanism* m) { aead(m, CKM_AES_CCM, Bytes(6, 1), {}, 8, 4); }, aes,
         CKR_MECHANISM_PARAM_INVALID},
        {"CCM nonce of 14", [&](Mechanism* m) { aead(m, CKM_AES_CCM, Bytes(14, 1), {}, 8, 4); }, aes,
         CKR_MECHANISM_PARAM_INVALID},
        {"CCM MAC of 5", [&](Mechanism* m) { aead(m, CKM_AES_CCM, nonce12, {}, 5, 4); }, aes,
         CKR_MECHANISM_PARAM_INVALID},
        {"CCM MAC of 18", [&](Mechanism* m) { aead(m, CKM_AES_CCM, nonce12, {}, 18, 4); }, aes,
         CKR_MECHANISM_PARAM_INVALID},
        {"CCM length beyond the nonce's length field",
         [&](Mechanism* m) { aead(m, CKM_AES_CCM, Bytes(13, 1), {}, 8, 0x10000); }, aes, CKR_MECHANISM_PARAM_INVALID},
        {"RC2 of 0 effective bits",
         [&](Mechanism* m) {
             m->m = {CKM_RC2_ECB, &m->rc2Bits, sizeof m->rc2Bits};
         },
         rc2, CKR_MECHANISM_PARAM_INVALID},
        {"RC2 of 1025 effective bits",
         [&](Mechanism* m) {
             m->rc2Bits = 1025;
             m->m = {CKM_RC2_ECB, &m->rc2Bits, sizeof m->rc2Bits};
         },
         rc2, CKR_MECHANISM_PARAM_INVALID},
        {"RC2 CBC without its structure",
         [&](Mechanism* m) {
             m->iv.assign(8, 0);
             m->m = {CKM_RC2_CBC, m->iv.data(), 8};
         },
         rc2, CKR_MECHANISM_PARAM_INVALID},
        {"RC4 with a parameter",
         [&](Mechanism* m) {
             m->iv.assign(8, 0);
             m->m = {CKM_RC4, m->iv.data(), 8};
         },
         rc4, CKR_MECHANISM_PARAM_INVALID},
        {"RC4 with an RC2 key", [&](Mechanism* m) { m->m = {CKM_RC4, nullptr, 0}; }, rc2, CKR_KEY_TYPE_INCONSISTENT},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Mechanism m;
        c.build(&m);
        EXPECT_EQ(p->C_EncryptInit(session, m.get(), c.key), c.init);
    }
    // CCM announces its length: any other is refused, the tag checked last.
    Mechanism m;
    aead(&m, CKM_AES_CCM, nonce12, {}, 8, 4);
    Bytes out;
    EXPECT_EQ(once(true, m.get(), aes, Bytes(5, 0), &out), CKR_DATA_LEN_RANGE);
    EXPECT_EQ(once(false, m.get(), aes, Bytes(8 + 5, 0), &out), CKR_ENCRYPTED_DATA_LEN_RANGE);
    EXPECT_EQ(once(false, m.get(), aes, Bytes(8 + 4, 0), &out), CKR_ENCRYPTED_DATA_INVALID);
    // A ciphertext shorter than the tag.
    aead(&m, CKM_AES_GCM, nonce12, {}, 16, 0);
    EXPECT_EQ(once(false, m.get(), aes, Bytes(15, 0), &out), CKR_ENCRYPTED_DATA_LEN_RANGE);
}

// Lengths that cannot be whole blocks, padding that is wrong, and a padded
// decryption into a buffer too small for it, for each block size.
TEST_F(CipherVectors, BlockLengthsAndPaddingGetTheirCodes)
{
    struct Case {
        CK_MECHANISM_TYPE plain, padded;
        CK_KEY_TYPE keyType;
        size_t keyLength, block;
    };
    const Case cases[] = {{CKM_DES3_CBC, CKM_DES3_CBC_PAD, CKK_DES3, 24, 8}, {CKM_AES_CBC, CKM_AES_CBC_PAD, CKK_AES, 16, 16}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.block);
        const CK_OBJECT_HANDLE k = secretOf(c.keyType, Bytes(c.keyLength, 0x2C));
        Bytes iv(c.block, 0x11);
        CK_MECHANISM plain{c.plain, iv.data(), CK_ULONG(c.block)}, padded{c.padded, iv.data(), CK_ULONG(c.block)};
        Bytes out;
        const Bytes odd(c.block + 3, 0x44);
        EXPECT_EQ(once(true, &plain, k, odd, &out), CKR_DATA_LEN_RANGE);
        EXPECT_EQ(once(false, &plain, k, odd, &out), CKR_ENCRYPTED_DATA_LEN_RANGE);
        EXPECT_EQ(once(false, &padded, k, odd, &out), CKR_ENCRYPTED_DATA_LEN_RANGE);
        // A last block whose padding byte says more than a block.
        Bytes badPadding;
        ASSERT_EQ(once(true, &plain, k, Bytes(c.block, CK_BYTE(c.block + 1)), &badPadding), CKR_OK);
        EXPECT_EQ(once(false, &padded, k, badPadding, &out), CKR_ENCRYPTED_DATA_INVALID);
        // Too small a buffer keeps the operation; the retry gives the plaintext.
        const Bytes message(3 * c.block - 2, 0x6E);
        Bytes sealed;
        ASSERT_EQ(once(true, &padded, k, message, &sealed), CKR_OK);
        ASSERT_EQ(p->C_DecryptInit(session, &padded, k), CKR_OK);
        Bytes back(sealed.size());
        CK_ULONG length = 1;
        ASSERT_EQ(p->C_Decrypt(session, sealed.data(), CK_ULONG(sealed.size()), back.data(), &length), CKR_BUFFER_TOO_SMALL);
        EXPECT_EQ(length, message.size());
        ASSERT_EQ(p->C_Decrypt(session, sealed.data(), CK_ULONG(sealed.size()), back.data(), &length), CKR_OK);
        back.resize(length);
        EXPECT_EQ(back, message);
    }
}

}  // namespace
}  // namespace korvo
