#include "certificates/name.h"

#include <string>

#include "Asn1/Asn1Reader.h"
#include "logging/Logger.h"

KORVO_FILE_LOGGER;

namespace {

struct ShortName {
    const char* typeHex;
    const char* text;
};

// 2.5.4.5 (serialNumber) prints as "SN" and 2.5.4.4 (surname) as "S": the
// labels of existing token objects carry these texts, so they stay.
const ShortName kShortNames[] = {
    {"550403", "CN"},  {"550406", "C"},    {"550407", "L"},
    {"550408", "ST"},  {"55040A", "O"},    {"55040B", "OU"},
    {"2A864886F70D010901", "EMAIL"},       {"550405", "SN"},
    {"550404", "S"},   {"55042A", "G"},
};

const char* const kCommonName = "550403";
const char* const kOrganizationName = "55040A";
const char* const kOrganizationalUnitName = "55040B";

[[noreturn]] void refuse(int line, const std::string& message)
{
    fileLogger->Error(line, QString::fromStdString(message));
    throw asn1::parse_error(message);
}

QString latin1Text(const ByteArray_constSlice& bytes)
{
    return QString::fromLatin1(reinterpret_cast<const char*>(bytes.data()), static_cast<qsizetype>(bytes.size()));
}

// UCS-4, big-endian; code points outside Unicode become U+FFFD.
QString universalText(const ByteArray_constSlice& bytes)
{
    QString text;
    for (size_t i = 0; i + 4 <= bytes.size(); i += 4) {
        char32_t c = (char32_t(bytes[i]) << 24) | (char32_t(bytes[i + 1]) << 16) | (char32_t(bytes[i + 2]) << 8) |
                     char32_t(bytes[i + 3]);
        if (c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF))
            c = 0xFFFD;
        if (QChar::requiresSurrogates(c)) {
            text.append(QChar(QChar::highSurrogate(c)));
            text.append(QChar(QChar::lowSurrogate(c)));
        } else {
            text.append(QChar(static_cast<char16_t>(c)));
        }
    }
    return text;
}

// UCS-2, big-endian.
QString bmpText(const ByteArray_constSlice& bytes)
{
    QString text;
    for (size_t i = 0; i + 2 <= bytes.size(); i += 2)
        text.append(QChar(static_cast<char16_t>((bytes[i] << 8) | bytes[i + 1])));
    return text;
}

QString readDirectoryString(asn1::Asn1Reader& reader)
{
    int tag = reader.ReadTag();
    switch (tag) {
    case asn1::TAG_UTF8_STRING: {
        ByteArray_constSlice value = reader.ReadValue();
        return QString::fromUtf8(reinterpret_cast<const char*>(value.data()), static_cast<qsizetype>(value.size()));
    }
    case 0x12:  // NumericString
    case asn1::TAG_PRINTABLE_STRING:
    case asn1::TAG_TELETEX_STRING:  // taken as Latin-1
    case asn1::TAG_IA5_STRING:
    case 0x1A:  // VisibleString
        return latin1Text(reader.ReadValue());
    case asn1::TAG_UNIVERSAL_STRING: {
        ByteArray_constSlice value = reader.ReadValue();
        if (value.size() % 4 != 0)
            refuse(__LINE__, "UniversalString must have a length divisible by 4");
        return universalText(value);
    }
    case asn1::TAG_BMP_STRING: {
        ByteArray_constSlice value = reader.ReadValue();
        if (value.size() % 2 != 0)
            refuse(__LINE__, "BMPString must have a length divisible by 2");
        return bmpText(value);
    }
    default:
        refuse(__LINE__, "Unsupported tag-type for DirectoryString: " + std::to_string(tag));
    }
}

}  // namespace

