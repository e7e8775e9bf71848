// Sessions through the function list: handles, session state, login and
// logout shared by all sessions, unknown handles, the rule of one active
// operation per session, searches over the empty token and random data.

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "abi/module_harness.h"

namespace {

const CK_FLAGS kRw = CKF_SERIAL_SESSION | CKF_RW_SESSION;

class Sessions : public korvo::InitializedTest {
protected:
    CK_UTF8CHAR pin[5] = "1234";

    CK_SESSION_INFO info(CK_SESSION_HANDLE session)
    {
        CK_SESSION_INFO result;
        memset(&result, 0xA5, sizeof result);
        EXPECT_EQ(p->C_GetSessionInfo(session, &result), CKR_OK);
        return result;
    }

    CK_STATE state(CK_SESSION_HANDLE session) { return info(session).state; }

    void startSha1(CK_SESSION_HANDLE session)
    {
        CK_MECHANISM sha1 = {CKM_SHA_1, nullptr, 0};
        ASSERT_EQ(p->C_DigestInit(session, &sha1), CKR_OK);
    }

    // Feeds "abc" to the running SHA-1 digest and checks the result.
    void expectSha1OfAbcCompletes(CK_SESSION_HANDLE session)
    {
        CK_BYTE abc[] = {'a', 'b', 'c'}, digest[20];
        CK_ULONG length = sizeof digest;
        ASSERT_EQ(p->C_DigestUpdate(session, abc, sizeof abc), CKR_OK);
        ASSERT_EQ(p->C_DigestFinal(session, digest, &length), CKR_OK);
        EXPECT_EQ(toHex(digest, length), "a9993e364706816aba3e25717850c26c9cd0d89d");
    }

    // True when no operation is active: a search can begin and end.
    bool idle(CK_SESSION_HANDLE session)
    {
        return p->C_FindObjectsInit(session, nullptr, 0) == CKR_OK && p->C_FindObjectsFinal(session) == CKR_OK;
    }
};

}  // namespace

// ---- Handles and opening -------------------------------------------------

TEST_F(Sessions, HandlesCountUpFromOneAndAreNeverReusedAndInfoShowsAPublicSession)
{
    const CK_SESSION_HANDLE ro = openSession();
    EXPECT_EQ(ro, 1u);
    // Parallel sessions are refused, but the handle is drawn before the
    // flags are looked at; an unknown slot draws none.
    CK_SESSION_HANDLE refused = 0;
    EXPECT_EQ(p->C_OpenSession(0, 0, nullptr, nullptr, &refused), CKR_SESSION_PARALLEL_NOT_SUPPORTED);
    EXPECT_EQ(p->C_OpenSession(0, CKF_RW_SESSION, nullptr, nullptr, &refused), CKR_SESSION_PARALLEL_NOT_SUPPORTED);
    EXPECT_EQ(p->C_OpenSession(1, CKF_SERIAL_SESSION, nullptr, nullptr, &refused), CKR_SLOT_ID_INVALID);
    const CK_SESSION_HANDLE rw = openSession(kRw);
    EXPECT_EQ(rw, 4u);

    // Session information: slot, state, flags, device error.
    const CK_SESSION_INFO roInfo = info(ro), rwInfo = info(rw);
    EXPECT_EQ(std::vector<CK_ULONG>({roInfo.slotID, roInfo.state, roInfo.flags, roInfo.ulDeviceError,
                                     rwInfo.slotID, rwInfo.state, rwInfo.flags, rwInfo.ulDeviceError}),
              std::vector<CK_ULONG>({0, CKS_RO_PUBLIC_SESSION, CKF_SERIAL_SESSION, 0,
                                     0, CKS_RW_PUBLIC_SESSION, kRw, 0}));
    ASSERT_EQ(p->C_CloseSession(rw), CKR_OK);
    EXPECT_EQ(openSession(), 5u);
}

// ---- Login and logout --------------------------------------------------------

