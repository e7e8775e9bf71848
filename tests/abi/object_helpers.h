#pragma once
// Helpers for the whole-library object tests: templates that own their
// values, and a fixture that creates, reads and searches objects through the
// function list. Its SetUp opens the run's first session (handle 1).

#include <algorithm>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "abi/module_harness.h"

namespace korvo {

using Bytes = std::vector<CK_BYTE>;
using Handles = std::vector<CK_OBJECT_HANDLE>;

inline Bytes ulongBytes(CK_ULONG value)
{
    Bytes bytes(sizeof value);
    std::memcpy(bytes.data(), &value, sizeof value);
    return bytes;
}

// A template whose values live as long as it does.
class Tmpl {
public:
    Tmpl() = default;
    Tmpl(const Tmpl& other)
    {
        for (size_t i = 0; i < other.attributes_.size(); ++i) add(other.attributes_[i].type, other.values_[i]);
    }
    Tmpl& operator=(const Tmpl&) = delete;

    Tmpl& add(CK_ATTRIBUTE_TYPE type, Bytes value)
    {
        Bytes& v = values_.emplace_back(std::move(value));
        attributes_.push_back({type, v.empty() ? nullptr : v.data(), CK_ULONG(v.size())});
        return *this;
    }
    Tmpl& ulong(CK_ATTRIBUTE_TYPE type, CK_ULONG value) { return add(type, ulongBytes(value)); }
    Tmpl& flag(CK_ATTRIBUTE_TYPE type, bool value) { return add(type, {CK_BYTE(value)}); }
    Tmpl& text(CK_ATTRIBUTE_TYPE type, const std::string& value) { return add(type, Bytes(value.begin(), value.end())); }
    CK_ATTRIBUTE_PTR data() { return attributes_.data(); }
    CK_ULONG size() const { return CK_ULONG(attributes_.size()); }

private:
    std::deque<Bytes> values_;
    std::vector<CK_ATTRIBUTE> attributes_;
};

inline Tmpl dataObject(const std::string& label = "")
{
    Tmpl t;
    t.ulong(CKA_CLASS, CKO_DATA);
    if (!label.empty()) t.text(CKA_LABEL, label);
    return t;
}

inline Tmpl secretKey(CK_KEY_TYPE type = CKK_GENERIC_SECRET)
{
    Tmpl t;
    t.ulong(CKA_CLASS, CKO_SECRET_KEY).ulong(CKA_KEY_TYPE, type).add(CKA_VALUE, Bytes(16, 0x5A));
    return t;
}

// A 100-byte modulus whose top byte is 1: 800 bits by length, 793 by value.
inline Tmpl rsaPublicKey()
{
    Bytes modulus(100, 0xC3);
    modulus[0] = 0x01;
    Tmpl t;
    t.ulong(CKA_CLASS, CKO_PUBLIC_KEY).ulong(CKA_KEY_TYPE, CKK_RSA).add(CKA_MODULUS, modulus);
    t.add(CKA_PUBLIC_EXPONENT, {0x01, 0x00, 0x01});
    return t;
}

class ObjectTest : public InitializedTest {
protected:
    CK_UTF8CHAR pin[5] = "1234";
    CK_SESSION_HANDLE session = CK_INVALID_HANDLE;

    void SetUp() override
    {
        InitializedTest::SetUp();
        if (!HasFatalFailure()) session = openSession();
    }

    CK_RV create(Tmpl t, CK_SESSION_HANDLE in = 0)
    {
        CK_OBJECT_HANDLE object;
        return p->C_CreateObject(in ? in : session, t.data(), t.size(), &object);
    }
    CK_OBJECT_HANDLE make(Tmpl t, CK_SESSION_HANDLE in = 0)
    {
        CK_OBJECT_HANDLE object = CK_INVALID_HANDLE;
        EXPECT_EQ(p->C_CreateObject(in ? in : session, t.data(), t.size(), &object), CKR_OK);
        return object;
    }
    // A session secret key of the type with the value.
    CK_OBJECT_HANDLE secretOf(CK_KEY_TYPE type, const Bytes& keyValue)
    {
        Tmpl t;
        t.ulong(CKA_CLASS, CKO_SECRET_KEY).ulong(CKA_KEY_TYPE, type).add(CKA_VALUE, keyValue);
        return make(t);
    }
    CK_RV set(CK_OBJECT_HANDLE object, Tmpl t) { return p->C_SetAttributeValue(session, object, t.data(), t.size()); }
    CK_RV get(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type)
    {
        CK_ATTRIBUTE a = {type, nullptr, 0};
        return p->C_GetAttributeValue(session, object, &a, 1);
    }

    // The stored value, read after a length query.
    Bytes value(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type)
    {
        CK_ATTRIBUTE a = {type, nullptr, 0};
        EXPECT_EQ(p->C_GetAttributeValue(session, object, &a, 1), CKR_OK) << "type 0x" << std::hex << type;
        Bytes bytes(a.ulValueLen == CK_UNAVAILABLE_INFORMATION ? 0 : a.ulValueLen);
        a.pValue = bytes.data();
        EXPECT_EQ(p->C_GetAttributeValue(session, object, &a, 1), CKR_OK) << "type 0x" << std::hex << type;
        return bytes;
    }
    std::string text(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type)
    {
        const Bytes bytes = value(object, type);
        return std::string(bytes.begin(), bytes.end());
    }

    // Every match of a search, fetched `chunk` at a time.
    Handles find(Tmpl t = Tmpl(), CK_SESSION_HANDLE in = 0, CK_ULONG chunk = 2)
    {
        in = in ? in : session;
        Handles found, buffer(chunk);
        EXPECT_EQ(p->C_FindObjectsInit(in, t.data(), t.size()), CKR_OK);
        for (CK_ULONG n = chunk; n == chunk;) {
            n = 0;
            EXPECT_EQ(p->C_FindObjects(in, buffer.data(), chunk, &n), CKR_OK);
            found.insert(found.end(), buffer.begin(), buffer.begin() + std::min(n, chunk));
        }
        EXPECT_EQ(p->C_FindObjectsFinal(in), CKR_OK);
        return found;
    }
};

}  // namespace korvo
