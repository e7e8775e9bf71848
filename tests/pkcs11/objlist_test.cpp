// The refresh of an object list with marks, as the certificate token runs it:
// an object with the same class and CKA_ID takes the new content and keeps
// its handle, anything else is appended, and what stays unmarked is popped.
// Every case runs with and without the (class, CKA_ID) index.

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "pkcs11/P11ObjList.h"
#include "pkcs11/objects/P11Obj_SW.h"

namespace {

using Labels = std::vector<std::string>;

class ObjListRefresh : public testing::TestWithParam<bool> {
protected:
    P11ObjList* list = nullptr;
    std::vector<P11Obj*> outside;  // objects no list holds, destroyed at the end

    void SetUp() override
    {
        ASSERT_EQ(P11ObjList_construct(&list), CKR_OK);
        if (GetParam()) {
            ASSERT_EQ(P11ObjList_enableIdentityIndex(list), CKR_OK);
        }
    }
    void TearDown() override
    {
        for (P11Obj*& object : outside) EXPECT_EQ(P11Obj_destruct(&object), CKR_OK);
        EXPECT_EQ(P11ObjList_destroyAllObjects(list), CKR_OK);
        EXPECT_EQ(P11ObjList_destruct(&list), CKR_OK);
    }

    // A software object with a label, a handle and, unless empty, a CKA_ID.
    static P11Obj* object(const std::string& id, const std::string& label, CK_OBJECT_HANDLE handle = 0,
                          CK_OBJECT_CLASS cls = CKO_CERTIFICATE)
    {
        P11Obj* o = nullptr;
        EXPECT_EQ(P11Obj_SW_construct(&o), CKR_OK);
        EXPECT_EQ(P11Obj_setValue(o, CKA_CLASS, &cls, sizeof cls), CKR_OK);
        EXPECT_EQ(P11Obj_setValue(o, CKA_LABEL, label.data(), label.size()), CKR_OK);
        EXPECT_EQ(id.empty() ? CKR_OK : P11Obj_setValue(o, CKA_ID, id.data(), id.size()), CKR_OK);
        P11Obj_setHandle(o, handle);
        return o;
    }

    static std::string label(P11Obj* o)
    {
        const CK_ATTRIBUTE* a = nullptr;
        EXPECT_EQ(P11Obj_peekAttribute(o, CKA_LABEL, &a), CKR_OK);
        return a ? std::string(static_cast<const char*>(a->pValue), a->ulValueLen) : "(none)";
    }

    // Adds or replaces; true when the object was appended.
    bool refresh(P11Obj* o)
    {
        CK_BBOOL added = CK_FALSE;
        EXPECT_EQ(P11ObjList_addOrReplaceAndMark(list, o, &added), CKR_OK);
        return added == CK_TRUE;
    }

    Labels labels()
    {
        Labels result;
        P11ObjListCursor cursor = nullptr;
        for (P11Obj* o = nullptr; P11ObjList_enumObjects(list, &cursor, &o) == CKR_OK && o;) result.push_back(label(o));
        return result;
    }
};

}  // namespace

TEST_P(ObjListRefresh, SameClassAndIdIsReplacedInPlaceKeepingItsHandle)
{
    P11Obj* kept = object("id-1", "old", 7);
    EXPECT_TRUE(refresh(kept));  // the empty list takes it
    EXPECT_TRUE(refresh(object("id-2", "other", 8)));
    EXPECT_FALSE(refresh(object("id-1", "new", 99)));  // the loaded object is destroyed
    EXPECT_FALSE(refresh(object("id-1", "newer")));
    EXPECT_EQ(labels(), Labels({"newer", "other"}));
    EXPECT_EQ(P11Obj_getHandle(kept), 7u);
}

