// Library entry and global state: the function list, C_Initialize,
// C_Finalize and C_GetInfo.

#include <cstring>

#include "crypto/ossl_context.h"
#include "pkcs11/GetToken.h"
#include "pkcs11/P11Mutex.h"
#include "pkcs11/P11Token.h"
#include "pkcs11/Tavik_pkcs11_entry.h"
#include "pkcs11/Tavik_pkcs11_frame.h"
#include "pkcs11/db/Tavik_p11trace.h"

bool initialized = false;
P11Token* pToken = nullptr;

namespace {

const CK_VERSION cryptokiVersion = {2, 20};
const CK_VERSION libraryVersion = {2, 0};
// "Korvo cryptographic library" blank-padded to 32 bytes, no terminator.
const char libraryDescription[] = "Korvo cryptographic library     ";
static_assert(sizeof libraryDescription - 1 == 32, "the description fills its field");

CK_FUNCTION_LIST functionList;

void fillFunctionList()
{
    functionList.version = cryptokiVersion;
    functionList.C_Initialize = C_Initialize;
    functionList.C_Finalize = C_Finalize;
    functionList.C_GetInfo = C_GetInfo;
    functionList.C_GetFunctionList = C_GetFunctionList;
    functionList.C_GetSlotList = C_GetSlotList;
    functionList.C_GetSlotInfo = C_GetSlotInfo;
    functionList.C_GetTokenInfo = C_GetTokenInfo;
    functionList.C_GetMechanismList = C_GetMechanismList;
    functionList.C_GetMechanismInfo = C_GetMechanismInfo;
    functionList.C_InitToken = C_InitToken;
    functionList.C_InitPIN = C_InitPIN;
    functionList.C_SetPIN = C_SetPIN;
    functionList.C_OpenSession = C_OpenSession;
    functionList.C_CloseSession = C_CloseSession;
    functionList.C_CloseAllSessions = C_CloseAllSessions;
    functionList.C_GetSessionInfo = C_GetSessionInfo;
    functionList.C_GetOperationState = C_GetOperationState;
    functionList.C_SetOperationState = C_SetOperationState;
    functionList.C_Login = C_Login;
    functionList.C_Logout = C_Logout;
    functionList.C_CreateObject = C_CreateObject;
    functionList.C_CopyObject = C_CopyObject;
    functionList.C_DestroyObject = C_DestroyObject;
    functionList.C_GetObjectSize = C_GetObjectSize;
    functionList.C_GetAttributeValue = C_GetAttributeValue;
    functionList.C_SetAttributeValue = C_SetAttributeValue;
    functionList.C_FindObjectsInit = C_FindObjectsInit;
    functionList.C_FindObjects = C_FindObjects;
    functionList.C_FindObjectsFinal = C_FindObjectsFinal;
    functionList.C_EncryptInit = C_EncryptInit;
    functionList.C_Encrypt = C_Encrypt;
    functionList.C_EncryptUpdate = C_EncryptUpdate;
    functionList.C_EncryptFinal = C_EncryptFinal;
    functionList.C_DecryptInit = C_DecryptInit;
    functionList.C_Decrypt = C_Decrypt;
    functionList.C_DecryptUpdate = C_DecryptUpdate;
    functionList.C_DecryptFinal = C_DecryptFinal;
    functionList.C_DigestInit = C_DigestInit;
    functionList.C_Digest = C_Digest;
    functionList.C_DigestUpdate = C_DigestUpdate;
    functionList.C_DigestKey = C_DigestKey;
    functionList.C_DigestFinal = C_DigestFinal;
    functionList.C_SignInit = C_SignInit;
    functionList.C_Sign = C_Sign;
    functionList.C_SignUpdate = C_SignUpdate;
    functionList.C_SignFinal = C_SignFinal;
    functionList.C_SignRecoverInit = C_SignRecoverInit;
    functionList.C_SignRecover = C_SignRecover;
    functionList.C_VerifyInit = C_VerifyInit;
    functionList.C_Verify = C_Verify;
    functionList.C_VerifyUpdate = C_VerifyUpdate;
    functionList.C_VerifyFinal = C_VerifyFinal;
    functionList.C_VerifyRecoverInit = C_VerifyRecoverInit;
    functionList.C_VerifyRecover = C_VerifyRecover;
    functionList.C_DigestEncryptUpdate = C_DigestEncryptUpdate;
    functionList.C_DecryptDigestUpdate = C_DecryptDigestUpdate;
    functionList.C_SignEncryptUpdate = C_SignEncryptUpdate;
    functionList.C_DecryptVerifyUpdate = C_DecryptVerifyUpdate;
    functionList.C_GenerateKey = C_GenerateKey;
    functionList.C_GenerateKeyPair = C_GenerateKeyPair;
    functionList.C_WrapKey = C_WrapKey;
    functionList.C_UnwrapKey = C_UnwrapKey;
    functionList.C_DeriveKey = C_DeriveKey;
    functionList.C_SeedRandom = C_SeedRandom;
    functionList.C_GenerateRandom = C_GenerateRandom;
    functionList.C_GetFunctionStatus = C_GetFunctionStatus;
    functionList.C_CancelFunction = C_CancelFunction;
    functionList.C_WaitForSlotEvent = C_WaitForSlotEvent;
}

}  // namespace

