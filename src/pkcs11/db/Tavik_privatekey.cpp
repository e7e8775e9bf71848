#include "pkcs11/db/Tavik_privatekey.h"

#include <cstring>
#include <cwchar>
#include <new>
#include <vector>

#include "certificates/certificateinformation.h"
#include "certificates/rsapublickey.h"
#include "crypto/crypto_errors.h"
#include "crypto/hash.h"
#include "deps/cpp_modules/Hashers.h"
#include "pkcs11/P11Session.h"
#include "pkcs11/sw/P11OperationData_hashmech.h"
#include "pkcs11/sw/P11OperationData_rsa.h"
#include "pkcs11/sw/pkcs1.h"

namespace {

const size_t kDigestLength = 32;

// ---- key-provider info and attributes ----

P11Obj_Tavik_PrivateKey* asKey(P11Obj* object)
{
    return static_cast<P11Obj_Tavik_PrivateKey*>(object);
}

CK_RV readKeyInfo(P11Obj* key, Tavik_RsaKeyInfo* info)
{
    const Tavik_KEY_PROV_INFO* provInfo = asKey(key)->provInfo;
    if (!provInfo) return CKR_KEY_TYPE_INCONSISTENT;
    info->certDigest = provInfo->certDigest;
    info->userName = provInfo->userName;
    return CKR_OK;
}

void loadPrivateKey(P11AttrObj* store, const ByteArray_constSlice& der)
{
    ByteArray subject, publicKeyInfo, label;
    getCertSubjectInformation(der.data(), der.size(), subject, publicKeyInfo, label);
    const RsaPublicKey key = RsaPublicKey::FromRsaPublicKey(spkInfoToBitStringContent(publicKeyInfo));

    const P11AttrWriter w = P11AttrWriter_forStore(store);
    w.certificateKeyHead(CKO_PRIVATE_KEY, label, Sha256::Hash(der), subject);
    w.flag(CKA_DECRYPT, true);
    w.flag(CKA_SIGN, true);
    w.flag(CKA_SIGN_RECOVER, true);
    w.flag(CKA_UNWRAP, true);
    w.flag(CKA_EXTRACTABLE, false);
    w.flag(CKA_ALWAYS_SENSITIVE, true);
    // False as the token has always reported it, although nothing of the
    // key can ever be extracted.
    w.flag(CKA_NEVER_EXTRACTABLE, false);
    w.flag(CKA_WRAP_WITH_TRUSTED, false);
    w.flag(CKA_ALWAYS_AUTHENTICATE, false);
    w.bytes(CKA_MODULUS, key.getModulus());
}

// ---- helpers of the operations ----

// k: the modulus length in bytes.
CK_RV modulusOf(P11Obj* key, const CK_BYTE** modulus, CK_ULONG* k)
{
    const CK_ATTRIBUTE* attribute = nullptr;
    const CK_RV rv = P11Obj_peekAttribute(key, CKA_MODULUS, &attribute);
    if (rv != CKR_OK) return rv;
    if (!attribute || !attribute->ulValueLen) return CKR_KEY_TYPE_INCONSISTENT;
    *modulus = static_cast<const CK_BYTE*>(attribute->pValue);
    *k = attribute->ulValueLen;
    return CKR_OK;
}

CK_RV rawPrivateOperation(P11Session* session, P11Obj* key, CK_BYTE_PTR in, CK_ULONG inLen, CK_BYTE_PTR out,
                          CK_ULONG_PTR outLen)
{
    return Tavik_RSA_decrypt(session, key, in, inLen, out, outLen, Tavik_privateKeyAccess());
}

// The size rules every signer applies before it does any work.
bool answerSize(CK_ULONG k, CK_BYTE_PTR out, CK_ULONG_PTR outLen, CK_RV* rv);

// The hash signers answer a size query or a short buffer before the hash is
// finished, so the running hash survives both. True when *rv is the answer.
bool answeredBeforeHashing(P11Obj* key, CK_BYTE_PTR out, CK_ULONG_PTR outLen, CK_ULONG* k, CK_RV* rv)
{
    const CK_BYTE* modulus = nullptr;
    *rv = modulusOf(key, &modulus, k);
    return *rv != CKR_OK || answerSize(*k, out, outLen, rv);
}

bool answerSize(CK_ULONG k, CK_BYTE_PTR out, CK_ULONG_PTR outLen, CK_RV* rv)
{
    if (!out) {
        *outLen = k;
        *rv = CKR_OK;
        return true;
    }
    if (*outLen < k) {
        *outLen = k;
        *rv = CKR_BUFFER_TOO_SMALL;
        return true;
    }
    return false;
}

int hashIdOfHashMechanism(CK_MECHANISM_TYPE hashAlg)
{
    switch (hashAlg) {
    case CKM_SHA_1: return HASH_SHA1;
    case CKM_SHA256: return HASH_SHA256;
    case CKM_SHA384: return HASH_SHA384;
    case CKM_SHA512: return HASH_SHA512;
    default: return 0;
    }
}

int hashIdOfMgf(CK_RSA_PKCS_MGF_TYPE mgf)
{
    switch (mgf) {
    case CKG_MGF1_SHA1: return HASH_SHA1;
    case CKG_MGF1_SHA256: return HASH_SHA256;
    case CKG_MGF1_SHA384: return HASH_SHA384;
    case CKG_MGF1_SHA512: return HASH_SHA512;
    default: return 0;
    }
}

// The hash of a hash-then-sign PKCS #1 mechanism, 0 for the others.
int pkcs1HashId(CK_MECHANISM_TYPE mechanism)
{
    switch (mechanism) {
    case CKM_SHA1_RSA_PKCS: return HASH_SHA1;
    case CKM_SHA256_RSA_PKCS: return HASH_SHA256;
    case CKM_SHA384_RSA_PKCS: return HASH_SHA384;
    case CKM_SHA512_RSA_PKCS: return HASH_SHA512;
    default: return 0;
    }
}

// The hash a hash-then-sign PSS mechanism requires as hashAlg; 0 for plain
// CKM_RSA_PKCS_PSS (any of the four) and for other mechanisms.
CK_MECHANISM_TYPE pssRequiredHash(CK_MECHANISM_TYPE mechanism)
{
    switch (mechanism) {
    case CKM_SHA1_RSA_PKCS_PSS: return CKM_SHA_1;
    case CKM_SHA256_RSA_PKCS_PSS: return CKM_SHA256;
    case CKM_SHA384_RSA_PKCS_PSS: return CKM_SHA384;
    case CKM_SHA512_RSA_PKCS_PSS: return CKM_SHA512;
    default: return 0;
    }
}

bool isPss(CK_MECHANISM_TYPE mechanism)
{
    return mechanism == CKM_RSA_PKCS_PSS || pssRequiredHash(mechanism) != 0;
}

// DigestInfo prefixes of PKCS #1 v1.5 signatures.
struct DigestInfoPrefix {
    int hashId;
    const CK_BYTE* bytes;
    CK_ULONG length;
};
const CK_BYTE SHACODE[] = {0x30, 0x21, 0x30, 0x09, 0x06, 0x05, 0x2b, 0x0e, 0x03, 0x02, 0x1a, 0x05, 0x00, 0x04, 0x14};
const CK_BYTE SHA256CODE[] = {0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                              0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20};
const CK_BYTE SHA384CODE[] = {0x30, 0x41, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                              0x65, 0x03, 0x04, 0x02, 0x02, 0x05, 0x00, 0x04, 0x30};
const CK_BYTE SHA512CODE[] = {0x30, 0x51, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                              0x65, 0x03, 0x04, 0x02, 0x03, 0x05, 0x00, 0x04, 0x40};
const DigestInfoPrefix kPrefixes[] = {
    {HASH_SHA1, SHACODE, sizeof SHACODE},
    {HASH_SHA256, SHA256CODE, sizeof SHA256CODE},
    {HASH_SHA384, SHA384CODE, sizeof SHA384CODE},
    {HASH_SHA512, SHA512CODE, sizeof SHA512CODE},
};

// The active sign or decrypt mechanism of the session, 0 when none of ours.
CK_MECHANISM_TYPE activeMechanism(P11Session* session)
{
    P11OperationData* data = P11Session_peekOperationData(session);
    if (auto* simple = dynamic_cast<P11OperationData_simple*>(data)) return simple->mechanism;
    if (auto* hashed = dynamic_cast<P11OperationData_hashmech*>(data)) return hashed->mechanism;
    if (auto* pss = dynamic_cast<P11OperationData_RSA_PSS*>(data)) return pss->mechanism;
    if (auto* oaep = dynamic_cast<P11OperationData_RSA_OAEP*>(data)) return oaep->mechanism;
    return 0;
}

// ---- signing ----

// PKCS #1 v1.5 (block type 1) over data the caller formatted.
CK_RV signPkcs1(P11Obj* key, P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR out,
                CK_ULONG_PTR outLen)
{
    const CK_BYTE* modulus = nullptr;
    CK_ULONG k = 0;
    CK_RV rv = modulusOf(key, &modulus, &k);
    if (rv != CKR_OK) return rv;
    if (!(k - 11 >= dataLen)) return CKR_DATA_LEN_RANGE;
    if (answerSize(k, out, outLen, &rv)) return rv;
    std::vector<CK_BYTE> block(k);
    if (pkcs11_pad_pkcs1_block(1, block.data(), k, data, dataLen) != 0) return CKR_DATA_LEN_RANGE;
    *outLen = k;
    return rawPrivateOperation(session, key, block.data(), k, out, outLen);
}

// Finishes the running hash after feeding data; the hash is consumed.
CK_RV finishHash(hash_context** hash, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE* digest)
{
    if (!*hash) return CKR_GENERAL_ERROR;  // already finished by an earlier failed attempt
    hash_context* running = *hash;
    *hash = nullptr;
    if (dataLen && do_hash(running, data, dataLen) != CRYPTO_OK) {
        abort_hash(running);
        return CKR_GENERAL_ERROR;
    }
    return stop_hash(running, digest) == CRYPTO_OK ? CKR_OK : CKR_GENERAL_ERROR;
}

CK_RV signPkcs1Hashed(P11Obj* key, P11Session* session, P11OperationData_hashmech* record, CK_BYTE_PTR data,
                      CK_ULONG dataLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen)
{
    CK_ULONG k = 0;
    CK_RV rv = CKR_OK;
    if (answeredBeforeHashing(key, out, outLen, &k, &rv)) return rv;
    const DigestInfoPrefix* prefix = nullptr;
    for (const DigestInfoPrefix& p : kPrefixes)
        if (p.hashId == record->hashId) prefix = &p;
    if (!prefix) return CKR_MECHANISM_INVALID;
    const CK_ULONG digestLength = hash_digestLength(record->hashId);
    std::vector<CK_BYTE> digestInfo(prefix->length + digestLength);
    std::memcpy(digestInfo.data(), prefix->bytes, prefix->length);
    rv = finishHash(&record->hash, data, dataLen, digestInfo.data() + prefix->length);
    if (rv != CKR_OK) return rv;
    *outLen = k;
    return signPkcs1(key, session, digestInfo.data(), CK_ULONG(digestInfo.size()), out, outLen);
}

CK_ULONG bitLength(const CK_BYTE* bytes, CK_ULONG length)
{
    CK_ULONG i = 0;
    while (i < length && bytes[i] == 0) ++i;
    if (i == length) return 0;
    CK_ULONG bits = (length - i - 1) * 8;
    for (CK_BYTE top = bytes[i]; top; top >>= 1) ++bits;
    return bits;
}

// EMSA-PSS over a digest the caller computed.
CK_RV signPss(P11Obj* key, P11Session* session, const P11OperationData_RSA_PSS* record, CK_BYTE_PTR digest,
              CK_ULONG digestLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen)
{
    const CK_BYTE* modulus = nullptr;
    CK_ULONG k = 0;
    CK_RV rv = modulusOf(key, &modulus, &k);
    if (rv != CKR_OK) return rv;
    const CK_ULONG emBits = bitLength(modulus, k) - 1;
    if (digestLen != hash_digestLength(record->hashId)) return CKR_DATA_LEN_RANGE;
    if (answerSize(k, out, outLen, &rv)) return rv;
    std::vector<CK_BYTE> encoded(k);
    CK_ULONG emLen = k;
    rv = EMSA_PSS_ENCODE(digest, digestLen, encoded.data(), &emLen, emBits, record->hashId, record->mgfHashId,
                         record->sLen, session);
    if (rv != CKR_OK) return rv;
    *outLen = k;
    return rawPrivateOperation(session, key, encoded.data(), emLen, out, outLen);
}

CK_RV signPssHashed(P11Obj* key, P11Session* session, P11OperationData_RSA_PSS* record, CK_BYTE_PTR data,
                    CK_ULONG dataLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen)
{
    CK_ULONG k = 0;
    CK_RV rv = CKR_OK;
    if (answeredBeforeHashing(key, out, outLen, &k, &rv)) return rv;
    CK_BYTE digest[HASH_MAX_DIGEST_LENGTH];
    rv = finishHash(&record->hash, data, dataLen, digest);
    if (rv != CKR_OK) return rv;
    *outLen = k;
    return signPss(key, session, record, digest, CK_ULONG(hash_digestLength(record->hashId)), out, outLen);
}

// Single-part signing, and the final part (no data) of a multi-part one.
CK_RV signWithActiveMechanism(P11Obj* key, P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR out,
                              CK_ULONG_PTR outLen, bool finalPart)
{
    if (!outLen) return CKR_ARGUMENTS_BAD;
    P11OperationData* state = P11Session_peekOperationData(session);
    const CK_MECHANISM_TYPE mechanism = activeMechanism(session);
    if (finalPart && !pkcs1HashId(mechanism) && !pssRequiredHash(mechanism)) return CKR_MECHANISM_INVALID;
    if (mechanism == CKM_RSA_PKCS) return signPkcs1(key, session, data, dataLen, out, outLen);
    if (mechanism == CKM_RSA_X_509) return rawPrivateOperation(session, key, data, dataLen, out, outLen);
    if (pkcs1HashId(mechanism))
        return signPkcs1Hashed(key, session, static_cast<P11OperationData_hashmech*>(state), data, dataLen, out, outLen);
    if (mechanism == CKM_RSA_PKCS_PSS)
        return signPss(key, session, static_cast<P11OperationData_RSA_PSS*>(state), data, dataLen, out, outLen);
    if (pssRequiredHash(mechanism))
        return signPssHashed(key, session, static_cast<P11OperationData_RSA_PSS*>(state), data, dataLen, out, outLen);
    return CKR_MECHANISM_INVALID;
}

CK_RV readClassAndType(P11Obj* key, CK_OBJECT_CLASS* objectClass, CK_KEY_TYPE* keyType)
{
    CK_RV rv = P11Obj_getUlongValue(key, CKA_CLASS, objectClass);
    if (rv == CKR_OK) rv = P11Obj_getUlongValue(key, CKA_KEY_TYPE, keyType);
    return rv;
}

// The usage flag must be present and true.
CK_RV requireUsage(P11Obj* key, CK_ATTRIBUTE_TYPE usage)
{
    CK_BBOOL allowed = CK_FALSE;
    const CK_RV rv = P11Obj_getBoolValue(key, usage, &allowed);
    if (rv != CKR_OK) return rv;
    return allowed ? CKR_OK : CKR_KEY_FUNCTION_NOT_PERMITTED;
}

CK_RV installHashRecord(P11Session* session, CK_MECHANISM_TYPE mechanism, int hashId)
{
    P11OperationData_hashmech* record = nullptr;
    CK_RV rv = P11OperationData_hashmech_set(session, &record);
    if (rv != CKR_OK) return rv;
    if (start_hash(hashId, &record->hash) != CRYPTO_OK) return CKR_GENERAL_ERROR;
    record->hashId = hashId;
    record->mechanism = mechanism;
    return CKR_OK;
}

CK_RV installPssRecord(P11Session* session, CK_MECHANISM_PTR mechanism)
{
    if (!mechanism->pParameter || mechanism->ulParameterLen != sizeof(CK_RSA_PKCS_PSS_PARAMS))
        return CKR_MECHANISM_PARAM_INVALID;
    const auto* params = static_cast<const CK_RSA_PKCS_PSS_PARAMS*>(mechanism->pParameter);
    const CK_MECHANISM_TYPE required = pssRequiredHash(mechanism->mechanism);
    if (required ? params->hashAlg != required : !hashIdOfHashMechanism(params->hashAlg))
        return CKR_MECHANISM_PARAM_INVALID;
    if (!hashIdOfMgf(params->mgf)) return CKR_MECHANISM_PARAM_INVALID;

    auto* record = new (std::nothrow) P11OperationData_RSA_PSS;
    if (!record) return CKR_HOST_MEMORY;
    record->mechanism = mechanism->mechanism;
    record->hashId = hashIdOfHashMechanism(params->hashAlg);
    record->mgfHashId = hashIdOfMgf(params->mgf);
    record->sLen = params->sLen;
    const CK_RV rv = P11Session_setOperationData(session, record);
    if (rv != CKR_OK) {
        record->destroy();
        return rv;
    }
    if (required && start_hash(record->hashId, &record->hash) != CRYPTO_OK) return CKR_GENERAL_ERROR;
    return CKR_OK;
}

CK_RV installSimpleRecord(P11Session* session, CK_MECHANISM_TYPE mechanism)
{
    auto* record = new (std::nothrow) P11OperationData_simple(mechanism);
    if (!record) return CKR_HOST_MEMORY;
    const CK_RV rv = P11Session_setOperationData(session, record);
    if (rv != CKR_OK) record->destroy();
    return rv;
}

// ---- decryption ----

// The checks shared by decryption and unwrapping; on success *state is the
// operation state for the mechanism (owned by the caller).
CK_RV decryptInit_do(P11Obj* key, CK_MECHANISM_PTR mechanism, P11OperationData** state)
{
    *state = nullptr;
    CK_OBJECT_CLASS objectClass = 0;
    CK_KEY_TYPE keyType = 0;
    CK_RV rv = readClassAndType(key, &objectClass, &keyType);
    if (rv != CKR_OK) return rv;
    switch (mechanism->mechanism) {
    case CKM_RSA_PKCS:
    case CKM_RSA_X_509:
        if (mechanism->ulParameterLen != 0) return CKR_MECHANISM_PARAM_INVALID;
        *state = new (std::nothrow) P11OperationData_simple(mechanism->mechanism);
        return *state ? CKR_OK : CKR_HOST_MEMORY;
    case CKM_RSA_PKCS_OAEP: {
        if (objectClass != CKO_PRIVATE_KEY || keyType != CKK_RSA) return CKR_KEY_TYPE_INCONSISTENT;
        if (!mechanism->pParameter || mechanism->ulParameterLen != sizeof(CK_RSA_PKCS_OAEP_PARAMS))
            return CKR_MECHANISM_PARAM_INVALID;
        const auto* params = static_cast<const CK_RSA_PKCS_OAEP_PARAMS*>(mechanism->pParameter);
        if (params->hashAlg != CKM_SHA_1 || params->mgf != CKG_MGF1_SHA1) return CKR_MECHANISM_PARAM_INVALID;
        if (params->source == 0 && (params->pSourceData || params->ulSourceDataLen))
            return CKR_MECHANISM_PARAM_INVALID;
        if (params->source > CKZ_DATA_SPECIFIED) return CKR_MECHANISM_PARAM_INVALID;
        if (!params->pSourceData && params->ulSourceDataLen) return CKR_MECHANISM_PARAM_INVALID;
        auto* record = new (std::nothrow) P11OperationData_RSA_OAEP;
        if (!record) return CKR_HOST_MEMORY;
        try {
            const CK_BYTE* source = static_cast<const CK_BYTE*>(params->pSourceData);
            record->sourceData.assign(source, source + params->ulSourceDataLen);
        } catch (const std::bad_alloc&) {
            record->destroy();
            return CKR_HOST_MEMORY;
        }
        *state = record;
        return CKR_OK;
    }
    default:
        return CKR_MECHANISM_INVALID;
    }
}

CK_MECHANISM_TYPE mechanismOfState(P11OperationData* state)
{
    if (auto* simple = dynamic_cast<P11OperationData_simple*>(state)) return simple->mechanism;
    if (auto* oaep = dynamic_cast<P11OperationData_RSA_OAEP*>(state)) return oaep->mechanism;
    return 0;
}

CK_RV decryptWithState(P11Obj* key, P11Session* session, P11OperationData* state, CK_BYTE_PTR in, CK_ULONG inLen,
                       CK_BYTE_PTR out, CK_ULONG_PTR outLen)
{
    if (!outLen) return CKR_ARGUMENTS_BAD;
    const CK_MECHANISM_TYPE mechanism = mechanismOfState(state);
    if (mechanism != CKM_RSA_PKCS && mechanism != CKM_RSA_X_509 && mechanism != CKM_RSA_PKCS_OAEP)
        return CKR_FUNCTION_FAILED;
    const CK_BYTE* modulus = nullptr;
    CK_ULONG k = 0;
    CK_RV rv = modulusOf(key, &modulus, &k);
    if (rv != CKR_OK) return rv;
    if (inLen != k) return CKR_DATA_LEN_RANGE;
    const CK_ULONG maximum = mechanism == CKM_RSA_X_509 ? k : mechanism == CKM_RSA_PKCS ? k - 11 : k - 42;
    if (!out) {
        *outLen = maximum;
        return CKR_OK;
    }
    if (mechanism == CKM_RSA_X_509) {
        if (*outLen < k) {
            *outLen = k;
            return CKR_BUFFER_TOO_SMALL;
        }
        return rawPrivateOperation(session, key, in, inLen, out, outLen);
    }

    // The helper runs before the caller's buffer is looked at: a retry with
    // a larger buffer is answered from the helper's cache.
    std::vector<CK_BYTE> block(k);
    CK_ULONG blockLen = k;
    rv = rawPrivateOperation(session, key, in, inLen, block.data(), &blockLen);
    if (rv != CKR_OK) return rv;
    CK_ULONG length = 0;
    if (mechanism == CKM_RSA_PKCS) {
        if (pkcs11_unpad_pkcs1_block(2, block.data(), blockLen, nullptr, &length) != 0) return CKR_ENCRYPTED_DATA_INVALID;
        if (*outLen < length) return CKR_BUFFER_TOO_SMALL;
        if (pkcs11_unpad_pkcs1_block(2, block.data(), blockLen, out, outLen) != 0) return CKR_ENCRYPTED_DATA_INVALID;
        return CKR_OK;
    }
    const std::vector<CK_BYTE>& source = static_cast<P11OperationData_RSA_OAEP*>(state)->sourceData;
    const CK_BYTE* p = source.empty() ? nullptr : source.data();
    if (blockLen == 0 || block[0] != 0x00) return CKR_ENCRYPTED_DATA_INVALID;
    if (OAEP_DECODE_SHA1_SHA1(block.data() + 1, blockLen - 1, p, source.size(), nullptr, &length) != 0)
        return CKR_ENCRYPTED_DATA_INVALID;
    if (*outLen < length) return CKR_BUFFER_TOO_SMALL;
    if (OAEP_DECODE_SHA1_SHA1(block.data() + 1, blockLen - 1, p, source.size(), out, outLen) != 0)
        return CKR_ENCRYPTED_DATA_INVALID;
    return CKR_OK;
}

// ---- class members ----

CK_RV copyKey(P11Obj* source, P11Obj* destination)
{
    if (!source || !destination) return CKR_ARGUMENTS_BAD;
    if (source->clazz != destination->clazz) return CKR_FUNCTION_FAILED;
    const Tavik_KEY_PROV_INFO* from = asKey(source)->provInfo;
    Tavik_KEY_PROV_INFO* info = nullptr;
    CK_RV rv = Tavik_KEY_PROV_INFO_construct(&info);
    if (rv == CKR_OK && from) {
        rv = Tavik_KEY_PROV_INFO_setUserName(info, from->userName);
        if (rv == CKR_OK && from->certDigest) {
            info->certDigest = new (std::nothrow) unsigned char[kDigestLength];
            if (info->certDigest)
                std::memcpy(info->certDigest, from->certDigest, kDigestLength);
            else
                rv = CKR_HOST_MEMORY;
        }
    }
    if (rv == CKR_OK) rv = P11Obj_AttrBacked_copyStore(source, destination);
    if (rv != CKR_OK) {
        Tavik_KEY_PROV_INFO_destruct(&info);
        return rv;
    }
    Tavik_KEY_PROV_INFO_destruct(&asKey(destination)->provInfo);
    asKey(destination)->provInfo = info;
    return CKR_OK;
}

CK_RV signInit(P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism)
{
    if (!mechanism) return CKR_ARGUMENTS_BAD;
    CK_OBJECT_CLASS objectClass = 0;
    CK_KEY_TYPE keyType = 0;
    CK_RV rv = readClassAndType(key, &objectClass, &keyType);
    if (rv == CKR_OK) rv = requireUsage(key, CKA_SIGN);
    if (rv != CKR_OK) return rv;
    const CK_MECHANISM_TYPE type = mechanism->mechanism;
    if (type == CKM_RSA_PKCS || type == CKM_RSA_X_509) {
        if (mechanism->ulParameterLen != 0) return CKR_MECHANISM_PARAM_INVALID;
        return installSimpleRecord(session, type);
    }
    if (const int hashId = pkcs1HashId(type)) {
        if (mechanism->ulParameterLen != 0) return CKR_MECHANISM_PARAM_INVALID;
        return installHashRecord(session, type, hashId);
    }
    if (isPss(type)) return installPssRecord(session, mechanism);
    return CKR_MECHANISM_INVALID;
}

CK_RV signRecoverInit(P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism)
{
    if (!mechanism) return CKR_ARGUMENTS_BAD;
    // CKM_RSA_9796 passes here and is refused by signInit: only raw
    // sign-recover is offered.
    if (mechanism->mechanism != CKM_RSA_9796 && mechanism->mechanism != CKM_RSA_X_509) return CKR_MECHANISM_INVALID;
    return signInit(key, session, mechanism);
}

CK_RV sign(P11Obj* key, P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen)
{
    return signWithActiveMechanism(key, session, data, dataLen, out, outLen, false);
}

CK_RV signUpdate(P11Obj*, P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen)
{
    P11OperationData* state = P11Session_peekOperationData(session);
    const CK_MECHANISM_TYPE mechanism = activeMechanism(session);
    hash_context* hash = nullptr;
    if (pkcs1HashId(mechanism))
        hash = static_cast<P11OperationData_hashmech*>(state)->hash;
    else if (pssRequiredHash(mechanism))
        hash = static_cast<P11OperationData_RSA_PSS*>(state)->hash;
    else
        return CKR_MECHANISM_INVALID;
    if (!hash || (dataLen && do_hash(hash, data, dataLen) != CRYPTO_OK)) return CKR_GENERAL_ERROR;
    return CKR_OK;
}

CK_RV signFinal(P11Obj* key, P11Session* session, CK_BYTE_PTR out, CK_ULONG_PTR outLen)
{
    return signWithActiveMechanism(key, session, nullptr, 0, out, outLen, true);
}

CK_RV decryptInit(P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism)
{
    if (!mechanism) return CKR_ARGUMENTS_BAD;
    CK_RV rv = requireUsage(key, CKA_DECRYPT);
    if (rv != CKR_OK) return rv;
    P11OperationData* state = nullptr;
    rv = decryptInit_do(key, mechanism, &state);
    if (rv != CKR_OK) return rv;
    rv = P11Session_setOperationData(session, state);
    if (rv != CKR_OK) state->destroy();
    return rv;
}

CK_RV decrypt(P11Obj* key, P11Session* session, CK_BYTE_PTR in, CK_ULONG inLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen)
{
    return decryptWithState(key, session, P11Session_peekOperationData(session), in, inLen, out, outLen);
}

CK_RV unwrapKey(P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism, CK_BYTE_PTR wrapped,
                CK_ULONG wrappedLen, P11Obj* newKey)
{
    if (!mechanism) return CKR_ARGUMENTS_BAD;
    CK_RV rv = requireUsage(key, CKA_UNWRAP);
    if (rv != CKR_OK) return rv;
    const CK_MECHANISM_TYPE type = mechanism->mechanism;
    if (type != CKM_RSA_PKCS && type != CKM_RSA_X_509 && type != CKM_RSA_PKCS_OAEP) return CKR_MECHANISM_INVALID;
    // The state stays local: unwrapping is no session operation, and
    // whatever operation the session runs keeps its own state.
    P11OperationData* state = nullptr;
    rv = decryptInit_do(key, mechanism, &state);
    if (rv == CKR_KEY_TYPE_INCONSISTENT) return CKR_UNWRAPPING_KEY_TYPE_INCONSISTENT;
    if (rv != CKR_OK) return rv;
    struct StateOwner {
        P11OperationData* state;
        ~StateOwner() { state->destroy(); }
    } owner{state};

    CK_ULONG length = 0;
    rv = decryptWithState(key, session, state, wrapped, wrappedLen, nullptr, &length);
    if (rv != CKR_OK) return rv;
    std::vector<CK_BYTE> value;
    try {
        value.resize(length);
    } catch (const std::bad_alloc&) {
        return CKR_HOST_MEMORY;
    }
    rv = decryptWithState(key, session, state, wrapped, wrappedLen, value.data(), &length);
    if (rv != CKR_OK) return rv;
    if (type == CKM_RSA_X_509)
        rv = P11Obj_setKeyValue(newKey, value.data(), length, false);
    else
        rv = P11Obj_setValue(newKey, CKA_VALUE, value.data(), length);
    if (rv == CKR_OK) rv = P11Obj_setUlongValue(newKey, CKA_CLASS, CKO_SECRET_KEY);
    return rv;
}

CK_RV notSupportedInit(P11Obj*, P11Session*, CK_MECHANISM_PTR) { return CKR_FUNCTION_NOT_SUPPORTED; }
CK_RV notSupportedInOut(P11Obj*, P11Session*, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR)
{
    return CKR_FUNCTION_NOT_SUPPORTED;
}
CK_RV notSupportedFinal(P11Obj*, P11Session*, CK_BYTE_PTR, CK_ULONG_PTR) { return CKR_FUNCTION_NOT_SUPPORTED; }
CK_RV notSupportedUpdate(P11Obj*, P11Session*, CK_BYTE_PTR, CK_ULONG) { return CKR_FUNCTION_NOT_SUPPORTED; }

// The members run below the C entry points, where nothing may be thrown:
// a failed allocation is CKR_HOST_MEMORY, anything else CKR_GENERAL_ERROR.
template <auto Member, typename... Args>
CK_RV noThrow(Args... args)
{
    try {
        return Member(args...);
    } catch (const std::bad_alloc&) {
        return CKR_HOST_MEMORY;
    } catch (...) {
        return CKR_GENERAL_ERROR;
    }
}

P11ObjClass makeClass()
{
    P11ObjClass c{};
    c.name = "P11Obj_Tavik_PrivateKey";
    c.destruct = P11Obj_Tavik_PrivateKey_destruct;
    c.setAttribute = P11Obj_AttrBacked_setAttribute;
    c.getAttribute = P11Obj_AttrBacked_getAttribute;
    c.peekAttribute = P11Obj_AttrBacked_peekAttribute;
    c.copy = noThrow<copyKey, P11Obj*, P11Obj*>;
    c.compare = P11Obj_AttrBacked_compare;
    c.enumAttributes = P11Obj_AttrBacked_enumAttributes;
    c.getAttributeCount = P11Obj_AttrBacked_getAttributeCount;
    c.generateKey = notSupportedInit;
    c.generateKeyPair = [](P11Obj*, P11Obj*, P11Session*, CK_MECHANISM_PTR) -> CK_RV {
        return CKR_FUNCTION_NOT_SUPPORTED;
    };
    c.encryptInit = notSupportedInit;
    c.encrypt = notSupportedInOut;
    c.encryptUpdate = notSupportedInOut;
    c.encryptFinal = notSupportedFinal;
    c.decryptInit = noThrow<decryptInit, P11Obj*, P11Session*, CK_MECHANISM_PTR>;
    c.decrypt = noThrow<decrypt, P11Obj*, P11Session*, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR>;
    c.decryptUpdate = notSupportedInOut;
    c.decryptFinal = notSupportedFinal;
    c.signInit = noThrow<signInit, P11Obj*, P11Session*, CK_MECHANISM_PTR>;
    c.sign = noThrow<sign, P11Obj*, P11Session*, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR>;
    c.signUpdate = noThrow<signUpdate, P11Obj*, P11Session*, CK_BYTE_PTR, CK_ULONG>;
    c.signFinal = noThrow<signFinal, P11Obj*, P11Session*, CK_BYTE_PTR, CK_ULONG_PTR>;
    c.signRecoverInit = noThrow<signRecoverInit, P11Obj*, P11Session*, CK_MECHANISM_PTR>;
    c.signRecover = c.sign;
    c.verifyInit = notSupportedInit;
    c.verify = [](P11Obj*, P11Session*, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG) -> CK_RV {
        return CKR_FUNCTION_NOT_SUPPORTED;
    };
    c.verifyUpdate = notSupportedUpdate;
    c.verifyFinal = [](P11Obj*, P11Session*, CK_BYTE_PTR, CK_ULONG) -> CK_RV { return CKR_FUNCTION_NOT_SUPPORTED; };
    c.verifyRecoverInit = notSupportedInit;
    c.verifyRecover = notSupportedInOut;
    c.deriveKey = [](P11Obj*, P11Session*, CK_MECHANISM_PTR, P11Obj*) -> CK_RV { return CKR_FUNCTION_NOT_SUPPORTED; };
    c.wrapKey = [](P11Obj*, P11Session*, CK_MECHANISM_PTR, P11Obj*, CK_BYTE_PTR, CK_ULONG_PTR) -> CK_RV {
        return CKR_FUNCTION_NOT_SUPPORTED;
    };
    c.unwrapKey = noThrow<unwrapKey, P11Obj*, P11Session*, CK_MECHANISM_PTR, CK_BYTE_PTR, CK_ULONG, P11Obj*>;
    return c;
}

const P11ObjClass P11Tavik_PrivateKey_clazz = makeClass();
const Tavik_RsaKeyAccess kAccess{&P11Tavik_PrivateKey_clazz, readKeyInfo};

}  // namespace

