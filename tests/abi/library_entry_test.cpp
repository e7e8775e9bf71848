// The entry points that do not work on a session: the function list,
// C_Initialize with its locking choices, C_Finalize and C_GetInfo, and how
// the other entry points answer while the library is not initialised.

#include <dlfcn.h>

#include <cstddef>
#include <cstring>
#include <string>

#include "abi/module_harness.h"

using korvo::field;
using korvo::InitArgs;
using korvo::padded;

namespace {


CK_RV dummyCreate(CK_VOID_PTR_PTR mutex)
{
    static int token;
    *mutex = &token;
    return CKR_OK;
}
CK_RV dummyMutexOp(CK_VOID_PTR)
{
    return CKR_OK;
}

InitArgs callbacks()
{
    InitArgs args;
    args.CreateMutex = dummyCreate;
    args.DestroyMutex = dummyMutexOp;
    args.LockMutex = dummyMutexOp;
    args.UnlockMutex = dummyMutexOp;
    return args;
}

using LibraryEntry = korvo::ModuleTest;

// After a successful C_Initialize the library must be usable: a session can
// be opened and is handle 1.
void expectWorkingLibrary(CK_FUNCTION_LIST_PTR p)
{
    CK_SESSION_HANDLE session = 0;
    EXPECT_EQ(p->C_OpenSession(0, CKF_SERIAL_SESSION, nullptr, nullptr, &session), CKR_OK);
    EXPECT_EQ(session, 1u);
    EXPECT_EQ(p->C_CloseSession(session), CKR_OK);
}

}  // namespace

// ---- Function list -------------------------------------------------------

TEST_F(LibraryEntry, FunctionListIsOneStaticListOfVersion220)
{
    CK_FUNCTION_LIST_PTR first = nullptr;
    CK_FUNCTION_LIST_PTR second = nullptr;
    ASSERT_EQ(p->C_GetFunctionList(&first), CKR_OK);
    ASSERT_EQ(p->C_GetFunctionList(&second), CKR_OK);
    EXPECT_EQ(first, p);
    EXPECT_EQ(second, p);
    EXPECT_EQ(p->version.major, 2);
    EXPECT_EQ(p->version.minor, 20);
}

TEST_F(LibraryEntry, FunctionListHoldsTheExportedFunctionsInStandardOrder)
{
    ASSERT_EQ(sizeof korvo::kCryptokiFunctionNames / sizeof korvo::kCryptokiFunctionNames[0], 68u);
    auto slots = reinterpret_cast<void* const*>(reinterpret_cast<const char*>(p) +
                                                offsetof(CK_FUNCTION_LIST, C_Initialize));
    for (size_t i = 0; i < 68; ++i) {
        void* exported = dlsym(korvo::moduleHandle(), korvo::kCryptokiFunctionNames[i]);
        EXPECT_NE(slots[i], nullptr) << korvo::kCryptokiFunctionNames[i];
        EXPECT_EQ(slots[i], exported) << korvo::kCryptokiFunctionNames[i];
    }
}

TEST_F(LibraryEntry, FunctionListStaysValidAcrossFinalize)
{
    ASSERT_EQ(p->C_Initialize(nullptr), CKR_OK);
    ASSERT_EQ(p->C_Finalize(nullptr), CKR_OK);
    CK_FUNCTION_LIST_PTR again = nullptr;
    ASSERT_EQ(p->C_GetFunctionList(&again), CKR_OK);
    EXPECT_EQ(again, p);
    EXPECT_EQ(again->version.minor, 20);
}

// ---- C_Initialize --------------------------------------------------------

TEST_F(LibraryEntry, InitializeWithoutArgumentsWorksWithoutLocking)
{
    ASSERT_EQ(p->C_Initialize(nullptr), CKR_OK);
    expectWorkingLibrary(p);
}

TEST_F(LibraryEntry, InitializeTwiceIsRefusedAndLeavesTheLibraryWorking)
{
    ASSERT_EQ(p->C_Initialize(nullptr), CKR_OK);
    CK_SESSION_HANDLE session = 0;
    ASSERT_EQ(p->C_OpenSession(0, CKF_SERIAL_SESSION, nullptr, nullptr, &session), CKR_OK);

    EXPECT_EQ(p->C_Initialize(nullptr), CKR_CRYPTOKI_ALREADY_INITIALIZED);
    // The state is checked before the arguments.
    int reserved = 0;
    InitArgs bad;
    bad.pReserved = &reserved;
    EXPECT_EQ(p->C_Initialize(&bad), CKR_CRYPTOKI_ALREADY_INITIALIZED);

    CK_SESSION_INFO info;
    EXPECT_EQ(p->C_GetSessionInfo(session, &info), CKR_OK);
    CK_INFO libraryInfo;
    EXPECT_EQ(p->C_GetInfo(&libraryInfo), CKR_OK);
}

