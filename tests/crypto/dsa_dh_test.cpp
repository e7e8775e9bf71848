#include "crypto/crypto_errors.h"
#include "crypto/dh.h"
#include "crypto/dsa.h"
#include "ossl_ref.h"

#include <openssl/core_names.h>
#include <openssl/dsa.h>
#include <openssl/err.h>

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

size_t bits(const crypto_bytes& v) { return static_cast<size_t>(BN_num_bits(ref::bn(v).get())); }

// v + k (k may be negative), through OpenSSL's arithmetic.
crypto_bytes plus(const crypto_bytes& v, long k)
{
    ref::Bn n = ref::bn(v);
    k >= 0 ? BN_add_word(n.get(), static_cast<BN_ULONG>(k)) : BN_sub_word(n.get(), static_cast<BN_ULONG>(-k));
    return ref::bytes(n.get());
}

crypto_bytes word(unsigned long w) { return plus({}, static_cast<long>(w)); }

crypto_bytes powMod(const crypto_bytes& a, const crypto_bytes& e, const crypto_bytes& m)
{
    ref::Bn r(BN_new());
    BN_CTX* ctx = BN_CTX_new();
    BN_mod_exp(r.get(), ref::bn(a).get(), ref::bn(e).get(), ref::bn(m).get(), ctx);
    BN_CTX_free(ctx);
    return ref::bytes(r.get());
}

// Domain parameters are slow to make, so each size is made once.
const dsa_params& dsaParams(unsigned primeBits)
{
    static std::map<unsigned, dsa_params> made;
    if (!made.count(primeBits)) {
        EXPECT_EQ(dsa_generate_params(primeBits, &made[primeBits]), CRYPTO_OK);
    }
    return made[primeBits];
}

struct X942Params {
    crypto_bytes p, q, g;
};

const X942Params& x942Params(unsigned primeBits, unsigned subprimeBits)
{
    static std::map<unsigned, X942Params> made;
    X942Params& d = made[primeBits * 1000 + subprimeBits];
    if (d.p.empty()) {
        EXPECT_EQ(x942_generate_params(primeBits, subprimeBits, &d.p, &d.q, &d.g), CRYPTO_OK);
    }
    return d;
}

Bytes digestOf(const char* md, const std::string& message)
{
    Bytes out(EVP_MAX_MD_SIZE);
    unsigned len = 0;
    EVP_MD* type = EVP_MD_fetch(nullptr, md, nullptr);
    EXPECT_EQ(EVP_Digest(message.data(), message.size(), out.data(), &len, type, nullptr), 1);
    EVP_MD_free(type);
    out.resize(len);
    return out;
}

// OpenSSL's DER form of a signature and our r || s form.
Bytes derOf(const Bytes& raw)
{
    const size_t half = raw.size() / 2;
    DSA_SIG* sig = DSA_SIG_new();
    DSA_SIG_set0(sig, BN_bin2bn(raw.data(), int(half), nullptr), BN_bin2bn(raw.data() + half, int(half), nullptr));
    unsigned char* der = nullptr;
    const int len = i2d_DSA_SIG(sig, &der);
    Bytes out(der, der + len);
    OPENSSL_free(der);
    DSA_SIG_free(sig);
    return out;
}

Bytes rawOf(const Bytes& der, size_t half)
{
    const unsigned char* p = der.data();
    DSA_SIG* sig = d2i_DSA_SIG(nullptr, &p, long(der.size()));
    const BIGNUM *r = nullptr, *s = nullptr;
    DSA_SIG_get0(sig, &r, &s);
    Bytes out(2 * half);
    BN_bn2binpad(r, out.data(), int(half));
    BN_bn2binpad(s, out.data() + half, int(half));
    DSA_SIG_free(sig);
    return out;
}

struct DsaCase {
    unsigned primeBits;
    size_t subprimeBits;
    const char* digest;   // longer than q: both sides use its leftmost bits
};

const DsaCase kDsaCases[] = {
    {1024, 160, "SHA1"},
    {1024, 160, "SHA256"},
    {2048, 256, "SHA256"},
    {2048, 256, "SHA512"},
};

