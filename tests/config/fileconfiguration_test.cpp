#include "config/fileconfiguration.h"

#include <QDir>
#include <QFile>
#include <QSettings>

#include <gtest/gtest.h>

#include "deps/cpp_modules/base64.h"
#include "support/temp_home.h"

using testsupport::setSetting;
using testsupport::tempHome;

namespace {

class FileConfigurationTest : public ::testing::Test {
protected:
    void SetUp() override { testsupport::clearSettings(); }
    void TearDown() override { testsupport::clearSettings(); }
};

QString settingsDir()
{
    return tempHome() + QStringLiteral("/.config/Tessaract");
}

// Valid base64 whose bytes are the start of a certificate, cut short.
const char* const kNotACertificate =
    "MIIBmzCCAUGgAwIBAgIUOYQf2JAr1v4hOjn1xzyjAWz3QqswCgYIKoZIzj0EAwIwIzEhMB8GA1UEAwwYS29ydm8gdGVzdCBjb25m"
    "aWd1cmF0aW9uMB4XDTI2MTEyMTE3MDAwMFoXDTM2MTExODE3MDAwMFowIzEhMB8GA1UEAwwYS29ydm8gdGVzdCBjb25maWd1cmF0"
    "aW9uMFkwEwYHKoZIzj0CAQYIKoZIzj0DAQcDQgAE";

}  // namespace

TEST_F(FileConfigurationTest, WithoutASettingsFileEveryGetterAnswersItsDefault)
{
    FileConfiguration cfg;
    EXPECT_EQ(cfg.certificateDir(), "~/.korvo/user_certificates");
    EXPECT_EQ(cfg.caCertificateDir(), "~/.korvo/intermediate_certificates");
    EXPECT_EQ(cfg.rootCertificateDir(), "~/.korvo/root_certificates");
    EXPECT_FALSE(cfg.useCustomProxySettings());
    EXPECT_EQ(cfg.proxyHostName(), "127.0.0.1");
    EXPECT_EQ(cfg.proxyPort(), 808);
    EXPECT_EQ(cfg.fakeGuiConfiguration(), "");
    EXPECT_EQ(cfg.logFile(), settingsDir() + "/Korvo.log");
    EXPECT_FALSE(cfg.loggingEnabled());
    EXPECT_EQ(cfg.logLevel(), "INFO");
    EXPECT_FALSE(cfg.serverUrl().isEmpty());
    EXPECT_TRUE(cfg.hardcodedSoftwareFingerprint().empty());
    EXPECT_EQ(cfg.hardcodedUserAgent(), "");
}

TEST_F(FileConfigurationTest, BuiltInDeploymentDataHasTheDocumentedShape)
{
    FileConfiguration cfg;
    // DER SubjectPublicKeyInfo of a 2048-bit RSA key: 294 bytes, SEQUENCE.
    for (const ByteArray& key : {cfg.serverOuterPublicKey(), cfg.serverInnerPublicKey()}) {
        EXPECT_EQ(key.size(), 294u);
        EXPECT_EQ(key[0], 0x30);
    }
    EXPECT_NE(cfg.serverOuterPublicKey(), cfg.serverInnerPublicKey());
    EXPECT_EQ(cfg.srpModulus().size(), 129u);
    EXPECT_EQ(cfg.hParams().size(), 32u);
    EXPECT_EQ(cfg.sigParams().size(), 129u);
    const ByteArray paramCert = cfg.paramCert();
    const QSslCertificate parsed(QByteArray(reinterpret_cast<const char*>(paramCert.data()), paramCert.size()), QSsl::Der);
    EXPECT_FALSE(parsed.isNull());
    EXPECT_EQ(cfg.sslRootCerts().size(), 3);
}

TEST_F(FileConfigurationTest, GettersReadTheFileAnewOnEveryCall)
{
    FileConfiguration cfg;
    EXPECT_EQ(cfg.proxyPort(), 808);
    setSetting("ProxyPort", "3128");
    setSetting("UseCustomProxySettings", "true");
    setSetting("CertificateDir", "/srv/certs");
    EXPECT_EQ(cfg.proxyPort(), 3128);
    EXPECT_TRUE(cfg.useCustomProxySettings());
    EXPECT_EQ(cfg.certificateDir(), "/srv/certs");
}

TEST_F(FileConfigurationTest, MalformedNumbersReadAsZero)
{
    setSetting("ProxyPort", "eight hundred");
    EXPECT_EQ(FileConfiguration().proxyPort(), 0);
}

TEST_F(FileConfigurationTest, LogFileIsAbsoluteOrResolvedBesideTheSettingsFile)
{
    FileConfiguration cfg;
    setSetting("LogFileName", "/var/tmp/korvo-test.log");
    EXPECT_EQ(cfg.logFile(), "/var/tmp/korvo-test.log");
    setSetting("LogFileName", "sub/x.log");
    EXPECT_EQ(cfg.logFile(), settingsDir() + "/sub/x.log");
}

TEST_F(FileConfigurationTest, ExpandDirReplacesOnlyALeadingTildeSlash)
{
    EXPECT_EQ(FileConfiguration::expandDir("~/a").path(), tempHome() + "/a");
    EXPECT_EQ(FileConfiguration::expandDir("~").path(), "~");
    EXPECT_EQ(FileConfiguration::expandDir("~a/b").path(), "~a/b");
    EXPECT_EQ(FileConfiguration::expandDir("/abs").path(), "/abs");
    EXPECT_EQ(FileConfiguration::expandDir("rel/x").path(), "rel/x");
}

