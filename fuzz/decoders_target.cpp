#include "fuzz_targets.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "crypto/crypto_errors.h"
#include "crypto/hash.h"
#include "crypto/pkcs8.h"
#include "deps/cpp_modules/ByteArray.h"
#include "deps/cpp_modules/base64.h"
#include "invariant.h"
#include "pkcs11/db/Tavik_privatekey_helper.h"
#include "pkcs11/sw/pkcs1.h"

namespace korvo_fuzz {

bool HelperOutputInput(const uint8_t* data, size_t size)
{
    const std::string output(reinterpret_cast<const char*>(data), size);
    ByteArray result;
    const bool found = Tavik_parseHelperOutput(output, &result);
    // The result is the hex after a "00" of the output: never longer than
    // half of what follows it.
    if (found) KORVO_FUZZ_REQUIRE(result.size() <= size / 2);
    else KORVO_FUZZ_REQUIRE(result.empty());
    return found;
}

bool TextDecodersInput(const uint8_t* data, size_t size)
{
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    // Hex decoding never fails and round-trips what it decoded.
    const ByteArray fromHex = ByteArray::fromHex(text);
    KORVO_FUZZ_REQUIRE(fromHex.size() <= size / 2);
    KORVO_FUZZ_REQUIRE(ByteArray::fromHex(fromHex.toHex(HexCase::Lower)) == fromHex);
    // Base64 decodes or refuses with its documented exception; what it
    // decodes encodes back to text that decodes to the same bytes.
    try {
        const ByteArray decoded = base64::decode(text);
        KORVO_FUZZ_REQUIRE(base64::decode(base64::encode(decoded)) == decoded);
        return true;
    } catch (const base64::bad_format&) {
        return false;
    }
}

bool PrivateKeyInfoInput(const uint8_t* data, size_t size)
{
    pkcs8_key key;
    const int rc = pkcs8_decode(data, size, &key);
    KORVO_FUZZ_REQUIRE(rc == CRYPTO_OK || rc == CRYPTO_ERR_BAD_PARAMETER || rc == CRYPTO_ERR_UNSUPPORTED ||
                       rc == CRYPTO_ERR_NO_MEMORY);
    if (rc != CRYPTO_OK) return false;
    // A decoded key encodes again, and that encoding decodes to the same type.
    crypto_bytes der;
    int again = CRYPTO_ERR_FAILED;
    switch (key.type) {
    case PKCS8_KEY_RSA: again = pkcs8_encode_rsa(key.rsa, &der); break;
    case PKCS8_KEY_DSA: again = pkcs8_encode_dsa(key.ffc, &der); break;
    case PKCS8_KEY_DH: again = pkcs8_encode_dh(key.ffc, &der); break;
    case PKCS8_KEY_X942: again = pkcs8_encode_x942(key.ffc, &der); break;
    default: KORVO_FUZZ_REQUIRE(false);
    }
    if (again == CRYPTO_OK) {
        pkcs8_key back;
        KORVO_FUZZ_REQUIRE(pkcs8_decode(der.data(), der.size(), &back) == CRYPTO_OK && back.type == key.type);
    }
    return true;
}

namespace {

// The hash identifiers the PKCS #1 codecs know, and one they do not (0).
const int kHashes[] = {HASH_MD5, HASH_SHA1, HASH_RIPEMD160, HASH_SHA256, HASH_SHA384,
                       HASH_SHA512, HASH_MD2, HASH_SHA224, 0};
const size_t kHashCount = sizeof kHashes / sizeof kHashes[0];

// Version 1.5 padding removal: the size query and the copy agree, the data
// is the block's tail after at least its header, a buffer one byte short is
// refused, and data padded again comes back out.
bool unpadV15(int bt, const CK_BYTE* block, CK_ULONG len)
{
    CK_ULONG needed = 0;
    std::vector<CK_BYTE> out(len + 1);
    if (pkcs11_unpad_pkcs1_block(bt, block, len, nullptr, &needed) != 0) {
        CK_ULONG capacity = len;
        KORVO_FUZZ_REQUIRE(pkcs11_unpad_pkcs1_block(bt, block, len, out.data(), &capacity) == -1);
        return false;
    }
    KORVO_FUZZ_REQUIRE(needed + (bt == 0 ? 2 : 3) <= len);
    CK_ULONG capacity = needed;
    KORVO_FUZZ_REQUIRE(pkcs11_unpad_pkcs1_block(bt, block, len, out.data(), &capacity) == 0 && capacity == needed);
    KORVO_FUZZ_REQUIRE(needed == 0 || std::memcmp(out.data(), block + len - needed, needed) == 0);
    if (needed > 0) {
        capacity = needed - 1;
        KORVO_FUZZ_REQUIRE(pkcs11_unpad_pkcs1_block(bt, block, len, out.data(), &capacity) == -1);
    }
    if (bt != 0) {
        std::vector<CK_BYTE> again(len);
        KORVO_FUZZ_REQUIRE(pkcs11_pad_pkcs1_block(bt, again.data(), len, out.data(), needed) == 0);
        CK_ULONG back = len;
        std::vector<CK_BYTE> data(len);
        KORVO_FUZZ_REQUIRE(pkcs11_unpad_pkcs1_block(bt, again.data(), len, data.data(), &back) == 0);
        KORVO_FUZZ_REQUIRE(back == needed && std::memcmp(data.data(), out.data(), needed) == 0);
    }
    return true;
}

// EMSA-PSS verification answers only its documented codes; a digest encoded
// without salt verifies.
bool verifyPss(int hashId, int mgfHashId, CK_ULONG sLen, CK_ULONG trimBits, const CK_BYTE* bytes, CK_ULONG len)
{
    const CK_ULONG hLen = hash_digestLength(hashId);
    if (hLen == 0 || len < hLen) {
        const CK_BYTE none[1] = {0};
        const CK_RV rv = EMSA_PSS_VERIFY(none, hLen, none, 1, 8, hashId, mgfHashId, sLen);
        KORVO_FUZZ_REQUIRE(rv == CKR_MECHANISM_INVALID || rv == CKR_DATA_LEN_RANGE || rv == CKR_SIGNATURE_INVALID);
        return false;
    }
    const CK_BYTE* mHash = bytes;
    const CK_BYTE* em = bytes + hLen;
    const CK_ULONG emLen = len - hLen;
    const CK_ULONG emBits = emLen * 8 > trimBits ? emLen * 8 - trimBits : 0;
    const CK_RV rv = EMSA_PSS_VERIFY(mHash, hLen, em, emLen, emBits, hashId, mgfHashId, sLen);
    KORVO_FUZZ_REQUIRE(rv == CKR_OK || rv == CKR_DATA_LEN_RANGE || rv == CKR_SIGNATURE_INVALID ||
                       (rv == CKR_GENERAL_ERROR && hash_digestLength(mgfHashId) == 0));
    if (hash_digestLength(mgfHashId) == 0) return rv == CKR_OK;
    // The same digest encoded without salt into a block of this size.
    CK_ULONG encodedLen = emLen + 1;
    std::vector<CK_BYTE> encoded(encodedLen);
    const CK_RV encodeRv =
        EMSA_PSS_ENCODE(mHash, hLen, encoded.data(), &encodedLen, emBits, hashId, mgfHashId, 0, nullptr);
    if (encodeRv == CKR_OK)
        KORVO_FUZZ_REQUIRE(EMSA_PSS_VERIFY(mHash, hLen, encoded.data(), encodedLen, emBits, hashId, mgfHashId, 0) ==
                           CKR_OK);
    else
        KORVO_FUZZ_REQUIRE(encodeRv == CKR_DATA_LEN_RANGE);
    return rv == CKR_OK;
}

// EME-OAEP decoding: the size query and the copy agree, the message fits
// the encoding, and a message encoded again decodes to itself.
bool decodeOaep(int hashId, int mgfHashId, CK_ULONG labelLen, const CK_BYTE* bytes, CK_ULONG len)
{
    labelLen = std::min(labelLen, len);
    const CK_BYTE* label = labelLen ? bytes : nullptr;
    const CK_BYTE* em = bytes + labelLen;
    const CK_ULONG emLen = len - labelLen;
    const CK_ULONG hLen = hash_digestLength(hashId);
    CK_ULONG needed = 0;
    std::vector<CK_BYTE> out(emLen + 1);
    const int rc = OAEP_DECODE(hashId, mgfHashId, em, emLen, label, labelLen, nullptr, &needed);
    if (hashId == HASH_SHA1 && mgfHashId == HASH_SHA1) {
        CK_ULONG sha1Needed = 0;
        KORVO_FUZZ_REQUIRE(OAEP_DECODE_SHA1_SHA1(em, emLen, label, labelLen, nullptr, &sha1Needed) == rc);
        KORVO_FUZZ_REQUIRE(rc != 0 || sha1Needed == needed);
    }
    bool decoded = false;
    if (rc == 0) {
        KORVO_FUZZ_REQUIRE(needed + 2 * hLen + 1 <= emLen);
        CK_ULONG capacity = needed;
        KORVO_FUZZ_REQUIRE(OAEP_DECODE(hashId, mgfHashId, em, emLen, label, labelLen, out.data(), &capacity) == 0);
        KORVO_FUZZ_REQUIRE(capacity == needed);
        if (needed > 0) {
            capacity = needed - 1;
            KORVO_FUZZ_REQUIRE(OAEP_DECODE(hashId, mgfHashId, em, emLen, label, labelLen, out.data(), &capacity) == -1);
            KORVO_FUZZ_REQUIRE(capacity == needed);
        }
        decoded = true;
    } else {
        KORVO_FUZZ_REQUIRE(rc == -1);
        // Round trip of the encoding's own bytes as a message instead.
        needed = (hLen && emLen >= 2 * hLen + 1) ? std::min(emLen - 2 * hLen - 1, emLen) : 0;
        if (needed) std::memcpy(out.data(), em, needed);
    }
    if (hLen == 0 || hash_digestLength(mgfHashId) == 0 || emLen < 2 * hLen + 1) return decoded;
    const std::vector<CK_BYTE> seed(em, em + hLen);
    std::vector<CK_BYTE> encoded(emLen);
    KORVO_FUZZ_REQUIRE(OAEP_ENCODE(hashId, mgfHashId, out.data(), needed, label, labelLen, seed.data(), encoded.data(),
                                   emLen) == 0);
    std::vector<CK_BYTE> back(emLen);
    CK_ULONG backLen = emLen;
    KORVO_FUZZ_REQUIRE(OAEP_DECODE(hashId, mgfHashId, encoded.data(), emLen, label, labelLen, back.data(), &backLen) ==
                       0);
    KORVO_FUZZ_REQUIRE(backLen == needed && std::memcmp(back.data(), out.data(), needed) == 0);
    return decoded;
}

}  // namespace

bool Pkcs1DecodersInput(const uint8_t* data, size_t size)
{
    // Three bytes choose the codec, its hashes and its parameters; the rest
    // is the encoded block.
    if (size < 3) return false;
    const uint8_t which = data[0], hashes = data[1], knob = data[2];
    const CK_BYTE* bytes = data + 3;
    const CK_ULONG len = CK_ULONG(size - 3);
    const int hashId = kHashes[hashes % kHashCount];
    const int mgfHashId = kHashes[(hashes / kHashCount) % kHashCount];
    switch (which % 3) {
    case 0: return unpadV15(knob % 3, bytes, len);
    case 1: return verifyPss(hashId, mgfHashId, knob >> 3, knob & 7, bytes, len);
    default: return decodeOaep(hashId, mgfHashId, knob, bytes, len);
    }
}

}  // namespace korvo_fuzz
