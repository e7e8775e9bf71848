// RSA session keys against two independent implementations: OpenSSL,
// called in the test, and NSS's software token, driven through the same
// C ABI as the module (abi/peer_module.h).
//
// Each test runs once with the module as its subject and once with the
// peer as its subject; the peer's run has only OpenSSL to answer to and
// proves the tables and the harness, whatever state the module is in.
//
//   - One table of mechanisms (signatures, encryption, sign-recover, key
//     wrapping) at 1024, 1031 and 2048 bits, one key per size imported into
//     every token. What the subject makes, OpenSSL (and for the module the
//     peer too) must accept, and the reverse; deterministic results must be
//     byte for byte the same. Hash-and-sign mechanisms run single- and
//     multi-part.
//   - Generated key pairs load into OpenSSL from their attributes, pass its
//     key checks and work with OpenSSL both ways.
//   - One table of bad input with the codes Cryptoki 2.20 gives them, and
//     the session still working afterwards. The peer's answers are recorded
//     beside them; where it departs, the module still answers as Cryptoki
//     has it.
//
// The token's own certificate keys are covered in token_signing_test.cpp.

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/rsa.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "abi/peer_module.h"
#include "abi/rsa_reference.h"

namespace korvo {
namespace {

// ---- OpenSSL's side ----

RsaNumbers numbersOf(EVP_PKEY* key)
{
    return {keyNumber(key, OSSL_PKEY_PARAM_RSA_N),         keyNumber(key, OSSL_PKEY_PARAM_RSA_E),
            keyNumber(key, OSSL_PKEY_PARAM_RSA_D),         keyNumber(key, OSSL_PKEY_PARAM_RSA_FACTOR1),
            keyNumber(key, OSSL_PKEY_PARAM_RSA_FACTOR2),   keyNumber(key, OSSL_PKEY_PARAM_RSA_EXPONENT1),
            keyNumber(key, OSSL_PKEY_PARAM_RSA_EXPONENT2), keyNumber(key, OSSL_PKEY_PARAM_RSA_COEFFICIENT1)};
}

// OpenSSL's key from a token's numbers (null when it will not take them).
Pkey keyFrom(const RsaNumbers& k)
{
    OSSL_PARAM_BLD* builder = OSSL_PARAM_BLD_new();
    std::vector<BIGNUM*> numbers;
    const std::pair<const char*, const Bytes*> parts[] = {
        {OSSL_PKEY_PARAM_RSA_N, &k.n},           {OSSL_PKEY_PARAM_RSA_E, &k.e},
        {OSSL_PKEY_PARAM_RSA_D, &k.d},           {OSSL_PKEY_PARAM_RSA_FACTOR1, &k.p},
        {OSSL_PKEY_PARAM_RSA_FACTOR2, &k.q},     {OSSL_PKEY_PARAM_RSA_EXPONENT1, &k.dp},
        {OSSL_PKEY_PARAM_RSA_EXPONENT2, &k.dq},  {OSSL_PKEY_PARAM_RSA_COEFFICIENT1, &k.qinv}};
    for (const auto& [name, bytes] : parts) {
        numbers.push_back(BN_bin2bn(bytes->data(), int(bytes->size()), nullptr));
        OSSL_PARAM_BLD_push_BN(builder, name, numbers.back());
    }
    OSSL_PARAM* params = OSSL_PARAM_BLD_to_param(builder);
    EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr);
    EVP_PKEY* key = nullptr;
    if (EVP_PKEY_fromdata_init(ctx) != 1 || EVP_PKEY_fromdata(ctx, &key, EVP_PKEY_KEYPAIR, params) != 1) key = nullptr;
    EVP_PKEY_CTX_free(ctx);
    OSSL_PARAM_free(params);
    OSSL_PARAM_BLD_free(builder);
    for (BIGNUM* bn : numbers) BN_clear_free(bn);
    return Pkey(key);
}

// ---- the mechanisms ----

enum class Op { Sign, Encrypt, Recover, Wrap };

enum class Kind {
    Pkcs1,      // CKM_RSA_PKCS
    Raw,        // CKM_RSA_X_509
    HashPkcs1,  // CKM_<hash>_RSA_PKCS: hash, then PKCS #1 v1.5
    Pss,        // CKM_RSA_PKCS_PSS: the caller's digest
    HashPss,    // CKM_<hash>_RSA_PKCS_PSS
    Oaep,       // CKM_RSA_PKCS_OAEP
};

struct Hash {
    const char* name;
    CK_MECHANISM_TYPE mechanism;
    CK_RSA_PKCS_MGF_TYPE mgf;
};
const Hash kHashes[] = {
    {"MD5", CKM_MD5, 0},
    {"SHA1", CKM_SHA_1, CKG_MGF1_SHA1},
    {"SHA224", CKM_SHA224, CKG_MGF1_SHA224},
    {"SHA256", CKM_SHA256, CKG_MGF1_SHA256},
    {"SHA384", CKM_SHA384, CKG_MGF1_SHA384},
    {"SHA512", CKM_SHA512, CKG_MGF1_SHA512},
};
const Hash& hash(const char* name)
{
    for (const Hash& h : kHashes)
        if (std::strcmp(h.name, name) == 0) return h;
    return kHashes[0];
}
size_t hashLength(const char* name)
{
    return size_t(EVP_MD_get_size(EVP_get_digestbyname(name)));
}

struct Case {
    const char* name;
    Op op;
    CK_MECHANISM_TYPE type;
    Kind kind;
    const char* hash = nullptr;  // the mechanism's hash, or of its PSS or OAEP parameters
    const char* mgf = nullptr;   // MGF1's hash (PSS, OAEP)
    int salt = 0;                // PSS
    const char* label = nullptr; // OAEP
};

const Case kCases[] = {
    {"sign RSA_PKCS", Op::Sign, CKM_RSA_PKCS, Kind::Pkcs1},
    {"sign RSA_X_509", Op::Sign, CKM_RSA_X_509, Kind::Raw},
    {"sign MD5_RSA_PKCS", Op::Sign, CKM_MD5_RSA_PKCS, Kind::HashPkcs1, "MD5"},
    {"sign SHA1_RSA_PKCS", Op::Sign, CKM_SHA1_RSA_PKCS, Kind::HashPkcs1, "SHA1"},
    {"sign SHA224_RSA_PKCS", Op::Sign, CKM_SHA224_RSA_PKCS, Kind::HashPkcs1, "SHA224"},
    {"sign SHA256_RSA_PKCS", Op::Sign, CKM_SHA256_RSA_PKCS, Kind::HashPkcs1, "SHA256"},
    {"sign SHA384_RSA_PKCS", Op::Sign, CKM_SHA384_RSA_PKCS, Kind::HashPkcs1, "SHA384"},
    {"sign SHA512_RSA_PKCS", Op::Sign, CKM_SHA512_RSA_PKCS, Kind::HashPkcs1, "SHA512"},
    {"sign RSA_PKCS_PSS SHA1", Op::Sign, CKM_RSA_PKCS_PSS, Kind::Pss, "SHA1", "SHA1", 20},
    {"sign RSA_PKCS_PSS SHA256", Op::Sign, CKM_RSA_PKCS_PSS, Kind::Pss, "SHA256", "SHA256", 32},
    {"sign RSA_PKCS_PSS SHA512, MGF1-SHA1, salt 0", Op::Sign, CKM_RSA_PKCS_PSS, Kind::Pss, "SHA512", "SHA1", 0},
    {"sign SHA1_RSA_PKCS_PSS", Op::Sign, CKM_SHA1_RSA_PKCS_PSS, Kind::HashPss, "SHA1", "SHA1", 20},
    {"sign SHA224_RSA_PKCS_PSS", Op::Sign, CKM_SHA224_RSA_PKCS_PSS, Kind::HashPss, "SHA224", "SHA224", 28},
    {"sign SHA256_RSA_PKCS_PSS", Op::Sign, CKM_SHA256_RSA_PKCS_PSS, Kind::HashPss, "SHA256", "SHA256", 32},
    {"sign SHA256_RSA_PKCS_PSS, MGF1-SHA1, salt 0", Op::Sign, CKM_SHA256_RSA_PKCS_PSS, Kind::HashPss, "SHA256", "SHA1", 0},
    {"sign SHA384_RSA_PKCS_PSS", Op::Sign, CKM_SHA384_RSA_PKCS_PSS, Kind::HashPss, "SHA384", "SHA384", 48},
    {"sign SHA384_RSA_PKCS_PSS, salt 20", Op::Sign, CKM_SHA384_RSA_PKCS_PSS, Kind::HashPss, "SHA384", "SHA384", 20},
    {"sign SHA512_RSA_PKCS_PSS", Op::Sign, CKM_SHA512_RSA_PKCS_PSS, Kind::HashPss, "SHA512", "SHA512", 64},
    {"encrypt RSA_PKCS", Op::Encrypt, CKM_RSA_PKCS, Kind::Pkcs1},
    {"encrypt RSA_X_509", Op::Encrypt, CKM_RSA_X_509, Kind::Raw},
    {"encrypt OAEP SHA1", Op::Encrypt, CKM_RSA_PKCS_OAEP, Kind::Oaep, "SHA1", "SHA1"},
    {"encrypt OAEP SHA1, label", Op::Encrypt, CKM_RSA_PKCS_OAEP, Kind::Oaep, "SHA1", "SHA1", 0, "a label"},
    {"encrypt OAEP SHA224", Op::Encrypt, CKM_RSA_PKCS_OAEP, Kind::Oaep, "SHA224", "SHA224"},
    {"encrypt OAEP SHA256, label", Op::Encrypt, CKM_RSA_PKCS_OAEP, Kind::Oaep, "SHA256", "SHA256", 0, "label"},
    {"encrypt OAEP SHA256, MGF1-SHA1", Op::Encrypt, CKM_RSA_PKCS_OAEP, Kind::Oaep, "SHA256", "SHA1"},
    {"encrypt OAEP SHA384", Op::Encrypt, CKM_RSA_PKCS_OAEP, Kind::Oaep, "SHA384", "SHA384"},
    {"encrypt OAEP SHA512, label", Op::Encrypt, CKM_RSA_PKCS_OAEP, Kind::Oaep, "SHA512", "SHA512", 0, "x"},
    {"sign-recover RSA_PKCS", Op::Recover, CKM_RSA_PKCS, Kind::Pkcs1},
    {"sign-recover RSA_X_509", Op::Recover, CKM_RSA_X_509, Kind::Raw},
    {"wrap RSA_PKCS", Op::Wrap, CKM_RSA_PKCS, Kind::Pkcs1},
    {"wrap OAEP SHA1", Op::Wrap, CKM_RSA_PKCS_OAEP, Kind::Oaep, "SHA1", "SHA1"},
    {"wrap OAEP SHA256, label", Op::Wrap, CKM_RSA_PKCS_OAEP, Kind::Oaep, "SHA256", "SHA256", 0, "wrapped"},
};

bool deterministic(const Case& c)
{
    if (c.kind == Kind::Raw || c.kind == Kind::HashPkcs1) return true;
    return c.kind == Kind::Pkcs1 && (c.op == Op::Sign || c.op == Op::Recover);
}

bool multiPart(const Case& c)
{
    return c.kind == Kind::HashPkcs1 || c.kind == Kind::HashPss;
}

// A mechanism with its parameters, which live as long as it does.
struct Mechanism {
    CK_RSA_PKCS_PSS_PARAMS pss{};
    CK_RSA_PKCS_OAEP_PARAMS oaep{};
    CK_MECHANISM m{};

