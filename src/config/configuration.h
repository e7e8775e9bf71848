#pragma once
// The settings interface of the module: where the certificates live, where
// the log goes, the proxy, and the built-in deployment data of the wider
// product. FileConfiguration is its one implementation.

#include <QList>
#include <QSslCertificate>
#include <QString>

#include "deps/cpp_modules/ByteArray.h"

class Configuration {
public:
    virtual ~Configuration();

    virtual QString serverUrl() const = 0;
    virtual QString certificateDir() const = 0;       // user certificates
    virtual QString caCertificateDir() const = 0;     // intermediate CA certificates
    virtual QString rootCertificateDir() const = 0;   // root CA certificates
    virtual bool useCustomProxySettings() const = 0;
    virtual QString proxyHostName() const = 0;
    virtual int proxyPort() const = 0;
    virtual QString fakeGuiConfiguration() const = 0;
    virtual QString logFile() const = 0;              // absolute path
    virtual bool loggingEnabled() const = 0;
    virtual QString logLevel() const = 0;
    virtual ByteArray serverOuterPublicKey() const = 0;
    virtual ByteArray serverInnerPublicKey() const = 0;
    virtual ByteArray srpModulus() const = 0;
    virtual ByteArray hParams() const = 0;
    virtual ByteArray sigParams() const = 0;
    virtual ByteArray paramCert() const = 0;
    virtual ByteArray hardcodedSoftwareFingerprint() const = 0;
    virtual QString hardcodedUserAgent() const = 0;
    virtual QList<QSslCertificate> sslRootCerts() const = 0;

    // Seven-line report of the proxy, server and directory settings.
    QString toString() const;
};
