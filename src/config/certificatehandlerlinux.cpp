#include "config/certificatehandlerlinux.h"

#include <stdexcept>

#include <QFile>

#include "certificates/ocescertificate.h"
#include "config/configuration.h"
#include "config/fileconfiguration.h"
#include "config/fileutil.h"
#include "deps/cpp_modules/Hashers.h"
#include "deps/cpp_modules/exceptions.h"
#include "logging/Logger.h"

KORVO_FILE_LOGGER;

namespace {

const QLatin1String kExtension("cer");

void traceEnter(int line, const char* function, const char* format = "%0 enter")
{
    fileLogger->Trace(line, QString::fromLatin1(format).arg(QLatin1String(function)));
}

QString hashHex(const ByteArray_constSlice& der)
{
    return QString::fromStdString(Sha256::Hash(der).toHex(HexCase::Lower));
}

// File name of a CA certificate: its hash and the extension.
QString caFileName(const ByteArray_constSlice& der)
{
    return QStringLiteral("%2.%3").arg(hashHex(der), kExtension);
}

}  // namespace

CertificateHandlerLinux::CertificateHandlerLinux(Configuration* config) : config_(config)
{
    fileLogger->Trace(__LINE__, QStringLiteral(" CertificateHandlerLinux With Configuration %1")
                                    .arg(config ? QStringLiteral("Instance") : QStringLiteral("Null")));
}

CertificateHandlerLinux::~CertificateHandlerLinux() = default;

const Configuration& CertificateHandlerLinux::configuration() const
{
    if (!config_) throw bad_parameter("The certificate store has no configuration");
    return *config_;
}

QDir CertificateHandlerLinux::getRootCertificateDir() const
{
    return FileConfiguration::expandDir(configuration().rootCertificateDir());
}

QDir CertificateHandlerLinux::getCaCertificateDir() const
{
    return FileConfiguration::expandDir(configuration().caCertificateDir());
}

QDir CertificateHandlerLinux::getUserCertificateDir() const
{
    return FileConfiguration::expandDir(configuration().certificateDir());
}

QString CertificateHandlerLinux::getCertificateFilePath(const MultiCertificate& certificate) const
{
    traceEnter(__LINE__, __func__);
    const QString name =
        QStringLiteral("%1_%2.%3").arg(certificate.getUserName(), hashHex(certificate.asByteArray()), kExtension);
    const QString path = getUserCertificateDir().absoluteFilePath(name);
    fileLogger->Trace(__LINE__, QStringLiteral("Filepath retrived: %0").arg(path));
    return path;
}

void CertificateHandlerLinux::loadClientCertificates()
{
    traceEnter(__LINE__, __func__, "%1 enter");
    // Everything is read before anything is replaced, so a failed load leaves
    // the cached lists as they were.
    FileCache used;
    QList<MultiCertificate> users = loadUserCertificates(getUserCertificateDir(), used);
    QList<ByteArray> intermediates = loadCaCertificates(getCaCertificateDir(), used);
    QList<ByteArray> roots = loadCaCertificates(getRootCertificateDir(), used);
    certificates_.swap(users);
    intermediateCaCertificates_.swap(intermediates);
    rootCaCertificates_.swap(roots);
    fileCache_.swap(used);
}

QStringList CertificateHandlerLinux::folders() const
{
    return QStringList{getUserCertificateDir().absolutePath(), getCaCertificateDir().absolutePath(),
                       getRootCertificateDir().absolutePath()};
}

QStringList CertificateHandlerLinux::loadedFiles() const
{
    return fileCache_.keys();
}

ByteArray CertificateHandlerLinux::readCertificateFile(const QString& path, FileCache& used) const
{
    FileIdentity now;
    const auto cached = fileCache_.constFind(path);
    if (cached != fileCache_.constEnd() && FileUtil::fileIdentity(path, &now) && now == cached->identity) {
        used.insert(path, *cached);
        return cached->bytes;
    }
    CachedFile fresh;
    fresh.bytes = FileUtil::readFileIntoByteArray(path, &fresh.identity);
    used.insert(path, fresh);
    return fresh.bytes;
}

QList<MultiCertificate> CertificateHandlerLinux::loadUserCertificates(QDir dir, FileCache& used) const
{
    traceEnter(__LINE__, __func__, "%1 enter");
    const QStringList names = FileUtil::getFilesInDirectory(dir, QStringLiteral("*_*.") + kExtension);
    fileLogger->Trace(__LINE__, QStringLiteral("%1 certificates found").arg(names.size()));

    QList<MultiCertificate> result;
    result.reserve(names.size());
    for (const QString& name : names) {
        const QString path = dir.absoluteFilePath(name);
        fileLogger->Trace(__LINE__, QStringLiteral("Reading %1").arg(path));
        const ByteArray bytes = readCertificateFile(path, used);
        if (bytes.empty()) {
            const QString message = QStringLiteral("Could not read certificate file: ") + path;
            fileLogger->Error(__LINE__, message);
            throw std::runtime_error(message.toStdString());
        }
        // The content is not checked here: the owner comes from the file name
        // alone, up to its first underscore.
        const QString userName = name.left(name.indexOf(QLatin1Char('_')));
        fileLogger->Trace(__LINE__, QStringLiteral("UserName extracted from filename: ") + userName);
        result.append(MultiCertificate(userName, bytes));
    }
    return result;
}

