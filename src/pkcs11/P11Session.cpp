#include "pkcs11/P11Session.h"

#include <new>

#include "pkcs11/P11ObjList.h"
#include "pkcs11/P11OperationData.h"
#include "pkcs11/P11Token.h"
#include "pkcs11/db/Tavik_p11trace.h"
#include "pkcs11/objects/P11Obj.h"

namespace {

// Holds the session mutex for a scope.
class SessionLock : public P11LockGuard<P11Session> {
public:
    explicit SessionLock(P11Session* session) : P11LockGuard(session, P11Session_lock, P11Session_unlock) {}
};

// Ends the active operation, whatever its kind: no kind, no key, no
// mechanism state, no search.
void endOperation(P11Session* session)
{
    session->activeOperation = P11_OP_NONE;
    session->operationKey = nullptr;
    P11Session_freeOperationData(session);
    P11FindContext_destruct(&session->findContext);
}

template <typename Init>
CK_RV beginOperation(P11Session* session, uint32_t kind, P11Obj* key, Init init)
{
    SessionLock lock(session);
    CK_RV rv = lock.lock();
    if (rv != CKR_OK) return rv;
    if (session->activeOperation != P11_OP_NONE) return lock.release(CKR_OPERATION_ACTIVE);
    session->activeOperation = kind;
    rv = init();
    if (rv == CKR_OK)
        session->operationKey = key;
    else
        endOperation(session);
    return lock.release(rv);
}

// Single-part and final calls of encrypt, decrypt, sign and digest: a
// length query (null output) or a too-small buffer keeps the operation.
template <typename Call>
CK_RV finishingCall(P11Session* session, uint32_t kind, const void* output, Call call)
{
    SessionLock lock(session);
    CK_RV rv = lock.lock();
    if (rv != CKR_OK) return rv;
    if (session->activeOperation != kind) return lock.release(CKR_OPERATION_NOT_INITIALIZED);
    rv = call(session->operationKey);
    if (rv == CKR_OK ? output != nullptr : rv != CKR_OPERATION_NOT_INITIALIZED && rv != CKR_BUFFER_TOO_SMALL)
        endOperation(session);
    return lock.release(rv);
}

// Verification ends after the call, whatever its result.
template <typename Call>
CK_RV verifyingCall(P11Session* session, uint32_t kind, Call call)
{
    SessionLock lock(session);
    CK_RV rv = lock.lock();
    if (rv != CKR_OK) return rv;
    if (session->activeOperation != kind) return lock.release(CKR_OPERATION_NOT_INITIALIZED);
    rv = call(session->operationKey);
    endOperation(session);
    return lock.release(rv);
}

enum class UpdateRule {
    EndOnAnyFailureOrStray,   // sign: even a stray update ends what runs
    KeepOnShortBuffer,        // encrypt, decrypt
    EndOnAnyFailure,          // verify
    NeverEnd,                 // digest
};

template <typename Call>
CK_RV updateCall(P11Session* session, uint32_t kind, UpdateRule rule, Call call)
{
    SessionLock lock(session);
    CK_RV rv = lock.lock();
    if (rv != CKR_OK) return rv;
    if (session->activeOperation != kind) {
        if (rule == UpdateRule::EndOnAnyFailureOrStray) endOperation(session);
        return lock.release(CKR_OPERATION_NOT_INITIALIZED);
    }
    rv = call(session->operationKey);
    if (rv != CKR_OK) {
        switch (rule) {
        case UpdateRule::EndOnAnyFailureOrStray:
        case UpdateRule::EndOnAnyFailure:
            endOperation(session);
            break;
        case UpdateRule::KeepOnShortBuffer:
            if (rv != CKR_OPERATION_NOT_INITIALIZED && rv != CKR_BUFFER_TOO_SMALL) endOperation(session);
            break;
        case UpdateRule::NeverEnd:
            break;
        }
    }
    return lock.release(rv);
}

// Destroys what construction built; each part may be missing.
CK_RV destroyParts(P11Session* session)
{
    CK_RV rv = P11Session_freeOperationData(session);
    if (rv != CKR_OK) return rv;
    P11FindContext_destruct(&session->findContext);
    if (session->publicObjects) {
        if ((rv = P11ObjList_destroyAllObjects(session->publicObjects)) != CKR_OK) return rv;
        P11ObjList_destruct(&session->publicObjects);
    }
    if (session->privateObjects) {
        if ((rv = P11ObjList_destroyAllObjects(session->privateObjects)) != CKR_OK) return rv;
        P11ObjList_destruct(&session->privateObjects);
    }
    return P11Mutex_destruct(&session->mutex);
}

}  // namespace

