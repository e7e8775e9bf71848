// The object-level halves of the calls that create, copy, destroy, read and
// change objects, and the typed attribute accessors they use.

#include <cstring>
#include <initializer_list>

#include "pkcs11/P11Session.h"
#include "pkcs11/P11Token.h"
#include "pkcs11/objects/P11AttrPolicy.h"
#include "pkcs11/objects/P11Obj.h"
#include "pkcs11/objects/P11Obj_SW.h"

namespace {

// Holds the object lock for a scope.
class ObjectLock : public P11LockGuard<P11Obj> {
public:
    explicit ObjectLock(P11Obj* object) : P11LockGuard(object, P11Obj_lock, P11Obj_unlock) {}
};

// Objects made by import or unwrapping were never guaranteed secret.
CK_RV markAsImported(P11Obj* object, bool ignoreUnstorable)
{
    for (CK_ATTRIBUTE_TYPE type : {CKA_ALWAYS_SENSITIVE, CKA_NEVER_EXTRACTABLE}) {
        const CK_RV rv = P11Obj_setBoolValue(object, type, CK_FALSE);
        if (rv != CKR_OK && !(ignoreUnstorable && rv == CKR_ATTRIBUTE_TYPE_INVALID)) return rv;
    }
    return CKR_OK;
}

bool holdsFalse(P11Obj* object, CK_ATTRIBUTE_TYPE type)
{
    ObjectLock lock(object);
    if (lock.lock() != CKR_OK) return false;
    CK_BBOOL value = CK_TRUE;
    return P11Obj_getBoolValue(object, type, &value) == CKR_OK && value == CK_FALSE;
}

}  // namespace

// ---- attribute members ----

CK_RV P11Obj_getAttribute(P11Obj* object, CK_ATTRIBUTE* attribute)
{
    return object->clazz->getAttribute(object, attribute);
}

CK_RV P11Obj_lockWrite(P11Obj* object, P11LockRecord* record)
{
    // Writes to token objects are serialised per token, not per object.
    if (object->token) return P11Token_lockdb(object->token, record);
    return CKR_OK;
}

CK_RV P11Obj_unlockWrite(P11Obj* object, P11LockRecord* record)
{
    if (object->token) return P11Token_unlockdb(object->token, record);
    return CKR_OK;
}

CK_RV P11Obj_setAttribute(P11Obj* object, const CK_ATTRIBUTE* attribute)
{
    if (!object) return CKR_OBJECT_HANDLE_INVALID;
    P11LockGuard<P11Obj> lock(object, P11Obj_lockWrite, P11Obj_unlockWrite);
    const CK_RV rv = lock.lock();
    if (rv != CKR_OK) return rv;
    return lock.release(object->clazz->setAttribute(object, attribute));
}

CK_RV P11Obj_copy(P11Obj* source, P11Obj* destination)
{
    if (!source) return CKR_OBJECT_HANDLE_INVALID;
    ObjectLock lock(source);
    const CK_RV rv = lock.lock();
    if (rv != CKR_OK) return rv;
    return lock.release(source->clazz->copy(source, destination));
}

CK_RV P11Obj_enumAttributes(P11Obj* object, uint32_t* cursor, const CK_ATTRIBUTE** attribute)
{
    if (!object) return CKR_OBJECT_HANDLE_INVALID;
    return object->clazz->enumAttributes(object, cursor, attribute);
}

CK_RV P11Obj_getAttributeCount(P11Obj* object, CK_ULONG* count)
{
    if (!object) return CKR_OBJECT_HANDLE_INVALID;
    return object->clazz->getAttributeCount(object, count);
}

CK_RV P11Obj_setAttributesfromTemplate(P11Obj* object, CK_ATTRIBUTE_PTR attributes, CK_ULONG count)
{
    if (count && !attributes) return CKR_ARGUMENTS_BAD;
    for (CK_ULONG i = 0; i < count; ++i) {
        const CK_RV rv = P11Obj_setAttribute(object, &attributes[i]);
        if (rv != CKR_OK) return rv;
    }
    return CKR_OK;
}

// ---- typed accessors ----

CK_RV P11Obj_getUlongValue(P11Obj* object, CK_ATTRIBUTE_TYPE type, CK_ULONG* value)
{
    const CK_ATTRIBUTE* attribute = nullptr;
    const CK_RV rv = P11Obj_peekAttribute(object, type, &attribute);
    if (rv != CKR_OK) return rv;
    if (!attribute) return CKR_TEMPLATE_INCOMPLETE;
    if (attribute->ulValueLen != sizeof(CK_ULONG)) return CKR_ATTRIBUTE_VALUE_INVALID;
    std::memcpy(value, attribute->pValue, sizeof(CK_ULONG));
    return CKR_OK;
}