const P11ObjClass* P11Tavik_PrivateKey_GetClass()
{
    return &P11Tavik_PrivateKey_clazz;
}

const Tavik_RsaKeyAccess& Tavik_privateKeyAccess()
{
    return kAccess;
}

CK_RV Tavik_KEY_PROV_INFO_construct(Tavik_KEY_PROV_INFO** info)
{
    *info = new (std::nothrow) Tavik_KEY_PROV_INFO{nullptr, nullptr};
    return *info ? CKR_OK : CKR_HOST_MEMORY;
}

CK_RV Tavik_KEY_PROV_INFO_destruct(Tavik_KEY_PROV_INFO** info)
{
    if (!info || !*info) return CKR_OK;
    delete[] (*info)->certDigest;
    delete[] (*info)->userName;
    delete *info;
    *info = nullptr;
    return CKR_OK;
}

CK_RV Tavik_KEY_PROV_INFO_setUserName(Tavik_KEY_PROV_INFO* info, const wchar_t* userName)
{
    delete[] info->userName;
    info->userName = nullptr;
    if (!userName) return CKR_OK;
    const size_t units = std::wcslen(userName) + 1;
    info->userName = new (std::nothrow) wchar_t[units];
    if (!info->userName) return CKR_HOST_MEMORY;
    std::memcpy(info->userName, userName, units * sizeof(wchar_t));
    return CKR_OK;
}

