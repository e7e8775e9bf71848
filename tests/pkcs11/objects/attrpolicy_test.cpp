#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "pkcs11/objects/P11AttrPolicy.h"
#include "pkcs11/objects/P11Obj.h"

namespace {

using Bytes = std::vector<CK_BYTE>;
using Values = std::map<CK_ATTRIBUTE_TYPE, Bytes>;

Bytes ul(CK_ULONG v)
{
    const CK_BYTE* p = reinterpret_cast<const CK_BYTE*>(&v);
    return Bytes(p, p + sizeof v);
}
Bytes flag(bool v) { return Bytes{CK_BYTE(v ? 1 : 0)}; }

// A template that owns its values; attributes are rebuilt on each use.
struct Template {
    std::vector<std::pair<CK_ATTRIBUTE_TYPE, Bytes>> entries;
    mutable std::vector<CK_ATTRIBUTE> attributes;
    Template(std::initializer_list<std::pair<CK_ATTRIBUTE_TYPE, Bytes>> e) : entries(e) {}
    explicit Template(const Values& v) : entries(v.begin(), v.end()) {}
    CK_ATTRIBUTE_PTR ptr() const
    {
        attributes.clear();
        for (auto& e : entries)
            attributes.push_back({e.first, e.second.empty() ? nullptr : const_cast<CK_BYTE*>(e.second.data()),
                                  CK_ULONG(e.second.size())});
        return attributes.data();
    }
    CK_ULONG count() const { return entries.size(); }
};

// A software object filled from a template; frees itself.
struct Object {
    P11Obj* object = nullptr;
    explicit Object(const Template& t)
    {
        EXPECT_EQ(P11Obj_SW_construct(&object), CKR_OK);
        EXPECT_EQ(P11Obj_setAttributesfromTemplate(object, t.ptr(), t.count()), CKR_OK);
    }
    ~Object() { P11Obj_SW_destruct(&object); }
    Bytes value(CK_ATTRIBUTE_TYPE type) const
    {
        const CK_ATTRIBUTE* a = nullptr;
        EXPECT_EQ(P11Obj_peekAttribute(object, type, &a), CKR_OK);
        if (!a) return {CK_BYTE(0xEE), CK_BYTE(0xEE)};  // "absent", distinct from every expected value
        const CK_BYTE* p = static_cast<const CK_BYTE*>(a->pValue);
        return Bytes(p, p + a->ulValueLen);
    }
};

// Adds a small number to a big-endian value.
Bytes plus(Bytes v, CK_BYTE n)
{
    unsigned carry = n;
    for (size_t i = v.size(); i-- > 0 && carry;) {
        carry += v[i];
        v[i] = CK_BYTE(carry);
        carry >>= 8;
    }
    return v;
}

const CK_ULONG kDataClass = CKO_DATA, kPublic = CKO_PUBLIC_KEY, kPrivate = CKO_PRIVATE_KEY, kSecret = CKO_SECRET_KEY;

Template aesKey()
{
    return Template{{CKA_CLASS, ul(kSecret)}, {CKA_KEY_TYPE, ul(CKK_AES)}, {CKA_VALUE, Bytes(32, 7)}};
}

}  // namespace

