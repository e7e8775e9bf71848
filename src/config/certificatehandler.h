#pragma once
// The certificate store: three cached lists (root CA certificates,
// intermediate CA certificates and user certificates) filled by a load, and
// the operations that save and delete single certificates. Certificates are
// DER bytes throughout.

#include <QList>
#include <QStringList>

#include "config/multicertificate.h"
#include "deps/cpp_modules/ByteArray.h"

class Configuration;

class CertificateHandler {
public:
    virtual ~CertificateHandler();

    // Replaces all three lists with what is stored now. On an exception the
    // lists keep their previous contents.
    virtual void loadClientCertificates() = 0;
    // Remove the certificate's file and, when that worked, its first cached
    // entry with the same bytes. A failed removal is logged, not reported.
    virtual void deleteUserCertificate(const MultiCertificate& certificate) = 0;
    virtual void deleteIntermediateCaCertificate(const ByteArray_constSlice& der) = 0;
    virtual void deleteRootCaCertificate(const ByteArray_constSlice& der) = 0;
    // Write one certificate file; the cached lists are left alone, so a caller
    // that wants to see the new entry loads again. The flag is not consulted.
    virtual void saveUserCertificate(const MultiCertificate& certificate, bool flag) = 0;
    virtual void saveIntermediateCaCertificate(const ByteArray_constSlice& der) = 0;
    virtual void saveRootCaCertificate(const ByteArray_constSlice& der) = 0;

    // The folders a load reads (absolute paths), and the files the last
    // load read; empty where a store has no such notion.
    virtual QStringList folders() const;
    virtual QStringList loadedFiles() const;

    const QList<ByteArray>& rootCaCertificates() const;
    const QList<ByteArray>& intermediateCaCertificates() const;
    const QList<MultiCertificate>& certificates() const;

    // Loads afresh, then deletes every user certificate, last one first.
    void deleteAllUserCertificates();

    // Makes a new file-based store over the configuration's directories.
    // Every call makes a new one; the caller owns it. Nothing is loaded yet.
    static CertificateHandler* Instance(Configuration* config);

protected:
    CertificateHandler();

    QList<ByteArray> rootCaCertificates_;
    QList<ByteArray> intermediateCaCertificates_;
    QList<MultiCertificate> certificates_;
};
