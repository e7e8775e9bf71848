// Session objects through the function list: creation with the policy's
// checks and defaults, reading (lengths, sensitivity, the first noted code),
// changing, copying and destroying, and owners: token objects are refused,
// private objects need the user and vanish at logout.

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>

#include "abi/object_helpers.h"

namespace {

using namespace korvo;

const CK_ULONG kAllOnes = CK_UNAVAILABLE_INFORMATION;

// An RSA key made by OpenSSL: n, e, d, p, q, then the CRT values dp, dq, qinv.
const std::vector<Bytes>& opensslKey()
{
    static const std::vector<Bytes> key = [] {
        std::vector<Bytes> parts;
        EVP_PKEY* pkey = EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", size_t(1024));
        for (const char* name : {OSSL_PKEY_PARAM_RSA_N, OSSL_PKEY_PARAM_RSA_E, OSSL_PKEY_PARAM_RSA_D,
                                 OSSL_PKEY_PARAM_RSA_FACTOR1, OSSL_PKEY_PARAM_RSA_FACTOR2, OSSL_PKEY_PARAM_RSA_EXPONENT1,
                                 OSSL_PKEY_PARAM_RSA_EXPONENT2, OSSL_PKEY_PARAM_RSA_COEFFICIENT1}) {
            BIGNUM* bn = nullptr;
            if (!pkey || EVP_PKEY_get_bn_param(pkey, name, &bn) != 1) return std::vector<Bytes>(8);
            parts.emplace_back(BN_num_bytes(bn));
            BN_bn2bin(bn, parts.back().data());
            BN_free(bn);
        }
        EVP_PKEY_free(pkey);
        return parts;
    }();
    return key;
}

// The private key from modulus, both exponents and the primes; CKA_PRIVATE left to its default.
Tmpl rsaPrivateKey()
{
    const std::vector<Bytes>& k = opensslKey();
    Tmpl t;
    t.ulong(CKA_CLASS, CKO_PRIVATE_KEY).ulong(CKA_KEY_TYPE, CKK_RSA).add(CKA_MODULUS, k[0]).add(CKA_PUBLIC_EXPONENT, k[1]);
    t.add(CKA_PRIVATE_EXPONENT, k[2]).add(CKA_PRIME_1, k[3]).add(CKA_PRIME_2, k[4]);
    return t;
}

class Objects : public ObjectTest {};

}  // namespace

// ---- Creation: checks and defaults -----------------------------------------------

TEST_F(Objects, ObjectsAreCompletedWithTheirKindsDefaults)
{
    const CK_OBJECT_HANDLE data = make(dataObject());
    EXPECT_EQ(std::vector<CK_ULONG>({session, data}), std::vector<CK_ULONG>({1, 2}));  // one handle counter
    const CK_OBJECT_HANDLE rsa = make(rsaPublicKey());
    // A key made from known bytes was never always sensitive, whatever its template says.
    const CK_OBJECT_HANDLE locked = make(secretKey().flag(CKA_SENSITIVE, true).flag(CKA_EXTRACTABLE, false));
    const struct {
        CK_OBJECT_HANDLE object;
        CK_ATTRIBUTE_TYPE type;
        Bytes expected;
    } rows[] = {
        {data, CKA_CLASS, ulongBytes(CKO_DATA)}, {data, CKA_TOKEN, {0}}, {data, CKA_PRIVATE, {0}},
        {data, CKA_MODIFIABLE, {1}}, {data, CKA_LABEL, {0}}, {data, CKA_VALUE, {}}, {data, CKA_OBJECT_ID, {}},
        {rsa, CKA_MODULUS_BITS, ulongBytes(800)}, {locked, CKA_ALWAYS_SENSITIVE, {0}}, {locked, CKA_NEVER_EXTRACTABLE, {0}},
    };
    for (const auto& row : rows)
        EXPECT_EQ(toHex(value(row.object, row.type)), toHex(row.expected)) << row.object << ", type 0x" << std::hex << row.type;
}

