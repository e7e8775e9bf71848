#include "config/configuration.h"

Configuration::~Configuration() = default;

QString Configuration::toString() const
{
    QString text;
    text += QStringLiteral("Using custom proxy settings: ") +
            (useCustomProxySettings() ? QStringLiteral("yes") : QStringLiteral("no")) + QLatin1Char('\n');
    text += QStringLiteral("Custom proxy host name: ") + proxyHostName() + QLatin1Char('\n');
    text += QStringLiteral("Custom proxy port: ") + QString::number(proxyPort()) + QLatin1Char('\n');
    text += QStringLiteral("Signature server URL: ") + serverUrl() + QLatin1Char('\n');
    text += QStringLiteral("Certificate dir: ") + certificateDir() + QLatin1Char('\n');
    text += QStringLiteral("CA certificate dir: ") + caCertificateDir() + QLatin1Char('\n');
    text += QStringLiteral("Root certificate dir: ") + rootCertificateDir() + QLatin1Char('\n');
    return text;
}
