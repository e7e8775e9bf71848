#pragma once
// Printable names of Cryptoki values, for the call trace.
//
// The tables hold the Cryptoki 2.20 constants (with the additions made to
// 2.20 after its first release: SHA-224, Camellia, ARIA, AES counter mode,
// the one-time-password and KIP mechanisms) and the Netscape vendor
// constants of trust objects and of the other Netscape object classes and
// attributes. Where the headers give one value two names, the table prints
// the current one (CKA_EC_PARAMS, CKM_EC_KEY_PAIR_GEN, CKK_EC, CAST128,
// CKA_SUBPRIME_BITS, CKO_DOMAIN_PARAMETERS).
//
// Every table answers "unknown" for a value it does not hold. The name
// functions return pointers to static strings, never null.

#include <string>

#include "pkcs11/cryptoki.h"

// "CKA_LABEL", "CKA_TRUST_SERVER_AUTH", "CKA_VENDOR_DEFINED", ...
const char* attributeTypeToString(CK_ATTRIBUTE_TYPE type);

// Without the CKM_ prefix: "RSA_PKCS_KEY_PAIR_GEN", "SHA_1_HMAC_GENERAL",
// "VENDOR_DEFINED", ...
const char* mechanismTypeToString(CK_MECHANISM_TYPE type);

// With the prefix: "CKK_RSA", "CKK_DES3", ...
const char* keyTypetoString(CK_KEY_TYPE type);

// Without the CKR_ prefix: "OK", "SESSION_PARALLEL_NOT_SUPPORTED", ...
const char* ckrToString(CK_RV rv);

// With the prefix: "CKO_DATA", "CKO_NSS_TRUST", ...
const char* objectClassToString(CK_OBJECT_CLASS objectClass);

// Netscape trust values, with the prefix: "CKT_NSS_TRUSTED",
// "CKT_NSS_UNTRUSTED", "CKT_NSS_MUST_VERIFY", "CKT_NSS_TRUST_UNKNOWN", ...
const char* trustTypeToString(CK_ULONG trust);

// With the prefix: "CKC_X_509", ...
const char* certificateTypeToString(CK_CERTIFICATE_TYPE type);

// With the prefix: "CKH_CLOCK", ...
const char* hwFeatureTypeToString(CK_HW_FEATURE_TYPE type);

// With the prefix: "CKU_SO", "CKU_USER", "CKU_CONTEXT_SPECIFIC".
const char* userTypeToString(CK_USER_TYPE type);

// The value of one attribute as text, chosen by the attribute's type:
//   - null value pointer: "NULL (size:<length>)";
//   - length CK_UNAVAILABLE_INFORMATION: "error (size:-1)";
//   - CK_BBOOL attributes: "CK_TRUE" / "CK_FALSE" (another byte as "0x%02X");
//   - class, key type, certificate type, hardware feature type, mechanism
//     and Netscape trust attributes: the value's name from the tables above;
//   - other CK_ULONG attributes (sizes, bit counts, flags): decimal;
//   - texts (label, application, URL, e-mail, ...): the bytes in quotes,
//     control characters as \xHH, at most 256 bytes then "...";
//   - dates: "YYYY-MM-DD", or "" for an empty date;
//   - CKA_ALLOWED_MECHANISMS: the mechanism names separated by ", ";
//   - CKA_WRAP_TEMPLATE / CKA_UNWRAP_TEMPLATE: the attribute names of the
//     inner template separated by ", ", in brackets;
//   - values that may be secret (CKA_VALUE and the private key components):
//     "(removed)";
//   - anything else: upper-case hexadecimal as the trace prints byte buffers.
// When the length does not fit the attribute's type (a CK_BBOOL not one
// byte, a CK_ULONG not sizeof(CK_ULONG), a date neither 0 nor 8 bytes, an
// array not a whole number of elements) the answer is "bad length".
std::string attributeValueToString(const CK_ATTRIBUTE& attribute);

// How the trace prints a byte buffer: upper-case hexadecimal, two digits per
// byte, no separators, at most the first 256 bytes, followed by "..." when
// the buffer is longer. A null pointer gives "NULL".
std::string bytesToTraceHex(const void* data, CK_ULONG length);

// Longest prefix of a byte buffer that the trace prints.
constexpr CK_ULONG kTraceMaxBytes = 256;
