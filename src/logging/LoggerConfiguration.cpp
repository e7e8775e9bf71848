#include "logging/LoggerConfiguration.h"

namespace TSQ {
namespace Tavik {
namespace Logging {
namespace Internal {

FileBasedConcurrencyAwareLoggerConfiguration::FileBasedConcurrencyAwareLoggerConfiguration(
    const QString& fileName, const QString& appName, unsigned maxTries)
{
    properties_.insert(QStringLiteral("filename"), fileName);
    properties_.insert(QStringLiteral("appname"), appName);
    properties_.insert(QStringLiteral("maxtries"), QString::number(maxTries));
}

QString FileBasedConcurrencyAwareLoggerConfiguration::GetProperty(const QString& key) const
{
    return properties_.value(key);
}

void FileBasedConcurrencyAwareLoggerConfiguration::SetProperty(const QString& key, const QString& value)
{
    properties_.insert(key, value);
}

}  // namespace Internal
}  // namespace Logging
}  // namespace Tavik
}  // namespace TSQ
