#pragma once

#include <QMap>
#include <QString>

namespace TSQ {
namespace Tavik {
namespace Logging {
namespace Internal {

// String properties shared by all loggers of a manager.
class ILoggerConfiguration {
public:
    virtual ~ILoggerConfiguration() = default;
    // A property that was never set reads as an empty string.
    virtual QString GetProperty(const QString& key) const = 0;
    virtual void SetProperty(const QString& key, const QString& value) = 0;
};

// Properties "filename", "appname" and "maxtries".
class FileBasedConcurrencyAwareLoggerConfiguration : public ILoggerConfiguration {
public:
    FileBasedConcurrencyAwareLoggerConfiguration(const QString& fileName, const QString& appName, unsigned maxTries);

    QString GetProperty(const QString& key) const override;
    void SetProperty(const QString& key, const QString& value) override;

private:
    QMap<QString, QString> properties_;
};

}  // namespace Internal
}  // namespace Logging
}  // namespace Tavik
}  // namespace TSQ
