// Attribute policy: object kinds, template checks for every object-making
// call, completion with defaults, and the arithmetic checks and fill-ins of
// RSA and X9.42 key material. The two tables live in
// P11AttrPolicy_tables.cpp.

#include "pkcs11/objects/P11AttrPolicy.h"

#include <cstring>
#include <initializer_list>

#include "crypto/crypto_errors.h"
#include "crypto/dh.h"
#include "crypto/rsa.h"
#include "pkcs11/objects/P11Obj.h"
#include "pkcs11/objects/P11Obj_dig.h"

namespace {

constexpr CK_KEY_TYPE kNoKeyType = ~static_cast<CK_KEY_TYPE>(0);
constexpr uint64_t kPublicKinds = P11_KIND_RSA_PUBLIC | P11_KIND_DSA_PUBLIC | P11_KIND_EC_PUBLIC | P11_KIND_DH_PUBLIC |
                                  P11_KIND_X942_PUBLIC;
constexpr uint64_t kPrivateKinds = P11_KIND_RSA_PRIVATE | P11_KIND_DSA_PRIVATE | P11_KIND_EC_PRIVATE |
                                   P11_KIND_DH_PRIVATE | P11_KIND_X942_PRIVATE;
constexpr uint64_t kSecretKinds = P11_KIND_FIXED_SECRET | P11_KIND_VARIABLE_SECRET;

// ---------------------------------------------------------------------------
// Kinds

// The kind bit of a class and key type; CKR_TEMPLATE_INCONSISTENT for a key
// type the class cannot have.
CK_RV kindOf(CK_OBJECT_CLASS objectClass, CK_KEY_TYPE keyType, uint64_t* kind)
{
    // Asymmetric kinds in the order RSA, DSA, EC, DH, X9.42 DH, one bit each.
    int asymmetric = -1;
    switch (keyType) {
    case CKK_RSA: asymmetric = 0; break;
    case CKK_DSA: asymmetric = 1; break;
    case CKK_EC: asymmetric = 2; break;
    case CKK_DH: asymmetric = 3; break;
    case CKK_X9_42_DH: asymmetric = 4; break;
    default: break;
    }
    switch (objectClass) {
    case CKO_PUBLIC_KEY:
        if (asymmetric < 0) return CKR_TEMPLATE_INCONSISTENT;
        *kind = P11_KIND_RSA_PUBLIC << asymmetric;
        return CKR_OK;
    case CKO_PRIVATE_KEY:
        if (asymmetric < 0) return CKR_TEMPLATE_INCONSISTENT;
        *kind = P11_KIND_RSA_PRIVATE << asymmetric;
        return CKR_OK;
    case CKO_SECRET_KEY:
        switch (keyType) {
        case CKK_DES:
        case CKK_DES2:
        case CKK_DES3: *kind = P11_KIND_FIXED_SECRET; return CKR_OK;
        case CKK_GENERIC_SECRET:
        case CKK_RC2:
        case CKK_RC4:
        case CKK_RC5:
        case CKK_AES: *kind = P11_KIND_VARIABLE_SECRET; return CKR_OK;
        default: return CKR_TEMPLATE_INCONSISTENT;
        }
    case CKO_DOMAIN_PARAMETERS:
        switch (keyType) {
        case CKK_DSA: *kind = P11_KIND_DSA_PARAMETERS; return CKR_OK;
        case CKK_DH: *kind = P11_KIND_DH_PARAMETERS; return CKR_OK;
        case CKK_X9_42_DH: *kind = P11_KIND_X942_PARAMETERS; return CKR_OK;
        default: return CKR_TEMPLATE_INCONSISTENT;
        }
    default: return CKR_TEMPLATE_INCONSISTENT;
    }
}

CK_OBJECT_CLASS classOfKind(uint64_t kind)
{
    if (kind == P11_KIND_DATA) return CKO_DATA;
    if (kind == P11_KIND_CERTIFICATE) return CKO_CERTIFICATE;
    if (kind & kPublicKinds) return CKO_PUBLIC_KEY;
    if (kind & kPrivateKinds) return CKO_PRIVATE_KEY;
    if (kind & kSecretKinds) return CKO_SECRET_KEY;
    return CKO_DOMAIN_PARAMETERS;
}

// A CK_ULONG attribute: absent or empty CKR_TEMPLATE_INCOMPLETE, another
// length CKR_ATTRIBUTE_VALUE_INVALID.
CK_RV readUlong(P11Obj* object, CK_ATTRIBUTE_TYPE type, CK_ULONG* value)
{
    const CK_ATTRIBUTE* attribute = nullptr;
    const CK_RV rv = P11Obj_peekAttribute(object, type, &attribute);
    if (rv != CKR_OK) return rv;
    if (!attribute || attribute->ulValueLen == 0) return CKR_TEMPLATE_INCOMPLETE;
    if (attribute->ulValueLen != sizeof(CK_ULONG)) return CKR_ATTRIBUTE_VALUE_INVALID;
    std::memcpy(value, attribute->pValue, sizeof(CK_ULONG));
    return CKR_OK;
}

// ---------------------------------------------------------------------------
// Attribute values

bool isBoolean(CK_ATTRIBUTE_TYPE type)
{
    switch (type) {
    case CKA_TOKEN: case CKA_PRIVATE: case CKA_MODIFIABLE: case CKA_TRUSTED: case CKA_SENSITIVE:
    case CKA_ENCRYPT: case CKA_DECRYPT: case CKA_WRAP: case CKA_UNWRAP: case CKA_SIGN: case CKA_SIGN_RECOVER:
    case CKA_VERIFY: case CKA_VERIFY_RECOVER: case CKA_DERIVE: case CKA_EXTRACTABLE: case CKA_LOCAL:
    case CKA_NEVER_EXTRACTABLE: case CKA_ALWAYS_SENSITIVE: case CKA_SECONDARY_AUTH: case CKA_ALWAYS_AUTHENTICATE:
    case CKA_WRAP_WITH_TRUSTED: case CKA_RESET_ON_INIT: case CKA_HAS_RESET:
        return true;
    default:
        return false;
    }
}

bool isUlong(CK_ATTRIBUTE_TYPE type)
{
    switch (type) {
    case CKA_CLASS: case CKA_KEY_TYPE: case CKA_CERTIFICATE_TYPE: case CKA_CERTIFICATE_CATEGORY:
    case CKA_JAVA_MIDP_SECURITY_DOMAIN: case CKA_MODULUS_BITS: case CKA_PRIME_BITS: case CKA_SUB_PRIME_BITS:
    case CKA_VALUE_BITS: case CKA_VALUE_LEN: case CKA_AUTH_PIN_FLAGS: case CKA_KEY_GEN_MECHANISM:
    case CKA_HW_FEATURE_TYPE:
        return true;
    default:
        return false;
    }
}

bool knownKeyType(CK_ULONG keyType)
{
    return keyType <= CKK_KEA || (keyType >= CKK_GENERIC_SECRET && keyType <= CKK_TWOFISH);
}

bool aesLength(CK_ULONG length)
{
    return length == 16 || length == 24 || length == 32;
}

// Key length in bytes of a fixed-length secret key type, 0 for the others.
CK_ULONG fixedKeyLength(CK_KEY_TYPE keyType)
{
    switch (keyType) {
    case CKK_DES: return 8;
    case CKK_DES2: return 16;
    case CKK_DES3: return 24;
    default: return 0;
    }
}

// ---------------------------------------------------------------------------
// Scratch objects for template checks

// A software object holding one template; destroyed with the holder.
class ScratchObject {
public:
    ScratchObject() = default;
    ScratchObject(const ScratchObject&) = delete;
    ScratchObject& operator=(const ScratchObject&) = delete;
    ~ScratchObject()
    {
        if (object_) P11Obj_SW_destruct(&object_);
    }

