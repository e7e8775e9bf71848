#pragma once
// A small loader for PKCS#11 modules, shared by the side-by-side benchmark:
// it opens a module with dlopen, resolves C_GetFunctionList, initialises the
// library and finds a slot with a token. Every module under test goes through
// the same code, so the figures compare the modules and not their loaders.

#include <string>

#include <pkcs11.h>

namespace p11bench {

// A readable name for a return value ("CKR_OK", "CKR_ARGUMENTS_BAD", ...).
std::string rvName(CK_RV rv);

class Module {
public:
    Module(std::string label, std::string path);
    ~Module();
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;

    // dlopen + C_GetFunctionList + C_Initialize. With osLocking the module is
    // given CK_C_INITIALIZE_ARGS carrying CKF_OS_LOCKING_OK, otherwise NULL.
    // On failure error() tells why and the module stays unusable.
    bool load(bool osLocking);

    enum class TokenState { Any, Initialised, Fresh };

    // The first slot holding a token in the given state (Initialised: its
    // token carries CKF_TOKEN_INITIALIZED; Fresh: it does not).
    bool findSlot(CK_SLOT_ID* slot, TokenState state);

    // C_Finalize then C_Initialize again (a token initialised through
    // C_InitToken may show up under a new slot id only after that).
    bool reinitialise();

    // A read-only serial session on the chosen slot.
    bool openSession(CK_SLOT_ID slot, CK_SESSION_HANDLE* session);

    const std::string& label() const { return label_; }
    const std::string& path() const { return path_; }
    const std::string& error() const { return error_; }
    CK_FUNCTION_LIST_PTR functions() const { return functions_; }
    bool usable() const { return functions_ != nullptr && initialised_; }

    // Records a failure of `what` with the return value rv; returns false.
    bool fail(const std::string& what, CK_RV rv);
    bool fail(const std::string& message);

private:
    std::string label_;
    std::string path_;
    std::string error_;
    void* handle_ = nullptr;
    CK_FUNCTION_LIST_PTR functions_ = nullptr;
    bool initialised_ = false;
    bool osLocking_ = true;
};

// A command-line option "--name=value" or "--name" (value then empty);
// false when arg is another option.
bool takeFlag(const char* arg, const char* name, std::string* value);

}  // namespace p11bench
