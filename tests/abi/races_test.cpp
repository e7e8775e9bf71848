// Application threads racing inside the module, with the library's own
// mutexes: one thread destroys, closes, logs out or refreshes what others
// are using. Every answer must be one that the moment allows (the call found
// the session or object, or found it gone), every successful answer must
// carry the right data, and every round must end: a watchdog ends the
// process otherwise. One driver runs the table of cases at the bottom; a
// case makes what a round races over in setUp and gives each thread its
// part in actor. Built with -DKORVO_TSAN=ON this runs under ThreadSanitizer.

#include <filesystem>
#include <ostream>
#include <string>
#include <thread>

#include "abi/race_support.h"
#include "abi/token_fixture.h"

using namespace korvo;

namespace {

constexpr int kMaxThreads = 8;

Bytes bytesOf(const std::string& text)
{
    return Bytes(text.begin(), text.end());
}

Tmpl dataTemplate(const Bytes& label, const Bytes& value)
{
    Tmpl t;
    t.ulong(CKA_CLASS, CKO_DATA).add(CKA_LABEL, label).add(CKA_VALUE, value);
    return t;
}

class Races;

struct RaceCase {
    const char* name;
    int rounds;
    int threads;
    void (*setUp)(Races&);              // the test's thread, before each round (may be null)
    void (*actor)(Races&, int thread);  // every thread of a round
    void (*after)(Races&);              // the test's thread, after the last round (may be null)
};

void PrintTo(const RaceCase& c, std::ostream* out)
{
    *out << c.name;
}

class Races : public TokenTest, public ::testing::WithParamInterface<RaceCase> {
public:
    using ModuleTest::p;
    using InitializedTest::openSession;
    using ObjectTest::find;
    using ObjectTest::make;
    using ObjectTest::session;
    using TokenTest::certificate;
    using TokenTest::idOf;
    using TokenTest::objectOf;

    InitArgs args;
    CK_VOID_PTR initArgs() override
    {
        args.flags = CKF_OS_LOCKING_OK;
        return &args;
    }

    Failures failures;
    std::atomic<int> round{0};
    CK_SESSION_HANDLE own[kMaxThreads] = {};     // one session per thread, open for the whole case
    CK_SESSION_HANDLE target = CK_INVALID_HANDLE; // the session a round closes
    Handles objects;                               // a round's data objects, their labels and values
    std::vector<Bytes> labels, values;
    std::atomic<int> answered{0}, succeeded{0};
    CK_OBJECT_HANDLE signingKey = CK_INVALID_HANDLE;
    Pkey signingReference;
    Bytes digestData;
    Bytes digestExpected = Bytes(32);
    std::vector<Bytes> storeCertificates;         // the refresh case
    std::string moving, parked;
    Pkey movingReference;
    Bytes movingId;

    void SetUp() override
    {
        TokenTest::SetUp();
        if (HasFatalFailure()) return;
        for (CK_SESSION_HANDLE& s : own) s = openSession();
        const Bytes alice = certificate("user-person.der");
        signingKey = objectOf(CKO_PRIVATE_KEY, alice);
        signingReference = certificateKey(alice);
        for (int i = 0; i < 256; ++i) digestData.push_back(CK_BYTE(i * 13));
        unsigned int length = 0;
        EVP_Digest(digestData.data(), digestData.size(), digestExpected.data(), &length, EVP_sha256(), nullptr);
    }

    // `count` data objects in session `in`, with labels and values of this round.
    void makeObjects(CK_SESSION_HANDLE in, int count)
    {
        objects.clear();
        labels.clear();
        values.clear();
        for (int k = 0; k < count; ++k) {
            labels.push_back(bytesOf("round " + std::to_string(round) + " object " + std::to_string(k)));
            values.push_back(Bytes(48, CK_BYTE(round * 7 + k)));
            objects.push_back(make(dataTemplate(labels.back(), values.back()), in));
        }
    }