CK_RV P11Obj_getAttributeSize(P11Obj* object, CK_ATTRIBUTE_TYPE type, CK_ULONG* length)
{
    const CK_ATTRIBUTE* attribute = nullptr;
    const CK_RV rv = P11Obj_peekAttribute(object, type, &attribute);
    if (rv != CKR_OK) return rv;
    if (!attribute) return CKR_TEMPLATE_INCONSISTENT;
    *length = attribute->ulValueLen;
    return CKR_OK;
}

CK_RV P11Obj_getValue(P11Obj* object, CK_ATTRIBUTE_TYPE type, CK_BYTE_PTR buffer, CK_ULONG_PTR length)
{
    const CK_ATTRIBUTE* attribute = nullptr;
    const CK_RV rv = P11Obj_peekAttribute(object, type, &attribute);
    if (rv != CKR_OK) return rv;
    if (!attribute) return CKR_TEMPLATE_INCOMPLETE;
    if (buffer) {
        if (*length < attribute->ulValueLen) {
            *length = attribute->ulValueLen;
            return CKR_BUFFER_TOO_SMALL;
        }
        if (attribute->ulValueLen) std::memcpy(buffer, attribute->pValue, attribute->ulValueLen);
    }
    *length = attribute->ulValueLen;
    return CKR_OK;
}

CK_RV P11Obj_setValue(P11Obj* object, CK_ATTRIBUTE_TYPE type, const void* bytes, CK_ULONG length)
{
    const CK_ATTRIBUTE attribute{type, const_cast<void*>(bytes), length};
    return P11Obj_setAttribute(object, &attribute);
}

CK_RV P11Obj_setUlongValue(P11Obj* object, CK_ATTRIBUTE_TYPE type, CK_ULONG value)
{
    return P11Obj_setValue(object, type, &value, sizeof value);
}

CK_RV P11Obj_setBoolValue(P11Obj* object, CK_ATTRIBUTE_TYPE type, CK_BBOOL value)
{
    return P11Obj_setValue(object, type, &value, sizeof value);
}

CK_RV P11Obj_getKeyValueLength(P11Obj* object, CK_ULONG* length)
{
    CK_ULONG keyType = 0;
    CK_RV rv = P11Obj_getUlongValue(object, CKA_KEY_TYPE, &keyType);
    if (rv != CKR_OK) return rv;
    switch (keyType) {
    case CKK_DES:
    case CKK_CDMF:
        *length = 8;
        return CKR_OK;
    case CKK_DES2:
    case CKK_IDEA:
    case CKK_SKIPJACK:
        *length = 16;
        return CKR_OK;
    case CKK_DES3:
        *length = 24;
        return CKR_OK;
    case CKK_BATON:
    case CKK_JUNIPER:
        *length = 40;
        return CKR_OK;
    case CKK_AES:
        if (P11Obj_getUlongValue(object, CKA_VALUE_LEN, length) != CKR_OK) *length = 16;
        return CKR_OK;
    default:
        return P11Obj_getUlongValue(object, CKA_VALUE_LEN, length);
    }
}

CK_RV P11Obj_setKeyValue(P11Obj* object, const CK_BYTE* bytes, CK_ULONG length, bool takeLeading)
{
    CK_ULONG keyLength = 0;
    const CK_RV rv = P11Obj_getKeyValueLength(object, &keyLength);
    if (rv != CKR_OK) return rv;
    if (keyLength > length) return CKR_TEMPLATE_INCONSISTENT;
    return P11Obj_setValue(object, CKA_VALUE, takeLeading ? bytes : bytes + length - keyLength, keyLength);
}

// ---- completion and ownership ----

CK_RV P11Obj_completeObject(P11Obj* object, P11Session* session, P11Token* token)
{
    CK_RV rv = MakeFullTemplate(object);
    if (rv != CKR_OK) return rv;
    CK_BBOOL isToken = CK_FALSE;
    rv = P11Obj_getBoolValue(object, CKA_TOKEN, &isToken);
    if (rv != CKR_OK) return rv;
    object->token = isToken ? token : nullptr;
    object->session = isToken ? nullptr : session;
    return CKR_OK;
}

CK_RV P11Obj_addObject(P11Obj* object, P11Session* session)
{
    if (object->token) {
        if (!P11Session_isReadWrite(session)) return CKR_SESSION_READ_ONLY;
        return P11Token_addObject(object->token, object);
    }
    if (object->session) return P11Session_addObject(object->session, object);
    return CKR_GENERAL_ERROR;
}

