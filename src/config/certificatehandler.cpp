#include "config/certificatehandler.h"

#include "config/certificatehandlerlinux.h"
#include "logging/Logger.h"

KORVO_FILE_LOGGER;

namespace {

void traceEnter(int line, const char* function)
{
    fileLogger->Trace(line, QStringLiteral("%1 enter").arg(QLatin1String(function)));
}

}  // namespace

CertificateHandler::CertificateHandler() = default;

CertificateHandler::~CertificateHandler() = default;

const QList<ByteArray>& CertificateHandler::rootCaCertificates() const
{
    traceEnter(__LINE__, __func__);
    return rootCaCertificates_;
}

const QList<ByteArray>& CertificateHandler::intermediateCaCertificates() const
{
    traceEnter(__LINE__, __func__);
    return intermediateCaCertificates_;
}

const QList<MultiCertificate>& CertificateHandler::certificates() const
{
    traceEnter(__LINE__, __func__);
    return certificates_;
}

void CertificateHandler::deleteAllUserCertificates()
{
    loadClientCertificates();
    // A copy, because every deletion shrinks the cached list.
    const QList<MultiCertificate> loaded = certificates_;
    for (qsizetype i = loaded.size() - 1; i >= 0; --i) deleteUserCertificate(loaded[i]);
}

CertificateHandler* CertificateHandler::Instance(Configuration* config)
{
    fileLogger->Info(__LINE__, "On Linux/Max: Creating Certificate Handler");
    return new CertificateHandlerLinux(config);
}

QStringList CertificateHandler::folders() const
{
    return QStringList();
}

QStringList CertificateHandler::loadedFiles() const
{
    return QStringList();
}
