#pragma once

#include <cstddef>

#include <openssl/types.h>

// Deterministic random bit generator: libcrypto's CTR_DRBG with AES-256 and
// the derivation function (NIST SP 800-90A), in the module's own library
// context. All functions return CRYPTO_OK or one of the negative codes of
// crypto/crypto_errors.h. A generator serves one caller at a time: callers
// that share one serialise its use.
//
// Seeding: the caller's seed goes in at instantiation as the generator's
// personalisation string, and every reseed's input as additional input, so
// both always enter the state; the entropy input and nonce themselves come
// from the operating system through libcrypto, which also reseeds from it
// on schedule and after a fork. A seed therefore never weakens the
// generator, and two generators are independent even when given the same
// seed.

// Smallest seed csprgbg_init() accepts: the generator's 256-bit security
// strength worth of bytes.
enum { CSPRGBG_MIN_SEED_BYTES = 32 };

struct csprgbg_state;

// Instantiates a generator with `seed` (at least CSPRGBG_MIN_SEED_BYTES) and
// an optional personalisation string `pers` (null when persLen is 0), both
// mixed into its state. On success *state owns the new generator; on
// failure it is set to null. It costs a few microseconds.
int csprgbg_init(csprgbg_state** state, const unsigned char* seed, size_t seedLen,
                 const unsigned char* pers, size_t persLen);

// For known-answer tests only: instantiates with the entropy input and nonce
// taken from `source` (a generator such as libcrypto's TEST-RAND holding
// fixed bytes; the caller keeps it alive and frees it after the state) and
// `pers` as the personalisation string. Its reseeds draw from `source` too.
int csprgbg_init_from_source(csprgbg_state** state, EVP_RAND_CTX* source, const unsigned char* pers, size_t persLen);

// Reseeds the generator with fresh entropy and mixes `seed` (any length,
// including none) in as additional input.
int csprgbg_reseed(csprgbg_state* state, const unsigned char* seed, size_t seedLen);

// Fills `out` with `len` pseudo-random bytes, in requests of libcrypto's
// largest size. On any failure `out` is wiped rather than left partly
// filled.
int csprgbg_bytes(csprgbg_state* state, unsigned char* out, size_t len);

// Wipes and frees the generator and sets *state to null. Null is ignored.
int csprgbg_exit(csprgbg_state** state);
