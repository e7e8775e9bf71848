// The cryptographic members of the software object class. Each init finds
// the mechanism's row in the registry, checks the key's kind and usage
// attribute against it, and installs the record the row builds; the other
// steps hand the call to that record.

#include "pkcs11/sw/P11Obj_SW_mechanisms.h"

#include "crypto/bytes.h"
#include "pkcs11/P11OperationData.h"
#include "pkcs11/P11Session.h"
#include "pkcs11/objects/P11AttrPolicy.h"
#include "pkcs11/objects/P11Obj_noThrow.h"
#include "pkcs11/sw/P11Mechanism.h"
#include "pkcs11/sw/P11Sw_pkcs8.h"

namespace {

// The codes of a key that does not fit, as the operation names them.
struct KeyCodes {
    CK_RV typeInconsistent;
};

KeyCodes codesFor(uint32_t operation)
{
    if (operation == P11_USE_WRAP) return {CKR_WRAPPING_KEY_TYPE_INCONSISTENT};
    if (operation == P11_USE_UNWRAP) return {CKR_UNWRAPPING_KEY_TYPE_INCONSISTENT};
    return {CKR_KEY_TYPE_INCONSISTENT};
}

// The registry row of the mechanism, for a key that may use it.
CK_RV checkedRow(P11Obj* key, CK_MECHANISM_PTR mechanism, uint32_t operation, const P11Mechanism** row)
{
    if (!mechanism) return CKR_ARGUMENTS_BAD;
    *row = P11Mechanism_find(mechanism->mechanism);
    if (!*row || !((*row)->operations & operation) || !(*row)->init) return CKR_MECHANISM_INVALID;
    uint64_t kind = 0;
    CK_KEY_TYPE keyType = 0;
    if (GetObjAndKeyType(key, &kind, &keyType) != CKR_OK || !(kind & (*row)->keyKinds & P11Mechanism_kindsFor(operation)))
        return codesFor(operation).typeInconsistent;
    // A usage attribute that is absent or false forbids the operation.
    CK_BBOOL allowed = CK_FALSE;
    if (P11Obj_getBoolValue(key, P11Mechanism_usage(operation), &allowed) != CKR_OK || !allowed)
        return CKR_KEY_FUNCTION_NOT_PERMITTED;
    return CKR_OK;
}

CK_RV newRecord(P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism, uint32_t operation,
                P11OperationData** record)
{
    *record = nullptr;
    const P11Mechanism* row = nullptr;
    const CK_RV rv = checkedRow(key, mechanism, operation, &row);
    return rv == CKR_OK ? row->init(*row, key, session, mechanism, operation, record) : rv;
}

template <uint32_t Operation>
CK_RV init(P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism)
{
    P11OperationData* record = nullptr;
    CK_RV rv = newRecord(key, session, mechanism, Operation, &record);
    if (rv != CKR_OK) return rv;
    rv = P11Session_setOperationData(session, record);
    if (rv != CKR_OK) record->destroy();
    return rv;
}

// Destroys a local record on every path.
struct RecordOwner {
    P11OperationData* record = nullptr;
    ~RecordOwner()
    {
        if (record) record->destroy();
    }
};

P11OperationData* active(P11Session* session)
{
    return P11Session_peekOperationData(session);
}

CK_RV single(P11Obj* key, P11Session* session, CK_BYTE_PTR in, CK_ULONG inLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen)
{
    P11OperationData* record = active(session);
    return record ? record->single(key, session, in, inLen, out, outLen) : CKR_OPERATION_NOT_INITIALIZED;
}

CK_RV update(P11Obj* key, P11Session* session, CK_BYTE_PTR in, CK_ULONG inLen, CK_BYTE_PTR out, CK_ULONG_PTR outLen)
{
    P11OperationData* record = active(session);
    return record ? record->update(key, session, in, inLen, out, outLen) : CKR_OPERATION_NOT_INITIALIZED;
}

CK_RV updateOnly(P11Obj* key, P11Session* session, CK_BYTE_PTR in, CK_ULONG inLen)
{
    return update(key, session, in, inLen, nullptr, nullptr);
}

CK_RV final(P11Obj* key, P11Session* session, CK_BYTE_PTR out, CK_ULONG_PTR outLen)
{
    P11OperationData* record = active(session);
    return record ? record->final(key, session, out, outLen) : CKR_OPERATION_NOT_INITIALIZED;
}

CK_RV verify(P11Obj* key, P11Session* session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR signature,
             CK_ULONG signatureLen)
{
    P11OperationData* record = active(session);
    return record ? record->verify(key, session, data, dataLen, signature, signatureLen) : CKR_OPERATION_NOT_INITIALIZED;
}

CK_RV verifyFinal(P11Obj* key, P11Session* session, CK_BYTE_PTR signature, CK_ULONG signatureLen)
{
    P11OperationData* record = active(session);
    return record ? record->verifyFinal(key, session, signature, signatureLen) : CKR_OPERATION_NOT_INITIALIZED;
}

CK_RV generate(P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism)
{
    if (!mechanism) return CKR_ARGUMENTS_BAD;
    const P11Mechanism* row = P11Mechanism_find(mechanism->mechanism);
    if (!row || !(row->operations & P11_USE_GENERATE) || !row->generate) return CKR_MECHANISM_INVALID;
    return row->generate(*row, key, session, mechanism);
}

CK_RV generatePair(P11Obj* privateKey, P11Obj* publicKey, P11Session* session, CK_MECHANISM_PTR mechanism)
{
    if (!mechanism) return CKR_ARGUMENTS_BAD;
    const P11Mechanism* row = P11Mechanism_find(mechanism->mechanism);
    if (!row || !(row->operations & P11_USE_GENERATE_PAIR) || !row->generatePair) return CKR_MECHANISM_INVALID;
    return row->generatePair(*row, privateKey, publicKey, session, mechanism);
}

CK_RV derive(P11Obj* baseKey, P11Session* session, CK_MECHANISM_PTR mechanism, P11Obj* newKey)
{
    if (!mechanism) return CKR_ARGUMENTS_BAD;
    const P11Mechanism* row = P11Mechanism_find(mechanism->mechanism);
    if (!row || !(row->operations & P11_USE_DERIVE) || !row->derive) return CKR_MECHANISM_INVALID;
    uint64_t kind = 0;
    CK_KEY_TYPE keyType = 0;
    if (GetObjAndKeyType(baseKey, &kind, &keyType) != CKR_OK || !(kind & row->keyKinds)) return CKR_KEY_TYPE_INCONSISTENT;
    CK_BBOOL allowed = CK_FALSE;
    if (P11Obj_getBoolValue(baseKey, CKA_DERIVE, &allowed) != CKR_OK || !allowed) return CKR_KEY_FUNCTION_NOT_PERMITTED;
    return row->derive(*row, baseKey, session, mechanism, newKey);
}

// The bytes a wrapping mechanism enciphers: a secret key's value, or a
// private key's PKCS #8 encoding. The key must be extractable, and one that
// may only be wrapped with a trusted key needs a wrapping key marked trusted.
CK_RV wrappedValue(P11Obj* wrappingKey, P11Obj* key, crypto_bytes* value)
{
    CK_OBJECT_CLASS objectClass = 0;
    if (P11Obj_getUlongValue(key, CKA_CLASS, &objectClass) != CKR_OK ||
        (objectClass != CKO_SECRET_KEY && objectClass != CKO_PRIVATE_KEY))
        return CKR_KEY_NOT_WRAPPABLE;
    CK_BBOOL flag = CK_FALSE;
    if (P11Obj_getBoolValue(key, CKA_EXTRACTABLE, &flag) != CKR_OK || !flag) return CKR_KEY_UNEXTRACTABLE;
    if (P11Obj_getBoolValue(key, CKA_WRAP_WITH_TRUSTED, &flag) == CKR_OK && flag) {
        CK_BBOOL trusted = CK_FALSE;
        if (P11Obj_getBoolValue(wrappingKey, CKA_TRUSTED, &trusted) != CKR_OK || !trusted) return CKR_KEY_NOT_WRAPPABLE;
    }
    if (objectClass == CKO_PRIVATE_KEY) return P11SwPkcs8_encode(key, value);
    CK_ULONG length = 0;
    CK_RV rv = P11Obj_getValue(key, CKA_VALUE, nullptr, &length);
    if (rv != CKR_OK) return CKR_KEY_NOT_WRAPPABLE;
    value->assign(length ? length : 1, 0);
    rv = P11Obj_getValue(key, CKA_VALUE, value->data(), &length);
    value->resize(length);
    return rv;
}

CK_RV wrap(P11Obj* wrappingKey, P11Session* session, CK_MECHANISM_PTR mechanism, P11Obj* key, CK_BYTE_PTR out,
           CK_ULONG_PTR outLen)
{
    if (!outLen) return CKR_ARGUMENTS_BAD;
    RecordOwner owner;
    CK_RV rv = newRecord(wrappingKey, session, mechanism, P11_USE_WRAP, &owner.record);
    if (rv != CKR_OK) return rv;
    crypto_bytes value;
    rv = wrappedValue(wrappingKey, key, &value);
    if (rv != CKR_OK) return rv;
    rv = owner.record->single(wrappingKey, session, value.data(), CK_ULONG(value.size()), out, outLen);
    return rv == CKR_DATA_LEN_RANGE ? CKR_KEY_SIZE_RANGE : rv;
}

CK_RV unwrap(P11Obj* unwrappingKey, P11Session* session, CK_MECHANISM_PTR mechanism, CK_BYTE_PTR wrapped,
             CK_ULONG wrappedLen, P11Obj* newKey)
{
    if (!wrapped && wrappedLen) return CKR_ARGUMENTS_BAD;
    RecordOwner owner;
    CK_RV rv = newRecord(unwrappingKey, session, mechanism, P11_USE_UNWRAP, &owner.record);
    if (rv != CKR_OK) return rv;
    CK_ULONG length = 0;
    rv = owner.record->single(unwrappingKey, session, wrapped, wrappedLen, nullptr, &length);
    crypto_bytes value(length ? length : 1);
    if (rv == CKR_OK) rv = owner.record->single(unwrappingKey, session, wrapped, wrappedLen, value.data(), &length);
    if (rv == CKR_ENCRYPTED_DATA_LEN_RANGE) return CKR_WRAPPED_KEY_LEN_RANGE;
    if (rv == CKR_ENCRYPTED_DATA_INVALID) return CKR_WRAPPED_KEY_INVALID;
    if (rv != CKR_OK) return rv;

    CK_OBJECT_CLASS objectClass = 0;
    rv = P11Obj_getUlongValue(newKey, CKA_CLASS, &objectClass);
    if (rv != CKR_OK) return rv;
    if (objectClass == CKO_PRIVATE_KEY) {
        value.resize(length);
        return P11SwPkcs8_decodeInto(newKey, value);
    }
    if (objectClass != CKO_SECRET_KEY) return CKR_TEMPLATE_INCONSISTENT;
    // A key type of fixed length, or a length the template names, takes
    // that many bytes: raw RSA hands back the whole block, whose last bytes
    // are the key.
    CK_ULONG keyLength = 0;
    if (P11Obj_getKeyValueLength(newKey, &keyLength) == CKR_OK) {
        if (keyLength > length) return CKR_WRAPPED_KEY_LEN_RANGE;
        if (keyLength < length) {
            for (CK_ULONG i = 0; i < length - keyLength; ++i)
                if (value[i] != 0) return CKR_WRAPPED_KEY_LEN_RANGE;
        }
        return P11Obj_setValue(newKey, CKA_VALUE, value.data() + length - keyLength, keyLength);
    }
    return P11Obj_setValue(newKey, CKA_VALUE, value.data(), length);
}

}  // namespace