TEST(DsaSignature, InteroperatesWithOpenSslBothWays)
{
    for (const DsaCase& c : kDsaCases) {
        SCOPED_TRACE(std::to_string(c.primeBits) + " bits, " + c.digest);
        const dsa_params& d = dsaParams(c.primeBits);
        ASSERT_EQ(bits(d.p), c.primeBits);
        ASSERT_EQ(bits(d.q), c.subprimeBits);
        EXPECT_EQ(dsa_check_params(d), CRYPTO_OK);
        crypto_bytes x, y;
        ASSERT_EQ(dsa_generate_key(d, &x, &y), CRYPTO_OK);
        ref::Pkey pair = ref::key("DSA", EVP_PKEY_KEYPAIR, {{"p", d.p}, {"q", d.q}, {"g", d.g}, {"priv", x}, {"pub", y}});
        ref::Ctx ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, pair.get(), nullptr));
        EXPECT_EQ(EVP_PKEY_pairwise_check(ctx.get()), 1);

        const Bytes digest = digestOf(c.digest, "DSA message");
        const size_t half = c.subprimeBits / 8;
        Bytes sig(2 * half + 5);
        size_t sigLen = sig.size();
        ASSERT_EQ(dsa_sign(d, x, digest.data(), digest.size(), sig.data(), &sigLen), CRYPTO_OK);
        ASSERT_EQ(sigLen, 2 * half);
        sig.resize(sigLen);
        const Bytes der = derOf(sig);
        ASSERT_EQ(EVP_PKEY_verify_init(ctx.get()), 1);
        EXPECT_EQ(EVP_PKEY_verify(ctx.get(), der.data(), der.size(), digest.data(), digest.size()), 1);

        size_t refLen = 0;
        ASSERT_EQ(EVP_PKEY_sign_init(ctx.get()), 1);
        ASSERT_EQ(EVP_PKEY_sign(ctx.get(), nullptr, &refLen, digest.data(), digest.size()), 1);
        Bytes refDer(refLen);
        ASSERT_EQ(EVP_PKEY_sign(ctx.get(), refDer.data(), &refLen, digest.data(), digest.size()), 1);
        refDer.resize(refLen);
        const Bytes refSig = rawOf(refDer, half);
        EXPECT_EQ(dsa_verify(d, y.data(), y.size(), digest.data(), digest.size(), refSig.data(), refSig.size()), CRYPTO_OK);
    }
}

// Changes to a good signature (or to what it is checked against).
struct Tamper {
    const char* what;
    void (*change)(Bytes& sig, Bytes& digest, crypto_bytes& y, const dsa_params& d);
    int expected;
};

const Tamper kTampers[] = {
    {"nothing", [](Bytes&, Bytes&, crypto_bytes&, const dsa_params&) {}, CRYPTO_OK},
    {"bit of r", [](Bytes& s, Bytes&, crypto_bytes&, const dsa_params&) { s[3] ^= 0x10; }, CRYPTO_ERR_VERIFY_FAILED},
    {"bit of s", [](Bytes& s, Bytes&, crypto_bytes&, const dsa_params&) { s.back() ^= 1; }, CRYPTO_ERR_VERIFY_FAILED},
    {"digest", [](Bytes&, Bytes& m, crypto_bytes&, const dsa_params&) { m[0] ^= 0x80; }, CRYPTO_ERR_VERIFY_FAILED},
    {"public value", [](Bytes&, Bytes&, crypto_bytes& y, const dsa_params& d) { y = d.g; }, CRYPTO_ERR_VERIFY_FAILED},
    {"public value 0", [](Bytes&, Bytes&, crypto_bytes& y, const dsa_params&) { y.clear(); }, CRYPTO_ERR_VERIFY_FAILED},
    {"r zero", [](Bytes& s, Bytes&, crypto_bytes&, const dsa_params&) { std::fill(s.begin(), s.begin() + 20, 0); },
     CRYPTO_ERR_VERIFY_FAILED},
    {"s = q", [](Bytes& s, Bytes&, crypto_bytes&, const dsa_params& d) { std::copy(d.q.begin(), d.q.end(), s.begin() + 20); },
     CRYPTO_ERR_VERIFY_FAILED},
    {"one byte short", [](Bytes& s, Bytes&, crypto_bytes&, const dsa_params&) { s.pop_back(); }, CRYPTO_ERR_DATA_RANGE},
    {"one byte long", [](Bytes& s, Bytes&, crypto_bytes&, const dsa_params&) { s.push_back(0); }, CRYPTO_ERR_DATA_RANGE},
};

