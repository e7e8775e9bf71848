#pragma once

#include <cstddef>

// The key derivations of SSL 3.0 and TLS 1.0, over libcrypto in the
// module's own library context. Functions return CRYPTO_OK or a negative
// code of crypto_errors.h.

// The TLS 1.0 pseudo-random function: P_MD5 and P_SHA-1 over the two
// halves of the secret, combined by exclusive or, of label || seed. The
// secret may be empty.
int tls_prf(const unsigned char* secret, size_t secretLen, const unsigned char* label, size_t labelLen,
            const unsigned char* seed, size_t seedLen, unsigned char* out, size_t outLen);

// SSL 3.0's expansion: MD5(secret || SHA-1("A" || secret || first ||
// second)), then with "BB", "CCC" and so on, until `outLen` bytes. The
// master secret takes the client random first, the key block the server's.
int ssl3_expand(const unsigned char* secret, size_t secretLen, const unsigned char* first, size_t firstLen,
                const unsigned char* second, size_t secondLen, unsigned char* out, size_t outLen);
