#pragma once
// Configuration read from the per-user INI settings file of organisation
// "Tessaract" (on Linux $HOME/.config/Tessaract/<application>.ini). Nothing
// is cached: every getter reads the settings store again.

#include <QDir>
#include <QSettings>

#include "config/configuration.h"

class FileConfiguration : public Configuration {
public:
    FileConfiguration();
    explicit FileConfiguration(const QString& application);
    ~FileConfiguration() override;

    FileConfiguration(const FileConfiguration&) = delete;
    FileConfiguration& operator=(const FileConfiguration&) = delete;

    QString serverUrl() const override;
    QString certificateDir() const override;
    QString caCertificateDir() const override;
    QString rootCertificateDir() const override;
    bool useCustomProxySettings() const override;
    QString proxyHostName() const override;
    int proxyPort() const override;
    QString fakeGuiConfiguration() const override;
    QString logFile() const override;
    bool loggingEnabled() const override;
    QString logLevel() const override;
    ByteArray serverOuterPublicKey() const override;
    ByteArray serverInnerPublicKey() const override;
    ByteArray srpModulus() const override;
    ByteArray hParams() const override;
    ByteArray sigParams() const override;
    ByteArray paramCert() const override;
    ByteArray hardcodedSoftwareFingerprint() const override;
    QString hardcodedUserAgent() const override;
    QList<QSslCertificate> sslRootCerts() const override;

    // Absolute path of the security-advice counter file of the given key:
    // its lower-case hex followed by "-sac.bin", in the user certificate
    // directory. The file itself is not touched.
    virtual QString securityAdviceCounterFileName(const ByteArray& id) const;

    // Sets "FakeGuiConfiguration", or removes the key when value is empty.
    void setFakeGuiConfiguration(QString value);

    // Replaces a leading "~/" by the user's home directory; any other path
    // is returned unchanged. Nothing is created or checked.
    static QDir expandDir(QString path);

private:
    QString stringValue(const char* key, const QString& defaultValue) const;
    ByteArray hexValue(const char* key, const char* defaultValue) const;
    ByteArray base64Value(const char* key, const char* defaultValue) const;

    QSettings settings_;
};
