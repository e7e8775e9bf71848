#pragma once
// Class members run below the C entry points, where nothing may be thrown:
// P11Obj_noThrow<member> calls the member through the exception bridge (a
// failed allocation is CKR_HOST_MEMORY, anything else CKR_GENERAL_ERROR,
// both logged). Class records fill their members with it.

#include "pkcs11/P11Bridge.h"

template <auto Member, typename... Args>
CK_RV P11Obj_noThrow(Args... args)
{
    return P11_bridge([&] { return Member(args...); });
}
