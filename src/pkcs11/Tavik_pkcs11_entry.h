#pragma once
// Shared pieces of the exported entry points.

#include "pkcs11/cryptoki.h"

#define KORVO_EXPORT extern "C" __attribute__((visibility("default")))

struct P11Token;

// True between a successful C_Initialize and the next C_Finalize.
extern bool initialized;
// The one token; null while the library is not initialised.
extern P11Token* pToken;

// The exit line of an entry point: "Exiting %s\n" on success, the return
// code's name at error level otherwise. Returns rv.
CK_RV P11_traceExit(const char* function, CK_RV rv);
