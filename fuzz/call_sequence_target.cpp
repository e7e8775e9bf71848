// The call-sequence fuzz body: the input is a program of Cryptoki calls that
// drives the whole module through its function list, over a temporary
// certificate store and the helper that lies beside the module. Every
// handle, template, mechanism, parameter and length comes from the input;
// buffers handed to the module are always as long as the module is told, so
// a write past them is the module's fault and AddressSanitizer reports it.
//
// Invariants checked after each call:
// - every answer is a Cryptoki return code;
// - the module's sessions are the ones this program opened and did not close:
//   a session handle answers C_GetSessionInfo exactly when it is open (a
//   closed one CKR_SESSION_CLOSED), and a
//   handle is never given out twice while open;
// - a destroyed object is gone;
// - an output length announced by a size query is enough for the call that
//   follows, and no call reports more output than the buffer held;
// - attribute lengths never exceed the room given;
// - after C_Finalize every call but C_Initialize answers
//   CKR_CRYPTOKI_NOT_INITIALIZED;
// - at the end of the input no file of the certificate store has changed.

#include "fuzz_targets.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "invariant.h"
#include "pkcs11/cryptoki.h"

extern "C" CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list);

namespace korvo_fuzz {
namespace {

namespace fs = std::filesystem;

using Bytes = std::vector<CK_BYTE>;

// CK_C_INITIALIZE_ARGS as applications lay it out (six words).
struct InitArgs {
    CK_CREATEMUTEX CreateMutex;
    CK_DESTROYMUTEX DestroyMutex;
    CK_LOCKMUTEX LockMutex;
    CK_UNLOCKMUTEX UnlockMutex;
    CK_FLAGS flags;
    CK_VOID_PTR pReserved;
};

CK_RV createMutex(CK_VOID_PTR_PTR mutex)
{
    *mutex = new std::mutex;
    return CKR_OK;
}
CK_RV destroyMutex(CK_VOID_PTR mutex)
{
    delete static_cast<std::mutex*>(mutex);
    return CKR_OK;
}
CK_RV lockMutex(CK_VOID_PTR mutex)
{
    static_cast<std::mutex*>(mutex)->lock();
    return CKR_OK;
}
CK_RV unlockMutex(CK_VOID_PTR mutex)
{
    static_cast<std::mutex*>(mutex)->unlock();
    return CKR_OK;
}

const CK_RV kCodes[] = {
    CKR_OK, CKR_CANCEL, CKR_HOST_MEMORY, CKR_SLOT_ID_INVALID, CKR_GENERAL_ERROR, CKR_FUNCTION_FAILED,
    CKR_ARGUMENTS_BAD, CKR_NO_EVENT, CKR_NEED_TO_CREATE_THREADS, CKR_CANT_LOCK, CKR_ATTRIBUTE_READ_ONLY,
    CKR_ATTRIBUTE_SENSITIVE, CKR_ATTRIBUTE_TYPE_INVALID, CKR_ATTRIBUTE_VALUE_INVALID, CKR_DATA_INVALID,
    CKR_DATA_LEN_RANGE, CKR_DEVICE_ERROR, CKR_DEVICE_MEMORY, CKR_DEVICE_REMOVED, CKR_ENCRYPTED_DATA_INVALID,
    CKR_ENCRYPTED_DATA_LEN_RANGE, CKR_FUNCTION_CANCELED, CKR_FUNCTION_NOT_PARALLEL, CKR_FUNCTION_NOT_SUPPORTED,
    CKR_KEY_HANDLE_INVALID, CKR_KEY_SIZE_RANGE, CKR_KEY_TYPE_INCONSISTENT, CKR_KEY_NOT_NEEDED, CKR_KEY_CHANGED,
    CKR_KEY_NEEDED, CKR_KEY_INDIGESTIBLE, CKR_KEY_FUNCTION_NOT_PERMITTED, CKR_KEY_NOT_WRAPPABLE,
    CKR_KEY_UNEXTRACTABLE, CKR_MECHANISM_INVALID, CKR_MECHANISM_PARAM_INVALID, CKR_OBJECT_HANDLE_INVALID,
    CKR_OPERATION_ACTIVE, CKR_OPERATION_NOT_INITIALIZED, CKR_PIN_INCORRECT, CKR_PIN_INVALID, CKR_PIN_LEN_RANGE,
    CKR_PIN_EXPIRED, CKR_PIN_LOCKED, CKR_SESSION_CLOSED, CKR_SESSION_COUNT, CKR_SESSION_HANDLE_INVALID,
    CKR_SESSION_PARALLEL_NOT_SUPPORTED, CKR_SESSION_READ_ONLY, CKR_SESSION_EXISTS, CKR_SESSION_READ_ONLY_EXISTS,
    CKR_SESSION_READ_WRITE_SO_EXISTS, CKR_SIGNATURE_INVALID, CKR_SIGNATURE_LEN_RANGE, CKR_TEMPLATE_INCOMPLETE,
    CKR_TEMPLATE_INCONSISTENT, CKR_TOKEN_NOT_PRESENT, CKR_TOKEN_NOT_RECOGNIZED, CKR_TOKEN_WRITE_PROTECTED,
    CKR_UNWRAPPING_KEY_HANDLE_INVALID, CKR_UNWRAPPING_KEY_SIZE_RANGE, CKR_UNWRAPPING_KEY_TYPE_INCONSISTENT,
    CKR_USER_ALREADY_LOGGED_IN, CKR_USER_NOT_LOGGED_IN, CKR_USER_PIN_NOT_INITIALIZED, CKR_USER_TYPE_INVALID,
    CKR_USER_ANOTHER_ALREADY_LOGGED_IN, CKR_USER_TOO_MANY_TYPES, CKR_WRAPPED_KEY_INVALID, CKR_WRAPPED_KEY_LEN_RANGE,
    CKR_WRAPPING_KEY_HANDLE_INVALID, CKR_WRAPPING_KEY_SIZE_RANGE, CKR_WRAPPING_KEY_TYPE_INCONSISTENT,
    CKR_RANDOM_SEED_NOT_SUPPORTED, CKR_RANDOM_NO_RNG, CKR_DOMAIN_PARAMS_INVALID, CKR_BUFFER_TOO_SMALL,
    CKR_SAVED_STATE_INVALID, CKR_INFORMATION_SENSITIVE, CKR_STATE_UNSAVEABLE, CKR_CRYPTOKI_NOT_INITIALIZED,
    CKR_CRYPTOKI_ALREADY_INITIALIZED, CKR_MUTEX_BAD, CKR_MUTEX_NOT_LOCKED, CKR_FUNCTION_REJECTED};

bool isCryptokiCode(CK_RV rv)
{
    return std::find(std::begin(kCodes), std::end(kCodes), rv) != std::end(kCodes);
}

// Numbers a template or parameter is likely to mean something with. Lengths
// of buffers are never taken from here: they stay below kMaxBuffer.
const CK_ULONG kNumbers[] = {0, 1, 2, 3, 4, 5, 8, 16, 20, 24, 32, 48, 64, 128, 256, 512, 1024,
                             CKK_GENERIC_SECRET, CKK_RC2, CKK_RC4, CKK_DES, CKK_DES2, CKK_DES3, CKK_AES,
                             CKK_DSA, CKK_DH, CKK_X9_42_DH, CKO_DATA, CKO_CERTIFICATE, CKO_PUBLIC_KEY,
                             CKO_PRIVATE_KEY, CKO_SECRET_KEY, CKO_NSS_TRUST, 0x80000000UL, ~0UL};
const CK_ULONG kMaxBuffer = 4096;

const CK_ATTRIBUTE_TYPE kAttributes[] = {
    CKA_CLASS, CKA_TOKEN, CKA_PRIVATE, CKA_LABEL, CKA_APPLICATION, CKA_VALUE, CKA_OBJECT_ID, CKA_CERTIFICATE_TYPE,
    CKA_ISSUER, CKA_SERIAL_NUMBER, CKA_SUBJECT, CKA_ID, CKA_KEY_TYPE, CKA_SENSITIVE, CKA_ENCRYPT, CKA_DECRYPT,
    CKA_WRAP, CKA_UNWRAP, CKA_SIGN, CKA_SIGN_RECOVER, CKA_VERIFY, CKA_VERIFY_RECOVER, CKA_DERIVE, CKA_MODULUS,
    CKA_MODULUS_BITS, CKA_PUBLIC_EXPONENT, CKA_PRIVATE_EXPONENT, CKA_PRIME_1, CKA_PRIME_2, CKA_EXPONENT_1,
    CKA_EXPONENT_2, CKA_COEFFICIENT, CKA_PRIME, CKA_SUBPRIME, CKA_BASE, CKA_VALUE_BITS, CKA_VALUE_LEN,
    CKA_EXTRACTABLE, CKA_LOCAL, CKA_NEVER_EXTRACTABLE, CKA_ALWAYS_SENSITIVE, CKA_MODIFIABLE, CKA_KEY_GEN_MECHANISM,
    CKA_START_DATE, CKA_END_DATE, CKA_TRUSTED, CKA_CERT_SHA1_HASH, CKA_TRUST_SERVER_AUTH, 0x80001234UL};

struct Mechanism {
    CK_MECHANISM_TYPE type;
    enum Param { None, Raw, Gcm, Ccm, Oaep, Pbkd2, Master, KeyMat, Prf } param;
};

const Mechanism kMechanisms[] = {
    {CKM_RSA_PKCS_KEY_PAIR_GEN, Mechanism::None}, {CKM_DSA_KEY_PAIR_GEN, Mechanism::None},
    {CKM_DH_PKCS_KEY_PAIR_GEN, Mechanism::None}, {CKM_DES_KEY_GEN, Mechanism::None},
    {CKM_DES3_KEY_GEN, Mechanism::None}, {CKM_AES_KEY_GEN, Mechanism::None}, {CKM_RC2_KEY_GEN, Mechanism::None},
    {CKM_RC4_KEY_GEN, Mechanism::None}, {CKM_GENERIC_SECRET_KEY_GEN, Mechanism::None},
    {CKM_RSA_PKCS, Mechanism::None}, {CKM_RSA_X_509, Mechanism::None}, {CKM_RSA_PKCS_OAEP, Mechanism::Oaep},
    {CKM_RSA_PKCS_PSS, Mechanism::Raw}, {CKM_SHA1_RSA_PKCS, Mechanism::None}, {CKM_SHA256_RSA_PKCS, Mechanism::None},
    {CKM_MD5_RSA_PKCS, Mechanism::None}, {CKM_SHA256_RSA_PKCS_PSS, Mechanism::Raw}, {CKM_DSA, Mechanism::None},
    {CKM_DSA_SHA1, Mechanism::None}, {CKM_DH_PKCS_DERIVE, Mechanism::Raw}, {CKM_DES_ECB, Mechanism::None},
    {CKM_DES_CBC, Mechanism::Raw}, {CKM_DES3_ECB, Mechanism::None}, {CKM_DES3_CBC_PAD, Mechanism::Raw},
    {CKM_AES_ECB, Mechanism::None}, {CKM_AES_CBC, Mechanism::Raw}, {CKM_AES_CBC_PAD, Mechanism::Raw},
    {CKM_AES_GCM, Mechanism::Gcm}, {CKM_AES_CCM, Mechanism::Ccm}, {CKM_RC2_ECB, Mechanism::Raw},
    {CKM_RC2_CBC_PAD, Mechanism::Raw}, {CKM_RC4, Mechanism::None}, {CKM_MD2, Mechanism::None},
    {CKM_MD5, Mechanism::None}, {CKM_SHA_1, Mechanism::None}, {CKM_SHA256, Mechanism::None},
    {CKM_SHA512, Mechanism::None}, {CKM_RIPEMD160, Mechanism::None}, {CKM_SHA256_HMAC, Mechanism::None},
    {CKM_SHA_1_HMAC_GENERAL, Mechanism::Raw}, {CKM_MD5_HMAC, Mechanism::None}, {CKM_AES_MAC, Mechanism::None},
    {CKM_DES3_MAC_GENERAL, Mechanism::Raw}, {CKM_RC2_MAC, Mechanism::Raw}, {CKM_SSL3_MD5_MAC, Mechanism::Raw},
    {CKM_SSL3_SHA1_MAC, Mechanism::Raw}, {CKM_PKCS5_PBKD2, Mechanism::Pbkd2},
    {CKM_SSL3_PRE_MASTER_KEY_GEN, Mechanism::Raw}, {CKM_TLS_PRE_MASTER_KEY_GEN, Mechanism::Raw},
    {CKM_SSL3_MASTER_KEY_DERIVE, Mechanism::Master}, {CKM_TLS_MASTER_KEY_DERIVE, Mechanism::Master},
    {CKM_TLS_MASTER_KEY_DERIVE_DH, Mechanism::Master}, {CKM_SSL3_KEY_AND_MAC_DERIVE, Mechanism::KeyMat},
    {CKM_TLS_KEY_AND_MAC_DERIVE, Mechanism::KeyMat}, {CKM_TLS_PRF, Mechanism::Prf},
    {0x80000001UL, Mechanism::Raw}};

// The input, read a piece at a time; past its end every read gives zeros.
class Reader {
public:
    Reader(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    bool done() const { return at_ >= size_; }
    uint8_t byte() { return at_ < size_ ? data_[at_++] : 0; }
    CK_ULONG number() { return kNumbers[byte() % (sizeof kNumbers / sizeof kNumbers[0])]; }
    CK_ULONG length(CK_ULONG limit = 64)
    {
        const uint8_t b = byte();
        return b == 0xFF ? std::min<CK_ULONG>(limit, kMaxBuffer) : std::min<CK_ULONG>(b, limit);
    }
    Bytes bytes(CK_ULONG limit = 64)
    {
        Bytes out(length(limit));
        for (CK_BYTE& b : out) b = byte();
        return out;
    }

private:
    const uint8_t* data_;
    size_t size_;
    size_t at_ = 0;
};

// Storage that must outlive one call: templates' values, parameters and
// their buffers. Cleared after every step.
struct Arena {
    std::vector<Bytes> blocks;
    CK_BYTE* keep(Bytes bytes)
    {
        blocks.push_back(std::move(bytes));
        Bytes& b = blocks.back();
        return b.empty() ? nullptr : b.data();
    }
    template <typename T>
    T* keep(const T& value)
    {
        Bytes bytes(sizeof(T));
        std::memcpy(bytes.data(), &value, sizeof(T));
        return reinterpret_cast<T*>(keep(std::move(bytes)));
    }
};

class Program {
public:
    Program(const uint8_t* data, size_t size) : in_(data, size)
    {
        KORVO_FUZZ_REQUIRE(C_GetFunctionList(&f_) == CKR_OK && f_);
    }

