// Every one of the 68 entry points, called as a careless application calls
// it: with null for each pointer it takes, with the handle of a closed
// session and of a destroyed object, and after C_Finalize. Each answers with
// a code; none crashes; the calls that make objects make none without a
// place for the handle.

#include <gtest/gtest.h>

#include <functional>
#include <set>

#include "abi/object_helpers.h"

namespace korvo {
namespace {

// What each row's call gets: a session, an object (a secret key that may
// encrypt, sign, wrap and derive), and whether every pointer is null.
struct Args {
    CK_FUNCTION_LIST_PTR p;
    CK_SESSION_HANDLE s;
    CK_OBJECT_HANDLE o;
    bool nulls;
};

struct Entry {
    const char* name;
    std::function<CK_RV(const Args&)> call;
};

// Buffers that are there unless the row is to pass null.
struct Buffers {
    CK_BYTE bytes[256] = {};
    CK_ULONG length = sizeof bytes;
    CK_OBJECT_HANDLE handle = CK_INVALID_HANDLE, other = CK_INVALID_HANDLE;
    CK_MECHANISM ecb{CKM_AES_ECB, nullptr, 0};
    CK_MECHANISM digest{CKM_SHA256, nullptr, 0};
    CK_MECHANISM generate{CKM_AES_KEY_GEN, nullptr, 0};
    CK_ULONG valueLength = 16;
    CK_ATTRIBUTE attribute{CKA_VALUE_LEN, &valueLength, sizeof valueLength};
    CK_INFO info{};
    CK_SLOT_INFO slotInfo{};
    CK_TOKEN_INFO tokenInfo{};
    CK_MECHANISM_INFO mechanismInfo{};
    CK_SESSION_INFO sessionInfo{};
    CK_SLOT_ID slot = 0;
    CK_MECHANISM_TYPE types[64] = {};
    CK_ULONG count = 64;
    CK_FUNCTION_LIST_PTR list = nullptr;
};

template <typename T>
T* maybe(const Args& a, T* pointer)
{
    return a.nulls ? nullptr : pointer;
}

std::vector<Entry> entries(Buffers& b)
{
    auto B = [&](const Args& a) { return maybe(a, b.bytes); };
    auto L = [&](const Args& a) {
        b.length = sizeof b.bytes;
        return maybe(a, &b.length);
    };
    auto M = [&](const Args& a, CK_MECHANISM* m) { return maybe(a, m); };
    auto T = [&](const Args& a) { return maybe(a, &b.attribute); };
    auto H = [&](const Args& a) { return maybe(a, &b.handle); };
    const CK_ULONG n = 16;
    return {
        {"C_Initialize", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_Initialize(nullptr); }},
        {"C_Finalize", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_Finalize(nullptr); }},
        {"C_GetInfo", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_GetInfo(maybe(a, &b.info)); }},
        {"C_GetFunctionList", [&b, B, L, M, T, H, n](const Args& a) { return a.nulls ? CKR_OK : a.p->C_GetFunctionList(&b.list); }},
        {"C_GetSlotList", [&b, B, L, M, T, H, n](const Args& a) { b.count = 64; return a.p->C_GetSlotList(CK_FALSE, maybe(a, &b.slot), maybe(a, &b.count)); }},
        {"C_GetSlotInfo", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_GetSlotInfo(0, maybe(a, &b.slotInfo)); }},
        {"C_GetTokenInfo", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_GetTokenInfo(0, maybe(a, &b.tokenInfo)); }},
        {"C_GetMechanismList", [&b, B, L, M, T, H, n](const Args& a) { b.count = 64; return a.p->C_GetMechanismList(0, maybe(a, b.types), maybe(a, &b.count)); }},
        {"C_GetMechanismInfo", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_GetMechanismInfo(0, CKM_SHA256, maybe(a, &b.mechanismInfo)); }},
        {"C_InitToken", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_InitToken(0, B(a), 4, B(a)); }},
        {"C_InitPIN", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_InitPIN(a.s, B(a), 4); }},
        {"C_SetPIN", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_SetPIN(a.s, B(a), 4, B(a), 4); }},
        {"C_OpenSession", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_OpenSession(0, CKF_SERIAL_SESSION, nullptr, nullptr, H(a)); }},
        {"C_CloseSession", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_CloseSession(a.s + 1000); }},
        {"C_CloseAllSessions", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_CloseAllSessions(7); }},
        {"C_GetSessionInfo", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_GetSessionInfo(a.s, maybe(a, &b.sessionInfo)); }},
        {"C_GetOperationState", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_GetOperationState(a.s, B(a), L(a)); }},
        {"C_SetOperationState", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_SetOperationState(a.s, B(a), n, a.o, a.o); }},
        {"C_Login", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_Login(a.s, CKU_USER, B(a), 4); }},
        {"C_Logout", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_Logout(a.s); }},
        {"C_CreateObject", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_CreateObject(a.s, T(a), 1, H(a)); }},
        {"C_CopyObject", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_CopyObject(a.s, a.o, T(a), 1, H(a)); }},
        {"C_DestroyObject", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_DestroyObject(a.s, a.o + 1000); }},
        {"C_GetObjectSize", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_GetObjectSize(a.s, a.o, L(a)); }},
        {"C_GetAttributeValue", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_GetAttributeValue(a.s, a.o, T(a), 1); }},
        {"C_SetAttributeValue", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_SetAttributeValue(a.s, a.o, T(a), 1); }},
        {"C_FindObjectsInit", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_FindObjectsInit(a.s, T(a), 1); }},
        {"C_FindObjects", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_FindObjects(a.s, H(a), 1, L(a)); }},
        {"C_FindObjectsFinal", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_FindObjectsFinal(a.s); }},
        {"C_EncryptInit", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_EncryptInit(a.s, M(a, &b.ecb), a.o); }},
        {"C_Encrypt", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_Encrypt(a.s, B(a), n, B(a), L(a)); }},
        {"C_EncryptUpdate", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_EncryptUpdate(a.s, B(a), n, B(a), L(a)); }},
        {"C_EncryptFinal", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_EncryptFinal(a.s, B(a), L(a)); }},
        {"C_DecryptInit", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_DecryptInit(a.s, M(a, &b.ecb), a.o); }},
        {"C_Decrypt", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_Decrypt(a.s, B(a), n, B(a), L(a)); }},
        {"C_DecryptUpdate", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_DecryptUpdate(a.s, B(a), n, B(a), L(a)); }},
        {"C_DecryptFinal", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_DecryptFinal(a.s, B(a), L(a)); }},
        {"C_DigestInit", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_DigestInit(a.s, M(a, &b.digest)); }},
        {"C_Digest", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_Digest(a.s, B(a), n, B(a), L(a)); }},
        {"C_DigestUpdate", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_DigestUpdate(a.s, B(a), n); }},
        {"C_DigestKey", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_DigestKey(a.s, a.o); }},
        {"C_DigestFinal", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_DigestFinal(a.s, B(a), L(a)); }},
        {"C_SignInit", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_SignInit(a.s, M(a, &b.ecb), a.o); }},
        {"C_Sign", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_Sign(a.s, B(a), n, B(a), L(a)); }},
        {"C_SignUpdate", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_SignUpdate(a.s, B(a), n); }},
        {"C_SignFinal", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_SignFinal(a.s, B(a), L(a)); }},
        {"C_SignRecoverInit", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_SignRecoverInit(a.s, M(a, &b.ecb), a.o); }},
        {"C_SignRecover", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_SignRecover(a.s, B(a), n, B(a), L(a)); }},
        {"C_VerifyInit", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_VerifyInit(a.s, M(a, &b.ecb), a.o); }},
        {"C_Verify", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_Verify(a.s, B(a), n, B(a), n); }},
        {"C_VerifyUpdate", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_VerifyUpdate(a.s, B(a), n); }},
        {"C_VerifyFinal", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_VerifyFinal(a.s, B(a), n); }},
        {"C_VerifyRecoverInit", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_VerifyRecoverInit(a.s, M(a, &b.ecb), a.o); }},
        {"C_VerifyRecover", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_VerifyRecover(a.s, B(a), n, B(a), L(a)); }},
        {"C_DigestEncryptUpdate", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_DigestEncryptUpdate(a.s, B(a), n, B(a), L(a)); }},
        {"C_DecryptDigestUpdate", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_DecryptDigestUpdate(a.s, B(a), n, B(a), L(a)); }},
        {"C_SignEncryptUpdate", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_SignEncryptUpdate(a.s, B(a), n, B(a), L(a)); }},
        {"C_DecryptVerifyUpdate", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_DecryptVerifyUpdate(a.s, B(a), n, B(a), L(a)); }},
        {"C_GenerateKey", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_GenerateKey(a.s, M(a, &b.generate), T(a), 1, H(a)); }},
        {"C_GenerateKeyPair",
         [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_GenerateKeyPair(a.s, M(a, &b.generate), T(a), 1, T(a), 1, H(a), maybe(a, &b.other)); }},
        {"C_WrapKey", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_WrapKey(a.s, M(a, &b.ecb), a.o, a.o, B(a), L(a)); }},
        {"C_UnwrapKey", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_UnwrapKey(a.s, M(a, &b.ecb), a.o, B(a), n, T(a), 1, H(a)); }},
        {"C_DeriveKey", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_DeriveKey(a.s, M(a, &b.ecb), a.o, T(a), 1, H(a)); }},
        {"C_SeedRandom", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_SeedRandom(a.s, B(a), n); }},
        {"C_GenerateRandom", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_GenerateRandom(a.s, B(a), n); }},
        {"C_GetFunctionStatus", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_GetFunctionStatus(a.s); }},
        {"C_CancelFunction", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_CancelFunction(a.s); }},
        {"C_WaitForSlotEvent", [&b, B, L, M, T, H, n](const Args& a) { return a.p->C_WaitForSlotEvent(CKF_DONT_BLOCK, maybe(a, &b.slot), nullptr); }},
    };
}

