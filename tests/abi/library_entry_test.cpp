// The entry points that do not work on a session: the function list,
// C_Initialize with its locking choices, C_Finalize and C_GetInfo, and how
// the other entry points answer while the library is not initialised.

#include <dlfcn.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "abi/module_harness.h"

using korvo::field;
using korvo::InitArgs;
using korvo::padded;
using korvo::version;

namespace {

CK_RV dummyCreate(CK_VOID_PTR_PTR mutex)
{
    static int token;
    *mutex = &token;
    return CKR_OK;
}
CK_RV dummyOp(CK_VOID_PTR) { return CKR_OK; }

using LibraryEntry = korvo::ModuleTest;

}  // namespace

// ---- Function list -------------------------------------------------------

TEST_F(LibraryEntry, FunctionListIsOneStaticListOfTheExportedFunctionsInStandardOrder)
{
    ASSERT_EQ(p->C_Initialize(nullptr), CKR_OK);
    ASSERT_EQ(p->C_Finalize(nullptr), CKR_OK);
    CK_FUNCTION_LIST_PTR again = nullptr;
    ASSERT_EQ(p->C_GetFunctionList(&again), CKR_OK);
    EXPECT_EQ(again, p);
    EXPECT_EQ(version(p->version), "2.20");

    auto slots = reinterpret_cast<void* const*>(reinterpret_cast<const char*>(p) +
                                                offsetof(CK_FUNCTION_LIST, C_Initialize));
    for (size_t i = 0; i < 68; ++i) {
        void* exported = dlsym(korvo::moduleHandle(), korvo::kCryptokiFunctionNames[i]);
        EXPECT_NE(slots[i], nullptr) << korvo::kCryptokiFunctionNames[i];
        EXPECT_EQ(slots[i], exported) << korvo::kCryptokiFunctionNames[i];
    }
}

// ---- C_Initialize --------------------------------------------------------

TEST_F(LibraryEntry, InitializeAcceptsEachConsistentLockingChoiceAndRefusesTheRest)
{
    static int reserved;
    const auto C = dummyCreate;
    const auto M = dummyOp;
    const std::pair<InitArgs, CK_RV> table[] = {
        {{}, CKR_OK},
        {{nullptr, nullptr, nullptr, nullptr, CKF_OS_LOCKING_OK}, CKR_OK},
        {{nullptr, nullptr, nullptr, nullptr, CKF_LIBRARY_CANT_CREATE_OS_THREADS}, CKR_OK},
        {{C, M, M, M}, CKR_OK},
        {{C, M, M, M, CKF_OS_LOCKING_OK}, CKR_OK},
        // Incomplete callbacks, or a reserved pointer.
        {{C}, CKR_ARGUMENTS_BAD},
        {{C, M, M, nullptr}, CKR_ARGUMENTS_BAD},
        {{nullptr, nullptr, M}, CKR_ARGUMENTS_BAD},
        {{nullptr, M, M, M, CKF_OS_LOCKING_OK}, CKR_ARGUMENTS_BAD},
        {{nullptr, nullptr, nullptr, nullptr, 0, &reserved}, CKR_ARGUMENTS_BAD},
        {{C, M, M, M, 0, &reserved}, CKR_ARGUMENTS_BAD},
    };
    for (const auto& [row, expected] : table) {
        SCOPED_TRACE(testing::Message() << "flags " << row.flags << ", create " << (row.CreateMutex != nullptr));
        InitArgs args = row;
        ASSERT_EQ(p->C_Initialize(&args), expected);
        // A refused call leaves the library uninitialised; after a successful
        // one the first session is handle 1.
        CK_SESSION_HANDLE session = 0;
        EXPECT_EQ(p->C_OpenSession(0, CKF_SERIAL_SESSION, nullptr, nullptr, &session),
                  expected == CKR_OK ? CKR_OK : CKR_CRYPTOKI_NOT_INITIALIZED);
        EXPECT_EQ(session, expected == CKR_OK ? 1u : 0u);
        p->C_Finalize(nullptr);
    }
}

