#include "pkcs11/GetToken.h"

// The token exists between C_Initialize and C_Finalize; the entry layer owns
// this pointer.
P11Token* pToken = nullptr;

P11Token* GetToken()
{
    return pToken;
}
