#include "pkcs11/sw/P11Sw_cipher.h"

#include <openssl/crypto.h>

#include <cstring>
#include <new>

#include "crypto/bytes.h"
#include "crypto/cipher.h"
#include "crypto/crypto_errors.h"
#include "pkcs11/P11OperationData.h"
#include "pkcs11/objects/P11Obj.h"
#include "pkcs11/sw/P11Sw_keys.h"

namespace {

struct BlockMechanism {
    CK_MECHANISM_TYPE type;
    int family;  // CIPHER_DES, CIPHER_DES3 (two- or three-key), CIPHER_AES, CIPHER_RC2 or CIPHER_RC4
    int mode;
    bool pad;
};

const BlockMechanism kMechanisms[] = {
    {CKM_DES_ECB, CIPHER_DES, CIPHER_ECB, false},   {CKM_DES_CBC, CIPHER_DES, CIPHER_CBC, false},
    {CKM_DES_CBC_PAD, CIPHER_DES, CIPHER_CBC, true}, {CKM_DES3_ECB, CIPHER_DES3, CIPHER_ECB, false},
    {CKM_DES3_CBC, CIPHER_DES3, CIPHER_CBC, false}, {CKM_DES3_CBC_PAD, CIPHER_DES3, CIPHER_CBC, true},
    {CKM_AES_ECB, CIPHER_AES, CIPHER_ECB, false},   {CKM_AES_CBC, CIPHER_AES, CIPHER_CBC, false},
    {CKM_AES_CBC_PAD, CIPHER_AES, CIPHER_CBC, true},  {CKM_RC2_ECB, CIPHER_RC2, CIPHER_ECB, false},
    {CKM_RC2_CBC, CIPHER_RC2, CIPHER_CBC, false},   {CKM_RC2_CBC_PAD, CIPHER_RC2, CIPHER_CBC, true},
    {CKM_RC4, CIPHER_RC4, CIPHER_STREAM, false},
};

// The cipher algorithm for the key type, when the mechanism takes it.
int algorithmFor(const BlockMechanism& m, CK_KEY_TYPE keyType)
{
    if (m.family == CIPHER_DES) return keyType == CKK_DES ? CIPHER_DES : 0;
    if (m.family == CIPHER_DES3) return keyType == CKK_DES2 ? CIPHER_DES2 : keyType == CKK_DES3 ? CIPHER_DES3 : 0;
    if (m.family == CIPHER_RC2) return keyType == CKK_RC2 ? CIPHER_RC2 : 0;
    if (m.family == CIPHER_RC4) return keyType == CKK_RC4 ? CIPHER_RC4 : 0;
    return keyType == CKK_AES ? CIPHER_AES : 0;
}

// A block cipher's operation. Partial blocks wait in `pending`, so every
// call knows exactly how much output it gives. Decryption with padding
// holds back the last whole block until the final call, which removes the
// padding; once deciphered, that block waits in `last` for a caller whose
// buffer was too small.
struct P11OperationData_cipher : P11OperationData {
    cipher_context* ctx = nullptr;
    bool encrypt = true;
    bool pad = false;
    size_t block = 0;
    crypto_bytes pending;
    crypto_bytes last;
    bool lastReady = false;

    CK_RV destroy() override
    {
        cipher_free(ctx);
        delete this;
        return CKR_OK;
    }

    CK_RV incomplete() const { return encrypt ? CKR_DATA_LEN_RANGE : CKR_ENCRYPTED_DATA_LEN_RANGE; }

    // The output an update with inLen more bytes gives.
    size_t updateOutput(size_t inLen) const
    {
        const size_t total = pending.size() + inLen;
        if (!encrypt && pad) return total ? (total - 1) / block * block : 0;
        return total / block * block;
    }

    CK_RV update(P11Obj*, P11Session*, CK_BYTE_PTR in, CK_ULONG inLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen) override
    {
        if (!outLen || (!in && inLen)) return CKR_ARGUMENTS_BAD;
        const size_t produce = updateOutput(inLen);
        if (!out) {
            *outLen = CK_ULONG(produce);
            return CKR_OK;
        }
        if (*outLen < produce) {
            *outLen = CK_ULONG(produce);
            return CKR_BUFFER_TOO_SMALL;
        }
        // Whole blocks go from the caller's input straight to its output;
        // only a block begun by earlier parts passes through `pending`.
        size_t written = 0;
        if (produce && !pending.empty()) {
            const size_t take = block - pending.size();
            pending.insert(pending.end(), in, in + take);
            if (cipher_blocks(ctx, pending.data(), block, out) != CRYPTO_OK) return CKR_FUNCTION_FAILED;
            pending.clear();
            written = block;
            in += take;
            inLen -= CK_ULONG(take);
        }
        if (cipher_blocks(ctx, in, produce - written, out + written) != CRYPTO_OK) return CKR_FUNCTION_FAILED;
        in += produce - written;
        inLen -= CK_ULONG(produce - written);
        if (inLen) pending.insert(pending.end(), in, in + inLen);
        *outLen = CK_ULONG(produce);
        return CKR_OK;
    }