    explicit Mechanism(const Case& c)
    {
        m = {c.type, nullptr, 0};
        if (c.kind == Kind::Pss || c.kind == Kind::HashPss) {
            pss = {hash(c.hash).mechanism, hash(c.mgf).mgf, CK_ULONG(c.salt)};
            m = {c.type, &pss, sizeof pss};
        } else if (c.kind == Kind::Oaep) {
            oaep = {hash(c.hash).mechanism, hash(c.mgf).mgf, CKZ_DATA_SPECIFIED, const_cast<char*>(c.label),
                    c.label ? CK_ULONG(std::strlen(c.label)) : 0};
            m = {c.type, &oaep, sizeof oaep};
        }
    }
    Mechanism(const Mechanism&) = delete;
    Mechanism& operator=(const Mechanism&) = delete;
};

const Bytes& message()
{
    static const Bytes bytes = [] {
        Bytes b(100);
        for (size_t i = 0; i < b.size(); ++i) b[i] = CK_BYTE(i * 13 + 1);
        return b;
    }();
    return bytes;
}

Bytes digest(const char* name, const Bytes& in)
{
    Bytes out(hashLength(name));
    EVP_Digest(in.data(), in.size(), out.data(), nullptr, EVP_get_digestbyname(name), nullptr);
    return out;
}

// What the case's mechanism takes for a key of `bits`.
Bytes inputFor(const Case& c, unsigned bits)
{
    const size_t k = (bits + 7) / 8;
    switch (c.kind) {
    case Kind::HashPkcs1:
    case Kind::HashPss: return message();
    case Kind::Pss: return digest(c.hash, message());
    case Kind::Raw: {
        Bytes block(k);
        for (size_t i = 0; i < k; ++i) block[i] = CK_BYTE(0xA5 ^ i);
        block[0] = 0x00;  // below any modulus of this length
        return block;
    }
    case Kind::Pkcs1:
    case Kind::Oaep:
        if (c.op == Op::Sign || c.op == Op::Recover) {
            // A SHA-256 DigestInfo, as a caller of CKM_RSA_PKCS builds it.
            Bytes info = {0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                          0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20};
            const Bytes d = digest("SHA256", message());
            info.insert(info.end(), d.begin(), d.end());
            return info;
        }
        return Bytes(16, 0x3C);  // a secret, or the AES key that is wrapped
    }
    return Bytes();
}

// Whether the padding fits in a key of `bits` with this input.
bool fits(const Case& c, unsigned bits, size_t inputLength)
{
    const size_t k = (bits + 7) / 8;
    switch (c.kind) {
    case Kind::Pss:
    case Kind::HashPss: return hashLength(c.hash) + size_t(c.salt) + 2 <= (bits - 1 + 7) / 8;
    case Kind::Oaep: return inputLength + 2 * hashLength(c.hash) + 2 <= k;
    case Kind::Pkcs1: return inputLength + 11 <= k;
    default: return true;
    }
}

void configure(EVP_PKEY_CTX* ctx, const Case& c)
{
    switch (c.kind) {
    case Kind::Pkcs1:
    case Kind::HashPkcs1: EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_PADDING); break;
    case Kind::Raw: EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_NO_PADDING); break;
    case Kind::Pss:
    case Kind::HashPss:
        EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_PSS_PADDING);
        EVP_PKEY_CTX_set_rsa_pss_saltlen(ctx, c.salt);
        EVP_PKEY_CTX_set_rsa_mgf1_md(ctx, EVP_get_digestbyname(c.mgf));
        if (c.kind == Kind::Pss) EVP_PKEY_CTX_set_signature_md(ctx, EVP_get_digestbyname(c.hash));
        break;
    case Kind::Oaep:
        EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_OAEP_PADDING);
        EVP_PKEY_CTX_set_rsa_oaep_md(ctx, EVP_get_digestbyname(c.hash));
        EVP_PKEY_CTX_set_rsa_mgf1_md(ctx, EVP_get_digestbyname(c.mgf));
        if (c.label) EVP_PKEY_CTX_set0_rsa_oaep_label(ctx, OPENSSL_strdup(c.label), int(std::strlen(c.label)));
        break;
    }
}

