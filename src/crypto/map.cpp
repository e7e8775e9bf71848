#include "crypto/map.h"

#include "crypto/crypto_errors.h"
#include "crypto/ossl_context.h"

#include <openssl/bn.h>
#include <openssl/err.h>

#include <climits>
#include <new>

struct map_int {
    BIGNUM* bn;
};

namespace {

// A scratch context for one operation, made in the module's library context
// (prime tests draw their random witnesses from it).
class BnCtx {
public:
    BnCtx()
    {
        OSSL_LIB_CTX* libctx = crypto_libctx();
        ctx_ = libctx != nullptr ? BN_CTX_new_ex(libctx) : nullptr;
    }
    ~BnCtx() { BN_CTX_free(ctx_); }
    BnCtx(const BnCtx&) = delete;
    BnCtx& operator=(const BnCtx&) = delete;
    BN_CTX* get() const { return ctx_; }

private:
    BN_CTX* ctx_;
};

int result(int ok)
{
    return ok ? CRYPTO_OK : CRYPTO_ERR_FAILED;
}

// The two-operand operations that need a scratch context.
template <typename Op>
int withCtx(Op op)
{
    OsslErrorGuard guard;
    BnCtx ctx;
    if (ctx.get() == nullptr)
        return CRYPTO_ERR_NO_MEMORY;
    return result(op(ctx.get()));
}

} // namespace

int map_new(map_int** out)
{
    if (out == nullptr)
        return CRYPTO_ERR_BAD_PARAMETER;
    *out = nullptr;
    map_int* a = new (std::nothrow) map_int{nullptr};
    if (a == nullptr)
        return CRYPTO_ERR_NO_MEMORY;
    OsslErrorGuard guard;
    a->bn = BN_new();
    if (a->bn == nullptr) {
        delete a;
        return CRYPTO_ERR_NO_MEMORY;
    }
    *out = a;
    return CRYPTO_OK;
}

void map_free(map_int* a)
{
    if (a == nullptr)
        return;
    BN_clear_free(a->bn);
    delete a;
}

int map_copy(map_int* r, const map_int* a)
{
    if (r == nullptr || a == nullptr)
        return CRYPTO_ERR_BAD_PARAMETER;
    OsslErrorGuard guard;
    return BN_copy(r->bn, a->bn) != nullptr ? CRYPTO_OK : CRYPTO_ERR_NO_MEMORY;
}

int map_set_word(map_int* r, unsigned long w)
{
    if (r == nullptr)
        return CRYPTO_ERR_BAD_PARAMETER;
    OsslErrorGuard guard;
    return BN_set_word(r->bn, w) ? CRYPTO_OK : CRYPTO_ERR_NO_MEMORY;
}

int map_from_bytes(map_int* r, const unsigned char* bytes, size_t len)
{
    if (r == nullptr || (bytes == nullptr && len != 0) || len > INT_MAX)
        return CRYPTO_ERR_BAD_PARAMETER;
    OsslErrorGuard guard;
    if (len == 0) {
        BN_zero(r->bn);
        return CRYPTO_OK;
    }
    return BN_bin2bn(bytes, static_cast<int>(len), r->bn) != nullptr ? CRYPTO_OK : CRYPTO_ERR_NO_MEMORY;
}

size_t map_num_bytes(const map_int* a)
{
    return a != nullptr ? static_cast<size_t>(BN_num_bytes(a->bn)) : 0;
}

size_t map_num_bits(const map_int* a)
{
    return a != nullptr ? static_cast<size_t>(BN_num_bits(a->bn)) : 0;
}

int map_to_bytes(const map_int* a, unsigned char* out, size_t* len)
{
    if (a == nullptr || len == nullptr)
        return CRYPTO_ERR_BAD_PARAMETER;
    const size_t needed = map_num_bytes(a);
    if (out == nullptr || *len < needed) {
        const bool query = out == nullptr;
        *len = needed;
        return query ? CRYPTO_OK : CRYPTO_ERR_BAD_PARAMETER;
    }
    *len = static_cast<size_t>(BN_bn2bin(a->bn, out));
    return CRYPTO_OK;
}

