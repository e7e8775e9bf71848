// Sessions through the function list: handles, session state, login and
// logout shared by all sessions, unknown handles, the rule of one active
// operation per session, searches over the empty token and random data.

#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "abi/module_harness.h"

namespace {

class Sessions : public korvo::InitializedTest {
protected:
    CK_UTF8CHAR pin[5] = "1234";

    CK_STATE state(CK_SESSION_HANDLE session)
    {
        CK_SESSION_INFO info;
        memset(&info, 0xA5, sizeof info);
        EXPECT_EQ(p->C_GetSessionInfo(session, &info), CKR_OK);
        return info.state;
    }

    // Feeds "abc" to the running SHA-1 digest and checks the result.
    void expectSha1OfAbcCompletes(CK_SESSION_HANDLE session)
    {
        CK_BYTE abc[] = {'a', 'b', 'c'};
        CK_BYTE digest[20];
        CK_ULONG length = sizeof digest;
        ASSERT_EQ(p->C_DigestUpdate(session, abc, sizeof abc), CKR_OK);
        ASSERT_EQ(p->C_DigestFinal(session, digest, &length), CKR_OK);
        EXPECT_EQ(korvo::hex(digest, length), "a9993e364706816aba3e25717850c26c9cd0d89d");
    }

    void startSha1(CK_SESSION_HANDLE session)
    {
        CK_MECHANISM sha1 = {CKM_SHA_1, nullptr, 0};
        ASSERT_EQ(p->C_DigestInit(session, &sha1), CKR_OK);
    }

    // True when no operation is active: a search can begin and end.
    bool idle(CK_SESSION_HANDLE session)
    {
        if (p->C_FindObjectsInit(session, nullptr, 0) != CKR_OK) return false;
        return p->C_FindObjectsFinal(session) == CKR_OK;
    }
};

}  // namespace

// ---- Handles and opening -------------------------------------------------

TEST_F(Sessions, HandlesCountUpFromOneAndAreNeverReused)
{
    EXPECT_EQ(openSession(), 1u);
    const CK_SESSION_HANDLE second = openSession(CKF_SERIAL_SESSION | CKF_RW_SESSION);
    EXPECT_EQ(second, 2u);
    ASSERT_EQ(p->C_CloseSession(second), CKR_OK);
    EXPECT_EQ(openSession(), 3u);
}

TEST_F(Sessions, ParallelSessionsAreRefusedButUseUpAHandle)
{
    CK_SESSION_HANDLE session = 0;
    EXPECT_EQ(p->C_OpenSession(0, 0, nullptr, nullptr, &session), CKR_SESSION_PARALLEL_NOT_SUPPORTED);
    EXPECT_EQ(p->C_OpenSession(0, CKF_RW_SESSION, nullptr, nullptr, &session), CKR_SESSION_PARALLEL_NOT_SUPPORTED);
    EXPECT_EQ(p->C_OpenSession(1, CKF_SERIAL_SESSION, nullptr, nullptr, &session), CKR_SLOT_ID_INVALID);
    // The handle is drawn before the flags are looked at.
    EXPECT_EQ(openSession(), 3u);
}

TEST_F(Sessions, SessionInfoReportsSlotFlagsAndPublicState)
{
    const CK_SESSION_HANDLE ro = openSession();
    const CK_SESSION_HANDLE rw = openSession(CKF_SERIAL_SESSION | CKF_RW_SESSION);
    CK_SESSION_INFO info;
    memset(&info, 0xA5, sizeof info);
    ASSERT_EQ(p->C_GetSessionInfo(ro, &info), CKR_OK);
    EXPECT_EQ(info.slotID, 0u);
    EXPECT_EQ(info.state, CKS_RO_PUBLIC_SESSION);
    EXPECT_EQ(info.flags, CKF_SERIAL_SESSION);
    EXPECT_EQ(info.ulDeviceError, 0u);

    memset(&info, 0xA5, sizeof info);
    ASSERT_EQ(p->C_GetSessionInfo(rw, &info), CKR_OK);
    EXPECT_EQ(info.slotID, 0u);
    EXPECT_EQ(info.state, CKS_RW_PUBLIC_SESSION);
    EXPECT_EQ(info.flags, CKF_SERIAL_SESSION | CKF_RW_SESSION);
    EXPECT_EQ(info.ulDeviceError, 0u);
}

