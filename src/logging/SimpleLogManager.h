#pragma once

#include <map>

#include <QMutex>
#include <QString>

#include "logging/ILogManager.h"
#include "logging/LoggerConfiguration.h"
#include "logging/LoggerFactory.h"

class Configuration;

namespace TSQ {
namespace Tavik {
namespace Logging {

// Name of the log file until Init names another.
extern const char* const DEFAULT_LOG_FILE_NAME;

// The process-wide log manager: one file logger per name, all writing to one
// file. Logging is off until SetLogging(true).
class SimpleLogManager : public ILogManager {
public:
    static SimpleLogManager* GetInstance();

    SimpleLogManager(Internal::ITavikLoggerFactory* factory, Internal::ILoggerConfiguration& configuration);
    ~SimpleLogManager() override;

    SimpleLogManager(const SimpleLogManager&) = delete;
    SimpleLogManager& operator=(const SimpleLogManager&) = delete;

    void Init(const char* fileName, const char* appName);
    // Log file from the configuration; logging and level as it says.
    void Init(const Configuration& configuration, const char* appName);

    ITavikLogger* GetLogger(const QString& name) override;
    ITavikLogger* GetLogger(const char* name) override;
    // Always true, whether or not lines are being written.
    bool IsLogging() override;
    void SetLogging(bool on) override;
    void SetLevel(ITavikLogger::LogLevel level) override;

private:
    Internal::ITavikLoggerFactory* factory_;
    Internal::ILoggerConfiguration& configuration_;
    bool logging_ = false;
    QMutex mutex_;
    std::map<QString, ITavikLogger*> loggers_;
};

}  // namespace Logging
}  // namespace Tavik
}  // namespace TSQ
