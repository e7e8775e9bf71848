#pragma once
// Whole-file reads and writes and directory listings for the certificate store.

#include <cstdint>

#include <QDir>
#include <QString>
#include <QStringList>

#include "deps/cpp_modules/ByteArray.h"

// What tells one version of a file from another without reading it: the
// device and inode, the size, and the modification and change times to the
// nanosecond. Any write or replacement of the file changes at least one.
struct FileIdentity {
    uint64_t device = 0;
    uint64_t inode = 0;
    int64_t size = -1;
    int64_t modifiedNs = 0;
    int64_t changedNs = 0;

    bool operator==(const FileIdentity& other) const
    {
        return device == other.device && inode == other.inode && size == other.size &&
               modifiedNs == other.modifiedNs && changedNs == other.changedNs;
    }
    bool operator!=(const FileIdentity& other) const { return !(*this == other); }
};

class FileUtil {
public:
    // The largest certificate file the store reads: far above any real
    // certificate (a few kilobytes). A larger file is refused by its size,
    // without being read.
    static constexpr int64_t kMaxFileSize = 1 << 20;

    // File names are bytes; not every name is valid UTF-8. decodePath turns
    // a name or path into a QString that keeps every byte: valid UTF-8 as
    // its characters, any other byte b as the lone code unit 0xDC00 + b.
    // encodePath gives the bytes back exactly.
    static QString decodePath(const QByteArray& bytes);
    static QByteArray encodePath(const QString& path);

    // Names (not paths, decoded as decodePath does) of the readable regular
    // files in dir whose names match the wildcard pattern, ignoring case.
    // Symbolic links, directories, FIFOs, sockets and devices are left out.
    // The directory's own order is kept; a missing directory gives an empty
    // list.
    static QStringList getFilesInDirectory(const QDir& dir, const QString& pattern);

    // All bytes of the file. Throws std::runtime_error "Unable to open file
    // for reading!" when it cannot be opened or is no regular file, and
    // "Certificate file too large" beyond kMaxFileSize.
    static ByteArray readFileIntoByteArray(const QString& path);
    // The same, also giving the identity of the file that was read (taken
    // before reading, so a write during the read shows at the next look).
    static ByteArray readFileIntoByteArray(const QString& path, FileIdentity* identity);
    // The identity of the regular file at path now; false when there is no
    // such regular file.
    static bool fileIdentity(const QString& path, FileIdentity* identity);

    // Replaces the file's content with data. The new content goes to a
    // temporary file beside it that is renamed over the old one, so a failed
    // write leaves the previous file as it was. Throws std::runtime_error
    // "Unable to open certificate file <path> for writing." when the file
    // cannot be written, and "Unable to write certificate file <path>." when
    // writing or the final rename fails.
    static void writeFileFromByteArray(const QString& path, const ByteArray_constSlice& data);
};
