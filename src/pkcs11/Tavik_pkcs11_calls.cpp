// The call frame of the entry points that work on the slot, a session or an
// object: trace the arguments, check that the library is initialised, turn
// handles into pointers through the token, call one operation, trace the
// results and return its code unchanged.

#include <new>

#include "pkcs11/P11ObjList.h"
#include "pkcs11/P11Session.h"
#include "pkcs11/P11Token.h"
#include "pkcs11/Tavik_pkcs11_entry.h"
#include "pkcs11/Tavik_pkcs11_frame.h"
#include "pkcs11/db/Tavik_p11trace.h"
#include "pkcs11/objects/P11Obj.h"

namespace {

void traceHandle(const char* label, CK_ULONG value)
{
    TSQ_Trace(4, "%s = %lu", label, value);
}

// An in/out length: its value when the pointer is there.
void traceLength(const char* label, CK_ULONG_PTR length)
{
    if (length)
        TSQ_Trace(4, "*%s = %lu", label, *length);
    else
        TSQ_Trace(4, "%s = NULL", label);
}

void traceObject(const char* label, CK_OBJECT_HANDLE handle)
{
    TSQ_TraceObject(P11TraceContext, 4, label, handle);
}

void traceMechanism(CK_MECHANISM_PTR mechanism)
{
    TSQ_TraceMechanism(P11TraceContext, 4, "pMechanism", mechanism);
}

CK_RV checkSlot(CK_SLOT_ID slot)
{
    return slot == 0 ? CKR_OK : CKR_SLOT_ID_INVALID;
}

CK_RV sessionOf(CK_SESSION_HANDLE handle, P11Session** session)
{
    return P11Token_sessionHandleToPointer(pToken, handle, session);
}

CK_RV objectOf(CK_OBJECT_HANDLE handle, P11Obj** object)
{
    return P11Token_objectHandleToPointer(pToken, handle, object);
}

// A key argument: an unknown handle is reported as an invalid key.
CK_RV keyOf(CK_OBJECT_HANDLE handle, P11Obj** key)
{
    const CK_RV rv = objectOf(handle, key);
    return rv == CKR_OBJECT_HANDLE_INVALID ? CKR_KEY_HANDLE_INVALID : rv;
}

// Arguments the layers below would have to trust: a template whose array
// or an entry's value is missing while a length says it is there, bytes
// missing behind a length, a mechanism missing, or its parameter missing
// behind a length. Each is answered here, before anything is made or run.
CK_RV checkTemplate(CK_ATTRIBUTE_PTR attributes, CK_ULONG count)
{
    if (count && !attributes) return CKR_ARGUMENTS_BAD;
    for (CK_ULONG i = 0; i < count; ++i)
        if (!attributes[i].pValue && attributes[i].ulValueLen) return CKR_ARGUMENTS_BAD;
    return CKR_OK;
}

CK_RV checkBytes(CK_BYTE_PTR bytes, CK_ULONG length)
{
    return !bytes && length ? CKR_ARGUMENTS_BAD : CKR_OK;
}

CK_RV checkMechanism(CK_MECHANISM_PTR mechanism)
{
    if (!mechanism) return CKR_ARGUMENTS_BAD;
    return !mechanism->pParameter && mechanism->ulParameterLen ? CKR_MECHANISM_PARAM_INVALID : CKR_OK;
}

// An output buffer after a successful call: secret outputs (plaintext,
// digests of secrets) only as the secure trace shows them.
void traceOut(const char* label, CK_BYTE_PTR out, CK_ULONG length, bool secret)
{
    TSQ_Trace(4, "Out:");
    if (secret)
        TSQ_TraceSecureBytes(P11TraceContext, 4, label, out, length);
    else
        TSQ_TraceBytes(P11TraceContext, 4, label, out, length);
}

// The frame's reference to a session or object it found or made; it is let
// go on every path when the frame returns.
template <typename T, CK_RV (*Release)(T**)>
class FrameRef {
public:
    FrameRef() = default;
    ~FrameRef() { Release(&pointer_); }
    FrameRef(const FrameRef&) = delete;
    FrameRef& operator=(const FrameRef&) = delete;
    T** out() { return &pointer_; }
    operator T*() const { return pointer_; }
    T* operator->() const { return pointer_; }
    // Hands the reference over to a callee that consumes it.
    T* release()
    {
        T* pointer = pointer_;
        pointer_ = nullptr;
        return pointer;
    }

private:
    T* pointer_ = nullptr;
};
typedef FrameRef<P11Session, P11Session_release> SessionRef;
typedef FrameRef<P11Obj, P11Obj_destruct> ObjectRef;

// Hands a newly created object's handle back; the frame's reference to the
// object goes with the frame.
CK_RV deliverObject(CK_RV rv, P11Obj* object, CK_OBJECT_HANDLE_PTR phObject)
{
    if (rv == CKR_OK && phObject) {
        P11Token_objectPointerToHandle(pToken, object, phObject);
        TSQ_Trace(4, "Out:");
        traceObject("*phObject", *phObject);
    }
    return rv;
}

}  // namespace

KORVO_EXPORT CK_RV C_GetSlotList(CK_BBOOL tokenPresent, CK_SLOT_ID_PTR pSlotList, CK_ULONG_PTR pulCount)
{
    return frame(
        "C_GetSlotList",
        [&] {
            TSQ_TraceBool(P11TraceContext, 4, "tokenPresent", tokenPresent);
            traceLength("pulCount", pulCount);
        },
        [&]() -> CK_RV {
            if (!pulCount) return CKR_ARGUMENTS_BAD;
            CK_ULONG count = 1;
            if (tokenPresent) {
                CK_BBOOL present = CK_FALSE;
                const CK_RV rv = P11Token_isPresent(pToken, &present);
                if (rv != CKR_OK) return rv;
                count = present ? 1 : 0;
            }
            if (pSlotList && count > *pulCount) {
                *pulCount = count;
                return CKR_BUFFER_TOO_SMALL;
            }
            if (pSlotList && count == 1) pSlotList[0] = 0;
            *pulCount = count;
            TSQ_Trace(4, "Out:");
            traceLength("pulCount", pulCount);
            return CKR_OK;
        });
}

