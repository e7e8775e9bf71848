#include "pkcs11/db/P11DB.h"

#include <cstring>
#include <new>

#include "deps/cpp_modules/SecureRandomNumberGenerator.h"
#include "pkcs11/P11ObjList.h"

namespace {

const char kTokenLabel[] = "Korvo central server";

}  // namespace

CK_RV P11DB_Initialize(P11DB** db, P11Token* token, const char*)
{
    P11DB* d = new (std::nothrow) P11DB{token, nullptr, {0, 0}, {0, 0, 0}};
    if (!d) return CKR_HOST_MEMORY;
    const CK_RV rv = P11ObjList_construct(&d->objects);
    if (rv != CKR_OK) {
        delete d;
        return rv;
    }
    *db = d;
    return CKR_OK;
}

CK_RV P11DB_Finalize(P11DB* db)
{
    // Nothing is stored anywhere; only the mirrored objects are let go.
    if (!db) return CKR_OK;
    const CK_RV rv = P11ObjList_destroyAllObjects(db->objects);
    P11ObjList_destruct(&db->objects);
    delete db;
    return rv;
}

CK_RV P11DB_Login(P11DB*, CK_USER_TYPE, CK_UTF8CHAR_PTR, CK_ULONG) { return CKR_OK; }
CK_RV P11DB_Logout(P11DB*) { return CKR_OK; }
CK_RV P11DB_CheckSOPIN(P11DB*, CK_UTF8CHAR_PTR, CK_ULONG) { return CKR_PIN_INCORRECT; }
CK_RV P11DB_SetPIN(P11DB*, CK_UTF8CHAR_PTR, CK_ULONG, CK_UTF8CHAR_PTR, CK_ULONG) { return CKR_TOKEN_WRITE_PROTECTED; }
CK_RV P11DB_InitPIN(P11DB*, CK_UTF8CHAR_PTR, CK_ULONG) { return CKR_TOKEN_WRITE_PROTECTED; }
CK_RV P11DB_SetSOPIN(P11DB*, CK_UTF8CHAR_PTR, CK_ULONG) { return CKR_TOKEN_WRITE_PROTECTED; }
CK_RV P11DB_Reset(P11DB*) { return CKR_TOKEN_WRITE_PROTECTED; }
CK_RV P11DB_SetLabel(P11DB*, CK_UTF8CHAR_PTR) { return CKR_TOKEN_WRITE_PROTECTED; }
CK_RV P11DB_SetRandomSeed(P11DB*, CK_BYTE_PTR, CK_ULONG) { return CKR_OK; }
CK_RV P11DB_AddObject(P11DB*, P11Obj*) { return CKR_TOKEN_WRITE_PROTECTED; }
CK_RV P11DB_StoreObject(P11DB*, P11Obj*) { return CKR_TOKEN_WRITE_PROTECTED; }
CK_RV P11DB_RemoveObject(P11DB*, P11Obj*) { return CKR_TOKEN_WRITE_PROTECTED; }

// The token's own locks serialise every use of the database.
CK_RV P11DB_lockDB(P11DB*, P11LockRecord*) { return CKR_OK; }
CK_RV P11DB_unlockDB(P11DB*, P11LockRecord*) { return CKR_OK; }
CK_RV P11DB_lock(P11DB*, P11LockRecord*) { return CKR_OK; }
CK_RV P11DB_unlock(P11DB*, P11LockRecord*) { return CKR_OK; }

CK_RV P11DB_GetLabel(P11DB*, CK_UTF8CHAR_PTR label)
{
    std::memset(label, ' ', 32);
    std::memcpy(label, kTokenLabel, sizeof kTokenLabel - 1);
    return CKR_OK;
}

CK_RV P11DB_GetRandomSeed(P11DB*, CK_BYTE_PTR buffer, CK_ULONG_PTR length)
{
    if (!buffer) return CKR_OK;
    try {
        SecureRandomNumberGenerator::fill(buffer, *length);
    } catch (...) {
        return CKR_GENERAL_ERROR;
    }
    return CKR_OK;
}

CK_RV P11DB_IsLoggedIn(P11DB*, CK_BBOOL* loggedIn, CK_USER_TYPE* userType)
{
    *loggedIn = CK_TRUE;
    *userType = CKU_USER;
    return CKR_OK;
}

CK_RV P11DB_FindObjects(P11DB* db, P11FindContext* context)
{
    return P11ObjList_findObjects(db->objects, context);
}
