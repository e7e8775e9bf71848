#include "pkcs11/db/P11Obj_AttrBacked.h"

#include <exception>
#include <new>

#include "pkcs11/db/Tavik_p11trace.h"

namespace {

P11AttrObj* storeOf(P11Obj* object)
{
    return static_cast<P11Obj_AttrBacked*>(object)->attributes;
}

}  // namespace

CK_RV P11Obj_AttrBacked_setAttribute(P11Obj*, const CK_ATTRIBUTE*)
{
    return CKR_ATTRIBUTE_READ_ONLY;
}

CK_RV P11Obj_AttrBacked_getAttribute(P11Obj* object, CK_ATTRIBUTE* attribute)
{
    return P11AttrObj_getAttribute(storeOf(object), attribute);
}

CK_RV P11Obj_AttrBacked_peekAttribute(P11Obj* object, CK_ATTRIBUTE_TYPE type, const CK_ATTRIBUTE** attribute)
{
    return P11AttrObj_peekAttribute(storeOf(object), type, attribute);
}

CK_RV P11Obj_AttrBacked_compare(P11Obj* object, const CK_ATTRIBUTE* attribute, CK_BBOOL* match)
{
    return P11AttrObj_compare(storeOf(object), attribute, match);
}

CK_RV P11Obj_AttrBacked_enumAttributes(P11Obj*, uint32_t*, const CK_ATTRIBUTE**)
{
    return CKR_FUNCTION_NOT_SUPPORTED;
}

CK_RV P11Obj_AttrBacked_getAttributeCount(P11Obj*, CK_ULONG*)
{
    return CKR_FUNCTION_NOT_SUPPORTED;
}

CK_RV P11Obj_AttrBacked_copyStore(P11Obj* source, P11Obj* destination)
{
    if (!source || !destination || source->clazz != destination->clazz) return CKR_FUNCTION_FAILED;
    P11AttrObj* copy = nullptr;
    CK_RV rv = P11AttrObj_construct(&copy);
    if (rv == CKR_OK) rv = P11AttrObj_copy(storeOf(source), copy);
    if (rv != CKR_OK) {
        P11AttrObj_destruct(&copy);
        return rv;
    }
    P11AttrObj_destruct(&static_cast<P11Obj_AttrBacked*>(destination)->attributes);
    static_cast<P11Obj_AttrBacked*>(destination)->attributes = copy;
    return CKR_OK;
}

void P11Obj_AttrBacked_releaseParts(P11Obj_AttrBacked* object)
{
    P11AttrObj_destruct(&object->attributes);
    P11Mutex_destruct(&object->mutex);
}

P11AttrWriter P11AttrWriter_forStore(P11AttrObj* store)
{
    return P11AttrWriter{[](void* target, const CK_ATTRIBUTE* attribute) {
                             return P11AttrObj_setAttribute(static_cast<P11AttrObj*>(target), attribute);
                         },
                         store};
}

