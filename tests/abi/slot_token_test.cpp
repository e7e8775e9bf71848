// The one slot and its token as an application sees them: slot list, slot
// and token information, the mechanism table, slot events and the
// write-protected token management functions.

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "abi/module_harness.h"

using korvo::field;
using korvo::padded;
using korvo::version;

namespace {

class SlotToken : public korvo::InitializedTest {};

const std::string kManufacturer = padded("Tavik A/S", 25) + std::string(7, '\0');

struct MechanismRow {
    CK_MECHANISM_TYPE type;
    CK_ULONG min;
    CK_ULONG max;
    CK_FLAGS flags;
};

constexpr CK_FLAGS kRsaAll = CKF_HW | CKF_ENCRYPT | CKF_DECRYPT | CKF_SIGN | CKF_VERIFY | CKF_WRAP | CKF_UNWRAP;
constexpr CK_FLAGS kRsaCrypt = CKF_HW | CKF_ENCRYPT | CKF_DECRYPT | CKF_WRAP | CKF_UNWRAP;
constexpr CK_FLAGS kRsaSign = CKF_HW | CKF_SIGN | CKF_VERIFY;
constexpr CK_FLAGS kCipher = CKF_ENCRYPT | CKF_DECRYPT | CKF_WRAP | CKF_UNWRAP;

const MechanismRow kMechanisms[] = {
    {CKM_RSA_PKCS, 64, 4096, kRsaAll},
    {CKM_RSA_PKCS_OAEP, 64, 4096, kRsaCrypt},
    {CKM_RSA_X_509, 64, 4096, kRsaAll},
    {CKM_SHA1_RSA_PKCS, 64, 4096, kRsaSign},
    {CKM_SHA256_RSA_PKCS, 64, 4096, kRsaSign},
    {CKM_SHA384_RSA_PKCS, 64, 4096, kRsaSign},
    {CKM_SHA512_RSA_PKCS, 64, 4096, kRsaSign},
    {CKM_RSA_PKCS_PSS, 64, 4096, kRsaSign},
    {CKM_SHA1_RSA_PKCS_PSS, 64, 4096, kRsaSign},
    {CKM_SHA256_RSA_PKCS_PSS, 64, 4096, kRsaSign},
    {CKM_SHA384_RSA_PKCS_PSS, 64, 4096, kRsaSign},
    {CKM_SHA512_RSA_PKCS_PSS, 64, 4096, kRsaSign},
    {CKM_DES_KEY_GEN, 8, 8, CKF_GENERATE},
    {CKM_DES_ECB, 8, 8, kCipher},
    {CKM_DES_CBC, 8, 8, kCipher},
    {CKM_DES_CBC_PAD, 8, 8, kCipher},
    {CKM_DES2_KEY_GEN, 16, 16, CKF_GENERATE},
    {CKM_DES3_KEY_GEN, 24, 24, CKF_GENERATE},
    {CKM_DES3_ECB, 16, 24, kCipher},
    {CKM_DES3_CBC, 16, 24, kCipher},
    {CKM_DES3_CBC_PAD, 16, 24, kCipher},
    {CKM_AES_KEY_GEN, 16, 64, CKF_GENERATE},
    {CKM_AES_ECB, 16, 64, kCipher},
    {CKM_AES_CBC, 16, 64, kCipher},
    {CKM_AES_CBC_PAD, 16, 64, kCipher},
    {CKM_RC2_KEY_GEN, 1, 128, CKF_GENERATE},
    {CKM_RC2_ECB, 1, 128, kCipher},
    {CKM_RC2_CBC, 1, 128, kCipher},
    {CKM_RC2_CBC_PAD, 1, 128, kCipher},
    {CKM_RC4_KEY_GEN, 1, 256, CKF_GENERATE},
    {CKM_RC4, 1, 256, kCipher},
};

}  // namespace

// ---- Slot list, slot and token information ----------------------------------