    CK_RV build(CK_ATTRIBUTE_PTR attributes, CK_ULONG count)
    {
        if (!attributes && count != 0) return CKR_ARGUMENTS_BAD;
        const CK_RV rv = P11Obj_SW_construct(&object_);
        if (rv != CKR_OK) return rv;
        return P11Obj_setAttributesfromTemplate(object_, attributes, count);
    }

    P11Obj* get() const { return object_; }

private:
    P11Obj* object_ = nullptr;
};

// What a key-making mechanism makes: one object (publicKind 0) or a pair.
struct MechanismKinds {
    CK_MECHANISM_TYPE mechanism;
    uint64_t kind;         // the key or parameters; the private key of a pair
    uint64_t publicKind;   // pairs only
    CK_KEY_TYPE keyType;
};

const MechanismKinds kMechanismKinds[] = {
    {CKM_DES_KEY_GEN, P11_KIND_FIXED_SECRET, 0, CKK_DES},
    {CKM_DES2_KEY_GEN, P11_KIND_FIXED_SECRET, 0, CKK_DES2},
    {CKM_DES3_KEY_GEN, P11_KIND_FIXED_SECRET, 0, CKK_DES3},
    {CKM_AES_KEY_GEN, P11_KIND_VARIABLE_SECRET, 0, CKK_AES},
    {CKM_RC2_KEY_GEN, P11_KIND_VARIABLE_SECRET, 0, CKK_RC2},
    {CKM_RC4_KEY_GEN, P11_KIND_VARIABLE_SECRET, 0, CKK_RC4},
    {CKM_GENERIC_SECRET_KEY_GEN, P11_KIND_VARIABLE_SECRET, 0, CKK_GENERIC_SECRET},
    // Pre-master secrets are generic secrets of the mechanism's length (48).
    {CKM_SSL3_PRE_MASTER_KEY_GEN, P11_KIND_FIXED_SECRET, 0, CKK_GENERIC_SECRET},
    {CKM_TLS_PRE_MASTER_KEY_GEN, P11_KIND_FIXED_SECRET, 0, CKK_GENERIC_SECRET},
    {CKM_DSA_PARAMETER_GEN, P11_KIND_DSA_PARAMETERS, 0, CKK_DSA},
    {CKM_DH_PKCS_PARAMETER_GEN, P11_KIND_DH_PARAMETERS, 0, CKK_DH},
    {CKM_X9_42_DH_PARAMETER_GEN, P11_KIND_X942_PARAMETERS, 0, CKK_X9_42_DH},
    {CKM_RSA_PKCS_KEY_PAIR_GEN, P11_KIND_RSA_PRIVATE, P11_KIND_RSA_PUBLIC, CKK_RSA},
    {CKM_DSA_KEY_PAIR_GEN, P11_KIND_DSA_PRIVATE, P11_KIND_DSA_PUBLIC, CKK_DSA},
    {CKM_DH_PKCS_KEY_PAIR_GEN, P11_KIND_DH_PRIVATE, P11_KIND_DH_PUBLIC, CKK_DH},
    {CKM_X9_42_DH_KEY_PAIR_GEN, P11_KIND_X942_PRIVATE, P11_KIND_X942_PUBLIC, CKK_X9_42_DH},
    {CKM_EC_KEY_PAIR_GEN, P11_KIND_EC_PRIVATE, P11_KIND_EC_PUBLIC, CKK_EC},
};

CK_RV findMechanism(CK_MECHANISM_PTR mechanism, bool pair, const MechanismKinds** found)
{
    if (!mechanism) return CKR_ARGUMENTS_BAD;
    for (const MechanismKinds& entry : kMechanismKinds) {
        if (entry.mechanism == mechanism->mechanism && (entry.publicKind != 0) == pair) {
            *found = &entry;
            return CKR_OK;
        }
    }
    return CKR_MECHANISM_INVALID;
}

CK_RV checkTemplateAs(CK_ATTRIBUTE_PTR attributes, CK_ULONG count, uint64_t kind, CK_KEY_TYPE keyType,
                      uint64_t operation)
{
    ScratchObject scratch;
    const CK_RV rv = scratch.build(attributes, count);
    if (rv != CKR_OK) return rv;
    return CheckObject(scratch.get(), kind, keyType, operation);
}

// ---------------------------------------------------------------------------
// Defaults

const CK_BBOOL kTrue = CK_TRUE;
const CK_BBOOL kFalse = CK_FALSE;
const CK_BYTE kZeroByte[1] = {0};   // the label and application default
const CK_BYTE kZeroDate[8] = {};
const CK_ULONG kZeroUlong = 0;

struct Default {
    CK_ATTRIBUTE_TYPE type;
    const void* value;   // null: empty (length 0) or mandatory (length 1)
    CK_ULONG length;
};

constexpr Default yes(CK_ATTRIBUTE_TYPE type) { return {type, &kTrue, 1}; }
constexpr Default no(CK_ATTRIBUTE_TYPE type) { return {type, &kFalse, 1}; }
constexpr Default empty(CK_ATTRIBUTE_TYPE type) { return {type, nullptr, 0}; }
constexpr Default mandatory(CK_ATTRIBUTE_TYPE type) { return {type, nullptr, 1}; }
constexpr Default zeroByte(CK_ATTRIBUTE_TYPE type) { return {type, kZeroByte, 1}; }
constexpr Default zeroDate(CK_ATTRIBUTE_TYPE type) { return {type, kZeroDate, sizeof kZeroDate}; }
constexpr Default zeroUlong(CK_ATTRIBUTE_TYPE type) { return {type, &kZeroUlong, sizeof kZeroUlong}; }
constexpr Default label() { return zeroByte(CKA_LABEL); }

const Default kDataDefaults[] = {
    no(CKA_TOKEN), no(CKA_PRIVATE), yes(CKA_MODIFIABLE), label(),
    zeroByte(CKA_APPLICATION), empty(CKA_OBJECT_ID), empty(CKA_VALUE),
};

const Default kCertificateDates[] = {
    zeroDate(CKA_START_DATE), zeroDate(CKA_END_DATE), zeroUlong(CKA_CERTIFICATE_CATEGORY),
};

const Default kCertificateDefaults[] = {
    no(CKA_TOKEN), no(CKA_PRIVATE), yes(CKA_MODIFIABLE), label(), no(CKA_TRUSTED), mandatory(CKA_SUBJECT),
    empty(CKA_ID), empty(CKA_ISSUER), empty(CKA_HASH_OF_SUBJECT_PUBLIC_KEY), empty(CKA_HASH_OF_ISSUER_PUBLIC_KEY),
    zeroUlong(CKA_JAVA_MIDP_SECURITY_DOMAIN), empty(CKA_SERIAL_NUMBER), mandatory(CKA_VALUE),
};

const Default kPublicKeyDefaults[] = {
    no(CKA_TOKEN), no(CKA_PRIVATE), yes(CKA_MODIFIABLE), label(), empty(CKA_ID),
    zeroDate(CKA_START_DATE), zeroDate(CKA_END_DATE), no(CKA_DERIVE), no(CKA_LOCAL), empty(CKA_SUBJECT),
    yes(CKA_ENCRYPT), yes(CKA_VERIFY), yes(CKA_VERIFY_RECOVER), yes(CKA_WRAP),
};

const Default kPrivateKeyDefaults[] = {
    no(CKA_TOKEN), yes(CKA_PRIVATE), no(CKA_MODIFIABLE), label(), mandatory(CKA_KEY_TYPE), empty(CKA_ID),
    zeroDate(CKA_START_DATE), zeroDate(CKA_END_DATE), no(CKA_DERIVE), no(CKA_LOCAL), empty(CKA_SUBJECT),
    no(CKA_SENSITIVE), no(CKA_SECONDARY_AUTH), zeroUlong(CKA_AUTH_PIN_FLAGS), yes(CKA_DECRYPT), yes(CKA_SIGN),
    yes(CKA_SIGN_RECOVER), yes(CKA_UNWRAP), yes(CKA_EXTRACTABLE),
};

const Default kSecretKeyDefaults[] = {
    no(CKA_TOKEN), no(CKA_PRIVATE), yes(CKA_MODIFIABLE), label(), mandatory(CKA_KEY_TYPE), empty(CKA_ID),
    zeroDate(CKA_START_DATE), zeroDate(CKA_END_DATE), no(CKA_DERIVE), no(CKA_LOCAL), no(CKA_SENSITIVE),
    yes(CKA_ENCRYPT), yes(CKA_DECRYPT), yes(CKA_SIGN), yes(CKA_VERIFY), yes(CKA_WRAP), yes(CKA_UNWRAP),
    yes(CKA_EXTRACTABLE),
};

const Default kParameterDefaults[] = {
    no(CKA_TOKEN), no(CKA_PRIVATE), yes(CKA_MODIFIABLE), label(), no(CKA_LOCAL),
    mandatory(CKA_PRIME), mandatory(CKA_BASE), mandatory(CKA_PRIME_BITS),
};

// Key material by key type; the first entries are mandatory, the RSA
// private-key entries default to a single zero byte.
const Default kDsaValues[] = {mandatory(CKA_PRIME), mandatory(CKA_SUBPRIME), mandatory(CKA_BASE),
                              mandatory(CKA_VALUE)};
const Default kDhValues[] = {mandatory(CKA_PRIME), mandatory(CKA_BASE), mandatory(CKA_VALUE)};
const Default kX942Values[] = {mandatory(CKA_PRIME), mandatory(CKA_BASE), mandatory(CKA_SUBPRIME),
                               mandatory(CKA_VALUE)};
const Default kEcPublicValues[] = {mandatory(CKA_ECDSA_PARAMS), mandatory(CKA_EC_POINT)};
const Default kEcPrivateValues[] = {mandatory(CKA_ECDSA_PARAMS), mandatory(CKA_VALUE)};
const Default kRsaPrivateValues[] = {
    zeroByte(CKA_MODULUS), zeroByte(CKA_PUBLIC_EXPONENT), zeroByte(CKA_PRIVATE_EXPONENT), zeroByte(CKA_PRIME_1),
    zeroByte(CKA_PRIME_2), zeroByte(CKA_EXPONENT_1), zeroByte(CKA_EXPONENT_2), zeroByte(CKA_COEFFICIENT),
};

template <size_t N>
CK_RV applyDefaults(P11Obj* object, const Default (&defaults)[N])
{
    for (const Default& d : defaults) {
        const CK_RV rv = SetAttributeFromTemplate(object, d.type, d.value, d.length);
        if (rv != CKR_OK) return rv;
    }
    return CKR_OK;
}

CK_RV defaultUlong(P11Obj* object, CK_ATTRIBUTE_TYPE type, CK_ULONG value)
{
    return SetAttributeFromTemplate(object, type, &value, sizeof value);
}

CK_RV defaultBool(P11Obj* object, CK_ATTRIBUTE_TYPE type, CK_BBOOL value)
{
    return SetAttributeFromTemplate(object, type, &value, 1);
}

// Length in bytes of a present value; absent CKR_TEMPLATE_INCOMPLETE.
CK_RV valueLength(P11Obj* object, CK_ATTRIBUTE_TYPE type, CK_ULONG* length)
{
    const CK_ATTRIBUTE* attribute = nullptr;
    const CK_RV rv = P11Obj_peekAttribute(object, type, &attribute);
    if (rv != CKR_OK) return rv;
    if (!attribute) return CKR_TEMPLATE_INCOMPLETE;
    *length = attribute->ulValueLen;
    return CKR_OK;
}

// CKA_ALWAYS_SENSITIVE follows CKA_SENSITIVE, CKA_NEVER_EXTRACTABLE is the
// negation of CKA_EXTRACTABLE.
CK_RV defaultProtectionHistory(P11Obj* object)
{
    CK_BBOOL sensitive = CK_FALSE;
    CK_RV rv = P11Obj_getBoolValue(object, CKA_SENSITIVE, &sensitive);
    if (rv == CKR_OK) rv = defaultBool(object, CKA_ALWAYS_SENSITIVE, sensitive);
    CK_BBOOL extractable = CK_FALSE;
    if (rv == CKR_OK) rv = P11Obj_getBoolValue(object, CKA_EXTRACTABLE, &extractable);
    if (rv == CKR_OK) rv = defaultBool(object, CKA_NEVER_EXTRACTABLE, extractable ? CK_FALSE : CK_TRUE);
    return rv;
}

CK_RV completeCertificate(P11Obj* object)
{
    CK_ULONG certificateType = 0;
    CK_RV rv = P11Obj_getUlongValue(object, CKA_CERTIFICATE_TYPE, &certificateType);
    if (rv == CKR_OK) rv = applyDefaults(object, kCertificateDates);
    if (rv != CKR_OK) return rv;
    if (certificateType != CKC_X_509) return CKR_GENERAL_ERROR;
    return applyDefaults(object, kCertificateDefaults);
}

CK_RV completePublicKey(P11Obj* object)
{
    CK_ULONG keyType = 0;
    CK_RV rv = P11Obj_getUlongValue(object, CKA_KEY_TYPE, &keyType);
    if (rv == CKR_OK) rv = applyDefaults(object, kPublicKeyDefaults);
    if (rv != CKR_OK) return rv;
    switch (keyType) {
    case CKK_RSA: {
        CK_ULONG modulusLength = 0;
        rv = valueLength(object, CKA_MODULUS, &modulusLength);
        if (rv != CKR_OK) return rv;
        if (modulusLength == 0) return CKR_TEMPLATE_INCOMPLETE;
        rv = defaultUlong(object, CKA_MODULUS_BITS, 8 * modulusLength);
        if (rv != CKR_OK) return rv;
        return SetAttributeFromTemplate(object, CKA_PUBLIC_EXPONENT, nullptr, 1);
    }
    case CKK_DSA: return applyDefaults(object, kDsaValues);
    case CKK_DH: return applyDefaults(object, kDhValues);
    case CKK_EC: return applyDefaults(object, kEcPublicValues);
    case CKK_X9_42_DH:
        rv = applyDefaults(object, kX942Values);
        return rv != CKR_OK ? rv : X942_CheckPublicKey(object);
    default: return CKR_GENERAL_ERROR;
    }
}

CK_RV completePrivateKey(P11Obj* object)
{
    CK_ULONG keyType = 0;
    CK_RV rv = P11Obj_getUlongValue(object, CKA_KEY_TYPE, &keyType);
    if (rv == CKR_OK) rv = applyDefaults(object, kPrivateKeyDefaults);
    if (rv == CKR_OK) rv = defaultProtectionHistory(object);
    if (rv != CKR_OK) return rv;
    switch (keyType) {
    case CKK_RSA:
        rv = applyDefaults(object, kRsaPrivateValues);
        return rv != CKR_OK ? rv : RSA_Calculate_Rem_Values(object);
    case CKK_DSA: return applyDefaults(object, kDsaValues);
    case CKK_DH: {
        rv = applyDefaults(object, kDhValues);
        CK_ULONG valueBytes = 0;
        if (rv == CKR_OK) rv = valueLength(object, CKA_VALUE, &valueBytes);
        return rv != CKR_OK ? rv : defaultUlong(object, CKA_VALUE_BITS, 8 * valueBytes);
    }
    case CKK_EC: return applyDefaults(object, kEcPrivateValues);
    case CKK_X9_42_DH: return applyDefaults(object, kX942Values);
    default: return CKR_GENERAL_ERROR;
    }
}

CK_RV completeSecretKey(P11Obj* object)
{
    CK_ULONG keyType = 0;
    CK_RV rv = P11Obj_getUlongValue(object, CKA_KEY_TYPE, &keyType);
    if (rv == CKR_OK) rv = applyDefaults(object, kSecretKeyDefaults);
    if (rv == CKR_OK) rv = defaultProtectionHistory(object);
    if (rv == CKR_OK) rv = SetAttributeFromTemplate(object, CKA_VALUE, nullptr, 1);
    if (rv != CKR_OK) return rv;
    switch (keyType) {
    case CKK_GENERIC_SECRET:
    case CKK_RC2:
    case CKK_RC4:
    case CKK_AES: {
        CK_ULONG valueBytes = 0;
        rv = valueLength(object, CKA_VALUE, &valueBytes);
        return rv != CKR_OK ? rv : defaultUlong(object, CKA_VALUE_LEN, valueBytes);
    }
    case CKK_DES:
    case CKK_DES2:
    case CKK_DES3: return CKR_OK;
    default: return CKR_GENERAL_ERROR;  // no length rule for the type
    }
}

CK_RV completeParameters(P11Obj* object)
{
    CK_ULONG keyType = 0;
    CK_RV rv = P11Obj_getUlongValue(object, CKA_KEY_TYPE, &keyType);
    if (rv == CKR_OK) rv = applyDefaults(object, kParameterDefaults);
    if (rv != CKR_OK) return rv;
    switch (keyType) {
    case CKK_DH: return CKR_OK;
    case CKK_X9_42_DH:
        rv = SetAttributeFromTemplate(object, CKA_SUB_PRIME_BITS, nullptr, 1);
        return rv != CKR_OK ? rv : SetAttributeFromTemplate(object, CKA_SUBPRIME, nullptr, 1);
    case CKK_DSA: return SetAttributeFromTemplate(object, CKA_SUBPRIME, nullptr, 1);
    default: return CKR_GENERAL_ERROR;
    }
}

}  // namespace

