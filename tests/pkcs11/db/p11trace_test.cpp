#include "pkcs11/db/Tavik_p11trace.h"

#include <cstring>
#include <string>
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

// Remembers every line written to it, with the logger operation used.
class RecordingLogger : public ITavikLogger {
public:
    struct Line {
        std::string level;
        int sourceLine;
        std::string text;
    };

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

    std::vector<Line> lines;

private:
    void record(const char* level, int line, const std::string& text) { lines.push_back({level, line, text}); }
};

class TraceTest : public ::testing::Test {
protected:
    RecordingLogger logger;
    TSQ_TraceContext context{&logger, 4};

    std::vector<std::string> texts() const
    {
        std::vector<std::string> result;
        for (const auto& line : logger.lines) result.push_back(line.text);
        return result;
    }

    std::string onlyText() const
    {
        EXPECT_EQ(logger.lines.size(), 1u);
        return logger.lines.empty() ? std::string() : logger.lines.back().text;
    }
};

// Points the entry layer's context at a test context for one test.
class GlobalTraceTest : public TraceTest {
protected:
    void SetUp() override
    {
        saved = P11TraceContext;
        P11TraceContext = &context;
    }
    void TearDown() override { P11TraceContext = saved; }

    TSQ_TraceContext* saved = nullptr;
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

TEST_F(TraceTest, LevelsMapToErrorInfoAndTraceWithSourceLineZero)
{
    for (int level = 1; level <= 4; ++level) TSQ_TraceLine(&context, level, "line " + std::to_string(level));

    ASSERT_EQ(logger.lines.size(), 4u);
    EXPECT_EQ(logger.lines[0].level, "Error");
    EXPECT_EQ(logger.lines[1].level, "Info");
    EXPECT_EQ(logger.lines[2].level, "Trace");
    EXPECT_EQ(logger.lines[3].level, "Trace");
    EXPECT_EQ(logger.lines[3].text, "line 4");
    for (const auto& line : logger.lines) EXPECT_EQ(line.sourceLine, 0);
}

TEST_F(TraceTest, LevelZeroAndLevelsAboveFourAreNeverWritten)
{
    context.threshold = 10;
    TSQ_TraceLine(&context, 0, "zero");
    TSQ_TraceLine(&context, 5, "lock line");
    TSQ_TraceLine(&context, 6, "six");
    EXPECT_TRUE(logger.lines.empty());
}

TEST_F(TraceTest, LinesAboveTheThresholdAreDropped)
{
    context.threshold = 2;
    TSQ_TraceLine(&context, 3, "entry");
    TSQ_TraceBytes(&context, 4, "pData", "ab", 2);
    TSQ_TraceLine(&context, 2, "info");
    EXPECT_EQ(texts(), std::vector<std::string>{"info"});
}

TEST_F(TraceTest, NullContextOrMissingLoggerWritesNothing)
{
    CK_INFO info{};
    TSQ_TraceLine(nullptr, 1, "x");
    TSQ_TraceBytes(nullptr, 1, "pData", "ab", 2);
    TSQ_TraceInfo(nullptr, 1, "pInfo", &info);
    TSQ_TraceObject(nullptr, 1, "hKey", 3);
    TSQ_TraceContext noLogger{nullptr, 4};
    TSQ_TraceLine(&noLogger, 1, "x");

    TSQ_TraceContext* saved = P11TraceContext;
    P11TraceContext = nullptr;  // as before the first C_Initialize
    TSQ_Trace(1, "Exiting %s\n", "C_GetInfo");
    P11TraceContext = saved;
    EXPECT_TRUE(logger.lines.empty());
}

TEST_F(GlobalTraceTest, PrintfLinesGoThroughTheEntryLayerContext)
{
    TSQ_Trace(3, "Entering %s", "C_SignInit");
    TSQ_Trace(4, "hSession = %u", 17u);
    TSQ_Trace(1, std::string("100% literal"));
    EXPECT_EQ(texts(), (std::vector<std::string>{"Entering C_SignInit", "hSession = 17", "100% literal"}));
    EXPECT_EQ(logger.lines[2].level, "Error");
}

TEST_F(GlobalTraceTest, ADroppedLineIsNeverFormatted)
{
    int written = -1;
    TSQ_Trace(5, "abc%n", &written);
    EXPECT_EQ(written, -1);
    TSQ_Trace(0, "abc%n", &written);
    EXPECT_EQ(written, -1);

    TSQ_Trace(4, "abc%n", &written);
    EXPECT_EQ(written, 3);
}

// ---- byte buffers ----

TEST_F(TraceTest, LongBufferPrintsFirst256BytesInUpperCaseHexThenEllipsis)
{
    std::vector<unsigned char> buffer(300);
    for (size_t i = 0; i < buffer.size(); ++i) buffer[i] = static_cast<unsigned char>(0xA0 + i % 16);
    TSQ_TraceBytes(&context, 4, "pSignature", buffer.data(), buffer.size());

    const std::string text = onlyText();
    const std::string prefix = "pSignature = ";
    ASSERT_EQ(text.compare(0, prefix.size(), prefix), 0);
    const std::string hex = text.substr(prefix.size());
    ASSERT_EQ(hex.size(), 512u + 3u);
    EXPECT_EQ(hex.substr(0, 8), "A0A1A2A3");
    EXPECT_EQ(hex.substr(510, 5), "AF...");
    EXPECT_EQ(hex.find_first_of("abcdef"), std::string::npos);
}

TEST(TraceBytesText, BufferOfExactly256BytesHasNoEllipsis)
{
    std::vector<unsigned char> buffer(256, 0x0F);
    std::string expected;
    for (int i = 0; i < 256; ++i) expected += "0F";
    EXPECT_EQ(bytesToTraceHex(buffer.data(), buffer.size()), expected);
    buffer.push_back(0x0F);
    EXPECT_EQ(bytesToTraceHex(buffer.data(), buffer.size()), expected + "...");
}

TEST_F(TraceTest, NullAndEmptyBuffers)
{
    TSQ_TraceBytes(&context, 4, "pData", nullptr, 20);
    TSQ_TraceBytes(&context, 4, "pData", "", 0);
    EXPECT_EQ(texts(), (std::vector<std::string>{"pData = NULL", "pData = "}));
}

TEST_F(TraceTest, SecretBuffersNeverShowTheirBytes)
{
    const char pin[] = "1234";
    TSQ_TraceSecureBytes(&context, 4, "pPin", pin, 4);
    TSQ_TraceSecureBytes(&context, 4, "pPin", nullptr, 4);
    EXPECT_EQ(texts(), (std::vector<std::string>{"pPin = (removed)", "pPin = NULL"}));
}

TEST_F(TraceTest, TextDataIsQuotedWithControlCharactersEscaped)
{
    TSQ_TraceData(&context, 4, "pLabel", "Korvo\ntoken", 11);
    TSQ_TraceData(&context, 4, "pLabel", nullptr, 32);
    EXPECT_EQ(texts(), (std::vector<std::string>{"pLabel = \"Korvo\\x0Atoken\"", "pLabel = NULL"}));
}

// ---- simple lines ----

TEST_F(TraceTest, ReturnCodeExitLineNamesTheCodeWithoutPrefix)
{
    TSQ_TraceWithRv(&context, 1, "C_Login", CKR_PIN_INCORRECT);
    EXPECT_EQ(onlyText(), "Exiting C_Login with returncode PIN_INCORRECT\n");
    EXPECT_EQ(logger.lines[0].level, "Error");
}

TEST_F(TraceTest, BooleansAndAttributeTypes)
{
    TSQ_TraceBool(&context, 4, "tokenPresent", CK_TRUE);
    TSQ_TraceBool(&context, 4, "tokenPresent", CK_FALSE);
    TSQ_TraceAttributeType(&context, 4, "type", CKA_LABEL);
    EXPECT_EQ(texts(),
              (std::vector<std::string>{"tokenPresent = CK_TRUE", "tokenPresent = CK_FALSE", "type = CKA_LABEL"}));
}

TEST_F(TraceTest, MechanismLineShowsNameAndParameter)
{
    unsigned char iv[] = {0x01, 0xAB};
    CK_MECHANISM mechanism{CKM_DES3_CBC, iv, sizeof iv};
    CK_MECHANISM noParameter{CKM_SHA256_RSA_PKCS, nullptr, 0};
    TSQ_TraceMechanism(&context, 4, "pMechanism", &mechanism);
    TSQ_TraceMechanism(&context, 4, "pMechanism", &noParameter);
    TSQ_TraceMechanism(&context, 4, "pMechanism", nullptr);
    EXPECT_EQ(texts(), (std::vector<std::string>{
                           "pMechanism->mechanism = DES3_CBC, ->pParameter = 01AB, ->ulParameterLen = 2",
                           "pMechanism->mechanism = SHA256_RSA_PKCS, ->pParameter = NULL, ->ulParameterLen = 0",
                           "pMechanism = NULL"}));
}

// ---- templates ----

TEST_F(TraceTest, AttributeListPrintsTitleThenNameAndSizePerAttribute)
{
    CK_OBJECT_CLASS objectClass = CKO_CERTIFICATE;
    CK_ATTRIBUTE attributes[] = {
        attribute(CKA_CLASS, &objectClass, sizeof objectClass),
        attribute(CKA_LABEL, "hello", 5),
        attribute(CKA_TRUST_SERVER_AUTH, nullptr, CK_UNAVAILABLE_INFORMATION),
    };
    TSQ_TraceAttributes(&context, 4, "pTemplate:", attributes, 3);
    EXPECT_EQ(texts(), (std::vector<std::string>{"pTemplate:", "  CKA_CLASS size: 8", "  CKA_LABEL size: 5",
                                                 "  CKA_TRUST_SERVER_AUTH size: -1"}));
}

TEST_F(TraceTest, AttributeValuesPrintNameAndRenderedValue)
{
    CK_BBOOL yes = CK_TRUE;
    CK_ATTRIBUTE attributes[] = {
        attribute(CKA_TOKEN, &yes, 1),
        attribute(CKA_LABEL, "Korvo", 5),
        attribute(CKA_ID, nullptr, 32),
    };
    TSQ_TraceAttributeValues(&context, 4, "Out: pTemplate", attributes, 3);
    EXPECT_EQ(texts(), (std::vector<std::string>{"Out: pTemplate", "  CKA_TOKEN = CK_TRUE",
                                                 "  CKA_LABEL = \"Korvo\"", "  CKA_ID = NULL (size:32)"}));
}

TEST_F(TraceTest, NullTemplateGivesTitleAndNull)
{
    TSQ_TraceAttributes(&context, 4, "pTemplate:", nullptr, 2);
    TSQ_TraceAttributeValues(&context, 4, "empty:", nullptr, 0);
    EXPECT_EQ(texts(), (std::vector<std::string>{"pTemplate:", "  NULL", "empty:"}));
}

// ---- attribute values ----

TEST(AttributeValue, FixedTextsForNullValueUnavailableAndBadLength)
{
    CK_BBOOL flags[2] = {CK_TRUE, CK_FALSE};
    CK_ULONG number = 0;
    EXPECT_EQ(attributeValueToString(attribute(CKA_LABEL, nullptr, 7)), "NULL (size:7)");
    EXPECT_EQ(attributeValueToString(attribute(CKA_LABEL, "x", CK_UNAVAILABLE_INFORMATION)), "error (size:-1)");
    EXPECT_EQ(attributeValueToString(attribute(CKA_SIGN, flags, 2)), "bad length");
    EXPECT_EQ(attributeValueToString(attribute(CKA_CLASS, &number, 4)), "bad length");
    EXPECT_EQ(attributeValueToString(attribute(CKA_MODULUS_BITS, &number, 0)), "bad length");
    EXPECT_EQ(attributeValueToString(attribute(CKA_START_DATE, "2011", 4)), "bad length");
}

TEST(AttributeValue, NumbersAreRenderedByName)
{
    CK_OBJECT_CLASS trustClass = CKO_NSS_TRUST;
    CK_KEY_TYPE rsa = CKK_RSA;
    CK_CERTIFICATE_TYPE x509 = CKC_X_509;
    CK_ULONG trusted = CKT_NSS_TRUSTED_DELEGATOR;
    CK_MECHANISM_TYPE mechanism = CKM_RSA_PKCS_KEY_PAIR_GEN;
    CK_ULONG bits = 2048;
    EXPECT_EQ(attributeValueToString(attribute(CKA_CLASS, &trustClass, sizeof(CK_ULONG))), "CKO_NSS_TRUST");
    EXPECT_EQ(attributeValueToString(attribute(CKA_KEY_TYPE, &rsa, sizeof(CK_ULONG))), "CKK_RSA");
    EXPECT_EQ(attributeValueToString(attribute(CKA_CERTIFICATE_TYPE, &x509, sizeof(CK_ULONG))), "CKC_X_509");
    EXPECT_EQ(attributeValueToString(attribute(CKA_TRUST_CODE_SIGNING, &trusted, sizeof(CK_ULONG))),
              "CKT_NSS_TRUSTED_DELEGATOR");
    EXPECT_EQ(attributeValueToString(attribute(CKA_KEY_GEN_MECHANISM, &mechanism, sizeof(CK_ULONG))),
              "RSA_PKCS_KEY_PAIR_GEN");
    EXPECT_EQ(attributeValueToString(attribute(CKA_MODULUS_BITS, &bits, sizeof(CK_ULONG))), "2048");
}

TEST(AttributeValue, BooleansTextsDatesAndArrays)
{
    CK_BBOOL no = CK_FALSE;
    CK_BBOOL odd = 7;
    CK_DATE date;
    std::memcpy(&date, "20110303", 8);
    CK_MECHANISM_TYPE allowed[] = {CKM_SHA256_RSA_PKCS, CKM_RSA_PKCS};
    CK_ATTRIBUTE inner[] = {attribute(CKA_SIGN, &no, 1), attribute(CKA_CLASS, nullptr, 0)};
    EXPECT_EQ(attributeValueToString(attribute(CKA_PRIVATE, &no, 1)), "CK_FALSE");
    EXPECT_EQ(attributeValueToString(attribute(CKA_PRIVATE, &odd, 1)), "0x07");
    EXPECT_EQ(attributeValueToString(attribute(CKA_LABEL, "Jens Hansen", 11)), "\"Jens Hansen\"");
    EXPECT_EQ(attributeValueToString(attribute(CKA_END_DATE, &date, sizeof date)), "2011-03-03");
    EXPECT_EQ(attributeValueToString(attribute(CKA_END_DATE, &date, 0)), "");
    EXPECT_EQ(attributeValueToString(attribute(CKA_ALLOWED_MECHANISMS, allowed, sizeof allowed)),
              "SHA256_RSA_PKCS, RSA_PKCS");
    EXPECT_EQ(attributeValueToString(attribute(CKA_ALLOWED_MECHANISMS, allowed, 3)), "bad length");
    EXPECT_EQ(attributeValueToString(attribute(CKA_WRAP_TEMPLATE, inner, sizeof inner)), "[CKA_SIGN, CKA_CLASS]");
}

TEST(AttributeValue, SecretComponentsAreRemovedAndOtherBytesShownAsHex)
{
    const unsigned char bytes[] = {0xDE, 0xAD, 0x01};
    EXPECT_EQ(attributeValueToString(attribute(CKA_VALUE, bytes, 3)), "(removed)");
    EXPECT_EQ(attributeValueToString(attribute(CKA_PRIVATE_EXPONENT, bytes, 3)), "(removed)");
    EXPECT_EQ(attributeValueToString(attribute(CKA_PRIME_2, bytes, 3)), "(removed)");
    EXPECT_EQ(attributeValueToString(attribute(CKA_ID, bytes, 3)), "DEAD01");
    EXPECT_EQ(attributeValueToString(attribute(CKA_CERT_SHA1_HASH, bytes, 3)), "DEAD01");
    EXPECT_EQ(attributeValueToString(attribute(CKA_MODULUS, bytes, 0)), "");
}

// ---- name tables ----

TEST(NameTables, AttributeTypesCarryTheirPrefix)
{
    EXPECT_STREQ(attributeTypeToString(CKA_CLASS), "CKA_CLASS");
    EXPECT_STREQ(attributeTypeToString(CKA_VENDOR_DEFINED), "CKA_VENDOR_DEFINED");
    EXPECT_STREQ(attributeTypeToString(CKA_TRUST_SERVER_AUTH), "CKA_TRUST_SERVER_AUTH");
    EXPECT_STREQ(attributeTypeToString(CKA_CERT_SHA1_HASH), "CKA_CERT_SHA1_HASH");
    EXPECT_STREQ(attributeTypeToString(CKA_CERT_MD5_HASH), "CKA_CERT_MD5_HASH");
    EXPECT_STREQ(attributeTypeToString(CKA_EC_PARAMS), "CKA_EC_PARAMS");
    EXPECT_STREQ(attributeTypeToString(CKA_SUBPRIME_BITS), "CKA_SUBPRIME_BITS");
    EXPECT_STREQ(attributeTypeToString(CKA_UNWRAP_TEMPLATE), "CKA_UNWRAP_TEMPLATE");
    EXPECT_STREQ(attributeTypeToString(CKA_ALLOWED_MECHANISMS), "CKA_ALLOWED_MECHANISMS");
}

TEST(NameTables, MechanismsPrintWithoutPrefix)
{
    EXPECT_STREQ(mechanismTypeToString(CKM_RSA_PKCS_KEY_PAIR_GEN), "RSA_PKCS_KEY_PAIR_GEN");
    EXPECT_STREQ(mechanismTypeToString(CKM_SHA_1_HMAC_GENERAL), "SHA_1_HMAC_GENERAL");
    EXPECT_STREQ(mechanismTypeToString(CKM_SHA1_RSA_PKCS), "SHA1_RSA_PKCS");
    EXPECT_STREQ(mechanismTypeToString(CKM_EC_KEY_PAIR_GEN), "EC_KEY_PAIR_GEN");
    EXPECT_STREQ(mechanismTypeToString(CKM_CAST128_CBC_PAD), "CAST128_CBC_PAD");
    EXPECT_STREQ(mechanismTypeToString(CKM_X9_42_DH_PARAMETER_GEN), "X9_42_DH_PARAMETER_GEN");
    EXPECT_STREQ(mechanismTypeToString(CKM_VENDOR_DEFINED), "VENDOR_DEFINED");
}

TEST(NameTables, ReturnCodesPrintWithoutPrefix)
{
    EXPECT_STREQ(ckrToString(CKR_OK), "OK");
    EXPECT_STREQ(ckrToString(CKR_SESSION_PARALLEL_NOT_SUPPORTED), "SESSION_PARALLEL_NOT_SUPPORTED");
    EXPECT_STREQ(ckrToString(CKR_USER_ANOTHER_ALREADY_LOGGED_IN), "USER_ANOTHER_ALREADY_LOGGED_IN");
    EXPECT_STREQ(ckrToString(CKR_CRYPTOKI_ALREADY_INITIALIZED), "CRYPTOKI_ALREADY_INITIALIZED");
    EXPECT_STREQ(ckrToString(CKR_VENDOR_DEFINED), "VENDOR_DEFINED");
}

TEST(NameTables, KeyTypesObjectClassesAndTrustValuesCarryTheirPrefix)
{
    EXPECT_STREQ(keyTypetoString(CKK_RSA), "CKK_RSA");
    EXPECT_STREQ(keyTypetoString(CKK_EC), "CKK_EC");
    EXPECT_STREQ(keyTypetoString(CKK_CAST128), "CKK_CAST128");
    EXPECT_STREQ(objectClassToString(CKO_DATA), "CKO_DATA");
    EXPECT_STREQ(objectClassToString(CKO_DOMAIN_PARAMETERS), "CKO_DOMAIN_PARAMETERS");
    EXPECT_STREQ(objectClassToString(CKO_NSS_TRUST), "CKO_NSS_TRUST");
    EXPECT_STREQ(trustTypeToString(CKT_NSS_TRUSTED), "CKT_NSS_TRUSTED");
    EXPECT_STREQ(trustTypeToString(CKT_NSS_MUST_VERIFY_TRUST), "CKT_NSS_UNTRUSTED");
    EXPECT_STREQ(trustTypeToString(CKT_NSS + 4), "CKT_NSS_MUST_VERIFY");
    EXPECT_STREQ(trustTypeToString(CKT_NSS_TRUST_UNKNOWN), "CKT_NSS_TRUST_UNKNOWN");
    EXPECT_STREQ(userTypeToString(CKU_CONTEXT_SPECIFIC), "CKU_CONTEXT_SPECIFIC");
}

TEST(NameTables, ValuesOutsideTheTablesAreUnknown)
{
    EXPECT_STREQ(attributeTypeToString(0x7777), "unknown");
    EXPECT_STREQ(attributeTypeToString(CKA_PROFILE_ID), "unknown");
    EXPECT_STREQ(mechanismTypeToString(CKM_SHA512_224), "unknown");
    EXPECT_STREQ(mechanismTypeToString(CKM_VENDOR_DEFINED + 1), "unknown");
    EXPECT_STREQ(ckrToString(0x4), "unknown");
    EXPECT_STREQ(ckrToString(CKR_ACTION_PROHIBITED), "unknown");
    EXPECT_STREQ(objectClassToString(CKO_PROFILE), "unknown");
    EXPECT_STREQ(trustTypeToString(0), "unknown");
    EXPECT_STREQ(certificateTypeToString(7), "unknown");
}

// ---- object handles ----

TEST(ObjectHandle, WithoutATokenSaysSo)
{
    ASSERT_EQ(GetToken(), nullptr);
    EXPECT_EQ(objectHandleToString(42), "hObject=42 (No token handle)");
}

TEST(ObjectHandle, DescriptionPrefersLabelThenIdentifier)
{
    EXPECT_EQ(objectDescriptionToString(9, false, "ignored", "AB"), "hObject=9 (Invalid handle)");
    EXPECT_EQ(objectDescriptionToString(9, true, "Jens \xC3\x98stergaard", "AB01"),
              "hObject=9 CKA_LABEL=\"Jens \xC3\x98stergaard\"");
    EXPECT_EQ(objectDescriptionToString(9, true, "", "AB01"), "hObject=9 CKA_ID=\"AB01\"");
    EXPECT_EQ(objectDescriptionToString(4000000000UL, true, "", ""), "hObject=4000000000");
}

TEST_F(TraceTest, ObjectLinesUseTheHandleDescription)
{
    CK_OBJECT_HANDLE found[] = {3, 5};
    TSQ_TraceObject(&context, 4, "hKey", 3);
    TSQ_TraceObjects(&context, 4, "phObject", found, 2);
    TSQ_TraceObjects(&context, 4, "phObject", nullptr, 2);
    EXPECT_EQ(texts(), (std::vector<std::string>{"hKey = hObject=3 (No token handle)", "phObject count: 2",
                                                 "  hObject=3 (No token handle)", "  hObject=5 (No token handle)",
                                                 "phObject = NULL"}));
}

// ---- structure dumps ----

TEST_F(TraceTest, LibraryInfoDump)
{
    CK_INFO info{};
    info.cryptokiVersion = {2, 20};
    info.libraryVersion = {2, 0};
    std::memcpy(info.manufacturerID, "Tavik A/S                ", 25);  // then 7 zero bytes
    setField(info.libraryDescription, "Korvo cryptographic library");
    TSQ_TraceInfo(&context, 4, "pInfo", &info);
    EXPECT_EQ(onlyText(),
              "pInfo->flags = 0, ->cryptokiVersion = 2.20, ->manufacturerID = Tavik A/S                \n"
              "  ->libraryVersion = 2.0, ->libraryDescription = Korvo cryptographic library     ");
}

TEST_F(TraceTest, SessionInfoDump)
{
    CK_SESSION_INFO info{0, CKS_RW_USER_FUNCTIONS, CKF_RW_SESSION | CKF_SERIAL_SESSION, 0};
    TSQ_TraceSessionInfo(&context, 4, "pInfo", &info);
    EXPECT_EQ(onlyText(), "pInfo->slotId = 0, ->state = 3, ->flags = 6, ->ulDeviceError = 0");
}

TEST_F(TraceTest, TokenInfoDumpListsEveryFieldInOrder)
{
    CK_TOKEN_INFO info{};
    setField(info.label, "Korvo central server");
    setField(info.manufacturerID, "Tavik");
    setField(info.model, "Korvo token");
    setField(info.serialNumber, "1");
    info.flags = CKF_WRITE_PROTECTED;
    info.ulMaxSessionCount = 100;
    info.ulSessionCount = 1;
    info.ulMaxRwSessionCount = 50;
    info.ulRwSessionCount = 2;
    info.ulMaxPinLen = 8;
    info.ulMinPinLen = 4;
    info.ulTotalPublicMemory = 11;
    info.ulFreePublicMemory = 12;
    info.ulTotalPrivateMemory = 13;
    info.ulFreePrivateMemory = 14;
    info.hardwareVersion = {1, 2};
    info.firmwareVersion = {3, 4};
    std::memcpy(info.utcTime, "2011030314050900", 16);
    TSQ_TraceTokenInfo(&context, 4, "pInfo", &info);

    EXPECT_EQ(onlyText(), "pInfo->label = Korvo central server            \n"
                          "  ->manufacturerId = Tavik" + std::string(27, ' ') + "\n"
                          "  ->model = Korvo token     \n"
                          "  ->serialNumber = 1" + std::string(15, ' ') + "\n"
                          "  ->flags = 2\n"
                          "  ->ulMaxSessionCount = 100\n"
                          "  ->ulSessionCount = 1\n"
                          "  ->ulMaxRwSessionCount = 50\n"
                          "  ->ulRwSessionCount = 2\n"
                          "  ->ulMaxPinLen = 8\n"
                          "  ->ulMinPinLen = 4\n"
                          "  ->ulTotalPublicMemory = 11\n"
                          "  ->ulFreePublicMemory = 12\n"
                          "  ->ulTotalPrivateMemory = 13\n"
                          "  ->ulFreePrivateMemory = 14\n"
                          "  ->hardwareVersion = 1.2\n"
                          "  ->firmwareVersion = 3.4\n"
                          "  ->utcTime = 2011030314050900");
}

TEST_F(TraceTest, SlotMechanismInfoAndMechanismListWriteNothing)
{
    CK_SLOT_INFO slot{};
    CK_MECHANISM_INFO mechanism{};
    CK_MECHANISM_TYPE types[] = {CKM_RSA_PKCS};
    TSQ_TraceSlotInfo(&context, 4, "pInfo", &slot);
    TSQ_TraceMechInfo(&context, 4, "pInfo", &mechanism);
    TSQ_TraceMechanismTypes(&context, 4, "pMechanismList", types, 1);
    EXPECT_TRUE(logger.lines.empty());
}

// ---- opening the trace on the real log manager ----

class TraceInitTest : public ::testing::Test {
protected:
    void TearDown() override { SimpleLogManager::GetInstance()->SetLogging(false); }
};

TEST_F(TraceInitTest, InitOpensOneContextWithThresholdFourAndCanBeRepeated)
{
    TSQ_Trace_Init();
    TSQ_TraceContext* first = P11TraceContext;
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->threshold, 4);
    EXPECT_EQ(first->logger, SimpleLogManager::GetInstance()->GetLogger("Tavik_p11trace.cpp"));

