#pragma once
// The one loader of the known-answer files under tests/crypto/data. A file
// holds one case per line as whitespace-separated fields, in the order its
// header comment names; '#' starts a comment line, and '-' stands for an
// empty field (no personalisation, no additional data...). Byte fields are
// hex; other fields are read as the test needs them.

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace vectors {

using Bytes = std::vector<unsigned char>;
using Case = std::vector<std::string>;

// The cases of tests/crypto/data/<name>; an unreadable file gives none, so
// a test should also check how many it ran.
inline std::vector<Case> load(const std::string& name)
{
    std::vector<Case> cases;
    std::ifstream file(std::string(KORVO_TEST_SOURCE_DIR) + "/crypto/data/" + name);
    std::string line;
    while (std::getline(file, line)) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream fields(line);
        Case fieldsOfCase;
        for (std::string field; fields >> field;) fieldsOfCase.push_back(field == "-" ? std::string() : field);
        if (!fieldsOfCase.empty()) cases.push_back(fieldsOfCase);
    }
    return cases;
}

inline Bytes hex(const std::string& text)
{
    Bytes out;
    for (size_t i = 0; i + 1 < text.size(); i += 2) out.push_back(static_cast<unsigned char>(std::stoi(text.substr(i, 2), nullptr, 16)));
    return out;
}

}  // namespace vectors