    void run()
    {
        initialize();
        for (int steps = 0; !in_.done() && steps < 64; ++steps) {
            step();
            arena_.blocks.clear();
        }
        finalize();
    }

private:
    void check(CK_RV rv) const { KORVO_FUZZ_REQUIRE(isCryptokiCode(rv)); }

    // --- handles -----------------------------------------------------------
    CK_SESSION_HANDLE session()
    {
        const uint8_t b = in_.byte();
        if (b >= 240 || seenSessions_.empty()) return b >= 248 ? ~CK_SESSION_HANDLE(0) : CK_SESSION_HANDLE(b & 7);
        return seenSessions_[b % seenSessions_.size()];
    }
    CK_OBJECT_HANDLE object()
    {
        const uint8_t b = in_.byte();
        if (b >= 240 || objects_.empty()) return b >= 248 ? ~CK_OBJECT_HANDLE(0) : CK_OBJECT_HANDLE(b & 7);
        return objects_[b % objects_.size()];
    }
    void sawObject(CK_OBJECT_HANDLE h)
    {
        KORVO_FUZZ_REQUIRE(h != CK_INVALID_HANDLE);
        if (objects_.size() < 64) objects_.push_back(h);
    }

    // --- templates and mechanisms ------------------------------------------
    CK_ATTRIBUTE attribute()
    {
        CK_ATTRIBUTE a{kAttributes[in_.byte() % (sizeof kAttributes / sizeof kAttributes[0])], nullptr, 0};
        switch (in_.byte() % 6) {
        case 0: a.pValue = arena_.keep(CK_BBOOL(in_.byte() & 1)); a.ulValueLen = sizeof(CK_BBOOL); break;
        case 1: a.pValue = arena_.keep(in_.number()); a.ulValueLen = sizeof(CK_ULONG); break;
        case 2: case 3: {
            Bytes value = in_.bytes(512);
            a.ulValueLen = value.size();
            a.pValue = arena_.keep(std::move(value));
            break;
        }
        case 4: a.ulValueLen = in_.length(); break;  // null value with (maybe) a length
        default: a.pValue = arena_.keep(Bytes(8)); a.ulValueLen = in_.byte() % 9; break;  // odd widths
        }
        return a;
    }

