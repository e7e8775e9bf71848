#pragma once

#include <cstddef>
#include <string>
#include <vector>

// Byte helpers for the tests: digests are compared as hex text, the form in
// which test vectors are published.
inline std::string toHex(const unsigned char* data, size_t len)
{
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (size_t i = 0; i < len; ++i) out += {digits[data[i] >> 4], digits[data[i] & 0x0f]};
    return out;
}

inline std::string toHex(const std::vector<unsigned char>& v) { return toHex(v.data(), v.size()); }

inline std::vector<unsigned char> bytesOf(const std::string& s) { return {s.begin(), s.end()}; }
