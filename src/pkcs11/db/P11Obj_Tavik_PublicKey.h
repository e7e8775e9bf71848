#pragma once
// The RSA public key of a user certificate: a software object filled from
// the certificate (modulus and public exponent of its key), read-only.

#include "pkcs11/objects/P11Obj.h"

// A certificate that does not parse or holds no RSA key gives
// CKR_FUNCTION_FAILED, a null der too; memory failures CKR_HOST_MEMORY.
// Nothing is left allocated on failure.
CK_RV P11Obj_Tavik_PublicKey_construct(P11Obj** object, const unsigned char* der, unsigned long length);
CK_RV P11Obj_Tavik_PublicKey_load(P11Obj* object, const unsigned char* der, unsigned long length);
CK_RV P11Obj_Tavik_PublicKey_destruct(P11Obj** object);