int map_to_bytes_padded(const map_int* a, unsigned char* out, size_t len)
{
    if (a == nullptr || (out == nullptr && len != 0) || len > INT_MAX)
        return CRYPTO_ERR_BAD_PARAMETER;
    OsslErrorGuard guard;
    return BN_bn2binpad(a->bn, out, static_cast<int>(len)) >= 0 ? CRYPTO_OK : CRYPTO_ERR_BAD_PARAMETER;
}

int map_compare(const map_int* a, const map_int* b)
{
    const int c = BN_cmp(a->bn, b->bn);
    return c < 0 ? -1 : (c > 0 ? 1 : 0);
}

bool map_is_zero(const map_int* a)
{
    return BN_is_zero(a->bn);
}

bool map_is_one(const map_int* a)
{
    return BN_is_one(a->bn);
}

bool map_is_odd(const map_int* a)
{
    return BN_is_odd(a->bn);
}

int map_add(map_int* r, const map_int* a, const map_int* b)
{
    if (r == nullptr || a == nullptr || b == nullptr)
        return CRYPTO_ERR_BAD_PARAMETER;
    OsslErrorGuard guard;
    return result(BN_add(r->bn, a->bn, b->bn));
}

int map_add_word(map_int* r, const map_int* a, unsigned long w)
{
    if (r == nullptr || a == nullptr)
        return CRYPTO_ERR_BAD_PARAMETER;
    OsslErrorGuard guard;
    if (r != a && BN_copy(r->bn, a->bn) == nullptr)
        return CRYPTO_ERR_NO_MEMORY;
    return result(BN_add_word(r->bn, w));
}

int map_sub(map_int* r, const map_int* a, const map_int* b)
{
    if (r == nullptr || a == nullptr || b == nullptr || BN_cmp(a->bn, b->bn) < 0)
        return CRYPTO_ERR_BAD_PARAMETER;
    OsslErrorGuard guard;
    return result(BN_sub(r->bn, a->bn, b->bn));
}

int map_sub_word(map_int* r, const map_int* a, unsigned long w)
{
    if (r == nullptr || a == nullptr || (BN_num_bytes(a->bn) <= static_cast<int>(sizeof w) && BN_get_word(a->bn) < w))
        return CRYPTO_ERR_BAD_PARAMETER;
    OsslErrorGuard guard;
    if (r != a && BN_copy(r->bn, a->bn) == nullptr)
        return CRYPTO_ERR_NO_MEMORY;
    return result(BN_sub_word(r->bn, w));
}

int map_mul(map_int* r, const map_int* a, const map_int* b)
{
    if (r == nullptr || a == nullptr || b == nullptr)
        return CRYPTO_ERR_BAD_PARAMETER;
    return withCtx([&](BN_CTX* ctx) { return BN_mul(r->bn, a->bn, b->bn, ctx); });
}

int map_rshift(map_int* r, const map_int* a, int n)
{
    if (r == nullptr || a == nullptr || n < 0)
        return CRYPTO_ERR_BAD_PARAMETER;
    OsslErrorGuard guard;
    return result(BN_rshift(r->bn, a->bn, n));
}

int map_div(map_int* quotient, map_int* remainder, const map_int* a, const map_int* d)
{
    if (a == nullptr || d == nullptr || BN_is_zero(d->bn) || (quotient == nullptr && remainder == nullptr) ||
        quotient == remainder)
        return CRYPTO_ERR_BAD_PARAMETER;
    return withCtx([&](BN_CTX* ctx) {
        return BN_div(quotient != nullptr ? quotient->bn : nullptr, remainder != nullptr ? remainder->bn : nullptr,
                      a->bn, d->bn, ctx);
    });
}

