#pragma once

#include <cstddef>
#include <string>
#include <vector>

// Hex text <-> bytes, so expected values can be written as they are published.
inline std::string toHex(const unsigned char* data, size_t len)
{
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (size_t i = 0; i < len; ++i) {
        out += digits[data[i] >> 4];
        out += digits[data[i] & 0x0f];
    }
    return out;
}

inline std::string toHex(const std::vector<unsigned char>& v)
{
    return toHex(v.data(), v.size());
}

inline std::vector<unsigned char> fromHex(const std::string& hex)
{
    std::vector<unsigned char> out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        out.push_back(static_cast<unsigned char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    return out;
}

inline std::vector<unsigned char> bytesOf(const std::string& s)
{
    return std::vector<unsigned char>(s.begin(), s.end());
}