KORVO_EXPORT CK_RV C_GetSlotInfo(CK_SLOT_ID slotID, CK_SLOT_INFO_PTR pInfo)
{
    return frame(
        "C_GetSlotInfo",
        [&] {
            traceHandle("slotID", slotID);
        },
        [&]() -> CK_RV {
            if (!pInfo) return CKR_ARGUMENTS_BAD;
            CK_RV rv = checkSlot(slotID);
            if (rv == CKR_OK) rv = P11Token_getSlotInfo(pToken, pInfo);
            if (rv == CKR_OK) {
                TSQ_Trace(4, "Out:");
                TSQ_TraceSlotInfo(P11TraceContext, 4, "pInfo", pInfo);
            }
            return rv;
        });
}

KORVO_EXPORT CK_RV C_GetTokenInfo(CK_SLOT_ID slotID, CK_TOKEN_INFO_PTR pInfo)
{
    return frame(
        "C_GetTokenInfo",
        [&] {
            traceHandle("slotID", slotID);
        },
        [&]() -> CK_RV {
            if (!pInfo) return CKR_ARGUMENTS_BAD;
            CK_RV rv = checkSlot(slotID);
            if (rv == CKR_OK) rv = P11Token_getTokenInfo(pToken, pInfo);
            if (rv == CKR_OK) {
                TSQ_Trace(4, "Out:");
                TSQ_TraceTokenInfo(P11TraceContext, 4, "pInfo", pInfo);
            }
            return rv;
        });
}

KORVO_EXPORT CK_RV C_GetMechanismList(CK_SLOT_ID slotID, CK_MECHANISM_TYPE_PTR pMechanismList, CK_ULONG_PTR pulCount)
{
    return frame(
        "C_GetMechanismList",
        [&] {
            traceHandle("slotID", slotID);
            traceLength("pulCount", pulCount);
        },
        [&]() -> CK_RV {
            CK_RV rv = checkSlot(slotID);
            if (rv == CKR_OK && !pulCount) rv = CKR_ARGUMENTS_BAD;
            if (rv == CKR_OK) rv = P11Token_getMechanismList(pToken, pMechanismList, pulCount);
            if (rv == CKR_OK) {
                TSQ_Trace(4, "Out:");
                TSQ_TraceMechanismTypes(P11TraceContext, 4, "pMechanismList", pMechanismList, *pulCount);
            }
            return rv;
        });
}

KORVO_EXPORT CK_RV C_GetMechanismInfo(CK_SLOT_ID slotID, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO_PTR pInfo)
{
    return frame(
        "C_GetMechanismInfo",
        [&] {
            traceHandle("slotID", slotID);
            TSQ_Trace(4, "type = %s", mechanismTypeToString(type));
        },
        [&]() -> CK_RV {
            if (!pInfo) return CKR_ARGUMENTS_BAD;
            CK_RV rv = checkSlot(slotID);
            if (rv == CKR_OK) rv = P11Token_getMechanismInfo(pToken, type, pInfo);
            if (rv == CKR_OK) {
                TSQ_Trace(4, "Out:");
                TSQ_TraceMechInfo(P11TraceContext, 4, "pInfo", pInfo);
            }
            return rv;
        });
}

KORVO_EXPORT CK_RV C_InitToken(CK_SLOT_ID slotID, CK_UTF8CHAR_PTR pPin, CK_ULONG ulPinLen, CK_UTF8CHAR_PTR pLabel)
{
    return frame(
        "C_InitToken",
        [&] {
            traceHandle("slotID", slotID);
            TSQ_TraceSecureBytes(P11TraceContext, 4, "pPin", pPin, ulPinLen);
            TSQ_TraceData(P11TraceContext, 4, "pLabel", pLabel, pLabel ? 32 : 0);
        },
        [&]() -> CK_RV {
            CK_RV rv = checkSlot(slotID);
            if (rv == CKR_OK) rv = P11Token_initToken(pToken, pPin, ulPinLen, pLabel);
            return rv;
        });
}

KORVO_EXPORT CK_RV C_InitPIN(CK_SESSION_HANDLE hSession, CK_UTF8CHAR_PTR pPin, CK_ULONG ulPinLen)
{
    return frame(
        "C_InitPIN",
        [&] {
            traceHandle("hSession", hSession);
            TSQ_TraceSecureBytes(P11TraceContext, 4, "pPin", pPin, ulPinLen);
        },
        [&]() -> CK_RV {
            SessionRef session;
            CK_RV rv = sessionOf(hSession, session.out());
            if (rv == CKR_OK) rv = P11Session_initPIN(session, pPin, ulPinLen);
            return rv;
        });
}

KORVO_EXPORT CK_RV C_SetPIN(CK_SESSION_HANDLE hSession, CK_UTF8CHAR_PTR pOldPin, CK_ULONG ulOldLen, CK_UTF8CHAR_PTR pNewPin,
                            CK_ULONG ulNewLen)
{
    return frame(
        "C_SetPIN",
        [&] {
            traceHandle("hSession", hSession);
            TSQ_TraceSecureBytes(P11TraceContext, 4, "pOldPin", pOldPin, ulOldLen);
            TSQ_TraceSecureBytes(P11TraceContext, 4, "pNewPin", pNewPin, ulNewLen);
        },
        [&]() -> CK_RV {
            SessionRef session;
            CK_RV rv = sessionOf(hSession, session.out());
            if (rv == CKR_OK) rv = P11Session_setPIN(session, pOldPin, ulOldLen, pNewPin, ulNewLen);
            return rv;
        });
}