// ---- the parties: a token (its session and the key pair) or OpenSSL ----

struct Party {
    const char* name;
    P11Side* side;  // null: OpenSSL
    KeyPair keys;
    EVP_PKEY* key;  // OpenSSL's key
};

std::string failed(const char* what, CK_RV rv)
{
    return std::string(what) + " returned " + rvName(rv);
}

// A secret key in the token with the given value, to be wrapped.
CK_RV secretKey(const P11Side& side, const Bytes& value, CK_OBJECT_HANDLE* key)
{
    Tmpl t;
    t.ulong(CKA_CLASS, CKO_SECRET_KEY).ulong(CKA_KEY_TYPE, CKK_AES).flag(CKA_TOKEN, false);
    t.flag(CKA_SENSITIVE, false).flag(CKA_EXTRACTABLE, true).add(CKA_VALUE, value);
    return createObject(side, std::move(t), key);
}

// What the party makes of `in`: a signature, a ciphertext, a signature with
// recovery or a wrapped key. An error message, or empty.
std::string produce(const Party& party, const Case& c, const Bytes& in, bool parts, Bytes* out)
{
    out->clear();
    if (party.side) {
        const P11Side& side = *party.side;
        Mechanism m(c);
        CK_RV rv = CKR_OK;
        switch (c.op) {
        case Op::Sign:
            rv = parts ? signParts(side, m.m, party.keys.priv, in, 7, out) : sign(side, m.m, party.keys.priv, in, out);
            return rv == CKR_OK ? "" : failed(parts ? "signing in parts" : "signing", rv);
        case Op::Encrypt:
            rv = encrypt(side, m.m, party.keys.pub, in, out);
            return rv == CKR_OK ? "" : failed("encrypting", rv);
        case Op::Recover:
            rv = signRecover(side, m.m, party.keys.priv, in, out);
            return rv == CKR_OK ? "" : failed("C_SignRecover", rv);
        case Op::Wrap: {
            CK_OBJECT_HANDLE secret = CK_INVALID_HANDLE;
            rv = secretKey(side, in, &secret);
            if (rv != CKR_OK) return failed("creating the key to wrap", rv);
            rv = wrapKey(side, m.m, party.keys.pub, secret, out);
            side.f->C_DestroyObject(side.s, secret);
            return rv == CKR_OK ? "" : failed("C_WrapKey", rv);
        }
        }
    }
    out->assign(size_t(EVP_PKEY_get_size(party.key)), 0);
    size_t length = out->size();
    bool ok = false;
    if (c.op == Op::Sign && multiPart(c)) {
        EVP_MD_CTX* ctx = EVP_MD_CTX_new();
        EVP_PKEY_CTX* pctx = nullptr;
        ok = EVP_DigestSignInit(ctx, &pctx, EVP_get_digestbyname(c.hash), nullptr, party.key) == 1;
        if (ok) configure(pctx, c);
        ok = ok && EVP_DigestSign(ctx, out->data(), &length, in.data(), in.size()) == 1;
        EVP_MD_CTX_free(ctx);
    } else {
        EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(party.key, nullptr);
        const bool encrypting = c.op == Op::Encrypt || c.op == Op::Wrap;
        ok = (encrypting ? EVP_PKEY_encrypt_init(ctx) : EVP_PKEY_sign_init(ctx)) == 1;
        if (ok) configure(ctx, c);
        ok = ok && (encrypting ? EVP_PKEY_encrypt(ctx, out->data(), &length, in.data(), in.size())
                               : EVP_PKEY_sign(ctx, out->data(), &length, in.data(), in.size())) == 1;
        EVP_PKEY_CTX_free(ctx);
    }
    out->resize(ok ? length : 0);
    return ok ? "" : "OpenSSL failed";
}

// Whether the party accepts what another made of `in`. An error message, or
// empty.
std::string accepts(const Party& party, const Case& c, const Bytes& in, bool parts, const Bytes& made)
{
    if (party.side) {
        const P11Side& side = *party.side;
        Mechanism m(c);
        Bytes out;
        CK_RV rv = CKR_OK;
        switch (c.op) {
        case Op::Sign:
            rv = parts ? verifyParts(side, m.m, party.keys.pub, in, 11, made) : verify(side, m.m, party.keys.pub, in, made);
            return rv == CKR_OK ? "" : failed(parts ? "verifying in parts" : "verifying", rv);
        case Op::Encrypt:
            rv = decrypt(side, m.m, party.keys.priv, made, &out);
            if (rv != CKR_OK) return failed("decrypting", rv);
            return out == in ? "" : "decrypted to something else";
        case Op::Recover:
            rv = verifyRecover(side, m.m, party.keys.pub, made, &out);
            if (rv != CKR_OK) return failed("C_VerifyRecover", rv);
            return out == in ? "" : "recovered something else";
        case Op::Wrap: {
            Tmpl t;
            t.ulong(CKA_CLASS, CKO_SECRET_KEY).ulong(CKA_KEY_TYPE, CKK_AES).flag(CKA_TOKEN, false);
            t.flag(CKA_SENSITIVE, false).flag(CKA_EXTRACTABLE, true);
            CK_OBJECT_HANDLE key = CK_INVALID_HANDLE;
            rv = unwrapKey(side, m.m, party.keys.priv, made, std::move(t), &key);
            if (rv != CKR_OK) return failed("C_UnwrapKey", rv);
            rv = attribute(side, key, CKA_VALUE, &out);
            side.f->C_DestroyObject(side.s, key);
            if (rv != CKR_OK) return failed("reading the unwrapped key", rv);
            return out == in ? "" : "unwrapped another value";
        }
        }
    }
    bool ok = false;
    if (c.op == Op::Sign && multiPart(c)) {
        EVP_MD_CTX* ctx = EVP_MD_CTX_new();
        EVP_PKEY_CTX* pctx = nullptr;
        ok = EVP_DigestVerifyInit(ctx, &pctx, EVP_get_digestbyname(c.hash), nullptr, party.key) == 1;
        if (ok) configure(pctx, c);
        ok = ok && EVP_DigestVerify(ctx, made.data(), made.size(), in.data(), in.size()) == 1;
        EVP_MD_CTX_free(ctx);
        return ok ? "" : "OpenSSL does not verify it";
    }
    EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(party.key, nullptr);
    Bytes out(made.size() + 1);
    size_t length = out.size();
    if (c.op == Op::Sign && c.kind != Kind::Raw) {
        ok = EVP_PKEY_verify_init(ctx) == 1;
        if (ok) configure(ctx, c);
        ok = ok && EVP_PKEY_verify(ctx, made.data(), made.size(), in.data(), in.size()) == 1;
        length = in.size();
        out = in;
    } else if (c.op == Op::Sign || c.op == Op::Recover) {
        ok = EVP_PKEY_verify_recover_init(ctx) == 1;
        if (ok) configure(ctx, c);
        ok = ok && EVP_PKEY_verify_recover(ctx, out.data(), &length, made.data(), made.size()) == 1;
    } else {
        ok = EVP_PKEY_decrypt_init(ctx) == 1;
        if (ok) configure(ctx, c);
        ok = ok && EVP_PKEY_decrypt(ctx, out.data(), &length, made.data(), made.size()) == 1;
    }
    EVP_PKEY_CTX_free(ctx);
    if (!ok) return "OpenSSL does not accept it";
    out.resize(length);
    return out == in ? "" : "OpenSSL recovers something else";
}

