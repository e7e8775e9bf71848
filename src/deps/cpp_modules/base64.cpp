#include "deps/cpp_modules/base64.h"

namespace base64 {

namespace {

const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int sextet(char c)
{
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

bool isSpace(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f' || c == '\v';
}

}  // namespace

std::string encode(const ByteArray_constSlice& bytes)
{
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    size_t i = 0;
    for (; i + 3 <= bytes.size(); i += 3) {
        const uint32_t group = uint32_t(bytes[i]) << 16 | uint32_t(bytes[i + 1]) << 8 | bytes[i + 2];
        text += kAlphabet[group >> 18];
        text += kAlphabet[(group >> 12) & 63];
        text += kAlphabet[(group >> 6) & 63];
        text += kAlphabet[group & 63];
    }
    const size_t rest = bytes.size() - i;
    if (rest > 0) {
        const uint32_t group = uint32_t(bytes[i]) << 16 | (rest == 2 ? uint32_t(bytes[i + 1]) << 8 : 0);
        text += kAlphabet[group >> 18];
        text += kAlphabet[(group >> 12) & 63];
        text += rest == 2 ? kAlphabet[(group >> 6) & 63] : '=';
        text += '=';
    }
    return text;
}

ByteArray decode(std::string_view text)
{
    ByteArray result;
    uint32_t group = 0;
    int count = 0;     // sextets in the current group
    int padding = 0;   // '=' seen so far
    bool flushed = false;
    // Appends the bytes of a final group of two or three sextets.
    auto flushPartialGroup = [&]() {
        if (flushed) return;
        flushed = true;
        if (count == 2) {
            result.append(uint8_t(group >> 4));
        } else if (count == 3) {
            result.append(uint8_t(group >> 10));
            result.append(uint8_t(group >> 2));
        }
    };
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (isSpace(c)) continue;
        if (c == '=') {
            if (count < 2 || count + padding >= 4)
                throw bad_format("Misplaced base64 padding at offset " + std::to_string(i), result);
            if (count + ++padding == 4) flushPartialGroup();
            continue;
        }
        const int value = sextet(c);
        if (value < 0) throw bad_format("Invalid base64 character at offset " + std::to_string(i), result);
        if (padding > 0) throw bad_format("Base64 data after padding at offset " + std::to_string(i), result);
        group = group << 6 | uint32_t(value);
        if (++count == 4) {
            result.append(uint8_t(group >> 16));
            result.append(uint8_t(group >> 8));
            result.append(uint8_t(group));
            group = 0;
            count = 0;
        }
    }
    if (count == 1) throw bad_format("Truncated base64 text", result);
    flushPartialGroup();
    return result;
}

}  // namespace base64