KORVO_EXPORT CK_RV C_OpenSession(CK_SLOT_ID slotID, CK_FLAGS flags, CK_VOID_PTR pApplication, CK_NOTIFY Notify,
                                 CK_SESSION_HANDLE_PTR phSession)
{
    return frame(
        "C_OpenSession",
        [&] {
            traceHandle("slotID", slotID);
            TSQ_Trace(4, "flags = %lu", flags);
        },
        [&]() -> CK_RV {
            CK_RV rv = checkSlot(slotID);
            if (rv == CKR_OK && !phSession) rv = CKR_ARGUMENTS_BAD;
            SessionRef session;
            if (rv == CKR_OK) rv = P11Token_openSession(pToken, flags, pApplication, Notify, session.out());
            if (rv == CKR_OK) {
                P11Token_sessionPointerToHandle(pToken, session, phSession);
                TSQ_Trace(4, "Out:");
                traceHandle("*phSession", *phSession);
            }
            return rv;
        });
}

KORVO_EXPORT CK_RV C_CloseSession(CK_SESSION_HANDLE hSession)
{
    return frame(
        "C_CloseSession",
        [&] {
            traceHandle("hSession", hSession);
        },
        [&]() -> CK_RV {
            SessionRef session;
            CK_RV rv = sessionOf(hSession, session.out());
            if (rv == CKR_OK) rv = P11Session_closeSession(session);
            return rv;
        });
}

KORVO_EXPORT CK_RV C_CloseAllSessions(CK_SLOT_ID slotID)
{
    return frame(
        "C_CloseAllSessions",
        [&] {
            traceHandle("slotID", slotID);
        },
        [&]() -> CK_RV {
            CK_RV rv = checkSlot(slotID);
            if (rv == CKR_OK) rv = P11Token_closeAllSessions(pToken);
            return rv;
        });
}

KORVO_EXPORT CK_RV C_GetSessionInfo(CK_SESSION_HANDLE hSession, CK_SESSION_INFO_PTR pInfo)
{
    return frame(
        "C_GetSessionInfo",
        [&] {
            traceHandle("hSession", hSession);
        },
        [&]() -> CK_RV {
            SessionRef session;
            CK_RV rv = sessionOf(hSession, session.out());
            if (rv == CKR_OK && !pInfo) rv = CKR_ARGUMENTS_BAD;
            if (rv == CKR_OK) rv = P11Session_getSessionInfo(session, pInfo);
            if (rv == CKR_OK) {
                TSQ_Trace(4, "Out:");
                TSQ_TraceSessionInfo(P11TraceContext, 4, "pInfo", pInfo);
            }
            return rv;
        });
}

KORVO_EXPORT CK_RV C_GetOperationState(CK_SESSION_HANDLE hSession, CK_BYTE_PTR, CK_ULONG_PTR pulOperationStateLen)
{
    return frame(
        "C_GetOperationState",
        [&] {
            traceHandle("hSession", hSession);
            traceLength("pulOperationStateLen", pulOperationStateLen);
        },
        [&]() -> CK_RV {
            return CKR_FUNCTION_NOT_SUPPORTED;
        },
        FrameCheck::None);
}

KORVO_EXPORT CK_RV C_SetOperationState(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pOperationState, CK_ULONG ulOperationStateLen,
                                       CK_OBJECT_HANDLE hEncryptionKey, CK_OBJECT_HANDLE hAuthenticationKey)
{
    return frame(
        "C_SetOperationState",
        [&] {
            traceHandle("hSession", hSession);
            TSQ_TraceSecureBytes(P11TraceContext, 4, "pOperationState", pOperationState, ulOperationStateLen);
            traceHandle("hEncryptionKey", hEncryptionKey);
            traceHandle("hAuthenticationKey", hAuthenticationKey);
        },
        [&]() -> CK_RV {
            return CKR_FUNCTION_NOT_SUPPORTED;
        },
        FrameCheck::None);
}

KORVO_EXPORT CK_RV C_Login(CK_SESSION_HANDLE hSession, CK_USER_TYPE userType, CK_UTF8CHAR_PTR pPin, CK_ULONG ulPinLen)
{
    return frame(
        "C_Login",
        [&] {
            traceHandle("hSession", hSession);
            TSQ_Trace(4, "userType = %s", userTypeToString(userType));
            TSQ_TraceSecureBytes(P11TraceContext, 4, "pPin", pPin, ulPinLen);
        },
        [&]() -> CK_RV {
            SessionRef session;
            CK_RV rv = sessionOf(hSession, session.out());
            if (rv == CKR_OK) rv = P11Session_login(session, userType, pPin, ulPinLen);
            return rv;
        });
}

KORVO_EXPORT CK_RV C_Logout(CK_SESSION_HANDLE hSession)
{
    return frame(
        "C_Logout",
        [&] {
            traceHandle("hSession", hSession);
        },
        [&]() -> CK_RV {
            SessionRef session;
            CK_RV rv = sessionOf(hSession, session.out());
            if (rv == CKR_OK) rv = P11Session_logout(session);
            return rv;
        });
}

