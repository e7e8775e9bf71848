#include <cstring>

#include <gtest/gtest.h>

#include "pkcs11/objects/P11AttrObj.h"
#include "pkcs11/objects/P11Obj_SW.h"

namespace {

// A software object that frees itself.
struct SwObject {
    P11Obj* object = nullptr;
    SwObject() { EXPECT_EQ(P11Obj_SW_construct(&object), CKR_OK); }
    ~SwObject() { P11Obj_SW_destruct(&object); }
    CK_ULONG count()
    {
        CK_ULONG n = 0;
        P11Obj_SW_getAttributeCount(object, &n);
        return n;
    }
};

struct AttrObj {
    P11AttrObj* store = nullptr;
    AttrObj() { EXPECT_EQ(P11AttrObj_construct(&store), CKR_OK); }
    ~AttrObj() { P11AttrObj_destruct(&store); }
};

CK_ATTRIBUTE attribute(CK_ATTRIBUTE_TYPE type, const char* text)
{
    return CK_ATTRIBUTE{type, const_cast<char*>(text), text ? CK_ULONG(std::strlen(text)) : 0};
}

}  // namespace

TEST(AttributeStore, ReplacingAValueKeepsOneRecordAndTheCount)
{
    SwObject o;
    CK_ATTRIBUTE first = attribute(CKA_LABEL, "first");
    CK_ATTRIBUTE second = attribute(CKA_LABEL, "a longer second label");
    ASSERT_EQ(P11Obj_SW_setAttribute(o.object, &first), CKR_OK);
    ASSERT_EQ(P11Obj_SW_setAttribute(o.object, &second), CKR_OK);
    EXPECT_EQ(o.count(), 1u);

    char buffer[64];
    CK_ATTRIBUTE out{CKA_LABEL, buffer, sizeof buffer};
    ASSERT_EQ(P11Obj_SW_getAttribute(o.object, &out), CKR_OK);
    EXPECT_EQ(std::string(buffer, out.ulValueLen), "a longer second label");
}

TEST(AttributeStore, EmptyValuesAreStoredAndMatchAnEmptyTemplate)
{
    SwObject o;
    CK_ATTRIBUTE empty{CKA_VALUE, nullptr, 0};
    ASSERT_EQ(P11Obj_SW_setAttribute(o.object, &empty), CKR_OK);
    CK_ATTRIBUTE out{CKA_VALUE, nullptr, 99};
    EXPECT_EQ(P11Obj_SW_getAttribute(o.object, &out), CKR_OK);
    EXPECT_EQ(out.ulValueLen, 0u);
    CK_BBOOL match = CK_FALSE;
    EXPECT_EQ(P11Obj_SW_compare(o.object, &empty, &match), CKR_OK);
    EXPECT_TRUE(match);
    // Bytes announced without a pointer are refused by the software variant.
    CK_ATTRIBUTE bogus{CKA_LABEL, nullptr, 4};
    EXPECT_EQ(P11Obj_SW_setAttribute(o.object, &bogus), CKR_ATTRIBUTE_VALUE_INVALID);
}