// Keys made by OpenSSL in a context of the test's own, as the reference.
class AttrPolicyKeys : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        ctx_ = OSSL_LIB_CTX_new();
        EVP_PKEY* rsa = EVP_PKEY_Q_keygen(ctx_, nullptr, "RSA", size_t(1024));
        ASSERT_NE(rsa, nullptr);
        const std::pair<CK_ATTRIBUTE_TYPE, const char*> rsaParams[] = {
            {CKA_MODULUS, OSSL_PKEY_PARAM_RSA_N},          {CKA_PUBLIC_EXPONENT, OSSL_PKEY_PARAM_RSA_E},
            {CKA_PRIVATE_EXPONENT, OSSL_PKEY_PARAM_RSA_D}, {CKA_PRIME_1, OSSL_PKEY_PARAM_RSA_FACTOR1},
            {CKA_PRIME_2, OSSL_PKEY_PARAM_RSA_FACTOR2},    {CKA_EXPONENT_1, OSSL_PKEY_PARAM_RSA_EXPONENT1},
            {CKA_EXPONENT_2, OSSL_PKEY_PARAM_RSA_EXPONENT2}, {CKA_COEFFICIENT, OSSL_PKEY_PARAM_RSA_COEFFICIENT1}};
        for (auto& [type, name] : rsaParams) rsa_[type] = param(rsa, name);
        EVP_PKEY_free(rsa);

        EVP_PKEY_CTX* pc = EVP_PKEY_CTX_new_from_name(ctx_, "DHX", nullptr);
        char group[] = "dh_1024_160";
        const OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_PKEY_PARAM_GROUP_NAME, group, 0),
                                     OSSL_PARAM_construct_end()};
        EVP_PKEY* dh = nullptr;
        ASSERT_EQ(EVP_PKEY_keygen_init(pc), 1);
        ASSERT_EQ(EVP_PKEY_CTX_set_params(pc, params), 1);
        ASSERT_EQ(EVP_PKEY_generate(pc, &dh), 1);
        x942_ = {{CKA_PRIME, param(dh, OSSL_PKEY_PARAM_FFC_P)}, {CKA_SUBPRIME, param(dh, OSSL_PKEY_PARAM_FFC_Q)},
                 {CKA_BASE, param(dh, OSSL_PKEY_PARAM_FFC_G)}, {CKA_VALUE, param(dh, OSSL_PKEY_PARAM_PUB_KEY)}};
        EVP_PKEY_free(dh);
        EVP_PKEY_CTX_free(pc);
    }
    static void TearDownTestSuite() { OSSL_LIB_CTX_free(ctx_); }

    static Bytes param(EVP_PKEY* key, const char* name)
    {
        BIGNUM* bn = nullptr;
        EXPECT_EQ(EVP_PKEY_get_bn_param(key, name, &bn), 1) << name;
        Bytes out(BN_num_bytes(bn));
        BN_bn2bin(bn, out.data());
        BN_free(bn);
        return out;
    }

    static OSSL_LIB_CTX* ctx_;
    static Values rsa_;
    static Values x942_;
};
OSSL_LIB_CTX* AttrPolicyKeys::ctx_ = nullptr;
Values AttrPolicyKeys::rsa_;
Values AttrPolicyKeys::x942_;

TEST(AttributeAllowed, FirstRowMatchingTypeAndKindDecides)
{
    struct Row {
        CK_ATTRIBUTE_TYPE type;
        uint64_t kind;
        uint64_t operation;
        CK_RV expected;
    };
    const Row rows[] = {
        {CKA_VALUE, P11_KIND_RSA_PUBLIC, P11_TEMPLATE_CREATE, CKR_ATTRIBUTE_TYPE_INVALID},
        {CKA_VALUE, P11_KIND_RSA_PRIVATE, P11_TEMPLATE_CREATE, CKR_ATTRIBUTE_TYPE_INVALID},
        {CKA_VALUE, P11_KIND_EC_PUBLIC, P11_TEMPLATE_CREATE, CKR_ATTRIBUTE_TYPE_INVALID},
        {CKA_VALUE, P11_KIND_FIXED_SECRET, P11_TEMPLATE_UNWRAP, CKR_ATTRIBUTE_READ_ONLY},
        {CKA_VALUE, P11_KIND_VARIABLE_SECRET, P11_TEMPLATE_DERIVE, CKR_OK},
        {CKA_VALUE, P11_KIND_DATA, P11_TEMPLATE_SET, CKR_OK},
        {CKA_VALUE, P11_KIND_CERTIFICATE, P11_TEMPLATE_SET, CKR_ATTRIBUTE_READ_ONLY},
        {CKA_CLASS, P11_KIND_DATA, P11_TEMPLATE_SET, CKR_ATTRIBUTE_READ_ONLY},
        {CKA_KEY_TYPE, P11_KIND_RSA_PRIVATE, P11_TEMPLATE_SET, CKR_ATTRIBUTE_READ_ONLY},
        {CKA_MODULUS, P11_KIND_RSA_PUBLIC, P11_TEMPLATE_SET, CKR_ATTRIBUTE_READ_ONLY},
        {CKA_MODULUS, P11_KIND_DSA_PUBLIC, P11_TEMPLATE_CREATE, CKR_ATTRIBUTE_TYPE_INVALID},
        {CKA_SUBJECT, P11_KIND_CERTIFICATE, P11_TEMPLATE_SET, CKR_ATTRIBUTE_READ_ONLY},
        {CKA_SUBJECT, P11_KIND_RSA_PUBLIC, P11_TEMPLATE_SET, CKR_OK},
        {CKA_PUBLIC_EXPONENT, P11_KIND_RSA_PUBLIC, P11_TEMPLATE_GENERATE, CKR_OK},
        {CKA_PUBLIC_EXPONENT, P11_KIND_RSA_PRIVATE, P11_TEMPLATE_GENERATE, CKR_ATTRIBUTE_READ_ONLY},
        {CKA_EC_POINT, P11_KIND_EC_PRIVATE, P11_TEMPLATE_CREATE, CKR_ATTRIBUTE_TYPE_INVALID},
        {CKA_LOCAL, P11_KIND_VARIABLE_SECRET, P11_TEMPLATE_CREATE, CKR_ATTRIBUTE_READ_ONLY},
        {CKA_SUB_PRIME_BITS, P11_KIND_DSA_PARAMETERS, P11_TEMPLATE_GENERATE, CKR_ATTRIBUTE_TYPE_INVALID},
        {CKA_VALUE_LEN, P11_KIND_FIXED_SECRET, P11_TEMPLATE_CREATE, CKR_ATTRIBUTE_READ_ONLY},
    };
    for (const Row& r : rows)
        EXPECT_EQ(AttributeAllowed(r.type, r.kind, r.operation), r.expected)
            << std::hex << "type 0x" << r.type << " kind 0x" << r.kind << " operation 0x" << r.operation;
}