KORVO_EXPORT CK_RV C_CreateObject(CK_SESSION_HANDLE hSession, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount,
                                  CK_OBJECT_HANDLE_PTR phObject)
{
    return frame(
        "C_CreateObject",
        [&] {
            traceHandle("hSession", hSession);
            TSQ_TraceAttributeValues(P11TraceContext, 4, "pTemplate", pTemplate, ulCount);
        },
        [&]() -> CK_RV {
            SessionRef session;
            CK_RV rv = sessionOf(hSession, session.out());
            ObjectRef object;
            if (rv == CKR_OK && !phObject) rv = CKR_ARGUMENTS_BAD;
            if (rv == CKR_OK) rv = checkTemplate(pTemplate, ulCount);
            if (rv == CKR_OK) rv = P11Obj_SW_construct(object.out());
            if (rv == CKR_OK) rv = P11Obj_createObject(object, session, pTemplate, ulCount);
            return deliverObject(rv, object, phObject);
        });
}

KORVO_EXPORT CK_RV C_CopyObject(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_PTR pTemplate,
                                CK_ULONG ulCount, CK_OBJECT_HANDLE_PTR phNewObject)
{
    return frame(
        "C_CopyObject",
        [&] {
            traceHandle("hSession", hSession);
            traceObject("hObject", hObject);
            TSQ_TraceAttributeValues(P11TraceContext, 4, "pTemplate", pTemplate, ulCount);
        },
        [&]() -> CK_RV {
            SessionRef session;
            ObjectRef source;
            ObjectRef object;
            CK_RV rv = sessionOf(hSession, session.out());
            if (rv == CKR_OK) rv = objectOf(hObject, source.out());
            if (rv == CKR_OK && !phNewObject) rv = CKR_ARGUMENTS_BAD;
            if (rv == CKR_OK) rv = checkTemplate(pTemplate, ulCount);
            if (rv == CKR_OK) rv = P11Obj_SW_construct(object.out());
            if (rv == CKR_OK) rv = P11Obj_copyObject(source, object, session, pTemplate, ulCount);
            return deliverObject(rv, object, phNewObject);
        });
}

KORVO_EXPORT CK_RV C_DestroyObject(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject)
{
    return frame(
        "C_DestroyObject",
        [&] {
            traceHandle("hSession", hSession);
            traceObject("hObject", hObject);
        },
        [&]() -> CK_RV {
            SessionRef session;
            ObjectRef object;
            CK_RV rv = sessionOf(hSession, session.out());
            if (rv == CKR_OK) rv = objectOf(hObject, object.out());
            // The frame's reference goes with the object.
            if (rv == CKR_OK) rv = P11Session_destroyObject(session, object.release());
            return rv;
        });
}

KORVO_EXPORT CK_RV C_GetObjectSize(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, CK_ULONG_PTR)
{
    return frame(
        "C_GetObjectSize",
        [&] {
            traceHandle("hSession", hSession);
            traceHandle("hObject", hObject);
        },
        [&]() -> CK_RV {
            return CKR_FUNCTION_NOT_SUPPORTED;
        },
        FrameCheck::None);
}

KORVO_EXPORT CK_RV C_GetAttributeValue(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_PTR pTemplate,
                                       CK_ULONG ulCount)
{
    return frame(
        "C_GetAttributeValue",
        [&] {
            traceHandle("hSession", hSession);
            traceObject("hObject", hObject);
            TSQ_TraceAttributes(P11TraceContext, 4, "pTemplate", pTemplate, ulCount);
        },
        [&]() -> CK_RV {
            // The session handle is deliberately not looked at.
            ObjectRef object;
            CK_RV rv = objectOf(hObject, object.out());
            if (rv == CKR_OK) {
                rv = P11Obj_getAttributeValues(object, pTemplate, ulCount);
                TSQ_Trace(4, "Out:");
                TSQ_TraceAttributeValues(P11TraceContext, 4, "pTemplate", pTemplate, ulCount);
            }
            return rv;
        });
}

KORVO_EXPORT CK_RV C_SetAttributeValue(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_PTR pTemplate,
                                       CK_ULONG ulCount)
{
    return frame(
        "C_SetAttributeValue",
        [&] {
            traceHandle("hSession", hSession);
            traceObject("hObject", hObject);
            TSQ_TraceAttributeValues(P11TraceContext, 4, "pTemplate", pTemplate, ulCount);
        },
        [&]() -> CK_RV {
            ObjectRef object;
            CK_RV rv = objectOf(hObject, object.out());
            if (rv == CKR_OK) rv = checkTemplate(pTemplate, ulCount);
            if (rv == CKR_OK) rv = P11Obj_setAttributeValues(object, pTemplate, ulCount);
            return rv;
        });
}

KORVO_EXPORT CK_RV C_FindObjectsInit(CK_SESSION_HANDLE hSession, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount)
{
    return frame(
        "C_FindObjectsInit",
        [&] {
            traceHandle("hSession", hSession);
            TSQ_TraceAttributeValues(P11TraceContext, 4, "pTemplate", pTemplate, ulCount);
        },
        [&]() -> CK_RV {
            if (hSession == 0) return CKR_SESSION_HANDLE_INVALID;
            SessionRef session;
            CK_RV rv = sessionOf(hSession, session.out());
            if (rv == CKR_OK) rv = checkTemplate(pTemplate, ulCount);
            if (rv == CKR_OK) rv = P11Session_findObjectsInit(session, pTemplate, ulCount);
            return rv;
        });
}

KORVO_EXPORT CK_RV C_FindObjects(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE_PTR phObject, CK_ULONG ulMaxObjectCount,
                                 CK_ULONG_PTR pulObjectCount)
{
    return frame(
        "C_FindObjects",
        [&] {
            traceHandle("hSession", hSession);
            traceHandle("ulMaxObjectCount", ulMaxObjectCount);
        },
        [&]() -> CK_RV {
            SessionRef session;
            CK_RV rv = sessionOf(hSession, session.out());
            if (rv == CKR_OK && (!pulObjectCount || (ulMaxObjectCount && !phObject))) rv = CKR_ARGUMENTS_BAD;
            if (rv == CKR_OK) rv = P11Session_findObjects(session, phObject, ulMaxObjectCount, pulObjectCount);
            if (rv == CKR_OK) {
                TSQ_Trace(4, "Out:");
                TSQ_TraceObjects(P11TraceContext, 4, "phObject", phObject, *pulObjectCount);
            }
            return rv;
        });
}