    // Reads CKA_LABEL and CKA_VALUE of a data object; on CKR_OK they must be
    // the expected ones.
    CK_RV read(int t, CK_SESSION_HANDLE in, CK_OBJECT_HANDLE object, const Bytes& label, const Bytes& value,
               const Codes& gone)
    {
        CK_BYTE labelBuffer[64], valueBuffer[64];
        CK_ATTRIBUTE a[] = {{CKA_LABEL, labelBuffer, sizeof labelBuffer}, {CKA_VALUE, valueBuffer, sizeof valueBuffer}};
        const CK_RV rv = p->C_GetAttributeValue(in, object, a, 2);
        if (failures.check(t, "C_GetAttributeValue", rv, gone) &&
            (a[0].ulValueLen != label.size() || a[1].ulValueLen != value.size() ||
             !std::equal(label.begin(), label.end(), labelBuffer) ||
             !std::equal(value.begin(), value.end(), valueBuffer)))
            failures.add(t, "C_GetAttributeValue returned values the object does not have");
        return rv;
    }
    CK_RV read(int t, CK_SESSION_HANDLE in, size_t k, const Codes& gone)
    {
        return read(t, in, objects[k], labels[k], values[k], gone);
    }

    bool search(int t, CK_SESSION_HANDLE in, Tmpl query, Handles& found, const Codes& gone)
    {
        return searchChecked(p, failures, t, in, query, found, gone);
    }

    // SHA-256 of digestData in four parts; false when a step did not answer
    // CKR_OK.
    bool digest(int t, CK_SESSION_HANDLE in, const Codes& gone)
    {
        CK_MECHANISM sha256 = {CKM_SHA256, nullptr, 0};
        if (!failures.check(t, "C_DigestInit", p->C_DigestInit(in, &sha256), gone)) return false;
        const CK_ULONG part = digestData.size() / 4;
        for (CK_ULONG offset = 0; offset < digestData.size(); offset += part)
            if (!failures.check(t, "C_DigestUpdate", p->C_DigestUpdate(in, digestData.data() + offset, part), gone))
                return false;
        Bytes out(64);
        CK_ULONG length = out.size();
        if (!failures.check(t, "C_DigestFinal", p->C_DigestFinal(in, out.data(), &length), gone)) return false;
        out.resize(length);
        if (out != digestExpected) failures.add(t, "C_DigestFinal returned a wrong digest");
        return true;
    }

    // With alice's token key.
    bool sign(int t, CK_SESSION_HANDLE in, const std::string& text, const Codes& gone)
    {
        return signChecked(p, failures, t, in, signingKey, signingReference.get(), text, gone);
    }

    // A round-dependent wait of 0 to 280 microseconds, so that the threads
    // meet at different points of each other's calls.
    void pause() const { std::this_thread::sleep_for(std::chrono::microseconds(round % 8 * 40)); }

