#include "crypto/dh.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/dh.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/params.h>

#include <cstdint>

#include "crypto/crypto_errors.h"
#include "crypto/hash.h"
#include "crypto/pkey_util.h"

namespace {

struct BnCtxFree {
    void operator()(BN_CTX* c) const noexcept { BN_CTX_free(c); }
};
using BnCtx = std::unique_ptr<BN_CTX, BnCtxFree>;

struct KdfCtxFree {
    void operator()(EVP_KDF_CTX* c) const noexcept { EVP_KDF_CTX_free(c); }
};

// A prime the Diffie-Hellman code can work with: odd and within the size
// range libcrypto computes secrets for.
bool usablePrime(const BIGNUM* p)
{
    const int bits = BN_num_bits(p);
    return BN_is_odd(p) && bits >= DH_MIN_PRIME_BITS && bits <= DH_MAX_PRIME_BITS;
}

// Whether 1 < v < p - 1.
bool insideGroup(const BIGNUM* v, const BIGNUM* p, BIGNUM* work)
{
    if (BN_is_zero(v) || BN_is_one(v) || !BN_sub(work, p, BN_value_one()))
        return false;
    return BN_cmp(v, work) < 0;
}

// Reads p, q (when given) and g of a parameter set, checking p.
struct Group {
    pk_bn p, q, g;
};

int loadGroup(const crypto_bytes& p, const crypto_bytes& g, const crypto_bytes* q, Group* out)
{
    out->p = pk_bn_from(p, false);
    out->g = pk_bn_from(g, false);
    if (q != nullptr)
        out->q = pk_bn_from(*q, false);
    if (out->p == nullptr || out->g == nullptr || (q != nullptr && out->q == nullptr))
        return CRYPTO_ERR_NO_MEMORY;
    return usablePrime(out->p.get()) ? CRYPTO_OK : CRYPTO_ERR_BAD_PARAMETER;
}

// A PKCS #3 private value drawn here (see dh.h for why) and its public
// value.
int generatePkcs3Key(const Group& group, unsigned valueBits, crypto_bytes* x, crypto_bytes* y)
{
    BnCtx ctx(BN_CTX_new_ex(crypto_libctx()));
    pk_bn priv(BN_secure_new());
    pk_bn pub(BN_new());
    pk_bn work(BN_new());
    if (ctx == nullptr || priv == nullptr || pub == nullptr || work == nullptr)
        return CRYPTO_ERR_NO_MEMORY;
    if (!insideGroup(group.g.get(), group.p.get(), work.get()))
        return CRYPTO_ERR_BAD_PARAMETER;
    if (valueBits != 0) {
        if (valueBits >= static_cast<unsigned>(BN_num_bits(group.p.get())))
            return CRYPTO_ERR_BAD_PARAMETER;
        if (!BN_priv_rand_ex(priv.get(), static_cast<int>(valueBits), BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ANY, 0, ctx.get()))
            return CRYPTO_ERR_FAILED;
    } else {
        // Uniform in [0, p - 3], moved up to [1, p - 2].
        if (!BN_sub(work.get(), group.p.get(), BN_value_one()) || !BN_sub_word(work.get(), 1)
            || !BN_priv_rand_range_ex(priv.get(), work.get(), 0, ctx.get()) || !BN_add_word(priv.get(), 1))
            return CRYPTO_ERR_FAILED;
    }
    BN_set_flags(priv.get(), BN_FLG_CONSTTIME);
    if (!BN_mod_exp_mont_consttime(pub.get(), group.g.get(), priv.get(), group.p.get(), ctx.get(), nullptr))
        return CRYPTO_ERR_FAILED;
    crypto_bytes privBytes, pubBytes;
    int rc = pk_bn_to(priv.get(), &privBytes);
    if (rc == CRYPTO_OK)
        rc = pk_bn_to(pub.get(), &pubBytes);
    if (rc != CRYPTO_OK)
        return rc;
    x->swap(privBytes);
    y->swap(pubBytes);
    return CRYPTO_OK;
}

int generateX942Key(const crypto_bytes& p, const crypto_bytes& g, const crypto_bytes& q, crypto_bytes* x, crypto_bytes* y)
{
    const pk_field fields[] = {
        {OSSL_PKEY_PARAM_FFC_P, &p, false},
        {OSSL_PKEY_PARAM_FFC_Q, &q, false},
        {OSSL_PKEY_PARAM_FFC_G, &g, false},
    };
    pk_pkey domain;
    int rc = pk_from_fields("DHX", EVP_PKEY_KEY_PARAMETERS, fields, 3, &domain);
    if (rc != CRYPTO_OK)
        return rc;
    pk_pkey_ctx ctx = pk_ctx_for(domain.get());
    EVP_PKEY* generated = nullptr;
    if (ctx == nullptr || EVP_PKEY_keygen_init(ctx.get()) <= 0)
        return CRYPTO_ERR_FAILED;
    // libcrypto refuses to generate for parameters that fail its quick test.
    if (EVP_PKEY_keygen(ctx.get(), &generated) <= 0)
        return CRYPTO_ERR_BAD_PARAMETER;
    pk_pkey key(generated);
    return pk_get_pair(key.get(), x, y);
}

// Runs a "DH" or "DHX" parameter generation with the given settings and
// reads back the numbers named.
int generateParams(const char* type, const OSSL_PARAM* settings, const char* const* names, crypto_bytes* const* outs,
                   size_t count)
{
    pk_pkey_ctx ctx(EVP_PKEY_CTX_new_from_name(crypto_libctx(), type, nullptr));
    EVP_PKEY* generated = nullptr;
    if (ctx == nullptr || EVP_PKEY_paramgen_init(ctx.get()) <= 0 || EVP_PKEY_CTX_set_params(ctx.get(), settings) <= 0
        || EVP_PKEY_paramgen(ctx.get(), &generated) <= 0)
        return CRYPTO_ERR_FAILED;
    pk_pkey key(generated);
    crypto_bytes values[3];
    for (size_t i = 0; i < count; ++i) {
        const int rc = pk_get(key.get(), names[i], &values[i]);
        if (rc != CRYPTO_OK)
            return rc;
    }
    for (size_t i = 0; i < count; ++i)
        outs[i]->swap(values[i]);
    return CRYPTO_OK;
}

// Reads one DER header at `pos` of data[0..end): the tag, and where the
// contents start and how long they are. Only the definite length forms.
bool derElement(const unsigned char* data, size_t end, size_t pos, unsigned char* tag, size_t* contentPos,
                size_t* contentLen)
{
    if (pos >= end || end - pos < 2)
        return false;
    *tag = data[pos];
    size_t length = data[pos + 1];
    size_t at = pos + 2;
    if (length & 0x80) {
        const size_t count = length & 0x7f;
        if (count == 0 || count > sizeof(uint32_t) || count > end - at)
            return false;
        length = 0;
        for (size_t i = 0; i < count; ++i)
            length = (length << 8) | data[at + i];
        at += count;
    }
    if (length > end - at)
        return false;
    *contentPos = at;
    *contentLen = length;
    return true;
}

// Where the four counter bytes of a DER OtherInfo lie:
// SEQUENCE { SEQUENCE { OBJECT IDENTIFIER, OCTET STRING (4) }, ... }
// spanning the whole input.
bool otherInfoCounter(const unsigned char* info, size_t len, size_t* offset)
{
    enum : unsigned char { kSequence = 0x30, kOid = 0x06, kOctetString = 0x04 };
    unsigned char tag = 0;
    size_t outerPos = 0, outerLen = 0, keyInfoPos = 0, keyInfoLen = 0, oidPos = 0, oidLen = 0, counterPos = 0,
           counterLen = 0;
    if (!derElement(info, len, 0, &tag, &outerPos, &outerLen) || tag != kSequence || outerPos + outerLen != len)
        return false;
    if (!derElement(info, len, outerPos, &tag, &keyInfoPos, &keyInfoLen) || tag != kSequence)
        return false;
    const size_t keyInfoEnd = keyInfoPos + keyInfoLen;
    if (!derElement(info, keyInfoEnd, keyInfoPos, &tag, &oidPos, &oidLen) || tag != kOid || oidLen == 0)
        return false;
    if (!derElement(info, keyInfoEnd, oidPos + oidLen, &tag, &counterPos, &counterLen) || tag != kOctetString
        || counterLen != 4 || counterPos + counterLen != keyInfoEnd)
        return false;
    *offset = counterPos;
    return true;
}

constexpr size_t kSha1Bytes = 20;

int kdfAsn1(const crypto_bytes& zz, const unsigned char* otherInfo, size_t otherInfoLen, size_t keyLen,
            crypto_bytes* key)
{
    size_t counterAt = 0;
    if (otherInfo == nullptr || !otherInfoCounter(otherInfo, otherInfoLen, &counterAt))
        return CRYPTO_ERR_BAD_PARAMETER;
    const size_t blocks = (keyLen + kSha1Bytes - 1) / kSha1Bytes;
    if (blocks > UINT32_MAX)
        return CRYPTO_ERR_BAD_PARAMETER;
    crypto_bytes info(otherInfo, otherInfo + otherInfoLen);
    crypto_bytes out(blocks * kSha1Bytes);
    hash_context* hash = nullptr;
    int rc = start_hash(HASH_SHA1, &hash);
    for (size_t i = 0; i < blocks && rc == CRYPTO_OK; ++i) {
        const uint32_t counter = static_cast<uint32_t>(i + 1);
        for (int b = 0; b < 4; ++b)
            info[counterAt + b] = static_cast<unsigned char>(counter >> (24 - 8 * b));
        if (i != 0)
            rc = restart_hash(hash);
        if (rc == CRYPTO_OK)
            rc = do_hash(hash, zz.data(), zz.size());
        if (rc == CRYPTO_OK)
            rc = do_hash(hash, info.data(), info.size());
        if (rc == CRYPTO_OK)
            rc = finish_hash(hash, out.data() + i * kSha1Bytes);
    }
    abort_hash(hash);
    if (rc != CRYPTO_OK)
        return rc;
    out.resize(keyLen);
    key->swap(out);
    return CRYPTO_OK;
}

int kdfConcatenate(const crypto_bytes& zz, const unsigned char* otherInfo, size_t otherInfoLen, size_t keyLen,
                   crypto_bytes* key)
{
    EVP_KDF* kdf = EVP_KDF_fetch(crypto_libctx(), "X963KDF", nullptr);
    std::unique_ptr<EVP_KDF_CTX, KdfCtxFree> ctx(kdf != nullptr ? EVP_KDF_CTX_new(kdf) : nullptr);
    EVP_KDF_free(kdf);
    if (ctx == nullptr)
        return CRYPTO_ERR_FAILED;
    char digest[] = "SHA1";
    OSSL_PARAM settings[4];
    size_t n = 0;
    settings[n++] = OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digest, 0);
    settings[n++] = OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_KEY, const_cast<unsigned char*>(zz.data()), zz.size());
    if (otherInfoLen != 0)
        settings[n++] = OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_INFO, const_cast<unsigned char*>(otherInfo),
                                                          otherInfoLen);
    settings[n] = OSSL_PARAM_construct_end();
    crypto_bytes out(keyLen);
    if (EVP_KDF_derive(ctx.get(), out.data(), out.size(), settings) <= 0)
        return CRYPTO_ERR_FAILED;
    key->swap(out);
    return CRYPTO_OK;
}

} // namespace