CK_RV P11Session_construct(P11Session** pSession, P11Token* token, CK_SESSION_HANDLE handle, bool readWrite,
                           CK_VOID_PTR application, CK_NOTIFY notify, bool userLoggedIn)
{
    // Construction is traced under the name of the call it serves.
    TSQ_Trace(3, "Entering %s", "P11Session_construct");
    P11Session* session = new (std::nothrow) P11Session{};
    CK_RV rv = session ? CKR_OK : CKR_HOST_MEMORY;
    if (rv == CKR_OK) {
        session->token = token;
        session->handle = handle;
        session->readWrite = readWrite;
        session->application = application;
        session->notify = notify;
        session->userLoggedIn = userLoggedIn;
        rv = P11ObjList_construct(&session->publicObjects);
    }
    if (rv == CKR_OK && userLoggedIn) rv = P11ObjList_construct(&session->privateObjects);
    if (rv == CKR_OK) rv = P11Mutex_construct(&session->mutex);
    if (rv != CKR_OK) {
        if (session) {
            destroyParts(session);
            delete session;
        }
        TSQ_TraceWithRv(P11TraceContext, 1, "C_OpenSession", rv);
        return rv;
    }
    *pSession = session;
    TSQ_Trace(3, "Exiting %s\n", "C_OpenSession");
    return CKR_OK;
}

CK_RV P11Session_destruct(P11Session** session)
{
    if (!session || !*session) return CKR_OK;
    const CK_RV rv = destroyParts(*session);
    if (rv != CKR_OK) return rv;
    delete *session;
    *session = nullptr;
    return CKR_OK;
}

CK_RV P11Session_closeSession(P11Session* session)
{
    TSQ_Trace(3, "Entering %s", "P11Session_closeSession");
    CK_RV rv = P11Token_removeSession(session->token, session);
    if (rv == CKR_OK) rv = P11Session_destruct(&session);
    if (rv != CKR_OK)
        TSQ_TraceWithRv(P11TraceContext, 1, "C_CloseSession", rv);
    else
        TSQ_Trace(3, "Exiting %s\n", "C_CloseSession");
    return rv;
}

CK_RV P11Session_getSessionInfo(P11Session* session, CK_SESSION_INFO_PTR info)
{
    // The token is asked before the session is locked: the token mutex is
    // never requested while a session mutex is held.
    CK_SLOT_ID slot = 0;
    CK_BBOOL loggedIn = CK_FALSE;
    CK_BBOOL isUser = CK_FALSE;
    CK_RV rv = P11Token_getSlotID(session->token, &slot);
    if (rv == CKR_OK) rv = P11Token_isLoggedIn(session->token, &loggedIn, &isUser);
    if (rv != CKR_OK) return rv;

    SessionLock lock(session);
    rv = lock.lock();
    if (rv != CKR_OK) return rv;
    CK_STATE state;
    if (!loggedIn)
        state = session->readWrite ? CKS_RW_PUBLIC_SESSION : CKS_RO_PUBLIC_SESSION;
    else if (isUser)
        state = session->readWrite ? CKS_RW_USER_FUNCTIONS : CKS_RO_USER_FUNCTIONS;
    else if (session->readWrite)
        state = CKS_RW_SO_FUNCTIONS;
    else
        return lock.release(CKR_GENERAL_ERROR);
    info->slotID = slot;
    info->state = state;
    info->flags = CKF_SERIAL_SESSION | (session->readWrite ? CKF_RW_SESSION : 0);
    info->ulDeviceError = session->deviceError;
    return lock.release(CKR_OK);
}

