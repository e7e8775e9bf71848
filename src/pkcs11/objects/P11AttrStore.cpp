#include "pkcs11/objects/P11AttrStore.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <new>

#include "deps/cpp_modules/WipingBytes.h"

namespace {

// The storable types in slot order (ascending type values).
constexpr CK_ATTRIBUTE_TYPE kSlotTypes[P11_SW_SLOT_COUNT] = {
    CKA_CLASS, CKA_TOKEN, CKA_PRIVATE, CKA_LABEL,
    CKA_APPLICATION, CKA_VALUE, CKA_OBJECT_ID,
    CKA_CERTIFICATE_TYPE, CKA_ISSUER, CKA_SERIAL_NUMBER, CKA_AC_ISSUER, CKA_OWNER, CKA_ATTR_TYPES, CKA_TRUSTED,
    CKA_CERTIFICATE_CATEGORY, CKA_JAVA_MIDP_SECURITY_DOMAIN, CKA_URL, CKA_HASH_OF_SUBJECT_PUBLIC_KEY,
    CKA_HASH_OF_ISSUER_PUBLIC_KEY,
    CKA_CHECK_VALUE,
    CKA_KEY_TYPE, CKA_SUBJECT, CKA_ID, CKA_SENSITIVE, CKA_ENCRYPT, CKA_DECRYPT, CKA_WRAP, CKA_UNWRAP, CKA_SIGN,
    CKA_SIGN_RECOVER, CKA_VERIFY, CKA_VERIFY_RECOVER, CKA_DERIVE,
    CKA_START_DATE, CKA_END_DATE,
    CKA_MODULUS, CKA_MODULUS_BITS, CKA_PUBLIC_EXPONENT, CKA_PRIVATE_EXPONENT, CKA_PRIME_1, CKA_PRIME_2,
    CKA_EXPONENT_1, CKA_EXPONENT_2, CKA_COEFFICIENT,
    CKA_PRIME, CKA_SUBPRIME, CKA_BASE, CKA_PRIME_BITS, CKA_SUB_PRIME_BITS,
    CKA_VALUE_BITS, CKA_VALUE_LEN, CKA_EXTRACTABLE, CKA_LOCAL, CKA_NEVER_EXTRACTABLE, CKA_ALWAYS_SENSITIVE,
    CKA_KEY_GEN_MECHANISM,
    CKA_MODIFIABLE,
    CKA_ECDSA_PARAMS, CKA_EC_POINT,
    CKA_SECONDARY_AUTH, CKA_AUTH_PIN_FLAGS, CKA_ALWAYS_AUTHENTICATE, CKA_WRAP_WITH_TRUSTED,
    CKA_HW_FEATURE_TYPE, CKA_RESET_ON_INIT, CKA_HAS_RESET,
};

using SlotMap = std::array<uint32_t, P11_ATTR_MAP_SIZE>;

constexpr SlotMap makeSlotMap()
{
    SlotMap map{};
    for (uint32_t& slot : map) slot = P11_NO_SLOT;
    for (uint32_t i = 0; i < P11_SW_SLOT_COUNT; ++i) map[kSlotTypes[i]] = i;
    return map;
}

// Type to slot for every type below 784; all ones where nothing is stored.
constexpr SlotMap attr2indextable = makeSlotMap();
static_assert(attr2indextable[CKA_HAS_RESET] == 65, "the last standard slot");

// The Netscape trust attributes follow the standard slots in the larger
// store: the sixteen usages, then the two certificate hashes.
constexpr uint32_t kTrustUsageSlot = P11_SW_SLOT_COUNT;
constexpr uint32_t kCertHashSlot = kTrustUsageSlot + 16;
static_assert(CKA_TRUST_STEP_UP_APPROVED - CKA_TRUST_DIGITAL_SIGNATURE == 15, "sixteen trust usages");
static_assert(kCertHashSlot + 2 == P11_ATTROBJ_SLOT_COUNT, "the larger store ends with the two hashes");

CK_ATTRIBUTE* newRecord()
{
    return static_cast<CK_ATTRIBUTE*>(std::calloc(1, sizeof(CK_ATTRIBUTE)));
}

// Attribute values include key material: their memory is wiped before it
// is freed.
void freeRecord(CK_ATTRIBUTE* record)
{
    if (!record) return;
    wipeAndFree(record->pValue, record->ulValueLen);
    std::free(record);
}

// Copies type, length and bytes of source into an existing record.
CK_RV copyAttribute(const CK_ATTRIBUTE* source, CK_ATTRIBUTE* destination, bool refuseBytesWithoutPointer)
{
    if (!source || !destination) return CKR_FUNCTION_FAILED;
    if (refuseBytesWithoutPointer && source->ulValueLen && !source->pValue) return CKR_ATTRIBUTE_VALUE_INVALID;
    // A new block each time (no realloc, which could leave the old value
    // behind unwiped); the old one is wiped as it goes.
    if (source->ulValueLen) {
        void* bytes = std::malloc(source->ulValueLen);
        if (!bytes) {
            wipeAndFree(destination->pValue, destination->ulValueLen);
            destination->pValue = nullptr;
            destination->ulValueLen = 0;
            return CKR_HOST_MEMORY;
        }
        if (source->pValue) std::memcpy(bytes, source->pValue, source->ulValueLen);
        else std::memset(bytes, 0, source->ulValueLen);
        wipeAndFree(destination->pValue, destination->ulValueLen);
        destination->pValue = bytes;
    } else {
        wipeAndFree(destination->pValue, destination->ulValueLen);
        destination->pValue = nullptr;
    }
    destination->type = source->type;
    destination->ulValueLen = source->ulValueLen;
    return CKR_OK;
}

bool findSlot(const P11AttrStoreView& store, CK_ATTRIBUTE_TYPE type, uint32_t* slot)
{
    *slot = store.slotOf(type);
    return *slot != P11_NO_SLOT;
}

}  // namespace

