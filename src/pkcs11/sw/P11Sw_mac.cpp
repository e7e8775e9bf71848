#include "pkcs11/sw/P11Sw_mac.h"

#include <openssl/crypto.h>

#include <cstring>
#include <new>

#include "crypto/bytes.h"
#include "crypto/cipher.h"
#include "crypto/crypto_errors.h"
#include "crypto/hash.h"
#include "crypto/mac.h"
#include "pkcs11/P11OperationData.h"
#include "pkcs11/objects/P11Obj.h"
#include "pkcs11/sw/P11Sw_keys.h"
#include "pkcs11/sw/P11Sw_secret.h"

namespace {

enum class Kind { Hmac, Ssl3, CbcMac };
enum class Length { Full, Half, General };  // the MAC's length: the hash's or block's, half a block, or the parameter's

struct MacMechanism {
    CK_MECHANISM_TYPE type;
    Kind kind;
    int algorithm;  // the hash, or the cipher family (CIPHER_DES, CIPHER_DES3, CIPHER_AES, CIPHER_RC2)
    Length length;
};

const MacMechanism kMechanisms[] = {
    {CKM_MD5_HMAC, Kind::Hmac, HASH_MD5, Length::Full},
    {CKM_MD5_HMAC_GENERAL, Kind::Hmac, HASH_MD5, Length::General},
    {CKM_SHA_1_HMAC, Kind::Hmac, HASH_SHA1, Length::Full},
    {CKM_SHA_1_HMAC_GENERAL, Kind::Hmac, HASH_SHA1, Length::General},
    {CKM_SHA224_HMAC, Kind::Hmac, HASH_SHA224, Length::Full},
    {CKM_SHA224_HMAC_GENERAL, Kind::Hmac, HASH_SHA224, Length::General},
    {CKM_SHA256_HMAC, Kind::Hmac, HASH_SHA256, Length::Full},
    {CKM_SHA256_HMAC_GENERAL, Kind::Hmac, HASH_SHA256, Length::General},
    {CKM_SHA384_HMAC, Kind::Hmac, HASH_SHA384, Length::Full},
    {CKM_SHA384_HMAC_GENERAL, Kind::Hmac, HASH_SHA384, Length::General},
    {CKM_SHA512_HMAC, Kind::Hmac, HASH_SHA512, Length::Full},
    {CKM_SHA512_HMAC_GENERAL, Kind::Hmac, HASH_SHA512, Length::General},
    {CKM_RIPEMD160_HMAC, Kind::Hmac, HASH_RIPEMD160, Length::Full},
    {CKM_RIPEMD160_HMAC_GENERAL, Kind::Hmac, HASH_RIPEMD160, Length::General},
    {CKM_SSL3_MD5_MAC, Kind::Ssl3, HASH_MD5, Length::General},
    {CKM_SSL3_SHA1_MAC, Kind::Ssl3, HASH_SHA1, Length::General},
    {CKM_DES_MAC, Kind::CbcMac, CIPHER_DES, Length::Half},
    {CKM_DES_MAC_GENERAL, Kind::CbcMac, CIPHER_DES, Length::General},
    {CKM_DES3_MAC, Kind::CbcMac, CIPHER_DES3, Length::Half},
    {CKM_DES3_MAC_GENERAL, Kind::CbcMac, CIPHER_DES3, Length::General},
    {CKM_AES_MAC, Kind::CbcMac, CIPHER_AES, Length::Half},
    {CKM_AES_MAC_GENERAL, Kind::CbcMac, CIPHER_AES, Length::General},
    {CKM_RC2_MAC, Kind::CbcMac, CIPHER_RC2, Length::Half},
    {CKM_RC2_MAC_GENERAL, Kind::CbcMac, CIPHER_RC2, Length::General},
};

// A MAC operation. Parts are absorbed as they come; the MAC is computed
// once, when it is asked for with room for it (a size query or a short
// buffer leaves the operation as it was).
struct P11OperationData_mac : P11OperationData {
    Kind kind = Kind::Hmac;
    size_t macLen = 0;
    hmac_context* hmac = nullptr;
    // SSL 3.0: hash(key || pad2 || hash(key || pad1 || data)).
    hash_context* inner = nullptr;
    int hashId = 0;
    crypto_bytes key;
    // CBC-MAC: the chaining value, and a partial block waiting for more.
    cipher_context* cipher = nullptr;
    size_t block = 0;
    crypto_bytes chain, pending;

