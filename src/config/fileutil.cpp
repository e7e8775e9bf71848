#include "config/fileutil.h"

#include <stdexcept>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QFile>
#include <QRegularExpression>
#include <QSaveFile>

#include "logging/Logger.h"

KORVO_FILE_LOGGER;

namespace {

// Closes a POSIX file descriptor when it goes out of scope.
struct FileDescriptor {
    int fd;
    ~FileDescriptor()
    {
        if (fd >= 0) ::close(fd);
    }
};

FileIdentity identityOf(const struct stat& info)
{
    FileIdentity identity;
    identity.device = uint64_t(info.st_dev);
    identity.inode = uint64_t(info.st_ino);
    identity.size = int64_t(info.st_size);
    identity.modifiedNs = int64_t(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec;
    identity.changedNs = int64_t(info.st_ctim.tv_sec) * 1000000000 + info.st_ctim.tv_nsec;
    return identity;
}

}  // namespace

QString FileUtil::decodePath(const QByteArray& bytes)
{
    QString out;
    out.reserve(bytes.size());
    const auto* b = reinterpret_cast<const unsigned char*>(bytes.constData());
    const qsizetype n = bytes.size();
    for (qsizetype i = 0; i < n;) {
        const unsigned char lead = b[i];
        int length = lead < 0x80 ? 1 : (lead & 0xE0) == 0xC0 ? 2 : (lead & 0xF0) == 0xE0 ? 3 : (lead & 0xF8) == 0xF0 ? 4 : 0;
        char32_t code = length == 1 ? lead : length == 2 ? (lead & 0x1F) : length == 3 ? (lead & 0x0F) : (lead & 0x07);
        bool valid = length > 0 && i + length <= n;
        for (int k = 1; valid && k < length; ++k) {
            valid = (b[i + k] & 0xC0) == 0x80;
            code = (code << 6) | (b[i + k] & 0x3F);
        }
        // Overlong forms, surrogates and values beyond Unicode are no UTF-8.
        static const char32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
        valid = valid && code >= smallest[length] && code <= 0x10FFFF && (code < 0xD800 || code > 0xDFFF);
        if (!valid) {
            out.append(QChar(char16_t(0xDC00 + lead)));
            ++i;
            continue;
        }
        if (code < 0x10000) {
            out.append(QChar(char16_t(code)));
        } else {
            out.append(QChar(char16_t(0xD800 + ((code - 0x10000) >> 10))));
            out.append(QChar(char16_t(0xDC00 + ((code - 0x10000) & 0x3FF))));
        }
        i += length;
    }
    return out;
}

QByteArray FileUtil::encodePath(const QString& path)
{
    QByteArray out;
    out.reserve(path.size());
    const qsizetype n = path.size();
    for (qsizetype i = 0; i < n; ++i) {
        const char16_t unit = path[i].unicode();
        const bool pairStart = unit >= 0xD800 && unit <= 0xDBFF && i + 1 < n && path[i + 1].unicode() >= 0xDC00 &&
                               path[i + 1].unicode() <= 0xDFFF;
        if (pairStart) {
            out.append(QString(path.mid(i, 2)).toUtf8());
            ++i;
        } else if (unit >= 0xDC80 && unit <= 0xDCFF) {
            out.append(char(unit - 0xDC00));  // a byte that was no UTF-8
        } else {
            out.append(QString(path[i]).toUtf8());
        }
    }
    return out;
}

bool FileUtil::fileIdentity(const QString& path, FileIdentity* identity)
{
    struct stat info;
    if (::stat(encodePath(path).constData(), &info) != 0 || !S_ISREG(info.st_mode)) return false;
    *identity = identityOf(info);
    return true;
}

QStringList FileUtil::getFilesInDirectory(const QDir& dir, const QString& pattern)
{
    fileLogger->Trace(__LINE__, QStringLiteral("%0 enter").arg(QLatin1String(__func__)));
    // Listed as bytes, so that a name that is no valid UTF-8 is found like
    // any other; lstat, so that symbolic links are left out.
    const QByteArray directory = encodePath(dir.absolutePath());
    const QRegularExpression match(QRegularExpression::wildcardToRegularExpression(pattern),
                                   QRegularExpression::CaseInsensitiveOption);
    QStringList names;
    DIR* listing = ::opendir(directory.constData());
    if (!listing) return names;
    while (const dirent* entry = ::readdir(listing)) {
        const QByteArray name(entry->d_name);
        if (name == "." || name == "..") continue;
        // Matched in its lossy form (the pattern's characters are ASCII, and
        // the expression engine takes valid text only), kept in the exact one.
        if (!match.match(QString::fromUtf8(name)).hasMatch()) continue;
        const QString decoded = decodePath(name);
        const QByteArray path = directory + '/' + name;
        struct stat info;
        if (::lstat(path.constData(), &info) != 0 || !S_ISREG(info.st_mode) || ::access(path.constData(), R_OK) != 0)
            continue;
        names.append(decoded);
    }
    ::closedir(listing);
    return names;
}

ByteArray FileUtil::readFileIntoByteArray(const QString& path)
{
    return readFileIntoByteArray(path, nullptr);
}

ByteArray FileUtil::readFileIntoByteArray(const QString& path, FileIdentity* identity)
{
    fileLogger->Trace(__LINE__, QStringLiteral("%0 enter").arg(QLatin1String(__func__)));
    // Opened without blocking and checked to be a regular file, so that a FIFO
    // or device put in place of a certificate cannot stall the caller.
    const int fd = ::open(encodePath(path).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    const FileDescriptor closer{fd};
    struct stat info;
    QFile file;
    if (fd < 0 || ::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) ||
        !file.open(fd, QIODevice::ReadOnly, QFileDevice::DontCloseHandle)) {
        const char* const message = "Unable to open file for reading!";
        fileLogger->Error(__LINE__, message);
        throw std::runtime_error(message);
    }
    if (info.st_size > kMaxFileSize) {
        const char* const message = "Certificate file too large";
        fileLogger->Error(__LINE__, message);
        throw std::runtime_error(message);
    }
    if (identity) *identity = identityOf(info);
    // One more byte than the limit at most, in case the file grew since.
    const QByteArray bytes = file.read(kMaxFileSize + 1);
    if (bytes.size() > kMaxFileSize) {
        const char* const message = "Certificate file too large";
        fileLogger->Error(__LINE__, message);
        throw std::runtime_error(message);
    }
    return ByteArray(reinterpret_cast<const uint8_t*>(bytes.constData()), size_t(bytes.size()));
}

void FileUtil::writeFileFromByteArray(const QString& path, const ByteArray_constSlice& data)
{
    fileLogger->Trace(__LINE__, QStringLiteral("%0 enter").arg(QLatin1String(__func__)));
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly)) {
        const QString message = QStringLiteral("Unable to open certificate file ") + path + QStringLiteral(" for writing.");
        fileLogger->Error(__LINE__, message);
        throw std::runtime_error(message.toStdString());
    }
    const qint64 size = qint64(data.size());
    const bool written = size == 0 || file.write(reinterpret_cast<const char*>(data.data()), size) == size;
    if (!written || !file.commit()) {
        // Without a commit the temporary file is discarded and the old file stays.
        file.cancelWriting();
        const QString message = QStringLiteral("Unable to write certificate file ") + path + QLatin1Char('.');
        fileLogger->Error(__LINE__, message);
        throw std::runtime_error(message.toStdString());
    }
}
