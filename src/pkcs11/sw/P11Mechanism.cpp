#include "pkcs11/sw/P11Mechanism.h"

#include "pkcs11/objects/P11AttrPolicy.h"
#include "pkcs11/sw/P11Sw_dh.h"
#include "pkcs11/sw/P11Sw_cipher.h"
#include "pkcs11/sw/P11Sw_dsa.h"
#include "pkcs11/sw/P11Sw_mac.h"
#include "pkcs11/sw/P11Sw_rsa.h"
#include "pkcs11/sw/P11Sw_secret.h"
#include "pkcs11/sw/P11Sw_tls.h"

namespace {

constexpr uint64_t kFixedSecret = P11_KIND_FIXED_SECRET;
constexpr uint64_t kVariableSecret = P11_KIND_VARIABLE_SECRET;
constexpr uint32_t kCipherUses = P11_USE_ENCRYPT | P11_USE_DECRYPT | P11_USE_WRAP | P11_USE_UNWRAP;
constexpr uint64_t kAnySecret = P11_KIND_FIXED_SECRET | P11_KIND_VARIABLE_SECRET;
constexpr uint32_t kMacUses = P11_USE_SIGN | P11_USE_VERIFY;
constexpr uint64_t kDsaKeys = P11_KIND_DSA_PUBLIC | P11_KIND_DSA_PRIVATE;
constexpr uint64_t kRsaKeys = P11_KIND_RSA_PUBLIC | P11_KIND_RSA_PRIVATE;
constexpr uint32_t kRsaCipher = P11_USE_ENCRYPT | P11_USE_DECRYPT | P11_USE_WRAP | P11_USE_UNWRAP;
constexpr uint32_t kRsaSignature = P11_USE_SIGN | P11_USE_VERIFY;
constexpr uint32_t kRsaRecover = P11_USE_SIGN_RECOVER | P11_USE_VERIFY_RECOVER;

const P11Mechanism kRegistry[] = {
    // RSA
    {CKM_RSA_PKCS_KEY_PAIR_GEN, 0, P11_USE_GENERATE_PAIR, nullptr, nullptr, P11SwRsa_generatePair, nullptr},
    {CKM_RSA_PKCS, kRsaKeys, kRsaCipher | kRsaSignature | kRsaRecover, P11SwRsa_init, nullptr, nullptr, nullptr},
    {CKM_RSA_X_509, kRsaKeys, kRsaCipher | kRsaSignature | kRsaRecover, P11SwRsa_init, nullptr, nullptr, nullptr},
    {CKM_RSA_PKCS_OAEP, kRsaKeys, kRsaCipher, P11SwRsa_init, nullptr, nullptr, nullptr},
    {CKM_MD5_RSA_PKCS, kRsaKeys, kRsaSignature, P11SwRsa_init, nullptr, nullptr, nullptr},
    {CKM_SHA1_RSA_PKCS, kRsaKeys, kRsaSignature, P11SwRsa_init, nullptr, nullptr, nullptr},
    {CKM_SHA224_RSA_PKCS, kRsaKeys, kRsaSignature, P11SwRsa_init, nullptr, nullptr, nullptr},
    {CKM_SHA256_RSA_PKCS, kRsaKeys, kRsaSignature, P11SwRsa_init, nullptr, nullptr, nullptr},
    {CKM_SHA384_RSA_PKCS, kRsaKeys, kRsaSignature, P11SwRsa_init, nullptr, nullptr, nullptr},
    {CKM_SHA512_RSA_PKCS, kRsaKeys, kRsaSignature, P11SwRsa_init, nullptr, nullptr, nullptr},
    {CKM_RSA_PKCS_PSS, kRsaKeys, kRsaSignature, P11SwRsa_init, nullptr, nullptr, nullptr},
    {CKM_SHA1_RSA_PKCS_PSS, kRsaKeys, kRsaSignature, P11SwRsa_init, nullptr, nullptr, nullptr},
    {CKM_SHA224_RSA_PKCS_PSS, kRsaKeys, kRsaSignature, P11SwRsa_init, nullptr, nullptr, nullptr},
    {CKM_SHA256_RSA_PKCS_PSS, kRsaKeys, kRsaSignature, P11SwRsa_init, nullptr, nullptr, nullptr},
    {CKM_SHA384_RSA_PKCS_PSS, kRsaKeys, kRsaSignature, P11SwRsa_init, nullptr, nullptr, nullptr},
    {CKM_SHA512_RSA_PKCS_PSS, kRsaKeys, kRsaSignature, P11SwRsa_init, nullptr, nullptr, nullptr},
    // Secret keys
    {CKM_DES_KEY_GEN, 0, P11_USE_GENERATE, nullptr, P11SwSecret_generate, nullptr, nullptr},
    {CKM_DES2_KEY_GEN, 0, P11_USE_GENERATE, nullptr, P11SwSecret_generate, nullptr, nullptr},
    {CKM_DES3_KEY_GEN, 0, P11_USE_GENERATE, nullptr, P11SwSecret_generate, nullptr, nullptr},
    {CKM_AES_KEY_GEN, 0, P11_USE_GENERATE, nullptr, P11SwSecret_generate, nullptr, nullptr},
    {CKM_RC2_KEY_GEN, 0, P11_USE_GENERATE, nullptr, P11SwSecret_generate, nullptr, nullptr},
    {CKM_RC4_KEY_GEN, 0, P11_USE_GENERATE, nullptr, P11SwSecret_generate, nullptr, nullptr},
    {CKM_GENERIC_SECRET_KEY_GEN, 0, P11_USE_GENERATE, nullptr, P11SwSecret_generate, nullptr, nullptr},
    // Block ciphers
    {CKM_DES_ECB, kFixedSecret, kCipherUses, P11SwCipher_init, nullptr, nullptr, nullptr},
    {CKM_DES_CBC, kFixedSecret, kCipherUses, P11SwCipher_init, nullptr, nullptr, nullptr},
    {CKM_DES_CBC_PAD, kFixedSecret, kCipherUses, P11SwCipher_init, nullptr, nullptr, nullptr},
    {CKM_DES3_ECB, kFixedSecret, kCipherUses, P11SwCipher_init, nullptr, nullptr, nullptr},
    {CKM_DES3_CBC, kFixedSecret, kCipherUses, P11SwCipher_init, nullptr, nullptr, nullptr},
    {CKM_DES3_CBC_PAD, kFixedSecret, kCipherUses, P11SwCipher_init, nullptr, nullptr, nullptr},
    {CKM_AES_ECB, kVariableSecret, kCipherUses, P11SwCipher_init, nullptr, nullptr, nullptr},
    {CKM_AES_CBC, kVariableSecret, kCipherUses, P11SwCipher_init, nullptr, nullptr, nullptr},
    {CKM_AES_CBC_PAD, kVariableSecret, kCipherUses, P11SwCipher_init, nullptr, nullptr, nullptr},
    {CKM_RC2_ECB, kVariableSecret, kCipherUses, P11SwCipher_init, nullptr, nullptr, nullptr},
    {CKM_RC2_CBC, kVariableSecret, kCipherUses, P11SwCipher_init, nullptr, nullptr, nullptr},
    {CKM_RC2_CBC_PAD, kVariableSecret, kCipherUses, P11SwCipher_init, nullptr, nullptr, nullptr},
    {CKM_RC4, kVariableSecret, kCipherUses, P11SwCipher_init, nullptr, nullptr, nullptr},
    {CKM_AES_GCM, kVariableSecret, kCipherUses, P11SwAead_init, nullptr, nullptr, nullptr},
    {CKM_AES_CCM, kVariableSecret, kCipherUses, P11SwAead_init, nullptr, nullptr, nullptr},
    // MACs
    {CKM_MD5_HMAC, kAnySecret, kMacUses, P11SwMac_init, nullptr, nullptr, nullptr},
    {CKM_MD5_HMAC_GENERAL, kAnySecret, kMacUses, P11SwMac_init, nullptr, nullptr, nullptr},
    {CKM_SHA_1_HMAC, kAnySecret, kMacUses, P11SwMac_init, nullptr, nullptr, nullptr},
    {CKM_SHA_1_HMAC_GENERAL, kAnySecret, kMacUses, P11SwMac_init, nullptr, nullptr, nullptr},
    {CKM_SHA224_HMAC, kAnySecret, kMacUses, P11SwMac_init, nullptr, nullptr, nullptr},
    {CKM_SHA224_HMAC_GENERAL, kAnySecret, kMacUses, P11SwMac_init, nullptr, nullptr, nullptr},
    {CKM_SHA256_HMAC, kAnySecret, kMacUses, P11SwMac_init, nullptr, nullptr, nullptr},
    {CKM_SHA256_HMAC_GENERAL, kAnySecret, kMacUses, P11SwMac_init, nullptr, nullptr, nullptr},
    {CKM_SHA384_HMAC, kAnySecret, kMacUses, P11SwMac_init, nullptr, nullptr, nullptr},
    {CKM_SHA384_HMAC_GENERAL, kAnySecret, kMacUses, P11SwMac_init, nullptr, nullptr, nullptr},
    {CKM_SHA512_HMAC, kAnySecret, kMacUses, P11SwMac_init, nullptr, nullptr, nullptr},
    {CKM_SHA512_HMAC_GENERAL, kAnySecret, kMacUses, P11SwMac_init, nullptr, nullptr, nullptr},
    {CKM_RIPEMD160_HMAC, kAnySecret, kMacUses, P11SwMac_init, nullptr, nullptr, nullptr},
    {CKM_RIPEMD160_HMAC_GENERAL, kAnySecret, kMacUses, P11SwMac_init, nullptr, nullptr, nullptr},
    {CKM_SSL3_MD5_MAC, kAnySecret, kMacUses, P11SwMac_init, nullptr, nullptr, nullptr},
    {CKM_SSL3_SHA1_MAC, kAnySecret, kMacUses, P11SwMac_init, nullptr, nullptr, nullptr},
    {CKM_DES_MAC, kAnySecret, kMacUses, P11SwMac_init, nullptr, nullptr, nullptr},
    {CKM_DES_MAC_GENERAL, kAnySecret, kMacUses, P11SwMac_init, nullptr, nullptr, nullptr},
    {CKM_DES3_MAC, kAnySecret, kMacUses, P11SwMac_init, nullptr, nullptr, nullptr},
    {CKM_DES3_MAC_GENERAL, kAnySecret, kMacUses, P11SwMac_init, nullptr, nullptr, nullptr},
    {CKM_AES_MAC, kAnySecret, kMacUses, P11SwMac_init, nullptr, nullptr, nullptr},
    {CKM_AES_MAC_GENERAL, kAnySecret, kMacUses, P11SwMac_init, nullptr, nullptr, nullptr},
    {CKM_RC2_MAC, kAnySecret, kMacUses, P11SwMac_init, nullptr, nullptr, nullptr},
    {CKM_RC2_MAC_GENERAL, kAnySecret, kMacUses, P11SwMac_init, nullptr, nullptr, nullptr},
    {CKM_PKCS5_PBKD2, 0, P11_USE_GENERATE, nullptr, P11SwPbkdf2_generate, nullptr, nullptr},
    // SSL 3.0 and TLS 1.0
    {CKM_SSL3_PRE_MASTER_KEY_GEN, 0, P11_USE_GENERATE, nullptr, P11SwTls_generatePreMaster, nullptr, nullptr},
    {CKM_TLS_PRE_MASTER_KEY_GEN, 0, P11_USE_GENERATE, nullptr, P11SwTls_generatePreMaster, nullptr, nullptr},
    {CKM_SSL3_MASTER_KEY_DERIVE, kVariableSecret, P11_USE_DERIVE, nullptr, nullptr, nullptr, P11SwTls_deriveMaster},
    {CKM_SSL3_MASTER_KEY_DERIVE_DH, kVariableSecret, P11_USE_DERIVE, nullptr, nullptr, nullptr, P11SwTls_deriveMaster},
    {CKM_TLS_MASTER_KEY_DERIVE, kVariableSecret, P11_USE_DERIVE, nullptr, nullptr, nullptr, P11SwTls_deriveMaster},
    {CKM_TLS_MASTER_KEY_DERIVE_DH, kVariableSecret, P11_USE_DERIVE, nullptr, nullptr, nullptr, P11SwTls_deriveMaster},
    {CKM_SSL3_KEY_AND_MAC_DERIVE, kVariableSecret, P11_USE_DERIVE, nullptr, nullptr, nullptr, P11SwTls_deriveKeys},
    {CKM_TLS_KEY_AND_MAC_DERIVE, kVariableSecret, P11_USE_DERIVE, nullptr, nullptr, nullptr, P11SwTls_deriveKeys},
    {CKM_TLS_PRF, kVariableSecret, P11_USE_DERIVE, nullptr, nullptr, nullptr, P11SwTls_prf},
    // DSA
    {CKM_DSA_PARAMETER_GEN, 0, P11_USE_GENERATE, nullptr, P11SwDsa_generateParameters, nullptr, nullptr},
    {CKM_DSA_KEY_PAIR_GEN, 0, P11_USE_GENERATE_PAIR, nullptr, nullptr, P11SwDsa_generatePair, nullptr},
    {CKM_DSA, kDsaKeys, P11_USE_SIGN | P11_USE_VERIFY, P11SwDsa_init, nullptr, nullptr, nullptr},
    {CKM_DSA_SHA1, kDsaKeys, P11_USE_SIGN | P11_USE_VERIFY, P11SwDsa_init, nullptr, nullptr, nullptr},
    // Diffie-Hellman
    {CKM_DH_PKCS_PARAMETER_GEN, 0, P11_USE_GENERATE, nullptr, P11SwDh_generateParameters, nullptr, nullptr},
    {CKM_DH_PKCS_KEY_PAIR_GEN, 0, P11_USE_GENERATE_PAIR, nullptr, nullptr, P11SwDh_generatePair, nullptr},
    {CKM_DH_PKCS_DERIVE, P11_KIND_DH_PRIVATE, P11_USE_DERIVE, nullptr, nullptr, nullptr, P11SwDh_derive},
    {CKM_X9_42_DH_PARAMETER_GEN, 0, P11_USE_GENERATE, nullptr, P11SwDh_generateParameters, nullptr, nullptr},
    {CKM_X9_42_DH_KEY_PAIR_GEN, 0, P11_USE_GENERATE_PAIR, nullptr, nullptr, P11SwDh_generatePair, nullptr},
    {CKM_X9_42_DH_DERIVE, P11_KIND_X942_PRIVATE, P11_USE_DERIVE, nullptr, nullptr, nullptr, P11SwDh_derive},
};

constexpr uint64_t kPublicKinds = P11_KIND_RSA_PUBLIC | P11_KIND_DSA_PUBLIC | P11_KIND_EC_PUBLIC |
                                  P11_KIND_DH_PUBLIC | P11_KIND_X942_PUBLIC;
constexpr uint64_t kPrivateKinds = P11_KIND_RSA_PRIVATE | P11_KIND_DSA_PRIVATE | P11_KIND_EC_PRIVATE |
                                   P11_KIND_DH_PRIVATE | P11_KIND_X942_PRIVATE;
constexpr uint64_t kSecretKinds = P11_KIND_FIXED_SECRET | P11_KIND_VARIABLE_SECRET;

}  // namespace

