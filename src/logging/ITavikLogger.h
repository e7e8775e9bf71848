#pragma once
// The logger interface. Every call passes the caller's source line number.

#include <QString>

namespace TSQ {
namespace Tavik {
namespace Logging {

class ITavikLogger {
public:
    enum LogLevel { TRACE = 0, INFO = 1, ERROR = 2 };

    virtual ~ITavikLogger() = default;

    virtual void Trace(int line, const char* message) = 0;
    virtual void Trace(int line, const QString& message) = 0;
    virtual void Info(int line, const char* message) = 0;
    virtual void Info(int line, const QString& message) = 0;
    virtual void Error(int line, const char* message) = 0;
    virtual void Error(int line, const QString& message) = 0;
    virtual void SetEnabled(bool enabled) = 0;
    virtual bool GetEnabled() = 0;
    virtual void SetLogLevel(LogLevel level) = 0;
    virtual LogLevel GetLogLevel() = 0;
};

}  // namespace Logging
}  // namespace Tavik
}  // namespace TSQ
