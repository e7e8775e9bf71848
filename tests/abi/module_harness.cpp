#include "abi/module_harness.h"

#include <dlfcn.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace korvo {

namespace {

// The module reads its settings from $HOME/.config at C_Initialize, and the
// settings store fixes its paths on first use: the temporary home must be in
// place before any test runs, hence static initialisation.
struct TempHome {
    std::string path;
    TempHome()
    {
        char pattern[] = "/tmp/korvo-abi-home-XXXXXX";
        if (!mkdtemp(pattern)) std::abort();
        path = pattern;
        setenv("HOME", pattern, 1);
        unsetenv("XDG_CONFIG_HOME");
    }
    ~TempHome() { std::filesystem::remove_all(path, ignored); }
    std::error_code ignored;
};

const TempHome home;

// Loaded on first use and kept until the process ends, as in an application.
struct Module {
    void* handle = dlopen(KORVO_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
    CK_FUNCTION_LIST_PTR list = nullptr;
    std::string error;

    Module()
    {
        auto getList = handle ? reinterpret_cast<CK_C_GetFunctionList>(dlsym(handle, "C_GetFunctionList")) : nullptr;
        if (!handle) error = dlerror();
        else if (!getList) error = "C_GetFunctionList is not exported";
        else if (getList(&list) != CKR_OK || !list) error = "C_GetFunctionList failed";
        if (!error.empty()) list = nullptr;
    }
};

Module& module()
{
    static Module instance;
    return instance;
}

}  // namespace

CK_FUNCTION_LIST_PTR functions() { return module().list; }
const std::string& loadError() { return module().error; }
void* moduleHandle() { return module().handle; }
const std::string& tempHome() { return home.path; }

void ModuleTest::SetUp()
{
    p = functions();
    ASSERT_NE(p, nullptr) << loadError();
}

void ModuleTest::TearDown()
{
    if (!p) return;
    const CK_RV rv = p->C_Finalize(nullptr);
    EXPECT_TRUE(rv == CKR_OK || rv == CKR_CRYPTOKI_NOT_INITIALIZED) << "C_Finalize returned " << rv;
}

void InitializedTest::SetUp()
{
    ModuleTest::SetUp();
    if (HasFatalFailure()) return;
    ASSERT_EQ(p->C_Initialize(initArgs()), CKR_OK);
}

CK_SESSION_HANDLE InitializedTest::openSession(CK_FLAGS flags)
{
    CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
    EXPECT_EQ(p->C_OpenSession(0, flags, nullptr, nullptr, &session), CKR_OK);
    return session;
}

CommandResult runCommand(const std::string& command)
{
    CommandResult result;
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (!pipe) return result;
    char buffer[4096];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) result.output.append(buffer, n);
    const int status = pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

std::string sanitizerPreload()
{
    std::ifstream maps("/proc/self/maps");
    std::string runtimes, cxx;
    bool instrumented = false;
    for (std::string line; std::getline(maps, line);) {
        const size_t slash = line.find('/');
        if (slash == std::string::npos) continue;
        const std::string path = line.substr(slash);
        const std::string name = path.substr(path.rfind('/') + 1);
        const bool sanitizer = name.rfind("libasan.so", 0) == 0 || name.rfind("libtsan.so", 0) == 0 ||
                               name.rfind("libubsan.so", 0) == 0;
        if (sanitizer && runtimes.find(path) == std::string::npos) {
            // The address sanitizer must come first in the preload list.
            runtimes = name.rfind("libasan.so", 0) == 0 ? path + (runtimes.empty() ? "" : ":" + runtimes)
                                                        : runtimes + (runtimes.empty() ? "" : ":") + path;
            instrumented = true;
        }
        if (name.rfind("libstdc++.so", 0) == 0) cxx = path;
    }
    if (!instrumented) return "";
    // The client's own leaks are not ours to report.
    return "LD_PRELOAD='" + runtimes + (cxx.empty() ? "" : ":" + cxx) + "' ASAN_OPTIONS=detect_leaks=0 ";
}

const char* const kCryptokiFunctionNames[68] = {
    "C_Initialize", "C_Finalize", "C_GetInfo", "C_GetFunctionList", "C_GetSlotList", "C_GetSlotInfo",
    "C_GetTokenInfo", "C_GetMechanismList", "C_GetMechanismInfo", "C_InitToken", "C_InitPIN", "C_SetPIN",
    "C_OpenSession", "C_CloseSession", "C_CloseAllSessions", "C_GetSessionInfo", "C_GetOperationState",
    "C_SetOperationState", "C_Login", "C_Logout", "C_CreateObject", "C_CopyObject", "C_DestroyObject",
    "C_GetObjectSize", "C_GetAttributeValue", "C_SetAttributeValue", "C_FindObjectsInit", "C_FindObjects",
    "C_FindObjectsFinal", "C_EncryptInit", "C_Encrypt", "C_EncryptUpdate", "C_EncryptFinal", "C_DecryptInit",
    "C_Decrypt", "C_DecryptUpdate", "C_DecryptFinal", "C_DigestInit", "C_Digest", "C_DigestUpdate",
    "C_DigestKey", "C_DigestFinal", "C_SignInit", "C_Sign", "C_SignUpdate", "C_SignFinal",
    "C_SignRecoverInit", "C_SignRecover", "C_VerifyInit", "C_Verify", "C_VerifyUpdate", "C_VerifyFinal",
    "C_VerifyRecoverInit", "C_VerifyRecover", "C_DigestEncryptUpdate", "C_DecryptDigestUpdate",
    "C_SignEncryptUpdate", "C_DecryptVerifyUpdate", "C_GenerateKey", "C_GenerateKeyPair", "C_WrapKey",
    "C_UnwrapKey", "C_DeriveKey", "C_SeedRandom", "C_GenerateRandom", "C_GetFunctionStatus",
    "C_CancelFunction", "C_WaitForSlotEvent"};

}  // namespace korvo
