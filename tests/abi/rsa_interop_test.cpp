// RSA session keys of the module against two independent implementations:
// OpenSSL (called directly) and NSS's software token (libsoftokn3, loaded
// through the same C ABI with its parameter string where Cryptoki has
// pReserved). One table of mechanisms over two key sizes: deterministic
// results must be byte for byte the same everywhere, randomised ones must
// verify or decrypt everywhere. Keys the module generates load into OpenSSL.
// Where the peer departs from Cryptoki 2.20 (a substitute plaintext for bad
// PKCS #1 v1.5 padding, CKR_SIGNATURE_INVALID for a wrong signature length),
// the module answers as Cryptoki has it: the bad-input table checks the
// module alone.

#include <openssl/core_names.h>
#include <openssl/param_build.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "abi/object_helpers.h"
#include "abi/rsa_reference.h"
#include "abi/softokn_peer.h"

namespace korvo {
namespace {

using OwnedKey = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;

CK_RV import(Side& side, EVP_PKEY* key)
{
    Tmpl pub;
    pub.ulong(CKA_CLASS, CKO_PUBLIC_KEY).ulong(CKA_KEY_TYPE, CKK_RSA).flag(CKA_TOKEN, false);
    pub.add(CKA_MODULUS, keyNumber(key, "n")).add(CKA_PUBLIC_EXPONENT, keyNumber(key, "e"));
    Tmpl priv;
    priv.ulong(CKA_CLASS, CKO_PRIVATE_KEY).ulong(CKA_KEY_TYPE, CKK_RSA).flag(CKA_TOKEN, false).flag(CKA_PRIVATE, false);
    priv.add(CKA_MODULUS, keyNumber(key, "n")).add(CKA_PUBLIC_EXPONENT, keyNumber(key, "e"));
    priv.add(CKA_PRIVATE_EXPONENT, keyNumber(key, "d")).add(CKA_PRIME_1, keyNumber(key, "rsa-factor1"));
    priv.add(CKA_PRIME_2, keyNumber(key, "rsa-factor2")).add(CKA_EXPONENT_1, keyNumber(key, "rsa-exponent1"));
    priv.add(CKA_EXPONENT_2, keyNumber(key, "rsa-exponent2")).add(CKA_COEFFICIENT, keyNumber(key, "rsa-coefficient1"));
    CK_RV rv = side.f->C_CreateObject(side.s, pub.data(), pub.size(), &side.pub);
    if (rv == CKR_OK) rv = side.f->C_CreateObject(side.s, priv.data(), priv.size(), &side.priv);
    return rv;
}

// One call of a single-part operation, with a size query first.
CK_RV run(Side& side, bool sign, CK_MECHANISM& m, const Bytes& in, Bytes* out)
{
    CK_RV rv = sign ? side.f->C_SignInit(side.s, &m, side.priv) : side.f->C_EncryptInit(side.s, &m, side.pub);
    if (rv != CKR_OK) return rv;
    CK_ULONG length = 0;
    CK_BYTE_PTR data = const_cast<CK_BYTE_PTR>(in.data());
    rv = sign ? side.f->C_Sign(side.s, data, CK_ULONG(in.size()), nullptr, &length)
              : side.f->C_Encrypt(side.s, data, CK_ULONG(in.size()), nullptr, &length);
    if (rv != CKR_OK) return rv;
    out->assign(length, 0);
    rv = sign ? side.f->C_Sign(side.s, data, CK_ULONG(in.size()), out->data(), &length)
              : side.f->C_Encrypt(side.s, data, CK_ULONG(in.size()), out->data(), &length);
    out->resize(length);
    return rv;
}

CK_RV check(Side& side, CK_MECHANISM& m, const Bytes& data, const Bytes& signature)
{
    CK_RV rv = side.f->C_VerifyInit(side.s, &m, side.pub);
    if (rv == CKR_OK)
        rv = side.f->C_Verify(side.s, const_cast<CK_BYTE_PTR>(data.data()), CK_ULONG(data.size()),
                              const_cast<CK_BYTE_PTR>(signature.data()), CK_ULONG(signature.size()));
    return rv;
}

CK_RV decrypt(Side& side, CK_MECHANISM& m, const Bytes& in, Bytes* out)
{
    CK_RV rv = side.f->C_DecryptInit(side.s, &m, side.priv);
    if (rv != CKR_OK) return rv;
    out->assign(in.size(), 0);
    CK_ULONG length = CK_ULONG(out->size());
    rv = side.f->C_Decrypt(side.s, const_cast<CK_BYTE_PTR>(in.data()), CK_ULONG(in.size()), out->data(), &length);
    out->resize(length);
    return rv;
}

// ---- OpenSSL as the reference ----

enum class Kind { Pkcs1, Raw, Hashed, Pss, PssDigest, Oaep };

struct Mech {
    const char* name;
    CK_MECHANISM_TYPE type;
    Kind kind;
    const char* md;  // hash (and MGF1 and label hash) of the mechanism, if any
    CK_MECHANISM_TYPE hashAlg;
    CK_RSA_PKCS_MGF_TYPE mgf;
    const char* label;
};

const Mech kMechs[] = {
    {"RSA_PKCS", CKM_RSA_PKCS, Kind::Pkcs1, nullptr, 0, 0, nullptr},
    {"RSA_X_509", CKM_RSA_X_509, Kind::Raw, nullptr, 0, 0, nullptr},
    {"MD5_RSA_PKCS", CKM_MD5_RSA_PKCS, Kind::Hashed, "MD5", 0, 0, nullptr},
    {"SHA1_RSA_PKCS", CKM_SHA1_RSA_PKCS, Kind::Hashed, "SHA1", 0, 0, nullptr},
    {"SHA256_RSA_PKCS", CKM_SHA256_RSA_PKCS, Kind::Hashed, "SHA256", 0, 0, nullptr},
    {"SHA384_RSA_PKCS", CKM_SHA384_RSA_PKCS, Kind::Hashed, "SHA384", 0, 0, nullptr},
    {"SHA512_RSA_PKCS", CKM_SHA512_RSA_PKCS, Kind::Hashed, "SHA512", 0, 0, nullptr},
    {"RSA_PKCS_PSS", CKM_RSA_PKCS_PSS, Kind::PssDigest, "SHA256", CKM_SHA256, CKG_MGF1_SHA256, nullptr},
    {"SHA1_RSA_PKCS_PSS", CKM_SHA1_RSA_PKCS_PSS, Kind::Pss, "SHA1", CKM_SHA_1, CKG_MGF1_SHA1, nullptr},
    {"SHA256_RSA_PKCS_PSS", CKM_SHA256_RSA_PKCS_PSS, Kind::Pss, "SHA256", CKM_SHA256, CKG_MGF1_SHA256, nullptr},
    {"SHA384_RSA_PKCS_PSS", CKM_SHA384_RSA_PKCS_PSS, Kind::Pss, "SHA384", CKM_SHA384, CKG_MGF1_SHA384, nullptr},
    {"SHA512_RSA_PKCS_PSS", CKM_SHA512_RSA_PKCS_PSS, Kind::Pss, "SHA512", CKM_SHA512, CKG_MGF1_SHA512, nullptr},
    {"OAEP_SHA1", CKM_RSA_PKCS_OAEP, Kind::Oaep, "SHA1", CKM_SHA_1, CKG_MGF1_SHA1, nullptr},
    {"OAEP_SHA256_label", CKM_RSA_PKCS_OAEP, Kind::Oaep, "SHA256", CKM_SHA256, CKG_MGF1_SHA256, "a label"},
};

bool isSignature(Kind kind)
{
    return kind != Kind::Oaep;
}

// The mechanism with its parameter structure (kept in `pss`/`oaep`).
CK_MECHANISM mechanismOf(const Mech& m, CK_RSA_PKCS_PSS_PARAMS* pss, CK_RSA_PKCS_OAEP_PARAMS* oaep)
{
    if (m.kind == Kind::Pss || m.kind == Kind::PssDigest) {
        *pss = {m.hashAlg, m.mgf, CK_ULONG(EVP_MD_get_size(EVP_get_digestbyname(m.md)))};
        return {m.type, pss, sizeof *pss};
    }
    if (m.kind == Kind::Oaep) {
        *oaep = {m.hashAlg, m.mgf, CKZ_DATA_SPECIFIED, (CK_VOID_PTR)m.label,
                 m.label ? CK_ULONG(std::strlen(m.label)) : 0};
        return {m.type, oaep, sizeof *oaep};
    }
    return {m.type, nullptr, 0};
}

// The input a mechanism signs: a message, a digest, a DigestInfo, a block.
Bytes inputFor(const Mech& m, size_t k)
{
    Bytes message(100);
    for (size_t i = 0; i < message.size(); ++i) message[i] = CK_BYTE(i * 13 + 1);
    if (m.kind == Kind::Hashed || m.kind == Kind::Pss) return message;
    if (m.kind == Kind::PssDigest) {
        Bytes digest(32);
        unsigned int length = 0;
        EVP_Digest(message.data(), message.size(), digest.data(), &length, EVP_sha256(), nullptr);
        return digest;
    }
    if (m.kind == Kind::Raw) {
        Bytes block(k, 0x5A);
        block[0] = 0x00;  // below the modulus
        return block;
    }
    return Bytes(message.begin(), message.begin() + 35);
}

void configure(EVP_PKEY_CTX* ctx, const Mech& m)
{
    switch (m.kind) {
    case Kind::Pkcs1: EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_PADDING); break;
    case Kind::Raw: EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_NO_PADDING); break;
    case Kind::Hashed: EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_PADDING); break;
    case Kind::Pss:
    case Kind::PssDigest:
        EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_PSS_PADDING);
        EVP_PKEY_CTX_set_rsa_pss_saltlen(ctx, RSA_PSS_SALTLEN_DIGEST);
        EVP_PKEY_CTX_set_rsa_mgf1_md(ctx, EVP_get_digestbyname(m.md));
        break;
    case Kind::Oaep:
        EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_OAEP_PADDING);
        EVP_PKEY_CTX_set_rsa_oaep_md(ctx, EVP_get_digestbyname(m.md));
        EVP_PKEY_CTX_set_rsa_mgf1_md(ctx, EVP_get_digestbyname(m.md));
        if (m.label) EVP_PKEY_CTX_set0_rsa_oaep_label(ctx, OPENSSL_strdup(m.label), int(std::strlen(m.label)));
        break;
    }
}