// ---- Login and logout --------------------------------------------------------

TEST_F(Sessions, UserLoginThroughOneSessionLogsInEverySession)
{
    const CK_SESSION_HANDLE ro = openSession();
    const CK_SESSION_HANDLE rw = openSession(CKF_SERIAL_SESSION | CKF_RW_SESSION);
    // The token accepts any user PIN.
    ASSERT_EQ(p->C_Login(ro, CKU_USER, pin, 4), CKR_OK);
    EXPECT_EQ(state(ro), CKS_RO_USER_FUNCTIONS);
    EXPECT_EQ(state(rw), CKS_RW_USER_FUNCTIONS);
    // A session opened afterwards is logged in as well.
    EXPECT_EQ(state(openSession()), CKS_RO_USER_FUNCTIONS);

    EXPECT_EQ(p->C_Login(rw, CKU_USER, pin, 4), CKR_USER_ALREADY_LOGGED_IN);
    EXPECT_EQ(p->C_Login(rw, CKU_SO, pin, 4), CKR_USER_ANOTHER_ALREADY_LOGGED_IN);

    ASSERT_EQ(p->C_Logout(rw), CKR_OK);
    EXPECT_EQ(state(ro), CKS_RO_PUBLIC_SESSION);
    EXPECT_EQ(state(rw), CKS_RW_PUBLIC_SESSION);
    EXPECT_EQ(p->C_Logout(ro), CKR_USER_NOT_LOGGED_IN);
}

TEST_F(Sessions, LoginRefusesOtherUserTypesAndTheSecurityOfficer)
{
    const CK_SESSION_HANDLE session = openSession(CKF_SERIAL_SESSION | CKF_RW_SESSION);
    EXPECT_EQ(p->C_Login(session, CKU_CONTEXT_SPECIFIC, pin, 4), CKR_ARGUMENTS_BAD);
    EXPECT_EQ(p->C_Login(session, 7, pin, 4), CKR_ARGUMENTS_BAD);
    EXPECT_EQ(p->C_Login(session, CKU_SO, pin, 4), CKR_PIN_INCORRECT);
    EXPECT_EQ(state(session), CKS_RW_PUBLIC_SESSION);
    // The refused officer left nobody logged in: read-only sessions still open.
    EXPECT_NE(openSession(), CK_INVALID_HANDLE);
    EXPECT_EQ(p->C_Logout(session), CKR_USER_NOT_LOGGED_IN);
}

TEST_F(Sessions, ClosingTheLastSessionLogsOut)
{
    const CK_SESSION_HANDLE first = openSession();
    const CK_SESSION_HANDLE second = openSession();
    ASSERT_EQ(p->C_Login(first, CKU_USER, pin, 4), CKR_OK);
    ASSERT_EQ(p->C_CloseSession(first), CKR_OK);
    EXPECT_EQ(state(second), CKS_RO_USER_FUNCTIONS);
    ASSERT_EQ(p->C_CloseSession(second), CKR_OK);

    const CK_SESSION_HANDLE fresh = openSession();
    EXPECT_EQ(state(fresh), CKS_RO_PUBLIC_SESSION);
    EXPECT_EQ(p->C_Login(fresh, CKU_USER, pin, 4), CKR_OK);
}

TEST_F(Sessions, CloseAllSessionsClosesEverySessionAndLogsOut)
{
    const CK_SESSION_HANDLE a = openSession();
    const CK_SESSION_HANDLE b = openSession(CKF_SERIAL_SESSION | CKF_RW_SESSION);
    ASSERT_EQ(p->C_Login(a, CKU_USER, pin, 4), CKR_OK);
    EXPECT_EQ(p->C_CloseAllSessions(1), CKR_SLOT_ID_INVALID);
    ASSERT_EQ(p->C_CloseAllSessions(0), CKR_OK);

    CK_SESSION_INFO info;
    EXPECT_EQ(p->C_GetSessionInfo(a, &info), CKR_SESSION_CLOSED);
    EXPECT_EQ(p->C_GetSessionInfo(b, &info), CKR_SESSION_CLOSED);
    EXPECT_EQ(p->C_CloseSession(b), CKR_SESSION_CLOSED);
    EXPECT_EQ(state(openSession()), CKS_RO_PUBLIC_SESSION);
    EXPECT_EQ(p->C_CloseAllSessions(0), CKR_OK);
}

