#pragma once
// The software object class: every attribute in the object's own 66 slots,
// every operation computed in software.

#include "pkcs11/objects/P11AttrStore.h"
#include "pkcs11/objects/P11Obj.h"

struct rsa_key;

struct P11Obj_SW : P11Obj {
    CK_ATTRIBUTE* slots[P11_SW_SLOT_COUNT];
    uint64_t count;
    // The crypto core's form of an RSA key's numbers, made on first use and
    // dropped whenever an attribute changes. Guarded by the object's mutex,
    // which every operation and every change of a reachable object holds.
    rsa_key* rsaKey;
};

const P11ObjClass* P11SWObj_GetClass();

// P11Obj_SW_construct and P11Obj_SW_destruct are declared in P11Obj.h.
CK_RV P11Obj_SW_token_construct(P11Obj** object, P11Token* token);
CK_RV P11Obj_SW_setAttribute(P11Obj* object, const CK_ATTRIBUTE* attribute);
CK_RV P11Obj_SW_getAttribute(P11Obj* object, CK_ATTRIBUTE* attribute);
CK_RV P11Obj_SW_peekAttribute(P11Obj* object, CK_ATTRIBUTE_TYPE type, const CK_ATTRIBUTE** attribute);
CK_RV P11Obj_SW_copy(P11Obj* source, P11Obj* destination);
CK_RV P11Obj_SW_compare(P11Obj* object, const CK_ATTRIBUTE* attribute, CK_BBOOL* match);
CK_RV P11Obj_SW_enumAttributes(P11Obj* object, uint32_t* cursor, const CK_ATTRIBUTE** attribute);
CK_RV P11Obj_SW_getAttributeCount(P11Obj* object, CK_ULONG* count);

// The cached RSA key (null when none); caching hands the object one
// reference of the key.
rsa_key* P11Obj_SW_cachedRsaKey(P11Obj* object);
void P11Obj_SW_cacheRsaKey(P11Obj* object, rsa_key* key);
