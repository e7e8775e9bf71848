#pragma once
// The attribute store: a fixed array of slots, one per storable attribute
// type, reached through a constant map from type to slot. Each occupied slot
// owns one heap record laid out as a CK_ATTRIBUTE, which owns its value.
// Two variants share these algorithms: the software object keeps 66 slots
// inline, P11AttrObj is a separate store of 84 (the 66 plus the Netscape
// trust attributes) for the certificate-backed classes.

#include <cstddef>
#include <cstdint>

#include "pkcs11/cryptoki.h"

enum : uint32_t {
    P11_SW_SLOT_COUNT = 66,
    P11_ATTROBJ_SLOT_COUNT = 84,
    P11_ATTR_MAP_SIZE = 784,
    P11_NO_SLOT = 0xFFFFFFFFu,
};

// Slot of a type in the 66-slot layout, P11_NO_SLOT when not storable.
uint32_t P11AttrStore_swSlot(CK_ATTRIBUTE_TYPE type);
// Slot of a type in the 84-slot layout (adds the trust ranges).
uint32_t P11AttrStore_attrObjSlot(CK_ATTRIBUTE_TYPE type);

// One store: its slots, its count and its layout.
struct P11AttrStoreView {
    CK_ATTRIBUTE** slots;
    uint64_t* count;
    uint32_t slotCount;
    uint32_t (*slotOf)(CK_ATTRIBUTE_TYPE type);
    bool refuseBytesWithoutPointer;  // the software variant checks this on set
};

CK_RV P11AttrStore_set(const P11AttrStoreView& store, const CK_ATTRIBUTE* attribute);
CK_RV P11AttrStore_get(const P11AttrStoreView& store, CK_ATTRIBUTE* attribute);
CK_RV P11AttrStore_peek(const P11AttrStoreView& store, CK_ATTRIBUTE_TYPE type, const CK_ATTRIBUTE** attribute);
CK_RV P11AttrStore_compare(const P11AttrStoreView& store, const CK_ATTRIBUTE* attribute, CK_BBOOL* match);
CK_RV P11AttrStore_copy(const P11AttrStoreView& source, const P11AttrStoreView& destination);
CK_RV P11AttrStore_enum(const P11AttrStoreView& store, uint32_t* cursor, const CK_ATTRIBUTE** attribute);
// Frees every record and empties the slots (the count is left alone).
void P11AttrStore_clear(const P11AttrStoreView& store);
