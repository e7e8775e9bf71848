#pragma once
// Operation state of a running hash: the mechanism, the crypto core's hash
// context and its identifier. Digests keep it in the session; hash-then-sign
// mechanisms use it too.

#include "crypto/hash.h"
#include "pkcs11/P11OperationData.h"

struct P11Session;

struct P11OperationData_hashmech : P11OperationData {
    CK_MECHANISM_TYPE mechanism = CKM_VENDOR_DEFINED;  // none until the hash started
    hash_context* hash = nullptr;
    int hashId = 0;

    CK_RV destroy() override
    {
        abort_hash(hash);
        delete this;
        return CKR_OK;
    }
};

// Installs a fresh hash record in the session's operation-state slot.
CK_RV P11OperationData_hashmech_set(P11Session* session, P11OperationData_hashmech** record);