    CK_RV destroy() override
    {
        hmac_free(hmac);
        abort_hash(inner);
        cipher_free(cipher);
        delete this;
        return CKR_OK;
    }

    CK_RV absorb(const CK_BYTE* in, size_t len)
    {
        int rc = CRYPTO_OK;
        if (kind == Kind::Hmac) rc = hmac_update(hmac, in, len);
        else if (kind == Kind::Ssl3) rc = do_hash(inner, in, len);
        else {
            while (len && rc == CRYPTO_OK) {
                const size_t take = std::min(len, block - pending.size());
                pending.insert(pending.end(), in, in + take);
                in += take;
                len -= take;
                if (pending.size() == block) rc = chainBlock();
            }
        }
        return P11SwKeys_code(rc);
    }

    int chainBlock()
    {
        for (size_t i = 0; i < block; ++i) pending[i] ^= chain[i];
        const int rc = cipher_blocks(cipher, pending.data(), block, chain.data());
        pending.clear();
        return rc;
    }

    // The whole MAC; the operation cannot go on afterwards.
    CK_RV compute(crypto_bytes* full)
    {
        int rc = CRYPTO_OK;
        if (kind == Kind::Hmac) {
            full->assign(hash_digestLength(hashId), 0);
            rc = hmac_final(hmac, full->data());
        } else if (kind == Kind::Ssl3) {
            const size_t length = hash_digestLength(hashId);
            const size_t padLen = hashId == HASH_MD5 ? 48 : 40;
            crypto_bytes innerDigest(length), pad2(padLen, 0x5C);
            rc = stop_hash(inner, innerDigest.data());
            inner = nullptr;
            hash_context* outer = nullptr;
            full->assign(length, 0);
            if (rc == CRYPTO_OK) rc = start_hash(hashId, &outer);
            if (rc == CRYPTO_OK) rc = do_hash(outer, key.data(), key.size());
            if (rc == CRYPTO_OK) rc = do_hash(outer, pad2.data(), padLen);
            if (rc == CRYPTO_OK) rc = do_hash(outer, innerDigest.data(), length);
            if (rc == CRYPTO_OK) {
                rc = stop_hash(outer, full->data());
                outer = nullptr;
            }
            abort_hash(outer);
        } else {
            // The last part is filled up with zero bytes (no data at all
            // leaves the zero IV as the MAC).
            if (!pending.empty()) {
                pending.resize(block, 0);
                rc = chainBlock();
            }
            *full = chain;
        }
        return P11SwKeys_code(rc);
    }

    CK_RV sizeOnly(CK_BYTE_PTR out, CK_ULONG_PTR outLen, bool* answered) const
    {
        *answered = !out || *outLen < macLen;
        if (!*answered) return CKR_OK;
        const bool query = !out;
        *outLen = CK_ULONG(macLen);
        return query ? CKR_OK : CKR_BUFFER_TOO_SMALL;
    }

    CK_RV update(P11Obj*, P11Session*, CK_BYTE_PTR in, CK_ULONG inLen, CK_BYTE_PTR, CK_ULONG_PTR) override
    {
        if (!in && inLen) return CKR_ARGUMENTS_BAD;
        return absorb(in, inLen);
    }

