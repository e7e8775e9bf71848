#pragma once
// The SSL 3.0 and TLS 1.0 rows of the software mechanism registry:
// pre-master secret generation, master secret derivation (also from a
// Diffie-Hellman shared secret), the key-and-MAC derivation that makes
// its own key objects, and the TLS pseudo-random function.

#include "pkcs11/sw/P11Mechanism.h"

CK_RV P11SwTls_generatePreMaster(const P11Mechanism& row, P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism);
CK_RV P11SwTls_deriveMaster(const P11Mechanism& row, P11Obj* baseKey, P11Session* session, CK_MECHANISM_PTR mechanism,
                            P11Obj* newKey);
CK_RV P11SwTls_deriveKeys(const P11Mechanism& row, P11Obj* baseKey, P11Session* session, CK_MECHANISM_PTR mechanism,
                          P11Obj* newKey);
CK_RV P11SwTls_prf(const P11Mechanism& row, P11Obj* baseKey, P11Session* session, CK_MECHANISM_PTR mechanism,
                   P11Obj* newKey);
