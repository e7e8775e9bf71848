#include "pkcs11/sw/P11RsaEngine.h"

#include <openssl/crypto.h>

#include <cstring>
#include <new>

#include "crypto/crypto_errors.h"
#include "crypto/rsa.h"
#include "pkcs11/P11Session.h"
#include "pkcs11/sw/pkcs1.h"

namespace {

// ---- the mechanisms ----

enum Encoding { kPkcs1, kRaw, kOaep, kPkcs1Hash, kPss, kPssHash };

constexpr unsigned bit(P11RsaOperation operation) { return 1u << operation; }
constexpr unsigned kCipher = bit(P11_RSA_ENCRYPT) | bit(P11_RSA_DECRYPT);
constexpr unsigned kSignature = bit(P11_RSA_SIGN) | bit(P11_RSA_VERIFY);
constexpr unsigned kRecover = bit(P11_RSA_SIGN_RECOVER) | bit(P11_RSA_VERIFY_RECOVER);

struct Mechanism {
    CK_MECHANISM_TYPE type;
    Encoding encoding;
    unsigned operations;
    int hashId;                    // hash-then-sign mechanisms
    CK_MECHANISM_TYPE pssHashAlg;  // the hashAlg a hash-then-sign PSS mechanism requires
};

const Mechanism kMechanisms[] = {
    {CKM_RSA_PKCS, kPkcs1, kCipher | kSignature | kRecover, 0, 0},
    {CKM_RSA_X_509, kRaw, kCipher | kSignature | kRecover, 0, 0},
    {CKM_RSA_PKCS_OAEP, kOaep, kCipher, 0, 0},
    {CKM_MD5_RSA_PKCS, kPkcs1Hash, kSignature, HASH_MD5, 0},
    {CKM_SHA1_RSA_PKCS, kPkcs1Hash, kSignature, HASH_SHA1, 0},
    {CKM_SHA224_RSA_PKCS, kPkcs1Hash, kSignature, HASH_SHA224, 0},
    {CKM_SHA256_RSA_PKCS, kPkcs1Hash, kSignature, HASH_SHA256, 0},
    {CKM_SHA384_RSA_PKCS, kPkcs1Hash, kSignature, HASH_SHA384, 0},
    {CKM_SHA512_RSA_PKCS, kPkcs1Hash, kSignature, HASH_SHA512, 0},
    {CKM_RSA_PKCS_PSS, kPss, kSignature, 0, 0},
    {CKM_SHA1_RSA_PKCS_PSS, kPssHash, kSignature, HASH_SHA1, CKM_SHA_1},
    {CKM_SHA224_RSA_PKCS_PSS, kPssHash, kSignature, HASH_SHA224, CKM_SHA224},
    {CKM_SHA256_RSA_PKCS_PSS, kPssHash, kSignature, HASH_SHA256, CKM_SHA256},
    {CKM_SHA384_RSA_PKCS_PSS, kPssHash, kSignature, HASH_SHA384, CKM_SHA384},
    {CKM_SHA512_RSA_PKCS_PSS, kPssHash, kSignature, HASH_SHA512, CKM_SHA512},
};

const Mechanism* findMechanism(CK_MECHANISM_TYPE type)
{
    for (const Mechanism& m : kMechanisms)
        if (m.type == type) return &m;
    return nullptr;
}

// DigestInfo prefixes of PKCS #1 v1.5 signatures.
struct DigestInfoPrefix {
    int hashId;
    const CK_BYTE* bytes;
    CK_ULONG length;
};
const CK_BYTE MD5CODE[] = {0x30, 0x20, 0x30, 0x0c, 0x06, 0x08, 0x2a, 0x86, 0x48,
                           0x86, 0xf7, 0x0d, 0x02, 0x05, 0x05, 0x00, 0x04, 0x10};
const CK_BYTE SHACODE[] = {0x30, 0x21, 0x30, 0x09, 0x06, 0x05, 0x2b, 0x0e, 0x03, 0x02, 0x1a, 0x05, 0x00, 0x04, 0x14};
const CK_BYTE SHA224CODE[] = {0x30, 0x2d, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                              0x65, 0x03, 0x04, 0x02, 0x04, 0x05, 0x00, 0x04, 0x1c};
const CK_BYTE SHA256CODE[] = {0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                              0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20};
const CK_BYTE SHA384CODE[] = {0x30, 0x41, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                              0x65, 0x03, 0x04, 0x02, 0x02, 0x05, 0x00, 0x04, 0x30};
const CK_BYTE SHA512CODE[] = {0x30, 0x51, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                              0x65, 0x03, 0x04, 0x02, 0x03, 0x05, 0x00, 0x04, 0x40};
const DigestInfoPrefix kPrefixes[] = {
    {HASH_MD5, MD5CODE, sizeof MD5CODE},          {HASH_SHA1, SHACODE, sizeof SHACODE},
    {HASH_SHA224, SHA224CODE, sizeof SHA224CODE}, {HASH_SHA256, SHA256CODE, sizeof SHA256CODE},
    {HASH_SHA384, SHA384CODE, sizeof SHA384CODE}, {HASH_SHA512, SHA512CODE, sizeof SHA512CODE},
};

// ---- small rules ----

// The size answer every producer gives before it does any work: true when
// *rv is the answer (a size query or a short buffer).
bool answerSize(CK_ULONG size, CK_BYTE_PTR out, CK_ULONG_PTR outLen, CK_RV* rv)
{
    if (!out) {
        *outLen = size;
        *rv = CKR_OK;
        return true;
    }
    if (*outLen < size) {
        *outLen = size;
        *rv = CKR_BUFFER_TOO_SMALL;
        return true;
    }
    return false;
}

const Mechanism& mechanismOf(const P11OperationData_rsa* record)
{
    return *findMechanism(record->mechanism);  // the record was built from a known one
}

CK_RV keyPresent(const P11OperationData_rsa* record)
{
    return record->k ? CKR_OK : CKR_KEY_TYPE_INCONSISTENT;
}

// Finishes the running hash after feeding data; the hash is consumed.
CK_RV finishHash(P11OperationData_rsa* record, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE* digest)
{
    if (!record->hash) return CKR_GENERAL_ERROR;  // already finished by an earlier failed attempt
    hash_context* running = record->hash;
    record->hash = nullptr;
    if (dataLen && do_hash(running, data, dataLen) != CRYPTO_OK) {
        abort_hash(running);
        return CKR_GENERAL_ERROR;
    }
    return stop_hash(running, digest) == CRYPTO_OK ? CKR_OK : CKR_GENERAL_ERROR;
}

// DigestInfo || digest of the finished message hash.
CK_RV digestInfo(P11OperationData_rsa* record, CK_BYTE_PTR data, CK_ULONG dataLen, crypto_bytes* out)
{
    const DigestInfoPrefix* prefix = nullptr;
    for (const DigestInfoPrefix& p : kPrefixes)
        if (p.hashId == record->hashId) prefix = &p;
    if (!prefix) return CKR_MECHANISM_INVALID;
    out->assign(prefix->length + hash_digestLength(record->hashId), 0);
    std::memcpy(out->data(), prefix->bytes, prefix->length);
    return finishHash(record, data, dataLen, out->data() + prefix->length);
}

CK_ULONG pssEmBits(const P11OperationData_rsa* record)
{
    return record->modulusBits ? record->modulusBits - 1 : 0;
}

CK_RV privateRaw(P11OperationData_rsa* record, P11Obj* key, P11Session* session, const CK_BYTE* in, CK_ULONG inLen,
                 CK_BYTE_PTR out, CK_ULONG_PTR outLen)
{
    return record->ops->privateRaw(record, key, session, const_cast<CK_BYTE_PTR>(in), inLen, out, outLen);
}

CK_RV publicRaw(P11OperationData_rsa* record, const CK_BYTE* in, CK_ULONG inLen, crypto_bytes* block)
{
    if (!record->ops->publicRaw) return CKR_FUNCTION_NOT_SUPPORTED;
    block->assign(record->k, 0);
    return record->ops->publicRaw(record, const_cast<CK_BYTE_PTR>(in), inLen, block->data());
}

// ---- signing ----

// PKCS #1 v1.5 (block type 1) over data the caller formatted.
CK_RV signPkcs1(P11OperationData_rsa* record, P11Obj* key, P11Session* session, const CK_BYTE* data,
                CK_ULONG dataLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen)
{
    const CK_ULONG k = record->k;
    CK_RV rv = keyPresent(record);
    if (rv != CKR_OK) return rv;
    if (!(k - 11 >= dataLen) || k < 11) return CKR_DATA_LEN_RANGE;
    if (answerSize(k, out, outLen, &rv)) return rv;
    crypto_bytes block(k);
    if (pkcs11_pad_pkcs1_block(1, block.data(), k, data, dataLen) != 0) return CKR_DATA_LEN_RANGE;
    *outLen = k;
    return privateRaw(record, key, session, block.data(), k, out, outLen);
}

// EMSA-PSS over a digest the caller computed.
CK_RV signPss(P11OperationData_rsa* record, P11Obj* key, P11Session* session, const CK_BYTE* digest,
              CK_ULONG digestLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen)
{
    const CK_ULONG k = record->k;
    CK_RV rv = keyPresent(record);
    if (rv != CKR_OK) return rv;
    if (digestLen != hash_digestLength(record->hashId)) return CKR_DATA_LEN_RANGE;
    if (answerSize(k, out, outLen, &rv)) return rv;
    crypto_bytes encoded(k);
    CK_ULONG emLen = k;
    rv = EMSA_PSS_ENCODE(digest, digestLen, encoded.data(), &emLen, pssEmBits(record), record->hashId,
                         record->mgfHashId, record->sLen, session);
    if (rv != CKR_OK) return rv;
    *outLen = k;
    return privateRaw(record, key, session, encoded.data(), emLen, out, outLen);
}

// The hash signers answer a size query or a short buffer before the hash is
// finished, so the running hash survives both.
CK_RV signHashed(P11OperationData_rsa* record, P11Obj* key, P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen,
                 CK_BYTE_PTR out, CK_ULONG_PTR outLen)
{
    CK_RV rv = keyPresent(record);
    if (rv != CKR_OK || answerSize(record->k, out, outLen, &rv)) return rv;
    if (mechanismOf(record).encoding == kPkcs1Hash) {
        crypto_bytes info;
        rv = digestInfo(record, data, dataLen, &info);
        if (rv != CKR_OK) return rv;
        *outLen = record->k;
        return signPkcs1(record, key, session, info.data(), CK_ULONG(info.size()), out, outLen);
    }
    CK_BYTE digest[HASH_MAX_DIGEST_LENGTH];
    rv = finishHash(record, data, dataLen, digest);
    if (rv != CKR_OK) return rv;
    *outLen = record->k;
    return signPss(record, key, session, digest, CK_ULONG(hash_digestLength(record->hashId)), out, outLen);
}

CK_RV sign(P11OperationData_rsa* record, P11Obj* key, P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen,
           CK_BYTE_PTR out, CK_ULONG_PTR outLen)
{
    switch (mechanismOf(record).encoding) {
    case kPkcs1: return signPkcs1(record, key, session, data, dataLen, out, outLen);
    case kRaw: return privateRaw(record, key, session, data, dataLen, out, outLen);
    case kPss: return signPss(record, key, session, data, dataLen, out, outLen);
    case kPkcs1Hash:
    case kPssHash: return signHashed(record, key, session, data, dataLen, out, outLen);
    default: return CKR_MECHANISM_INVALID;
    }
}

// ---- verification ----

// The signature's block after the public operation; a signature of the
// wrong length or not below the modulus is refused here.
CK_RV openSignature(P11OperationData_rsa* record, const CK_BYTE* signature, CK_ULONG signatureLen, crypto_bytes* block)
{
    CK_RV rv = keyPresent(record);
    if (rv != CKR_OK) return rv;
    if (!signature) return CKR_ARGUMENTS_BAD;
    if (signatureLen != record->k) return CKR_SIGNATURE_LEN_RANGE;
    rv = publicRaw(record, signature, signatureLen, block);
    return rv == CKR_DATA_LEN_RANGE ? CKR_SIGNATURE_INVALID : rv;
}

CK_RV sameBlock(const crypto_bytes& block, const crypto_bytes& expected)
{
    return block.size() == expected.size() && std::memcmp(block.data(), expected.data(), block.size()) == 0
               ? CKR_OK
               : CKR_SIGNATURE_INVALID;
}

CK_RV verifyPkcs1(P11OperationData_rsa* record, const CK_BYTE* data, CK_ULONG dataLen, const CK_BYTE* signature,
                  CK_ULONG signatureLen)
{
    const CK_ULONG k = record->k;
    if (k && (k < 11 || dataLen > k - 11)) return CKR_DATA_LEN_RANGE;
    crypto_bytes block;
    CK_RV rv = openSignature(record, signature, signatureLen, &block);
    if (rv != CKR_OK) return rv;
    crypto_bytes expected(k);
    if (pkcs11_pad_pkcs1_block(1, expected.data(), k, data, dataLen) != 0) return CKR_DATA_LEN_RANGE;
    return sameBlock(block, expected);
}

CK_RV verifyPss(P11OperationData_rsa* record, const CK_BYTE* digest, CK_ULONG digestLen, const CK_BYTE* signature,
                CK_ULONG signatureLen)
{
    if (digestLen != hash_digestLength(record->hashId)) return CKR_DATA_LEN_RANGE;
    crypto_bytes block;
    CK_RV rv = openSignature(record, signature, signatureLen, &block);
    if (rv != CKR_OK) return rv;
    const CK_ULONG emBits = pssEmBits(record);
    const CK_ULONG emLen = (emBits + 7) / 8;
    // With a modulus of 8n + 1 bits the encoding is one byte shorter.
    if (emLen < record->k && block[0] != 0) return CKR_SIGNATURE_INVALID;
    return EMSA_PSS_VERIFY(digest, digestLen, block.data() + record->k - emLen, emLen, emBits, record->hashId,
                           record->mgfHashId, record->sLen);
}

CK_RV verify(P11OperationData_rsa* record, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR signature,
             CK_ULONG signatureLen)
{
    if (!data && dataLen) return CKR_ARGUMENTS_BAD;
    switch (mechanismOf(record).encoding) {
    case kPkcs1: return verifyPkcs1(record, data, dataLen, signature, signatureLen);
    case kRaw: {
        if (record->k && dataLen > record->k) return CKR_DATA_LEN_RANGE;
        crypto_bytes block;
        CK_RV rv = openSignature(record, signature, signatureLen, &block);
        if (rv != CKR_OK) return rv;
        crypto_bytes expected(record->k, 0);
        if (dataLen) std::memcpy(expected.data() + record->k - dataLen, data, dataLen);
        return sameBlock(block, expected);
    }
    case kPss: return verifyPss(record, data, dataLen, signature, signatureLen);
    case kPkcs1Hash: {
        CK_RV rv = keyPresent(record);
        if (rv != CKR_OK) return rv;
        crypto_bytes info;
        rv = digestInfo(record, data, dataLen, &info);
        if (rv != CKR_OK) return rv;
        return verifyPkcs1(record, info.data(), CK_ULONG(info.size()), signature, signatureLen);
    }
    case kPssHash: {
        CK_BYTE digest[HASH_MAX_DIGEST_LENGTH];
        const CK_RV rv = finishHash(record, data, dataLen, digest);
        if (rv != CKR_OK) return rv;
        return verifyPss(record, digest, CK_ULONG(hash_digestLength(record->hashId)), signature, signatureLen);
    }
    default: return CKR_MECHANISM_INVALID;
    }
}

CK_RV verifyRecover(P11OperationData_rsa* record, CK_BYTE_PTR signature, CK_ULONG signatureLen, CK_BYTE_PTR out,
                    CK_ULONG_PTR outLen)
{
    const bool raw = mechanismOf(record).encoding == kRaw;
    CK_RV rv = keyPresent(record);
    if (rv != CKR_OK) return rv;
    if (signatureLen != record->k) return CKR_SIGNATURE_LEN_RANGE;
    if (!out) {
        *outLen = raw ? record->k : record->k - 11;
        return CKR_OK;
    }
    crypto_bytes block;
    rv = openSignature(record, signature, signatureLen, &block);
    if (rv != CKR_OK) return rv;
    const CK_BYTE* data = block.data();
    CK_ULONG length = record->k;
    if (!raw) {
        // 00 01 FF...FF 00 data, with at least eight bytes of padding.
        CK_ULONG i = 2;
        while (i < record->k && block[i] == 0xFF) ++i;
        if (block[0] != 0x00 || block[1] != 0x01 || i == record->k || block[i] != 0x00 || i < 10)
            return CKR_SIGNATURE_INVALID;
        data = block.data() + i + 1;
        length = record->k - i - 1;
    }
    if (*outLen < length) {
        *outLen = length;
        return CKR_BUFFER_TOO_SMALL;
    }
    if (length) std::memcpy(out, data, length);
    *outLen = length;
    return CKR_OK;
}

// ---- encryption and decryption ----

CK_ULONG oaepOverhead(const P11OperationData_rsa* record)
{
    return 2 * CK_ULONG(hash_digestLength(record->hashId)) + 2;
}

CK_RV encrypt(P11OperationData_rsa* record, P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR out,
              CK_ULONG_PTR outLen)
{
    const CK_ULONG k = record->k;
    CK_RV rv = keyPresent(record);
    if (rv != CKR_OK) return rv;
    if (!data && dataLen) return CKR_ARGUMENTS_BAD;
    const Encoding encoding = mechanismOf(record).encoding;
    const CK_ULONG maximum = encoding == kRaw ? k : encoding == kPkcs1 ? (k < 11 ? 0 : k - 11)
                                                                        : (k < oaepOverhead(record) ? 0 : k - oaepOverhead(record));
    if (dataLen > maximum) return CKR_DATA_LEN_RANGE;
    if (answerSize(k, out, outLen, &rv)) return rv;
    crypto_bytes block(k, 0);
    if (encoding == kRaw) {
        if (dataLen) std::memcpy(block.data() + k - dataLen, data, dataLen);
    } else if (encoding == kPkcs1) {
        if (pkcs11_pad_pkcs1_block(2, block.data(), k, data, dataLen) != 0) return CKR_DATA_LEN_RANGE;
    } else {
        CK_BYTE seed[HASH_MAX_DIGEST_LENGTH];
        const CK_ULONG hLen = CK_ULONG(hash_digestLength(record->hashId));
        rv = P11Session_generateRandom(session, seed, hLen);
        if (rv != CKR_OK) return rv;
        const CK_BYTE* label = record->label.empty() ? nullptr : record->label.data();
        const int rc = OAEP_ENCODE(record->hashId, record->mgfHashId, data, dataLen, label,
                                   CK_ULONG(record->label.size()), seed, block.data() + 1, k - 1);
        OPENSSL_cleanse(seed, sizeof seed);
        if (rc != 0) return CKR_GENERAL_ERROR;
    }
    crypto_bytes result;
    rv = publicRaw(record, block.data(), k, &result);
    if (rv != CKR_OK) return rv;
    std::memcpy(out, result.data(), k);
    *outLen = k;
    return CKR_OK;
}

CK_RV decrypt(P11OperationData_rsa* record, P11Obj* key, P11Session* session, CK_BYTE_PTR in, CK_ULONG inLen,
              CK_BYTE_PTR out, CK_ULONG_PTR outLen)
{
    const CK_ULONG k = record->k;
    CK_RV rv = keyPresent(record);
    if (rv != CKR_OK) return rv;
    if (inLen != k) return record->ops->ciphertextLengthCode;
    if (!in) return CKR_ARGUMENTS_BAD;
    const Encoding encoding = mechanismOf(record).encoding;
    const CK_ULONG maximum = encoding == kRaw ? k : encoding == kPkcs1 ? k - 11 : k - oaepOverhead(record);
    if (!out) {
        *outLen = maximum;
        return CKR_OK;
    }
    if (encoding == kRaw) {
        if (*outLen < k) {
            *outLen = k;
            return CKR_BUFFER_TOO_SMALL;
        }
        return privateRaw(record, key, session, in, inLen, out, outLen);
    }

    // The private operation runs before the caller's buffer is looked at:
    // the delegated key answers a retry with a larger buffer from its cache.
    crypto_bytes block(k);
    CK_ULONG blockLen = k;
    rv = privateRaw(record, key, session, in, inLen, block.data(), &blockLen);
    if (rv != CKR_OK) return rv;
    const CK_BYTE* message = nullptr;
    CK_ULONG length = 0;
    crypto_bytes decoded;
    if (encoding == kPkcs1) {
        if (pkcs11_unpad_pkcs1_block(2, block.data(), blockLen, nullptr, &length) != 0) return CKR_ENCRYPTED_DATA_INVALID;
        // PS runs from index 2 up to the zero byte before the message.
        if (record->ops->strictPadding && (blockLen < 11 || length > blockLen - 11)) return CKR_ENCRYPTED_DATA_INVALID;
        message = block.data() + blockLen - length;
    } else {
        if (blockLen == 0 || block[0] != 0x00) return CKR_ENCRYPTED_DATA_INVALID;
        const CK_BYTE* label = record->label.empty() ? nullptr : record->label.data();
        const CK_ULONG labelLen = CK_ULONG(record->label.size());
        if (OAEP_DECODE(record->hashId, record->mgfHashId, block.data() + 1, blockLen - 1, label, labelLen, nullptr,
                        &length) != 0)
            return CKR_ENCRYPTED_DATA_INVALID;
        decoded.assign(length ? length : 1, 0);
        if (OAEP_DECODE(record->hashId, record->mgfHashId, block.data() + 1, blockLen - 1, label, labelLen,
                        decoded.data(), &length) != 0)
            return CKR_ENCRYPTED_DATA_INVALID;
        message = decoded.data();
    }
    if (*outLen < length) {
        if (!record->ops->shortPlaintextKeepsLength) *outLen = length;
        return CKR_BUFFER_TOO_SMALL;
    }
    if (length) std::memcpy(out, message, length);
    *outLen = length;
    return CKR_OK;
}

bool isHashed(const P11OperationData_rsa* record)
{
    const Encoding encoding = mechanismOf(record).encoding;
    return encoding == kPkcs1Hash || encoding == kPssHash;
}

}  // namespace

