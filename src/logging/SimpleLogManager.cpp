#include "logging/SimpleLogManager.h"

#include <QMutexLocker>

#include "config/configuration.h"
#include "config/fileconfiguration.h"
#include "deps/cpp_modules/SystemInfo.h"

namespace TSQ {
namespace Tavik {
namespace Logging {

const char* const DEFAULT_LOG_FILE_NAME = "ocesII.log";

SimpleLogManager* SimpleLogManager::GetInstance()
{
    static Internal::FileBasedConcurrencyAwareLoggerConfiguration configuration(
        QString::fromLatin1(DEFAULT_LOG_FILE_NAME), QStringLiteral("OcesII"), 5);
    static SimpleLogManager manager(new Internal::FileBasedConcurrencyAwareLoggerFactory(configuration),
                                    configuration);
    return &manager;
}

SimpleLogManager::SimpleLogManager(Internal::ITavikLoggerFactory* factory,
                                   Internal::ILoggerConfiguration& configuration)
    : factory_(factory), configuration_(configuration)
{
}

SimpleLogManager::~SimpleLogManager()
{
    for (auto& entry : loggers_) delete entry.second;
    delete factory_;
}

void SimpleLogManager::Init(const char* fileName, const char* appName)
{
    configuration_.SetProperty(QStringLiteral("filename"), QString::fromLocal8Bit(fileName));
    configuration_.SetProperty(QStringLiteral("appname"), QString::fromLatin1(appName));
}

void SimpleLogManager::Init(const Configuration& configuration, const char* appName)
{
    Init(configuration.logFile().toLocal8Bit().constData(), appName);
    if (!configuration.loggingEnabled()) {
        SetLogging(false);
        return;
    }
    const QString level = configuration.logLevel().toUpper();
    if (level == QLatin1String("TRACE"))
        SetLevel(ITavikLogger::TRACE);
    else if (level == QLatin1String("INFO"))
        SetLevel(ITavikLogger::INFO);
    else if (level == QLatin1String("ERROR"))
        SetLevel(ITavikLogger::ERROR);
    SetLogging(true);
}

ITavikLogger* SimpleLogManager::GetLogger(const QString& name)
{
    QMutexLocker lock(&mutex_);
    ITavikLogger*& logger = loggers_[name];
    if (!logger) logger = factory_->GetInstance(configuration_, name.toLatin1().constData());
    logger->SetEnabled(logging_);
    return logger;
}

ITavikLogger* SimpleLogManager::GetLogger(const char* name)
{
    return GetLogger(QString::fromLatin1(name ? name : ""));
}

bool SimpleLogManager::IsLogging()
{
    return true;
}

void SimpleLogManager::SetLogging(bool on)
{
    for (auto& entry : loggers_) entry.second->SetEnabled(on);
    logging_ = on;
}

void SimpleLogManager::SetLevel(ITavikLogger::LogLevel level)
{
    for (auto& entry : loggers_) entry.second->SetLogLevel(level);
    FileConfiguration configuration;
    GetLogger("SystemInfo")->Trace(__LINE__, SystemInfo::report(configuration.toString()));
}

}  // namespace Logging
}  // namespace Tavik
}  // namespace TSQ
