// The two constant tables of the attribute policy (which attributes a
// template may carry, which an object must have) and the functions that do
// nothing but consult them.

#include "pkcs11/objects/P11AttrPolicy.h"

#include <iterator>

#include "pkcs11/objects/P11Obj.h"

namespace {

// Kind groups.
constexpr uint64_t kData = P11_KIND_DATA;
constexpr uint64_t kCert = P11_KIND_CERTIFICATE;
constexpr uint64_t kRsaPub = P11_KIND_RSA_PUBLIC;
constexpr uint64_t kDsaPub = P11_KIND_DSA_PUBLIC;
constexpr uint64_t kEcPub = P11_KIND_EC_PUBLIC;
constexpr uint64_t kDhPub = P11_KIND_DH_PUBLIC;
constexpr uint64_t kX942Pub = P11_KIND_X942_PUBLIC;
constexpr uint64_t kRsaPriv = P11_KIND_RSA_PRIVATE;
constexpr uint64_t kDsaPriv = P11_KIND_DSA_PRIVATE;
constexpr uint64_t kEcPriv = P11_KIND_EC_PRIVATE;
constexpr uint64_t kDhPriv = P11_KIND_DH_PRIVATE;
constexpr uint64_t kX942Priv = P11_KIND_X942_PRIVATE;
constexpr uint64_t kSecret = P11_KIND_FIXED_SECRET | P11_KIND_VARIABLE_SECRET;
constexpr uint64_t kDsaParams = P11_KIND_DSA_PARAMETERS;
constexpr uint64_t kX942Params = P11_KIND_X942_PARAMETERS;
constexpr uint64_t kPublic = kRsaPub | kDsaPub | kEcPub | kDhPub | kX942Pub;
constexpr uint64_t kPrivate = kRsaPriv | kDsaPriv | kEcPriv | kDhPriv | kX942Priv;
constexpr uint64_t kKeys = kPublic | kPrivate | kSecret;
constexpr uint64_t kParams = kDsaParams | P11_KIND_DH_PARAMETERS | kX942Params;
constexpr uint64_t kAll = kData | kCert | kKeys | kParams;

// Operation groups.
constexpr uint64_t kCreate = P11_TEMPLATE_CREATE;
constexpr uint64_t kGenerate = P11_TEMPLATE_GENERATE;
constexpr uint64_t kUnwrap = P11_TEMPLATE_UNWRAP;
constexpr uint64_t kDerive = P11_TEMPLATE_DERIVE;
constexpr uint64_t kCopy = P11_TEMPLATE_COPY;
constexpr uint64_t kSet = P11_TEMPLATE_SET;
constexpr uint64_t kNone = 0;
constexpr uint64_t kMaking = kCreate | kGenerate | kUnwrap | kDerive;
constexpr uint64_t kAllOps = kMaking | kCopy | kSet;

struct Rule {
    CK_ATTRIBUTE_TYPE type;
    uint64_t kinds;
    uint64_t operations;
};

// Searched in order; the first row of the type whose kinds hold the
// object's kind decides.
const Rule kAllowed[] = {
    {CKA_CLASS, kAll, kMaking},
    {CKA_VALUE, kCert | kDsaPub | kDhPub | kX942Pub | kDsaPriv | kEcPriv | kDhPriv | kX942Priv, kCreate},
    {CKA_VALUE, kSecret, kCreate | kDerive},
    {CKA_VALUE, kData, kCreate | kSet},
    {CKA_TOKEN, kAll, kMaking | kCopy},
    {CKA_PRIVATE, kAll, kMaking | kCopy},
    {CKA_MODIFIABLE, kAll, kMaking | kCopy},
    {CKA_LABEL, kAll, kAllOps},
    {CKA_APPLICATION, kData, kCreate | kCopy | kSet},
    {CKA_OBJECT_ID, kData, kCreate | kCopy | kSet},
    {CKA_CERTIFICATE_TYPE, kCert, kCreate},
    {CKA_SUBJECT, kCert, kCreate},
    {CKA_SUBJECT, kPublic | kPrivate, kAllOps},
    {CKA_ID, kCert | kKeys, kAllOps},
    {CKA_ISSUER, kCert, kAllOps},
    {CKA_SERIAL_NUMBER, kCert, kAllOps},
    {CKA_KEY_TYPE, kKeys | kParams, kMaking},
    {CKA_START_DATE, kCert | kKeys, kAllOps},
    {CKA_END_DATE, kCert | kKeys, kAllOps},
    {CKA_DERIVE, kKeys, kAllOps},
    {CKA_LOCAL, kKeys | kParams, kNone},
    {CKA_ENCRYPT, kPublic | kSecret, kAllOps},
    {CKA_VERIFY, kPublic | kSecret, kAllOps},
    {CKA_VERIFY_RECOVER, kPublic, kAllOps},
    {CKA_WRAP, kPublic | kSecret, kAllOps},
    {CKA_MODULUS, kRsaPub | kRsaPriv, kCreate},
    {CKA_MODULUS_BITS, kRsaPub, kGenerate},
    {CKA_PRIME_BITS, kParams, kGenerate},
    {CKA_SUB_PRIME_BITS, kX942Params, kGenerate},
    {CKA_PUBLIC_EXPONENT, kRsaPub, kCreate | kGenerate},
    {CKA_PUBLIC_EXPONENT, kRsaPriv, kCreate},
    {CKA_PRIME, kDsaPub | kDhPub | kX942Pub, kCreate | kGenerate},
    {CKA_PRIME, kDsaPriv | kDhPriv | kX942Priv | kParams, kCreate},
    {CKA_SUBPRIME, kDsaPub | kX942Pub, kCreate | kGenerate},
    {CKA_SUBPRIME, kDsaPriv | kX942Priv | kDsaParams | kX942Params, kCreate},
    {CKA_BASE, kDsaPub | kDhPub | kX942Pub, kCreate | kGenerate},
    {CKA_BASE, kDsaPriv | kDhPriv | kX942Priv | kParams, kCreate},
    {CKA_ECDSA_PARAMS, kEcPub, kCreate | kGenerate},
    {CKA_ECDSA_PARAMS, kEcPriv, kCreate},
    {CKA_EC_POINT, kEcPub, kCreate},
    {CKA_SENSITIVE, kPrivate | kSecret, kAllOps},
    {CKA_SECONDARY_AUTH, kPrivate, kMaking},
    {CKA_AUTH_PIN_FLAGS, kPrivate, kCreate},
    {CKA_DECRYPT, kPrivate | kSecret, kAllOps},
    {CKA_SIGN, kPrivate | kSecret, kAllOps},
    {CKA_SIGN_RECOVER, kPrivate, kAllOps},
    {CKA_UNWRAP, kPrivate | kSecret, kAllOps},
    {CKA_EXTRACTABLE, kPrivate | kSecret, kAllOps},
    {CKA_ALWAYS_SENSITIVE, kPrivate | kSecret, kNone},
    {CKA_NEVER_EXTRACTABLE, kPrivate | kSecret, kNone},
    {CKA_PRIVATE_EXPONENT, kRsaPriv, kCreate},
    {CKA_PRIME_1, kRsaPriv, kCreate},
    {CKA_PRIME_2, kRsaPriv, kCreate},
    {CKA_EXPONENT_1, kRsaPriv, kCreate},
    {CKA_EXPONENT_2, kRsaPriv, kCreate},
    {CKA_COEFFICIENT, kRsaPriv, kCreate},
    {CKA_VALUE_BITS, kDhPriv, kGenerate},
    {CKA_VALUE_LEN, kSecret, kGenerate | kUnwrap | kDerive},
};
static_assert(std::size(kAllowed) == 58, "the allowed-attribute table has 58 rows");

// Every row that matches the kind and the operation must be present with a
// non-empty value.
const Rule kRequired[] = {
    {CKA_CERTIFICATE_TYPE, kCert, kCreate},
    {CKA_SUBJECT, kCert, kCreate},
    {CKA_VALUE, kCert | kDsaPub | kDhPub | kX942Pub | kDsaPriv | kEcPriv | kDhPriv | kX942Priv | kSecret, kCreate},
    {CKA_KEY_TYPE, kKeys, kCreate | kUnwrap},
    {CKA_VALUE_LEN, P11_KIND_VARIABLE_SECRET, kGenerate},
    {CKA_MODULUS, kRsaPub | kRsaPriv, kCreate},
    {CKA_MODULUS_BITS, kRsaPub, kGenerate},
    {CKA_PUBLIC_EXPONENT, kRsaPub, kCreate | kGenerate},
    {CKA_PRIVATE_EXPONENT, kRsaPriv, kCreate},
    {CKA_PRIME, kDsaPub | kDhPub | kX942Pub, kCreate | kGenerate},
    {CKA_SUBPRIME, kDsaPub | kX942Pub, kCreate | kGenerate},
    {CKA_BASE, kDsaPub | kDhPub | kX942Pub, kCreate | kGenerate},
    {CKA_ECDSA_PARAMS, kEcPub, kCreate | kGenerate},
    {CKA_ECDSA_PARAMS, kEcPriv, kCreate},
    {CKA_EC_POINT, kEcPub | kEcPriv, kCreate},
    {CKA_PRIME, kDsaPriv | kDhPriv | kX942Priv | kParams, kCreate},
    {CKA_SUBPRIME, kDsaPriv | kX942Priv | kDsaParams | kX942Params, kCreate},
    {CKA_BASE, kDsaPriv | kDhPriv | kX942Priv | kParams, kCreate},
    {CKA_KEY_TYPE, kParams, kCreate},
    {CKA_PRIME_BITS, kParams, kGenerate},
    {CKA_SUB_PRIME_BITS, kX942Params, kGenerate},
};
static_assert(std::size(kRequired) == 21, "the required-attribute table has 21 rows");

// Values C_GetAttributeValue withholds from a sensitive object.
const CK_ATTRIBUTE_TYPE kWithheld[] = {
    CKA_VALUE, CKA_PRIVATE_EXPONENT, CKA_PRIME_1, CKA_PRIME_2, CKA_EXPONENT_1, CKA_EXPONENT_2, CKA_COEFFICIENT,
};

}  // namespace

