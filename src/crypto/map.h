#pragma once

#include <cstddef>

// Multi-precision arithmetic of the crypto core: non-negative integers of
// any size, for the RSA, DSA and Diffie-Hellman code and for the attribute
// checks of key objects. A map_int wraps one libcrypto BIGNUM; every number
// is wiped when freed, since most of them are key material.
//
// All functions returning int give CRYPTO_OK or one of the negative codes of
// crypto/crypto_errors.h. Results go to the first argument, which may be the
// same number as an operand. Nothing here leaves entries in the calling
// thread's OpenSSL error queue.

struct map_int;

// A new number of value zero; *out is null on failure.
int map_new(map_int** out);
// Wipes and frees a number; null is ignored.
void map_free(map_int* a);

int map_copy(map_int* r, const map_int* a);
int map_set_word(map_int* r, unsigned long w);

// Unsigned big-endian bytes; an empty string is zero.
int map_from_bytes(map_int* r, const unsigned char* bytes, size_t len);
// Bytes of the minimal big-endian encoding (0 for zero).
size_t map_num_bytes(const map_int* a);
size_t map_num_bits(const map_int* a);
// Minimal big-endian encoding. *len is the buffer size on entry and the
// encoding's length on return; a too-small buffer gives
// CRYPTO_ERR_BAD_PARAMETER with *len set to the size needed. Zero encodes
// as no bytes at all.
int map_to_bytes(const map_int* a, unsigned char* out, size_t* len);
// Exactly `len` bytes, left-padded with zeros; CRYPTO_ERR_BAD_PARAMETER when
// the number does not fit.
int map_to_bytes_padded(const map_int* a, unsigned char* out, size_t len);

// The comparisons and tests take valid numbers (no null check).
// -1, 0 or 1 as a is less than, equal to or greater than b.
int map_compare(const map_int* a, const map_int* b);
bool map_is_zero(const map_int* a);
bool map_is_one(const map_int* a);
bool map_is_odd(const map_int* a);

int map_add(map_int* r, const map_int* a, const map_int* b);
int map_add_word(map_int* r, const map_int* a, unsigned long w);
// a - b; CRYPTO_ERR_BAD_PARAMETER when b > a (the numbers are never negative).
int map_sub(map_int* r, const map_int* a, const map_int* b);
int map_sub_word(map_int* r, const map_int* a, unsigned long w);
int map_mul(map_int* r, const map_int* a, const map_int* b);
// a >> n.
int map_rshift(map_int* r, const map_int* a, int n);
// Quotient and remainder of a / d; either output may be null. A zero divisor
// gives CRYPTO_ERR_BAD_PARAMETER.
int map_div(map_int* quotient, map_int* remainder, const map_int* a, const map_int* d);
int map_gcd(map_int* r, const map_int* a, const map_int* b);

// Modular arithmetic; the modulus must not be zero and results lie in
// [0, m). map_mod_exp runs in constant time for an odd modulus, so it may
// take a secret exponent.
int map_mod(map_int* r, const map_int* a, const map_int* m);
int map_mod_mul(map_int* r, const map_int* a, const map_int* b, const map_int* m);
int map_mod_exp(map_int* r, const map_int* a, const map_int* e, const map_int* m);
// a^-1 mod m; CRYPTO_ERR_BAD_PARAMETER when a has no inverse modulo m.
int map_mod_inverse(map_int* r, const map_int* a, const map_int* m);

// Sets *isPrime to whether `a` is a probable prime (error probability below
// 2^-128, libcrypto's Miller-Rabin rounds for the size).
int map_is_probable_prime(const map_int* a, bool* isPrime);