// ---------------------------------------------------------------------------
// Kinds and checks

CK_RV GetObjAndKeyType(P11Obj* object, uint64_t* kind, CK_KEY_TYPE* keyType)
{
    CK_ULONG objectClass = 0;
    CK_RV rv = readUlong(object, CKA_CLASS, &objectClass);
    if (rv != CKR_OK) return rv;
    if (objectClass == CKO_HW_FEATURE || objectClass > CKO_DOMAIN_PARAMETERS) return CKR_ATTRIBUTE_VALUE_INVALID;
    if (objectClass == CKO_DATA) {
        *kind = P11_KIND_DATA;
        *keyType = kNoKeyType;
        return CKR_OK;
    }
    if (objectClass == CKO_CERTIFICATE) {
        CK_ULONG certificateType = 0;
        rv = readUlong(object, CKA_CERTIFICATE_TYPE, &certificateType);
        if (rv != CKR_OK) return rv;
        if (certificateType != CKC_X_509) return CKR_TEMPLATE_INCONSISTENT;
        *kind = P11_KIND_CERTIFICATE;
        *keyType = kNoKeyType;
        return CKR_OK;
    }
    CK_ULONG type = 0;
    rv = readUlong(object, CKA_KEY_TYPE, &type);
    if (rv == CKR_OK) rv = kindOf(objectClass, type, kind);
    if (rv == CKR_OK) *keyType = type;
    return rv;
}

