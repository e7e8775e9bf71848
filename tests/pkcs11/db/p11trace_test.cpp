#include "pkcs11/db/Tavik_p11trace.h"

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QString>

#include <gtest/gtest.h>

#include "logging/ITavikLogger.h"
#include "logging/SimpleLogManager.h"
#include "pkcs11/GetToken.h"
#include "support/temp_home.h"

using TSQ::Tavik::Logging::ITavikLogger;
using TSQ::Tavik::Logging::SimpleLogManager;

namespace {

using Lines = std::vector<std::string>;

// Remembers every line written to it, with the logger operation and source
// line used.
class RecordingLogger : public ITavikLogger {
public:
    void Trace(int line, const char* message) override { record("Trace", line, message); }
    void Trace(int line, const QString& message) override { record("Trace", line, message.toStdString()); }
    void Info(int line, const char* message) override { record("Info", line, message); }
    void Info(int line, const QString& message) override { record("Info", line, message.toStdString()); }
    void Error(int line, const char* message) override { record("Error", line, message); }
    void Error(int line, const QString& message) override { record("Error", line, message.toStdString()); }
    void SetEnabled(bool) override {}
    bool GetEnabled() override { return true; }
    void SetLogLevel(LogLevel) override {}
    LogLevel GetLogLevel() override { return TRACE; }

    std::vector<std::string> levels, texts;

private:
    void record(const std::string& level, int line, const std::string& text)
    {
        levels.push_back(level + ":" + std::to_string(line));
        texts.push_back(text);
    }
};

// Records through a context of its own, which the entry layer's printf-style
// lines use as well while the test runs.
class TraceTest : public ::testing::Test {
protected:
    RecordingLogger logger;
    TSQ_TraceContext context{&logger, 4};
    TSQ_TraceContext* saved = nullptr;

    void SetUp() override { saved = std::exchange(P11TraceContext, &context); }
    void TearDown() override { P11TraceContext = saved; }

    std::string onlyText() const
    {
        EXPECT_EQ(logger.texts.size(), 1u);
        return logger.texts.empty() ? std::string() : logger.texts.back();
    }
};

template <size_t N>
void setField(CK_UTF8CHAR (&field)[N], const char* text)
{
    std::memset(field, ' ', N);
    std::memcpy(field, text, std::strlen(text));
}

CK_ATTRIBUTE attribute(CK_ATTRIBUTE_TYPE type, const void* value, CK_ULONG length)
{
    return CK_ATTRIBUTE{type, const_cast<void*>(value), length};
}

}  // namespace

// ---- levels and threshold ----

// Levels 0 and 5 (the lock lines) and above are never written, nor lines
// above the threshold.
TEST_F(TraceTest, LevelsMapToErrorInfoAndTraceUpToTheThreshold)
{
    context.threshold = 10;
    for (int level = 0; level <= 6; ++level) TSQ_TraceLine(&context, level, "line " + std::to_string(level));
    context.threshold = 2;
    TSQ_TraceLine(&context, 3, "entry");
    TSQ_TraceBytes(&context, 4, "pData", "ab", 2);
    TSQ_TraceLine(&context, 2, "info");
    EXPECT_EQ(logger.levels, (Lines{"Error:0", "Info:0", "Trace:0", "Trace:0", "Info:0"}));
    EXPECT_EQ(logger.texts, (Lines{"line 1", "line 2", "line 3", "line 4", "info"}));
}

