#include "config/certificatehandler.h"

#include <memory>
#include <stdexcept>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSet>

#include <gtest/gtest.h>

#include "certificates/der_builder.h"
#include "config/fileconfiguration.h"
#include "config/fileutil.h"
#include "config/multicertificate.h"
#include "deps/cpp_modules/Hashers.h"
#include "support/temp_home.h"

using testsupport::tempHome;

namespace {

ByteArray readBytes(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) return ByteArray();
    const QByteArray bytes = file.readAll();
    return ByteArray(reinterpret_cast<const uint8_t*>(bytes.constData()), size_t(bytes.size()));
}

void writeBytes(const QString& path, const ByteArray& bytes)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly)) << path.toStdString();
    file.write(reinterpret_cast<const char*>(bytes.data()), qint64(bytes.size()));
}

// Three OCES user certificates and one with a DSA key (an X.509 certificate
// but no OCES certificate), from the test certificates made at build time.
struct TestCertificates {
    ByteArray user[3];
    ByteArray dsaKey;
};

const TestCertificates& certs()
{
    const auto load = [](const char* name) { return readBytes(QStringLiteral(KORVO_TEST_CERTS_DIR "/") + name); };
    static const TestCertificates made{
        {load("user-person.der"), load("user-employee.der"), load("user-company.der")}, load("user-dsa.der")};
    return made;
}

QString hashHex(const ByteArray& der)
{
    return QString::fromStdString(Sha256::Hash(der).toHex(HexCase::Lower));
}

const ByteArray kJunk = ByteArray::fromString("not a certificate");

class CertificateStoreTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        testsupport::clearSettings();
        QDir(tempHome() + "/.korvo").removeRecursively();
        store.reset(CertificateHandler::Instance(&config));
        ASSERT_FALSE(certs().user[2].empty() || certs().dsaKey.empty()) << "test certificates missing";
    }
    void TearDown() override
    {
        QDir(tempHome() + "/.korvo").removeRecursively();
        testsupport::clearSettings();
    }

    static QString userDir() { return tempHome() + "/.korvo/user_certificates"; }
    static QString intermediateDir() { return tempHome() + "/.korvo/intermediate_certificates"; }
    static QString rootDir() { return tempHome() + "/.korvo/root_certificates"; }
    static QString made(const QString& dir)
    {
        QDir().mkpath(dir);
        return dir;
    }
    static QString userFile(const QString& user, const ByteArray& der)
    {
        return userDir() + "/" + user + "_" + hashHex(der) + ".cer";
    }

    QSet<QString> loadedUserNames() const
    {
        QSet<QString> names;
        for (const MultiCertificate& mc : store->certificates()) names.insert(mc.getUserName());
        return names;
    }

    FileConfiguration config;
    std::unique_ptr<CertificateHandler> store;
};

}  // namespace

// --- Listing and loading -------------------------------------------------

TEST_F(CertificateStoreTest, UserNameIsTheFileNameUpToItsFirstUnderscoreAndContentIsNotChecked)
{
    store->loadClientCertificates();  // no directory at all: three empty lists
    EXPECT_TRUE(store->certificates().isEmpty());
    EXPECT_TRUE(store->intermediateCaCertificates().isEmpty());
    EXPECT_TRUE(store->rootCaCertificates().isEmpty());

    made(userDir());
    writeBytes(userDir() + "/alice_0123.cer", kJunk);  // hash part does not match the content
    writeBytes(userDir() + "/a_b_c.cer", certs().user[0]);
    writeBytes(userDir() + "/Carol_X.CER", certs().user[1]);  // extension in another case
    writeBytes(userDir() + "/nounderscore.cer", certs().user[2]);
    writeBytes(userDir() + "/dave_x.cer.bak", certs().user[2]);
    store->loadClientCertificates();
    EXPECT_EQ(loadedUserNames(), (QSet<QString>{"alice", "a", "Carol"}));
    for (const MultiCertificate& mc : store->certificates())
        EXPECT_TRUE(mc.getUserName() != "alice" || mc.asByteArray() == kJunk) << "content is taken as it is";
}

