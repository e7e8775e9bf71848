#pragma once
// Random bytes straight from the system's random device.

#include <cstddef>
#include <cstdint>

#include "deps/cpp_modules/ByteArray.h"

class SecureRandomNumberGenerator {
public:
    // Fills the buffer; throws root_exception when the device cannot be read.
    static void fill(uint8_t* buffer, size_t length);
    static ByteArray getBytes(size_t length);
};