// ---- the fixture: the module or the peer as the subject ----

enum class Subject { Module, Peer };

class RsaPeer : public ObjectTest, public testing::WithParamInterface<Subject> {
protected:
    void SetUp() override
    {
        ObjectTest::SetUp();
        if (HasFatalFailure()) return;
        std::string why;
        const bool peer = openSoftokn(&softokn_, &why);
        if (GetParam() == Subject::Peer) {
            if (!peer) GTEST_FAIL() << why;
            subject_ = softokn_;
            return;
        }
        subject_ = P11Side{p, openSession(CKF_SERIAL_SESSION | CKF_RW_SESSION), "Korvo"};
        if (peer)
            references_.push_back(&softokn_);
        else
            std::cout << "[   NOTE   ] checking against OpenSSL only: " << why << "\n";
    }
    void TearDown() override
    {
        closeSide(&softokn_);
        ObjectTest::TearDown();
    }

    bool isModule() const { return GetParam() == Subject::Module; }

    P11Side subject_;
    P11Side softokn_;
    std::vector<P11Side*> references_;  // tokens the subject is compared with
};

std::string subjectName(const testing::TestParamInfo<Subject>& info)
{
    return info.param == Subject::Module ? "Korvo" : "softokn";
}

void PrintTo(Subject subject, std::ostream* out)
{
    *out << (subject == Subject::Module ? "the module" : "NSS's software token");
}

TEST_P(RsaPeer, EveryMechanismAgreesBothWaysAtEveryKeySize)
{
    for (unsigned bits : {1024u, 1031u, 2048u}) {
        SCOPED_TRACE(testing::Message() << bits << " bits");
        Pkey key(EVP_RSA_gen(bits));
        ASSERT_TRUE(key);
        const RsaNumbers numbers = numbersOf(key.get());
        Party subject{subject_.name, &subject_, {}, key.get()};
        const CK_RV imported = importRsa(subject_, numbers, &subject.keys);
        if (imported != CKR_OK) {
            ADD_FAILURE() << subject.name << " does not take the key: " << rvName(imported);
            continue;
        }
        std::vector<Party> references{{"OpenSSL", nullptr, {}, key.get()}};
        for (P11Side* side : references_) {
            Party reference{side->name, side, {}, key.get()};
            const CK_RV rv = importRsa(*side, numbers, &reference.keys);
            if (rv == CKR_OK)
                references.push_back(reference);
            else
                ADD_FAILURE() << side->name << " does not take the key: " << rvName(rv);
        }

        for (const Case& c : kCases) {
            SCOPED_TRACE(c.name);
            const Bytes in = inputFor(c, bits);
            Bytes made;
            if (!fits(c, bits, in.size())) {
                // The padding does not fit the key: refused for the length
                // (the peer calls a PSS encoding too long for the key a short
                // buffer).
                const CK_RV code = !isModule() && c.op == Op::Sign ? CKR_BUFFER_TOO_SMALL : CKR_DATA_LEN_RANGE;
                const std::string error = produce(subject, c, in, false, &made);
                EXPECT_NE(error.find(rvName(code)), std::string::npos) << error;
                continue;
            }
            for (bool parts : {false, true}) {
                if (parts && !multiPart(c)) continue;
                SCOPED_TRACE(parts ? "multi-part" : "single-part");
                const std::string error = produce(subject, c, in, parts, &made);
                EXPECT_EQ(error, "") << subject.name << " makes nothing";
                if (error.empty()) {
                    EXPECT_EQ(made.size(), (bits + 7) / 8);
                    EXPECT_EQ(accepts(subject, c, in, parts, made), "") << subject.name << " checks its own";
                }
                for (const Party& reference : references) {
                    if (error.empty()) {
                        EXPECT_EQ(accepts(reference, c, in, parts, made), "")
                            << subject.name << " made, " << reference.name << " checked";
                    }
                    Bytes theirs;
                    ASSERT_EQ(produce(reference, c, in, parts, &theirs), "") << reference.name << " makes nothing";
                    EXPECT_EQ(accepts(subject, c, in, parts, theirs), "")
                        << reference.name << " made, " << subject.name << " checked";
                    if (error.empty() && deterministic(c)) {
                        EXPECT_EQ(toHex(made), toHex(theirs)) << subject.name << " and " << reference.name << " differ";
                    }
                }
            }
        }
    }
}

TEST_P(RsaPeer, GeneratedKeysLoadIntoOpenSslPassItsChecksAndWorkBothWays)
{
    struct Generation {
        CK_ULONG bits;
        Bytes exponent;
    };
    const Generation generations[] = {{1024, {0x01, 0x00, 0x01}}, {2048, {0x01, 0x00, 0x01}}, {1024, {0x03}}};
    for (const Generation& g : generations) {
        SCOPED_TRACE(testing::Message() << g.bits << " bits, exponent " << toHex(g.exponent));
        Party subject{subject_.name, &subject_, {}, nullptr};
        const CK_RV rv = generateRsa(subject_, g.bits, g.exponent, &subject.keys);
        if (!isModule() && g.exponent == Bytes{0x03}) {
            // The peer does not make keys with public exponent 3.
            EXPECT_EQ(rvName(rv), "CKR_ARGUMENTS_BAD");
            continue;
        }
        ASSERT_EQ(rvName(rv), "CKR_OK") << subject.name << " generates no key pair";

        RsaNumbers numbers;
        ASSERT_EQ(rvName(rsaNumbersOf(subject_, subject.keys.priv, &numbers)), "CKR_OK");
        Bytes modulus, exponent, bits, local, mechanism;
        EXPECT_EQ(attribute(subject_, subject.keys.pub, CKA_MODULUS, &modulus), CKR_OK);
        EXPECT_EQ(attribute(subject_, subject.keys.pub, CKA_PUBLIC_EXPONENT, &exponent), CKR_OK);
        EXPECT_EQ(modulus, numbers.n);
        EXPECT_EQ(exponent, g.exponent);
        EXPECT_EQ(numbers.e, g.exponent);
        // The peer keeps neither CKA_MODULUS_BITS nor CKA_KEY_GEN_MECHANISM
        // on the keys it generates, and leaves CKA_LOCAL false; Cryptoki has
        // the modulus length, the mechanism and CKA_LOCAL true.
        const CK_RV noAttribute = isModule() ? CKR_OK : CKR_ATTRIBUTE_TYPE_INVALID;
        EXPECT_EQ(rvName(attribute(subject_, subject.keys.pub, CKA_MODULUS_BITS, &bits)), rvName(noAttribute));
        if (isModule()) {
            EXPECT_EQ(bits, ulongBytes(g.bits)) << "CKA_MODULUS_BITS";
        }
        for (CK_OBJECT_HANDLE half : {subject.keys.pub, subject.keys.priv}) {
            EXPECT_EQ(attribute(subject_, half, CKA_LOCAL, &local), CKR_OK);
            EXPECT_EQ(local, Bytes{CK_BYTE(isModule())}) << "CKA_LOCAL";
            EXPECT_EQ(rvName(attribute(subject_, half, CKA_KEY_GEN_MECHANISM, &mechanism)), rvName(noAttribute))
                << "CKA_KEY_GEN_MECHANISM";
            if (isModule()) {
                EXPECT_EQ(mechanism, ulongBytes(CKM_RSA_PKCS_KEY_PAIR_GEN)) << "CKA_KEY_GEN_MECHANISM";
            }
        }

        Pkey key = keyFrom(numbers);
        ASSERT_TRUE(key) << "OpenSSL does not take the generated numbers";
        subject.key = key.get();
        EXPECT_EQ(EVP_PKEY_get_bits(key.get()), int(g.bits));
        EVP_PKEY_CTX* checker = EVP_PKEY_CTX_new(key.get(), nullptr);
        EXPECT_EQ(EVP_PKEY_check(checker), 1) << "OpenSSL's key check";
        EXPECT_EQ(EVP_PKEY_pairwise_check(checker), 1) << "OpenSSL's pairwise check";
        EVP_PKEY_CTX_free(checker);

        const Party openssl{"OpenSSL", nullptr, {}, key.get()};
        for (const char* name : {"sign SHA256_RSA_PKCS", "sign SHA256_RSA_PKCS_PSS", "encrypt OAEP SHA1"}) {
            for (const Case& c : kCases) {
                if (std::strcmp(c.name, name) != 0) continue;
                SCOPED_TRACE(c.name);
                const Bytes in = inputFor(c, unsigned(g.bits));
                Bytes made;
                ASSERT_EQ(produce(subject, c, in, false, &made), "");
                EXPECT_EQ(accepts(openssl, c, in, false, made), "") << subject.name << " made, OpenSSL checked";
                ASSERT_EQ(produce(openssl, c, in, false, &made), "");
                EXPECT_EQ(accepts(subject, c, in, false, made), "") << "OpenSSL made, " << subject.name << " checked";
            }
        }
    }
}

