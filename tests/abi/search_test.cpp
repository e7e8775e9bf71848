// Searching session objects: the order of the results across sessions and
// their public and private objects, results fixed at C_FindObjectsInit, and
// which objects a template matches.

#include "abi/object_helpers.h"

namespace {

using namespace korvo;

class Search : public ObjectTest {};

}  // namespace

TEST_F(Search, ResultsFollowSessionOrderPublicBeforePrivateFixedAtInit)
{
    ASSERT_EQ(p->C_Login(session, CKU_USER, pin, 4), CKR_OK);
    const CK_SESSION_HANDLE second = openSession();
    auto privateData = [] { return dataObject().flag(CKA_PRIVATE, true); };
    const CK_OBJECT_HANDLE a = make(dataObject(), second), b = make(privateData()), c = make(dataObject()),
                           d = make(privateData(), second), e = make(dataObject());
    const Handles expected = {c, e, b, a, d};
    EXPECT_EQ(find(Tmpl(), second), expected);

    // One at a time, then nothing; objects created or destroyed meanwhile change nothing.
    ASSERT_EQ(p->C_FindObjectsInit(second, nullptr, 0), CKR_OK);
    const CK_OBJECT_HANDLE late = make(dataObject());
    ASSERT_EQ(p->C_DestroyObject(session, e), CKR_OK);
    Handles found;
    for (int call = 0; call < 7; ++call) {
        CK_OBJECT_HANDLE object = CK_INVALID_HANDLE;
        CK_ULONG count = 99;
        ASSERT_EQ(p->C_FindObjects(second, &object, 1, &count), CKR_OK);
        ASSERT_EQ(count, call < 5 ? 1u : 0u) << "call " << call;
        if (count) found.push_back(object);
    }
    EXPECT_EQ(found, expected);
    ASSERT_EQ(p->C_FindObjectsFinal(second), CKR_OK);
    EXPECT_EQ(find(Tmpl(), second), Handles({c, late, b, a, d}));
}

TEST_F(Search, TemplatesMatchStoredBytesExactly)
{
    const CK_OBJECT_HANDLE alpha = make(dataObject("alpha")), beta = make(dataObject("beta").text(CKA_VALUE, "v"));
    const CK_OBJECT_HANDLE key = make(secretKey().text(CKA_LABEL, "alpha"));
    const struct {
        const char* what;
        Tmpl t;
        Handles expected;
    } cases[] = {
        {"empty template", Tmpl(), {alpha, beta, key}},
        {"class data", Tmpl().ulong(CKA_CLASS, CKO_DATA), {alpha, beta}},
        {"class secret key", Tmpl().ulong(CKA_CLASS, CKO_SECRET_KEY), {key}},
        {"label alpha", Tmpl().text(CKA_LABEL, "alpha"), {alpha, key}},
        {"label alph (shorter)", Tmpl().text(CKA_LABEL, "alph"), {}},
        {"label alpha and class data", Tmpl().text(CKA_LABEL, "alpha").ulong(CKA_CLASS, CKO_DATA), {alpha}},
        {"empty value", Tmpl().add(CKA_VALUE, {}), {alpha}},
        {"an attribute nobody holds", Tmpl().add(CKA_MODULUS, {1}), {}},
    };
    for (const auto& c : cases) EXPECT_EQ(find(c.t), c.expected) << c.what;

    // A type that cannot be stored fails the search, which stays active.
    Tmpl unstorable = Tmpl().text(784, "x");
    EXPECT_EQ(p->C_FindObjectsInit(session, unstorable.data(), unstorable.size()), CKR_ATTRIBUTE_TYPE_INVALID);
    EXPECT_EQ(p->C_FindObjectsInit(session, nullptr, 0), CKR_OPERATION_ACTIVE);
    EXPECT_EQ(p->C_FindObjectsFinal(session), CKR_OK);
}
