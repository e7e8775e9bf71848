#pragma once
// The raw RSA private-key operation of the delegated private keys. The
// library holds no private key: Tavik_RSA_decrypt runs the helper program
// KorvoPerformRsa, which lies in the library's own directory, as
//
//     "<library dir>/KorvoPerformRsa" userHex digestHex inputHex
//
// and reads "00" followed by the hexadecimal result from its standard output.
// The last successful result is kept in a one-entry DecryptionCache, so a
// caller that retries after a size query or a too-small buffer does not make
// the helper (and the user) run again.

#include <mutex>
#include <string>

#include <QString>

#include "deps/cpp_modules/ByteArray.h"
#include "pkcs11/cryptoki.h"

struct P11Session;
struct P11Obj;
struct P11ObjClass;

// The two facts the helper needs of a delegated private key: the SHA-256
// digest of its certificate (32 bytes) and the owner's user name (a
// NUL-terminated wide string, or null).
struct Tavik_RsaKeyInfo {
    const unsigned char* certDigest;
    const wchar_t* userName;
};

// How the helper recognises a delegated private key and reads its
// key-provider info; the private-key class supplies it.
struct Tavik_RsaKeyAccess {
    const P11ObjClass* privateKeyClass;
    CK_RV (*readKeyInfo)(P11Obj* key, Tavik_RsaKeyInfo* info);
};

// Runs the raw private-key operation on in[0..inLen) with the key.
// Null key: CKR_KEY_NEEDED; a key of another class: CKR_KEY_TYPE_INCONSISTENT;
// null in or pulOutLen: CKR_MECHANISM_PARAM_INVALID. A null out asks for the
// size (the length of CKA_MODULUS); the helper is not run then. A result
// longer than *pulOutLen gives CKR_BUFFER_TOO_SMALL with *pulOutLen left as
// it was (the result stays cached). Helper failures: CKR_DEVICE_ERROR when
// it cannot be started or was ended by a signal, CKR_FUNCTION_CANCELED when
// its output holds no result. Never throws.
CK_RV Tavik_RSA_decrypt(P11Session* session, P11Obj* key, unsigned char* in, unsigned long inLen, unsigned char* out,
                        unsigned long* pulOutLen, const Tavik_RsaKeyAccess& access);

// The helper's first argument: each wide character's low 16 bits as two
// bytes, high byte first, in upper-case hex; "''" for a null or empty name.
std::string Tavik_userNameHex(const wchar_t* userName);

// The result in a helper's output: the bytes of the first "00" followed by
// hexadecimal digits (either case), without the "00". False when the output
// has none.
bool Tavik_parseHelperOutput(const std::string& output, ByteArray* result);

// The last successful helper result, keyed by certificate digest and input.
// One process-wide entry; it has its own lock, held only while the entry is
// read or written, never while the helper runs.
class DecryptionCache {
public:
    static DecryptionCache& instance();

    // True, with a copy of the stored result, when both slices equal the
    // stored key parts byte for byte.
    bool TryLookUp(const ByteArray_constSlice& digest, const ByteArray_constSlice& input, ByteArray& result);
    // Replaces the entry with copies of the three slices.
    void Insert(const ByteArray_constSlice& digest, const ByteArray_constSlice& input,
                const ByteArray_constSlice& result);
    // Held by the forking thread across a fork, so that the child never
    // inherits the entry half written.
    void lockForFork() { mutex_.lock(); }
    void unlockForFork() { mutex_.unlock(); }

private:
    std::mutex mutex_;
    ByteArray digest_;
    ByteArray input_;
    ByteArray result_;
};

class CurrentFileName {
public:
    // The path of the loaded file that holds this code (the module, or the
    // program it is linked into), from the dynamic loader.
    static QString getCurrentFileName();
    // The absolute path of the directory that holds it, as the bytes the
    // loader gave (a directory name need not be valid in any encoding).
    static std::string directoryBytes();
};

// The most helper output the module holds: far above the longest valid
// answer (a 4096-bit result is about a kilobyte of text). What comes after
// it is read and dropped, and the run fails as one without a result does.
constexpr size_t kHelperOutputLimit = 64 * 1024;
