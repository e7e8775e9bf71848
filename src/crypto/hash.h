#pragma once

#include <cstddef>

// The hash engine: one interface over every message digest the token offers.
// MD2 is computed by our own code, everything else by libcrypto through the
// module's private library context. All functions return CRYPTO_OK or one of
// the negative codes of crypto/crypto_errors.h.

enum {
    HASH_MD5 = 2,
    HASH_SHA1 = 3,
    HASH_RIPEMD160 = 8,
    HASH_SHA256 = 9,
    HASH_SHA384 = 10,
    HASH_SHA512 = 11,
    HASH_MD2 = 12,
    HASH_SHA224 = 13
};

// Largest value hash_digestLength() returns (SHA-512), for sizing buffers.
enum { HASH_MAX_DIGEST_LENGTH = 64 };

struct hash_context;   // a running hash

// Starts a hash. On success *ctx owns a new running hash that must be ended
// with stop_hash() or abort_hash(). On failure *ctx is set to null; an
// unknown identifier gives CRYPTO_ERR_UNSUPPORTED.
int start_hash(int hashId, hash_context** ctx);

// Feeds `len` more bytes. `data` may be null when `len` is 0. A failure
// leaves the hash allocated; the caller still has to abort it.
int do_hash(hash_context* ctx, const unsigned char* data, size_t len);

// Finishes the hash, writing hash_digestLength() bytes to `digest`. The
// context is freed in every case, even when an error is returned.
int stop_hash(hash_context* ctx, unsigned char* digest);

// Finishes the hash like stop_hash() but keeps the context, so that it can
// be started over with restart_hash(): a caller that hashes many short
// messages reuses one context, libcrypto's state included, instead of
// making and freeing one per message. On failure the caller still has to
// abort it.
int finish_hash(hash_context* ctx, unsigned char* digest);

// Starts a finished (or running) hash over with the same algorithm.
int restart_hash(hash_context* ctx);

// The identifier a context was started with.
int hash_id(const hash_context* ctx);

// Frees a running hash without producing output. Null is ignored.
void abort_hash(hash_context* ctx);

// Digest size in bytes of an identifier; 0 for an unknown one.
size_t hash_digestLength(int hashId);

// Hashes one buffer in a single call; `digest` receives
// hash_digestLength(hashId) bytes.
int hash_buffer(int hashId, const unsigned char* data, size_t len, unsigned char* digest);
