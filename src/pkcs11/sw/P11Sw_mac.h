#pragma once
// The MAC rows of the software mechanism registry (HMACs, the SSL 3.0
// MACs, and the CBC-MACs of DES, triple DES, AES and RC2, each with its
// _GENERAL form), for signing and verifying, single- and multi-part; and
// PBKDF2 key generation.

#include "pkcs11/sw/P11Mechanism.h"

CK_RV P11SwMac_init(const P11Mechanism& row, P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism,
                    uint32_t operation, P11OperationData** record);

// CKM_PKCS5_PBKD2: a secret key of the template's type (a generic secret
// when it names none) from CK_PKCS5_PBKD2_PARAMS.
CK_RV P11SwPbkdf2_generate(const P11Mechanism& row, P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism);