KORVO_EXPORT CK_RV C_FindObjectsFinal(CK_SESSION_HANDLE hSession)
{
    return frame(
        "C_FindObjectsFinal",
        [&] {
            traceHandle("hSession", hSession);
        },
        [&]() -> CK_RV {
            SessionRef session;
            CK_RV rv = sessionOf(hSession, session.out());
            if (rv == CKR_OK) rv = P11Session_findObjectsFinal(session);
            return rv;
        });
}

// ---- operations with a key: Init resolves the key, the rest the session ----

#define KEY_INIT(Name, operation)                                                              \
    KORVO_EXPORT CK_RV Name(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,           \
                            CK_OBJECT_HANDLE hKey)                                             \
    {                                                                                          \
        return frame(                                                                          \
            #Name,                                                                             \
            [&] {                                                                              \
                traceHandle("hSession", hSession);                                             \
                traceMechanism(pMechanism);                                                    \
                traceObject("hKey", hKey);                                                     \
            },                                                                                 \
            [&]() -> CK_RV {                                                                   \
                SessionRef session;                                                            \
                ObjectRef key;                                                                 \
                CK_RV rv = sessionOf(hSession, session.out());                                 \
                if (rv == CKR_OK) rv = keyOf(hKey, key.out());                                 \
                if (rv == CKR_OK) rv = checkMechanism(pMechanism);                             \
                if (rv == CKR_OK) rv = operation(session, key, pMechanism);                    \
                return rv;                                                                     \
            });                                                                                \
    }

KEY_INIT(C_EncryptInit, P11Session_encryptInit)
KEY_INIT(C_DecryptInit, P11Session_decryptInit)
KEY_INIT(C_SignInit, P11Session_signInit)
KEY_INIT(C_SignRecoverInit, P11Session_signRecoverInit)
KEY_INIT(C_VerifyInit, P11Session_verifyInit)
KEY_INIT(C_VerifyRecoverInit, P11Session_verifyRecoverInit)

// In and out buffers: the input may be secret, the output is traced when
// the call succeeded with a buffer.
#define IN_OUT_CALL(Name, operation, inLabel, outLabel, secretOut)                             \
    KORVO_EXPORT CK_RV Name(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pIn, CK_ULONG ulInLen,     \
                            CK_BYTE_PTR pOut, CK_ULONG_PTR pulOutLen)                          \
    {                                                                                          \
        return frame(                                                                          \
            #Name,                                                                             \
            [&] {                                                                              \
                traceHandle("hSession", hSession);                                             \
                TSQ_TraceSecureBytes(P11TraceContext, 4, inLabel, pIn, ulInLen);               \
                traceLength(outLabel "Len", pulOutLen);                                        \
            },                                                                                 \
            [&]() -> CK_RV {                                                                   \
                SessionRef session;                                                            \
                CK_RV rv = sessionOf(hSession, session.out());                                 \
                if (rv == CKR_OK) rv = operation(session, pIn, ulInLen, pOut, pulOutLen);      \
                if (rv == CKR_OK && pOut) traceOut(outLabel, pOut, *pulOutLen, secretOut);     \
                return rv;                                                                     \
            });                                                                                \
    }

IN_OUT_CALL(C_Encrypt, P11Session_encrypt, "pData", "pulEncryptedData", false)
IN_OUT_CALL(C_Decrypt, P11Session_decrypt, "pEncryptedData", "pData", true)
IN_OUT_CALL(C_DecryptUpdate, P11Session_decryptUpdate, "pEncryptedPart", "pPart", true)
IN_OUT_CALL(C_Digest, P11Session_digest, "pData", "pDigest", true)
IN_OUT_CALL(C_Sign, P11Session_sign, "pData", "pSignature", false)
IN_OUT_CALL(C_SignRecover, P11Session_signRecover, "pData", "pSignature", false)
IN_OUT_CALL(C_VerifyRecover, P11Session_verifyRecover, "pSignature", "pData", true)

// Encryption updates resolve the session before looking at the initialised
// state: before C_Initialize the missing token answers.
KORVO_EXPORT CK_RV C_EncryptUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen,
                                   CK_BYTE_PTR pEncryptedPart, CK_ULONG_PTR pulEncryptedPartLen)
{
    return frame(
        "C_EncryptUpdate",
        [&] {
            traceHandle("hSession", hSession);
            TSQ_TraceSecureBytes(P11TraceContext, 4, "pPart", pPart, ulPartLen);
            traceLength("pulEncryptedPartLen", pulEncryptedPartLen);
        },
        [&]() -> CK_RV {
            SessionRef session;
            CK_RV rv = sessionOf(hSession, session.out());
            if (rv == CKR_OK && !initialized) rv = CKR_CRYPTOKI_NOT_INITIALIZED;
            if (rv == CKR_OK) rv = P11Session_encryptUpdate(session, pPart, ulPartLen, pEncryptedPart, pulEncryptedPartLen);
            if (rv == CKR_OK && pEncryptedPart) {
                TSQ_Trace(4, "Out:");
                TSQ_TraceBytes(P11TraceContext, 4, "pEncryptedPart", pEncryptedPart, *pulEncryptedPartLen);
            }
            return rv;
        },
        FrameCheck::None);
}