TEST_F(TraceTest, PrintfLinesGoThroughTheEntryLayerContextAndDroppedOnesAreNeverFormatted)
{
    TSQ_Trace(3, "Entering %s", "C_SignInit");
    TSQ_Trace(4, "hSession = %u", 17u);
    TSQ_Trace(1, std::string("100% literal"));
    EXPECT_EQ(logger.texts, (Lines{"Entering C_SignInit", "hSession = 17", "100% literal"}));
    EXPECT_EQ(logger.levels[2], "Error:0");

    int written = -1;
    TSQ_Trace(5, "abc%n", &written);
    TSQ_Trace(0, "abc%n", &written);
    EXPECT_EQ(written, -1);
    TSQ_Trace(4, "abc%n", &written);
    EXPECT_EQ(written, 3);

    // A null context or one without a logger writes nothing.
    TSQ_TraceBytes(nullptr, 1, "pData", "ab", 2);
    TSQ_TraceContext noLogger{nullptr, 4};
    TSQ_TraceLine(&noLogger, 1, "x");
    P11TraceContext = nullptr;  // as before the first C_Initialize
    TSQ_Trace(1, "Exiting %s\n", "C_GetInfo");
    EXPECT_EQ(logger.texts.size(), 4u);
}

// ---- buffers and simple lines ----

TEST_F(TraceTest, LongBufferPrintsFirst256BytesInUpperCaseHexThenEllipsis)
{
    std::vector<unsigned char> buffer(300);
    for (size_t i = 0; i < buffer.size(); ++i) buffer[i] = static_cast<unsigned char>(0xA0 + i % 16);
    std::string hex;  // 512 digits: "A0A1...AF" sixteen times
    for (int i = 0; i < 256; ++i) hex += {'A', "0123456789ABCDEF"[i % 16]};
    TSQ_TraceBytes(&context, 4, "pSignature", buffer.data(), buffer.size());
    EXPECT_EQ(onlyText(), "pSignature = " + hex + "...");
    // Exactly 256 bytes fit without the ellipsis.
    EXPECT_EQ(bytesToTraceHex(buffer.data(), 256), hex);
}

TEST_F(TraceTest, FormattersWriteNamesValuesAndNullWithoutSecrets)
{
    unsigned char iv[] = {0x01, 0xAB};
    CK_MECHANISM mechanism{CKM_DES3_CBC, iv, sizeof iv};
    CK_MECHANISM noParameter{CKM_SHA256_RSA_PKCS, nullptr, 0};
    CK_OBJECT_CLASS objectClass = CKO_CERTIFICATE;
    CK_BBOOL yes = CK_TRUE;
    CK_ATTRIBUTE sizes[] = {attribute(CKA_CLASS, &objectClass, sizeof objectClass), attribute(CKA_LABEL, "hello", 5),
                            attribute(CKA_TRUST_SERVER_AUTH, nullptr, CK_UNAVAILABLE_INFORMATION)};
    CK_ATTRIBUTE values[] = {attribute(CKA_TOKEN, &yes, 1), attribute(CKA_LABEL, "Korvo", 5),
                             attribute(CKA_ID, nullptr, 32)};
    TSQ_TraceWithRv(&context, 1, "C_Login", CKR_PIN_INCORRECT);
    TSQ_TraceBytes(&context, 4, "pData", nullptr, 20);
    TSQ_TraceBytes(&context, 4, "pData", "", 0);
    TSQ_TraceSecureBytes(&context, 4, "pPin", "1234", 4);
    TSQ_TraceSecureBytes(&context, 4, "pPin", nullptr, 4);
    TSQ_TraceData(&context, 4, "pLabel", "Korvo\ntoken", 11);
    TSQ_TraceData(&context, 4, "pLabel", nullptr, 32);
    TSQ_TraceBool(&context, 4, "tokenPresent", CK_TRUE);
    TSQ_TraceBool(&context, 4, "tokenPresent", CK_FALSE);
    TSQ_TraceAttributeType(&context, 4, "type", CKA_LABEL);
    TSQ_TraceMechanism(&context, 4, "pMechanism", &mechanism);
    TSQ_TraceMechanism(&context, 4, "pMechanism", &noParameter);
    TSQ_TraceMechanism(&context, 4, "pMechanism", nullptr);
    TSQ_TraceAttributes(&context, 4, "pTemplate:", sizes, 3);
    TSQ_TraceAttributeValues(&context, 4, "Out: pTemplate", values, 3);
    TSQ_TraceAttributes(&context, 4, "pTemplate:", nullptr, 2);
    TSQ_TraceAttributeValues(&context, 4, "empty:", nullptr, 0);
    EXPECT_EQ(logger.texts, (Lines{
        "Exiting C_Login with returncode PIN_INCORRECT\n",
        "pData = NULL", "pData = ", "pPin = (removed)", "pPin = NULL", "pLabel = \"Korvo\\x0Atoken\"", "pLabel = NULL",
        "tokenPresent = CK_TRUE", "tokenPresent = CK_FALSE", "type = CKA_LABEL",
        "pMechanism->mechanism = DES3_CBC, ->pParameter = 01AB, ->ulParameterLen = 2",
        "pMechanism->mechanism = SHA256_RSA_PKCS, ->pParameter = NULL, ->ulParameterLen = 0",
        "pMechanism = NULL",
        "pTemplate:", "  CKA_CLASS size: 8", "  CKA_LABEL size: 5", "  CKA_TRUST_SERVER_AUTH size: -1",
        "Out: pTemplate", "  CKA_TOKEN = CK_TRUE", "  CKA_LABEL = \"Korvo\"", "  CKA_ID = NULL (size:32)",
        "pTemplate:", "  NULL", "empty:"}));
    EXPECT_EQ(logger.levels[0], "Error:0");
}


