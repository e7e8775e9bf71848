#include "certificates/x509certificate.h"

#include <gtest/gtest.h>

#include "Asn1/Asn1Reader.h"
#include "certificates/certificateinformation.h"
#include "der_builder.h"

using namespace der;

namespace {

QDateTime readTime(int tag, const char* value)
{
    ByteArray encoded = tlv(tag, text(value));
    asn1::Asn1Reader reader(encoded);
    return X509Certificate::ReadX509Time(reader);
}

}  // namespace

TEST(X509TimeParsing, ReadsUtcTimeCenturyWindowAndGeneralizedTimeFractions)
{
    const struct {
        int tag;
        const char* value;
        const char* iso;
    } cases[] = {
        {0x17, "491231235959Z", "2049-12-31T23:59:59.000Z"}, {0x17, "500101000000Z", "1950-01-01T00:00:00.000Z"},
        {0x17, "0002291200Z", "2000-02-29T12:00:00.000Z"},   {0x18, "20491231235959Z", "2049-12-31T23:59:59.000Z"},
        {0x18, "19500101000000.5Z", "1950-01-01T00:00:00.500Z"},
        {0x18, "21000101000000.123Z", "2100-01-01T00:00:00.123Z"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(readTime(c.tag, c.value).toString(Qt::ISODateWithMs).toStdString(), c.iso) << c.value;
}

TEST(X509TimeParsing, RefusesMalformedTimes)
{
    for (const char* utc : {"4912312359590", "491231235959", "49123123595Z", "491331235959Z", "490230235959Z",
                            "49123123a959Z", ""})
        expectThrow<std::out_of_range>([&] { readTime(0x17, utc); }, "UTCTime has invalid format", utc);
    for (const char* generalized : {"204912312359590Z", "2049123123595Z", "20491231235959,5Z",
                                    "20491231235959.1234Z", "20492431235959Z"})
        expectThrow<std::out_of_range>([&] { readTime(0x18, generalized); }, "GeneralizedTime has invalid format",
                                       generalized);
    EXPECT_THROW(readTime(0x04, "20491231235959Z"), asn1::parse_error);
}

TEST(X509CertificateParsing, KeepsTheEncodingsTheTokenObjectsExpose)
{
    CertificateParts parts;
    parts.extensions = {seq({oid("551D0F"), {0x01, 0x01, 0xFF}, tlv(0x04, {0x03, 0x02, 0x06, 0xC0})})};
    ByteArray der = cat({certificate(parts), {0xDE, 0xAD}});  // bytes after the certificate are not looked at

    X509Certificate cert = X509Certificate::Parse(der);
    EXPECT_EQ(cert.getSerialNumber(), (ByteArray{0x00, 0x9A}));
    EXPECT_EQ(cert.encodedSerialNumber(), (ByteArray{0x02, 0x02, 0x00, 0x9A}));
    EXPECT_EQ(cert.getIssuerNameAsBlob(), parts.issuer);
    EXPECT_EQ(cert.getSubjectNameAsBlob(), parts.subject);
    EXPECT_EQ(cert.getSubjectPublicKeyInfoAsBlob(), parts.keyInfo);
    EXPECT_EQ(cert.getSignatureAlgorithm(), oid(SHA256_RSA));
    EXPECT_EQ(cert.getNotBefore(), QDateTime(QDate(2020, 1, 1), QTime(0, 0), Qt::UTC));
    EXPECT_EQ(cert.getNotAfter(), QDateTime(QDate(2049, 12, 31), QTime(23, 59, 59), Qt::UTC));
    EXPECT_EQ(cert.getIssuerName().toString().toStdString(), "CN=Test CA,C=DK");
    const Extension* keyUsage = cert.getExtensions().FindExtension(ByteArray::fromHex("551D0F"));
    ASSERT_NE(keyUsage, nullptr);
    EXPECT_TRUE(keyUsage->isCritical());
    EXPECT_EQ(keyUsage->getValue(), (ByteArray{0x03, 0x02, 0x06, 0xC0}));
    EXPECT_EQ(cert.getExtensions().FindExtension(ByteArray::fromHex(SUBJECT_ALT_NAME)), nullptr);
}

TEST(X509CertificateParsing, SkipsUniqueIdentifiersAndRefusesLeftovers)
{
    CertificateParts parts;
    parts.afterKey = cat({tlv(0xA1, {0x00, 0x01}), tlv(0xA2, {0x00, 0x02})});
    EXPECT_NO_THROW(X509Certificate::Parse(certificate(parts)));
    parts.afterKey = tlv(0x05, {});
    expectThrow<asn1::parse_error>([&] { X509Certificate::Parse(certificate(parts)); }, "Expected end of data");
    parts.afterKey = {};
    parts.extensions = {seq({oid("551D0F"), {0x01, 0x02, 0xFF, 0xFF}, tlv(0x04, {0x05, 0x00})})};
    expectThrow<asn1::parse_error>([&] { X509Certificate::Parse(certificate(parts)); }, "Invalid length of BOOLEAN");
}

TEST(X509CertificateParsing, EveryTruncationOrCorruptionIsRefusedCleanly)
{
    CertificateParts parts;
    parts.extensions = {extension(SUBJECT_ALT_NAME, seq({tlv(0x81, text("a@b.dk"))}))};
    const ByteArray der = certificate(parts);
    for (size_t n = 0; n < der.size(); ++n)
        EXPECT_THROW(X509Certificate::Parse(der.constSlice(0, n)), std::exception) << n;
    for (size_t i = 0; i < der.size(); ++i) {
        for (uint8_t value : {0x00, 0x1F, 0x7F, 0x80, 0x84, 0xFF}) {
            ByteArray corrupt = der;
            corrupt[i] = value;
            try {
                X509Certificate cert = X509Certificate::Parse(corrupt);
                cert.getSubjectName().toString();
                cert.getEmailAddressFromSubjectAlternativeName();
            } catch (const std::exception&) {
            }
        }
    }
}

TEST(X509CertificateParsing, HelpersGiveTheTokenObjectAttributes)
{
    CertificateParts parts;
    const ByteArray der = certificate(parts);
    ByteArray subject, issuer, serial, label, keyInfo, label2;
    getCertificateInformation(der.data(), der.size(), subject, issuer, serial, label);
    getCertSubjectInformation(der.data(), der.size(), subject, keyInfo, label2);
    EXPECT_EQ(subject, parts.subject);
    EXPECT_EQ(issuer, parts.issuer);
    EXPECT_EQ(serial, (ByteArray{0x02, 0x02, 0x00, 0x9A}));
    EXPECT_EQ(keyInfo, parts.keyInfo);
    EXPECT_EQ(label, label2);
    const std::string labelText(label.begin(), label.end()), prefix = "CN=Holder; Gyldigt fra: ";
    EXPECT_EQ(labelText.rfind(prefix, 0), 0u) << labelText;
    EXPECT_GT(labelText.size(), prefix.size());

    EXPECT_EQ(ByteArray(spkInfoToBitStringContent(keyInfo)),
              seq({tlv(0x02, {0x00, 0xC3, 0x01, 0x02}), tlv(0x02, {0x01, 0x00, 0x01})}));
    EXPECT_THROW(getCertificateInformation(nullptr, 0, subject, issuer, serial, label), std::exception);
}
