#pragma once

#include <cstddef>

#include <openssl/types.h>

// The seed of the module's library context. Everything libcrypto draws
// there on its own (the primes of key and parameter generation, RSA
// blinding, prime-test witnesses) comes from the context's DRBGs, whose
// root is seeded from this source: the token's generator while a token
// exists, the operating system otherwise.

// Registers the function that fills seed requests (`fill` returns 0 on
// success), or removes it with a null `fill`. Removal waits for a request
// that is being filled.
void crypto_set_seed_source(int (*fill)(void* arg, unsigned char* out, size_t len), void* arg);

// Makes the source the seed of the context's DRBGs; called once while the
// context is built, before anything draws from it. The provider that
// serves it (unloaded by the context's owner before the context is freed),
// or null when libcrypto refuses it (the context then seeds from the
// operating system).
OSSL_PROVIDER* crypto_install_seed_source(OSSL_LIB_CTX* libctx);

// Marks the calling thread as inside one of the crypto core's own
// generators for the marker's lifetime. A seed request from such a thread
// (libcrypto asking for entropy on the generator's behalf) is filled from
// the operating system, never from the registered source, which would
// re-enter the generator.
class CryptoGeneratorScope {
public:
    CryptoGeneratorScope();
    ~CryptoGeneratorScope();
    CryptoGeneratorScope(const CryptoGeneratorScope&) = delete;
    CryptoGeneratorScope& operator=(const CryptoGeneratorScope&) = delete;
};