CK_RV Tavik_KEY_PROV_INFO_setX509Certificate(Tavik_KEY_PROV_INFO* info, const unsigned char* der, unsigned long length)
{
    delete[] info->certDigest;
    info->certDigest = new (std::nothrow) unsigned char[kDigestLength];
    if (!info->certDigest) return CKR_HOST_MEMORY;
    try {
        const ByteArray digest = Sha256::Hash(ByteArray_constSlice(der, length));
        if (digest.size() != kDigestLength) throw std::length_error("digest length");
        std::memcpy(info->certDigest, digest.data(), kDigestLength);
        return CKR_OK;
    } catch (...) {
        delete[] info->certDigest;
        info->certDigest = nullptr;
        return CKR_GENERAL_ERROR;
    }
}

CK_RV P11Obj_Tavik_PrivateKey_loadAttributes(P11AttrObj* store, const unsigned char* der, unsigned long length)
{
    if (!store || !der) return CKR_FUNCTION_FAILED;
    return P11_runLoader([&] { loadPrivateKey(store, ByteArray_constSlice(der, length)); });
}

CK_RV P11Obj_Tavik_PrivateKey_construct_wa(P11Obj** object)
{
    P11Obj_Tavik_PrivateKey* record = nullptr;
    const CK_RV rv = P11Obj_AttrBacked_allocate(&record, &P11Tavik_PrivateKey_clazz);
    *object = record;
    return rv;
}