    // A template: a known good one, maybe with extras, or one of the input's own.
    std::vector<CK_ATTRIBUTE> attributes()
    {
        static CK_OBJECT_CLASS secret = CKO_SECRET_KEY, data = CKO_DATA, pub = CKO_PUBLIC_KEY, priv = CKO_PRIVATE_KEY;
        static CK_KEY_TYPE aes = CKK_AES, des3 = CKK_DES3, generic = CKK_GENERIC_SECRET, rc4 = CKK_RC4, rc2 = CKK_RC2;
        static CK_BBOOL yes = CK_TRUE, no = CK_FALSE;
        static CK_ULONG len16 = 16, len32 = 32, bits512 = 512;
        static CK_BYTE exponent[] = {1, 0, 1};
        static CK_BYTE value16[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
        static CK_BYTE value24[24] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21};
        static CK_UTF8CHAR label[] = "fuzz";
        std::vector<CK_ATTRIBUTE> t;
        const auto uses = [&] {
            for (CK_ATTRIBUTE_TYPE type : {CKA_ENCRYPT, CKA_DECRYPT, CKA_SIGN, CKA_VERIFY, CKA_WRAP, CKA_UNWRAP,
                                           CKA_DERIVE, CKA_EXTRACTABLE})
                t.push_back({type, &yes, sizeof yes});
        };
        switch (in_.byte() % 10) {
        case 0: t = {{CKA_CLASS, &secret, sizeof secret}, {CKA_KEY_TYPE, &aes, sizeof aes}, {CKA_VALUE, value16, 16}};
            uses(); break;
        case 1: t = {{CKA_CLASS, &secret, sizeof secret}, {CKA_KEY_TYPE, &des3, sizeof des3}, {CKA_VALUE, value24, 24}};
            uses(); break;
        case 2: t = {{CKA_KEY_TYPE, &aes, sizeof aes}, {CKA_VALUE_LEN, &len16, sizeof len16}}; uses(); break;
        case 3: t = {{CKA_KEY_TYPE, &generic, sizeof generic}, {CKA_VALUE_LEN, &len32, sizeof len32}}; uses(); break;
        case 4: t = {{CKA_KEY_TYPE, &rc4, sizeof rc4}, {CKA_VALUE_LEN, &len16, sizeof len16}}; uses(); break;
        case 5: t = {{CKA_KEY_TYPE, &rc2, sizeof rc2}, {CKA_VALUE_LEN, &len16, sizeof len16}}; uses(); break;
        case 6: t = {{CKA_CLASS, &data, sizeof data}, {CKA_LABEL, label, 4}, {CKA_VALUE, value16, 16}}; break;
        case 7: t = {{CKA_MODULUS_BITS, &bits512, sizeof bits512}, {CKA_PUBLIC_EXPONENT, exponent, 3},
                     {CKA_CLASS, &pub, sizeof pub}, {CKA_VERIFY, &yes, sizeof yes}, {CKA_ENCRYPT, &yes, sizeof yes},
                     {CKA_WRAP, &yes, sizeof yes}};
            break;
        case 8: t = {{CKA_CLASS, &priv, sizeof priv}, {CKA_PRIVATE, &no, sizeof no}, {CKA_SIGN, &yes, sizeof yes},
                     {CKA_DECRYPT, &yes, sizeof yes}, {CKA_UNWRAP, &yes, sizeof yes}, {CKA_EXTRACTABLE, &yes, sizeof yes}};
            break;
        default: t = {{CKA_DERIVE, &yes, sizeof yes}}; break;
        }
        const size_t extra = in_.byte() % 4;
        for (size_t i = 0; i < extra; ++i) t.push_back(attribute());
        if (in_.byte() % 8 == 0) {  // or entirely the input's own
            t.clear();
            for (size_t i = in_.byte() % 8; i > 0; --i) t.push_back(attribute());
        }
        return t;
    }

