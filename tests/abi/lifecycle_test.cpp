// The module's whole life cycle, again and again in one process, as an
// application that loads it for each task does: dlopen, C_Initialize, a
// session, a search of the certificate store and a signature with a token
// key (through the helper), C_Finalize, dlclose. What one round acquires
// the next must not add to: memory and open descriptors stay level after
// the first rounds, and a sanitizer build finds no leak at exit.
// KORVO_LIFECYCLE_ROUNDS sets the number of rounds (default 300).

#include <dirent.h>
#include <dlfcn.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "abi/module_harness.h"
#include "abi/token_store.h"

namespace korvo {
namespace {

struct Usage {
    long residentKiB = 0;
    int descriptors = 0;
};

Usage usageNow()
{
    Usage usage;
    long pages = 0, resident = 0;
    if (FILE* statm = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(statm, "%ld %ld", &pages, &resident) != 2) resident = 0;
        std::fclose(statm);
    }
    usage.residentKiB = resident * (sysconf(_SC_PAGESIZE) / 1024);
    if (DIR* fds = opendir("/proc/self/fd")) {
        while (readdir(fds)) ++usage.descriptors;
        closedir(fds);
    }
    return usage;
}

// One round; the first failing call's name, or empty.
std::string oneRound()
{
    void* handle = dlopen(KORVO_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
    if (!handle) return std::string("dlopen: ") + dlerror();
    auto getList = reinterpret_cast<CK_C_GetFunctionList>(dlsym(handle, "C_GetFunctionList"));
    CK_FUNCTION_LIST_PTR f = nullptr;
    std::string failed;
    InitArgs args;
    args.flags = CKF_OS_LOCKING_OK;
    CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
    CK_OBJECT_CLASS keyClass = CKO_PRIVATE_KEY;
    CK_ATTRIBUTE findKeys[] = {{CKA_CLASS, &keyClass, sizeof keyClass}};
    CK_OBJECT_HANDLE key = CK_INVALID_HANDLE;
    CK_ULONG found = 0;
    CK_MECHANISM sha256{CKM_SHA256_RSA_PKCS, nullptr, 0};
    CK_BYTE data[] = "a round of the life cycle";
    CK_BYTE signature[512];
    CK_ULONG length = sizeof signature;
    if (!getList || getList(&f) != CKR_OK || !f) failed = "C_GetFunctionList";
    else if (f->C_Initialize(reinterpret_cast<CK_VOID_PTR>(&args)) != CKR_OK) failed = "C_Initialize";
    else {
        if (f->C_OpenSession(0, CKF_SERIAL_SESSION, nullptr, nullptr, &session) != CKR_OK) failed = "C_OpenSession";
        else if (f->C_FindObjectsInit(session, findKeys, 1) != CKR_OK) failed = "C_FindObjectsInit";
        else if (f->C_FindObjects(session, &key, 1, &found) != CKR_OK || found != 1) failed = "C_FindObjects";
        else if (f->C_FindObjectsFinal(session) != CKR_OK) failed = "C_FindObjectsFinal";
        else if (f->C_SignInit(session, &sha256, key) != CKR_OK) failed = "C_SignInit";
        else if (f->C_Sign(session, data, sizeof data, signature, &length) != CKR_OK) failed = "C_Sign";
        if (f->C_Finalize(nullptr) != CKR_OK && failed.empty()) failed = "C_Finalize";
    }
    if (dlclose(handle) != 0 && failed.empty()) failed = "dlclose";
    return failed;
}

TEST(LifeCycle, RoundsOfLoadUseAndUnloadLeaveNothingBehind)
{
    installTestStore();
    const char* asked = std::getenv("KORVO_LIFECYCLE_ROUNDS");
    const int rounds = asked ? std::max(20, std::atoi(asked)) : 300;
    const int settled = rounds / 10;  // what the first rounds build (allocator pools, caches) is left out
    Usage atSettled, atEnd;
    for (int round = 1; round <= rounds; ++round) {
        const std::string failed = oneRound();
        ASSERT_EQ(failed, "") << "round " << round;
        if (round == settled) atSettled = usageNow();
    }
    atEnd = usageNow();
    std::printf("[ life cycle: round %d: %ld KiB resident, %d descriptors; round %d: %ld KiB, %d descriptors ]\n", settled,
                atSettled.residentKiB, atSettled.descriptors, rounds, atEnd.residentKiB, atEnd.descriptors);
    EXPECT_EQ(atEnd.descriptors, atSettled.descriptors);
#ifndef KORVO_SANITIZED_BUILD
    // Under a kilobyte per round, with room for allocator noise. (The
    // sanitizer build holds freed memory back on purpose; LeakSanitizer
    // checks it at exit instead.)
    EXPECT_LT(atEnd.residentKiB - atSettled.residentKiB, 1024 + (rounds - settled)) << "KiB over " << rounds - settled << " rounds";
#endif
}

}  // namespace
}  // namespace korvo
