#include "pkcs11/P11ObjList.h"

#include <cstring>
#include <new>
#include <string>
#include <unordered_map>
#include <vector>

#include "pkcs11/objects/P11Obj.h"

// Identity of an object for add-or-replace: its class record and its CKA_ID
// bytes, as one string.
typedef std::string P11ObjIdentity;

struct P11ObjListEntry {
    P11ObjListEntry* next;
    P11ObjListEntry* prev;
    P11Obj* object;
    uint32_t mark;
    P11ObjIdentity identity;  // under which an indexed list knows the entry; empty if none
};
typedef std::unordered_map<P11ObjIdentity, P11ObjListEntry*> P11ObjIdentityIndex;

struct P11ObjList {
    P11ObjListEntry sentinel;
    CK_ULONG count;
    CK_BBOOL changed;
    P11ObjIdentityIndex* index;  // only where add-or-replace is used
};

struct P11FindContext {
    std::vector<CK_OBJECT_HANDLE> results;
    size_t next = 0;
    CK_ATTRIBUTE_PTR attributes = nullptr;
    CK_ULONG count = 0;
};

namespace {

P11ObjListEntry* first(P11ObjList* list)
{
    return list->sentinel.next == &list->sentinel ? nullptr : list->sentinel.next;
}

P11ObjListEntry* after(P11ObjList* list, P11ObjListEntry* entry)
{
    return entry->next == &list->sentinel ? nullptr : entry->next;
}

P11ObjListEntry* findEntry(P11ObjList* list, P11Obj* object)
{
    for (P11ObjListEntry* e = first(list); e; e = after(list, e))
        if (e->object == object) return e;
    return nullptr;
}

P11ObjIdentity identityOf(const P11ObjClass* clazz, const CK_BYTE* id, CK_ULONG idLen)
{
    P11ObjIdentity key(reinterpret_cast<const char*>(&clazz), sizeof clazz);
    key.append(reinterpret_cast<const char*>(id), idLen);
    return key;
}

// False when the object has no CKA_ID: such objects are never the same.
bool identityOfObject(P11Obj* object, P11ObjIdentity* key)
{
    const CK_ATTRIBUTE* id = nullptr;
    if (P11Obj_peekAttribute(object, CKA_ID, &id) != CKR_OK || !id) return false;
    *key = identityOf(object->clazz, static_cast<const CK_BYTE*>(id->pValue), id->ulValueLen);
    return true;
}

// Allocates nothing, so that unlinking cannot fail.
void unindex(P11ObjList* list, P11ObjListEntry* entry)
{
    if (!list->index || entry->identity.empty()) return;
    const auto found = list->index->find(entry->identity);
    if (found != list->index->end() && found->second == entry) list->index->erase(found);
}

void unlink(P11ObjList* list, P11ObjListEntry* entry)
{
    unindex(list, entry);
    entry->prev->next = entry->next;
    entry->next->prev = entry->prev;
    delete entry;
    --list->count;
    list->changed = CK_TRUE;
}

CK_RV append(P11ObjList* list, P11Obj* object, P11ObjListEntry** added = nullptr)
{
    P11ObjListEntry* entry = new (std::nothrow) P11ObjListEntry{&list->sentinel, list->sentinel.prev, object, 0, {}};
    if (!entry) return CKR_HOST_MEMORY;
    if (list->index) {
        // The first object of an identity is the one a walk would find.
        try {
            if (identityOfObject(object, &entry->identity) && !list->index->emplace(entry->identity, entry).second)
                entry->identity.clear();  // the list already knows an object of this identity
        } catch (const std::bad_alloc&) {
            delete entry;
            return CKR_HOST_MEMORY;
        }
    }
    list->sentinel.prev->next = entry;
    list->sentinel.prev = entry;
    ++list->count;
    list->changed = CK_TRUE;
    if (added) *added = entry;
    return CKR_OK;
}

// The existing entry of the object's identity, by index or by walking.
CK_RV findSame(P11ObjList* list, P11Obj* object, P11ObjListEntry** same);

// Same class implementation and the same CKA_ID bytes; objects without
// CKA_ID are never the same.
CK_RV sameIdentity(P11Obj* a, P11Obj* b, bool* same)
{
    *same = false;
    if (a->clazz != b->clazz) return CKR_OK;
    const CK_ATTRIBUTE* idA = nullptr;
    const CK_ATTRIBUTE* idB = nullptr;
    CK_RV rv = P11Obj_peekAttribute(a, CKA_ID, &idA);
    if (rv == CKR_OK) rv = P11Obj_peekAttribute(b, CKA_ID, &idB);
    if (rv != CKR_OK) return rv;
    if (!idA || !idB || idA->ulValueLen != idB->ulValueLen) return CKR_OK;
    const CK_BYTE* bytesA = static_cast<const CK_BYTE*>(idA->pValue);
    const CK_BYTE* bytesB = static_cast<const CK_BYTE*>(idB->pValue);
    for (CK_ULONG i = 0; i < idA->ulValueLen; ++i)
        if (bytesA[i] != bytesB[i]) return CKR_OK;
    *same = true;
    return CKR_OK;
}

CK_RV findSame(P11ObjList* list, P11Obj* object, P11ObjListEntry** same)
{
    *same = nullptr;
    if (list->index) {
        P11ObjIdentity key;
        try {
            if (!identityOfObject(object, &key)) return CKR_OK;
            const auto found = list->index->find(key);
            if (found != list->index->end()) *same = found->second;
        } catch (const std::bad_alloc&) {
            return CKR_HOST_MEMORY;
        }
        return CKR_OK;
    }
    for (P11ObjListEntry* e = first(list); e; e = after(list, e)) {
        bool isSame = false;
        const CK_RV rv = sameIdentity(e->object, object, &isSame);
        if (rv != CKR_OK) return rv;
        if (isSame) {
            *same = e;
            return CKR_OK;
        }
    }
    return CKR_OK;
}

}  // namespace