CK_RV P11Obj_Tavik_PrivateKey_construct(P11Obj** object, const wchar_t* userName, const unsigned char* der,
                                        unsigned long length)
{
    *object = nullptr;
    if (!der) return CKR_FUNCTION_FAILED;
    P11Obj* built = nullptr;
    CK_RV rv = P11Obj_Tavik_PrivateKey_construct_wa(&built);
    if (rv != CKR_OK) return rv;
    P11Obj_Tavik_PrivateKey* key = asKey(built);
    rv = Tavik_KEY_PROV_INFO_construct(&key->provInfo);
    if (rv == CKR_OK) rv = Tavik_KEY_PROV_INFO_setUserName(key->provInfo, userName);
    if (rv == CKR_OK) rv = Tavik_KEY_PROV_INFO_setX509Certificate(key->provInfo, der, length);
    if (rv == CKR_OK) rv = P11Obj_Tavik_PrivateKey_loadAttributes(key->attributes, der, length);
    if (rv != CKR_OK) {
        P11Obj_Tavik_PrivateKey_destruct(&built);
        return rv;
    }
    *object = built;
    return CKR_OK;
}

CK_RV P11Obj_Tavik_PrivateKey_destruct(P11Obj** object)
{
    if (!object || !*object) return CKR_OK;
    P11Obj_Tavik_PrivateKey* key = asKey(*object);
    Tavik_KEY_PROV_INFO_destruct(&key->provInfo);
    P11Obj_AttrBacked_releaseParts(key);
    delete key;
    *object = nullptr;
    return CKR_OK;
}