// OpenSSL signs (or encrypts) the input as the mechanism would.
Bytes opensslMake(EVP_PKEY* key, const Mech& m, const Bytes& in)
{
    Bytes out(EVP_PKEY_get_size(key));
    size_t length = out.size();
    if (m.kind == Kind::Hashed || m.kind == Kind::Pss) {
        EVP_MD_CTX* ctx = EVP_MD_CTX_new();
        EVP_PKEY_CTX* pctx = nullptr;
        EVP_DigestSignInit(ctx, &pctx, EVP_get_digestbyname(m.md), nullptr, key);
        configure(pctx, m);
        const bool ok = EVP_DigestSign(ctx, out.data(), &length, in.data(), in.size()) == 1;
        EVP_MD_CTX_free(ctx);
        return ok ? out : Bytes();
    }
    EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(key, nullptr);
    bool ok = m.kind == Kind::Oaep ? EVP_PKEY_encrypt_init(ctx) == 1 : EVP_PKEY_sign_init(ctx) == 1;
    configure(ctx, m);
    if (m.kind == Kind::PssDigest) EVP_PKEY_CTX_set_signature_md(ctx, EVP_sha256());
    ok = ok && (m.kind == Kind::Oaep ? EVP_PKEY_encrypt(ctx, out.data(), &length, in.data(), in.size())
                                     : EVP_PKEY_sign(ctx, out.data(), &length, in.data(), in.size())) == 1;
    EVP_PKEY_CTX_free(ctx);
    return ok ? out : Bytes();
}

