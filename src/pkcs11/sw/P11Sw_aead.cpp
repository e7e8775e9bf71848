// AES-GCM and AES-CCM operations. A message is authenticated as a whole,
// so the record gathers every part and does the work in the final step:
// updates give no output, and a decryption gives out nothing until its tag
// held. Every size is known before the work is done, so a short buffer or
// a size query leaves the operation as it was.

#include <cstring>
#include <new>

#include "crypto/aead.h"
#include "crypto/bytes.h"
#include "crypto/crypto_errors.h"
#include "pkcs11/P11OperationData.h"
#include "pkcs11/objects/P11Obj.h"
#include "pkcs11/sw/P11Sw_cipher.h"
#include "pkcs11/sw/P11Sw_keys.h"

namespace {

// The five-field GCM parameters of earlier headers (no ulIvBits), which
// applications built against them still pass.
struct GcmParamsWithoutIvBits {
    CK_BYTE_PTR pIv;
    CK_ULONG ulIvLen;
    CK_BYTE_PTR pAAD;
    CK_ULONG ulAADLen;
    CK_ULONG ulTagBits;
};

constexpr size_t kAnyLength = size_t(-1);

struct P11OperationData_aead : P11OperationData {
    int mode = AEAD_GCM;
    bool encrypt = true;
    crypto_bytes key, iv, aad;
    size_t tagLen = 0;
    size_t dataLen = kAnyLength;  // CCM: the plaintext length the parameters announced
    crypto_bytes input;

    CK_RV destroy() override
    {
        delete this;
        return CKR_OK;
    }

    // The output for `total` input bytes, or a failure for a length that
    // cannot be right.
    CK_RV outputFor(size_t total, size_t* size) const
    {
        const size_t plain = encrypt ? total : total - tagLen;
        if (!encrypt && total < tagLen) return CKR_ENCRYPTED_DATA_LEN_RANGE;
        if (dataLen != kAnyLength && plain != dataLen)
            return encrypt ? CKR_DATA_LEN_RANGE : CKR_ENCRYPTED_DATA_LEN_RANGE;
        *size = encrypt ? total + tagLen : plain;
        return CKR_OK;
    }

    CK_RV run(const crypto_bytes& data, CK_BYTE_PTR out) const
    {
        const aead_message message{key.data(), key.size(), iv.data(), iv.size(),
                                   aad.empty() ? nullptr : aad.data(), aad.size(), tagLen};
        const int rc = encrypt ? aead_seal(mode, message, data.data(), data.size(), out)
                               : aead_open(mode, message, data.data(), data.size(), out);
        if (rc == CRYPTO_ERR_VERIFY_FAILED) return CKR_ENCRYPTED_DATA_INVALID;
        if (rc == CRYPTO_ERR_BAD_PARAMETER) return encrypt ? CKR_DATA_LEN_RANGE : CKR_ENCRYPTED_DATA_LEN_RANGE;
        return P11SwKeys_code(rc);
    }

    // Works over everything gathered once the caller's buffer is known to fit.
    CK_RV finish(const crypto_bytes& data, CK_BYTE_PTR out, CK_ULONG_PTR outLen) const
    {
        size_t size = 0;
        CK_RV rv = outputFor(data.size(), &size);
        if (rv != CKR_OK) return rv;
        if (!out || *outLen < size) {
            *outLen = CK_ULONG(size);
            return out ? CKR_BUFFER_TOO_SMALL : CKR_OK;
        }
        // Deciphered bytes reach the caller's buffer only after the tag held.
        crypto_bytes result(size ? size : 1);
        rv = run(data, result.data());
        if (rv != CKR_OK) return rv;
        if (size) std::memcpy(out, result.data(), size);
        *outLen = CK_ULONG(size);
        return CKR_OK;
    }

    // Parts are gathered; a null output asks for the size (none) and
    // leaves the part for the call that follows.
    CK_RV update(P11Obj*, P11Session*, CK_BYTE_PTR in, CK_ULONG inLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen) override
    {
        if (!outLen || (!in && inLen)) return CKR_ARGUMENTS_BAD;
        if (out && inLen) input.insert(input.end(), in, in + inLen);
        *outLen = 0;
        return CKR_OK;
    }

    CK_RV final(P11Obj*, P11Session*, CK_BYTE_PTR out, CK_ULONG_PTR outLen) override
    {
        if (!outLen) return CKR_ARGUMENTS_BAD;
        return finish(input, out, outLen);
    }