// ---- Unknown handles ------------------------------------------------------------

TEST_F(Sessions, UnknownSessionHandlesReportSessionClosed)
{
    const CK_SESSION_HANDLE closed = openSession();
    ASSERT_EQ(p->C_CloseSession(closed), CKR_OK);
    openSession();  // handle 2 exists, but its neighbours do not

    CK_BYTE buffer[64] = {};
    CK_ULONG length = sizeof buffer;
    CK_ULONG count = 0;
    CK_OBJECT_HANDLE objects[4];
    CK_SESSION_INFO info;
    CK_MECHANISM sha1 = {CKM_SHA_1, nullptr, 0};
    CK_MECHANISM rsa = {CKM_RSA_PKCS, nullptr, 0};
    CK_UTF8CHAR pin[] = "1234";

    const std::vector<std::pair<const char*, std::function<CK_RV(CK_SESSION_HANDLE)>>> calls = {
        {"C_CloseSession", [&](CK_SESSION_HANDLE h) { return p->C_CloseSession(h); }},
        {"C_GetSessionInfo", [&](CK_SESSION_HANDLE h) { return p->C_GetSessionInfo(h, &info); }},
        {"C_Login", [&](CK_SESSION_HANDLE h) { return p->C_Login(h, CKU_USER, pin, 4); }},
        {"C_Logout", [&](CK_SESSION_HANDLE h) { return p->C_Logout(h); }},
        {"C_InitPIN", [&](CK_SESSION_HANDLE h) { return p->C_InitPIN(h, pin, 4); }},
        {"C_SetPIN", [&](CK_SESSION_HANDLE h) { return p->C_SetPIN(h, pin, 4, pin, 4); }},
        {"C_DestroyObject", [&](CK_SESSION_HANDLE h) { return p->C_DestroyObject(h, 2); }},
        {"C_FindObjectsInit", [&](CK_SESSION_HANDLE h) { return p->C_FindObjectsInit(h, nullptr, 0); }},
        {"C_FindObjects", [&](CK_SESSION_HANDLE h) { return p->C_FindObjects(h, objects, 4, &count); }},
        {"C_FindObjectsFinal", [&](CK_SESSION_HANDLE h) { return p->C_FindObjectsFinal(h); }},
        {"C_EncryptInit", [&](CK_SESSION_HANDLE h) { return p->C_EncryptInit(h, &rsa, 2); }},
        {"C_Encrypt", [&](CK_SESSION_HANDLE h) { return p->C_Encrypt(h, buffer, 8, buffer, &length); }},
        {"C_EncryptUpdate", [&](CK_SESSION_HANDLE h) { return p->C_EncryptUpdate(h, buffer, 8, buffer, &length); }},
        {"C_EncryptFinal", [&](CK_SESSION_HANDLE h) { return p->C_EncryptFinal(h, buffer, &length); }},
        {"C_DecryptInit", [&](CK_SESSION_HANDLE h) { return p->C_DecryptInit(h, &rsa, 2); }},
        {"C_Decrypt", [&](CK_SESSION_HANDLE h) { return p->C_Decrypt(h, buffer, 8, buffer, &length); }},
        {"C_DecryptUpdate", [&](CK_SESSION_HANDLE h) { return p->C_DecryptUpdate(h, buffer, 8, buffer, &length); }},
        {"C_DecryptFinal", [&](CK_SESSION_HANDLE h) { return p->C_DecryptFinal(h, buffer, &length); }},
        {"C_DigestInit", [&](CK_SESSION_HANDLE h) { return p->C_DigestInit(h, &sha1); }},
        {"C_Digest", [&](CK_SESSION_HANDLE h) { return p->C_Digest(h, buffer, 8, buffer, &length); }},
        {"C_DigestUpdate", [&](CK_SESSION_HANDLE h) { return p->C_DigestUpdate(h, buffer, 8); }},
        {"C_DigestKey", [&](CK_SESSION_HANDLE h) { return p->C_DigestKey(h, 2); }},
        {"C_DigestFinal", [&](CK_SESSION_HANDLE h) { return p->C_DigestFinal(h, buffer, &length); }},
        {"C_SignInit", [&](CK_SESSION_HANDLE h) { return p->C_SignInit(h, &rsa, 2); }},
        {"C_Sign", [&](CK_SESSION_HANDLE h) { return p->C_Sign(h, buffer, 8, buffer, &length); }},
        {"C_SignUpdate", [&](CK_SESSION_HANDLE h) { return p->C_SignUpdate(h, buffer, 8); }},
        {"C_SignFinal", [&](CK_SESSION_HANDLE h) { return p->C_SignFinal(h, buffer, &length); }},
        {"C_SignRecoverInit", [&](CK_SESSION_HANDLE h) { return p->C_SignRecoverInit(h, &rsa, 2); }},
        {"C_SignRecover", [&](CK_SESSION_HANDLE h) { return p->C_SignRecover(h, buffer, 8, buffer, &length); }},
        {"C_VerifyInit", [&](CK_SESSION_HANDLE h) { return p->C_VerifyInit(h, &rsa, 2); }},
        {"C_Verify", [&](CK_SESSION_HANDLE h) { return p->C_Verify(h, buffer, 8, buffer, 8); }},
        {"C_VerifyUpdate", [&](CK_SESSION_HANDLE h) { return p->C_VerifyUpdate(h, buffer, 8); }},
        {"C_VerifyFinal", [&](CK_SESSION_HANDLE h) { return p->C_VerifyFinal(h, buffer, 8); }},
        {"C_VerifyRecoverInit", [&](CK_SESSION_HANDLE h) { return p->C_VerifyRecoverInit(h, &rsa, 2); }},
        {"C_VerifyRecover", [&](CK_SESSION_HANDLE h) { return p->C_VerifyRecover(h, buffer, 8, buffer, &length); }},
        {"C_WrapKey", [&](CK_SESSION_HANDLE h) { return p->C_WrapKey(h, &rsa, 2, 2, buffer, &length); }},
        {"C_SeedRandom", [&](CK_SESSION_HANDLE h) { return p->C_SeedRandom(h, buffer, 8); }},
        {"C_GenerateRandom", [&](CK_SESSION_HANDLE h) { return p->C_GenerateRandom(h, buffer, 8); }},
    };
    for (const auto& [name, call] : calls) {
        for (CK_SESSION_HANDLE unknown : {closed, CK_SESSION_HANDLE(3), CK_SESSION_HANDLE(0xFFFFFFFF)}) {
            length = sizeof buffer;
            EXPECT_EQ(call(unknown), CKR_SESSION_CLOSED) << name << " with handle " << unknown;
        }
    }
}