// OpenSSL checks a signature (or decrypts and compares).
bool opensslAccepts(EVP_PKEY* key, const Mech& m, const Bytes& in, const Bytes& made)
{
    bool ok = false;
    if (m.kind == Kind::Hashed || m.kind == Kind::Pss) {
        EVP_MD_CTX* ctx = EVP_MD_CTX_new();
        EVP_PKEY_CTX* pctx = nullptr;
        EVP_DigestVerifyInit(ctx, &pctx, EVP_get_digestbyname(m.md), nullptr, key);
        configure(pctx, m);
        ok = EVP_DigestVerify(ctx, made.data(), made.size(), in.data(), in.size()) == 1;
        EVP_MD_CTX_free(ctx);
        return ok;
    }
    EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(key, nullptr);
    if (m.kind == Kind::Oaep) {
        Bytes plain(made.size());
        size_t length = plain.size();
        ok = EVP_PKEY_decrypt_init(ctx) == 1;
        configure(ctx, m);
        ok = ok && EVP_PKEY_decrypt(ctx, plain.data(), &length, made.data(), made.size()) == 1 &&
             Bytes(plain.begin(), plain.begin() + length) == in;
    } else {
        ok = EVP_PKEY_verify_init(ctx) == 1;
        configure(ctx, m);
        if (m.kind == Kind::PssDigest) EVP_PKEY_CTX_set_signature_md(ctx, EVP_sha256());
        ok = ok && EVP_PKEY_verify(ctx, made.data(), made.size(), in.data(), in.size()) == 1;
    }
    EVP_PKEY_CTX_free(ctx);
    return ok;
}

