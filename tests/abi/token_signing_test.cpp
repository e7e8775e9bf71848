// Signing, decrypting and unwrapping with the token's private keys: every
// result is checked with OpenSSL against the user's certificate, and the
// reference helper does the private-key work with the user's key file.

#include <filesystem>

#include "abi/token_fixture.h"

using namespace korvo;

namespace {

const char kUser[] = "user-person.der";
const CK_ULONG k = 256;  // the test keys are RSA 2048

class TokenKeys : public TokenTest {
protected:
    CK_OBJECT_HANDLE key = CK_INVALID_HANDLE;
    Pkey reference;
    Blob data{'s', 'i', 'g', 'n', ' ', 'm', 'e'};

    void SetUp() override
    {
        TokenTest::SetUp();
        if (HasFatalFailure()) return;
        key = keyOf(kUser);
        reference = certificateKey(certificate(kUser));
        ASSERT_TRUE(reference);
    }

    CK_RV sign(CK_MECHANISM mechanism, const Blob& input, Blob* signature)
    {
        CK_RV rv = p->C_SignInit(session, &mechanism, key);
        if (rv != CKR_OK) return rv;
        CK_ULONG length = 0;
        rv = p->C_Sign(session, const_cast<CK_BYTE*>(input.data()), input.size(), nullptr, &length);
        if (rv != CKR_OK) return rv;
        signature->assign(length, 0);
        rv = p->C_Sign(session, const_cast<CK_BYTE*>(input.data()), input.size(), signature->data(), &length);
        signature->resize(length);
        return rv;
    }
    CK_RV decrypt(CK_MECHANISM mechanism, const Blob& input, Blob* plain)
    {
        CK_RV rv = p->C_DecryptInit(session, &mechanism, key);
        if (rv != CKR_OK) return rv;
        CK_ULONG length = 0;
        rv = p->C_Decrypt(session, const_cast<CK_BYTE*>(input.data()), input.size(), nullptr, &length);
        if (rv != CKR_OK) return rv;
        plain->assign(length, 0);
        rv = p->C_Decrypt(session, const_cast<CK_BYTE*>(input.data()), input.size(), plain->data(), &length);
        plain->resize(length);
        return rv;
    }
    static Blob sha(const EVP_MD* md, const Blob& input)
    {
        Blob out(EVP_MD_size(md));
        EVP_Digest(input.data(), input.size(), out.data(), nullptr, md, nullptr);
        return out;
    }
    // Whether the token's own public key for the certificate verifies it.
    CK_RV tokenVerify(CK_MECHANISM mechanism, const Blob& input, const Blob& signature)
    {
        const CK_OBJECT_HANDLE publicKey = objectOf(CKO_PUBLIC_KEY, certificate(kUser));
        CK_RV rv = p->C_VerifyInit(session, &mechanism, publicKey);
        if (rv != CKR_OK) return rv;
        return p->C_Verify(session, const_cast<CK_BYTE*>(input.data()), input.size(),
                           const_cast<CK_BYTE*>(signature.data()), signature.size());
    }
    std::string keyFile() { return storeFolder("keys") + "/" + sha256Hex(certificate(kUser)) + ".pem"; }
};

struct HashCase {
    CK_MECHANISM_TYPE pkcs1;
    CK_MECHANISM_TYPE pss;
    CK_MECHANISM_TYPE hash;
    CK_RSA_PKCS_MGF_TYPE mgf;
    const EVP_MD* (*md)();
};
const HashCase kHashes[] = {
    {CKM_SHA1_RSA_PKCS, CKM_SHA1_RSA_PKCS_PSS, CKM_SHA_1, CKG_MGF1_SHA1, EVP_sha1},
    {CKM_SHA256_RSA_PKCS, CKM_SHA256_RSA_PKCS_PSS, CKM_SHA256, CKG_MGF1_SHA256, EVP_sha256},
    {CKM_SHA384_RSA_PKCS, CKM_SHA384_RSA_PKCS_PSS, CKM_SHA384, CKG_MGF1_SHA384, EVP_sha384},
    {CKM_SHA512_RSA_PKCS, CKM_SHA512_RSA_PKCS_PSS, CKM_SHA512, CKG_MGF1_SHA512, EVP_sha512},
};

TEST_F(TokenKeys, SignaturesOfEveryHashAndPaddingVerifyWithTheCertificateAndTheTokensPublicKey)
{
    const Blob digestInput{'o', 't', 'h', 'e', 'r'};
    for (const HashCase& c : kHashes) {
        SCOPED_TRACE(EVP_MD_get0_name(c.md()));
        Blob signature;
        ASSERT_EQ(sign({c.pkcs1, nullptr, 0}, data, &signature), CKR_OK);
        EXPECT_EQ(signature.size(), k);
        EXPECT_TRUE(verifies(reference.get(), c.md(), data, signature));
        EXPECT_EQ(tokenVerify({c.pkcs1, nullptr, 0}, data, signature), CKR_OK);

        CK_RSA_PKCS_PSS_PARAMS params = {c.hash, c.mgf, CK_ULONG(EVP_MD_size(c.md()))};
        ASSERT_EQ(sign({c.pss, &params, sizeof params}, data, &signature), CKR_OK);
        EXPECT_TRUE(verifies(reference.get(), c.md(), data, signature, true));
        EXPECT_EQ(tokenVerify({c.pss, &params, sizeof params}, data, signature), CKR_OK);
        // Plain PSS signs the caller's digest.
        ASSERT_EQ(sign({CKM_RSA_PKCS_PSS, &params, sizeof params}, sha(c.md(), data), &signature), CKR_OK);
        EXPECT_TRUE(verifies(reference.get(), c.md(), data, signature, true));
        EXPECT_EQ(tokenVerify({CKM_RSA_PKCS_PSS, &params, sizeof params}, sha(c.md(), data), signature), CKR_OK);
        EXPECT_EQ(tokenVerify({CKM_RSA_PKCS_PSS, &params, sizeof params}, sha(c.md(), digestInput), signature),
                  CKR_SIGNATURE_INVALID);
    }

    // CKM_RSA_PKCS signs a DigestInfo the caller built.
    const Blob prefix = {0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                         0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20};
    Blob digestInfo = prefix;
    const Blob digest = sha(EVP_sha256(), data);
    digestInfo.insert(digestInfo.end(), digest.begin(), digest.end());
    Blob signature;
    ASSERT_EQ(sign({CKM_RSA_PKCS, nullptr, 0}, digestInfo, &signature), CKR_OK);
    EXPECT_TRUE(verifies(reference.get(), EVP_sha256(), data, signature));
    EXPECT_EQ(tokenVerify({CKM_RSA_PKCS, nullptr, 0}, digestInfo, signature), CKR_OK);
    // Raw RSA: the public key recovers the very block that was signed.
    Blob block(k, 0x33);
    block[0] = 0x00;
    ASSERT_EQ(sign({CKM_RSA_X_509, nullptr, 0}, block, &signature), CKR_OK);
    EXPECT_EQ(tokenVerify({CKM_RSA_X_509, nullptr, 0}, block, signature), CKR_OK);
    CK_MECHANISM raw{CKM_RSA_X_509, nullptr, 0};
    ASSERT_EQ(p->C_VerifyRecoverInit(session, &raw, objectOf(CKO_PUBLIC_KEY, certificate(kUser))), CKR_OK);
    Blob recovered(k);
    CK_ULONG length = k;
    ASSERT_EQ(p->C_VerifyRecover(session, signature.data(), signature.size(), recovered.data(), &length), CKR_OK);
    EXPECT_EQ(recovered, block);
}

TEST_F(TokenKeys, MultiPartSigningEqualsSinglePartAndSurvivesSizeQueries)
{
    Blob single;
    ASSERT_EQ(sign({CKM_SHA256_RSA_PKCS, nullptr, 0}, data, &single), CKR_OK);

    CK_MECHANISM mechanism = {CKM_SHA256_RSA_PKCS, nullptr, 0};
    ASSERT_EQ(p->C_SignInit(session, &mechanism, key), CKR_OK);
    ASSERT_EQ(p->C_SignUpdate(session, data.data(), 3), CKR_OK);
    ASSERT_EQ(p->C_SignUpdate(session, data.data() + 3, data.size() - 3), CKR_OK);
    Blob parts(k);
    CK_ULONG length = 0;
    EXPECT_EQ(p->C_SignFinal(session, nullptr, &length), CKR_OK);
    EXPECT_EQ(length, k);
    length = 10;
    EXPECT_EQ(p->C_SignFinal(session, parts.data(), &length), CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ(length, k);
    ASSERT_EQ(p->C_SignFinal(session, parts.data(), &length), CKR_OK);
    EXPECT_EQ(parts, single) << "PKCS #1 v1.5 is deterministic";

    // Updates are for hash-then-sign mechanisms only.
    mechanism = {CKM_RSA_PKCS, nullptr, 0};
    ASSERT_EQ(p->C_SignInit(session, &mechanism, key), CKR_OK);
    EXPECT_EQ(p->C_SignUpdate(session, data.data(), data.size()), CKR_MECHANISM_INVALID);
}

TEST_F(TokenKeys, Pkcs1PaddingLeavesRoomForElevenBytes)
{
    Blob signature;
    const Blob longest(k - 11, 0xA5);
    ASSERT_EQ(sign({CKM_RSA_PKCS, nullptr, 0}, longest, &signature), CKR_OK);
    const Blob block = publicRaw(reference.get(), signature);
    ASSERT_EQ(block.size(), k);
    EXPECT_EQ(Blob(block.begin(), block.begin() + 11), (Blob{0x00, 0x01, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00}));
    EXPECT_EQ(Blob(block.begin() + 11, block.end()), longest);

    // One byte more is refused before any size is given.
    CK_MECHANISM mechanism = {CKM_RSA_PKCS, nullptr, 0};
    ASSERT_EQ(p->C_SignInit(session, &mechanism, key), CKR_OK);
    Blob tooLong(k - 10, 0xA5);
    CK_ULONG length = 0;
    EXPECT_EQ(p->C_Sign(session, tooLong.data(), tooLong.size(), nullptr, &length), CKR_DATA_LEN_RANGE);
}

TEST_F(TokenKeys, MechanismParametersAreCheckedAtInitAndDigestLengthsAtSigning)
{
    CK_RSA_PKCS_PSS_PARAMS sha256 = {CKM_SHA256, CKG_MGF1_SHA256, 32};
    CK_MECHANISM plainPss = {CKM_RSA_PKCS_PSS, &sha256, sizeof sha256};
    ASSERT_EQ(p->C_SignInit(session, &plainPss, key), CKR_OK);
    Blob twenty(20, 1), out(k);
    CK_ULONG length = k;
    EXPECT_EQ(p->C_Sign(session, twenty.data(), twenty.size(), out.data(), &length), CKR_DATA_LEN_RANGE);

    struct Refused {
        CK_MECHANISM mechanism;
        CK_RV rv;
    };
    CK_RSA_PKCS_PSS_PARAMS sha1Params = {CKM_SHA_1, CKG_MGF1_SHA1, 20};
    CK_RSA_PKCS_PSS_PARAMS badMgf = {CKM_SHA256, 0x99, 32};
    CK_RSA_PKCS_PSS_PARAMS md5 = {CKM_MD5, CKG_MGF1_SHA1, 16};
    CK_BYTE stray = 0;
    const Refused refused[] = {
        {{CKM_SHA256_RSA_PKCS_PSS, &sha1Params, sizeof sha1Params}, CKR_MECHANISM_PARAM_INVALID},
        {{CKM_SHA256_RSA_PKCS_PSS, &badMgf, sizeof badMgf}, CKR_MECHANISM_PARAM_INVALID},
        {{CKM_RSA_PKCS_PSS, &md5, sizeof md5}, CKR_MECHANISM_PARAM_INVALID},
        {{CKM_RSA_PKCS_PSS, &sha256, sizeof sha256 - 1}, CKR_MECHANISM_PARAM_INVALID},
        {{CKM_SHA256_RSA_PKCS, &stray, 1}, CKR_MECHANISM_PARAM_INVALID},
        {{CKM_MD5_RSA_PKCS, nullptr, 0}, CKR_MECHANISM_INVALID},
        {{CKM_RSA_9796, nullptr, 0}, CKR_MECHANISM_INVALID},
    };
    for (const Refused& r : refused) {
        CK_MECHANISM mechanism = r.mechanism;
        EXPECT_EQ(p->C_SignInit(session, &mechanism, key), r.rv) << "mechanism 0x" << std::hex << mechanism.mechanism;
    }

    // Sign-recover offers the raw operation only.
    CK_MECHANISM iso = {CKM_RSA_9796, nullptr, 0};
    EXPECT_EQ(p->C_SignRecoverInit(session, &iso, key), CKR_MECHANISM_INVALID);
    CK_MECHANISM raw = {CKM_RSA_X_509, nullptr, 0};
    ASSERT_EQ(p->C_SignRecoverInit(session, &raw, key), CKR_OK);
    Blob block(k, 0x00);
    block[k - 1] = 0x2A;
    length = k;
    ASSERT_EQ(p->C_SignRecover(session, block.data(), k, out.data(), &length), CKR_OK);
    EXPECT_EQ(publicRaw(reference.get(), Blob(out.begin(), out.begin() + length)), block);
}

TEST_F(TokenKeys, DecryptionRoundTripsOpenSslCiphertexts)
{
    const Blob secret = {'s', 'e', 'c', 'r', 'e', 't'};
    Blob plain;
    ASSERT_EQ(decrypt({CKM_RSA_PKCS, nullptr, 0}, encrypt(reference.get(), secret), &plain), CKR_OK);
    EXPECT_EQ(plain, secret);

    CK_RSA_PKCS_OAEP_PARAMS oaep = {CKM_SHA_1, CKG_MGF1_SHA1, 0, nullptr, 0};
    ASSERT_EQ(decrypt({CKM_RSA_PKCS_OAEP, &oaep, sizeof oaep}, encrypt(reference.get(), secret, true), &plain), CKR_OK);
    EXPECT_EQ(plain, secret);
    Blob label = {'l', 'a', 'b', 'e', 'l'};
    CK_RSA_PKCS_OAEP_PARAMS labelled = {CKM_SHA_1, CKG_MGF1_SHA1, CKZ_DATA_SPECIFIED, label.data(), label.size()};
    const Blob withLabel = encrypt(reference.get(), secret, true, label);
    ASSERT_EQ(decrypt({CKM_RSA_PKCS_OAEP, &labelled, sizeof labelled}, withLabel, &plain), CKR_OK);
    EXPECT_EQ(plain, secret);
    // The wrong label is found out even though the separator is in place.
    EXPECT_EQ(decrypt({CKM_RSA_PKCS_OAEP, &oaep, sizeof oaep}, withLabel, &plain), CKR_ENCRYPTED_DATA_INVALID);
    // Not a block type 2 block: OAEP ciphertext taken for PKCS #1.
    EXPECT_EQ(decrypt({CKM_RSA_PKCS, nullptr, 0}, withLabel, &plain), CKR_ENCRYPTED_DATA_INVALID);
}

TEST_F(TokenKeys, DecryptionChecksLengthsAndParameters)
{
    CK_RSA_PKCS_OAEP_PARAMS oaep = {CKM_SHA_1, CKG_MGF1_SHA1, 0, nullptr, 0};
    CK_MECHANISM mechanism = {CKM_RSA_PKCS_OAEP, &oaep, sizeof oaep};
    ASSERT_EQ(p->C_DecryptInit(session, &mechanism, key), CKR_OK);
    Blob ciphertext = encrypt(reference.get(), data, true);
    CK_ULONG length = 0;
    EXPECT_EQ(p->C_Decrypt(session, ciphertext.data(), k, nullptr, &length), CKR_OK);
    EXPECT_EQ(length, k - 42);
    EXPECT_EQ(p->C_Decrypt(session, ciphertext.data(), k - 1, nullptr, &length), CKR_DATA_LEN_RANGE);

    CK_BYTE source[] = {1, 2};
    CK_RSA_PKCS_OAEP_PARAMS sourceWithoutKind = {CKM_SHA_1, CKG_MGF1_SHA1, 0, source, sizeof source};
    CK_RSA_PKCS_OAEP_PARAMS sha256 = {CKM_SHA256, CKG_MGF1_SHA1, 0, nullptr, 0};
    CK_RSA_PKCS_OAEP_PARAMS unknownSource = {CKM_SHA_1, CKG_MGF1_SHA1, 2, nullptr, 0};
    for (CK_RSA_PKCS_OAEP_PARAMS* params : {&sourceWithoutKind, &sha256, &unknownSource}) {
        mechanism = {CKM_RSA_PKCS_OAEP, params, sizeof *params};
        EXPECT_EQ(p->C_DecryptInit(session, &mechanism, key), CKR_MECHANISM_PARAM_INVALID);
    }
    mechanism = {CKM_RSA_PKCS_OAEP, &oaep, sizeof oaep - 8};
    EXPECT_EQ(p->C_DecryptInit(session, &mechanism, key), CKR_MECHANISM_PARAM_INVALID);
    mechanism = {CKM_SHA256_RSA_PKCS, nullptr, 0};
    EXPECT_EQ(p->C_DecryptInit(session, &mechanism, key), CKR_MECHANISM_INVALID);

    // Raw decryption gives the whole block back.
    mechanism = {CKM_RSA_X_509, nullptr, 0};
    ASSERT_EQ(p->C_DecryptInit(session, &mechanism, key), CKR_OK);
    Blob out(k);
    length = k - 1;
    EXPECT_EQ(p->C_Decrypt(session, ciphertext.data(), k, out.data(), &length), CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ(length, k);
    EXPECT_EQ(p->C_Decrypt(session, ciphertext.data(), k, out.data(), &length), CKR_OK);
    EXPECT_EQ(out[0], 0x00);
}

TEST_F(TokenKeys, RetryAfterTooSmallBufferIsAnsweredWithoutTheHelper)
{
    CK_MECHANISM mechanism = {CKM_RSA_PKCS, nullptr, 0};
    Blob ciphertext = encrypt(reference.get(), data);
    ASSERT_EQ(p->C_DecryptInit(session, &mechanism, key), CKR_OK);
    Blob out(k);
    CK_ULONG length = 2;
    ASSERT_EQ(p->C_Decrypt(session, ciphertext.data(), k, out.data(), &length), CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ(length, 2u) << "the length stays as it was";

    // With the key file gone the helper could not answer any more.
    std::filesystem::rename(keyFile(), keyFile() + ".away");
    length = k;
    ASSERT_EQ(p->C_Decrypt(session, ciphertext.data(), k, out.data(), &length), CKR_OK);
    EXPECT_EQ(Blob(out.begin(), out.begin() + length), data);

    // Other input needs the helper, which now refuses: the call is canceled.
    Blob signature;
    EXPECT_EQ(sign({CKM_SHA256_RSA_PKCS, nullptr, 0}, data, &signature), CKR_FUNCTION_CANCELED);
    std::filesystem::rename(keyFile() + ".away", keyFile());
    EXPECT_EQ(sign({CKM_SHA256_RSA_PKCS, nullptr, 0}, data, &signature), CKR_OK);
}

TEST_F(TokenKeys, UnwrapMakesASecretKeyFromTheDecryptedValue)
{
    const Blob aesKey(16, 0x3C);
    Blob wrapped = encrypt(reference.get(), aesKey);
    CK_MECHANISM mechanism = {CKM_RSA_PKCS, nullptr, 0};
    Tmpl t;
    t.ulong(CKA_CLASS, CKO_SECRET_KEY).ulong(CKA_KEY_TYPE, CKK_AES).flag(CKA_SENSITIVE, false).flag(CKA_EXTRACTABLE, true);
    CK_OBJECT_HANDLE unwrapped = CK_INVALID_HANDLE;
    ASSERT_EQ(p->C_UnwrapKey(session, &mechanism, key, wrapped.data(), wrapped.size(), t.data(), t.size(), &unwrapped),
              CKR_OK);
    EXPECT_EQ(value(unwrapped, CKA_VALUE), aesKey);
}

}  // namespace
