#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include "pkcs11/db/Tavik_privatekey_helper.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <gtest/gtest.h>

#include "pkcs11/objects/P11Obj.h"
#include "support/temp_home.h"

namespace {

using Bytes = std::vector<unsigned char>;

const char* const kMissingHelperRun = "KORVO_TEST_HELPER_MISSING_RUN";

// A stand-in for the private-key class: the modulus is the only attribute.
struct FakeKey {
    P11Obj header{};
    Bytes modulus;
    CK_ATTRIBUTE modulusAttribute{};
    Bytes digest;
    std::wstring userName;
    bool nullUserName = false;
};

CK_RV peekModulus(P11Obj* object, CK_ATTRIBUTE_TYPE type, const CK_ATTRIBUTE** attribute)
{
    if (type != CKA_MODULUS) return CKR_ATTRIBUTE_TYPE_INVALID;
    *attribute = &reinterpret_cast<FakeKey*>(object)->modulusAttribute;
    return CKR_OK;
}

CK_RV readKeyInfo(P11Obj* object, Tavik_RsaKeyInfo* info)
{
    FakeKey* key = reinterpret_cast<FakeKey*>(object);
    info->certDigest = key->digest.data();
    info->userName = key->nullUserName ? nullptr : key->userName.c_str();
    return CKR_OK;
}

P11ObjClass makeClass()
{
    P11ObjClass clazz{};
    clazz.name = "fake private key";
    clazz.peekAttribute = peekModulus;
    return clazz;
}
const P11ObjClass kKeyClass = makeClass();
const P11ObjClass kOtherClass = makeClass();
const Tavik_RsaKeyAccess kAccess{&kKeyClass, readKeyInfo};

std::string lowerHex(const Bytes& bytes)
{
    return ByteArray(bytes.data(), bytes.size()).toHex(HexCase::Lower);
}

class HelperTest : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        EVP_PKEY_CTX* context = EVP_PKEY_CTX_new_id(EVP_PKEY_RSA, nullptr);
        ASSERT_TRUE(context);
        ASSERT_GT(EVP_PKEY_keygen_init(context), 0);
        ASSERT_GT(EVP_PKEY_CTX_set_rsa_keygen_bits(context, 2048), 0);
        ASSERT_GT(EVP_PKEY_keygen(context, &rsaKey), 0);
        EVP_PKEY_CTX_free(context);
    }
    static void TearDownTestSuite()
    {
        EVP_PKEY_free(rsaKey);
        rsaKey = nullptr;
    }

    void SetUp() override
    {
        runLog = testsupport::freshDirectory("helper-runs") + "/runs.txt";
        setenv("KORVO_HELPER_RUN_LOG", runLog.toLocal8Bit().constData(), 1);
        makeKey(key);
    }
    void TearDown() override
    {
        unsetenv("KORVO_HELPER_RUN_LOG");
        unsetenv("KORVO_HELPER_TEST_MODE");
        unsetenv("KORVO_HELPER_TEST_OUTPUT");
    }

    // A key object under a fresh certificate digest, its private key in the
    // user's key folder, so no earlier cache entry can answer for it.
    void makeKey(FakeKey& made)
    {
        made.header.clazz = &kKeyClass;
        made.digest.resize(32);
        RAND_bytes(made.digest.data(), 32);
        made.userName = L"Alice";
        BIGNUM* n = nullptr;
        EVP_PKEY_get_bn_param(rsaKey, "n", &n);
        made.modulus.resize(BN_num_bytes(n));
        BN_bn2bin(n, made.modulus.data());
        BN_free(n);
        made.modulusAttribute = {CKA_MODULUS, made.modulus.data(), made.modulus.size()};

        const QString dir = testsupport::tempHome() + "/.korvo/keys";
        QDir().mkpath(dir);
        const QString path = dir + "/" + QString::fromStdString(lowerHex(made.digest)) + ".pem";
        FILE* file = std::fopen(path.toLocal8Bit().constData(), "w");
        EXPECT_TRUE(file);
        if (file) {
            EXPECT_EQ(PEM_write_PrivateKey(file, rsaKey, nullptr, nullptr, 0, nullptr, nullptr), 1);
            std::fclose(file);
        }
    }

    Bytes block(unsigned char fill) const
    {
        Bytes bytes(key.modulus.size(), fill);
        bytes[0] = 0;
        return bytes;
    }

    static Bytes openSslRaw(const Bytes& input)
    {
        EVP_PKEY_CTX* context = EVP_PKEY_CTX_new(rsaKey, nullptr);
        Bytes output(input.size());
        size_t length = output.size();
        EXPECT_GT(EVP_PKEY_decrypt_init(context), 0);
        EXPECT_GT(EVP_PKEY_CTX_set_rsa_padding(context, RSA_NO_PADDING), 0);
        EXPECT_GT(EVP_PKEY_decrypt(context, output.data(), &length, input.data(), input.size()), 0);
        EVP_PKEY_CTX_free(context);
        output.resize(length);
        return output;
    }

    CK_RV run(FakeKey& which, Bytes input, Bytes* output, unsigned long capacity)
    {
        output->assign(capacity, 0xEE);
        unsigned long length = capacity;
        const CK_RV rv = Tavik_RSA_decrypt(nullptr, &which.header, input.data(), input.size(), output->data(), &length, kAccess);
        if (rv == CKR_OK) output->resize(length);
        return rv;
    }

    QStringList runs() const
    {
        QFile file(runLog);
        if (!file.open(QIODevice::ReadOnly)) return {};
        return QString::fromLatin1(file.readAll()).split('\n', Qt::SkipEmptyParts);
    }

    static EVP_PKEY* rsaKey;
    QString runLog;
    FakeKey key;
};

