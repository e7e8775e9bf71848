#include "crypto/rsa.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <atomic>
#include <climits>
#include <cstring>
#include <new>

#include "crypto/crypto_errors.h"
#include "crypto/map.h"
#include "crypto/ossl_context.h"
#include "crypto/pkey_util.h"

struct rsa_key {
    EVP_PKEY* pkey = nullptr;   // null for a private key without e (see noBlinding)
    std::atomic<long> refs{1};
    size_t bits = 0;
    size_t bytes = 0;
    crypto_bytes n;
    // A private key without a public exponent: libcrypto cannot hold it, so
    // the private operation is a constant-time exponentiation with d.
    map_int* nNumber = nullptr;
    map_int* dNumber = nullptr;
};

namespace {

// Builds an EVP_PKEY from the named numbers (all present).
int fromNumbers(const char* const* names, const crypto_bytes* const* values, size_t count, int selection, EVP_PKEY** out)
{
    pk_field fields[8];
    for (size_t i = 0; i < count; ++i) fields[i] = {names[i], values[i], i >= 2};
    pk_pkey key;
    const int rc = pk_from_fields("RSA", selection, fields, count, &key);
    *out = rc == CRYPTO_OK ? key.release() : nullptr;
    return rc;
}

crypto_bytes stripped(const unsigned char* bytes, size_t len)
{
    return pk_stripped(bytes, len);
}

int finishKey(rsa_key* key, const crypto_bytes& n, rsa_key** out)
{
    key->n = n;
    key->bytes = n.size();
    key->bits = n.empty() ? 0 : (n.size() - 1) * 8;
    for (unsigned char top = n.empty() ? 0 : n[0]; top; top >>= 1) ++key->bits;
    *out = key;
    return CRYPTO_OK;
}

// The input as a k-byte block, refused unless it lies below n.
int toBlock(const rsa_key* key, const unsigned char* in, size_t inLen, crypto_bytes* block)
{
    if (in == nullptr && inLen != 0) return CRYPTO_ERR_BAD_PARAMETER;
    const crypto_bytes value = stripped(in, inLen);
    if (value.size() > key->bytes) return CRYPTO_ERR_DATA_RANGE;
    block->assign(key->bytes, 0);
    if (!value.empty()) std::memcpy(block->data() + key->bytes - value.size(), value.data(), value.size());
    if (std::memcmp(block->data(), key->n.data(), key->bytes) >= 0) return CRYPTO_ERR_DATA_RANGE;
    return CRYPTO_OK;
}

int rawOperation(const rsa_key* key, const unsigned char* in, size_t inLen, unsigned char* out, bool isPrivate)
{
    if (key == nullptr || out == nullptr) return CRYPTO_ERR_BAD_PARAMETER;
    crypto_bytes block;
    int rc = toBlock(key, in, inLen, &block);
    if (rc != CRYPTO_OK) return rc;
    if (isPrivate && key->pkey == nullptr) {
        map_int* value = nullptr;
        rc = map_new(&value);
        if (rc == CRYPTO_OK) rc = map_from_bytes(value, block.data(), block.size());
        if (rc == CRYPTO_OK) rc = map_mod_exp(value, value, key->dNumber, key->nNumber);
        if (rc == CRYPTO_OK) rc = map_to_bytes_padded(value, out, key->bytes);
        map_free(value);
        return rc;
    }
    OsslErrorGuard guard;
    EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new_from_pkey(crypto_libctx(), key->pkey, nullptr);
    if (ctx == nullptr) return CRYPTO_ERR_NO_MEMORY;
    size_t outLen = key->bytes;
    bool ok = false;
    if (isPrivate)
        ok = EVP_PKEY_decrypt_init(ctx) > 0 && EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_NO_PADDING) > 0 &&
             EVP_PKEY_decrypt(ctx, out, &outLen, block.data(), block.size()) > 0;
    else
        ok = EVP_PKEY_encrypt_init(ctx) > 0 && EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_NO_PADDING) > 0 &&
             EVP_PKEY_encrypt(ctx, out, &outLen, block.data(), block.size()) > 0;
    EVP_PKEY_CTX_free(ctx);
    if (!ok || outLen != key->bytes) return CRYPTO_ERR_FAILED;
    return CRYPTO_OK;
}

