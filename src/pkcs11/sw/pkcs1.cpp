// PKCS #1 encodings: v1.5 block padding, MGF1, EMSA-PSS and EME-OAEP with
// SHA-1. See pkcs1.h for the return conventions.

#include "pkcs11/sw/pkcs1.h"

#include <openssl/crypto.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "crypto/crypto_errors.h"
#include "crypto/csprgbg.h"
#include "crypto/hash.h"
#include "pkcs11/P11Session.h"

namespace {

const CK_ULONG kSha1Len = 20;
// Eight zero bytes open M' of EMSA-PSS.
const CK_BYTE kPssZeros[8] = {0, 0, 0, 0, 0, 0, 0, 0};

// A heap buffer for temporaries: wiped and freed when it goes out of scope.
class Scratch {
public:
    explicit Scratch(CK_ULONG len) : len_(len), data_(len ? new (std::nothrow) CK_BYTE[len] : nullptr) {}
    ~Scratch()
    {
        if (data_) OPENSSL_cleanse(data_.get(), len_);
    }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    // False when a non-empty buffer could not be allocated.
    bool ok() const { return len_ == 0 || data_ != nullptr; }
    CK_BYTE* get() { return data_.get(); }

private:
    CK_ULONG len_;
    std::unique_ptr<CK_BYTE[]> data_;
};

// Hashes up to three pieces into digest. CKR_GENERAL_ERROR when starting or
// feeding the hash fails; finishRv when finishing it fails.
CK_RV hashPieces(int hashId, const CK_BYTE* a, CK_ULONG aLen, const CK_BYTE* b, CK_ULONG bLen, const CK_BYTE* c,
                 CK_ULONG cLen, CK_BYTE* digest, CK_RV finishRv = CKR_GENERAL_ERROR)
{
    hash_context* ctx = nullptr;
    if (start_hash(hashId, &ctx) != CRYPTO_OK) return CKR_GENERAL_ERROR;
    if (do_hash(ctx, a, aLen) != CRYPTO_OK || do_hash(ctx, b, bLen) != CRYPTO_OK ||
        do_hash(ctx, c, cLen) != CRYPTO_OK) {
        abort_hash(ctx);
        return CKR_GENERAL_ERROR;
    }
    return stop_hash(ctx, digest) == CRYPTO_OK ? CKR_OK : finishRv;
}

// True when emBits > 8 * (hLen + sLen + 1), computed without overflow.
bool pssFits(CK_ULONG emBits, CK_ULONG hLen, CK_ULONG sLen)
{
    if (emBits == 0) return false;
    const CK_ULONG room = (emBits - 1) / 8;  // the largest x with 8x < emBits
    return hLen < room && sLen <= room - hLen - 1;
}

void xorInto(CK_BYTE* target, const CK_BYTE* mask, CK_ULONG len)
{
    for (CK_ULONG i = 0; i < len; ++i) target[i] ^= mask[i];
}

}  // namespace

int pkcs11_pad_pkcs1_block(int bt, CK_BYTE* block, CK_ULONG k, const CK_BYTE* data, CK_ULONG dataLen)
{
    if (bt != 1 && bt != 2) return -1;
    if (!block || (!data && dataLen > 0)) return -1;
    if (k < 3 || dataLen > k - 3) return -1;

    const CK_ULONG psLen = k - dataLen - 3;
    block[0] = 0x00;
    block[1] = static_cast<CK_BYTE>(bt);
    if (bt == 1) {
        std::memset(block + 2, 0xFF, psLen);
    } else {
        // rand() here rather than the token's generator: kept as it always was.
        for (CK_ULONG i = 0; i < psLen; ++i) block[2 + i] = static_cast<CK_BYTE>(std::rand() % 255 + 1);
    }
    block[k - dataLen - 1] = 0x00;
    if (dataLen > 0) std::memmove(block + k - dataLen, data, dataLen);
    return 0;
}

