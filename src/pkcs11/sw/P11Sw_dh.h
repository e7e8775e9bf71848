#pragma once
// The Diffie-Hellman rows of the software mechanism registry, PKCS #3 and
// X9.42: domain-parameter and key-pair generation, and key derivation.

#include "pkcs11/sw/P11Mechanism.h"

CK_RV P11SwDh_generateParameters(const P11Mechanism& row, P11Obj* object, P11Session* session,
                                 CK_MECHANISM_PTR mechanism);
CK_RV P11SwDh_generatePair(const P11Mechanism& row, P11Obj* privateKey, P11Obj* publicKey, P11Session* session,
                           CK_MECHANISM_PTR mechanism);
CK_RV P11SwDh_derive(const P11Mechanism& row, P11Obj* baseKey, P11Session* session, CK_MECHANISM_PTR mechanism,
                     P11Obj* newKey);
