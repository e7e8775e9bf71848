#pragma once
// Small string helpers of the certificate, configuration and logging layers.

#include <cstdarg>
#include <string>
#include <string_view>
#include <vector>

namespace tsq {

// ASCII case mapping; other bytes are left as they are.
std::string toUpper(std::string_view text);
std::string toLower(std::string_view text);
bool equalsIgnoreCase(std::string_view a, std::string_view b);

bool startsWith(std::string_view text, std::string_view prefix);
bool endsWith(std::string_view text, std::string_view suffix);

// Splits at every separator; empty pieces are kept.
std::vector<std::string> split(std::string_view text, char separator);

// printf-style formatting into a string.
std::string format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string vformat(const char* format, va_list arguments);

}  // namespace tsq
