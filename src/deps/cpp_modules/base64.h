#pragma once
// Base64 (RFC 4648 alphabet) encoding and decoding.

#include <string>
#include <string_view>

#include "deps/cpp_modules/ByteArray.h"
#include "deps/cpp_modules/exceptions.h"

namespace base64 {

// Thrown by decode on text that is not base64. It carries the bytes decoded
// before the fault, for callers that take a malformed value as far as it goes.
class bad_format : public root_exception {
public:
    bad_format(const std::string& message, ByteArray decoded)
        : root_exception(message), decoded_(std::move(decoded)) {}
    const ByteArray& decodedSoFar() const { return decoded_; }

private:
    ByteArray decoded_;
};

std::string encode(const ByteArray_constSlice& bytes);

// White space is skipped; the closing '=' padding may be left out. Anything
// else outside the alphabet, data after padding, or a final group of a
// single character throws bad_format.
ByteArray decode(std::string_view text);

}  // namespace base64
