#pragma once
// Which session or object each handle names: the look-up every call makes
// first. Writers hold the token mutex. With the library's own locking the
// index also has a small lock per shard, handles spread over the shards, so
// that a look-up takes neither the token mutex nor a lock that calls in
// another session use; with the application's mutex callbacks or no locking
// it has no lock of its own, and readers hold the token mutex as writers do.
// A shard lock is the last lock in the order: nothing is taken under it.

#include "pkcs11/cryptoki.h"

enum class P11HandleKind : unsigned char { Session, Object };

struct P11HandleIndex;

CK_RV P11HandleIndex_construct(P11HandleIndex** index, bool ownLocks);
void P11HandleIndex_destruct(P11HandleIndex** index);
bool P11HandleIndex_hasOwnLocks(const P11HandleIndex* index);

// CKR_HOST_MEMORY when the entry cannot be made.
CK_RV P11HandleIndex_insert_inlock(P11HandleIndex* index, CK_ULONG handle, P11HandleKind kind, void* pointer);
void P11HandleIndex_erase_inlock(P11HandleIndex* index, CK_ULONG handle);

// The pointer registered under the handle with that kind, or null; `retain`
// runs on it before the index lets go of it.
void* P11HandleIndex_find(P11HandleIndex* index, CK_ULONG handle, P11HandleKind kind, void (*retain)(void*));

// Every shard lock, in shard order, for a fork (the index's own locks only).
void P11HandleIndex_lockAll(P11HandleIndex* index);
void P11HandleIndex_unlockAll(P11HandleIndex* index);