TEST_F(Sessions, FindObjectsInitTellsHandleZeroApart)
{
    openSession();
    CK_ULONG count = 0;
    CK_OBJECT_HANDLE object;
    EXPECT_EQ(p->C_FindObjectsInit(0, nullptr, 0), CKR_SESSION_HANDLE_INVALID);
    EXPECT_EQ(p->C_FindObjects(0, &object, 1, &count), CKR_SESSION_CLOSED);
    EXPECT_EQ(p->C_FindObjectsFinal(0), CKR_SESSION_CLOSED);
}

TEST_F(Sessions, AttributeFunctionsLookOnlyAtTheObjectHandle)
{
    CK_BYTE label[32];
    CK_ATTRIBUTE attribute = {CKA_LABEL, label, sizeof label};
    // No session is open at all: the object look-up decides.
    EXPECT_EQ(p->C_GetAttributeValue(5, 6, &attribute, 1), CKR_OBJECT_HANDLE_INVALID);
    EXPECT_EQ(p->C_SetAttributeValue(5, 6, &attribute, 1), CKR_OBJECT_HANDLE_INVALID);
}

TEST_F(Sessions, UnknownKeysReportKeyHandleInvalidAndLeaveTheSessionIdle)
{
    const CK_SESSION_HANDLE session = openSession();
    const CK_OBJECT_HANDLE unknown = 99;
    CK_MECHANISM rsa = {CKM_RSA_PKCS, nullptr, 0};
    CK_BYTE buffer[64];
    CK_ULONG length = sizeof buffer;

    EXPECT_EQ(p->C_EncryptInit(session, &rsa, unknown), CKR_KEY_HANDLE_INVALID);
    EXPECT_EQ(p->C_DecryptInit(session, &rsa, unknown), CKR_KEY_HANDLE_INVALID);
    EXPECT_EQ(p->C_SignInit(session, &rsa, unknown), CKR_KEY_HANDLE_INVALID);
    EXPECT_EQ(p->C_SignRecoverInit(session, &rsa, unknown), CKR_KEY_HANDLE_INVALID);
    EXPECT_EQ(p->C_VerifyInit(session, &rsa, unknown), CKR_KEY_HANDLE_INVALID);
    EXPECT_EQ(p->C_VerifyRecoverInit(session, &rsa, unknown), CKR_KEY_HANDLE_INVALID);
    EXPECT_EQ(p->C_WrapKey(session, &rsa, unknown, unknown, buffer, &length), CKR_KEY_HANDLE_INVALID);
    // The session's own handle is not an object handle.
    EXPECT_EQ(p->C_SignInit(session, &rsa, session), CKR_KEY_HANDLE_INVALID);
    // Object functions keep the object code.
    EXPECT_EQ(p->C_DestroyObject(session, unknown), CKR_OBJECT_HANDLE_INVALID);
    EXPECT_TRUE(idle(session));
}

