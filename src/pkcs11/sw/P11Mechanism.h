#pragma once
// The mechanism registry of the software token core: one row per mechanism
// the software keys offer, with the kinds of key it takes, the operations it
// serves and the functions that carry them out. The software class's members
// find the row, check the key against it, and let the row build the
// operation's record (or generate, or derive).
//
// This is what the software core can do. What the token reports through
// C_GetMechanismList and C_GetMechanismInfo is a separate, fixed table.

#include <cstdint>

#include "pkcs11/cryptoki.h"

struct P11Obj;
struct P11Session;
struct P11OperationData;

// Uses of a mechanism, one bit each.
enum : uint32_t {
    P11_USE_ENCRYPT = 0x1,
    P11_USE_DECRYPT = 0x2,
    P11_USE_SIGN = 0x4,
    P11_USE_VERIFY = 0x8,
    P11_USE_SIGN_RECOVER = 0x10,
    P11_USE_VERIFY_RECOVER = 0x20,
    P11_USE_WRAP = 0x40,
    P11_USE_UNWRAP = 0x80,
    P11_USE_GENERATE = 0x100,
    P11_USE_GENERATE_PAIR = 0x200,
    P11_USE_DERIVE = 0x400,
};

struct P11Mechanism {
    CK_MECHANISM_TYPE type;
    uint64_t keyKinds;    // kinds of key it takes (P11_KIND_* of the attribute policy)
    uint32_t operations;  // P11_USE_* it serves
    // Builds the record of an operation on a key that passed the kind and
    // usage checks: encrypt to verify-recover, and for wrap and unwrap the
    // record whose single step enciphers or deciphers the key value. The
    // key is locked by its dispatcher; the caller owns the record.
    CK_RV (*init)(const P11Mechanism& row, P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism,
                  uint32_t operation, P11OperationData** record);
    // Fills a new key (or domain parameters) from its applied template.
    CK_RV (*generate)(const P11Mechanism& row, P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism);
    CK_RV (*generatePair)(const P11Mechanism& row, P11Obj* privateKey, P11Obj* publicKey, P11Session* session,
                          CK_MECHANISM_PTR mechanism);
    // Fills the new key from the base key (locked) and the parameters.
    CK_RV (*derive)(const P11Mechanism& row, P11Obj* baseKey, P11Session* session, CK_MECHANISM_PTR mechanism,
                    P11Obj* newKey);
};

// The row of a mechanism, or null when the software core lacks it.
const P11Mechanism* P11Mechanism_find(CK_MECHANISM_TYPE type);

// The usage attribute an operation needs (CKA_ENCRYPT for encrypt...), and
// the key kinds it can take at all (public keys for the public operations,
// private keys for the private ones, secret keys for both).
CK_ATTRIBUTE_TYPE P11Mechanism_usage(uint32_t operation);
uint64_t P11Mechanism_kindsFor(uint32_t operation);