QList<ByteArray> CertificateHandlerLinux::loadCaCertificates(QDir dir, FileCache& used) const
{
    const QStringList names = FileUtil::getFilesInDirectory(dir, QStringLiteral("*.") + kExtension);
    fileLogger->Trace(__LINE__, QStringLiteral("Loading certificates: %1 files found").arg(names.size()));

    QList<ByteArray> result;
    result.reserve(names.size());
    for (const QString& name : names) {
        const QString path = dir.absoluteFilePath(name);
        ByteArray bytes = readCertificateFile(path, used);
        fileLogger->Trace(__LINE__, QStringLiteral("Loading file: ") + path +
                                        QStringLiteral(". Certificate of size: %1 bytes loaded").arg(bytes.size()));
        result.append(std::move(bytes));
    }
    return result;
}

void CertificateHandlerLinux::saveUserCertificate(const MultiCertificate& certificate, bool /*flag*/)
{
    traceEnter(__LINE__, __func__);
    const QDir dir = getUserCertificateDir();
    if (!dir.exists()) dir.mkpath(dir.absolutePath());  // a failure shows in the write below
    const QString path = getCertificateFilePath(certificate);

    fileLogger->Info(__LINE__, "checking certificate asOcesCertificate");
    (void)certificate.asOcesCertificate();  // throws, and nothing is written, when it is no OCES certificate
    fileLogger->Info(__LINE__, "check passed, asOcesCertificate didn't complain.");

    FileUtil::writeFileFromByteArray(path, certificate.asByteArray());
}

void CertificateHandlerLinux::saveIntermediateCaCertificate(const ByteArray_constSlice& der)
{
    traceEnter(__LINE__, __func__);
    const QDir dir = getCaCertificateDir();
    if (!dir.exists()) dir.mkpath(dir.absolutePath());
    const QString name = caFileName(der);
    fileLogger->Trace(__LINE__, QStringLiteral("saving file: %0").arg(name));
    const QString path = dir.absoluteFilePath(name);
    fileLogger->Trace(__LINE__, QStringLiteral("certFilePath=%0").arg(path));
    FileUtil::writeFileFromByteArray(path, der);
}

void CertificateHandlerLinux::saveRootCaCertificate(const ByteArray_constSlice& der)
{
    traceEnter(__LINE__, __func__);
    const QDir dir = getRootCertificateDir();
    if (!dir.exists()) {
        fileLogger->Trace(__LINE__, QStringLiteral("CertDirectory (%0) did not exist. Trying to create.")
                                        .arg(dir.absolutePath()));
        if (!dir.mkpath(dir.absolutePath()))
            fileLogger->Info(__LINE__, "dir.mkpath was unable to create directory. ");
    }
    const QString path = dir.absoluteFilePath(caFileName(der));
    fileLogger->Trace(__LINE__, QStringLiteral("About to write cert to: ") + path);
    FileUtil::writeFileFromByteArray(path, der);
}

void CertificateHandlerLinux::deleteUserCertificate(const MultiCertificate& certificate)
{
    traceEnter(__LINE__, __func__);
    const QString path = getCertificateFilePath(certificate);
    fileLogger->Trace(__LINE__, QStringLiteral("Deleting: %0").arg(path));
    if (!QFile::remove(path)) {
        fileLogger->Error(__LINE__, QStringLiteral("QDi::remove(%0) failed.").arg(path));
        return;
    }
    // The first entry with the same bytes goes, whoever it belongs to.
    const ByteArray der = certificate.asByteArray();
    for (qsizetype i = 0; i < certificates_.size(); ++i) {
        if (certificates_[i].asByteArray() == der) {
            certificates_.removeAt(i);
            break;
        }
    }
}

void CertificateHandlerLinux::deleteIntermediateCaCertificate(const ByteArray_constSlice& der)
{
    traceEnter(__LINE__, __func__);
    deleteCaCertificate(getCaCertificateDir(), der, intermediateCaCertificates_);
}

void CertificateHandlerLinux::deleteRootCaCertificate(const ByteArray_constSlice& der)
{
    traceEnter(__LINE__, __func__);
    deleteCaCertificate(getRootCertificateDir(), der, rootCaCertificates_);
}

void CertificateHandlerLinux::deleteCaCertificate(const QDir& dir, const ByteArray_constSlice& der,
                                                  QList<ByteArray>& cached)
{
    const QString path = dir.absoluteFilePath(caFileName(der));
    fileLogger->Trace(__LINE__, QStringLiteral("Deleting: %0").arg(path));
    if (!QFile::remove(path)) {
        fileLogger->Error(__LINE__, QStringLiteral("QDi::remove(%0) failed.").arg(path));
        return;
    }
    for (qsizetype i = 0; i < cached.size(); ++i) {
        if (cached[i].constSlice() == der) {
            cached.removeAt(i);
            break;
        }
    }
}
