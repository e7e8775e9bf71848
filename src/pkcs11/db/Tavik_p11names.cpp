#include "pkcs11/db/Tavik_p11names.h"

#include <cstring>

#include "deps/cpp_modules/ByteArray.h"
#include "deps/cpp_modules/tsq_string.h"

// The rows are written as macros over the header's own constant names, so a
// misspelt row does not compile and every printed name is the constant's.
#define NAME_WITH_PREFIX(constant) \
    case constant:                 \
        return #constant;

namespace {

const char* const kUnknown = "unknown";

}  // namespace

const char* attributeTypeToString(CK_ATTRIBUTE_TYPE type)
{
#define A(name) NAME_WITH_PREFIX(CKA_##name)
    switch (type) {
        A(CLASS)
        A(TOKEN)
        A(PRIVATE)
        A(LABEL)
        A(APPLICATION)
        A(VALUE)
        A(OBJECT_ID)
        A(CERTIFICATE_TYPE)
        A(ISSUER)
        A(SERIAL_NUMBER)
        A(AC_ISSUER)
        A(OWNER)
        A(ATTR_TYPES)
        A(TRUSTED)
        A(CERTIFICATE_CATEGORY)
        A(JAVA_MIDP_SECURITY_DOMAIN)
        A(URL)
        A(HASH_OF_SUBJECT_PUBLIC_KEY)
        A(HASH_OF_ISSUER_PUBLIC_KEY)
        A(CHECK_VALUE)
        A(KEY_TYPE)
        A(SUBJECT)
        A(ID)
        A(SENSITIVE)
        A(ENCRYPT)
        A(DECRYPT)
        A(WRAP)
        A(UNWRAP)
        A(SIGN)
        A(SIGN_RECOVER)
        A(VERIFY)
        A(VERIFY_RECOVER)
        A(DERIVE)
        A(START_DATE)
        A(END_DATE)
        A(MODULUS)
        A(MODULUS_BITS)
        A(PUBLIC_EXPONENT)
        A(PRIVATE_EXPONENT)
        A(PRIME_1)
        A(PRIME_2)
        A(EXPONENT_1)
        A(EXPONENT_2)
        A(COEFFICIENT)
        A(PRIME)
        A(SUBPRIME)
        A(BASE)
        A(PRIME_BITS)
        A(SUBPRIME_BITS)
        A(VALUE_BITS)
        A(VALUE_LEN)
        A(EXTRACTABLE)
        A(LOCAL)
        A(NEVER_EXTRACTABLE)
        A(ALWAYS_SENSITIVE)
        A(KEY_GEN_MECHANISM)
        A(MODIFIABLE)
        A(EC_PARAMS)
        A(EC_POINT)
        A(SECONDARY_AUTH)
        A(AUTH_PIN_FLAGS)
        A(ALWAYS_AUTHENTICATE)
        A(WRAP_WITH_TRUSTED)
        A(WRAP_TEMPLATE)
        A(UNWRAP_TEMPLATE)
        A(OTP_FORMAT)
        A(OTP_LENGTH)
        A(OTP_TIME_INTERVAL)
        A(OTP_USER_FRIENDLY_MODE)
        A(OTP_CHALLENGE_REQUIREMENT)
        A(OTP_TIME_REQUIREMENT)
        A(OTP_COUNTER_REQUIREMENT)
        A(OTP_PIN_REQUIREMENT)
        A(OTP_COUNTER)
        A(OTP_TIME)
        A(OTP_USER_IDENTIFIER)
        A(OTP_SERVICE_IDENTIFIER)
        A(OTP_SERVICE_LOGO)
        A(OTP_SERVICE_LOGO_TYPE)
        A(HW_FEATURE_TYPE)
        A(RESET_ON_INIT)
        A(HAS_RESET)
        A(PIXEL_X)
        A(PIXEL_Y)
        A(RESOLUTION)
        A(CHAR_ROWS)
        A(CHAR_COLUMNS)
        A(COLOR)
        A(BITS_PER_PIXEL)
        A(CHAR_SETS)
        A(ENCODING_METHODS)
        A(MIME_TYPES)
        A(MECHANISM_TYPE)
        A(REQUIRED_CMS_ATTRIBUTES)
        A(DEFAULT_CMS_ATTRIBUTES)
        A(SUPPORTED_CMS_ATTRIBUTES)
        A(ALLOWED_MECHANISMS)
        A(VENDOR_DEFINED)

        // Netscape vendor attributes.
        A(NSS_TRUST)
        A(NSS_URL)
        A(NSS_EMAIL)
        A(NSS_SMIME_INFO)
        A(NSS_SMIME_TIMESTAMP)
        A(NSS_PKCS8_SALT)
        A(NSS_PASSWORD_CHECK)
        A(NSS_EXPIRES)
        A(NSS_KRL)
        A(NSS_PQG_COUNTER)
        A(NSS_PQG_SEED)
        A(NSS_PQG_H)
        A(NSS_PQG_SEED_BITS)
        A(NSS_MODULE_SPEC)
        A(NSS_OVERRIDE_EXTENSIONS)
        A(NSS_MOZILLA_CA_POLICY)
        A(NSS_SERVER_DISTRUST_AFTER)
        A(NSS_EMAIL_DISTRUST_AFTER)
        A(NSS_DB)
        A(TRUST_DIGITAL_SIGNATURE)
        A(TRUST_NON_REPUDIATION)
        A(TRUST_KEY_ENCIPHERMENT)
        A(TRUST_DATA_ENCIPHERMENT)
        A(TRUST_KEY_AGREEMENT)
        A(TRUST_KEY_CERT_SIGN)
        A(TRUST_CRL_SIGN)
        A(TRUST_SERVER_AUTH)
        A(TRUST_CLIENT_AUTH)
        A(TRUST_CODE_SIGNING)
        A(TRUST_EMAIL_PROTECTION)
        A(TRUST_IPSEC_END_SYSTEM)
        A(TRUST_IPSEC_TUNNEL)
        A(TRUST_IPSEC_USER)
        A(TRUST_TIME_STAMPING)
        A(TRUST_STEP_UP_APPROVED)
        A(CERT_SHA1_HASH)
        A(CERT_MD5_HASH)
    default:
        return kUnknown;
    }
#undef A
}

