#include "deps/cpp_modules/SystemInfo.h"

#include <QFile>
#include <QtGlobal>

QString SystemInfo::systemDescription()
{
    QFile file(QStringLiteral("/proc/version"));
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) return QStringLiteral("unknown");
    const QString text = QString::fromLocal8Bit(file.readAll()).trimmed();
    return text.isEmpty() ? QStringLiteral("unknown") : text;
}

QString SystemInfo::report(const QString& configurationText)
{
    return QStringLiteral("System information:\n") + QStringLiteral("Operating system: ") + systemDescription() +
           QStringLiteral("\nQt runtime: ") + QString::fromLatin1(qVersion()) + QStringLiteral("\n") +
           configurationText;
}