    CK_RV final(P11Obj*, P11Session*, CK_BYTE_PTR out, CK_ULONG_PTR outLen) override
    {
        if (!outLen) return CKR_ARGUMENTS_BAD;
        bool answered = false;
        CK_RV rv = sizeOnly(out, outLen, &answered);
        if (answered) return rv;
        crypto_bytes full;
        rv = compute(&full);
        if (rv != CKR_OK) return rv;
        std::memcpy(out, full.data(), macLen);
        *outLen = CK_ULONG(macLen);
        return CKR_OK;
    }

    CK_RV single(P11Obj* key, P11Session* session, CK_BYTE_PTR in, CK_ULONG inLen, CK_BYTE_PTR out,
                 CK_ULONG_PTR outLen) override
    {
        if (!outLen || (!in && inLen)) return CKR_ARGUMENTS_BAD;
        bool answered = false;
        const CK_RV rv = sizeOnly(out, outLen, &answered);
        if (answered) return rv;
        const CK_RV absorbed = absorb(in, inLen);
        return absorbed != CKR_OK ? absorbed : final(key, session, out, outLen);
    }

    CK_RV verify(P11Obj* key, P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR signature,
                 CK_ULONG signatureLen) override
    {
        if (!data && dataLen) return CKR_ARGUMENTS_BAD;
        const CK_RV rv = absorb(data, dataLen);
        return rv != CKR_OK ? rv : verifyFinal(key, session, signature, signatureLen);
    }

    CK_RV verifyFinal(P11Obj*, P11Session*, CK_BYTE_PTR signature, CK_ULONG signatureLen) override
    {
        if (!signature && signatureLen) return CKR_ARGUMENTS_BAD;
        if (signatureLen != macLen) return CKR_SIGNATURE_LEN_RANGE;
        crypto_bytes full;
        const CK_RV rv = compute(&full);
        if (rv != CKR_OK) return rv;
        return CRYPTO_memcmp(full.data(), signature, macLen) == 0 ? CKR_OK : CKR_SIGNATURE_INVALID;
    }
};

// The cipher of a CBC-MAC for the key type, when the mechanism takes it.
int cipherFor(int family, CK_KEY_TYPE keyType)
{
    switch (family) {
    case CIPHER_DES: return keyType == CKK_DES ? CIPHER_DES : 0;
    case CIPHER_DES3: return keyType == CKK_DES2 ? CIPHER_DES2 : keyType == CKK_DES3 ? CIPHER_DES3 : 0;
    case CIPHER_AES: return keyType == CKK_AES ? CIPHER_AES : 0;
    case CIPHER_RC2: return keyType == CKK_RC2 ? CIPHER_RC2 : 0;
    default: return 0;
    }
}

// The MAC length of the mechanism's parameter (and RC2's effective bits):
// what the _GENERAL forms and the SSL 3.0 MACs ask for, up to `longest`.
CK_RV readParameter(const MacMechanism& m, CK_MECHANISM_PTR mechanism, size_t longest, size_t* macLen,
                    unsigned* effectiveBits)
{
    const void* p = mechanism->pParameter;
    const CK_ULONG length = mechanism->ulParameterLen;
    CK_ULONG asked = 0;
    if (m.algorithm == CIPHER_RC2 && m.kind == Kind::CbcMac) {
        CK_ULONG bits = 0;
        if (m.length == Length::General) {
            if (!p || length != sizeof(CK_RC2_MAC_GENERAL_PARAMS)) return CKR_MECHANISM_PARAM_INVALID;
            bits = static_cast<const CK_RC2_MAC_GENERAL_PARAMS*>(p)->ulEffectiveBits;
            asked = static_cast<const CK_RC2_MAC_GENERAL_PARAMS*>(p)->ulMacLength;
        } else {
            if (!p || length != sizeof(CK_RC2_PARAMS)) return CKR_MECHANISM_PARAM_INVALID;
            bits = *static_cast<const CK_RC2_PARAMS*>(p);
        }
        if (bits < 1 || bits > 1024) return CKR_MECHANISM_PARAM_INVALID;
        *effectiveBits = unsigned(bits);
    } else if (m.length == Length::General) {
        if (!p || length != sizeof(CK_MAC_GENERAL_PARAMS)) return CKR_MECHANISM_PARAM_INVALID;
        asked = *static_cast<const CK_MAC_GENERAL_PARAMS*>(p);
    } else if (length != 0) {
        return CKR_MECHANISM_PARAM_INVALID;
    }
    switch (m.length) {
    case Length::Full: *macLen = longest; break;
    case Length::Half: *macLen = longest / 2; break;
    case Length::General:
        if (asked < 1 || asked > longest) return CKR_MECHANISM_PARAM_INVALID;
        *macLen = asked;
        break;
    }
    return CKR_OK;
}

}  // namespace