P11Token* P11Session_getToken(P11Session* session) { return session->token; }
CK_SESSION_HANDLE P11Session_getHandle(P11Session* session) { return session->handle; }
bool P11Session_isReadWrite(P11Session* session) { return session->readWrite; }
CK_NOTIFY P11Session_getProgressFunc(P11Session* session) { return session->notify; }

CK_RV P11Session_setOperationData(P11Session* session, P11OperationData* data)
{
    if (session->operationData) {
        const CK_RV rv = session->operationData->destroy();
        if (rv != CKR_OK) return rv;
    }
    session->operationData = data;
    return CKR_OK;
}

P11OperationData* P11Session_peekOperationData(P11Session* session)
{
    return session->operationData;
}

CK_RV P11Session_freeOperationData(P11Session* session)
{
    if (!session->operationData) return CKR_OK;
    const CK_RV rv = session->operationData->destroy();
    session->operationData = nullptr;
    return rv;
}

CK_RV P11Session_lock(P11Session* session, P11LockRecord* record)
{
    return P11Mutex_lockRecord(session->mutex, record, "** Session locking (%p)", "** Session locked (%p)");
}

CK_RV P11Session_unlock(P11Session*, P11LockRecord* record)
{
    return P11Mutex_unlockRecord(record, *record, "** Session unlocking (%p)", "** Session unlocked (%p)");
}

CK_RV P11Session_login(P11Session* session, CK_USER_TYPE userType, CK_UTF8CHAR_PTR pin, CK_ULONG pinLen)
{
    return P11Token_login(session->token, userType, pin, pinLen);
}

CK_RV P11Session_logout(P11Session* session)
{
    return P11Token_logout(session->token);
}

CK_RV P11Session_setPIN(P11Session* session, CK_UTF8CHAR_PTR oldPin, CK_ULONG oldLen, CK_UTF8CHAR_PTR newPin, CK_ULONG newLen)
{
    SessionLock lock(session);
    const CK_RV rv = lock.lock();
    if (rv != CKR_OK) return rv;
    return lock.release(P11Token_setPIN(session->token, oldPin, oldLen, newPin, newLen));
}

CK_RV P11Session_initPIN(P11Session* session, CK_UTF8CHAR_PTR pin, CK_ULONG pinLen)
{
    return P11Token_initPIN(session->token, pin, pinLen);
}

CK_RV P11Session_doLogin(P11Session* session)
{
    SessionLock lock(session);
    CK_RV rv = lock.lock();
    if (rv != CKR_OK) return rv;
    if (!session->privateObjects) rv = P11ObjList_construct(&session->privateObjects);
    if (rv == CKR_OK) session->userLoggedIn = CK_TRUE;
    return lock.release(rv);
}

CK_RV P11Session_doLogout(P11Session* session)
{
    SessionLock lock(session);
    CK_RV rv = lock.lock();
    if (rv != CKR_OK) return rv;
    // Private session objects do not outlive the login.
    if (session->privateObjects) {
        rv = P11ObjList_destroyAllObjects(session->privateObjects);
        if (rv != CKR_OK) return lock.release(rv);
        P11ObjList_destruct(&session->privateObjects);
    }
    session->userLoggedIn = CK_FALSE;
    return lock.release(CKR_OK);
}

CK_RV P11Session_generateRandom(P11Session* session, CK_BYTE_PTR buffer, CK_ULONG length)
{
    return P11Token_generateRandom(session->token, buffer, length);
}

CK_RV P11Session_seedRandom(P11Session* session, CK_BYTE_PTR seed, CK_ULONG length)
{
    return P11Token_seedRandom(session->token, seed, length);
}

CK_RV P11Session_addObject(P11Session* session, P11Obj* object)
{
    CK_OBJECT_HANDLE handle = 0;
    CK_RV rv = P11Token_getNewObjectHandle(session->token, &handle);
    if (rv != CKR_OK) return rv;
    P11Obj_setHandle(object, handle);

    SessionLock lock(session);
    rv = lock.lock();
    if (rv != CKR_OK) return rv;
    CK_BBOOL isPrivate = CK_FALSE;
    rv = P11Obj_isPrivate(object, &isPrivate);
    if (rv != CKR_OK) return lock.release(rv);
    if (!isPrivate) return lock.release(P11ObjList_add(session->publicObjects, object));
    if (!session->userLoggedIn) return lock.release(CKR_USER_NOT_LOGGED_IN);
    if (!session->privateObjects) return lock.release(CKR_GENERAL_ERROR);
    return lock.release(P11ObjList_add(session->privateObjects, object));
}

