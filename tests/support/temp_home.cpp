#include "support/temp_home.h"

#include <cstdlib>
#include <filesystem>
#include <string>

#include <QDir>
#include <QSettings>

namespace testsupport {

namespace {

std::string makeHome()
{
    char pattern[] = "/tmp/korvo-test-home-XXXXXX";
    const char* dir = mkdtemp(pattern);
    if (!dir) std::abort();
    setenv("HOME", dir, 1);
    unsetenv("XDG_CONFIG_HOME");
    return dir;
}

// Runs during static initialisation, before any test touches the settings
// store (the store works out its paths on first use).
// Removes the temporary home when the test program ends.
struct HomeRemover {
    std::string path;
    ~HomeRemover()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
};

const std::string home = makeHome();
const HomeRemover remover{home};


}  // namespace

QString tempHome()
{
    return QString::fromStdString(home);
}

void clearSettings()
{
    QSettings settings(QSettings::IniFormat, QSettings::UserScope, QStringLiteral("Tessaract"), QStringLiteral("Korvo"));
    settings.clear();
    settings.sync();
}

void setSetting(const QString& key, const QString& value)
{
    QSettings settings(QSettings::IniFormat, QSettings::UserScope, QStringLiteral("Tessaract"), QStringLiteral("Korvo"));
    settings.setValue(key, value);
    settings.sync();
}

QString freshDirectory(const QString& name)
{
    QDir dir(tempHome() + QLatin1Char('/') + name);
    dir.removeRecursively();
    QDir().mkpath(dir.absolutePath());
    return dir.absolutePath();
}

}  // namespace testsupport
