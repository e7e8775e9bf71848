// The certificate folders in every state a careless or hostile hand may
// leave them, through C_FindObjects and through pkcs11-tool -O: each state
// gives a code (a search fails with CKR_FUNCTION_FAILED while a certificate
// file cannot be used), never a crash or a hang, and no file is changed.

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <map>
#include <thread>

#include "abi/token_fixture.h"

namespace korvo {
namespace {

namespace fs = std::filesystem;

// Checksums of every regular file of the store (links are not followed).
std::map<std::string, std::string> checksums()
{
    std::map<std::string, std::string> sums;
    const fs::path root = fs::path(tempHome()) / ".korvo";
    std::error_code ignored;
    for (auto it = fs::recursive_directory_iterator(root, ignored); it != fs::recursive_directory_iterator();
         it.increment(ignored)) {
        if (it->is_symlink(ignored) || !it->is_regular_file(ignored)) continue;
        if (it->file_size(ignored) > (1u << 20)) {
            sums[it->path().string()] = "large:" + std::to_string(it->file_size(ignored));
            continue;
        }
        try {
            sums[it->path().string()] = sha256Hex(readFile(it->path().string()));
        } catch (const std::exception&) {
            sums[it->path().string()] = "unreadable";
        }
    }
    return sums;
}

class HostileStore : public TokenTest {
protected:
    // A search for the token's certificates: the code and how many were
    // found. A failed search stays until C_FindObjectsFinal ends it.
    CK_RV search(size_t* certificates)
    {
        CK_OBJECT_CLASS certificateClass = CKO_CERTIFICATE;
        CK_ATTRIBUTE only[] = {{CKA_CLASS, &certificateClass, sizeof certificateClass}};
        *certificates = 0;
        CK_RV rv = p->C_FindObjectsInit(session, only, 1);
        CK_OBJECT_HANDLE found[64];
        CK_ULONG count = 64;
        while (rv == CKR_OK && count == 64) {
            rv = p->C_FindObjects(session, found, 64, &count);
            *certificates += count;
        }
        EXPECT_EQ(p->C_FindObjectsFinal(session), CKR_OK);
        return rv;
    }
};

std::string user(const std::string& name) { return storeFolder("user_certificates") + "/" + name; }

bool renamed(const std::string& from, const std::string& to)
{
    return std::rename(from.c_str(), to.c_str()) == 0;
}

TEST_F(HostileStore, EveryFolderStateGivesACodeAndChangesNoFile)
{
    const std::string aliceFile = filesIn(storeFolder("user_certificates"))[0];
    const FileBytes alice = readFile(aliceFile);
    constexpr size_t kStore = 6;  // four user certificates, the intermediate and the root
    constexpr size_t kAny = size_t(-1);
    struct Row {
        const char* name;
        std::function<bool()> prepare;  // false: the state cannot be made here
        CK_RV expected;
        size_t certificates;
    };
    const Row rows[] = {
        {"as installed", [] { return true; }, CKR_OK, kStore},
        {"an empty file", [] { return writeFile(user("eve_empty.cer"), {}), true; }, CKR_FUNCTION_FAILED, 0},
        {"truncated DER", [&] { return writeFile(user("eve_cut.cer"), FileBytes(alice.begin(), alice.begin() + 100)), true; },
         CKR_FUNCTION_FAILED, 0},
        {"a 100 MB file",
         [] {
             writeFile(user("eve_huge.cer"), {0x30});
             return truncate(user("eve_huge.cer").c_str(), 100 << 20) == 0;
         },
         CKR_FUNCTION_FAILED, 0},
        {"a FIFO", [] { return mkfifo(user("eve_fifo.cer").c_str(), 0600) == 0; }, CKR_OK, kStore},
        {"a device node", [] { return mknod(user("eve_null.cer").c_str(), S_IFCHR | 0600, makedev(1, 3)) == 0; }, CKR_OK,
         kStore},
        {"a link to a certificate", [&] { return symlink(aliceFile.c_str(), user("eve_link.cer").c_str()) == 0; }, CKR_OK,
         kStore},
        {"a dangling link", [] { return symlink("/nonexistent/x.cer", user("eve_dangling.cer").c_str()) == 0; }, CKR_OK,
         kStore},
        {"a looping link",
         [] {
             return symlink(user("eve_b.cer").c_str(), user("eve_a.cer").c_str()) == 0 &&
                    symlink(user("eve_a.cer").c_str(), user("eve_b.cer").c_str()) == 0;
         },
         CKR_OK, kStore},
        {"a link to /dev/zero", [] { return symlink("/dev/zero", user("eve_zero.cer").c_str()) == 0; }, CKR_OK, kStore},
        {"an unreadable file",  // left out (root reads it anyway: the same certificate again)
         [&] {
             writeFile(user("eve_locked.cer"), alice);
             return chmod(user("eve_locked.cer").c_str(), 0) == 0;
         },
         CKR_OK, kStore},
        {"a folder that is a file",
         [] {
             fs::remove_all(storeFolder("user_certificates"));
             return writeFile(storeFolder("user_certificates"), {1, 2, 3}), true;
         },
         CKR_OK, 2},
        // Alice's certificate under an unusual name instead of its own: found.
        {"a name that is no UTF-8", [&] { return renamed(aliceFile, user("\xff\xfe\x80_x.cer")); }, CKR_OK, kStore},
        {"a name of 255 bytes", [&] { return renamed(aliceFile, user(std::string(249, 'e') + "_x.cer")); }, CKR_OK, kStore},
        {"10,000 files",
         [] {
             for (int i = 0; i < 10000; ++i) writeFile(storeFolder("root_certificates") + "/n" + std::to_string(i) + ".txt", {});
             return true;
         },
         CKR_OK, kStore},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        installTestStore();
        if (!row.prepare()) {
            std::fprintf(stderr, "[ state not made here: %s ]\n", row.name);
            continue;
        }
        const auto before = checksums();
        size_t certificates = 0;
        EXPECT_EQ(search(&certificates), row.expected);
        if (row.expected == CKR_OK && row.certificates != kAny) {
            EXPECT_EQ(certificates, row.certificates);
        }
        // An independent client over the same folders: it ends, on its own.
        const CommandResult listed =
            runCommand(sanitizerPreload() + "timeout 60 pkcs11-tool --module '" KORVO_MODULE_PATH "' -O");
        EXPECT_TRUE(listed.status == 0 || listed.status == 1) << listed.status << "\n" << listed.output;
        EXPECT_EQ(checksums(), before);
    }
    installTestStore();
}

// Certificate files replaced and removed while other threads search: every
// search gives a code, and the last one after the dust settles sees the store.
TEST_F(HostileStore, FilesChangingDuringSearchesGiveCodes)
{
    const std::string aliceFile = filesIn(storeFolder("user_certificates"))[0];
    const FileBytes alice = readFile(aliceFile);
    std::atomic<bool> done{false};
    std::thread churn([&] {
        for (int i = 0; !done; ++i) {
            const std::string path = user("dave_" + std::to_string(i % 3) + ".cer");
            writeFile(path + ".tmp", alice);
            std::rename((path + ".tmp").c_str(), path.c_str());
            if (i % 2) std::remove(path.c_str());
        }
    });
    for (int i = 0; i < 200; ++i) {
        size_t certificates = 0;
        const CK_RV rv = search(&certificates);
        EXPECT_TRUE(rv == CKR_OK || rv == CKR_FUNCTION_FAILED) << rv;
    }
    done = true;
    churn.join();
    installTestStore();
    size_t certificates = 0;
    EXPECT_EQ(search(&certificates), CKR_OK);
    EXPECT_EQ(certificates, 6u);
}

}  // namespace
}  // namespace korvo