    void closeTarget(int t) { failures.check(t, "C_CloseSession", p->C_CloseSession(target), kNone); }
};

// ---- the cases ---------------------------------------------------------------

// Thread 0 wraps each key with itself, 1 wraps A with B, 2 B with A.
void wrapSetUp(Races& r)
{
    r.objects.clear();
    for (int k = 0; k < 2; ++k)
        r.objects.push_back(r.make(secretKey(CKK_AES).flag(CKA_WRAP, true).flag(CKA_EXTRACTABLE, true)));
}
void wrapActor(Races& r, int t)
{
    CK_MECHANISM mechanism = {CKM_AES_ECB, nullptr, 0};
    const CK_OBJECT_HANDLE a = r.objects[0], b = r.objects[1];
    for (int i = 0; i < 200; ++i) {
        const CK_OBJECT_HANDLE wrapping = t == 0 ? (i % 2 ? a : b) : t == 1 ? b : a;
        const CK_OBJECT_HANDLE key = t == 0 ? wrapping : t == 1 ? a : b;
        CK_ULONG length = 0;
        const CK_RV rv = r.p->C_WrapKey(r.own[t], &mechanism, wrapping, key, nullptr, &length);
        r.failures.check(t, "C_WrapKey", rv, kWrapAnswers);
    }
}

// Threads 0 and 1 destroy the round's object (one of them succeeds); 2 and 3
// read it until it is gone.
void destroySetUp(Races& r)
{
    r.makeObjects(r.session, 1);
    r.answered = 0;
    r.succeeded = 0;
}
void destroyActor(Races& r, int t)
{
    if (t < 2) {
        r.pause();
        const CK_RV rv = r.p->C_DestroyObject(r.own[t], r.objects[0]);
        if (r.failures.check(t, "C_DestroyObject", rv, kObjectGone)) ++r.succeeded;
        if (r.answered.fetch_add(1) == 1 && r.succeeded != 1)
            r.failures.add(t, std::to_string(r.succeeded) + " of two C_DestroyObject calls on one object succeeded");
        return;
    }
    for (int i = 0; i < 300 && r.read(t, r.own[t], 0, kObjectGone) == CKR_OK; ++i) {
    }
}

// Thread 0 closes the session that owns four objects; the others read them
// through that session and their own in turn until none is left.
void ownerSetUp(Races& r)
{
    r.target = r.openSession();
    r.makeObjects(r.target, 4);
}
void ownerActor(Races& r, int t)
{
    if (t == 0) {
        r.pause();
        return r.closeTarget(t);
    }
    for (int i = 0, seen = 1; i < 200 && seen; ++i) {
        seen = 0;
        for (size_t k = 0; k < r.objects.size(); ++k)
            seen += r.read(t, (i + k) % 2 ? r.target : r.own[t], k, kObjectGone + kSessionGone) == CKR_OK;
    }
}

void openTarget(Races& r)
{
    r.target = r.openSession();
}

// Thread 0 closes the session in which thread 1 digests in four parts.
void digestActor(Races& r, int t)
{
    if (t == 0) {
        r.pause();
        return r.closeTarget(t);
    }
    for (int i = 0; i < 50 && r.digest(t, r.target, kSessionGone); ++i) {
    }
}

// Thread 0 closes the session in which thread 1 signs through the helper,
// 0 to 9 ms after the start: before, during and after the helper's run.
void signActor(Races& r, int t)
{
    if (t == 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(r.round % 10));
        return r.closeTarget(t);
    }
    r.sign(t, r.target, "round " + std::to_string(r.round), kSessionGone);
}

// Thread 0 closes all sessions three times while the others open sessions,
// create and read objects, digest and search.
void closeAllActor(Races& r, int t)
{
    if (t == 0) {
        for (int i = 0; i < 3; ++i) {
            std::this_thread::sleep_for(std::chrono::microseconds(200 + r.round % 5 * 150));
            r.failures.check(t, "C_CloseAllSessions", r.p->C_CloseAllSessions(0), kNone);
        }
        return;
    }
    const Codes gone = kSessionGone + kObjectGone;
    const Bytes label = bytesOf("close all " + std::to_string(t)), value(16, CK_BYTE(t));
    CK_SESSION_HANDLE s = CK_INVALID_HANDLE;
    for (int i = 0; i < 30; ++i) {
        if (!s && !r.failures.check(t, "C_OpenSession", r.p->C_OpenSession(0, CKF_SERIAL_SESSION, 0, 0, &s), kNone))
            continue;
        bool ok = true;
        if (i % 3 == 0) {
            Tmpl data = dataTemplate(label, value);
            CK_OBJECT_HANDLE object = CK_INVALID_HANDLE;
            const CK_RV rv = r.p->C_CreateObject(s, data.data(), data.size(), &object);
            ok = r.failures.check(t, "C_CreateObject", rv, gone) && r.read(t, s, object, label, value, gone) == CKR_OK;
        } else if (i % 3 == 1) {
            ok = r.digest(t, s, gone);
        } else {
            Handles found;
            ok = r.search(t, s, Tmpl(), found, gone);
        }
        if (!ok || i % 5 == 4) {
            r.failures.check(t, "C_CloseSession", r.p->C_CloseSession(s), kSessionGone);
            s = CK_INVALID_HANDLE;
        }
    }
    if (s) r.failures.check(t, "C_CloseSession", r.p->C_CloseSession(s), kSessionGone);
}
void closeAllAfter(Races& r)
{
    EXPECT_EQ(r.p->C_CloseAllSessions(0), CKR_OK);
    CK_TOKEN_INFO info;
    ASSERT_EQ(r.p->C_GetTokenInfo(0, &info), CKR_OK);
    EXPECT_EQ(info.ulSessionCount, 0u);
    EXPECT_EQ(info.ulRwSessionCount, 0u);
}