int pkcs11_unpad_pkcs1_block(int bt, const CK_BYTE* block, CK_ULONG len, CK_BYTE* out, CK_ULONG* outLen)
{
    if (!block || !outLen || len < 2) return -1;
    if (bt < 0 || bt > 2 || block[0] != 0x00 || block[1] != bt) return -1;

    // Index of the byte before the data.
    CK_ULONG separator;
    if (len <= 2) {
        separator = 2;
    } else if (bt == 0) {
        if (block[2] != 0x00) {
            separator = 1;
        } else {
            separator = 2;
            while (separator + 1 < len && block[separator + 1] == 0x00) ++separator;
        }
    } else if (block[2] == 0x00) {
        separator = 2;
    } else {
        separator = 3;
        while (separator < len && block[separator] != 0x00) ++separator;
    }
    if (separator >= len) return -1;  // no separator inside the block

    const CK_ULONG dataLen = len - 1 - separator;
    if (!out) {
        *outLen = dataLen;
        return 0;
    }
    if (*outLen < dataLen) return -1;
    if (dataLen > 0) std::memcpy(out, block + separator + 1, dataLen);
    *outLen = dataLen;
    return 0;
}

CK_RV MGF1(int hashId, const CK_BYTE* seed, CK_ULONG seedLen, CK_BYTE* mask, CK_ULONG maskLen)
{
    if (maskLen == 0) return CKR_OK;
    if (!mask || (!seed && seedLen > 0)) return CKR_ARGUMENTS_BAD;
    const CK_ULONG hLen = hash_digestLength(hashId);
    if (hLen == 0) return CKR_GENERAL_ERROR;

    CK_BYTE digest[HASH_MAX_DIGEST_LENGTH];
    CK_ULONG done = 0;
    for (uint32_t counter = 0; done < maskLen; ++counter) {
        const CK_BYTE c[4] = {static_cast<CK_BYTE>(counter >> 24), static_cast<CK_BYTE>(counter >> 16),
                              static_cast<CK_BYTE>(counter >> 8), static_cast<CK_BYTE>(counter)};
        const CK_RV rv = hashPieces(hashId, seed, seedLen, c, sizeof c, nullptr, 0, digest);
        if (rv != CKR_OK) {
            OPENSSL_cleanse(digest, sizeof digest);
            return rv;
        }
        const CK_ULONG take = maskLen - done < hLen ? maskLen - done : hLen;
        std::memcpy(mask + done, digest, take);
        done += take;
    }
    OPENSSL_cleanse(digest, sizeof digest);
    return CKR_OK;
}

CK_RV MGF1_SHA1(const CK_BYTE* seed, CK_ULONG seedLen, CK_BYTE* mask, CK_ULONG maskLen)
{
    return MGF1(HASH_SHA1, seed, seedLen, mask, maskLen);
}

CK_RV EMSA_PSS_ENCODE(const CK_BYTE* mHash, CK_ULONG hLen, CK_BYTE* EM, CK_ULONG* emLen, CK_ULONG emBits,
                      int hashId, int mgfHashId, CK_ULONG sLen, P11Session* session)
{
    if (!emLen) return CKR_ARGUMENTS_BAD;
    const CK_ULONG len = emBits / 8 + (emBits % 8 ? 1 : 0);
    if (!EM) {
        *emLen = len;
        return CKR_OK;
    }
    if (*emLen < len) {
        *emLen = len;
        return CKR_BUFFER_TOO_SMALL;
    }

    const CK_ULONG digestLen = hash_digestLength(hashId);
    if (digestLen == 0) return CKR_MECHANISM_INVALID;
    if (hLen != digestLen || !pssFits(emBits, hLen, sLen)) return CKR_DATA_LEN_RANGE;
    if (!mHash || (sLen > 0 && !session)) return CKR_ARGUMENTS_BAD;

    Scratch salt(sLen);
    if (!salt.ok()) return CKR_HOST_MEMORY;
    if (sLen > 0) {
        const CK_RV rv = P11Session_generateRandom(session, salt.get(), sLen);
        if (rv != CKR_OK) return rv;
    }

    // EM = maskedDB || H || 0xBC, DB = PS (zeros) || 0x01 || salt.
    const CK_ULONG dbLen = len - hLen - 1;
    CK_BYTE* H = EM + dbLen;
    CK_RV rv = hashPieces(hashId, kPssZeros, sizeof kPssZeros, mHash, hLen, salt.get(), sLen, H);
    if (rv != CKR_OK) return rv;
    rv = MGF1(mgfHashId, H, hLen, EM, dbLen);
    if (rv != CKR_OK) return rv;
    EM[dbLen - sLen - 1] ^= 0x01;
    xorInto(EM + dbLen - sLen, salt.get(), sLen);

    if (8 * len != emBits) EM[0] &= static_cast<CK_BYTE>(0xFF >> (8 * len - emBits));
    EM[len - 1] = 0xBC;
    *emLen = len;
    return CKR_OK;
}

