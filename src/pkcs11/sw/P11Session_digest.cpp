// The message-digest operations of a session, over the crypto core's hash
// engine. Called with the session locked; the session layer decides when
// the operation ends.

#include <new>

#include "crypto/crypto_errors.h"
#include "pkcs11/P11Session.h"
#include "pkcs11/objects/P11Obj.h"
#include "pkcs11/sw/P11OperationData_hashmech.h"

namespace {

// The digest mechanisms and their hash identifiers.
int hashIdOf(CK_MECHANISM_TYPE mechanism)
{
    switch (mechanism) {
    case CKM_MD2: return HASH_MD2;
    case CKM_MD5: return HASH_MD5;
    case CKM_SHA_1: return HASH_SHA1;
    case CKM_RIPEMD160: return HASH_RIPEMD160;
    case CKM_SHA256: return HASH_SHA256;
    case CKM_SHA224: return HASH_SHA224;
    case CKM_SHA384: return HASH_SHA384;
    case CKM_SHA512: return HASH_SHA512;
    default: return 0;
    }
}

// The running digest of the session, or null when none was started.
P11OperationData_hashmech* runningDigest(P11Session* session)
{
    auto* record = static_cast<P11OperationData_hashmech*>(P11Session_peekOperationData(session));
    if (!record || hashIdOf(record->mechanism) == 0 || !record->hash) return nullptr;
    return record;
}

CK_RV finish(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen)
{
    P11OperationData_hashmech* record = runningDigest(session);
    if (!record) return CKR_MECHANISM_INVALID;
    if (!outLen) return CKR_ARGUMENTS_BAD;
    const CK_ULONG length = hash_digestLength(record->hashId);
    if (!out) {
        *outLen = length;
        return CKR_OK;
    }
    if (*outLen < length) {
        *outLen = length;
        return CKR_BUFFER_TOO_SMALL;
    }
    if (dataLen && do_hash(record->hash, data, dataLen) != CRYPTO_OK) return CKR_GENERAL_ERROR;
    hash_context* hash = record->hash;
    record->hash = nullptr;
    if (finish_hash(hash, out) != CRYPTO_OK) {
        abort_hash(hash);
        return CKR_GENERAL_ERROR;
    }
    // The session keeps the finished context for its next digest: making a
    // fresh one per message costs more than hashing a short one.
    abort_hash(session->spareHash);
    session->spareHash = hash;
    *outLen = length;
    return CKR_OK;
}

}  // namespace

CK_RV P11OperationData_hashmech_set(P11Session* session, P11OperationData_hashmech** record)
{
    auto* fresh = new (std::nothrow) P11OperationData_hashmech;
    if (!fresh) return CKR_HOST_MEMORY;
    const CK_RV rv = P11Session_setOperationData(session, fresh);
    if (rv != CKR_OK) {
        fresh->destroy();
        return rv;
    }
    *record = fresh;
    return CKR_OK;
}

CK_RV P11Session_digestInit_do(P11Session* session, CK_MECHANISM_PTR mechanism)
{
    if (!mechanism) return CKR_ARGUMENTS_BAD;
    const int hashId = hashIdOf(mechanism->mechanism);
    if (hashId == 0) return CKR_MECHANISM_INVALID;
    if (mechanism->ulParameterLen != 0) return CKR_MECHANISM_PARAM_INVALID;
    P11OperationData_hashmech* record = nullptr;
    const CK_RV rv = P11OperationData_hashmech_set(session, &record);
    if (rv != CKR_OK) return rv;
    record->hashId = hashId;
    hash_context*& spare = session->spareHash;
    if (spare && hash_id(spare) == hashId && restart_hash(spare) == CRYPTO_OK) {
        record->hash = spare;
        spare = nullptr;
    } else if (start_hash(hashId, &record->hash) != CRYPTO_OK) {
        return CKR_GENERAL_ERROR;
    }
    record->mechanism = mechanism->mechanism;
    return CKR_OK;
}

CK_RV P11Session_digestUpdate_do(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen)
{
    P11OperationData_hashmech* record = runningDigest(session);
    if (!record) return CKR_MECHANISM_INVALID;
    if (dataLen && !data) return CKR_ARGUMENTS_BAD;
    return do_hash(record->hash, data, dataLen) == CRYPTO_OK ? CKR_OK : CKR_GENERAL_ERROR;
}

CK_RV P11Session_digestKey_do(P11Session* session, P11Obj* key)
{
    if (!key) return CKR_KEY_HANDLE_INVALID;
    // The key's value is read under its lock (session mutex, then object).
    P11LockGuard<P11Obj> lock(key, P11Obj_lock, P11Obj_unlock);
    CK_RV rv = lock.lock();
    if (rv != CKR_OK) return rv;
    if (P11Obj_isDead(key)) return lock.release(CKR_KEY_HANDLE_INVALID);
    const CK_ATTRIBUTE* value = nullptr;
    rv = P11Obj_peekAttribute(key, CKA_VALUE, &value);
    if (rv != CKR_OK) return lock.release(rv);
    if (!value) return lock.release(CKR_ATTRIBUTE_TYPE_INVALID);
    P11OperationData_hashmech* record = runningDigest(session);
    if (!record) return lock.release(CKR_MECHANISM_INVALID);
    const bool hashed = do_hash(record->hash, static_cast<const unsigned char*>(value->pValue), value->ulValueLen) == CRYPTO_OK;
    return lock.release(hashed ? CKR_OK : CKR_GENERAL_ERROR);
}

CK_RV P11Session_digest_do(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen)
{
    if (dataLen && !data) return CKR_ARGUMENTS_BAD;
    return finish(session, data, dataLen, out, outLen);
}

CK_RV P11Session_digestFinal_do(P11Session* session, CK_BYTE_PTR out, CK_ULONG_PTR outLen)
{
    return finish(session, nullptr, 0, out, outLen);
}
