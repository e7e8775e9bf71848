#include "Asn1/Asn1Writer.h"

#include <stdexcept>

namespace asn1 {

void Asn1Writer::WriteTag(int tag)
{
    if (tag < 0 || tag > 0xFFFF)
        throw std::out_of_range("Three-byte tags are not supported");
    if (tag >= 0x100)
        out_.append(static_cast<uint8_t>(tag >> 8));
    out_.append(static_cast<uint8_t>(tag & 0xFF));
}

void Asn1Writer::WriteLength(size_t length)
{
    if (length > 0xFFFFFF)
        throw std::out_of_range("Lengths larger than 2^24 are not supported");
    if (length < 0x80) {
        out_.append(static_cast<uint8_t>(length));
        return;
    }
    int bytes = length < 0x100 ? 1 : length < 0x10000 ? 2 : 3;
    out_.append(static_cast<uint8_t>(0x80 | bytes));
    for (int i = bytes - 1; i >= 0; --i)
        out_.append(static_cast<uint8_t>((length >> (8 * i)) & 0xFF));
}

void Asn1Writer::WriteValue(const ByteArray_constSlice& bytes)
{
    out_.append(bytes);
}

void Asn1Writer::WriteElement(int tag, const ByteArray_constSlice& value)
{
    WriteTag(tag);
    WriteLength(value.size());
    WriteValue(value);
}

}  // namespace asn1
