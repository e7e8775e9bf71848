// SSL 3.0 and TLS 1.0 key derivation through the C ABI: the TLS PRF's
// published answer, the pre-master secrets, and master secrets and key
// blocks that NSS's software token, given the same secrets and randoms,
// derives alike; and what wrong parameters get.

#include <gtest/gtest.h>

#include "abi/peer_module.h"
#include "support/vectors.h"

namespace korvo {
namespace {

Bytes pattern(size_t n, CK_BYTE seed)
{
    Bytes out(n);
    for (size_t i = 0; i < n; ++i) out[i] = CK_BYTE(seed + 13 * i);
    return out;
}

class Tls : public ObjectTest {
protected:
    P11Side ours, peer;

    void SetUp() override
    {
        ObjectTest::SetUp();
        if (HasFatalFailure()) return;
        ours = {p, session, "Korvo"};
        std::string why;
        ASSERT_TRUE(openSoftokn(&peer, &why)) << why;
    }
    void TearDown() override
    {
        closeSide(&peer);
        ObjectTest::TearDown();
    }

    static CK_OBJECT_HANDLE secret(const P11Side& side, const Bytes& value)
    {
        Tmpl t;
        t.ulong(CKA_CLASS, CKO_SECRET_KEY).ulong(CKA_KEY_TYPE, CKK_GENERIC_SECRET).flag(CKA_TOKEN, false);
        t.flag(CKA_DERIVE, true).flag(CKA_SENSITIVE, false).flag(CKA_EXTRACTABLE, true).add(CKA_VALUE, value);
        CK_OBJECT_HANDLE handle = CK_INVALID_HANDLE;
        EXPECT_EQ(createObject(side, t, &handle), CKR_OK) << side.name;
        return handle;
    }

    static Tmpl readable()
    {
        Tmpl t;
        t.ulong(CKA_CLASS, CKO_SECRET_KEY).ulong(CKA_KEY_TYPE, CKK_GENERIC_SECRET).flag(CKA_TOKEN, false);
        t.flag(CKA_SENSITIVE, false).flag(CKA_EXTRACTABLE, true).flag(CKA_DERIVE, true);
        return t;
    }

