#pragma once
// One application session on the token: its session objects (public and
// private apart), the one operation that may be active in it, the state of
// an object search and the application's callback data.

#include <cstdint>

#include "pkcs11/P11Mutex.h"
#include "pkcs11/cryptoki.h"

struct P11Token;
struct P11Obj;
struct P11ObjList;
struct P11FindContext;
struct P11OperationData;

// The active operation of a session.
enum P11Operation : uint32_t {
    P11_OP_NONE = 0,
    P11_OP_FIND = 1,
    P11_OP_ENCRYPT = 2,
    P11_OP_DECRYPT = 3,
    P11_OP_DIGEST = 4,
    P11_OP_SIGN = 5,
    P11_OP_SIGN_RECOVER = 6,
    P11_OP_VERIFY = 7,
    P11_OP_VERIFY_RECOVER = 8,
};

struct P11Session {
    P11Token* token;
    CK_SESSION_HANDLE handle;
    P11ObjList* publicObjects;
    P11ObjList* privateObjects;   // only while the user is logged in
    uint32_t activeOperation;
    P11FindContext* findContext;
    CK_BBOOL readWrite;
    CK_BBOOL userLoggedIn;
    CK_ULONG deviceError;
    CK_VOID_PTR application;
    CK_NOTIFY notify;
    P11OperationData* operationData;
    P11Obj* operationKey;
    P11MutexHandle mutex;
};

CK_RV P11Session_construct(P11Session** session, P11Token* token, CK_SESSION_HANDLE handle, bool readWrite,
                           CK_VOID_PTR application, CK_NOTIFY notify, bool userLoggedIn);
CK_RV P11Session_destruct(P11Session** session);
CK_RV P11Session_closeSession(P11Session* session);
CK_RV P11Session_getSessionInfo(P11Session* session, CK_SESSION_INFO_PTR info);

P11Token* P11Session_getToken(P11Session* session);
CK_SESSION_HANDLE P11Session_getHandle(P11Session* session);
bool P11Session_isReadWrite(P11Session* session);
CK_NOTIFY P11Session_getProgressFunc(P11Session* session);

// The operation-state slot used by the mechanisms.
CK_RV P11Session_setOperationData(P11Session* session, P11OperationData* data);
P11OperationData* P11Session_peekOperationData(P11Session* session);
CK_RV P11Session_freeOperationData(P11Session* session);

CK_RV P11Session_lock(P11Session* session, P11LockRecord* record);
CK_RV P11Session_unlock(P11Session* session, P11LockRecord* record);

CK_RV P11Session_login(P11Session* session, CK_USER_TYPE userType, CK_UTF8CHAR_PTR pin, CK_ULONG pinLen);
CK_RV P11Session_logout(P11Session* session);
CK_RV P11Session_setPIN(P11Session* session, CK_UTF8CHAR_PTR oldPin, CK_ULONG oldLen, CK_UTF8CHAR_PTR newPin, CK_ULONG newLen);
CK_RV P11Session_initPIN(P11Session* session, CK_UTF8CHAR_PTR pin, CK_ULONG pinLen);
// Called by the token for every session when the user logs in and out.
CK_RV P11Session_doLogin(P11Session* session);
CK_RV P11Session_doLogout(P11Session* session);
CK_RV P11Session_generateRandom(P11Session* session, CK_BYTE_PTR buffer, CK_ULONG length);
CK_RV P11Session_seedRandom(P11Session* session, CK_BYTE_PTR seed, CK_ULONG length);

CK_RV P11Session_addObject(P11Session* session, P11Obj* object);
CK_RV P11Session_removeObject(P11Session* session, P11Obj* object);
CK_RV P11Session_destroyObject(P11Session* session, P11Obj* object);
// Ends the running operation when it uses this key.
CK_RV P11Session_forgetKey(P11Session* session, P11Obj* key);
CK_RV P11Session_findObjectHandle(P11Session* session, CK_OBJECT_HANDLE handle, P11Obj** object);
CK_RV P11Session_contains(P11Session* session, P11Obj* object, CK_BBOOL* contains);

CK_RV P11Session_findObjectsInit(P11Session* session, CK_ATTRIBUTE_PTR attributes, CK_ULONG count);
CK_RV P11Session_doFindObjects(P11Session* session, P11FindContext* context);
CK_RV P11Session_findObjects(P11Session* session, CK_OBJECT_HANDLE_PTR objects, CK_ULONG max, CK_ULONG_PTR count);
CK_RV P11Session_findObjectsFinal(P11Session* session);

CK_RV P11Session_encryptInit(P11Session* session, P11Obj* key, CK_MECHANISM_PTR mechanism);
CK_RV P11Session_encrypt(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen);
CK_RV P11Session_encryptUpdate(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen);
CK_RV P11Session_encryptFinal(P11Session* session, CK_BYTE_PTR out, CK_ULONG_PTR outLen);
CK_RV P11Session_decryptInit(P11Session* session, P11Obj* key, CK_MECHANISM_PTR mechanism);
CK_RV P11Session_decrypt(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen);
CK_RV P11Session_decryptUpdate(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen);
CK_RV P11Session_decryptFinal(P11Session* session, CK_BYTE_PTR out, CK_ULONG_PTR outLen);
CK_RV P11Session_signInit(P11Session* session, P11Obj* key, CK_MECHANISM_PTR mechanism);
CK_RV P11Session_sign(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR signature, CK_ULONG_PTR signatureLen);
CK_RV P11Session_signUpdate(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen);
CK_RV P11Session_signFinal(P11Session* session, CK_BYTE_PTR signature, CK_ULONG_PTR signatureLen);
CK_RV P11Session_signRecoverInit(P11Session* session, P11Obj* key, CK_MECHANISM_PTR mechanism);
CK_RV P11Session_signRecover(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR signature, CK_ULONG_PTR signatureLen);
CK_RV P11Session_verifyInit(P11Session* session, P11Obj* key, CK_MECHANISM_PTR mechanism);
CK_RV P11Session_verify(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR signature, CK_ULONG signatureLen);
CK_RV P11Session_verifyUpdate(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen);
CK_RV P11Session_verifyFinal(P11Session* session, CK_BYTE_PTR signature, CK_ULONG signatureLen);
CK_RV P11Session_verifyRecoverInit(P11Session* session, P11Obj* key, CK_MECHANISM_PTR mechanism);
CK_RV P11Session_verifyRecover(P11Session* session, CK_BYTE_PTR signature, CK_ULONG signatureLen, CK_BYTE_PTR data, CK_ULONG_PTR dataLen);
CK_RV P11Session_digestInit(P11Session* session, CK_MECHANISM_PTR mechanism);
CK_RV P11Session_digest(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR digest, CK_ULONG_PTR digestLen);
CK_RV P11Session_digestUpdate(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen);
CK_RV P11Session_digestKey(P11Session* session, P11Obj* key);
CK_RV P11Session_digestFinal(P11Session* session, CK_BYTE_PTR digest, CK_ULONG_PTR digestLen);

// The digest mechanisms, run with the session locked.
CK_RV P11Session_digestInit_do(P11Session* session, CK_MECHANISM_PTR mechanism);
CK_RV P11Session_digestUpdate_do(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen);
CK_RV P11Session_digestKey_do(P11Session* session, P11Obj* key);
CK_RV P11Session_digest_do(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen);
CK_RV P11Session_digestFinal_do(P11Session* session, CK_BYTE_PTR out, CK_ULONG_PTR outLen);
