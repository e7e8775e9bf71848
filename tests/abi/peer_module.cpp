#include "abi/peer_module.h"

#include <dlfcn.h>
#include <stdlib.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>

namespace korvo {

std::string rvName(CK_RV rv)
{
    static const struct {
        CK_RV rv;
        const char* name;
    } kNames[] = {
        {CKR_OK, "CKR_OK"},
        {CKR_HOST_MEMORY, "CKR_HOST_MEMORY"},
        {CKR_GENERAL_ERROR, "CKR_GENERAL_ERROR"},
        {CKR_FUNCTION_FAILED, "CKR_FUNCTION_FAILED"},
        {CKR_ARGUMENTS_BAD, "CKR_ARGUMENTS_BAD"},
        {CKR_ATTRIBUTE_READ_ONLY, "CKR_ATTRIBUTE_READ_ONLY"},
        {CKR_ATTRIBUTE_SENSITIVE, "CKR_ATTRIBUTE_SENSITIVE"},
        {CKR_ATTRIBUTE_TYPE_INVALID, "CKR_ATTRIBUTE_TYPE_INVALID"},
        {CKR_ATTRIBUTE_VALUE_INVALID, "CKR_ATTRIBUTE_VALUE_INVALID"},
        {CKR_DATA_INVALID, "CKR_DATA_INVALID"},
        {CKR_DATA_LEN_RANGE, "CKR_DATA_LEN_RANGE"},
        {CKR_DEVICE_ERROR, "CKR_DEVICE_ERROR"},
        {CKR_ENCRYPTED_DATA_INVALID, "CKR_ENCRYPTED_DATA_INVALID"},
        {CKR_ENCRYPTED_DATA_LEN_RANGE, "CKR_ENCRYPTED_DATA_LEN_RANGE"},
        {CKR_FUNCTION_CANCELED, "CKR_FUNCTION_CANCELED"},
        {CKR_FUNCTION_NOT_SUPPORTED, "CKR_FUNCTION_NOT_SUPPORTED"},
        {CKR_KEY_HANDLE_INVALID, "CKR_KEY_HANDLE_INVALID"},
        {CKR_KEY_SIZE_RANGE, "CKR_KEY_SIZE_RANGE"},
        {CKR_KEY_TYPE_INCONSISTENT, "CKR_KEY_TYPE_INCONSISTENT"},
        {CKR_KEY_FUNCTION_NOT_PERMITTED, "CKR_KEY_FUNCTION_NOT_PERMITTED"},
        {CKR_KEY_NOT_WRAPPABLE, "CKR_KEY_NOT_WRAPPABLE"},
        {CKR_KEY_UNEXTRACTABLE, "CKR_KEY_UNEXTRACTABLE"},
        {CKR_MECHANISM_INVALID, "CKR_MECHANISM_INVALID"},
        {CKR_MECHANISM_PARAM_INVALID, "CKR_MECHANISM_PARAM_INVALID"},
        {CKR_OBJECT_HANDLE_INVALID, "CKR_OBJECT_HANDLE_INVALID"},
        {CKR_OPERATION_ACTIVE, "CKR_OPERATION_ACTIVE"},
        {CKR_OPERATION_NOT_INITIALIZED, "CKR_OPERATION_NOT_INITIALIZED"},
        {CKR_SESSION_HANDLE_INVALID, "CKR_SESSION_HANDLE_INVALID"},
        {CKR_SESSION_READ_ONLY, "CKR_SESSION_READ_ONLY"},
        {CKR_SIGNATURE_INVALID, "CKR_SIGNATURE_INVALID"},
        {CKR_SIGNATURE_LEN_RANGE, "CKR_SIGNATURE_LEN_RANGE"},
        {CKR_TEMPLATE_INCOMPLETE, "CKR_TEMPLATE_INCOMPLETE"},
        {CKR_TEMPLATE_INCONSISTENT, "CKR_TEMPLATE_INCONSISTENT"},
        {CKR_TOKEN_WRITE_PROTECTED, "CKR_TOKEN_WRITE_PROTECTED"},
        {CKR_UNWRAPPING_KEY_HANDLE_INVALID, "CKR_UNWRAPPING_KEY_HANDLE_INVALID"},
        {CKR_UNWRAPPING_KEY_TYPE_INCONSISTENT, "CKR_UNWRAPPING_KEY_TYPE_INCONSISTENT"},
        {CKR_USER_NOT_LOGGED_IN, "CKR_USER_NOT_LOGGED_IN"},
        {CKR_WRAPPED_KEY_INVALID, "CKR_WRAPPED_KEY_INVALID"},
        {CKR_WRAPPED_KEY_LEN_RANGE, "CKR_WRAPPED_KEY_LEN_RANGE"},
        {CKR_WRAPPING_KEY_HANDLE_INVALID, "CKR_WRAPPING_KEY_HANDLE_INVALID"},
        {CKR_WRAPPING_KEY_TYPE_INCONSISTENT, "CKR_WRAPPING_KEY_TYPE_INCONSISTENT"},
        {CKR_BUFFER_TOO_SMALL, "CKR_BUFFER_TOO_SMALL"},
        {CKR_CRYPTOKI_NOT_INITIALIZED, "CKR_CRYPTOKI_NOT_INITIALIZED"},
        {CKR_CRYPTOKI_ALREADY_INITIALIZED, "CKR_CRYPTOKI_ALREADY_INITIALIZED"},
    };
    for (const auto& entry : kNames)
        if (entry.rv == rv) return entry.name;
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "CKR 0x%lx", static_cast<unsigned long>(rv));
    return buffer;
}

