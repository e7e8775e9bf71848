#pragma once

// Reference keys for the public-key tests: made and used through OpenSSL's
// public EVP API in its default library context, independently of the
// module's own context and of our code.

#include "crypto/bytes.h"
#include "hex_util.h"

#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace ref {

struct PkeyFree {
    void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
};
struct CtxFree {
    void operator()(EVP_PKEY_CTX* c) const { EVP_PKEY_CTX_free(c); }
};
struct BnFree {
    void operator()(BIGNUM* b) const { BN_free(b); }
};
using Pkey = std::unique_ptr<EVP_PKEY, PkeyFree>;
using Ctx = std::unique_ptr<EVP_PKEY_CTX, CtxFree>;
using Bn = std::unique_ptr<BIGNUM, BnFree>;

inline Bn bn(const crypto_bytes& v) { return Bn(BN_bin2bn(v.data(), static_cast<int>(v.size()), nullptr)); }

inline crypto_bytes bytes(const BIGNUM* b)
{
    crypto_bytes out(static_cast<size_t>(BN_num_bytes(b)));
    BN_bn2bin(b, out.data());
    return out;
}

inline std::string hex(const crypto_bytes& v) { return toHex(v.data(), v.size()); }

using Fields = std::vector<std::pair<const char*, crypto_bytes>>;

// A key of `type` from named numbers.
inline Pkey key(const char* type, int selection, const Fields& fields)
{
    OSSL_PARAM_BLD* bld = OSSL_PARAM_BLD_new();
    std::vector<Bn> numbers;
    for (const auto& f : fields) {
        numbers.push_back(bn(f.second));
        OSSL_PARAM_BLD_push_BN(bld, f.first, numbers.back().get());
    }
    OSSL_PARAM* params = OSSL_PARAM_BLD_to_param(bld);
    Ctx ctx(EVP_PKEY_CTX_new_from_name(nullptr, type, nullptr));
    EVP_PKEY* k = nullptr;
    EXPECT_EQ(EVP_PKEY_fromdata_init(ctx.get()), 1);
    EXPECT_EQ(EVP_PKEY_fromdata(ctx.get(), &k, selection, params), 1) << type;
    OSSL_PARAM_free(params);
    OSSL_PARAM_BLD_free(bld);
    return Pkey(k);
}

// A number of a key; empty when the key lacks it.
inline crypto_bytes get(const EVP_PKEY* k, const char* name)
{
    BIGNUM* b = nullptr;
    if (!EVP_PKEY_get_bn_param(k, name, &b)) return {};
    Bn owned(b);
    return bytes(b);
}

// A new key pair for the domain parameters in `params`.
inline Pkey keygen(EVP_PKEY* params)
{
    Ctx ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, params, nullptr));
    EVP_PKEY* k = nullptr;
    EXPECT_EQ(EVP_PKEY_keygen_init(ctx.get()), 1);
    EXPECT_EQ(EVP_PKEY_keygen(ctx.get(), &k), 1);
    return Pkey(k);
}

}  // namespace ref
