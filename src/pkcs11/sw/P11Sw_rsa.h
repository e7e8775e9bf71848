#pragma once
// The RSA rows of the software mechanism registry: operation records over
// the RSA engine with the crypto core's raw operations, and key-pair
// generation.

#include "pkcs11/sw/P11Mechanism.h"

CK_RV P11SwRsa_init(const P11Mechanism& row, P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism,
                    uint32_t operation, P11OperationData** record);
CK_RV P11SwRsa_generatePair(const P11Mechanism& row, P11Obj* privateKey, P11Obj* publicKey, P11Session* session,
                            CK_MECHANISM_PTR mechanism);