QString oidToNameText(const ByteArray_constSlice& oid)
{
    QString text;
    unsigned long long subidentifier = 0;
    for (size_t i = 0; i < oid.size(); ++i) {
        subidentifier = (subidentifier << 7) | (oid[i] & 0x7F);
        if ((oid[i] & 0x80) == 0) {
            if (!text.isEmpty())
                text.append(QChar('.'));
            text.append(QChar(static_cast<char16_t>(subidentifier & 0xFF)));
            subidentifier = 0;
        }
    }
    if (!oid.empty() && (oid[oid.size() - 1] & 0x80)) {
        fileLogger->Error(__LINE__, QString("subdentifier != 0: %1").arg(subidentifier));
        throw asn1::parse_error("ObjectIdentifier must end with a byte with bit 8 set to 0");
    }
    return text;
}

// ---- Atav

Atav Atav::Parse(asn1::Asn1Reader& reader)
{
    asn1::Asn1Reader sequence = reader.CheckTagAndGetSubReader(asn1::TAG_SEQUENCE);
    ByteArray type(sequence.GetBytes(asn1::TAG_OID));
    QString value = readDirectoryString(sequence);
    sequence.CheckEnd();
    return Atav(type, value);
}

QString Atav::toString() const
{
    const std::string typeHex = type_.toHex();
    for (const ShortName& entry : kShortNames)
        if (typeHex == entry.typeHex)
            return QString::fromLatin1(entry.text) + "=" + value_;
    return oidToNameText(type_) + "=" + value_;
}

bool Atav::equals(const Atav& other) const
{
    return type_ == other.type_ && value_ == other.value_;
}

// ---- Rdn

Rdn Rdn::Parse(asn1::Asn1Reader& reader)
{
    asn1::Asn1Reader set = reader.CheckTagAndGetSubReader(asn1::TAG_SET);
    std::vector<Atav> atavs;
    while (!set.IsEnd())
        atavs.push_back(Atav::Parse(set));
    return Rdn(atavs);
}

const Atav* Rdn::FindAtav(const ByteArray_constSlice& type) const
{
    for (const Atav& atav : atavs_)
        if (atav.getType().constSlice() == type)
            return &atav;
    return nullptr;
}

QString Rdn::toString() const
{
    QString text;
    for (size_t i = 0; i < atavs_.size(); ++i) {
        if (i > 0)
            text.append(QChar('+'));
        text.append(atavs_[i].toString());
    }
    return text;
}

bool Rdn::equals(const Rdn& other) const
{
    if (atavs_.size() != other.atavs_.size())
        return false;
    for (size_t i = 0; i < atavs_.size(); ++i)
        if (!atavs_[i].equals(other.atavs_[i]))
            return false;
    return true;
}

// ---- Name

Name Name::Parse(asn1::Asn1Reader& reader)
{
    asn1::Asn1Reader sequence = reader.CheckTagAndGetSubReader(asn1::TAG_SEQUENCE);
    std::vector<Rdn> rdns;
    while (!sequence.IsEnd())
        rdns.push_back(Rdn::Parse(sequence));
    return Name(rdns);
}

const Atav* Name::GetFirstInstanceOfType(const ByteArray_constSlice& type) const
{
    for (const Rdn& rdn : rdns_)
        if (const Atav* atav = rdn.FindAtav(type))
            return atav;
    return nullptr;
}

QString Name::firstValueOf(const char* typeHex) const
{
    const Atav* atav = GetFirstInstanceOfType(ByteArray::fromHex(typeHex));
    return atav ? atav->getValue() : QString();
}

QString Name::commonName() const
{
    return firstValueOf(kCommonName);
}

QString Name::organizationName() const
{
    return firstValueOf(kOrganizationName);
}

QString Name::organizationalUnitName() const
{
    return firstValueOf(kOrganizationalUnitName);
}

QString Name::toString() const
{
    QString text;
    for (size_t i = rdns_.size(); i > 0; --i) {
        if (i < rdns_.size())
            text.append(QChar(','));
        text.append(rdns_[i - 1].toString());
    }
    return text;
}

bool Name::equals(const Name& other) const
{
    if (rdns_.size() != other.rdns_.size())
        return false;
    for (size_t i = 0; i < rdns_.size(); ++i)
        if (!rdns_[i].equals(other.rdns_[i]))
            return false;
    return true;
}
