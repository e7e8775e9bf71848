#include "crypto/pkcs8.h"

#include <openssl/bio.h>
#include <openssl/buffer.h>
#include <openssl/core_names.h>
#include <openssl/encoder.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/x509.h>

#include <climits>

#include "crypto/crypto_errors.h"
#include "crypto/pkey_util.h"

namespace {

struct EncoderCtxFree {
    void operator()(OSSL_ENCODER_CTX* c) const noexcept { OSSL_ENCODER_CTX_free(c); }
};
struct BioFree {
    void operator()(BIO* b) const noexcept { BIO_free(b); }
};
struct P8Free {
    void operator()(PKCS8_PRIV_KEY_INFO* p8) const noexcept { PKCS8_PRIV_KEY_INFO_free(p8); }
};

// libcrypto's parameter names of the RSA numbers, in the order of pkcs8_rsa.
const char* const kRsaNames[] = {
    OSSL_PKEY_PARAM_RSA_N,         OSSL_PKEY_PARAM_RSA_E,         OSSL_PKEY_PARAM_RSA_D,
    OSSL_PKEY_PARAM_RSA_FACTOR1,   OSSL_PKEY_PARAM_RSA_FACTOR2,   OSSL_PKEY_PARAM_RSA_EXPONENT1,
    OSSL_PKEY_PARAM_RSA_EXPONENT2, OSSL_PKEY_PARAM_RSA_COEFFICIENT1,
};

// The key's PrivateKeyInfo; the encoding goes through a secure-memory BIO
// so that no copy of the private key is left behind.
int encodeKey(const char* type, const pk_field* fields, size_t count, crypto_bytes* der)
{
    if (der == nullptr)
        return CRYPTO_ERR_BAD_PARAMETER;
    for (size_t i = 0; i < count; ++i) {
        if (pk_num_bytes(*fields[i].value) == 0)
            return CRYPTO_ERR_BAD_PARAMETER;
    }
    return pk_run([&]() -> int {
        pk_pkey key;
        int rc = pk_from_fields(type, EVP_PKEY_KEYPAIR, fields, count, &key);
        if (rc != CRYPTO_OK)
            return rc;
        std::unique_ptr<OSSL_ENCODER_CTX, EncoderCtxFree> ctx(
            OSSL_ENCODER_CTX_new_for_pkey(key.get(), EVP_PKEY_KEYPAIR, "DER", "PrivateKeyInfo", nullptr));
        std::unique_ptr<BIO, BioFree> bio(BIO_new(BIO_s_secmem()));
        if (ctx == nullptr || bio == nullptr)
            return CRYPTO_ERR_NO_MEMORY;
        BUF_MEM* buffer = nullptr;
        if (OSSL_ENCODER_CTX_get_num_encoders(ctx.get()) == 0 || !OSSL_ENCODER_to_bio(ctx.get(), bio.get())
            || BIO_get_mem_ptr(bio.get(), &buffer) <= 0 || buffer == nullptr || buffer->length == 0)
            return CRYPTO_ERR_FAILED;
        const unsigned char* data = reinterpret_cast<const unsigned char*>(buffer->data);
        crypto_bytes out(data, data + buffer->length);
        der->swap(out);
        return CRYPTO_OK;
    });
}

int encodeFfc(const char* type, const pkcs8_ffc& key, bool withQ, crypto_bytes* der)
{
    const pk_field fields[] = {
        {OSSL_PKEY_PARAM_FFC_P, &key.p, false},
        {OSSL_PKEY_PARAM_FFC_G, &key.g, false},
        {OSSL_PKEY_PARAM_PRIV_KEY, &key.x, true},
        {OSSL_PKEY_PARAM_FFC_Q, &key.q, false},
    };
    return encodeKey(type, fields, withQ ? 4 : 3, der);
}

// The key types we decode, by the algorithm identifier of PrivateKeyInfo.
int keyTypeOf(const PKCS8_PRIV_KEY_INFO* p8)
{
    const ASN1_OBJECT* oid = nullptr;
    if (!PKCS8_pkey_get0(&oid, nullptr, nullptr, nullptr, p8) || oid == nullptr)
        return 0;
    switch (OBJ_obj2nid(oid)) {
    case NID_rsaEncryption: return PKCS8_KEY_RSA;
    case NID_dsa: return PKCS8_KEY_DSA;
    case NID_dhKeyAgreement: return PKCS8_KEY_DH;
    case NID_dhpublicnumber: return PKCS8_KEY_X942;
    default: return 0;
    }
}

int readRsa(const EVP_PKEY* key, pkcs8_rsa* out)
{
    // PKCS #11 has no place for the primes beyond the second.
    BIGNUM* third = nullptr;
    if (EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_RSA_FACTOR3, &third)) {
        BN_clear_free(third);
        return CRYPTO_ERR_UNSUPPORTED;
    }
    crypto_bytes* targets[] = {&out->n, &out->e, &out->d, &out->p, &out->q, &out->dp, &out->dq, &out->qinv};
    for (size_t i = 0; i < 8; ++i) {
        if (pk_get(key, kRsaNames[i], targets[i]) != CRYPTO_OK || targets[i]->empty())
            return CRYPTO_ERR_BAD_PARAMETER;
    }
    return CRYPTO_OK;
}

