#pragma once
// Support for the whole-library tests: the module is loaded once per test
// process, the way an application loads it, with HOME pointing at a
// temporary directory made before the module is first touched.

#include <string>

#include <gtest/gtest.h>
#include <pkcs11.h>

#include "crypto/hex_util.h"  // toHex

namespace korvo {

// The module's function list, loaded with dlopen on first use; null (with
// the reason in loadError()) when the module cannot be loaded.
CK_FUNCTION_LIST_PTR functions();
const std::string& loadError();

// The dlopen handle of the module (null when it could not be loaded).
void* moduleHandle();

// The temporary home directory of this test process.
const std::string& tempHome();

// CK_C_INITIALIZE_ARGS as applications lay it out: six words. The NSS
// header used for the other types inserts a field of its own before
// pReserved, so it cannot describe what a plain Cryptoki application
// passes. The guard word after the struct stays zero so that a module
// reading past the six words reads something harmless.
struct InitArgs {
    CK_CREATEMUTEX CreateMutex = nullptr;
    CK_DESTROYMUTEX DestroyMutex = nullptr;
    CK_LOCKMUTEX LockMutex = nullptr;
    CK_UNLOCKMUTEX UnlockMutex = nullptr;
    CK_FLAGS flags = 0;
    CK_VOID_PTR pReserved = nullptr;
    CK_VOID_PTR guard = nullptr;
};

// A fixed-width, unterminated text field of a Cryptoki structure.
template <size_t N>
std::string field(const CK_UTF8CHAR (&bytes)[N])
{
    return std::string(reinterpret_cast<const char*>(bytes), N);
}

// "major.minor" of a version field.
inline std::string version(const CK_VERSION& v)
{
    return std::to_string(v.major) + "." + std::to_string(v.minor);
}

// `text` padded with blanks to `width`.
inline std::string padded(std::string text, size_t width)
{
    text.resize(width, ' ');
    return text;
}

// Tests that want the module loaded but not initialised. TearDown finalises
// whatever a test left initialised, so every test starts from scratch.
class ModuleTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    CK_FUNCTION_LIST_PTR p = nullptr;
};

// Tests that run with the library initialised (by default without locking;
// a subclass may choose other arguments).
class InitializedTest : public ModuleTest {
protected:
    void SetUp() override;
    virtual CK_VOID_PTR initArgs() { return nullptr; }

    // Opens a session on slot 0; fails the test when that does not work.
    CK_SESSION_HANDLE openSession(CK_FLAGS flags = CKF_SERIAL_SESSION);
};

// A shell command's exit status and its standard output and error together.
struct CommandResult {
    int status = -1;
    std::string output;
};
CommandResult runCommand(const std::string& command);

// In a sanitizer build the module needs the sanitizer runtimes loaded
// before it, which an uninstrumented client (pkcs11-tool, the Python
// interpreter) does not do: an environment prefix handing it the runtimes
// this test process runs with, and the C++ runtime whose exceptions the
// sanitizer intercepts from the start. Empty in a normal build.
std::string sanitizerPreload();

// False when the module cannot be loaded by an uninstrumented client at
// all: clang links its sanitizer runtimes statically into the test program,
// so there is no shared runtime to hand on.
constexpr bool clientsCanLoadModule()
{
#if defined(__clang__) && defined(__has_feature)
#if __has_feature(address_sanitizer)
    return false;
#endif
#endif
    return true;
}

// The 68 Cryptoki 2.20 entry points, in function-list order.
extern const char* const kCryptokiFunctionNames[68];

}  // namespace korvo