TEST_F(Objects, CreateRefusesTemplatesThePolicyForbidsAndKeepsNothing)
{
    const struct {
        const char* what;
        Tmpl t;
        CK_RV expected;
    } cases[] = {
        {"no CKA_CLASS", Tmpl().text(CKA_LABEL, "x"), CKR_TEMPLATE_INCOMPLETE},
        {"CKA_VALUE in an RSA public key", rsaPublicKey().add(CKA_VALUE, {1}), CKR_ATTRIBUTE_TYPE_INVALID},
        {"unstorable type 784", dataObject().text(784, "x"), CKR_ATTRIBUTE_TYPE_INVALID},
        {"CKA_MODULUS_BITS (generation only)", rsaPublicKey().ulong(CKA_MODULUS_BITS, 800), CKR_ATTRIBUTE_READ_ONLY},
        {"CKK_RC5: checked, but no default length", secretKey(CKK_RC5), CKR_GENERAL_ERROR},
    };
    for (const auto& c : cases) EXPECT_EQ(create(c.t), c.expected) << c.what;
    EXPECT_TRUE(find().empty());
}

TEST_F(Objects, RsaPrivateKeyFromPrimesGetsTheCrtValuesOpenSslComputes)
{
    const std::vector<Bytes>& k = opensslKey();
    ASSERT_FALSE(k[7].empty()) << "OpenSSL made no RSA key";
    const CK_OBJECT_HANDLE key = make(rsaPrivateKey().flag(CKA_PRIVATE, false));
    EXPECT_EQ(toHex(value(key, CKA_EXPONENT_1)), toHex(k[5]));
    EXPECT_EQ(toHex(value(key, CKA_EXPONENT_2)), toHex(k[6]));
    EXPECT_EQ(toHex(value(key, CKA_COEFFICIENT)), toHex(k[7]));

    // A sensitive copy withholds the six private parts, and only them.
    Tmpl sensitive = Tmpl().flag(CKA_SENSITIVE, true);
    CK_OBJECT_HANDLE copy;
    ASSERT_EQ(p->C_CopyObject(session, key, sensitive.data(), sensitive.size(), &copy), CKR_OK);
    std::vector<CK_ATTRIBUTE> t;
    for (CK_ATTRIBUTE_TYPE type : {CKA_MODULUS, CKA_PRIVATE_EXPONENT, CKA_PRIME_1, CKA_PRIME_2, CKA_EXPONENT_1,
                                   CKA_EXPONENT_2, CKA_COEFFICIENT})
        t.push_back({type, nullptr, 0});
    EXPECT_EQ(p->C_GetAttributeValue(session, copy, t.data(), t.size()), CKR_ATTRIBUTE_SENSITIVE);
    for (size_t i = 0; i < t.size(); ++i) EXPECT_EQ(t[i].ulValueLen, i ? kAllOnes : k[0].size()) << "entry " << i;
}

// ---- Reading ------------------------------------------------------------------------

TEST_F(Objects, GetReportsLengthsMarksFailedEntriesAllOnesAndReturnsTheFirstCode)
{
    const CK_OBJECT_HANDLE object = make(dataObject("hello").text(CKA_VALUE, "abc"));
    CK_BYTE modulus[8], label[8], data[8];
    CK_ATTRIBUTE query[] = {{CKA_LABEL, nullptr, 0}, {CKA_VALUE, nullptr, 99}};
    EXPECT_EQ(p->C_GetAttributeValue(session, object, query, 2), CKR_OK);
    EXPECT_EQ(std::vector<CK_ULONG>({query[0].ulValueLen, query[1].ulValueLen}), std::vector<CK_ULONG>({5, 3}));

    const struct {
        CK_ATTRIBUTE_TYPE type;
        CK_ULONG bufferLength;
        CK_RV expected;
        CK_ULONG length;
    } cases[] = {{CKA_LABEL, 4, CKR_BUFFER_TOO_SMALL, kAllOnes}, {CKA_LABEL, 5, CKR_OK, 5}, {CKA_LABEL, 8, CKR_OK, 5},
                 {CKA_MODULUS, 8, CKR_ATTRIBUTE_TYPE_INVALID, kAllOnes}, {784, 8, CKR_ATTRIBUTE_TYPE_INVALID, kAllOnes}};
    for (const auto& c : cases) {
        CK_ATTRIBUTE a = {c.type, label, c.bufferLength};
        EXPECT_EQ(p->C_GetAttributeValue(session, object, &a, 1), c.expected) << c.type << "/" << c.bufferLength;
        EXPECT_EQ(a.ulValueLen, c.length) << c.type << "/" << c.bufferLength;
    }

    // Every entry is processed; the first noted code is returned.
    CK_ATTRIBUTE mixed[] = {{CKA_MODULUS, modulus, 8}, {CKA_LABEL, label, 2}, {CKA_VALUE, data, 8}};
    EXPECT_EQ(p->C_GetAttributeValue(session, object, mixed, 3), CKR_ATTRIBUTE_TYPE_INVALID);
    EXPECT_EQ(std::vector<CK_ULONG>({mixed[0].ulValueLen, mixed[1].ulValueLen, mixed[2].ulValueLen}),
              std::vector<CK_ULONG>({kAllOnes, kAllOnes, 3}));
    EXPECT_EQ(std::string(reinterpret_cast<char*>(data), 3), "abc");
    CK_ATTRIBUTE swapped[] = {{CKA_LABEL, label, 2}, {CKA_MODULUS, modulus, 8}};
    EXPECT_EQ(p->C_GetAttributeValue(session, object, swapped, 2), CKR_BUFFER_TOO_SMALL);
}

