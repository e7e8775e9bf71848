#pragma once
// The common shape of the certificate-backed token objects (certificate,
// trust object, delegated private key): the object header, then a separate
// attribute store filled once from the certificate. Their attributes are
// read-only and they do not enumerate or count them.

#include "pkcs11/P11Bridge.h"
#include "pkcs11/objects/P11AttrObj.h"
#include <exception>
#include <new>

#include "pkcs11/objects/P11Obj.h"

struct P11Obj_AttrBacked : P11Obj {
    P11AttrObj* attributes;
};

CK_RV P11Obj_AttrBacked_setAttribute(P11Obj* object, const CK_ATTRIBUTE* attribute);
CK_RV P11Obj_AttrBacked_getAttribute(P11Obj* object, CK_ATTRIBUTE* attribute);
CK_RV P11Obj_AttrBacked_peekAttribute(P11Obj* object, CK_ATTRIBUTE_TYPE type, const CK_ATTRIBUTE** attribute);
CK_RV P11Obj_AttrBacked_compare(P11Obj* object, const CK_ATTRIBUTE* attribute, CK_BBOOL* match);
CK_RV P11Obj_AttrBacked_enumAttributes(P11Obj* object, uint32_t* cursor, const CK_ATTRIBUTE** attribute);
CK_RV P11Obj_AttrBacked_getAttributeCount(P11Obj* object, CK_ULONG* count);
// Replaces the destination's attribute store by a copy of the source's;
// both must be of the same class (CKR_FUNCTION_FAILED otherwise). The
// destination keeps its old store when the copy fails.
CK_RV P11Obj_AttrBacked_copyStore(P11Obj* source, P11Obj* destination);

// Allocates a record of type T with its mutex and empty attribute store.
// Allocation failures give CKR_HOST_MEMORY; an exception thrown meanwhile is
// traced and gives CKR_GENERAL_ERROR.
template <typename T>
CK_RV P11Obj_AttrBacked_allocate(T** object, const P11ObjClass* clazz);
// Frees the store and the mutex of what allocate built; the caller then
// deletes the record as the type it allocated.
void P11Obj_AttrBacked_releaseParts(P11Obj_AttrBacked* object);

// Writes the attributes of a loader one after the other; a store failure
// is thrown as a Failure carrying its code, so a loader reads as a list.
struct P11AttrWriter {
    struct Failure {
        CK_RV rv;
    };
    CK_RV (*set)(void* target, const CK_ATTRIBUTE* attribute);
    void* target;

    void bytes(CK_ATTRIBUTE_TYPE type, const void* value, CK_ULONG length) const
    {
        const CK_ATTRIBUTE attribute{type, const_cast<void*>(value), length};
        const CK_RV rv = set(target, &attribute);
        if (rv != CKR_OK) throw Failure{rv};
    }
    template <typename Bytes>
    void bytes(CK_ATTRIBUTE_TYPE type, const Bytes& value) const
    {
        bytes(type, value.data(), CK_ULONG(value.size()));
    }
    void empty(CK_ATTRIBUTE_TYPE type) const { bytes(type, nullptr, 0); }
    void ulong(CK_ATTRIBUTE_TYPE type, CK_ULONG value) const { bytes(type, &value, sizeof value); }
    void flag(CK_ATTRIBUTE_TYPE type, bool value) const
    {
        const CK_BBOOL b = value ? CK_TRUE : CK_FALSE;
        bytes(type, &b, sizeof b);
    }
    // CKA_CLASS, CKA_TOKEN, CKA_PRIVATE and CKA_MODIFIABLE of a read-only,
    // public token object: the head of every certificate-backed object.
    void tokenObjectHead(CK_OBJECT_CLASS objectClass) const
    {
        ulong(CKA_CLASS, objectClass);
        flag(CKA_TOKEN, true);
        flag(CKA_PRIVATE, false);
        flag(CKA_MODIFIABLE, false);
    }
    // The attributes both RSA keys of a user certificate begin with, up to
    // and including CKA_SENSITIVE (true for both).
    template <typename Bytes>
    void certificateKeyHead(CK_OBJECT_CLASS objectClass, const Bytes& label, const Bytes& id, const Bytes& subject) const
    {
        tokenObjectHead(objectClass);
        bytes(CKA_LABEL, label);
        ulong(CKA_KEY_TYPE, CKK_RSA);
        bytes(CKA_ID, id);
        empty(CKA_START_DATE);
        empty(CKA_END_DATE);
        flag(CKA_DERIVE, false);
        flag(CKA_LOCAL, false);
        ulong(CKA_KEY_GEN_MECHANISM, CK_UNAVAILABLE_INFORMATION);
        bytes(CKA_SUBJECT, subject);
        flag(CKA_SENSITIVE, true);
    }
};

// A writer into an attribute store.
P11AttrWriter P11AttrWriter_forStore(P11AttrObj* store);

// Runs a loader that may throw, through the exception bridge: a writer
// failure gives its code, allocation failures CKR_HOST_MEMORY, anything
// else (a certificate that does not parse) CKR_FUNCTION_FAILED.
template <typename Load>
CK_RV P11_runLoader(Load&& load)
{
    return P11_bridge(
        [&] {
            try {
                load();
                return CKR_OK;
            } catch (const P11AttrWriter::Failure& failure) {
                return failure.rv;
            }
        },
        CKR_FUNCTION_FAILED);
}

template <typename T>
CK_RV P11Obj_AttrBacked_allocate(T** object, const P11ObjClass* clazz)
{
    *object = nullptr;
    T* record = nullptr;
    // Memory that is not there gives CKR_HOST_MEMORY; an exception thrown
    // while the record is made is logged and gives CKR_GENERAL_ERROR.
    const CK_RV made = P11_bridge(
        [&] {
            record = new (std::nothrow) T{};
            return CKR_OK;
        },
        CKR_GENERAL_ERROR, CKR_GENERAL_ERROR);
    if (made != CKR_OK) return made;
    if (!record) return CKR_HOST_MEMORY;
    record->clazz = clazz;
    CK_RV rv = P11Mutex_construct(&record->mutex);
    if (rv == CKR_OK) {
        rv = P11AttrObj_construct(&record->attributes);
        if (rv != CKR_OK) P11Mutex_destruct(&record->mutex);
    }
    if (rv != CKR_OK) {
        delete record;
        return rv;
    }
    *object = record;
    return CKR_OK;
}
