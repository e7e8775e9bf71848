#pragma once
// OpenSSL as the reference for the token's RSA results: the public key of a
// certificate, signature verification, encryption and the raw public-key
// operation that shows a signature's padded block.

#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <memory>
#include <vector>

namespace korvo {

using Blob = std::vector<unsigned char>;

struct PkeyFree {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using Pkey = std::unique_ptr<EVP_PKEY, PkeyFree>;

// The public key of a DER certificate (null when it does not parse).
inline Pkey certificateKey(const Blob& der)
{
    const unsigned char* p = der.data();
    X509* certificate = d2i_X509(nullptr, &p, long(der.size()));
    if (!certificate) return nullptr;
    Pkey key(X509_get_pubkey(certificate));
    X509_free(certificate);
    return key;
}

// Verifies a signature over data, hashed with md; PSS with the salt as long
// as the digest when pss is set.
inline bool verifies(EVP_PKEY* key, const EVP_MD* md, const Blob& data, const Blob& signature, bool pss = false)
{
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    EVP_PKEY_CTX* pctx = nullptr;
    bool ok = EVP_DigestVerifyInit(ctx, &pctx, md, nullptr, key) == 1;
    if (ok && pss)
        ok = EVP_PKEY_CTX_set_rsa_padding(pctx, RSA_PKCS1_PSS_PADDING) == 1 &&
             EVP_PKEY_CTX_set_rsa_pss_saltlen(pctx, RSA_PSS_SALTLEN_DIGEST) == 1;
    ok = ok && EVP_DigestVerify(ctx, signature.data(), signature.size(), data.data(), data.size()) == 1;
    EVP_MD_CTX_free(ctx);
    return ok;
}

// Encrypts with PKCS #1 v1.5 padding, or OAEP with SHA-1 and the label.
inline Blob encrypt(EVP_PKEY* key, const Blob& data, bool oaep = false, const Blob& label = Blob())
{
    EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(key, nullptr);
    size_t length = 0;
    bool ok = EVP_PKEY_encrypt_init(ctx) == 1 &&
              EVP_PKEY_CTX_set_rsa_padding(ctx, oaep ? RSA_PKCS1_OAEP_PADDING : RSA_PKCS1_PADDING) == 1;
    if (ok && oaep && !label.empty()) {
        unsigned char* copy = static_cast<unsigned char*>(OPENSSL_memdup(label.data(), label.size()));
        ok = EVP_PKEY_CTX_set0_rsa_oaep_label(ctx, copy, int(label.size())) == 1;
    }
    Blob out;
    if (ok && EVP_PKEY_encrypt(ctx, nullptr, &length, data.data(), data.size()) == 1) {
        out.resize(length);
        if (EVP_PKEY_encrypt(ctx, out.data(), &length, data.data(), data.size()) == 1)
            out.resize(length);
        else
            out.clear();
    }
    EVP_PKEY_CTX_free(ctx);
    return out;
}

// The raw public-key operation (no padding): the block a signature carries.
inline Blob publicRaw(EVP_PKEY* key, const Blob& signature)
{
    EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(key, nullptr);
    size_t length = signature.size();
    Blob out(length);
    const bool ok = EVP_PKEY_verify_recover_init(ctx) == 1 &&
                    EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_NO_PADDING) == 1 &&
                    EVP_PKEY_verify_recover(ctx, out.data(), &length, signature.data(), signature.size()) == 1;
    EVP_PKEY_CTX_free(ctx);
    if (!ok) return Blob();
    out.resize(length);
    return out;
}

// A number of an OpenSSL key ("n", "priv", "p"...) as big-endian bytes.
inline Blob keyNumber(EVP_PKEY* key, const char* name)
{
    BIGNUM* bn = nullptr;
    EVP_PKEY_get_bn_param(key, name, &bn);
    Blob out(bn ? size_t(BN_num_bytes(bn)) : 0);
    if (bn) BN_bn2bin(bn, out.data());
    BN_clear_free(bn);
    return out;
}

}  // namespace korvo