// ---- the record's steps ----

CK_RV P11OperationData_rsa::destroy()
{
    abort_hash(hash);
    rsa_key_release(key);
    delete this;
    return CKR_OK;
}

CK_RV P11OperationData_rsa::single(P11Obj* object, P11Session* session, CK_BYTE_PTR in, CK_ULONG inLen,
                                   CK_BYTE_PTR out, CK_ULONG_PTR outLen)
{
    if (!outLen) return CKR_ARGUMENTS_BAD;
    switch (operation) {
    case P11_RSA_SIGN:
    case P11_RSA_SIGN_RECOVER: return sign(this, object, session, in, inLen, out, outLen);
    case P11_RSA_ENCRYPT: return encrypt(this, session, in, inLen, out, outLen);
    case P11_RSA_DECRYPT: return decrypt(this, object, session, in, inLen, out, outLen);
    case P11_RSA_VERIFY_RECOVER: return verifyRecover(this, in, inLen, out, outLen);
    default: return CKR_FUNCTION_NOT_SUPPORTED;
    }
}

CK_RV P11OperationData_rsa::update(P11Obj*, P11Session*, CK_BYTE_PTR in, CK_ULONG inLen, CK_BYTE_PTR, CK_ULONG_PTR)
{
    if (operation != P11_RSA_SIGN && operation != P11_RSA_VERIFY) return ops->singlePartOnlyCode;
    if (!isHashed(this)) return ops->singlePartOnlyCode;
    if (!in && inLen) return CKR_ARGUMENTS_BAD;
    if (!hash || (inLen && do_hash(hash, in, inLen) != CRYPTO_OK)) return CKR_GENERAL_ERROR;
    return CKR_OK;
}

