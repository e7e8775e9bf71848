#include "pkcs11/P11Bridge.h"

#include "pkcs11/db/Tavik_p11trace.h"

void P11_logException(const char* what) noexcept
{
    try {
        if (what)
            TSQ_Trace(1, "Exception caught: %s", what);
        else
            TSQ_Trace(1, "Unknown exception");
    } catch (...) {
        // The log line is lost; the code still goes back.
    }
}