TEST(DsaSignature, TamperedSignaturesFail)
{
    const dsa_params& d = dsaParams(1024);
    crypto_bytes x, y;
    ASSERT_EQ(dsa_generate_key(d, &x, &y), CRYPTO_OK);
    const Bytes digest = digestOf("SHA1", "tamper");
    Bytes sig(40);
    size_t sigLen = 39;
    EXPECT_EQ(dsa_sign(d, x, digest.data(), digest.size(), sig.data(), &sigLen), CRYPTO_ERR_BAD_PARAMETER);
    EXPECT_EQ(sigLen, 40u);
    ASSERT_EQ(dsa_sign(d, x, digest.data(), digest.size(), sig.data(), &sigLen), CRYPTO_OK);
    for (const Tamper& t : kTampers) {
        Bytes s = sig, m = digest;
        crypto_bytes pub = y;
        t.change(s, m, pub, d);
        EXPECT_EQ(dsa_verify(d, pub.data(), pub.size(), m.data(), m.size(), s.data(), s.size()), t.expected) << t.what;
    }
}

// Which number of a group a check is given a changed value of.
enum Target { kP, kQ, kG, kY };

struct GroupTweak {
    const char* what;
    Target target;
    long add;          // added to the number, unless `value` is set
    long value;        // replaces it when non-negative
};

const GroupTweak kTweaks[] = {
    {"as generated", kG, 0, -1},
    {"p + 2", kP, 2, -1},
    {"q + 2", kQ, 2, -1},
    {"g + 1", kG, 1, -1},
    {"g = 1", kG, 0, 1},
    {"g = 0", kG, 0, 0},
    {"y + 1", kY, 1, -1},
    {"y = 1", kY, 0, 1},
};

TEST(GroupChecks, AcceptGeneratedGroupsAndRejectTweakedOnes)
{
    const dsa_params& dsa = dsaParams(1024);
    const X942Params& dh = x942Params(1024, 160);
    crypto_bytes x, y;
    ASSERT_EQ(dh_generate_key(dh.p, dh.g, &dh.q, 0, &x, &y), CRYPTO_OK);
    for (const GroupTweak& t : kTweaks) {
        const bool untouched = t.add == 0 && t.value < 0;
        const int expected = untouched ? CRYPTO_OK : CRYPTO_ERR_VERIFY_FAILED;
        auto tweak = [&](crypto_bytes v) { return t.value >= 0 ? word(static_cast<unsigned long>(t.value)) : plus(v, t.add); };
        X942Params e = dh;
        crypto_bytes ey = y;
        crypto_bytes* targets[] = {&e.p, &e.q, &e.g, &ey};
        *targets[t.target] = tweak(*targets[t.target]);
        EXPECT_EQ(x942_check_public(e.p, e.q, e.g, ey), expected) << t.what;
        if (t.target == kY) continue;
        dsa_params f = dsa;
        crypto_bytes* dsaTargets[] = {&f.p, &f.q, &f.g};
        *dsaTargets[t.target] = tweak(*dsaTargets[t.target]);
        EXPECT_EQ(dsa_check_params(f), expected) << "DSA " << t.what;
    }
    // OpenSSL finds the generated X9.42 parameters sound as well.
    ref::Pkey params = ref::key("DHX", EVP_PKEY_KEY_PARAMETERS, {{"p", dh.p}, {"q", dh.q}, {"g", dh.g}});
    ref::Ctx ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, params.get(), nullptr));
    EXPECT_EQ(EVP_PKEY_param_check(ctx.get()), 1);
}

struct DhCase {
    const char* what;
    unsigned primeBits;
    unsigned subprimeBits;   // 0: PKCS #3
    unsigned valueBits;
    bool wellKnownGroup;     // the 2048-bit group of RFC 3526 instead of generated parameters
};

