// DSA and Diffie-Hellman session keys of the module against NSS's software
// token and OpenSSL: the same keys (made by OpenSSL) in both tokens, each
// token's DSA signatures verified by the other, and the same derived key
// from the same Diffie-Hellman inputs in both tokens and in OpenSSL.

#include <openssl/core_names.h>
#include <openssl/dh.h>
#include <openssl/dsa.h>
#include <openssl/evp.h>

#include <gtest/gtest.h>

#include <memory>

#include "abi/object_helpers.h"
#include "abi/peer_module.h"
#include "abi/rsa_reference.h"

namespace korvo {
namespace {

using OwnedKey = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;

// A key of OpenSSL's: parameters first (DSA of the given sizes, or a named
// finite-field group), then the key over them.
OwnedKey opensslKey(const char* type, unsigned bits, unsigned qbits, const char* group)
{
    EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new_from_name(nullptr, type, nullptr);
    EVP_PKEY* params = nullptr;
    EVP_PKEY* key = nullptr;
    if (group) {
        EVP_PKEY_keygen_init(ctx);
        OSSL_PARAM p[] = {OSSL_PARAM_construct_utf8_string("group", const_cast<char*>(group), 0), OSSL_PARAM_END};
        EVP_PKEY_CTX_set_params(ctx, p);
        EVP_PKEY_generate(ctx, &key);
    } else {
        EVP_PKEY_paramgen_init(ctx);
        EVP_PKEY_CTX_set_dsa_paramgen_bits(ctx, int(bits));
        EVP_PKEY_CTX_set_dsa_paramgen_q_bits(ctx, int(qbits));
        EVP_PKEY_generate(ctx, &params);
        EVP_PKEY_CTX* keyCtx = EVP_PKEY_CTX_new(params, nullptr);
        EVP_PKEY_keygen_init(keyCtx);
        EVP_PKEY_generate(keyCtx, &key);
        EVP_PKEY_CTX_free(keyCtx);
        EVP_PKEY_free(params);
    }
    EVP_PKEY_CTX_free(ctx);
    return OwnedKey(key, EVP_PKEY_free);
}

// The key's group and value as Cryptoki templates of the given type.
Tmpl keyTemplate(EVP_PKEY* key, CK_OBJECT_CLASS objectClass, CK_KEY_TYPE type)
{
    Tmpl t;
    t.ulong(CKA_CLASS, objectClass).ulong(CKA_KEY_TYPE, type).flag(CKA_TOKEN, false);
    t.add(CKA_PRIME, keyNumber(key, "p")).add(CKA_BASE, keyNumber(key, "g"));
    if (type == CKK_DSA) t.add(CKA_SUBPRIME, keyNumber(key, "q"));
    if (objectClass == CKO_PRIVATE_KEY) {
        t.flag(CKA_PRIVATE, false).flag(CKA_SENSITIVE, false);
        t.flag(type == CKK_DSA ? CKA_SIGN : CKA_DERIVE, true);
        t.add(CKA_VALUE, keyNumber(key, "priv"));
    } else {
        t.add(CKA_VALUE, keyNumber(key, "pub"));
    }
    return t;
}

// A token with the key pair the test imported into it.
struct Side : P11Side {
    CK_OBJECT_HANDLE pub = CK_INVALID_HANDLE, priv = CK_INVALID_HANDLE;
};

class DsaDhInterop : public ObjectTest {
protected:
    void SetUp() override
    {
        ObjectTest::SetUp();
        if (HasFatalFailure()) return;
        std::string why;
        if (!openSoftokn(&peer, &why)) GTEST_FAIL() << why;
        ours.f = p;
        ours.s = session;
        ours.name = "Korvo";
    }
    void TearDown() override
    {
        closeSide(&peer);
        ObjectTest::TearDown();
    }

    static CK_RV import(Side& side, EVP_PKEY* key, CK_KEY_TYPE type)
    {
        Tmpl pub = keyTemplate(key, CKO_PUBLIC_KEY, type), priv = keyTemplate(key, CKO_PRIVATE_KEY, type);
        CK_RV rv = side.f->C_CreateObject(side.s, pub.data(), pub.size(), &side.pub);
        if (rv == CKR_OK) rv = side.f->C_CreateObject(side.s, priv.data(), priv.size(), &side.priv);
        return rv;
    }