// Final calls: an output buffer and its length.
#define FINAL_CALL(Name, operation, outLabel, secretOut)                                       \
    KORVO_EXPORT CK_RV Name(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pOut, CK_ULONG_PTR pulOutLen) \
    {                                                                                          \
        return frame(                                                                          \
            #Name,                                                                             \
            [&] {                                                                              \
                traceHandle("hSession", hSession);                                             \
                traceLength(outLabel "Len", pulOutLen);                                        \
            },                                                                                 \
            [&]() -> CK_RV {                                                                   \
                SessionRef session;                                                            \
                CK_RV rv = sessionOf(hSession, session.out());                                 \
                if (rv == CKR_OK) rv = operation(session, pOut, pulOutLen);                    \
                if (rv == CKR_OK && pOut) traceOut(outLabel, pOut, *pulOutLen, secretOut);     \
                return rv;                                                                     \
            });                                                                                \
    }

FINAL_CALL(C_EncryptFinal, P11Session_encryptFinal, "pLastEncryptedPart", false)
FINAL_CALL(C_DecryptFinal, P11Session_decryptFinal, "pLastPart", true)
FINAL_CALL(C_DigestFinal, P11Session_digestFinal, "pDigest", true)
FINAL_CALL(C_SignFinal, P11Session_signFinal, "pSignature", false)

// Update calls without output.
#define UPDATE_CALL(Name, operation)                                                           \
    KORVO_EXPORT CK_RV Name(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen) \
    {                                                                                          \
        return frame(                                                                          \
            #Name,                                                                             \
            [&] {                                                                              \
                traceHandle("hSession", hSession);                                             \
                TSQ_TraceSecureBytes(P11TraceContext, 4, "pPart", pPart, ulPartLen);           \
            },                                                                                 \
            [&]() -> CK_RV {                                                                   \
                SessionRef session;                                                            \
                CK_RV rv = sessionOf(hSession, session.out());                                 \
                if (rv == CKR_OK) rv = operation(session, pPart, ulPartLen);                   \
                return rv;                                                                     \
            });                                                                                \
    }

UPDATE_CALL(C_DigestUpdate, P11Session_digestUpdate)
UPDATE_CALL(C_SignUpdate, P11Session_signUpdate)
UPDATE_CALL(C_VerifyUpdate, P11Session_verifyUpdate)

KORVO_EXPORT CK_RV C_DigestInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism)
{
    return frame(
        "C_DigestInit",
        [&] {
            traceHandle("hSession", hSession);
            traceMechanism(pMechanism);
        },
        [&]() -> CK_RV {
            SessionRef session;
            CK_RV rv = sessionOf(hSession, session.out());
            if (rv == CKR_OK) rv = checkMechanism(pMechanism);
            if (rv == CKR_OK) rv = P11Session_digestInit(session, pMechanism);
            return rv;
        });
}

KORVO_EXPORT CK_RV C_DigestKey(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hKey)
{
    return frame(
        "C_DigestKey",
        [&] {
            traceHandle("hSession", hSession);
            traceObject("hKey", hKey);
        },
        [&]() -> CK_RV {
            SessionRef session;
            ObjectRef key;
            CK_RV rv = sessionOf(hSession, session.out());
            if (rv == CKR_OK) rv = keyOf(hKey, key.out());
            if (rv == CKR_OK) rv = P11Session_digestKey(session, key);
            return rv;
        });
}

KORVO_EXPORT CK_RV C_Verify(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen, CK_BYTE_PTR pSignature,
                            CK_ULONG ulSignatureLen)
{
    return frame(
        "C_Verify",
        [&] {
            traceHandle("hSession", hSession);
            TSQ_TraceSecureBytes(P11TraceContext, 4, "pData", pData, ulDataLen);
            TSQ_TraceBytes(P11TraceContext, 4, "pSignature", pSignature, ulSignatureLen);
        },
        [&]() -> CK_RV {
            SessionRef session;
            CK_RV rv = sessionOf(hSession, session.out());
            if (rv == CKR_OK) rv = P11Session_verify(session, pData, ulDataLen, pSignature, ulSignatureLen);
            return rv;
        });
}

KORVO_EXPORT CK_RV C_VerifyFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pSignature, CK_ULONG ulSignatureLen)
{
    return frame(
        "C_VerifyFinal",
        [&] {
            traceHandle("hSession", hSession);
            TSQ_TraceBytes(P11TraceContext, 4, "pSignature", pSignature, ulSignatureLen);
        },
        [&]() -> CK_RV {
            SessionRef session;
            CK_RV rv = sessionOf(hSession, session.out());
            if (rv == CKR_OK) rv = P11Session_verifyFinal(session, pSignature, ulSignatureLen);
            return rv;
        });
}

// Dual-function calls are not offered.
#define DUAL_CALL(Name)                                                                        \
    KORVO_EXPORT CK_RV Name(CK_SESSION_HANDLE hSession, CK_BYTE_PTR, CK_ULONG ulInLen,         \
                            CK_BYTE_PTR, CK_ULONG_PTR)                                         \
    {                                                                                          \
        return frame(                                                                          \
            #Name,                                                                             \
            [&] {                                                                              \
                traceHandle("hSession", hSession);                                             \
                traceHandle("ulInLen", ulInLen);                                               \
            },                                                                                 \
            [] { return CKR_FUNCTION_NOT_SUPPORTED; }, FrameCheck::None);                      \
    }

DUAL_CALL(C_DigestEncryptUpdate)
DUAL_CALL(C_DecryptDigestUpdate)
DUAL_CALL(C_SignEncryptUpdate)
DUAL_CALL(C_DecryptVerifyUpdate)