    CK_RV single(P11Obj*, P11Session*, CK_BYTE_PTR in, CK_ULONG inLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen) override
    {
        if (!outLen || (!in && inLen)) return CKR_ARGUMENTS_BAD;
        crypto_bytes data(input);
        if (inLen) data.insert(data.end(), in, in + inLen);
        return finish(data, out, outLen);
    }
};

bool copyField(const CK_BYTE* bytes, CK_ULONG length, crypto_bytes* into)
{
    if (length && !bytes) return false;
    into->assign(bytes, bytes + length);
    return true;
}

CK_RV readGcm(CK_MECHANISM_PTR mechanism, P11OperationData_aead* record)
{
    const void* p = mechanism->pParameter;
    CK_BYTE_PTR iv = nullptr, aad = nullptr;
    CK_ULONG ivLen = 0, aadLen = 0, tagBits = 0;
    if (p && mechanism->ulParameterLen == sizeof(CK_GCM_PARAMS_V3)) {
        const auto* params = static_cast<const CK_GCM_PARAMS_V3*>(p);
        iv = params->pIv, ivLen = params->ulIvLen, aad = params->pAAD, aadLen = params->ulAADLen;
        tagBits = params->ulTagBits;
    } else if (p && mechanism->ulParameterLen == sizeof(GcmParamsWithoutIvBits)) {
        const auto* params = static_cast<const GcmParamsWithoutIvBits*>(p);
        iv = params->pIv, ivLen = params->ulIvLen, aad = params->pAAD, aadLen = params->ulAADLen;
        tagBits = params->ulTagBits;
    } else {
        return CKR_MECHANISM_PARAM_INVALID;
    }
    if (ivLen < 1 || !iv || tagBits < 8 || tagBits > 128 || tagBits % 8 || !copyField(iv, ivLen, &record->iv) ||
        !copyField(aad, aadLen, &record->aad))
        return CKR_MECHANISM_PARAM_INVALID;
    record->tagLen = tagBits / 8;
    return CKR_OK;
}

CK_RV readCcm(CK_MECHANISM_PTR mechanism, P11OperationData_aead* record)
{
    if (!mechanism->pParameter || mechanism->ulParameterLen != sizeof(CK_CCM_PARAMS)) return CKR_MECHANISM_PARAM_INVALID;
    const auto* params = static_cast<const CK_CCM_PARAMS*>(mechanism->pParameter);
    const CK_ULONG nonceLen = params->ulNonceLen, macLen = params->ulMACLen;
    if (nonceLen < 7 || nonceLen > 13 || !params->pNonce || macLen < 4 || macLen > 16 || macLen % 2 ||
        !copyField(params->pNonce, nonceLen, &record->iv) || !copyField(params->pAAD, params->ulAADLen, &record->aad))
        return CKR_MECHANISM_PARAM_INVALID;
    // The length field of the first block has 15 - nonce length bytes.
    const size_t lengthBytes = 15 - nonceLen;
    if (lengthBytes < sizeof(CK_ULONG) && params->ulDataLen >> (8 * lengthBytes)) return CKR_MECHANISM_PARAM_INVALID;
    record->tagLen = macLen;
    record->dataLen = params->ulDataLen;
    return CKR_OK;
}

}  // namespace

CK_RV P11SwAead_init(const P11Mechanism& row, P11Obj* key, P11Session*, CK_MECHANISM_PTR mechanism, uint32_t operation,
                     P11OperationData** out)
{
    CK_KEY_TYPE keyType = 0;
    CK_RV rv = P11Obj_getUlongValue(key, CKA_KEY_TYPE, &keyType);
    if (rv != CKR_OK) return rv;
    if (keyType != CKK_AES) {
        if (operation == P11_USE_WRAP) return CKR_WRAPPING_KEY_TYPE_INCONSISTENT;
        if (operation == P11_USE_UNWRAP) return CKR_UNWRAPPING_KEY_TYPE_INCONSISTENT;
        return CKR_KEY_TYPE_INCONSISTENT;
    }
    auto* record = new (std::nothrow) P11OperationData_aead;
    if (!record) return CKR_HOST_MEMORY;
    record->mode = row.type == CKM_AES_CCM ? AEAD_CCM : AEAD_GCM;
    record->encrypt = operation == P11_USE_ENCRYPT || operation == P11_USE_WRAP;
    rv = record->mode == AEAD_CCM ? readCcm(mechanism, record) : readGcm(mechanism, record);
    if (rv == CKR_OK) rv = P11SwKeys_readNumber(key, CKA_VALUE, &record->key);
    if (rv == CKR_OK && record->key.size() != 16 && record->key.size() != 24 && record->key.size() != 32)
        rv = CKR_KEY_SIZE_RANGE;
    if (rv != CKR_OK) {
        record->destroy();
        return rv;
    }
    *out = record;
    return CKR_OK;
}
