#include "deps/cpp_modules/tsq_string.h"

#include <cstdio>

namespace tsq {

namespace {
char upper(char c) { return c >= 'a' && c <= 'z' ? char(c - 'a' + 'A') : c; }
char lower(char c) { return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c; }
}  // namespace

std::string toUpper(std::string_view text)
{
    std::string result(text);
    for (char& c : result) c = upper(c);
    return result;
}

std::string toLower(std::string_view text)
{
    std::string result(text);
    for (char& c : result) c = lower(c);
    return result;
}

bool equalsIgnoreCase(std::string_view a, std::string_view b)
{
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (lower(a[i]) != lower(b[i])) return false;
    return true;
}

bool startsWith(std::string_view text, std::string_view prefix)
{
    return text.substr(0, prefix.size()) == prefix;
}

bool endsWith(std::string_view text, std::string_view suffix)
{
    return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

std::vector<std::string> split(std::string_view text, char separator)
{
    std::vector<std::string> pieces;
    size_t start = 0;
    for (;;) {
        const size_t end = text.find(separator, start);
        pieces.emplace_back(text.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start));
        if (end == std::string_view::npos) return pieces;
        start = end + 1;
    }
}

std::string vformat(const char* format, va_list arguments)
{
    va_list copy;
    va_copy(copy, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    if (length <= 0) return std::string();
    std::string text(size_t(length) + 1, '\0');
    std::vsnprintf(&text[0], text.size(), format, arguments);
    text.resize(size_t(length));
    return text;
}

std::string format(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    std::string text = vformat(format, arguments);
    va_end(arguments);
    return text;
}

}  // namespace tsq