    // A byte field of a parameter structure: the input's next bytes, kept
    // for the call, with their length.
    CK_BYTE* field(CK_ULONG* length)
    {
        Bytes bytes = in_.bytes();
        *length = bytes.size();
        return arena_.keep(std::move(bytes));
    }

    // The client and server randoms of the SSL and TLS derivations.
    CK_SSL3_RANDOM_DATA randoms()
    {
        CK_SSL3_RANDOM_DATA r{};
        r.pClientRandom = field(&r.ulClientRandomLen);
        r.pServerRandom = field(&r.ulServerRandomLen);
        return r;
    }

    CK_MECHANISM mechanism()
    {
        const Mechanism& m = kMechanisms[in_.byte() % (sizeof kMechanisms / sizeof kMechanisms[0])];
        CK_MECHANISM mech{m.type, nullptr, 0};
        const uint8_t shape = in_.byte();
        if (shape % 16 == 0) {  // a length without a parameter
            mech.ulParameterLen = in_.length();
            return mech;
        }
        switch (m.param) {
        case Mechanism::None:
        case Mechanism::Raw:
            if (m.param == Mechanism::Raw || shape % 16 == 1) mech.pParameter = field(&mech.ulParameterLen);
            break;
        case Mechanism::Gcm: {
            CK_GCM_PARAMS_V3 p{};
            p.ulIvLen = in_.length();
            p.pIv = arena_.keep(Bytes(p.ulIvLen, 0x11));
            p.ulIvBits = p.ulIvLen * 8;
            p.pAAD = field(&p.ulAADLen);
            p.ulTagBits = in_.byte();
            mech.pParameter = arena_.keep(p);
            mech.ulParameterLen = sizeof p;
            break;
        }
        case Mechanism::Ccm: {
            CK_CCM_PARAMS p{};
            p.ulDataLen = in_.length(kMaxBuffer);
            p.ulNonceLen = in_.byte() % 16;
            p.pNonce = arena_.keep(Bytes(p.ulNonceLen, 0x22));
            p.pAAD = field(&p.ulAADLen);
            p.ulMACLen = in_.byte() % 20;
            mech.pParameter = arena_.keep(p);
            mech.ulParameterLen = sizeof p;
            break;
        }
        case Mechanism::Oaep: {
            CK_RSA_PKCS_OAEP_PARAMS p{};
            p.hashAlg = in_.byte() & 1 ? CKM_SHA_1 : CKM_SHA256;
            p.mgf = in_.byte() % 4;
            p.source = in_.byte() % 3;
            p.pSourceData = field(&p.ulSourceDataLen);
            mech.pParameter = arena_.keep(p);
            mech.ulParameterLen = sizeof p;
            break;
        }
        case Mechanism::Pbkd2: {
            CK_PKCS5_PBKD2_PARAMS p{};
            p.saltSource = in_.byte() % 3;
            p.pSaltSourceData = field(&p.ulSaltSourceDataLen);
            p.iterations = in_.byte();  // small: the work must stay short
            p.prf = in_.byte() % 8;
            CK_ULONG passwordLen = 0;
            p.pPassword = field(&passwordLen);
            p.ulPasswordLen = arena_.keep(passwordLen);
            mech.pParameter = arena_.keep(p);
            mech.ulParameterLen = sizeof p;
            break;
        }
        case Mechanism::Master: {
            CK_SSL3_MASTER_KEY_DERIVE_PARAMS p{};
            p.RandomInfo = randoms();
            p.pVersion = in_.byte() & 1 ? arena_.keep(CK_VERSION{}) : nullptr;
            mech.pParameter = arena_.keep(p);
            mech.ulParameterLen = sizeof p;
            break;
        }
        case Mechanism::KeyMat: {
            CK_SSL3_KEY_MAT_PARAMS p{};
            p.ulMacSizeInBits = in_.byte();
            p.ulKeySizeInBits = in_.byte();
            p.ulIVSizeInBits = in_.byte() & 0xF8;
            p.bIsExport = in_.byte() & 1;
            p.RandomInfo = randoms();
            CK_SSL3_KEY_MAT_OUT out{};
            out.pIVClient = arena_.keep(Bytes(p.ulIVSizeInBits / 8 + 1));
            out.pIVServer = arena_.keep(Bytes(p.ulIVSizeInBits / 8 + 1));
            p.pReturnedKeyMaterial = arena_.keep(out);
            mech.pParameter = arena_.keep(p);
            mech.ulParameterLen = sizeof p;
            break;
        }
        case Mechanism::Prf: {
            CK_TLS_PRF_PARAMS p{};
            p.pSeed = field(&p.ulSeedLen);
            p.pLabel = field(&p.ulLabelLen);
            const CK_ULONG outLen = in_.length(256);
            p.pOutput = arena_.keep(Bytes(outLen));
            p.pulOutputLen = arena_.keep(outLen);
            mech.pParameter = arena_.keep(p);
            mech.ulParameterLen = sizeof p;
            break;
        }
        }
        return mech;
    }