    Side ours, peer;
};

TEST_F(DsaDhInterop, EachTokenVerifiesTheOthersDsaSignatures)
{
    struct Size {
        unsigned bits, qbits;
    };
    for (const Size& size : {Size{1024, 160}, Size{2048, 256}}) {
        SCOPED_TRACE(size.bits);
        OwnedKey key = opensslKey("DSA", size.bits, size.qbits, nullptr);
        ASSERT_NE(key, nullptr);
        ASSERT_EQ(import(ours, key.get(), CKK_DSA), CKR_OK);
        ASSERT_EQ(import(peer, key.get(), CKK_DSA), CKR_OK);
        const Bytes digest(size.qbits / 8, 0x42);
        const Bytes message(77, 0x17);
        for (CK_MECHANISM_TYPE type : {CKM_DSA, CKM_DSA_SHA1}) {
            SCOPED_TRACE(type);
            CK_MECHANISM m{type, nullptr, 0};
            const Bytes& in = type == CKM_DSA ? digest : message;
            for (Side* signer : {&ours, &peer}) {
                Side* verifier = signer == &ours ? &peer : &ours;
                CK_BYTE signature[64];
                CK_ULONG length = sizeof signature;
                ASSERT_EQ(signer->f->C_SignInit(signer->s, &m, signer->priv), CKR_OK);
                ASSERT_EQ(signer->f->C_Sign(signer->s, const_cast<CK_BYTE_PTR>(in.data()), CK_ULONG(in.size()),
                                            signature, &length),
                          CKR_OK);
                EXPECT_EQ(length, 2 * size.qbits / 8);
                for (Side* checker : {verifier, signer}) {
                    ASSERT_EQ(checker->f->C_VerifyInit(checker->s, &m, checker->pub), CKR_OK);
                    EXPECT_EQ(checker->f->C_Verify(checker->s, const_cast<CK_BYTE_PTR>(in.data()), CK_ULONG(in.size()),
                                                   signature, length),
                              CKR_OK)
                        << signer->name << " signed, " << checker->name << " verified";
                }
            }
        }
    }
}

TEST_F(DsaDhInterop, BothTokensAndOpenSslDeriveTheSameDiffieHellmanKey)
{
    OwnedKey mine = opensslKey("DH", 0, 0, "ffdhe2048");
    OwnedKey other = opensslKey("DH", 0, 0, "ffdhe2048");
    ASSERT_NE(mine, nullptr);
    ASSERT_NE(other, nullptr);
    // OpenSSL's shared secret, padded to the prime's length.
    EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(mine.get(), nullptr);
    Bytes secret(256);
    size_t secretLen = secret.size();
    ASSERT_EQ(EVP_PKEY_derive_init(ctx), 1);
    EVP_PKEY_CTX_set_dh_pad(ctx, 1);
    ASSERT_EQ(EVP_PKEY_derive_set_peer(ctx, other.get()), 1);
    ASSERT_EQ(EVP_PKEY_derive(ctx, secret.data(), &secretLen), 1);
    EVP_PKEY_CTX_free(ctx);
    ASSERT_EQ(secretLen, 256u);

    Bytes peerValue = keyNumber(other.get(), "pub");
    for (CK_ULONG length : {CK_ULONG(16), CK_ULONG(256)}) {
        SCOPED_TRACE(length);
        Bytes derived[2];
        for (Side* side : {&ours, &peer}) {
            ASSERT_EQ(import(*side, mine.get(), CKK_DH), CKR_OK);
            CK_MECHANISM m{CKM_DH_PKCS_DERIVE, peerValue.data(), CK_ULONG(peerValue.size())};
            Tmpl t;
            t.ulong(CKA_CLASS, CKO_SECRET_KEY).ulong(CKA_KEY_TYPE, CKK_GENERIC_SECRET).ulong(CKA_VALUE_LEN, length);
            t.flag(CKA_SENSITIVE, false).flag(CKA_EXTRACTABLE, true);
            CK_OBJECT_HANDLE key = CK_INVALID_HANDLE;
            ASSERT_EQ(side->f->C_DeriveKey(side->s, &m, side->priv, t.data(), t.size(), &key), CKR_OK) << side->name;
            CK_ATTRIBUTE a{CKA_VALUE, nullptr, 0};
            ASSERT_EQ(side->f->C_GetAttributeValue(side->s, key, &a, 1), CKR_OK);
            derived[side == &peer].assign(a.ulValueLen, 0);
            a.pValue = derived[side == &peer].data();
            ASSERT_EQ(side->f->C_GetAttributeValue(side->s, key, &a, 1), CKR_OK);
        }
        EXPECT_EQ(derived[0], derived[1]);
        EXPECT_EQ(derived[0], Bytes(secret.end() - length, secret.end()));
    }
}

}  // namespace
}  // namespace korvo