// ---- Repeated calls, re-initialisation and C_GetInfo ---------------------

TEST_F(LibraryEntry, RepeatedOrMalformedCallsAreRefusedAndReinitialisationStartsAFreshToken)
{
    int reserved = 0;
    InitArgs bad{nullptr, nullptr, nullptr, nullptr, 0, &reserved};
    CK_SESSION_HANDLE session = 0;
    CK_SESSION_INFO info;
    CK_TOKEN_INFO token;
    EXPECT_EQ(p->C_Finalize(&reserved), CKR_ARGUMENTS_BAD);  // the argument before the state
    ASSERT_EQ(p->C_Initialize(nullptr), CKR_OK);
    ASSERT_EQ(p->C_OpenSession(0, CKF_SERIAL_SESSION, nullptr, nullptr, &session), CKR_OK);
    ASSERT_EQ(p->C_OpenSession(0, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session), CKR_OK);
    ASSERT_EQ(p->C_Login(session, CKU_USER, (CK_UTF8CHAR_PTR) "1234", 4), CKR_OK);
    EXPECT_EQ(p->C_Initialize(nullptr), CKR_CRYPTOKI_ALREADY_INITIALIZED);
    EXPECT_EQ(p->C_Initialize(&bad), CKR_CRYPTOKI_ALREADY_INITIALIZED);  // the state before the arguments
    EXPECT_EQ(p->C_Finalize(&reserved), CKR_ARGUMENTS_BAD);
    EXPECT_EQ(p->C_GetSessionInfo(session, &info), CKR_OK);
    EXPECT_EQ(p->C_Finalize(nullptr), CKR_OK);
    EXPECT_EQ(p->C_Finalize(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);

    // Nothing of the old token survives: handles restart at 1, nobody is
    // logged in and only the new session is counted.
    ASSERT_EQ(p->C_Initialize(nullptr), CKR_OK);
    ASSERT_EQ(p->C_OpenSession(0, CKF_SERIAL_SESSION, nullptr, nullptr, &session), CKR_OK);
    EXPECT_EQ(session, 1u);
    ASSERT_EQ(p->C_GetSessionInfo(session, &info), CKR_OK);
    EXPECT_EQ(info.state, CKS_RO_PUBLIC_SESSION);
    ASSERT_EQ(p->C_GetTokenInfo(0, &token), CKR_OK);
    EXPECT_EQ(token.ulSessionCount + token.ulRwSessionCount, 1u);
}

TEST_F(LibraryEntry, GetInfoChecksItsArgumentBeforeTheStateAndDescribesTheLibraryByteForByte)
{
    CK_INFO info;
    EXPECT_EQ(p->C_GetInfo(nullptr), CKR_ARGUMENTS_BAD);
    EXPECT_EQ(p->C_GetInfo(&info), CKR_CRYPTOKI_NOT_INITIALIZED);
    ASSERT_EQ(p->C_Initialize(nullptr), CKR_OK);
    EXPECT_EQ(p->C_GetInfo(nullptr), CKR_ARGUMENTS_BAD);

    memset(&info, 0xA5, sizeof info);
    ASSERT_EQ(p->C_GetInfo(&info), CKR_OK);
    EXPECT_EQ(version(info.cryptokiVersion) + " " + version(info.libraryVersion), "2.20 2.0");
    EXPECT_EQ(info.flags, 0u);
    // The manufacturer is blank-padded to 25 characters only; the last 7
    // bytes are zero.
    EXPECT_EQ(field(info.manufacturerID), padded("Tavik A/S", 25) + std::string(7, '\0'));
    EXPECT_EQ(field(info.libraryDescription), padded("Korvo cryptographic library", 32));
}

// ---- Entry points while not initialised ------------------------------------

TEST_F(LibraryEntry, FixedAnswersDoNotDependOnInitialisation)
{
    for (bool initialised : {false, true}) {
        SCOPED_TRACE(initialised ? "initialised" : "not initialised");
        if (initialised) {
            ASSERT_EQ(p->C_Initialize(nullptr), CKR_OK);
        }
        CK_ULONG length = 0;
        CK_BYTE buffer[16] = {};
        EXPECT_EQ(p->C_GetFunctionStatus(1), CKR_FUNCTION_NOT_PARALLEL);
        EXPECT_EQ(p->C_CancelFunction(1), CKR_FUNCTION_NOT_PARALLEL);
        EXPECT_EQ(p->C_GetOperationState(1, nullptr, &length), CKR_FUNCTION_NOT_SUPPORTED);
        EXPECT_EQ(p->C_SetOperationState(1, buffer, sizeof buffer, 0, 0), CKR_FUNCTION_NOT_SUPPORTED);
        EXPECT_EQ(p->C_GetObjectSize(1, 2, &length), CKR_FUNCTION_NOT_SUPPORTED);
        length = sizeof buffer;
        EXPECT_EQ(p->C_DigestEncryptUpdate(1, buffer, 4, buffer, &length), CKR_FUNCTION_NOT_SUPPORTED);
        EXPECT_EQ(p->C_DecryptDigestUpdate(1, buffer, 4, buffer, &length), CKR_FUNCTION_NOT_SUPPORTED);
        EXPECT_EQ(p->C_SignEncryptUpdate(1, buffer, 4, buffer, &length), CKR_FUNCTION_NOT_SUPPORTED);
        EXPECT_EQ(p->C_DecryptVerifyUpdate(1, buffer, 4, buffer, &length), CKR_FUNCTION_NOT_SUPPORTED);
    }
}

TEST_F(LibraryEntry, SessionAndSlotFunctionsReportNotInitialisedFirstButEncryptUpdate)
{
    CK_ULONG count = 1;
    CK_SLOT_ID slot = 0;
    CK_MECHANISM sha1 = {CKM_SHA_1, nullptr, 0};
    CK_BYTE buffer[32] = {};
    CK_ATTRIBUTE attribute = {CKA_LABEL, buffer, sizeof buffer};
    const CK_RV ni = CKR_CRYPTOKI_NOT_INITIALIZED;
    // The state is checked before the arguments, the slot and the handles.
    EXPECT_EQ(p->C_GetSlotList(CK_FALSE, nullptr, &count), ni);
    EXPECT_EQ(p->C_GetSlotInfo(1, nullptr), ni);
    EXPECT_EQ(p->C_GetMechanismList(0, nullptr, &count), ni);
    EXPECT_EQ(p->C_OpenSession(0, CKF_SERIAL_SESSION, nullptr, nullptr, &slot), ni);
    EXPECT_EQ(p->C_CloseAllSessions(0), ni);
    EXPECT_EQ(p->C_Login(1, CKU_USER, buffer, 4), ni);
    EXPECT_EQ(p->C_GetAttributeValue(1, 2, &attribute, 1), ni);
    EXPECT_EQ(p->C_FindObjectsInit(0, nullptr, 0), ni);
    EXPECT_EQ(p->C_DigestInit(1, &sha1), ni);
    EXPECT_EQ(p->C_SeedRandom(1, nullptr, 4), ni);
    EXPECT_EQ(p->C_WaitForSlotEvent(CKF_DONT_BLOCK, &slot, nullptr), ni);

    // C_EncryptUpdate resolves the session first.
    CK_ULONG length = sizeof buffer;
    EXPECT_EQ(p->C_EncryptUpdate(1, buffer, 8, buffer, &length), CKR_GENERAL_ERROR);
    ASSERT_EQ(p->C_Initialize(nullptr), CKR_OK);
    EXPECT_EQ(p->C_EncryptUpdate(77, buffer, 8, buffer, &length), CKR_SESSION_CLOSED);
    ASSERT_EQ(p->C_Finalize(nullptr), CKR_OK);
    EXPECT_EQ(p->C_EncryptUpdate(1, buffer, 8, buffer, &length), CKR_GENERAL_ERROR);
}
