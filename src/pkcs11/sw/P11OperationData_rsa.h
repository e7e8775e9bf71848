#pragma once
// The operation record of every RSA mechanism, for the software keys and for
// the token's delegated private keys alike: the mechanism with its parsed
// parameters, the running hash of a hash-then-sign mechanism, the OAEP
// label, and the key's raw operations. Its steps (P11OperationData) are the
// RSA engine of P11RsaEngine.cpp; destroy() frees the hash, the crypto
// core's key and the label on every path.

#include "crypto/bytes.h"
#include "crypto/hash.h"
#include "pkcs11/P11OperationData.h"

struct rsa_key;
struct P11OperationData_rsa;

// How a key performs the raw RSA operations, and the few answers in which
// the delegated key keeps its own long-standing behaviour.
struct P11RsaKeyOps {
    // The private-key operation on a block: *outLen is the capacity on entry
    // and the length on return; a null `out` asks for the length.
    CK_RV (*privateRaw)(P11OperationData_rsa* record, P11Obj* key, P11Session* session, CK_BYTE_PTR in,
                        CK_ULONG inLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen);
    // The public-key operation into k bytes; null when the key has none.
    CK_RV (*publicRaw)(P11OperationData_rsa* record, CK_BYTE_PTR in, CK_ULONG inLen, CK_BYTE_PTR out);
    // Answer to a ciphertext that is not k bytes long.
    CK_RV ciphertextLengthCode;
    // On a short buffer after decryption, whether *outLen keeps the caller's
    // value instead of receiving the plaintext's length.
    bool shortPlaintextKeepsLength;
    // Answer to an update or final on a single-part mechanism.
    CK_RV singlePartOnlyCode;
    // Whether PKCS #1 v1.5 decryption insists on eight bytes of padding.
    bool strictPadding;
};

// The operation a record serves.
enum P11RsaOperation {
    P11_RSA_ENCRYPT,
    P11_RSA_DECRYPT,
    P11_RSA_SIGN,
    P11_RSA_VERIFY,
    P11_RSA_SIGN_RECOVER,
    P11_RSA_VERIFY_RECOVER
};

struct P11OperationData_rsa : P11OperationData {
    const P11RsaKeyOps* ops = nullptr;
    rsa_key* key = nullptr;  // the software key's numbers in the crypto core (a reference)
    CK_ULONG k = 0;          // modulus length in bytes (0: the key has no modulus)
    CK_ULONG modulusBits = 0;
    CK_MECHANISM_TYPE mechanism = 0;
    P11RsaOperation operation = P11_RSA_SIGN;
    int hashId = 0;         // message hash of a hash-then-sign mechanism, PSS hash, OAEP label hash
    int mgfHashId = 0;      // MGF1 hash of PSS and OAEP
    CK_ULONG sLen = 0;      // PSS salt length
    hash_context* hash = nullptr;  // the running message hash
    crypto_bytes label;     // OAEP encoding parameter, copied at init

    CK_RV destroy() override;
    CK_RV single(P11Obj* key, P11Session* session, CK_BYTE_PTR in, CK_ULONG inLen, CK_BYTE_PTR out,
                 CK_ULONG_PTR outLen) override;
    CK_RV update(P11Obj* key, P11Session* session, CK_BYTE_PTR in, CK_ULONG inLen, CK_BYTE_PTR out,
                 CK_ULONG_PTR outLen) override;
    CK_RV final(P11Obj* key, P11Session* session, CK_BYTE_PTR out, CK_ULONG_PTR outLen) override;
    CK_RV verify(P11Obj* key, P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR signature,
                 CK_ULONG signatureLen) override;
    CK_RV verifyFinal(P11Obj* key, P11Session* session, CK_BYTE_PTR signature, CK_ULONG signatureLen) override;
};