// ---- completion of the CRT values ----

enum Index { kN, kE, kD, kP, kQ, kDp, kDq, kQinv, kT1, kT2, kT3, kT4, kCount };

class Numbers {
public:
    ~Numbers()
    {
        for (map_int* n : v_) map_free(n);
    }
    int allocate()
    {
        for (map_int*& n : v_)
            if (map_new(&n) != CRYPTO_OK) return CRYPTO_ERR_NO_MEMORY;
        return CRYPTO_OK;
    }
    map_int* operator[](int i) const { return v_[i]; }

private:
    map_int* v_[kCount] = {};
};

// Operands come from the caller's key, so a step refused for its operands
// (no inverse, a zero divisor) means the values do not belong together.
int math(int rc)
{
    return rc == CRYPTO_ERR_BAD_PARAMETER ? CRYPTO_ERR_VERIFY_FAILED : rc;
}

int store(const map_int* value, crypto_bytes* out)
{
    size_t len = map_num_bytes(value);
    out->assign(len, 0);
    return map_to_bytes(value, out->data(), &len);
}

// Either stores the computed value (when none was given) or insists that
// the given one equals it.
int storeOrMatch(const map_int* given, const map_int* computed, crypto_bytes* out)
{
    if (map_is_zero(given)) return store(computed, out);
    return map_compare(given, computed) == 0 ? CRYPTO_OK : CRYPTO_ERR_VERIFY_FAILED;
}

// Factors n from a matching exponent pair: e*d - 1 = 2^t * r with r odd is a
// multiple of lcm(p-1, q-1), so for most bases g some square root of 1 in
// the chain g^r, g^2r, ... is neither 1 nor n-1 and shares a factor with n.
// Consecutive small bases are tried; each fails with probability at most
// one half for a consistent key. On success p > q.
int factorModulus(const Numbers& v)
{
    map_int* k = v[kT1];
    map_int* nMinusOne = v[kT2];
    map_int* y = v[kT3];
    map_int* g = v[kT4];
    int rc = math(map_mul(k, v[kE], v[kD]));
    if (rc == CRYPTO_OK) rc = math(map_sub_word(k, k, 1));
    if (rc == CRYPTO_OK) rc = math(map_sub_word(nMinusOne, v[kN], 1));
    if (rc != CRYPTO_OK) return rc;
    if (map_is_zero(k) || map_is_odd(k) || !map_is_odd(v[kN]) || map_num_bits(v[kN]) < 4)
        return CRYPTO_ERR_VERIFY_FAILED;
    int t = 0;
    while (!map_is_odd(k)) {
        if ((rc = map_rshift(k, k, 1)) != CRYPTO_OK) return rc;
        ++t;
    }
    for (unsigned long base = 2; base < 102; ++base) {
        rc = map_set_word(g, base);
        if (rc == CRYPTO_OK) rc = math(map_mod_exp(y, g, k, v[kN]));
        if (rc != CRYPTO_OK) return rc;
        if (map_is_one(y) || map_compare(y, nMinusOne) == 0) continue;
        for (int i = 0; i < t; ++i) {
            map_int* square = v[kP];  // free until a factor is found
            if ((rc = math(map_mod_mul(square, y, y, v[kN]))) != CRYPTO_OK) return rc;
            if (map_compare(square, nMinusOne) == 0) break;
            if (map_is_one(square)) {
                // y is a nontrivial square root of 1: gcd(y - 1, n) is a factor.
                rc = math(map_sub_word(y, y, 1));
                if (rc == CRYPTO_OK) rc = math(map_gcd(v[kP], y, v[kN]));
                if (rc == CRYPTO_OK) rc = math(map_div(v[kQ], nullptr, v[kN], v[kP]));
                if (rc == CRYPTO_OK && map_compare(v[kP], v[kQ]) < 0) {
                    rc = map_copy(y, v[kP]);
                    if (rc == CRYPTO_OK) rc = map_copy(v[kP], v[kQ]);
                    if (rc == CRYPTO_OK) rc = map_copy(v[kQ], y);
                }
                return rc;
            }
            if ((rc = map_copy(y, square)) != CRYPTO_OK) return rc;
        }
    }
    return CRYPTO_ERR_VERIFY_FAILED;
}