const P11Mechanism* P11Mechanism_find(CK_MECHANISM_TYPE type)
{
    for (const P11Mechanism& row : kRegistry)
        if (row.type == type) return &row;
    return nullptr;
}

CK_ATTRIBUTE_TYPE P11Mechanism_usage(uint32_t operation)
{
    switch (operation) {
    case P11_USE_ENCRYPT: return CKA_ENCRYPT;
    case P11_USE_DECRYPT: return CKA_DECRYPT;
    case P11_USE_SIGN: return CKA_SIGN;
    case P11_USE_VERIFY: return CKA_VERIFY;
    case P11_USE_SIGN_RECOVER: return CKA_SIGN_RECOVER;
    case P11_USE_VERIFY_RECOVER: return CKA_VERIFY_RECOVER;
    case P11_USE_WRAP: return CKA_WRAP;
    case P11_USE_UNWRAP: return CKA_UNWRAP;
    case P11_USE_DERIVE: return CKA_DERIVE;
    default: return CK_UNAVAILABLE_INFORMATION;
    }
}

uint64_t P11Mechanism_kindsFor(uint32_t operation)
{
    switch (operation) {
    case P11_USE_ENCRYPT:
    case P11_USE_VERIFY:
    case P11_USE_VERIFY_RECOVER:
    case P11_USE_WRAP: return kPublicKinds | kSecretKinds;
    case P11_USE_DECRYPT:
    case P11_USE_SIGN:
    case P11_USE_SIGN_RECOVER:
    case P11_USE_UNWRAP:
    case P11_USE_DERIVE: return kPrivateKinds | kSecretKinds;
    default: return 0;
    }
}
