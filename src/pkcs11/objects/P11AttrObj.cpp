#include "pkcs11/objects/P11AttrObj.h"

#include <new>

namespace {

P11AttrStoreView view(P11AttrObj* store)
{
    return P11AttrStoreView{store->slots, &store->count, P11_ATTROBJ_SLOT_COUNT, P11AttrStore_attrObjSlot, false};
}

}  // namespace

CK_RV P11AttrObj_construct(P11AttrObj** store)
{
    *store = new (std::nothrow) P11AttrObj{};
    return *store ? CKR_OK : CKR_HOST_MEMORY;
}

CK_RV P11AttrObj_destruct(P11AttrObj** store)
{
    if (!store || !*store) return CKR_OK;
    P11AttrStore_clear(view(*store));
    delete *store;
    *store = nullptr;
    return CKR_OK;
}

CK_RV P11AttrObj_setAttribute(P11AttrObj* store, const CK_ATTRIBUTE* attribute)
{
    return P11AttrStore_set(view(store), attribute);
}

CK_RV P11AttrObj_getAttribute(P11AttrObj* store, CK_ATTRIBUTE* attribute)
{
    return P11AttrStore_get(view(store), attribute);
}

CK_RV P11AttrObj_peekAttribute(P11AttrObj* store, CK_ATTRIBUTE_TYPE type, const CK_ATTRIBUTE** attribute)
{
    return P11AttrStore_peek(view(store), type, attribute);
}

CK_RV P11AttrObj_compare(P11AttrObj* store, const CK_ATTRIBUTE* attribute, CK_BBOOL* match)
{
    return P11AttrStore_compare(view(store), attribute, match);
}

CK_RV P11AttrObj_copy(P11AttrObj* source, P11AttrObj* destination)
{
    return P11AttrStore_copy(view(source), view(destination));
}

CK_RV P11AttrObj_enumAttributes(P11AttrObj* store, uint32_t* cursor, const CK_ATTRIBUTE** attribute)
{
    return P11AttrStore_enum(view(store), cursor, attribute);
}

CK_RV P11AttrObj_getAttributeCount(P11AttrObj* store, CK_ULONG* count)
{
    *count = store->count;
    return CKR_OK;
}

CK_RV P11AttrObj_setValue(P11AttrObj* store, CK_ATTRIBUTE_TYPE type, const void* bytes, CK_ULONG length)
{
    const CK_ATTRIBUTE attribute{type, const_cast<void*>(bytes), length};
    return P11AttrObj_setAttribute(store, &attribute);
}

CK_RV P11AttrObj_setUlongValue(P11AttrObj* store, CK_ATTRIBUTE_TYPE type, CK_ULONG value)
{
    return P11AttrObj_setValue(store, type, &value, sizeof value);
}

CK_RV P11AttrObj_setBoolValue(P11AttrObj* store, CK_ATTRIBUTE_TYPE type, CK_BBOOL value)
{
    return P11AttrObj_setValue(store, type, &value, sizeof value);
}
