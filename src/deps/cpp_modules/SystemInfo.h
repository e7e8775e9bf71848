#pragma once
// Description of the running system for the log.

#include <QString>

class SystemInfo {
public:
    // The kernel's own description (/proc/version, without its line end);
    // "unknown" when it cannot be read.
    static QString systemDescription();

    // The multi-line system-information report: the system, the Qt runtime
    // and the given configuration text.
    static QString report(const QString& configurationText);
};
