#pragma once
// Tells, cheaply and without a thread, whether anything in a set of folders
// may have changed since the last time they were read in full. It asks the
// kernel (inotify) to queue an event for every change of a watched folder's
// entries and of every file listed in it (content, attributes, renames,
// links, removal), and looks at that queue when asked; the folders' own
// identities are compared too, so a folder replaced or reached through a
// re-pointed link counts as changed.
//
// A folder that does not exist is watched through its nearest existing
// ancestor, whose entries change when it is made.
//
// Whenever it cannot be sure it answers "changed": no inotify, a full event
// queue, a watch that could not be set, a dangling link on the way to a
// folder, or a network or user-space file system whose changes the local
// kernel does not see. The caller then reads everything, as it would
// without the watch.
//
//     if (!watch.unchanged(folders)) {
//         watch.arm(folders);          // before reading: later changes stay queued
//         ...read the folders...
//         watch.addFiles(paths);       // the files that were read
//         watch.confirm();             // only after the whole read succeeded
//     }

#include <cstdint>
#include <string>
#include <vector>

class FolderWatch {
public:
    FolderWatch();
    ~FolderWatch();
    FolderWatch(const FolderWatch&) = delete;
    FolderWatch& operator=(const FolderWatch&) = delete;

    // True only when the folders are the ones armed and confirmed last time
    // and nothing was reported in them since.
    bool unchanged(const std::vector<std::string>& folders);
    // Forgets the earlier state, drains the queue and watches the folders.
    void arm(const std::vector<std::string>& folders);
    // Watches the files read from the folders (their content and attributes
    // through any path that leads to them).
    void addFiles(const std::vector<std::string>& paths);
    // The read that followed arm() is complete: unchanged() may say so now.
    void confirm();

private:
    // What a folder path leads to: a directory (device and inode), nothing
    // at all, or something the watch cannot vouch for.
    struct Identity {
        enum Kind { Unsure, Missing, Folder } kind = Unsure;
        unsigned long long device = 0;
        unsigned long long inode = 0;
        bool operator==(const Identity& other) const
        {
            return kind == other.kind && device == other.device && inode == other.inode;
        }
    };
    static Identity identify(const std::string& folder);
    bool drainEvents();
    bool watch(const std::string& path, uint32_t events);
    void closeQueue();

    int fd_ = -1;
    int owner_ = 0;  // the process that opened fd_
    bool armed_ = false;
    bool sure_ = false;
    std::vector<std::string> folders_;
    std::vector<Identity> identities_;
};