TEST_F(LibraryEntry, InitializeAcceptsEachConsistentLockingChoice)
{
    InitArgs none;
    InitArgs osLocking;
    osLocking.flags = CKF_OS_LOCKING_OK;
    InitArgs cantCreateThreads;
    cantCreateThreads.flags = CKF_LIBRARY_CANT_CREATE_OS_THREADS;
    InitArgs application = callbacks();
    InitArgs applicationAndOs = callbacks();
    applicationAndOs.flags = CKF_OS_LOCKING_OK;

    for (InitArgs* args : {&none, &osLocking, &cantCreateThreads, &application, &applicationAndOs}) {
        SCOPED_TRACE(testing::Message() << "flags " << args->flags << ", callbacks "
                                        << (args->CreateMutex != nullptr));
        ASSERT_EQ(p->C_Initialize(args), CKR_OK);
        expectWorkingLibrary(p);
        ASSERT_EQ(p->C_Finalize(nullptr), CKR_OK);
    }
}

TEST_F(LibraryEntry, InitializeRefusesIncompleteMutexCallbacks)
{
    InitArgs createOnly;
    createOnly.CreateMutex = dummyCreate;
    InitArgs createWithoutUnlock = callbacks();
    createWithoutUnlock.UnlockMutex = nullptr;
    InitArgs lockWithoutCreate;
    lockWithoutCreate.LockMutex = dummyMutexOp;
    InitArgs allButCreate = callbacks();
    allButCreate.CreateMutex = nullptr;
    allButCreate.flags = CKF_OS_LOCKING_OK;

    for (InitArgs* args : {&createOnly, &createWithoutUnlock, &lockWithoutCreate, &allButCreate}) {
        EXPECT_EQ(p->C_Initialize(args), CKR_ARGUMENTS_BAD);
        // A refused call leaves the library uninitialised.
        CK_INFO info;
        EXPECT_EQ(p->C_GetInfo(&info), CKR_CRYPTOKI_NOT_INITIALIZED);
    }
}

TEST_F(LibraryEntry, InitializeRefusesReservedPointerEvenWithValidCallbacks)
{
    int reserved = 0;
    InitArgs plain;
    plain.pReserved = &reserved;
    InitArgs withCallbacks = callbacks();
    withCallbacks.pReserved = &reserved;

    EXPECT_EQ(p->C_Initialize(&plain), CKR_ARGUMENTS_BAD);
    EXPECT_EQ(p->C_Initialize(&withCallbacks), CKR_ARGUMENTS_BAD);
    CK_INFO info;
    EXPECT_EQ(p->C_GetInfo(&info), CKR_CRYPTOKI_NOT_INITIALIZED);
}

TEST_F(LibraryEntry, ReinitialisationBuildsAFreshTokenWithHandlesFromOne)
{
    ASSERT_EQ(p->C_Initialize(nullptr), CKR_OK);
    CK_SESSION_HANDLE a = 0, b = 0;
    ASSERT_EQ(p->C_OpenSession(0, CKF_SERIAL_SESSION, nullptr, nullptr, &a), CKR_OK);
    ASSERT_EQ(p->C_OpenSession(0, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &b), CKR_OK);
    ASSERT_EQ(p->C_Login(a, CKU_USER, (CK_UTF8CHAR_PTR) "1234", 4), CKR_OK);
    ASSERT_EQ(p->C_Finalize(nullptr), CKR_OK);

    ASSERT_EQ(p->C_Initialize(nullptr), CKR_OK);
    CK_TOKEN_INFO token;
    ASSERT_EQ(p->C_GetTokenInfo(0, &token), CKR_OK);
    EXPECT_EQ(token.ulSessionCount, 0u);
    EXPECT_EQ(token.ulRwSessionCount, 0u);
    CK_SESSION_HANDLE fresh = 0;
    ASSERT_EQ(p->C_OpenSession(0, CKF_SERIAL_SESSION, nullptr, nullptr, &fresh), CKR_OK);
    EXPECT_EQ(fresh, 1u);
    CK_SESSION_INFO info;
    ASSERT_EQ(p->C_GetSessionInfo(fresh, &info), CKR_OK);
    EXPECT_EQ(info.state, CKS_RO_PUBLIC_SESSION);
}

// ---- C_Finalize ----------------------------------------------------------