// ---- the peer ----

namespace {

// The peer to finalise at exit.
CK_FUNCTION_LIST_PTR finalisedAtExit = nullptr;

struct Softokn {
    CK_FUNCTION_LIST_PTR f = nullptr;
    std::string error;
    std::string directory;
    // The parameter string must stay put while the peer is initialised.
    std::string parameters;
    bool keyDatabaseReady = false;

    Softokn()
    {
        void* handle = dlopen(kSoftoknPath, RTLD_NOW | RTLD_LOCAL);
        if (!handle) {
            error = std::string("NSS's software token cannot be loaded: ") + dlerror();
            return;
        }
        auto getList = reinterpret_cast<CK_C_GetFunctionList>(dlsym(handle, "C_GetFunctionList"));
        CK_FUNCTION_LIST_PTR list = nullptr;
        if (!getList || getList(&list) != CKR_OK || !list) {
            error = std::string(kSoftoknPath) + " gives no function list";
            return;
        }
        // The database directory lies in the test's temporary home, which is
        // removed at exit.
        directory = tempHome() + "/nss-peer";
        std::error_code ignored;
        std::filesystem::create_directories(directory, ignored);
        parameters = "configdir='sql:" + directory + "' certPrefix='' keyPrefix='' secmod='secmod.db' flags=";
        // NSS's layout of the arguments (pkcs11t.h from NSS): the parameter
        // string where a plain application has pReserved, and a pReserved
        // word after it that must be null.
        CK_C_INITIALIZE_ARGS args;
        std::memset(&args, 0, sizeof args);
        args.flags = CKF_OS_LOCKING_OK;
        args.LibraryParameters = reinterpret_cast<CK_CHAR_PTR*>(parameters.data());
        args.pReserved = nullptr;
        const CK_RV rv = list->C_Initialize(&args);
        if (rv == CKR_CRYPTOKI_ALREADY_INITIALIZED) {
            // Someone else in this process initialised it, with parameters of
            // their own: the crypto slot serves all the same, and finalising
            // is theirs.
            f = list;
            return;
        }
        if (rv != CKR_OK) {
            error = "C_Initialize of NSS's software token returned " + rvName(rv);
            return;
        }
        f = list;
        // Finalised before the temporary home goes (exit handlers run before
        // the destructors of statics made earlier).
        finalisedAtExit = list;
        std::atexit([] { finalisedAtExit->C_Finalize(nullptr); });
    }

    static Softokn& instance()
    {
        static Softokn peer;
        return peer;
    }

    // The first slot whose token is (or is not) write protected: the crypto
    // slot is, the key database is not.
    bool slot(bool writeProtected, CK_SLOT_ID* found)
    {
        CK_SLOT_ID slots[8];
        CK_ULONG count = 8;
        if (f->C_GetSlotList(CK_TRUE, slots, &count) != CKR_OK) return false;
        for (CK_ULONG i = 0; i < count && i < 8; ++i) {
            CK_TOKEN_INFO info;
            if (f->C_GetTokenInfo(slots[i], &info) != CKR_OK) continue;
            if (bool(info.flags & CKF_WRITE_PROTECTED) == writeProtected) {
                *found = slots[i];
                return true;
            }
        }
        return false;
    }