TEST_F(Sessions, UserLoginThroughOneSessionLogsInEverySession)
{
    const CK_SESSION_HANDLE ro = openSession(), rw = openSession(kRw);
    // Other user types are refused, and the security officer cannot log in.
    EXPECT_EQ(p->C_Login(rw, CKU_CONTEXT_SPECIFIC, pin, 4), CKR_ARGUMENTS_BAD);
    EXPECT_EQ(p->C_Login(rw, 7, pin, 4), CKR_ARGUMENTS_BAD);
    EXPECT_EQ(p->C_Login(rw, CKU_SO, pin, 4), CKR_PIN_INCORRECT);
    EXPECT_EQ(state(rw), CKS_RW_PUBLIC_SESSION);
    EXPECT_EQ(p->C_Logout(rw), CKR_USER_NOT_LOGGED_IN);

    // The token accepts any user PIN.
    ASSERT_EQ(p->C_Login(ro, CKU_USER, pin, 4), CKR_OK);
    EXPECT_EQ(state(ro), CKS_RO_USER_FUNCTIONS);
    EXPECT_EQ(state(rw), CKS_RW_USER_FUNCTIONS);
    EXPECT_EQ(state(openSession()), CKS_RO_USER_FUNCTIONS);  // opened afterwards
    EXPECT_EQ(p->C_Login(rw, CKU_USER, pin, 4), CKR_USER_ALREADY_LOGGED_IN);
    EXPECT_EQ(p->C_Login(rw, CKU_SO, pin, 4), CKR_USER_ANOTHER_ALREADY_LOGGED_IN);

    ASSERT_EQ(p->C_Logout(rw), CKR_OK);
    EXPECT_EQ(state(ro), CKS_RO_PUBLIC_SESSION);
    EXPECT_EQ(state(rw), CKS_RW_PUBLIC_SESSION);
    EXPECT_EQ(p->C_Logout(ro), CKR_USER_NOT_LOGGED_IN);
}

TEST_F(Sessions, ClosingTheLastSessionOrAllSessionsLogsOut)
{
    const CK_SESSION_HANDLE first = openSession(), second = openSession();
    ASSERT_EQ(p->C_Login(first, CKU_USER, pin, 4), CKR_OK);
    ASSERT_EQ(p->C_CloseSession(first), CKR_OK);
    EXPECT_EQ(state(second), CKS_RO_USER_FUNCTIONS);
    startSha1(second);  // closing ends a running operation
    ASSERT_EQ(p->C_CloseSession(second), CKR_OK);

    const CK_SESSION_HANDLE ro = openSession(), rw = openSession(kRw);
    EXPECT_EQ(state(ro), CKS_RO_PUBLIC_SESSION);
    ASSERT_EQ(p->C_Login(ro, CKU_USER, pin, 4), CKR_OK);
    EXPECT_EQ(p->C_CloseAllSessions(1), CKR_SLOT_ID_INVALID);
    ASSERT_EQ(p->C_CloseAllSessions(0), CKR_OK);
    CK_SESSION_INFO closed;
    EXPECT_EQ(p->C_GetSessionInfo(ro, &closed), CKR_SESSION_CLOSED);
    EXPECT_EQ(p->C_CloseSession(rw), CKR_SESSION_CLOSED);
    EXPECT_EQ(state(openSession()), CKS_RO_PUBLIC_SESSION);
}

// ---- Unknown handles ------------------------------------------------------------

TEST_F(Sessions, UnknownSessionHandlesReportSessionClosed)
{
    const CK_SESSION_HANDLE closed = openSession();
    ASSERT_EQ(p->C_CloseSession(closed), CKR_OK);
    openSession();  // handle 2 exists, but its neighbours do not

    CK_BYTE buffer[64] = {};
    CK_ULONG length = sizeof buffer, count = 0;
    CK_OBJECT_HANDLE objects[4];
    CK_SESSION_INFO sessionInfo;
    CK_MECHANISM sha1 = {CKM_SHA_1, nullptr, 0}, rsa = {CKM_RSA_PKCS, nullptr, 0};
    // A sample across the kinds of entry point.
    for (CK_SESSION_HANDLE h : {closed, CK_SESSION_HANDLE(3), CK_SESSION_HANDLE(0xFFFFFFFF)}) {
        SCOPED_TRACE(testing::Message() << "handle " << h);
        EXPECT_EQ(p->C_CloseSession(h), CKR_SESSION_CLOSED);
        EXPECT_EQ(p->C_GetSessionInfo(h, &sessionInfo), CKR_SESSION_CLOSED);
        EXPECT_EQ(p->C_Login(h, CKU_USER, pin, 4), CKR_SESSION_CLOSED);
        EXPECT_EQ(p->C_SetPIN(h, pin, 4, pin, 4), CKR_SESSION_CLOSED);
        EXPECT_EQ(p->C_FindObjects(h, objects, 4, &count), CKR_SESSION_CLOSED);
        EXPECT_EQ(p->C_EncryptInit(h, &rsa, 2), CKR_SESSION_CLOSED);
        EXPECT_EQ(p->C_DecryptUpdate(h, buffer, 8, buffer, &length), CKR_SESSION_CLOSED);
        EXPECT_EQ(p->C_DigestInit(h, &sha1), CKR_SESSION_CLOSED);
        EXPECT_EQ(p->C_SignUpdate(h, buffer, 8), CKR_SESSION_CLOSED);
        EXPECT_EQ(p->C_GenerateRandom(h, buffer, 8), CKR_SESSION_CLOSED);
    }
    // Only C_FindObjectsInit tells handle zero apart.
    EXPECT_EQ(p->C_FindObjectsInit(0, nullptr, 0), CKR_SESSION_HANDLE_INVALID);
    EXPECT_EQ(p->C_FindObjects(0, objects, 1, &count), CKR_SESSION_CLOSED);
    EXPECT_EQ(p->C_FindObjectsFinal(0), CKR_SESSION_CLOSED);
}