// ---- the tests ----

class RsaInterop : public ObjectTest {
protected:
    Side korvo() { return Side{"Korvo", p, session}; }

};

TEST_F(RsaInterop, EveryMechanismAgreesWithOpenSslAndTheNssSoftwareToken)
{
    Side nss;
    std::string why;
    const bool havePeer = softoknSession(&nss, &why);
    if (!havePeer) {
        std::cout << "[ NOTE ] comparing with OpenSSL only: " << why << "\n";
    }
    for (unsigned bits : {1024u, 2048u}) {
        OwnedKey key(EVP_RSA_gen(bits), EVP_PKEY_free);
        ASSERT_NE(key, nullptr);
        Side ours = korvo();
        ASSERT_EQ(import(ours, key.get()), CKR_OK);
        if (havePeer) {
            ASSERT_EQ(import(nss, key.get()), CKR_OK);
        }
        const size_t k = bits / 8;
        for (const Mech& m : kMechs) {
            SCOPED_TRACE(testing::Message() << m.name << " " << bits);
            CK_RSA_PKCS_PSS_PARAMS pss;
            CK_RSA_PKCS_OAEP_PARAMS oaep;
            CK_MECHANISM mechanism = mechanismOf(m, &pss, &oaep);
            const Bytes in = inputFor(m, k);
            const bool signature = isSignature(m.kind);
            const bool deterministic = m.kind == Kind::Pkcs1 || m.kind == Kind::Raw || m.kind == Kind::Hashed;

            // What the module makes, OpenSSL and the peer accept...
            Bytes made;
            if (bits == 1024 && m.type == CKM_SHA512_RSA_PKCS_PSS) {
                // A 64-byte salt and digest do not fit in 1023 bits.
                EXPECT_EQ(run(ours, signature, mechanism, in, &made), CKR_DATA_LEN_RANGE);
                continue;
            }
            ASSERT_EQ(run(ours, signature, mechanism, in, &made), CKR_OK);
            ASSERT_EQ(made.size(), k);
            if (m.kind != Kind::Raw) {
                EXPECT_TRUE(opensslAccepts(key.get(), m, in, made));
            }
            Bytes theirs;
            if (deterministic) {
                EXPECT_EQ(made, opensslMake(key.get(), m, in));
            }
            if (havePeer && signature) {
                EXPECT_EQ(check(nss, mechanism, in, made), CKR_OK);
                if (deterministic) {
                    ASSERT_EQ(run(nss, true, mechanism, in, &theirs), CKR_OK);
                    EXPECT_EQ(made, theirs);
                }
            }
            if (havePeer && !signature) {
                Bytes plain;
                ASSERT_EQ(decrypt(nss, mechanism, made, &plain), CKR_OK);
                EXPECT_EQ(plain, in);
            }
            // ...and what they make, the module accepts.
            std::vector<Bytes> foreign;
            if (m.kind != Kind::Raw) foreign.push_back(opensslMake(key.get(), m, in));
            if (havePeer) {
                ASSERT_EQ(run(nss, signature, mechanism, in, &theirs), CKR_OK);
                foreign.push_back(theirs);
            }
            for (const Bytes& other : foreign) {
                if (signature) {
                    EXPECT_EQ(check(ours, mechanism, in, other), CKR_OK);
                } else {
                    Bytes plain;
                    ASSERT_EQ(decrypt(ours, mechanism, other, &plain), CKR_OK);
                    EXPECT_EQ(plain, in);
                }
            }
        }
    }
}