CK_RV EMSA_PSS_VERIFY(const CK_BYTE* mHash, CK_ULONG hLen, const CK_BYTE* EM, CK_ULONG emLen, CK_ULONG emBits,
                      int hashId, int mgfHashId, CK_ULONG sLen)
{
    const CK_ULONG digestLen = hash_digestLength(hashId);
    if (digestLen == 0) return CKR_MECHANISM_INVALID;
    if (hLen != digestLen || emLen != emBits / 8 + (emBits % 8 ? 1 : 0)) return CKR_DATA_LEN_RANGE;
    if (!pssFits(emBits, hLen, sLen)) return CKR_SIGNATURE_INVALID;
    if (!mHash || !EM) return CKR_ARGUMENTS_BAD;

    const CK_BYTE topMask = static_cast<CK_BYTE>(0xFF >> (8 * emLen - emBits));
    if (EM[emLen - 1] != 0xBC || (EM[0] & ~topMask) != 0) return CKR_SIGNATURE_INVALID;

    const CK_ULONG dbLen = emLen - hLen - 1;
    const CK_BYTE* H = EM + dbLen;
    Scratch db(dbLen);
    if (!db.ok()) return CKR_HOST_MEMORY;
    CK_RV rv = MGF1(mgfHashId, H, hLen, db.get(), dbLen);
    if (rv != CKR_OK) return rv;
    xorInto(db.get(), EM, dbLen);
    db.get()[0] &= topMask;

    const CK_ULONG oneAt = dbLen - sLen - 1;
    for (CK_ULONG i = 0; i < oneAt; ++i)
        if (db.get()[i] != 0x00) return CKR_SIGNATURE_INVALID;
    if (db.get()[oneAt] != 0x01) return CKR_SIGNATURE_INVALID;

    CK_BYTE check[HASH_MAX_DIGEST_LENGTH];
    rv = hashPieces(hashId, kPssZeros, sizeof kPssZeros, mHash, hLen, db.get() + dbLen - sLen, sLen, check,
                    CKR_SIGNATURE_INVALID);
    if (rv == CKR_OK && std::memcmp(check, H, hLen) != 0) rv = CKR_SIGNATURE_INVALID;
    return rv;
}

int OAEP_ENCODE(int hashId, int mgfHashId, const CK_BYTE* M, CK_ULONG mLen, const CK_BYTE* P, CK_ULONG pLen,
                const CK_BYTE* seedIn, CK_BYTE* EM, CK_ULONG emLen)
{
    const CK_ULONG hLen = hash_digestLength(hashId);
    if (hLen == 0 || hash_digestLength(mgfHashId) == 0) return -1;
    if (emLen < 2 * hLen + 1 || mLen > emLen - 2 * hLen - 1) return -1;
    if (!EM || !seedIn || (!M && mLen > 0) || (!P && pLen > 0)) return -1;

    // EM = seed || DB, DB = Hash(P) || zeros || 0x01 || M, both then masked.
    CK_BYTE* seed = EM;
    CK_BYTE* db = EM + hLen;
    const CK_ULONG dbLen = emLen - hLen;
    if (mLen > 0) std::memmove(db + dbLen - mLen, M, mLen);
    std::memmove(seed, seedIn, hLen);
    if (hash_buffer(hashId, P, pLen, db) != CRYPTO_OK) return -1;
    std::memset(db + hLen, 0x00, dbLen - hLen - mLen - 1);
    db[dbLen - mLen - 1] = 0x01;

    Scratch dbMask(dbLen);
    if (!dbMask.ok()) return -1;
    if (MGF1(mgfHashId, seed, hLen, dbMask.get(), dbLen) != CKR_OK) return -1;
    xorInto(db, dbMask.get(), dbLen);

    CK_BYTE seedMask[HASH_MAX_DIGEST_LENGTH];
    if (MGF1(mgfHashId, db, dbLen, seedMask, hLen) != CKR_OK) return -1;
    xorInto(seed, seedMask, hLen);
    return 0;
}

