#include "certificates/x509certificate.h"

#include <stdexcept>

#include <QDate>
#include <QTime>

#include "Asn1/Asn1Reader.h"
#include "Asn1/Asn1Writer.h"
#include "logging/Logger.h"

KORVO_FILE_LOGGER;

namespace {

const char* const kSubjectAlternativeName = "551D11";  // 2.5.29.17
const int kRfc822NameTag = 0x81;

// The number written by `count` decimal digits at text[at]; -1 when one of
// them is not a digit.
int digits(const ByteArray_constSlice& text, size_t at, size_t count)
{
    int value = 0;
    for (size_t i = at; i < at + count; ++i) {
        if (text[i] < '0' || text[i] > '9')
            return -1;
        value = value * 10 + (text[i] - '0');
    }
    return value;
}

// A UTC date-time from its fields; invalid when a field is out of range or a
// field could not be read (negative).
QDateTime makeUtc(int year, int month, int day, int hour, int minute, int second, int millisecond)
{
    if (year < 0 || month < 0 || day < 0 || hour < 0 || minute < 0 || second < 0 || millisecond < 0)
        return QDateTime();
    QDate date(year, month, day);
    QTime time(hour, minute, second, millisecond);
    if (!date.isValid() || !time.isValid())
        return QDateTime();
    return QDateTime(date, time, Qt::UTC);
}

[[noreturn]] void refuseTime(int line, const char* message)
{
    fileLogger->Error(line, message);
    throw std::out_of_range(message);
}

// "yyMMddHHmmZ" or "yyMMddHHmmssZ"; years below 1950 lie in the next century.
QDateTime parseUtcTime(const ByteArray_constSlice& text)
{
    const size_t n = text.size();
    QDateTime result;
    if ((n == 11 || n == 13) && text[n - 1] == 'Z') {
        int year = digits(text, 0, 2);
        if (year >= 0) {
            year += 1900;
            if (year < 1950)
                year += 100;
        }
        int second = n == 13 ? digits(text, 10, 2) : 0;
        result = makeUtc(year, digits(text, 2, 2), digits(text, 4, 2), digits(text, 6, 2), digits(text, 8, 2),
                         second, 0);
    }
    if (!result.isValid())
        refuseTime(__LINE__, "UTCTime has invalid format");
    return result;
}

// "yyyyMMddHHmmssZ", or "yyyyMMddHHmmss.zZ" with one to three fraction digits.
QDateTime parseGeneralizedTime(const ByteArray_constSlice& text)
{
    const size_t n = text.size();
    QDateTime result;
    int millisecond = -1;
    if (n == 15 && text[14] == 'Z') {
        millisecond = 0;
    } else if (n >= 17 && n <= 19 && text[14] == '.' && text[n - 1] == 'Z') {
        const size_t fractionDigits = n - 16;
        millisecond = digits(text, 15, fractionDigits);
        for (size_t i = fractionDigits; i < 3 && millisecond >= 0; ++i)
            millisecond *= 10;
    }
    if (millisecond >= 0)
        result = makeUtc(digits(text, 0, 4), digits(text, 4, 2), digits(text, 6, 2), digits(text, 8, 2),
                         digits(text, 10, 2), digits(text, 12, 2), millisecond);
    if (!result.isValid())
        refuseTime(__LINE__, "GeneralizedTime has invalid format");
    return result;
}

}  // namespace

QDateTime X509Certificate::ReadX509Time(asn1::Asn1Reader& reader)
{
    if (reader.PeekTag(asn1::TAG_UTC_TIME))
        return parseUtcTime(reader.GetBytes(asn1::TAG_UTC_TIME));
    return parseGeneralizedTime(reader.GetBytes(asn1::TAG_GENERALIZED_TIME));
}

X509Certificate X509Certificate::Parse(const ByteArray_constSlice& der)
{
    asn1::Asn1Reader input(der);
    asn1::Asn1Reader certificate = input.CheckTagAndGetSubReader(asn1::TAG_SEQUENCE);
    asn1::Asn1Reader tbs = certificate.CheckTagAndGetSubReader(asn1::TAG_SEQUENCE);

    X509Certificate result;
    if (tbs.PeekTag(0xA0)) {
        tbs.CheckTag(0xA0);
        tbs.SkipElement();
    }
    result.serialNumber_ = tbs.GetBytes(asn1::TAG_INTEGER);
    result.signatureAlgorithm_ = tbs.GetBytes(asn1::TAG_SEQUENCE);

    size_t start = tbs.position();
    result.issuer_ = Name::Parse(tbs);
    result.issuerBlob_ = tbs.getSubSlice(start, tbs.position());

    asn1::Asn1Reader validity = tbs.CheckTagAndGetSubReader(asn1::TAG_SEQUENCE);
    result.notBefore_ = ReadX509Time(validity);
    result.notAfter_ = ReadX509Time(validity);
    validity.CheckEnd();

    start = tbs.position();
    result.subject_ = Name::Parse(tbs);
    result.subjectBlob_ = tbs.getSubSlice(start, tbs.position());

    result.subjectPublicKeyInfo_ = tbs.GetEncodedValue(asn1::TAG_SEQUENCE);

    for (int uniqueIdentifierTag : {0xA1, 0xA2}) {
        if (tbs.PeekTag(uniqueIdentifierTag)) {
            tbs.CheckTag(uniqueIdentifierTag);
            tbs.SkipElement();
        }
    }
    if (tbs.PeekTag(0xA3)) {
        asn1::Asn1Reader explicitExtensions = tbs.CheckTagAndGetSubReader(0xA3);
        result.extensions_ = Extensions::Parse(explicitExtensions);
        explicitExtensions.CheckEnd();
    }
    tbs.CheckEnd();

    certificate.GetBytes(asn1::TAG_SEQUENCE);
    certificate.GetBytes(asn1::TAG_BIT_STRING);
    certificate.CheckEnd();
    return result;
}

ByteArray X509Certificate::encodedSerialNumber() const
{
    ByteArray encoding;
    asn1::Asn1Writer(encoding).WriteElement(asn1::TAG_INTEGER, serialNumber_);
    return encoding;
}

QString X509Certificate::getEmailAddressFromSubjectAlternativeName() const
{
    const Extension* extension = extensions_.FindExtension(ByteArray::fromHex(kSubjectAlternativeName));
    if (!extension)
        return QString();

    asn1::Asn1Reader value(extension->getValue());
    asn1::Asn1Reader names = value.CheckTagAndGetSubReader(asn1::TAG_SEQUENCE);
    QString address;
    bool found = false;
    while (!names.IsEnd()) {
        if (names.PeekTag(kRfc822NameTag)) {
            ByteArray_constSlice bytes = names.GetBytes(kRfc822NameTag);
            if (found) {
                fileLogger->Error(__LINE__, "Multiple RFC822Names in Subject-Alternative-Name");
                throw std::runtime_error("Multiple RFC822Names in Subject-Alternative-Name");
            }
            address = QString::fromLatin1(reinterpret_cast<const char*>(bytes.data()),
                                          static_cast<qsizetype>(bytes.size()));
            found = true;
        } else {
            // Reads a length where the entry's tag is, without consuming the
            // tag first: other kinds of entry can make this fail or skip the
            // wrong number of bytes. Kept as it is.
            names.SkipElement();
        }
    }
    names.CheckEnd();
    return address;
}