TEST_F(Sessions, UnknownObjectsAndKeysReportTheirOwnCodesAndLeaveTheSessionIdle)
{
    const CK_SESSION_HANDLE session = openSession();
    CK_MECHANISM rsa = {CKM_RSA_PKCS, nullptr, 0};
    CK_BYTE buffer[64];
    CK_ULONG length = sizeof buffer;
    CK_ATTRIBUTE attribute = {CKA_LABEL, buffer, sizeof buffer};
    // The attribute functions do not resolve the session: the object decides.
    EXPECT_EQ(p->C_GetAttributeValue(5, 6, &attribute, 1), CKR_OBJECT_HANDLE_INVALID);
    EXPECT_EQ(p->C_SetAttributeValue(5, 6, &attribute, 1), CKR_OBJECT_HANDLE_INVALID);
    EXPECT_EQ(p->C_DestroyObject(session, 99), CKR_OBJECT_HANDLE_INVALID);
    EXPECT_EQ(p->C_EncryptInit(session, &rsa, 99), CKR_KEY_HANDLE_INVALID);
    EXPECT_EQ(p->C_SignRecoverInit(session, &rsa, 99), CKR_KEY_HANDLE_INVALID);
    EXPECT_EQ(p->C_VerifyInit(session, &rsa, 99), CKR_KEY_HANDLE_INVALID);
    EXPECT_EQ(p->C_WrapKey(session, &rsa, 99, 99, buffer, &length), CKR_KEY_HANDLE_INVALID);
    // The session's own handle is not an object handle.
    EXPECT_EQ(p->C_SignInit(session, &rsa, session), CKR_KEY_HANDLE_INVALID);
    EXPECT_TRUE(idle(session));
}

// ---- One operation at a time ---------------------------------------------------------

TEST_F(Sessions, DigestAndSearchExcludeEachOtherWithinASessionAndSearchesFindNothing)
{
    const CK_SESSION_HANDLE session = openSession(), other = openSession();
    CK_MECHANISM sha256 = {CKM_SHA256, nullptr, 0};
    startSha1(session);
    EXPECT_EQ(p->C_FindObjectsInit(session, nullptr, 0), CKR_OPERATION_ACTIVE);
    EXPECT_EQ(p->C_DigestInit(session, &sha256), CKR_OPERATION_ACTIVE);
    EXPECT_TRUE(idle(other));
    startSha1(other);
    expectSha1OfAbcCompletes(session);  // still SHA-1, untouched
    expectSha1OfAbcCompletes(other);

    // A search over the empty token finds nothing, with or without a template.
    CK_OBJECT_CLASS certificateClass = CKO_CERTIFICATE;
    CK_ATTRIBUTE certificates = {CKA_CLASS, &certificateClass, sizeof certificateClass};
    for (CK_ATTRIBUTE* templ : {static_cast<CK_ATTRIBUTE*>(nullptr), &certificates}) {
        ASSERT_EQ(p->C_FindObjectsInit(session, templ, templ ? 1 : 0), CKR_OK);
        EXPECT_EQ(p->C_DigestInit(session, &sha256), CKR_OPERATION_ACTIVE);
        CK_OBJECT_HANDLE objects[8];
        for (int call = 0; call < 2; ++call) {
            CK_ULONG count = 99;
            EXPECT_EQ(p->C_FindObjects(session, objects, 8, &count), CKR_OK);
            EXPECT_EQ(count, 0u);
        }
        EXPECT_EQ(p->C_FindObjectsFinal(session), CKR_OK);
    }
    startSha1(session);
    expectSha1OfAbcCompletes(session);
}

