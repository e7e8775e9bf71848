#pragma once
// Every unit test runs with HOME pointing at a temporary directory made when
// the test program starts, so no test reads or writes the real home.

#include <QString>

namespace testsupport {

// The temporary home directory (no trailing slash).
QString tempHome();

// Removes every key from the module's settings file.
void clearSettings();

// Writes one key to the module's settings file.
void setSetting(const QString& key, const QString& value);

// A fresh, empty directory below the temporary home.
QString freshDirectory(const QString& name);

}  // namespace testsupport