    TSQ_Trace_Init();
    TSQ_Trace_Exit();
    EXPECT_EQ(P11TraceContext, first);
    EXPECT_EQ(P11TraceContext->threshold, 4);
}

TEST_F(TraceInitTest, LinesReachTheConfiguredLogFileUnderTheTraceName)
{
    TSQ_Trace_Init();
    // The settings leave logging off; switch it on for this test only.
    const QString logFile = testsupport::tempHome() + QStringLiteral("/.config/Tessaract/Korvo.log");
    QDir().mkpath(QFileInfo(logFile).absolutePath());
    QFile::remove(logFile);
    SimpleLogManager::GetInstance()->SetLogging(true);
    SimpleLogManager::GetInstance()->SetLevel(ITavikLogger::TRACE);

    TSQ_Trace(1, "Exiting %s with returncode %s\n", "C_Test", "GENERAL_ERROR");
    TSQ_Trace(2, "info line %d", 2);
    TSQ_Trace(4, "argument line %d", 4);
    TSQ_Trace(5, "lock line %d", 5);

    QFile file(logFile);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly | QIODevice::Text));
    const QString log = QString::fromUtf8(file.readAll());
    QFile::remove(logFile);

    EXPECT_TRUE(log.contains(QStringLiteral(" - Tavik PKCS#11(")));
    EXPECT_TRUE(log.contains(
        QStringLiteral("Tavik_p11trace.cpp:0 - [Error] - Exiting C_Test with returncode GENERAL_ERROR")));
    EXPECT_TRUE(log.contains(QStringLiteral("Tavik_p11trace.cpp:0 - [INFO] - info line 2")));
    EXPECT_TRUE(log.contains(QStringLiteral("Tavik_p11trace.cpp:0 - [TRACE] - argument line 4")));
    EXPECT_FALSE(log.contains(QStringLiteral("lock line")));
}