// ---- attribute values ----


TEST(AttributeValue, RenderingByAttributeType)
{
    CK_BBOOL flags[2] = {CK_FALSE, 7};
    CK_ULONG number = 0, trustClass = CKO_NSS_TRUST, trusted = CKT_NSS_TRUSTED_DELEGATOR,
             keyGen = CKM_RSA_PKCS_KEY_PAIR_GEN, bits = 2048;
    CK_DATE date;
    std::memcpy(&date, "20110303", 8);
    CK_MECHANISM_TYPE allowed[] = {CKM_SHA256_RSA_PKCS, CKM_RSA_PKCS};
    CK_ATTRIBUTE inner[] = {attribute(CKA_SIGN, flags, 1), attribute(CKA_CLASS, nullptr, 0)};
    const unsigned char bytes[] = {0xDE, 0xAD, 0x01};
    const CK_ULONG n = sizeof(CK_ULONG);
    const std::pair<CK_ATTRIBUTE, const char*> cases[] = {
        {attribute(CKA_LABEL, nullptr, 7), "NULL (size:7)"},
        {attribute(CKA_LABEL, "x", CK_UNAVAILABLE_INFORMATION), "error (size:-1)"},
        {attribute(CKA_SIGN, flags, 2), "bad length"},
        {attribute(CKA_CLASS, &number, 4), "bad length"},
        {attribute(CKA_ALLOWED_MECHANISMS, allowed, 3), "bad length"},
        {attribute(CKA_CLASS, &trustClass, n), "CKO_NSS_TRUST"},
        {attribute(CKA_TRUST_CODE_SIGNING, &trusted, n), "CKT_NSS_TRUSTED_DELEGATOR"},
        {attribute(CKA_KEY_GEN_MECHANISM, &keyGen, n), "RSA_PKCS_KEY_PAIR_GEN"},
        {attribute(CKA_MODULUS_BITS, &bits, n), "2048"},
        {attribute(CKA_PRIVATE, &flags[0], 1), "CK_FALSE"},
        {attribute(CKA_PRIVATE, &flags[1], 1), "0x07"},
        {attribute(CKA_LABEL, "Jens Hansen", 11), "\"Jens Hansen\""},
        {attribute(CKA_END_DATE, &date, sizeof date), "2011-03-03"},
        {attribute(CKA_ALLOWED_MECHANISMS, allowed, sizeof allowed), "SHA256_RSA_PKCS, RSA_PKCS"},
        {attribute(CKA_WRAP_TEMPLATE, inner, sizeof inner), "[CKA_SIGN, CKA_CLASS]"},
        {attribute(CKA_VALUE, bytes, 3), "(removed)"},
        {attribute(CKA_PRIVATE_EXPONENT, bytes, 3), "(removed)"},
        {attribute(CKA_CERT_SHA1_HASH, bytes, 3), "DEAD01"},
        {attribute(CKA_MODULUS, bytes, 0), ""},
    };
    for (const auto& [value, expected] : cases)
        EXPECT_EQ(attributeValueToString(value), expected) << attributeTypeToString(value.type);
}