TEST_F(Objects, SensitiveKeysWithholdTheirValueAndTheFirstNotedCodeWins)
{
    // Sensitive: CKA_SENSITIVE true, or false with CKA_EXTRACTABLE false.
    const struct {
        bool sensitive, extractable, withheld;
    } cases[] = {{true, true, true}, {false, false, true}, {false, true, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "sensitive " << c.sensitive << ", extractable " << c.extractable);
        const CK_OBJECT_HANDLE key = make(
            secretKey().text(CKA_LABEL, "key-label").flag(CKA_SENSITIVE, c.sensitive).flag(CKA_EXTRACTABLE, c.extractable));
        CK_BYTE secret[32], label[4];
        CK_ULONG length = 0;
        CK_ATTRIBUTE t[] = {{CKA_VALUE, secret, sizeof secret}, {CKA_LABEL, label, sizeof label},
                            {CKA_VALUE_LEN, &length, sizeof length}};
        EXPECT_EQ(p->C_GetAttributeValue(session, key, t, 3), c.withheld ? CKR_ATTRIBUTE_SENSITIVE : CKR_BUFFER_TOO_SMALL);
        EXPECT_EQ(std::vector<CK_ULONG>({t[0].ulValueLen, t[1].ulValueLen, length}),
                  std::vector<CK_ULONG>({c.withheld ? kAllOnes : 16, kAllOnes, 16}));
        EXPECT_EQ(get(key, CKA_VALUE), c.withheld ? CKR_ATTRIBUTE_SENSITIVE : CKR_OK);  // length queries too
    }
}

TEST_F(Objects, AttributeCallsDoNotLookAtTheSessionHandle)
{
    const CK_SESSION_HANDLE other = openSession();
    const CK_OBJECT_HANDLE object = make(dataObject("mine"));
    ASSERT_EQ(p->C_CloseSession(other), CKR_OK);
    Tmpl label = Tmpl().text(CKA_LABEL, "mine");
    for (CK_SESSION_HANDLE h : {other, CK_SESSION_HANDLE(0), CK_SESSION_HANDLE(0xDEAD)}) {
        EXPECT_EQ(p->C_GetAttributeValue(h, object, label.data(), 1), CKR_OK) << h;
        EXPECT_EQ(p->C_SetAttributeValue(h, object, label.data(), 1), CKR_OK) << h;
    }
}

// ---- Changing -------------------------------------------------------------------------