TEST_F(AttrPolicyKeys, TemplateChecksApplyTablesKindsAndMechanisms)
{
    const Template rsaPublic{{CKA_CLASS, ul(kPublic)}, {CKA_KEY_TYPE, ul(CKK_RSA)},
                             {CKA_MODULUS, rsa_[CKA_MODULUS]}, {CKA_PUBLIC_EXPONENT, rsa_[CKA_PUBLIC_EXPONENT]}};
    Object rsaKey(rsaPublic);
    Object aes(aesKey());
    ASSERT_EQ(MakeFullTemplate(aes.object), CKR_OK);
    CK_MECHANISM aesGen{CKM_AES_KEY_GEN, nullptr, 0}, rsaGen{CKM_RSA_PKCS_KEY_PAIR_GEN, nullptr, 0},
        unknown{CKM_SHA256, nullptr, 0}, wrap{CKM_AES_ECB, nullptr, 0};

    const auto create = [](Template t) { return [t] { return CheckTemplate(nullptr, t.ptr(), t.count(), P11_TEMPLATE_CREATE); }; };
    const auto change = [](P11Obj* o, uint64_t op, Template t) { return [=] { return CheckTemplate(o, t.ptr(), t.count(), op); }; };
    const auto generate = [](CK_MECHANISM* m, Template t) { return [=] { return CheckTemplateGenerate(t.ptr(), t.count(), m); }; };
    const auto pair = [](Template pub, Template priv) {
        return [=] {
            CK_MECHANISM m{CKM_RSA_PKCS_KEY_PAIR_GEN, nullptr, 0};
            return CheckTemplatesGeneratePair(pub.ptr(), pub.count(), priv.ptr(), priv.count(), &m);
        };
    };
    const auto unwrap = [&wrap](Template t) { return [=, &wrap] { return CheckTemplateUnwrap(t.ptr(), t.count(), &wrap); }; };
    const auto derive = [](Template t) { return [=] { return CheckTemplateDerive(t.ptr(), t.count(), CKM_ECDH1_DERIVE); }; };

    Template withValue = rsaPublic;
    withValue.entries.push_back({CKA_VALUE, Bytes(4, 1)});
    const struct {
        const char* name;
        std::function<CK_RV()> check;
        CK_RV expected;
    } cases[] = {
        {"data object from its class", create({{CKA_CLASS, ul(kDataClass)}}), CKR_OK},
        {"RSA public key", create(rsaPublic), CKR_OK},
        {"value on an RSA public key", create(withValue), CKR_ATTRIBUTE_TYPE_INVALID},
        {"RSA public key without exponent", create({{CKA_CLASS, ul(kPublic)}, {CKA_KEY_TYPE, ul(CKK_RSA)}, {CKA_MODULUS, Bytes(8, 1)}}), CKR_TEMPLATE_INCOMPLETE},
        {"no class", create({{CKA_LABEL, Bytes(1, 'x')}}), CKR_TEMPLATE_INCOMPLETE},
        {"hardware feature class", create({{CKA_CLASS, ul(CKO_HW_FEATURE)}}), CKR_ATTRIBUTE_VALUE_INVALID},
        {"key class without key type", create({{CKA_CLASS, ul(kPublic)}}), CKR_TEMPLATE_INCOMPLETE},
        {"secret key of type RSA", create({{CKA_CLASS, ul(kSecret)}, {CKA_KEY_TYPE, ul(CKK_RSA)}}), CKR_TEMPLATE_INCONSISTENT},
        {"attribute certificate", create({{CKA_CLASS, ul(CKO_CERTIFICATE)}, {CKA_CERTIFICATE_TYPE, ul(CKC_X_509_ATTR_CERT)}}), CKR_TEMPLATE_INCONSISTENT},
        {"RC5 secret key", create({{CKA_CLASS, ul(kSecret)}, {CKA_KEY_TYPE, ul(CKK_RC5)}, {CKA_VALUE, Bytes(16, 1)}}), CKR_OK},
        {"DES3 key of 8 bytes", create({{CKA_CLASS, ul(kSecret)}, {CKA_KEY_TYPE, ul(CKK_DES3)}, {CKA_VALUE, Bytes(8, 1)}}), CKR_ATTRIBUTE_VALUE_INVALID},
        {"boolean of value 2", create({{CKA_CLASS, ul(kDataClass)}, {CKA_TOKEN, Bytes{2}}}), CKR_ATTRIBUTE_VALUE_INVALID},
        {"unstorable type", create({{CKA_CLASS, ul(kDataClass)}, {784, Bytes{1}}}), CKR_ATTRIBUTE_TYPE_INVALID},
        {"set class", change(rsaKey.object, P11_TEMPLATE_SET, {{CKA_CLASS, ul(kPublic)}}), CKR_ATTRIBUTE_READ_ONLY},
        {"set key type", change(rsaKey.object, P11_TEMPLATE_SET, {{CKA_KEY_TYPE, ul(CKK_RSA)}}), CKR_ATTRIBUTE_READ_ONLY},
        {"set modulus", change(rsaKey.object, P11_TEMPLATE_SET, {{CKA_MODULUS, Bytes(8, 1)}}), CKR_ATTRIBUTE_READ_ONLY},
        {"set label", change(rsaKey.object, P11_TEMPLATE_SET, {{CKA_LABEL, Bytes(3, 'a')}}), CKR_OK},
        {"set sensitive false", change(aes.object, P11_TEMPLATE_SET, {{CKA_SENSITIVE, flag(false)}}), CKR_ATTRIBUTE_READ_ONLY},
        {"set sensitive true", change(aes.object, P11_TEMPLATE_SET, {{CKA_SENSITIVE, flag(true)}}), CKR_OK},
        {"set extractable true", change(aes.object, P11_TEMPLATE_SET, {{CKA_EXTRACTABLE, flag(true)}}), CKR_ATTRIBUTE_READ_ONLY},
        {"copy with extractable false", change(aes.object, P11_TEMPLATE_COPY, {{CKA_EXTRACTABLE, flag(false)}}), CKR_OK},
        {"copy with sensitive false", change(aes.object, P11_TEMPLATE_COPY, {{CKA_SENSITIVE, flag(false)}}), CKR_ATTRIBUTE_READ_ONLY},
        {"AES generation", generate(&aesGen, {{CKA_VALUE_LEN, ul(32)}}), CKR_OK},
        {"AES generation without length", generate(&aesGen, {}), CKR_TEMPLATE_INCOMPLETE},
        {"AES generation asking for DES", generate(&aesGen, {{CKA_VALUE_LEN, ul(16)}, {CKA_KEY_TYPE, ul(CKK_DES)}}), CKR_TEMPLATE_INCONSISTENT},
        {"AES generation asking for a public key", generate(&aesGen, {{CKA_VALUE_LEN, ul(16)}, {CKA_CLASS, ul(kPublic)}}), CKR_TEMPLATE_INCONSISTENT},
        {"generation by a digest", generate(&unknown, {}), CKR_MECHANISM_INVALID},
        {"pair mechanism for one key", generate(&rsaGen, {}), CKR_MECHANISM_INVALID},
        {"RSA pair", pair({{CKA_MODULUS_BITS, ul(1024)}, {CKA_PUBLIC_EXPONENT, Bytes{1, 0, 1}}}, {{CKA_SIGN, flag(true)}}), CKR_OK},
        {"RSA pair without size", pair({{CKA_PUBLIC_EXPONENT, Bytes{1, 0, 1}}}, {}), CKR_TEMPLATE_INCOMPLETE},
        {"RSA pair with private modulus", pair({{CKA_MODULUS_BITS, ul(1024)}, {CKA_PUBLIC_EXPONENT, Bytes{3}}}, {{CKA_MODULUS, Bytes{3}}}), CKR_ATTRIBUTE_READ_ONLY},
        {"unwrap AES", unwrap({{CKA_CLASS, ul(kSecret)}, {CKA_KEY_TYPE, ul(CKK_AES)}}), CKR_OK},
        {"unwrap with value", unwrap({{CKA_CLASS, ul(kSecret)}, {CKA_KEY_TYPE, ul(CKK_AES)}, {CKA_VALUE, Bytes(16, 1)}}), CKR_ATTRIBUTE_READ_ONLY},
        {"unwrap a data object", unwrap({{CKA_CLASS, ul(kDataClass)}}), CKR_TEMPLATE_INCONSISTENT},
        {"derive DES3", derive({{CKA_CLASS, ul(kSecret)}, {CKA_KEY_TYPE, ul(CKK_DES3)}}), CKR_OK},
        {"derive a public key", derive({{CKA_CLASS, ul(kPublic)}}), CKR_TEMPLATE_INCONSISTENT},
        {"derive an RSA key", derive({{CKA_KEY_TYPE, ul(CKK_RSA)}}), CKR_TEMPLATE_INCONSISTENT},
    };
    for (const auto& c : cases) EXPECT_EQ(c.check(), c.expected) << c.name;
}