    static Bytes valueOf(const P11Side& side, CK_OBJECT_HANDLE key)
    {
        Bytes v;
        EXPECT_EQ(attribute(side, key, CKA_VALUE, &v), CKR_OK) << side.name;
        return v;
    }

};

TEST_F(Tls, PrfGivesThePublishedAnswer)
{
    const auto cases = vectors::load("tls_prf.txt");
    ASSERT_EQ(cases.size(), 1u);
    for (const vectors::Case& c : cases) {
        Bytes label = vectors::hex(c[1]), seed = vectors::hex(c[2]);
        const Bytes expected = vectors::hex(c[3]);
        Bytes output(expected.size());
        CK_ULONG length = output.size();
        CK_TLS_PRF_PARAMS params{seed.data(), CK_ULONG(seed.size()), label.data(), CK_ULONG(label.size()), output.data(),
                                 &length};
        CK_MECHANISM m{CKM_TLS_PRF, &params, sizeof params};
        const CK_OBJECT_HANDLE base = secret(ours, vectors::hex(c[0]));
        Tmpl t = readable();
        const size_t before = find().size();
        ASSERT_EQ(p->C_DeriveKey(session, &m, base, t.data(), t.size(), nullptr), CKR_OK);
        EXPECT_EQ(output, expected);
        EXPECT_EQ(find().size(), before);
    }
}

TEST_F(Tls, PreMasterSecretsCarryTheClientVersion)
{
    for (CK_MECHANISM_TYPE type : {CKM_SSL3_PRE_MASTER_KEY_GEN, CKM_TLS_PRE_MASTER_KEY_GEN}) {
        CK_VERSION version{3, 1};
        CK_MECHANISM m{type, &version, sizeof version};
        Tmpl t;
        t.flag(CKA_SENSITIVE, false).flag(CKA_DERIVE, true);
        CK_OBJECT_HANDLE key = CK_INVALID_HANDLE;
        ASSERT_EQ(p->C_GenerateKey(session, &m, t.data(), t.size(), &key), CKR_OK);
        const Bytes v = value(key, CKA_VALUE);
        ASSERT_EQ(v.size(), 48u);
        EXPECT_EQ(v[0], 3);
        EXPECT_EQ(v[1], 1);
        EXPECT_EQ(value(key, CKA_KEY_GEN_MECHANISM), ulongBytes(type));
        CK_MECHANISM noVersion{type, nullptr, 0};
        EXPECT_EQ(p->C_GenerateKey(session, &noVersion, t.data(), t.size(), &key), CKR_MECHANISM_PARAM_INVALID);
    }
}

// The same pre-master secret and randoms on both tokens: the same master
// secret (and version), then the same MAC secrets, keys and IVs.
TEST_F(Tls, MasterSecretsAndKeyBlocksAgreeWithThePeer)
{
    struct Case {
        const char* name;
        CK_MECHANISM_TYPE master, keys;
        bool dh;
        CK_KEY_TYPE keyType;  // of the cipher keys
        CK_ULONG keyBytes, ivBytes;
    };
    // Triple DES keys come out with odd parity, as the peer makes them.
    const Case cases[] = {
        {"SSL 3.0", CKM_SSL3_MASTER_KEY_DERIVE, CKM_SSL3_KEY_AND_MAC_DERIVE, false, CKK_AES, 16, 16},
        {"TLS 1.0", CKM_TLS_MASTER_KEY_DERIVE, CKM_TLS_KEY_AND_MAC_DERIVE, false, CKK_AES, 16, 16},
        {"SSL 3.0 DH", CKM_SSL3_MASTER_KEY_DERIVE_DH, CKM_SSL3_KEY_AND_MAC_DERIVE, true, CKK_AES, 16, 16},
        {"TLS 1.0 DH", CKM_TLS_MASTER_KEY_DERIVE_DH, CKM_TLS_KEY_AND_MAC_DERIVE, true, CKK_AES, 16, 16},
        {"TLS 1.0 triple DES", CKM_TLS_MASTER_KEY_DERIVE, CKM_TLS_KEY_AND_MAC_DERIVE, false, CKK_DES3, 24, 8},
        {"SSL 3.0 triple DES", CKM_SSL3_MASTER_KEY_DERIVE, CKM_SSL3_KEY_AND_MAC_DERIVE, false, CKK_DES3, 24, 8},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Bytes preMaster = pattern(c.dh ? 96 : 48, 0x21);
        preMaster[0] = 3;
        preMaster[1] = 1;
        Bytes clientRandom = pattern(32, 0x51), serverRandom = pattern(32, 0x93);
        Bytes masters[2], blocks[2];
        for (int side = 0; side < 2; ++side) {
            const P11Side& s = side ? peer : ours;
            SCOPED_TRACE(s.name);
            CK_VERSION version{0, 0};
            CK_SSL3_MASTER_KEY_DERIVE_PARAMS masterParams{
                {clientRandom.data(), 32, serverRandom.data(), 32}, c.dh ? nullptr : &version};
            CK_MECHANISM derive{c.master, &masterParams, sizeof masterParams};
            Tmpl t = readable();
            CK_OBJECT_HANDLE master = CK_INVALID_HANDLE;
            ASSERT_EQ(s.f->C_DeriveKey(s.s, &derive, secret(s, preMaster), t.data(), t.size(), &master), CKR_OK);
            masters[side] = valueOf(s, master);
            if (!c.dh) {
                EXPECT_EQ(version.major * 256 + version.minor, 0x0301);
            }

            Bytes ivClient(c.ivBytes, 0), ivServer(c.ivBytes, 0);
            CK_SSL3_KEY_MAT_OUT out{CK_INVALID_HANDLE, CK_INVALID_HANDLE, CK_INVALID_HANDLE, CK_INVALID_HANDLE,
                                    ivClient.data(), ivServer.data()};
            CK_SSL3_KEY_MAT_PARAMS keyParams{160, c.keyBytes * 8, c.ivBytes * 8, CK_FALSE,
                                             {clientRandom.data(), 32, serverRandom.data(), 32}, &out};
            CK_MECHANISM keys{c.keys, &keyParams, sizeof keyParams};
            Tmpl cipher;
            cipher.ulong(CKA_CLASS, CKO_SECRET_KEY).ulong(CKA_KEY_TYPE, c.keyType).ulong(CKA_VALUE_LEN, c.keyBytes);
            cipher.flag(CKA_TOKEN, false);
            cipher.flag(CKA_SENSITIVE, false).flag(CKA_EXTRACTABLE, true).flag(CKA_ENCRYPT, true).flag(CKA_DECRYPT, true);
            ASSERT_EQ(s.f->C_DeriveKey(s.s, &keys, master, cipher.data(), cipher.size(), nullptr), CKR_OK);
            for (CK_OBJECT_HANDLE h : {out.hClientMacSecret, out.hServerMacSecret, out.hClientKey, out.hServerKey}) {
                const Bytes v = valueOf(s, h);
                blocks[side].insert(blocks[side].end(), v.begin(), v.end());
            }
            blocks[side].insert(blocks[side].end(), ivClient.begin(), ivClient.end());
            blocks[side].insert(blocks[side].end(), ivServer.begin(), ivServer.end());
            if (side == 0) {
                EXPECT_EQ(value(out.hClientKey, CKA_KEY_TYPE), ulongBytes(c.keyType));
                EXPECT_EQ(value(out.hClientMacSecret, CKA_SIGN), Bytes{CK_TRUE});
            }
        }
        EXPECT_EQ(masters[0].size(), 48u);
        EXPECT_EQ(masters[0], masters[1]);
        EXPECT_EQ(blocks[0].size(), 2 * 20 + 2 * c.keyBytes + 2 * c.ivBytes);
        EXPECT_EQ(blocks[0], blocks[1]);
    }
}

TEST_F(Tls, WrongParametersGetTheirCodesAndLeaveNoKeys)
{
    const CK_OBJECT_HANDLE master = secret(ours, pattern(48, 7));
    const CK_OBJECT_HANDLE short47 = secret(ours, pattern(47, 7));
    Bytes client = pattern(32, 1), server = pattern(32, 2), iv(16);
    CK_VERSION version{};
    CK_SSL3_KEY_MAT_OUT out{0, 0, 0, 0, iv.data(), iv.data()};
    CK_SSL3_KEY_MAT_OUT noIvs{0, 0, 0, 0, nullptr, nullptr};
    CK_SSL3_KEY_MAT_PARAMS good{160, 128, 128, CK_FALSE, {client.data(), 32, server.data(), 32}, &out};
    CK_SSL3_KEY_MAT_PARAMS noOut = good, ivsMissing = good, oddBits = good, noRandom = good;
    noOut.pReturnedKeyMaterial = nullptr;
    ivsMissing.pReturnedKeyMaterial = &noIvs;
    oddBits.ulMacSizeInBits = 161;
    noRandom.RandomInfo.pClientRandom = nullptr;
    CK_SSL3_MASTER_KEY_DERIVE_PARAMS noVersion{{client.data(), 32, server.data(), 32}, nullptr};
    CK_SSL3_MASTER_KEY_DERIVE_PARAMS withVersion{{client.data(), 32, server.data(), 32}, &version};
    struct Case {
        const char* name;
        CK_MECHANISM m;
        CK_OBJECT_HANDLE base;
        CK_RV rv;
    };
    const Case cases[] = {
        {"no key material out", {CKM_TLS_KEY_AND_MAC_DERIVE, &noOut, sizeof noOut}, master, CKR_MECHANISM_PARAM_INVALID},
        {"IVs without room", {CKM_SSL3_KEY_AND_MAC_DERIVE, &ivsMissing, sizeof ivsMissing}, master,
         CKR_MECHANISM_PARAM_INVALID},
        {"a size in odd bits", {CKM_TLS_KEY_AND_MAC_DERIVE, &oddBits, sizeof oddBits}, master, CKR_MECHANISM_PARAM_INVALID},
        {"a random missing", {CKM_TLS_KEY_AND_MAC_DERIVE, &noRandom, sizeof noRandom}, master, CKR_MECHANISM_PARAM_INVALID},
        {"a short structure", {CKM_TLS_KEY_AND_MAC_DERIVE, &good, sizeof good - 8}, master, CKR_MECHANISM_PARAM_INVALID},
        {"a master of 47 bytes", {CKM_TLS_KEY_AND_MAC_DERIVE, &good, sizeof good}, short47, CKR_KEY_SIZE_RANGE},
        {"no version out", {CKM_TLS_MASTER_KEY_DERIVE, &noVersion, sizeof noVersion}, master, CKR_MECHANISM_PARAM_INVALID},
        {"a pre-master of 47 bytes", {CKM_SSL3_MASTER_KEY_DERIVE, &withVersion, sizeof withVersion}, short47,
         CKR_KEY_SIZE_RANGE},
    };
    const size_t before = find().size();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Tmpl t = readable();
        CK_MECHANISM m = c.m;
        CK_OBJECT_HANDLE made = CK_INVALID_HANDLE;
        EXPECT_EQ(p->C_DeriveKey(session, &m, c.base, t.data(), t.size(), &made), c.rv);
    }
    EXPECT_EQ(find().size(), before);
    // A caller that asks for no handle gets the four keys and nothing more.
    CK_MECHANISM m{CKM_TLS_KEY_AND_MAC_DERIVE, &good, sizeof good};
    Tmpl t = readable();
    ASSERT_EQ(p->C_DeriveKey(session, &m, master, t.data(), t.size(), nullptr), CKR_OK);
    EXPECT_EQ(find().size(), before + 4);
}

}  // namespace
}  // namespace korvo
