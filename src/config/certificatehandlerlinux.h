#pragma once
// The certificate store over three directories of the user's home, taken
// from the configuration:
//   user certificates          <user name>_<sha256 hex>.cer
//   intermediate CA certs      <sha256 hex>.cer
//   root CA certs              <sha256 hex>.cer
// where the hash is the lower-case hex SHA-256 of the DER bytes that the
// file holds.

#include <QDir>
#include <QHash>
#include <QString>

#include "config/certificatehandler.h"
#include "config/fileutil.h"

class Configuration;

class CertificateHandlerLinux : public CertificateHandler {
public:
    // Keeps the pointer (not owned); loads nothing.
    explicit CertificateHandlerLinux(Configuration* config);
    ~CertificateHandlerLinux() override;

    CertificateHandlerLinux(const CertificateHandlerLinux&) = delete;
    CertificateHandlerLinux& operator=(const CertificateHandlerLinux&) = delete;

    void loadClientCertificates() override;
    void deleteUserCertificate(const MultiCertificate& certificate) override;
    void deleteIntermediateCaCertificate(const ByteArray_constSlice& der) override;
    void deleteRootCaCertificate(const ByteArray_constSlice& der) override;
    // Refuses, with the parser's exception and without writing, bytes that
    // are not an OCES certificate.
    void saveUserCertificate(const MultiCertificate& certificate, bool flag) override;
    void saveIntermediateCaCertificate(const ByteArray_constSlice& der) override;
    void saveRootCaCertificate(const ByteArray_constSlice& der) override;
    // User, intermediate and root folder, in the order a load reads them.
    QStringList folders() const override;
    QStringList loadedFiles() const override;

private:
    // The bytes last read from each listed file, with the file's identity
    // then: a file whose identity has not changed is not read again.
    struct CachedFile {
        FileIdentity identity;
        ByteArray bytes;
    };
    typedef QHash<QString, CachedFile> FileCache;

    // The file's bytes, from the cache while its identity is unchanged;
    // what was used goes into `used`, which becomes the cache after a load.
    ByteArray readCertificateFile(const QString& path, FileCache& used) const;
    QDir getRootCertificateDir() const;
    QDir getCaCertificateDir() const;
    QDir getUserCertificateDir() const;
    QString getCertificateFilePath(const MultiCertificate& certificate) const;
    QList<ByteArray> loadCaCertificates(QDir dir, FileCache& used) const;
    QList<MultiCertificate> loadUserCertificates(QDir dir, FileCache& used) const;
    void deleteCaCertificate(const QDir& dir, const ByteArray_constSlice& der, QList<ByteArray>& cached);
    const Configuration& configuration() const;

    Configuration* config_;
    FileCache fileCache_;
};
