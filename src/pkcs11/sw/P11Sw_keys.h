#pragma once
// Small helpers of the software key families: numbers read from and stored
// in attributes, the attributes every generated object gets, and the crypto
// core's codes as Cryptoki codes.

#include "crypto/bytes.h"
#include "pkcs11/cryptoki.h"

struct P11Obj;

// The attribute's bytes (left empty when the object lacks it).
CK_RV P11SwKeys_readNumber(P11Obj* object, CK_ATTRIBUTE_TYPE type, crypto_bytes* value);
CK_RV P11SwKeys_setNumber(P11Obj* object, CK_ATTRIBUTE_TYPE type, const crypto_bytes& value);
// CKA_CLASS and CKA_KEY_TYPE, CKA_LOCAL true and (for a key) the
// generating mechanism as CKA_KEY_GEN_MECHANISM: what the token generated.
CK_RV P11SwKeys_setHead(P11Obj* object, CK_OBJECT_CLASS objectClass, CK_KEY_TYPE keyType, CK_MECHANISM_TYPE mechanism);
// A failure of the crypto core: no memory, or the operation failed.
CK_RV P11SwKeys_code(int cryptoCode);