    // A new key database has no password: the security officer sets the
    // user's (empty) one, and the user logs in once for every session of
    // the slot.
    CK_RV prepareKeyDatabase(CK_SLOT_ID slot, CK_SESSION_HANDLE session)
    {
        if (keyDatabaseReady) return CKR_OK;
        CK_TOKEN_INFO info;
        CK_RV rv = f->C_GetTokenInfo(slot, &info);
        CK_UTF8CHAR empty[1] = {0};
        if (rv == CKR_OK && !(info.flags & CKF_USER_PIN_INITIALIZED)) {
            rv = f->C_Login(session, CKU_SO, empty, 0);
            if (rv == CKR_OK) rv = f->C_InitPIN(session, empty, 0);
            if (rv == CKR_OK) rv = f->C_Logout(session);
        }
        if (rv == CKR_OK) rv = f->C_Login(session, CKU_USER, empty, 0);
        if (rv == CKR_USER_ALREADY_LOGGED_IN) rv = CKR_OK;
        keyDatabaseReady = rv == CKR_OK;
        return rv;
    }
};

}  // namespace

CK_FUNCTION_LIST_PTR softoknFunctions(std::string* why)
{
    Softokn& peer = Softokn::instance();
    if (!peer.f && why) *why = peer.error;
    return peer.f;
}

bool openSoftokn(P11Side* side, std::string* why, SoftoknSlot which)
{
    Softokn& peer = Softokn::instance();
    if (!peer.f) {
        *why = peer.error;
        return false;
    }
    const bool crypto = which == SoftoknSlot::Crypto;
    CK_SLOT_ID slot = 0;
    if (!peer.slot(crypto, &slot)) {
        *why = crypto ? "NSS's software token shows no crypto slot" : "NSS's software token shows no key database slot";
        return false;
    }
    P11Side opened{peer.f, CK_INVALID_HANDLE, crypto ? "softokn" : "softokn (key database)"};
    CK_RV rv = peer.f->C_OpenSession(slot, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &opened.s);
    if (rv == CKR_OK && !crypto) rv = peer.prepareKeyDatabase(slot, opened.s);
    if (rv != CKR_OK) {
        *why = "opening a session on NSS's software token: " + rvName(rv);
        if (opened.s != CK_INVALID_HANDLE) peer.f->C_CloseSession(opened.s);
        return false;
    }
    *side = opened;
    return true;
}

void closeSide(P11Side* side)
{
    if (side->f && side->s != CK_INVALID_HANDLE) side->f->C_CloseSession(side->s);
    side->s = CK_INVALID_HANDLE;
}

// ---- objects ----

namespace {

void usageFlags(Tmpl& t, bool publicHalf, const Usage& u)
{
    if (publicHalf)
        t.flag(CKA_VERIFY, u.verify).flag(CKA_ENCRYPT, u.encrypt).flag(CKA_VERIFY_RECOVER, u.verifyRecover).flag(CKA_WRAP, u.wrap);
    else
        t.flag(CKA_SIGN, u.sign).flag(CKA_DECRYPT, u.decrypt).flag(CKA_SIGN_RECOVER, u.signRecover).flag(CKA_UNWRAP, u.unwrap);
}

}  // namespace

Tmpl rsaPublicTemplate(const RsaNumbers& key, const Usage& usage)
{
    Tmpl t;
    t.ulong(CKA_CLASS, CKO_PUBLIC_KEY).ulong(CKA_KEY_TYPE, CKK_RSA).flag(CKA_TOKEN, false);
    usageFlags(t, true, usage);
    t.add(CKA_MODULUS, key.n).add(CKA_PUBLIC_EXPONENT, key.e);
    return t;
}

Tmpl rsaPrivateTemplate(const RsaNumbers& key, const Usage& usage)
{
    Tmpl t;
    t.ulong(CKA_CLASS, CKO_PRIVATE_KEY).ulong(CKA_KEY_TYPE, CKK_RSA).flag(CKA_TOKEN, false);
    t.flag(CKA_PRIVATE, false).flag(CKA_SENSITIVE, false).flag(CKA_EXTRACTABLE, true);
    usageFlags(t, false, usage);
    t.add(CKA_MODULUS, key.n).add(CKA_PUBLIC_EXPONENT, key.e).add(CKA_PRIVATE_EXPONENT, key.d);
    t.add(CKA_PRIME_1, key.p).add(CKA_PRIME_2, key.q).add(CKA_EXPONENT_1, key.dp).add(CKA_EXPONENT_2, key.dq);
    t.add(CKA_COEFFICIENT, key.qinv);
    return t;
}