P11Token* GetToken()
{
    return pToken;
}

CK_RV P11_traceExit(const char* function, CK_RV rv)
{
    if (rv == CKR_OK)
        TSQ_Trace(3, "Exiting %s\n", function);
    else
        TSQ_TraceWithRv(P11TraceContext, 1, function, rv);
    return rv;
}

KORVO_EXPORT CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR ppFunctionList)
{
    if (functionList.version.major == 0) fillFunctionList();
    P11_bridge([&] {
        TSQ_Trace(3, "Entering %s", "C_GetFunctionList");
        TSQ_Trace(4, "ppFunctionList = %p", static_cast<void*>(ppFunctionList));
        return CKR_OK;
    });
    *ppFunctionList = &functionList;
    P11_bridge([] {
        TSQ_Trace(3, "Exiting %s\n", "C_GetFunctionList");
        return CKR_OK;
    });
    return CKR_OK;
}

KORVO_EXPORT CK_RV C_Initialize(CK_VOID_PTR pInitArgs)
{
    P11_bridge([] {
        TSQ_Trace_Init();
        return CKR_OK;
    });
    return frame(
        "C_Initialize", [&] { TSQ_Trace(4, "pInitArgs = %p", pInitArgs); },
        [&]() -> CK_RV {
            if (initialized) return CKR_CRYPTOKI_ALREADY_INITIALIZED;
            CK_RV rv = P11_InitializeMutexFuncs(static_cast<CK_C_INITIALIZE_ARGS_PTR>(pInitArgs));
            if (rv != CKR_OK) return rv;
            rv = P11Token_construct(&pToken);
            if (rv != CKR_OK) return rv;
            if (!pToken) return CKR_GENERAL_ERROR;
            initialized = true;
            return CKR_OK;
        },
        FrameCheck::None);
}

KORVO_EXPORT CK_RV C_Finalize(CK_VOID_PTR pReserved)
{
    const CK_RV rv = frame(
        "C_Finalize", [&] { TSQ_Trace(4, "pReserved = %p", pReserved); },
        [&]() -> CK_RV {
            if (pReserved) return CKR_ARGUMENTS_BAD;
            if (!initialized) return CKR_CRYPTOKI_NOT_INITIALIZED;
            const CK_RV destructRv = P11Token_destruct(&pToken);
            // Counted as finalised even when tearing down failed, so that the
            // application can initialise again.
            initialized = false;
            if (destructRv != CKR_OK) {
                pToken = nullptr;
                return destructRv;
            }
            // With the token gone nothing of the crypto core is in use: its
            // library context goes too, so unloading the module leaves
            // nothing behind.
            crypto_release_context();
            return CKR_OK;
        },
        FrameCheck::None);
    if (rv == CKR_OK)
        P11_bridge([] {
            TSQ_Trace_Exit();
            return CKR_OK;
        });
    return rv;
}

KORVO_EXPORT CK_RV C_GetInfo(CK_INFO_PTR pInfo)
{
    return frame(
        "C_GetInfo", [&] { TSQ_Trace(4, "pInfo = %p", static_cast<void*>(pInfo)); },
        [&]() -> CK_RV {
            if (!pInfo) return CKR_ARGUMENTS_BAD;
            if (!initialized) return CKR_CRYPTOKI_NOT_INITIALIZED;
            pInfo->cryptokiVersion = cryptokiVersion;
            std::memcpy(pInfo->manufacturerID, manufacturerID, sizeof pInfo->manufacturerID);
            pInfo->flags = 0;
            std::memcpy(pInfo->libraryDescription, libraryDescription, sizeof pInfo->libraryDescription);
            pInfo->libraryVersion = libraryVersion;
            TSQ_Trace(4, "Out:");
            TSQ_TraceInfo(P11TraceContext, 4, "pInfo", pInfo);
            return CKR_OK;
        },
        FrameCheck::None);
}
