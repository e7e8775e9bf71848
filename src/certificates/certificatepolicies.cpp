#include "certificates/certificatepolicies.h"

#include "Asn1/Asn1Reader.h"

namespace {

const char* const kOcesPerson = "2a8150812901010101";       // 1.2.208.169.1.1.1.1
const char* const kOcesMedarbejder = "2a8150812901010102";  // 1.2.208.169.1.1.1.2
const char* const kOcesVirksomhed = "2a8150812901010103";   // 1.2.208.169.1.1.1.3

}  // namespace

CertificatePolicies CertificatePolicies::Parse(const ByteArray_constSlice& der)
{
    asn1::Asn1Reader reader(der);
    asn1::Asn1Reader policies = reader.CheckTagAndGetSubReader(asn1::TAG_SEQUENCE);
    CertificatePolicies result;
    while (!policies.IsEnd()) {
        // PolicyInformation: the identifier, then qualifiers that are not read.
        asn1::Asn1Reader information = policies.CheckTagAndGetSubReader(asn1::TAG_SEQUENCE);
        result.identifiers_.emplace_back(information.GetBytes(asn1::TAG_OID));
    }
    policies.CheckEnd();
    return result;
}

bool CertificatePolicies::hasPolicyIdentifierThatStartsWith(const ByteArray_constSlice& prefix) const
{
    for (const ByteArray& identifier : identifiers_)
        if (identifier.size() >= prefix.size() && identifier.constSlice(0, prefix.size()) == prefix)
            return true;
    return false;
}

bool CertificatePolicies::isOcesPerson() const
{
    return hasPolicyIdentifierThatStartsWith(ByteArray::fromHex(kOcesPerson));
}

bool CertificatePolicies::isOcesMedarbejder() const
{
    return hasPolicyIdentifierThatStartsWith(ByteArray::fromHex(kOcesMedarbejder));
}

bool CertificatePolicies::isOcesVirksomhed() const
{
    return hasPolicyIdentifierThatStartsWith(ByteArray::fromHex(kOcesVirksomhed));
}