TEST_F(FileConfigurationTest, SecurityAdviceCounterFileLivesInTheUserCertificateDirectory)
{
    FileConfiguration cfg;
    const QString dir = tempHome() + "/.korvo/user_certificates";
    EXPECT_EQ(cfg.securityAdviceCounterFileName(ByteArray{0x0A, 0xFF}), dir + "/0aff-sac.bin");
    EXPECT_EQ(cfg.securityAdviceCounterFileName(ByteArray()), dir + "/-sac.bin");
    EXPECT_FALSE(QFile::exists(dir + "/0aff-sac.bin"));
}

TEST_F(FileConfigurationTest, FingerprintOfExactly64CharactersIsHexAnyOtherLengthBase64)
{
    FileConfiguration cfg;
    const std::string hex64(64, 'a');
    setSetting("HardcodedSoftwareFingerprint", QString::fromStdString(hex64));
    EXPECT_EQ(cfg.hardcodedSoftwareFingerprint(), ByteArray(32, 0xAA));

    // 64 base64 characters are still taken as hex; decoding stops at the
    // first non-hex character.
    setSetting("HardcodedSoftwareFingerprint", QString(64, 'Q'));
    EXPECT_TRUE(cfg.hardcodedSoftwareFingerprint().empty());

    // 65 or 63 characters: base64, as far as it decodes.
    setSetting("HardcodedSoftwareFingerprint", QString::fromStdString(hex64 + "a"));
    EXPECT_EQ(cfg.hardcodedSoftwareFingerprint().size(), 48u);
    setSetting("HardcodedSoftwareFingerprint", QString::fromStdString(hex64.substr(1)));
    EXPECT_EQ(cfg.hardcodedSoftwareFingerprint().size(), 47u);
}

TEST_F(FileConfigurationTest, MalformedBase64IsDecodedAsFarAsItGoes)
{
    setSetting("hParams", "AAECAw==!!");
    EXPECT_EQ(FileConfiguration().hParams(), (ByteArray{0, 1, 2, 3}));
}

TEST_F(FileConfigurationTest, SslRootCertsSkipsEmptyAndUndecodablePieces)
{
    const QList<QSslCertificate> builtIn = FileConfiguration().sslRootCerts();
    ASSERT_EQ(builtIn.size(), 3);
    const QString one = QString::fromLatin1(builtIn[0].toDer().toBase64());
    const QString two = QString::fromLatin1(builtIn[1].toDer().toBase64());

    setSetting("sslRootCert", one + ",," + "bm90IGEgY2VydGlmaWNhdGU=" + "," + "***" + "," + two + ",");
    const QList<QSslCertificate> certs = FileConfiguration().sslRootCerts();
    ASSERT_EQ(certs.size(), 2);
    EXPECT_EQ(certs[0], builtIn[0]);
    EXPECT_EQ(certs[1], builtIn[1]);

    setSetting("sslRootCert", kNotACertificate);
    EXPECT_TRUE(FileConfiguration().sslRootCerts().isEmpty());
}

TEST_F(FileConfigurationTest, EmptyFakeGuiConfigurationRemovesTheKey)
{
    FileConfiguration cfg;
    cfg.setFakeGuiConfiguration("demo");
    EXPECT_EQ(cfg.fakeGuiConfiguration(), "demo");
    QSettings raw(QSettings::IniFormat, QSettings::UserScope, "Tessaract", "Korvo");
    EXPECT_TRUE(raw.contains("FakeGuiConfiguration"));

    cfg.setFakeGuiConfiguration("");
    EXPECT_EQ(cfg.fakeGuiConfiguration(), "");
    raw.sync();
    EXPECT_FALSE(raw.contains("FakeGuiConfiguration"));
}

TEST_F(FileConfigurationTest, ReportListsProxyServerAndDirectoriesUnexpanded)
{
    setSetting("ServerUrl", "https://example.invalid/sign");
    EXPECT_EQ(FileConfiguration().toString(),
              "Using custom proxy settings: no\n"
              "Custom proxy host name: 127.0.0.1\n"
              "Custom proxy port: 808\n"
              "Signature server URL: https://example.invalid/sign\n"
              "Certificate dir: ~/.korvo/user_certificates\n"
              "CA certificate dir: ~/.korvo/intermediate_certificates\n"
              "Root certificate dir: ~/.korvo/root_certificates\n");
}

TEST_F(FileConfigurationTest, AnotherApplicationNameReadsAnotherFile)
{
    setSetting("ProxyPort", "1");
    EXPECT_EQ(FileConfiguration("KorvoOther").proxyPort(), 808);
}

TEST_F(FileConfigurationTest, ReadingSettingsAndTlsCertificatesWritesNothingToStandardError)
{
    // The host process is not a Qt application here, as in a browser. Values
    // of a type Qt does not know make it complain, unless the module keeps it quiet.
    ASSERT_TRUE(QDir().mkpath(settingsDir()));
    QFile file(settingsDir() + "/Korvo.ini");
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write("[General]\nFakeGuiConfiguration=@Variant(\\0\\0\\0\\x7f\\0\\0\\0\\x4\\0\\0\\0\\0)\n"
               "ProxyPort=@Variant(\\0\\0\\0\\x7f\\0\\0\\0\\x1\\0)\n");
    file.close();
    ::testing::internal::CaptureStderr();
    FileConfiguration configuration;
    (void)configuration.fakeGuiConfiguration();
    (void)configuration.proxyPort();
    (void)configuration.sslRootCerts();
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}
