#pragma once
// The block-cipher rows of the software mechanism registry: DES, triple DES
// (two- and three-key) and AES in ECB, CBC and CBC with PKCS padding, for
// encryption, decryption, wrapping and unwrapping, single- and multi-part.

#include "pkcs11/sw/P11Mechanism.h"

CK_RV P11SwCipher_init(const P11Mechanism& row, P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism,
                       uint32_t operation, P11OperationData** record);

// AES in GCM and CCM (CK_GCM_PARAMS in its current and its earlier
// five-field layout, CK_CCM_PARAMS), for the same uses.
CK_RV P11SwAead_init(const P11Mechanism& row, P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism,
                     uint32_t operation, P11OperationData** record);
