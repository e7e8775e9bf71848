#pragma once
// One user certificate of the store: its DER bytes and the user name of its
// owner. The user name is what the certificate's file name starts with; it is
// empty for a certificate made from bytes alone.

#include <QString>

#include "deps/cpp_modules/ByteArray.h"

class OcesCertificate;

class MultiCertificate {
public:
    MultiCertificate();
    MultiCertificate(QString userName, const ByteArray& der);
    explicit MultiCertificate(const ByteArray& der);

    QString getUserName() const;
    // A copy of the DER bytes.
    ByteArray asByteArray() const;
    // SHA-256 of the DER bytes (32 bytes), computed on every call.
    ByteArray getCertHash() const;
    // Parses the bytes on every call; throws what the parser throws when they
    // are not an OCES certificate. Callers include certificates/ocescertificate.h.
    OcesCertificate asOcesCertificate() const;

private:
    QString userName_;
    ByteArray certificate_;
};