CK_RV P11OperationData_rsa::final(P11Obj* object, P11Session* session, CK_BYTE_PTR out, CK_ULONG_PTR outLen)
{
    if (operation != P11_RSA_SIGN || !isHashed(this)) return ops->singlePartOnlyCode;
    if (!outLen) return CKR_ARGUMENTS_BAD;
    return signHashed(this, object, session, nullptr, 0, out, outLen);
}

CK_RV P11OperationData_rsa::verify(P11Obj*, P11Session*, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR signature,
                                   CK_ULONG signatureLen)
{
    if (operation != P11_RSA_VERIFY) return CKR_FUNCTION_NOT_SUPPORTED;
    return ::verify(this, data, dataLen, signature, signatureLen);
}

CK_RV P11OperationData_rsa::verifyFinal(P11Obj*, P11Session*, CK_BYTE_PTR signature, CK_ULONG signatureLen)
{
    if (operation != P11_RSA_VERIFY || !isHashed(this)) return ops->singlePartOnlyCode;
    return ::verify(this, nullptr, 0, signature, signatureLen);
}

// ---- building records ----

int P11Rsa_hashOfMechanism(CK_MECHANISM_TYPE hashAlg)
{
    switch (hashAlg) {
    case CKM_SHA_1: return HASH_SHA1;
    case CKM_SHA224: return HASH_SHA224;
    case CKM_SHA256: return HASH_SHA256;
    case CKM_SHA384: return HASH_SHA384;
    case CKM_SHA512: return HASH_SHA512;
    default: return 0;
    }
}

