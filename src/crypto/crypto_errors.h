#pragma once

// Return codes shared by every function of the crypto core. Success is zero,
// every failure a distinct negative value, so callers can test "rc < 0" or
// map individual codes onto Cryptoki return values.
enum {
    CRYPTO_OK = 0,
    CRYPTO_ERR_BAD_PARAMETER = -1,   // null pointer, bad length or similar caller error
    CRYPTO_ERR_NO_MEMORY = -2,       // an allocation failed
    CRYPTO_ERR_FAILED = -3,          // libcrypto or an internal step failed
    CRYPTO_ERR_UNSUPPORTED = -4,     // unknown algorithm identifier
    CRYPTO_ERR_RESEED_REQUIRED = -5, // the generator has to be reseeded before further use
    CRYPTO_ERR_VERIFY_FAILED = -6,   // a signature or a consistency check did not hold
    CRYPTO_ERR_DATA_RANGE = -7       // an input value out of range for the key (too long, not below the modulus)
};