const char* mechanismTypeToString(CK_MECHANISM_TYPE type)
{
#define M(name)    \
    case CKM_##name: \
        return #name;
    switch (type) {
        M(RSA_PKCS_KEY_PAIR_GEN)
        M(RSA_PKCS)
        M(RSA_9796)
        M(RSA_X_509)
        M(MD2_RSA_PKCS)
        M(MD5_RSA_PKCS)
        M(SHA1_RSA_PKCS)
        M(RIPEMD128_RSA_PKCS)
        M(RIPEMD160_RSA_PKCS)
        M(RSA_PKCS_OAEP)
        M(RSA_X9_31_KEY_PAIR_GEN)
        M(RSA_X9_31)
        M(SHA1_RSA_X9_31)
        M(RSA_PKCS_PSS)
        M(SHA1_RSA_PKCS_PSS)
        M(DSA_KEY_PAIR_GEN)
        M(DSA)
        M(DSA_SHA1)
        M(DH_PKCS_KEY_PAIR_GEN)
        M(DH_PKCS_DERIVE)
        M(X9_42_DH_KEY_PAIR_GEN)
        M(X9_42_DH_DERIVE)
        M(X9_42_DH_HYBRID_DERIVE)
        M(X9_42_MQV_DERIVE)
        M(SHA256_RSA_PKCS)
        M(SHA384_RSA_PKCS)
        M(SHA512_RSA_PKCS)
        M(SHA256_RSA_PKCS_PSS)
        M(SHA384_RSA_PKCS_PSS)
        M(SHA512_RSA_PKCS_PSS)
        M(SHA224_RSA_PKCS)
        M(SHA224_RSA_PKCS_PSS)
        M(RC2_KEY_GEN)
        M(RC2_ECB)
        M(RC2_CBC)
        M(RC2_MAC)
        M(RC2_MAC_GENERAL)
        M(RC2_CBC_PAD)
        M(RC4_KEY_GEN)
        M(RC4)
        M(DES_KEY_GEN)
        M(DES_ECB)
        M(DES_CBC)
        M(DES_MAC)
        M(DES_MAC_GENERAL)
        M(DES_CBC_PAD)
        M(DES2_KEY_GEN)
        M(DES3_KEY_GEN)
        M(DES3_ECB)
        M(DES3_CBC)
        M(DES3_MAC)
        M(DES3_MAC_GENERAL)
        M(DES3_CBC_PAD)
        M(CDMF_KEY_GEN)
        M(CDMF_ECB)
        M(CDMF_CBC)
        M(CDMF_MAC)
        M(CDMF_MAC_GENERAL)
        M(CDMF_CBC_PAD)
        M(DES_OFB64)
        M(DES_OFB8)
        M(DES_CFB64)
        M(DES_CFB8)
        M(MD2)
        M(MD2_HMAC)
        M(MD2_HMAC_GENERAL)
        M(MD5)
        M(MD5_HMAC)
        M(MD5_HMAC_GENERAL)
        M(SHA_1)
        M(SHA_1_HMAC)
        M(SHA_1_HMAC_GENERAL)
        M(RIPEMD128)
        M(RIPEMD128_HMAC)
        M(RIPEMD128_HMAC_GENERAL)
        M(RIPEMD160)
        M(RIPEMD160_HMAC)
        M(RIPEMD160_HMAC_GENERAL)
        M(SHA256)
        M(SHA256_HMAC)
        M(SHA256_HMAC_GENERAL)
        M(SHA224)
        M(SHA224_HMAC)
        M(SHA224_HMAC_GENERAL)
        M(SHA384)
        M(SHA384_HMAC)
        M(SHA384_HMAC_GENERAL)
        M(SHA512)
        M(SHA512_HMAC)
        M(SHA512_HMAC_GENERAL)
        M(SECURID_KEY_GEN)
        M(SECURID)
        M(HOTP_KEY_GEN)
        M(HOTP)
        M(ACTI)
        M(ACTI_KEY_GEN)
        M(CAST_KEY_GEN)
        M(CAST_ECB)
        M(CAST_CBC)
        M(CAST_MAC)
        M(CAST_MAC_GENERAL)
        M(CAST_CBC_PAD)
        M(CAST3_KEY_GEN)
        M(CAST3_ECB)
        M(CAST3_CBC)
        M(CAST3_MAC)
        M(CAST3_MAC_GENERAL)
        M(CAST3_CBC_PAD)
        M(CAST128_KEY_GEN)
        M(CAST128_ECB)
        M(CAST128_CBC)
        M(CAST128_MAC)
        M(CAST128_MAC_GENERAL)
        M(CAST128_CBC_PAD)
        M(RC5_KEY_GEN)
        M(RC5_ECB)
        M(RC5_CBC)
        M(RC5_MAC)
        M(RC5_MAC_GENERAL)
        M(RC5_CBC_PAD)
        M(IDEA_KEY_GEN)
        M(IDEA_ECB)
        M(IDEA_CBC)
        M(IDEA_MAC)
        M(IDEA_MAC_GENERAL)
        M(IDEA_CBC_PAD)
        M(GENERIC_SECRET_KEY_GEN)
        M(CONCATENATE_BASE_AND_KEY)
        M(CONCATENATE_BASE_AND_DATA)
        M(CONCATENATE_DATA_AND_BASE)
        M(XOR_BASE_AND_DATA)
        M(EXTRACT_KEY_FROM_KEY)
        M(SSL3_PRE_MASTER_KEY_GEN)
        M(SSL3_MASTER_KEY_DERIVE)
        M(SSL3_KEY_AND_MAC_DERIVE)
        M(SSL3_MASTER_KEY_DERIVE_DH)
        M(TLS_PRE_MASTER_KEY_GEN)
        M(TLS_MASTER_KEY_DERIVE)
        M(TLS_KEY_AND_MAC_DERIVE)
        M(TLS_MASTER_KEY_DERIVE_DH)
        M(TLS_PRF)
        M(SSL3_MD5_MAC)
        M(SSL3_SHA1_MAC)
        M(MD5_KEY_DERIVATION)
        M(MD2_KEY_DERIVATION)
        M(SHA1_KEY_DERIVATION)
        M(SHA256_KEY_DERIVATION)
        M(SHA384_KEY_DERIVATION)
        M(SHA512_KEY_DERIVATION)
        M(SHA224_KEY_DERIVATION)
        M(PBE_MD2_DES_CBC)
        M(PBE_MD5_DES_CBC)
        M(PBE_MD5_CAST_CBC)
        M(PBE_MD5_CAST3_CBC)
        M(PBE_MD5_CAST128_CBC)
        M(PBE_SHA1_CAST128_CBC)
        M(PBE_SHA1_RC4_128)
        M(PBE_SHA1_RC4_40)
        M(PBE_SHA1_DES3_EDE_CBC)
        M(PBE_SHA1_DES2_EDE_CBC)
        M(PBE_SHA1_RC2_128_CBC)
        M(PBE_SHA1_RC2_40_CBC)
        M(PKCS5_PBKD2)
        M(PBA_SHA1_WITH_SHA1_HMAC)
        M(WTLS_PRE_MASTER_KEY_GEN)
        M(WTLS_MASTER_KEY_DERIVE)
        M(WTLS_MASTER_KEY_DERIVE_DH_ECC)
        M(WTLS_PRF)
        M(WTLS_SERVER_KEY_AND_MAC_DERIVE)
        M(WTLS_CLIENT_KEY_AND_MAC_DERIVE)
        M(KEY_WRAP_LYNKS)
        M(KEY_WRAP_SET_OAEP)
        M(CMS_SIG)
        M(KIP_DERIVE)
        M(KIP_WRAP)
        M(KIP_MAC)
        M(CAMELLIA_KEY_GEN)
        M(CAMELLIA_ECB)
        M(CAMELLIA_CBC)
        M(CAMELLIA_MAC)
        M(CAMELLIA_MAC_GENERAL)
        M(CAMELLIA_CBC_PAD)
        M(CAMELLIA_ECB_ENCRYPT_DATA)
        M(CAMELLIA_CBC_ENCRYPT_DATA)
        M(ARIA_KEY_GEN)
        M(ARIA_ECB)
        M(ARIA_CBC)
        M(ARIA_MAC)
        M(ARIA_MAC_GENERAL)
        M(ARIA_CBC_PAD)
        M(ARIA_ECB_ENCRYPT_DATA)
        M(ARIA_CBC_ENCRYPT_DATA)
        M(SKIPJACK_KEY_GEN)
        M(SKIPJACK_ECB64)
        M(SKIPJACK_CBC64)
        M(SKIPJACK_OFB64)
        M(SKIPJACK_CFB64)
        M(SKIPJACK_CFB32)
        M(SKIPJACK_CFB16)
        M(SKIPJACK_CFB8)
        M(SKIPJACK_WRAP)
        M(SKIPJACK_PRIVATE_WRAP)
        M(SKIPJACK_RELAYX)
        M(KEA_KEY_PAIR_GEN)
        M(KEA_KEY_DERIVE)
        M(FORTEZZA_TIMESTAMP)
        M(BATON_KEY_GEN)
        M(BATON_ECB128)
        M(BATON_ECB96)
        M(BATON_CBC128)
        M(BATON_COUNTER)
        M(BATON_SHUFFLE)
        M(BATON_WRAP)
        M(EC_KEY_PAIR_GEN)
        M(ECDSA)
        M(ECDSA_SHA1)
        M(ECDH1_DERIVE)
        M(ECDH1_COFACTOR_DERIVE)
        M(ECMQV_DERIVE)
        M(JUNIPER_KEY_GEN)
        M(JUNIPER_ECB128)
        M(JUNIPER_CBC128)
        M(JUNIPER_COUNTER)
        M(JUNIPER_SHUFFLE)
        M(JUNIPER_WRAP)
        M(FASTHASH)
        M(AES_KEY_GEN)
        M(AES_ECB)
        M(AES_CBC)
        M(AES_MAC)
        M(AES_MAC_GENERAL)
        M(AES_CBC_PAD)
        M(AES_CTR)
        M(BLOWFISH_KEY_GEN)
        M(BLOWFISH_CBC)
        M(TWOFISH_KEY_GEN)
        M(TWOFISH_CBC)
        M(DES_ECB_ENCRYPT_DATA)
        M(DES_CBC_ENCRYPT_DATA)
        M(DES3_ECB_ENCRYPT_DATA)
        M(DES3_CBC_ENCRYPT_DATA)
        M(AES_ECB_ENCRYPT_DATA)
        M(AES_CBC_ENCRYPT_DATA)
        M(DSA_PARAMETER_GEN)
        M(DH_PKCS_PARAMETER_GEN)
        M(X9_42_DH_PARAMETER_GEN)
        M(VENDOR_DEFINED)
    default:
        return kUnknown;
    }
#undef M
}

