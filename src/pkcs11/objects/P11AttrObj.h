#pragma once
// The separate 84-slot attribute store of the certificate, trust and
// delegated private-key objects. Their loaders fill it with the typed
// setters before the object is handed out.

#include "pkcs11/objects/P11AttrStore.h"

struct P11AttrObj {
    CK_ATTRIBUTE* slots[P11_ATTROBJ_SLOT_COUNT];
    uint64_t count;
};

CK_RV P11AttrObj_construct(P11AttrObj** store);
CK_RV P11AttrObj_destruct(P11AttrObj** store);
CK_RV P11AttrObj_setAttribute(P11AttrObj* store, const CK_ATTRIBUTE* attribute);
CK_RV P11AttrObj_getAttribute(P11AttrObj* store, CK_ATTRIBUTE* attribute);
CK_RV P11AttrObj_peekAttribute(P11AttrObj* store, CK_ATTRIBUTE_TYPE type, const CK_ATTRIBUTE** attribute);
CK_RV P11AttrObj_compare(P11AttrObj* store, const CK_ATTRIBUTE* attribute, CK_BBOOL* match);
CK_RV P11AttrObj_copy(P11AttrObj* source, P11AttrObj* destination);
CK_RV P11AttrObj_enumAttributes(P11AttrObj* store, uint32_t* cursor, const CK_ATTRIBUTE** attribute);
CK_RV P11AttrObj_getAttributeCount(P11AttrObj* store, CK_ULONG* count);
CK_RV P11AttrObj_setValue(P11AttrObj* store, CK_ATTRIBUTE_TYPE type, const void* bytes, CK_ULONG length);
CK_RV P11AttrObj_setUlongValue(P11AttrObj* store, CK_ATTRIBUTE_TYPE type, CK_ULONG value);
CK_RV P11AttrObj_setBoolValue(P11AttrObj* store, CK_ATTRIBUTE_TYPE type, CK_BBOOL value);