TEST_F(AttrPolicyKeys, CompletionStoresDefaults)
{
    const struct {
        const char* name;
        Template given;
        Values expected;
    } cases[] = {
        {"data object", {{CKA_CLASS, ul(kDataClass)}},
         {{CKA_LABEL, Bytes{0}}, {CKA_VALUE, {}}, {CKA_APPLICATION, Bytes{0}}, {CKA_OBJECT_ID, {}}, {CKA_MODIFIABLE, flag(true)}}},
        {"RSA public key", {{CKA_CLASS, ul(kPublic)}, {CKA_KEY_TYPE, ul(CKK_RSA)}, {CKA_MODULUS, rsa_[CKA_MODULUS]}, {CKA_PUBLIC_EXPONENT, Bytes{3}}},
         {{CKA_MODULUS_BITS, ul(8 * rsa_[CKA_MODULUS].size())}, {CKA_VERIFY, flag(true)}, {CKA_PRIVATE, flag(false)}}},
        {"sensitive AES key", {{CKA_CLASS, ul(kSecret)}, {CKA_KEY_TYPE, ul(CKK_AES)}, {CKA_VALUE, Bytes(24, 1)}, {CKA_SENSITIVE, flag(true)}, {CKA_EXTRACTABLE, flag(false)}},
         {{CKA_VALUE_LEN, ul(24)}, {CKA_ALWAYS_SENSITIVE, flag(true)}, {CKA_NEVER_EXTRACTABLE, flag(true)}}},
        {"plain DES3 key", {{CKA_CLASS, ul(kSecret)}, {CKA_KEY_TYPE, ul(CKK_DES3)}, {CKA_VALUE, Bytes(24, 1)}},
         {{CKA_ALWAYS_SENSITIVE, flag(false)}, {CKA_NEVER_EXTRACTABLE, flag(false)}, {CKA_VALUE_LEN, {0xEE, 0xEE}}}},
        {"certificate", {{CKA_CLASS, ul(CKO_CERTIFICATE)}, {CKA_CERTIFICATE_TYPE, ul(CKC_X_509)}, {CKA_SUBJECT, Bytes{0x30, 0}}, {CKA_VALUE, Bytes{0x30, 0}}},
         {{CKA_START_DATE, Bytes(8, 0)}, {CKA_CERTIFICATE_CATEGORY, ul(0)}, {CKA_ISSUER, {}}, {CKA_TRUSTED, flag(false)}}},
    };
    for (const auto& c : cases) {
        Object o(c.given);
        ASSERT_EQ(MakeFullTemplate(o.object), CKR_OK) << c.name;
        for (const auto& [type, bytes] : c.expected) EXPECT_EQ(o.value(type), bytes) << c.name << std::hex << " type 0x" << type;
    }
}