TEST_F(SlotToken, SlotListHasTheOneSlotZero)
{
    for (CK_BBOOL present : {CK_FALSE, CK_TRUE}) {
        CK_SLOT_ID slots[4] = {7, 7, 7, 7};
        CK_ULONG count = 0;
        ASSERT_EQ(p->C_GetSlotList(present, nullptr, &count), CKR_OK);
        EXPECT_EQ(count, 1u);
        count = 4;
        EXPECT_EQ(p->C_GetSlotList(present, slots, &count), CKR_OK);
        EXPECT_EQ(count, 1u);
        EXPECT_EQ(std::vector<CK_SLOT_ID>(slots, slots + 2), std::vector<CK_SLOT_ID>({0, 7}));
    }
    // An empty buffer gets the count only.
    CK_SLOT_ID slot = 7;
    CK_ULONG count = 0;
    EXPECT_EQ(p->C_GetSlotList(CK_FALSE, &slot, &count), CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(slot, 7u);
}

TEST_F(SlotToken, SlotInfoDescribesAFixedSlotWithItsToken)
{
    CK_SLOT_INFO info;
    EXPECT_EQ(p->C_GetSlotInfo(1, nullptr), CKR_ARGUMENTS_BAD);  // the buffer before the slot
    EXPECT_EQ(p->C_GetSlotInfo(1, &info), CKR_SLOT_ID_INVALID);
    memset(&info, 0xA5, sizeof info);
    ASSERT_EQ(p->C_GetSlotInfo(0, &info), CKR_OK);
    EXPECT_EQ(field(info.slotDescription), padded("Korvo slot", 64));
    EXPECT_EQ(field(info.manufacturerID), kManufacturer);
    EXPECT_EQ(info.flags, CKF_TOKEN_PRESENT);
    EXPECT_EQ(version(info.hardwareVersion) + " " + version(info.firmwareVersion), "0.0 0.0");
}

TEST_F(SlotToken, TokenInfoDescribesTheWriteProtectedToken)
{
    CK_TOKEN_INFO info;
    EXPECT_EQ(p->C_GetTokenInfo(0, nullptr), CKR_ARGUMENTS_BAD);
    EXPECT_EQ(p->C_GetTokenInfo(1, &info), CKR_SLOT_ID_INVALID);
    memset(&info, 0xA5, sizeof info);
    ASSERT_EQ(p->C_GetTokenInfo(0, &info), CKR_OK);
    EXPECT_EQ(field(info.label), padded("Korvo central server", 32));
    EXPECT_EQ(field(info.manufacturerID), kManufacturer);
    EXPECT_EQ(field(info.model) + field(info.serialNumber), padded("Korvo token", 16) + padded("", 15) + "1");
    EXPECT_EQ(field(info.utcTime), padded("", 16));
    // RNG, write protected, user PIN initialised, token initialised.
    const CK_ULONG n = CK_UNAVAILABLE_INFORMATION;
    EXPECT_EQ(std::vector<CK_ULONG>({info.flags, info.ulMaxSessionCount, info.ulSessionCount, info.ulMaxRwSessionCount,
                                     info.ulRwSessionCount, info.ulMaxPinLen, info.ulMinPinLen,
                                     info.ulTotalPublicMemory, info.ulFreePublicMemory, info.ulTotalPrivateMemory,
                                     info.ulFreePrivateMemory}),
              std::vector<CK_ULONG>({1035, 0, 0, 0, 0, 1024, 1, n, n, n, n}));
    EXPECT_EQ(version(info.hardwareVersion) + " " + version(info.firmwareVersion), "0.0 0.0");
}

TEST_F(SlotToken, TokenInfoCountsFollowOpensAndCloses)
{
    auto counts = [this] {
        CK_TOKEN_INFO info;
        EXPECT_EQ(p->C_GetTokenInfo(0, &info), CKR_OK);
        return std::make_pair(info.ulSessionCount, info.ulRwSessionCount);
    };
    const CK_FLAGS rw = CKF_SERIAL_SESSION | CKF_RW_SESSION;
    const CK_SESSION_HANDLE ro = openSession(), rw1 = openSession(rw);
    openSession(rw);
    EXPECT_EQ(counts(), std::make_pair(3ul, 2ul));
    ASSERT_EQ(p->C_CloseSession(rw1), CKR_OK);
    ASSERT_EQ(p->C_CloseSession(ro), CKR_OK);
    // A refused open changes nothing.
    CK_SESSION_HANDLE refused = 0;
    EXPECT_EQ(p->C_OpenSession(0, CKF_RW_SESSION, nullptr, nullptr, &refused), CKR_SESSION_PARALLEL_NOT_SUPPORTED);
    EXPECT_EQ(counts(), std::make_pair(1ul, 1ul));
    openSession();
    ASSERT_EQ(p->C_CloseAllSessions(0), CKR_OK);
    EXPECT_EQ(counts(), std::make_pair(0ul, 0ul));
}

// ---- Mechanisms --------------------------------------------------------------

TEST_F(SlotToken, MechanismListAndInfoGiveTheFixedTableInOrderAndNothingElse)
{
    std::vector<CK_MECHANISM_TYPE> types(40, 0xdead);
    CK_ULONG count = 30;
    EXPECT_EQ(p->C_GetMechanismList(0, types.data(), &count), CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ(count, 31u);
    count = types.size();
    ASSERT_EQ(p->C_GetMechanismList(0, types.data(), &count), CKR_OK);
    ASSERT_EQ(count, 31u);
    EXPECT_EQ(types[31], 0xdeadu);
    for (size_t i = 0; i < 31; ++i) {
        const MechanismRow& row = kMechanisms[i];
        SCOPED_TRACE(testing::Message() << "row " << i + 1 << ", mechanism 0x" << std::hex << row.type);
        EXPECT_EQ(types[i], row.type);
        CK_MECHANISM_INFO info;
        ASSERT_EQ(p->C_GetMechanismInfo(0, row.type, &info), CKR_OK);
        EXPECT_EQ(std::vector<CK_ULONG>({info.ulMinKeySize, info.ulMaxKeySize, info.flags}),
                  std::vector<CK_ULONG>({row.min, row.max, row.flags}));
    }
    // The software core digests, but the table does not list digests.
    CK_MECHANISM_INFO info;
    EXPECT_EQ(p->C_GetMechanismInfo(0, CKM_SHA_1, &info), CKR_MECHANISM_INVALID);
    EXPECT_EQ(p->C_GetMechanismInfo(0, CKM_DSA, &info), CKR_MECHANISM_INVALID);
    // Argument and slot checks.
    EXPECT_EQ(p->C_GetMechanismInfo(0, CKM_RSA_PKCS, nullptr), CKR_ARGUMENTS_BAD);
    EXPECT_EQ(p->C_GetMechanismInfo(1, CKM_RSA_PKCS, &info), CKR_SLOT_ID_INVALID);
    EXPECT_EQ(p->C_GetMechanismList(1, nullptr, &count), CKR_SLOT_ID_INVALID);
}

// ---- Slot events and token management --------------------------------------------

TEST_F(SlotToken, WaitForSlotEventNeverBlocksAndNeverReportsAnEvent)
{
    CK_SLOT_ID slot = 42;
    EXPECT_EQ(p->C_WaitForSlotEvent(CKF_DONT_BLOCK, &slot, nullptr), CKR_NO_EVENT);
    EXPECT_EQ(p->C_WaitForSlotEvent(0, &slot, nullptr), CKR_FUNCTION_FAILED);
    EXPECT_EQ(slot, 42u);
}

TEST_F(SlotToken, TokenManagementIsRefusedOnTheWriteProtectedToken)
{
    CK_UTF8CHAR label[32];
    memset(label, ' ', sizeof label);
    CK_UTF8CHAR pin[] = "1234";
    EXPECT_EQ(p->C_InitToken(0, pin, 4, label), CKR_TOKEN_WRITE_PROTECTED);
    EXPECT_EQ(p->C_InitToken(1, pin, 4, label), CKR_SLOT_ID_INVALID);

    const CK_SESSION_HANDLE session = openSession(CKF_SERIAL_SESSION | CKF_RW_SESSION);
    EXPECT_EQ(p->C_SetPIN(session, pin, 4, pin, 4), CKR_TOKEN_WRITE_PROTECTED);
    // Only a security officer may set the user PIN, and none can log in.
    EXPECT_EQ(p->C_InitPIN(session, pin, 4), CKR_USER_NOT_LOGGED_IN);
    ASSERT_EQ(p->C_Login(session, CKU_USER, pin, 4), CKR_OK);
    EXPECT_EQ(p->C_InitPIN(session, pin, 4), CKR_USER_NOT_LOGGED_IN);
    EXPECT_EQ(p->C_SetPIN(session, pin, 4, pin, 4), CKR_TOKEN_WRITE_PROTECTED);
}