// Brings p and q in: factors n, derives the missing prime, or checks that
// the two given ones make n. *havePrimes is false when nothing is there to
// find them from.
int establishPrimes(const Numbers& v, rsa_components* c, bool* havePrimes)
{
    const bool haveP = !map_is_zero(v[kP]);
    const bool haveQ = !map_is_zero(v[kQ]);
    *havePrimes = true;
    int rc = CRYPTO_OK;
    if (!haveP && !haveQ) {
        if (map_is_zero(v[kE]) || map_is_zero(v[kD])) {
            *havePrimes = false;
            return CRYPTO_OK;
        }
        rc = factorModulus(v);
        if (rc == CRYPTO_OK) rc = store(v[kP], &c->p);
        if (rc == CRYPTO_OK) rc = store(v[kQ], &c->q);
        return rc;
    }
    if (haveP != haveQ) {
        const Index known = haveP ? kP : kQ;
        const Index other = haveP ? kQ : kP;
        rc = math(map_div(v[other], v[kT1], v[kN], v[known]));
        if (rc != CRYPTO_OK) return rc;
        if (!map_is_zero(v[kT1]) || map_is_one(v[known]) || map_is_one(v[other])) return CRYPTO_ERR_VERIFY_FAILED;
        return store(v[other], haveP ? &c->q : &c->p);
    }
    if ((rc = map_mul(v[kT1], v[kP], v[kQ])) != CRYPTO_OK) return rc;
    return map_compare(v[kT1], v[kN]) == 0 ? CRYPTO_OK : CRYPTO_ERR_VERIFY_FAILED;
}

}  // namespace

int rsa_key_new_public(const unsigned char* n, size_t nLen, const unsigned char* e, size_t eLen, rsa_key** out)
{
    if (out == nullptr || (n == nullptr && nLen) || (e == nullptr && eLen) || nLen > INT_MAX || eLen > INT_MAX)
        return CRYPTO_ERR_BAD_PARAMETER;
    *out = nullptr;
    const crypto_bytes modulus = stripped(n, nLen);
    const crypto_bytes exponent = stripped(e, eLen);
    if (modulus.empty() || exponent.empty() || !(modulus.back() & 1)) return CRYPTO_ERR_BAD_PARAMETER;
    rsa_key* key = new (std::nothrow) rsa_key;
    if (key == nullptr) return CRYPTO_ERR_NO_MEMORY;
    static const char* const names[] = {OSSL_PKEY_PARAM_RSA_N, OSSL_PKEY_PARAM_RSA_E};
    const crypto_bytes* values[] = {&modulus, &exponent};
    const int rc = fromNumbers(names, values, 2, EVP_PKEY_PUBLIC_KEY, &key->pkey);
    if (rc != CRYPTO_OK) {
        delete key;
        return rc;
    }
    return finishKey(key, modulus, out);
}

int rsa_key_new_private(const rsa_components& c, rsa_key** out)
{
    if (out == nullptr) return CRYPTO_ERR_BAD_PARAMETER;
    *out = nullptr;
    const crypto_bytes n = stripped(c.n.data(), c.n.size());
    const crypto_bytes e = stripped(c.e.data(), c.e.size());
    const crypto_bytes d = stripped(c.d.data(), c.d.size());
    if (n.empty() || d.empty() || !(n.back() & 1)) return CRYPTO_ERR_BAD_PARAMETER;
    rsa_key* key = new (std::nothrow) rsa_key;
    if (key == nullptr) return CRYPTO_ERR_NO_MEMORY;
    int rc = CRYPTO_OK;
    if (e.empty()) {
        rc = map_new(&key->nNumber);
        if (rc == CRYPTO_OK) rc = map_new(&key->dNumber);
        if (rc == CRYPTO_OK) rc = map_from_bytes(key->nNumber, n.data(), n.size());
        if (rc == CRYPTO_OK) rc = map_from_bytes(key->dNumber, d.data(), d.size());
    } else {
        const crypto_bytes p = stripped(c.p.data(), c.p.size()), q = stripped(c.q.data(), c.q.size());
        const crypto_bytes dp = stripped(c.dp.data(), c.dp.size()), dq = stripped(c.dq.data(), c.dq.size());
        const crypto_bytes qinv = stripped(c.qinv.data(), c.qinv.size());
        const bool crt = !p.empty() && !q.empty() && !dp.empty() && !dq.empty() && !qinv.empty();
        static const char* const names[] = {OSSL_PKEY_PARAM_RSA_N,         OSSL_PKEY_PARAM_RSA_E,
                                            OSSL_PKEY_PARAM_RSA_D,         OSSL_PKEY_PARAM_RSA_FACTOR1,
                                            OSSL_PKEY_PARAM_RSA_FACTOR2,   OSSL_PKEY_PARAM_RSA_EXPONENT1,
                                            OSSL_PKEY_PARAM_RSA_EXPONENT2, OSSL_PKEY_PARAM_RSA_COEFFICIENT1};
        const crypto_bytes* values[] = {&n, &e, &d, &p, &q, &dp, &dq, &qinv};
        rc = fromNumbers(names, values, crt ? 8 : 3, EVP_PKEY_KEYPAIR, &key->pkey);
    }
    if (rc != CRYPTO_OK) {
        rsa_key_release(key);
        return rc;
    }
    return finishKey(key, n, out);
}