// ---- name tables ----

TEST(NameTables, SpellingsAndValuesOutsideTheTables)
{
    const std::pair<const char*, const char*> names[] = {
        {attributeTypeToString(CKA_VENDOR_DEFINED), "CKA_VENDOR_DEFINED"},
        {attributeTypeToString(CKA_TRUST_SERVER_AUTH), "CKA_TRUST_SERVER_AUTH"},
        {attributeTypeToString(CKA_CERT_SHA1_HASH), "CKA_CERT_SHA1_HASH"},
        {mechanismTypeToString(CKM_RSA_PKCS_KEY_PAIR_GEN), "RSA_PKCS_KEY_PAIR_GEN"},
        {mechanismTypeToString(CKM_SHA_1_HMAC_GENERAL), "SHA_1_HMAC_GENERAL"},
        {mechanismTypeToString(CKM_VENDOR_DEFINED), "VENDOR_DEFINED"},
        {ckrToString(CKR_SESSION_PARALLEL_NOT_SUPPORTED), "SESSION_PARALLEL_NOT_SUPPORTED"},
        {ckrToString(CKR_USER_ANOTHER_ALREADY_LOGGED_IN), "USER_ANOTHER_ALREADY_LOGGED_IN"},
        {ckrToString(CKR_VENDOR_DEFINED), "VENDOR_DEFINED"},
        {keyTypetoString(CKK_CAST128), "CKK_CAST128"},
        {objectClassToString(CKO_NSS_TRUST), "CKO_NSS_TRUST"},
        {trustTypeToString(CKT_NSS_TRUSTED), "CKT_NSS_TRUSTED"},
        {trustTypeToString(CKT_NSS_MUST_VERIFY_TRUST), "CKT_NSS_UNTRUSTED"},
        {trustTypeToString(CKT_NSS + 4), "CKT_NSS_MUST_VERIFY"},
        {trustTypeToString(CKT_NSS_TRUST_UNKNOWN), "CKT_NSS_TRUST_UNKNOWN"},
        {userTypeToString(CKU_CONTEXT_SPECIFIC), "CKU_CONTEXT_SPECIFIC"},
        {attributeTypeToString(CKA_PROFILE_ID), "unknown"},
        {mechanismTypeToString(CKM_VENDOR_DEFINED + 1), "unknown"},
        {ckrToString(CKR_ACTION_PROHIBITED), "unknown"},
        {objectClassToString(CKO_PROFILE), "unknown"},
        {certificateTypeToString(7), "unknown"},
    };
    for (const auto& [name, expected] : names) EXPECT_STREQ(name, expected);
}

// ---- object handles ----

TEST_F(TraceTest, ObjectHandlesWithoutATokenAndDescriptionsPreferringLabelThenIdentifier)
{
    ASSERT_EQ(GetToken(), nullptr);
    EXPECT_EQ(objectHandleToString(42), "hObject=42 (No token handle)");
    EXPECT_EQ(objectDescriptionToString(9, false, "ignored", "AB"), "hObject=9 (Invalid handle)");
    EXPECT_EQ(objectDescriptionToString(9, true, "Jens \xC3\x98stergaard", "AB01"),
              "hObject=9 CKA_LABEL=\"Jens \xC3\x98stergaard\"");
    EXPECT_EQ(objectDescriptionToString(9, true, "", "AB01"), "hObject=9 CKA_ID=\"AB01\"");
    EXPECT_EQ(objectDescriptionToString(4000000000UL, true, "", ""), "hObject=4000000000");

    CK_OBJECT_HANDLE found[] = {3, 5};
    TSQ_TraceObject(&context, 4, "hKey", 3);
    TSQ_TraceObjects(&context, 4, "phObject", found, 2);
    TSQ_TraceObjects(&context, 4, "phObject", nullptr, 2);
    EXPECT_EQ(logger.texts, (Lines{"hKey = hObject=3 (No token handle)", "phObject count: 2",
                                   "  hObject=3 (No token handle)", "  hObject=5 (No token handle)",
                                   "phObject = NULL"}));
}

