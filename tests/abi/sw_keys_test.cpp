// Session keys of the software token through the C ABI: key generation and
// what generated keys carry, wrapping a secret key under RSA and back, and
// every way an operation can be left (the sanitizer build checks that each
// frees its state).

#include <gtest/gtest.h>

#include "abi/object_helpers.h"

namespace korvo {
namespace {

class SoftwareKeys : public ObjectTest {
protected:
    CK_OBJECT_HANDLE publicKey = CK_INVALID_HANDLE;
    CK_OBJECT_HANDLE privateKey = CK_INVALID_HANDLE;

    CK_RV generateRsa(CK_ULONG bits, Bytes exponent = {0x01, 0x00, 0x01}, CK_SESSION_HANDLE in = 0)
    {
        Tmpl pub;
        pub.ulong(CKA_MODULUS_BITS, bits).add(CKA_PUBLIC_EXPONENT, exponent).flag(CKA_TOKEN, false);
        Tmpl priv;
        priv.flag(CKA_PRIVATE, false).flag(CKA_SENSITIVE, true);
        CK_MECHANISM mechanism{CKM_RSA_PKCS_KEY_PAIR_GEN, nullptr, 0};
        return p->C_GenerateKeyPair(in ? in : session, &mechanism, pub.data(), pub.size(), priv.data(), priv.size(),
                                    &publicKey, &privateKey);
    }

