#pragma once
// Appends DER elements to a ByteArray. Lengths always take their shortest
// form; tags are one or two bytes.

#include <cstddef>

#include "deps/cpp_modules/ByteArray.h"

namespace asn1 {

class Asn1Writer {
public:
    // The writer appends to `out`, which must outlive it.
    explicit Asn1Writer(ByteArray& out) : out_(out) {}

    // std::out_of_range "Three-byte tags are not supported" above 0xFFFF.
    void WriteTag(int tag);
    // std::out_of_range "Lengths larger than 2^24 are not supported" above 0xFFFFFF.
    void WriteLength(size_t length);
    void WriteValue(const ByteArray_constSlice& bytes);
    // Tag, length and value in one go.
    void WriteElement(int tag, const ByteArray_constSlice& value);

private:
    ByteArray& out_;
};

}  // namespace asn1
