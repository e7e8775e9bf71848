#pragma once

#include <openssl/types.h>

// All libcrypto work of the module goes through a library context of its own,
// so that nothing we do depends on or changes the OpenSSL set-up of the
// application that loaded us (its configuration file, its providers, its
// default context). Never use libcrypto calls that fall back on the default
// context (EVP_sha256(), SHA256(), HMAC(), RAND_bytes() and the like).

// The module's library context with the "default" provider (and, where the
// system has it, the "legacy" provider) loaded. Created on first use; null if
// it could not be set up.
OSSL_LIB_CTX* crypto_libctx();

// Frees the library context and everything fetched from it, so that
// unloading the module leaves nothing behind; the next use builds a new
// one. Only when nothing of the crypto core is in use any more: every key,
// running hash and cipher of the context must be freed before (C_Finalize
// calls it after the token is gone). Never from an exit handler, which may
// run after libcrypto has torn itself down.
void crypto_release_context();

// A message digest implementation fetched once from the module's context and
// kept until the context is released. `name` is one of "MD5", "SHA1",
// "RIPEMD160", "SHA224", "SHA256", "SHA384", "SHA512"; anything else, or a
// digest the providers lack, gives null. The caller must not free the result.
const EVP_MD* crypto_md(const char* name);

// A new context of the named key-derivation function ("PBKDF2",
// "TLS1-PRF", ...) of the module's context, for the caller to free; null
// when the function is missing or memory is short.
EVP_KDF_CTX* crypto_kdf(const char* name);

// libcrypto's CTR-DRBG of the module's context, fetched once; null if
// unavailable. The caller must not free the result.
EVP_RAND* crypto_ctr_drbg();

// Keeps failures inside the crypto core from leaving entries in the calling
// thread's OpenSSL error queue, which the application may be using itself:
// everything queued during the guard's lifetime is dropped when it ends,
// entries that were there before are left alone.
class OsslErrorGuard {
public:
    OsslErrorGuard();
    ~OsslErrorGuard();
    OsslErrorGuard(const OsslErrorGuard&) = delete;
    OsslErrorGuard& operator=(const OsslErrorGuard&) = delete;
};
