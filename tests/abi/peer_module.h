#pragma once
// A second Cryptoki implementation beside the module, for differential
// tests: NSS's software token (libsoftokn3), loaded with dlopen and driven
// through the same C ABI as the module. The helpers below take a P11Side,
// so a test runs the very same calls against either token.
//
// What the peer needs, found out by trying: C_Initialize takes NSS's own
// CK_C_INITIALIZE_ARGS (an extra LibraryParameters word where a plain
// application has pReserved) carrying a parameter string that names a
// configuration directory. Its slot 1 ("NSS Generic Crypto Services") takes
// session objects of every kind, private keys included, without a login,
// and refuses token objects. Slot 2 (the key database, fresh in a temporary
// directory) takes session objects with CKA_PRIVATE false as it is; private
// or token objects need a login, which first needs the new database's
// password set (SO login with the empty PIN, then C_InitPIN).

#include <string>

#include "abi/object_helpers.h"

namespace korvo {

inline const char* const kSoftoknPath = "/usr/lib/x86_64-linux-gnu/libsoftokn3.so";

// One token as the tests drive it: its function list, an open session and
// a name for messages.
struct P11Side {
    CK_FUNCTION_LIST_PTR f = nullptr;
    CK_SESSION_HANDLE s = CK_INVALID_HANDLE;
    const char* name = "";
};

// "CKR_OK", "CKR_DATA_LEN_RANGE", ... or the number in hex.
std::string rvName(CK_RV rv);

// ---- the peer ----

// The peer's function list, loaded and initialised once per process (a
// fresh database directory under the test's temporary home, finalised at
// exit); null with the reason when it cannot be loaded.
CK_FUNCTION_LIST_PTR softoknFunctions(std::string* why);

enum class SoftoknSlot {
    Crypto,       // session objects, no login
    KeyDatabase,  // logged in as the user (empty PIN), token objects too
};

// Opens a read/write session on the peer; false with the reason when the
// peer is missing or refuses.
bool openSoftokn(P11Side* side, std::string* why, SoftoknSlot slot = SoftoknSlot::Crypto);

// Closes the side's session (and with it its session objects).
void closeSide(P11Side* side);

// ---- objects ----

struct KeyPair {
    CK_OBJECT_HANDLE pub = CK_INVALID_HANDLE;
    CK_OBJECT_HANDLE priv = CK_INVALID_HANDLE;
};

// An RSA key by its numbers, big-endian without leading zeros.
struct RsaNumbers {
    Bytes n, e, d, p, q, dp, dq, qinv;
};

// What a key pair may be used for, each stated in the templates (the
// tokens' defaults differ).
struct Usage {
    bool sign = true, verify = true, encrypt = true, decrypt = true;
    bool signRecover = true, verifyRecover = true, wrap = true, unwrap = true;

    static Usage none() { return {false, false, false, false, false, false, false, false}; }
};
// Session-object templates of an RSA key pair; the private key is not
// sensitive, extractable and not private (no login needed).
Tmpl rsaPublicTemplate(const RsaNumbers& key, const Usage& usage = Usage());
Tmpl rsaPrivateTemplate(const RsaNumbers& key, const Usage& usage = Usage());

// C_CreateObject of both halves.
CK_RV importRsa(const P11Side& side, const RsaNumbers& key, KeyPair* pair, const Usage& usage = Usage());

// C_GenerateKeyPair with CKM_RSA_PKCS_KEY_PAIR_GEN: session objects, every
// usage, the private key readable (not sensitive, extractable).
CK_RV generateRsa(const P11Side& side, CK_ULONG bits, const Bytes& exponent, KeyPair* pair);

CK_RV createObject(const P11Side& side, Tmpl t, CK_OBJECT_HANDLE* object);

// One attribute's value, read after a length query.
CK_RV attribute(const P11Side& side, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type, Bytes* value);
// The numbers of an RSA private key (each attribute must be readable).
CK_RV rsaNumbersOf(const P11Side& side, CK_OBJECT_HANDLE privateKey, RsaNumbers* key);

// ---- operations: init, a length query, then the call ----

CK_RV sign(const P11Side& side, CK_MECHANISM m, CK_OBJECT_HANDLE key, const Bytes& in, Bytes* out);
// C_SignUpdate in pieces of `chunk` bytes, then C_SignFinal.
CK_RV signParts(const P11Side& side, CK_MECHANISM m, CK_OBJECT_HANDLE key, const Bytes& in, size_t chunk, Bytes* out);
CK_RV verify(const P11Side& side, CK_MECHANISM m, CK_OBJECT_HANDLE key, const Bytes& in, const Bytes& signature);
CK_RV verifyParts(const P11Side& side, CK_MECHANISM m, CK_OBJECT_HANDLE key, const Bytes& in, size_t chunk,
                  const Bytes& signature);
CK_RV encrypt(const P11Side& side, CK_MECHANISM m, CK_OBJECT_HANDLE key, const Bytes& in, Bytes* out);
CK_RV decrypt(const P11Side& side, CK_MECHANISM m, CK_OBJECT_HANDLE key, const Bytes& in, Bytes* out);
CK_RV signRecover(const P11Side& side, CK_MECHANISM m, CK_OBJECT_HANDLE key, const Bytes& in, Bytes* out);
CK_RV verifyRecover(const P11Side& side, CK_MECHANISM m, CK_OBJECT_HANDLE key, const Bytes& signature, Bytes* out);
CK_RV wrapKey(const P11Side& side, CK_MECHANISM m, CK_OBJECT_HANDLE wrappingKey, CK_OBJECT_HANDLE key, Bytes* out);
CK_RV unwrapKey(const P11Side& side, CK_MECHANISM m, CK_OBJECT_HANDLE unwrappingKey, const Bytes& wrapped, Tmpl t,
                CK_OBJECT_HANDLE* key);

}  // namespace korvo