TEST_F(Objects, SetAllowsWhatThePolicyAllowsForTheKindAndChecksBeforeChanging)
{
    const CK_OBJECT_HANDLE data = make(dataObject("before")), key = make(secretKey()), rsa = make(rsaPublicKey());
    const CK_OBJECT_HANDLE fixed = make(dataObject("fixed").flag(CKA_MODIFIABLE, false));
    const CK_OBJECT_HANDLE privateKey = make(rsaPrivateKey().flag(CKA_PRIVATE, false));  // unmodifiable by default
    const struct {
        const char* what;
        CK_OBJECT_HANDLE object;
        Tmpl t;
        CK_RV expected;
    } cases[] = {
        {"CKA_CLASS", data, Tmpl().ulong(CKA_CLASS, CKO_DATA), CKR_ATTRIBUTE_READ_ONLY},
        {"CKA_KEY_TYPE", key, Tmpl().ulong(CKA_KEY_TYPE, CKK_GENERIC_SECRET), CKR_ATTRIBUTE_READ_ONLY},
        {"CKA_MODULUS of a public key", rsa, Tmpl().add(CKA_MODULUS, {1}), CKR_ATTRIBUTE_READ_ONLY},
        {"CKA_SENSITIVE false", key, Tmpl().flag(CKA_SENSITIVE, false), CKR_ATTRIBUTE_READ_ONLY},
        {"unstorable type 784", data, Tmpl().text(784, "x"), CKR_ATTRIBUTE_TYPE_INVALID},
        {"label of an unmodifiable object", fixed, Tmpl().text(CKA_LABEL, "changed"), CKR_ATTRIBUTE_READ_ONLY},
        {"label of a private key", privateKey, Tmpl().text(CKA_LABEL, "changed"), CKR_ATTRIBUTE_READ_ONLY},
        {"refused entry after an allowed one", data, Tmpl().text(CKA_LABEL, "lost").ulong(CKA_CLASS, 0), CKR_ATTRIBUTE_READ_ONLY},
        {"CKA_LABEL and CKA_VALUE of data", data, Tmpl().text(CKA_LABEL, "after").text(CKA_VALUE, "new"), CKR_OK},
        {"CKA_SENSITIVE true", key, Tmpl().flag(CKA_SENSITIVE, true), CKR_OK},
    };
    for (const auto& c : cases) EXPECT_EQ(set(c.object, c.t), c.expected) << c.what;
    EXPECT_EQ(text(data, CKA_LABEL) + "/" + text(data, CKA_VALUE) + "/" + text(fixed, CKA_LABEL), "after/new/fixed");
    EXPECT_EQ(value(data, CKA_CLASS), ulongBytes(CKO_DATA));
    EXPECT_EQ(value(rsa, CKA_MODULUS).size(), 100u);
    EXPECT_EQ(get(key, CKA_VALUE), CKR_ATTRIBUTE_SENSITIVE);
}

// ---- Copy and destroy -------------------------------------------------------------------

TEST_F(Objects, CopyAppliesItsTemplateToTheNewObjectOnly)
{
    const CK_OBJECT_HANDLE original = make(dataObject("original").text(CKA_VALUE, "payload")), key = make(secretKey());
    Tmpl relabel = Tmpl().text(CKA_LABEL, "copy");
    CK_OBJECT_HANDLE copy = 0, same = 0;
    ASSERT_EQ(p->C_CopyObject(session, original, relabel.data(), relabel.size(), &copy), CKR_OK);
    ASSERT_EQ(p->C_CopyObject(session, original, nullptr, 0, &same), CKR_OK);
    EXPECT_EQ(text(copy, CKA_LABEL) + "/" + text(copy, CKA_VALUE) + "/" + text(same, CKA_LABEL) + "/" +
                  text(original, CKA_LABEL),
              "copy/payload/original/original");

    const struct {
        const char* what;
        CK_OBJECT_HANDLE source;
        Tmpl t;
        CK_RV expected;
    } refused[] = {
        {"CKA_TOKEN true in a read-only session", original, Tmpl().flag(CKA_TOKEN, true), CKR_SESSION_READ_ONLY},
        {"CKA_PRIVATE true without login", original, Tmpl().flag(CKA_PRIVATE, true), CKR_USER_NOT_LOGGED_IN},
        {"CKA_EXTRACTABLE true", key, Tmpl().flag(CKA_EXTRACTABLE, true), CKR_ATTRIBUTE_READ_ONLY},
    };
    for (const auto& c : refused) {
        Tmpl t(c.t);
        CK_OBJECT_HANDLE none;
        EXPECT_EQ(p->C_CopyObject(session, c.source, t.data(), t.size(), &none), c.expected) << c.what;
    }
    EXPECT_EQ(find(), Handles({original, key, copy, same}));
}

