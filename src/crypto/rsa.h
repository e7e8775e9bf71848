#pragma once

#include <cstddef>

#include "crypto/bytes.h"

// RSA in the crypto core: key generation, the raw public- and private-key
// operations, and the completion of a private key's CRT values. Padding and
// encodings are the caller's; the raw operations work on whole blocks of the
// modulus length. Everything runs in the module's own library context, and
// every function returns CRYPTO_OK or a negative code of crypto_errors.h.

// A key's numbers as unsigned big-endian byte strings without leading zero
// bytes; an empty string is an absent (or zero) value.
struct rsa_components {
    crypto_bytes n, e, d, p, q, dp, dq, qinv;
};

// A key ready for the raw operations, with libcrypto's precomputations (the
// Montgomery contexts and blinding) kept between calls. Shared by reference:
// whoever keeps it past the call that made it takes a reference.
struct rsa_key;

// A public key from n and e.
int rsa_key_new_public(const unsigned char* n, size_t nLen, const unsigned char* e, size_t eLen, rsa_key** key);
// A private key. With p, q and the CRT values present, the private
// operation uses them (and blinding); with n, e and d alone it exponentiates
// with d directly; with e absent it runs without blinding in constant time.
int rsa_key_new_private(const rsa_components& components, rsa_key** key);
void rsa_key_retain(rsa_key* key);
// Drops one reference; the last one frees (and wipes) the key. Null is fine.
void rsa_key_release(rsa_key* key);

// Modulus length in bits and in bytes (k).
size_t rsa_key_bits(const rsa_key* key);
size_t rsa_key_bytes(const rsa_key* key);

// The raw operations on an input of at most k bytes that, read as a number,
// lies below the modulus (else CRYPTO_ERR_DATA_RANGE). `out` receives
// exactly k bytes, left-padded with zeros. The private operation checks its
// result with the public exponent when it has one, so a fault in the CRT
// computation never leaves the module.
int rsa_public_raw(const rsa_key* key, const unsigned char* in, size_t inLen, unsigned char* out);
int rsa_private_raw(const rsa_key* key, const unsigned char* in, size_t inLen, unsigned char* out);

// Generates a key of `bits` bits (512 to 4096, a multiple of 8; else
// CRYPTO_ERR_BAD_PARAMETER) with the public exponent e (odd, at least 3;
// empty means 65537). All eight values are filled.
int rsa_generate(unsigned bits, const unsigned char* e, size_t eLen, rsa_components* out);

// Fills the values a private key lacks from those it has: n from p and q;
// p and q by factoring n with e and d, or the one from the other; the
// exponent that is missing from the one given; dP, dQ and qInv. Values that
// are given must agree with the computed ones. CRYPTO_ERR_BAD_PARAMETER when
// too little is given to compute anything (neither n nor both primes, or
// neither exponent); CRYPTO_ERR_VERIFY_FAILED when the values do not belong
// together. Without primes and without a pair of exponents nothing is
// computed and CRYPTO_OK returned.
int rsa_complete_components(rsa_components* components);
