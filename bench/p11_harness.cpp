#include "p11_harness.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

namespace p11bench {

std::string rvName(CK_RV rv)
{
    switch (rv) {
#define P11BENCH_RV(name) \
    case name:            \
        return #name;
        P11BENCH_RV(CKR_OK)
        P11BENCH_RV(CKR_CANCEL)
        P11BENCH_RV(CKR_HOST_MEMORY)
        P11BENCH_RV(CKR_SLOT_ID_INVALID)
        P11BENCH_RV(CKR_GENERAL_ERROR)
        P11BENCH_RV(CKR_FUNCTION_FAILED)
        P11BENCH_RV(CKR_ARGUMENTS_BAD)
        P11BENCH_RV(CKR_CANT_LOCK)
        P11BENCH_RV(CKR_DEVICE_ERROR)
        P11BENCH_RV(CKR_DEVICE_MEMORY)
        P11BENCH_RV(CKR_FUNCTION_NOT_SUPPORTED)
        P11BENCH_RV(CKR_MECHANISM_INVALID)
        P11BENCH_RV(CKR_MECHANISM_PARAM_INVALID)
        P11BENCH_RV(CKR_OPERATION_ACTIVE)
        P11BENCH_RV(CKR_OPERATION_NOT_INITIALIZED)
        P11BENCH_RV(CKR_PIN_INCORRECT)
        P11BENCH_RV(CKR_SESSION_CLOSED)
        P11BENCH_RV(CKR_SESSION_COUNT)
        P11BENCH_RV(CKR_SESSION_HANDLE_INVALID)
        P11BENCH_RV(CKR_SESSION_PARALLEL_NOT_SUPPORTED)
        P11BENCH_RV(CKR_SESSION_EXISTS)
        P11BENCH_RV(CKR_TOKEN_NOT_PRESENT)
        P11BENCH_RV(CKR_TOKEN_NOT_RECOGNIZED)
        P11BENCH_RV(CKR_TOKEN_WRITE_PROTECTED)
        P11BENCH_RV(CKR_BUFFER_TOO_SMALL)
        P11BENCH_RV(CKR_CRYPTOKI_NOT_INITIALIZED)
        P11BENCH_RV(CKR_CRYPTOKI_ALREADY_INITIALIZED)
#undef P11BENCH_RV
    default: {
        char buffer[32];
        std::snprintf(buffer, sizeof buffer, "CKR 0x%08lx", static_cast<unsigned long>(rv));
        return buffer;
    }
    }
}

Module::Module(std::string label, std::string path) : label_(std::move(label)), path_(std::move(path)) {}

Module::~Module()
{
    if (initialised_) functions_->C_Finalize(nullptr);
    // The library is left mapped: some modules register process-exit handlers
    // (their crypto library's among them) that must still find their code.
}

bool Module::fail(const std::string& message)
{
    error_ = message;
    return false;
}

bool Module::fail(const std::string& what, CK_RV rv)
{
    return fail(what + " returned " + rvName(rv));
}

bool Module::load(bool osLocking)
{
    osLocking_ = osLocking;
    handle_ = dlopen(path_.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle_) {
        const char* why = dlerror();
        return fail(std::string("cannot load ") + path_ + ": " + (why ? why : "unknown error"));
    }
    dlerror();
    auto getFunctionList = reinterpret_cast<CK_C_GetFunctionList>(dlsym(handle_, "C_GetFunctionList"));
    if (!getFunctionList) {
        return fail("the module does not export C_GetFunctionList");
    }
    CK_FUNCTION_LIST_PTR list = nullptr;
    const CK_RV rv = getFunctionList(&list);
    if (rv != CKR_OK) return fail("C_GetFunctionList", rv);
    if (!list) return fail("C_GetFunctionList gave no function list");
    functions_ = list;
    return reinitialise();
}

bool Module::reinitialise()
{
    if (initialised_) {
        functions_->C_Finalize(nullptr);
        initialised_ = false;
    }
    CK_C_INITIALIZE_ARGS args = {};
    args.flags = CKF_OS_LOCKING_OK;
    const CK_RV rv = functions_->C_Initialize(osLocking_ ? &args : nullptr);
    if (rv != CKR_OK) return fail(osLocking_ ? "C_Initialize(CKF_OS_LOCKING_OK)" : "C_Initialize(NULL)", rv);
    initialised_ = true;
    return true;
}

bool Module::findSlot(CK_SLOT_ID* slot, TokenState state)
{
    CK_ULONG count = 0;
    CK_RV rv = functions_->C_GetSlotList(CK_TRUE, nullptr, &count);
    if (rv != CKR_OK) return fail("C_GetSlotList", rv);
    std::vector<CK_SLOT_ID> slots(count);
    if (count) {
        rv = functions_->C_GetSlotList(CK_TRUE, slots.data(), &count);
        if (rv != CKR_OK) return fail("C_GetSlotList", rv);
        slots.resize(count);
    }
    for (CK_SLOT_ID id : slots) {
        CK_TOKEN_INFO info;
        rv = functions_->C_GetTokenInfo(id, &info);
        if (rv != CKR_OK) return fail("C_GetTokenInfo", rv);
        const bool initialised = (info.flags & CKF_TOKEN_INITIALIZED) != 0;
        if (state == TokenState::Any || initialised == (state == TokenState::Initialised)) {
            *slot = id;
            return true;
        }
    }
    switch (state) {
    case TokenState::Initialised:
        return fail("no slot with an initialised token");
    case TokenState::Fresh:
        return fail("no slot with a fresh token");
    default:
        return fail("no slot with a token");
    }
}

bool Module::openSession(CK_SLOT_ID slot, CK_SESSION_HANDLE* session)
{
    const CK_RV rv = functions_->C_OpenSession(slot, CKF_SERIAL_SESSION, nullptr, nullptr, session);
    if (rv != CKR_OK) return fail("C_OpenSession", rv);
    return true;
}

bool takeFlag(const char* arg, const char* name, std::string* value)
{
    const size_t n = std::strlen(name);
    if (std::strncmp(arg, name, n) != 0) return false;
    if (arg[n] == '=') {
        *value = arg + n + 1;
        return true;
    }
    if (arg[n] == '\0') {
        value->clear();
        return true;
    }
    return false;
}

}  // namespace p11bench