void P11Obj_SW_fillMechanisms(P11ObjClass* c)
{
    using In = CK_BYTE_PTR;
    using Len = CK_ULONG;
    using Out = CK_ULONG_PTR;
    using Mech = CK_MECHANISM_PTR;
    c->generateKey = P11Obj_noThrow<generate, P11Obj*, P11Session*, Mech>;
    c->generateKeyPair = P11Obj_noThrow<generatePair, P11Obj*, P11Obj*, P11Session*, Mech>;
    c->encryptInit = P11Obj_noThrow<init<P11_USE_ENCRYPT>, P11Obj*, P11Session*, Mech>;
    c->encrypt = P11Obj_noThrow<single, P11Obj*, P11Session*, In, Len, In, Out>;
    c->encryptUpdate = P11Obj_noThrow<update, P11Obj*, P11Session*, In, Len, In, Out>;
    c->encryptFinal = P11Obj_noThrow<final, P11Obj*, P11Session*, In, Out>;
    c->decryptInit = P11Obj_noThrow<init<P11_USE_DECRYPT>, P11Obj*, P11Session*, Mech>;
    c->decrypt = c->encrypt;
    c->decryptUpdate = c->encryptUpdate;
    c->decryptFinal = c->encryptFinal;
    c->signInit = P11Obj_noThrow<init<P11_USE_SIGN>, P11Obj*, P11Session*, Mech>;
    c->sign = c->encrypt;
    c->signUpdate = P11Obj_noThrow<updateOnly, P11Obj*, P11Session*, In, Len>;
    c->signFinal = c->encryptFinal;
    c->signRecoverInit = P11Obj_noThrow<init<P11_USE_SIGN_RECOVER>, P11Obj*, P11Session*, Mech>;
    c->signRecover = c->encrypt;
    c->verifyInit = P11Obj_noThrow<init<P11_USE_VERIFY>, P11Obj*, P11Session*, Mech>;
    c->verify = P11Obj_noThrow<verify, P11Obj*, P11Session*, In, Len, In, Len>;
    c->verifyUpdate = c->signUpdate;
    c->verifyFinal = P11Obj_noThrow<verifyFinal, P11Obj*, P11Session*, In, Len>;
    c->verifyRecoverInit = P11Obj_noThrow<init<P11_USE_VERIFY_RECOVER>, P11Obj*, P11Session*, Mech>;
    c->verifyRecover = c->encrypt;
    c->deriveKey = P11Obj_noThrow<derive, P11Obj*, P11Session*, Mech, P11Obj*>;
    c->wrapKey = P11Obj_noThrow<wrap, P11Obj*, P11Session*, Mech, P11Obj*, In, Out>;
    c->unwrapKey = P11Obj_noThrow<unwrap, P11Obj*, P11Session*, Mech, In, Len, P11Obj*>;
}
