#pragma once
// A certificate as the token accepts it for a user: an X.509 certificate with
// an RSA key, plus what the OCES policies say about its holder and the
// holder's e-mail address. Copies share one parsed record.

#include <memory>

#include <QString>

#include "certificates/rsapublickey.h"
#include "certificates/x509certificate.h"
#include "deps/cpp_modules/ByteArray.h"

class OcesCertificate {
public:
    // Throws asn1::parse_error, std::out_of_range or std::runtime_error when
    // the bytes are not an X.509 certificate with an RSA key or its policies
    // or alternative names are malformed. A certificate without any OCES
    // policy is accepted (all three tests answer false).
    static OcesCertificate Parse(const ByteArray_constSlice& der);

    const X509Certificate& getX509Certificate() const;
    const RsaPublicKey& getPublicKey() const;

    bool isOcesPerson() const;
    bool isOcesMedarbejder() const;
    bool isOcesVirksomhed() const;

    // From the subject alternative name; empty when there is none.
    const QString& getEmailAddress() const;

private:
    struct Data;
    explicit OcesCertificate(std::shared_ptr<const Data> data) : data_(std::move(data)) {}

    std::shared_ptr<const Data> data_;
};