// ---- structure dumps ----

TEST_F(TraceTest, LibraryAndSessionInfoDumps)
{
    CK_INFO info{};
    info.cryptokiVersion = {2, 20};
    info.libraryVersion = {2, 0};
    std::memcpy(info.manufacturerID, "Tavik A/S                ", 25);  // then 7 zero bytes
    setField(info.libraryDescription, "Korvo cryptographic library");
    CK_SESSION_INFO session{0, CKS_RW_USER_FUNCTIONS, CKF_RW_SESSION | CKF_SERIAL_SESSION, 0};
    TSQ_TraceInfo(&context, 4, "pInfo", &info);
    TSQ_TraceSessionInfo(&context, 4, "pInfo", &session);
    EXPECT_EQ(logger.texts, (Lines{
        "pInfo->flags = 0, ->cryptokiVersion = 2.20, ->manufacturerID = Tavik A/S                \n"
        "  ->libraryVersion = 2.0, ->libraryDescription = Korvo cryptographic library     ",
        "pInfo->slotId = 0, ->state = 3, ->flags = 6, ->ulDeviceError = 0"}));
}

TEST_F(TraceTest, TokenInfoDumpListsTheFieldsInOrder)
{
    CK_TOKEN_INFO info{};
    setField(info.label, "Korvo central server");
    setField(info.manufacturerID, "Tavik");
    setField(info.model, "Korvo token");
    setField(info.serialNumber, "1");
    info.flags = CKF_WRITE_PROTECTED;
    info.ulMaxSessionCount = 100;
    std::memcpy(info.utcTime, "2011030314050900", 16);
    TSQ_TraceTokenInfo(&context, 4, "pInfo", &info);
    const std::string text = onlyText();
    const std::string beginning = "pInfo->label = Korvo central server            \n"
                                  "  ->manufacturerId = Tavik" + std::string(27, ' ') + "\n"
                                  "  ->model = Korvo token     \n"
                                  "  ->serialNumber = 1" + std::string(15, ' ') + "\n"
                                  "  ->flags = 2\n"
                                  "  ->ulMaxSessionCount = 100\n";
    EXPECT_EQ(text.substr(0, beginning.size()), beginning);
    EXPECT_NE(text.find("\n  ->firmwareVersion = 0.0\n  ->utcTime = 2011030314050900"), std::string::npos);
}

// ---- the trace on the real log manager ----

TEST(TraceInit, OpensOneContextWhoseLinesReachTheConfiguredLogFile)
{
    TSQ_Trace_Init();
    TSQ_TraceContext* first = P11TraceContext;
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->threshold, 4);
    TSQ_Trace_Init();
    EXPECT_EQ(P11TraceContext, first);

    // The settings leave logging off; switch it on for this test only.
    const QString logFile = testsupport::tempHome() + QStringLiteral("/.config/Tessaract/Korvo.log");
    QDir().mkpath(QFileInfo(logFile).absolutePath());
    QFile::remove(logFile);
    SimpleLogManager::GetInstance()->SetLogging(true);
    SimpleLogManager::GetInstance()->SetLevel(ITavikLogger::TRACE);
    TSQ_Trace(4, "argument line %d", 4);
    TSQ_Trace(5, "lock line %d", 5);
    SimpleLogManager::GetInstance()->SetLogging(false);

    QFile file(logFile);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly | QIODevice::Text));
    const QString log = QString::fromUtf8(file.readAll());
    QFile::remove(logFile);
    EXPECT_TRUE(log.contains(QStringLiteral(" - Tavik PKCS#11(")));
    EXPECT_TRUE(log.contains(QStringLiteral("Tavik_p11trace.cpp:0 - [TRACE] - argument line 4")));
    EXPECT_FALSE(log.contains(QStringLiteral("lock line")));
}
