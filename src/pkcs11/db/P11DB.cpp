#include "pkcs11/P11Bridge.h"
#include "pkcs11/db/P11DB.h"

#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <unordered_map>
#include <vector>

#include <QDir>
#include <QFile>

#include "config/fileutil.h"
#include "config/certificatehandler.h"
#include "config/folderwatch.h"
#include "config/fileconfiguration.h"
#include "crypto/crypto_errors.h"
#include "crypto/hash.h"
#include "deps/cpp_modules/SecureRandomNumberGenerator.h"
#include "logging/Logger.h"
#include "pkcs11/P11ObjList.h"
#include "pkcs11/P11Token.h"
#include "pkcs11/db/P11Obj_Tavik_Certificate.h"
#include "pkcs11/db/P11Obj_Tavik_PublicKey.h"
#include "pkcs11/db/Tavik_privatekey.h"
#include "pkcs11/objects/P11Obj_SW.h"

// The source of a token object: the certificate bytes and, for a private
// key, the owner's name. Keyed like the list's identity index.
struct P11DB_Source {
    ByteArray der;
    std::wstring userName;
};

struct P11DB_Sources {
    std::unordered_map<std::string, P11DB_Source> byIdentity;
};

KORVO_FILE_LOGGER;

namespace {

const char kTokenLabel[] = "Korvo central server";

std::string identityKey(const P11ObjClass* clazz, const CK_BYTE* id, CK_ULONG idLen)
{
    std::string key(reinterpret_cast<const char*>(&clazz), sizeof clazz);
    key.append(reinterpret_cast<const char*>(id), idLen);
    return key;
}

// One certificate about to be registered: its bytes, their SHA-256 (every
// object's CKA_ID) and the owner's name for its private key.
struct Certificate {
    const ByteArray* der;
    CK_BYTE id[32];
    std::wstring userName;
};

class Refresh {
public:
    explicit Refresh(P11DB* db) : db_(db), sources_(db->sources->byIdentity) {}

    // Builds an object from the certificate with `build`, unless the list
    // holds the object of that class and CKA_ID built from the same source,
    // which then is marked as it is.
    template <typename Build>
    CK_RV registerObject(const P11ObjClass* clazz, const Certificate& certificate, bool withOwner, Build build)
    {
        const std::string key = identityKey(clazz, certificate.id, sizeof certificate.id);
        const std::wstring owner = withOwner ? certificate.userName : std::wstring();
        const auto known = sources_.find(key);
        if (known != sources_.end() && known->second.der == *certificate.der && known->second.userName == owner) {
            P11Obj* existing = nullptr;
            const CK_RV rv = P11ObjList_markIdentity(db_->objects, clazz, certificate.id, sizeof certificate.id, &existing);
            if (rv != CKR_OK || existing) return rv;
        }
        P11Obj* object = nullptr;
        CK_RV rv = build(&object);
        if (rv != CKR_OK) return rv;
        CK_BBOOL added = CK_FALSE;
        rv = P11ObjList_addOrReplaceAndMark(db_->objects, object, &added);
        if (rv != CKR_OK) {
            P11Obj_destruct(&object);
            return rv;
        }
        if (added) {
            CK_OBJECT_HANDLE handle = 0;
            rv = P11Token_getNewObjectHandle(db_->token, &handle);
            if (rv == CKR_OK) {
                P11Obj_setHandle(object, handle);
                object->token = db_->token;  // a token object: the token refuses changes to it
                rv = P11Token_indexObject_inlock(db_->token, object);
            }
            if (rv != CKR_OK) {
                P11ObjList_remove(db_->objects, object);
                P11Obj_destruct(&object);
                return rv;
            }
        }
        sources_[key] = P11DB_Source{*certificate.der, owner};
        return CKR_OK;
    }