const char* keyTypetoString(CK_KEY_TYPE type)
{
#define K(name) NAME_WITH_PREFIX(CKK_##name)
    switch (type) {
        K(RSA)
        K(DSA)
        K(DH)
        K(EC)
        K(X9_42_DH)
        K(KEA)
        K(GENERIC_SECRET)
        K(RC2)
        K(RC4)
        K(DES)
        K(DES2)
        K(DES3)
        K(CAST)
        K(CAST3)
        K(CAST128)
        K(RC5)
        K(IDEA)
        K(SKIPJACK)
        K(BATON)
        K(JUNIPER)
        K(CDMF)
        K(AES)
        K(BLOWFISH)
        K(TWOFISH)
        K(CAMELLIA)
        K(ARIA)
        K(VENDOR_DEFINED)
        K(NSS_PKCS8)
    default:
        return kUnknown;
    }
#undef K
}

const char* ckrToString(CK_RV rv)
{
#define R(name)    \
    case CKR_##name: \
        return #name;
    switch (rv) {
        R(OK)
        R(CANCEL)
        R(HOST_MEMORY)
        R(SLOT_ID_INVALID)
        R(GENERAL_ERROR)
        R(FUNCTION_FAILED)
        R(ARGUMENTS_BAD)
        R(NO_EVENT)
        R(NEED_TO_CREATE_THREADS)
        R(CANT_LOCK)
        R(ATTRIBUTE_READ_ONLY)
        R(ATTRIBUTE_SENSITIVE)
        R(ATTRIBUTE_TYPE_INVALID)
        R(ATTRIBUTE_VALUE_INVALID)
        R(DATA_INVALID)
        R(DATA_LEN_RANGE)
        R(DEVICE_ERROR)
        R(DEVICE_MEMORY)
        R(DEVICE_REMOVED)
        R(ENCRYPTED_DATA_INVALID)
        R(ENCRYPTED_DATA_LEN_RANGE)
        R(FUNCTION_CANCELED)
        R(FUNCTION_NOT_PARALLEL)
        R(FUNCTION_NOT_SUPPORTED)
        R(KEY_HANDLE_INVALID)
        R(KEY_SIZE_RANGE)
        R(KEY_TYPE_INCONSISTENT)
        R(KEY_NOT_NEEDED)
        R(KEY_CHANGED)
        R(KEY_NEEDED)
        R(KEY_INDIGESTIBLE)
        R(KEY_FUNCTION_NOT_PERMITTED)
        R(KEY_NOT_WRAPPABLE)
        R(KEY_UNEXTRACTABLE)
        R(MECHANISM_INVALID)
        R(MECHANISM_PARAM_INVALID)
        R(OBJECT_HANDLE_INVALID)
        R(OPERATION_ACTIVE)
        R(OPERATION_NOT_INITIALIZED)
        R(PIN_INCORRECT)
        R(PIN_INVALID)
        R(PIN_LEN_RANGE)
        R(PIN_EXPIRED)
        R(PIN_LOCKED)
        R(SESSION_CLOSED)
        R(SESSION_COUNT)
        R(SESSION_HANDLE_INVALID)
        R(SESSION_PARALLEL_NOT_SUPPORTED)
        R(SESSION_READ_ONLY)
        R(SESSION_EXISTS)
        R(SESSION_READ_ONLY_EXISTS)
        R(SESSION_READ_WRITE_SO_EXISTS)
        R(SIGNATURE_INVALID)
        R(SIGNATURE_LEN_RANGE)
        R(TEMPLATE_INCOMPLETE)
        R(TEMPLATE_INCONSISTENT)
        R(TOKEN_NOT_PRESENT)
        R(TOKEN_NOT_RECOGNIZED)
        R(TOKEN_WRITE_PROTECTED)
        R(UNWRAPPING_KEY_HANDLE_INVALID)
        R(UNWRAPPING_KEY_SIZE_RANGE)
        R(UNWRAPPING_KEY_TYPE_INCONSISTENT)
        R(USER_ALREADY_LOGGED_IN)
        R(USER_NOT_LOGGED_IN)
        R(USER_PIN_NOT_INITIALIZED)
        R(USER_TYPE_INVALID)
        R(USER_ANOTHER_ALREADY_LOGGED_IN)
        R(USER_TOO_MANY_TYPES)
        R(WRAPPED_KEY_INVALID)
        R(WRAPPED_KEY_LEN_RANGE)
        R(WRAPPING_KEY_HANDLE_INVALID)
        R(WRAPPING_KEY_SIZE_RANGE)
        R(WRAPPING_KEY_TYPE_INCONSISTENT)
        R(RANDOM_SEED_NOT_SUPPORTED)
        R(RANDOM_NO_RNG)
        R(DOMAIN_PARAMS_INVALID)
        R(BUFFER_TOO_SMALL)
        R(SAVED_STATE_INVALID)
        R(INFORMATION_SENSITIVE)
        R(STATE_UNSAVEABLE)
        R(CRYPTOKI_NOT_INITIALIZED)
        R(CRYPTOKI_ALREADY_INITIALIZED)
        R(MUTEX_BAD)
        R(MUTEX_NOT_LOCKED)
        R(NEW_PIN_MODE)
        R(NEXT_OTP)
        R(FUNCTION_REJECTED)
        R(VENDOR_DEFINED)
        R(NSS_CERTDB_FAILED)
        R(NSS_KEYDB_FAILED)
    default:
        return kUnknown;
    }
#undef R
}

