#include "pkcs11/P11Token.h"

#include <pthread.h>

#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <vector>

#include <openssl/crypto.h>

#include "crypto/crypto_errors.h"
#include "crypto/csprgbg.h"
#include "crypto/seed_source.h"
#include "pkcs11/GetToken.h"
#include "pkcs11/P11HandleIndex.h"
#include "pkcs11/P11ObjList.h"
#include "pkcs11/P11Session.h"
#include "pkcs11/P11SessionList.h"
#include "pkcs11/db/P11DB.h"
#include "pkcs11/db/Tavik_p11trace.h"
#include "pkcs11/db/Tavik_privatekey_helper.h"
#include "pkcs11/objects/P11Obj.h"

// "Tavik A/S" blank-padded to 25 characters; the last 7 bytes stay zero.
const CK_UTF8CHAR manufacturerID[32] = {'T', 'a', 'v', 'i', 'k', ' ', 'A', '/', 'S', ' ', ' ', ' ', ' ', ' ', ' ', ' ',
                                        ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', 0,   0,   0,   0,   0,   0,   0};

namespace {

const char kSlotDescription[] = "Korvo slot";
const char kModel[] = "Korvo token";
const CK_ULONG kTokenFlags = CKF_RNG | CKF_WRITE_PROTECTED | CKF_USER_PIN_INITIALIZED | CKF_TOKEN_INITIALIZED;

struct MechanismRow {
    CK_MECHANISM_TYPE type;
    CK_MECHANISM_INFO info;
};

const CK_FLAGS kRsaAll = CKF_HW | CKF_ENCRYPT | CKF_DECRYPT | CKF_SIGN | CKF_VERIFY | CKF_WRAP | CKF_UNWRAP;
const CK_FLAGS kRsaOaep = CKF_HW | CKF_ENCRYPT | CKF_DECRYPT | CKF_WRAP | CKF_UNWRAP;
const CK_FLAGS kRsaSign = CKF_HW | CKF_SIGN | CKF_VERIFY;
const CK_FLAGS kCipher = CKF_ENCRYPT | CKF_DECRYPT | CKF_WRAP | CKF_UNWRAP;

// The mechanisms the token reports, in the order it reports them.
const MechanismRow mechanismList[] = {
    {CKM_RSA_PKCS, {64, 4096, kRsaAll}},
    {CKM_RSA_PKCS_OAEP, {64, 4096, kRsaOaep}},
    {CKM_RSA_X_509, {64, 4096, kRsaAll}},
    {CKM_SHA1_RSA_PKCS, {64, 4096, kRsaSign}},
    {CKM_SHA256_RSA_PKCS, {64, 4096, kRsaSign}},
    {CKM_SHA384_RSA_PKCS, {64, 4096, kRsaSign}},
    {CKM_SHA512_RSA_PKCS, {64, 4096, kRsaSign}},
    {CKM_RSA_PKCS_PSS, {64, 4096, kRsaSign}},
    {CKM_SHA1_RSA_PKCS_PSS, {64, 4096, kRsaSign}},
    {CKM_SHA256_RSA_PKCS_PSS, {64, 4096, kRsaSign}},
    {CKM_SHA384_RSA_PKCS_PSS, {64, 4096, kRsaSign}},
    {CKM_SHA512_RSA_PKCS_PSS, {64, 4096, kRsaSign}},
    {CKM_DES_KEY_GEN, {8, 8, CKF_GENERATE}},
    {CKM_DES_ECB, {8, 8, kCipher}},
    {CKM_DES_CBC, {8, 8, kCipher}},
    {CKM_DES_CBC_PAD, {8, 8, kCipher}},
    {CKM_DES2_KEY_GEN, {16, 16, CKF_GENERATE}},
    {CKM_DES3_KEY_GEN, {24, 24, CKF_GENERATE}},
    {CKM_DES3_ECB, {16, 24, kCipher}},
    {CKM_DES3_CBC, {16, 24, kCipher}},
    {CKM_DES3_CBC_PAD, {16, 24, kCipher}},
    {CKM_AES_KEY_GEN, {16, 64, CKF_GENERATE}},
    {CKM_AES_ECB, {16, 64, kCipher}},
    {CKM_AES_CBC, {16, 64, kCipher}},
    {CKM_AES_CBC_PAD, {16, 64, kCipher}},
    {CKM_RC2_KEY_GEN, {1, 128, CKF_GENERATE}},
    {CKM_RC2_ECB, {1, 128, kCipher}},
    {CKM_RC2_CBC, {1, 128, kCipher}},
    {CKM_RC2_CBC_PAD, {1, 128, kCipher}},
    {CKM_RC4_KEY_GEN, {1, 256, CKF_GENERATE}},
    {CKM_RC4, {1, 256, kCipher}},
};
const CK_ULONG mechanismListSize = sizeof mechanismList / sizeof mechanismList[0];
static_assert(sizeof mechanismList / sizeof mechanismList[0] == 31, "the token reports 31 mechanisms");

// Blank-padded copy of a text into a fixed-width field.
template <size_t N>
void setField(CK_UTF8CHAR (&field)[N], const char* text)
{
    std::memset(field, ' ', N);
    std::memcpy(field, text, std::strlen(text));
}

// The token mutex, the handle mutex and the database lock for a scope.
typedef P11LockGuard<P11Token> TokenLock;

CK_RV get_next_handle(P11Token* token, CK_ULONG* handle)
{
    TokenLock lock(token, P11TokenObjectHandleCnt_lock, P11TokenObjectHandleCnt_unlock);
    const CK_RV rv = lock.lock();
    if (rv != CKR_OK) return rv;
    *handle = ++token->handleCounter;
    return lock.release(CKR_OK);
}

// Runs an operation on the token's generator under the handle mutex.
template <typename Operation>
CK_RV withGenerator(P11Token* token, Operation operation)
{
    TokenLock lock(token, P11TokenObjectHandleCnt_lock, P11TokenObjectHandleCnt_unlock);
    const CK_RV rv = lock.lock();
    if (rv != CKR_OK) return rv;
    return lock.release(operation() == CRYPTO_OK ? CKR_OK : CKR_GENERAL_ERROR);
}

// Calls visit on every open session in list order; the first failure stops
// the walk and is returned. The caller holds the token mutex.
template <typename Visit>
CK_RV forEachSession(P11Token* token, Visit visit)
{
    P11SessionListCursor cursor = 0;
    P11Session* session = nullptr;
    while (P11SessionList_enumSessions(token->sessions, &cursor, &session) == CKR_OK && session) {
        const CK_RV rv = visit(session);
        if (rv != CKR_OK) return rv;
    }
    return CKR_OK;
}

// Tears down what construction built, in reverse order. Each step tolerates
// a part that was never built.
CK_RV teardown(P11Token* token)
{
    crypto_set_seed_source(nullptr, nullptr);
    CK_RV rv = P11DB_Finalize(token->database);
    token->database = nullptr;
    if (rv != CKR_OK) return rv;
    if (token->rng && csprgbg_exit(&token->rng) != CRYPTO_OK) return CKR_GENERAL_ERROR;
    if (token->sessions && (rv = P11SessionList_destruct(&token->sessions)) != CKR_OK) return rv;
    if (token->index) P11HandleIndex_destruct(&token->index);
    if ((rv = P11Mutex_destruct(&token->tokenMutex)) != CKR_OK) return rv;
    if ((rv = P11Mutex_destruct(&token->handleMutex)) != CKR_OK) return rv;
    return P11_destroyGlobalLock();
}

// Requests up to this size are served by the token's generator under the
// handle mutex; larger ones by a private generator seeded from it, outside
// the mutex, so that nobody waits while one caller's bulk bytes are made.
constexpr CK_ULONG kDirectRandomBytes = 4096;
constexpr size_t kBulkSeedBytes = 48;

// A session or object by handle from the index, with a reference for the
// caller; null when there is none.
template <typename T>
CK_RV lookUp(P11Token* token, CK_ULONG handle, P11HandleKind kind, void (*retain)(void*), T** found)
{
    *found = nullptr;
    if (!token) return CKR_GENERAL_ERROR;
    if (P11HandleIndex_hasOwnLocks(token->index)) {
        *found = static_cast<T*>(P11HandleIndex_find(token->index, handle, kind, retain));
        return CKR_OK;
    }
    TokenLock lock(token, P11Token_lock, P11Token_unlock);
    const CK_RV rv = lock.lock();
    if (rv != CKR_OK) return rv;
    *found = static_cast<T*>(P11HandleIndex_find(token->index, handle, kind, retain));
    return lock.release(CKR_OK);
}

void retainSession(void* session)
{
    P11Session_retain(static_cast<P11Session*>(session));
}

void retainObject(void* object)
{
    P11Obj_retain(static_cast<P11Obj*>(object));
}

// ---- fork ----
//
// With the library's own locking, a fork takes the token mutex, the handle
// mutex, the decryption cache's lock and the index's shard locks in the
// forking thread, so that the child gets the token in a consistent state
// with those locks free. Session and object mutexes are not taken (a
// session may be waiting a minute for a person at the helper's prompt);
// instead the child sets aside every session and object whose mutex a
// thread of the parent held: they are closed and dead there, and their
// mutexes are made usable again. The handlers do nothing while the library
// is not initialised or uses the application's callbacks or no locking.

struct ForkHold {
    P11Token* token;
    P11LockRecord tokenRecord;
    P11LockRecord handleRecord;
};
ForkHold forkHold = {nullptr, nullptr, nullptr};

void forkPrepare()
{
    forkHold = {nullptr, nullptr, nullptr};
    P11Token* token = GetToken();
    if (!token || !token->index || !P11HandleIndex_hasOwnLocks(token->index)) return;
    if (P11Token_lock(token, &forkHold.tokenRecord) != CKR_OK) return;
    if (P11TokenObjectHandleCnt_lock(token, &forkHold.handleRecord) != CKR_OK) {
        P11Token_unlock(token, &forkHold.tokenRecord);
        return;
    }
    DecryptionCache::instance().lockForFork();
    P11HandleIndex_lockAll(token->index);
    forkHold.token = token;
}

void forkRelease()
{
    P11Token* token = forkHold.token;
    if (!token) return;
    P11HandleIndex_unlockAll(token->index);
    DecryptionCache::instance().unlockForFork();
    P11TokenObjectHandleCnt_unlock(token, &forkHold.handleRecord);
    P11Token_unlock(token, &forkHold.tokenRecord);
    forkHold.token = nullptr;
}

// Objects of a list whose mutex was held at the fork leave it, dead.
void setAsideObjects_inlock(P11Token* token, P11ObjList* list)
{
    std::vector<P11Obj*> busy;
    P11ObjListCursor cursor = nullptr;
    P11Obj* object = nullptr;
    while (P11ObjList_enumObjects(list, &cursor, &object) == CKR_OK && object)
        if (I_ReclaimMutexInChild(object->mutex)) busy.push_back(object);
    for (P11Obj* gone : busy) {
        if (P11ObjList_remove(list, gone) != CKR_OK) continue;
        P11Token_unindex_inlock(token, P11Obj_getHandle(gone));
        P11Obj_markDead(gone);
        P11Obj_destruct(&gone);
    }
}

void forkChild()
{
    P11Token* token = forkHold.token;
    if (!token) return;
    // The index takes its own shard locks when entries go; the token mutex
    // stays held while the child's lists change.
    P11HandleIndex_unlockAll(token->index);
    try {
        std::vector<P11Session*> busy;
        P11SessionListCursor cursor = 0;
        P11Session* session = nullptr;
        while (P11SessionList_enumSessions(token->sessions, &cursor, &session) == CKR_OK && session) {
            if (I_ReclaimMutexInChild(session->mutex)) {
                busy.push_back(session);
                continue;
            }
            setAsideObjects_inlock(token, session->publicObjects);
            if (session->privateObjects) setAsideObjects_inlock(token, session->privateObjects);
        }
        for (P11Session* closing : busy) {
            // Its call never returns here, so its record is never freed.
            if (P11SessionList_remove(token->sessions, closing) != CKR_OK) continue;
            P11Session_close_inlock(closing);
            --token->sessionCount;
            if (P11Session_isReadWrite(closing)) --token->rwSessionCount;
        }
        setAsideObjects_inlock(token, token->database->objects);
    } catch (...) {
        // Out of memory in the child: what could not be set aside stays.
    }
    DecryptionCache::instance().unlockForFork();
    P11TokenObjectHandleCnt_unlock(token, &forkHold.handleRecord);
    P11Token_unlock(token, &forkHold.tokenRecord);
    forkHold.token = nullptr;
}

void registerForkHandlers()
{
    static std::once_flag once;
    std::call_once(once, [] { pthread_atfork(forkPrepare, forkRelease, forkChild); });
}

}  // namespace

CK_RV P11Token_construct(P11Token** pToken)
{
    P11Token* token = new (std::nothrow) P11Token{};
    if (!token) return CKR_HOST_MEMORY;

    CK_RV rv = P11DB_Initialize(&token->database, token, ".");
    if (rv != CKR_OK) {
        delete token;
        return rv;
    }

    CK_ULONG seedLength = 64;
    rv = P11DB_GetRandomSeed(token->database, nullptr, &seedLength);
    std::unique_ptr<CK_BYTE[]> seed;
    if (rv == CKR_OK) {
        seed.reset(new (std::nothrow) CK_BYTE[seedLength]);
        if (!seed) rv = CKR_HOST_MEMORY;
    }
    if (rv == CKR_OK) rv = P11DB_GetRandomSeed(token->database, seed.get(), &seedLength);
    if (rv == CKR_OK && csprgbg_init(&token->rng, seed.get(), seedLength, nullptr, 0) != CRYPTO_OK)
        rv = CKR_GENERAL_ERROR;
    if (seed) OPENSSL_cleanse(seed.get(), seedLength);
    if (rv == CKR_OK) rv = P11SessionList_construct(&token->sessions);
    // The index has locks of its own only with the library's own mutexes:
    // with the application's callbacks every lock comes from them.
    const bool ownLocking = CreateMutexPointer == I_CreateMutex;
    if (rv == CKR_OK) rv = P11HandleIndex_construct(&token->index, ownLocking);
    if (rv == CKR_OK) rv = P11Mutex_construct(&token->handleMutex);
    if (rv == CKR_OK) rv = P11Mutex_construct(&token->tokenMutex);
    if (rv == CKR_OK) rv = P11_createGlobalFunctionLock();
    if (rv != CKR_OK) {
        teardown(token);
        delete token;
        return rv;
    }
    if (ownLocking) registerForkHandlers();
    // From now on the randomness libcrypto draws for the software keys
    // (primes, blinding) is seeded from the token's generator.
    crypto_set_seed_source(
        [](void* arg, unsigned char* out, size_t len) {
            return P11Token_generateRandom(static_cast<P11Token*>(arg), out, CK_ULONG(len)) == CKR_OK ? 0 : -1;
        },
        token);
    *pToken = token;
    return CKR_OK;
}

CK_RV P11Token_destruct(P11Token** pToken)
{
    P11Token* token = *pToken;
    if (!token) return CKR_OK;
    CK_RV rv = P11Token_closeAllSessions(token);
    if (rv != CKR_OK) return rv;
    rv = teardown(token);
    if (rv != CKR_OK) return rv;
    delete token;
    *pToken = nullptr;
    return CKR_OK;
}

CK_RV P11Token_isPresent(P11Token*, CK_BBOOL* present)
{
    *present = CK_TRUE;
    return CKR_OK;
}

CK_RV P11Token_getSlotID(P11Token*, CK_SLOT_ID* slot)
{
    *slot = 0;
    return CKR_OK;
}

CK_RV P11Token_getSlotInfo(P11Token*, CK_SLOT_INFO_PTR info)
{
    setField(info->slotDescription, kSlotDescription);
    std::memcpy(info->manufacturerID, manufacturerID, sizeof info->manufacturerID);
    info->flags = CKF_TOKEN_PRESENT;
    info->hardwareVersion = {0, 0};
    info->firmwareVersion = {0, 0};
    return CKR_OK;
}

CK_RV P11Token_getTokenInfo(P11Token* token, CK_TOKEN_INFO_PTR info)
{
    const CK_RV rv = P11DB_GetLabel(token->database, info->label);
    if (rv != CKR_OK) return rv;
    std::memcpy(info->manufacturerID, manufacturerID, sizeof info->manufacturerID);
    setField(info->model, kModel);
    setField(info->serialNumber, "               1");
    info->flags = kTokenFlags;
    info->ulMaxSessionCount = 0;
    info->ulSessionCount = token->sessionCount;
    info->ulMaxRwSessionCount = 0;
    info->ulRwSessionCount = token->rwSessionCount;
    info->ulMaxPinLen = 1024;
    info->ulMinPinLen = 1;
    info->ulTotalPublicMemory = CK_UNAVAILABLE_INFORMATION;
    info->ulFreePublicMemory = CK_UNAVAILABLE_INFORMATION;
    info->ulTotalPrivateMemory = CK_UNAVAILABLE_INFORMATION;
    info->ulFreePrivateMemory = CK_UNAVAILABLE_INFORMATION;
    info->hardwareVersion = {0, 0};
    info->firmwareVersion = {0, 0};
    std::memset(info->utcTime, ' ', sizeof info->utcTime);
    return CKR_OK;
}

CK_RV P11Token_getMechanismList(P11Token*, CK_MECHANISM_TYPE_PTR list, CK_ULONG_PTR count)
{
    if (list) {
        if (*count < mechanismListSize) {
            *count = mechanismListSize;
            return CKR_BUFFER_TOO_SMALL;
        }
        for (CK_ULONG i = 0; i < mechanismListSize; ++i) list[i] = mechanismList[i].type;
    }
    *count = mechanismListSize;
    return CKR_OK;
}

CK_RV P11Token_getMechanismInfo(P11Token*, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO_PTR info)
{
    for (const MechanismRow& row : mechanismList) {
        if (row.type == type) {
            *info = row.info;
            return CKR_OK;
        }
    }
    return CKR_MECHANISM_INVALID;
}

CK_RV P11Token_waitForSlotEvent(P11Token*, CK_FLAGS flags, CK_SLOT_ID_PTR)
{
    // Slots never change; a caller that would block is refused at once.
    return flags == CKF_DONT_BLOCK ? CKR_NO_EVENT : CKR_FUNCTION_FAILED;
}

CK_RV P11Token_openSession(P11Token* token, CK_FLAGS flags, CK_VOID_PTR application, CK_NOTIFY notify,
                           P11Session** session)
{
    CK_SESSION_HANDLE handle = 0;
    CK_RV rv = P11Token_getNewSessionHandle(token, &handle);
    if (rv != CKR_OK) return rv;

    TokenLock lock(token, P11Token_lock, P11Token_unlock);
    rv = lock.lock();
    if (rv != CKR_OK) return rv;
    if (!(flags & CKF_SERIAL_SESSION)) return lock.release(CKR_SESSION_PARALLEL_NOT_SUPPORTED);
    const bool readWrite = (flags & CKF_RW_SESSION) != 0;
    if (!readWrite && token->soLoggedIn) return lock.release(CKR_SESSION_READ_WRITE_SO_EXISTS);

    P11Session* created = nullptr;
    rv = P11Session_construct(&created, token, handle, readWrite, application, notify, token->userLoggedIn);
    if (rv != CKR_OK) return lock.release(rv);
    rv = P11SessionList_add(token->sessions, created);
    if (rv == CKR_OK) {
        rv = P11HandleIndex_insert_inlock(token->index, handle, P11HandleKind::Session, created);
        if (rv != CKR_OK) P11SessionList_remove(token->sessions, created);
    }
    if (rv != CKR_OK) {
        P11Session_destruct(&created);
        return lock.release(rv);
    }
    ++token->sessionCount;
    if (readWrite) ++token->rwSessionCount;
    P11Session_retain(created);  // the caller's reference, besides the list's
    *session = created;
    return lock.release(CKR_OK);
}

CK_RV P11Token_removeSession(P11Token* token, P11Session* session)
{
    TokenLock lock(token, P11Token_lock, P11Token_unlock);
    CK_RV rv = lock.lock();
    if (rv != CKR_OK) return rv;
    // Another thread closed it since this call found it.
    if (session->closed.load(std::memory_order_acquire)) return lock.release(CKR_SESSION_CLOSED);
    const bool readWrite = P11Session_isReadWrite(session);
    rv = P11SessionList_remove(token->sessions, session);
    if (rv != CKR_OK) return lock.release(rv);
    P11Session_close_inlock(session);
    --token->sessionCount;
    if (readWrite) --token->rwSessionCount;
    if (token->sessionCount == 0) {
        rv = P11Token_logout_do(token);
        if (rv == CKR_USER_NOT_LOGGED_IN) rv = CKR_OK;
    }
    return lock.release(rv);
}

CK_RV P11Token_closeAllSessions(P11Token* token)
{
    TokenLock lock(token, P11Token_lock, P11Token_unlock);
    CK_RV rv = lock.lock();
    if (rv != CKR_OK) return rv;
    // Calls still running in a session finish first; the last of them
    // frees the session.
    P11Session* session = nullptr;
    while (P11SessionList_popSession(token->sessions, &session) == CKR_OK && session) {
        P11Session_close_inlock(session);
        rv = P11Session_release(&session);
        if (rv != CKR_OK) return lock.release(rv);
    }
    token->sessionCount = 0;
    token->rwSessionCount = 0;
    rv = P11Token_logout_do(token);
    if (rv == CKR_USER_NOT_LOGGED_IN) rv = CKR_OK;
    return lock.release(rv);
}

CK_RV P11Token_login(P11Token* token, CK_USER_TYPE userType, CK_UTF8CHAR_PTR pin, CK_ULONG pinLen)
{
    TokenLock lock(token, P11Token_lock, P11Token_unlock);
    CK_RV rv = lock.lock();
    if (rv != CKR_OK) return rv;
    if (userType > CKU_USER) return lock.release(CKR_ARGUMENTS_BAD);
    if (userType == CKU_SO) {
        if (token->soLoggedIn) return lock.release(CKR_USER_ALREADY_LOGGED_IN);
        if (token->userLoggedIn) return lock.release(CKR_USER_ANOTHER_ALREADY_LOGGED_IN);
        rv = P11DB_CheckSOPIN(token->database, pin, pinLen);
        if (rv != CKR_OK) return lock.release(rv);
        token->soLoggedIn = CK_TRUE;
        return lock.release(CKR_OK);
    }
    if (token->userLoggedIn) return lock.release(CKR_USER_ALREADY_LOGGED_IN);
    if (token->soLoggedIn) return lock.release(CKR_USER_ANOTHER_ALREADY_LOGGED_IN);
    rv = P11DB_Login(token->database, userType, pin, pinLen);
    if (rv != CKR_OK) return lock.release(rv);
    // The login belongs to the token: every open session sees it.
    rv = forEachSession(token, [&](P11Session* session) { return P11Session_doLogin_inlock(session); });
    if (rv != CKR_OK) return lock.release(rv);
    token->userLoggedIn = CK_TRUE;
    return lock.release(CKR_OK);
}

CK_RV P11Token_logout(P11Token* token)
{
    TokenLock lock(token, P11Token_lock, P11Token_unlock);
    const CK_RV rv = lock.lock();
    if (rv != CKR_OK) return rv;
    return lock.release(P11Token_logout_do(token));
}

CK_RV P11Token_logout_do(P11Token* token)
{
    if (!token->userLoggedIn && !token->soLoggedIn) return CKR_USER_NOT_LOGGED_IN;
    if (token->userLoggedIn) {
        const CK_RV rv = forEachSession(token, [&](P11Session* session) { return P11Session_doLogout_inlock(session); });
        if (rv != CKR_OK) return rv;
        token->userLoggedIn = CK_FALSE;
    }
    token->soLoggedIn = CK_FALSE;
    return CKR_OK;
}

CK_RV P11Token_isLoggedIn(P11Token* token, CK_BBOOL* loggedIn, CK_BBOOL* isUser)
{
    TokenLock lock(token, P11Token_lock, P11Token_unlock);
    const CK_RV rv = lock.lock();
    if (rv != CKR_OK) return rv;
    *loggedIn = token->userLoggedIn || token->soLoggedIn;
    if (isUser) *isUser = token->userLoggedIn;
    return lock.release(CKR_OK);
}

CK_RV P11Token_setPIN(P11Token* token, CK_UTF8CHAR_PTR oldPin, CK_ULONG oldLen, CK_UTF8CHAR_PTR newPin, CK_ULONG newLen)
{
    return P11DB_SetPIN(token->database, oldPin, oldLen, newPin, newLen);
}

CK_RV P11Token_initPIN(P11Token* token, CK_UTF8CHAR_PTR pin, CK_ULONG pinLen)
{
    CK_BBOOL loggedIn = CK_FALSE;
    CK_BBOOL isUser = CK_FALSE;
    const CK_RV rv = P11Token_isLoggedIn(token, &loggedIn, &isUser);
    if (rv != CKR_OK) return rv;
    if (!loggedIn || isUser) return CKR_USER_NOT_LOGGED_IN;  // only the security officer may
    return P11DB_InitPIN(token->database, pin, pinLen);
}

CK_RV P11Token_initToken(P11Token* token, CK_UTF8CHAR_PTR soPin, CK_ULONG soPinLen, CK_UTF8CHAR_PTR label)
{
    CK_RV rv = P11DB_Reset(token->database);
    if (rv == CKR_OK) rv = P11DB_SetSOPIN(token->database, soPin, soPinLen);
    if (rv == CKR_OK) rv = P11DB_SetLabel(token->database, label);
    return rv;
}

CK_RV P11Token_generateRandom(P11Token* token, CK_BYTE_PTR buffer, CK_ULONG length)
{
    if (length == 0) return CKR_OK;
    if (length <= kDirectRandomBytes)
        return withGenerator(token, [&] { return csprgbg_bytes(token->rng, buffer, length); });
    CK_BYTE seed[kBulkSeedBytes];
    const CK_RV rv = withGenerator(token, [&] { return csprgbg_bytes(token->rng, seed, sizeof seed); });
    if (rv != CKR_OK) return rv;
    csprgbg_state* bulk = nullptr;
    int crv = csprgbg_init(&bulk, seed, sizeof seed, nullptr, 0);
    OPENSSL_cleanse(seed, sizeof seed);
    if (crv == CRYPTO_OK) crv = csprgbg_bytes(bulk, buffer, length);
    csprgbg_exit(&bulk);
    return crv == CRYPTO_OK ? CKR_OK : CKR_GENERAL_ERROR;
}

CK_RV P11Token_seedRandom(P11Token* token, CK_BYTE_PTR seed, CK_ULONG length)
{
    return withGenerator(token, [&] { return csprgbg_reseed(token->rng, seed, length); });
}

CK_RV P11Token_seedRNG(P11Token* token, csprgbg_state** rng)
{
    CK_BYTE seed[128];
    CK_RV rv = P11Token_generateRandom(token, seed, sizeof seed);
    if (rv == CKR_OK && csprgbg_init(rng, seed, sizeof seed, nullptr, 0) != CRYPTO_OK) rv = CKR_GENERAL_ERROR;
    OPENSSL_cleanse(seed, sizeof seed);
    return rv;
}

CK_RV P11Token_getNewSessionHandle(P11Token* token, CK_SESSION_HANDLE* handle)
{
    return get_next_handle(token, handle);
}

CK_RV P11Token_getNewObjectHandle(P11Token* token, CK_OBJECT_HANDLE* handle)
{
    return get_next_handle(token, handle);
}

CK_RV P11Token_findSessionHandle(P11Token* token, CK_SESSION_HANDLE handle, P11Session** session)
{
    return lookUp(token, handle, P11HandleKind::Session, retainSession, session);
}

CK_RV P11Token_sessionHandleToPointer(P11Token* token, CK_SESSION_HANDLE handle, P11Session** session)
{
    const CK_RV rv = P11Token_findSessionHandle(token, handle, session);
    if (rv != CKR_OK) return rv;
    return *session ? CKR_OK : CKR_SESSION_CLOSED;
}

CK_RV P11Token_findObjectHandle(P11Token* token, CK_OBJECT_HANDLE handle, P11Obj** object)
{
    return lookUp(token, handle, P11HandleKind::Object, retainObject, object);
}

CK_RV P11Token_indexObject_inlock(P11Token* token, P11Obj* object)
{
    return P11HandleIndex_insert_inlock(token->index, P11Obj_getHandle(object), P11HandleKind::Object, object);
}

void P11Token_unindex_inlock(P11Token* token, CK_ULONG handle)
{
    P11HandleIndex_erase_inlock(token->index, handle);
}

CK_RV P11Token_objectHandleToPointer(P11Token* token, CK_OBJECT_HANDLE handle, P11Obj** object)
{
    const CK_RV rv = P11Token_findObjectHandle(token, handle, object);
    if (rv != CKR_OK) return rv;
    return *object ? CKR_OK : CKR_OBJECT_HANDLE_INVALID;
}

CK_RV P11Token_sessionPointerToHandle(P11Token*, P11Session* session, CK_SESSION_HANDLE* handle)
{
    *handle = session->handle;
    return CKR_OK;
}

CK_RV P11Token_objectPointerToHandle(P11Token*, P11Obj* object, CK_OBJECT_HANDLE* handle)
{
    *handle = P11Obj_getHandle(object);
    return CKR_OK;
}

CK_RV P11Token_findObjects(P11Token* token, P11FindContext* context)
{
    TokenLock lock(token, P11Token_lock, P11Token_unlock);
    CK_RV rv = lock.lock();
    if (rv != CKR_OK) return rv;
    rv = forEachSession(token, [&](P11Session* session) { return P11Session_doFindObjects_inlock(session, context); });
    if (rv != CKR_OK) return lock.release(rv);
    return lock.release(P11DB_FindObjects(token->database, context));
}

CK_RV P11Token_removeSessionObject(P11Token* token, P11Obj* object)
{
    TokenLock lock(token, P11Token_lock, P11Token_unlock);
    CK_RV rv = lock.lock();
    if (rv != CKR_OK) return rv;
    if (P11Obj_isDead(object)) return lock.release(CKR_OBJECT_HANDLE_INVALID);
    rv = P11Session_removeObject_inlock(object->session, object);
    if (rv != CKR_OK) return lock.release(rv);
    P11Token_unindex_inlock(token, P11Obj_getHandle(object));
    P11Obj_markDead(object);
    rv = lock.release(CKR_OK);
    P11Obj_destruct(&object);  // the session's reference
    return rv;
}

CK_RV P11Token_addObject(P11Token* token, P11Obj* object)
{
    CK_OBJECT_HANDLE handle = 0;
    CK_RV rv = P11Token_getNewObjectHandle(token, &handle);
    if (rv != CKR_OK) return rv;
    P11Obj_setHandle(object, handle);
    TokenLock lock(token, P11Token_lock, P11Token_unlock);
    rv = lock.lock();
    if (rv != CKR_OK) return rv;
    return lock.release(P11DB_AddObject(token->database, object));
}

CK_RV P11Token_removeObject(P11Token* token, P11Obj* object)
{
    TokenLock lock(token, P11Token_lock, P11Token_unlock);
    const CK_RV rv = lock.lock();
    if (rv != CKR_OK) return rv;
    return lock.release(P11DB_RemoveObject(token->database, object));
}

CK_RV P11Token_storeObject(P11Token* token, P11Obj* object)
{
    TokenLock lock(token, P11Token_lock, P11Token_unlock);
    const CK_RV rv = lock.lock();
    if (rv != CKR_OK) return rv;
    return lock.release(P11DB_StoreObject(token->database, object));
}

CK_RV P11Token_lock(P11Token* token, P11LockRecord* record)
{
    if (!token) return CKR_GENERAL_ERROR;
    return P11Mutex_lockRecord(token->tokenMutex, record, "** Token locking (%p)", "** Token locked (%p)");
}

CK_RV P11Token_unlock(P11Token*, P11LockRecord* record)
{
    return P11Mutex_unlockRecord(record, *record, "** Token unlocking (%p)", "** Token unlocked (%p)");
}

CK_RV P11TokenObjectHandleCnt_lock(P11Token* token, P11LockRecord* record)
{
    if (!token) return CKR_GENERAL_ERROR;
    return P11Mutex_lockRecord(token->handleMutex, record, "** Token locking (%p)", "** Token locked (%p)");
}

CK_RV P11TokenObjectHandleCnt_unlock(P11Token*, P11LockRecord* record)
{
    return P11Mutex_unlockRecord(record, *record, "** Token unlocking (%p)", "** Token unlocked (%p)");
}

CK_RV P11Token_lockdb(P11Token* token, P11LockRecord* record)
{
    if (!token) return CKR_GENERAL_ERROR;
    return P11DB_lockDB(token->database, record);
}

CK_RV P11Token_unlockdb(P11Token* token, P11LockRecord* record)
{
    if (!token) return CKR_OK;
    return P11DB_unlockDB(token->database, record);
}

CK_RV P11Token_global_lock(P11Token*)
{
    return P11_globalLock();
}

CK_RV P11Token_global_unlock(P11Token*)
{
    return P11_globalUnlock();
}