TEST_F(LibraryEntry, FinalizeTwiceReportsNotInitialised)
{
    ASSERT_EQ(p->C_Initialize(nullptr), CKR_OK);
    EXPECT_EQ(p->C_Finalize(nullptr), CKR_OK);
    EXPECT_EQ(p->C_Finalize(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
}

TEST_F(LibraryEntry, FinalizeWithArgumentIsRefusedAndKeepsTheLibrary)
{
    int reserved = 0;
    EXPECT_EQ(p->C_Finalize(&reserved), CKR_ARGUMENTS_BAD);  // checked before the state

    ASSERT_EQ(p->C_Initialize(nullptr), CKR_OK);
    EXPECT_EQ(p->C_Finalize(&reserved), CKR_ARGUMENTS_BAD);
    CK_INFO info;
    EXPECT_EQ(p->C_GetInfo(&info), CKR_OK);
}

// ---- C_GetInfo -----------------------------------------------------------

TEST_F(LibraryEntry, GetInfoDescribesTheLibraryByteForByte)
{
    ASSERT_EQ(p->C_Initialize(nullptr), CKR_OK);
    CK_INFO info;
    memset(&info, 0xA5, sizeof info);
    ASSERT_EQ(p->C_GetInfo(&info), CKR_OK);

    EXPECT_EQ(info.cryptokiVersion.major, 2);
    EXPECT_EQ(info.cryptokiVersion.minor, 20);
    EXPECT_EQ(info.libraryVersion.major, 2);
    EXPECT_EQ(info.libraryVersion.minor, 0);
    EXPECT_EQ(info.flags, 0u);
    // The manufacturer is blank-padded to 25 characters only; the last 7
    // bytes are zero.
    EXPECT_EQ(field(info.manufacturerID), padded("Tavik A/S", 25) + std::string(7, '\0'));
    EXPECT_EQ(field(info.libraryDescription), padded("Korvo cryptographic library", 32));
}

TEST_F(LibraryEntry, GetInfoChecksItsArgumentBeforeTheState)
{
    EXPECT_EQ(p->C_GetInfo(nullptr), CKR_ARGUMENTS_BAD);
    CK_INFO info;
    EXPECT_EQ(p->C_GetInfo(&info), CKR_CRYPTOKI_NOT_INITIALIZED);
    ASSERT_EQ(p->C_Initialize(nullptr), CKR_OK);
    EXPECT_EQ(p->C_GetInfo(nullptr), CKR_ARGUMENTS_BAD);
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

TEST_F(LibraryEntry, SessionAndSlotFunctionsReportNotInitialisedFirst)
{
    CK_ULONG count = 1;
    CK_SLOT_ID slot = 0;
    CK_SLOT_INFO slotInfo;
    CK_TOKEN_INFO tokenInfo;
    CK_MECHANISM_INFO mechInfo;
    CK_SESSION_INFO sessionInfo;
    CK_SESSION_HANDLE session = 0;
    CK_MECHANISM sha1 = {CKM_SHA_1, nullptr, 0};
    CK_BYTE buffer[32] = {};
    CK_ATTRIBUTE attribute = {CKA_LABEL, buffer, sizeof buffer};
    const CK_RV ni = CKR_CRYPTOKI_NOT_INITIALIZED;

    EXPECT_EQ(p->C_GetSlotList(CK_FALSE, nullptr, &count), ni);
    // The state is checked before the arguments and the slot.
    EXPECT_EQ(p->C_GetSlotInfo(1, nullptr), ni);
    EXPECT_EQ(p->C_GetTokenInfo(0, &tokenInfo), ni);
    EXPECT_EQ(p->C_GetSlotInfo(0, &slotInfo), ni);
    EXPECT_EQ(p->C_GetMechanismList(0, nullptr, &count), ni);
    EXPECT_EQ(p->C_GetMechanismInfo(0, CKM_RSA_PKCS, &mechInfo), ni);
    EXPECT_EQ(p->C_OpenSession(0, CKF_SERIAL_SESSION, nullptr, nullptr, &session), ni);
    EXPECT_EQ(p->C_CloseSession(1), ni);
    EXPECT_EQ(p->C_CloseAllSessions(0), ni);
    EXPECT_EQ(p->C_GetSessionInfo(1, &sessionInfo), ni);
    EXPECT_EQ(p->C_Login(1, CKU_USER, buffer, 4), ni);
    EXPECT_EQ(p->C_Logout(1), ni);
    EXPECT_EQ(p->C_GetAttributeValue(1, 2, &attribute, 1), ni);
    EXPECT_EQ(p->C_FindObjectsInit(0, nullptr, 0), ni);
    EXPECT_EQ(p->C_DigestInit(1, &sha1), ni);
    EXPECT_EQ(p->C_SignInit(1, &sha1, 2), ni);
    EXPECT_EQ(p->C_SeedRandom(1, nullptr, 4), ni);
    EXPECT_EQ(p->C_GenerateRandom(1, buffer, sizeof buffer), ni);
    EXPECT_EQ(p->C_WaitForSlotEvent(CKF_DONT_BLOCK, &slot, nullptr), ni);
}

TEST_F(LibraryEntry, EncryptUpdateResolvesTheSessionBeforeCheckingTheState)
{
    CK_BYTE in[8] = {}, out[8];
    CK_ULONG outLength = sizeof out;
    EXPECT_EQ(p->C_EncryptUpdate(1, in, sizeof in, out, &outLength), CKR_GENERAL_ERROR);

    ASSERT_EQ(p->C_Initialize(nullptr), CKR_OK);
    EXPECT_EQ(p->C_EncryptUpdate(77, in, sizeof in, out, &outLength), CKR_SESSION_CLOSED);
    ASSERT_EQ(p->C_Finalize(nullptr), CKR_OK);
    EXPECT_EQ(p->C_EncryptUpdate(1, in, sizeof in, out, &outLength), CKR_GENERAL_ERROR);
}