    // --- the calls ---------------------------------------------------------
    void initialize()
    {
        InitArgs args{};
        CK_RV rv;
        switch (in_.byte() % 4) {
        case 0: rv = f_->C_Initialize(nullptr); break;
        case 1: args.flags = CKF_OS_LOCKING_OK; rv = f_->C_Initialize(&args); break;
        case 2:
            args = {createMutex, destroyMutex, lockMutex, unlockMutex, 0, nullptr};
            rv = f_->C_Initialize(&args);
            break;
        default:  // half the callbacks, or a reserved pointer: refused
            args.CreateMutex = createMutex;
            args.pReserved = in_.byte() & 1 ? &args : nullptr;
            rv = f_->C_Initialize(&args);
            KORVO_FUZZ_REQUIRE(rv == CKR_ARGUMENTS_BAD);
            rv = f_->C_Initialize(nullptr);
            break;
        }
        KORVO_FUZZ_REQUIRE(rv == CKR_OK);
        initialized_ = true;
    }

    void finalize()
    {
        if (initialized_) KORVO_FUZZ_REQUIRE(f_->C_Finalize(nullptr) == CKR_OK);
        initialized_ = false;
        open_.clear();
        CK_INFO info;
        KORVO_FUZZ_REQUIRE(f_->C_GetInfo(&info) == CKR_CRYPTOKI_NOT_INITIALIZED);
        CK_SESSION_INFO sessionInfo;
        for (CK_SESSION_HANDLE h : seenSessions_)
            KORVO_FUZZ_REQUIRE(f_->C_GetSessionInfo(h, &sessionInfo) == CKR_CRYPTOKI_NOT_INITIALIZED);
        seenSessions_.clear();
        objects_.clear();
    }

    // Each session handle answers C_GetSessionInfo exactly when it is open;
    // a closed one answers CKR_SESSION_CLOSED, the module's code for every
    // unknown session handle.
    void checkSessions()
    {
        CK_SESSION_INFO info;
        for (CK_SESSION_HANDLE h : seenSessions_) {
            const CK_RV rv = f_->C_GetSessionInfo(h, &info);
            KORVO_FUZZ_REQUIRE(open_.count(h) ? rv == CKR_OK : rv == CKR_SESSION_CLOSED);
        }
    }

