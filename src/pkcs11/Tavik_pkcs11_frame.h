#pragma once
// The frame every exported entry point runs in: the "Entering" lines and
// the trace of the arguments, the initialisation check, the body, and the
// exit line. An exception from any of them becomes a code here (see
// P11Bridge.h), so none crosses the C ABI.

#include "pkcs11/P11Bridge.h"
#include "pkcs11/Tavik_pkcs11_entry.h"
#include "pkcs11/db/Tavik_p11trace.h"

// Whether the frame answers CKR_CRYPTOKI_NOT_INITIALIZED before the body
// runs (None: the body decides, or never asks).
enum class FrameCheck { Initialized, None };

template <typename TraceIn, typename Body>
CK_RV frame(const char* function, TraceIn traceIn, Body body, FrameCheck check = FrameCheck::Initialized) noexcept
{
    const CK_RV rv = P11_bridge([&]() -> CK_RV {
        TSQ_Trace(3, "Entering %s", function);
        TSQ_Trace(4, "In:");
        traceIn();
        if (check == FrameCheck::Initialized && !initialized) return CKR_CRYPTOKI_NOT_INITIALIZED;
        return body();
    });
    P11_bridge([&] { return P11_traceExit(function, rv); });
    return rv;
}