int dh_generate_params(unsigned primeBits, crypto_bytes* p, crypto_bytes* g)
{
    if (p == nullptr || g == nullptr || primeBits < DH_MIN_PRIME_BITS || primeBits > DH_MAX_PRIME_BITS)
        return CRYPTO_ERR_BAD_PARAMETER;
    return pk_run([&] {
        char type[] = "generator";
        size_t pbits = primeBits;
        int generator = 2;
        const OSSL_PARAM settings[] = {
            OSSL_PARAM_construct_utf8_string(OSSL_PKEY_PARAM_FFC_TYPE, type, 0),
            OSSL_PARAM_construct_size_t(OSSL_PKEY_PARAM_FFC_PBITS, &pbits),
            OSSL_PARAM_construct_int(OSSL_PKEY_PARAM_DH_GENERATOR, &generator),
            OSSL_PARAM_construct_end(),
        };
        const char* const names[] = {OSSL_PKEY_PARAM_FFC_P, OSSL_PKEY_PARAM_FFC_G};
        crypto_bytes* const outs[] = {p, g};
        return generateParams("DH", settings, names, outs, 2);
    });
}

int x942_generate_params(unsigned primeBits, unsigned subprimeBits, crypto_bytes* p, crypto_bytes* q, crypto_bytes* g)
{
    if (p == nullptr || q == nullptr || g == nullptr || primeBits < DH_MIN_PRIME_BITS || primeBits > DH_MAX_PRIME_BITS
        || primeBits % 64 != 0 || (subprimeBits != 160 && subprimeBits != 224 && subprimeBits != 256))
        return CRYPTO_ERR_BAD_PARAMETER;
    return pk_run([&] {
        char type[] = "fips186_2";
        size_t pbits = primeBits;
        size_t qbits = subprimeBits;
        const OSSL_PARAM settings[] = {
            OSSL_PARAM_construct_utf8_string(OSSL_PKEY_PARAM_FFC_TYPE, type, 0),
            OSSL_PARAM_construct_size_t(OSSL_PKEY_PARAM_FFC_PBITS, &pbits),
            OSSL_PARAM_construct_size_t(OSSL_PKEY_PARAM_FFC_QBITS, &qbits),
            OSSL_PARAM_construct_end(),
        };
        const char* const names[] = {OSSL_PKEY_PARAM_FFC_P, OSSL_PKEY_PARAM_FFC_Q, OSSL_PKEY_PARAM_FFC_G};
        crypto_bytes* const outs[] = {p, q, g};
        return generateParams("DHX", settings, names, outs, 3);
    });
}