    // An output call made twice: a size query, then with a buffer of the
    // announced size (or of the input's size). The query's length must do.
    template <typename Call>
    CK_RV output(Call call)
    {
        const bool query = in_.byte() & 1;
        CK_ULONG announced = 0;
        if (query) {
            const CK_RV rv = call(nullptr, &announced);
            check(rv);
            if (rv != CKR_OK) return rv;
            announced = std::min(announced, kMaxBuffer * 4);
        }
        const CK_ULONG room = query ? announced : in_.length(kMaxBuffer);
        Bytes out(room);
        CK_ULONG length = room;
        const CK_RV rv = call(room ? out.data() : arena_.keep(Bytes(1)), &length);
        check(rv);
        if (std::getenv("KORVO_FUZZ_TRACE"))
            std::fprintf(stderr, "  output: query %d room %lu length %lu rv 0x%lx\n", int(query),
                         static_cast<unsigned long>(room), static_cast<unsigned long>(length),
                         static_cast<unsigned long>(rv));
        if (query) KORVO_FUZZ_REQUIRE(rv != CKR_BUFFER_TOO_SMALL);
        if (rv == CKR_OK) KORVO_FUZZ_REQUIRE(length <= room);
        if (rv == CKR_OK && length > 0 && outputs_.size() < 16) outputs_.push_back(Bytes(out.begin(), out.begin() + length));
        return rv;
    }

    Bytes data()
    {
        if (!outputs_.empty() && in_.byte() % 3 == 0) return outputs_[in_.byte() % outputs_.size()];
        return in_.bytes(kMaxBuffer);
    }

