#pragma once

#include <QString>

#include "logging/ITavikLogger.h"

namespace TSQ {
namespace Tavik {
namespace Logging {

// Hands out named loggers (owned by the manager) and switches them together.
class ILogManager {
public:
    virtual ~ILogManager() = default;

    virtual ITavikLogger* GetLogger(const QString& name) = 0;
    virtual ITavikLogger* GetLogger(const char* name) = 0;
    virtual bool IsLogging() = 0;
    virtual void SetLogging(bool on) = 0;
    virtual void SetLevel(ITavikLogger::LogLevel level) = 0;
};

}  // namespace Logging
}  // namespace Tavik
}  // namespace TSQ
