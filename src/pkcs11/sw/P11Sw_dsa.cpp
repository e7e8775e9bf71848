#include "pkcs11/sw/P11Sw_dsa.h"

#include <new>

#include "crypto/crypto_errors.h"
#include "crypto/dsa.h"
#include "crypto/hash.h"
#include "pkcs11/P11OperationData.h"
#include "pkcs11/objects/P11Obj.h"
#include "pkcs11/sw/P11Sw_keys.h"

namespace {

// DSA signing and verification: CKM_DSA over a digest the caller computed
// (single-part), CKM_DSA_SHA1 over a message hashed with SHA-1 (single- or
// multi-part). The signature is r || s, each as long as q.
struct P11OperationData_dsa : P11OperationData {
    CK_MECHANISM_TYPE mechanism = CKM_DSA;
    bool signing = true;
    dsa_params params;
    crypto_bytes value;            // x to sign, y to verify
    hash_context* hash = nullptr;  // CKM_DSA_SHA1's running hash

    CK_RV destroy() override
    {
        abort_hash(hash);
        delete this;
        return CKR_OK;
    }

    CK_ULONG signatureLength() const { return CK_ULONG(dsa_signature_length(params)); }

    // The digest to sign or check: the caller's for CKM_DSA, the finished
    // hash for CKM_DSA_SHA1.
    CK_RV digestOf(CK_BYTE_PTR data, CK_ULONG dataLen, crypto_bytes* digest)
    {
        if (!data && dataLen) return CKR_ARGUMENTS_BAD;
        if (mechanism == CKM_DSA) {
            if (dataLen == 0 || dataLen > HASH_MAX_DIGEST_LENGTH) return CKR_DATA_LEN_RANGE;
            digest->assign(data, data + dataLen);
            return CKR_OK;
        }
        if (!hash) return CKR_GENERAL_ERROR;
        hash_context* running = hash;
        hash = nullptr;
        digest->assign(hash_digestLength(HASH_SHA1), 0);
        if (dataLen && do_hash(running, data, dataLen) != CRYPTO_OK) {
            abort_hash(running);
            return CKR_GENERAL_ERROR;
        }
        return stop_hash(running, digest->data()) == CRYPTO_OK ? CKR_OK : CKR_GENERAL_ERROR;
    }

    CK_RV sign(CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen)
    {
        if (!outLen) return CKR_ARGUMENTS_BAD;
        const CK_ULONG length = signatureLength();
        // A size query or a short buffer leaves a running hash untouched.
        if (!out) {
            *outLen = length;
            return CKR_OK;
        }
        if (*outLen < length) {
            *outLen = length;
            return CKR_BUFFER_TOO_SMALL;
        }
        crypto_bytes digest;
        CK_RV rv = digestOf(data, dataLen, &digest);
        if (rv != CKR_OK) return rv;
        size_t produced = *outLen;
        const int rc = dsa_sign(params, value, digest.data(), digest.size(), out, &produced);
        if (rc != CRYPTO_OK) return rc == CRYPTO_ERR_NO_MEMORY ? CKR_HOST_MEMORY : CKR_FUNCTION_FAILED;
        *outLen = CK_ULONG(produced);
        return CKR_OK;
    }

    CK_RV check(CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR signature, CK_ULONG signatureLen)
    {
        if (!signature) return CKR_ARGUMENTS_BAD;
        if (signatureLen != signatureLength()) return CKR_SIGNATURE_LEN_RANGE;
        crypto_bytes digest;
        const CK_RV rv = digestOf(data, dataLen, &digest);
        if (rv != CKR_OK) return rv;
        switch (dsa_verify(params, value.data(), value.size(), digest.data(), digest.size(), signature, signatureLen)) {
        case CRYPTO_OK: return CKR_OK;
        case CRYPTO_ERR_VERIFY_FAILED: return CKR_SIGNATURE_INVALID;
        case CRYPTO_ERR_DATA_RANGE: return CKR_SIGNATURE_LEN_RANGE;
        case CRYPTO_ERR_NO_MEMORY: return CKR_HOST_MEMORY;
        default: return CKR_FUNCTION_FAILED;
        }
    }

