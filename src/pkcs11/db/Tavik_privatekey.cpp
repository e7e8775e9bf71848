#include "pkcs11/P11Bridge.h"
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
#include "pkcs11/objects/P11Obj_noThrow.h"
#include "pkcs11/sw/P11RsaEngine.h"

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

// ---- the RSA engine with the helper as the private-key operation ----

CK_RV helperPrivateRaw(P11OperationData_rsa*, P11Obj* key, P11Session* session, CK_BYTE_PTR in, CK_ULONG inLen,
                       CK_BYTE_PTR out, CK_ULONG_PTR outLen)
{
    return Tavik_RSA_decrypt(session, key, in, inLen, out, outLen, Tavik_privateKeyAccess());
}

// The key has no public operation here (its public key is the certificate's
// own object). A short buffer after decryption keeps the caller's length,
// a ciphertext of the wrong length is CKR_DATA_LEN_RANGE and an update or
// final of a single-part mechanism CKR_MECHANISM_INVALID, as this key has
// always answered.
const P11RsaKeyOps kHelperOps{helperPrivateRaw, nullptr, CKR_DATA_LEN_RANGE, true, CKR_MECHANISM_INVALID, false};

// The mechanisms this key offers: PKCS #1 v1.5 and raw RSA, the SHA-1 and
// SHA-2 (256, 384, 512) hash-then-sign forms with PKCS #1 v1.5 and PSS,
// and OAEP with SHA-1 for decryption.
bool offered(CK_MECHANISM_TYPE type)
{
    switch (type) {
    case CKM_RSA_PKCS:
    case CKM_RSA_X_509:
    case CKM_RSA_PKCS_OAEP:
    case CKM_SHA1_RSA_PKCS:
    case CKM_SHA256_RSA_PKCS:
    case CKM_SHA384_RSA_PKCS:
    case CKM_SHA512_RSA_PKCS:
    case CKM_RSA_PKCS_PSS:
    case CKM_SHA1_RSA_PKCS_PSS:
    case CKM_SHA256_RSA_PKCS_PSS:
    case CKM_SHA384_RSA_PKCS_PSS:
    case CKM_SHA512_RSA_PKCS_PSS: return true;
    default: return false;
    }
}

bool offeredHash(int hashId)
{
    return hashId == HASH_SHA1 || hashId == HASH_SHA256 || hashId == HASH_SHA384 || hashId == HASH_SHA512;
}

// The parameters this key takes beyond the engine's own rules: PSS with
// SHA-1 or SHA-2 (256, 384, 512) and the same choice of MGF1 hash; OAEP
// with SHA-1 and MGF1-SHA-1 only.
CK_RV checkParameters(CK_MECHANISM_PTR mechanism)
{
    if (mechanism->mechanism == CKM_RSA_PKCS_OAEP) {
        if (!mechanism->pParameter || mechanism->ulParameterLen != sizeof(CK_RSA_PKCS_OAEP_PARAMS))
            return CKR_MECHANISM_PARAM_INVALID;
        const auto* params = static_cast<const CK_RSA_PKCS_OAEP_PARAMS*>(mechanism->pParameter);
        return params->hashAlg == CKM_SHA_1 && params->mgf == CKG_MGF1_SHA1 ? CKR_OK : CKR_MECHANISM_PARAM_INVALID;
    }
    if (P11Rsa_serves(mechanism->mechanism, P11_RSA_SIGN) && mechanism->pParameter &&
        mechanism->ulParameterLen == sizeof(CK_RSA_PKCS_PSS_PARAMS) &&
        (mechanism->mechanism == CKM_RSA_PKCS_PSS || mechanism->mechanism == CKM_SHA1_RSA_PKCS_PSS ||
         mechanism->mechanism == CKM_SHA256_RSA_PKCS_PSS || mechanism->mechanism == CKM_SHA384_RSA_PKCS_PSS ||
         mechanism->mechanism == CKM_SHA512_RSA_PKCS_PSS)) {
        const auto* params = static_cast<const CK_RSA_PKCS_PSS_PARAMS*>(mechanism->pParameter);
        if (!offeredHash(P11Rsa_hashOfMechanism(params->hashAlg)) || !offeredHash(P11Rsa_hashOfMgf(params->mgf)))
            return CKR_MECHANISM_PARAM_INVALID;
    }
    return CKR_OK;
}

