#include <QDateTime>
#include <QFile>

#include <gtest/gtest.h>

#include "config/fileconfiguration.h"
#include "logging/FileBasedConcurrencyAwareLogger.h"
#include "logging/SimpleLogManager.h"
#include "support/temp_home.h"

using namespace TSQ::Tavik::Logging;
using Internal::FileBasedConcurrencyAwareLogger;
using Internal::FileBasedConcurrencyAwareLoggerConfiguration;
using Internal::FileBasedConcurrencyAwareLoggerFactory;

namespace {

QStringList readLines(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) return {};
    return QString::fromLatin1(file.readAll()).split('\n', Qt::SkipEmptyParts);
}

// A manager of its own over a log file in the temporary home.
class LogManagerTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        logPath = testsupport::freshDirectory("logs") + "/test.log";
        manager.Init(logPath.toLocal8Bit().constData(), "TestApp");
    }

    QString logPath;
    FileBasedConcurrencyAwareLoggerConfiguration configuration{"unused.log", "Unused", 5};
    SimpleLogManager manager{new FileBasedConcurrencyAwareLoggerFactory(configuration), configuration};
};

}  // namespace

TEST(LogLineFormat, CarriesTimeAppThreadLoggerLineLevelAndMessage)
{
    const QDateTime time(QDate(2011, 3, 3), QTime(14, 5, 9));
    const QString line =
        FileBasedConcurrencyAwareLogger::FormatLine(time, "App", "main 42 ", "x", 42, "INFO", "hello");
    EXPECT_EQ(line, "11-03-03 Thu 14:05:09 - App(main 42 )] - x:42 - [INFO] - hello");
}

TEST(LogLineFormat, EmptyNameAndNullTextsPrintNull)
{
    const QDateTime time(QDate(2011, 3, 3), QTime(14, 5, 9));
    EXPECT_EQ(FileBasedConcurrencyAwareLogger::FormatLine(time, "App", "t ", "", 1, nullptr, nullptr),
              "11-03-03 Thu 14:05:09 - App(t )] - Null:1 - [Null] - Null");
}

TEST_F(LogManagerTest, NothingIsWrittenUntilLoggingIsSwitchedOn)
{
    ITavikLogger* logger = manager.GetLogger("quiet.cpp");
    logger->Error(1, "dropped");
    EXPECT_FALSE(QFile::exists(logPath));
    EXPECT_TRUE(manager.IsLogging());  // answers true whatever the switch says
}

TEST_F(LogManagerTest, LevelFilterAndLevelWords)
{
    ITavikLogger* logger = manager.GetLogger("levels.cpp");
    manager.SetLogging(true);
    manager.SetLevel(ITavikLogger::INFO);
    QFile::remove(logPath);  // drop the system-information report

    logger->Trace(10, "trace line");
    logger->Info(11, "info line");
    logger->Error(12, QString("error line"));
    manager.SetLevel(ITavikLogger::ERROR);
    QStringList lines = readLines(logPath);
    logger->Info(13, "second info");
    logger->Error(14, "second error");
    QStringList after = readLines(logPath);
    after = after.mid(lines.size());

    ASSERT_EQ(lines.size(), 2);
    EXPECT_TRUE(lines[0].contains(" - TestApp(")) << lines[0].toStdString();
    EXPECT_TRUE(lines[0].endsWith(" - levels.cpp:11 - [INFO] - info line")) << lines[0].toStdString();
    EXPECT_TRUE(lines[1].endsWith(" - levels.cpp:12 - [Error] - error line")) << lines[1].toStdString();
    // SetLevel also reports the system through the "SystemInfo" logger, which
    // is at TRACE level, but "levels.cpp" is now at ERROR.
    ASSERT_FALSE(after.isEmpty());
    EXPECT_TRUE(after.last().endsWith(" - levels.cpp:14 - [Error] - second error"));
    for (const QString& line : after) EXPECT_FALSE(line.contains("second info"));
}

TEST_F(LogManagerTest, SetLevelWritesTheSystemReportWithTheConfiguration)
{
    manager.SetLogging(true);
    manager.SetLevel(ITavikLogger::TRACE);
    const QString log = readLines(logPath).join('\n');
    EXPECT_TRUE(log.contains(" - SystemInfo:")) << log.toStdString();
    EXPECT_TRUE(log.contains("Certificate dir: ~/.korvo/user_certificates"));
}

TEST_F(LogManagerTest, LoggersAreSharedByNameAndFollowTheSwitch)
{
    ITavikLogger* before = manager.GetLogger("a.cpp");
    EXPECT_EQ(manager.GetLogger(QString("a.cpp")), before);
    EXPECT_FALSE(before->GetEnabled());
    manager.SetLogging(true);
    EXPECT_TRUE(before->GetEnabled());
    EXPECT_TRUE(manager.GetLogger("b.cpp")->GetEnabled());  // new loggers inherit the switch
    EXPECT_EQ(manager.GetLogger("b.cpp")->GetLogLevel(), ITavikLogger::TRACE);
    manager.SetLogging(false);
    EXPECT_FALSE(before->GetEnabled());
}

TEST_F(LogManagerTest, InitFromTheFileConfigurationLeavesLoggingOff)
{
    testsupport::clearSettings();
    const QString configured = testsupport::freshDirectory("cfglogs") + "/korvo.log";
    testsupport::setSetting("LogFileName", configured);
    testsupport::setSetting("LogLevel", "TRACE");
    manager.SetLogging(true);

    manager.Init(FileConfiguration(), "Configured");
    ITavikLogger* logger = manager.GetLogger("off.cpp");
    logger->Error(1, "must not be written");
    EXPECT_FALSE(logger->GetEnabled());
    EXPECT_FALSE(QFile::exists(configured));
    testsupport::clearSettings();
}

TEST_F(LogManagerTest, UnopenableFileDropsTheLineQuietly)
{
    manager.Init("/nonexistent-dir/korvo.log", "TestApp");
    manager.SetLogging(true);
    manager.GetLogger("x.cpp")->Error(1, "nowhere to go");
    EXPECT_FALSE(QFile::exists("/nonexistent-dir/korvo.log"));
}

TEST(ProcessLogManager, StartsWithTheDefaultFileAndLoggingOff)
{
    SimpleLogManager* manager = SimpleLogManager::GetInstance();
    EXPECT_EQ(manager, SimpleLogManager::GetInstance());
    EXPECT_STREQ(DEFAULT_LOG_FILE_NAME, "ocesII.log");
    EXPECT_FALSE(manager->GetLogger("process_test.cpp")->GetEnabled());
}