int readFfc(const EVP_PKEY* key, bool withQ, pkcs8_ffc* out, crypto_bytes* y)
{
    if (pk_get(key, OSSL_PKEY_PARAM_FFC_P, &out->p) != CRYPTO_OK || pk_get(key, OSSL_PKEY_PARAM_FFC_G, &out->g) != CRYPTO_OK
        || pk_get(key, OSSL_PKEY_PARAM_PRIV_KEY, &out->x) != CRYPTO_OK
        || (withQ && pk_get(key, OSSL_PKEY_PARAM_FFC_Q, &out->q) != CRYPTO_OK))
        return CRYPTO_ERR_BAD_PARAMETER;
    if (out->p.empty() || out->g.empty() || out->x.empty() || (withQ && out->q.empty()))
        return CRYPTO_ERR_BAD_PARAMETER;
    // libcrypto's decoders compute the public value; should one not, it is
    // computed here.
    if (pk_get(key, OSSL_PKEY_PARAM_PUB_KEY, y) == CRYPTO_OK && !y->empty())
        return CRYPTO_OK;
    return pk_mod_exp(out->g, out->x, out->p, y);
}

} // namespace

int pkcs8_encode_rsa(const pkcs8_rsa& key, crypto_bytes* der)
{
    const crypto_bytes* values[] = {&key.n, &key.e, &key.d, &key.p, &key.q, &key.dp, &key.dq, &key.qinv};
    pk_field fields[8];
    for (size_t i = 0; i < 8; ++i)
        fields[i] = {kRsaNames[i], values[i], i >= 2};   // everything but n and e is secret
    return encodeKey("RSA", fields, 8, der);
}

int pkcs8_encode_dsa(const pkcs8_ffc& key, crypto_bytes* der)
{
    return encodeFfc("DSA", key, true, der);
}

int pkcs8_encode_dh(const pkcs8_ffc& key, crypto_bytes* der)
{
    if (pk_num_bytes(key.q) != 0)
        return CRYPTO_ERR_BAD_PARAMETER;
    return encodeFfc("DH", key, false, der);
}

int pkcs8_encode_x942(const pkcs8_ffc& key, crypto_bytes* der)
{
    return encodeFfc("DHX", key, true, der);
}

int pkcs8_decode(const unsigned char* der, size_t len, pkcs8_key* out)
{
    if (der == nullptr || out == nullptr || len == 0 || len > LONG_MAX)
        return CRYPTO_ERR_BAD_PARAMETER;
    return pk_run([&]() -> int {
        const unsigned char* cursor = der;
        std::unique_ptr<PKCS8_PRIV_KEY_INFO, P8Free> p8(d2i_PKCS8_PRIV_KEY_INFO(nullptr, &cursor, static_cast<long>(len)));
        if (p8 == nullptr || cursor != der + len)
            return CRYPTO_ERR_BAD_PARAMETER;
        const int type = keyTypeOf(p8.get());
        if (type == 0)
            return CRYPTO_ERR_UNSUPPORTED;
        pk_pkey key(EVP_PKCS82PKEY_ex(p8.get(), crypto_libctx(), nullptr));
        if (key == nullptr)
            return CRYPTO_ERR_BAD_PARAMETER;
        // The decoder picks its key type from the same identifier; check
        // that it did, so the numbers read below are the right ones.
        static const char* const kLibcryptoTypes[] = {nullptr, "RSA", "DSA", "DH", "DHX"};
        if (!EVP_PKEY_is_a(key.get(), kLibcryptoTypes[type]))
            return CRYPTO_ERR_UNSUPPORTED;

        pkcs8_key result;
        result.type = type;
        const int rc = type == PKCS8_KEY_RSA ? readRsa(key.get(), &result.rsa)
                                             : readFfc(key.get(), type != PKCS8_KEY_DH, &result.ffc, &result.y);
        if (rc != CRYPTO_OK)
            return rc;
        *out = std::move(result);
        return CRYPTO_OK;
    });
}