EVP_PKEY* HelperTest::rsaKey = nullptr;

// '' on the shell's command line reaches the helper as an empty argument.
TEST_F(HelperTest, EmptyUserNameReachesTheHelperAsEmptyArgument)
{
    const QString expected = " " + QString::fromStdString(ByteArray(key.digest.data(), 32).toHex()) + " ";
    for (bool null : {true, false}) {
        key.nullUserName = null;
        key.userName.clear();
        Bytes output;
        ASSERT_EQ(run(key, block(null ? 1 : 2), &output, key.modulus.size()), CKR_OK);
        EXPECT_TRUE(runs().last().startsWith(expected)) << runs().last().toStdString();
    }
}

TEST(HelperUserNameHex, KeepsLowSixteenBitsOfEachCharacterHighByteFirst)
{
    EXPECT_EQ(Tavik_userNameHex(L"Ab"), "00410062");
    EXPECT_EQ(Tavik_userNameHex(L"\u00C5"), "00C5");
    EXPECT_EQ(Tavik_userNameHex(L"\U0001F600"), "F600");
    EXPECT_EQ(Tavik_userNameHex(L""), "''");
    EXPECT_EQ(Tavik_userNameHex(nullptr), "''");
}

TEST_F(HelperTest, RawResultEqualsOpenSslsAndSizeQueriesAndRetriesRunTheHelperOnce)
{
    key.userName = L"\u00C5";
    Bytes input = block(0x33);
    unsigned long length = 0;
    ASSERT_EQ(Tavik_RSA_decrypt(nullptr, &key.header, input.data(), input.size(), nullptr, &length, kAccess), CKR_OK);
    EXPECT_EQ(length, key.modulus.size());
    EXPECT_TRUE(runs().isEmpty());

    Bytes small(10);
    length = small.size();
    EXPECT_EQ(Tavik_RSA_decrypt(nullptr, &key.header, input.data(), input.size(), small.data(), &length, kAccess),
              CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ(length, 10u);

    Bytes output;
    ASSERT_EQ(run(key, input, &output, key.modulus.size()), CKR_OK);
    EXPECT_EQ(output, openSslRaw(input));
    ASSERT_EQ(runs().size(), 1);  // user name, digest and input as hex
    EXPECT_EQ(runs()[0].toStdString(), "00C5 " + ByteArray(key.digest.data(), 32).toHex() + " " +
                                           ByteArray(input.data(), input.size()).toHex());

    // Another input, or the same input under another certificate, runs it again.
    ASSERT_EQ(run(key, block(0x34), &output, key.modulus.size()), CKR_OK);
    FakeKey other;
    makeKey(other);
    ASSERT_EQ(run(other, block(0x34), &output, key.modulus.size()), CKR_OK);
    EXPECT_EQ(runs().size(), 3);
}

// The test helper's mode and output stand in for what a real helper may do:
// refuse, crash, exit 1 with a valid result, or print something odd.
TEST_F(HelperTest, HelperOutcomeDecidesTheResultButNotACachedOne)
{
    Bytes output;
    ASSERT_EQ(run(key, block(7), &output, key.modulus.size()), CKR_OK);
    setenv("KORVO_HELPER_TEST_MODE", "refuse", 1);
    ASSERT_EQ(run(key, block(7), &output, key.modulus.size()), CKR_OK);
    EXPECT_EQ(output, openSslRaw(block(7)));
    EXPECT_EQ(runs().size(), 1);
    const struct {
        const char* mode;
        const char* output;
        CK_RV rv;
        Bytes expected;
    } cases[] = {
        {"refuse", nullptr, CKR_FUNCTION_CANCELED, {}},
        {"crash", nullptr, CKR_DEVICE_ERROR, {}},
        {"exit1", nullptr, CKR_OK, openSslRaw(block(8))},
        {nullptr, "abc00ff\n", CKR_OK, Bytes{0xFF}},  // the first 00-hex run of the upper-cased output
        {nullptr, "error 42", CKR_FUNCTION_CANCELED, {}},
        {"flood", nullptr, CKR_FUNCTION_CANCELED, {}},  // a result beyond the output limit is not taken
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.mode ? c.mode : c.output);
        c.mode ? setenv("KORVO_HELPER_TEST_MODE", c.mode, 1) : unsetenv("KORVO_HELPER_TEST_MODE");
        c.output ? setenv("KORVO_HELPER_TEST_OUTPUT", c.output, 1) : unsetenv("KORVO_HELPER_TEST_OUTPUT");
        FakeKey fresh;  // a new digest: no cached result answers
        makeKey(fresh);
        ASSERT_EQ(run(fresh, block(8), &output, key.modulus.size()), c.rv);
        if (c.rv == CKR_OK) {
            EXPECT_EQ(output, c.expected);
        }
    }
}