const char* objectClassToString(CK_OBJECT_CLASS objectClass)
{
#define O(name) NAME_WITH_PREFIX(CKO_##name)
    switch (objectClass) {
        O(DATA)
        O(CERTIFICATE)
        O(PUBLIC_KEY)
        O(PRIVATE_KEY)
        O(SECRET_KEY)
        O(HW_FEATURE)
        O(DOMAIN_PARAMETERS)
        O(MECHANISM)
        O(VENDOR_DEFINED)
        O(NSS_CRL)
        O(NSS_SMIME)
        O(NSS_TRUST)
        O(NSS_BUILTIN_ROOT_LIST)
        O(NSS_NEWSLOT)
        O(NSS_DELSLOT)
    default:
        return kUnknown;
    }
#undef O
}

const char* trustTypeToString(CK_ULONG trust)
{
    // The three trust values of the first Netscape header keep their first
    // names here (UNTRUSTED, MUST_VERIFY, VALID); the later header spells
    // two of them differently and marks the old spellings as deprecated, so
    // the rows are written with its current constants.
    switch (trust) {
        NAME_WITH_PREFIX(CKT_NSS_TRUSTED)
        NAME_WITH_PREFIX(CKT_NSS_TRUSTED_DELEGATOR)
    case CKT_NSS_MUST_VERIFY_TRUST:
        return "CKT_NSS_UNTRUSTED";
    case CKT_NSS + 4:
        return "CKT_NSS_MUST_VERIFY";
        NAME_WITH_PREFIX(CKT_NSS_TRUST_UNKNOWN)
    case CKT_NSS_NOT_TRUSTED:
        return "CKT_NSS_VALID";
        NAME_WITH_PREFIX(CKT_NSS_VALID_DELEGATOR)
    default:
        return kUnknown;
    }
}