TEST_F(CertificateStoreTest, OnlyReadableRegularFilesAreListedAndOthersFailToReadAtOnce)
{
    const QString dir = made(userDir());
    writeBytes(dir + "/real_1.cer", certs().user[0]);
    writeBytes(tempHome() + "/elsewhere.cer", certs().user[1]);
    ASSERT_TRUE(QFile::link(tempHome() + "/elsewhere.cer", dir + "/link_2.cer"));
    ASSERT_TRUE(QFile::link(dir + "/missing", dir + "/dangling_3.cer"));
    ASSERT_TRUE(QDir().mkdir(dir + "/folder_4.cer"));
    ASSERT_EQ(mkfifo((dir + "/fifo_5.cer").toLocal8Bit().constData(), 0600), 0);
    writeBytes(dir + "/locked_6.cer", certs().user[0]);
    ASSERT_TRUE(QFile::setPermissions(dir + "/locked_6.cer", QFileDevice::WriteOwner));
    const bool root = geteuid() == 0;  // root can read every file
    const QStringList expected = root ? QStringList{"locked_6.cer", "real_1.cer"} : QStringList{"real_1.cer"};

    for (const char* pattern : {"*_*.cer", "*.CER"}) {
        QStringList listed = FileUtil::getFilesInDirectory(QDir(dir), pattern);
        listed.sort();
        EXPECT_EQ(listed, expected) << pattern;
    }
    store->loadClientCertificates();
    EXPECT_EQ(loadedUserNames(), (root ? QSet<QString>{"real", "locked"} : QSet<QString>{"real"}));
    for (const QString& path : {dir + "/fifo_5.cer", dir + "/missing_7.cer"})
        der::expectThrow<std::runtime_error>([&] { FileUtil::readFileIntoByteArray(path); },
                                             "Unable to open file for reading!", path.toStdString());
}

TEST_F(CertificateStoreTest, EmptyUserFileAbortsTheLoadAndKeepsThePreviousLists)
{
    writeBytes(made(userDir()) + "/alice_1.cer", certs().user[0]);
    writeBytes(made(rootDir()) + "/r.cer", certs().user[1]);
    store->loadClientCertificates();
    writeBytes(userDir() + "/x_y.cer", ByteArray());
    QFile::remove(rootDir() + "/r.cer");

    const std::string message = "Could not read certificate file: " + (userDir() + "/x_y.cer").toStdString();
    der::expectThrow<std::runtime_error>([&] { store->loadClientCertificates(); }, message.c_str());
    EXPECT_EQ(store->certificates().size(), 1);
    EXPECT_EQ(store->rootCaCertificates().size(), 1);
}

TEST_F(CertificateStoreTest, CaFilesOfBothDirectoriesAreLoadedEmptyOnesIncluded)
{
    writeBytes(made(intermediateDir()) + "/" + hashHex(certs().user[0]) + ".cer", certs().user[0]);
    writeBytes(intermediateDir() + "/empty.cer", ByteArray());
    writeBytes(intermediateDir() + "/other.der", certs().user[1]);
    writeBytes(made(rootDir()) + "/any.Cer", certs().user[2]);

    store->loadClientCertificates();
    EXPECT_EQ(store->intermediateCaCertificates().size(), 2);
    EXPECT_TRUE(store->intermediateCaCertificates().contains(certs().user[0]));
    EXPECT_TRUE(store->intermediateCaCertificates().contains(ByteArray()));
    EXPECT_EQ(store->rootCaCertificates(), QList<ByteArray>{certs().user[2]});
    EXPECT_TRUE(store->certificates().isEmpty());
}

TEST_F(CertificateStoreTest, DirectoriesComeFromTheConfigurationWithTildeExpanded)
{
    const QString absolute = testsupport::freshDirectory("custom-users");
    testsupport::setSetting("CertificateDir", absolute);
    testsupport::setSetting("RootCertificateDir", "~/custom-roots");
    writeBytes(absolute + "/bob_1.cer", certs().user[0]);
    writeBytes(testsupport::freshDirectory("custom-roots") + "/r.cer", certs().user[1]);

    store->loadClientCertificates();
    EXPECT_EQ(loadedUserNames(), QSet<QString>{"bob"});
    EXPECT_EQ(store->rootCaCertificates(), QList<ByteArray>{certs().user[1]});
}

// --- Saving ------------------------------------------------------------------

