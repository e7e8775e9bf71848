#pragma once
// The certificate objects of the token (one per user, intermediate and root
// certificate file) and the trust objects of the root certificates, which
// make each root a trusted issuer for TLS servers, TLS clients and e-mail
// but not for code signing. Both are read-only token objects built from the
// certificate's DER bytes; CKA_ID is the SHA-256 of those bytes.

#include "pkcs11/db/P11Obj_AttrBacked.h"

const P11ObjClass* P11Tavik_Certificate_GetClass();
const P11ObjClass* P11Obj_NetscapeTrust_GetClass();

// A null der gives CKR_FUNCTION_FAILED; a certificate that does not parse
// gives CKR_FUNCTION_FAILED, memory failures CKR_HOST_MEMORY. Nothing is
// left allocated on failure.
CK_RV P11Obj_Tavik_Certificate_construct(P11Obj** object, const unsigned char* der, unsigned long length);
CK_RV P11Obj_NetscapeTrust_construct(P11Obj** object, const unsigned char* der, unsigned long length);

// The empty records (header, mutex, attribute store).
CK_RV P11Obj_Tavik_Certificate_construct_wa(P11Obj** object);
CK_RV P11Obj_NetscapeTrust_construct_wa(P11Obj** object);
CK_RV P11Obj_Tavik_Certificate_destruct(P11Obj** object);
CK_RV P11Obj_NetscapeTrust_destruct(P11Obj** object);

// Fill a store from the certificate.
CK_RV P11Obj_Tavik_Certiticate_loadAttributes(P11AttrObj* store, const unsigned char* der, unsigned long length);
CK_RV P11Obj_NetscapeTrust_loadAttributes(P11AttrObj* store, const unsigned char* der, unsigned long length);

// CKA_TRUST_* values of the trust objects.
enum : CK_ULONG {
    TAVIK_TRUSTED_DELEGATOR = 0xCE534352ul,
    TAVIK_UNTRUSTED = 0xCE534353ul,
};
