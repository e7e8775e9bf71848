#pragma once
// The cryptographic members of the software object class.

#include "pkcs11/objects/P11Obj.h"

// Fills the operation members of the software class record.
void P11Obj_SW_fillMechanisms(P11ObjClass* clazz);