// The helper gets /dev/null as standard input and error, our pipe as its
// output, and none of the application's descriptors (one is open here).
TEST_F(HelperTest, HelperGetsOnlyItsOutputPipe)
{
    const QByteArray secret = (testsupport::freshDirectory("open-file") + "/secret").toLocal8Bit();
    const int fd = open(secret.constData(), O_CREAT | O_RDWR, 0600);  // inheritable
    ASSERT_GE(fd, 3);
    setenv("KORVO_HELPER_TEST_MODE", "descriptors", 1);
    Bytes output;
    FakeKey fresh;
    makeKey(fresh);
    EXPECT_EQ(run(fresh, block(9), &output, key.modulus.size()), CKR_OK);
    close(fd);
    QString line;
    for (const QString& entry : runs())
        if (entry.startsWith("descriptors ")) line = entry.mid(12);
    const QStringList descriptors = line.split(' ', Qt::SkipEmptyParts);
    ASSERT_GE(descriptors.size(), 3) << line.toStdString();
    EXPECT_EQ(descriptors[0], "0=/dev/null");
    EXPECT_TRUE(descriptors[1].startsWith("1=pipe:")) << line.toStdString();
    EXPECT_EQ(descriptors[2], "2=/dev/null");
    // Beyond those, only the helper's own look at its descriptor list.
    EXPECT_LE(descriptors.size(), 4) << line.toStdString();
    EXPECT_FALSE(line.contains("secret")) << line.toStdString();
}