uint32_t P11AttrStore_swSlot(CK_ATTRIBUTE_TYPE type)
{
    return type < P11_ATTR_MAP_SIZE ? attr2indextable[type] : P11_NO_SLOT;
}

uint32_t P11AttrStore_attrObjSlot(CK_ATTRIBUTE_TYPE type)
{
    if (type < P11_ATTR_MAP_SIZE) return attr2indextable[type];
    if (type >= CKA_TRUST_DIGITAL_SIGNATURE && type <= CKA_TRUST_STEP_UP_APPROVED)
        return kTrustUsageSlot + uint32_t(type - CKA_TRUST_DIGITAL_SIGNATURE);
    if (type == CKA_CERT_SHA1_HASH) return kCertHashSlot;
    if (type == CKA_CERT_MD5_HASH) return kCertHashSlot + 1;
    return P11_NO_SLOT;
}

CK_RV P11AttrStore_set(const P11AttrStoreView& store, const CK_ATTRIBUTE* attribute)
{
    if (!attribute) return CKR_ARGUMENTS_BAD;
    uint32_t slot;
    if (!findSlot(store, attribute->type, &slot)) return CKR_ATTRIBUTE_TYPE_INVALID;
    if (store.slots[slot]) return copyAttribute(attribute, store.slots[slot], store.refuseBytesWithoutPointer);
    CK_ATTRIBUTE* record = newRecord();
    if (!record) return CKR_HOST_MEMORY;
    const CK_RV rv = copyAttribute(attribute, record, store.refuseBytesWithoutPointer);
    if (rv != CKR_OK) {
        freeRecord(record);
        return rv;
    }
    store.slots[slot] = record;
    ++*store.count;
    return CKR_OK;
}

CK_RV P11AttrStore_get(const P11AttrStoreView& store, CK_ATTRIBUTE* attribute)
{
    uint32_t slot;
    if (!findSlot(store, attribute->type, &slot) || !store.slots[slot]) {
        attribute->ulValueLen = CK_UNAVAILABLE_INFORMATION;
        return CKR_ATTRIBUTE_TYPE_INVALID;
    }
    const CK_ATTRIBUTE* stored = store.slots[slot];
    if (!attribute->pValue) {
        attribute->ulValueLen = stored->ulValueLen;
        return CKR_OK;
    }
    if (attribute->ulValueLen < stored->ulValueLen) {
        attribute->ulValueLen = CK_UNAVAILABLE_INFORMATION;
        return CKR_BUFFER_TOO_SMALL;
    }
    if (stored->ulValueLen) std::memcpy(attribute->pValue, stored->pValue, stored->ulValueLen);
    attribute->ulValueLen = stored->ulValueLen;
    return CKR_OK;
}

CK_RV P11AttrStore_peek(const P11AttrStoreView& store, CK_ATTRIBUTE_TYPE type, const CK_ATTRIBUTE** attribute)
{
    uint32_t slot;
    if (!findSlot(store, type, &slot)) return CKR_ATTRIBUTE_TYPE_INVALID;
    *attribute = store.slots[slot];
    return CKR_OK;
}

CK_RV P11AttrStore_compare(const P11AttrStoreView& store, const CK_ATTRIBUTE* attribute, CK_BBOOL* match)
{
    uint32_t slot;
    if (!findSlot(store, attribute->type, &slot)) return CKR_ATTRIBUTE_TYPE_INVALID;
    const CK_ATTRIBUTE* stored = store.slots[slot];
    *match = stored && stored->ulValueLen == attribute->ulValueLen &&
             (stored->ulValueLen == 0 ||
              (attribute->pValue && std::memcmp(stored->pValue, attribute->pValue, stored->ulValueLen) == 0));
    return CKR_OK;
}

CK_RV P11AttrStore_copy(const P11AttrStoreView& source, const P11AttrStoreView& destination)
{
    for (uint32_t slot = 0; slot < source.slotCount; ++slot) {
        if (!source.slots[slot]) {
            freeRecord(destination.slots[slot]);
            destination.slots[slot] = nullptr;
            continue;
        }
        if (!destination.slots[slot]) {
            destination.slots[slot] = newRecord();
            if (!destination.slots[slot]) return CKR_HOST_MEMORY;
        }
        const CK_RV rv = copyAttribute(source.slots[slot], destination.slots[slot], destination.refuseBytesWithoutPointer);
        if (rv != CKR_OK) return rv;
    }
    *destination.count = *source.count;
    return CKR_OK;
}

CK_RV P11AttrStore_enum(const P11AttrStoreView& store, uint32_t* cursor, const CK_ATTRIBUTE** attribute)
{
    *attribute = nullptr;
    for (uint32_t slot = *cursor; slot < store.slotCount; ++slot) {
        if (store.slots[slot]) {
            *attribute = store.slots[slot];
            *cursor = slot + 1;
            return CKR_OK;
        }
    }
    *cursor = store.slotCount + 1;
    return CKR_OK;
}

void P11AttrStore_clear(const P11AttrStoreView& store)
{
    for (uint32_t slot = 0; slot < store.slotCount; ++slot) {
        freeRecord(store.slots[slot]);
        store.slots[slot] = nullptr;
    }
}
