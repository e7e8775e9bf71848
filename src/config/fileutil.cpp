#include "config/fileutil.h"

#include <stdexcept>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QFile>
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

bool FileUtil::fileIdentity(const QString& path, FileIdentity* identity)
{
    struct stat info;
    if (::stat(QFile::encodeName(path).constData(), &info) != 0 || !S_ISREG(info.st_mode)) return false;
    *identity = identityOf(info);
    return true;
}

QStringList FileUtil::getFilesInDirectory(const QDir& dir, const QString& pattern)
{
    fileLogger->Trace(__LINE__, QStringLiteral("%0 enter").arg(QLatin1String(__func__)));
    // QDir::Files without QDir::System admits regular files only; name
    // filters match without regard to case unless told otherwise.
    return dir.entryList(QStringList(pattern),
                         QDir::Files | QDir::Hidden | QDir::Readable | QDir::NoSymLinks | QDir::NoDotAndDotDot,
                         QDir::Unsorted);
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
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    const FileDescriptor closer{fd};
    struct stat info;
    QFile file;
    if (fd < 0 || ::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) ||
        !file.open(fd, QIODevice::ReadOnly, QFileDevice::DontCloseHandle)) {
        const char* const message = "Unable to open file for reading!";
        fileLogger->Error(__LINE__, message);
        throw std::runtime_error(message);
    }
    if (identity) *identity = identityOf(info);
    const QByteArray bytes = file.readAll();
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