    void step()
    {
        const uint8_t op = in_.byte();
        CK_RV rv = CKR_OK;
        switch (op % 24) {
        case 0: {  // C_OpenSession
            CK_SESSION_HANDLE h = CK_INVALID_HANDLE;
            const CK_FLAGS flags = (in_.byte() & 3) == 0 ? CKF_RW_SESSION : CKF_SERIAL_SESSION | (in_.byte() & 1 ? CKF_RW_SESSION : 0);
            rv = f_->C_OpenSession(in_.byte() % 8 == 0 ? 1 : 0, flags, nullptr, nullptr, &h);
            if (rv == CKR_OK) {
                KORVO_FUZZ_REQUIRE(h != CK_INVALID_HANDLE && !open_.count(h));
                open_.insert(h);
                if (seenSessions_.size() < 32) seenSessions_.push_back(h);
            }
            break;
        }
        case 1: {  // C_CloseSession
            const CK_SESSION_HANDLE h = session();
            rv = f_->C_CloseSession(h);
            KORVO_FUZZ_REQUIRE((rv == CKR_OK) == (open_.count(h) == 1));
            open_.erase(h);
            break;
        }
        case 2:
            rv = f_->C_CloseAllSessions(in_.byte() % 8 == 0 ? 7 : 0);
            if (rv == CKR_OK) open_.clear();
            break;
        case 3: {  // C_Login / C_Logout
            Bytes pin = in_.bytes(32);
            rv = in_.byte() & 1 ? f_->C_Logout(session())
                                : f_->C_Login(session(), in_.byte() % 3, pin.empty() ? nullptr : pin.data(), pin.size());
            break;
        }
        case 4: {  // C_CreateObject / C_CopyObject
            std::vector<CK_ATTRIBUTE> t = attributes();
            CK_OBJECT_HANDLE h = CK_INVALID_HANDLE;
            rv = in_.byte() & 1 ? f_->C_CopyObject(session(), object(), t.data(), t.size(), &h)
                                : f_->C_CreateObject(session(), t.data(), t.size(), &h);
            if (rv == CKR_OK) sawObject(h);
            break;
        }
        case 5: {  // C_DestroyObject: gone afterwards
            const CK_SESSION_HANDLE s = session();
            const CK_OBJECT_HANDLE h = object();
            rv = f_->C_DestroyObject(s, h);
            if (rv == CKR_OK) {
                CK_OBJECT_CLASS cls;
                CK_ATTRIBUTE a{CKA_CLASS, &cls, sizeof cls};
                KORVO_FUZZ_REQUIRE(f_->C_GetAttributeValue(s, h, &a, 1) == CKR_OBJECT_HANDLE_INVALID);
            }
            break;
        }
        case 6: {  // C_GetAttributeValue: lengths within the room given
            std::vector<CK_ATTRIBUTE> t;
            std::vector<CK_ULONG> room;
            for (size_t i = in_.byte() % 6 + 1; i > 0; --i) {
                CK_ATTRIBUTE a{kAttributes[in_.byte() % (sizeof kAttributes / sizeof kAttributes[0])], nullptr, 0};
                if (in_.byte() & 1) {
                    a.ulValueLen = in_.length(kMaxBuffer);
                    a.pValue = arena_.keep(Bytes(a.ulValueLen + 1));
                }
                room.push_back(a.ulValueLen);
                t.push_back(a);
            }
            rv = f_->C_GetAttributeValue(session(), object(), t.data(), t.size());
            if (rv == CKR_OK || rv == CKR_ATTRIBUTE_SENSITIVE || rv == CKR_ATTRIBUTE_TYPE_INVALID ||
                rv == CKR_BUFFER_TOO_SMALL)
                for (size_t i = 0; i < t.size(); ++i)
                    if (t[i].pValue && t[i].ulValueLen != CK_UNAVAILABLE_INFORMATION)
                        KORVO_FUZZ_REQUIRE(t[i].ulValueLen <= room[i]);
            break;
        }
        case 7: {  // C_SetAttributeValue
            std::vector<CK_ATTRIBUTE> t = attributes();
            rv = f_->C_SetAttributeValue(session(), object(), t.data(), t.size());
            break;
        }
        case 8: {  // a search
            std::vector<CK_ATTRIBUTE> t;
            if (in_.byte() & 1) t = attributes();
            const CK_SESSION_HANDLE s = session();
            rv = f_->C_FindObjectsInit(s, t.empty() ? nullptr : t.data(), t.size());
            check(rv);
            CK_OBJECT_HANDLE found[8];
            const CK_ULONG max = in_.byte() % 9;
            CK_ULONG count = 0;
            rv = f_->C_FindObjects(s, found, max, &count);
            if (rv == CKR_OK) {
                KORVO_FUZZ_REQUIRE(count <= max);
                for (CK_ULONG i = 0; i < count; ++i) sawObject(found[i]);
            }
            check(rv);
            if (in_.byte() % 4) rv = f_->C_FindObjectsFinal(s);
            break;
        }
        case 9: {  // C_GenerateKey
            CK_MECHANISM m = mechanism();
            std::vector<CK_ATTRIBUTE> t = attributes();
            CK_OBJECT_HANDLE h = CK_INVALID_HANDLE;
            rv = f_->C_GenerateKey(session(), &m, t.data(), t.size(), &h);
            if (rv == CKR_OK) sawObject(h);
            break;
        }
        case 10: {  // C_GenerateKeyPair
            CK_MECHANISM m = mechanism();
            std::vector<CK_ATTRIBUTE> pub = attributes(), priv = attributes();
            CK_OBJECT_HANDLE hPub = CK_INVALID_HANDLE, hPriv = CK_INVALID_HANDLE;
            rv = f_->C_GenerateKeyPair(session(), &m, pub.data(), pub.size(), priv.data(), priv.size(), &hPub, &hPriv);
            if (rv == CKR_OK) {
                sawObject(hPub);
                sawObject(hPriv);
            }
            break;
        }
        case 11: case 12: case 13: case 14: case 15: {  // one operation: init, then parts
            const CK_SESSION_HANDLE s = session();
            CK_MECHANISM m = mechanism();
            const int kind = op % 24 - 11;  // encrypt, decrypt, sign, verify, digest
            const CK_OBJECT_HANDLE key = object();
            switch (kind) {
            case 0: rv = f_->C_EncryptInit(s, &m, key); break;
            case 1: rv = f_->C_DecryptInit(s, &m, key); break;
            case 2: rv = f_->C_SignInit(s, &m, key); break;
            case 3: rv = f_->C_VerifyInit(s, &m, key); break;
            default: rv = f_->C_DigestInit(s, &m); break;
            }
            check(rv);
            for (int parts = in_.byte() % 4; parts >= 0; --parts) {
                Bytes input = data();
                CK_BYTE* p = input.empty() ? nullptr : input.data();
                const CK_ULONG n = input.size();
                const uint8_t form = in_.byte() % 3;  // single, update, final
                if (std::getenv("KORVO_FUZZ_TRACE"))
                    std::fprintf(stderr, "  part %d, %lu bytes\n", kind * 3 + form, static_cast<unsigned long>(n));
                switch (kind * 3 + form) {
                case 0: rv = output([&](CK_BYTE* o, CK_ULONG* l) { return f_->C_Encrypt(s, p, n, o, l); }); break;
                case 1: rv = output([&](CK_BYTE* o, CK_ULONG* l) { return f_->C_EncryptUpdate(s, p, n, o, l); }); break;
                case 2: rv = output([&](CK_BYTE* o, CK_ULONG* l) { return f_->C_EncryptFinal(s, o, l); }); break;
                case 3: rv = output([&](CK_BYTE* o, CK_ULONG* l) { return f_->C_Decrypt(s, p, n, o, l); }); break;
                case 4: rv = output([&](CK_BYTE* o, CK_ULONG* l) { return f_->C_DecryptUpdate(s, p, n, o, l); }); break;
                case 5: rv = output([&](CK_BYTE* o, CK_ULONG* l) { return f_->C_DecryptFinal(s, o, l); }); break;
                case 6: rv = output([&](CK_BYTE* o, CK_ULONG* l) { return f_->C_Sign(s, p, n, o, l); }); break;
                case 7: rv = f_->C_SignUpdate(s, p, n); break;
                case 8: rv = output([&](CK_BYTE* o, CK_ULONG* l) { return f_->C_SignFinal(s, o, l); }); break;
                case 9: {
                    Bytes signature = data();
                    rv = f_->C_Verify(s, p, n, signature.empty() ? nullptr : signature.data(), signature.size());
                    break;
                }
                case 10: rv = f_->C_VerifyUpdate(s, p, n); break;
                case 11: rv = f_->C_VerifyFinal(s, p, n); break;
                case 12: rv = output([&](CK_BYTE* o, CK_ULONG* l) { return f_->C_Digest(s, p, n, o, l); }); break;
                case 13: rv = in_.byte() & 1 ? f_->C_DigestKey(s, object()) : f_->C_DigestUpdate(s, p, n); break;
                default: rv = output([&](CK_BYTE* o, CK_ULONG* l) { return f_->C_DigestFinal(s, o, l); }); break;
                }
                check(rv);
            }
            break;
        }
        case 16: {  // C_WrapKey
            CK_MECHANISM m = mechanism();
            const CK_SESSION_HANDLE s = session();
            const CK_OBJECT_HANDLE wrapping = object(), key = object();
            rv = output([&](CK_BYTE* o, CK_ULONG* l) { return f_->C_WrapKey(s, &m, wrapping, key, o, l); });
            break;
        }
        case 17: {  // C_UnwrapKey
            CK_MECHANISM m = mechanism();
            std::vector<CK_ATTRIBUTE> t = attributes();
            Bytes wrapped = data();
            CK_OBJECT_HANDLE h = CK_INVALID_HANDLE;
            rv = f_->C_UnwrapKey(session(), &m, object(), wrapped.empty() ? nullptr : wrapped.data(), wrapped.size(),
                                 t.data(), t.size(), &h);
            if (rv == CKR_OK) sawObject(h);
            break;
        }
        case 18: {  // C_DeriveKey
            CK_MECHANISM m = mechanism();
            std::vector<CK_ATTRIBUTE> t = attributes();
            CK_OBJECT_HANDLE h = CK_INVALID_HANDLE;
            const bool handle = in_.byte() % 4 != 0;
            rv = f_->C_DeriveKey(session(), &m, object(), t.data(), t.size(), handle ? &h : nullptr);
            if (rv == CKR_OK && handle && h != CK_INVALID_HANDLE) sawObject(h);
            if (rv == CKR_OK && m.pParameter && m.ulParameterLen == sizeof(CK_SSL3_KEY_MAT_PARAMS) &&
                (m.mechanism == CKM_SSL3_KEY_AND_MAC_DERIVE || m.mechanism == CKM_TLS_KEY_AND_MAC_DERIVE)) {
                const CK_SSL3_KEY_MAT_OUT* out = static_cast<CK_SSL3_KEY_MAT_PARAMS*>(m.pParameter)->pReturnedKeyMaterial;
                for (CK_OBJECT_HANDLE made : {out->hClientMacSecret, out->hServerMacSecret, out->hClientKey, out->hServerKey})
                    if (made != CK_INVALID_HANDLE) sawObject(made);
            }
            break;
        }
        case 19: {  // random numbers
            Bytes bytes = in_.bytes(kMaxBuffer);
            rv = in_.byte() & 1 ? f_->C_SeedRandom(session(), bytes.empty() ? nullptr : bytes.data(), bytes.size())
                                : f_->C_GenerateRandom(session(), bytes.empty() ? nullptr : bytes.data(), bytes.size());
            break;
        }
        case 20: {  // slot, token and mechanism information
            CK_SLOT_ID slot = in_.byte() % 8 == 0 ? 3 : 0;
            CK_MECHANISM_TYPE types[64];
            CK_ULONG count = in_.byte() % 65;
            rv = f_->C_GetMechanismList(slot, in_.byte() & 1 ? types : nullptr, &count);
            check(rv);
            CK_MECHANISM_INFO mechInfo;
            rv = f_->C_GetMechanismInfo(slot, mechanism().mechanism, &mechInfo);
            check(rv);
            CK_TOKEN_INFO tokenInfo;
            rv = f_->C_GetTokenInfo(slot, &tokenInfo);
            check(rv);
            CK_SLOT_ID slots[2];
            count = in_.byte() % 3;
            rv = f_->C_GetSlotList(in_.byte() & 1, in_.byte() & 1 ? slots : nullptr, &count);
            break;
        }
        case 21: {  // operation state: saved, then given back
            const CK_SESSION_HANDLE s = session();
            rv = output([&](CK_BYTE* o, CK_ULONG* l) { return f_->C_GetOperationState(s, o, l); });
            check(rv);
            Bytes given = data();
            rv = f_->C_SetOperationState(s, given.empty() ? nullptr : given.data(), given.size(), object(), object());
            break;
        }
        case 22: {  // the legacy and the unsupported calls
            const CK_SESSION_HANDLE s = session();
            rv = in_.byte() & 1 ? f_->C_GetFunctionStatus(s) : f_->C_CancelFunction(s);
            check(rv);
            CK_SLOT_ID slot;
            rv = f_->C_WaitForSlotEvent(CKF_DONT_BLOCK, &slot, nullptr);
            break;
        }
        default:  // the library finalised and initialised again
            finalize();
            initialize();
            break;
        }
        check(rv);
        // KORVO_FUZZ_TRACE=1 shows each step while a finding is examined.
        static const bool trace = std::getenv("KORVO_FUZZ_TRACE") != nullptr;
        if (trace) std::fprintf(stderr, "step %d: 0x%lx\n", op % 24, static_cast<unsigned long>(rv));
        if (initialized_) checkSessions();
    }

