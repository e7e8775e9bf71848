#pragma once
// Tests of the certificate token: the generated store is installed in the
// temporary home before the session opens, so the first search builds the
// token objects from it.

#include "abi/object_helpers.h"
#include "abi/rsa_reference.h"
#include "abi/token_store.h"

namespace korvo {

class TokenTest : public ObjectTest {
protected:
    void SetUp() override
    {
        installTestStore();
        ObjectTest::SetUp();
    }

    static Bytes idOf(const Bytes& der)
    {
        const std::string hex = sha256Hex(der);
        Bytes id;
        for (size_t i = 0; i < hex.size(); i += 2) id.push_back(CK_BYTE(std::stoi(hex.substr(i, 2), nullptr, 16)));
        return id;
    }
    static Bytes certificate(const std::string& name) { return readFile(testCertPath(name)); }

    // The one object of a class with the certificate's CKA_ID.
    CK_OBJECT_HANDLE objectOf(CK_OBJECT_CLASS objectClass, const Bytes& der)
    {
        Tmpl t;
        t.ulong(CKA_CLASS, objectClass).add(CKA_ID, idOf(der));
        const Handles found = find(t);
        EXPECT_EQ(found.size(), 1u) << "class 0x" << std::hex << objectClass;
        return found.empty() ? CK_INVALID_HANDLE : found[0];
    }
    CK_OBJECT_HANDLE keyOf(const std::string& name) { return objectOf(CKO_PRIVATE_KEY, certificate(name)); }
};

}  // namespace korvo