CK_RV createObject(const P11Side& side, Tmpl t, CK_OBJECT_HANDLE* object)
{
    return side.f->C_CreateObject(side.s, t.data(), t.size(), object);
}

CK_RV importRsa(const P11Side& side, const RsaNumbers& key, KeyPair* pair, const Usage& usage)
{
    CK_RV rv = createObject(side, rsaPublicTemplate(key, usage), &pair->pub);
    if (rv == CKR_OK) rv = createObject(side, rsaPrivateTemplate(key, usage), &pair->priv);
    return rv;
}

CK_RV generateRsa(const P11Side& side, CK_ULONG bits, const Bytes& exponent, KeyPair* pair)
{
    Tmpl pub;
    pub.ulong(CKA_MODULUS_BITS, bits).add(CKA_PUBLIC_EXPONENT, exponent).flag(CKA_TOKEN, false);
    usageFlags(pub, true, Usage());
    Tmpl priv;
    priv.flag(CKA_TOKEN, false).flag(CKA_PRIVATE, false).flag(CKA_SENSITIVE, false).flag(CKA_EXTRACTABLE, true);
    usageFlags(priv, false, Usage());
    CK_MECHANISM m{CKM_RSA_PKCS_KEY_PAIR_GEN, nullptr, 0};
    return side.f->C_GenerateKeyPair(side.s, &m, pub.data(), pub.size(), priv.data(), priv.size(), &pair->pub,
                                     &pair->priv);
}

CK_RV attribute(const P11Side& side, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type, Bytes* value)
{
    CK_ATTRIBUTE a{type, nullptr, 0};
    CK_RV rv = side.f->C_GetAttributeValue(side.s, object, &a, 1);
    if (rv != CKR_OK) return rv;
    value->assign(a.ulValueLen, 0);
    a.pValue = value->data();
    rv = side.f->C_GetAttributeValue(side.s, object, &a, 1);
    value->resize(rv == CKR_OK ? a.ulValueLen : 0);
    return rv;
}

CK_RV rsaNumbersOf(const P11Side& side, CK_OBJECT_HANDLE privateKey, RsaNumbers* key)
{
    const std::pair<CK_ATTRIBUTE_TYPE, Bytes*> parts[] = {
        {CKA_MODULUS, &key->n},        {CKA_PUBLIC_EXPONENT, &key->e}, {CKA_PRIVATE_EXPONENT, &key->d},
        {CKA_PRIME_1, &key->p},        {CKA_PRIME_2, &key->q},         {CKA_EXPONENT_1, &key->dp},
        {CKA_EXPONENT_2, &key->dq},    {CKA_COEFFICIENT, &key->qinv}};
    for (const auto& [type, bytes] : parts) {
        const CK_RV rv = attribute(side, privateKey, type, bytes);
        if (rv != CKR_OK) return rv;
    }
    return CKR_OK;
}

// ---- operations ----

namespace {

CK_BYTE_PTR bytes(const Bytes& in)
{
    return const_cast<CK_BYTE_PTR>(in.data());
}

CK_ULONG length(const Bytes& in)
{
    return CK_ULONG(in.size());
}

// A length query, then the call with a buffer of that length.
template <typename Call>
CK_RV twice(Call call, Bytes* out)
{
    CK_ULONG n = 0;
    CK_RV rv = call(nullptr, &n);
    if (rv != CKR_OK) return rv;
    // Never an empty buffer: a null one would be another size query.
    out->assign(n + 1, 0);
    rv = call(out->data(), &n);
    out->resize(rv == CKR_OK ? n : 0);
    return rv;
}

}  // namespace

CK_RV sign(const P11Side& side, CK_MECHANISM m, CK_OBJECT_HANDLE key, const Bytes& in, Bytes* out)
{
    CK_RV rv = side.f->C_SignInit(side.s, &m, key);
    if (rv != CKR_OK) return rv;
    return twice([&](CK_BYTE_PTR o, CK_ULONG_PTR n) { return side.f->C_Sign(side.s, bytes(in), length(in), o, n); }, out);
}

