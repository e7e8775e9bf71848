// The block ciphers of the software token against OpenSSL: every key type
// and mode, single-part and in uneven parts, with the exact output sizes
// Cryptoki requires of each call, padding errors, and a key wrapped and
// unwrapped under each.

#include <openssl/evp.h>
#include <openssl/provider.h>

#include <gtest/gtest.h>

#include "abi/object_helpers.h"

namespace korvo {
namespace {

struct CipherCase {
    const char* name;
    CK_MECHANISM_TYPE mechanism;
    CK_KEY_TYPE keyType;
    size_t keyLen, block;
    bool cbc, pad;
    const char* openssl;  // the reference cipher
};

const CipherCase kCases[] = {
    {"DES_ECB", CKM_DES_ECB, CKK_DES, 8, 8, false, false, "DES-ECB"},
    {"DES_CBC_PAD", CKM_DES_CBC_PAD, CKK_DES, 8, 8, true, true, "DES-CBC"},
    {"DES3_CBC (two keys)", CKM_DES3_CBC, CKK_DES2, 16, 8, true, false, "DES-EDE-CBC"},
    {"DES3_ECB", CKM_DES3_ECB, CKK_DES3, 24, 8, false, false, "DES-EDE3-ECB"},
    {"DES3_CBC_PAD", CKM_DES3_CBC_PAD, CKK_DES3, 24, 8, true, true, "DES-EDE3-CBC"},
    {"AES128_ECB", CKM_AES_ECB, CKK_AES, 16, 16, false, false, "AES-128-ECB"},
    {"AES192_CBC", CKM_AES_CBC, CKK_AES, 24, 16, true, false, "AES-192-CBC"},
    {"AES256_CBC_PAD", CKM_AES_CBC_PAD, CKK_AES, 32, 16, true, true, "AES-256-CBC"},
    {"RC2_ECB", CKM_RC2_ECB, CKK_RC2, 16, 8, false, false, "RC2-ECB"},
    {"RC2_CBC_PAD", CKM_RC2_CBC_PAD, CKK_RC2, 16, 8, true, true, "RC2-CBC"},
    {"RC4", CKM_RC4, CKK_RC4, 16, 1, false, false, "RC4"},
};

// The mechanism of a case with its IV; RC2 runs with 128 effective bits,
// OpenSSL's choice for a 16-byte key.
struct CaseMechanism {
    CK_RC2_PARAMS rc2Bits = 128;
    CK_RC2_CBC_PARAMS rc2Cbc{};
    CK_MECHANISM m{};

    CaseMechanism(const CipherCase& c, Bytes& iv)
    {
        m = {c.mechanism, c.cbc ? iv.data() : nullptr, c.cbc ? CK_ULONG(iv.size()) : 0};
        if (c.keyType != CKK_RC2) return;
        rc2Cbc.ulEffectiveBits = 128;
        std::copy(iv.begin(), iv.begin() + 8, rc2Cbc.iv);
        if (c.cbc)
            m = {c.mechanism, &rc2Cbc, sizeof rc2Cbc};
        else
            m = {c.mechanism, &rc2Bits, sizeof rc2Bits};
    }
};

// Single DES, RC2 and RC4 live in OpenSSL's legacy provider: the suite
// loads it beside the default one into a library context of its own (so
// OpenSSL's default context stays as other suites expect it), and frees
// that at its end.
OSSL_LIB_CTX* referenceContext = nullptr;
OSSL_PROVIDER* legacyProvider = nullptr;
OSSL_PROVIDER* defaultProvider = nullptr;

Bytes reference(const CipherCase& c, const Bytes& key, const Bytes& iv, const Bytes& in, bool encrypt)
{
    EVP_CIPHER* cipher = EVP_CIPHER_fetch(referenceContext, c.openssl, nullptr);
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    Bytes out(in.size() + 32);
    int n = 0, m = 0;
    EVP_CipherInit_ex2(ctx, cipher, key.data(), c.cbc ? iv.data() : nullptr, encrypt, nullptr);
    EVP_CIPHER_CTX_set_padding(ctx, c.pad);
    const bool ok = EVP_CipherUpdate(ctx, out.data(), &n, in.data(), int(in.size())) == 1 &&
                    EVP_CipherFinal_ex(ctx, out.data() + n, &m) == 1;
    EVP_CIPHER_CTX_free(ctx);
    EVP_CIPHER_free(cipher);
    out.resize(ok ? size_t(n + m) : 0);
    return out;
}

class BlockCiphers : public ObjectTest {
protected:
    static void SetUpTestSuite()
    {
        referenceContext = OSSL_LIB_CTX_new();
        legacyProvider = OSSL_PROVIDER_load(referenceContext, "legacy");
        defaultProvider = OSSL_PROVIDER_load(referenceContext, "default");
    }
    static void TearDownTestSuite()
    {
        OSSL_PROVIDER_unload(legacyProvider);
        OSSL_PROVIDER_unload(defaultProvider);
        OSSL_LIB_CTX_free(referenceContext);
    }