const char* certificateTypeToString(CK_CERTIFICATE_TYPE type)
{
    switch (type) {
        NAME_WITH_PREFIX(CKC_X_509)
        NAME_WITH_PREFIX(CKC_X_509_ATTR_CERT)
        NAME_WITH_PREFIX(CKC_WTLS)
        NAME_WITH_PREFIX(CKC_VENDOR_DEFINED)
    default:
        return kUnknown;
    }
}

const char* hwFeatureTypeToString(CK_HW_FEATURE_TYPE type)
{
    switch (type) {
        NAME_WITH_PREFIX(CKH_MONOTONIC_COUNTER)
        NAME_WITH_PREFIX(CKH_CLOCK)
        NAME_WITH_PREFIX(CKH_USER_INTERFACE)
        NAME_WITH_PREFIX(CKH_VENDOR_DEFINED)
    default:
        return kUnknown;
    }
}

const char* userTypeToString(CK_USER_TYPE type)
{
    switch (type) {
        NAME_WITH_PREFIX(CKU_SO)
        NAME_WITH_PREFIX(CKU_USER)
        NAME_WITH_PREFIX(CKU_CONTEXT_SPECIFIC)
    default:
        return kUnknown;
    }
}

#undef NAME_WITH_PREFIX

std::string bytesToTraceHex(const void* data, CK_ULONG length)
{
    if (!data) return "NULL";
    const CK_ULONG shown = length > kTraceMaxBytes ? kTraceMaxBytes : length;
    std::string text = ByteArray_constSlice(static_cast<const uint8_t*>(data), shown).toHex(HexCase::Upper);
    if (length > shown) text += "...";
    return text;
}

