#pragma once
// Which attributes a template may carry for which kind of object in which
// operation, which an object must have, the defaults that complete an
// object, and which values C_GetAttributeValue withholds. Table-driven: an
// object's class and key type fold into one kind bit, and the operation is
// one bit too.

#include <cstdint>

#include "pkcs11/cryptoki.h"

struct P11Obj;

// Object kinds.
enum : uint64_t {
    P11_KIND_DATA = 0x1,
    P11_KIND_CERTIFICATE = 0x2,
    P11_KIND_RSA_PUBLIC = 0x4,
    P11_KIND_DSA_PUBLIC = 0x8,
    P11_KIND_EC_PUBLIC = 0x10,
    P11_KIND_DH_PUBLIC = 0x20,
    P11_KIND_X942_PUBLIC = 0x40,
    P11_KIND_RSA_PRIVATE = 0x80,
    P11_KIND_DSA_PRIVATE = 0x100,
    P11_KIND_EC_PRIVATE = 0x200,
    P11_KIND_DH_PRIVATE = 0x400,
    P11_KIND_X942_PRIVATE = 0x800,
    P11_KIND_FIXED_SECRET = 0x1000,
    P11_KIND_VARIABLE_SECRET = 0x2000,
    P11_KIND_DSA_PARAMETERS = 0x4000,
    P11_KIND_DH_PARAMETERS = 0x8000,
    P11_KIND_X942_PARAMETERS = 0x10000,
};

// Template operations.
enum : uint64_t {
    P11_TEMPLATE_CREATE = 0x1,
    P11_TEMPLATE_GENERATE = 0x2,
    P11_TEMPLATE_UNWRAP = 0x4,
    P11_TEMPLATE_DERIVE = 0x8,
    P11_TEMPLATE_COPY = 0x10,
    P11_TEMPLATE_SET = 0x20,
};

CK_RV GetObjAndKeyType(P11Obj* object, uint64_t* kind, CK_KEY_TYPE* keyType);
CK_RV AttributeAllowed(CK_ATTRIBUTE_TYPE type, uint64_t kind, uint64_t operation);
bool AttributevalueValid(CK_KEY_TYPE keyType, uint64_t kind, const CK_ATTRIBUTE* attribute);
CK_RV ObjComplete(P11Obj* object, uint64_t kind, uint64_t operation);
CK_RV CheckObject(P11Obj* templateObject, uint64_t kind, CK_KEY_TYPE keyType, uint64_t operation);
// operation: create, copy or set; existing is the object copied or changed.
CK_RV CheckTemplate(P11Obj* existing, CK_ATTRIBUTE_PTR attributes, CK_ULONG count, uint64_t operation);
CK_RV CheckTemplateGenerate(CK_ATTRIBUTE_PTR attributes, CK_ULONG count, CK_MECHANISM_PTR mechanism);
CK_RV CheckTemplatesGeneratePair(CK_ATTRIBUTE_PTR publicAttributes, CK_ULONG publicCount,
                                 CK_ATTRIBUTE_PTR privateAttributes, CK_ULONG privateCount, CK_MECHANISM_PTR mechanism);
CK_RV CheckTemplateUnwrap(CK_ATTRIBUTE_PTR attributes, CK_ULONG count, CK_MECHANISM_PTR mechanism);
CK_RV CheckTemplateDerive(CK_ATTRIBUTE_PTR attributes, CK_ULONG count, CK_MECHANISM_TYPE mechanism);

// For a withheld type: length all ones and CKR_ATTRIBUTE_SENSITIVE.
CK_RV AttrSensitive(CK_ATTRIBUTE* attribute);
CK_RV ObjIsSensitive(P11Obj* object, CK_BBOOL* sensitive);
CK_RV ObjModifiable(P11Obj* object);
CK_RV SetAttributeFromTemplate(P11Obj* object, CK_ATTRIBUTE_TYPE type, const void* defaultValue, CK_ULONG length);
CK_RV MakeFullTemplate(P11Obj* object);

// Fills in the CRT values an RSA private key lacks from those it has.
CK_RV RSA_Calculate_Rem_Values(P11Obj* object);
// X9.42 domain parameters with a public value: consistent or not.
CK_RV X942_CheckPublicKey(P11Obj* object);