    CK_OBJECT_HANDLE key(const CipherCase& c, Bytes* value)
    {
        value->assign(c.keyLen, 0);
        for (size_t i = 0; i < c.keyLen; ++i) (*value)[i] = CK_BYTE(0x31 + 7 * i);
        Tmpl t;
        t.ulong(CKA_CLASS, CKO_SECRET_KEY).ulong(CKA_KEY_TYPE, c.keyType).add(CKA_VALUE, *value);
        return make(t);
    }

    // In parts of 1, 7 and the rest, each update's output exactly as long
    // as announced by its size query.
    CK_RV inParts(bool encrypt, const Bytes& in, Bytes* out)
    {
        const size_t cuts[] = {1, 7, in.size() > 8 ? in.size() - 8 : 0};
        size_t at = 0;
        out->clear();
        for (size_t cut : cuts) {
            cut = std::min(cut, in.size() - at);
            CK_BYTE_PTR part = const_cast<CK_BYTE_PTR>(in.data()) + at;
            CK_ULONG length = 0;
            CK_RV rv = encrypt ? p->C_EncryptUpdate(session, part, CK_ULONG(cut), nullptr, &length)
                               : p->C_DecryptUpdate(session, part, CK_ULONG(cut), nullptr, &length);
            if (rv != CKR_OK) return rv;
            Bytes chunk(length + 1);
            CK_ULONG announced = length;
            rv = encrypt ? p->C_EncryptUpdate(session, part, CK_ULONG(cut), chunk.data(), &length)
                         : p->C_DecryptUpdate(session, part, CK_ULONG(cut), chunk.data(), &length);
            if (rv != CKR_OK) return rv;
            EXPECT_EQ(length, announced);
            out->insert(out->end(), chunk.begin(), chunk.begin() + length);
            at += cut;
        }
        CK_ULONG length = 0;
        CK_RV rv = encrypt ? p->C_EncryptFinal(session, nullptr, &length) : p->C_DecryptFinal(session, nullptr, &length);
        if (rv != CKR_OK) return rv;
        Bytes tail(length + 1);
        rv = encrypt ? p->C_EncryptFinal(session, tail.data(), &length) : p->C_DecryptFinal(session, tail.data(), &length);
        out->insert(out->end(), tail.begin(), tail.begin() + length);
        return rv;
    }
};

TEST_F(BlockCiphers, EveryKeyTypeAndModeAgreesWithOpenSslInOneAndInManyParts)
{
    for (const CipherCase& c : kCases) {
        SCOPED_TRACE(c.name);
        Bytes keyValue;
        const CK_OBJECT_HANDLE k = key(c, &keyValue);
        Bytes iv(c.block);
        for (size_t i = 0; i < iv.size(); ++i) iv[i] = CK_BYTE(i * 3);
        CaseMechanism mechanism(c, iv);
        CK_MECHANISM& m = mechanism.m;
        for (size_t length : {size_t(0), c.block, 3 * c.block, 3 * c.block + 5}) {
            if (!c.pad && length % c.block) continue;
            SCOPED_TRACE(length);
            Bytes plain(length);
            for (size_t i = 0; i < length; ++i) plain[i] = CK_BYTE(i * 11 + 1);
            const Bytes expected = reference(c, keyValue, iv, plain, true);

            ASSERT_EQ(p->C_EncryptInit(session, &m, k), CKR_OK);
            CK_ULONG size = 0;
            ASSERT_EQ(p->C_Encrypt(session, plain.data(), CK_ULONG(length), nullptr, &size), CKR_OK);
            Bytes cipherText(size + 1);  // never empty: a null buffer is a size query
            ASSERT_EQ(p->C_Encrypt(session, plain.data(), CK_ULONG(length), cipherText.data(), &size), CKR_OK);
            cipherText.resize(size);
            EXPECT_EQ(cipherText, expected);

            Bytes parts;
            ASSERT_EQ(p->C_EncryptInit(session, &m, k), CKR_OK);
            ASSERT_EQ(inParts(true, plain, &parts), CKR_OK);
            EXPECT_EQ(parts, expected);
            if (expected.empty()) continue;

            ASSERT_EQ(p->C_DecryptInit(session, &m, k), CKR_OK);
            size = 1;  // too small: the operation stays and the retry gives the plaintext
            Bytes back(expected.size());
            CK_RV rv = p->C_Decrypt(session, const_cast<CK_BYTE_PTR>(expected.data()), CK_ULONG(expected.size()),
                                    back.data(), &size);
            ASSERT_EQ(rv, length > 1 ? CKR_BUFFER_TOO_SMALL : CKR_OK);
            if (rv == CKR_BUFFER_TOO_SMALL) {
                EXPECT_EQ(size, length);
                size = CK_ULONG(back.size());
                ASSERT_EQ(p->C_Decrypt(session, const_cast<CK_BYTE_PTR>(expected.data()), CK_ULONG(expected.size()),
                                       back.data(), &size),
                          CKR_OK);
            }
            back.resize(size);
            EXPECT_EQ(back, plain);
            ASSERT_EQ(p->C_DecryptInit(session, &m, k), CKR_OK);
            ASSERT_EQ(inParts(false, expected, &parts), CKR_OK);
            EXPECT_EQ(parts, plain);
        }
        // Input that cannot be whole blocks, and padding that is wrong.
        if (c.block == 1) continue;
        Bytes odd(c.block + 3, 0x44);
        CK_ULONG size = 64;
        Bytes out(64);
        ASSERT_EQ(p->C_DecryptInit(session, &m, k), CKR_OK);
        EXPECT_EQ(p->C_Decrypt(session, odd.data(), CK_ULONG(odd.size()), out.data(), &size), CKR_ENCRYPTED_DATA_LEN_RANGE);
        if (c.pad) {
            Bytes badPadding = reference(c, keyValue, iv, Bytes(c.block, CK_BYTE(c.block + 1)), true);
            badPadding.resize(c.block);  // the block whose last byte says c.block + 1
            ASSERT_EQ(p->C_DecryptInit(session, &m, k), CKR_OK);
            size = 64;
            EXPECT_EQ(p->C_Decrypt(session, badPadding.data(), CK_ULONG(badPadding.size()), out.data(), &size),
                      CKR_ENCRYPTED_DATA_INVALID);
        } else {
            ASSERT_EQ(p->C_EncryptInit(session, &m, k), CKR_OK);
            size = 64;
            EXPECT_EQ(p->C_Encrypt(session, odd.data(), CK_ULONG(odd.size()), out.data(), &size), CKR_DATA_LEN_RANGE);
        }
    }
}

TEST_F(BlockCiphers, SecretKeysAreWrappedAndUnwrappedUnderEachKeyType)
{
    Tmpl wrapped = secretKey();
    wrapped.flag(CKA_EXTRACTABLE, true);
    const CK_OBJECT_HANDLE payload = make(wrapped);
    for (const CipherCase& c : kCases) {
        SCOPED_TRACE(c.name);
        Bytes keyValue;
        const CK_OBJECT_HANDLE k = key(c, &keyValue);
        Bytes iv(c.block, 0x77);
        CaseMechanism mechanism(c, iv);
        CK_MECHANISM& m = mechanism.m;
        CK_ULONG length = 0;
        ASSERT_EQ(p->C_WrapKey(session, &m, k, payload, nullptr, &length), CKR_OK);
        Bytes blob(length);
        ASSERT_EQ(p->C_WrapKey(session, &m, k, payload, blob.data(), &length), CKR_OK);
        blob.resize(length);
        EXPECT_EQ(blob, reference(c, keyValue, iv, Bytes(16, 0x5A), true));
        Tmpl t;
        t.ulong(CKA_CLASS, CKO_SECRET_KEY).ulong(CKA_KEY_TYPE, CKK_GENERIC_SECRET).ulong(CKA_VALUE_LEN, 16);
        CK_OBJECT_HANDLE back = CK_INVALID_HANDLE;
        ASSERT_EQ(p->C_UnwrapKey(session, &m, k, blob.data(), length, t.data(), t.size(), &back), CKR_OK);
        EXPECT_EQ(value(back, CKA_VALUE), Bytes(16, 0x5A));
    }
}

}  // namespace
}  // namespace korvo