namespace {

// How attributeValueToString reads a value of each attribute type.
enum class ValueKind {
    Bytes,             // hexadecimal
    Secret,            // never shown
    Bool,              // CK_BBOOL
    Number,            // CK_ULONG in decimal
    ObjectClass,       // CK_ULONG by name
    KeyType,
    CertificateType,
    HwFeatureType,
    Mechanism,
    Trust,
    Text,              // character string
    Date,              // CK_DATE
    MechanismArray,    // CK_MECHANISM_TYPE[]
    AttributeArray,    // CK_ATTRIBUTE[]
};

ValueKind valueKind(CK_ATTRIBUTE_TYPE type)
{
    switch (type) {
    case CKA_VALUE:
    case CKA_PRIVATE_EXPONENT:
    case CKA_PRIME_1:
    case CKA_PRIME_2:
    case CKA_EXPONENT_1:
    case CKA_EXPONENT_2:
    case CKA_COEFFICIENT:
        return ValueKind::Secret;

    case CKA_TOKEN:
    case CKA_PRIVATE:
    case CKA_TRUSTED:
    case CKA_SENSITIVE:
    case CKA_ENCRYPT:
    case CKA_DECRYPT:
    case CKA_WRAP:
    case CKA_UNWRAP:
    case CKA_SIGN:
    case CKA_SIGN_RECOVER:
    case CKA_VERIFY:
    case CKA_VERIFY_RECOVER:
    case CKA_DERIVE:
    case CKA_EXTRACTABLE:
    case CKA_LOCAL:
    case CKA_NEVER_EXTRACTABLE:
    case CKA_ALWAYS_SENSITIVE:
    case CKA_MODIFIABLE:
    case CKA_SECONDARY_AUTH:
    case CKA_ALWAYS_AUTHENTICATE:
    case CKA_WRAP_WITH_TRUSTED:
    case CKA_OTP_USER_FRIENDLY_MODE:
    case CKA_RESET_ON_INIT:
    case CKA_HAS_RESET:
    case CKA_COLOR:
    case CKA_TRUST_STEP_UP_APPROVED:
        return ValueKind::Bool;

    case CKA_CERTIFICATE_CATEGORY:
    case CKA_JAVA_MIDP_SECURITY_DOMAIN:
    case CKA_MODULUS_BITS:
    case CKA_PRIME_BITS:
    case CKA_SUBPRIME_BITS:
    case CKA_VALUE_BITS:
    case CKA_VALUE_LEN:
    case CKA_AUTH_PIN_FLAGS:
    case CKA_OTP_FORMAT:
    case CKA_OTP_LENGTH:
    case CKA_OTP_TIME_INTERVAL:
    case CKA_OTP_CHALLENGE_REQUIREMENT:
    case CKA_OTP_TIME_REQUIREMENT:
    case CKA_OTP_COUNTER_REQUIREMENT:
    case CKA_OTP_PIN_REQUIREMENT:
    case CKA_PIXEL_X:
    case CKA_PIXEL_Y:
    case CKA_RESOLUTION:
    case CKA_CHAR_ROWS:
    case CKA_CHAR_COLUMNS:
    case CKA_BITS_PER_PIXEL:
        return ValueKind::Number;

    case CKA_CLASS:
        return ValueKind::ObjectClass;
    case CKA_KEY_TYPE:
        return ValueKind::KeyType;
    case CKA_CERTIFICATE_TYPE:
        return ValueKind::CertificateType;
    case CKA_HW_FEATURE_TYPE:
        return ValueKind::HwFeatureType;
    case CKA_KEY_GEN_MECHANISM:
    case CKA_MECHANISM_TYPE:
        return ValueKind::Mechanism;

    case CKA_TRUST_DIGITAL_SIGNATURE:
    case CKA_TRUST_NON_REPUDIATION:
    case CKA_TRUST_KEY_ENCIPHERMENT:
    case CKA_TRUST_DATA_ENCIPHERMENT:
    case CKA_TRUST_KEY_AGREEMENT:
    case CKA_TRUST_KEY_CERT_SIGN:
    case CKA_TRUST_CRL_SIGN:
    case CKA_TRUST_SERVER_AUTH:
    case CKA_TRUST_CLIENT_AUTH:
    case CKA_TRUST_CODE_SIGNING:
    case CKA_TRUST_EMAIL_PROTECTION:
    case CKA_TRUST_IPSEC_END_SYSTEM:
    case CKA_TRUST_IPSEC_TUNNEL:
    case CKA_TRUST_IPSEC_USER:
    case CKA_TRUST_TIME_STAMPING:
        return ValueKind::Trust;

    case CKA_LABEL:
    case CKA_APPLICATION:
    case CKA_URL:
    case CKA_CHAR_SETS:
    case CKA_ENCODING_METHODS:
    case CKA_MIME_TYPES:
    case CKA_OTP_USER_IDENTIFIER:
    case CKA_OTP_SERVICE_IDENTIFIER:
    case CKA_OTP_SERVICE_LOGO_TYPE:
    case CKA_NSS_URL:
    case CKA_NSS_EMAIL:
        return ValueKind::Text;

    case CKA_START_DATE:
    case CKA_END_DATE:
        return ValueKind::Date;

    case CKA_ALLOWED_MECHANISMS:
        return ValueKind::MechanismArray;

    case CKA_WRAP_TEMPLATE:
    case CKA_UNWRAP_TEMPLATE:
        return ValueKind::AttributeArray;

    default:
        return ValueKind::Bytes;
    }
}

std::string quotedText(const unsigned char* text, CK_ULONG length)
{
    const CK_ULONG shown = length > kTraceMaxBytes ? kTraceMaxBytes : length;
    std::string result = "\"";
    for (CK_ULONG i = 0; i < shown; ++i) {
        const unsigned char c = text[i];
        if (c < 0x20 || c == 0x7F)
            result += tsq::format("\\x%02X", c);
        else
            result += static_cast<char>(c);
    }
    result += '"';
    if (length > shown) result += "...";
    return result;
}

std::string dateText(const CK_DATE& date)
{
    std::string text(date.year, date.year + sizeof(date.year));
    text += '-';
    text.append(date.month, date.month + sizeof(date.month));
    text += '-';
    text.append(date.day, date.day + sizeof(date.day));
    return text;
}

}  // namespace

