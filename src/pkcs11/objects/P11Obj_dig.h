#pragma once
// Big-number attributes of key objects (modulus, exponents, primes, DH and
// DSA values): read and written as the crypto core's map_int, stored as
// unsigned big-endian bytes.

#include "pkcs11/cryptoki.h"

struct P11Obj;
struct map_int;

// Stores the minimal unsigned big-endian encoding; zero is stored as one
// byte 0, never as an empty value. Allocation failure CKR_HOST_MEMORY,
// conversion failure CKR_GENERAL_ERROR.
CK_RV P11Obj_setDigValue(P11Obj* object, CK_ATTRIBUTE_TYPE type, const map_int* value);
// Reads the attribute into a caller's number; an empty value reads as zero.
// Absent: CKR_TEMPLATE_INCOMPLETE.
CK_RV P11Obj_getAttributeAsDig(P11Obj* object, CK_ATTRIBUTE_TYPE type, map_int* value);
// As above into a new number that the caller frees with map_free; *value is
// null on every failure.
CK_RV P11Obj_getAndAllocAttributeAsDig(P11Obj* object, CK_ATTRIBUTE_TYPE type, map_int** value);
