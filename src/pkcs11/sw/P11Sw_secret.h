#pragma once
// The secret-key generation rows of the software mechanism registry: DES
// (single, two- and three-key), AES, RC2, RC4 and generic secrets.

#include "pkcs11/sw/P11Mechanism.h"

CK_RV P11SwSecret_generate(const P11Mechanism& row, P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism);

// Sets each byte's lowest bit so that the byte has an odd number of ones,
// as DES keys have.
void P11SwSecret_setOddParity(CK_BYTE* bytes, size_t length);