// ---- bad input ----

// A row's world: a session of the token under test, a key pair it may use
// for everything, one it may use for nothing, a secret key and the same RSA
// key in OpenSSL.
struct Bad {
    P11Side side;
    KeyPair keys;
    KeyPair unusable;
    CK_OBJECT_HANDLE secret;
    EVP_PKEY* key;
    size_t k;

    CK_FUNCTION_LIST_PTR f() const { return side.f; }
    CK_SESSION_HANDLE s() const { return side.s; }
};

CK_MECHANISM plain(CK_MECHANISM_TYPE type)
{
    return {type, nullptr, 0};
}

CK_RSA_PKCS_PSS_PARAMS kPss{CKM_SHA256, CKG_MGF1_SHA256, 32};
CK_RSA_PKCS_OAEP_PARAMS kOaep{CKM_SHA_1, CKG_MGF1_SHA1, CKZ_DATA_SPECIFIED, nullptr, 0};
CK_MECHANISM oaepSha1()
{
    return {CKM_RSA_PKCS_OAEP, &kOaep, sizeof kOaep};
}

// A short secret, as RSA encryption carries one.
const Bytes kSecret(20, 0x5E);

// A valid SHA256_RSA_PKCS signature of message() by the row's key.
Bytes goodSignature(const Bad& b)
{
    Bytes signature;
    EXPECT_EQ(rvName(sign(b.side, plain(CKM_SHA256_RSA_PKCS), b.keys.priv, message(), &signature)), "CKR_OK")
        << b.side.name;
    return signature;
}

// The outcome of a row of several calls, one code after the other.
std::string then(CK_RV first, CK_RV second)
{
    return rvName(first) + ", then " + rvName(second);
}

// A call into too small a buffer (which must give the length needed), then
// the same call into `out` (as long as the modulus), whose result must pass
// `good`.
template <typename Call, typename Good>
std::string shortBuffer(CK_ULONG shortLength, CK_ULONG needed, Call call, Bytes& out, Good good)
{
    CK_ULONG length = shortLength;
    const CK_RV first = call(out.data(), &length);
    if (first != CKR_BUFFER_TOO_SMALL) return rvName(first);
    // The length given may exceed what is needed, never the modulus.
    const bool suffices = length >= needed && length <= out.size();
    std::string outcome = rvName(first) + (suffices ? " with the length" : " with a wrong length");
    length = CK_ULONG(out.size());
    const CK_RV second = call(out.data(), &length);
    outcome += ", then " + rvName(second);
    if (second == CKR_OK) {
        out.resize(length);
        if (!good(out)) outcome += " with a wrong result";
    }
    return outcome;
}

struct BadInput {
    const char* what;
    std::string (*run)(Bad&);
    const char* cryptoki;  // what the module must answer
    const char* peer;      // what NSS's software token answers
};

