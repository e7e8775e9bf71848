#include "certificates/rsapublickey.h"

#include "Asn1/Asn1Reader.h"
#include "certificates/certificateinformation.h"
#include "logging/Logger.h"

KORVO_FILE_LOGGER;

namespace {

const char* const kRsaEncryption = "2A864886F70D010101";  // 1.2.840.113549.1.1.1

[[noreturn]] void refuse(int line, const std::string& message)
{
    fileLogger->Error(line, QString::fromStdString(message));
    throw asn1::parse_error(message);
}

// A non-negative INTEGER with a value; its content bytes.
BigInteger readPositiveInteger(asn1::Asn1Reader& reader, const char* what)
{
    ByteArray_constSlice bytes = reader.GetBytes(asn1::TAG_INTEGER);
    if (bytes.empty() || (bytes[0] & 0x80))
        refuse(__LINE__, std::string("RSA ") + what + " is not a positive INTEGER");
    BigInteger value(bytes);
    if (value.isZero())
        refuse(__LINE__, std::string("RSA ") + what + " is zero");
    return value;
}

}  // namespace

RsaPublicKey RsaPublicKey::FromPublicKeyInfo(const ByteArray_constSlice& publicKeyInfo)
{
    asn1::Asn1Reader reader(publicKeyInfo);
    asn1::Asn1Reader info = reader.CheckTagAndGetSubReader(asn1::TAG_SEQUENCE);
    asn1::Asn1Reader algorithm = info.CheckTagAndGetSubReader(asn1::TAG_SEQUENCE);
    ByteArray_constSlice oid = algorithm.GetBytes(asn1::TAG_OID);
    if (oid != ByteArray::fromHex(kRsaEncryption).constSlice())
        refuse(__LINE__, "Public key is not an RSA key, algorithm " + oid.toHex());
    return FromRsaPublicKey(spkInfoToBitStringContent(publicKeyInfo));
}

RsaPublicKey RsaPublicKey::FromRsaPublicKey(const ByteArray_constSlice& rsaPublicKey)
{
    asn1::Asn1Reader reader(rsaPublicKey);
    asn1::Asn1Reader key = reader.CheckTagAndGetSubReader(asn1::TAG_SEQUENCE);
    BigInteger modulus = readPositiveInteger(key, "modulus");
    BigInteger exponent = readPositiveInteger(key, "public exponent");
    key.CheckEnd();
    return RsaPublicKey(modulus, exponent);
}
