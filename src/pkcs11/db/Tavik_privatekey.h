#pragma once
// The token's RSA private keys, one per user certificate. No key material is
// held: every operation formats its input in software and hands the block
// to Tavik_RSA_decrypt, which has the helper program perform the raw
// private-key operation. The object carries the certificate's SHA-256 digest
// and the owner's user name for the helper, and attributes loaded from the
// certificate (read-only; CKA_SENSITIVE, no private component).

#include "pkcs11/db/P11Obj_AttrBacked.h"
#include "pkcs11/db/Tavik_privatekey_helper.h"

// What the helper needs to find the key.
struct Tavik_KEY_PROV_INFO {
    unsigned char* certDigest;  // 32 bytes: SHA-256 of the certificate DER
    wchar_t* userName;          // NUL-terminated, or null
};

CK_RV Tavik_KEY_PROV_INFO_construct(Tavik_KEY_PROV_INFO** info);
CK_RV Tavik_KEY_PROV_INFO_destruct(Tavik_KEY_PROV_INFO** info);
// Replaces the name with a copy of userName (null stays null).
CK_RV Tavik_KEY_PROV_INFO_setUserName(Tavik_KEY_PROV_INFO* info, const wchar_t* userName);
// Replaces the digest with the SHA-256 of the certificate bytes.
CK_RV Tavik_KEY_PROV_INFO_setX509Certificate(Tavik_KEY_PROV_INFO* info, const unsigned char* der, unsigned long length);

struct P11Obj_Tavik_PrivateKey : P11Obj_AttrBacked {
    Tavik_KEY_PROV_INFO* provInfo;
};

const P11ObjClass* P11Tavik_PrivateKey_GetClass();
// How Tavik_RSA_decrypt recognises these keys and reads their provider info.
const Tavik_RsaKeyAccess& Tavik_privateKeyAccess();

CK_RV P11Obj_Tavik_PrivateKey_construct(P11Obj** object, const wchar_t* userName, const unsigned char* der,
                                        unsigned long length);
CK_RV P11Obj_Tavik_PrivateKey_construct_wa(P11Obj** object);
CK_RV P11Obj_Tavik_PrivateKey_destruct(P11Obj** object);
CK_RV P11Obj_Tavik_PrivateKey_loadAttributes(P11AttrObj* store, const unsigned char* der, unsigned long length);