int P11Rsa_hashOfMgf(CK_RSA_PKCS_MGF_TYPE mgf)
{
    switch (mgf) {
    case CKG_MGF1_SHA1: return HASH_SHA1;
    case CKG_MGF1_SHA224: return HASH_SHA224;
    case CKG_MGF1_SHA256: return HASH_SHA256;
    case CKG_MGF1_SHA384: return HASH_SHA384;
    case CKG_MGF1_SHA512: return HASH_SHA512;
    default: return 0;
    }
}

CK_ULONG P11Rsa_bitLength(const CK_BYTE* bytes, CK_ULONG length)
{
    CK_ULONG i = 0;
    while (i < length && bytes[i] == 0) ++i;
    if (i == length) return 0;
    CK_ULONG bits = (length - i - 1) * 8;
    for (CK_BYTE top = bytes[i]; top; top >>= 1) ++bits;
    return bits;
}

bool P11Rsa_serves(CK_MECHANISM_TYPE type, P11RsaOperation operation)
{
    const Mechanism* mechanism = findMechanism(type);
    return mechanism && (mechanism->operations & bit(operation));
}

namespace {

CK_RV readPss(const Mechanism& m, CK_MECHANISM_PTR mechanism, P11OperationData_rsa* record)
{
    if (!mechanism->pParameter || mechanism->ulParameterLen != sizeof(CK_RSA_PKCS_PSS_PARAMS))
        return CKR_MECHANISM_PARAM_INVALID;
    const auto* params = static_cast<const CK_RSA_PKCS_PSS_PARAMS*>(mechanism->pParameter);
    if (m.pssHashAlg ? params->hashAlg != m.pssHashAlg : !P11Rsa_hashOfMechanism(params->hashAlg))
        return CKR_MECHANISM_PARAM_INVALID;
    record->hashId = P11Rsa_hashOfMechanism(params->hashAlg);
    record->mgfHashId = P11Rsa_hashOfMgf(params->mgf);
    if (!record->mgfHashId) return CKR_MECHANISM_PARAM_INVALID;
    record->sLen = params->sLen;
    return CKR_OK;
}

CK_RV readOaep(CK_MECHANISM_PTR mechanism, P11OperationData_rsa* record)
{
    if (!mechanism->pParameter || mechanism->ulParameterLen != sizeof(CK_RSA_PKCS_OAEP_PARAMS))
        return CKR_MECHANISM_PARAM_INVALID;
    const auto* params = static_cast<const CK_RSA_PKCS_OAEP_PARAMS*>(mechanism->pParameter);
    record->hashId = P11Rsa_hashOfMechanism(params->hashAlg);
    record->mgfHashId = P11Rsa_hashOfMgf(params->mgf);
    if (!record->hashId || !record->mgfHashId) return CKR_MECHANISM_PARAM_INVALID;
    if (params->source == 0) {
        if (params->pSourceData || params->ulSourceDataLen) return CKR_MECHANISM_PARAM_INVALID;
        return CKR_OK;
    }
    if (params->source != CKZ_DATA_SPECIFIED) return CKR_MECHANISM_PARAM_INVALID;
    if (!params->pSourceData && params->ulSourceDataLen) return CKR_MECHANISM_PARAM_INVALID;
    const CK_BYTE* source = static_cast<const CK_BYTE*>(params->pSourceData);
    record->label.assign(source, source + params->ulSourceDataLen);
    return CKR_OK;
}

}  // namespace

