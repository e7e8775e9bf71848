#include "pkcs11/sw/P11Sw_tls.h"

#include <cstring>

#include "crypto/bytes.h"
#include "crypto/crypto_errors.h"
#include "crypto/hash.h"
#include "crypto/tls.h"
#include "pkcs11/P11Session.h"
#include "pkcs11/P11Token.h"
#include "pkcs11/objects/P11Obj.h"
#include "pkcs11/sw/P11Sw_keys.h"
#include "pkcs11/sw/P11Sw_secret.h"

namespace {

constexpr size_t kSecretLength = 48;  // pre-master and master secrets

bool isTls(CK_MECHANISM_TYPE type)
{
    return type == CKM_TLS_PRE_MASTER_KEY_GEN || type == CKM_TLS_MASTER_KEY_DERIVE ||
           type == CKM_TLS_MASTER_KEY_DERIVE_DH || type == CKM_TLS_KEY_AND_MAC_DERIVE;
}

CK_RV code(int rc)
{
    return rc == CRYPTO_ERR_BAD_PARAMETER ? CKR_MECHANISM_PARAM_INVALID : P11SwKeys_code(rc);
}

bool present(const void* bytes, CK_ULONG length)
{
    return bytes || !length;
}

// A derived secret: a generic secret unless the template says otherwise,
// of exactly the given bytes. A template that asks for another length does
// not fit.
CK_RV storeSecret(P11Obj* key, const crypto_bytes& value)
{
    const CK_ATTRIBUTE* given = nullptr;
    CK_RV rv = P11Obj_peekAttribute(key, CKA_CLASS, &given);
    if (rv == CKR_OK && !given) rv = P11Obj_setUlongValue(key, CKA_CLASS, CKO_SECRET_KEY);
    if (rv == CKR_OK) rv = P11Obj_peekAttribute(key, CKA_KEY_TYPE, &given);
    if (rv == CKR_OK && !given) rv = P11Obj_setUlongValue(key, CKA_KEY_TYPE, CKK_GENERIC_SECRET);
    CK_ULONG length = 0;
    if (rv == CKR_OK && P11Obj_getKeyValueLength(key, &length) == CKR_OK && length != value.size())
        rv = CKR_TEMPLATE_INCONSISTENT;
    if (rv == CKR_OK) rv = P11SwKeys_setNumber(key, CKA_VALUE, value);
    return rv;
}

// Client and server random, concatenated in the order given.
crypto_bytes randoms(const CK_SSL3_RANDOM_DATA& r, bool clientFirst)
{
    crypto_bytes out;
    const CK_BYTE* a = clientFirst ? r.pClientRandom : r.pServerRandom;
    const CK_ULONG aLen = clientFirst ? r.ulClientRandomLen : r.ulServerRandomLen;
    const CK_BYTE* b = clientFirst ? r.pServerRandom : r.pClientRandom;
    const CK_ULONG bLen = clientFirst ? r.ulServerRandomLen : r.ulClientRandomLen;
    if (aLen) out.insert(out.end(), a, a + aLen);
    if (bLen) out.insert(out.end(), b, b + bLen);
    return out;
}

bool randomsPresent(const CK_SSL3_RANDOM_DATA& r)
{
    return present(r.pClientRandom, r.ulClientRandomLen) && present(r.pServerRandom, r.ulServerRandomLen);
}

// SSL 3.0 or TLS 1.0 expansion of a secret with "key expansion" (TLS) or
// with the randoms server first (SSL 3.0).
int expand(bool tls, const crypto_bytes& secret, const char* label, const crypto_bytes& seed, const CK_SSL3_RANDOM_DATA& r,
           bool clientFirst, crypto_bytes* out)
{
    if (tls)
        return tls_prf(secret.data(), secret.size(), reinterpret_cast<const unsigned char*>(label), std::strlen(label),
                       seed.data(), seed.size(), out->data(), out->size());
    const CK_BYTE* first = clientFirst ? r.pClientRandom : r.pServerRandom;
    const CK_ULONG firstLen = clientFirst ? r.ulClientRandomLen : r.ulServerRandomLen;
    const CK_BYTE* second = clientFirst ? r.pServerRandom : r.pClientRandom;
    const CK_ULONG secondLen = clientFirst ? r.ulServerRandomLen : r.ulClientRandomLen;
    return ssl3_expand(secret.data(), secret.size(), first, firstLen, second, secondLen, out->data(), out->size());
}

// MD5 of the parts, for SSL 3.0's export keys and IVs.
int md5Of(std::initializer_list<const crypto_bytes*> parts, crypto_bytes* digest)
{
    hash_context* ctx = nullptr;
    int rc = start_hash(HASH_MD5, &ctx);
    for (const crypto_bytes* part : parts)
        if (rc == CRYPTO_OK) rc = do_hash(ctx, part->data(), part->size());
    digest->assign(16, 0);
    if (rc == CRYPTO_OK) return stop_hash(ctx, digest->data());
    abort_hash(ctx);
    return rc;
}

}  // namespace

