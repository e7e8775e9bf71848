#include "crypto/pkey_util.h"

#include <openssl/core_names.h>
#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/params.h>

#include <climits>

#include "crypto/map.h"

void pk_bn_free::operator()(BIGNUM* bn) const noexcept
{
    BN_clear_free(bn);
}

void pk_pkey_free::operator()(EVP_PKEY* key) const noexcept
{
    EVP_PKEY_free(key);
}

void pk_pkey_ctx_free::operator()(EVP_PKEY_CTX* ctx) const noexcept
{
    EVP_PKEY_CTX_free(ctx);
}

pk_bn pk_bn_from(const unsigned char* bytes, size_t len, bool secret)
{
    if (len > INT_MAX || (bytes == nullptr && len != 0))
        return nullptr;
    // BN_secure_new marks the number, and OSSL_PARAM_BLD puts marked numbers
    // in a block that OSSL_PARAM_free wipes.
    pk_bn bn(secret ? BN_secure_new() : BN_new());
    if (bn == nullptr)
        return nullptr;
    if (len != 0 && BN_bin2bn(bytes, static_cast<int>(len), bn.get()) == nullptr)
        return nullptr;
    return bn;
}

int pk_bn_to(const BIGNUM* bn, crypto_bytes* out)
{
    if (bn == nullptr || out == nullptr)
        return CRYPTO_ERR_BAD_PARAMETER;
    out->assign(static_cast<size_t>(BN_num_bytes(bn)), 0);
    if (!out->empty())
        BN_bn2bin(bn, out->data());
    return CRYPTO_OK;
}

crypto_bytes pk_stripped(const unsigned char* bytes, size_t len)
{
    while (len > 0 && *bytes == 0) {
        ++bytes;
        --len;
    }
    return len != 0 ? crypto_bytes(bytes, bytes + len) : crypto_bytes();
}

size_t pk_num_bytes(const crypto_bytes& v)
{
    size_t skip = 0;
    while (skip < v.size() && v[skip] == 0)
        ++skip;
    return v.size() - skip;
}

int pk_from_fields(const char* type, int selection, const pk_field* fields, size_t count, pk_pkey* out)
{
    out->reset();
    struct BuilderFree {
        void operator()(OSSL_PARAM_BLD* b) const noexcept { OSSL_PARAM_BLD_free(b); }
    };
    std::unique_ptr<OSSL_PARAM_BLD, BuilderFree> builder(OSSL_PARAM_BLD_new());
    if (builder == nullptr)
        return CRYPTO_ERR_NO_MEMORY;
    // The builder refers to the numbers until the parameters are made.
    pk_bn numbers[8];
    if (count > sizeof numbers / sizeof numbers[0])
        return CRYPTO_ERR_BAD_PARAMETER;
    for (size_t i = 0; i < count; ++i) {
        numbers[i] = pk_bn_from(*fields[i].value, fields[i].secret);
        if (numbers[i] == nullptr || !OSSL_PARAM_BLD_push_BN(builder.get(), fields[i].name, numbers[i].get()))
            return CRYPTO_ERR_NO_MEMORY;
    }
    OSSL_PARAM* params = OSSL_PARAM_BLD_to_param(builder.get());
    if (params == nullptr)
        return CRYPTO_ERR_NO_MEMORY;
    pk_pkey_ctx ctx(EVP_PKEY_CTX_new_from_name(crypto_libctx(), type, nullptr));
    EVP_PKEY* key = nullptr;
    int rc = CRYPTO_OK;
    if (ctx == nullptr || EVP_PKEY_fromdata_init(ctx.get()) <= 0 || EVP_PKEY_fromdata(ctx.get(), &key, selection, params) <= 0)
        rc = CRYPTO_ERR_FAILED;
    // Public numbers sit outside the wiped block; wipe the lot anyway.
    for (OSSL_PARAM* p = params; p->key != nullptr; ++p)
        OPENSSL_cleanse(p->data, p->data_size);
    OSSL_PARAM_free(params);
    out->reset(key);
    return rc;
}

int pk_get(const EVP_PKEY* key, const char* name, crypto_bytes* out)
{
    BIGNUM* raw = nullptr;
    if (!EVP_PKEY_get_bn_param(key, name, &raw))
        return CRYPTO_ERR_FAILED;
    pk_bn bn(raw);
    return pk_bn_to(bn.get(), out);
}

pk_pkey_ctx pk_ctx_for(EVP_PKEY* key)
{
    return pk_pkey_ctx(EVP_PKEY_CTX_new_from_pkey(crypto_libctx(), key, nullptr));
}

