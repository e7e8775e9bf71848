#include "fuzz_targets.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <ctime>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSettings>
#include <QSslCertificate>

#include "config/fileconfiguration.h"
#include "invariant.h"

namespace korvo_fuzz {

bool SettingsInput(const uint8_t* data, size_t size)
{
    // One settings file, rewritten for every input. The settings store keeps
    // what it parsed of a file until the file's size or modification time
    // changes, so each input gets a modification time of its own.
    static const QString application = QStringLiteral("KorvoFuzz");
    static const QString path =
        QSettings(QSettings::IniFormat, QSettings::UserScope, QStringLiteral("Tessaract"), application).fileName();
    static time_t serial = 0;
    QDir().mkpath(QFileInfo(path).absolutePath());
    {
        QFile file(path);
        KORVO_FUZZ_REQUIRE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        KORVO_FUZZ_REQUIRE(file.write(reinterpret_cast<const char*>(data), qint64(size)) == qint64(size));
    }
    const struct timespec stamp[2] = {{++serial, 0}, {serial, 0}};
    const QByteArray encodedPath = QFile::encodeName(path);
    KORVO_FUZZ_REQUIRE(utimensat(AT_FDCWD, encodedPath.constData(), stamp, 0) == 0);
    bool custom = false;
    {
        const FileConfiguration configuration(application);
        // Every getter answers whatever the file holds; decoded values are
        // never longer than the text they came from or their default.
        for (const QString& folder :
             {configuration.certificateDir(), configuration.caCertificateDir(), configuration.rootCertificateDir()})
            (void)FileConfiguration::expandDir(folder).absolutePath();
        custom = configuration.useCustomProxySettings();
        (void)configuration.proxyHostName();
        (void)configuration.proxyPort();
        (void)configuration.serverUrl();
        (void)configuration.fakeGuiConfiguration();
        KORVO_FUZZ_REQUIRE(QFileInfo(configuration.logFile()).isAbsolute());
        (void)configuration.logLevel();
        (void)configuration.hardcodedUserAgent();
        const size_t longest = size > 512 ? size : 512;
        for (const ByteArray& value :
             {configuration.serverOuterPublicKey(), configuration.serverInnerPublicKey(), configuration.srpModulus(),
              configuration.hParams(), configuration.sigParams(), configuration.paramCert(),
              configuration.hardcodedSoftwareFingerprint()})
            KORVO_FUZZ_REQUIRE(value.size() <= longest * 2);
        for (const QSslCertificate& certificate : configuration.sslRootCerts())
            KORVO_FUZZ_REQUIRE(!certificate.isNull());
        (void)configuration.securityAdviceCounterFileName(ByteArray::fromString("key"));
    }
    QFile::remove(path);
    return custom;
}

}  // namespace korvo_fuzz