KORVO_EXPORT CK_RV C_GenerateKey(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_ATTRIBUTE_PTR pTemplate,
                                 CK_ULONG ulCount, CK_OBJECT_HANDLE_PTR phKey)
{
    return frame(
        "C_GenerateKey",
        [&] {
            traceHandle("hSession", hSession);
            traceMechanism(pMechanism);
            TSQ_TraceAttributeValues(P11TraceContext, 4, "pTemplate", pTemplate, ulCount);
        },
        [&]() -> CK_RV {
            SessionRef session;
            ObjectRef object;
            CK_RV rv = sessionOf(hSession, session.out());
            if (rv == CKR_OK && !phKey) rv = CKR_ARGUMENTS_BAD;
            if (rv == CKR_OK) rv = checkMechanism(pMechanism);
            if (rv == CKR_OK) rv = checkTemplate(pTemplate, ulCount);
            if (rv == CKR_OK) rv = P11Obj_SW_construct(object.out());
            if (rv == CKR_OK) rv = P11Obj_createAndGenerateKey(object, pMechanism, pTemplate, ulCount, session);
            return deliverObject(rv, object, phKey);
        });
}

KORVO_EXPORT CK_RV C_GenerateKeyPair(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,
                                     CK_ATTRIBUTE_PTR pPublicKeyTemplate, CK_ULONG ulPublicKeyAttributeCount,
                                     CK_ATTRIBUTE_PTR pPrivateKeyTemplate, CK_ULONG ulPrivateKeyAttributeCount,
                                     CK_OBJECT_HANDLE_PTR phPublicKey, CK_OBJECT_HANDLE_PTR phPrivateKey)
{
    return frame(
        "C_GenerateKeyPair",
        [&] {
            traceHandle("hSession", hSession);
            traceMechanism(pMechanism);
            TSQ_TraceAttributeValues(P11TraceContext, 4, "pPublicKeyTemplate", pPublicKeyTemplate, ulPublicKeyAttributeCount);
            TSQ_TraceAttributeValues(P11TraceContext, 4, "pPrivateKeyTemplate", pPrivateKeyTemplate, ulPrivateKeyAttributeCount);
        },
        [&]() -> CK_RV {
            SessionRef session;
            ObjectRef publicKey;
            ObjectRef privateKey;
            CK_RV rv = sessionOf(hSession, session.out());
            if (rv == CKR_OK && (!phPublicKey || !phPrivateKey)) rv = CKR_ARGUMENTS_BAD;
            if (rv == CKR_OK) rv = checkMechanism(pMechanism);
            if (rv == CKR_OK) rv = checkTemplate(pPublicKeyTemplate, ulPublicKeyAttributeCount);
            if (rv == CKR_OK) rv = checkTemplate(pPrivateKeyTemplate, ulPrivateKeyAttributeCount);
            if (rv == CKR_OK) rv = P11Obj_SW_construct(publicKey.out());
            if (rv == CKR_OK) rv = P11Obj_SW_construct(privateKey.out());
            if (rv == CKR_OK)
                rv = P11Obj_createAndGenerateKeyPair(publicKey, privateKey, pMechanism, pPublicKeyTemplate, ulPublicKeyAttributeCount,
                                                     pPrivateKeyTemplate, ulPrivateKeyAttributeCount, session);
            if (rv == CKR_OK) {
                if (phPublicKey) P11Token_objectPointerToHandle(pToken, publicKey, phPublicKey);
                if (phPrivateKey) P11Token_objectPointerToHandle(pToken, privateKey, phPrivateKey);
                TSQ_Trace(4, "Out:");
                if (phPublicKey) traceObject("*phPublicKey", *phPublicKey);
                if (phPrivateKey) traceObject("*phPrivateKey", *phPrivateKey);
            }
            return rv;
        });
}

KORVO_EXPORT CK_RV C_WrapKey(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hWrappingKey,
                             CK_OBJECT_HANDLE hKey, CK_BYTE_PTR pWrappedKey, CK_ULONG_PTR pulWrappedKeyLen)
{
    return frame(
        "C_WrapKey",
        [&] {
            traceHandle("hSession", hSession);
            traceMechanism(pMechanism);
            traceObject("hWrappingKey", hWrappingKey);
            traceObject("hKey", hKey);
            traceLength("pulWrappedKeyLen", pulWrappedKeyLen);
        },
        [&]() -> CK_RV {
            SessionRef session;
            ObjectRef wrappingKey;
            ObjectRef key;
            CK_RV rv = sessionOf(hSession, session.out());
            if (rv == CKR_OK) rv = keyOf(hWrappingKey, wrappingKey.out());
            if (rv == CKR_OK) rv = keyOf(hKey, key.out());
            if (rv == CKR_OK && !pulWrappedKeyLen) rv = CKR_ARGUMENTS_BAD;
            if (rv == CKR_OK) rv = checkMechanism(pMechanism);
            if (rv == CKR_OK) rv = P11Obj_wrapKey(wrappingKey, session, pMechanism, key, pWrappedKey, pulWrappedKeyLen);
            if (rv == CKR_OK && pWrappedKey) {
                TSQ_Trace(4, "Out:");
                TSQ_TraceSecureBytes(P11TraceContext, 4, "pWrappedKey", pWrappedKey, *pulWrappedKeyLen);
            }
            return rv;
        });
}