int OAEP_DECODE(int hashId, int mgfHashId, const CK_BYTE* EM, CK_ULONG emLen, const CK_BYTE* P, CK_ULONG pLen,
                CK_BYTE* out, CK_ULONG* outLen)
{
    const CK_ULONG hLen = hash_digestLength(hashId);
    if (hLen == 0 || hash_digestLength(mgfHashId) == 0) return -1;
    if (emLen < 2 * hLen + 1) return -1;
    if (!EM || !outLen || (!P && pLen > 0)) return -1;

    const CK_BYTE* maskedDb = EM + hLen;
    const CK_ULONG dbLen = emLen - hLen;
    CK_BYTE seed[HASH_MAX_DIGEST_LENGTH];
    if (MGF1(mgfHashId, maskedDb, dbLen, seed, hLen) != CKR_OK) return -1;
    xorInto(seed, EM, hLen);

    Scratch db(dbLen);
    if (!db.ok()) return -1;
    const CK_RV rv = MGF1(mgfHashId, seed, hLen, db.get(), dbLen);
    OPENSSL_cleanse(seed, sizeof seed);
    if (rv != CKR_OK) return -1;
    xorInto(db.get(), maskedDb, dbLen);

    CK_BYTE pHash[HASH_MAX_DIGEST_LENGTH];
    if (hash_buffer(hashId, P, pLen, pHash) != CRYPTO_OK) return -1;

    CK_ULONG one = hLen;
    while (one < dbLen && db.get()[one] == 0x00) ++one;
    if (one == dbLen || db.get()[one] != 0x01) return -1;
    if (std::memcmp(db.get(), pHash, hLen) != 0) return -1;

    const CK_ULONG msgLen = dbLen - one - 1;
    if (!out) {
        *outLen = msgLen;
        return 0;
    }
    if (*outLen < msgLen) {
        *outLen = msgLen;
        return -1;
    }
    if (msgLen > 0) std::memcpy(out, db.get() + one + 1, msgLen);
    *outLen = msgLen;
    return 0;
}

int OAEP_ENCODE_SHA1_SHA1(const CK_BYTE* M, CK_ULONG mLen, const CK_BYTE* P, CK_ULONG pLen, CK_BYTE* EM,
                          CK_ULONG emLen, csprgbg_state* rng)
{
    if (emLen < 2 * kSha1Len + 1 || mLen > emLen - 2 * kSha1Len - 1) return -1;
    if (!EM || (!M && mLen > 0) || (!P && pLen > 0)) return -1;
    CK_BYTE seed[kSha1Len];
    const int grv = csprgbg_bytes(rng, seed, kSha1Len);
    if (grv != CRYPTO_OK) return grv;
    const int rv = OAEP_ENCODE(HASH_SHA1, HASH_SHA1, M, mLen, P, pLen, seed, EM, emLen);
    OPENSSL_cleanse(seed, sizeof seed);
    return rv;
}

int OAEP_DECODE_SHA1_SHA1(const CK_BYTE* EM, CK_ULONG emLen, const CK_BYTE* P, CK_ULONG pLen, CK_BYTE* out,
                          CK_ULONG* outLen)
{
    return OAEP_DECODE(HASH_SHA1, HASH_SHA1, EM, emLen, P, pLen, out, outLen);
}
