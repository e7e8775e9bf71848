#pragma once

#include <QDateTime>
#include <QString>

#include "logging/ITavikLogger.h"
#include "logging/LoggerConfiguration.h"

namespace TSQ {
namespace Tavik {
namespace Logging {
namespace Internal {

// Appends one line per message to the file named by the configuration's
// "filename" property. The file is opened and closed for every line, so any
// number of loggers, threads and processes can share it.
class FileBasedConcurrencyAwareLogger : public ITavikLogger {
public:
    FileBasedConcurrencyAwareLogger(ILoggerConfiguration& configuration, const char* name);

    void Trace(int line, const char* message) override;
    void Trace(int line, const QString& message) override;
    void Info(int line, const char* message) override;
    void Info(int line, const QString& message) override;
    void Error(int line, const char* message) override;
    void Error(int line, const QString& message) override;
    void SetEnabled(bool enabled) override;
    bool GetEnabled() override;
    void SetLogLevel(LogLevel level) override;
    LogLevel GetLogLevel() override;

    // One log line: "<time> - <app>(<thread>)] - <logger>:<line> - [<level>] - <message>".
    static QString FormatLine(const QDateTime& time, const QString& appName, const QString& threadText,
                              const QString& loggerName, int line, const char* levelWord, const char* message);

private:
    void LogLine(int line, const char* levelWord, const char* message);
    void WriteLine(const QString& text);

    bool enabled_ = true;
    int level_ = TRACE;
    QString name_;
    ILoggerConfiguration& configuration_;
};

}  // namespace Internal
}  // namespace Logging
}  // namespace Tavik
}  // namespace TSQ