TEST_F(CertificateStoreTest, SavedUserCertificatesAreNamedByUserAndHashReplaceWholeAndLoadBack)
{
    const ByteArray& der = certs().user[0];
    ByteArray longer = der;
    longer.append(kJunk);
    writeBytes(made(userDir()) + "/" + QFileInfo(userFile("alice", der)).fileName(), longer);
    store->saveUserCertificate(MultiCertificate("alice", der), false);
    store->saveUserCertificate(MultiCertificate("alice", der), true);
    store->saveUserCertificate(MultiCertificate("bob", der), false);

    EXPECT_EQ(readBytes(userFile("alice", der)), der);
    EXPECT_EQ(QDir(userDir()).entryList(QDir::Files | QDir::Hidden).size(), 2) << "one file per user and certificate";
    EXPECT_TRUE(store->certificates().isEmpty()) << "a save leaves the cached list alone";
    store->loadClientCertificates();
    EXPECT_EQ(loadedUserNames(), (QSet<QString>{"alice", "bob"}));
    for (const MultiCertificate& mc : store->certificates()) EXPECT_EQ(mc.asByteArray(), der);
}

TEST_F(CertificateStoreTest, UserSavesRefuseWhatIsNoOcesCertificateCaSavesCheckNothing)
{
    for (const ByteArray& bad : {kJunk, certs().dsaKey, ByteArray()})
        EXPECT_ANY_THROW(store->saveUserCertificate(MultiCertificate("alice", bad), false)) << bad.size();
    EXPECT_TRUE(QDir(userDir()).entryList(QDir::Files).isEmpty());
    store->saveRootCaCertificate(kJunk);
    store->saveIntermediateCaCertificate(certs().dsaKey);
    EXPECT_EQ(readBytes(rootDir() + "/" + hashHex(kJunk) + ".cer"), kJunk);
    EXPECT_EQ(readBytes(intermediateDir() + "/" + hashHex(certs().dsaKey) + ".cer"), certs().dsaKey);
}

TEST_F(CertificateStoreTest, SaveIntoAnUncreatableDirectoryFailsWithTheWriteError)
{
    made(tempHome() + "/.korvo");
    writeBytes(userDir(), kJunk);  // a file where the directory should be
    const std::string message =
        "Unable to open certificate file " + userFile("alice", certs().user[0]).toStdString() + " for writing.";
    der::expectThrow<std::runtime_error>(
        [&] { store->saveUserCertificate(MultiCertificate("alice", certs().user[0]), false); }, message.c_str());
    EXPECT_EQ(readBytes(userDir()), kJunk);
}

// --- Deleting ----------------------------------------------------------------

TEST_F(CertificateStoreTest, DeleteRemovesTheNamedFileAndOneCachedEntryOrNothing)
{
    writeBytes(made(userDir()) + "/carol_0123.cer", certs().user[1]);
    store->saveUserCertificate(MultiCertificate("alice", certs().user[0]), false);
    store->saveUserCertificate(MultiCertificate("bob", certs().user[0]), false);
    store->loadClientCertificates();
    ASSERT_EQ(store->certificates().size(), 3);

    store->deleteUserCertificate(MultiCertificate("alice", certs().user[0]));
    EXPECT_FALSE(QFile::exists(userFile("alice", certs().user[0])));
    EXPECT_TRUE(QFile::exists(userFile("bob", certs().user[0])));
    EXPECT_EQ(store->certificates().size(), 2);
    // carol's path is carol_<hash>.cer, not the file she was loaded from: nothing goes.
    store->deleteUserCertificate(MultiCertificate("carol", certs().user[1]));
    EXPECT_TRUE(QFile::exists(userDir() + "/carol_0123.cer"));
    EXPECT_EQ(store->certificates().size(), 2);
}

TEST_F(CertificateStoreTest, DeleteCaCertificatesRemovesFileAndCachedEntry)
{
    store->saveRootCaCertificate(certs().user[0]);
    store->saveIntermediateCaCertificate(certs().user[1]);
    store->saveIntermediateCaCertificate(certs().user[2]);
    writeBytes(rootDir() + "/copy.cer", certs().user[0]);
    store->loadClientCertificates();

    store->deleteRootCaCertificate(certs().user[0]);
    store->deleteIntermediateCaCertificate(certs().user[1]);
    EXPECT_EQ(store->rootCaCertificates(), QList<ByteArray>{certs().user[0]}) << "only the first equal entry goes";
    EXPECT_EQ(store->intermediateCaCertificates(), QList<ByteArray>{certs().user[2]});
    EXPECT_EQ(QDir(rootDir()).entryList(QDir::Files), QStringList{"copy.cer"});
    EXPECT_EQ(QDir(intermediateDir()).entryList(QDir::Files), QStringList{hashHex(certs().user[2]) + ".cer"});
}