    CK_ULONG ulong(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type)
    {
        CK_ULONG out = 0;
        CK_ATTRIBUTE a{type, &out, sizeof out};
        EXPECT_EQ(p->C_GetAttributeValue(session, object, &a, 1), CKR_OK);
        return out;
    }
};

TEST_F(SoftwareKeys, GeneratedRsaPairsCarryTheirNumbersAndTheRightFlags)
{
    struct Case {
        CK_ULONG bits;
        CK_RV expected;
    } cases[] = {{512, CKR_OK}, {1032, CKR_OK}, {504, CKR_KEY_SIZE_RANGE}, {4104, CKR_KEY_SIZE_RANGE},
                 {1025, CKR_KEY_SIZE_RANGE}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.bits);
        ASSERT_EQ(generateRsa(c.bits), c.expected);
        if (c.expected != CKR_OK) continue;
        EXPECT_EQ(value(publicKey, CKA_MODULUS).size(), c.bits / 8);
        EXPECT_EQ(value(publicKey, CKA_MODULUS), value(privateKey, CKA_MODULUS));
        EXPECT_EQ(ulong(publicKey, CKA_MODULUS_BITS), c.bits);
        for (CK_OBJECT_HANDLE key : {publicKey, privateKey}) EXPECT_EQ(value(key, CKA_LOCAL), Bytes{CK_TRUE});
        EXPECT_EQ(value(privateKey, CKA_ALWAYS_SENSITIVE), Bytes{CK_TRUE});
        EXPECT_EQ(get(privateKey, CKA_PRIME_1), CKR_ATTRIBUTE_SENSITIVE);
    }
    EXPECT_EQ(generateRsa(1024, {0x01, 0x00, 0x00}), CKR_ATTRIBUTE_VALUE_INVALID);  // an even exponent
}

TEST_F(SoftwareKeys, SecretKeysTravelUnderRsaAndComeBackWithTheTemplateAttributes)
{
    ASSERT_EQ(generateRsa(1024), CKR_OK);
    Tmpl secret = secretKey();
    secret.flag(CKA_EXTRACTABLE, true);
    const CK_OBJECT_HANDLE key = make(secret);
    CK_RSA_PKCS_OAEP_PARAMS oaep{CKM_SHA256, CKG_MGF1_SHA256, CKZ_DATA_SPECIFIED, (CK_VOID_PTR) "label", 5};
    CK_MECHANISM mechanisms[] = {{CKM_RSA_PKCS, nullptr, 0},
                                 {CKM_RSA_PKCS_OAEP, &oaep, sizeof oaep},
                                 {CKM_RSA_X_509, nullptr, 0}};
    for (CK_MECHANISM& mechanism : mechanisms) {
        SCOPED_TRACE(mechanism.mechanism);
        CK_ULONG length = 0;
        ASSERT_EQ(p->C_WrapKey(session, &mechanism, publicKey, key, nullptr, &length), CKR_OK);
        EXPECT_EQ(length, 128u);
        Bytes wrapped(length);
        ASSERT_EQ(p->C_WrapKey(session, &mechanism, publicKey, key, wrapped.data(), &length), CKR_OK);
        Tmpl unwrapTemplate;
        unwrapTemplate.ulong(CKA_CLASS, CKO_SECRET_KEY).ulong(CKA_KEY_TYPE, CKK_GENERIC_SECRET).ulong(CKA_VALUE_LEN, 16);
        unwrapTemplate.text(CKA_LABEL, "back");
        CK_OBJECT_HANDLE back = CK_INVALID_HANDLE;
        ASSERT_EQ(p->C_UnwrapKey(session, &mechanism, privateKey, wrapped.data(), length, unwrapTemplate.data(),
                                 unwrapTemplate.size(), &back),
                  CKR_OK);
        EXPECT_EQ(value(back, CKA_VALUE), Bytes(16, 0x5A));
        EXPECT_EQ(text(back, CKA_LABEL), "back");
        EXPECT_EQ(value(back, CKA_LOCAL), Bytes{CK_FALSE});
        EXPECT_EQ(value(back, CKA_NEVER_EXTRACTABLE), Bytes{CK_FALSE});
        wrapped[5] ^= 1;
        EXPECT_NE(p->C_UnwrapKey(session, &mechanism, privateKey, wrapped.data(), length, unwrapTemplate.data(),
                                 unwrapTemplate.size(), &back),
                  CKR_OK);
    }
    // What may not leave, does not.
    Tmpl locked = secretKey();
    locked.flag(CKA_EXTRACTABLE, false);
    const CK_OBJECT_HANDLE kept = make(locked);
    CK_ULONG length = 0;
    EXPECT_EQ(p->C_WrapKey(session, &mechanisms[0], publicKey, kept, nullptr, &length), CKR_KEY_UNEXTRACTABLE);
    EXPECT_EQ(p->C_WrapKey(session, &mechanisms[0], key, key, nullptr, &length), CKR_WRAPPING_KEY_TYPE_INCONSISTENT);
}

TEST_F(SoftwareKeys, SecretKeysAreGeneratedWithTheirLengthAndDesParity)
{
    struct Case {
        CK_MECHANISM_TYPE mechanism;
        CK_KEY_TYPE type;
        CK_ULONG valueLen;  // 0: none in the template
        CK_RV expected;
        size_t length;
    } cases[] = {
        {CKM_DES_KEY_GEN, CKK_DES, 0, CKR_OK, 8},       {CKM_DES2_KEY_GEN, CKK_DES2, 0, CKR_OK, 16},
        {CKM_DES3_KEY_GEN, CKK_DES3, 0, CKR_OK, 24},    {CKM_AES_KEY_GEN, CKK_AES, 24, CKR_OK, 24},
        {CKM_RC2_KEY_GEN, CKK_RC2, 5, CKR_OK, 5},       {CKM_RC4_KEY_GEN, CKK_RC4, 256, CKR_OK, 256},
        {CKM_GENERIC_SECRET_KEY_GEN, CKK_GENERIC_SECRET, 48, CKR_OK, 48},
        {CKM_RC2_KEY_GEN, CKK_RC2, 129, CKR_KEY_SIZE_RANGE, 0},
        {CKM_AES_KEY_GEN, CKK_AES, 0, CKR_TEMPLATE_INCOMPLETE, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "mechanism 0x" << std::hex << c.mechanism << " length " << std::dec << c.valueLen);
        Tmpl t;
        t.flag(CKA_SENSITIVE, false);
        if (c.valueLen) t.ulong(CKA_VALUE_LEN, c.valueLen);
        CK_MECHANISM m{c.mechanism, nullptr, 0};
        CK_OBJECT_HANDLE key = CK_INVALID_HANDLE;
        ASSERT_EQ(p->C_GenerateKey(session, &m, t.data(), t.size(), &key), c.expected);
        if (c.expected != CKR_OK) continue;
        const Bytes v = value(key, CKA_VALUE);
        EXPECT_EQ(v.size(), c.length);
        EXPECT_EQ(ulong(key, CKA_KEY_TYPE), c.type);
        EXPECT_EQ(value(key, CKA_LOCAL), Bytes{CK_TRUE});
        if (c.type == CKK_DES || c.type == CKK_DES2 || c.type == CKK_DES3) {
            for (CK_BYTE b : v) EXPECT_EQ(__builtin_popcount(b) % 2, 1) << int(b);
        }
    }
}

// Domain parameters generated by the token feed key pairs; DSA signs and
// verifies single- and multi-part; two Diffie-Hellman parties (PKCS #3 and
// X9.42, with and without a KDF) derive the same secret key.
TEST_F(SoftwareKeys, DsaAndDiffieHellmanFromGeneratedParameters)
{
    struct Family {
        CK_MECHANISM_TYPE parameterGen, pairGen;
        CK_KEY_TYPE keyType;
        CK_ULONG primeBits, subprimeBits;
    };
    const Family families[] = {
        {CKM_DSA_PARAMETER_GEN, CKM_DSA_KEY_PAIR_GEN, CKK_DSA, 1024, 0},
        {CKM_DH_PKCS_PARAMETER_GEN, CKM_DH_PKCS_KEY_PAIR_GEN, CKK_DH, 512, 0},
        {CKM_X9_42_DH_PARAMETER_GEN, CKM_X9_42_DH_KEY_PAIR_GEN, CKK_X9_42_DH, 1024, 160},
    };
    for (const Family& f : families) {
        SCOPED_TRACE(f.keyType);
        Tmpl params;
        params.ulong(CKA_PRIME_BITS, f.primeBits);
        if (f.subprimeBits) params.ulong(CKA_SUB_PRIME_BITS, f.subprimeBits);
        CK_MECHANISM gen{f.parameterGen, nullptr, 0};
        CK_OBJECT_HANDLE domain = CK_INVALID_HANDLE;
        ASSERT_EQ(p->C_GenerateKey(session, &gen, params.data(), params.size(), &domain), CKR_OK);
        EXPECT_EQ(ulong(domain, CKA_CLASS), CKO_DOMAIN_PARAMETERS);
        EXPECT_EQ(value(domain, CKA_LOCAL), Bytes{CK_TRUE});
        const bool withSubprime = f.keyType != CKK_DH;

        // Two key pairs over the same group, its numbers copied from the
        // parameter object.
        CK_OBJECT_HANDLE pub[2], priv[2];
        for (int i = 0; i < 2; ++i) {
            Tmpl pubT;
            pubT.add(CKA_PRIME, value(domain, CKA_PRIME)).add(CKA_BASE, value(domain, CKA_BASE));
            if (withSubprime) pubT.add(CKA_SUBPRIME, value(domain, CKA_SUBPRIME));
            Tmpl privT;
            privT.flag(CKA_PRIVATE, false).flag(CKA_DERIVE, true);
            if (f.keyType == CKK_DH) privT.ulong(CKA_VALUE_BITS, 256);
            CK_MECHANISM pair{f.pairGen, nullptr, 0};
            ASSERT_EQ(p->C_GenerateKeyPair(session, &pair, pubT.data(), pubT.size(), privT.data(), privT.size(),
                                           &pub[i], &priv[i]),
                      CKR_OK);
            EXPECT_EQ(ulong(priv[i], CKA_KEY_TYPE), f.keyType);
            EXPECT_EQ(value(priv[i], CKA_PRIME), value(domain, CKA_PRIME));
        }
        if (f.keyType == CKK_DSA) {
            CK_BYTE digest[20] = {1, 2, 3, 4, 5};
            CK_BYTE signature[40];
            CK_ULONG length = sizeof signature;
            CK_MECHANISM dsa{CKM_DSA, nullptr, 0};
            ASSERT_EQ(p->C_SignInit(session, &dsa, priv[0]), CKR_OK);
            ASSERT_EQ(p->C_Sign(session, digest, sizeof digest, signature, &length), CKR_OK);
            EXPECT_EQ(length, 40u);
            ASSERT_EQ(p->C_VerifyInit(session, &dsa, pub[0]), CKR_OK);
            EXPECT_EQ(p->C_Verify(session, digest, sizeof digest, signature, length), CKR_OK);
            ASSERT_EQ(p->C_VerifyInit(session, &dsa, pub[1]), CKR_OK);
            EXPECT_EQ(p->C_Verify(session, digest, sizeof digest, signature, length), CKR_SIGNATURE_INVALID);
            ASSERT_EQ(p->C_VerifyInit(session, &dsa, pub[0]), CKR_OK);
            EXPECT_EQ(p->C_Verify(session, digest, sizeof digest, signature, 39), CKR_SIGNATURE_LEN_RANGE);

            CK_MECHANISM sha1{CKM_DSA_SHA1, nullptr, 0};
            CK_BYTE message[100] = {9};
            ASSERT_EQ(p->C_SignInit(session, &sha1, priv[0]), CKR_OK);
            ASSERT_EQ(p->C_SignUpdate(session, message, 60), CKR_OK);
            ASSERT_EQ(p->C_SignUpdate(session, message + 60, 40), CKR_OK);
            length = sizeof signature;
            ASSERT_EQ(p->C_SignFinal(session, signature, &length), CKR_OK);
            ASSERT_EQ(p->C_VerifyInit(session, &sha1, pub[0]), CKR_OK);
            EXPECT_EQ(p->C_Verify(session, message, sizeof message, signature, length), CKR_OK);
            ASSERT_EQ(p->C_SignInit(session, &dsa, pub[0]), CKR_KEY_TYPE_INCONSISTENT);
            continue;
        }
        // Each party derives from its own private key and the other's public value.
        for (CK_ULONG kdf : {CKD_NULL, CKD_SHA1_KDF_CONCATENATE}) {
            if (f.keyType == CKK_DH && kdf != CKD_NULL) continue;
            Bytes derived[2];
            for (int i = 0; i < 2; ++i) {
                Bytes peer = value(pub[1 - i], CKA_VALUE);
                CK_X9_42_DH1_DERIVE_PARAMS x942{kdf, 0, nullptr, CK_ULONG(peer.size()), peer.data()};
                CK_MECHANISM derive = f.keyType == CKK_DH ? CK_MECHANISM{CKM_DH_PKCS_DERIVE, peer.data(), CK_ULONG(peer.size())}
                                                          : CK_MECHANISM{CKM_X9_42_DH_DERIVE, &x942, sizeof x942};
                Tmpl secret;
                secret.ulong(CKA_CLASS, CKO_SECRET_KEY).ulong(CKA_KEY_TYPE, CKK_GENERIC_SECRET).ulong(CKA_VALUE_LEN, 24);
                CK_OBJECT_HANDLE key = CK_INVALID_HANDLE;
                ASSERT_EQ(p->C_DeriveKey(session, &derive, priv[i], secret.data(), secret.size(), &key), CKR_OK);
                derived[i] = value(key, CKA_VALUE);
                EXPECT_EQ(value(key, CKA_LOCAL), Bytes{CK_FALSE});
            }
            EXPECT_EQ(derived[0].size(), 24u);
            EXPECT_EQ(derived[0], derived[1]);
        }
    }
}

// Every way an operation ends early. Each leaves the session (or the next
// one) usable; in the sanitizer build, nothing of the operation is left.
TEST_F(SoftwareKeys, AbandonedOperationsFreeTheirStateOnEveryPath)
{
    enum Path { CloseSession, CloseAll, Finalize, ShortBufferThenStray, FailedPart };
    const Path paths[] = {CloseSession, CloseAll, Finalize, ShortBufferThenStray, FailedPart};
    CK_RSA_PKCS_PSS_PARAMS pss{CKM_SHA256, CKG_MGF1_SHA256, 32};
    CK_RSA_PKCS_OAEP_PARAMS oaep{CKM_SHA_1, CKG_MGF1_SHA1, CKZ_DATA_SPECIFIED, (CK_VOID_PTR) "x", 1};
    for (Path path : paths) {
        for (int kind = 0; kind < 3; ++kind) {
            SCOPED_TRACE(testing::Message() << "path " << path << " kind " << kind);
            CK_SESSION_HANDLE s = openSession(CKF_SERIAL_SESSION | CKF_RW_SESSION);
            ASSERT_EQ(generateRsa(512, {0x01, 0x00, 0x01}, s), CKR_OK);
            CK_BYTE data[32] = {1, 2, 3};
            CK_BYTE out[64];
            CK_ULONG outLen = 1;
            if (kind == 0) {  // a running hash
                CK_MECHANISM m{CKM_SHA256_RSA_PKCS_PSS, &pss, sizeof pss};
                ASSERT_EQ(p->C_SignInit(s, &m, privateKey), CKR_OK);
                ASSERT_EQ(p->C_SignUpdate(s, data, sizeof data), CKR_OK);
            } else if (kind == 1) {  // an OAEP label
                CK_MECHANISM m{CKM_RSA_PKCS_OAEP, &oaep, sizeof oaep};
                ASSERT_EQ(p->C_EncryptInit(s, &m, publicKey), CKR_OK);
            } else {
                CK_MECHANISM m{CKM_SHA1_RSA_PKCS, nullptr, 0};
                ASSERT_EQ(p->C_VerifyInit(s, &m, publicKey), CKR_OK);
            }
            switch (path) {
            case CloseSession: EXPECT_EQ(p->C_CloseSession(s), CKR_OK); break;
            case CloseAll: EXPECT_EQ(p->C_CloseAllSessions(0), CKR_OK); break;
            case Finalize:
                EXPECT_EQ(p->C_Finalize(nullptr), CKR_OK);
                ASSERT_EQ(p->C_Initialize(nullptr), CKR_OK);
                break;
            case ShortBufferThenStray: {
                const CK_RV rv = kind == 0   ? p->C_SignFinal(s, out, &outLen)
                                 : kind == 1 ? p->C_Encrypt(s, data, 8, out, &outLen)
                                             : CKR_BUFFER_TOO_SMALL;
                EXPECT_EQ(rv, CKR_BUFFER_TOO_SMALL);
                // A stray update of another kind ends whatever runs.
                EXPECT_EQ(p->C_SignUpdate(s, data, 1), kind == 0 ? CKR_OK : CKR_OPERATION_NOT_INITIALIZED);
                EXPECT_EQ(p->C_CloseSession(s), CKR_OK);
                break;
            }
            case FailedPart:
                outLen = sizeof out;
                EXPECT_EQ(kind == 0   ? p->C_SignUpdate(s, nullptr, 5)
                          : kind == 1 ? p->C_Encrypt(s, data, sizeof data, out, &outLen)
                                      : p->C_Verify(s, data, 3, out, 3),
                          kind == 0 ? CKR_ARGUMENTS_BAD : kind == 1 ? CKR_DATA_LEN_RANGE : CKR_SIGNATURE_LEN_RANGE);
                // The operation ended: the session takes a new one.
                {
                    CK_MECHANISM digest{CKM_SHA_1, nullptr, 0};
                    EXPECT_EQ(p->C_DigestInit(s, &digest), CKR_OK);
                }
                EXPECT_EQ(p->C_CloseSession(s), CKR_OK);
                break;
            }
            session = openSession();
        }
    }
}

}  // namespace
}  // namespace korvo
