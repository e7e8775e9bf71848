#include "deps/cpp_modules/ByteArray.h"

#include <cstring>

#include "deps/cpp_modules/exceptions.h"

namespace {

std::string rangeMessage(size_t offset, size_t length, size_t size)
{
    return "Range [" + std::to_string(offset) + ", +" + std::to_string(length) + ") outside " +
           std::to_string(size) + " bytes";
}

bool fitsIn(size_t offset, size_t length, size_t size)
{
    return offset <= size && length <= size - offset;
}

int hexValue(char c)
{
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

uint8_t ByteArray_constSlice::at(size_t index) const
{
    if (index >= size_) throw index_out_of_range(rangeMessage(index, 1, size_));
    return data_[index];
}

ByteArray_constSlice ByteArray_constSlice::slice(size_t offset, size_t length) const
{
    if (!fitsIn(offset, length, size_)) throw index_out_of_range(rangeMessage(offset, length, size_));
    return ByteArray_constSlice(data_ + offset, length);
}

std::string ByteArray_constSlice::toHex(HexCase letterCase) const
{
    const char* digits = letterCase == HexCase::Upper ? "0123456789ABCDEF" : "0123456789abcdef";
    std::string text(size_ * 2, '0');
    for (size_t i = 0; i < size_; ++i) {
        text[2 * i] = digits[data_[i] >> 4];
        text[2 * i + 1] = digits[data_[i] & 0x0F];
    }
    return text;
}

bool ByteArray_constSlice::operator==(const ByteArray_constSlice& other) const
{
    return size_ == other.size_ && (size_ == 0 || std::memcmp(data_, other.data_, size_) == 0);
}

ByteArray_Slice ByteArray_Slice::slice(size_t offset, size_t length) const
{
    if (!fitsIn(offset, length, size_)) throw index_out_of_range(rangeMessage(offset, length, size_));
    return ByteArray_Slice(data_ + offset, length);
}

void ByteArray_Slice::copyFrom(const ByteArray_constSlice& source) const
{
    if (source.size() > size_) throw index_out_of_range(rangeMessage(0, source.size(), size_));
    if (!source.empty()) std::memmove(data_, source.data(), source.size());
}

ByteArray ByteArray::fromString(std::string_view text)
{
    return ByteArray(reinterpret_cast<const uint8_t*>(text.data()), text.size());
}

ByteArray ByteArray::fromHex(std::string_view hex)
{
    ByteArray result;
    result.bytes_.reserve(hex.size() / 2);
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        const int high = hexValue(hex[i]);
        const int low = hexValue(hex[i + 1]);
        if (high < 0 || low < 0) break;
        result.bytes_.push_back(static_cast<uint8_t>(high << 4 | low));
    }
    return result;
}

void ByteArray::append(const ByteArray_constSlice& bytes)
{
    bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
}

uint8_t ByteArray_Reader::peekByte() const
{
    return bytes_.at(position_);
}

uint8_t ByteArray_Reader::readByte()
{
    const uint8_t byte = bytes_.at(position_);
    ++position_;
    return byte;
}

ByteArray_constSlice ByteArray_Reader::readBytes(size_t count)
{
    const ByteArray_constSlice bytes = bytes_.slice(position_, count);
    position_ += count;
    return bytes;
}

uint32_t ByteArray_Reader::readUInt(size_t byteCount)
{
    if (byteCount < 1 || byteCount > 4) throw bad_parameter("readUInt takes 1 to 4 bytes");
    uint32_t value = 0;
    for (uint8_t byte : readBytes(byteCount)) value = value << 8 | byte;
    return value;
}
