// Wrapping and unwrapping through the C ABI beyond secret keys: private
// keys travel as PKCS #8 under the padded CBC modes (OpenSSL reads what the
// token wraps, and the unwrapped key works like the original), and the
// rules of wrapping (extractable keys, wrapping keys that may wrap, what
// an unwrapped key carries) give their codes.

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <gtest/gtest.h>

#include "abi/object_helpers.h"

namespace korvo {
namespace {

class KeyWrapping : public ObjectTest {
protected:
    CK_OBJECT_HANDLE secret(CK_KEY_TYPE type, size_t length, bool wrap = true)
    {
        Tmpl t;
        t.ulong(CKA_CLASS, CKO_SECRET_KEY).ulong(CKA_KEY_TYPE, type).add(CKA_VALUE, Bytes(length, 0x3D));
        t.flag(CKA_WRAP, wrap);
        return make(t);
    }

    // A private key of the family, extractable unless told otherwise.
    CK_OBJECT_HANDLE privateKey(CK_KEY_TYPE type, bool extractable = true)
    {
        CK_OBJECT_HANDLE pub = CK_INVALID_HANDLE, priv = CK_INVALID_HANDLE;
        Tmpl pubT;
        Tmpl privT;
        privT.flag(CKA_PRIVATE, false).flag(CKA_EXTRACTABLE, extractable);
        CK_MECHANISM pair{CKM_RSA_PKCS_KEY_PAIR_GEN, nullptr, 0};
        if (type == CKK_RSA) {
            pubT.ulong(CKA_MODULUS_BITS, 1024).add(CKA_PUBLIC_EXPONENT, {0x01, 0x00, 0x01});
        } else {
            const bool dh = type == CKK_DH;
            Tmpl params;
            params.ulong(CKA_PRIME_BITS, dh ? 512 : 1024);
            if (type == CKK_X9_42_DH) params.ulong(CKA_SUB_PRIME_BITS, 160);
            CK_MECHANISM gen{type == CKK_DSA ? CKM_DSA_PARAMETER_GEN
                             : dh            ? CKM_DH_PKCS_PARAMETER_GEN
                                             : CKM_X9_42_DH_PARAMETER_GEN,
                             nullptr, 0};
            CK_OBJECT_HANDLE domain = CK_INVALID_HANDLE;
            EXPECT_EQ(p->C_GenerateKey(session, &gen, params.data(), params.size(), &domain), CKR_OK);
            pubT.add(CKA_PRIME, value(domain, CKA_PRIME)).add(CKA_BASE, value(domain, CKA_BASE));
            if (!dh) pubT.add(CKA_SUBPRIME, value(domain, CKA_SUBPRIME));
            pair.mechanism = type == CKK_DSA ? CKM_DSA_KEY_PAIR_GEN : dh ? CKM_DH_PKCS_KEY_PAIR_GEN : CKM_X9_42_DH_KEY_PAIR_GEN;
        }
        EXPECT_EQ(p->C_GenerateKeyPair(session, &pair, pubT.data(), pubT.size(), privT.data(), privT.size(), &pub, &priv),
                  CKR_OK);
        return priv;
    }

    CK_RV wrap(CK_MECHANISM* m, CK_OBJECT_HANDLE wrapping, CK_OBJECT_HANDLE key, Bytes* out)
    {
        CK_ULONG length = 0;
        CK_RV rv = p->C_WrapKey(session, m, wrapping, key, nullptr, &length);
        if (rv != CKR_OK) return rv;
        out->assign(length, 0);
        rv = p->C_WrapKey(session, m, wrapping, key, out->data(), &length);
        out->resize(length);
        return rv;
    }

