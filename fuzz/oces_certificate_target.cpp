#include "fuzz_targets.h"

#include <stdexcept>
#include <typeinfo>

#include <QDateTime>
#include <QString>

#include "Asn1/Asn1Reader.h"
#include "certificates/certificateinformation.h"
#include "certificates/certificatepolicies.h"
#include "certificates/name.h"
#include "certificates/ocescertificate.h"
#include "certificates/rsapublickey.h"
#include "certificates/x509certificate.h"
#include "deps/cpp_modules/exceptions.h"
#include "invariant.h"

namespace korvo_fuzz {

namespace {

// Keeps the results alive so that no call is optimised away.
volatile size_t sink;

// Runs `step` and tells whether it completed. The exceptions the certificate
// model documents end it with false: the reader's asn1::parse_error and
// std::out_of_range, a plain std::runtime_error (two e-mail addresses), and
// root_exception with its subclasses (BigInteger, bad_parameter,
// index_out_of_range). Anything else leaves.
template <typename Step>
bool completes(Step step)
{
    try {
        step();
        return true;
    } catch (const asn1::parse_error&) {
        return false;
    } catch (const std::out_of_range&) {
        return false;
    } catch (const root_exception&) {
        return false;
    } catch (const std::runtime_error& e) {
        if (typeid(e) == typeid(std::runtime_error))
            return false;
        throw;
    }
}

// Runs `step`, which reads again something the model has already read once;
// any exception is a broken invariant.
template <typename Step>
void rereads(const char* what, Step step)
{
    try {
        step();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "fuzz invariant broken: %s threw: %s\n", what, e.what());
        std::abort();
    }
}

void touchText(const QString& text)
{
    sink = sink + static_cast<size_t>(text.toUtf8().size());
}

void touchBytes(const ByteArray_constSlice& bytes)
{
    sink = sink + bytes.size() + (bytes.empty() ? 0 : bytes[0]);
}

void exerciseName(const Name& name, const ByteArray& encoding)
{
    KORVO_FUZZ_REQUIRE(!encoding.empty() && encoding[0] == asn1::TAG_SEQUENCE);
    KORVO_FUZZ_REQUIRE(name.equals(name));
    rereads("Name::Parse of a stored name encoding", [&] {
        asn1::Asn1Reader reader(encoding);
        const Name again = Name::Parse(reader);
        KORVO_FUZZ_REQUIRE(reader.IsEnd());
        KORVO_FUZZ_REQUIRE(again.equals(name));
    });
    touchText(name.commonName());
    touchText(name.organizationName());
    touchText(name.organizationalUnitName());
    for (const Rdn& rdn : name.getRdns()) {
        KORVO_FUZZ_REQUIRE(rdn.equals(rdn));
        for (const Atav& atav : rdn.getAtavs()) {
            KORVO_FUZZ_REQUIRE(rdn.FindAtav(atav.getType()) != nullptr);
            KORVO_FUZZ_REQUIRE(name.GetFirstInstanceOfType(atav.getType()) != nullptr);
            touchText(atav.getValue());
        }
    }
    // The text forms last: a type without a short name is printed from its
    // OID, which may refuse the OID with asn1::parse_error.
    for (const Rdn& rdn : name.getRdns()) {
        for (const Atav& atav : rdn.getAtavs())
            touchText(atav.toString());
        touchText(rdn.toString());
    }
    touchText(name.toString());
}

void exercise(const OcesCertificate& certificate)
{
    const X509Certificate& x509 = certificate.getX509Certificate();

    const ByteArray serial = x509.encodedSerialNumber();
    KORVO_FUZZ_REQUIRE(serial.size() >= 2 && serial[0] == asn1::TAG_INTEGER);
    rereads("the encoded serial number", [&] {
        asn1::Asn1Reader reader(serial);
        KORVO_FUZZ_REQUIRE(ByteArray(reader.GetBytes(asn1::TAG_INTEGER)) == x509.getSerialNumber());
        KORVO_FUZZ_REQUIRE(reader.IsEnd());
    });
    touchBytes(x509.getSignatureAlgorithm());

    KORVO_FUZZ_REQUIRE(x509.getNotBefore().isValid() && x509.getNotAfter().isValid());
    touchText(x509.getNotBefore().toString(Qt::ISODate));
    touchText(x509.getNotAfter().toString(Qt::ISODate));

    const ByteArray& publicKeyInfo = x509.getSubjectPublicKeyInfoAsBlob();
    KORVO_FUZZ_REQUIRE(!publicKeyInfo.empty() && publicKeyInfo[0] == asn1::TAG_SEQUENCE);
    const RsaPublicKey& key = certificate.getPublicKey();
    rereads("RsaPublicKey::FromPublicKeyInfo of the stored key info", [&] {
        const RsaPublicKey again = RsaPublicKey::FromPublicKeyInfo(publicKeyInfo);
        KORVO_FUZZ_REQUIRE(again.modulus() == key.modulus());
        KORVO_FUZZ_REQUIRE(again.publicExponent() == key.publicExponent());
        touchBytes(spkInfoToBitStringContent(publicKeyInfo));
    });
    touchBytes(key.getModulus());
    touchBytes(key.getPublicExponent());
    sink = sink + key.modulus().bitLength();

    const Extensions& extensions = x509.getExtensions();
    for (const Extension& extension : extensions.getExtensions()) {
        KORVO_FUZZ_REQUIRE(extensions.FindExtension(extension.getOid()) != nullptr);
        touchBytes(extension.getValue());
        sink = sink + extension.isCritical();
    }
    if (const Extension* policies = extensions.FindExtension(ByteArray::fromHex("551d20"))) {
        rereads("CertificatePolicies::Parse of an accepted policies extension", [&] {
            const CertificatePolicies again = CertificatePolicies::Parse(policies->getValue());
            KORVO_FUZZ_REQUIRE(again.isOcesPerson() == certificate.isOcesPerson());
            KORVO_FUZZ_REQUIRE(again.isOcesMedarbejder() == certificate.isOcesMedarbejder());
            KORVO_FUZZ_REQUIRE(again.isOcesVirksomhed() == certificate.isOcesVirksomhed());
        });
    } else {
        KORVO_FUZZ_REQUIRE(!certificate.isOcesPerson() && !certificate.isOcesMedarbejder() &&
                           !certificate.isOcesVirksomhed());
    }
    rereads("the e-mail address of an accepted certificate", [&] {
        KORVO_FUZZ_REQUIRE(x509.getEmailAddressFromSubjectAlternativeName() == certificate.getEmailAddress());
    });
    touchText(certificate.getEmailAddress());

    exerciseName(x509.getIssuerName(), x509.getIssuerNameAsBlob());
    exerciseName(x509.getSubjectName(), x509.getSubjectNameAsBlob());
    touchBytes(constructLabel(x509));
}

}  // namespace

bool OcesCertificateInput(const uint8_t* data, size_t size)
{
    bool parsed = false;
    completes([&] {
        const OcesCertificate certificate = OcesCertificate::Parse(ByteArray_constSlice(data, size));
        parsed = true;
        const OcesCertificate copy = certificate;
        KORVO_FUZZ_REQUIRE(&copy.getX509Certificate() == &certificate.getX509Certificate());
        exercise(copy);
    });

    // What the token objects ask of the same bytes; a certificate with a key
    // other than RSA gets this far too.
    completes([&] {
        ByteArray subject, issuer, serialNumber, label, publicKeyInfo;
        getCertificateInformation(data, size, subject, issuer, serialNumber, label);
        getCertSubjectInformation(data, size, subject, publicKeyInfo, label);
        touchBytes(label);
        const unsigned char* content = nullptr;
        size_t contentLength = 0;
        spkInfoToBitStringContent(publicKeyInfo.data(), publicKeyInfo.size(), &content, &contentLength);
        KORVO_FUZZ_REQUIRE(content >= publicKeyInfo.data() &&
                           contentLength <= static_cast<size_t>(publicKeyInfo.end() - content));
    });
    return parsed;
}

}  // namespace korvo_fuzz