TEST(MakeFullTemplate, RefusesObjectsItCannotComplete)
{
    const struct {
        const char* name;
        Template given;
        CK_RV expected;
    } cases[] = {
        {"RC5 key: no length rule", {{CKA_CLASS, ul(kSecret)}, {CKA_KEY_TYPE, ul(CKK_RC5)}, {CKA_VALUE, Bytes(16, 1)}}, CKR_GENERAL_ERROR},
        {"no class", {{CKA_LABEL, Bytes{1}}}, CKR_TEMPLATE_INCOMPLETE},
        {"hardware feature", {{CKA_CLASS, ul(CKO_HW_FEATURE)}}, CKR_GENERAL_ERROR},
        {"RSA public key with empty modulus", {{CKA_CLASS, ul(kPublic)}, {CKA_KEY_TYPE, ul(CKK_RSA)}, {CKA_MODULUS, {}}, {CKA_PUBLIC_EXPONENT, Bytes{3}}}, CKR_TEMPLATE_INCOMPLETE},
        {"certificate without value", {{CKA_CLASS, ul(CKO_CERTIFICATE)}, {CKA_CERTIFICATE_TYPE, ul(CKC_X_509)}, {CKA_SUBJECT, Bytes{1}}}, CKR_TEMPLATE_INCOMPLETE},
        {"WTLS certificate", {{CKA_CLASS, ul(CKO_CERTIFICATE)}, {CKA_CERTIFICATE_TYPE, ul(CKC_WTLS)}}, CKR_GENERAL_ERROR},
    };
    for (const auto& c : cases) {
        Object o(c.given);
        EXPECT_EQ(MakeFullTemplate(o.object), c.expected) << c.name;
    }
}

