#include "config/multicertificate.h"

#include <utility>

#include "certificates/ocescertificate.h"
#include "deps/cpp_modules/Hashers.h"

MultiCertificate::MultiCertificate() = default;

MultiCertificate::MultiCertificate(QString userName, const ByteArray& der)
    : userName_(std::move(userName)), certificate_(der)
{
}

MultiCertificate::MultiCertificate(const ByteArray& der) : certificate_(der) {}

QString MultiCertificate::getUserName() const
{
    return userName_;
}

ByteArray MultiCertificate::asByteArray() const
{
    return certificate_;
}

ByteArray MultiCertificate::getCertHash() const
{
    return Sha256::Hash(certificate_);
}

OcesCertificate MultiCertificate::asOcesCertificate() const
{
    return OcesCertificate::Parse(certificate_);
}