CK_RV P11Session_removeObject(P11Session* session, P11Obj* object)
{
    SessionLock lock(session);
    CK_RV rv = lock.lock();
    if (rv != CKR_OK) return rv;
    CK_BBOOL isPrivate = CK_FALSE;
    rv = P11Obj_isPrivate(object, &isPrivate);
    if (rv != CKR_OK) return lock.release(rv);
    P11ObjList* list = isPrivate ? session->privateObjects : session->publicObjects;
    return lock.release(list ? P11ObjList_remove(list, object) : CKR_GENERAL_ERROR);
}

CK_RV P11Session_destroyObject(P11Session* session, P11Obj* object)
{
    return P11Obj_destroyObject(&object, session);
}

CK_RV P11Session_forgetKey(P11Session* session, P11Obj* key)
{
    SessionLock lock(session);
    const CK_RV rv = lock.lock();
    if (rv != CKR_OK) return rv;
    if (session->operationKey == key) endOperation(session);
    return lock.release(CKR_OK);
}

CK_RV P11Session_findObjectHandle(P11Session* session, CK_OBJECT_HANDLE handle, P11Obj** object)
{
    SessionLock lock(session);
    CK_RV rv = lock.lock();
    if (rv != CKR_OK) return rv;
    rv = P11ObjList_findObjectHandle(session->publicObjects, handle, object);
    if (rv == CKR_OK && !*object && session->privateObjects)
        rv = P11ObjList_findObjectHandle(session->privateObjects, handle, object);
    return lock.release(rv);
}

CK_RV P11Session_contains(P11Session* session, P11Obj* object, CK_BBOOL* contains)
{
    SessionLock lock(session);
    CK_RV rv = lock.lock();
    if (rv != CKR_OK) return rv;
    rv = P11ObjList_contains(session->publicObjects, object, contains);
    if (rv == CKR_OK && !*contains && session->privateObjects)
        rv = P11ObjList_contains(session->privateObjects, object, contains);
    return lock.release(rv);
}

CK_RV P11Session_findObjectsInit(P11Session* session, CK_ATTRIBUTE_PTR attributes, CK_ULONG count)
{
    P11FindContext* context = nullptr;
    {
        SessionLock lock(session);
        CK_RV rv = lock.lock();
        if (rv != CKR_OK) return rv;
        if (session->activeOperation != P11_OP_NONE) return lock.release(CKR_OPERATION_ACTIVE);
        session->activeOperation = P11_OP_FIND;
        rv = P11FindContext_construct(&session->findContext);
        if (rv == CKR_OK) rv = P11FindContext_setFindTemplate(session->findContext, attributes, count);
        if (rv != CKR_OK) {
            P11FindContext_destruct(&session->findContext);
            session->activeOperation = P11_OP_NONE;
            return lock.release(rv);
        }
        context = session->findContext;
        rv = lock.release(CKR_OK);
        if (rv != CKR_OK) return rv;
    }
    // The session mutex is released first: the token takes its own mutex and
    // then every session's in turn.
    // A failure here leaves the search active: C_FindObjectsFinal ends it.
    return P11Token_findObjects(session->token, context);
}

CK_RV P11Session_doFindObjects(P11Session* session, P11FindContext* context)
{
    SessionLock lock(session);
    CK_RV rv = lock.lock();
    if (rv != CKR_OK) return rv;
    rv = P11ObjList_findObjects(session->publicObjects, context);
    if (rv == CKR_OK && session->privateObjects) rv = P11ObjList_findObjects(session->privateObjects, context);
    return lock.release(rv);
}