bool AttributevalueValid(CK_KEY_TYPE keyType, uint64_t kind, const CK_ATTRIBUTE* attribute)
{
    const CK_ULONG length = attribute->ulValueLen;
    if (length != 0 && !attribute->pValue) return false;
    const CK_BYTE* bytes = static_cast<const CK_BYTE*>(attribute->pValue);
    CK_ULONG number = 0;
    if (isBoolean(attribute->type)) return length == 1 && bytes[0] <= 1;
    if (isUlong(attribute->type)) {
        if (length != sizeof(CK_ULONG)) return false;
        std::memcpy(&number, bytes, sizeof number);
    }
    switch (attribute->type) {
    case CKA_CLASS: return number <= CKO_DOMAIN_PARAMETERS;
    case CKA_KEY_TYPE: return knownKeyType(number);
    case CKA_CERTIFICATE_TYPE: return number <= CKC_WTLS;
    case CKA_START_DATE:
    case CKA_END_DATE: return length == 0 || length == 8;
    case CKA_VALUE:
        if (kind == P11_KIND_FIXED_SECRET) return length == fixedKeyLength(keyType);
        if (kind == P11_KIND_VARIABLE_SECRET && keyType == CKK_AES) return aesLength(length);
        return true;
    case CKA_VALUE_LEN:
        if (kind == P11_KIND_FIXED_SECRET) return number == fixedKeyLength(keyType);
        if (keyType == CKK_AES) return aesLength(number);
        return number != 0;
    case CKA_MODULUS_BITS:
    case CKA_PRIME_BITS:
    case CKA_SUB_PRIME_BITS:
    case CKA_VALUE_BITS: return number != 0;
    default: return true;
    }
}