namespace {

// Numbers of the arithmetic layer, freed (and wiped) together.
template <int N>
class MapNumbers {
public:
    MapNumbers() = default;
    MapNumbers(const MapNumbers&) = delete;
    MapNumbers& operator=(const MapNumbers&) = delete;
    ~MapNumbers()
    {
        for (map_int* n : n_)
            map_free(n);
    }
    int allocate()
    {
        for (map_int*& n : n_) {
            const int rc = map_new(&n);
            if (rc != CRYPTO_OK)
                return rc;
        }
        return CRYPTO_OK;
    }
    map_int* operator[](int i) const { return n_[i]; }

private:
    map_int* n_[N] = {};
};

int load(map_int* r, const crypto_bytes& v)
{
    return map_from_bytes(r, v.data(), v.size());
}

} // namespace

int pk_mod_exp(const crypto_bytes& g, const crypto_bytes& e, const crypto_bytes& p, crypto_bytes* out)
{
    enum { kBase, kExp, kMod, kResult, kCount };
    MapNumbers<kCount> v;
    int rc = v.allocate();
    if (rc == CRYPTO_OK)
        rc = load(v[kBase], g);
    if (rc == CRYPTO_OK)
        rc = load(v[kExp], e);
    if (rc == CRYPTO_OK)
        rc = load(v[kMod], p);
    if (rc == CRYPTO_OK)
        rc = map_mod_exp(v[kResult], v[kBase], v[kExp], v[kMod]);
    if (rc != CRYPTO_OK)
        return rc;
    out->assign(map_num_bytes(v[kResult]), 0);
    size_t len = out->size();
    rc = map_to_bytes(v[kResult], out->data(), &len);
    out->resize(len);
    return rc;
}

int pk_check_group(const crypto_bytes& p, const crypto_bytes& q, const crypto_bytes& g, const crypto_bytes* y)
{
    enum { kPrime, kSubprime, kBase, kValue, kWork, kCount };
    MapNumbers<kCount> v;
    int rc = v.allocate();
    if (rc == CRYPTO_OK)
        rc = load(v[kPrime], p);
    if (rc == CRYPTO_OK)
        rc = load(v[kSubprime], q);
    if (rc == CRYPTO_OK)
        rc = load(v[kBase], g);
    if (rc == CRYPTO_OK && y != nullptr)
        rc = load(v[kValue], *y);
    if (rc != CRYPTO_OK)
        return rc;

    map_int* prime = v[kPrime];
    map_int* subprime = v[kSubprime];
    map_int* work = v[kWork];
    // Small values first: they would trip the arithmetic below (a zero
    // modulus) and are no group anyway.
    if (map_num_bits(prime) < 3 || map_num_bits(subprime) < 2 || map_compare(subprime, prime) >= 0)
        return CRYPTO_ERR_VERIFY_FAILED;
    for (map_int* candidate : {prime, subprime}) {
        bool isPrime = false;
        rc = map_is_probable_prime(candidate, &isPrime);
        if (rc != CRYPTO_OK)
            return rc;
        if (!isPrime)
            return CRYPTO_ERR_VERIFY_FAILED;
    }
    // q divides p - 1.
    rc = map_sub_word(work, prime, 1);
    if (rc == CRYPTO_OK)
        rc = map_mod(work, work, subprime);
    if (rc != CRYPTO_OK)
        return rc;
    if (!map_is_zero(work))
        return CRYPTO_ERR_VERIFY_FAILED;
    // The generator and the public value lie in (1, p) and in the subgroup
    // of order q.
    map_int* elements[] = {v[kBase], y != nullptr ? v[kValue] : nullptr};
    for (map_int* element : elements) {
        if (element == nullptr)
            continue;
        if (map_is_zero(element) || map_is_one(element) || map_compare(element, prime) >= 0)
            return CRYPTO_ERR_VERIFY_FAILED;
        rc = map_mod_exp(work, element, subprime, prime);
        if (rc != CRYPTO_OK)
            return rc;
        if (!map_is_one(work))
            return CRYPTO_ERR_VERIFY_FAILED;
    }
    return CRYPTO_OK;
}

int pk_get_pair(const EVP_PKEY* key, crypto_bytes* x, crypto_bytes* y)
{
    crypto_bytes priv, pub;
    int rc = pk_get(key, OSSL_PKEY_PARAM_PRIV_KEY, &priv);
    if (rc == CRYPTO_OK)
        rc = pk_get(key, OSSL_PKEY_PARAM_PUB_KEY, &pub);
    if (rc != CRYPTO_OK)
        return rc;
    x->swap(priv);
    y->swap(pub);
    return CRYPTO_OK;
}