// ---- One operation at a time ---------------------------------------------------------

TEST_F(Sessions, OperationCallsWithoutInitAreRefused)
{
    const CK_SESSION_HANDLE session = openSession();
    CK_BYTE buffer[64] = {};
    CK_ULONG length = sizeof buffer;
    CK_ULONG count = 0;
    CK_OBJECT_HANDLE objects[2];
    const CK_RV notInit = CKR_OPERATION_NOT_INITIALIZED;

    EXPECT_EQ(p->C_FindObjects(session, objects, 2, &count), notInit);
    EXPECT_EQ(p->C_FindObjectsFinal(session), notInit);
    EXPECT_EQ(p->C_Digest(session, buffer, 8, buffer, &length), notInit);
    EXPECT_EQ(p->C_DigestUpdate(session, buffer, 8), notInit);
    EXPECT_EQ(p->C_DigestFinal(session, buffer, &length), notInit);
    EXPECT_EQ(p->C_Encrypt(session, buffer, 8, buffer, &length), notInit);
    EXPECT_EQ(p->C_EncryptUpdate(session, buffer, 8, buffer, &length), notInit);
    EXPECT_EQ(p->C_EncryptFinal(session, buffer, &length), notInit);
    EXPECT_EQ(p->C_Decrypt(session, buffer, 8, buffer, &length), notInit);
    EXPECT_EQ(p->C_DecryptUpdate(session, buffer, 8, buffer, &length), notInit);
    EXPECT_EQ(p->C_DecryptFinal(session, buffer, &length), notInit);
    EXPECT_EQ(p->C_Sign(session, buffer, 8, buffer, &length), notInit);
    EXPECT_EQ(p->C_SignUpdate(session, buffer, 8), notInit);
    EXPECT_EQ(p->C_SignFinal(session, buffer, &length), notInit);
    EXPECT_EQ(p->C_SignRecover(session, buffer, 8, buffer, &length), notInit);
    EXPECT_EQ(p->C_Verify(session, buffer, 8, buffer, 8), notInit);
    EXPECT_EQ(p->C_VerifyUpdate(session, buffer, 8), notInit);
    EXPECT_EQ(p->C_VerifyFinal(session, buffer, 8), notInit);
    EXPECT_EQ(p->C_VerifyRecover(session, buffer, 8, buffer, &length), notInit);
    EXPECT_TRUE(idle(session));
}