CK_RV CheckObject(P11Obj* templateObject, uint64_t kind, CK_KEY_TYPE keyType, uint64_t operation)
{
    const bool changing = (operation & (P11_TEMPLATE_COPY | P11_TEMPLATE_SET)) != 0;
    uint32_t cursor = 0;
    for (;;) {
        const CK_ATTRIBUTE* attribute = nullptr;
        CK_RV rv = P11Obj_enumAttributes(templateObject, &cursor, &attribute);
        if (rv != CKR_OK) return rv;
        if (!attribute) break;
        rv = AttributeAllowed(attribute->type, kind, operation);
        if (rv != CKR_OK) return rv;
        if (!AttributevalueValid(keyType, kind, attribute)) return CKR_ATTRIBUTE_VALUE_INVALID;
        // Protection only ever grows once an object exists. Both flags
        // passed the value check, so they hold one byte.
        if (changing && (attribute->type == CKA_SENSITIVE || attribute->type == CKA_EXTRACTABLE)) {
            const CK_BBOOL flag = *static_cast<const CK_BBOOL*>(attribute->pValue);
            if (flag == (attribute->type == CKA_SENSITIVE ? CK_FALSE : CK_TRUE)) return CKR_ATTRIBUTE_READ_ONLY;
        }
    }
    CK_RV rv = ObjComplete(templateObject, kind, operation);
    if (rv != CKR_OK) return rv;

    const CK_ATTRIBUTE* given = nullptr;
    rv = P11Obj_peekAttribute(templateObject, CKA_CLASS, &given);
    if (rv != CKR_OK) return rv;
    if (given && given->ulValueLen == sizeof(CK_ULONG)) {
        CK_ULONG objectClass = 0;
        std::memcpy(&objectClass, given->pValue, sizeof objectClass);
        if (objectClass != classOfKind(kind)) return CKR_TEMPLATE_INCONSISTENT;
    }
    rv = P11Obj_peekAttribute(templateObject, CKA_KEY_TYPE, &given);
    if (rv != CKR_OK) return rv;
    if (given && given->ulValueLen == sizeof(CK_ULONG) && keyType != kNoKeyType) {
        CK_ULONG givenType = 0;
        std::memcpy(&givenType, given->pValue, sizeof givenType);
        if (givenType != keyType) return CKR_TEMPLATE_INCONSISTENT;
    }
    return CKR_OK;
}

