#include "pkcs11/sw/P11Sw_secret.h"

#include <cstring>

#include "crypto/bytes.h"
#include "pkcs11/P11Session.h"
#include "pkcs11/objects/P11Obj.h"
#include "pkcs11/sw/P11Sw_keys.h"

namespace {

struct SecretKind {
    CK_MECHANISM_TYPE mechanism;
    CK_KEY_TYPE keyType;
    CK_ULONG fixedLength;  // 0: CKA_VALUE_LEN of the template, within the bounds
    CK_ULONG minLength, maxLength;
};

const SecretKind kKinds[] = {
    {CKM_DES_KEY_GEN, CKK_DES, 8, 8, 8},
    {CKM_DES2_KEY_GEN, CKK_DES2, 16, 16, 16},
    {CKM_DES3_KEY_GEN, CKK_DES3, 24, 24, 24},
    {CKM_AES_KEY_GEN, CKK_AES, 0, 16, 32},
    {CKM_RC2_KEY_GEN, CKK_RC2, 0, 1, 128},
    {CKM_RC4_KEY_GEN, CKK_RC4, 0, 1, 256},
    {CKM_GENERIC_SECRET_KEY_GEN, CKK_GENERIC_SECRET, 0, 1, 1 << 16},
};

// The DES weak and semi-weak keys, with odd parity.
const CK_BYTE kWeakDesKeys[][8] = {
    {0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01}, {0xFE, 0xFE, 0xFE, 0xFE, 0xFE, 0xFE, 0xFE, 0xFE},
    {0x1F, 0x1F, 0x1F, 0x1F, 0x0E, 0x0E, 0x0E, 0x0E}, {0xE0, 0xE0, 0xE0, 0xE0, 0xF1, 0xF1, 0xF1, 0xF1},
    {0x01, 0xFE, 0x01, 0xFE, 0x01, 0xFE, 0x01, 0xFE}, {0xFE, 0x01, 0xFE, 0x01, 0xFE, 0x01, 0xFE, 0x01},
    {0x1F, 0xE0, 0x1F, 0xE0, 0x0E, 0xF1, 0x0E, 0xF1}, {0xE0, 0x1F, 0xE0, 0x1F, 0xF1, 0x0E, 0xF1, 0x0E},
    {0x01, 0xE0, 0x01, 0xE0, 0x01, 0xF1, 0x01, 0xF1}, {0xE0, 0x01, 0xE0, 0x01, 0xF1, 0x01, 0xF1, 0x01},
    {0x1F, 0xFE, 0x1F, 0xFE, 0x0E, 0xFE, 0x0E, 0xFE}, {0xFE, 0x1F, 0xFE, 0x1F, 0xFE, 0x0E, 0xFE, 0x0E},
    {0x01, 0x1F, 0x01, 0x1F, 0x01, 0x0E, 0x01, 0x0E}, {0x1F, 0x01, 0x1F, 0x01, 0x0E, 0x01, 0x0E, 0x01},
    {0xE0, 0xFE, 0xE0, 0xFE, 0xF1, 0xFE, 0xF1, 0xFE}, {0xFE, 0xE0, 0xFE, 0xE0, 0xFE, 0xF1, 0xFE, 0xF1},
};

}  // namespace

void P11SwSecret_setOddParity(CK_BYTE* bytes, size_t length)
{
    for (size_t i = 0; i < length; ++i) {
        CK_BYTE b = bytes[i] & 0xFE;
        int ones = 0;
        for (CK_BYTE v = b; v; v >>= 1) ones += v & 1;
        bytes[i] = CK_BYTE(b | (ones % 2 == 0 ? 1 : 0));
    }
}

namespace {

bool hasWeakPart(const CK_BYTE* bytes, size_t length)
{
    for (size_t part = 0; part + 8 <= length; part += 8)
        for (const auto& weak : kWeakDesKeys)
            if (std::memcmp(bytes + part, weak, 8) == 0) return true;
    return false;
}

}  // namespace

CK_RV P11SwSecret_generate(const P11Mechanism& row, P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism)
{
    if (mechanism->ulParameterLen != 0) return CKR_MECHANISM_PARAM_INVALID;
    const SecretKind* kind = nullptr;
    for (const SecretKind& k : kKinds)
        if (k.mechanism == row.type) kind = &k;
    if (!kind) return CKR_MECHANISM_INVALID;
    CK_ULONG length = kind->fixedLength;
    if (!length) {
        const CK_RV rv = P11Obj_getUlongValue(key, CKA_VALUE_LEN, &length);
        if (rv != CKR_OK) return rv;
        if (length < kind->minLength || length > kind->maxLength ||
            (kind->keyType == CKK_AES && length != 16 && length != 24 && length != 32))
            return CKR_KEY_SIZE_RANGE;
    }
    crypto_bytes value(length);
    const bool des = kind->keyType == CKK_DES || kind->keyType == CKK_DES2 || kind->keyType == CKK_DES3;
    // A DES key drawn with a weak part (a chance of 2^-52 per part) is drawn again.
    do {
        const CK_RV rv = P11Session_generateRandom(session, value.data(), length);
        if (rv != CKR_OK) return rv;
        if (des) P11SwSecret_setOddParity(value.data(), value.size());
    } while (des && hasWeakPart(value.data(), value.size()));
    CK_RV rv = P11SwKeys_setHead(key, CKO_SECRET_KEY, kind->keyType, mechanism->mechanism);
    if (rv == CKR_OK) rv = P11SwKeys_setNumber(key, CKA_VALUE, value);
    return rv;
}
