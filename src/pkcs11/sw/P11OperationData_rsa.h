#pragma once
// Operation state of the RSA sign and decrypt mechanisms: the mechanism
// alone, the PSS parameters with the running message hash, or the OAEP
// encoding parameter. (Hash-then-sign PKCS #1 uses P11OperationData_hashmech.)

#include <vector>

#include "crypto/hash.h"
#include "pkcs11/P11OperationData.h"

struct P11OperationData_simple : P11OperationData {
    explicit P11OperationData_simple(CK_MECHANISM_TYPE m) : mechanism(m) {}
    CK_MECHANISM_TYPE mechanism;
};

struct P11OperationData_RSA_PSS : P11OperationData {
    CK_MECHANISM_TYPE mechanism = CKM_RSA_PKCS_PSS;
    int hashId = 0;
    int mgfHashId = 0;
    CK_ULONG sLen = 0;
    hash_context* hash = nullptr;  // none for CKM_RSA_PKCS_PSS, which signs a digest

    CK_RV destroy() override
    {
        abort_hash(hash);
        delete this;
        return CKR_OK;
    }
};

// The encoding parameter is copied: the application's buffer need not
// outlive C_DecryptInit.
struct P11OperationData_RSA_OAEP : P11OperationData {
    CK_MECHANISM_TYPE mechanism = CKM_RSA_PKCS_OAEP;
    std::vector<CK_BYTE> sourceData;
};