CK_RV P11Rsa_newRecord(CK_MECHANISM_PTR mechanism, P11RsaOperation operation, const P11RsaKeyOps* ops, CK_ULONG k,
                       CK_ULONG modulusBits, P11OperationData_rsa** out)
{
    *out = nullptr;
    if (!mechanism) return CKR_ARGUMENTS_BAD;
    const Mechanism* m = findMechanism(mechanism->mechanism);
    if (!m || !(m->operations & bit(operation))) return CKR_MECHANISM_INVALID;
    auto* record = new (std::nothrow) P11OperationData_rsa;
    if (!record) return CKR_HOST_MEMORY;
    record->ops = ops;
    record->k = k;
    record->modulusBits = modulusBits;
    record->mechanism = m->type;
    record->operation = operation;
    record->hashId = m->hashId;
    CK_RV rv = CKR_OK;
    try {
        if (m->encoding == kPss || m->encoding == kPssHash)
            rv = readPss(*m, mechanism, record);
        else if (m->encoding == kOaep)
            rv = readOaep(mechanism, record);
        else if (mechanism->ulParameterLen != 0)
            rv = CKR_MECHANISM_PARAM_INVALID;
    } catch (const std::bad_alloc&) {
        rv = CKR_HOST_MEMORY;
    }
    if (rv == CKR_OK && (m->encoding == kPkcs1Hash || m->encoding == kPssHash) &&
        start_hash(record->hashId, &record->hash) != CRYPTO_OK)
        rv = CKR_GENERAL_ERROR;
    if (rv != CKR_OK) {
        record->destroy();
        return rv;
    }
    *out = record;
    return CKR_OK;
}
