#pragma once
// P11ObjList: the container of session objects, token objects and search
// results. A circular doubly linked chain with a sentinel, in insertion
// order; each entry carries a mark used by the token database's refresh.
// The list owns the objects it holds unless a caller pops them. Lists do not
// lock: their owners' mutexes guard them.
//
// P11FindContext: the state of one C_FindObjectsInit / C_FindObjects /
// C_FindObjectsFinal sequence. All matches are collected at
// C_FindObjectsInit and handed out in that order. The context keeps the
// handles of the matches, not pointers to them: an object destroyed while
// the search runs (another session's refresh of the token objects, say)
// then leaves a stale handle behind rather than a dangling pointer.

#include <cstdint>

#include "pkcs11/cryptoki.h"

struct P11Obj;
struct P11ObjClass;
struct P11ObjListEntry;
struct P11ObjList;

typedef P11ObjListEntry* P11ObjListCursor;

CK_RV P11ObjList_construct(P11ObjList** list);
// Frees the list (not the objects) and clears the pointer.
CK_RV P11ObjList_destruct(P11ObjList** list);
CK_RV P11ObjList_add(P11ObjList* list, P11Obj* object);
// CKR_GENERAL_ERROR when the list does not hold the object.
CK_RV P11ObjList_remove(P11ObjList* list, P11Obj* object);
CK_RV P11ObjList_popObject(P11ObjList* list, P11Obj** object);
CK_RV P11ObjList_destroyAllObjects(P11ObjList* list);
CK_RV P11ObjList_contains(P11ObjList* list, P11Obj* object, CK_BBOOL* contains);
CK_RV P11ObjList_getObjectCount(P11ObjList* list, CK_ULONG* count);
// Iteration: start with a null cursor; yields a null object after the last.
CK_RV P11ObjList_enumObjects(P11ObjList* list, P11ObjListCursor* cursor, P11Obj** object);
CK_RV P11ObjList_findObjectHandle(P11ObjList* list, CK_OBJECT_HANDLE handle, P11Obj** object);

struct P11FindContext;
CK_RV P11ObjList_findObjects(P11ObjList* list, P11FindContext* context);

// Refresh with marks: clear, add-or-replace-and-mark each loaded object,
// then pop what is still unmarked.
CK_RV P11ObjList_clearMarks(P11ObjList* list);
CK_RV P11ObjList_addOrReplaceAndMark(P11ObjList* list, P11Obj* object, CK_BBOOL* added);
CK_RV P11ObjList_popUnmarkedObject(P11ObjList* list, P11ObjListCursor* cursor, P11Obj** object);
// Keeps an index on (class, CKA_ID) from now on, so that add-or-replace and
// markIdentity find an object's earlier self without walking the list. The
// objects' CKA_ID must not change once set while they are in the list.
CK_RV P11ObjList_enableIdentityIndex(P11ObjList* list);
// Marks the object of that class and CKA_ID, if the list holds one, and
// gives it back (null otherwise).
CK_RV P11ObjList_markIdentity(P11ObjList* list, const P11ObjClass* clazz, const CK_BYTE* id, CK_ULONG idLen,
                              P11Obj** object);

// Merges a list of freshly loaded objects into this one: existing objects
// equal to a new one are kept (the new one destroyed), existing objects with
// no equal are destroyed, new objects with no equal are appended in order.
typedef CK_RV (*P11ObjEqualityTest)(P11Obj* existing, P11Obj* loaded, CK_BBOOL* equal);
CK_RV P11ObjList_loadNewObjects(P11ObjList* list, P11ObjList* newObjects, P11ObjEqualityTest equal);

CK_BBOOL P11ObjList_isChanged(const P11ObjList* list);
void P11ObjList_resetChanged(P11ObjList* list);

CK_RV P11FindContext_construct(P11FindContext** context);
CK_RV P11FindContext_destruct(P11FindContext** context);
// The template is kept by pointer: it is only used while the search
// collects its results.
CK_RV P11FindContext_setFindTemplate(P11FindContext* context, CK_ATTRIBUTE_PTR attributes, CK_ULONG count);
CK_RV P11FindContext_checkObject(P11FindContext* context, P11Obj* object);
// Hands out up to max further matches, in order.
CK_RV P11FindContext_getResults(P11FindContext* context, CK_OBJECT_HANDLE_PTR handles, CK_ULONG max, CK_ULONG* count);
