#pragma once
// The mechanism state of a session's active operation. The session keeps it
// without looking inside; destroy() frees it (and whatever it holds, such as
// a running hash) when it is replaced or the session ends.

#include "pkcs11/cryptoki.h"

struct P11OperationData {
    virtual CK_RV destroy()
    {
        delete this;
        return CKR_OK;
    }

protected:
    virtual ~P11OperationData() = default;
};