int dh_generate_key(const crypto_bytes& p, const crypto_bytes& g, const crypto_bytes* q, unsigned valueBits,
                    crypto_bytes* x, crypto_bytes* y)
{
    if (x == nullptr || y == nullptr || (q != nullptr && valueBits != 0))
        return CRYPTO_ERR_BAD_PARAMETER;
    return pk_run([&]() -> int {
        Group group;
        int rc = loadGroup(p, g, q, &group);
        if (rc != CRYPTO_OK)
            return rc;
        return q == nullptr ? generatePkcs3Key(group, valueBits, x, y) : generateX942Key(p, g, *q, x, y);
    });
}

int dh_compute_secret(const crypto_bytes& p, const crypto_bytes& g, const crypto_bytes* q, const crypto_bytes& x,
                      const unsigned char* peerY, size_t peerYLen, crypto_bytes* secret)
{
    if (secret == nullptr || (peerY == nullptr && peerYLen != 0))
        return CRYPTO_ERR_BAD_PARAMETER;
    return pk_run([&]() -> int {
        Group group;
        int rc = loadGroup(p, g, q, &group);
        if (rc != CRYPTO_OK)
            return rc;
        const crypto_bytes peer = pk_stripped(peerY, peerYLen);
        pk_bn peerNumber = pk_bn_from(peer, false);
        pk_bn work(BN_new());
        BnCtx bnCtx(BN_CTX_new_ex(crypto_libctx()));
        if (peerNumber == nullptr || work == nullptr || bnCtx == nullptr)
            return CRYPTO_ERR_NO_MEMORY;
        // The peer's value is checked here too so that a bad one is told
        // apart from a failure of the computation.
        if (!insideGroup(peerNumber.get(), group.p.get(), work.get()))
            return CRYPTO_ERR_DATA_RANGE;
        if (q != nullptr) {
            if (BN_is_zero(group.q.get()))
                return CRYPTO_ERR_BAD_PARAMETER;
            if (!BN_mod_exp(work.get(), peerNumber.get(), group.q.get(), group.p.get(), bnCtx.get()))
                return CRYPTO_ERR_FAILED;
            if (!BN_is_one(work.get()))
                return CRYPTO_ERR_DATA_RANGE;
        }

        const char* type = q != nullptr ? "DHX" : "DH";
        const crypto_bytes empty;
        const crypto_bytes& subprime = q != nullptr ? *q : empty;
        const pk_field own[] = {
            {OSSL_PKEY_PARAM_FFC_P, &p, false},
            {OSSL_PKEY_PARAM_FFC_G, &g, false},
            {OSSL_PKEY_PARAM_PRIV_KEY, &x, true},
            {OSSL_PKEY_PARAM_FFC_Q, &subprime, false},
        };
        const pk_field other[] = {
            {OSSL_PKEY_PARAM_FFC_P, &p, false},
            {OSSL_PKEY_PARAM_FFC_G, &g, false},
            {OSSL_PKEY_PARAM_PUB_KEY, &peer, false},
            {OSSL_PKEY_PARAM_FFC_Q, &subprime, false},
        };
        const size_t count = q != nullptr ? 4 : 3;
        pk_pkey ownKey, peerKey;
        rc = pk_from_fields(type, EVP_PKEY_KEYPAIR, own, count, &ownKey);
        if (rc == CRYPTO_OK)
            rc = pk_from_fields(type, EVP_PKEY_PUBLIC_KEY, other, count, &peerKey);
        if (rc != CRYPTO_OK)
            return rc;
        pk_pkey_ctx ctx = pk_ctx_for(ownKey.get());
        size_t len = 0;
        // Padding keeps leading zero bytes, so ZZ is always as long as p.
        if (ctx == nullptr || EVP_PKEY_derive_init(ctx.get()) <= 0 || EVP_PKEY_CTX_set_dh_pad(ctx.get(), 1) <= 0
            || EVP_PKEY_derive_set_peer_ex(ctx.get(), peerKey.get(), 1) <= 0
            || EVP_PKEY_derive(ctx.get(), nullptr, &len) <= 0)
            return CRYPTO_ERR_FAILED;
        crypto_bytes shared(len);
        if (EVP_PKEY_derive(ctx.get(), shared.data(), &len) <= 0)
            return CRYPTO_ERR_FAILED;
        const size_t primeBytes = static_cast<size_t>(BN_num_bytes(group.p.get()));
        if (len > primeBytes)
            return CRYPTO_ERR_FAILED;
        // Left-pad in case libcrypto ever hands back the short form.
        crypto_bytes padded(primeBytes - len, 0);
        padded.insert(padded.end(), shared.begin(), shared.begin() + static_cast<std::ptrdiff_t>(len));
        secret->swap(padded);
        return CRYPTO_OK;
    });
}

