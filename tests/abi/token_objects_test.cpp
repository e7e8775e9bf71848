// The token's objects as they mirror the certificate folders: what each
// object shows, and how searches follow the files.

#include <openssl/evp.h>

#include <cstdio>
#include <filesystem>

#include "abi/token_fixture.h"

using namespace korvo;

namespace {

class TokenObjects : public TokenTest {
protected:
    std::string userFile(const std::string& user, const Bytes& der)
    {
        return storeFolder("user_certificates") + "/" + user + "_" + sha256Hex(der) + ".cer";
    }
    CK_ULONG ulongValue(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type)
    {
        const Bytes bytes = value(object, type);
        CK_ULONG v = 0;
        if (bytes.size() == sizeof v) std::memcpy(&v, bytes.data(), sizeof v);
        return v;
    }
    static Bytes digest(const EVP_MD* md, const Bytes& data)
    {
        Bytes out(EVP_MD_size(md));
        EVP_Digest(data.data(), data.size(), out.data(), nullptr, md, nullptr);
        return out;
    }
};

TEST_F(TokenObjects, EachUserCertificateGivesKeyCertificateAndPublicKeySharingIdAndLabel)
{
    // Four user certificates, one intermediate, one root with its trust object.
    EXPECT_EQ(find().size(), 4u * 3 + 1 + 2);

    const Bytes der = certificate("user-person.der");
    const CK_OBJECT_HANDLE key = objectOf(CKO_PRIVATE_KEY, der);
    const CK_OBJECT_HANDLE cert = objectOf(CKO_CERTIFICATE, der);
    const CK_OBJECT_HANDLE pub = objectOf(CKO_PUBLIC_KEY, der);
    const std::string label = text(cert, CKA_LABEL);
    EXPECT_EQ(label.rfind("CN=Alice Invented,O=Invented Org,C=XX; Gyldigt fra: ", 0), 0u) << label;
    EXPECT_GT(label.size(), std::string("CN=Alice Invented,O=Invented Org,C=XX; Gyldigt fra: ").size());
    EXPECT_EQ(text(key, CKA_LABEL), label);
    EXPECT_EQ(text(pub, CKA_LABEL), label);

    EXPECT_EQ(value(cert, CKA_VALUE), der);
    EXPECT_EQ(ulongValue(cert, CKA_CERTIFICATE_TYPE), CKC_X_509);
    EXPECT_EQ(value(cert, CKA_TRUSTED), Bytes{CK_TRUE});
    // Every object is a public, read-only token object.
    for (CK_OBJECT_HANDLE object : {key, cert, pub}) {
        EXPECT_EQ(value(object, CKA_TOKEN), Bytes{CK_TRUE});
        EXPECT_EQ(value(object, CKA_PRIVATE), Bytes{CK_FALSE});
        EXPECT_EQ(value(object, CKA_MODIFIABLE), Bytes{CK_FALSE});
        EXPECT_EQ(set(object, Tmpl().text(CKA_LABEL, "renamed")), CKR_ATTRIBUTE_READ_ONLY);
    }

    // The keys carry the certificate's modulus; the public key its exponent.
    Pkey reference = certificateKey(der);
    BIGNUM* n = nullptr;
    ASSERT_TRUE(EVP_PKEY_get_bn_param(reference.get(), "n", &n));
    Bytes modulus(BN_num_bytes(n));
    BN_bn2bin(n, modulus.data());
    BN_free(n);
    EXPECT_EQ(value(key, CKA_MODULUS), modulus);
    EXPECT_EQ(value(pub, CKA_MODULUS), modulus);
    EXPECT_EQ(value(pub, CKA_PUBLIC_EXPONENT), (Bytes{0x01, 0x00, 0x01}));
    EXPECT_EQ(ulongValue(pub, CKA_MODULUS_BITS), modulus.size() * 8);
}

TEST_F(TokenObjects, PrivateKeyIsSensitiveAndOffersOnlyItsOwnOperations)
{
    const CK_OBJECT_HANDLE key = keyOf("user-person.der");
    CK_ATTRIBUTE secret = {CKA_VALUE, nullptr, 0};
    EXPECT_EQ(p->C_GetAttributeValue(session, key, &secret, 1), CKR_ATTRIBUTE_SENSITIVE);
    EXPECT_EQ(secret.ulValueLen, CK_UNAVAILABLE_INFORMATION);
    EXPECT_EQ(value(key, CKA_SENSITIVE), Bytes{CK_TRUE});
    EXPECT_EQ(value(key, CKA_EXTRACTABLE), Bytes{CK_FALSE});
    for (CK_ATTRIBUTE_TYPE usage : {CKA_SIGN, CKA_DECRYPT, CKA_SIGN_RECOVER, CKA_UNWRAP})
        EXPECT_EQ(value(key, usage), Bytes{CK_TRUE});

    CK_MECHANISM pkcs = {CKM_RSA_PKCS, nullptr, 0};
    EXPECT_EQ(p->C_VerifyInit(session, &pkcs, key), CKR_FUNCTION_NOT_SUPPORTED);
    EXPECT_EQ(p->C_EncryptInit(session, &pkcs, key), CKR_FUNCTION_NOT_SUPPORTED);
    EXPECT_EQ(p->C_DestroyObject(session, key), CKR_SESSION_READ_ONLY);
}

TEST_F(TokenObjects, RootGetsATrustObjectTrustingItForTlsAndMailButNotCode)
{
    const Bytes root = certificate("root-ca.der");
    const CK_OBJECT_HANDLE trust = objectOf(CKO_NSS_TRUST, root);
    EXPECT_EQ(value(trust, CKA_CERT_SHA1_HASH), digest(EVP_sha1(), root));
    EXPECT_EQ(value(trust, CKA_CERT_MD5_HASH), digest(EVP_md5(), root));
    const CK_OBJECT_HANDLE cert = objectOf(CKO_CERTIFICATE, root);
    EXPECT_EQ(value(trust, CKA_ISSUER), value(cert, CKA_ISSUER));
    EXPECT_EQ(value(trust, CKA_SERIAL_NUMBER), value(cert, CKA_SERIAL_NUMBER));
    // Trusted delegator (0xCE534352) for TLS and mail; 0xCE534353 for code.
    EXPECT_EQ(ulongValue(trust, CKA_TRUST_SERVER_AUTH), 0xCE534352ul);
    EXPECT_EQ(ulongValue(trust, CKA_TRUST_CLIENT_AUTH), 0xCE534352ul);
    EXPECT_EQ(ulongValue(trust, CKA_TRUST_EMAIL_PROTECTION), 0xCE534352ul);
    EXPECT_EQ(ulongValue(trust, CKA_TRUST_CODE_SIGNING), 0xCE534353ul);
    EXPECT_EQ(value(trust, CKA_TRUST_STEP_UP_APPROVED), Bytes{CK_FALSE});

    // The intermediate is a certificate without a trust object.
    const Bytes intermediate = certificate("intermediate-ca.der");
    objectOf(CKO_CERTIFICATE, intermediate);
    EXPECT_TRUE(find(Tmpl().ulong(CKA_CLASS, CKO_NSS_TRUST).add(CKA_ID, idOf(intermediate))).empty());
}

TEST_F(TokenObjects, HandlesFollowTheFilesAcrossSearches)
{
    const Handles first = find();
    EXPECT_EQ(find(), first) << "a search without file changes keeps every handle";

    // The same content written anew keeps its three objects.
    const Bytes alice = certificate("user-person.der");
    const std::string aliceFile = userFile("alice", alice);
    std::filesystem::remove(aliceFile);
    writeFile(aliceFile, alice);
    EXPECT_EQ(find(), first);

    // A renewed certificate is three new objects; the old ones are gone.
    const Bytes renewed = certificate("user-employee.der");
    const CK_OBJECT_HANDLE oldKey = objectOf(CKO_PRIVATE_KEY, alice);
    std::filesystem::remove(aliceFile);
    writeFile(userFile("alice", renewed), renewed);
    const Handles afterRenewal = find();
    ASSERT_EQ(afterRenewal.size(), first.size());
    Handles fresh;
    for (CK_OBJECT_HANDLE h : afterRenewal)
        if (std::find(first.begin(), first.end(), h) == first.end()) fresh.push_back(h);
    ASSERT_EQ(fresh.size(), 3u);
    for (CK_OBJECT_HANDLE h : fresh) EXPECT_GT(h, *std::max_element(first.begin(), first.end()));
    EXPECT_TRUE(find(Tmpl().add(CKA_ID, idOf(alice))).empty());
    EXPECT_EQ(get(oldKey, CKA_LABEL), CKR_OBJECT_HANDLE_INVALID);
    EXPECT_EQ(find(Tmpl().add(CKA_ID, idOf(renewed))).size(), 3u);

    // A root whose file goes takes its certificate and trust object along.
    const Bytes root = certificate("root-ca.der");
    std::filesystem::remove(storeFolder("root_certificates") + "/" + sha256Hex(root) + ".cer");
    EXPECT_TRUE(find(Tmpl().add(CKA_ID, idOf(root))).empty());
    EXPECT_EQ(find().size(), first.size() - 2);
}

TEST_F(TokenObjects, KeyOwnerFollowsTheFileNameOfTheSameCertificate)
{
    // The same certificate under another user's name is the same three
    // objects (same CKA_ID), now signing for the new owner.
    const Bytes carol = certificate("user-company.der");
    const CK_OBJECT_HANDLE key = keyOf("user-company.der");
    std::filesystem::rename(userFile("carol", carol), userFile("dave", carol));
    EXPECT_EQ(keyOf("user-company.der"), key);
    CK_MECHANISM mechanism = {CKM_SHA256_RSA_PKCS, nullptr, 0};
    ASSERT_EQ(p->C_SignInit(session, &mechanism, key), CKR_OK);
    CK_BYTE data[] = "owner";
    CK_BYTE signature[512];
    CK_ULONG length = sizeof signature;
    EXPECT_EQ(p->C_Sign(session, data, sizeof data, signature, &length), CKR_OK);
}

TEST_F(TokenObjects, CertificateThatCannotBeMadeIntoObjectsFailsTheSearchUntilItGoes)
{
    const Handles before = find();
    // A DSA certificate has no RSA key for the key objects.
    const Bytes dsa = certificate("user-dsa.der");
    const std::string bad = userFile("hans", dsa);
    writeFile(bad, dsa);
    EXPECT_EQ(p->C_FindObjectsInit(session, nullptr, 0), CKR_FUNCTION_FAILED);
    EXPECT_EQ(p->C_FindObjectsFinal(session), CKR_OK);  // the failed search stays active until ended
    // Bytes that are no certificate at all, likewise.
    std::filesystem::remove(bad);
    writeFile(userFile("junk", Bytes{0x30, 0x03, 0x02, 0x01, 0x01}), Bytes{0x30, 0x03, 0x02, 0x01, 0x01});
    EXPECT_EQ(p->C_FindObjectsInit(session, nullptr, 0), CKR_FUNCTION_FAILED);
    EXPECT_EQ(p->C_FindObjectsFinal(session), CKR_OK);
    std::filesystem::remove(userFile("junk", Bytes{0x30, 0x03, 0x02, 0x01, 0x01}));
    EXPECT_EQ(find(), before);
}

TEST_F(TokenObjects, ObjectsAreBuiltAnewAfterReinitialisation)
{
    const size_t count = find().size();
    ASSERT_EQ(p->C_Finalize(nullptr), CKR_OK);
    ASSERT_EQ(p->C_Initialize(nullptr), CKR_OK);
    session = openSession();
    const Handles again = find();
    EXPECT_EQ(again.size(), count);
}

}  // namespace
