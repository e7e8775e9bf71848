#pragma once
// The Cryptoki 2.20 types, constants and function prototypes, with the
// Netscape vendor constants for trust objects.

#include <pkcs11.h>
#include <pkcs11n.h>