TEST_F(Sessions, DigestAndSearchExcludeEachOther)
{
    const CK_SESSION_HANDLE session = openSession();
    startSha1(session);
    EXPECT_EQ(p->C_FindObjectsInit(session, nullptr, 0), CKR_OPERATION_ACTIVE);
    CK_MECHANISM sha256 = {CKM_SHA256, nullptr, 0};
    EXPECT_EQ(p->C_DigestInit(session, &sha256), CKR_OPERATION_ACTIVE);
    expectSha1OfAbcCompletes(session);  // still SHA-1, untouched

    ASSERT_EQ(p->C_FindObjectsInit(session, nullptr, 0), CKR_OK);
    EXPECT_EQ(p->C_DigestInit(session, &sha256), CKR_OPERATION_ACTIVE);
    CK_OBJECT_HANDLE objects[4];
    CK_ULONG count = 99;
    EXPECT_EQ(p->C_FindObjects(session, objects, 4, &count), CKR_OK);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(p->C_FindObjectsFinal(session), CKR_OK);
    startSha1(session);
    expectSha1OfAbcCompletes(session);
}

TEST_F(Sessions, OperationsOfOneSessionDoNotBlockAnother)
{
    const CK_SESSION_HANDLE first = openSession();
    const CK_SESSION_HANDLE second = openSession();
    startSha1(first);
    EXPECT_TRUE(idle(second));
    startSha1(second);
    expectSha1OfAbcCompletes(first);
    expectSha1OfAbcCompletes(second);
}

TEST_F(Sessions, StraySignUpdateEndsARunningDigest)
{
    const CK_SESSION_HANDLE session = openSession();
    startSha1(session);
    CK_BYTE data[4] = {};
    EXPECT_EQ(p->C_SignUpdate(session, data, sizeof data), CKR_OPERATION_NOT_INITIALIZED);
    CK_BYTE digest[20];
    CK_ULONG length = sizeof digest;
    EXPECT_EQ(p->C_DigestFinal(session, digest, &length), CKR_OPERATION_NOT_INITIALIZED);
    EXPECT_TRUE(idle(session));
}

TEST_F(Sessions, StraySignUpdateEndsARunningSearch)
{
    const CK_SESSION_HANDLE session = openSession();
    ASSERT_EQ(p->C_FindObjectsInit(session, nullptr, 0), CKR_OK);
    CK_BYTE data[4] = {};
    EXPECT_EQ(p->C_SignUpdate(session, data, sizeof data), CKR_OPERATION_NOT_INITIALIZED);
    // A new search may begin without the old one being finished.
    ASSERT_EQ(p->C_FindObjectsInit(session, nullptr, 0), CKR_OK);
    ASSERT_EQ(p->C_SignUpdate(session, data, sizeof data), CKR_OPERATION_NOT_INITIALIZED);
    CK_OBJECT_HANDLE objects[1];
    CK_ULONG count = 0;
    EXPECT_EQ(p->C_FindObjects(session, objects, 1, &count), CKR_OPERATION_NOT_INITIALIZED);
    EXPECT_EQ(p->C_FindObjectsFinal(session), CKR_OPERATION_NOT_INITIALIZED);
    EXPECT_TRUE(idle(session));
}

TEST_F(Sessions, OtherStrayCallsLeaveARunningDigestAlone)
{
    const CK_SESSION_HANDLE session = openSession();
    startSha1(session);
    CK_BYTE buffer[64] = {};
    CK_ULONG length = sizeof buffer;
    CK_ULONG count = 0;
    CK_OBJECT_HANDLE objects[1];
    const CK_RV notInit = CKR_OPERATION_NOT_INITIALIZED;
    EXPECT_EQ(p->C_EncryptUpdate(session, buffer, 8, buffer, &length), notInit);
    EXPECT_EQ(p->C_DecryptUpdate(session, buffer, 8, buffer, &length), notInit);
    EXPECT_EQ(p->C_VerifyUpdate(session, buffer, 8), notInit);
    EXPECT_EQ(p->C_Encrypt(session, buffer, 8, buffer, &length), notInit);
    EXPECT_EQ(p->C_Sign(session, buffer, 8, buffer, &length), notInit);
    EXPECT_EQ(p->C_SignFinal(session, buffer, &length), notInit);
    EXPECT_EQ(p->C_Decrypt(session, buffer, 8, buffer, &length), notInit);
    EXPECT_EQ(p->C_FindObjects(session, objects, 1, &count), notInit);
    EXPECT_EQ(p->C_FindObjectsFinal(session), notInit);
    expectSha1OfAbcCompletes(session);
}