// Threads 0 and 1 create and destroy objects labelled "churn" (two alive at
// a time each); 2 and 3 search for them and read every handle found.
void churnActor(Races& r, int t)
{
    const Bytes label = bytesOf("churn"), value(40, 0xC7);
    if (t < 2) {
        CK_OBJECT_HANDLE kept[2] = {};
        for (int i = 0; i < 300; ++i) {
            CK_OBJECT_HANDLE& slot = kept[i % 2];
            if (slot) r.failures.check(t, "C_DestroyObject", r.p->C_DestroyObject(r.own[t], slot), kNone);
            Tmpl data = dataTemplate(label, value);
            const CK_RV rv = r.p->C_CreateObject(r.own[t], data.data(), data.size(), &slot);
            if (!r.failures.check(t, "C_CreateObject", rv, kNone)) slot = CK_INVALID_HANDLE;
        }
        for (CK_OBJECT_HANDLE object : kept)
            if (object) r.failures.check(t, "C_DestroyObject", r.p->C_DestroyObject(r.own[t], object), kNone);
        return;
    }
    for (int i = 0; i < 300; ++i) {
        Handles found;
        if (!r.search(t, r.own[t], Tmpl().add(CKA_LABEL, label), found, kNone)) continue;
        std::sort(found.begin(), found.end());
        if (std::adjacent_find(found.begin(), found.end()) != found.end())
            r.failures.add(t, "a search returned one handle twice");
        for (CK_OBJECT_HANDLE object : found) r.read(t, r.own[t], object, label, value, kObjectGone);
    }
}

