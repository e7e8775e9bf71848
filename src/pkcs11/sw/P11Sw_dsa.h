#pragma once
// The DSA rows of the software mechanism registry: domain-parameter and
// key-pair generation, CKM_DSA and CKM_DSA_SHA1.

#include "pkcs11/sw/P11Mechanism.h"

CK_RV P11SwDsa_init(const P11Mechanism& row, P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism,
                    uint32_t operation, P11OperationData** record);
CK_RV P11SwDsa_generateParameters(const P11Mechanism& row, P11Obj* object, P11Session* session,
                                  CK_MECHANISM_PTR mechanism);
CK_RV P11SwDsa_generatePair(const P11Mechanism& row, P11Obj* privateKey, P11Obj* publicKey, P11Session* session,
                            CK_MECHANISM_PTR mechanism);
