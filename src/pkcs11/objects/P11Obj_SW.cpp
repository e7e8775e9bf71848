#include "pkcs11/objects/P11Obj_SW.h"

#include <new>

#include "crypto/rsa.h"
#include "pkcs11/sw/P11Obj_SW_mechanisms.h"

namespace {

P11AttrStoreView view(P11Obj* object)
{
    P11Obj_SW* sw = static_cast<P11Obj_SW*>(object);
    return P11AttrStoreView{sw->slots, &sw->count, P11_SW_SLOT_COUNT, P11AttrStore_swSlot, true};
}

void dropCache(P11Obj* object)
{
    P11Obj_SW* sw = static_cast<P11Obj_SW*>(object);
    rsa_key_release(sw->rsaKey);
    sw->rsaKey = nullptr;
}

P11ObjClass makeClass()
{
    P11ObjClass c{};
    c.name = "P11Obj_SW";
    c.destruct = P11Obj_SW_destruct;
    c.setAttribute = P11Obj_SW_setAttribute;
    c.getAttribute = P11Obj_SW_getAttribute;
    c.peekAttribute = P11Obj_SW_peekAttribute;
    c.copy = P11Obj_SW_copy;
    c.compare = P11Obj_SW_compare;
    c.enumAttributes = P11Obj_SW_enumAttributes;
    c.getAttributeCount = P11Obj_SW_getAttributeCount;
    P11Obj_SW_fillMechanisms(&c);
    return c;
}

const P11ObjClass P11SWObj_clazz = makeClass();

}  // namespace

const P11ObjClass* P11SWObj_GetClass()
{
    return &P11SWObj_clazz;
}

CK_RV P11Obj_SW_construct(P11Obj** object)
{
    *object = nullptr;
    P11Obj_SW* sw = new (std::nothrow) P11Obj_SW{};
    if (!sw) return CKR_HOST_MEMORY;
    const CK_RV rv = P11Mutex_construct(&sw->mutex);
    if (rv != CKR_OK) {
        delete sw;
        return rv;
    }
    sw->clazz = P11SWObj_GetClass();
    *object = sw;
    return CKR_OK;
}

CK_RV P11Obj_SW_token_construct(P11Obj** object, P11Token* token)
{
    const CK_RV rv = P11Obj_SW_construct(object);
    if (rv == CKR_OK) (*object)->token = token;
    return rv;
}

CK_RV P11Obj_SW_destruct(P11Obj** object)
{
    if (!object || !*object) return CKR_OK;
    const CK_RV rv = P11Mutex_destruct(&(*object)->mutex);
    if (rv != CKR_OK) return rv;
    P11AttrStore_clear(view(*object));
    dropCache(*object);
    delete static_cast<P11Obj_SW*>(*object);
    *object = nullptr;
    return CKR_OK;
}

CK_RV P11Obj_SW_setAttribute(P11Obj* object, const CK_ATTRIBUTE* attribute)
{
    dropCache(object);
    return P11AttrStore_set(view(object), attribute);
}

CK_RV P11Obj_SW_getAttribute(P11Obj* object, CK_ATTRIBUTE* attribute)
{
    return P11AttrStore_get(view(object), attribute);
}

CK_RV P11Obj_SW_peekAttribute(P11Obj* object, CK_ATTRIBUTE_TYPE type, const CK_ATTRIBUTE** attribute)
{
    return P11AttrStore_peek(view(object), type, attribute);
}

CK_RV P11Obj_SW_copy(P11Obj* source, P11Obj* destination)
{
    if (!source || !destination) return CKR_FUNCTION_FAILED;
    dropCache(destination);
    return P11AttrStore_copy(view(source), view(destination));
}

CK_RV P11Obj_SW_compare(P11Obj* object, const CK_ATTRIBUTE* attribute, CK_BBOOL* match)
{
    return P11AttrStore_compare(view(object), attribute, match);
}

CK_RV P11Obj_SW_enumAttributes(P11Obj* object, uint32_t* cursor, const CK_ATTRIBUTE** attribute)
{
    return P11AttrStore_enum(view(object), cursor, attribute);
}

CK_RV P11Obj_SW_getAttributeCount(P11Obj* object, CK_ULONG* count)
{
    *count = static_cast<P11Obj_SW*>(object)->count;
    return CKR_OK;
}

rsa_key* P11Obj_SW_cachedRsaKey(P11Obj* object)
{
    return static_cast<P11Obj_SW*>(object)->rsaKey;
}

void P11Obj_SW_cacheRsaKey(P11Obj* object, rsa_key* key)
{
    dropCache(object);
    static_cast<P11Obj_SW*>(object)->rsaKey = key;
}
