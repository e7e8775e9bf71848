#pragma once

#include <cstddef>

#include "crypto/bytes.h"

// PKCS #8 PrivateKeyInfo encodings of the private keys the token can wrap
// and unwrap: RSA, DSA, PKCS #3 Diffie-Hellman and X9.42 Diffie-Hellman.
// Numbers are unsigned big-endian byte strings without leading zero bytes
// (inputs may have them). libcrypto's encoders and decoders do the ASN.1,
// in the module's own library context. Every function returns CRYPTO_OK or
// a negative code of crypto_errors.h and leaves the thread's OpenSSL error
// queue as it found it.

// An RSA private key with both primes and the CRT values.
struct pkcs8_rsa {
    crypto_bytes n, e, d, p, q, dp, dq, qinv;
};

// A finite-field private key: DSA and X9.42 keys use all four numbers, a
// PKCS #3 key has no q.
struct pkcs8_ffc {
    crypto_bytes p, q, g, x;
};

// The DER encodings, PrivateKeyInfo with the algorithm identifier of the
// key type (rsaEncryption, id-dsa, dhKeyAgreement, dhpublicnumber) and the
// domain parameters in it. A missing (empty) number, and a q given to
// pkcs8_encode_dh, give CRYPTO_ERR_BAD_PARAMETER. The numbers are encoded
// as given; nothing tests whether they belong together.
int pkcs8_encode_rsa(const pkcs8_rsa& key, crypto_bytes* der);
int pkcs8_encode_dsa(const pkcs8_ffc& key, crypto_bytes* der);
int pkcs8_encode_dh(const pkcs8_ffc& key, crypto_bytes* der);
int pkcs8_encode_x942(const pkcs8_ffc& key, crypto_bytes* der);

enum { PKCS8_KEY_RSA = 1, PKCS8_KEY_DSA, PKCS8_KEY_DH, PKCS8_KEY_X942 };

// A decoded key: `type` tells which of the members is filled.
struct pkcs8_key {
    int type = 0;
    pkcs8_rsa rsa;     // PKCS8_KEY_RSA
    pkcs8_ffc ffc;     // the others (q empty for PKCS8_KEY_DH)
    crypto_bytes y;    // their public value g^x mod p, for the matching public key
};

// Decodes a BER or DER PrivateKeyInfo that spans exactly `len` bytes.
// Input that is not such an encoding, has bytes after it, or holds a key
// the decoder rejects gives CRYPTO_ERR_BAD_PARAMETER; a well-formed key of
// another type (EC, RSA-PSS, ...) or an RSA key with more than two primes
// gives CRYPTO_ERR_UNSUPPORTED. An RSA key must have all eight numbers.
int pkcs8_decode(const unsigned char* der, size_t len, pkcs8_key* out);
