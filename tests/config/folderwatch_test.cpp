// The folder watch may only claim "unchanged" when no change could have
// been missed; each case makes one kind of change a full read would see.

#include "config/folderwatch.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>

#include <gtest/gtest.h>

#include "support/temp_home.h"

namespace fs = std::filesystem;

namespace {

class FolderWatchTest : public testing::Test {
protected:
    std::string root = testsupport::freshDirectory("watched").toStdString();
    std::string a = root + "/a", b = root + "/b";
    std::vector<std::string> folders{a, b};
    FolderWatch watch;

    void SetUp() override
    {
        fs::create_directories(a);
        fs::create_directories(b);
        write(a + "/one.cer", "one");
    }
    static void write(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

    // A complete read: arm, (read), watch the files, confirm.
    void readAll()
    {
        watch.arm(folders);
        std::vector<std::string> files;
        for (const std::string& folder : folders)
            if (fs::is_directory(folder))
                for (const auto& entry : fs::directory_iterator(folder)) files.push_back(entry.path().string());
        watch.addFiles(files);
        watch.confirm();
    }
};

TEST_F(FolderWatchTest, UnchangedOnlyAfterACompleteReadOfTheSameFolders)
{
    EXPECT_FALSE(watch.unchanged(folders));
    watch.arm(folders);
    EXPECT_FALSE(watch.unchanged(folders)) << "armed but not confirmed";
    watch.confirm();
    EXPECT_TRUE(watch.unchanged(folders));
    EXPECT_TRUE(watch.unchanged(folders));
    EXPECT_FALSE(watch.unchanged({a}));
}

TEST_F(FolderWatchTest, EveryKindOfChangeIsReportedOnce)
{
    const std::string other = root + "/elsewhere";
    fs::create_directories(other);
    const std::vector<std::pair<const char*, std::function<void()>>> changes = {
        {"new file", [&] { write(b + "/two.cer", "two"); }},
        {"content rewritten in place", [&] { write(a + "/one.cer", "ONE"); }},
        {"permissions", [&] { fs::permissions(a + "/one.cer", fs::perms::owner_read); }},
        {"renamed", [&] { fs::rename(b + "/two.cer", b + "/three.cer"); }},
        {"removed", [&] { fs::remove(b + "/three.cer"); }},
        {"written through a hard link elsewhere",
         [&] {
             fs::create_hard_link(a + "/one.cer", other + "/link");
             readAll();
             std::ofstream(other + "/link", std::ios::app) << "more";
         }},
        {"folder replaced",
         [&] {
             fs::rename(b, root + "/b-old");
             fs::create_directories(b);
         }},
    };
    for (const auto& change : changes) {
        readAll();
        ASSERT_TRUE(watch.unchanged(folders)) << change.first;
        change.second();
        EXPECT_FALSE(watch.unchanged(folders)) << change.first;
        EXPECT_FALSE(watch.unchanged(folders)) << change.first << ": still changed until read again";
    }
}

TEST_F(FolderWatchTest, MissingFolderIsWatchedThroughItsAncestor)
{
    const std::string deep = root + "/not/yet/there";
    folders = {a, deep};
    readAll();
    EXPECT_TRUE(watch.unchanged(folders));
    fs::create_directories(root + "/not");
    EXPECT_FALSE(watch.unchanged(folders));
    readAll();
    EXPECT_TRUE(watch.unchanged(folders));
    fs::create_directories(deep);
    EXPECT_FALSE(watch.unchanged(folders));

    // A dangling link on the way could be completed unseen: never sure.
    fs::create_directory_symlink(root + "/nowhere", root + "/dangling");
    folders = {a, root + "/dangling/certs"};
    readAll();
    EXPECT_FALSE(watch.unchanged(folders));
}

TEST_F(FolderWatchTest, ForkedChildNeverReadsTheParentsQueue)
{
    readAll();
    const pid_t child = fork();
    if (child == 0) {
        // The child must not claim anything, and must not drain the queue.
        const bool claimed = watch.unchanged(folders);
        _exit(claimed ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    write(a + "/new.cer", "new");
    EXPECT_FALSE(watch.unchanged(folders)) << "the parent still sees its event";
}

}  // namespace
