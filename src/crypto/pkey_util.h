#pragma once

#include <openssl/types.h>

#include <cstddef>
#include <memory>
#include <new>

#include "crypto/bytes.h"
#include "crypto/crypto_errors.h"
#include "crypto/ossl_context.h"

// Helpers shared by the public-key code of the crypto core (DSA, DH, PKCS #8):
// owning handles for libcrypto objects, the conversion between our byte
// strings and BIGNUMs, and keys built from named numbers in the module's
// library context. Internal to the crypto core.

struct pk_bn_free {
    void operator()(BIGNUM* bn) const noexcept;   // wipes
};
struct pk_pkey_free {
    void operator()(EVP_PKEY* key) const noexcept;
};
struct pk_pkey_ctx_free {
    void operator()(EVP_PKEY_CTX* ctx) const noexcept;
};
using pk_bn = std::unique_ptr<BIGNUM, pk_bn_free>;
using pk_pkey = std::unique_ptr<EVP_PKEY, pk_pkey_free>;
using pk_pkey_ctx = std::unique_ptr<EVP_PKEY_CTX, pk_pkey_ctx_free>;

// A number from unsigned big-endian bytes (empty is zero); null when out of
// memory. A secret number lives in libcrypto's secure heap where there is
// one, and wherever libcrypto copies it (a parameter block, a key) the copy
// is wiped when freed.
pk_bn pk_bn_from(const unsigned char* bytes, size_t len, bool secret);
inline pk_bn pk_bn_from(const crypto_bytes& v, bool secret) { return pk_bn_from(v.data(), v.size(), secret); }

// The minimal big-endian encoding of a number (empty for zero).
int pk_bn_to(const BIGNUM* bn, crypto_bytes* out);

// The bytes without their leading zero bytes.
crypto_bytes pk_stripped(const unsigned char* bytes, size_t len);

// Length in bytes of a number given as bytes, leading zeros not counted.
size_t pk_num_bytes(const crypto_bytes& v);

// One number of a key: a parameter name of libcrypto ("p", "q", "g",
// "priv", "pub", "n", ...) and its value.
struct pk_field {
    const char* name;
    const crypto_bytes* value;
    bool secret;
};

// A key of libcrypto type `type` ("DSA", "DH", "DHX", "RSA") in the module's
// context, made by EVP_PKEY_fromdata from the fields with the given
// selection (EVP_PKEY_KEY_PARAMETERS, EVP_PKEY_PUBLIC_KEY, EVP_PKEY_KEYPAIR).
int pk_from_fields(const char* type, int selection, const pk_field* fields, size_t count, pk_pkey* out);

// A number read back from a key. CRYPTO_ERR_FAILED when the key lacks it.
int pk_get(const EVP_PKEY* key, const char* name, crypto_bytes* out);

// The private and public values of a generated DSA or DH key; the outputs
// change only when both were read.
int pk_get_pair(const EVP_PKEY* key, crypto_bytes* x, crypto_bytes* y);

// A context for an operation on `key` in the module's context.
pk_pkey_ctx pk_ctx_for(EVP_PKEY* key);

// g^e mod p, in constant time when p is odd (e may be secret). p must be
// non-zero.
int pk_mod_exp(const crypto_bytes& g, const crypto_bytes& e, const crypto_bytes& p, crypto_bytes* out);

// The finite-field group test shared by DSA domain parameters and X9.42
// keys: p and q probable primes, q divides p - 1, the generator (and, when
// given, the public value) in (1, p) and of order q. CRYPTO_OK, or
// CRYPTO_ERR_VERIFY_FAILED when a condition does not hold.
int pk_check_group(const crypto_bytes& p, const crypto_bytes& q, const crypto_bytes& g, const crypto_bytes* y);

// Runs the body of a public function of the crypto core: the thread's
// OpenSSL error queue is left as it was, and an allocation failure in our
// own containers becomes CRYPTO_ERR_NO_MEMORY instead of an exception.
template <typename Body>
int pk_run(Body&& body) noexcept
{
    try {
        OsslErrorGuard guard;
        if (crypto_libctx() == nullptr)
            return CRYPTO_ERR_FAILED;
        return body();
    } catch (const std::bad_alloc&) {
        return CRYPTO_ERR_NO_MEMORY;
    } catch (...) {
        return CRYPTO_ERR_FAILED;
    }
}