CK_RV P11ObjList_construct(P11ObjList** list)
{
    P11ObjList* l = new (std::nothrow) P11ObjList;
    if (!l) return CKR_HOST_MEMORY;
    l->sentinel.next = l->sentinel.prev = &l->sentinel;
    l->sentinel.object = nullptr;
    l->sentinel.mark = 0;
    l->count = 0;
    l->changed = CK_FALSE;
    l->index = nullptr;
    *list = l;
    return CKR_OK;
}

CK_RV P11ObjList_destruct(P11ObjList** list)
{
    if (!list || !*list) return CKR_OK;
    while (P11ObjListEntry* e = first(*list)) unlink(*list, e);
    delete (*list)->index;
    delete *list;
    *list = nullptr;
    return CKR_OK;
}

CK_RV P11ObjList_add(P11ObjList* list, P11Obj* object)
{
    return append(list, object);
}

CK_RV P11ObjList_remove(P11ObjList* list, P11Obj* object)
{
    P11ObjListEntry* entry = findEntry(list, object);
    if (!entry) return CKR_GENERAL_ERROR;
    unlink(list, entry);
    return CKR_OK;
}

CK_RV P11ObjList_popObject(P11ObjList* list, P11Obj** object)
{
    P11ObjListEntry* entry = first(list);
    *object = entry ? entry->object : nullptr;
    if (entry) unlink(list, entry);
    list->changed = CK_TRUE;
    return CKR_OK;
}

CK_RV P11ObjList_destroyAllObjects(P11ObjList* list)
{
    list->changed = CK_TRUE;
    while (P11ObjListEntry* entry = first(list)) {
        P11Obj* object = entry->object;
        unlink(list, entry);
        const CK_RV rv = P11Obj_destruct(&object);
        if (rv != CKR_OK) return rv;
    }
    return CKR_OK;
}

CK_RV P11ObjList_contains(P11ObjList* list, P11Obj* object, CK_BBOOL* contains)
{
    *contains = findEntry(list, object) ? CK_TRUE : CK_FALSE;
    return CKR_OK;
}

CK_RV P11ObjList_getObjectCount(P11ObjList* list, CK_ULONG* count)
{
    *count = list->count;
    return CKR_OK;
}

