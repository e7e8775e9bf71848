#pragma once

#include <cstddef>

// Message authentication codes and password-based key derivation of the
// crypto core, over libcrypto in the module's own library context: HMAC
// with any hash of hash.h but MD2, and PBKDF2 with an HMAC as its
// pseudo-random function. A running HMAC wipes its key when freed.
// Functions return CRYPTO_OK or a negative code of crypto_errors.h.

struct hmac_context;

// Starts an HMAC with the hash (HASH_MD5, HASH_SHA1, HASH_SHA224, ...,
// HASH_RIPEMD160) and a key of any length.
int hmac_start(int hashId, const unsigned char* key, size_t keyLen, hmac_context** ctx);
int hmac_update(hmac_context* ctx, const unsigned char* data, size_t len);
// Writes the full-length MAC (hash_digestLength bytes); the context can be
// freed afterwards, not updated.
int hmac_final(hmac_context* ctx, unsigned char* mac);
void hmac_free(hmac_context* ctx);

// PBKDF2 (PKCS #5 v2.0) with HMAC over the hash: `outLen` bytes from the
// password, salt and iteration count (at least 1).
int pbkdf2_derive(int hashId, const unsigned char* password, size_t passwordLen, const unsigned char* salt,
                  size_t saltLen, unsigned long iterations, unsigned char* out, size_t outLen);