TEST_F(Objects, DestroyedObjectsAndObjectsOfClosedSessionsAreGone)
{
    const CK_SESSION_HANDLE other = openSession();
    const CK_OBJECT_HANDLE a = make(dataObject("a")), b = make(dataObject("b")), c = make(dataObject("c"), other);
    ASSERT_EQ(p->C_DestroyObject(session, a), CKR_OK);
    CK_OBJECT_HANDLE copy;
    EXPECT_EQ(get(a, CKA_LABEL), CKR_OBJECT_HANDLE_INVALID);
    EXPECT_EQ(set(a, Tmpl().text(CKA_LABEL, "x")), CKR_OBJECT_HANDLE_INVALID);
    EXPECT_EQ(p->C_CopyObject(session, a, nullptr, 0, &copy), CKR_OBJECT_HANDLE_INVALID);
    EXPECT_EQ(p->C_DestroyObject(session, a), CKR_OBJECT_HANDLE_INVALID);
    EXPECT_EQ(text(b, CKA_LABEL), "b");

    // Any session may destroy a session object; closing a session destroys its own.
    EXPECT_EQ(p->C_DestroyObject(other, b), CKR_OK);
    EXPECT_EQ(find(), Handles{c});
    ASSERT_EQ(p->C_CloseSession(other), CKR_OK);
    EXPECT_EQ(get(c, CKA_LABEL), CKR_OBJECT_HANDLE_INVALID);
    EXPECT_TRUE(find().empty());
}

// ---- Owners -------------------------------------------------------------------------------

TEST_F(Objects, TokenObjectsAreRefusedByTheSessionOrByTheWriteProtectedToken)
{
    const CK_SESSION_HANDLE rw = openSession(CKF_SERIAL_SESSION | CKF_RW_SESSION);
    ASSERT_EQ(p->C_Login(rw, CKU_USER, pin, 4), CKR_OK);
    for (auto [in, expected] : {std::pair{session, CKR_SESSION_READ_ONLY}, std::pair{rw, CKR_TOKEN_WRITE_PROTECTED}}) {
        EXPECT_EQ(create(dataObject("token").flag(CKA_TOKEN, true), in), expected) << in;
        EXPECT_EQ(create(secretKey().flag(CKA_TOKEN, true), in), expected) << in;
    }
    EXPECT_TRUE(find().empty());
}

TEST_F(Objects, PrivateSessionObjectsNeedTheUserAndVanishAtLogout)
{
    // Refused without login, whether CKA_PRIVATE is given or is the private key's
    // default; each refused object still drew its handle.
    EXPECT_EQ(create(dataObject("secret").flag(CKA_PRIVATE, true)), CKR_USER_NOT_LOGGED_IN);
    EXPECT_EQ(create(rsaPrivateKey()), CKR_USER_NOT_LOGGED_IN);
    const CK_OBJECT_HANDLE shared = make(dataObject("public"));
    EXPECT_EQ(shared, 4u);

    ASSERT_EQ(p->C_Login(session, CKU_USER, pin, 4), CKR_OK);
    const CK_SESSION_HANDLE later = openSession();  // opened while the user is logged in
    const CK_OBJECT_HANDLE mine = make(dataObject().flag(CKA_PRIVATE, true)), key = make(rsaPrivateKey());
    const CK_OBJECT_HANDLE theirs = make(dataObject().flag(CKA_PRIVATE, true), later);
    EXPECT_EQ(find().size(), 4u);
    ASSERT_EQ(p->C_Logout(later), CKR_OK);
    for (CK_OBJECT_HANDLE gone : {mine, theirs, key}) EXPECT_EQ(get(gone, CKA_LABEL), CKR_OBJECT_HANDLE_INVALID) << gone;
    EXPECT_EQ(find(), Handles{shared});
    ASSERT_EQ(p->C_Login(session, CKU_USER, pin, 4), CKR_OK);
    EXPECT_EQ(find(), Handles{shared});
}