TEST_P(ObjListRefresh, ObjectsWithoutIdOrOfAnotherClassNeverMatch)
{
    // Another class implementation: the software class's operations under a record of its own.
    P11ObjClass otherClass = *P11SWObj_GetClass();
    otherClass.name = "other class";
    P11Obj* foreign = object("id-1", "foreign", 1, CKO_PUBLIC_KEY);
    foreign->clazz = &otherClass;
    EXPECT_TRUE(refresh(foreign));
    EXPECT_TRUE(refresh(object("", "no id")));
    EXPECT_TRUE(refresh(object("id-1", "same id, other class")));
    EXPECT_TRUE(refresh(object("", "no id either")));
    EXPECT_TRUE(refresh(object("id-1x", "longer id")));
    EXPECT_EQ(labels(), Labels({"foreign", "no id", "same id, other class", "no id either", "longer id"}));
    EXPECT_EQ(P11ObjList_destroyAllObjects(list), CKR_OK);  // while otherClass lives
}

TEST_P(ObjListRefresh, UnmarkedObjectsArePoppedInListOrder)
{
    for (const char* id : {"a", "b", "c", "d"}) ASSERT_EQ(P11ObjList_add(list, object(id, id)), CKR_OK);
    // A reload that still finds b and brings e.
    ASSERT_EQ(P11ObjList_clearMarks(list), CKR_OK);
    EXPECT_FALSE(refresh(object("b", "b reloaded")));
    EXPECT_TRUE(refresh(object("e", "e")));

    P11ObjListCursor cursor = nullptr;
    Labels popped;
    for (P11Obj* o = nullptr; P11ObjList_popUnmarkedObject(list, &cursor, &o) == CKR_OK && o;) {
        outside.push_back(o);
        popped.push_back(label(o));
    }
    EXPECT_EQ(popped, Labels({"a", "c", "d"}));
    EXPECT_EQ(labels(), Labels({"b reloaded", "e"}));
    // A popped identity is gone for good: its return is a new object.
    EXPECT_TRUE(refresh(object("a", "a again")));
    EXPECT_FALSE(refresh(object("e", "e reloaded")));
    EXPECT_EQ(labels(), Labels({"b reloaded", "e reloaded", "a again"}));
}

TEST_P(ObjListRefresh, HandlesFindTheirObjectsAlsoWhenGivenAfterJoining)
{
    EXPECT_TRUE(refresh(object("a", "a", 1)));
    P11Obj* b = object("b", "b");
    EXPECT_TRUE(refresh(b));
    P11Obj* found = nullptr;
    EXPECT_EQ(P11ObjList_findObjectHandle(list, 1, &found), CKR_OK);
    EXPECT_EQ(label(found), "a");
    P11Obj_setHandle(b, 2);  // the handle comes after the object joined
    EXPECT_EQ(P11ObjList_findObjectHandle(list, 2, &found), CKR_OK);
    EXPECT_EQ(found, b);

    ASSERT_EQ(P11ObjList_clearMarks(list), CKR_OK);
    EXPECT_FALSE(refresh(object("b", "b again")));
    P11ObjListCursor cursor = nullptr;
    P11Obj* popped = nullptr;
    ASSERT_EQ(P11ObjList_popUnmarkedObject(list, &cursor, &popped), CKR_OK);
    outside.push_back(popped);
    EXPECT_EQ(P11ObjList_findObjectHandle(list, 1, &found), CKR_OK);
    EXPECT_EQ(found, nullptr) << "a popped object's handle leads nowhere";
    EXPECT_EQ(P11ObjList_findObjectHandle(list, 2, &found), CKR_OK);
    EXPECT_EQ(label(found), "b again");
}

TEST_P(ObjListRefresh, RemovingAnObjectTheListDoesNotHoldIsAGeneralError)
{
    outside = {object("a", "held"), object("a", "stranger")};
    ASSERT_EQ(P11ObjList_add(list, outside[0]), CKR_OK);
    EXPECT_EQ(P11ObjList_remove(list, outside[1]), CKR_GENERAL_ERROR);
    EXPECT_EQ(P11ObjList_remove(list, outside[0]), CKR_OK);
    EXPECT_EQ(P11ObjList_remove(list, outside[0]), CKR_GENERAL_ERROR);
}

INSTANTIATE_TEST_SUITE_P(WalkAndIndex, ObjListRefresh, testing::Values(false, true),
                         [](const testing::TestParamInfo<bool>& info) { return info.param ? "Indexed" : "Walked"; });
