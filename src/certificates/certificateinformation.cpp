#include "certificates/certificateinformation.h"

#include <cstring>
#include <mutex>

#include <QLocale>

#include "Asn1/Asn1Reader.h"
#include "certificates/x509certificate.h"
#include "deps/cpp_modules/exceptions.h"

namespace {

X509Certificate parse(const unsigned char* der, size_t length)
{
    if (!der)
        throw bad_parameter("Certificate bytes are missing");
    return X509Certificate::Parse(ByteArray_constSlice(der, length));
}

// What the token objects take from one certificate.
struct Information {
    ByteArray der;
    ByteArray subject, issuer, serialNumber, publicKeyInfo, label;
};

// The token builds up to three objects from each certificate, one after
// the other: the certificate last parsed is remembered, so it is parsed
// (and its label formatted) once for all of them.
Information informationOf(const unsigned char* der, size_t length)
{
    static std::mutex mutex;
    static Information last;
    {
        std::lock_guard<std::mutex> guard(mutex);
        if (der && length && last.der.size() == length && std::memcmp(last.der.data(), der, length) == 0) return last;
    }
    const X509Certificate certificate = parse(der, length);
    Information fresh;
    fresh.der = ByteArray(der, length);
    fresh.subject = certificate.getSubjectNameAsBlob();
    fresh.issuer = certificate.getIssuerNameAsBlob();
    fresh.serialNumber = certificate.encodedSerialNumber();
    fresh.publicKeyInfo = certificate.getSubjectPublicKeyInfoAsBlob();
    fresh.label = constructLabel(certificate);
    std::lock_guard<std::mutex> guard(mutex);
    last = fresh;
    return fresh;
}

}  // namespace

ByteArray constructLabel(const X509Certificate& certificate)
{
    QString date = QLocale::system().toString(certificate.getNotBefore().toLocalTime().date(), QLocale::ShortFormat);
    QByteArray utf8 = (certificate.getSubjectName().toString() + "; Gyldigt fra: " + date).toUtf8();
    return ByteArray(reinterpret_cast<const uint8_t*>(utf8.constData()), static_cast<size_t>(utf8.size()));
}

void getCertificateInformation(const unsigned char* der, size_t length, ByteArray& subject, ByteArray& issuer,
                               ByteArray& serialNumber, ByteArray& label)
{
    Information information = informationOf(der, length);
    subject = std::move(information.subject);
    issuer = std::move(information.issuer);
    serialNumber = std::move(information.serialNumber);
    label = std::move(information.label);
}

void getCertSubjectInformation(const unsigned char* der, size_t length, ByteArray& subject, ByteArray& publicKeyInfo,
                               ByteArray& label)
{
    Information information = informationOf(der, length);
    subject = std::move(information.subject);
    publicKeyInfo = std::move(information.publicKeyInfo);
    label = std::move(information.label);
}

ByteArray_constSlice spkInfoToBitStringContent(const ByteArray_constSlice& info)
{
    asn1::Asn1Reader reader(info);
    asn1::Asn1Reader publicKeyInfo = reader.CheckTagAndGetSubReader(asn1::TAG_SEQUENCE);
    publicKeyInfo.GetBytes(asn1::TAG_SEQUENCE);
    ByteArray_constSlice bits = publicKeyInfo.GetBytes(asn1::TAG_BIT_STRING);
    publicKeyInfo.CheckEnd();
    if (bits.empty() || bits[0] != 0)
        throw asn1::parse_error("Public key BIT STRING must have no unused bits");
    return bits.slice(1, bits.size() - 1);
}

void spkInfoToBitStringContent(const unsigned char* info, size_t length, const unsigned char** content,
                               size_t* contentLength)
{
    if (!info || !content || !contentLength)
        throw bad_parameter("spkInfoToBitStringContent: null argument");
    ByteArray_constSlice bits = spkInfoToBitStringContent(ByteArray_constSlice(info, length));
    *content = bits.data();
    *contentLength = bits.size();
}