std::string attributeValueToString(const CK_ATTRIBUTE& attribute)
{
    const CK_ULONG length = attribute.ulValueLen;
    if (!attribute.pValue) return tsq::format("NULL (size:%ld)", static_cast<long>(length));
    if (length == CK_UNAVAILABLE_INFORMATION) return "error (size:-1)";

    const auto* bytes = static_cast<const unsigned char*>(attribute.pValue);
    const ValueKind kind = valueKind(attribute.type);

    CK_ULONG number = 0;
    switch (kind) {
    case ValueKind::Number:
    case ValueKind::ObjectClass:
    case ValueKind::KeyType:
    case ValueKind::CertificateType:
    case ValueKind::HwFeatureType:
    case ValueKind::Mechanism:
    case ValueKind::Trust:
        if (length != sizeof(CK_ULONG)) return "bad length";
        std::memcpy(&number, bytes, sizeof number);
        break;
    default:
        break;
    }

    switch (kind) {
    case ValueKind::Secret:
        return "(removed)";
    case ValueKind::Bool:
        if (length != sizeof(CK_BBOOL)) return "bad length";
        if (bytes[0] == CK_TRUE) return "CK_TRUE";
        if (bytes[0] == CK_FALSE) return "CK_FALSE";
        return tsq::format("0x%02X", bytes[0]);
    case ValueKind::Number:
        return tsq::format("%lu", number);
    case ValueKind::ObjectClass:
        return objectClassToString(number);
    case ValueKind::KeyType:
        return keyTypetoString(number);
    case ValueKind::CertificateType:
        return certificateTypeToString(number);
    case ValueKind::HwFeatureType:
        return hwFeatureTypeToString(number);
    case ValueKind::Mechanism:
        return mechanismTypeToString(number);
    case ValueKind::Trust:
        return trustTypeToString(number);
    case ValueKind::Text:
        return quotedText(bytes, length);
    case ValueKind::Date: {
        if (length == 0) return "";
        if (length != sizeof(CK_DATE)) return "bad length";
        CK_DATE date;
        std::memcpy(&date, bytes, sizeof date);
        return dateText(date);
    }
    case ValueKind::MechanismArray: {
        if (length % sizeof(CK_MECHANISM_TYPE) != 0) return "bad length";
        std::string text;
        for (CK_ULONG offset = 0; offset < length; offset += sizeof(CK_MECHANISM_TYPE)) {
            CK_MECHANISM_TYPE mechanism;
            std::memcpy(&mechanism, bytes + offset, sizeof mechanism);
            if (!text.empty()) text += ", ";
            text += mechanismTypeToString(mechanism);
        }
        return text;
    }
    case ValueKind::AttributeArray: {
        if (length % sizeof(CK_ATTRIBUTE) != 0) return "bad length";
        std::string text = "[";
        for (CK_ULONG offset = 0; offset < length; offset += sizeof(CK_ATTRIBUTE)) {
            CK_ATTRIBUTE inner;
            std::memcpy(&inner, bytes + offset, sizeof inner);
            if (offset != 0) text += ", ";
            text += attributeTypeToString(inner.type);
        }
        return text + "]";
    }
    case ValueKind::Bytes:
        break;
    }
    return bytesToTraceHex(bytes, length);
}