// A record of the RSA engine for this key; k is the size of CKA_MODULUS
// (0 when it has none, which the operations then refuse).
CK_RV newRecord(P11Obj* key, CK_MECHANISM_PTR mechanism, P11RsaOperation operation, P11OperationData_rsa** record)
{
    *record = nullptr;
    if (!offered(mechanism->mechanism) || !P11Rsa_serves(mechanism->mechanism, operation)) return CKR_MECHANISM_INVALID;
    CK_RV rv = checkParameters(mechanism);
    if (rv != CKR_OK) return rv;
    const CK_ATTRIBUTE* modulus = nullptr;
    rv = P11Obj_peekAttribute(key, CKA_MODULUS, &modulus);
    if (rv != CKR_OK) return rv;
    const CK_ULONG k = modulus && modulus->pValue ? modulus->ulValueLen : 0;
    const CK_ULONG bits = k ? P11Rsa_bitLength(static_cast<const CK_BYTE*>(modulus->pValue), k) : 0;
    return P11Rsa_newRecord(mechanism, operation, &kHelperOps, k, bits, record);
}

CK_RV installRecord(P11Session* session, P11OperationData_rsa* record)
{
    const CK_RV rv = P11Session_setOperationData(session, record);
    if (rv != CKR_OK) record->destroy();
    return rv;
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

// The checks shared by decryption and unwrapping; on success *record is the
// operation record for the mechanism (owned by the caller).
CK_RV decryptInit_do(P11Obj* key, CK_MECHANISM_PTR mechanism, P11OperationData_rsa** record)
{
    *record = nullptr;
    CK_OBJECT_CLASS objectClass = 0;
    CK_KEY_TYPE keyType = 0;
    CK_RV rv = readClassAndType(key, &objectClass, &keyType);
    if (rv != CKR_OK) return rv;
    if (mechanism->mechanism == CKM_RSA_PKCS_OAEP && (objectClass != CKO_PRIVATE_KEY || keyType != CKK_RSA))
        return CKR_KEY_TYPE_INCONSISTENT;
    return newRecord(key, mechanism, P11_RSA_DECRYPT, record);
}

CK_RV runRecord(P11Obj* key, P11Session* session, CK_BYTE_PTR in, CK_ULONG inLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen)
{
    P11OperationData* record = P11Session_peekOperationData(session);
    if (!record) return CKR_OPERATION_NOT_INITIALIZED;
    return record->single(key, session, in, inLen, out, outLen);
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
    // Sign-recover comes here too, and signs as signing does.
    P11OperationData_rsa* record = nullptr;
    rv = newRecord(key, mechanism, P11_RSA_SIGN, &record);
    return rv == CKR_OK ? installRecord(session, record) : rv;
}

CK_RV signRecoverInit(P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism)
{
    if (!mechanism) return CKR_ARGUMENTS_BAD;
    // CKM_RSA_9796 passes here and is refused by signInit: only raw
    // sign-recover is offered.
    if (mechanism->mechanism != CKM_RSA_9796 && mechanism->mechanism != CKM_RSA_X_509) return CKR_MECHANISM_INVALID;
    return signInit(key, session, mechanism);
}

CK_RV signUpdate(P11Obj* key, P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen)
{
    P11OperationData* record = P11Session_peekOperationData(session);
    if (!record) return CKR_OPERATION_NOT_INITIALIZED;
    return record->update(key, session, data, dataLen, nullptr, nullptr);
}

CK_RV signFinal(P11Obj* key, P11Session* session, CK_BYTE_PTR out, CK_ULONG_PTR outLen)
{
    P11OperationData* record = P11Session_peekOperationData(session);
    if (!record) return CKR_OPERATION_NOT_INITIALIZED;
    return record->final(key, session, out, outLen);
}

CK_RV decryptInit(P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism)
{
    if (!mechanism) return CKR_ARGUMENTS_BAD;
    CK_RV rv = requireUsage(key, CKA_DECRYPT);
    if (rv != CKR_OK) return rv;
    P11OperationData_rsa* record = nullptr;
    rv = decryptInit_do(key, mechanism, &record);
    return rv == CKR_OK ? installRecord(session, record) : rv;
}

CK_RV unwrapKey(P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism, CK_BYTE_PTR wrapped,
                CK_ULONG wrappedLen, P11Obj* newKey)
{
    if (!mechanism) return CKR_ARGUMENTS_BAD;
    CK_RV rv = requireUsage(key, CKA_UNWRAP);
    if (rv != CKR_OK) return rv;
    const CK_MECHANISM_TYPE type = mechanism->mechanism;
    if (type != CKM_RSA_PKCS && type != CKM_RSA_X_509 && type != CKM_RSA_PKCS_OAEP) return CKR_MECHANISM_INVALID;
    // The record stays local: unwrapping is no session operation, and
    // whatever operation the session runs keeps its own state.
    P11OperationData_rsa* record = nullptr;
    rv = decryptInit_do(key, mechanism, &record);
    if (rv == CKR_KEY_TYPE_INCONSISTENT) return CKR_UNWRAPPING_KEY_TYPE_INCONSISTENT;
    if (rv != CKR_OK) return rv;
    struct RecordOwner {
        P11OperationData* record;
        ~RecordOwner() { record->destroy(); }
    } owner{record};

    CK_ULONG length = 0;
    rv = record->single(key, session, wrapped, wrappedLen, nullptr, &length);
    if (rv != CKR_OK) return rv;
    crypto_bytes value(length ? length : 1);
    rv = record->single(key, session, wrapped, wrappedLen, value.data(), &length);
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

P11ObjClass makeClass()
{
    P11ObjClass c{};
    c.name = "P11Obj_Tavik_PrivateKey";
    c.destruct = P11Obj_Tavik_PrivateKey_destruct;
    c.setAttribute = P11Obj_AttrBacked_setAttribute;
    c.getAttribute = P11Obj_AttrBacked_getAttribute;
    c.peekAttribute = P11Obj_AttrBacked_peekAttribute;
    c.copy = P11Obj_noThrow<copyKey, P11Obj*, P11Obj*>;
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
    c.decryptInit = P11Obj_noThrow<decryptInit, P11Obj*, P11Session*, CK_MECHANISM_PTR>;
    c.decrypt = P11Obj_noThrow<runRecord, P11Obj*, P11Session*, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR>;
    c.decryptUpdate = notSupportedInOut;
    c.decryptFinal = notSupportedFinal;
    c.signInit = P11Obj_noThrow<signInit, P11Obj*, P11Session*, CK_MECHANISM_PTR>;
    c.sign = P11Obj_noThrow<runRecord, P11Obj*, P11Session*, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR>;
    c.signUpdate = P11Obj_noThrow<signUpdate, P11Obj*, P11Session*, CK_BYTE_PTR, CK_ULONG>;
    c.signFinal = P11Obj_noThrow<signFinal, P11Obj*, P11Session*, CK_BYTE_PTR, CK_ULONG_PTR>;
    c.signRecoverInit = P11Obj_noThrow<signRecoverInit, P11Obj*, P11Session*, CK_MECHANISM_PTR>;
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
    c.unwrapKey = P11Obj_noThrow<unwrapKey, P11Obj*, P11Session*, CK_MECHANISM_PTR, CK_BYTE_PTR, CK_ULONG, P11Obj*>;
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
    const CK_RV rv = P11_bridge([&] {
        const ByteArray digest = Sha256::Hash(ByteArray_constSlice(der, length));
        if (digest.size() != kDigestLength) return CKR_GENERAL_ERROR;
        std::memcpy(info->certDigest, digest.data(), kDigestLength);
        return CKR_OK;
    });
    if (rv != CKR_OK) {
        delete[] info->certDigest;
        info->certDigest = nullptr;
    }
    return rv == CKR_HOST_MEMORY ? rv : rv == CKR_OK ? CKR_OK : CKR_GENERAL_ERROR;
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