// Calls of an operation that is not running are refused. A stray
// C_SignUpdate ends whatever runs; other stray calls leave it alone.
TEST_F(Sessions, StrayCallsAreRefusedAndSignUpdateEndsTheRunningOperation)
{
    const CK_SESSION_HANDLE session = openSession();
    CK_BYTE buffer[64] = {};
    CK_ULONG length = sizeof buffer, count = 0;
    CK_OBJECT_HANDLE objects[1];
    const CK_RV notInit = CKR_OPERATION_NOT_INITIALIZED;

    // Nothing runs yet.
    EXPECT_EQ(p->C_FindObjects(session, objects, 1, &count), notInit);
    EXPECT_EQ(p->C_Digest(session, buffer, 8, buffer, &length), notInit);
    EXPECT_EQ(p->C_DigestUpdate(session, buffer, 8), notInit);
    EXPECT_EQ(p->C_VerifyRecover(session, buffer, 8, buffer, &length), notInit);
    EXPECT_TRUE(idle(session));

    startSha1(session);
    EXPECT_EQ(p->C_EncryptUpdate(session, buffer, 8, buffer, &length), notInit);
    EXPECT_EQ(p->C_Sign(session, buffer, 8, buffer, &length), notInit);
    EXPECT_EQ(p->C_FindObjectsFinal(session), notInit);
    expectSha1OfAbcCompletes(session);
    startSha1(session);
    EXPECT_EQ(p->C_SignUpdate(session, buffer, 4), notInit);
    EXPECT_EQ(p->C_DigestFinal(session, buffer, &length), notInit);
    EXPECT_TRUE(idle(session));

    ASSERT_EQ(p->C_FindObjectsInit(session, nullptr, 0), CKR_OK);
    EXPECT_EQ(p->C_DigestFinal(session, buffer, &length), notInit);
    EXPECT_EQ(p->C_VerifyUpdate(session, buffer, 8), notInit);
    EXPECT_EQ(p->C_FindObjects(session, objects, 1, &count), CKR_OK);
    EXPECT_EQ(p->C_SignUpdate(session, buffer, 4), notInit);
    EXPECT_EQ(p->C_FindObjects(session, objects, 1, &count), notInit);
    EXPECT_EQ(p->C_FindObjectsFinal(session), notInit);
    EXPECT_TRUE(idle(session));
}

// ---- Random data ---------------------------------------------------------------------

TEST_F(Sessions, RandomSeedIsCheckedBeforeTheSessionAndOutputIsFresh)
{
    const CK_SESSION_HANDLE session = openSession();
    CK_BYTE first[64] = {}, second[64] = {};
    const CK_BYTE zero[64] = {};
    EXPECT_EQ(p->C_SeedRandom(session, nullptr, 0), CKR_OK);
    EXPECT_EQ(p->C_SeedRandom(session, nullptr, 4), CKR_ARGUMENTS_BAD);
    EXPECT_EQ(p->C_SeedRandom(77, nullptr, 4), CKR_ARGUMENTS_BAD);
    EXPECT_EQ(p->C_SeedRandom(session, first, 16), CKR_OK);

    ASSERT_EQ(p->C_GenerateRandom(session, first, sizeof first), CKR_OK);
    ASSERT_EQ(p->C_GenerateRandom(session, second, sizeof second), CKR_OK);
    EXPECT_NE(memcmp(first, zero, sizeof first), 0);
    EXPECT_NE(memcmp(first, second, sizeof first), 0);
    // A large request (made outside the token generator's lock) has no
    // repeated 16-byte block, and a new initialisation gives other bytes.
    auto oneMiB = [&](CK_SESSION_HANDLE h) {
        std::vector<CK_BYTE> bytes(size_t(1) << 20);
        EXPECT_EQ(p->C_GenerateRandom(h, bytes.data(), bytes.size()), CKR_OK);
        std::set<std::string> blocks;
        for (size_t i = 0; i < bytes.size(); i += 16)
            EXPECT_TRUE(blocks.insert(std::string(bytes.begin() + long(i), bytes.begin() + long(i) + 16)).second) << i;
        return bytes;
    };
    const std::vector<CK_BYTE> before = oneMiB(session);
    ASSERT_EQ(p->C_Finalize(nullptr), CKR_OK);
    ASSERT_EQ(p->C_Initialize(nullptr), CKR_OK);
    EXPECT_NE(oneMiB(openSession()), before);
}