    // Takes out what no file stands for any more.
    CK_RV prune()
    {
        P11ObjListCursor cursor = nullptr;
        for (;;) {
            P11Obj* gone = nullptr;
            CK_RV rv = P11ObjList_popUnmarkedObject(db_->objects, &cursor, &gone);
            if (rv != CKR_OK) return rv;
            if (!gone) return CKR_OK;
            const CK_ATTRIBUTE* id = nullptr;
            if (P11Obj_peekAttribute(gone, CKA_ID, &id) == CKR_OK && id)
                sources_.erase(identityKey(gone->clazz, static_cast<const CK_BYTE*>(id->pValue), id->ulValueLen));
            // Its handle is forgotten; a call or an operation that still
            // holds it finds it dead, and the last of them frees it.
            P11Token_unindex_inlock(db_->token, P11Obj_getHandle(gone));
            P11Obj_markDead(gone);
            P11Obj_destruct(&gone);
        }
    }

private:
    P11DB* db_;
    std::unordered_map<std::string, P11DB_Source>& sources_;
};

bool describe(const ByteArray& der, const QString& userName, Certificate* certificate)
{
    certificate->der = &der;
    if (hash_buffer(HASH_SHA256, der.data(), der.size(), certificate->id) != CRYPTO_OK) return false;
    const QList<uint> units = userName.toUcs4();
    certificate->userName.assign(units.begin(), units.end());
    return true;
}

// Says in the log which folders a refresh read and what it found there, so
// that a person who sees no token objects learns where the token looked.
// Folders that gave nothing are reported at information level.
void reportFolders(const QStringList& folders, const qsizetype counts[3])
{
    static const char* const kinds[] = {"user", "intermediate CA", "root CA"};
    for (int i = 0; i < 3 && i < folders.size(); ++i) {
        const QString state = !QDir(folders[i]).exists() ? QStringLiteral("does not exist")
                              : counts[i] == 0           ? QStringLiteral("holds no certificate")
                                                         : QStringLiteral("holds %1 certificate(s)").arg(counts[i]);
        const QString line =
            QStringLiteral("Folder of %1 certificates %2 %3").arg(QLatin1String(kinds[i]), folders[i], state);
        if (counts[i] == 0) fileLogger->Info(__LINE__, line);
        else fileLogger->Trace(__LINE__, line);
    }
}

CK_RV refreshObjects(P11DB* db)
{
    // One configuration and one store for the life of the process; the
    // store remembers the files it read.
    static FileConfiguration configuration;
    static const std::shared_ptr<CertificateHandler> store(CertificateHandler::Instance(&configuration));

    std::vector<std::string> folders;
    for (const QString& folder : store->folders()) folders.push_back(FileUtil::encodePath(folder).toStdString());
    if (db->watch->unchanged(folders)) return CKR_OK;
    // Armed before reading: a change made while the files are read is
    // reported to the next search.
    db->watch->arm(folders);

    store->loadClientCertificates();
    const QList<MultiCertificate> users = store->certificates();
    const QList<ByteArray> intermediates = store->intermediateCaCertificates();
    const QList<ByteArray> roots = store->rootCaCertificates();
    const qsizetype counts[3] = {users.size(), intermediates.size(), roots.size()};
    reportFolders(store->folders(), counts);

    CK_RV rv = P11ObjList_clearMarks(db->objects);
    if (rv != CKR_OK) return rv;
    Refresh refresh(db);
    Certificate certificate;
    std::vector<ByteArray> userDer;
    userDer.reserve(size_t(users.size()));
    for (const MultiCertificate& user : users) {
        userDer.push_back(user.asByteArray());
        const ByteArray& der = userDer.back();
        if (!describe(der, user.getUserName(), &certificate)) return CKR_GENERAL_ERROR;
        const unsigned char* bytes = der.data();
        const unsigned long length = der.size();
        rv = refresh.registerObject(P11Tavik_PrivateKey_GetClass(), certificate, true, [&](P11Obj** object) {
            return P11Obj_Tavik_PrivateKey_construct(object, certificate.userName.c_str(), bytes, length);
        });
        if (rv == CKR_OK)
            rv = refresh.registerObject(P11Tavik_Certificate_GetClass(), certificate, false, [&](P11Obj** object) {
                return P11Obj_Tavik_Certificate_construct(object, bytes, length);
            });
        if (rv == CKR_OK)
            rv = refresh.registerObject(P11SWObj_GetClass(), certificate, false, [&](P11Obj** object) {
                return P11Obj_Tavik_PublicKey_construct(object, bytes, length);
            });
        if (rv != CKR_OK) return rv;
    }
    for (const ByteArray& der : intermediates) {
        if (!describe(der, QString(), &certificate)) return CKR_GENERAL_ERROR;
        rv = refresh.registerObject(P11Tavik_Certificate_GetClass(), certificate, false, [&](P11Obj** object) {
            return P11Obj_Tavik_Certificate_construct(object, der.data(), der.size());
        });
        if (rv != CKR_OK) return rv;
    }
    for (const ByteArray& der : roots) {
        if (!describe(der, QString(), &certificate)) return CKR_GENERAL_ERROR;
        rv = refresh.registerObject(P11Tavik_Certificate_GetClass(), certificate, false, [&](P11Obj** object) {
            return P11Obj_Tavik_Certificate_construct(object, der.data(), der.size());
        });
        if (rv == CKR_OK)
            rv = refresh.registerObject(P11Obj_NetscapeTrust_GetClass(), certificate, false, [&](P11Obj** object) {
                return P11Obj_NetscapeTrust_construct(object, der.data(), der.size());
            });
        if (rv != CKR_OK) return rv;
    }
    rv = refresh.prune();
    if (rv != CKR_OK) return rv;
    std::vector<std::string> files;
    for (const QString& file : store->loadedFiles()) files.push_back(FileUtil::encodePath(file).toStdString());
    db->watch->addFiles(files);
    db->watch->confirm();
    return CKR_OK;
}

}  // namespace

CK_RV P11DB_Initialize(P11DB** db, P11Token* token, const char*)
{
    P11DB* d = new (std::nothrow) P11DB{token, nullptr, {0, 0}, {0, 0, 0}, nullptr, nullptr};
    if (!d) return CKR_HOST_MEMORY;
    d->sources = new (std::nothrow) P11DB_Sources;
    d->watch = new (std::nothrow) FolderWatch;
    if (!d->sources || !d->watch) {
        delete d->sources;
        delete d->watch;
        delete d;
        return CKR_HOST_MEMORY;
    }
    CK_RV rv = P11ObjList_construct(&d->objects);
    if (rv == CKR_OK) rv = P11ObjList_enableIdentityIndex(d->objects);
    if (rv != CKR_OK) {
        P11ObjList_destruct(&d->objects);
        delete d->sources;
        delete d->watch;
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
    delete db->sources;
    delete db->watch;
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
    const CK_RV rv = P11_bridge([&] {
        SecureRandomNumberGenerator::fill(buffer, *length);
        return CKR_OK;
    });
    return rv == CKR_OK ? CKR_OK : CKR_GENERAL_ERROR;
}

CK_RV P11DB_IsLoggedIn(P11DB*, CK_BBOOL* loggedIn, CK_USER_TYPE* userType)
{
    *loggedIn = CK_TRUE;
    *userType = CKU_USER;
    return CKR_OK;
}

CK_RV P11DB_FindObjects(P11DB* db, P11FindContext* context)
{
    // An exception means the store could not be read (a certificate folder
    // or file that cannot be read).
    CK_RV rv = P11_bridge([&] { return refreshObjects(db); }, CKR_FUNCTION_FAILED);
    if (rv != CKR_OK) return rv;
    return P11ObjList_findObjects(db->objects, context);
}