    Reader in_;
    Arena arena_;
    CK_FUNCTION_LIST_PTR f_ = nullptr;
    bool initialized_ = false;
    std::set<CK_SESSION_HANDLE> open_;
    std::vector<CK_SESSION_HANDLE> seenSessions_;
    std::vector<CK_OBJECT_HANDLE> objects_;
    std::vector<Bytes> outputs_;
};

// Every file below a folder with its bytes.
std::map<std::string, std::string> snapshot(const fs::path& folder)
{
    std::map<std::string, std::string> files;
    std::error_code error;
    for (auto it = fs::recursive_directory_iterator(folder, error); !error && it != fs::recursive_directory_iterator();
         it.increment(error)) {
        if (!it->is_regular_file()) continue;
        std::ifstream in(it->path(), std::ios::binary);
        files[it->path().string()] = std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    return files;
}

const fs::path& storeFolder()
{
    static const fs::path folder = [] {
        const char* home = std::getenv("HOME");
        KORVO_FUZZ_REQUIRE(home != nullptr);
        const fs::path target = fs::path(home) / ".korvo";
        if (!fs::exists(target / "user_certificates")) {
            fs::create_directories(target);
            fs::copy(fs::path(KORVO_TEST_CERTS_DIR) / "store", target,
                     fs::copy_options::recursive | fs::copy_options::overwrite_existing);
        }
        return target;
    }();
    return folder;
}

}  // namespace

void CallSequenceInput(const uint8_t* data, size_t size)
{
    static const std::map<std::string, std::string> before = snapshot(storeFolder());
    KORVO_FUZZ_REQUIRE(!before.empty());
    Program(data, size).run();
    KORVO_FUZZ_REQUIRE(snapshot(storeFolder()) == before);
}

}  // namespace korvo_fuzz