CK_RV P11Session_findObjects(P11Session* session, CK_OBJECT_HANDLE_PTR objects, CK_ULONG max, CK_ULONG_PTR count)
{
    SessionLock lock(session);
    CK_RV rv = lock.lock();
    if (rv != CKR_OK) return rv;
    if (session->activeOperation != P11_OP_FIND) {
        P11FindContext_destruct(&session->findContext);
        return lock.release(CKR_OPERATION_NOT_INITIALIZED);
    }
    rv = P11FindContext_getResults(session->findContext, objects, max, count);
    if (rv != CKR_OK && rv != CKR_OPERATION_NOT_INITIALIZED) {
        P11FindContext_destruct(&session->findContext);
        session->activeOperation = P11_OP_NONE;
    }
    return lock.release(rv);
}

CK_RV P11Session_findObjectsFinal(P11Session* session)
{
    SessionLock lock(session);
    const CK_RV rv = lock.lock();
    if (rv != CKR_OK) return rv;
    if (session->activeOperation != P11_OP_FIND) return lock.release(CKR_OPERATION_NOT_INITIALIZED);
    P11FindContext_destruct(&session->findContext);
    session->activeOperation = P11_OP_NONE;
    return lock.release(CKR_OK);
}

// ---- encrypt ----

CK_RV P11Session_encryptInit(P11Session* session, P11Obj* key, CK_MECHANISM_PTR mechanism)
{
    return beginOperation(session, P11_OP_ENCRYPT, key, [&] { return P11Obj_encryptInit(key, session, mechanism); });
}

CK_RV P11Session_encrypt(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen)
{
    return finishingCall(session, P11_OP_ENCRYPT, out,
                         [&](P11Obj* key) { return P11Obj_encrypt(key, session, data, dataLen, out, outLen); });
}

CK_RV P11Session_encryptUpdate(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen)
{
    return updateCall(session, P11_OP_ENCRYPT, UpdateRule::KeepOnShortBuffer,
                      [&](P11Obj* key) { return P11Obj_encryptUpdate(key, session, data, dataLen, out, outLen); });
}

CK_RV P11Session_encryptFinal(P11Session* session, CK_BYTE_PTR out, CK_ULONG_PTR outLen)
{
    return finishingCall(session, P11_OP_ENCRYPT, out,
                         [&](P11Obj* key) { return P11Obj_encryptFinal(key, session, out, outLen); });
}

// ---- decrypt ----

CK_RV P11Session_decryptInit(P11Session* session, P11Obj* key, CK_MECHANISM_PTR mechanism)
{
    return beginOperation(session, P11_OP_DECRYPT, key, [&] { return P11Obj_decryptInit(key, session, mechanism); });
}

CK_RV P11Session_decrypt(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen)
{
    return finishingCall(session, P11_OP_DECRYPT, out,
                         [&](P11Obj* key) { return P11Obj_decrypt(key, session, data, dataLen, out, outLen); });
}

CK_RV P11Session_decryptUpdate(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen)
{
    return updateCall(session, P11_OP_DECRYPT, UpdateRule::KeepOnShortBuffer,
                      [&](P11Obj* key) { return P11Obj_decryptUpdate(key, session, data, dataLen, out, outLen); });
}

CK_RV P11Session_decryptFinal(P11Session* session, CK_BYTE_PTR out, CK_ULONG_PTR outLen)
{
    return finishingCall(session, P11_OP_DECRYPT, out,
                         [&](P11Obj* key) { return P11Obj_decryptFinal(key, session, out, outLen); });
}

// ---- sign ----

CK_RV P11Session_signInit(P11Session* session, P11Obj* key, CK_MECHANISM_PTR mechanism)
{
    return beginOperation(session, P11_OP_SIGN, key, [&] { return P11Obj_signInit(key, session, mechanism); });
}

CK_RV P11Session_sign(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR signature, CK_ULONG_PTR signatureLen)
{
    return finishingCall(session, P11_OP_SIGN, signature, [&](P11Obj* key) {
        return P11Obj_sign(key, session, data, dataLen, signature, signatureLen);
    });
}

CK_RV P11Session_signUpdate(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen)
{
    return updateCall(session, P11_OP_SIGN, UpdateRule::EndOnAnyFailureOrStray,
                      [&](P11Obj* key) { return P11Obj_signUpdate(key, session, data, dataLen); });
}

