#pragma once
// The RSA engine: every RSA mechanism's encoding, size rules and checks,
// shared by the software keys (whose raw operations the crypto core
// computes) and the token's delegated private keys (whose private operation
// the helper program performs). A key's class chooses the mechanisms it
// offers and supplies its raw operations (P11RsaKeyOps); the engine does the
// rest through the record it builds (P11OperationData_rsa).

#include "pkcs11/sw/P11OperationData_rsa.h"

// Whether the engine knows the mechanism and it serves the operation.
bool P11Rsa_serves(CK_MECHANISM_TYPE mechanism, P11RsaOperation operation);

// Reads the mechanism and its parameters for the operation into a new
// record for a key of k bytes and modulusBits bits. CKR_MECHANISM_INVALID
// for a mechanism that does not serve the operation,
// CKR_MECHANISM_PARAM_INVALID for a parameter it cannot take,
// CKR_HOST_MEMORY, CKR_GENERAL_ERROR when a hash does not start. The caller
// owns the record (destroy()), and fills `key` when it has one.
CK_RV P11Rsa_newRecord(CK_MECHANISM_PTR mechanism, P11RsaOperation operation, const P11RsaKeyOps* ops, CK_ULONG k,
                       CK_ULONG modulusBits, P11OperationData_rsa** record);

// The hash identifier of a Cryptoki digest mechanism (CKM_SHA256...) and of
// an MGF1 choice (CKG_MGF1_SHA256...); 0 for others.
int P11Rsa_hashOfMechanism(CK_MECHANISM_TYPE hashAlg);
int P11Rsa_hashOfMgf(CK_RSA_PKCS_MGF_TYPE mgf);

// The bit length of a big-endian number.
CK_ULONG P11Rsa_bitLength(const CK_BYTE* bytes, CK_ULONG length);
