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
