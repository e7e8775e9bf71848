#include "logging/FileBasedConcurrencyAwareLogger.h"

#include <QFile>
#include <QThread>

namespace TSQ {
namespace Tavik {
namespace Logging {
namespace Internal {

namespace {

// The level words as they appear in the log; the error word is mixed case.
const char* const kTraceWord = "TRACE";
const char* const kInfoWord = "INFO";
const char* const kErrorWord = "Error";

QString orNull(const char* text)
{
    return text ? QString::fromLatin1(text) : QStringLiteral("Null");
}

}  // namespace

FileBasedConcurrencyAwareLogger::FileBasedConcurrencyAwareLogger(ILoggerConfiguration& configuration,
                                                                 const char* name)
    : name_(QString::fromLatin1(name ? name : "")), configuration_(configuration)
{
}

void FileBasedConcurrencyAwareLogger::Trace(int line, const char* message)
{
    if (level_ <= TRACE) LogLine(line, kTraceWord, message);
}

void FileBasedConcurrencyAwareLogger::Trace(int line, const QString& message)
{
    if (level_ <= TRACE) LogLine(line, kTraceWord, message.toLatin1().constData());
}

void FileBasedConcurrencyAwareLogger::Info(int line, const char* message)
{
    if (level_ <= INFO) LogLine(line, kInfoWord, message);
}

void FileBasedConcurrencyAwareLogger::Info(int line, const QString& message)
{
    if (level_ <= INFO) LogLine(line, kInfoWord, message.toLatin1().constData());
}

void FileBasedConcurrencyAwareLogger::Error(int line, const char* message)
{
    if (level_ <= ERROR) LogLine(line, kErrorWord, message);
}

void FileBasedConcurrencyAwareLogger::Error(int line, const QString& message)
{
    if (level_ <= ERROR) LogLine(line, kErrorWord, message.toLatin1().constData());
}

void FileBasedConcurrencyAwareLogger::SetEnabled(bool enabled)
{
    enabled_ = enabled;
}

bool FileBasedConcurrencyAwareLogger::GetEnabled()
{
    return enabled_;
}

void FileBasedConcurrencyAwareLogger::SetLogLevel(LogLevel level)
{
    level_ = level;
}

ITavikLogger::LogLevel FileBasedConcurrencyAwareLogger::GetLogLevel()
{
    return static_cast<LogLevel>(level_);
}

QString FileBasedConcurrencyAwareLogger::FormatLine(const QDateTime& time, const QString& appName,
                                                    const QString& threadText, const QString& loggerName,
                                                    int line, const char* levelWord, const char* message)
{
    // The lone ']' after the thread text belongs to the format.
    return QStringLiteral("%1 - %2(%3)] - %4:%5 - [%6] - %7")
        .arg(time.toString(QStringLiteral("yy-MM-dd ddd hh:mm:ss")), appName, threadText,
             loggerName.isEmpty() ? QStringLiteral("Null") : loggerName, QString::number(line),
             orNull(levelWord), orNull(message));
}

void FileBasedConcurrencyAwareLogger::LogLine(int line, const char* levelWord, const char* message)
{
    if (!enabled_) return;
    QThread* thread = QThread::currentThread();
    const QString threadText = (thread ? thread->objectName() : QString()) + QLatin1Char(' ') +
                               QString::number(reinterpret_cast<quintptr>(QThread::currentThreadId())) +
                               QLatin1Char(' ');
    WriteLine(FormatLine(QDateTime::currentDateTime(), configuration_.GetProperty(QStringLiteral("appname")),
                         threadText, name_, line, levelWord, message));
}

void FileBasedConcurrencyAwareLogger::WriteLine(const QString& text)
{
    // "maxtries" is kept in the configuration, but a line is attempted once:
    // a file that does not open drops the line silently.
    QFile file(configuration_.GetProperty(QStringLiteral("filename")));
    if (!file.open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::Text)) return;
    file.write((text + QLatin1Char('\n')).toLatin1());
    file.close();
}

}  // namespace Internal
}  // namespace Logging
}  // namespace Tavik
}  // namespace TSQ