CK_RV P11SwMac_init(const P11Mechanism& row, P11Obj* key, P11Session*, CK_MECHANISM_PTR mechanism, uint32_t,
                    P11OperationData** out)
{
    const MacMechanism* m = nullptr;
    for (const MacMechanism& candidate : kMechanisms)
        if (candidate.type == row.type) m = &candidate;
    if (!m) return CKR_MECHANISM_INVALID;
    CK_KEY_TYPE keyType = 0;
    CK_RV rv = P11Obj_getUlongValue(key, CKA_KEY_TYPE, &keyType);
    if (rv != CKR_OK) return rv;
    const int cipher = m->kind == Kind::CbcMac ? cipherFor(m->algorithm, keyType) : 0;
    if (m->kind == Kind::CbcMac && !cipher) return CKR_KEY_TYPE_INCONSISTENT;
    const size_t longest = m->kind == Kind::CbcMac ? cipher_block_size(cipher) : hash_digestLength(m->algorithm);
    size_t macLen = 0;
    unsigned effectiveBits = 0;
    rv = readParameter(*m, mechanism, longest, &macLen, &effectiveBits);
    if (rv != CKR_OK) return rv;

    auto* record = new (std::nothrow) P11OperationData_mac;
    if (!record) return CKR_HOST_MEMORY;
    record->kind = m->kind;
    record->macLen = macLen;
    record->hashId = m->algorithm;
    rv = P11SwKeys_readNumber(key, CKA_VALUE, &record->key);
    int rc = CRYPTO_OK;
    if (rv == CKR_OK && m->kind == Kind::Hmac) {
        rc = hmac_start(m->algorithm, record->key.data(), record->key.size(), &record->hmac);
    } else if (rv == CKR_OK && m->kind == Kind::Ssl3) {
        const crypto_bytes pad1(m->algorithm == HASH_MD5 ? 48 : 40, 0x36);
        rc = start_hash(m->algorithm, &record->inner);
        if (rc == CRYPTO_OK) rc = do_hash(record->inner, record->key.data(), record->key.size());
        if (rc == CRYPTO_OK) rc = do_hash(record->inner, pad1.data(), pad1.size());
    } else if (rv == CKR_OK) {
        // CBC with a zero IV, chained by hand so that the last block is ours.
        record->block = longest;
        record->chain.assign(longest, 0);
        rc = cipher_start(cipher, CIPHER_ECB, true, record->key.data(), record->key.size(), nullptr, &record->cipher,
                          effectiveBits);
        if (rc == CRYPTO_ERR_BAD_PARAMETER) rv = CKR_KEY_SIZE_RANGE;
    }
    if (rv == CKR_OK) rv = P11SwKeys_code(rc);
    if (rv != CKR_OK) {
        record->destroy();
        return rv;
    }
    *out = record;
    return CKR_OK;
}

