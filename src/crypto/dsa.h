#pragma once

#include <cstddef>

#include "crypto/bytes.h"

// DSA in the crypto core: domain parameters, key pairs, and signatures over
// a digest the caller has computed. Numbers are unsigned big-endian byte
// strings without leading zero bytes (inputs may have them). Everything runs
// in the module's own library context; every function returns CRYPTO_OK or
// a negative code of crypto_errors.h and leaves the thread's OpenSSL error
// queue as it found it.

struct dsa_params {
    crypto_bytes p, q, g;
};

// Smallest and largest prime the generator makes; sizes in between go in
// steps of 64 bits.
enum { DSA_MIN_PRIME_BITS = 512, DSA_MAX_PRIME_BITS = 3072 };

// New domain parameters with a prime of `primeBits` bits. Up to 1024 bits
// the subprime has 160 bits and the FIPS 186-2 method is used (the sizes the
// original DSA defines); above, the subprime has 256 bits and the FIPS
// 186-4 method is used (2048 and 3072 bits are its standard sizes, the steps
// between work the same way). A size outside DSA_MIN_PRIME_BITS to
// DSA_MAX_PRIME_BITS or not a multiple of 64 gives CRYPTO_ERR_BAD_PARAMETER.
int dsa_generate_params(unsigned primeBits, dsa_params* out);

// Tests domain parameters: p and q probable primes, q dividing p - 1, and g
// in (1, p) generating the subgroup of order q. CRYPTO_OK or
// CRYPTO_ERR_VERIFY_FAILED. Costs two primality tests, so it is meant for
// parameters received from outside, not for every signature.
int dsa_check_params(const dsa_params& params);

// A new key pair for the parameters: x in [1, q - 1] and y = g^x mod p.
int dsa_generate_key(const dsa_params& params, crypto_bytes* x, crypto_bytes* y);

// Signature length for the parameters: r and s, each as long as q in bytes
// (40 for a 160-bit q). 0 for an empty q.
size_t dsa_signature_length(const dsa_params& params);

// Signs a digest with the private value x. The digest is taken as given;
// when it is longer than q its leftmost bits are used. The signature is
// r || s, each left-padded to the length of q. *sigLen is the capacity of
// `sig` on entry and the signature's length on return; a null `sig` only
// asks for the length (CRYPTO_OK), a too small one gives
// CRYPTO_ERR_BAD_PARAMETER with *sigLen set to the length needed. A missing
// or empty digest gives CRYPTO_ERR_BAD_PARAMETER.
int dsa_sign(const dsa_params& params, const crypto_bytes& x, const unsigned char* digest, size_t digestLen,
             unsigned char* sig, size_t* sigLen);

// Checks a signature r || s made as by dsa_sign with the public value y.
// CRYPTO_OK when it holds, CRYPTO_ERR_VERIFY_FAILED when it does not (r or s
// out of range included), CRYPTO_ERR_DATA_RANGE when sigLen is not twice
// the length of q.
int dsa_verify(const dsa_params& params, const unsigned char* y, size_t yLen, const unsigned char* digest,
               size_t digestLen, const unsigned char* sig, size_t sigLen);
