#pragma once
// The one place where an exception of the layers below the C entry points
// becomes a return code. The certificate, configuration and logging layers
// report failures by exceptions, and the standard library throws
// std::bad_alloc; nothing of that may cross into the application, so every
// call from the PKCS#11 layer into them, every class member and every
// entry point's frame runs through P11_bridge. What it catches is logged as
// "Exception caught: %s" with the exception's text, or "Unknown exception".

#include <exception>
#include <new>

#include "pkcs11/cryptoki.h"

// The log line of a caught exception (`what` null: one that is no
// std::exception). Never throws.
void P11_logException(const char* what) noexcept;

// Runs `work` and returns its code. An escaping std::bad_alloc gives
// `noMemory`, any other exception `otherwise`.
template <typename Work>
CK_RV P11_bridge(Work&& work, CK_RV otherwise = CKR_GENERAL_ERROR, CK_RV noMemory = CKR_HOST_MEMORY) noexcept
{
    try {
        return work();
    } catch (const std::bad_alloc& e) {
        P11_logException(e.what());
        return noMemory;
    } catch (const std::exception& e) {
        P11_logException(e.what());
        return otherwise;
    } catch (...) {
        P11_logException(nullptr);
        return otherwise;
    }
}