CK_RV P11ObjList_enumObjects(P11ObjList* list, P11ObjListCursor* cursor, P11Obj** object)
{
    P11ObjListEntry* next = *cursor ? after(list, *cursor) : first(list);
    *cursor = next;
    *object = next ? next->object : nullptr;
    return CKR_OK;
}

CK_RV P11ObjList_findObjectHandle(P11ObjList* list, CK_OBJECT_HANDLE handle, P11Obj** object)
{
    // The token finds objects by handle through its own index; a walk
    // serves what else asks a list.
    *object = nullptr;
    for (P11ObjListEntry* e = first(list); e; e = after(list, e)) {
        if (P11Obj_getHandle(e->object) == handle) {
            *object = e->object;
            break;
        }
    }
    return CKR_OK;
}

CK_RV P11ObjList_findObjects(P11ObjList* list, P11FindContext* context)
{
    for (P11ObjListEntry* e = first(list); e; e = after(list, e)) {
        const CK_RV rv = P11FindContext_checkObject(context, e->object);
        if (rv != CKR_OK) return rv;
    }
    return CKR_OK;
}

CK_RV P11ObjList_clearMarks(P11ObjList* list)
{
    for (P11ObjListEntry* e = first(list); e; e = after(list, e)) e->mark = 0;
    return CKR_OK;
}

CK_RV P11ObjList_addOrReplaceAndMark(P11ObjList* list, P11Obj* object, CK_BBOOL* added)
{
    list->changed = CK_TRUE;
    P11ObjListEntry* same = nullptr;
    CK_RV rv = findSame(list, object, &same);
    if (rv != CKR_OK) return rv;
    if (same) {
        // The existing object takes the new content and keeps its handle.
        // Its lock keeps out a session that is using it right now.
        P11LockRecord record = nullptr;
        rv = P11Obj_lock(same->object, &record);
        if (rv != CKR_OK) return rv;
        rv = same->object->clazz->copy(object, same->object);
        const CK_RV unlockRv = P11Obj_unlock(same->object, &record);
        if (rv == CKR_OK) rv = unlockRv;
        if (rv != CKR_OK) return rv;
        rv = P11Obj_destruct(&object);
        if (rv != CKR_OK) return rv;
        same->mark = 1;
        *added = CK_FALSE;
        return CKR_OK;
    }
    P11ObjListEntry* entry = nullptr;
    rv = append(list, object, &entry);
    if (rv != CKR_OK) return rv;
    entry->mark = 1;
    *added = CK_TRUE;
    return CKR_OK;
}

CK_RV P11ObjList_enableIdentityIndex(P11ObjList* list)
{
    if (list->index) return CKR_OK;
    P11ObjIdentityIndex* index = new (std::nothrow) P11ObjIdentityIndex;
    if (!index) return CKR_HOST_MEMORY;
    try {
        for (P11ObjListEntry* e = first(list); e; e = after(list, e))
            if (identityOfObject(e->object, &e->identity) && !index->emplace(e->identity, e).second)
                e->identity.clear();
    } catch (const std::bad_alloc&) {
        delete index;
        return CKR_HOST_MEMORY;
    }
    list->index = index;
    return CKR_OK;
}

CK_RV P11ObjList_markIdentity(P11ObjList* list, const P11ObjClass* clazz, const CK_BYTE* id, CK_ULONG idLen,
                              P11Obj** object)
{
    *object = nullptr;
    P11ObjListEntry* found = nullptr;
    try {
        const P11ObjIdentity key = identityOf(clazz, id, idLen);
        if (list->index) {
            const auto hit = list->index->find(key);
            if (hit != list->index->end()) found = hit->second;
        } else {
            for (P11ObjListEntry* e = first(list); e && !found; e = after(list, e)) {
                P11ObjIdentity other;
                if (identityOfObject(e->object, &other) && other == key) found = e;
            }
        }
    } catch (const std::bad_alloc&) {
        return CKR_HOST_MEMORY;
    }
    if (found) {
        found->mark = 1;
        *object = found->object;
    }
    return CKR_OK;
}