CK_RV P11SwTls_generatePreMaster(const P11Mechanism& row, P11Obj* key, P11Session* session, CK_MECHANISM_PTR mechanism)
{
    if (!mechanism->pParameter || mechanism->ulParameterLen != sizeof(CK_VERSION)) return CKR_MECHANISM_PARAM_INVALID;
    const auto* version = static_cast<const CK_VERSION*>(mechanism->pParameter);
    CK_ULONG length = 0;
    if (P11Obj_getUlongValue(key, CKA_VALUE_LEN, &length) == CKR_OK && length != kSecretLength)
        return CKR_TEMPLATE_INCONSISTENT;
    // The client's version, then 46 random bytes.
    crypto_bytes value(kSecretLength);
    value[0] = version->major;
    value[1] = version->minor;
    CK_RV rv = P11Session_generateRandom(session, value.data() + 2, kSecretLength - 2);
    if (rv == CKR_OK) rv = P11SwKeys_setHead(key, CKO_SECRET_KEY, CKK_GENERIC_SECRET, row.type);
    if (rv == CKR_OK) rv = P11Obj_setUlongValue(key, CKA_VALUE_LEN, kSecretLength);
    if (rv == CKR_OK) rv = P11SwKeys_setNumber(key, CKA_VALUE, value);
    return rv;
}

CK_RV P11SwTls_deriveMaster(const P11Mechanism& row, P11Obj* baseKey, P11Session*, CK_MECHANISM_PTR mechanism,
                            P11Obj* newKey)
{
    if (!mechanism->pParameter || mechanism->ulParameterLen != sizeof(CK_SSL3_MASTER_KEY_DERIVE_PARAMS))
        return CKR_MECHANISM_PARAM_INVALID;
    const auto* params = static_cast<const CK_SSL3_MASTER_KEY_DERIVE_PARAMS*>(mechanism->pParameter);
    const bool dh = row.type == CKM_SSL3_MASTER_KEY_DERIVE_DH || row.type == CKM_TLS_MASTER_KEY_DERIVE_DH;
    if (!randomsPresent(params->RandomInfo) || (!dh && !params->pVersion)) return CKR_MECHANISM_PARAM_INVALID;
    crypto_bytes preMaster;
    CK_RV rv = P11SwKeys_readNumber(baseKey, CKA_VALUE, &preMaster);
    if (rv != CKR_OK) return rv;
    // An RSA key exchange's pre-master secret is 48 bytes and starts with
    // the client's version; a Diffie-Hellman one is the shared secret.
    if (!dh && preMaster.size() != kSecretLength) return CKR_KEY_SIZE_RANGE;
    if (preMaster.empty()) return CKR_KEY_SIZE_RANGE;
    crypto_bytes master(kSecretLength);
    const bool tls = isTls(row.type);
    const int rc = expand(tls, preMaster, "master secret", randoms(params->RandomInfo, true), params->RandomInfo, true,
                          &master);
    if (rc != CRYPTO_OK) return code(rc);
    rv = storeSecret(newKey, master);
    if (rv == CKR_OK && !dh) {
        params->pVersion->major = preMaster[0];
        params->pVersion->minor = preMaster[1];
    }
    return rv;
}

