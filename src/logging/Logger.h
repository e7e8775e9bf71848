#pragma once
// Each source file logs through a logger named after itself, fetched once
// during static initialisation:
//
//     KORVO_FILE_LOGGER;
//     ...
//     fileLogger->Trace(__LINE__, "message");

#include <string_view>

#include "logging/SimpleLogManager.h"

namespace TSQ {
namespace Tavik {
namespace Logging {

// The file name part of a source path such as __FILE__.
constexpr const char* SourceFileName(const char* path)
{
    const char* name = path;
    for (const char* p = path; *p; ++p)
        if (*p == '/') name = p + 1;
    return name;
}

}  // namespace Logging
}  // namespace Tavik
}  // namespace TSQ

#define KORVO_FILE_LOGGER                                                                 \
    static ::TSQ::Tavik::Logging::ITavikLogger* const fileLogger =                        \
        ::TSQ::Tavik::Logging::SimpleLogManager::GetInstance()->GetLogger(                \
            ::TSQ::Tavik::Logging::SourceFileName(__FILE__))
