#pragma once
// Private keys as the bytes that wrapping enciphers: a PKCS #8
// PrivateKeyInfo of an RSA, DSA, Diffie-Hellman or X9.42 key object, and
// back into the attributes of a new key.

#include "crypto/bytes.h"
#include "pkcs11/cryptoki.h"

struct P11Obj;

// The encoding of a private key object. CKR_KEY_NOT_WRAPPABLE for a key
// type without one, or a key that lacks a number the encoding needs.
CK_RV P11SwPkcs8_encode(P11Obj* key, crypto_bytes* der);
// Fills a new private key from an encoding. Bytes that are no encoding
// give CKR_WRAPPED_KEY_INVALID; a key of another type than the one the
// template names, CKR_TEMPLATE_INCONSISTENT. Without a named type, the
// encoding's is set.
CK_RV P11SwPkcs8_decodeInto(P11Obj* newKey, const crypto_bytes& der);
