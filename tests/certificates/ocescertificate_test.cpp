#include "certificates/ocescertificate.h"

#include <cstdlib>
#include <fstream>
#include <iterator>

#include <gtest/gtest.h>

#include "Asn1/Asn1Reader.h"
#include "certificates/certificatepolicies.h"
#include "der_builder.h"
#include "support/temp_home.h"

using namespace der;

namespace {

ByteArray withExtensions(std::vector<ByteArray> extensions)
{
    CertificateParts parts;
    parts.extensions = std::move(extensions);
    return certificate(parts);
}

std::string emailOf(const ByteArray& generalNames)
{
    return OcesCertificate::Parse(withExtensions({extension(SUBJECT_ALT_NAME, generalNames)}))
        .getEmailAddress()
        .toStdString();
}

}  // namespace

TEST(OcesPolicies, MatchPolicyIdentifiersByPrefix)
{
    const struct {
        ByteArray policies;
        bool person, medarbejder, virksomhed;
    } cases[] = {
        {policies({"2A8150812901010101"}), true, false, false},
        {policies({"2A815081290101010103"}), true, false, false},  // a sub-arc of the person policy
        {policies({"2A815081290101010204"}), false, true, false},
        {policies({"551D2000", "2A8150812901010103"}), false, false, true},
        {policies({"2A8150812901010104"}), false, false, false},
        {policies({"2A81508129010101"}), false, false, false},  // shorter than the prefixes
        {tlv(0x30, seq({oid("2A8150812901010102"), seq({seq({oid("2B06010505070201"), tlv(0x16, text("x"))})})})),
         false, true, false},  // qualifiers are passed over
        {tlv(0x30, {}), false, false, false},
    };
    for (const auto& c : cases) {
        CertificatePolicies parsed = CertificatePolicies::Parse(c.policies);
        EXPECT_EQ(parsed.isOcesPerson(), c.person) << c.policies.toHex();
        EXPECT_EQ(parsed.isOcesMedarbejder(), c.medarbejder) << c.policies.toHex();
        EXPECT_EQ(parsed.isOcesVirksomhed(), c.virksomhed) << c.policies.toHex();
    }
}

TEST(OcesPolicies, CertificateTakesFlagsEmailAndRsaKey)
{
    OcesCertificate oces = OcesCertificate::Parse(withExtensions(
        {extension("551D20", policies({"2A815081290101010103"})),
         extension(SUBJECT_ALT_NAME, seq({tlv(0x81, {'j', 0xF8, '@', 'b', '.', 'd', 'k'})}))}));
    EXPECT_TRUE(oces.isOcesPerson());
    EXPECT_FALSE(oces.isOcesMedarbejder() || oces.isOcesVirksomhed());
    EXPECT_EQ(oces.getEmailAddress().toStdString(), "j\xC3\xB8@b.dk");  // read as Latin-1
    EXPECT_EQ(oces.getPublicKey().getModulus(), (ByteArray{0xC3, 0x01, 0x02}));
    EXPECT_EQ(oces.getPublicKey().getPublicExponent(), (ByteArray{0x01, 0x00, 0x01}));
    EXPECT_EQ(oces.getX509Certificate().getSubjectName().commonName(), "Holder");
    OcesCertificate copy = oces;
    EXPECT_EQ(&copy.getX509Certificate(), &oces.getX509Certificate());  // copies share one record

    OcesCertificate plain = OcesCertificate::Parse(certificate(CertificateParts()));  // no policies, no alt names
    EXPECT_FALSE(plain.isOcesPerson() || plain.isOcesMedarbejder() || plain.isOcesVirksomhed());
    EXPECT_TRUE(plain.getEmailAddress().isEmpty());
}

TEST(OcesCertificateKeys, RefusesKeysThatAreNotRsa)
{
    CertificateParts parts;
    parts.keyInfo = dsaKeyInfo();
    EXPECT_NO_THROW(X509Certificate::Parse(certificate(parts)));
    EXPECT_THROW(OcesCertificate::Parse(certificate(parts)), asn1::parse_error);
    for (const ByteArray& modulus : {ByteArray{}, ByteArray{0x80, 0x01}, ByteArray{0x00}}) {
        parts.keyInfo = rsaKeyInfo(modulus, {0x03});
        EXPECT_THROW(OcesCertificate::Parse(certificate(parts)), asn1::parse_error) << modulus.toHex();
    }
}

TEST(OcesEmailExtraction, FollowsTheAlternativeNameRules)
{
    EXPECT_EQ(emailOf(seq({tlv(0x81, text("a@b.dk"))})), "a@b.dk");
    EXPECT_EQ(emailOf(seq({})), "");
    expectThrow<std::runtime_error>([] { emailOf(seq({tlv(0x81, text("a@b.dk")), tlv(0x81, text("c@d.dk"))})); },
                                    "Multiple RFC822Names in Subject-Alternative-Name");
    // Other entries are skipped from their tag byte on: 0x82 is taken as a
    // two-byte length form, 0x0361 bytes, which are not there.
    EXPECT_THROW(emailOf(seq({tlv(0x82, text("a.b")), tlv(0x81, text("a@b.dk"))})), std::out_of_range);
}

TEST(OcesCertificateKeys, ReadsCertificateMadeByOpenssl)
{
    const std::string dir = testsupport::freshDirectory("openssl").toStdString();
    const std::string make = "(cd '" + dir + "' && openssl req -x509 -new -outform DER -out c.der -newkey rsa:2048 "
                             "-nodes -keyout k.pem -multivalue-rdn -subj '/C=DK/O=Firma A\\/S/CN=Jens Hansen+serialNumber=PID:1234' "
                             "-addext certificatePolicies=1.2.208.169.1.1.1.2.5 -addext subjectAltName=email:jh@firma.dk "
                             "&& openssl x509 -inform DER -in c.der -noout -modulus >m.txt) >/dev/null 2>&1";
    if (std::system(make.c_str()) != 0)
        GTEST_FAIL() << "openssl command not usable (tools/install-deps.sh installs it)";
    std::ifstream der(dir + "/c.der", std::ios::binary), modulus(dir + "/m.txt");
    OcesCertificate oces = OcesCertificate::Parse(
        ByteArray::fromString(std::string(std::istreambuf_iterator<char>(der), std::istreambuf_iterator<char>())));
    std::string modulusLine;
    std::getline(modulus, modulusLine);

    EXPECT_TRUE(oces.isOcesMedarbejder());
    EXPECT_EQ(oces.getEmailAddress().toStdString(), "jh@firma.dk");
    // openssl sorts the values of the multi-valued RDN by their encoding.
    EXPECT_EQ(oces.getX509Certificate().getSubjectName().toString().toStdString(),
              "SN=PID:1234+CN=Jens Hansen,O=Firma A/S,C=DK");
    EXPECT_EQ("Modulus=" + oces.getPublicKey().getModulus().toHex(), modulusLine);
    EXPECT_EQ(oces.getPublicKey().getPublicExponent(), (ByteArray{0x01, 0x00, 0x01}));
}
