#pragma once
// NSS's software token (libsoftokn3) as a differential peer of the module:
// loaded through the same C ABI, with the NSS parameter string where
// Cryptoki has pReserved, without databases. Its crypto slot takes session
// keys without a login.

#include <dlfcn.h>

#include <string>

#include "abi/module_harness.h"

namespace korvo {

inline const char* const kSoftokn = "/usr/lib/x86_64-linux-gnu/libsoftokn3.so";

struct Side {
    const char* name = nullptr;
    CK_FUNCTION_LIST_PTR f = nullptr;
    CK_SESSION_HANDLE s = CK_INVALID_HANDLE;
    CK_OBJECT_HANDLE pub = CK_INVALID_HANDLE, priv = CK_INVALID_HANDLE;
};

// Loaded once per process.
inline CK_FUNCTION_LIST_PTR softokn()
{
    static CK_FUNCTION_LIST_PTR list = [] () -> CK_FUNCTION_LIST_PTR {
        void* handle = dlopen(kSoftokn, RTLD_NOW | RTLD_LOCAL);
        if (!handle) return nullptr;
        auto get = reinterpret_cast<CK_C_GetFunctionList>(dlsym(handle, "C_GetFunctionList"));
        CK_FUNCTION_LIST_PTR functions = nullptr;
        if (!get || get(&functions) != CKR_OK) return nullptr;
        static char parameters[] = "configdir='' certPrefix='' keyPrefix='' secmod='' flags=noCertDB,noModDB,readOnly";
        InitArgs args;
        args.flags = CKF_OS_LOCKING_OK;
        args.pReserved = parameters;
        if (functions->C_Initialize(&args) != CKR_OK) return nullptr;
        return functions;
    }();
    return list;
}

// A session on the peer's crypto slot; false with the reason when the peer
// is not there.
inline bool softoknSession(Side* side, std::string* why)
{
    CK_FUNCTION_LIST_PTR f = softokn();
    if (!f) {
        *why = std::string("NSS's software token (") + kSoftokn + ") cannot be loaded";
        return false;
    }
    CK_SLOT_ID slots[8];
    CK_ULONG count = 8;
    if (f->C_GetSlotList(CK_TRUE, slots, &count) != CKR_OK || count == 0) {
        *why = "the NSS software token shows no slot";
        return false;
    }
    *side = Side{"softokn", f};
    return f->C_OpenSession(slots[0], CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &side->s) == CKR_OK;
}

}  // namespace korvo