CK_RV CheckTemplate(P11Obj* existing, CK_ATTRIBUTE_PTR attributes, CK_ULONG count, uint64_t operation)
{
    const bool fromExisting = operation == P11_TEMPLATE_COPY || operation == P11_TEMPLATE_SET;
    if (!fromExisting && operation != P11_TEMPLATE_CREATE && operation != P11_TEMPLATE_UNWRAP &&
        operation != P11_TEMPLATE_DERIVE)
        return CKR_ARGUMENTS_BAD;
    if (fromExisting && !existing) return CKR_OBJECT_HANDLE_INVALID;

    ScratchObject scratch;
    CK_RV rv = scratch.build(attributes, count);
    if (rv != CKR_OK) return rv;
    uint64_t kind = 0;
    CK_KEY_TYPE keyType = kNoKeyType;
    rv = GetObjAndKeyType(fromExisting ? existing : scratch.get(), &kind, &keyType);
    if (rv != CKR_OK) return rv;
    return CheckObject(scratch.get(), kind, keyType, operation);
}

// The secret-key type a template names (a generic secret when it names
// none) and its kind; a type that is no secret-key type is refused.
CK_RV templateSecretType(P11Obj* scratch, CK_KEY_TYPE* keyType, uint64_t* kind)
{
    *keyType = CKK_GENERIC_SECRET;
    const CK_ATTRIBUTE* given = nullptr;
    CK_RV rv = P11Obj_peekAttribute(scratch, CKA_KEY_TYPE, &given);
    if (rv != CKR_OK) return rv;
    if (given) {
        rv = readUlong(scratch, CKA_KEY_TYPE, keyType);
        if (rv != CKR_OK) return rv == CKR_TEMPLATE_INCOMPLETE ? CKR_ATTRIBUTE_VALUE_INVALID : rv;
    }
    return kindOf(CKO_SECRET_KEY, *keyType, kind);
}

