#include "pkcs11/db/P11Obj_Tavik_PublicKey.h"

#include "certificates/certificateinformation.h"
#include "certificates/rsapublickey.h"
#include "deps/cpp_modules/Hashers.h"
#include "pkcs11/db/P11Obj_AttrBacked.h"
#include "pkcs11/objects/P11Obj_SW.h"

CK_RV P11Obj_Tavik_PublicKey_load(P11Obj* object, const unsigned char* der, unsigned long length)
{
    if (!object || !der) return CKR_FUNCTION_FAILED;
    return P11_runLoader([&] {
        const ByteArray_constSlice certificate(der, length);
        ByteArray subject, publicKeyInfo, label;
        getCertSubjectInformation(der, length, subject, publicKeyInfo, label);
        const RsaPublicKey key = RsaPublicKey::FromRsaPublicKey(spkInfoToBitStringContent(publicKeyInfo));
        const ByteArray modulus = key.getModulus();

        const P11AttrWriter w{[](void* target, const CK_ATTRIBUTE* attribute) {
                                  return P11Obj_SW_setAttribute(static_cast<P11Obj*>(target), attribute);
                              },
                              object};
        // CKA_SENSITIVE is set on the public key too, as the token has always done.
        w.certificateKeyHead(CKO_PUBLIC_KEY, label, Sha256::Hash(certificate), subject);
        w.flag(CKA_ENCRYPT, true);
        w.flag(CKA_VERIFY, true);
        w.flag(CKA_VERIFY_RECOVER, true);
        w.flag(CKA_WRAP, true);
        w.ulong(CKA_MODULUS_BITS, CK_ULONG(modulus.size()) * 8);
        w.bytes(CKA_MODULUS, modulus);
        w.bytes(CKA_PUBLIC_EXPONENT, key.getPublicExponent());
    });
}

CK_RV P11Obj_Tavik_PublicKey_construct(P11Obj** object, const unsigned char* der, unsigned long length)
{
    *object = nullptr;
    P11Obj* key = nullptr;
    CK_RV rv = P11Obj_SW_construct(&key);
    if (rv != CKR_OK) return rv;
    rv = P11Obj_Tavik_PublicKey_load(key, der, length);
    if (rv != CKR_OK) {
        P11Obj_Tavik_PublicKey_destruct(&key);
        return rv;
    }
    *object = key;
    return CKR_OK;
}

CK_RV P11Obj_Tavik_PublicKey_destruct(P11Obj** object)
{
    return P11Obj_SW_destruct(object);
}