TEST_F(RsaInterop, GeneratedKeysLoadIntoOpenSslAndWork)
{
    for (Bytes exponent : {Bytes{0x01, 0x00, 0x01}, Bytes{0x03}}) {
        Tmpl pub;
        pub.ulong(CKA_MODULUS_BITS, 1024).add(CKA_PUBLIC_EXPONENT, exponent);
        Tmpl priv;
        priv.flag(CKA_PRIVATE, false);
        CK_MECHANISM gen{CKM_RSA_PKCS_KEY_PAIR_GEN, nullptr, 0};
        Side ours = korvo();
        ASSERT_EQ(p->C_GenerateKeyPair(session, &gen, pub.data(), pub.size(), priv.data(), priv.size(), &ours.pub,
                                       &ours.priv),
                  CKR_OK);
        const char* names[] = {"n", "e", "d", "rsa-factor1", "rsa-factor2", "rsa-exponent1", "rsa-exponent2",
                               "rsa-coefficient1"};
        const CK_ATTRIBUTE_TYPE types[] = {CKA_MODULUS, CKA_PUBLIC_EXPONENT, CKA_PRIVATE_EXPONENT, CKA_PRIME_1,
                                           CKA_PRIME_2, CKA_EXPONENT_1, CKA_EXPONENT_2, CKA_COEFFICIENT};
        OSSL_PARAM_BLD* builder = OSSL_PARAM_BLD_new();
        std::vector<BIGNUM*> numbers;
        for (int i = 0; i < 8; ++i) {
            const Bytes v = value(ours.priv, types[i]);
            numbers.push_back(BN_bin2bn(v.data(), int(v.size()), nullptr));
            OSSL_PARAM_BLD_push_BN(builder, names[i], numbers.back());
        }
        OSSL_PARAM* params = OSSL_PARAM_BLD_to_param(builder);
        EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr);
        EVP_PKEY* raw = nullptr;
        EVP_PKEY_fromdata_init(ctx);
        EXPECT_EQ(EVP_PKEY_fromdata(ctx, &raw, EVP_PKEY_KEYPAIR, params), 1);
        OwnedKey key(raw, EVP_PKEY_free);
        EVP_PKEY_CTX_free(ctx);
        OSSL_PARAM_free(params);
        OSSL_PARAM_BLD_free(builder);
        for (BIGNUM* n : numbers) BN_free(n);
        ASSERT_NE(key, nullptr);
        EVP_PKEY_CTX* checker = EVP_PKEY_CTX_new(key.get(), nullptr);
        EXPECT_EQ(EVP_PKEY_check(checker), 1);
        EVP_PKEY_CTX_free(checker);
        EXPECT_EQ(value(ours.pub, CKA_PUBLIC_EXPONENT), exponent);

        const Mech& m = kMechs[4];  // SHA256_RSA_PKCS
        CK_MECHANISM mechanism{m.type, nullptr, 0};
        const Bytes in = inputFor(m, 128);
        Bytes made;
        ASSERT_EQ(run(ours, true, mechanism, in, &made), CKR_OK);
        EXPECT_TRUE(opensslAccepts(key.get(), m, in, made));
        EXPECT_EQ(check(ours, mechanism, in, opensslMake(key.get(), m, in)), CKR_OK);
    }
}