CK_RV P11ObjList_popUnmarkedObject(P11ObjList* list, P11ObjListCursor* cursor, P11Obj** object)
{
    *object = nullptr;
    P11ObjListEntry* e = *cursor ? *cursor : first(list);
    while (e && e->mark) e = after(list, e);
    if (!e) {
        *cursor = nullptr;
        return CKR_OK;
    }
    *cursor = after(list, e);
    *object = e->object;
    unlink(list, e);
    return CKR_OK;
}

CK_RV P11ObjList_loadNewObjects(P11ObjList* list, P11ObjList* newObjects, P11ObjEqualityTest equal)
{
    std::vector<P11ObjListEntry*> existing;
    for (P11ObjListEntry* e = first(list); e; e = after(list, e)) existing.push_back(e);
    std::vector<bool> kept(existing.size(), false);
    std::vector<P11Obj*> aside;
    auto destroyWorkingState = [&]() {
        for (P11Obj* o : aside) P11Obj_destruct(&o);
        P11ObjList_destroyAllObjects(newObjects);
    };

    size_t start = 0;
    P11Obj* loaded = nullptr;
    while (P11ObjList_popObject(newObjects, &loaded) == CKR_OK && loaded) {
        bool matched = false;
        // Search from where the previous match was found, wrapping around:
        // freshly loaded objects usually come in the order of the old ones.
        for (size_t step = 0; step < existing.size() && !matched; ++step) {
            const size_t i = (start + step) % existing.size();
            CK_BBOOL same = CK_FALSE;
            const CK_RV rv = equal(existing[i]->object, loaded, &same);
            if (rv != CKR_OK) {
                P11Obj_destruct(&loaded);
                destroyWorkingState();
                return rv;
            }
            if (same) {
                kept[i] = true;
                start = i;
                matched = true;
            }
        }
        if (matched) {
            const CK_RV rv = P11Obj_destruct(&loaded);
            if (rv != CKR_OK) {
                destroyWorkingState();
                return rv;
            }
        } else {
            aside.push_back(loaded);
        }
    }
    for (size_t i = 0; i < existing.size(); ++i) {
        if (kept[i]) continue;
        P11Obj* gone = existing[i]->object;
        unlink(list, existing[i]);
        const CK_RV rv = P11Obj_destruct(&gone);
        if (rv != CKR_OK) {
            destroyWorkingState();
            return rv;
        }
    }
    for (size_t i = 0; i < aside.size(); ++i) {
        const CK_RV rv = append(list, aside[i]);
        if (rv != CKR_OK) {
            aside.erase(aside.begin(), aside.begin() + long(i));
            destroyWorkingState();
            return rv;
        }
    }
    return CKR_OK;
}

CK_BBOOL P11ObjList_isChanged(const P11ObjList* list)
{
    return list->changed;
}

void P11ObjList_resetChanged(P11ObjList* list)
{
    list->changed = CK_FALSE;
}

CK_RV P11FindContext_construct(P11FindContext** context)
{
    P11FindContext* c = new (std::nothrow) P11FindContext;
    if (!c) return CKR_HOST_MEMORY;
    *context = c;
    return CKR_OK;
}

CK_RV P11FindContext_destruct(P11FindContext** context)
{
    if (!context || !*context) return CKR_OK;
    delete *context;
    *context = nullptr;
    return CKR_OK;
}

CK_RV P11FindContext_setFindTemplate(P11FindContext* context, CK_ATTRIBUTE_PTR attributes, CK_ULONG count)
{
    context->attributes = attributes;
    context->count = count;
    return CKR_OK;
}

CK_RV P11FindContext_checkObject(P11FindContext* context, P11Obj* object)
{
    CK_BBOOL match = CK_FALSE;
    const CK_RV rv = P11Obj_compareToTemplate(object, context->attributes, context->count, &match);
    if (rv != CKR_OK || !match) return rv;
    try {
        context->results.push_back(P11Obj_getHandle(object));
    } catch (const std::bad_alloc&) {
        return CKR_HOST_MEMORY;
    }
    return CKR_OK;
}

CK_RV P11FindContext_getResults(P11FindContext* context, CK_OBJECT_HANDLE_PTR handles, CK_ULONG max, CK_ULONG* count)
{
    *count = 0;
    while (*count < max && context->next < context->results.size())
        handles[(*count)++] = context->results[context->next++];
    return CKR_OK;
}