// A key whose type the template chooses (PBKDF2 makes any secret key).
CK_RV checkTemplateOfChosenType(CK_ATTRIBUTE_PTR attributes, CK_ULONG count)
{
    ScratchObject scratch;
    CK_RV rv = scratch.build(attributes, count);
    if (rv != CKR_OK) return rv;
    CK_KEY_TYPE keyType = 0;
    uint64_t kind = 0;
    rv = templateSecretType(scratch.get(), &keyType, &kind);
    if (rv != CKR_OK) return CKR_TEMPLATE_INCONSISTENT;
    return CheckObject(scratch.get(), kind, keyType, P11_TEMPLATE_GENERATE);
}

CK_RV CheckTemplateGenerate(CK_ATTRIBUTE_PTR attributes, CK_ULONG count, CK_MECHANISM_PTR mechanism)
{
    if (mechanism && mechanism->mechanism == CKM_PKCS5_PBKD2) return checkTemplateOfChosenType(attributes, count);
    const MechanismKinds* made = nullptr;
    const CK_RV rv = findMechanism(mechanism, false, &made);
    if (rv != CKR_OK) return rv;
    return checkTemplateAs(attributes, count, made->kind, made->keyType, P11_TEMPLATE_GENERATE);
}

CK_RV CheckTemplatesGeneratePair(CK_ATTRIBUTE_PTR publicAttributes, CK_ULONG publicCount,
                                 CK_ATTRIBUTE_PTR privateAttributes, CK_ULONG privateCount, CK_MECHANISM_PTR mechanism)
{
    const MechanismKinds* made = nullptr;
    CK_RV rv = findMechanism(mechanism, true, &made);
    if (rv != CKR_OK) return rv;
    rv = checkTemplateAs(publicAttributes, publicCount, made->publicKind, made->keyType, P11_TEMPLATE_GENERATE);
    if (rv != CKR_OK) return rv;
    return checkTemplateAs(privateAttributes, privateCount, made->kind, made->keyType, P11_TEMPLATE_GENERATE);
}

CK_RV CheckTemplateUnwrap(CK_ATTRIBUTE_PTR attributes, CK_ULONG count, CK_MECHANISM_PTR mechanism)
{
    if (!mechanism) return CKR_ARGUMENTS_BAD;
    ScratchObject scratch;
    CK_RV rv = scratch.build(attributes, count);
    if (rv != CKR_OK) return rv;
    uint64_t kind = 0;
    CK_KEY_TYPE keyType = kNoKeyType;
    rv = GetObjAndKeyType(scratch.get(), &kind, &keyType);
    if (rv != CKR_OK) return rv;
    // Unwrapping makes secret and private keys only.
    if ((kind & (kSecretKinds | kPrivateKinds)) == 0) return CKR_TEMPLATE_INCONSISTENT;
    return CheckObject(scratch.get(), kind, keyType, P11_TEMPLATE_UNWRAP);
}

CK_RV CheckTemplateDerive(CK_ATTRIBUTE_PTR attributes, CK_ULONG count, CK_MECHANISM_TYPE)
{
    ScratchObject scratch;
    CK_RV rv = scratch.build(attributes, count);
    if (rv != CKR_OK) return rv;
    // A derived key is checked as a variable-length secret whatever its
    // type; a type the template names must still be a secret-key type.
    CK_KEY_TYPE keyType = 0;
    uint64_t secretKind = 0;
    rv = templateSecretType(scratch.get(), &keyType, &secretKind);
    if (rv != CKR_OK) return rv;
    return CheckObject(scratch.get(), P11_KIND_VARIABLE_SECRET, keyType, P11_TEMPLATE_DERIVE);
}

CK_RV ObjIsSensitive(P11Obj* object, CK_BBOOL* sensitive)
{
    const CK_ATTRIBUTE* attribute = nullptr;
    CK_RV rv = P11Obj_peekAttribute(object, CKA_SENSITIVE, &attribute);
    if (rv != CKR_OK) return rv;
    if (!attribute) {
        *sensitive = CK_FALSE;
        return CKR_OK;
    }
    CK_BBOOL flag = CK_FALSE;
    rv = P11Obj_getBoolValue(object, CKA_SENSITIVE, &flag);
    if (rv != CKR_OK) return rv;
    if (flag) {
        *sensitive = CK_TRUE;
        return CKR_OK;
    }
    rv = P11Obj_getBoolValue(object, CKA_EXTRACTABLE, &flag);
    if (rv != CKR_OK) return rv;
    *sensitive = flag ? CK_FALSE : CK_TRUE;
    return CKR_OK;
}

