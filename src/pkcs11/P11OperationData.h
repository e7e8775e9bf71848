#pragma once
// The mechanism state of a session's active operation. The session keeps it
// without looking inside; destroy() frees it (and whatever it holds: a
// running hash, a key of the crypto core, buffered data) when it is
// replaced, when the operation ends on any path, and when the session ends.
//
// A record also carries the steps of its operation, so the class members of
// a key hand each call to the record the init built for it, without asking
// what kind of record it is. A step a record does not offer answers
// CKR_FUNCTION_NOT_SUPPORTED. Every step gets the key (locked by its
// dispatcher) and the session (locked by the session layer).

#include "pkcs11/cryptoki.h"

struct P11Obj;
struct P11Session;

struct P11OperationData {
    virtual CK_RV destroy()
    {
        delete this;
        return CKR_OK;
    }

    // Single-part encrypt, decrypt, sign, sign-recover and verify-recover.
    virtual CK_RV single(P11Obj*, P11Session*, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR)
    {
        return CKR_FUNCTION_NOT_SUPPORTED;
    }
    // A further part. Encryption and decryption write output; signing and
    // verification pass a null output and length.
    virtual CK_RV update(P11Obj*, P11Session*, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR)
    {
        return CKR_FUNCTION_NOT_SUPPORTED;
    }
    // The last part of encryption, decryption or signing.
    virtual CK_RV final(P11Obj*, P11Session*, CK_BYTE_PTR, CK_ULONG_PTR) { return CKR_FUNCTION_NOT_SUPPORTED; }
    // Single-part verification of data against a signature, and the last
    // part of a multi-part one.
    virtual CK_RV verify(P11Obj*, P11Session*, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG)
    {
        return CKR_FUNCTION_NOT_SUPPORTED;
    }
    virtual CK_RV verifyFinal(P11Obj*, P11Session*, CK_BYTE_PTR, CK_ULONG) { return CKR_FUNCTION_NOT_SUPPORTED; }

protected:
    virtual ~P11OperationData() = default;
};