TEST(ObjIsSensitive, SensitiveOrNotExtractable)
{
    const struct {
        Bytes sensitive, extractable;  // empty: absent
        CK_RV rv;
        CK_BBOOL expected;
    } rows[] = {
        {{}, {}, CKR_OK, CK_FALSE},
        {{}, flag(false), CKR_OK, CK_FALSE},
        {flag(true), flag(true), CKR_OK, CK_TRUE},
        {flag(true), {}, CKR_OK, CK_TRUE},
        {flag(false), flag(true), CKR_OK, CK_FALSE},
        {flag(false), flag(false), CKR_OK, CK_TRUE},
        {flag(false), {}, CKR_TEMPLATE_INCOMPLETE, CK_FALSE},
    };
    for (const auto& r : rows) {
        Template t{};
        if (!r.sensitive.empty()) t.entries.push_back({CKA_SENSITIVE, r.sensitive});
        if (!r.extractable.empty()) t.entries.push_back({CKA_EXTRACTABLE, r.extractable});
        Object o(t);
        CK_BBOOL sensitive = CK_FALSE;
        EXPECT_EQ(ObjIsSensitive(o.object, &sensitive), r.rv);
        if (r.rv == CKR_OK) {
            EXPECT_EQ(sensitive, r.expected) << t.count() << " attributes";
        }
    }
}

TEST(AttrSensitive, WithholdsKeyMaterialOnly)
{
    CK_ATTRIBUTE prime{CKA_PRIME_1, nullptr, 5}, label{CKA_LABEL, nullptr, 5};
    EXPECT_EQ(AttrSensitive(&prime), CKR_ATTRIBUTE_SENSITIVE);
    EXPECT_EQ(prime.ulValueLen, CK_UNAVAILABLE_INFORMATION);
    EXPECT_EQ(AttrSensitive(&label), CKR_OK);
    EXPECT_EQ(label.ulValueLen, 5u);
}

