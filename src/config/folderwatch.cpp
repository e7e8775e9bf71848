#include "config/folderwatch.h"

#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>

namespace {

// Every change that could alter what a full read of a folder gives.
const uint32_t kFolderEvents = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_MODIFY | IN_CLOSE_WRITE |
                               IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF;
const uint32_t kFileEvents = IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF;

// File systems whose changes may be made by another machine or by a process
// the local kernel does not report.
bool remoteFileSystem(const std::string& path)
{
    struct statfs fs;
    if (::statfs(path.c_str(), &fs) != 0) return true;
    switch (static_cast<unsigned long>(fs.f_type)) {
    case 0x6969:      // NFS
    case 0x517B:      // SMB
    case 0xFF534D42:  // CIFS
    case 0xFE534D42:  // SMB2
    case 0x65735546:  // FUSE
    case 0x01021997:  // 9P
    case 0x47504653:  // GPFS
    case 0x0BD00BD0:  // Lustre
    case 0x00C36400:  // Ceph
        return true;
    default:
        return false;
    }
}

std::string parentOf(std::string path)
{
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos || path == "/") return std::string();
    return slash == 0 ? std::string("/") : path.substr(0, slash);
}

}  // namespace

FolderWatch::FolderWatch() = default;

FolderWatch::~FolderWatch()
{
    closeQueue();
}

void FolderWatch::closeQueue()
{
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    sure_ = false;
}

FolderWatch::Identity FolderWatch::identify(const std::string& folder)
{
    Identity identity;
    struct stat info;
    if (::stat(folder.c_str(), &info) == 0) {
        if (S_ISDIR(info.st_mode) && !remoteFileSystem(folder)) {
            identity.kind = Identity::Folder;
            identity.device = info.st_dev;
            identity.inode = info.st_ino;
        }
        return identity;
    }
    // Missing only when no link on the way dangles: a link's target could
    // appear where no watch of ours would see it.
    if (errno != ENOENT || ::lstat(folder.c_str(), &info) == 0) return identity;
    identity.kind = Identity::Missing;
    return identity;
}

bool FolderWatch::watch(const std::string& path, uint32_t events)
{
    return fd_ >= 0 && ::inotify_add_watch(fd_, path.c_str(), events) >= 0;
}

// Reads every queued event; true when there was none (and no overflow).
bool FolderWatch::drainEvents()
{
    if (fd_ < 0) return false;
    bool quiet = true;
    alignas(struct inotify_event) char buffer[4096];
    for (;;) {
        const ssize_t length = ::read(fd_, buffer, sizeof buffer);
        if (length > 0) {
            quiet = false;
            continue;
        }
        if (length < 0 && errno == EINTR) continue;
        if (length < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return quiet;
        closeQueue();  // the queue is unusable; the next arm() opens another
        return false;
    }
}

bool FolderWatch::unchanged(const std::vector<std::string>& folders)
{
    if (fd_ >= 0 && owner_ != ::getpid()) {
        // A forked child shares the parent's queue: reading it would steal
        // the parent's events. The child lets go of its copy and makes its own.
        ::close(fd_);
        fd_ = -1;
        sure_ = false;
    }
    if (!sure_ || fd_ < 0 || folders != folders_) return false;
    for (size_t i = 0; i < folders.size(); ++i)
        if (!(identify(folders[i]) == identities_[i])) return false;
    if (!drainEvents()) {
        sure_ = false;
        return false;
    }
    return true;
}

void FolderWatch::arm(const std::vector<std::string>& folders)
{
    sure_ = false;
    armed_ = false;
    folders_ = folders;
    identities_.clear();
    if (fd_ >= 0 && owner_ != ::getpid()) {
        ::close(fd_);
        fd_ = -1;
    }
    if (fd_ < 0) {
        fd_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        owner_ = ::getpid();
    }
    // Earlier watches stay (at worst they cause an extra read); the queue
    // starts empty, so whatever happens from here on is seen.
    drainEvents();
    if (fd_ < 0) return;
    bool all = true;
    for (const std::string& folder : folders) {
        const Identity identity = identify(folder);
        identities_.push_back(identity);
        if (identity.kind == Identity::Folder) {
            all = watch(folder, kFolderEvents | IN_ONLYDIR) && all;
        } else if (identity.kind == Identity::Missing) {
            // The nearest existing ancestor sees the folder (or the path to
            // it) being made.
            std::string ancestor = parentOf(folder);
            while (!ancestor.empty() && identify(ancestor).kind == Identity::Missing) ancestor = parentOf(ancestor);
            all = !ancestor.empty() && identify(ancestor).kind == Identity::Folder &&
                  watch(ancestor, kFolderEvents | IN_ONLYDIR) && all;
        } else {
            all = false;
        }
    }
    armed_ = all;
}

void FolderWatch::addFiles(const std::vector<std::string>& paths)
{
    for (const std::string& path : paths)
        if (!watch(path, kFileEvents | IN_DONT_FOLLOW)) armed_ = false;
}

void FolderWatch::confirm()
{
    sure_ = armed_ && fd_ >= 0;
}
