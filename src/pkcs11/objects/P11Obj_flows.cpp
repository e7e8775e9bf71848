// The object-creating calls and the attribute calls need the attribute store
// and the template policy, which the software object class brings. Until
// that class is in, there is no object to create, read or change, and these
// answer that the function is not supported.

#include "pkcs11/objects/P11Obj.h"

CK_RV P11Obj_createObject(P11Obj*, P11Session*, CK_ATTRIBUTE_PTR, CK_ULONG)
{
    return CKR_FUNCTION_NOT_SUPPORTED;
}

CK_RV P11Obj_copyObject(P11Obj*, P11Obj*, P11Session*, CK_ATTRIBUTE_PTR, CK_ULONG)
{
    return CKR_FUNCTION_NOT_SUPPORTED;
}

CK_RV P11Obj_createAndGenerateKey(P11Obj*, CK_MECHANISM_PTR, CK_ATTRIBUTE_PTR, CK_ULONG, P11Session*)
{
    return CKR_FUNCTION_NOT_SUPPORTED;
}

CK_RV P11Obj_createAndGenerateKeyPair(P11Obj*, P11Obj*, CK_MECHANISM_PTR, CK_ATTRIBUTE_PTR, CK_ULONG, CK_ATTRIBUTE_PTR,
                                      CK_ULONG, P11Session*)
{
    return CKR_FUNCTION_NOT_SUPPORTED;
}

CK_RV P11Obj_createAndUnwrapKey(P11Obj*, CK_MECHANISM_PTR, CK_ATTRIBUTE_PTR, CK_ULONG, P11Session*, CK_BYTE_PTR, CK_ULONG,
                                P11Obj*)
{
    return CKR_FUNCTION_NOT_SUPPORTED;
}

CK_RV P11Obj_createAndDeriveKey(P11Obj*, CK_MECHANISM_PTR, CK_ATTRIBUTE_PTR, CK_ULONG, P11Session*, P11Obj*)
{
    return CKR_FUNCTION_NOT_SUPPORTED;
}

CK_RV P11Obj_destroyObject(P11Obj**, P11Session*)
{
    return CKR_FUNCTION_NOT_SUPPORTED;
}

CK_RV P11Obj_getAttributeValues(P11Obj*, CK_ATTRIBUTE_PTR, CK_ULONG)
{
    return CKR_FUNCTION_NOT_SUPPORTED;
}

CK_RV P11Obj_setAttributeValues(P11Obj*, CK_ATTRIBUTE_PTR, CK_ULONG)
{
    return CKR_FUNCTION_NOT_SUPPORTED;
}

CK_RV P11Obj_SW_construct(P11Obj** object)
{
    *object = nullptr;
    return CKR_FUNCTION_NOT_SUPPORTED;
}

CK_RV P11Obj_SW_destruct(P11Obj** object)
{
    return P11Obj_destruct(object);
}