const DhCase kDhCases[] = {
    {"PKCS #3, generated, full-size private value", 512, 0, 0, false},
    {"PKCS #3, generated, 200-bit private value", 512, 0, 200, false},
    {"PKCS #3, RFC 3526 group, 256-bit private value", 2048, 0, 256, true},
    {"X9.42 1024/160", 1024, 160, 0, false},
    {"X9.42 2048/256", 2048, 256, 0, false},
};

TEST(DhAgreement, BothPartiesAgreeWithOpenSsl)
{
    for (const DhCase& c : kDhCases) {
        SCOPED_TRACE(c.what);
        crypto_bytes p, q, g;
        if (c.wellKnownGroup) {
            ref::Bn prime(BN_get_rfc3526_prime_2048(nullptr));
            p = ref::bytes(prime.get());
            g = word(2);
        } else if (c.subprimeBits == 0) {
            ASSERT_EQ(dh_generate_params(c.primeBits, &p, &g), CRYPTO_OK);
            // A safe prime with generator 2.
            ref::Bn half = ref::bn(p);
            BN_rshift1(half.get(), half.get());
            EXPECT_EQ(BN_check_prime(ref::bn(p).get(), nullptr, nullptr), 1);
            EXPECT_EQ(BN_check_prime(half.get(), nullptr, nullptr), 1);
            EXPECT_EQ(g, word(2));
        } else {
            const X942Params& d = x942Params(c.primeBits, c.subprimeBits);
            p = d.p, q = d.q, g = d.g;
            EXPECT_EQ(bits(q), c.subprimeBits);
        }
        EXPECT_EQ(bits(p), c.primeBits);
        const crypto_bytes* subprime = q.empty() ? nullptr : &q;
        crypto_bytes x, y;
        ASSERT_EQ(dh_generate_key(p, g, subprime, c.valueBits, &x, &y), CRYPTO_OK);
        if (c.valueBits != 0) {
            EXPECT_EQ(bits(x), c.valueBits);
        }
        if (subprime != nullptr) {
            EXPECT_EQ(x942_check_public(p, q, g, y), CRYPTO_OK);
        }

        const char* type = subprime != nullptr ? "DHX" : "DH";
        ref::Fields group = {{"p", p}, {"g", g}};
        if (subprime != nullptr) group.push_back({"q", q});
        ref::Pkey peer = ref::keygen(ref::key(type, EVP_PKEY_KEY_PARAMETERS, group).get());
        ref::Fields ours = group;
        ours.push_back({"pub", y});
        ref::Pkey ourPublic = ref::key(type, EVP_PKEY_PUBLIC_KEY, ours);

        ref::Ctx ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, peer.get(), nullptr));
        size_t len = 0;
        ASSERT_EQ(EVP_PKEY_derive_init(ctx.get()), 1);
        ASSERT_EQ(EVP_PKEY_CTX_set_dh_pad(ctx.get(), 1), 1);
        ASSERT_EQ(EVP_PKEY_derive_set_peer(ctx.get(), ourPublic.get()), 1);
        ASSERT_EQ(EVP_PKEY_derive(ctx.get(), nullptr, &len), 1);
        crypto_bytes expected(len);
        ASSERT_EQ(EVP_PKEY_derive(ctx.get(), expected.data(), &len), 1);

        const crypto_bytes peerY = ref::get(peer.get(), "pub");
        crypto_bytes secret;
        ASSERT_EQ(dh_compute_secret(p, g, subprime, x, peerY.data(), peerY.size(), &secret), CRYPTO_OK);
        EXPECT_EQ(secret.size(), p.size());
        EXPECT_EQ(ref::hex(secret), ref::hex(expected));
    }
}