// Where the peer's answer differs from Cryptoki's, the row says so.
const BadInput kBadInput[] = {
    // The wrong kind of key.
    {"C_SignInit CKM_RSA_PKCS, secret key",
     [](Bad& b) { CK_MECHANISM m = plain(CKM_RSA_PKCS); return rvName(b.f()->C_SignInit(b.s(), &m, b.secret)); },
     "CKR_KEY_TYPE_INCONSISTENT", "CKR_KEY_TYPE_INCONSISTENT"},
    {"C_EncryptInit CKM_RSA_PKCS_OAEP, secret key",
     [](Bad& b) { CK_MECHANISM m = oaepSha1(); return rvName(b.f()->C_EncryptInit(b.s(), &m, b.secret)); },
     "CKR_KEY_TYPE_INCONSISTENT", "CKR_KEY_TYPE_INCONSISTENT"},
    {"C_SignInit CKM_SHA256_RSA_PKCS, public key",
     [](Bad& b) { CK_MECHANISM m = plain(CKM_SHA256_RSA_PKCS); return rvName(b.f()->C_SignInit(b.s(), &m, b.keys.pub)); },
     "CKR_KEY_TYPE_INCONSISTENT", "CKR_KEY_TYPE_INCONSISTENT"},
    // A key whose usage attribute is false: the peer answers as if the key
    // were of the wrong type.
    {"C_SignInit, CKA_SIGN false",
     [](Bad& b) { CK_MECHANISM m = plain(CKM_SHA256_RSA_PKCS); return rvName(b.f()->C_SignInit(b.s(), &m, b.unusable.priv)); },
     "CKR_KEY_FUNCTION_NOT_PERMITTED", "CKR_KEY_TYPE_INCONSISTENT"},
    {"C_VerifyInit, CKA_VERIFY false",
     [](Bad& b) { CK_MECHANISM m = plain(CKM_SHA256_RSA_PKCS); return rvName(b.f()->C_VerifyInit(b.s(), &m, b.unusable.pub)); },
     "CKR_KEY_FUNCTION_NOT_PERMITTED", "CKR_KEY_TYPE_INCONSISTENT"},
    {"C_EncryptInit, CKA_ENCRYPT false",
     [](Bad& b) { CK_MECHANISM m = plain(CKM_RSA_PKCS); return rvName(b.f()->C_EncryptInit(b.s(), &m, b.unusable.pub)); },
     "CKR_KEY_FUNCTION_NOT_PERMITTED", "CKR_KEY_TYPE_INCONSISTENT"},
    {"C_DecryptInit, CKA_DECRYPT false",
     [](Bad& b) { CK_MECHANISM m = plain(CKM_RSA_PKCS); return rvName(b.f()->C_DecryptInit(b.s(), &m, b.unusable.priv)); },
     "CKR_KEY_FUNCTION_NOT_PERMITTED", "CKR_KEY_TYPE_INCONSISTENT"},
    {"C_SignRecoverInit, CKA_SIGN_RECOVER false",
     [](Bad& b) { CK_MECHANISM m = plain(CKM_RSA_PKCS); return rvName(b.f()->C_SignRecoverInit(b.s(), &m, b.unusable.priv)); },
     "CKR_KEY_FUNCTION_NOT_PERMITTED", "CKR_KEY_TYPE_INCONSISTENT"},
    {"C_VerifyRecoverInit, CKA_VERIFY_RECOVER false",
     [](Bad& b) { CK_MECHANISM m = plain(CKM_RSA_PKCS); return rvName(b.f()->C_VerifyRecoverInit(b.s(), &m, b.unusable.pub)); },
     "CKR_KEY_FUNCTION_NOT_PERMITTED", "CKR_KEY_TYPE_INCONSISTENT"},
    {"C_WrapKey, CKA_WRAP false",
     [](Bad& b) {
         Bytes out;
         return rvName(wrapKey(b.side, plain(CKM_RSA_PKCS), b.unusable.pub, b.secret, &out));
     },
     "CKR_KEY_FUNCTION_NOT_PERMITTED", "CKR_KEY_TYPE_INCONSISTENT"},
    {"C_UnwrapKey, CKA_UNWRAP false",
     [](Bad& b) {
         Tmpl t;
         t.ulong(CKA_CLASS, CKO_SECRET_KEY).ulong(CKA_KEY_TYPE, CKK_AES).flag(CKA_TOKEN, false);
         CK_OBJECT_HANDLE key;
         return rvName(unwrapKey(b.side, plain(CKM_RSA_PKCS), b.unusable.priv, encrypt(b.key, Bytes(16, 1)), std::move(t), &key));
     },
     "CKR_KEY_FUNCTION_NOT_PERMITTED", "CKR_KEY_TYPE_INCONSISTENT"},
    // Bad parameters.
    {"PSS parameters one byte short",
     [](Bad& b) {
         CK_MECHANISM m{CKM_SHA256_RSA_PKCS_PSS, &kPss, sizeof kPss - 1};
         return rvName(b.f()->C_SignInit(b.s(), &m, b.keys.priv));
     },
     "CKR_MECHANISM_PARAM_INVALID", "CKR_MECHANISM_PARAM_INVALID"},
    {"PSS without parameters",
     [](Bad& b) { CK_MECHANISM m = plain(CKM_RSA_PKCS_PSS); return rvName(b.f()->C_VerifyInit(b.s(), &m, b.keys.pub)); },
     "CKR_MECHANISM_PARAM_INVALID", "CKR_MECHANISM_PARAM_INVALID"},
    {"SHA256_RSA_PKCS_PSS with SHA-1 parameters",
     [](Bad& b) {
         CK_RSA_PKCS_PSS_PARAMS sha1{CKM_SHA_1, CKG_MGF1_SHA1, 20};
         CK_MECHANISM m{CKM_SHA256_RSA_PKCS_PSS, &sha1, sizeof sha1};
         return rvName(b.f()->C_SignInit(b.s(), &m, b.keys.priv));
     },
     "CKR_MECHANISM_PARAM_INVALID", "CKR_MECHANISM_PARAM_INVALID"},
    {"PSS with an unknown MGF",
     [](Bad& b) {
         CK_RSA_PKCS_PSS_PARAMS bad{CKM_SHA256, 0x99, 32};
         CK_MECHANISM m{CKM_SHA256_RSA_PKCS_PSS, &bad, sizeof bad};
         return rvName(b.f()->C_SignInit(b.s(), &m, b.keys.priv));
     },
     "CKR_MECHANISM_PARAM_INVALID", "CKR_MECHANISM_PARAM_INVALID"},
    {"OAEP parameters eight bytes short",
     [](Bad& b) {
         CK_MECHANISM m{CKM_RSA_PKCS_OAEP, &kOaep, sizeof kOaep - 8};
         return rvName(b.f()->C_EncryptInit(b.s(), &m, b.keys.pub));
     },
     "CKR_MECHANISM_PARAM_INVALID", "CKR_MECHANISM_PARAM_INVALID"},
    {"OAEP without parameters",
     [](Bad& b) { CK_MECHANISM m = plain(CKM_RSA_PKCS_OAEP); return rvName(b.f()->C_DecryptInit(b.s(), &m, b.keys.priv)); },
     "CKR_MECHANISM_PARAM_INVALID", "CKR_MECHANISM_PARAM_INVALID"},
    {"OAEP with an unknown source",
     [](Bad& b) {
         CK_RSA_PKCS_OAEP_PARAMS bad{CKM_SHA_1, CKG_MGF1_SHA1, 7, nullptr, 0};
         CK_MECHANISM m{CKM_RSA_PKCS_OAEP, &bad, sizeof bad};
         return rvName(b.f()->C_EncryptInit(b.s(), &m, b.keys.pub));
     },
     "CKR_MECHANISM_PARAM_INVALID", "CKR_MECHANISM_PARAM_INVALID"},
    // Too much data for the key; the peer fails in general for PKCS #1 v1.5
    // and signs a digest of the wrong length.
    {"CKM_RSA_PKCS signing k-10 bytes",
     [](Bad& b) { Bytes out; return rvName(sign(b.side, plain(CKM_RSA_PKCS), b.keys.priv, Bytes(b.k - 10, 1), &out)); },
     "CKR_DATA_LEN_RANGE", "CKR_GENERAL_ERROR"},
    {"CKM_RSA_PKCS encrypting k-10 bytes",
     [](Bad& b) { Bytes out; return rvName(encrypt(b.side, plain(CKM_RSA_PKCS), b.keys.pub, Bytes(b.k - 10, 1), &out)); },
     "CKR_DATA_LEN_RANGE", "CKR_GENERAL_ERROR"},
    {"OAEP SHA-1 encrypting k-41 bytes",
     [](Bad& b) { Bytes out; return rvName(encrypt(b.side, oaepSha1(), b.keys.pub, Bytes(b.k - 41, 1), &out)); },
     "CKR_DATA_LEN_RANGE", "CKR_DATA_LEN_RANGE"},
    {"CKM_RSA_X_509 encrypting k+1 bytes",
     [](Bad& b) { Bytes out; return rvName(encrypt(b.side, plain(CKM_RSA_X_509), b.keys.pub, Bytes(b.k + 1, 0), &out)); },
     "CKR_DATA_LEN_RANGE", "CKR_DATA_LEN_RANGE"},
    {"CKM_RSA_PKCS_PSS signing a 20-byte digest with SHA-256 parameters",
     [](Bad& b) {
         Bytes out;
         return rvName(sign(b.side, {CKM_RSA_PKCS_PSS, &kPss, sizeof kPss}, b.keys.priv, Bytes(20, 1), &out));
     },
     "CKR_DATA_LEN_RANGE", "CKR_OK"},
    // Too small a buffer: the length needed comes back and the operation
    // goes on. The peer leaves the length as it was (or garbage, when
    // signing) and ends the operation.
    {"C_Sign into 10 bytes, then into k",
     [](Bad& b) {
         CK_MECHANISM m = plain(CKM_SHA256_RSA_PKCS);
         const CK_RV rv = b.f()->C_SignInit(b.s(), &m, b.keys.priv);
         if (rv != CKR_OK) return rvName(rv);
         Bytes out(b.k);
         return shortBuffer(10, CK_ULONG(b.k),
             [&](CK_BYTE_PTR o, CK_ULONG_PTR n) {
                 return b.f()->C_Sign(b.s(), const_cast<CK_BYTE_PTR>(message().data()), 100, o, n);
             },
             out, [&](const Bytes& signature) { return verifies(b.key, EVP_sha256(), message(), signature); });
     },
     "CKR_BUFFER_TOO_SMALL with the length, then CKR_OK",
     "CKR_BUFFER_TOO_SMALL with a wrong length, then CKR_OPERATION_NOT_INITIALIZED"},
    {"C_Decrypt OAEP into 2 bytes, then into k",
     [](Bad& b) {
         CK_MECHANISM m = oaepSha1();
         const CK_RV rv = b.f()->C_DecryptInit(b.s(), &m, b.keys.priv);
         if (rv != CKR_OK) return rvName(rv);
         Bytes ciphertext = encrypt(b.key, kSecret, true), out(b.k);
         return shortBuffer(2, CK_ULONG(kSecret.size()),
             [&](CK_BYTE_PTR o, CK_ULONG_PTR n) {
                 return b.f()->C_Decrypt(b.s(), ciphertext.data(), CK_ULONG(ciphertext.size()), o, n);
             },
             out, [&](const Bytes& decrypted) { return decrypted == kSecret; });
     },
     "CKR_BUFFER_TOO_SMALL with the length, then CKR_OK",
     "CKR_BUFFER_TOO_SMALL with a wrong length, then CKR_OPERATION_NOT_INITIALIZED"},
    {"C_Encrypt into k-1 bytes, then into k",
     [](Bad& b) {
         CK_MECHANISM m = plain(CKM_RSA_PKCS);
         const CK_RV rv = b.f()->C_EncryptInit(b.s(), &m, b.keys.pub);
         if (rv != CKR_OK) return rvName(rv);
         Bytes out(b.k);
         return shortBuffer(CK_ULONG(b.k - 1), CK_ULONG(b.k),
             [&](CK_BYTE_PTR o, CK_ULONG_PTR n) {
                 return b.f()->C_Encrypt(b.s(), const_cast<CK_BYTE_PTR>(kSecret.data()), CK_ULONG(kSecret.size()), o, n);
             },
             out, [&](const Bytes& ciphertext) {
                 Bytes decrypted;
                 return decrypt(b.side, plain(CKM_RSA_PKCS), b.keys.priv, ciphertext, &decrypted) == CKR_OK &&
                        decrypted == kSecret;
             });
     },
     "CKR_BUFFER_TOO_SMALL with the length, then CKR_OK",
     "CKR_BUFFER_TOO_SMALL with a wrong length, then CKR_OPERATION_NOT_INITIALIZED"},
    // Signatures that do not verify; the peer takes a signature of the wrong
    // length for a wrong one.
    {"a signature with one bit flipped",
     [](Bad& b) {
         Bytes signature = goodSignature(b);
         signature[b.k / 2] ^= 0x10;
         return rvName(verify(b.side, plain(CKM_SHA256_RSA_PKCS), b.keys.pub, message(), signature));
     },
     "CKR_SIGNATURE_INVALID", "CKR_SIGNATURE_INVALID"},
    {"a PSS signature of other data, checked in parts",
     [](Bad& b) {
         CK_MECHANISM m{CKM_SHA256_RSA_PKCS_PSS, &kPss, sizeof kPss};
         Bytes signature;
         const CK_RV rv = sign(b.side, m, b.keys.priv, Bytes(5, 5), &signature);
         return then(rv, verifyParts(b.side, m, b.keys.pub, message(), 30, signature));
     },
     "CKR_OK, then CKR_SIGNATURE_INVALID", "CKR_OK, then CKR_SIGNATURE_INVALID"},
    {"a signature one byte short",
     [](Bad& b) {
         Bytes signature = goodSignature(b);
         signature.pop_back();
         return rvName(verify(b.side, plain(CKM_SHA256_RSA_PKCS), b.keys.pub, message(), signature));
     },
     "CKR_SIGNATURE_LEN_RANGE", "CKR_SIGNATURE_INVALID"},
    {"a signature one byte long, checked in parts",
     [](Bad& b) {
         Bytes signature = goodSignature(b);
         signature.push_back(0);
         return rvName(verifyParts(b.side, plain(CKM_SHA256_RSA_PKCS), b.keys.pub, message(), 30, signature));
     },
     "CKR_SIGNATURE_LEN_RANGE", "CKR_SIGNATURE_INVALID"},
    // Ciphertexts that do not decrypt. The peer gives a substitute plaintext
    // for bad PKCS #1 v1.5 padding, and calls a short ciphertext a bad
    // argument.
    {"CKM_RSA_PKCS decrypting a block of type 1",
     [](Bad& b) {
         Bytes block(b.k, 0xFF);
         block[0] = 0x00;
         block[1] = 0x01;
         block[b.k - 17] = 0x00;
         Bytes out;
         return rvName(decrypt(b.side, plain(CKM_RSA_PKCS), b.keys.priv, publicRaw(b.key, block), &out));
     },
     "CKR_ENCRYPTED_DATA_INVALID", "CKR_OK"},
    {"OAEP decrypting with the wrong label",
     [](Bad& b) {
         Bytes label = {'l'};
         Bytes ciphertext = encrypt(b.key, kSecret, true, label), out;
         return rvName(decrypt(b.side, oaepSha1(), b.keys.priv, ciphertext, &out));
     },
     "CKR_ENCRYPTED_DATA_INVALID", "CKR_ENCRYPTED_DATA_INVALID"},
    {"OAEP decrypting PKCS #1 v1.5 ciphertext",
     [](Bad& b) {
         Bytes ciphertext = encrypt(b.key, kSecret), out;
         return rvName(decrypt(b.side, oaepSha1(), b.keys.priv, ciphertext, &out));
     },
     "CKR_ENCRYPTED_DATA_INVALID", "CKR_ENCRYPTED_DATA_INVALID"},
    {"decrypting k-1 bytes",
     [](Bad& b) {
         Bytes ciphertext = encrypt(b.key, kSecret), out;
         ciphertext.pop_back();
         return rvName(decrypt(b.side, plain(CKM_RSA_PKCS), b.keys.priv, ciphertext, &out));
     },
     "CKR_ENCRYPTED_DATA_LEN_RANGE", "CKR_ARGUMENTS_BAD"},
    // Calls after the operation ended.
    {"C_SignUpdate after C_Sign",
     [](Bad& b) {
         goodSignature(b);
         return rvName(b.f()->C_SignUpdate(b.s(), const_cast<CK_BYTE_PTR>(message().data()), 1));
     },
     "CKR_OPERATION_NOT_INITIALIZED", "CKR_OPERATION_NOT_INITIALIZED"},
    {"C_SignFinal after C_SignFinal",
     [](Bad& b) {
         Bytes signature;
         const CK_RV rv = signParts(b.side, plain(CKM_SHA256_RSA_PKCS), b.keys.priv, message(), 50, &signature);
         CK_ULONG length = CK_ULONG(signature.size());
         return then(rv, b.f()->C_SignFinal(b.s(), signature.data(), &length));
     },
     "CKR_OK, then CKR_OPERATION_NOT_INITIALIZED", "CKR_OK, then CKR_OPERATION_NOT_INITIALIZED"},
    {"C_Sign after C_Sign failed for the length",
     [](Bad& b) {
         Bytes out;
         const CK_RV rv = sign(b.side, plain(CKM_RSA_PKCS), b.keys.priv, Bytes(b.k, 1), &out);
         CK_ULONG length = 0;
         return then(rv, b.f()->C_Sign(b.s(), const_cast<CK_BYTE_PTR>(message().data()), 20, nullptr, &length));
     },
     "CKR_DATA_LEN_RANGE, then CKR_OPERATION_NOT_INITIALIZED", "CKR_GENERAL_ERROR, then CKR_OPERATION_NOT_INITIALIZED"},
    {"C_VerifyFinal after C_Verify",
     [](Bad& b) {
         Bytes signature = goodSignature(b);
         const CK_RV rv = verify(b.side, plain(CKM_SHA256_RSA_PKCS), b.keys.pub, message(), signature);
         return then(rv, b.f()->C_VerifyFinal(b.s(), signature.data(), CK_ULONG(signature.size())));
     },
     "CKR_OK, then CKR_OPERATION_NOT_INITIALIZED", "CKR_OK, then CKR_OPERATION_NOT_INITIALIZED"},
    {"C_Decrypt after C_Decrypt",
     [](Bad& b) {
         Bytes ciphertext = encrypt(b.key, kSecret), out;
         const CK_RV rv = decrypt(b.side, plain(CKM_RSA_PKCS), b.keys.priv, ciphertext, &out);
         CK_ULONG length = 0;
         return then(rv, b.f()->C_Decrypt(b.s(), ciphertext.data(), CK_ULONG(ciphertext.size()), nullptr, &length));
     },
     "CKR_OK, then CKR_OPERATION_NOT_INITIALIZED", "CKR_OK, then CKR_OPERATION_NOT_INITIALIZED"},
    {"C_VerifyRecover after C_VerifyRecover",
     [](Bad& b) {
         Bytes block(b.k, 0x42), out;
         block[0] = 0;
         const CK_RV rv = verifyRecover(b.side, plain(CKM_RSA_X_509), b.keys.pub, block, &out);
         CK_ULONG length = 0;
         return then(rv, b.f()->C_VerifyRecover(b.s(), block.data(), CK_ULONG(block.size()), nullptr, &length));
     },
     "CKR_OK, then CKR_OPERATION_NOT_INITIALIZED", "CKR_OK, then CKR_OPERATION_NOT_INITIALIZED"},
    // A second init while one is active; the first one goes on.
    {"C_SignInit twice",
     [](Bad& b) {
         CK_MECHANISM m = plain(CKM_SHA256_RSA_PKCS);
         const CK_RV first = b.f()->C_SignInit(b.s(), &m, b.keys.priv);
         const CK_RV second = b.f()->C_SignInit(b.s(), &m, b.keys.priv);
         Bytes out(b.k);
         CK_ULONG length = CK_ULONG(b.k);
         const CK_RV rv = b.f()->C_Sign(b.s(), const_cast<CK_BYTE_PTR>(message().data()), 100, out.data(), &length);
         const bool good = rv == CKR_OK && verifies(b.key, EVP_sha256(), message(), out);
         return rvName(first) + ", " + then(second, rv) + (good ? "" : " with a wrong result");
     },
     "CKR_OK, CKR_OPERATION_ACTIVE, then CKR_OK", "CKR_OK, CKR_OPERATION_ACTIVE, then CKR_OK"},
    {"C_VerifyInit twice",
     [](Bad& b) {
         CK_MECHANISM m = plain(CKM_SHA256_RSA_PKCS);
         Bytes signature = goodSignature(b);
         const CK_RV first = b.f()->C_VerifyInit(b.s(), &m, b.keys.pub);
         const CK_RV second = b.f()->C_VerifyInit(b.s(), &m, b.keys.pub);
         return rvName(first) + ", " +
                then(second, b.f()->C_Verify(b.s(), const_cast<CK_BYTE_PTR>(message().data()), 100, signature.data(),
                                             CK_ULONG(signature.size())));
     },
     "CKR_OK, CKR_OPERATION_ACTIVE, then CKR_OK", "CKR_OK, CKR_OPERATION_ACTIVE, then CKR_OK"},
    {"C_DecryptInit twice",
     [](Bad& b) {
         CK_MECHANISM m = plain(CKM_RSA_PKCS);
         Bytes ciphertext = encrypt(b.key, kSecret);
         const CK_RV first = b.f()->C_DecryptInit(b.s(), &m, b.keys.priv);
         const CK_RV second = b.f()->C_DecryptInit(b.s(), &m, b.keys.priv);
         Bytes out(b.k);
         CK_ULONG length = CK_ULONG(b.k);
         const CK_RV rv = b.f()->C_Decrypt(b.s(), ciphertext.data(), CK_ULONG(ciphertext.size()), out.data(), &length);
         const bool good = rv == CKR_OK && Bytes(out.begin(), out.begin() + length) == kSecret;
         return rvName(first) + ", " + then(second, rv) + (good ? "" : " with a wrong result");
     },
     "CKR_OK, CKR_OPERATION_ACTIVE, then CKR_OK", "CKR_OK, CKR_OPERATION_ACTIVE, then CKR_OK"},
    {"C_EncryptInit twice",
     [](Bad& b) {
         CK_MECHANISM m = plain(CKM_RSA_X_509);
         Bytes block(b.k, 0x42), out(b.k);
         block[0] = 0;
         const CK_RV first = b.f()->C_EncryptInit(b.s(), &m, b.keys.pub);
         const CK_RV second = b.f()->C_EncryptInit(b.s(), &m, b.keys.pub);
         CK_ULONG length = CK_ULONG(b.k);
         const CK_RV rv = b.f()->C_Encrypt(b.s(), block.data(), CK_ULONG(b.k), out.data(), &length);
         const bool good = rv == CKR_OK && publicRaw(b.key, block) == out;
         return rvName(first) + ", " + then(second, rv) + (good ? "" : " with a wrong result");
     },
     "CKR_OK, CKR_OPERATION_ACTIVE, then CKR_OK", "CKR_OK, CKR_OPERATION_ACTIVE, then CKR_OK"},
};

