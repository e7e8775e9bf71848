#include "config/fileconfiguration.h"

#include <mutex>

#include <QCoreApplication>
#include <QFileInfo>
#include <QStringList>
#include <QVariant>

#include "config/deployment_defaults.h"
#include "deps/cpp_modules/base64.h"
#include "logging/Logger.h"

KORVO_FILE_LOGGER;

namespace {

const char* const kOrganisation = "Tessaract";
const char* const kApplication = "Korvo";

// A hand-written INI value with commas in it reads back as a list; join it
// again so that the caller sees the text as it stands in the file.
QString variantText(const QVariant& value)
{
    if (value.typeId() == QMetaType::QStringList) return value.toStringList().join(QLatin1Char(','));
    return value.toString();
}

ByteArray decodeBase64AsFarAsItGoes(const QByteArray& text)
{
    try {
        return base64::decode(std::string_view(text.constData(), size_t(text.size())));
    } catch (const base64::bad_format& e) {
        return e.decodedSoFar();
    }
}

void ignoreQtMessage(QtMsgType, const QMessageLogContext&, const QString&) {}

// Qt reports on standard error what it cannot make sense of: a settings
// value "@Variant(...)" of an unknown type, say, or a missing application
// object when the TLS backend loads. The module must stay silent in other
// people's processes, so while it reads its settings in a host that is not
// a Qt application, Qt's messages are swallowed. Threads inside at the same
// time share the swallowing handler; the last one out puts back the one
// that was there before. Qt applications keep their own handler untouched.
class QuietQt {
public:
    QuietQt()
        : active_(QCoreApplication::instance() == nullptr)
    {
        if (!active_) return;
        std::lock_guard<std::mutex> guard(state().mutex);
        if (state().depth++ == 0) state().previous = qInstallMessageHandler(ignoreQtMessage);
    }
    ~QuietQt()
    {
        if (!active_) return;
        std::lock_guard<std::mutex> guard(state().mutex);
        if (--state().depth == 0) qInstallMessageHandler(state().previous);
    }
    QuietQt(const QuietQt&) = delete;
    QuietQt& operator=(const QuietQt&) = delete;

private:
    struct State {
        std::mutex mutex;
        int depth = 0;
        QtMessageHandler previous = nullptr;
    };
    static State& state()
    {
        static State shared;
        return shared;
    }
    const bool active_;
};

// The TLS certificate classes load their backend plugin on first use; that
// one-time start-up runs quietly.
void initialiseTlsBackendQuietly()
{
    static std::once_flag once;
    std::call_once(once, [] {
        const QuietQt quiet;
        (void)QSslCertificate(QByteArray(), QSsl::Der);
    });
}

}  // namespace

FileConfiguration::FileConfiguration()
    : FileConfiguration(QString::fromLatin1(kApplication))
{
}

FileConfiguration::FileConfiguration(const QString& application)
    : settings_(QSettings::IniFormat, QSettings::UserScope, QString::fromLatin1(kOrganisation), application)
{
}

FileConfiguration::~FileConfiguration() = default;

QString FileConfiguration::stringValue(const char* key, const QString& defaultValue) const
{
    const QuietQt quiet;
    return variantText(settings_.value(QString::fromLatin1(key), defaultValue));
}

ByteArray FileConfiguration::hexValue(const char* key, const char* defaultValue) const
{
    const QByteArray text = stringValue(key, QString::fromLatin1(defaultValue)).toLatin1();
    return ByteArray::fromHex(std::string_view(text.constData(), size_t(text.size())));
}

ByteArray FileConfiguration::base64Value(const char* key, const char* defaultValue) const
{
    return decodeBase64AsFarAsItGoes(stringValue(key, QString::fromLatin1(defaultValue)).toLatin1());
}

QString FileConfiguration::serverUrl() const
{
    return stringValue("ServerUrl", QString::fromLatin1(deployment_defaults::kServerUrl));
}

QString FileConfiguration::certificateDir() const
{
    return stringValue("CertificateDir", QStringLiteral("~/.korvo/user_certificates"));
}

QString FileConfiguration::caCertificateDir() const
{
    return stringValue("CaCertificateDir", QStringLiteral("~/.korvo/intermediate_certificates"));
}

QString FileConfiguration::rootCertificateDir() const
{
    return stringValue("RootCertificateDir", QStringLiteral("~/.korvo/root_certificates"));
}

bool FileConfiguration::useCustomProxySettings() const
{
    const QuietQt quiet;
    return settings_.value(QStringLiteral("UseCustomProxySettings"), false).toBool();
}

