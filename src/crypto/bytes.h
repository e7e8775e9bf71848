#pragma once

#include "deps/cpp_modules/WipingBytes.h"

// Byte strings of the crypto core. Most of them carry key material or
// plaintext: they are the library's wiping buffer.
template <typename T>
using crypto_wiping_allocator = WipingAllocator<T>;
using crypto_bytes = WipingBytes;