int x942_check_public(const crypto_bytes& p, const crypto_bytes& q, const crypto_bytes& g, const crypto_bytes& y)
{
    return pk_run([&] { return pk_check_group(p, q, g, &y); });
}

int x942_kdf(int kdf, const crypto_bytes& zz, const unsigned char* otherInfo, size_t otherInfoLen, size_t keyLen,
             crypto_bytes* key)
{
    if (key == nullptr || zz.empty() || keyLen == 0 || (otherInfo == nullptr && otherInfoLen != 0))
        return CRYPTO_ERR_BAD_PARAMETER;
    return pk_run([&]() -> int {
        switch (kdf) {
        case X942_KDF_NULL: {
            if (otherInfoLen != 0)
                return CRYPTO_ERR_BAD_PARAMETER;
            if (keyLen > zz.size())
                return CRYPTO_ERR_DATA_RANGE;
            crypto_bytes out(zz.end() - static_cast<std::ptrdiff_t>(keyLen), zz.end());
            key->swap(out);
            return CRYPTO_OK;
        }
        case X942_KDF_SHA1_ASN1:
            return kdfAsn1(zz, otherInfo, otherInfoLen, keyLen, key);
        case X942_KDF_SHA1_CONCATENATE:
            return kdfConcatenate(zz, otherInfo, otherInfoLen, keyLen, key);
        default:
            return CRYPTO_ERR_UNSUPPORTED;
        }
    });
}
