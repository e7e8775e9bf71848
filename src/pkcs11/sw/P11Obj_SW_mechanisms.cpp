// The software mechanisms of the software object class. The ciphers,
// signatures, key generation, wrapping and derivation are not offered yet:
// every operation member refuses the mechanism, so the generic flows above
// them (templates, completion, ownership) already run their real course.

#include "pkcs11/sw/P11Obj_SW_mechanisms.h"

namespace {

CK_RV refuseGenerate(P11Obj*, P11Session*, CK_MECHANISM_PTR) { return CKR_MECHANISM_INVALID; }
CK_RV refuseGeneratePair(P11Obj*, P11Obj*, P11Session*, CK_MECHANISM_PTR) { return CKR_MECHANISM_INVALID; }
CK_RV refuseInit(P11Obj*, P11Session*, CK_MECHANISM_PTR) { return CKR_MECHANISM_INVALID; }
CK_RV refuseInOut(P11Obj*, P11Session*, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR) { return CKR_OPERATION_NOT_INITIALIZED; }
CK_RV refuseFinal(P11Obj*, P11Session*, CK_BYTE_PTR, CK_ULONG_PTR) { return CKR_OPERATION_NOT_INITIALIZED; }
CK_RV refuseUpdate(P11Obj*, P11Session*, CK_BYTE_PTR, CK_ULONG) { return CKR_OPERATION_NOT_INITIALIZED; }
CK_RV refuseVerify(P11Obj*, P11Session*, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG) { return CKR_OPERATION_NOT_INITIALIZED; }
CK_RV refuseVerifyFinal(P11Obj*, P11Session*, CK_BYTE_PTR, CK_ULONG) { return CKR_OPERATION_NOT_INITIALIZED; }
CK_RV refuseDerive(P11Obj*, P11Session*, CK_MECHANISM_PTR, P11Obj*) { return CKR_MECHANISM_INVALID; }
CK_RV refuseWrap(P11Obj*, P11Session*, CK_MECHANISM_PTR, P11Obj*, CK_BYTE_PTR, CK_ULONG_PTR) { return CKR_MECHANISM_INVALID; }
CK_RV refuseUnwrap(P11Obj*, P11Session*, CK_MECHANISM_PTR, CK_BYTE_PTR, CK_ULONG, P11Obj*) { return CKR_MECHANISM_INVALID; }

}  // namespace

void P11Obj_SW_fillMechanisms(P11ObjClass* c)
{
    c->generateKey = refuseGenerate;
    c->generateKeyPair = refuseGeneratePair;
    c->encryptInit = refuseInit;
    c->encrypt = refuseInOut;
    c->encryptUpdate = refuseInOut;
    c->encryptFinal = refuseFinal;
    c->decryptInit = refuseInit;
    c->decrypt = refuseInOut;
    c->decryptUpdate = refuseInOut;
    c->decryptFinal = refuseFinal;
    c->signInit = refuseInit;
    c->sign = refuseInOut;
    c->signUpdate = refuseUpdate;
    c->signFinal = refuseFinal;
    c->signRecoverInit = refuseInit;
    c->signRecover = refuseInOut;
    c->verifyInit = refuseInit;
    c->verify = refuseVerify;
    c->verifyUpdate = refuseUpdate;
    c->verifyFinal = refuseVerifyFinal;
    c->verifyRecoverInit = refuseInit;
    c->verifyRecover = [](P11Obj*, P11Session*, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR) -> CK_RV {
        return CKR_OPERATION_NOT_INITIALIZED;
    };
    c->deriveKey = refuseDerive;
    c->wrapKey = refuseWrap;
    c->unwrapKey = refuseUnwrap;
}