    CK_RV final(P11Obj*, P11Session*, CK_BYTE_PTR out, CK_ULONG_PTR outLen) override
    {
        if (!outLen) return CKR_ARGUMENTS_BAD;
        if (!pad) {
            if (!pending.empty()) return incomplete();
            *outLen = 0;
            return CKR_OK;
        }
        if (encrypt) {
            if (!out) {
                *outLen = CK_ULONG(block);
                return CKR_OK;
            }
            if (*outLen < block) {
                *outLen = CK_ULONG(block);
                return CKR_BUFFER_TOO_SMALL;
            }
            crypto_bytes padded(pending);
            padded.resize(block, CK_BYTE(block - pending.size()));
            if (cipher_blocks(ctx, padded.data(), block, out) != CRYPTO_OK) return CKR_FUNCTION_FAILED;
            pending.clear();
            *outLen = CK_ULONG(block);
            return CKR_OK;
        }
        if (!lastReady) {
            if (pending.size() != block) return CKR_ENCRYPTED_DATA_LEN_RANGE;
            last.assign(block, 0);
            if (cipher_blocks(ctx, pending.data(), block, last.data()) != CRYPTO_OK) return CKR_FUNCTION_FAILED;
            const size_t padLen = last[block - 1];
            if (padLen == 0 || padLen > block) return CKR_ENCRYPTED_DATA_INVALID;
            for (size_t i = block - padLen; i < block; ++i)
                if (last[i] != padLen) return CKR_ENCRYPTED_DATA_INVALID;
            last.resize(block - padLen);
            pending.clear();
            lastReady = true;
        }
        if (!out) {
            *outLen = CK_ULONG(last.size());
            return CKR_OK;
        }
        if (*outLen < last.size()) {
            *outLen = CK_ULONG(last.size());
            return CKR_BUFFER_TOO_SMALL;
        }
        if (!last.empty()) std::memcpy(out, last.data(), last.size());
        *outLen = CK_ULONG(last.size());
        return CKR_OK;
    }

