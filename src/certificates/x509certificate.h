#pragma once
// An X.509 certificate taken apart for the token objects. Nothing is
// verified: no signature, no chain, no validity check against the clock.
// All parts are copies, so a certificate outlives the bytes it came from.

#include <QDateTime>
#include <QString>

#include "certificates/extensions.h"
#include "certificates/name.h"
#include "deps/cpp_modules/ByteArray.h"

namespace asn1 {
class Asn1Reader;
}

class X509Certificate {
public:
    // Throws std::out_of_range or asn1::parse_error (and the name and time
    // errors of this model) when the bytes are not a certificate. Bytes after
    // the certificate are not looked at.
    static X509Certificate Parse(const ByteArray_constSlice& der);

    // Content bytes of the serial number INTEGER, as read.
    const ByteArray& getSerialNumber() const { return serialNumber_; }
    // The serial number as a DER INTEGER (the value of CKA_SERIAL_NUMBER).
    ByteArray encodedSerialNumber() const;
    // Content bytes of the tbsCertificate's signature AlgorithmIdentifier.
    const ByteArray& getSignatureAlgorithm() const { return signatureAlgorithm_; }

    const Name& getIssuerName() const { return issuer_; }
    const ByteArray& getIssuerNameAsBlob() const { return issuerBlob_; }
    const Name& getSubjectName() const { return subject_; }
    const ByteArray& getSubjectNameAsBlob() const { return subjectBlob_; }

    // UTC date-times.
    const QDateTime& getNotBefore() const { return notBefore_; }
    const QDateTime& getNotAfter() const { return notAfter_; }

    // Complete DER of the SubjectPublicKeyInfo, tag and length included.
    const ByteArray& getSubjectPublicKeyInfoAsBlob() const { return subjectPublicKeyInfo_; }

    const Extensions& getExtensions() const { return extensions_; }

    // The rfc822Name of the subject-alternative-name extension, or an empty
    // text when there is no such extension. Throws std::runtime_error
    // "Multiple RFC822Names in Subject-Alternative-Name" on a second one.
    QString getEmailAddressFromSubjectAlternativeName() const;

    // Reads a UTCTime or GeneralizedTime as a UTC date-time.
    static QDateTime ReadX509Time(asn1::Asn1Reader& reader);

private:
    X509Certificate() = default;

    ByteArray serialNumber_;
    ByteArray signatureAlgorithm_;
    Name issuer_;
    ByteArray issuerBlob_;
    QDateTime notBefore_;
    QDateTime notAfter_;
    Name subject_;
    ByteArray subjectBlob_;
    ByteArray subjectPublicKeyInfo_;
    Extensions extensions_;
};
