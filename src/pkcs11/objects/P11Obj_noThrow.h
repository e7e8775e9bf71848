#pragma once
// Class members run below the C entry points, where nothing may be thrown:
// P11Obj_noThrow<member> calls the member and turns an escaping exception
// into a code (a failed allocation is CKR_HOST_MEMORY, anything else
// CKR_GENERAL_ERROR). Class records fill their members with it.

#include <new>

#include "pkcs11/cryptoki.h"

template <auto Member, typename... Args>
CK_RV P11Obj_noThrow(Args... args)
{
    try {
        return Member(args...);
    } catch (const std::bad_alloc&) {
        return CKR_HOST_MEMORY;
    } catch (...) {
        return CKR_GENERAL_ERROR;
    }
}