KORVO_EXPORT CK_RV C_UnwrapKey(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hUnwrappingKey,
                               CK_BYTE_PTR pWrappedKey, CK_ULONG ulWrappedKeyLen, CK_ATTRIBUTE_PTR pTemplate,
                               CK_ULONG ulAttributeCount, CK_OBJECT_HANDLE_PTR phKey)
{
    return frame(
        "C_UnwrapKey",
        [&] {
            traceHandle("hSession", hSession);
            traceMechanism(pMechanism);
            traceObject("hUnwrappingKey", hUnwrappingKey);
            TSQ_TraceSecureBytes(P11TraceContext, 4, "pWrappedKey", pWrappedKey, ulWrappedKeyLen);
            TSQ_TraceAttributeValues(P11TraceContext, 4, "pTemplate", pTemplate, ulAttributeCount);
        },
        [&]() -> CK_RV {
            SessionRef session;
            ObjectRef unwrappingKey;
            ObjectRef object;
            CK_RV rv = sessionOf(hSession, session.out());
            if (rv == CKR_OK) rv = keyOf(hUnwrappingKey, unwrappingKey.out());
            if (rv == CKR_OK && !phKey) rv = CKR_ARGUMENTS_BAD;
            if (rv == CKR_OK) rv = checkMechanism(pMechanism);
            if (rv == CKR_OK) rv = checkBytes(pWrappedKey, ulWrappedKeyLen);
            if (rv == CKR_OK) rv = checkTemplate(pTemplate, ulAttributeCount);
            if (rv == CKR_OK) rv = P11Obj_SW_construct(object.out());
            if (rv == CKR_OK)
                rv = P11Obj_createAndUnwrapKey(unwrappingKey, pMechanism, pTemplate, ulAttributeCount, session, pWrappedKey,
                                               ulWrappedKeyLen, object);
            return deliverObject(rv, object, phKey);
        });
}

KORVO_EXPORT CK_RV C_DeriveKey(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hBaseKey,
                               CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulAttributeCount, CK_OBJECT_HANDLE_PTR phKey)
{
    return frame(
        "C_DeriveKey",
        [&] {
            traceHandle("hSession", hSession);
            traceMechanism(pMechanism);
            traceObject("hBaseKey", hBaseKey);
            TSQ_TraceAttributeValues(P11TraceContext, 4, "pTemplate", pTemplate, ulAttributeCount);
        },
        [&]() -> CK_RV {
            SessionRef session;
            ObjectRef baseKey;
            ObjectRef object;
            CK_RV rv = sessionOf(hSession, session.out());
            if (rv == CKR_OK) rv = keyOf(hBaseKey, baseKey.out());
            if (rv == CKR_OK) rv = checkMechanism(pMechanism);
            if (rv == CKR_OK) rv = checkTemplate(pTemplate, ulAttributeCount);
            if (rv == CKR_OK) rv = P11Obj_SW_construct(object.out());
            if (rv == CKR_OK) rv = P11Obj_createAndDeriveKey(baseKey, pMechanism, pTemplate, ulAttributeCount, session, object);
            if (rv == CKR_OK && !phKey) {
                // Derivations whose results travel in the mechanism parameter leave
                // no new object behind; one that was registered is unregistered.
                P11Obj* made = object.release();
                if (made->session || made->token)
                    P11Obj_destroyObject(&made, session);
                else
                    P11Obj_destruct(&made);
                return CKR_OK;
            }
            return deliverObject(rv, object, phKey);
        });
}

KORVO_EXPORT CK_RV C_SeedRandom(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pSeed, CK_ULONG ulSeedLen)
{
    return frame(
        "C_SeedRandom",
        [&] {
            traceHandle("hSession", hSession);
            TSQ_TraceSecureBytes(P11TraceContext, 4, "pSeed", pSeed, ulSeedLen);
        },
        [&]() -> CK_RV {
            if (ulSeedLen && !pSeed) return CKR_ARGUMENTS_BAD;
            SessionRef session;
            CK_RV rv = sessionOf(hSession, session.out());
            if (rv == CKR_OK) rv = P11Session_seedRandom(session, pSeed, ulSeedLen);
            return rv;
        });
}

KORVO_EXPORT CK_RV C_GenerateRandom(CK_SESSION_HANDLE hSession, CK_BYTE_PTR RandomData, CK_ULONG ulRandomLen)
{
    return frame(
        "C_GenerateRandom",
        [&] {
            traceHandle("hSession", hSession);
            traceHandle("ulRandomLen", ulRandomLen);
        },
        [&]() -> CK_RV {
            SessionRef session;
            CK_RV rv = sessionOf(hSession, session.out());
            if (rv == CKR_OK && ulRandomLen && !RandomData) rv = CKR_ARGUMENTS_BAD;
            if (rv == CKR_OK) rv = P11Session_generateRandom(session, RandomData, ulRandomLen);
            if (rv == CKR_OK) {
                TSQ_Trace(4, "Out:");
                TSQ_TraceSecureBytes(P11TraceContext, 4, "RandomData", RandomData, ulRandomLen);
            }
            return rv;
        });
}

KORVO_EXPORT CK_RV C_GetFunctionStatus(CK_SESSION_HANDLE hSession)
{
    return frame(
        "C_GetFunctionStatus",
        [&] {
            traceHandle("hSession", hSession);
        },
        [&]() -> CK_RV {
            return CKR_FUNCTION_NOT_PARALLEL;
        },
        FrameCheck::None);
}

KORVO_EXPORT CK_RV C_CancelFunction(CK_SESSION_HANDLE hSession)
{
    return frame(
        "C_CancelFunction",
        [&] {
            traceHandle("hSession", hSession);
        },
        [&]() -> CK_RV {
            return CKR_FUNCTION_NOT_PARALLEL;
        },
        FrameCheck::None);
}

KORVO_EXPORT CK_RV C_WaitForSlotEvent(CK_FLAGS flags, CK_SLOT_ID_PTR pSlot, CK_VOID_PTR pReserved)
{
    return frame(
        "C_WaitForSlotEvent",
        [&] {
            TSQ_Trace(4, "flags = %lu", flags);
            TSQ_Trace(4, "pReserved = %p", pReserved);
        },
        [&]() -> CK_RV {
            return P11Token_waitForSlotEvent(pToken, flags, pSlot);
        });
}