TEST_F(Sessions, StrayDigestCallsLeaveARunningSearchAlone)
{
    const CK_SESSION_HANDLE session = openSession();
    ASSERT_EQ(p->C_FindObjectsInit(session, nullptr, 0), CKR_OK);
    CK_BYTE buffer[64] = {};
    CK_ULONG length = sizeof buffer;
    EXPECT_EQ(p->C_DigestUpdate(session, buffer, 8), CKR_OPERATION_NOT_INITIALIZED);
    EXPECT_EQ(p->C_DigestFinal(session, buffer, &length), CKR_OPERATION_NOT_INITIALIZED);
    EXPECT_EQ(p->C_EncryptUpdate(session, buffer, 8, buffer, &length), CKR_OPERATION_NOT_INITIALIZED);
    CK_OBJECT_HANDLE objects[1];
    CK_ULONG count = 5;
    EXPECT_EQ(p->C_FindObjects(session, objects, 1, &count), CKR_OK);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(p->C_FindObjectsFinal(session), CKR_OK);
}

TEST_F(Sessions, ClosingASessionEndsItsOperation)
{
    const CK_SESSION_HANDLE busy = openSession();
    startSha1(busy);
    const CK_SESSION_HANDLE searching = openSession();
    ASSERT_EQ(p->C_FindObjectsInit(searching, nullptr, 0), CKR_OK);
    EXPECT_EQ(p->C_CloseSession(busy), CKR_OK);
    EXPECT_EQ(p->C_CloseSession(searching), CKR_OK);
    EXPECT_TRUE(idle(openSession()));
}

// ---- Search over the empty token -----------------------------------------------------

TEST_F(Sessions, SearchOverTheEmptyTokenFindsNothing)
{
    const CK_SESSION_HANDLE session = openSession();
    CK_OBJECT_CLASS certificateClass = CKO_CERTIFICATE;
    CK_ATTRIBUTE certificates = {CKA_CLASS, &certificateClass, sizeof certificateClass};
    for (CK_ATTRIBUTE* templ : {static_cast<CK_ATTRIBUTE*>(nullptr), &certificates}) {
        ASSERT_EQ(p->C_FindObjectsInit(session, templ, templ ? 1 : 0), CKR_OK);
        CK_OBJECT_HANDLE objects[8];
        CK_ULONG count = 99;
        EXPECT_EQ(p->C_FindObjects(session, objects, 8, &count), CKR_OK);
        EXPECT_EQ(count, 0u);
        count = 99;
        EXPECT_EQ(p->C_FindObjects(session, objects, 8, &count), CKR_OK);
        EXPECT_EQ(count, 0u);
        EXPECT_EQ(p->C_FindObjectsFinal(session), CKR_OK);
    }
}

// ---- Random data ---------------------------------------------------------------------

TEST_F(Sessions, SeedRandomChecksTheSeedBeforeTheSession)
{
    const CK_SESSION_HANDLE session = openSession();
    CK_BYTE seed[16] = {1, 2, 3};
    EXPECT_EQ(p->C_SeedRandom(session, nullptr, 0), CKR_OK);
    EXPECT_EQ(p->C_SeedRandom(session, nullptr, 4), CKR_ARGUMENTS_BAD);
    EXPECT_EQ(p->C_SeedRandom(77, nullptr, 4), CKR_ARGUMENTS_BAD);
    EXPECT_EQ(p->C_SeedRandom(session, seed, sizeof seed), CKR_OK);
}

TEST_F(Sessions, GenerateRandomFillsTheBufferWithFreshBytes)
{
    const CK_SESSION_HANDLE session = openSession();
    CK_BYTE first[64] = {}, second[64] = {};
    const CK_BYTE zero[64] = {};
    ASSERT_EQ(p->C_GenerateRandom(session, first, sizeof first), CKR_OK);
    ASSERT_EQ(p->C_GenerateRandom(session, second, sizeof second), CKR_OK);
    EXPECT_NE(memcmp(first, zero, sizeof first), 0);
    EXPECT_NE(memcmp(first, second, sizeof first), 0);
    // Requests beyond one generator request are served as well.
    std::vector<CK_BYTE> large(100000, 0);
    ASSERT_EQ(p->C_GenerateRandom(session, large.data(), large.size()), CKR_OK);
    EXPECT_NE(memcmp(large.data() + large.size() - 64, zero, 64), 0);
}