    CK_RV unwrap(CK_MECHANISM* m, CK_OBJECT_HANDLE unwrapping, Bytes blob, Tmpl t, CK_OBJECT_HANDLE* key)
    {
        return p->C_UnwrapKey(session, m, unwrapping, blob.data(), CK_ULONG(blob.size()), t.data(), t.size(), key);
    }
};

Bytes decipher(const char* name, const Bytes& key, const Bytes& iv, const Bytes& in)
{
    EVP_CIPHER* cipher = EVP_CIPHER_fetch(nullptr, name, nullptr);
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    Bytes out(in.size() + 16);
    int n = 0, m = 0;
    const bool ok = EVP_DecryptInit_ex2(ctx, cipher, key.data(), iv.data(), nullptr) == 1 &&
                    EVP_DecryptUpdate(ctx, out.data(), &n, in.data(), int(in.size())) == 1 &&
                    EVP_DecryptFinal_ex(ctx, out.data() + n, &m) == 1;
    EVP_CIPHER_CTX_free(ctx);
    EVP_CIPHER_free(cipher);
    out.resize(ok ? size_t(n + m) : 0);
    return out;
}

TEST_F(KeyWrapping, PrivateKeysTravelAsPkcs8AndComeBackWorking)
{
    struct Case {
        CK_KEY_TYPE type;
        int opensslType;
        std::vector<CK_ATTRIBUTE_TYPE> numbers;
    };
    const Case cases[] = {
        {CKK_RSA, EVP_PKEY_RSA, {CKA_MODULUS, CKA_PRIVATE_EXPONENT, CKA_PRIME_1, CKA_COEFFICIENT}},
        {CKK_DSA, EVP_PKEY_DSA, {CKA_PRIME, CKA_SUBPRIME, CKA_BASE, CKA_VALUE}},
        {CKK_DH, EVP_PKEY_DH, {CKA_PRIME, CKA_BASE, CKA_VALUE}},
        {CKK_X9_42_DH, EVP_PKEY_DHX, {CKA_PRIME, CKA_SUBPRIME, CKA_BASE, CKA_VALUE}},
    };
    const Bytes aesValue(16, 0x3D);
    const CK_OBJECT_HANDLE aes = secret(CKK_AES, 16);
    Bytes iv(16, 0x6B);
    CK_MECHANISM cbcPad{CKM_AES_CBC_PAD, iv.data(), CK_ULONG(iv.size())};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.type);
        const CK_OBJECT_HANDLE original = privateKey(c.type);
        Bytes blob;
        ASSERT_EQ(wrap(&cbcPad, aes, original, &blob), CKR_OK);

        // What OpenSSL finds inside.
        const Bytes der = decipher("AES-128-CBC", aesValue, iv, blob);
        const unsigned char* at = der.data();
        EVP_PKEY* parsed = d2i_AutoPrivateKey(nullptr, &at, long(der.size()));
        ASSERT_NE(parsed, nullptr);
        EXPECT_EQ(EVP_PKEY_get_base_id(parsed), c.opensslType);
        EVP_PKEY_free(parsed);

        Tmpl t;
        t.ulong(CKA_CLASS, CKO_PRIVATE_KEY).ulong(CKA_KEY_TYPE, c.type).flag(CKA_PRIVATE, false).flag(CKA_SIGN, true);
        CK_OBJECT_HANDLE back = CK_INVALID_HANDLE;
        ASSERT_EQ(unwrap(&cbcPad, aes, blob, t, &back), CKR_OK);
        for (CK_ATTRIBUTE_TYPE number : c.numbers) EXPECT_EQ(value(back, number), value(original, number)) << number;
        // An unwrapped key was neither made here nor always secret.
        for (CK_ATTRIBUTE_TYPE flag : {CKA_LOCAL, CKA_ALWAYS_SENSITIVE, CKA_NEVER_EXTRACTABLE})
            EXPECT_EQ(value(back, flag), Bytes{CK_FALSE}) << flag;
        if (c.type == CKK_RSA) {
            // PKCS #1 v1.5 signatures are deterministic: both keys sign alike.
            CK_MECHANISM sha256{CKM_SHA256_RSA_PKCS, nullptr, 0};
            CK_BYTE message[] = "wrapped and back";
            Bytes signatures[2];
            for (int i = 0; i < 2; ++i) {
                signatures[i].assign(128, 0);
                CK_ULONG length = 128;
                ASSERT_EQ(p->C_SignInit(session, &sha256, i ? back : original), CKR_OK);
                ASSERT_EQ(p->C_Sign(session, message, sizeof message, signatures[i].data(), &length), CKR_OK);
            }
            EXPECT_EQ(signatures[0], signatures[1]);
        }
        // The template must name the type inside.
        Tmpl other;
        other.ulong(CKA_CLASS, CKO_PRIVATE_KEY).ulong(CKA_KEY_TYPE, c.type == CKK_RSA ? CKK_DSA : CKK_RSA);
        EXPECT_EQ(unwrap(&cbcPad, aes, blob, other, &back), CKR_TEMPLATE_INCONSISTENT);
    }
}