int map_gcd(map_int* r, const map_int* a, const map_int* b)
{
    if (r == nullptr || a == nullptr || b == nullptr)
        return CRYPTO_ERR_BAD_PARAMETER;
    return withCtx([&](BN_CTX* ctx) { return BN_gcd(r->bn, a->bn, b->bn, ctx); });
}

int map_mod(map_int* r, const map_int* a, const map_int* m)
{
    if (r == nullptr || a == nullptr || m == nullptr || BN_is_zero(m->bn))
        return CRYPTO_ERR_BAD_PARAMETER;
    return withCtx([&](BN_CTX* ctx) { return BN_nnmod(r->bn, a->bn, m->bn, ctx); });
}

int map_mod_mul(map_int* r, const map_int* a, const map_int* b, const map_int* m)
{
    if (r == nullptr || a == nullptr || b == nullptr || m == nullptr || BN_is_zero(m->bn))
        return CRYPTO_ERR_BAD_PARAMETER;
    return withCtx([&](BN_CTX* ctx) { return BN_mod_mul(r->bn, a->bn, b->bn, m->bn, ctx); });
}

int map_mod_exp(map_int* r, const map_int* a, const map_int* e, const map_int* m)
{
    if (r == nullptr || a == nullptr || e == nullptr || m == nullptr || BN_is_zero(m->bn))
        return CRYPTO_ERR_BAD_PARAMETER;
    return withCtx([&](BN_CTX* ctx) {
        if (!BN_is_odd(m->bn))
            return BN_mod_exp(r->bn, a->bn, e->bn, m->bn, ctx);
        // The constant-time ladder wants its base already reduced.
        BN_CTX_start(ctx);
        BIGNUM* base = BN_CTX_get(ctx);
        const int ok = base != nullptr && BN_nnmod(base, a->bn, m->bn, ctx) &&
                       BN_mod_exp_mont_consttime(r->bn, base, e->bn, m->bn, ctx, nullptr);
        BN_CTX_end(ctx);
        return ok;
    });
}

int map_mod_inverse(map_int* r, const map_int* a, const map_int* m)
{
    if (r == nullptr || a == nullptr || m == nullptr || BN_is_zero(m->bn))
        return CRYPTO_ERR_BAD_PARAMETER;
    OsslErrorGuard guard;
    BnCtx ctx;
    if (ctx.get() == nullptr)
        return CRYPTO_ERR_NO_MEMORY;
    // The operands are often secret (q^-1 mod p of an RSA key): take
    // libcrypto's constant-time path, through a flagged view of a. The
    // result goes to a temporary first, since r may be a itself.
    BIGNUM* secretA = BN_new();
    BIGNUM* inverse = BN_new();
    bool ok = false;
    if (secretA != nullptr && inverse != nullptr) {
        BN_with_flags(secretA, a->bn, BN_FLG_CONSTTIME);
        ok = BN_mod_inverse(inverse, secretA, m->bn, ctx.get()) != nullptr;
    }
    const bool noInverse = !ok && ERR_GET_REASON(ERR_peek_last_error()) == BN_R_NO_INVERSE;
    ok = ok && BN_copy(r->bn, inverse) != nullptr;
    BN_free(secretA);  // frees the view, not a's digits
    BN_clear_free(inverse);
    if (ok)
        return CRYPTO_OK;
    if (noInverse)
        return CRYPTO_ERR_BAD_PARAMETER;
    return CRYPTO_ERR_FAILED;
}

int map_is_probable_prime(const map_int* a, bool* isPrime)
{
    if (a == nullptr || isPrime == nullptr)
        return CRYPTO_ERR_BAD_PARAMETER;
    *isPrime = false;
    OsslErrorGuard guard;
    BnCtx ctx;
    if (ctx.get() == nullptr)
        return CRYPTO_ERR_NO_MEMORY;
    const int rc = BN_check_prime(a->bn, ctx.get(), nullptr);
    if (rc < 0)
        return CRYPTO_ERR_FAILED;
    *isPrime = rc == 1;
    return CRYPTO_OK;
}
