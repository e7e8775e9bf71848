#include "pkcs11/db/Tavik_p11trace.h"

// How the trace learns an object's label and identifier. Until the token has
// an object lookup, no handle is known to it; the token's lookup replaces
// this definition (find the object by handle, read its CKA_LABEL and CKA_ID,
// and answer false for a handle that belongs to no object).
bool P11Trace_describeObject(P11Token* /*token*/, CK_OBJECT_HANDLE /*handle*/, std::string* /*label*/,
                             std::string* /*idHex*/)
{
    return false;
}
