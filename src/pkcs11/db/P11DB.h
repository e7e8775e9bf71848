#pragma once
// The token's storage interface. The token has no writable storage: its
// objects mirror the certificate files, everything that would write is
// refused, and the login state is fixed.

#include <cstdint>

#include "pkcs11/P11Mutex.h"
#include "pkcs11/cryptoki.h"

struct P11Token;
struct P11ObjList;
struct P11FindContext;
struct P11Obj;

struct P11DB_Sources;
class FolderWatch;

struct P11DB {
    P11Token* token;
    P11ObjList* objects;
    CK_BYTE status[2];
    uint64_t counters[3];
    // What each token object was last built from, so that a refresh reuses
    // the objects of unchanged certificates instead of building them anew.
    P11DB_Sources* sources;
    // Tells when nothing in the certificate folders changed since the last
    // complete refresh, so that a search can skip reading them.
    FolderWatch* watch;
};

CK_RV P11DB_Initialize(P11DB** db, P11Token* token, const char* path);
// Lets the mirrored objects and the record go.
CK_RV P11DB_Finalize(P11DB* db);
CK_RV P11DB_Login(P11DB* db, CK_USER_TYPE userType, CK_UTF8CHAR_PTR pin, CK_ULONG pinLen);
CK_RV P11DB_Logout(P11DB* db);
CK_RV P11DB_CheckSOPIN(P11DB* db, CK_UTF8CHAR_PTR pin, CK_ULONG pinLen);
CK_RV P11DB_SetPIN(P11DB* db, CK_UTF8CHAR_PTR oldPin, CK_ULONG oldLen, CK_UTF8CHAR_PTR newPin, CK_ULONG newLen);
CK_RV P11DB_InitPIN(P11DB* db, CK_UTF8CHAR_PTR pin, CK_ULONG pinLen);
CK_RV P11DB_SetSOPIN(P11DB* db, CK_UTF8CHAR_PTR pin, CK_ULONG pinLen);
CK_RV P11DB_Reset(P11DB* db);
CK_RV P11DB_SetLabel(P11DB* db, CK_UTF8CHAR_PTR label);
// The 32-byte blank-padded label, no terminator.
CK_RV P11DB_GetLabel(P11DB* db, CK_UTF8CHAR_PTR label);
CK_RV P11DB_SetRandomSeed(P11DB* db, CK_BYTE_PTR seed, CK_ULONG seedLen);
// Fills *length bytes from the system's random device; a null buffer does
// nothing, so the caller's length stands.
CK_RV P11DB_GetRandomSeed(P11DB* db, CK_BYTE_PTR buffer, CK_ULONG_PTR length);
CK_RV P11DB_IsLoggedIn(P11DB* db, CK_BBOOL* loggedIn, CK_USER_TYPE* userType);
CK_RV P11DB_AddObject(P11DB* db, P11Obj* object);
CK_RV P11DB_StoreObject(P11DB* db, P11Obj* object);
CK_RV P11DB_RemoveObject(P11DB* db, P11Obj* object);
CK_RV P11DB_lockDB(P11DB* db, P11LockRecord* record);
CK_RV P11DB_unlockDB(P11DB* db, P11LockRecord* record);
CK_RV P11DB_lock(P11DB* db, P11LockRecord* record);
CK_RV P11DB_unlock(P11DB* db, P11LockRecord* record);
// Brings the token objects up to date with the certificate files, then
// offers them to the search. Per user certificate there are a private key,
// a certificate and a public key, per intermediate CA certificate a
// certificate, per root CA certificate a certificate and a trust object.
// An object already in the list with the same class and CKA_ID keeps its
// handle (and takes the new content); objects whose file is gone leave the
// list and die (calls and operations that still hold one see it dead). An object is built only
// when its certificate bytes (and, for a key, its owner) differ from what
// it was built from last time, and the folders are not read at all while
// the kernel reports no change in them since the last complete refresh. A certificate that cannot be made into its
// objects fails the search with CKR_FUNCTION_FAILED (CKR_HOST_MEMORY for
// memory); what was registered before stays and nothing is pruned then.
// Runs under the token mutex.
CK_RV P11DB_FindObjects(P11DB* db, P11FindContext* context);
