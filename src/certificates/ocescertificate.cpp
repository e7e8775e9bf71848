#include "certificates/ocescertificate.h"

#include "certificates/certificatepolicies.h"

namespace {

const char* const kCertificatePolicies = "551d20";  // 2.5.29.32

}  // namespace

struct OcesCertificate::Data {
    Data(const X509Certificate& certificate, const RsaPublicKey& publicKey)
        : certificate(certificate), publicKey(publicKey)
    {
    }

    X509Certificate certificate;
    RsaPublicKey publicKey;
    bool person = false;
    bool medarbejder = false;
    bool virksomhed = false;
    QString emailAddress;
};

OcesCertificate OcesCertificate::Parse(const ByteArray_constSlice& der)
{
    X509Certificate certificate = X509Certificate::Parse(der);
    RsaPublicKey publicKey = RsaPublicKey::FromPublicKeyInfo(certificate.getSubjectPublicKeyInfoAsBlob());
    auto data = std::make_shared<Data>(certificate, publicKey);

    if (const Extension* policies = certificate.getExtensions().FindExtension(ByteArray::fromHex(kCertificatePolicies))) {
        CertificatePolicies parsed = CertificatePolicies::Parse(policies->getValue());
        data->person = parsed.isOcesPerson();
        data->medarbejder = parsed.isOcesMedarbejder();
        data->virksomhed = parsed.isOcesVirksomhed();
    }
    data->emailAddress = certificate.getEmailAddressFromSubjectAlternativeName();
    return OcesCertificate(std::move(data));
}

const X509Certificate& OcesCertificate::getX509Certificate() const
{
    return data_->certificate;
}

const RsaPublicKey& OcesCertificate::getPublicKey() const
{
    return data_->publicKey;
}

bool OcesCertificate::isOcesPerson() const
{
    return data_->person;
}

bool OcesCertificate::isOcesMedarbejder() const
{
    return data_->medarbejder;
}

bool OcesCertificate::isOcesVirksomhed() const
{
    return data_->virksomhed;
}

const QString& OcesCertificate::getEmailAddress() const
{
    return data_->emailAddress;
}
