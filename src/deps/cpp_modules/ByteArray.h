#pragma once
// Byte containers shared by the certificate, configuration and key layers:
//   ByteArray             owns its bytes;
//   ByteArray_constSlice  read-only view of bytes owned elsewhere;
//   ByteArray_Slice       writable view of bytes owned elsewhere;
//   ByteArray_Reader      reads a const slice from the front, with bounds checks.
// Views never own memory: they stay valid only while their owner lives and
// is not resized.

#include "deps/cpp_modules/WipingBytes.h"
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

enum class HexCase { Lower, Upper };

class ByteArray_constSlice {
public:
    ByteArray_constSlice() = default;
    ByteArray_constSlice(const uint8_t* data, size_t size) : data_(data), size_(size) {}

    const uint8_t* data() const { return data_; }
    size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    const uint8_t* begin() const { return data_; }
    const uint8_t* end() const { return data_ + size_; }

    uint8_t operator[](size_t index) const { return data_[index]; }
    // Checked access: throws index_out_of_range.
    uint8_t at(size_t index) const;
    // The bytes [offset, offset + length); throws index_out_of_range when
    // they do not all lie inside this slice.
    ByteArray_constSlice slice(size_t offset, size_t length) const;

    // Two hex digits per byte, no separators.
    std::string toHex(HexCase letterCase = HexCase::Upper) const;

    bool operator==(const ByteArray_constSlice& other) const;
    bool operator!=(const ByteArray_constSlice& other) const { return !(*this == other); }

private:
    const uint8_t* data_ = nullptr;
    size_t size_ = 0;
};

class ByteArray_Slice {
public:
    ByteArray_Slice() = default;
    ByteArray_Slice(uint8_t* data, size_t size) : data_(data), size_(size) {}

    uint8_t* data() const { return data_; }
    size_t size() const { return size_; }
    uint8_t& operator[](size_t index) const { return data_[index]; }
    ByteArray_Slice slice(size_t offset, size_t length) const;
    // Copies all of source to the front of this slice; throws
    // index_out_of_range when it does not fit.
    void copyFrom(const ByteArray_constSlice& source) const;

    operator ByteArray_constSlice() const { return ByteArray_constSlice(data_, size_); }

private:
    uint8_t* data_ = nullptr;
    size_t size_ = 0;
};

class ByteArray {
public:
    ByteArray() = default;
    explicit ByteArray(size_t size, uint8_t fill = 0) : bytes_(size, fill) {}
    ByteArray(const uint8_t* data, size_t size) : bytes_(data, data + size) {}
    ByteArray(const ByteArray_constSlice& slice) : bytes_(slice.begin(), slice.end()) {}
    ByteArray(std::initializer_list<uint8_t> bytes) : bytes_(bytes) {}

    // The bytes of a text, without a terminator.
    static ByteArray fromString(std::string_view text);
    // Decodes pairs of hex digits (either case) from the start of the text.
    // Decoding stops at the first character that is not a hex digit; a lone
    // digit left at the end is dropped. It never fails.
    static ByteArray fromHex(std::string_view hex);

    const uint8_t* data() const { return bytes_.data(); }
    uint8_t* data() { return bytes_.data(); }
    size_t size() const { return bytes_.size(); }
    bool empty() const { return bytes_.empty(); }
    const uint8_t* begin() const { return bytes_.data(); }
    const uint8_t* end() const { return bytes_.data() + bytes_.size(); }

    uint8_t operator[](size_t index) const { return bytes_[index]; }
    uint8_t& operator[](size_t index) { return bytes_[index]; }
    uint8_t at(size_t index) const { return constSlice().at(index); }

    void resize(size_t size) { bytes_.resize(size); }
    void clear() { bytes_.clear(); }
    void append(uint8_t byte) { bytes_.push_back(byte); }
    void append(const ByteArray_constSlice& bytes);

    ByteArray_constSlice constSlice() const { return ByteArray_constSlice(bytes_.data(), bytes_.size()); }
    ByteArray_constSlice constSlice(size_t offset, size_t length) const { return constSlice().slice(offset, length); }
    ByteArray_Slice slice() { return ByteArray_Slice(bytes_.data(), bytes_.size()); }
    ByteArray_Slice slice(size_t offset, size_t length) { return slice().slice(offset, length); }
    operator ByteArray_constSlice() const { return constSlice(); }

    std::string toHex(HexCase letterCase = HexCase::Upper) const { return constSlice().toHex(letterCase); }

    bool operator==(const ByteArray& other) const { return bytes_ == other.bytes_; }
    bool operator!=(const ByteArray& other) const { return bytes_ != other.bytes_; }

private:
    // Byte arrays carry helper results, plaintext and keys: their memory
    // is wiped when it is given back.
    std::vector<uint8_t, WipingAllocator<uint8_t>> bytes_;
};

class ByteArray_Reader {
public:
    explicit ByteArray_Reader(const ByteArray_constSlice& bytes) : bytes_(bytes) {}

    size_t position() const { return position_; }
    size_t remaining() const { return bytes_.size() - position_; }
    bool atEnd() const { return position_ == bytes_.size(); }

    // Each of these throws index_out_of_range, and leaves the position
    // unchanged, when the bytes are not there.
    uint8_t peekByte() const;
    uint8_t readByte();
    ByteArray_constSlice readBytes(size_t count);
    // Big-endian unsigned integer of 1 to 4 bytes.
    uint32_t readUInt(size_t byteCount);

private:
    ByteArray_constSlice bytes_;
    size_t position_ = 0;
};