TEST_F(HelperTest, ArgumentsAreCheckedBeforeAnyRun)
{
    Bytes input = block(13), output(key.modulus.size());
    unsigned long length = output.size();
    EXPECT_EQ(Tavik_RSA_decrypt(nullptr, nullptr, input.data(), input.size(), output.data(), &length, kAccess), CKR_KEY_NEEDED);
    FakeKey other;
    makeKey(other);
    other.header.clazz = &kOtherClass;
    EXPECT_EQ(Tavik_RSA_decrypt(nullptr, &other.header, input.data(), input.size(), output.data(), &length, kAccess),
              CKR_KEY_TYPE_INCONSISTENT);
    EXPECT_EQ(Tavik_RSA_decrypt(nullptr, &key.header, nullptr, 0, output.data(), &length, kAccess), CKR_MECHANISM_PARAM_INVALID);
    EXPECT_EQ(Tavik_RSA_decrypt(nullptr, &key.header, input.data(), input.size(), output.data(), nullptr, kAccess),
              CKR_MECHANISM_PARAM_INVALID);
    EXPECT_TRUE(runs().isEmpty());
}

TEST(HelperCache, HitsOnlyOnTheSameDigestAndInputBytes)
{
    DecryptionCache cache;
    const ByteArray digest{1, 2, 3}, input{4, 5}, stored{9};
    cache.Insert(digest, input, stored);
    ByteArray result;
    EXPECT_FALSE(cache.TryLookUp(digest, ByteArray{4}, result));
    EXPECT_FALSE(cache.TryLookUp(ByteArray{1, 2, 4}, input, result));
    ASSERT_TRUE(cache.TryLookUp(digest, input, result));
    EXPECT_EQ(result, stored);
}

// The helper is looked for beside the code's own file: this test program
// runs again under a name in another directory, one without the helper and
// one whose name is not valid UTF-8 with the helper beside it.
TEST_F(HelperTest, HelperIsFoundBesideTheCodeWhateverTheDirectoryName)
{
    if (const char* expected = std::getenv(kMissingHelperRun)) {
        Bytes output;
        EXPECT_EQ(run(key, block(14), &output, key.modulus.size()), CK_RV(std::strtoul(expected, nullptr, 10)));
        return;
    }
    const QString ownDirectory = QFileInfo(CurrentFileName::getCurrentFileName()).dir().absolutePath();
    ASSERT_TRUE(QFileInfo::exists(ownDirectory + "/KorvoPerformRsa"));
    const struct {
        const char* name;
        bool withHelper;
        CK_RV expected;
    } cases[] = {{"no-helper", false, CKR_FUNCTION_CANCELED}, {"helper-\xff\xfe-\x80", true, CKR_OK}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string directory = testsupport::freshDirectory("dirs").toStdString() + "/" + c.name;
        ASSERT_EQ(mkdir(directory.c_str(), 0700), 0);
        if (c.withHelper) {
            ASSERT_EQ(symlink((ownDirectory + "/KorvoPerformRsa").toLocal8Bit().constData(),
                              (directory + "/KorvoPerformRsa").c_str()),
                      0);
        }
        const std::string fakeName = directory + "/unit_tests";
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            setenv(kMissingHelperRun, std::to_string(c.expected).c_str(), 1);
            char filter[] = "--gtest_filter=HelperTest.HelperIsFoundBesideTheCodeWhateverTheDirectoryName";
            char* argv[] = {const_cast<char*>(fakeName.c_str()), filter, nullptr};
            execv("/proc/self/exe", argv);
            _exit(127);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFEXITED(status));
        EXPECT_EQ(WEXITSTATUS(status), 0);
    }
}

}  // namespace
