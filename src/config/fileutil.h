#pragma once
// Whole-file reads and writes and directory listings for the certificate store.

#include <QDir>
#include <QString>
#include <QStringList>

#include "deps/cpp_modules/ByteArray.h"

class FileUtil {
public:
    // Names (not paths) of the readable regular files in dir whose names match
    // the wildcard pattern, ignoring case. Symbolic links, directories, FIFOs,
    // sockets and devices are left out. The directory's own order is kept; a
    // missing directory gives an empty list.
    static QStringList getFilesInDirectory(const QDir& dir, const QString& pattern);

    // All bytes of the file. Throws std::runtime_error "Unable to open file
    // for reading!" when it cannot be opened or is no regular file.
    static ByteArray readFileIntoByteArray(const QString& path);

    // Replaces the file's content with data. The new content goes to a
    // temporary file beside it that is renamed over the old one, so a failed
    // write leaves the previous file as it was. Throws std::runtime_error
    // "Unable to open certificate file <path> for writing." when the file
    // cannot be written, and "Unable to write certificate file <path>." when
    // writing or the final rename fails.
    static void writeFileFromByteArray(const QString& path, const ByteArray_constSlice& data);
};
