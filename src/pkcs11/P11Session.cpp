#include "pkcs11/P11Session.h"

#include <new>

#include "crypto/hash.h"
#include "pkcs11/P11ObjList.h"
#include "pkcs11/P11OperationData.h"
#include "pkcs11/P11Token.h"
#include "pkcs11/db/Tavik_p11trace.h"
#include "pkcs11/objects/P11Obj.h"

namespace {

// Holds the session mutex for a scope. A session that was closed answers
// CKR_SESSION_CLOSED, whether it was closed before the call waited for its
// mutex or while it waited.
class SessionLock : public P11LockGuard<P11Session> {
public:
    explicit SessionLock(P11Session* session) : P11LockGuard(session, P11Session_lock, P11Session_unlock), session_(session) {}
    CK_RV lock()
    {
        if (session_->closed.load(std::memory_order_acquire)) return CKR_SESSION_CLOSED;
        const CK_RV rv = P11LockGuard::lock();
        if (rv != CKR_OK) return rv;
        if (session_->closed.load(std::memory_order_acquire)) return release(CKR_SESSION_CLOSED);
        return CKR_OK;
    }

private:
    P11Session* session_;
};

// The token mutex, which guards the sessions' object lists.
class TokenLock : public P11LockGuard<P11Token> {
public:
    explicit TokenLock(P11Token* token) : P11LockGuard(token, P11Token_lock, P11Token_unlock) {}
};

// Ends the active operation, whatever its kind: no kind, no key, no
// mechanism state, no search.
void endOperation(P11Session* session)
{
    session->activeOperation = P11_OP_NONE;
    P11Obj_destruct(&session->operationKey);
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
    if (rv == CKR_OK) {
        // The operation keeps its key alive, whatever happens to it.
        session->operationKey = key;
        if (key) P11Obj_retain(key);
    } else {
        endOperation(session);
    }
    return lock.release(rv);
}

// Single-part and final calls of encrypt, decrypt, sign and digest: a
// length query (null output) or a too-small buffer keeps the operation.
// Bytes missing behind a length. Such arguments, and a missing output
// length, are answered CKR_ARGUMENTS_BAD before a class member sees them;
// the operation then ends or stays as after any other failure.
bool missing(const void* bytes, CK_ULONG length)
{
    return !bytes && length;
}

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

// Kills every object of a list: its handle is forgotten, calls that still
// hold it see it dead, and the list's reference goes. The caller holds the
// token mutex.
void killObjects_inlock(P11Token* token, P11ObjList* list)
{
    P11Obj* object = nullptr;
    while (P11ObjList_popObject(list, &object) == CKR_OK && object) {
        P11Token_unindex_inlock(token, P11Obj_getHandle(object));
        P11Obj_markDead(object);
        P11Obj_destruct(&object);
    }
}

// Destroys what construction built; each part may be missing. Nothing else
// can reach the session any more.
CK_RV destroyParts(P11Session* session)
{
    endOperation(session);
    abort_hash(session->spareHash);
    session->spareHash = nullptr;
    CK_RV rv = CKR_OK;
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

void P11Session_retain(P11Session* session)
{
    session->refs.fetch_add(1, std::memory_order_relaxed);
}

CK_RV P11Session_release(P11Session** session)
{
    if (!session || !*session) return CKR_OK;
    if ((*session)->refs.fetch_sub(1, std::memory_order_acq_rel) != 1) {
        *session = nullptr;
        return CKR_OK;
    }
    return P11Session_destruct(session);
}

CK_RV P11Session_closeSession(P11Session* session)
{
    TSQ_Trace(3, "Entering %s", "P11Session_closeSession");
    CK_RV rv = P11Token_removeSession(session->token, session);
    // The list's reference; the record goes with the last call that holds it.
    if (rv == CKR_OK) rv = P11Session_release(&session);
    if (rv != CKR_OK)
        TSQ_TraceWithRv(P11TraceContext, 1, "C_CloseSession", rv);
    else
        TSQ_Trace(3, "Exiting %s\n", "C_CloseSession");
    return rv;
}

void P11Session_close_inlock(P11Session* session)
{
    session->closed.store(true, std::memory_order_release);
    P11Token_unindex_inlock(session->token, session->handle);
    killObjects_inlock(session->token, session->publicObjects);
    if (session->privateObjects) killObjects_inlock(session->token, session->privateObjects);
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

CK_RV P11Session_doLogin_inlock(P11Session* session)
{
    CK_RV rv = CKR_OK;
    if (!session->privateObjects) rv = P11ObjList_construct(&session->privateObjects);
    if (rv == CKR_OK) session->userLoggedIn = CK_TRUE;
    return rv;
}

CK_RV P11Session_doLogout_inlock(P11Session* session)
{
    // Private session objects do not outlive the login.
    if (session->privateObjects) {
        killObjects_inlock(session->token, session->privateObjects);
        P11ObjList_destruct(&session->privateObjects);
    }
    session->userLoggedIn = CK_FALSE;
    return CKR_OK;
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

    TokenLock lock(session->token);
    rv = lock.lock();
    if (rv != CKR_OK) return rv;
    if (session->closed.load(std::memory_order_acquire)) return lock.release(CKR_SESSION_CLOSED);
    CK_BBOOL isPrivate = CK_FALSE;
    rv = P11Obj_isPrivate(object, &isPrivate);
    if (rv != CKR_OK) return lock.release(rv);
    P11ObjList* list = session->publicObjects;
    if (isPrivate) {
        if (!session->userLoggedIn) return lock.release(CKR_USER_NOT_LOGGED_IN);
        if (!session->privateObjects) return lock.release(CKR_GENERAL_ERROR);
        list = session->privateObjects;
    }
    P11Obj_retain(object);
    rv = P11ObjList_add(list, object);
    if (rv == CKR_OK) {
        rv = P11Token_indexObject_inlock(session->token, object);
        if (rv != CKR_OK) P11ObjList_remove(list, object);
    }
    if (rv != CKR_OK) {
        P11Obj* listReference = object;
        P11Obj_destruct(&listReference);
    }
    return lock.release(rv);
}

CK_RV P11Session_removeObject_inlock(P11Session* session, P11Obj* object)
{
    CK_RV rv = P11ObjList_remove(session->publicObjects, object);
    if (rv != CKR_OK && session->privateObjects) rv = P11ObjList_remove(session->privateObjects, object);
    return rv;
}

CK_RV P11Session_destroyObject(P11Session* session, P11Obj* object)
{
    return P11Obj_destroyObject(&object, session);
}

CK_RV P11Session_findObjectsInit(P11Session* session, CK_ATTRIBUTE_PTR attributes, CK_ULONG count)
{
    P11FindContext* context = nullptr;
    {
        SessionLock lock(session);
        CK_RV rv = lock.lock();
        if (rv != CKR_OK) return rv;
        if (session->activeOperation != P11_OP_NONE) return lock.release(CKR_OPERATION_ACTIVE);
        rv = P11FindContext_construct(&context);
        if (rv == CKR_OK) rv = P11FindContext_setFindTemplate(context, attributes, count);
        if (rv != CKR_OK) {
            P11FindContext_destruct(&context);
            return lock.release(rv);
        }
        session->activeOperation = P11_OP_FIND;
        rv = lock.release(CKR_OK);
        if (rv != CKR_OK) {
            P11FindContext_destruct(&context);
            return rv;
        }
    }
    // The session mutex is not held while the token collects the matches
    // under its own mutex. The results go into the session afterwards; a
    // failure here leaves the search active: C_FindObjectsFinal ends it.
    const CK_RV rv = P11Token_findObjects(session->token, context);
    SessionLock lock(session);
    const CK_RV lockRv = lock.lock();
    if (lockRv != CKR_OK) {
        P11FindContext_destruct(&context);
        return lockRv;
    }
    if (session->activeOperation == P11_OP_FIND && !session->findContext)
        session->findContext = context;
    else
        P11FindContext_destruct(&context);  // another call in this session ended the search meanwhile
    return lock.release(rv);
}

CK_RV P11Session_doFindObjects_inlock(P11Session* session, P11FindContext* context)
{
    CK_RV rv = P11ObjList_findObjects(session->publicObjects, context);
    if (rv == CKR_OK && session->privateObjects) rv = P11ObjList_findObjects(session->privateObjects, context);
    return rv;
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
    if (!session->findContext) {
        // The search is still collecting in another call of this session.
        *count = 0;
        return lock.release(CKR_OK);
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
                         [&](P11Obj* key) { return (missing(data, dataLen) || !outLen) ? CKR_ARGUMENTS_BAD : P11Obj_encrypt(key, session, data, dataLen, out, outLen); });
}

CK_RV P11Session_encryptUpdate(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen)
{
    return updateCall(session, P11_OP_ENCRYPT, UpdateRule::KeepOnShortBuffer,
                      [&](P11Obj* key) { return (missing(data, dataLen) || !outLen) ? CKR_ARGUMENTS_BAD : P11Obj_encryptUpdate(key, session, data, dataLen, out, outLen); });
}

CK_RV P11Session_encryptFinal(P11Session* session, CK_BYTE_PTR out, CK_ULONG_PTR outLen)
{
    return finishingCall(session, P11_OP_ENCRYPT, out,
                         [&](P11Obj* key) { return (!outLen) ? CKR_ARGUMENTS_BAD : P11Obj_encryptFinal(key, session, out, outLen); });
}

// ---- decrypt ----

CK_RV P11Session_decryptInit(P11Session* session, P11Obj* key, CK_MECHANISM_PTR mechanism)
{
    return beginOperation(session, P11_OP_DECRYPT, key, [&] { return P11Obj_decryptInit(key, session, mechanism); });
}

CK_RV P11Session_decrypt(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen)
{
    return finishingCall(session, P11_OP_DECRYPT, out,
                         [&](P11Obj* key) { return (missing(data, dataLen) || !outLen) ? CKR_ARGUMENTS_BAD : P11Obj_decrypt(key, session, data, dataLen, out, outLen); });
}

CK_RV P11Session_decryptUpdate(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen)
{
    return updateCall(session, P11_OP_DECRYPT, UpdateRule::KeepOnShortBuffer,
                      [&](P11Obj* key) { return (missing(data, dataLen) || !outLen) ? CKR_ARGUMENTS_BAD : P11Obj_decryptUpdate(key, session, data, dataLen, out, outLen); });
}

CK_RV P11Session_decryptFinal(P11Session* session, CK_BYTE_PTR out, CK_ULONG_PTR outLen)
{
    return finishingCall(session, P11_OP_DECRYPT, out,
                         [&](P11Obj* key) { return (!outLen) ? CKR_ARGUMENTS_BAD : P11Obj_decryptFinal(key, session, out, outLen); });
}

// ---- sign ----

CK_RV P11Session_signInit(P11Session* session, P11Obj* key, CK_MECHANISM_PTR mechanism)
{
    return beginOperation(session, P11_OP_SIGN, key, [&] { return P11Obj_signInit(key, session, mechanism); });
}

CK_RV P11Session_sign(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR signature, CK_ULONG_PTR signatureLen)
{
    return finishingCall(session, P11_OP_SIGN, signature, [&](P11Obj* key) {
        return (missing(data, dataLen) || !signatureLen) ? CKR_ARGUMENTS_BAD : P11Obj_sign(key, session, data, dataLen, signature, signatureLen);
    });
}

CK_RV P11Session_signUpdate(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen)
{
    return updateCall(session, P11_OP_SIGN, UpdateRule::EndOnAnyFailureOrStray,
                      [&](P11Obj* key) { return (missing(data, dataLen)) ? CKR_ARGUMENTS_BAD : P11Obj_signUpdate(key, session, data, dataLen); });
}

CK_RV P11Session_signFinal(P11Session* session, CK_BYTE_PTR signature, CK_ULONG_PTR signatureLen)
{
    return finishingCall(session, P11_OP_SIGN, signature,
                         [&](P11Obj* key) { return (!signatureLen) ? CKR_ARGUMENTS_BAD : P11Obj_signFinal(key, session, signature, signatureLen); });
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
        return (missing(data, dataLen) || !signatureLen) ? CKR_ARGUMENTS_BAD : P11Obj_signRecover(key, session, data, dataLen, signature, signatureLen);
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
        return (missing(data, dataLen) || missing(signature, signatureLen)) ? CKR_ARGUMENTS_BAD : P11Obj_verify(key, session, data, dataLen, signature, signatureLen);
    });
}

CK_RV P11Session_verifyUpdate(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen)
{
    return updateCall(session, P11_OP_VERIFY, UpdateRule::EndOnAnyFailure,
                      [&](P11Obj* key) { return (missing(data, dataLen)) ? CKR_ARGUMENTS_BAD : P11Obj_verifyUpdate(key, session, data, dataLen); });
}

CK_RV P11Session_verifyFinal(P11Session* session, CK_BYTE_PTR signature, CK_ULONG signatureLen)
{
    return verifyingCall(session, P11_OP_VERIFY,
                         [&](P11Obj* key) { return (missing(signature, signatureLen)) ? CKR_ARGUMENTS_BAD : P11Obj_verifyFinal(key, session, signature, signatureLen); });
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
        return (missing(signature, signatureLen) || !dataLen) ? CKR_ARGUMENTS_BAD : P11Obj_verifyRecover(key, session, signature, signatureLen, data, dataLen);
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
                         [&](P11Obj*) { return (missing(data, dataLen) || !digestLen) ? CKR_ARGUMENTS_BAD : P11Session_digest_do(session, data, dataLen, digest, digestLen); });
}

CK_RV P11Session_digestUpdate(P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen)
{
    return updateCall(session, P11_OP_DIGEST, UpdateRule::NeverEnd,
                      [&](P11Obj*) { return (missing(data, dataLen)) ? CKR_ARGUMENTS_BAD : P11Session_digestUpdate_do(session, data, dataLen); });
}

CK_RV P11Session_digestKey(P11Session* session, P11Obj* key)
{
    return updateCall(session, P11_OP_DIGEST, UpdateRule::NeverEnd,
                      [&](P11Obj*) { return P11Session_digestKey_do(session, key); });
}

CK_RV P11Session_digestFinal(P11Session* session, CK_BYTE_PTR digest, CK_ULONG_PTR digestLen)
{
    return finishingCall(session, P11_OP_DIGEST, digest,
                         [&](P11Obj*) { return (!digestLen) ? CKR_ARGUMENTS_BAD : P11Session_digestFinal_do(session, digest, digestLen); });
}