namespace {

// The keys one key-and-MAC derivation makes, registered together: if one
// cannot be, those made before are taken back.
struct MadeKeys {
    P11Session* session = nullptr;
    P11Obj* made[4] = {};
    size_t count = 0;

    ~MadeKeys()
    {
        for (size_t i = 0; i < count; ++i) P11Obj_destruct(&made[i]);
    }

    void takeBack()
    {
        for (size_t i = 0; i < count; ++i) P11Obj_removeObject(made[i], session);
    }
};

// A cipher key's value as the template's key type wants it: DES keys of
// every length with odd parity, the others as derived.
crypto_bytes withParity(P11Obj* model, const crypto_bytes& value)
{
    crypto_bytes key(value);
    CK_ULONG type = 0;
    if (P11Obj_getUlongValue(model, CKA_KEY_TYPE, &type) == CKR_OK &&
        (type == CKK_DES || type == CKK_DES2 || type == CKK_DES3))
        P11SwSecret_setOddParity(key.data(), key.size());
    return key;
}

// One derived key: the template's attributes (through `model`, the object
// C_DeriveKey built from it) for a cipher key, or a generic secret that
// signs and verifies for a MAC secret; the value; completion; and
// registration.
CK_RV makeKey(MadeKeys* keys, P11Obj* model, bool macSecret, const crypto_bytes& value, bool everExposed,
              CK_OBJECT_HANDLE* handle)
{
    P11Obj* key = nullptr;
    CK_RV rv = P11Obj_SW_construct(&key);
    if (rv != CKR_OK) return rv;
    keys->made[keys->count++] = key;
    rv = P11Obj_copy(model, key);
    if (rv == CKR_OK && macSecret) {
        rv = P11Obj_setUlongValue(key, CKA_KEY_TYPE, CKK_GENERIC_SECRET);
        if (rv == CKR_OK) rv = P11Obj_setBoolValue(key, CKA_SIGN, CK_TRUE);
        if (rv == CKR_OK) rv = P11Obj_setBoolValue(key, CKA_VERIFY, CK_TRUE);
        if (rv == CKR_OK) rv = P11Obj_setUlongValue(key, CKA_VALUE_LEN, CK_ULONG(value.size()));
    }
    if (rv == CKR_OK) rv = P11Obj_setUlongValue(key, CKA_CLASS, CKO_SECRET_KEY);
    if (rv == CKR_OK) rv = storeSecret(key, macSecret ? value : withParity(model, value));
    P11Session* session = keys->session;
    if (rv == CKR_OK) rv = P11Obj_completeObject(key, session, P11Session_getToken(session));
    if (rv == CKR_OK && everExposed) rv = P11Obj_setBoolValue(key, CKA_ALWAYS_SENSITIVE, CK_FALSE);
    if (rv == CKR_OK) rv = P11Obj_addObject(key, session);
    if (rv != CKR_OK) {
        P11Obj_destruct(&keys->made[--keys->count]);
        return rv;
    }
    return P11Token_objectPointerToHandle(P11Session_getToken(session), key, handle);
}

bool holdsFalse(P11Obj* key, CK_ATTRIBUTE_TYPE type)
{
    CK_BBOOL value = CK_TRUE;
    return P11Obj_getBoolValue(key, type, &value) == CKR_OK && value == CK_FALSE;
}

}  // namespace