TEST(AttributeStore, GetRulesForAbsentTooSmallAndLengthOnly)
{
    SwObject o;
    CK_ATTRIBUTE label = attribute(CKA_LABEL, "label");
    ASSERT_EQ(P11Obj_SW_setAttribute(o.object, &label), CKR_OK);

    CK_ATTRIBUTE absent{CKA_MODULUS, nullptr, 0};
    EXPECT_EQ(P11Obj_SW_getAttribute(o.object, &absent), CKR_ATTRIBUTE_TYPE_INVALID);
    EXPECT_EQ(absent.ulValueLen, CK_UNAVAILABLE_INFORMATION);

    CK_ATTRIBUTE lengthOnly{CKA_LABEL, nullptr, 0};
    EXPECT_EQ(P11Obj_SW_getAttribute(o.object, &lengthOnly), CKR_OK);
    EXPECT_EQ(lengthOnly.ulValueLen, 5u);

    char small[4];
    CK_ATTRIBUTE tooSmall{CKA_LABEL, small, sizeof small};
    EXPECT_EQ(P11Obj_SW_getAttribute(o.object, &tooSmall), CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ(tooSmall.ulValueLen, CK_UNAVAILABLE_INFORMATION);  // not the needed size
}

TEST(AttributeStore, StorableTypesDifferBetweenTheTwoLayouts)
{
    SwObject o;
    AttrObj a;
    const CK_BYTE one = 1;
    struct Case {
        CK_ATTRIBUTE_TYPE type;
        CK_RV software;
        CK_RV attrObj;
    } cases[] = {
        {CKA_HAS_RESET, CKR_OK, CKR_OK},
        {784, CKR_ATTRIBUTE_TYPE_INVALID, CKR_ATTRIBUTE_TYPE_INVALID},
        {CKA_MODIFIABLE + 1, CKR_ATTRIBUTE_TYPE_INVALID, CKR_ATTRIBUTE_TYPE_INVALID},
        {CKA_TRUST_STEP_UP_APPROVED, CKR_ATTRIBUTE_TYPE_INVALID, CKR_OK},
        {CKA_TRUST_STEP_UP_APPROVED + 1, CKR_ATTRIBUTE_TYPE_INVALID, CKR_ATTRIBUTE_TYPE_INVALID},
        {CKA_CERT_MD5_HASH, CKR_ATTRIBUTE_TYPE_INVALID, CKR_OK},
    };
    for (const Case& c : cases) {
        CK_ATTRIBUTE value{c.type, const_cast<CK_BYTE*>(&one), 1};
        EXPECT_EQ(P11Obj_SW_setAttribute(o.object, &value), c.software) << std::hex << c.type;
        EXPECT_EQ(P11AttrObj_setAttribute(a.store, &value), c.attrObj) << std::hex << c.type;
    }
}

TEST(AttributeStore, EnumerationVisitsOccupiedSlotsInSlotOrder)
{
    AttrObj a;
    uint32_t cursor = 0;
    const CK_ATTRIBUTE* next = nullptr;
    ASSERT_EQ(P11AttrObj_enumAttributes(a.store, &cursor, &next), CKR_OK);
    EXPECT_EQ(next, nullptr);  // empty store
    EXPECT_EQ(cursor, 85u);

    ASSERT_EQ(P11AttrObj_setBoolValue(a.store, CKA_TRUST_SERVER_AUTH, CK_TRUE), CKR_OK);
    ASSERT_EQ(P11AttrObj_setUlongValue(a.store, CKA_CLASS, CKO_NSS_TRUST), CKR_OK);
    cursor = 0;
    std::vector<CK_ATTRIBUTE_TYPE> seen;
    while (P11AttrObj_enumAttributes(a.store, &cursor, &next) == CKR_OK && next) seen.push_back(next->type);
    EXPECT_EQ(seen, (std::vector<CK_ATTRIBUTE_TYPE>{CKA_CLASS, CKA_TRUST_SERVER_AUTH}));
}

TEST(AttributeStore, CopyMirrorsTheSourceAndItsCount)
{
    SwObject source, destination;
    CK_ATTRIBUTE label = attribute(CKA_LABEL, "kept");
    CK_ATTRIBUTE id = attribute(CKA_ID, "dropped");
    CK_ATTRIBUTE value = attribute(CKA_VALUE, "copied");
    ASSERT_EQ(P11Obj_SW_setAttribute(source.object, &label), CKR_OK);
    ASSERT_EQ(P11Obj_SW_setAttribute(source.object, &value), CKR_OK);
    ASSERT_EQ(P11Obj_SW_setAttribute(destination.object, &id), CKR_OK);

    ASSERT_EQ(P11Obj_SW_copy(source.object, destination.object), CKR_OK);
    const CK_ATTRIBUTE* peeked = nullptr;
    ASSERT_EQ(P11Obj_SW_peekAttribute(destination.object, CKA_ID, &peeked), CKR_OK);
    EXPECT_EQ(peeked, nullptr);
    CK_BBOOL match = CK_FALSE;
    EXPECT_EQ(P11Obj_SW_compare(destination.object, &value, &match), CKR_OK);
    EXPECT_TRUE(match);
    EXPECT_EQ(destination.count(), 2u);
}