namespace {

// The length a generated key of this type takes: fixed for DES, else the
// template's CKA_VALUE_LEN within the type's bounds.
CK_RV keyLength(P11Obj* key, CK_KEY_TYPE keyType, CK_ULONG* length)
{
    switch (keyType) {
    case CKK_DES: *length = 8; return CKR_OK;
    case CKK_DES2: *length = 16; return CKR_OK;
    case CKK_DES3: *length = 24; return CKR_OK;
    default: break;
    }
    const CK_RV rv = P11Obj_getUlongValue(key, CKA_VALUE_LEN, length);
    if (rv != CKR_OK) return CKR_TEMPLATE_INCOMPLETE;
    const CK_ULONG n = *length;
    const bool fits = keyType == CKK_AES           ? n == 16 || n == 24 || n == 32
                      : keyType == CKK_RC2         ? n >= 1 && n <= 128
                      : keyType == CKK_RC4         ? n >= 1 && n <= 256
                      : keyType == CKK_GENERIC_SECRET ? n >= 1 && n <= (1 << 16)
                                                   : false;
    return fits ? CKR_OK : keyType == CKK_AES || keyType == CKK_RC2 || keyType == CKK_RC4 || keyType == CKK_GENERIC_SECRET
                               ? CKR_KEY_SIZE_RANGE
                               : CKR_TEMPLATE_INCONSISTENT;
}

int prfHash(CK_ULONG prf)
{
    switch (prf) {
    case CKP_PKCS5_PBKD2_HMAC_SHA1: return HASH_SHA1;
    case CKP_PKCS5_PBKD2_HMAC_SHA224: return HASH_SHA224;
    case CKP_PKCS5_PBKD2_HMAC_SHA256: return HASH_SHA256;
    case CKP_PKCS5_PBKD2_HMAC_SHA384: return HASH_SHA384;
    case CKP_PKCS5_PBKD2_HMAC_SHA512: return HASH_SHA512;
    default: return 0;
    }
}

}  // namespace

CK_RV P11SwPbkdf2_generate(const P11Mechanism&, P11Obj* key, P11Session*, CK_MECHANISM_PTR mechanism)
{
    if (!mechanism->pParameter || mechanism->ulParameterLen != sizeof(CK_PKCS5_PBKD2_PARAMS))
        return CKR_MECHANISM_PARAM_INVALID;
    const auto* params = static_cast<const CK_PKCS5_PBKD2_PARAMS*>(mechanism->pParameter);
    const int hashId = prfHash(params->prf);
    // The password's length comes through a pointer in this structure.
    if (params->saltSource != CKZ_SALT_SPECIFIED || !hashId || params->iterations < 1 || params->ulPrfDataLen ||
        !params->ulPasswordLen || (*params->ulPasswordLen && !params->pPassword) ||
        (params->ulSaltSourceDataLen && !params->pSaltSourceData))
        return CKR_MECHANISM_PARAM_INVALID;
    CK_KEY_TYPE keyType = CKK_GENERIC_SECRET;
    const CK_ATTRIBUTE* named = nullptr;
    CK_RV rv = P11Obj_peekAttribute(key, CKA_KEY_TYPE, &named);
    if (rv == CKR_OK && named) rv = P11Obj_getUlongValue(key, CKA_KEY_TYPE, &keyType);
    if (rv != CKR_OK) return rv;
    CK_ULONG length = 0;
    rv = keyLength(key, keyType, &length);
    if (rv != CKR_OK) return rv;
    crypto_bytes value(length);
    const int rc = pbkdf2_derive(hashId, params->pPassword, *params->ulPasswordLen,
                                 static_cast<const unsigned char*>(params->pSaltSourceData), params->ulSaltSourceDataLen,
                                 params->iterations, value.data(), value.size());
    if (rc != CRYPTO_OK) return P11SwKeys_code(rc);
    if (keyType == CKK_DES || keyType == CKK_DES2 || keyType == CKK_DES3)
        P11SwSecret_setOddParity(value.data(), value.size());
    rv = P11SwKeys_setHead(key, CKO_SECRET_KEY, keyType, CKM_PKCS5_PBKD2);
    if (rv == CKR_OK) rv = P11SwKeys_setNumber(key, CKA_VALUE, value);
    return rv;
}