CK_RV P11SwTls_deriveKeys(const P11Mechanism& row, P11Obj* baseKey, P11Session* session, CK_MECHANISM_PTR mechanism,
                          P11Obj* newKey)
{
    if (!mechanism->pParameter || mechanism->ulParameterLen != sizeof(CK_SSL3_KEY_MAT_PARAMS))
        return CKR_MECHANISM_PARAM_INVALID;
    auto* params = static_cast<CK_SSL3_KEY_MAT_PARAMS*>(mechanism->pParameter);
    CK_SSL3_KEY_MAT_OUT* out = params->pReturnedKeyMaterial;
    const size_t macLen = params->ulMacSizeInBits / 8, keyLen = params->ulKeySizeInBits / 8,
                 ivLen = params->ulIVSizeInBits / 8;
    const bool exported = params->bIsExport != CK_FALSE;
    if (!out || !randomsPresent(params->RandomInfo) || params->ulMacSizeInBits % 8 || params->ulKeySizeInBits % 8 ||
        params->ulIVSizeInBits % 8 || (ivLen && (!out->pIVClient || !out->pIVServer)) || macLen > 64 || keyLen > 64 ||
        ivLen > 32 || (exported && !keyLen))
        return CKR_MECHANISM_PARAM_INVALID;
    const bool tls = isTls(row.type);
    crypto_bytes master;
    CK_RV rv = P11SwKeys_readNumber(baseKey, CKA_VALUE, &master);
    if (rv != CKR_OK) return rv;
    if (master.size() != kSecretLength) return CKR_KEY_SIZE_RANGE;
    // An export key is stretched to the length of the template's key type
    // (or its CKA_VALUE_LEN); otherwise the key length is the parameter's.
    size_t finalKeyLen = keyLen;
    if (exported) {
        CK_ULONG length = 0;
        if (P11Obj_getKeyValueLength(newKey, &length) != CKR_OK || length == 0 || length > 64)
            return CKR_TEMPLATE_INCOMPLETE;
        finalKeyLen = length;
    }

    // The key block: client MAC, server MAC, client key, server key, and
    // (not for export) client IV, server IV.
    const crypto_bytes serverFirst = randoms(params->RandomInfo, false), clientFirst = randoms(params->RandomInfo, true);
    crypto_bytes block(2 * macLen + 2 * keyLen + (exported ? 0 : 2 * ivLen));
    int rc = block.empty() ? CRYPTO_OK : expand(tls, master, "key expansion", serverFirst, params->RandomInfo, false, &block);
    if (rc != CRYPTO_OK) return code(rc);
    size_t at = 0;
    auto take = [&](size_t n) {
        crypto_bytes part(block.begin() + at, block.begin() + at + n);
        at += n;
        return part;
    };
    const crypto_bytes clientMac = take(macLen), serverMac = take(macLen);
    crypto_bytes clientKey = take(keyLen), serverKey = take(keyLen);
    crypto_bytes clientIv, serverIv;
    if (!exported) {
        clientIv = take(ivLen);
        serverIv = take(ivLen);
    } else if (tls) {
        crypto_bytes finalClient(finalKeyLen), finalServer(finalKeyLen), ivs(2 * ivLen);
        rc = tls_prf(clientKey.data(), clientKey.size(), reinterpret_cast<const unsigned char*>("client write key"), 16,
                     clientFirst.data(), clientFirst.size(), finalClient.data(), finalClient.size());
        if (rc == CRYPTO_OK)
            rc = tls_prf(serverKey.data(), serverKey.size(), reinterpret_cast<const unsigned char*>("server write key"),
                         16, clientFirst.data(), clientFirst.size(), finalServer.data(), finalServer.size());
        if (rc == CRYPTO_OK && ivLen)
            rc = tls_prf(nullptr, 0, reinterpret_cast<const unsigned char*>("IV block"), 8, clientFirst.data(),
                         clientFirst.size(), ivs.data(), ivs.size());
        if (rc != CRYPTO_OK) return code(rc);
        clientKey = finalClient;
        serverKey = finalServer;
        clientIv.assign(ivs.begin(), ivs.begin() + ivLen);
        serverIv.assign(ivs.begin() + ivLen, ivs.end());
    } else {
        // SSL 3.0: MD5 of the key and the randoms, client's or server's first.
        crypto_bytes digest;
        if (finalKeyLen > 16 || ivLen > 16) return CKR_MECHANISM_PARAM_INVALID;
        rc = md5Of({&clientKey, &clientFirst}, &digest);
        clientKey.assign(digest.begin(), digest.begin() + finalKeyLen);
        if (rc == CRYPTO_OK) rc = md5Of({&serverKey, &serverFirst}, &digest);
        serverKey.assign(digest.begin(), digest.begin() + finalKeyLen);
        if (rc == CRYPTO_OK) rc = md5Of({&clientFirst}, &digest);
        clientIv.assign(digest.begin(), digest.begin() + ivLen);
        if (rc == CRYPTO_OK) rc = md5Of({&serverFirst}, &digest);
        serverIv.assign(digest.begin(), digest.begin() + ivLen);
        if (rc != CRYPTO_OK) return code(rc);
    }

    // The keys are registered without the base key's lock (registering
    // takes the token's); what they need of the base key is read already.
    const bool everExposed = holdsFalse(baseKey, CKA_ALWAYS_SENSITIVE) || holdsFalse(baseKey, CKA_NEVER_EXTRACTABLE);
    CK_OBJECT_HANDLE handles[4] = {CK_INVALID_HANDLE, CK_INVALID_HANDLE, CK_INVALID_HANDLE, CK_INVALID_HANDLE};
    rv = P11Obj_runUnlocked(baseKey, [&] {
        MadeKeys keys;
        keys.session = session;
        CK_RV made = makeKey(&keys, newKey, true, clientMac, everExposed, &handles[0]);
        if (made == CKR_OK) made = makeKey(&keys, newKey, true, serverMac, everExposed, &handles[1]);
        if (made == CKR_OK && keyLen) made = makeKey(&keys, newKey, false, clientKey, everExposed, &handles[2]);
        if (made == CKR_OK && keyLen) made = makeKey(&keys, newKey, false, serverKey, everExposed, &handles[3]);
        if (made != CKR_OK) keys.takeBack();
        return made;
    });
    if (rv != CKR_OK) return rv;
    out->hClientMacSecret = handles[0];
    out->hServerMacSecret = handles[1];
    out->hClientKey = handles[2];
    out->hServerKey = handles[3];
    if (ivLen) {
        std::memcpy(out->pIVClient, clientIv.data(), ivLen);
        std::memcpy(out->pIVServer, serverIv.data(), ivLen);
    }
    // The object C_DeriveKey passed is completed after this derivation
    // (the SSL 3.0 one skips it): it becomes a copy of the client's write
    // key, or of its MAC secret when there is no cipher key.
    if (row.type == CKM_TLS_KEY_AND_MAC_DERIVE) {
        if (!keyLen) P11Obj_setUlongValue(newKey, CKA_KEY_TYPE, CKK_GENERIC_SECRET);
        return storeSecret(newKey, keyLen ? withParity(newKey, clientKey) : clientMac);
    }
    return CKR_OK;
}