    // Single-part: the whole input and the final part in one call. After
    // updates it finishes their operation, so the bytes they left pending
    // count too. A size query may exceed the exact length by the padding
    // (at most a block).
    CK_RV single(P11Obj* key, P11Session* session, CK_BYTE_PTR in, CK_ULONG inLen, CK_BYTE_PTR out,
                 CK_ULONG_PTR outLen) override
    {
        if (!outLen || (!in && inLen)) return CKR_ARGUMENTS_BAD;
        const size_t whole = pending.size() + inLen;
        if (!pad && whole % block) return incomplete();
        if (pad && !encrypt && (whole == 0 || whole % block)) return CKR_ENCRYPTED_DATA_LEN_RANGE;
        const size_t bound = pad && encrypt ? (whole / block + 1) * block : whole;
        if (!out) {
            *outLen = CK_ULONG(bound);
            return CKR_OK;
        }
        if (*outLen < bound && !(pad && !encrypt)) {
            *outLen = CK_ULONG(bound);
            return CKR_BUFFER_TOO_SMALL;
        }
        // With room for the largest result, the work is done in place; a
        // failure (bad padding) wipes what was written, and ends the operation.
        if (*outLen >= bound) {
            CK_ULONG produced = *outLen, tail = 0;
            CK_RV rv = update(key, session, in, inLen, out, &produced);
            if (rv == CKR_OK) {
                tail = *outLen - produced;
                rv = final(key, session, out + produced, &tail);
            }
            if (rv != CKR_OK) {
                if (bound) OPENSSL_cleanse(out, bound);
                return rv;
            }
            *outLen = produced + tail;
            return CKR_OK;
        }
        // A padded decryption into a buffer that may be too small is worked
        // in a buffer of our own on a copy of the cipher state, which
        // replaces the state only when the result fits: after a short
        // buffer the caller's retry starts from where this one did.
        cipher_context* saved = nullptr;
        if (cipher_clone(ctx, &saved) != CRYPTO_OK) return CKR_HOST_MEMORY;
        const crypto_bytes savedPending = pending;
        crypto_bytes result(bound ? bound : 1);
        CK_ULONG produced = CK_ULONG(bound), tail = CK_ULONG(block);
        CK_RV rv = update(key, session, in, inLen, result.data(), &produced);
        if (rv == CKR_OK) rv = final(key, session, result.data() + produced, &tail);
        const size_t total = rv == CKR_OK ? produced + tail : 0;
        if (rv == CKR_OK && *outLen < total) {
            cipher_free(ctx);
            ctx = saved;
            pending = savedPending;
            lastReady = false;
            *outLen = CK_ULONG(total);
            return CKR_BUFFER_TOO_SMALL;
        }
        cipher_free(saved);
        if (rv != CKR_OK) return rv;
        if (total) std::memcpy(out, result.data(), total);
        *outLen = CK_ULONG(total);
        return CKR_OK;
    }
};

// The IV of a CBC mode, and RC2's effective key bits: RC2 in ECB takes
// them alone, in CBC with the IV.
CK_RV parameters(const BlockMechanism& m, size_t block, CK_MECHANISM_PTR mechanism, const CK_BYTE** iv,
                 unsigned* effectiveBits)
{
    const void* p = mechanism->pParameter;
    const CK_ULONG length = mechanism->ulParameterLen;
    if (m.family == CIPHER_RC2) {
        CK_ULONG bits = 0;
        if (m.mode == CIPHER_CBC) {
            if (!p || length != sizeof(CK_RC2_CBC_PARAMS)) return CKR_MECHANISM_PARAM_INVALID;
            const auto* params = static_cast<const CK_RC2_CBC_PARAMS*>(p);
            bits = params->ulEffectiveBits;
            *iv = params->iv;
        } else {
            if (!p || length != sizeof(CK_RC2_PARAMS)) return CKR_MECHANISM_PARAM_INVALID;
            bits = *static_cast<const CK_RC2_PARAMS*>(p);
        }
        if (bits < 1 || bits > 1024) return CKR_MECHANISM_PARAM_INVALID;
        *effectiveBits = unsigned(bits);
        return CKR_OK;
    }
    if (m.mode == CIPHER_CBC) {
        if (!p || length != block) return CKR_MECHANISM_PARAM_INVALID;
        *iv = static_cast<const CK_BYTE*>(p);
        return CKR_OK;
    }
    return length == 0 ? CKR_OK : CKR_MECHANISM_PARAM_INVALID;
}

}  // namespace

CK_RV P11SwCipher_init(const P11Mechanism& row, P11Obj* key, P11Session*, CK_MECHANISM_PTR mechanism, uint32_t operation,
                       P11OperationData** out)
{
    const BlockMechanism* m = nullptr;
    for (const BlockMechanism& candidate : kMechanisms)
        if (candidate.type == row.type) m = &candidate;
    if (!m) return CKR_MECHANISM_INVALID;
    CK_KEY_TYPE keyType = 0;
    CK_RV rv = P11Obj_getUlongValue(key, CKA_KEY_TYPE, &keyType);
    if (rv != CKR_OK) return rv;
    const int algorithm = algorithmFor(*m, keyType);
    if (!algorithm) {
        if (operation == P11_USE_WRAP) return CKR_WRAPPING_KEY_TYPE_INCONSISTENT;
        if (operation == P11_USE_UNWRAP) return CKR_UNWRAPPING_KEY_TYPE_INCONSISTENT;
        return CKR_KEY_TYPE_INCONSISTENT;
    }
    const size_t block = cipher_block_size(algorithm);
    const CK_BYTE* iv = nullptr;
    unsigned effectiveBits = 0;
    rv = parameters(*m, block, mechanism, &iv, &effectiveBits);
    if (rv != CKR_OK) return rv;
    crypto_bytes value;
    rv = P11SwKeys_readNumber(key, CKA_VALUE, &value);
    if (rv != CKR_OK) return rv;
    auto* record = new (std::nothrow) P11OperationData_cipher;
    if (!record) return CKR_HOST_MEMORY;
    record->encrypt = operation == P11_USE_ENCRYPT || operation == P11_USE_WRAP;
    record->pad = m->pad;
    record->block = block;
    const int rc =
        cipher_start(algorithm, m->mode, record->encrypt, value.data(), value.size(), iv, &record->ctx, effectiveBits);
    if (rc != CRYPTO_OK) {
        record->destroy();
        return rc == CRYPTO_ERR_BAD_PARAMETER ? CKR_KEY_SIZE_RANGE : P11SwKeys_code(rc);
    }
    *out = record;
    return CKR_OK;
}
