// Pointers an application leaves out through the C ABI: creating calls
// without a place for the new handle make nothing, and bytes, templates and
// mechanism parameters missing behind their lengths are refused before
// anything below the entry point sees them.

#include <gtest/gtest.h>

#include <functional>

#include "abi/object_helpers.h"

namespace korvo {
namespace {

class BadArguments : public ObjectTest {
protected:
};

TEST_F(BadArguments, MissingPointersAreRefusedAndMakeNothing)
{
    Tmpl aes;
    aes.ulong(CKA_CLASS, CKO_SECRET_KEY).ulong(CKA_KEY_TYPE, CKK_AES).add(CKA_VALUE, Bytes(16, 7));
    const CK_OBJECT_HANDLE key = make(aes);
    Tmpl secret = secretKey();
    Tmpl data = dataObject("x");
    Tmpl generated;
    generated.ulong(CKA_VALUE_LEN, 16);
    CK_ATTRIBUTE holes[] = {{CKA_LABEL, nullptr, 5}};
    CK_MECHANISM aesGen{CKM_AES_KEY_GEN, nullptr, 0};
    CK_MECHANISM ecb{CKM_AES_ECB, nullptr, 0};
    CK_MECHANISM noParameter{CKM_AES_CBC, nullptr, 16};
    Bytes wrapped(16, 1);
    CK_BYTE buffer[64];
    CK_ULONG length = sizeof buffer;
    CK_OBJECT_HANDLE handle = CK_INVALID_HANDLE;
    CK_OBJECT_HANDLE other = CK_INVALID_HANDLE;
    CK_MECHANISM rsaGen{CKM_RSA_PKCS_KEY_PAIR_GEN, nullptr, 0};
    Tmpl pub;
    pub.ulong(CKA_MODULUS_BITS, 512).add(CKA_PUBLIC_EXPONENT, {1, 0, 1});
    struct Case {
        const char* name;
        std::function<CK_RV()> call;
        CK_RV expected;
    };
    const Case cases[] = {
        {"C_CreateObject without phObject", [&] { return p->C_CreateObject(session, data.data(), data.size(), nullptr); },
         CKR_ARGUMENTS_BAD},
        {"C_CopyObject without phNewObject",
         [&] { return p->C_CopyObject(session, key, nullptr, 0, nullptr); }, CKR_ARGUMENTS_BAD},
        {"C_GenerateKey without phKey",
         [&] { return p->C_GenerateKey(session, &aesGen, generated.data(), generated.size(), nullptr); },
         CKR_ARGUMENTS_BAD},
        {"C_GenerateKeyPair without phPrivateKey",
         [&] { return p->C_GenerateKeyPair(session, &rsaGen, pub.data(), pub.size(), nullptr, 0, &handle, nullptr); },
         CKR_ARGUMENTS_BAD},
        {"C_UnwrapKey without phKey",
         [&] {
             return p->C_UnwrapKey(session, &ecb, key, wrapped.data(), 16, secret.data(), secret.size() - 1, nullptr);
         },
         CKR_ARGUMENTS_BAD},
        {"C_CreateObject with a value missing behind its length",
         [&] { return p->C_CreateObject(session, holes, 1, &handle); }, CKR_ARGUMENTS_BAD},
        {"C_CreateObject with the template missing", [&] { return p->C_CreateObject(session, nullptr, 3, &handle); },
         CKR_ARGUMENTS_BAD},
        {"C_SetAttributeValue with a value missing", [&] { return p->C_SetAttributeValue(session, key, holes, 1); },
         CKR_ARGUMENTS_BAD},
        {"C_FindObjectsInit with a value missing", [&] { return p->C_FindObjectsInit(session, holes, 1); },
         CKR_ARGUMENTS_BAD},
        {"C_EncryptInit without a mechanism", [&] { return p->C_EncryptInit(session, nullptr, key); },
         CKR_ARGUMENTS_BAD},
        {"C_EncryptInit with its parameter missing", [&] { return p->C_EncryptInit(session, &noParameter, key); },
         CKR_MECHANISM_PARAM_INVALID},
        {"C_DigestInit without a mechanism", [&] { return p->C_DigestInit(session, nullptr); }, CKR_ARGUMENTS_BAD},
        {"C_Encrypt of bytes that are not there",
         [&] {
             EXPECT_EQ(p->C_EncryptInit(session, &ecb, key), CKR_OK);
             return p->C_Encrypt(session, nullptr, 16, buffer, &length);
         },
         CKR_ARGUMENTS_BAD},
        {"C_Encrypt without its length",
         [&] {
             EXPECT_EQ(p->C_EncryptInit(session, &ecb, key), CKR_OK);
             return p->C_Encrypt(session, buffer, 16, buffer, nullptr);
         },
         CKR_ARGUMENTS_BAD},
        {"C_WrapKey without its length", [&] { return p->C_WrapKey(session, &ecb, key, key, nullptr, nullptr); },
         CKR_ARGUMENTS_BAD},
        {"C_UnwrapKey of bytes that are not there",
         [&] { return p->C_UnwrapKey(session, &ecb, key, nullptr, 16, secret.data(), 2, &other); }, CKR_ARGUMENTS_BAD},
    };
    const size_t before = find().size();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.call(), c.expected);
    }
    EXPECT_EQ(find().size(), before);
}

// Signing: bytes missing behind a length end the operation with
// CKR_ARGUMENTS_BAD, and the session goes on.
TEST_F(BadArguments, SigningWithMissingBytesIsRefused)
{
    CK_MECHANISM sha256Rsa{CKM_SHA256_RSA_PKCS, nullptr, 0};
    CK_MECHANISM rsaGen{CKM_RSA_PKCS_KEY_PAIR_GEN, nullptr, 0};
    Tmpl pub;
    pub.ulong(CKA_MODULUS_BITS, 512).add(CKA_PUBLIC_EXPONENT, {1, 0, 1});
    Tmpl priv;
    priv.flag(CKA_PRIVATE, false);
    CK_OBJECT_HANDLE pubKey = CK_INVALID_HANDLE, privKey = CK_INVALID_HANDLE;
    ASSERT_EQ(p->C_GenerateKeyPair(session, &rsaGen, pub.data(), pub.size(), priv.data(), priv.size(), &pubKey, &privKey),
              CKR_OK);
    CK_BYTE signature[64];
    CK_ULONG length = sizeof signature;
    for (bool update : {false, true}) {
        ASSERT_EQ(p->C_SignInit(session, &sha256Rsa, privKey), CKR_OK);
        EXPECT_EQ(update ? p->C_SignUpdate(session, nullptr, 5) : p->C_Sign(session, nullptr, 5, signature, &length),
                  CKR_ARGUMENTS_BAD);
        EXPECT_EQ(p->C_SignFinal(session, signature, &length), CKR_OPERATION_NOT_INITIALIZED);
    }
}

}  // namespace
}  // namespace korvo