class EntryPoints : public ObjectTest {
protected:
    CK_OBJECT_HANDLE usableKey()
    {
        Tmpl t;
        t.ulong(CKA_CLASS, CKO_SECRET_KEY).ulong(CKA_KEY_TYPE, CKK_AES).add(CKA_VALUE, Bytes(16, 3));
        t.flag(CKA_DERIVE, true).flag(CKA_EXTRACTABLE, true);
        return make(t);
    }
};

TEST_F(EntryPoints, EveryEntryPointAnswersEveryCarelessCall)
{
    Buffers buffers;
    const std::vector<Entry> table = entries(buffers);
    ASSERT_EQ(table.size(), 68u);
    const std::set<std::string> makers = {"C_CreateObject", "C_CopyObject", "C_GenerateKey", "C_GenerateKeyPair",
                                          "C_UnwrapKey"};
    // Null for every pointer: a code; the creating calls refuse and make nothing.
    for (const Entry& e : table) {
        if (std::string(e.name) == "C_Finalize" || std::string(e.name) == "C_Initialize") continue;
        SCOPED_TRACE(e.name);
        const CK_OBJECT_HANDLE key = usableKey();
        const size_t before = find().size();
        const CK_RV rv = e.call({p, session, key, true});
        if (makers.count(e.name)) {
            EXPECT_EQ(rv, CKR_ARGUMENTS_BAD);
            EXPECT_EQ(find().size(), before);
        }
        p->C_FindObjectsFinal(session);  // whatever a call left running
    }
    // A closed session and a destroyed object.
    CK_SESSION_HANDLE closed = openSession();
    ASSERT_EQ(p->C_CloseSession(closed), CKR_OK);
    const CK_OBJECT_HANDLE destroyed = usableKey();
    ASSERT_EQ(p->C_DestroyObject(session, destroyed), CKR_OK);
    const std::set<std::string> noSession = {"C_Initialize", "C_Finalize", "C_GetInfo", "C_GetFunctionList",
        "C_GetSlotList", "C_GetSlotInfo", "C_GetTokenInfo", "C_GetMechanismList", "C_GetMechanismInfo", "C_InitToken",
        "C_OpenSession", "C_CloseAllSessions", "C_WaitForSlotEvent", "C_GetAttributeValue", "C_SetAttributeValue"};
    for (const Entry& e : table) {
        if (std::string(e.name) == "C_Finalize" || std::string(e.name) == "C_Initialize") continue;
        SCOPED_TRACE(e.name);
        const CK_RV withClosed = e.call({p, closed, usableKey(), false});
        if (!noSession.count(e.name)) {
            EXPECT_NE(withClosed, CKR_OK);
        }
        const CK_RV withDestroyed = e.call({p, session, destroyed, false});
        (void)withDestroyed;  // a code is all that is asked: no crash
        p->C_FindObjectsFinal(session);
    }
    // After C_Finalize, everything but what needs no library answers
    // CKR_CRYPTOKI_NOT_INITIALIZED (an encryption update looks for its
    // session first, and the missing token answers).
    ASSERT_EQ(p->C_Finalize(nullptr), CKR_OK);
    const std::set<std::string> withoutLibrary = {"C_Initialize", "C_GetFunctionList", "C_GetOperationState",
        "C_SetOperationState", "C_GetObjectSize", "C_DigestEncryptUpdate", "C_DecryptDigestUpdate",
        "C_SignEncryptUpdate", "C_DecryptVerifyUpdate", "C_GetFunctionStatus", "C_CancelFunction", "C_EncryptUpdate"};
    for (const Entry& e : table) {
        SCOPED_TRACE(e.name);
        if (std::string(e.name) == "C_Initialize") continue;
        const CK_RV rv = e.call({p, session, 1, false});
        if (!withoutLibrary.count(e.name)) {
            EXPECT_EQ(rv, CKR_CRYPTOKI_NOT_INITIALIZED);
        }
    }
    ASSERT_EQ(p->C_Initialize(nullptr), CKR_OK);
}

}  // namespace
}  // namespace korvo