CK_RV AttributeAllowed(CK_ATTRIBUTE_TYPE type, uint64_t kind, uint64_t operation)
{
    for (const Rule& rule : kAllowed) {
        if (rule.type == type && (rule.kinds & kind) != 0)
            return (rule.operations & operation) != 0 ? CKR_OK : CKR_ATTRIBUTE_READ_ONLY;
    }
    return CKR_ATTRIBUTE_TYPE_INVALID;
}

CK_RV ObjComplete(P11Obj* object, uint64_t kind, uint64_t operation)
{
    for (const Rule& rule : kRequired) {
        if ((rule.kinds & kind) == 0 || (rule.operations & operation) == 0) continue;
        const CK_ATTRIBUTE* attribute = nullptr;
        const CK_RV rv = P11Obj_peekAttribute(object, rule.type, &attribute);
        if (rv != CKR_OK) return rv;
        if (!attribute || attribute->ulValueLen == 0) return CKR_TEMPLATE_INCOMPLETE;
    }
    return CKR_OK;
}

CK_RV AttrSensitive(CK_ATTRIBUTE* attribute)
{
    for (CK_ATTRIBUTE_TYPE type : kWithheld) {
        if (attribute->type == type) {
            attribute->ulValueLen = CK_UNAVAILABLE_INFORMATION;
            return CKR_ATTRIBUTE_SENSITIVE;
        }
    }
    return CKR_OK;
}