// Thread 0 moves a user certificate (carol's) out of the store and back,
// searching after each move (the token refreshes its objects), until the
// others are done; 1 and 2 search the certificates and read their values; 3
// signs with carol's key, found anew each time.
Tmpl certificates()
{
    Tmpl t;
    t.ulong(CKA_CLASS, CKO_CERTIFICATE);
    return t;
}
void refreshSetUp(Races& r)
{
    for (const char* folder : {"user_certificates", "intermediate_certificates", "root_certificates"})
        for (const std::string& file : filesIn(storeFolder(folder))) r.storeCertificates.push_back(readFile(file));
    r.moving = filesIn(storeFolder("user_certificates")).back();
    r.parked = storeFolder("parked.cer");
    r.movingReference = certificateKey(readFile(r.moving));
    r.movingId = Races::idOf(readFile(r.moving));  // read here: the file moves once the round starts
    r.answered = 0;
}
void refreshActor(Races& r, int t)
{
    Handles found;
    if (t == 0) {
        for (int i = 0; i < 400 && (i % 2 || r.answered < 3); ++i) {
            std::error_code error;
            std::filesystem::rename(i % 2 ? r.parked : r.moving, i % 2 ? r.moving : r.parked, error);
            if (error) r.failures.add(t, "cannot move " + r.moving + ": " + error.message());
            r.search(t, r.own[t], certificates(), found, kNone);
        }
        return;
    }
    if (t == 3) {
        // The key may go away between the search and the signature: the
        // operation then ends.
        Tmpl key;
        key.ulong(CKA_CLASS, CKO_PRIVATE_KEY).add(CKA_ID, r.movingId);
        for (int i = 0, signatures = 0; i < 100 && signatures < 10; ++i)
            if (r.search(t, r.own[t], key, found, kNone) && !found.empty() && ++signatures)
                signChecked(r.p, r.failures, t, r.own[t], found[0], r.movingReference.get(), "refresh " + std::to_string(i),
                            {CKR_KEY_HANDLE_INVALID, CKR_OPERATION_NOT_INITIALIZED});
    }
    for (int i = 0; t < 3 && i < 60; ++i) {
        if (!r.search(t, r.own[t], certificates(), found, kNone)) continue;
        for (CK_OBJECT_HANDLE object : found) {
            Bytes value(8192);
            CK_ATTRIBUTE a = {CKA_VALUE, value.data(), CK_ULONG(value.size())};
            const CK_RV rv = r.p->C_GetAttributeValue(r.own[t], object, &a, 1);
            if (!r.failures.check(t, "C_GetAttributeValue", rv, kObjectGone)) continue;
            value.resize(std::min<size_t>(a.ulValueLen, value.size()));
            if (std::find(r.storeCertificates.begin(), r.storeCertificates.end(), value) == r.storeCertificates.end())
                r.failures.add(t, "a certificate object's CKA_VALUE is none of the store's certificates");
        }
    }
    ++r.answered;
}
// The moves do refresh the objects: the moved certificate leaves and comes back.
void refreshAfter(Races& r)
{
    const size_t all = r.find(certificates()).size();
    EXPECT_EQ(all, r.storeCertificates.size());
    std::filesystem::rename(r.moving, r.parked);
    EXPECT_EQ(r.find(certificates()).size(), all - 1);
    std::filesystem::rename(r.parked, r.moving);
    EXPECT_EQ(r.find(certificates()).size(), all);
}