QString FileConfiguration::proxyHostName() const
{
    return stringValue("ProxyHostName", QStringLiteral("127.0.0.1"));
}

int FileConfiguration::proxyPort() const
{
    const QuietQt quiet;
    return settings_.value(QStringLiteral("ProxyPort"), 808).toInt();
}

QString FileConfiguration::fakeGuiConfiguration() const
{
    return stringValue("FakeGuiConfiguration", QString());
}

QString FileConfiguration::logFile() const
{
    const QString name = stringValue("LogFileName", QStringLiteral("Korvo.log"));
    if (QFileInfo(name).isRelative()) {
        const QDir settingsDir(QFileInfo(settings_.fileName()).absolutePath());
        return QFileInfo(settingsDir, name).absoluteFilePath();
    }
    return QFileInfo(name).absoluteFilePath();
}

bool FileConfiguration::loggingEnabled() const
{
    // Deliberately fixed: whether lines are written is the log manager's
    // business, not the settings file's.
    return false;
}

QString FileConfiguration::logLevel() const
{
    return stringValue("LogLevel", QStringLiteral("INFO"));
}

ByteArray FileConfiguration::serverOuterPublicKey() const
{
    return hexValue("ServerOuterPublicKey", deployment_defaults::kServerOuterPublicKeyHex);
}

ByteArray FileConfiguration::serverInnerPublicKey() const
{
    return hexValue("ServerInnerPublicKey", deployment_defaults::kServerInnerPublicKeyHex);
}

ByteArray FileConfiguration::srpModulus() const
{
    return hexValue("SrpModulus", deployment_defaults::kSrpModulusHex);
}

ByteArray FileConfiguration::hParams() const
{
    return base64Value("hParams", deployment_defaults::kHParamsBase64);
}

ByteArray FileConfiguration::sigParams() const
{
    return base64Value("sigParams", deployment_defaults::kSigParamsBase64);
}

ByteArray FileConfiguration::paramCert() const
{
    return base64Value("paramCert", deployment_defaults::kParamCertBase64);
}

ByteArray FileConfiguration::hardcodedSoftwareFingerprint() const
{
    // The length alone decides: 64 characters are hex, anything else base64.
    const QByteArray text = stringValue("HardcodedSoftwareFingerprint", QString()).toLatin1();
    if (text.size() == 64) return ByteArray::fromHex(std::string_view(text.constData(), size_t(text.size())));
    return decodeBase64AsFarAsItGoes(text);
}

QString FileConfiguration::hardcodedUserAgent() const
{
    return stringValue("HardcodedUserAgent", QString());
}

QList<QSslCertificate> FileConfiguration::sslRootCerts() const
{
    initialiseTlsBackendQuietly();
    const QuietQt quiet;
    QList<QSslCertificate> certificates;
    const QString text = stringValue("sslRootCert", QString::fromLatin1(deployment_defaults::kSslRootCertsBase64));
    for (const QString& piece : text.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
        const QByteArray encoded = piece.toLatin1();
        ByteArray der;
        try {
            der = base64::decode(std::string_view(encoded.constData(), size_t(encoded.size())));
        } catch (const base64::bad_format&) {
            continue;
        }
        const QSslCertificate certificate(
            QByteArray(reinterpret_cast<const char*>(der.data()), qsizetype(der.size())), QSsl::Der);
        if (!certificate.isNull()) certificates.append(certificate);
    }
    return certificates;
}

QString FileConfiguration::securityAdviceCounterFileName(const ByteArray& id) const
{
    const QString name = QString::fromLatin1(id.toHex(HexCase::Lower).c_str()) + QStringLiteral("-sac.bin");
    const QDir directory = expandDir(certificateDir());
    fileLogger->Trace(__LINE__, QStringLiteral("On Linux/Mac: Creating certificate security advice file %1 in %2")
                                    .arg(name, directory.absolutePath()));
    return directory.absolutePath() + QLatin1Char('/') + name;
}

void FileConfiguration::setFakeGuiConfiguration(QString value)
{
    if (value.isEmpty())
        settings_.remove(QStringLiteral("FakeGuiConfiguration"));
    else
        settings_.setValue(QStringLiteral("FakeGuiConfiguration"), value);
}

QDir FileConfiguration::expandDir(QString path)
{
    if (path.startsWith(QLatin1String("~/"))) path = QDir::homePath() + path.mid(1);
    return QDir(path);
}
