#pragma once
// Reader for the subset of DER that certificates use: definite lengths up to
// 2^24 - 1 and tags of one or two bytes. Anything else is refused, never
// guessed at.
//
// A reader is a view of bytes owned elsewhere plus a current position and an
// end. Positions are offsets into the whole underlying buffer, also in
// sub-readers, so getSubSlice(begin, end) can cut out any range seen through
// any reader of the same buffer. Every slice handed out points into the
// caller's buffer, which must outlive the reader and the slices.
//
// Refusals are logged (logger "Asn1/Asn1Reader", level Error) and thrown:
// shortage of data and unsupported forms as std::out_of_range, data of the
// wrong structure as asn1::parse_error. After a throw the reader's position
// is undefined and the reader must not be used again.

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "deps/cpp_modules/ByteArray.h"

namespace asn1 {

// Data that does not have the expected structure (a wrong tag, data left over).
class parse_error : public std::runtime_error {
public:
    explicit parse_error(const std::string& message) : std::runtime_error(message) {}
};

// Tags used by the certificate model. A two-byte tag is first byte << 8 | second.
enum Tag : int {
    TAG_BOOLEAN = 0x01,
    TAG_INTEGER = 0x02,
    TAG_BIT_STRING = 0x03,
    TAG_OCTET_STRING = 0x04,
    TAG_NULL = 0x05,
    TAG_OID = 0x06,
    TAG_UTF8_STRING = 0x0C,
    TAG_PRINTABLE_STRING = 0x13,
    TAG_TELETEX_STRING = 0x14,
    TAG_IA5_STRING = 0x16,
    TAG_UTC_TIME = 0x17,
    TAG_GENERALIZED_TIME = 0x18,
    TAG_UNIVERSAL_STRING = 0x1C,
    TAG_BMP_STRING = 0x1E,
    TAG_SEQUENCE = 0x30,
    TAG_SET = 0x31,
};

class Asn1Reader {
public:
    // A reader over all of the bytes: position 0, end = size.
    explicit Asn1Reader(const ByteArray_constSlice& data);

    size_t position() const { return position_; }
    size_t end() const { return end_; }
    // Bytes left between the position and the end.
    size_t remaining() const { return end_ - position_; }

    bool HasData(size_t n) const;
    bool IsEnd() const;
    // std::out_of_range "Unexpected end of data" when fewer than n bytes remain.
    void Check(size_t n) const;
    // asn1::parse_error "Expected end of data" when bytes remain.
    void CheckEnd() const;

    uint8_t PeekByte(size_t i) const;
    uint8_t ReadByte();

    int ReadTag();
    // Never throws for lack of data (answers false); throws std::out_of_range
    // for an expected tag above 0xFFFF.
    bool PeekTag(int tag) const;
    void CheckTag(int tag);
    size_t ReadLength();

    // These four expect the tag to have been consumed already.
    void SkipElement();
    ByteArray_constSlice ReadValue();
    Asn1Reader GetSubReader();

    ByteArray_constSlice GetBytes(int tag);
    Asn1Reader CheckTagAndGetSubReader(int tag);
    // The whole encoding, tag and length included.
    ByteArray_constSlice GetEncodedValue(int tag);

    // Bytes [begin, end) of the underlying buffer.
    ByteArray_constSlice getSubSlice(size_t begin, size_t end) const;

private:
    Asn1Reader(const ByteArray_constSlice& data, size_t position, size_t end);
    // Consumes one (tag < 0x100) or two tag bytes and returns them as a tag value.
    int readTagBytesFor(int expected);

    ByteArray_constSlice data_;
    size_t position_ = 0;
    size_t end_ = 0;
};

}  // namespace asn1