// Eight threads, each opening and closing sessions and in them, in turn:
// a login or a logout (the token stays logged in for a while), a search, a
// digest, a public or private object created, read and destroyed, a
// token-key signature, and a software-key encryption or signature.
void stressActor(Races& r, int t)
{
    CK_UTF8CHAR pin[] = "1234";
    const Bytes label = bytesOf("stress " + std::to_string(t)), value(24, CK_BYTE(t));
    for (int i = 0; i < 60; ++i) {
        CK_SESSION_HANDLE s = CK_INVALID_HANDLE;
        const CK_FLAGS flags = CKF_SERIAL_SESSION | (i % 2 ? CKF_RW_SESSION : 0);
        if (!r.failures.check(t, "C_OpenSession", r.p->C_OpenSession(0, flags, nullptr, nullptr, &s), kNone)) continue;
        Handles found;
        CK_OBJECT_HANDLE object = CK_INVALID_HANDLE;
        switch ((t + i) % 6) {
        case 0:
            if (i / 6 % 2)
                r.failures.check(t, "C_Login", r.p->C_Login(s, CKU_USER, pin, 4), {CKR_USER_ALREADY_LOGGED_IN});
            else
                r.failures.check(t, "C_Logout", r.p->C_Logout(s), {CKR_USER_NOT_LOGGED_IN});
            break;
        case 1:
            r.search(t, s, Tmpl(), found, kNone);
            break;
        case 2:
            r.digest(t, s, kNone);
            break;
        case 3: {
            // A private object exists only while the user is logged in, and
            // another thread's logout destroys it.
            Tmpl data = dataTemplate(label, value);
            if (i % 4 == 3) data.flag(CKA_PRIVATE, true);
            if (r.failures.check(t, "C_CreateObject", r.p->C_CreateObject(s, data.data(), data.size(), &object),
                                 {CKR_USER_NOT_LOGGED_IN})) {
                r.read(t, s, object, label, value, kObjectGone);
                r.failures.check(t, "C_DestroyObject", r.p->C_DestroyObject(s, object), kObjectGone);
            }
            break;
        }
        case 4:
            r.sign(t, s, "stress " + std::to_string(t) + " " + std::to_string(i), kNone);
            break;
        case 5: {
            // No software mechanism yet: CKR_MECHANISM_INVALID today; later
            // an AES block or an HMAC.
            const bool hmac = i % 4 >= 2;
            Tmpl key = secretKey(hmac ? CKK_GENERIC_SECRET : CKK_AES).flag(hmac ? CKA_SIGN : CKA_ENCRYPT, true);
            if (!r.failures.check(t, "C_CreateObject", r.p->C_CreateObject(s, key.data(), key.size(), &object), kNone))
                break;
            CK_MECHANISM mechanism = {hmac ? CKM_SHA256_HMAC : CKM_AES_ECB, nullptr, 0};
            const CK_RV rv = hmac ? r.p->C_SignInit(s, &mechanism, object) : r.p->C_EncryptInit(s, &mechanism, object);
            if (r.failures.check(t, hmac ? "C_SignInit" : "C_EncryptInit", rv, {CKR_MECHANISM_INVALID})) {
                CK_BYTE in[16] = {}, out[32];
                CK_ULONG length = sizeof out;
                const CK_RV done =
                    hmac ? r.p->C_Sign(s, in, sizeof in, out, &length) : r.p->C_Encrypt(s, in, sizeof in, out, &length);
                if (r.failures.check(t, hmac ? "C_Sign" : "C_Encrypt", done, kNone) && length != (hmac ? 32u : 16u))
                    r.failures.add(t, "a software-key operation returned " + std::to_string(length) + " bytes");
            }
            r.failures.check(t, "C_DestroyObject", r.p->C_DestroyObject(s, object), kNone);
            break;
        }
        }
        r.failures.check(t, "C_CloseSession", r.p->C_CloseSession(s), kNone);
    }
}
// After the threads: the library finalises, initialises again and works.
void stressAfter(Races& r)
{
    ASSERT_EQ(r.p->C_Finalize(nullptr), CKR_OK);
    ASSERT_EQ(r.p->C_Initialize(r.initArgs()), CKR_OK);
    const CK_SESSION_HANDLE s = r.openSession();
    r.session = s;
    r.signingKey = r.objectOf(CKO_PRIVATE_KEY, r.certificate("user-person.der"));
    EXPECT_TRUE(r.digest(0, s, kNone));
    EXPECT_TRUE(r.sign(0, s, "after the new C_Initialize", kNone));
}

const RaceCase kCases[] = {
    {"WrapWithItselfAndCrosswise", 1, 3, wrapSetUp, wrapActor, nullptr},
    {"DestroyWhileOthersRead", 200, 4, destroySetUp, destroyActor, nullptr},
    {"CloseOwnerWhileOthersRead", 100, 3, ownerSetUp, ownerActor, nullptr},
    {"CloseDuringMultiPartDigest", 200, 2, openTarget, digestActor, nullptr},
    {"CloseDuringHelperSignature", 20, 2, openTarget, signActor, nullptr},
    {"CloseAllWhileThreeThreadsWork", 20, 4, nullptr, closeAllActor, closeAllAfter},
    {"SearchWhileObjectsComeAndGo", 1, 4, nullptr, churnActor, nullptr},
    {"TokenRefreshWhileOthersRead", 1, 4, refreshSetUp, refreshActor, refreshAfter},
    {"MixedStressThenReinitialise", 1, 8, nullptr, stressActor, stressAfter},
};

TEST_P(Races, EveryAnswerIsAllowedAndEveryRoundEnds)
{
    const RaceCase& c = GetParam();
    Watchdog watchdog(c.name, std::chrono::seconds(120), &round);
    for (; round < c.rounds && !failures.any() && !HasFailure(); ++round) {
        if (c.setUp) c.setUp(*this);
        runTogether(c.threads, [&](int t) { c.actor(*this, t); });
    }
    if (c.after && !HasFatalFailure()) c.after(*this);
    failures.report();
}

INSTANTIATE_TEST_SUITE_P(Cases, Races, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<RaceCase>& info) { return std::string(info.param.name); });

}  // namespace
