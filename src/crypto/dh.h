#pragma once

#include <cstddef>

#include "crypto/bytes.h"

// Diffie-Hellman in the crypto core, in its two forms: PKCS #3 (a prime p
// and a generator g; the private value may have a fixed length in bits) and
// X9.42 (a prime p, a prime q dividing p - 1, and g generating the subgroup
// of order q). Numbers are unsigned big-endian byte strings without leading
// zero bytes (inputs may have them). Everything runs in the module's own
// library context; every function returns CRYPTO_OK or a negative code of
// crypto_errors.h and leaves the thread's OpenSSL error queue as it found it.

// Prime sizes the functions accept, generated or given: libcrypto computes
// no Diffie-Hellman secret outside this range.
enum { DH_MIN_PRIME_BITS = 512, DH_MAX_PRIME_BITS = 10000 };

// New PKCS #3 parameters: a safe prime p of `primeBits` bits ((p - 1) / 2
// prime as well) and the generator 2. Any size in the range above is
// accepted, but finding a safe prime is slow: seconds at 1024 bits, minutes
// at 2048 and beyond.
int dh_generate_params(unsigned primeBits, crypto_bytes* p, crypto_bytes* g);

// New X9.42 parameters by the FIPS 186 method X9.42 takes over (libcrypto's
// "fips186_2" type, the hash matching the subprime: SHA-1, SHA-224 or
// SHA-256). primeBits from DH_MIN_PRIME_BITS to DH_MAX_PRIME_BITS in steps
// of 64, subprimeBits 160, 224 or 256; anything else gives
// CRYPTO_ERR_BAD_PARAMETER.
int x942_generate_params(unsigned primeBits, unsigned subprimeBits, crypto_bytes* p, crypto_bytes* q, crypto_bytes* g);

// A new key pair y = g^x mod p.
//  - PKCS #3 (q null): with valueBits non-zero, x has exactly that many bits
//    (2^(valueBits-1) <= x < 2^valueBits; valueBits must be below the size
//    of p); with valueBits 0, x is uniform in [1, p - 2]. The private value
//    is drawn here rather than by libcrypto's key generator, which does not
//    keep to a requested length (and picks its own for the well-known
//    groups).
//  - X9.42 (q given): libcrypto's generator, after its own test of p, q and
//    g, draws x from [1, q - 1]. valueBits must be 0.
// p must be odd and within the size range, g in (1, p - 1); otherwise
// CRYPTO_ERR_BAD_PARAMETER.
int dh_generate_key(const crypto_bytes& p, const crypto_bytes& g, const crypto_bytes* q, unsigned valueBits,
                    crypto_bytes* x, crypto_bytes* y);

// The shared secret ZZ = peerY^x mod p, left-padded to the length of p in
// bytes. A peer value outside (1, p - 1), or for X9.42 (q given) one that is
// not in the subgroup of order q, gives CRYPTO_ERR_DATA_RANGE. libcrypto
// computes the secret and runs its own checks of the peer value too; for
// the well-known safe-prime groups (RFC 3526, RFC 7919) it also insists
// that the value lies in the subgroup of order (p - 1) / 2.
int dh_compute_secret(const crypto_bytes& p, const crypto_bytes& g, const crypto_bytes* q, const crypto_bytes& x,
                      const unsigned char* peerY, size_t peerYLen, crypto_bytes* secret);

// Tests an X9.42 public key: p and q probable primes, q dividing p - 1, g
// and y in (1, p) with g^q = y^q = 1 mod p. CRYPTO_OK, or
// CRYPTO_ERR_VERIFY_FAILED when a condition does not hold.
int x942_check_public(const crypto_bytes& p, const crypto_bytes& q, const crypto_bytes& g, const crypto_bytes& y);

// The key derivation functions of the X9.42 Diffie-Hellman derive
// mechanisms (Cryptoki's CKD_NULL, CKD_SHA1_KDF_ASN1 and
// CKD_SHA1_KDF_CONCATENATE).
enum {
    // No derivation: the key is ZZ cut to keyLen bytes. Like every
    // Diffie-Hellman derive of Cryptoki the cut takes bytes off the leading
    // end, so the key is the trailing (least significant) keyLen bytes of
    // ZZ. OtherInfo must be empty; keyLen above the length of ZZ gives
    // CRYPTO_ERR_DATA_RANGE.
    X942_KDF_NULL,
    // X9.42's KDF with ASN.1 syntax. OtherInfo is the caller's DER
    // encoding of the whole OtherInfo structure, taken as given:
    //   OtherInfo ::= SEQUENCE {
    //     keyInfo SEQUENCE { algorithm OBJECT IDENTIFIER,
    //                        counter OCTET STRING SIZE (4) },
    //     partyAInfo [0] ..., suppPubInfo [2] ... (whatever follows) }
    // Block i (from 1) is SHA-1(ZZ || OtherInfo) with the counter set to i
    // as a 32-bit big-endian number; the key is the leading keyLen bytes
    // of the blocks. The counter's bytes are the KDF's: whatever the caller
    // put there is replaced. OtherInfo that does not begin with this
    // structure gives CRYPTO_ERR_BAD_PARAMETER.
    X942_KDF_SHA1_ASN1,
    // X9.42's KDF with concatenation: block i is
    // SHA-1(ZZ || i as 32 bits big-endian || OtherInfo), OtherInfo (any
    // bytes, possibly none) appended as given; the key is the leading keyLen
    // bytes of the blocks. The same function as ANSI X9.63's.
    X942_KDF_SHA1_CONCATENATE
};

// Derives keyLen (at least 1) bytes from the shared secret ZZ with one of
// the functions above. An unknown kdf gives CRYPTO_ERR_UNSUPPORTED.
int x942_kdf(int kdf, const crypto_bytes& zz, const unsigned char* otherInfo, size_t otherInfoLen, size_t keyLen,
             crypto_bytes* key);