void rsa_key_retain(rsa_key* key)
{
    if (key) key->refs.fetch_add(1, std::memory_order_relaxed);
}

void rsa_key_release(rsa_key* key)
{
    if (key == nullptr || key->refs.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    EVP_PKEY_free(key->pkey);
    map_free(key->nNumber);
    map_free(key->dNumber);
    delete key;
}

size_t rsa_key_bits(const rsa_key* key)
{
    return key ? key->bits : 0;
}

size_t rsa_key_bytes(const rsa_key* key)
{
    return key ? key->bytes : 0;
}

int rsa_public_raw(const rsa_key* key, const unsigned char* in, size_t inLen, unsigned char* out)
{
    return rawOperation(key, in, inLen, out, false);
}

// libcrypto's private operation uses the CRT values with blinding, and
// checks a CRT result against the public exponent before it returns it.
int rsa_private_raw(const rsa_key* key, const unsigned char* in, size_t inLen, unsigned char* out)
{
    return rawOperation(key, in, inLen, out, true);
}

int rsa_generate(unsigned bits, const unsigned char* e, size_t eLen, rsa_components* out)
{
    if (out == nullptr || bits < 512 || bits > 4096 || bits % 8 != 0 || (e == nullptr && eLen) || eLen > 64)
        return CRYPTO_ERR_BAD_PARAMETER;
    static const unsigned char kF4[] = {0x01, 0x00, 0x01};
    crypto_bytes exponent = eLen ? stripped(e, eLen) : crypto_bytes(kF4, kF4 + sizeof kF4);
    if (exponent.empty() || !(exponent.back() & 1) || (exponent.size() == 1 && exponent[0] < 3))
        return CRYPTO_ERR_BAD_PARAMETER;

    OsslErrorGuard guard;
    OSSL_LIB_CTX* libctx = crypto_libctx();
    if (libctx == nullptr) return CRYPTO_ERR_FAILED;
    const pk_bn publicExponent = pk_bn_from(exponent, false);
    if (!publicExponent) return CRYPTO_ERR_NO_MEMORY;
    EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new_from_name(libctx, "RSA", nullptr);
    EVP_PKEY* pkey = nullptr;
    const bool ok = ctx != nullptr && EVP_PKEY_keygen_init(ctx) > 0 && EVP_PKEY_CTX_set_rsa_keygen_bits(ctx, int(bits)) > 0 &&
                    EVP_PKEY_CTX_set1_rsa_keygen_pubexp(ctx, publicExponent.get()) > 0 && EVP_PKEY_generate(ctx, &pkey) > 0;
    EVP_PKEY_CTX_free(ctx);
    if (!ok) return CRYPTO_ERR_FAILED;

    static const char* const names[] = {OSSL_PKEY_PARAM_RSA_N,         OSSL_PKEY_PARAM_RSA_E,
                                        OSSL_PKEY_PARAM_RSA_D,         OSSL_PKEY_PARAM_RSA_FACTOR1,
                                        OSSL_PKEY_PARAM_RSA_FACTOR2,   OSSL_PKEY_PARAM_RSA_EXPONENT1,
                                        OSSL_PKEY_PARAM_RSA_EXPONENT2, OSSL_PKEY_PARAM_RSA_COEFFICIENT1};
    crypto_bytes* targets[] = {&out->n, &out->e, &out->d, &out->p, &out->q, &out->dp, &out->dq, &out->qinv};
    int rc = CRYPTO_OK;
    for (size_t i = 0; i < 8 && rc == CRYPTO_OK; ++i) rc = pk_get(pkey, names[i], targets[i]);
    EVP_PKEY_free(pkey);
    return rc;
}

int rsa_complete_components(rsa_components* c)
{
    if (c == nullptr) return CRYPTO_ERR_BAD_PARAMETER;
    Numbers v;
    int rc = v.allocate();
    const crypto_bytes* given[] = {&c->n, &c->e, &c->d, &c->p, &c->q, &c->dp, &c->dq, &c->qinv};
    for (int i = kN; i <= kQinv && rc == CRYPTO_OK; ++i) rc = map_from_bytes(v[i], given[i]->data(), given[i]->size());
    if (rc != CRYPTO_OK) return rc;

    if (map_is_zero(v[kN])) {
        if (map_is_zero(v[kP]) || map_is_zero(v[kQ])) return CRYPTO_ERR_BAD_PARAMETER;
        rc = map_mul(v[kN], v[kP], v[kQ]);
        if (rc == CRYPTO_OK) rc = store(v[kN], &c->n);
        if (rc != CRYPTO_OK) return rc;
    }
    bool havePrimes = false;
    rc = establishPrimes(v, c, &havePrimes);
    if (rc != CRYPTO_OK || !havePrimes) return rc;

    // lambda = lcm(p-1, q-1) = (p-1)(q-1) / gcd(p-1, q-1).
    map_int* pMinusOne = v[kT1];
    map_int* qMinusOne = v[kT2];
    map_int* lambda = v[kT3];
    map_int* scratch = v[kT4];
    rc = math(map_sub_word(pMinusOne, v[kP], 1));
    if (rc == CRYPTO_OK) rc = math(map_sub_word(qMinusOne, v[kQ], 1));
    if (rc == CRYPTO_OK) rc = math(map_gcd(scratch, pMinusOne, qMinusOne));
    if (rc == CRYPTO_OK) rc = math(map_mul(lambda, pMinusOne, qMinusOne));
    if (rc == CRYPTO_OK) rc = math(map_div(lambda, nullptr, lambda, scratch));
    if (rc != CRYPTO_OK) return rc;

    // Each exponent follows from the other; with both given they must match.
    if (map_is_zero(v[kD]) && map_is_zero(v[kE])) return CRYPTO_ERR_BAD_PARAMETER;
    if (map_is_zero(v[kD])) {
        rc = math(map_mod_inverse(v[kD], v[kE], lambda));
        if (rc == CRYPTO_OK) rc = store(v[kD], &c->d);
    } else if (map_is_zero(v[kE])) {
        rc = math(map_mod_inverse(v[kE], v[kD], lambda));
        if (rc == CRYPTO_OK) rc = store(v[kE], &c->e);
    } else {
        rc = math(map_mod_mul(scratch, v[kE], v[kD], lambda));
        if (rc == CRYPTO_OK && !map_is_one(scratch)) rc = CRYPTO_ERR_VERIFY_FAILED;
    }
    if (rc != CRYPTO_OK) return rc;

    // dP = d mod (p-1), dQ = d mod (q-1), qInv = q^-1 mod p.
    rc = math(map_mod(scratch, v[kD], pMinusOne));
    if (rc == CRYPTO_OK) rc = storeOrMatch(v[kDp], scratch, &c->dp);
    if (rc == CRYPTO_OK) rc = math(map_mod(scratch, v[kD], qMinusOne));
    if (rc == CRYPTO_OK) rc = storeOrMatch(v[kDq], scratch, &c->dq);
    if (rc == CRYPTO_OK) rc = math(map_mod_inverse(scratch, v[kQ], v[kP]));
    if (rc == CRYPTO_OK) rc = storeOrMatch(v[kQinv], scratch, &c->qinv);
    return rc;
}