CK_RV ObjModifiable(P11Obj* object)
{
    const CK_ATTRIBUTE* attribute = nullptr;
    CK_RV rv = P11Obj_peekAttribute(object, CKA_MODIFIABLE, &attribute);
    if (rv != CKR_OK) return rv;
    if (!attribute || attribute->ulValueLen == 0) return CKR_TEMPLATE_INCOMPLETE;
    CK_BBOOL modifiable = CK_FALSE;
    rv = P11Obj_getBoolValue(object, CKA_MODIFIABLE, &modifiable);
    if (rv != CKR_OK) return rv;
    return modifiable ? CKR_OK : CKR_ATTRIBUTE_READ_ONLY;
}

// ---------------------------------------------------------------------------
// Completion

CK_RV SetAttributeFromTemplate(P11Obj* object, CK_ATTRIBUTE_TYPE type, const void* defaultValue, CK_ULONG length)
{
    const CK_ATTRIBUTE* attribute = nullptr;
    const CK_RV rv = P11Obj_peekAttribute(object, type, &attribute);
    if (rv != CKR_OK) return rv;
    if (attribute) return CKR_OK;
    if (!defaultValue) {
        if (length == 1) return CKR_TEMPLATE_INCOMPLETE;  // mandatory
        return P11Obj_setValue(object, type, nullptr, 0);
    }
    return P11Obj_setValue(object, type, defaultValue, length);
}

CK_RV MakeFullTemplate(P11Obj* object)
{
    CK_ULONG objectClass = 0;
    CK_RV rv = P11Obj_getUlongValue(object, CKA_CLASS, &objectClass);
    if (rv != CKR_OK) return rv;
    switch (objectClass) {
    case CKO_DATA: return applyDefaults(object, kDataDefaults);
    case CKO_CERTIFICATE: return completeCertificate(object);
    case CKO_PUBLIC_KEY: return completePublicKey(object);
    case CKO_PRIVATE_KEY: return completePrivateKey(object);
    case CKO_SECRET_KEY: return completeSecretKey(object);
    case CKO_DOMAIN_PARAMETERS: return completeParameters(object);
    default: return CKR_GENERAL_ERROR;
    }
}

// ---------------------------------------------------------------------------
// Key arithmetic

CK_RV RSA_Calculate_Rem_Values(P11Obj* object)
{
    // The numbers as the object holds them; absent reads as empty, like the
    // zero-byte placeholder completion gives missing values.
    const CK_ATTRIBUTE_TYPE types[] = {CKA_MODULUS, CKA_PUBLIC_EXPONENT, CKA_PRIVATE_EXPONENT, CKA_PRIME_1,
                                       CKA_PRIME_2, CKA_EXPONENT_1, CKA_EXPONENT_2, CKA_COEFFICIENT};
    rsa_components components;
    crypto_bytes* values[] = {&components.n,  &components.e,  &components.d,  &components.p,
                              &components.q,  &components.dp, &components.dq, &components.qinv};
    bool given[8] = {};
    for (int i = 0; i < 8; ++i) {
        const CK_ATTRIBUTE* attribute = nullptr;
        const CK_RV rv = P11Obj_peekAttribute(object, types[i], &attribute);
        if (rv != CKR_OK) return rv;
        if (!attribute || !attribute->pValue) continue;
        const CK_BYTE* bytes = static_cast<const CK_BYTE*>(attribute->pValue);
        CK_ULONG length = attribute->ulValueLen;
        while (length && *bytes == 0) ++bytes, --length;
        values[i]->assign(bytes, bytes + length);
        given[i] = length != 0;
    }
    switch (rsa_complete_components(&components)) {
    case CRYPTO_OK: break;
    case CRYPTO_ERR_BAD_PARAMETER: return CKR_TEMPLATE_INCOMPLETE;
    case CRYPTO_ERR_VERIFY_FAILED: return CKR_TEMPLATE_INCONSISTENT;
    case CRYPTO_ERR_NO_MEMORY: return CKR_HOST_MEMORY;
    default: return CKR_GENERAL_ERROR;
    }
    // Only what was missing is stored; given values were checked.
    for (int i = 0; i < 8; ++i) {
        if (given[i] || values[i]->empty()) continue;
        const CK_RV rv = P11Obj_setValue(object, types[i], values[i]->data(), CK_ULONG(values[i]->size()));
        if (rv != CKR_OK) return rv;
    }
    return CKR_OK;
}

CK_RV X942_CheckPublicKey(P11Obj* object)
{
    const CK_ATTRIBUTE_TYPE types[] = {CKA_PRIME, CKA_SUBPRIME, CKA_BASE, CKA_VALUE};
    crypto_bytes values[4];
    for (int i = 0; i < 4; ++i) {
        const CK_ATTRIBUTE* attribute = nullptr;
        const CK_RV rv = P11Obj_peekAttribute(object, types[i], &attribute);
        if (rv != CKR_OK) return rv;
        if (!attribute) return CKR_TEMPLATE_INCOMPLETE;
        const CK_BYTE* bytes = static_cast<const CK_BYTE*>(attribute->pValue);
        if (bytes) values[i].assign(bytes, bytes + attribute->ulValueLen);
    }
    switch (x942_check_public(values[0], values[1], values[2], values[3])) {
    case CRYPTO_OK: return CKR_OK;
    case CRYPTO_ERR_NO_MEMORY: return CKR_HOST_MEMORY;
    case CRYPTO_ERR_VERIFY_FAILED:
    case CRYPTO_ERR_BAD_PARAMETER:
    case CRYPTO_ERR_DATA_RANGE: return CKR_TEMPLATE_INCONSISTENT;
    default: return CKR_GENERAL_ERROR;
    }
}