TEST(DhAgreement, RefusesPeerValuesOutsideTheGroup)
{
    const X942Params& d = x942Params(1024, 160);
    crypto_bytes p, g, x, y, xq, yq, secret;
    ASSERT_EQ(dh_generate_params(512, &p, &g), CRYPTO_OK);
    ASSERT_EQ(dh_generate_key(p, g, nullptr, 0, &x, &y), CRYPTO_OK);
    ASSERT_EQ(dh_generate_key(d.p, d.g, &d.q, 0, &xq, &yq), CRYPTO_OK);
    // 2 is in (1, p - 1) but, for these parameters, almost surely not of order q.
    ASSERT_NE(powMod(word(2), d.q, d.p), word(1));

    struct PeerCase {
        const char* what;
        bool x942;
        crypto_bytes peer;
        int expected;
    };
    crypto_bytes padded = y;
    padded.insert(padded.begin(), 3, 0);
    const PeerCase cases[] = {
        {"own value", false, y, CRYPTO_OK},
        {"own value with leading zeros", false, padded, CRYPTO_OK},
        {"0", false, {}, CRYPTO_ERR_DATA_RANGE},
        {"1", false, word(1), CRYPTO_ERR_DATA_RANGE},
        {"p - 1", false, plus(p, -1), CRYPTO_ERR_DATA_RANGE},
        {"p", false, p, CRYPTO_ERR_DATA_RANGE},
        {"p + 1", false, plus(p, 1), CRYPTO_ERR_DATA_RANGE},
        {"X9.42 own value", true, yq, CRYPTO_OK},
        {"X9.42 p - 1", true, plus(d.p, -1), CRYPTO_ERR_DATA_RANGE},
        {"X9.42 outside the subgroup", true, word(2), CRYPTO_ERR_DATA_RANGE},
    };
    for (const PeerCase& c : cases) {
        const int rc = c.x942 ? dh_compute_secret(d.p, d.g, &d.q, xq, c.peer.data(), c.peer.size(), &secret)
                              : dh_compute_secret(p, g, nullptr, x, c.peer.data(), c.peer.size(), &secret);
        EXPECT_EQ(rc, c.expected) << c.what;
    }

    // A peer value whose secret begins with a zero byte: ZZ keeps the full
    // length of p.
    crypto_bytes peer, zz;
    for (unsigned long k = 2; k < 100000 && (zz.empty() || zz.size() == p.size()); ++k) zz = powMod(peer = word(k), x, p);
    ASSERT_LT(zz.size(), p.size());
    zz.insert(zz.begin(), p.size() - zz.size(), 0);
    ASSERT_EQ(dh_compute_secret(p, g, nullptr, x, peer.data(), peer.size(), &secret), CRYPTO_OK);
    EXPECT_EQ(ref::hex(secret), ref::hex(zz));
}

TEST(DsaDhParams, RefuseUnsupportedSizesAndValues)
{
    const X942Params& d = x942Params(1024, 160);
    crypto_bytes p, q, g, x, y;
    dsa_params unused;
    for (unsigned primeBits : {0u, 448u, 1000u, 3136u})
        EXPECT_EQ(dsa_generate_params(primeBits, &unused), CRYPTO_ERR_BAD_PARAMETER) << primeBits;
    EXPECT_EQ(dh_generate_params(511, &p, &g), CRYPTO_ERR_BAD_PARAMETER);
    EXPECT_EQ(dh_generate_params(10001, &p, &g), CRYPTO_ERR_BAD_PARAMETER);
    EXPECT_EQ(x942_generate_params(1000, 160, &p, &q, &g), CRYPTO_ERR_BAD_PARAMETER);
    EXPECT_EQ(x942_generate_params(1024, 200, &p, &q, &g), CRYPTO_ERR_BAD_PARAMETER);
    EXPECT_EQ(dh_generate_key(d.p, d.g, nullptr, 1024, &x, &y), CRYPTO_ERR_BAD_PARAMETER);   // x not below p
    EXPECT_EQ(dh_generate_key(d.p, d.g, &d.q, 160, &x, &y), CRYPTO_ERR_BAD_PARAMETER);       // X9.42 has no length
    EXPECT_EQ(dh_generate_key(plus(d.p, 1), d.g, nullptr, 0, &x, &y), CRYPTO_ERR_BAD_PARAMETER);   // even
    EXPECT_EQ(dh_generate_key(d.p, word(1), nullptr, 0, &x, &y), CRYPTO_ERR_BAD_PARAMETER);
    // A group libcrypto's generator refuses (g of the wrong order).
    EXPECT_EQ(dh_generate_key(d.p, word(2), &d.q, 0, &x, &y), CRYPTO_ERR_BAD_PARAMETER);
    EXPECT_EQ(ERR_peek_error(), 0UL);
}

}  // namespace
