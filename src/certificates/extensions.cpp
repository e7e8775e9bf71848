#include "certificates/extensions.h"

#include "Asn1/Asn1Reader.h"
#include "logging/Logger.h"

KORVO_FILE_LOGGER;

Extension Extension::Parse(asn1::Asn1Reader& reader)
{
    asn1::Asn1Reader sequence = reader.CheckTagAndGetSubReader(asn1::TAG_SEQUENCE);
    ByteArray oid(sequence.GetBytes(asn1::TAG_OID));
    bool critical = false;
    if (sequence.PeekTag(asn1::TAG_BOOLEAN)) {
        sequence.CheckTag(asn1::TAG_BOOLEAN);
        if (sequence.ReadLength() != 1) {
            fileLogger->Error(__LINE__, "Invalid length of BOOLEAN");
            throw asn1::parse_error("Invalid length of BOOLEAN");
        }
        critical = sequence.ReadByte() != 0;
    }
    ByteArray value(sequence.GetBytes(asn1::TAG_OCTET_STRING));
    sequence.CheckEnd();
    return Extension(oid, critical, value);
}

Extensions Extensions::Parse(asn1::Asn1Reader& reader)
{
    asn1::Asn1Reader sequence = reader.CheckTagAndGetSubReader(asn1::TAG_SEQUENCE);
    Extensions extensions;
    while (!sequence.IsEnd())
        extensions.extensions_.push_back(Extension::Parse(sequence));
    return extensions;
}

const Extension* Extensions::FindExtension(const ByteArray_constSlice& oid) const
{
    for (const Extension& extension : extensions_)
        if (extension.getOid().constSlice() == oid)
            return &extension;
    return nullptr;
}
