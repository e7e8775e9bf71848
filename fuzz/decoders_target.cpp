#include "fuzz_targets.h"

#include <string>
#include <string_view>

#include "crypto/crypto_errors.h"
#include "crypto/pkcs8.h"
#include "deps/cpp_modules/ByteArray.h"
#include "deps/cpp_modules/base64.h"
#include "invariant.h"
#include "pkcs11/db/Tavik_privatekey_helper.h"

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

}  // namespace korvo_fuzz