CK_RV signParts(const P11Side& side, CK_MECHANISM m, CK_OBJECT_HANDLE key, const Bytes& in, size_t chunk, Bytes* out)
{
    CK_RV rv = side.f->C_SignInit(side.s, &m, key);
    for (size_t at = 0; rv == CKR_OK && at < in.size(); at += chunk)
        rv = side.f->C_SignUpdate(side.s, bytes(in) + at, CK_ULONG(std::min(chunk, in.size() - at)));
    if (rv != CKR_OK) return rv;
    return twice([&](CK_BYTE_PTR o, CK_ULONG_PTR n) { return side.f->C_SignFinal(side.s, o, n); }, out);
}

CK_RV verify(const P11Side& side, CK_MECHANISM m, CK_OBJECT_HANDLE key, const Bytes& in, const Bytes& signature)
{
    CK_RV rv = side.f->C_VerifyInit(side.s, &m, key);
    if (rv != CKR_OK) return rv;
    return side.f->C_Verify(side.s, bytes(in), length(in), bytes(signature), length(signature));
}

CK_RV verifyParts(const P11Side& side, CK_MECHANISM m, CK_OBJECT_HANDLE key, const Bytes& in, size_t chunk,
                  const Bytes& signature)
{
    CK_RV rv = side.f->C_VerifyInit(side.s, &m, key);
    for (size_t at = 0; rv == CKR_OK && at < in.size(); at += chunk)
        rv = side.f->C_VerifyUpdate(side.s, bytes(in) + at, CK_ULONG(std::min(chunk, in.size() - at)));
    if (rv != CKR_OK) return rv;
    return side.f->C_VerifyFinal(side.s, bytes(signature), length(signature));
}

CK_RV encrypt(const P11Side& side, CK_MECHANISM m, CK_OBJECT_HANDLE key, const Bytes& in, Bytes* out)
{
    CK_RV rv = side.f->C_EncryptInit(side.s, &m, key);
    if (rv != CKR_OK) return rv;
    return twice([&](CK_BYTE_PTR o, CK_ULONG_PTR n) { return side.f->C_Encrypt(side.s, bytes(in), length(in), o, n); },
                 out);
}

CK_RV decrypt(const P11Side& side, CK_MECHANISM m, CK_OBJECT_HANDLE key, const Bytes& in, Bytes* out)
{
    CK_RV rv = side.f->C_DecryptInit(side.s, &m, key);
    if (rv != CKR_OK) return rv;
    return twice([&](CK_BYTE_PTR o, CK_ULONG_PTR n) { return side.f->C_Decrypt(side.s, bytes(in), length(in), o, n); },
                 out);
}

CK_RV signRecover(const P11Side& side, CK_MECHANISM m, CK_OBJECT_HANDLE key, const Bytes& in, Bytes* out)
{
    CK_RV rv = side.f->C_SignRecoverInit(side.s, &m, key);
    if (rv != CKR_OK) return rv;
    return twice(
        [&](CK_BYTE_PTR o, CK_ULONG_PTR n) { return side.f->C_SignRecover(side.s, bytes(in), length(in), o, n); }, out);
}

// One call with a buffer as long as the signature: verify-recover ends its
// operation after any call, a length query included, as verification does.
CK_RV verifyRecover(const P11Side& side, CK_MECHANISM m, CK_OBJECT_HANDLE key, const Bytes& signature, Bytes* out)
{
    CK_RV rv = side.f->C_VerifyRecoverInit(side.s, &m, key);
    if (rv != CKR_OK) return rv;
    out->assign(signature.size() + 1, 0);
    CK_ULONG n = CK_ULONG(out->size());
    rv = side.f->C_VerifyRecover(side.s, bytes(signature), length(signature), out->data(), &n);
    out->resize(rv == CKR_OK ? n : 0);
    return rv;
}

CK_RV wrapKey(const P11Side& side, CK_MECHANISM m, CK_OBJECT_HANDLE wrappingKey, CK_OBJECT_HANDLE key, Bytes* out)
{
    return twice([&](CK_BYTE_PTR o, CK_ULONG_PTR n) { return side.f->C_WrapKey(side.s, &m, wrappingKey, key, o, n); },
                 out);
}

CK_RV unwrapKey(const P11Side& side, CK_MECHANISM m, CK_OBJECT_HANDLE unwrappingKey, const Bytes& wrapped, Tmpl t,
                CK_OBJECT_HANDLE* key)
{
    return side.f->C_UnwrapKey(side.s, &m, unwrappingKey, bytes(wrapped), length(wrapped), t.data(), t.size(), key);
}

}  // namespace korvo