TEST_F(KeyWrapping, WrappingRulesGiveTheirCodes)
{
    const CK_OBJECT_HANDLE aes = secret(CKK_AES, 16);
    const CK_OBJECT_HANDLE mayNotWrap = secret(CKK_AES, 16, false);
    Tmpl locked = secretKey();
    locked.flag(CKA_EXTRACTABLE, false);
    const CK_OBJECT_HANDLE unextractable = make(locked);
    const CK_OBJECT_HANDLE payload = secret(CKK_GENERIC_SECRET, 20);
    const CK_OBJECT_HANDLE lockedPrivate = privateKey(CKK_RSA, false);
    Bytes iv(16, 1);
    CK_MECHANISM cbcPad{CKM_AES_CBC_PAD, iv.data(), 16};
    CK_MECHANISM cbc{CKM_AES_CBC, iv.data(), 16};
    CK_MECHANISM des{CKM_DES_ECB, nullptr, 0};
    Bytes blob;
    struct Case {
        const char* name;
        CK_MECHANISM* m;
        CK_OBJECT_HANDLE wrapping, key;
        CK_RV rv;
    };
    const Case cases[] = {
        {"unextractable secret", &cbcPad, aes, unextractable, CKR_KEY_UNEXTRACTABLE},
        {"unextractable private", &cbcPad, aes, lockedPrivate, CKR_KEY_UNEXTRACTABLE},
        {"wrapping key without CKA_WRAP", &cbcPad, mayNotWrap, payload, CKR_KEY_FUNCTION_NOT_PERMITTED},
        {"wrapping key of another type", &des, aes, payload, CKR_WRAPPING_KEY_TYPE_INCONSISTENT},
        {"a length no block multiple without padding", &cbc, aes, payload, CKR_KEY_SIZE_RANGE},
        {"a secret key under the padded mode", &cbcPad, aes, payload, CKR_OK},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(wrap(c.m, c.wrapping, c.key, &blob), c.rv);
    }

    // Unwrapping: bytes that are no key, and a key that may not unwrap.
    Tmpl priv;
    priv.ulong(CKA_CLASS, CKO_PRIVATE_KEY).ulong(CKA_KEY_TYPE, CKK_RSA);
    CK_OBJECT_HANDLE back = CK_INVALID_HANDLE;
    ASSERT_EQ(wrap(&cbcPad, aes, payload, &blob), CKR_OK);
    EXPECT_EQ(unwrap(&cbcPad, aes, blob, priv, &back), CKR_WRAPPED_KEY_INVALID);
    Tmpl plain;
    plain.ulong(CKA_CLASS, CKO_SECRET_KEY).ulong(CKA_KEY_TYPE, CKK_GENERIC_SECRET);
    blob.back() ^= 0x5A;
    EXPECT_EQ(unwrap(&cbcPad, aes, blob, plain, &back), CKR_WRAPPED_KEY_INVALID);
    blob.pop_back();
    EXPECT_EQ(unwrap(&cbcPad, aes, blob, plain, &back), CKR_WRAPPED_KEY_LEN_RANGE);
    Tmpl noUnwrap;
    noUnwrap.ulong(CKA_CLASS, CKO_SECRET_KEY).ulong(CKA_KEY_TYPE, CKK_AES).add(CKA_VALUE, Bytes(16, 2)).flag(CKA_UNWRAP, false);
    const CK_OBJECT_HANDLE mayNotUnwrap = make(noUnwrap);
    ASSERT_EQ(wrap(&cbcPad, aes, payload, &blob), CKR_OK);
    EXPECT_EQ(unwrap(&cbcPad, mayNotUnwrap, blob, plain, &back), CKR_KEY_FUNCTION_NOT_PERMITTED);
    // Under AES-GCM, secret keys travel with their tag.
    Bytes nonce(12, 9);
    CK_GCM_PARAMS_V3 gcm{nonce.data(), 12, 96, nullptr, 0, 128};
    CK_MECHANISM sealed{CKM_AES_GCM, &gcm, sizeof gcm};
    ASSERT_EQ(wrap(&sealed, aes, payload, &blob), CKR_OK);
    EXPECT_EQ(blob.size(), 20u + 16u);
    ASSERT_EQ(unwrap(&sealed, aes, blob, plain, &back), CKR_OK);
    EXPECT_EQ(value(back, CKA_VALUE), Bytes(20, 0x3D));
    blob[0] ^= 1;
    EXPECT_EQ(unwrap(&sealed, aes, blob, plain, &back), CKR_WRAPPED_KEY_INVALID);
}

}  // namespace
}  // namespace korvo
