#include "Asn1/Asn1Reader.h"

#include <QString>

#include "logging/SimpleLogManager.h"

using TSQ::Tavik::Logging::ITavikLogger;
using TSQ::Tavik::Logging::SimpleLogManager;

static ITavikLogger* const logger = SimpleLogManager::GetInstance()->GetLogger("Asn1/Asn1Reader");

namespace asn1 {

namespace {

const char* const kTagSizeMessage = "Only one- and two-byte tags are supported";

[[noreturn]] void refuseOutOfRange(int line, const char* message)
{
    logger->Error(line, message);
    throw std::out_of_range(message);
}

[[noreturn]] void refuseParse(int line, const std::string& message)
{
    logger->Error(line, QString::fromStdString(message));
    throw parse_error(message);
}

}  // namespace

Asn1Reader::Asn1Reader(const ByteArray_constSlice& data) : data_(data), position_(0), end_(data.size()) {}

Asn1Reader::Asn1Reader(const ByteArray_constSlice& data, size_t position, size_t end)
    : data_(data), position_(position), end_(end)
{
}

bool Asn1Reader::HasData(size_t n) const
{
    return remaining() >= n;
}

bool Asn1Reader::IsEnd() const
{
    return position_ == end_;
}

void Asn1Reader::Check(size_t n) const
{
    if (remaining() < n) {
        logger->Error(__LINE__, QString("Unexpected end of data... s=%1").arg(static_cast<qulonglong>(n)));
        throw std::out_of_range("Unexpected end of data");
    }
}

void Asn1Reader::CheckEnd() const
{
    if (!IsEnd())
        refuseParse(__LINE__, "Expected end of data");
}

uint8_t Asn1Reader::PeekByte(size_t i) const
{
    Check(i == SIZE_MAX ? SIZE_MAX : i + 1);
    return data_.at(position_ + i);
}

uint8_t Asn1Reader::ReadByte()
{
    Check(1);
    return data_.at(position_++);
}

int Asn1Reader::ReadTag()
{
    int tag = ReadByte();
    if ((tag & 0x1F) == 0x1F) {
        uint8_t second = ReadByte();
        if (second & 0x80)
            refuseOutOfRange(__LINE__, kTagSizeMessage);
        tag = (tag << 8) | second;
    }
    return tag;
}

bool Asn1Reader::PeekTag(int tag) const
{
    if (tag < 0 || tag > 0xFFFF)
        refuseOutOfRange(__LINE__, kTagSizeMessage);
    if (tag < 0x100)
        return HasData(1) && PeekByte(0) == tag;
    return HasData(2) && PeekByte(0) == (tag >> 8) && PeekByte(1) == (tag & 0xFF);
}

int Asn1Reader::readTagBytesFor(int expected)
{
    if (expected < 0 || expected > 0xFFFF)
        refuseOutOfRange(__LINE__, kTagSizeMessage);
    if (expected < 0x100)
        return ReadByte();
    int high = ReadByte();
    return (high << 8) | ReadByte();
}

void Asn1Reader::CheckTag(int tag)
{
    size_t start = position_;
    int found = readTagBytesFor(tag);
    if (found != tag)
        refuseParse(__LINE__, "Expected tag " + std::to_string(tag) + " but got tag " + std::to_string(found) +
                                  " at position " + std::to_string(start));
}

size_t Asn1Reader::ReadLength()
{
    uint8_t first = ReadByte();
    if (first < 0x80)
        return first;
    if (first == 0x80)
        refuseOutOfRange(__LINE__, "Indefinite length encoding is not supported");
    if (first > 0x83)
        refuseOutOfRange(__LINE__, "Data sizes above 2^24 are not supported");
    size_t length = 0;
    for (int i = first & 0x7F; i > 0; --i)
        length = (length << 8) | ReadByte();
    return length;
}

void Asn1Reader::SkipElement()
{
    size_t length = ReadLength();
    Check(length);
    position_ += length;
}

ByteArray_constSlice Asn1Reader::ReadValue()
{
    size_t length = ReadLength();
    Check(length);
    ByteArray_constSlice value = data_.slice(position_, length);
    position_ += length;
    return value;
}

Asn1Reader Asn1Reader::GetSubReader()
{
    size_t length = ReadLength();
    Check(length);
    Asn1Reader sub(data_, position_, position_ + length);
    position_ += length;
    return sub;
}

ByteArray_constSlice Asn1Reader::GetBytes(int tag)
{
    CheckTag(tag);
    return ReadValue();
}

Asn1Reader Asn1Reader::CheckTagAndGetSubReader(int tag)
{
    CheckTag(tag);
    return GetSubReader();
}

ByteArray_constSlice Asn1Reader::GetEncodedValue(int tag)
{
    size_t start = position_;
    CheckTag(tag);
    SkipElement();
    return getSubSlice(start, position_);
}

ByteArray_constSlice Asn1Reader::getSubSlice(size_t begin, size_t end) const
{
    if (begin > end)
        refuseOutOfRange(__LINE__, "Start index is greater than end index in sub-slice of Asn1Reader.");
    if (end > data_.size())
        refuseOutOfRange(__LINE__, "End index of sub-slice of Asn1Reader exceeds size of reader.");
    return data_.slice(begin, end - begin);
}

}  // namespace asn1
