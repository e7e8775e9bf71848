#include "pkcs11/db/P11Obj_Tavik_Certificate.h"

#include "certificates/certificateinformation.h"
#include "deps/cpp_modules/Hashers.h"

namespace {

void loadCertificate(P11AttrObj* store, const ByteArray_constSlice& der)
{
    ByteArray subject, issuer, serialNumber, label;
    getCertificateInformation(der.data(), der.size(), subject, issuer, serialNumber, label);
    const P11AttrWriter w = P11AttrWriter_forStore(store);
    w.tokenObjectHead(CKO_CERTIFICATE);
    w.bytes(CKA_LABEL, label);
    w.ulong(CKA_CERTIFICATE_TYPE, CKC_X_509);
    w.flag(CKA_TRUSTED, true);
    w.ulong(CKA_CERTIFICATE_CATEGORY, 0);
    w.empty(CKA_CHECK_VALUE);
    w.empty(CKA_START_DATE);
    w.empty(CKA_END_DATE);
    w.bytes(CKA_SUBJECT, subject);
    w.bytes(CKA_ID, Sha256::Hash(der));
    w.bytes(CKA_ISSUER, issuer);
    w.bytes(CKA_SERIAL_NUMBER, serialNumber);
    w.bytes(CKA_VALUE, der);
    w.empty(CKA_URL);
}

void loadTrust(P11AttrObj* store, const ByteArray_constSlice& der)
{
    ByteArray subject, issuer, serialNumber, label;
    getCertificateInformation(der.data(), der.size(), subject, issuer, serialNumber, label);
    const P11AttrWriter w = P11AttrWriter_forStore(store);
    w.tokenObjectHead(CKO_NSS_TRUST);
    w.bytes(CKA_ID, Sha256::Hash(der));
    w.bytes(CKA_LABEL, label);
    w.bytes(CKA_CERT_SHA1_HASH, Sha1::Hash(der));
    w.bytes(CKA_CERT_MD5_HASH, Md5::Hash(der));
    w.bytes(CKA_ISSUER, issuer);
    w.bytes(CKA_SERIAL_NUMBER, serialNumber);
    w.ulong(CKA_TRUST_SERVER_AUTH, TAVIK_TRUSTED_DELEGATOR);
    w.ulong(CKA_TRUST_CLIENT_AUTH, TAVIK_TRUSTED_DELEGATOR);
    w.ulong(CKA_TRUST_EMAIL_PROTECTION, TAVIK_TRUSTED_DELEGATOR);
    w.ulong(CKA_TRUST_CODE_SIGNING, TAVIK_UNTRUSTED);
    w.flag(CKA_TRUST_STEP_UP_APPROVED, false);
}

CK_RV runLoad(void (*load)(P11AttrObj*, const ByteArray_constSlice&), P11AttrObj* store, const unsigned char* der,
              unsigned long length)
{
    if (!der || !store) return CKR_FUNCTION_FAILED;
    return P11_runLoader([&] { load(store, ByteArray_constSlice(der, length)); });
}

CK_RV destructRecord(P11Obj** object)
{
    if (!object || !*object) return CKR_OK;
    P11Obj_AttrBacked* record = static_cast<P11Obj_AttrBacked*>(*object);
    P11Obj_AttrBacked_releaseParts(record);
    delete record;
    *object = nullptr;
    return CKR_OK;
}

P11ObjClass attributeClass(const char* name, CK_RV (*destruct)(P11Obj**))
{
    P11ObjClass c{};
    c.name = name;
    c.destruct = destruct;
    c.setAttribute = P11Obj_AttrBacked_setAttribute;
    c.getAttribute = P11Obj_AttrBacked_getAttribute;
    c.peekAttribute = P11Obj_AttrBacked_peekAttribute;
    c.copy = P11Obj_AttrBacked_copyStore;
    c.compare = P11Obj_AttrBacked_compare;
    c.enumAttributes = P11Obj_AttrBacked_enumAttributes;
    c.getAttributeCount = P11Obj_AttrBacked_getAttributeCount;
    return c;  // no operation members: these objects are no keys
}

const P11ObjClass P11Tavik_Certificate_clazz = attributeClass("P11Obj_Tavik_Certificate", P11Obj_Tavik_Certificate_destruct);
const P11ObjClass P11Obj_NetscapeTrust_clazz = attributeClass("P11Obj_NetscapeTrust", P11Obj_NetscapeTrust_destruct);

CK_RV construct(P11Obj** object, const P11ObjClass* clazz,
                CK_RV (*load)(P11AttrObj*, const unsigned char*, unsigned long), const unsigned char* der,
                unsigned long length)
{
    *object = nullptr;
    if (!der) return CKR_FUNCTION_FAILED;
    P11Obj_AttrBacked* record = nullptr;
    CK_RV rv = P11Obj_AttrBacked_allocate(&record, clazz);
    if (rv != CKR_OK) return rv;
    rv = load(record->attributes, der, length);
    if (rv != CKR_OK) {
        P11Obj* built = record;
        destructRecord(&built);
        return rv;
    }
    *object = record;
    return CKR_OK;
}

}  // namespace

const P11ObjClass* P11Tavik_Certificate_GetClass()
{
    return &P11Tavik_Certificate_clazz;
}

const P11ObjClass* P11Obj_NetscapeTrust_GetClass()
{
    return &P11Obj_NetscapeTrust_clazz;
}

CK_RV P11Obj_Tavik_Certiticate_loadAttributes(P11AttrObj* store, const unsigned char* der, unsigned long length)
{
    return runLoad(loadCertificate, store, der, length);
}

CK_RV P11Obj_NetscapeTrust_loadAttributes(P11AttrObj* store, const unsigned char* der, unsigned long length)
{
    return runLoad(loadTrust, store, der, length);
}

CK_RV P11Obj_Tavik_Certificate_construct_wa(P11Obj** object)
{
    P11Obj_AttrBacked* record = nullptr;
    const CK_RV rv = P11Obj_AttrBacked_allocate(&record, &P11Tavik_Certificate_clazz);
    *object = record;
    return rv;
}

CK_RV P11Obj_NetscapeTrust_construct_wa(P11Obj** object)
{
    P11Obj_AttrBacked* record = nullptr;
    const CK_RV rv = P11Obj_AttrBacked_allocate(&record, &P11Obj_NetscapeTrust_clazz);
    *object = record;
    return rv;
}

CK_RV P11Obj_Tavik_Certificate_destruct(P11Obj** object)
{
    return destructRecord(object);
}

CK_RV P11Obj_NetscapeTrust_destruct(P11Obj** object)
{
    return destructRecord(object);
}

CK_RV P11Obj_Tavik_Certificate_construct(P11Obj** object, const unsigned char* der, unsigned long length)
{
    return construct(object, &P11Tavik_Certificate_clazz, P11Obj_Tavik_Certiticate_loadAttributes, der, length);
}

CK_RV P11Obj_NetscapeTrust_construct(P11Obj** object, const unsigned char* der, unsigned long length)
{
    return construct(object, &P11Obj_NetscapeTrust_clazz, P11Obj_NetscapeTrust_loadAttributes, der, length);
}
