#pragma once

#include <cstddef>

// Deterministic random bit generator: HMAC-DRBG with HMAC-SHA-256 as
// described in NIST SP 800-90A. It has no entropy source of its own; callers
// seed it and reseed it with fresh entropy. All functions return CRYPTO_OK or
// one of the negative codes of crypto/crypto_errors.h.

// Smallest seed csprgbg_init() accepts: the generator's 256-bit security
// strength worth of entropy.
enum { CSPRGBG_MIN_SEED_BYTES = 32 };

// Most bytes produced by one internal generate request; csprgbg_bytes()
// splits larger requests.
enum { CSPRGBG_MAX_REQUEST_BYTES = 65536 };

struct csprgbg_state;

// Instantiates a generator. `seed` is the entropy input followed by the
// nonce, at least CSPRGBG_MIN_SEED_BYTES long; `pers` is an optional
// personalisation string (null when persLen is 0). On success *state owns
// the new generator; on failure it is set to null.
int csprgbg_init(csprgbg_state** state, const unsigned char* seed, size_t seedLen,
                 const unsigned char* pers, size_t persLen);

// Mixes `seed` (any length, including none) into the generator and restarts
// its reseed counter.
int csprgbg_reseed(csprgbg_state* state, const unsigned char* seed, size_t seedLen);

// Fills `out` with `len` pseudo-random bytes. Returns
// CRYPTO_ERR_RESEED_REQUIRED once the generator has served its maximum
// number of requests since it was last seeded. On any failure `out` is
// wiped rather than left partly filled.
int csprgbg_bytes(csprgbg_state* state, unsigned char* out, size_t len);

// Should libcrypto fail in the middle of an operation, the generator's state
// is no longer trustworthy: every later reseed or request on it returns
// CRYPTO_ERR_FAILED, and it can only be freed.

// Wipes and frees the generator and sets *state to null. Null is ignored.
int csprgbg_exit(csprgbg_state** state);