TEST_P(RsaPeer, BadInputGetsCryptokisCodesAndTheSessionGoesOn)
{
    Pkey key(EVP_RSA_gen(1024));
    ASSERT_TRUE(key);
    const RsaNumbers numbers = numbersOf(key.get());
    // The keys live in the subject's session; each row runs in a session of
    // its own, which must still work after the row.
    Bad b{subject_, {}, {}, CK_INVALID_HANDLE, key.get(), 128};
    ASSERT_EQ(rvName(importRsa(subject_, numbers, &b.keys)), "CKR_OK") << subject_.name;
    ASSERT_EQ(rvName(importRsa(subject_, numbers, &b.unusable, Usage::none())), "CKR_OK") << subject_.name;
    ASSERT_EQ(rvName(secretKey(subject_, Bytes(16, 0x77), &b.secret)), "CKR_OK") << subject_.name;

    for (const BadInput& row : kBadInput) {
        SCOPED_TRACE(row.what);
        P11Side rowSide = subject_;
        std::string why;
        if (isModule()) {
            ASSERT_EQ(p->C_OpenSession(0, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &rowSide.s), CKR_OK);
        } else {
            ASSERT_TRUE(openSoftokn(&rowSide, &why)) << why;
        }
        b.side = rowSide;
        EXPECT_EQ(row.run(b), isModule() ? row.cryptoki : row.peer) << subject_.name;
        // The session goes on: a signature, then its verification.
        Bytes signature;
        EXPECT_EQ(rvName(sign(b.side, plain(CKM_SHA256_RSA_PKCS), b.keys.priv, message(), &signature)), "CKR_OK")
            << "signing afterwards";
        EXPECT_EQ(rvName(verify(b.side, plain(CKM_SHA256_RSA_PKCS), b.keys.pub, message(), signature)), "CKR_OK")
            << "verifying afterwards";
        closeSide(&rowSide);
    }
}

INSTANTIATE_TEST_SUITE_P(Subjects, RsaPeer, testing::Values(Subject::Module, Subject::Peer), subjectName);

}  // namespace
}  // namespace korvo