CK_RV P11SwTls_prf(const P11Mechanism&, P11Obj* baseKey, P11Session*, CK_MECHANISM_PTR mechanism, P11Obj* newKey)
{
    if (!mechanism->pParameter || mechanism->ulParameterLen != sizeof(CK_TLS_PRF_PARAMS))
        return CKR_MECHANISM_PARAM_INVALID;
    const auto* params = static_cast<const CK_TLS_PRF_PARAMS*>(mechanism->pParameter);
    if (!present(params->pSeed, params->ulSeedLen) || !present(params->pLabel, params->ulLabelLen) ||
        !params->pulOutputLen || !params->pOutput || *params->pulOutputLen == 0)
        return CKR_MECHANISM_PARAM_INVALID;
    crypto_bytes secret;
    CK_RV rv = P11SwKeys_readNumber(baseKey, CKA_VALUE, &secret);
    if (rv != CKR_OK) return rv;
    crypto_bytes output(*params->pulOutputLen);
    const int rc = tls_prf(secret.data(), secret.size(), params->pLabel, params->ulLabelLen, params->pSeed,
                           params->ulSeedLen, output.data(), output.size());
    if (rc != CRYPTO_OK) return code(rc);
    std::memcpy(params->pOutput, output.data(), output.size());
    // The output travels in the parameter; the object C_DeriveKey passed
    // (completed after this, kept only when the caller asked for a handle)
    // holds it as a generic secret.
    const CK_ATTRIBUTE* given = nullptr;
    rv = P11Obj_peekAttribute(newKey, CKA_KEY_TYPE, &given);
    if (rv == CKR_OK && !given) rv = P11Obj_setUlongValue(newKey, CKA_VALUE_LEN, CK_ULONG(output.size()));
    return rv == CKR_OK ? storeSecret(newKey, output) : rv;
}