    CK_RV single(P11Obj*, P11Session*, CK_BYTE_PTR in, CK_ULONG inLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen) override
    {
        return signing ? sign(in, inLen, out, outLen) : CKR_FUNCTION_NOT_SUPPORTED;
    }
    CK_RV update(P11Obj*, P11Session*, CK_BYTE_PTR in, CK_ULONG inLen, CK_BYTE_PTR, CK_ULONG_PTR) override
    {
        if (mechanism == CKM_DSA) return CKR_FUNCTION_NOT_SUPPORTED;
        if (!in && inLen) return CKR_ARGUMENTS_BAD;
        if (!hash || (inLen && do_hash(hash, in, inLen) != CRYPTO_OK)) return CKR_GENERAL_ERROR;
        return CKR_OK;
    }
    CK_RV final(P11Obj*, P11Session*, CK_BYTE_PTR out, CK_ULONG_PTR outLen) override
    {
        if (!signing || mechanism == CKM_DSA) return CKR_FUNCTION_NOT_SUPPORTED;
        return sign(nullptr, 0, out, outLen);
    }
    CK_RV verify(P11Obj*, P11Session*, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR signature,
                 CK_ULONG signatureLen) override
    {
        return signing ? CKR_FUNCTION_NOT_SUPPORTED : check(data, dataLen, signature, signatureLen);
    }
    CK_RV verifyFinal(P11Obj*, P11Session*, CK_BYTE_PTR signature, CK_ULONG signatureLen) override
    {
        if (signing || mechanism == CKM_DSA) return CKR_FUNCTION_NOT_SUPPORTED;
        return check(nullptr, 0, signature, signatureLen);
    }
};

CK_RV readParams(P11Obj* object, dsa_params* params)
{
    CK_RV rv = P11SwKeys_readNumber(object, CKA_PRIME, &params->p);
    if (rv == CKR_OK) rv = P11SwKeys_readNumber(object, CKA_SUBPRIME, &params->q);
    if (rv == CKR_OK) rv = P11SwKeys_readNumber(object, CKA_BASE, &params->g);
    if (rv == CKR_OK && (params->p.empty() || params->q.empty() || params->g.empty())) rv = CKR_TEMPLATE_INCOMPLETE;
    return rv;
}

CK_RV storeParams(P11Obj* object, const dsa_params& params)
{
    CK_RV rv = P11SwKeys_setNumber(object, CKA_PRIME, params.p);
    if (rv == CKR_OK) rv = P11SwKeys_setNumber(object, CKA_SUBPRIME, params.q);
    if (rv == CKR_OK) rv = P11SwKeys_setNumber(object, CKA_BASE, params.g);
    return rv;
}

}  // namespace

CK_RV P11SwDsa_init(const P11Mechanism&, P11Obj* key, P11Session*, CK_MECHANISM_PTR mechanism, uint32_t operation,
                    P11OperationData** out)
{
    if (mechanism->ulParameterLen != 0) return CKR_MECHANISM_PARAM_INVALID;
    auto* record = new (std::nothrow) P11OperationData_dsa;
    if (!record) return CKR_HOST_MEMORY;
    record->mechanism = mechanism->mechanism;
    record->signing = operation == P11_USE_SIGN;
    CK_RV rv = readParams(key, &record->params);
    if (rv == CKR_OK) rv = P11SwKeys_readNumber(key, CKA_VALUE, &record->value);
    if (rv == CKR_OK && (record->value.empty() || record->signatureLength() == 0)) rv = CKR_KEY_TYPE_INCONSISTENT;
    if (rv == CKR_OK && record->mechanism == CKM_DSA_SHA1 && start_hash(HASH_SHA1, &record->hash) != CRYPTO_OK)
        rv = CKR_GENERAL_ERROR;
    if (rv != CKR_OK) {
        record->destroy();
        return rv;
    }
    *out = record;
    return CKR_OK;
}

CK_RV P11SwDsa_generateParameters(const P11Mechanism&, P11Obj* object, P11Session*, CK_MECHANISM_PTR mechanism)
{
    if (mechanism->ulParameterLen != 0) return CKR_MECHANISM_PARAM_INVALID;
    CK_ULONG bits = 0;
    CK_RV rv = P11Obj_getUlongValue(object, CKA_PRIME_BITS, &bits);
    if (rv != CKR_OK) return rv;
    dsa_params params;
    const int rc = dsa_generate_params(unsigned(bits), &params);
    if (rc == CRYPTO_ERR_BAD_PARAMETER) return CKR_KEY_SIZE_RANGE;
    if (rc != CRYPTO_OK) return P11SwKeys_code(rc);
    rv = P11SwKeys_setHead(object, CKO_DOMAIN_PARAMETERS, CKK_DSA, mechanism->mechanism);
    if (rv == CKR_OK) rv = storeParams(object, params);
    return rv;
}

CK_RV P11SwDsa_generatePair(const P11Mechanism&, P11Obj* privateKey, P11Obj* publicKey, P11Session*,
                            CK_MECHANISM_PTR mechanism)
{
    if (mechanism->ulParameterLen != 0) return CKR_MECHANISM_PARAM_INVALID;
    dsa_params params;
    CK_RV rv = readParams(publicKey, &params);
    if (rv != CKR_OK) return rv;
    if (dsa_check_params(params) != CRYPTO_OK) return CKR_DOMAIN_PARAMS_INVALID;
    crypto_bytes x, y;
    const int rc = dsa_generate_key(params, &x, &y);
    if (rc != CRYPTO_OK) return P11SwKeys_code(rc);
    rv = P11SwKeys_setHead(publicKey, CKO_PUBLIC_KEY, CKK_DSA, mechanism->mechanism);
    if (rv == CKR_OK) rv = P11SwKeys_setNumber(publicKey, CKA_VALUE, y);
    if (rv == CKR_OK) rv = P11SwKeys_setHead(privateKey, CKO_PRIVATE_KEY, CKK_DSA, mechanism->mechanism);
    if (rv == CKR_OK) rv = storeParams(privateKey, params);
    if (rv == CKR_OK) rv = P11SwKeys_setNumber(privateKey, CKA_VALUE, x);
    return rv;
}