CK_RV P11Obj_removeObject(P11Obj* object, P11Session* session)
{
    if (object->token) {
        if (!P11Session_isReadWrite(session)) return CKR_SESSION_READ_ONLY;
        return P11Token_removeObject(object->token, object);
    }
    // The owning session is only read under the token mutex, once the
    // object is known to be alive (a closed session's objects are dead).
    if (object->session) return P11Token_removeSessionObject(P11Session_getToken(session), object);
    return CKR_GENERAL_ERROR;
}

// ---- the flows ----

CK_RV P11Obj_createObject(P11Obj* object, P11Session* session, CK_ATTRIBUTE_PTR attributes, CK_ULONG count)
{
    CK_RV rv = CheckTemplate(nullptr, attributes, count, P11_TEMPLATE_CREATE);
    if (rv == CKR_OK) rv = P11Obj_setAttributesfromTemplate(object, attributes, count);
    if (rv == CKR_OK) rv = P11Obj_completeObject(object, session, P11Session_getToken(session));
    if (rv == CKR_OK) rv = markAsImported(object, true);
    if (rv == CKR_OK) rv = P11Obj_addObject(object, session);
    return rv;
}

CK_RV P11Obj_copyObject(P11Obj* source, P11Obj* object, P11Session* session, CK_ATTRIBUTE_PTR attributes, CK_ULONG count)
{
    // The source is locked while it is read; the copy is completed and
    // registered without it, since registering takes the token mutex.
    {
        ObjectLock lock(source);
        CK_RV rv = lock.lock();
        if (rv != CKR_OK) return rv;
        if (P11Obj_isDead(source)) return lock.release(CKR_OBJECT_HANDLE_INVALID);
        rv = source->clazz->copy(source, object);
        if (rv == CKR_OK) rv = CheckTemplate(source, attributes, count, P11_TEMPLATE_COPY);
        rv = lock.release(rv);
        if (rv != CKR_OK) return rv;
    }
    CK_RV rv = P11Obj_setAttributesfromTemplate(object, attributes, count);
    if (rv == CKR_OK) rv = P11Obj_completeObject(object, session, P11Session_getToken(session));
    if (rv == CKR_OK) rv = P11Obj_addObject(object, session);
    return rv;
}

CK_RV P11Obj_createAndGenerateKey(P11Obj* object, CK_MECHANISM_PTR mechanism, CK_ATTRIBUTE_PTR attributes, CK_ULONG count,
                                  P11Session* session)
{
    CK_RV rv = CheckTemplateGenerate(attributes, count, mechanism);
    if (rv == CKR_OK) rv = P11Obj_setAttributesfromTemplate(object, attributes, count);
    if (rv == CKR_OK) rv = P11Obj_generateKey(object, session, mechanism);
    if (rv == CKR_OK) rv = P11Obj_completeObject(object, session, P11Session_getToken(session));
    if (rv == CKR_OK) rv = P11Obj_addObject(object, session);
    return rv;
}

CK_RV P11Obj_createAndGenerateKeyPair(P11Obj* publicKey, P11Obj* privateKey, CK_MECHANISM_PTR mechanism,
                                      CK_ATTRIBUTE_PTR publicAttributes, CK_ULONG publicCount,
                                      CK_ATTRIBUTE_PTR privateAttributes, CK_ULONG privateCount, P11Session* session)
{
    P11Token* token = P11Session_getToken(session);
    CK_RV rv = CheckTemplatesGeneratePair(publicAttributes, publicCount, privateAttributes, privateCount, mechanism);
    if (rv == CKR_OK) rv = P11Obj_setAttributesfromTemplate(publicKey, publicAttributes, publicCount);
    if (rv == CKR_OK) rv = P11Obj_setAttributesfromTemplate(privateKey, privateAttributes, privateCount);
    if (rv == CKR_OK) rv = P11Obj_generateKeyPair(privateKey, publicKey, session, mechanism);
    if (rv == CKR_OK) rv = P11Obj_completeObject(publicKey, session, token);
    if (rv == CKR_OK) rv = P11Obj_completeObject(privateKey, session, token);
    if (rv == CKR_OK) rv = P11Obj_addObject(publicKey, session);
    if (rv != CKR_OK) return rv;
    rv = P11Obj_addObject(privateKey, session);
    if (rv != CKR_OK) P11Obj_removeObject(publicKey, session);
    return rv;
}

CK_RV P11Obj_createAndUnwrapKey(P11Obj* unwrappingKey, CK_MECHANISM_PTR mechanism, CK_ATTRIBUTE_PTR attributes,
                                CK_ULONG count, P11Session* session, CK_BYTE_PTR wrapped, CK_ULONG wrappedLen,
                                P11Obj* object)
{
    CK_RV rv = CheckTemplateUnwrap(attributes, count, mechanism);
    if (rv == CKR_OK) rv = P11Obj_setAttributesfromTemplate(object, attributes, count);
    if (rv == CKR_OK) rv = P11Obj_unwrapKey(unwrappingKey, session, mechanism, wrapped, wrappedLen, object);
    if (rv == CKR_OK) rv = P11Obj_completeObject(object, session, P11Session_getToken(session));
    if (rv == CKR_OK) rv = markAsImported(object, false);
    if (rv == CKR_OK) rv = P11Obj_addObject(object, session);
    return rv;
}