CK_RV P11Session_signFinal(P11Session* session, CK_BYTE_PTR signature, CK_ULONG_PTR signatureLen)
{
    return finishingCall(session, P11_OP_SIGN, signature,
                         [&](P11Obj* key) { return P11Obj_signFinal(key, session, signature, signatureLen); });
}

CK_RV P11Session_signRecoverInit(P11Session* session, P11Obj* key, CK_MECHANISM_PTR mechanism)
{
    return beginOperation(session, P11_OP_SIGN_RECOVER, key,
                          [&] { return P11Obj_signRecoverInit(key, session, mechanism); });
}

CK_RV P11Session_signRecover(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR signature,
                             CK_ULONG_PTR signatureLen)
{
    return finishingCall(session, P11_OP_SIGN_RECOVER, signature, [&](P11Obj* key) {
        return P11Obj_signRecover(key, session, data, dataLen, signature, signatureLen);
    });
}

// ---- verify ----

CK_RV P11Session_verifyInit(P11Session* session, P11Obj* key, CK_MECHANISM_PTR mechanism)
{
    return beginOperation(session, P11_OP_VERIFY, key, [&] { return P11Obj_verifyInit(key, session, mechanism); });
}

CK_RV P11Session_verify(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR signature, CK_ULONG signatureLen)
{
    return verifyingCall(session, P11_OP_VERIFY, [&](P11Obj* key) {
        return P11Obj_verify(key, session, data, dataLen, signature, signatureLen);
    });
}

CK_RV P11Session_verifyUpdate(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen)
{
    return updateCall(session, P11_OP_VERIFY, UpdateRule::EndOnAnyFailure,
                      [&](P11Obj* key) { return P11Obj_verifyUpdate(key, session, data, dataLen); });
}

CK_RV P11Session_verifyFinal(P11Session* session, CK_BYTE_PTR signature, CK_ULONG signatureLen)
{
    return verifyingCall(session, P11_OP_VERIFY,
                         [&](P11Obj* key) { return P11Obj_verifyFinal(key, session, signature, signatureLen); });
}

CK_RV P11Session_verifyRecoverInit(P11Session* session, P11Obj* key, CK_MECHANISM_PTR mechanism)
{
    return beginOperation(session, P11_OP_VERIFY_RECOVER, key,
                          [&] { return P11Obj_verifyRecoverInit(key, session, mechanism); });
}

CK_RV P11Session_verifyRecover(P11Session* session, CK_BYTE_PTR signature, CK_ULONG signatureLen, CK_BYTE_PTR data,
                               CK_ULONG_PTR dataLen)
{
    return verifyingCall(session, P11_OP_VERIFY_RECOVER, [&](P11Obj* key) {
        return P11Obj_verifyRecover(key, session, signature, signatureLen, data, dataLen);
    });
}

// ---- digest ----

CK_RV P11Session_digestInit(P11Session* session, CK_MECHANISM_PTR mechanism)
{
    return beginOperation(session, P11_OP_DIGEST, nullptr, [&] { return P11Session_digestInit_do(session, mechanism); });
}

CK_RV P11Session_digest(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR digest, CK_ULONG_PTR digestLen)
{
    return finishingCall(session, P11_OP_DIGEST, digest,
                         [&](P11Obj*) { return P11Session_digest_do(session, data, dataLen, digest, digestLen); });
}

CK_RV P11Session_digestUpdate(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen)
{
    return updateCall(session, P11_OP_DIGEST, UpdateRule::NeverEnd,
                      [&](P11Obj*) { return P11Session_digestUpdate_do(session, data, dataLen); });
}

CK_RV P11Session_digestKey(P11Session* session, P11Obj* key)
{
    return updateCall(session, P11_OP_DIGEST, UpdateRule::NeverEnd,
                      [&](P11Obj*) { return P11Session_digestKey_do(session, key); });
}

CK_RV P11Session_digestFinal(P11Session* session, CK_BYTE_PTR digest, CK_ULONG_PTR digestLen)
{
    return finishingCall(session, P11_OP_DIGEST, digest,
                         [&](P11Obj*) { return P11Session_digestFinal_do(session, digest, digestLen); });
}