TEST_F(AttrPolicyKeys, RsaPrivateKeyGetsTheCrtValuesOpenSslComputes)
{
    ASSERT_GT(rsa_[CKA_PRIME_1].size(), 0u);
    // OpenSSL orders its primes p > q, as factoring does.
    ASSERT_GT(rsa_[CKA_PRIME_1], rsa_[CKA_PRIME_2]);
    using Types = std::vector<CK_ATTRIBUTE_TYPE>;
    const Types all{CKA_MODULUS, CKA_PUBLIC_EXPONENT, CKA_PRIVATE_EXPONENT, CKA_PRIME_1, CKA_PRIME_2};
    const struct {
        const char* name;
        Types given;
        CK_ATTRIBUTE_TYPE tweaked;  // 0: none; else the value plus 2
        CK_RV expected;
    } cases[] = {
        {"n, e, d, p, q", all, 0, CKR_OK},
        {"n, e, d, p", {CKA_MODULUS, CKA_PUBLIC_EXPONENT, CKA_PRIVATE_EXPONENT, CKA_PRIME_1}, 0, CKR_OK},
        {"n, e, d, q", {CKA_MODULUS, CKA_PUBLIC_EXPONENT, CKA_PRIVATE_EXPONENT, CKA_PRIME_2}, 0, CKR_OK},
        {"n, e, d: factored", {CKA_MODULUS, CKA_PUBLIC_EXPONENT, CKA_PRIVATE_EXPONENT}, 0, CKR_OK},
        {"n, d, p, q: e computed", {CKA_MODULUS, CKA_PRIVATE_EXPONENT, CKA_PRIME_1, CKA_PRIME_2}, 0, CKR_OK},
        {"p q differing from n", all, CKA_PRIME_1, CKR_TEMPLATE_INCONSISTENT},
        {"d not matching e", all, CKA_PRIVATE_EXPONENT, CKR_TEMPLATE_INCONSISTENT},
        {"d not matching e, nothing to factor with", {CKA_MODULUS, CKA_PUBLIC_EXPONENT, CKA_PRIVATE_EXPONENT}, CKA_PRIVATE_EXPONENT, CKR_TEMPLATE_INCONSISTENT},
        {"wrong coefficient", {CKA_MODULUS, CKA_PUBLIC_EXPONENT, CKA_PRIVATE_EXPONENT, CKA_PRIME_1, CKA_PRIME_2, CKA_COEFFICIENT}, CKA_COEFFICIENT, CKR_TEMPLATE_INCONSISTENT},
    };
    for (const auto& c : cases) {
        Template t{{CKA_CLASS, ul(kPrivate)}, {CKA_KEY_TYPE, ul(CKK_RSA)}};
        for (CK_ATTRIBUTE_TYPE type : c.given) t.entries.push_back({type, c.tweaked == type ? plus(rsa_[type], 2) : rsa_[type]});
        ASSERT_EQ(CheckTemplate(nullptr, t.ptr(), t.count(), P11_TEMPLATE_CREATE), CKR_OK) << c.name;
        Object o(t);
        ASSERT_EQ(MakeFullTemplate(o.object), c.expected) << c.name;
        if (c.expected != CKR_OK) continue;
        for (const auto& [type, bytes] : rsa_) EXPECT_EQ(o.value(type), bytes) << c.name << std::hex << " type 0x" << type;
        EXPECT_EQ(o.value(CKA_MODIFIABLE), flag(false));
    }
}

TEST_F(AttrPolicyKeys, X942PublicKeyMustFitItsDomainParameters)
{
    const struct {
        const char* name;
        CK_ATTRIBUTE_TYPE changed;  // 0: none
        std::function<Bytes(const Values&)> value;
    } cases[] = {
        {"consistent", 0, nullptr},
        {"public value off the subgroup", CKA_VALUE, [](const Values& v) { return plus(v.at(CKA_VALUE), 1); }},
        {"public value equal to p", CKA_VALUE, [](const Values& v) { return v.at(CKA_PRIME); }},
        {"generator 1", CKA_BASE, [](const Values&) { return Bytes{1}; }},
        {"subprime moved by 2", CKA_SUBPRIME, [](const Values& v) { return plus(v.at(CKA_SUBPRIME), 2); }},
        {"prime moved by 2", CKA_PRIME, [](const Values& v) { return plus(v.at(CKA_PRIME), 2); }},
    };
    for (const auto& c : cases) {
        Values v = x942_;
        if (c.changed) v[c.changed] = c.value(x942_);
        v[CKA_CLASS] = ul(kPublic);
        v[CKA_KEY_TYPE] = ul(CKK_X9_42_DH);
        Object o{Template(v)};
        EXPECT_EQ(X942_CheckPublicKey(o.object), c.changed ? CKR_TEMPLATE_INCONSISTENT : CKR_OK) << c.name;
        EXPECT_EQ(MakeFullTemplate(o.object), c.changed ? CKR_TEMPLATE_INCONSISTENT : CKR_OK) << c.name;
    }
}