CK_RV P11Obj_createAndDeriveKey(P11Obj* baseKey, CK_MECHANISM_PTR mechanism, CK_ATTRIBUTE_PTR attributes, CK_ULONG count,
                                P11Session* session, P11Obj* object)
{
    if (!mechanism) return CKR_ARGUMENTS_BAD;
    CK_RV rv = CheckTemplateDerive(attributes, count, mechanism->mechanism);
    if (rv == CKR_OK) rv = P11Obj_setAttributesfromTemplate(object, attributes, count);
    if (rv == CKR_OK) rv = P11Obj_deriveKey(baseKey, session, mechanism, object);
    // This derivation makes and registers its own key objects.
    if (rv != CKR_OK || mechanism->mechanism == CKM_SSL3_KEY_AND_MAC_DERIVE) return rv;
    rv = P11Obj_completeObject(object, session, P11Session_getToken(session));
    if (rv != CKR_OK) return rv;
    // A key derived from one that was ever exposed was never always secret.
    // (The base key's CKA_NEVER_EXTRACTABLE also clears the new key's
    // CKA_ALWAYS_SENSITIVE; its CKA_NEVER_EXTRACTABLE keeps its default.)
    if (holdsFalse(baseKey, CKA_ALWAYS_SENSITIVE) || holdsFalse(baseKey, CKA_NEVER_EXTRACTABLE))
        rv = P11Obj_setBoolValue(object, CKA_ALWAYS_SENSITIVE, CK_FALSE);
    if (rv == CKR_OK) rv = P11Obj_addObject(object, session);
    return rv;
}

CK_RV P11Obj_destroyObject(P11Obj** object, P11Session* session)
{
    if (!*object) return CKR_OBJECT_HANDLE_INVALID;
    // Calls that hold the object finish with it (they hold references);
    // from now on its handle is unknown and a running operation with it as
    // its key answers CKR_KEY_HANDLE_INVALID.
    const CK_RV rv = P11Obj_removeObject(*object, session);
    P11Obj_destruct(object);
    return rv;
}

CK_RV P11Obj_getAttributeValues(P11Obj* object, CK_ATTRIBUTE_PTR attributes, CK_ULONG count)
{
    if (count && !attributes) return CKR_ARGUMENTS_BAD;
    ObjectLock lock(object);
    CK_RV rv = lock.lock();
    if (rv != CKR_OK) return rv;
    if (P11Obj_isDead(object)) return lock.release(CKR_OBJECT_HANDLE_INVALID);
    CK_BBOOL sensitive = CK_FALSE;
    rv = ObjIsSensitive(object, &sensitive);
    if (rv != CKR_OK) return lock.release(rv);
    // Every entry is processed; the first noted code is the result.
    CK_RV noted = CKR_OK;
    for (CK_ULONG i = 0; i < count; ++i) {
        // A sensitive object's key material is withheld; the rest is read.
        CK_RV entryRv = sensitive ? AttrSensitive(&attributes[i]) : CKR_OK;
        if (entryRv == CKR_OK) entryRv = P11Obj_getAttribute(object, &attributes[i]);
        if (entryRv == CKR_OK) continue;
        if (entryRv != CKR_ATTRIBUTE_SENSITIVE && entryRv != CKR_ATTRIBUTE_TYPE_INVALID && entryRv != CKR_BUFFER_TOO_SMALL)
            return lock.release(entryRv);
        if (noted == CKR_OK) noted = entryRv;
    }
    return lock.release(noted);
}

CK_RV P11Obj_setAttributeValues(P11Obj* object, CK_ATTRIBUTE_PTR attributes, CK_ULONG count)
{
    if (count && !attributes) return CKR_ARGUMENTS_BAD;
    ObjectLock lock(object);
    CK_RV rv = lock.lock();
    if (rv != CKR_OK) return rv;
    if (P11Obj_isDead(object)) return lock.release(CKR_OBJECT_HANDLE_INVALID);
    rv = ObjModifiable(object);
    if (rv == CKR_OK) rv = CheckTemplate(object, attributes, count, P11_TEMPLATE_SET);
    // Entries are set in order; those before a failure stay changed.
    if (rv == CKR_OK) rv = P11Obj_setAttributesfromTemplate(object, attributes, count);
    return lock.release(rv);
}