TEST_F(CertificateStoreTest, DeleteAllUserCertificatesWorksOnWhatIsOnDisk)
{
    store->deleteAllUserCertificates();  // nothing there: nothing happens
    for (int i = 0; i < 3; ++i) store->saveUserCertificate(MultiCertificate(QString("u%1").arg(i), certs().user[i]), false);
    store->saveRootCaCertificate(certs().user[0]);

    store->deleteAllUserCertificates();
    EXPECT_TRUE(QDir(userDir()).entryList(QDir::Files).isEmpty());
    EXPECT_TRUE(store->certificates().isEmpty());
    EXPECT_EQ(store->rootCaCertificates().size(), 1) << "CA certificates stay";
}

// --- The certificate record ---------------------------------------------------

TEST(MultiCertificateTest, HashIsTheSha256OfTheBytesAndTheNameIsKept)
{
    const ByteArray abc = ByteArray::fromString("abc");
    EXPECT_EQ(MultiCertificate(abc).getCertHash().toHex(HexCase::Lower),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(MultiCertificate(abc).getUserName(), "");
    EXPECT_EQ(MultiCertificate("alice", abc).getUserName(), "alice");
    EXPECT_EQ(MultiCertificate("alice", abc).asByteArray(), abc);
}

TEST_F(CertificateStoreTest, ReloadSeesEveryRewriteEvenWithTheOldSizeAndModificationTime)
{
    const QString path = made(rootDir()) + "/r.cer";
    ByteArray first = certs().user[0];
    writeBytes(path, first);
    store->loadClientCertificates();
    ASSERT_EQ(store->rootCaCertificates().size(), 1);
    EXPECT_EQ(store->rootCaCertificates()[0], first);

    // Same size, and the old modification time put back: only the change
    // time tells, and the new bytes must be seen.
    struct stat before;
    ASSERT_EQ(::stat(QFile::encodeName(path).constData(), &before), 0);
    ByteArray second = first;
    second[second.size() - 1] ^= 0xFF;
    usleep(20000);
    writeBytes(path, second);
    const struct timespec times[2] = {before.st_atim, before.st_mtim};
    ASSERT_EQ(::utimensat(AT_FDCWD, QFile::encodeName(path).constData(), times, 0), 0);
    store->loadClientCertificates();
    EXPECT_EQ(store->rootCaCertificates()[0], second);

    // A file replaced by another with the same bytes is still one entry.
    QFile::remove(path);
    writeBytes(path, second);
    store->loadClientCertificates();
    EXPECT_EQ(store->rootCaCertificates().size(), 1);
}

// File names are bytes: every name, valid UTF-8 or not, comes back from its
// decoded form exactly, and valid names decode as Qt would.
TEST(FileNames, EveryByteSequenceSurvivesDecoding)
{
    const QByteArray names[] = {
        "alice_01.cer",
        "\xc3\xa6\xc3\xb8\xc3\xa5_\xe2\x82\xac.cer",  // two-, three-byte characters
        "\xf0\x9f\x94\x91_key.cer",                  // a four-byte character
        "\xff\xfe\x80_x.cer",                        // bytes that are no UTF-8
        "\xc0\xaf_overlong.cer",                     // an overlong '/'
        "\xed\xa0\x80_surrogate.cer",                // an encoded surrogate
        "\xe2\x82_cut.cer",                          // a sequence cut short
    };
    for (const QByteArray& name : names) {
        SCOPED_TRACE(name.toHex().toStdString());
        const QString decoded = FileUtil::decodePath(name);
        EXPECT_EQ(FileUtil::encodePath(decoded), name);
        if (QString::fromUtf8(name).toUtf8() == name) {
            EXPECT_EQ(decoded, QString::fromUtf8(name));
        }
    }
}