// Bad input, each with Cryptoki's code, and the session usable afterwards.
TEST_F(RsaInterop, BadInputGetsCryptokisCodesAndTheSessionGoesOn)
{
    OwnedKey key(EVP_RSA_gen(1024), EVP_PKEY_free);
    Side ours = korvo();
    ASSERT_EQ(import(ours, key.get()), CKR_OK);
    Tmpl noSign;
    noSign.ulong(CKA_CLASS, CKO_PRIVATE_KEY).ulong(CKA_KEY_TYPE, CKK_RSA).flag(CKA_PRIVATE, false).flag(CKA_SIGN, false);
    for (const char* name : {"n", "e", "d"})
        noSign.add(name[0] == 'n' ? CKA_MODULUS : name[0] == 'e' ? CKA_PUBLIC_EXPONENT : CKA_PRIVATE_EXPONENT,
                   keyNumber(key.get(), name));
    const CK_OBJECT_HANDLE unusable = make(noSign);
    const CK_OBJECT_HANDLE secret = make(secretKey());

    CK_RSA_PKCS_PSS_PARAMS pss{CKM_SHA256, CKG_MGF1_SHA256, 32};
    CK_RSA_PKCS_OAEP_PARAMS badOaep{CKM_SHA256, CKG_MGF1_SHA256, 7, nullptr, 0};
    CK_MECHANISM pkcs{CKM_RSA_PKCS, nullptr, 0}, sha{CKM_SHA256_RSA_PKCS, nullptr, 0};
    CK_MECHANISM shortPss{CKM_SHA256_RSA_PKCS_PSS, &pss, sizeof pss - 1}, oaep{CKM_RSA_PKCS_OAEP, &badOaep, sizeof badOaep};
    CK_BYTE data[200] = {1};
    CK_BYTE out[256];
    CK_ULONG outLen = sizeof out;
    Bytes good;
    ASSERT_EQ(run(ours, true, sha, Bytes(data, data + 20), &good), CKR_OK);

    EXPECT_EQ(p->C_SignInit(session, &pkcs, secret), CKR_KEY_TYPE_INCONSISTENT);
    EXPECT_EQ(p->C_SignInit(session, &pkcs, ours.pub), CKR_KEY_TYPE_INCONSISTENT);
    EXPECT_EQ(p->C_SignInit(session, &pkcs, unusable), CKR_KEY_FUNCTION_NOT_PERMITTED);
    EXPECT_EQ(p->C_SignInit(session, &shortPss, ours.priv), CKR_MECHANISM_PARAM_INVALID);
    EXPECT_EQ(p->C_EncryptInit(session, &oaep, ours.pub), CKR_MECHANISM_PARAM_INVALID);
    // Too long for the key.
    ASSERT_EQ(p->C_SignInit(session, &pkcs, ours.priv), CKR_OK);
    EXPECT_EQ(p->C_Sign(session, data, 118, out, &outLen), CKR_DATA_LEN_RANGE);
    EXPECT_EQ(p->C_Sign(session, data, 10, out, &outLen), CKR_OPERATION_NOT_INITIALIZED);
    // A short buffer keeps the operation, which then completes.
    ASSERT_EQ(p->C_SignInit(session, &sha, ours.priv), CKR_OK);
    EXPECT_EQ(p->C_SignInit(session, &sha, ours.priv), CKR_OPERATION_ACTIVE);
    outLen = 10;
    EXPECT_EQ(p->C_Sign(session, data, 20, out, &outLen), CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ(outLen, 128u);
    EXPECT_EQ(p->C_Sign(session, data, 20, out, &outLen), CKR_OK);
    EXPECT_EQ(Bytes(out, out + outLen), good);
    EXPECT_EQ(p->C_SignFinal(session, out, &outLen), CKR_OPERATION_NOT_INITIALIZED);
    // Wrong signature, wrong length.
    Bytes bad = good;
    bad[10] ^= 1;
    EXPECT_EQ(check(ours, sha, Bytes(data, data + 20), bad), CKR_SIGNATURE_INVALID);
    EXPECT_EQ(check(ours, sha, Bytes(data, data + 20), Bytes(good.begin(), good.end() - 1)), CKR_SIGNATURE_LEN_RANGE);
    EXPECT_EQ(p->C_VerifyUpdate(session, data, 1), CKR_OPERATION_NOT_INITIALIZED);
    // Bad padding and a ciphertext of the wrong length on decryption.
    Bytes garbage(128, 0x11);
    Bytes plain;
    EXPECT_EQ(decrypt(ours, pkcs, garbage, &plain), CKR_ENCRYPTED_DATA_INVALID);
    EXPECT_EQ(decrypt(ours, pkcs, Bytes(127, 0x11), &plain), CKR_ENCRYPTED_DATA_LEN_RANGE);
    // The session still works.
    EXPECT_EQ(check(ours, sha, Bytes(data, data + 20), good), CKR_OK);
}

}  // namespace
}  // namespace korvo
