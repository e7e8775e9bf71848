// The token's certificate objects and delegated keys used by real client
// applications, each in a child process that loads the built module:
// OpenSC's pkcs11-tool, GnuTLS's p11tool, the NSS tools, the OpenSSL pkcs11
// engine and PyKCS11. Every test lays out the test store in the temporary
// HOME the children inherit (where the reference helper beside the module
// finds the user keys), and checks what the application produced against
// the store's files: certificates byte for byte, signatures verified and
// ciphertexts made by plain openssl from the certificates alone.

#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "abi/module_harness.h"
#include "abi/token_store.h"

namespace {

using korvo::CommandResult;
using korvo::runCommand;

#define EXPECT_CONTAINS(haystack, needle) \
    EXPECT_NE((haystack).find(needle), std::string::npos) << "missing \"" << (needle) << "\" in:\n" << (haystack)

struct StoreCertificate {
    std::string path;
    std::string id;  // lower-case hex SHA-256 of the DER: the CKA_ID of its objects
};

std::string shellWord(const std::string& text)
{
    return "'" + text + "'";
}

// The CKA_ID as a PKCS#11 URI writes it: every byte percent-encoded.
std::string uriId(const std::string& hex)
{
    std::string text;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) text += "%" + hex.substr(i, 2);
    return text;
}

std::string trimmed(const std::string& text)
{
    const size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string::npos) return "";
    return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

std::vector<std::string> lines(const std::string& text)
{
    std::vector<std::string> result;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) result.push_back(line);
    return result;
}

class ClientApps : public testing::Test {
protected:
    std::string work;                     // scratch files of the test, below the temporary HOME
    std::vector<StoreCertificate> users;  // the user certificates, sorted by file name
    StoreCertificate root, intermediate;

    void SetUp() override
    {
        if (!korvo::clientsCanLoadModule()) GTEST_SKIP() << "no shared sanitizer runtime to hand to the clients";
        korvo::installTestStore();
        work = korvo::tempHome() + "/apps";
        ASSERT_EQ(runCommand("mkdir -p " + shellWord(work)).status, 0);
        for (const std::string& path : korvo::filesIn(korvo::storeFolder("user_certificates")))
            users.push_back(certificate(path));
        const auto roots = korvo::filesIn(korvo::storeFolder("root_certificates"));
        const auto intermediates = korvo::filesIn(korvo::storeFolder("intermediate_certificates"));
        ASSERT_EQ(users.size(), 4u);
        ASSERT_EQ(roots.size(), 1u);
        ASSERT_EQ(intermediates.size(), 1u);
        root = certificate(roots[0]);
        intermediate = certificate(intermediates[0]);
    }

    // The one certificate of a user (bob and carol have one each, alice two).
    const StoreCertificate& userNamed(const std::string& name) const
    {
        const std::string prefix = korvo::storeFolder("user_certificates") + "/" + name + "_";
        const auto found = std::find_if(users.begin(), users.end(),
                                        [&](const StoreCertificate& c) { return c.path.rfind(prefix, 0) == 0; });
        if (found == users.end()) throw std::runtime_error("no certificate of " + name + " in the store");
        return *found;
    }

    static StoreCertificate certificate(const std::string& path)
    {
        return {path, korvo::sha256Hex(korvo::readFile(path))};
    }

    static bool installed(const std::string& program)
    {
        return runCommand("command -v " + program + " >/dev/null").status == 0;
    }

    // A client command line: in a sanitizer build the client needs the runtimes first.
    static std::string client(const std::string& command) { return korvo::sanitizerPreload() + command; }

    // Runs a command that must succeed; its output.
    static std::string succeed(const std::string& command)
    {
        const CommandResult result = runCommand(command);
        EXPECT_EQ(result.status, 0) << command << ":\n" << result.output;
        return result.output;
    }

    // A file's bytes; none when a failed command left no file.
    static korvo::FileBytes contents(const std::string& path)
    {
        struct stat info {};
        return stat(path.c_str(), &info) == 0 ? korvo::readFile(path) : korvo::FileBytes{};
    }

    // A file of some kilobytes in the scratch folder, to be signed.
    std::string dataFile()
    {
        const std::string path = work + "/data.txt";
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        for (int i = 0; i < 400; ++i) out << "line " << i << " of the document to sign\n";
        return path;
    }

    // The certificate's public key as a PEM file, extracted by openssl.
    std::string publicKey(const StoreCertificate& cert)
    {
        const std::string path = work + "/" + cert.id + ".pub.pem";
        succeed("openssl x509 -inform DER -in " + shellWord(cert.path) + " -pubkey -noout -out " + shellWord(path));
        return path;
    }

    // Whether plain openssl accepts `signature` as a SHA-256 signature of
    // `data` by the certificate's key (PKCS #1 v1.5 unless options say PSS).
    ::testing::AssertionResult verifies(const StoreCertificate& cert, const std::string& data,
                                        const std::string& signature, const std::string& options = "")
    {
        const CommandResult result = runCommand("openssl dgst -sha256 " + options + " -verify " +
                                                shellWord(publicKey(cert)) + " -signature " + shellWord(signature) +
                                                " " + shellWord(data));
        if (result.status == 0 && result.output.find("Verified OK") != std::string::npos)
            return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << "openssl does not verify " << signature << " with the key of "
                                             << cert.path << ":\n"
                                             << result.output;
    }

    // The DER of each PEM certificate in `text`.
    std::vector<korvo::FileBytes> pemCertificates(const std::string& text)
    {
        static const std::string begin = "-----BEGIN CERTIFICATE-----", end = "-----END CERTIFICATE-----";
        std::vector<korvo::FileBytes> certificates;
        for (size_t at = text.find(begin); at != std::string::npos; at = text.find(begin, at + 1)) {
            const size_t stop = text.find(end, at);
            if (stop == std::string::npos) break;
            const std::string pem = work + "/split.pem";
            std::ofstream(pem, std::ios::trunc) << text.substr(at, stop + end.size() - at) << "\n";
            certificates.push_back(pemToDer(pem));
        }
        return certificates;
    }

    // DER of a PEM certificate file.
    korvo::FileBytes pemToDer(const std::string& pem)
    {
        const std::string der = pem + ".der";
        succeed("openssl x509 -in " + shellWord(pem) + " -outform DER -out " + shellWord(der));
        return korvo::readFile(der);
    }
};

const char* const kPss = "-sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:32";

// ---- pkcs11-tool ----------------------------------------------------------------

// One object of a `pkcs11-tool -O` listing: its heading ("Certificate Object;
// type = X.509 cert", "Private Key Object; RSA", ...) and its "name: value" lines.
struct ListedObject {
    std::string heading;
    std::map<std::string, std::string> fields;
    bool is(const std::string& kind) const { return heading.rfind(kind, 0) == 0; }
};

std::vector<ListedObject> parseObjectListing(const std::string& output)
{
    std::vector<ListedObject> objects;
    for (const std::string& line : lines(output)) {
        if (line.empty()) continue;
        if (line[0] != ' ' && line[0] != '\t') {
            if (line.find("Object") != std::string::npos) objects.push_back({trimmed(line), {}});
            continue;
        }
        const size_t colon = line.find(':');
        if (!objects.empty() && colon != std::string::npos)
            objects.back().fields[trimmed(line.substr(0, colon))] = trimmed(line.substr(colon + 1));
    }
    return objects;
}

}  // namespace

TEST_F(ClientApps, Pkcs11ToolListsTheStoreReadsCertificatesAndSignsWithEachUserKey)
{
    if (!installed("pkcs11-tool")) GTEST_FAIL() << "pkcs11-tool is not installed" << " (tools/install-deps.sh installs it)";
    const std::string tool = client("pkcs11-tool --module '" KORVO_MODULE_PATH "'");

    const std::string listing = succeed(tool + " -O");
    const std::vector<ListedObject> objects = parseObjectListing(listing);
    const auto withId = [&](const std::string& kind, const std::string& id) {
        std::vector<ListedObject> found;
        for (const ListedObject& o : objects)
            if (o.is(kind) && o.fields.count("ID") && o.fields.at("ID") == id) found.push_back(o);
        return found;
    };
    for (const StoreCertificate& user : users) {
        SCOPED_TRACE(user.path);
        const auto certs = withId("Certificate Object", user.id);
        const auto privateKeys = withId("Private Key Object; RSA", user.id);
        const auto publicKeys = withId("Public Key Object; RSA 2048 bits", user.id);
        ASSERT_EQ(certs.size(), 1u) << listing;
        ASSERT_EQ(privateKeys.size(), 1u) << listing;
        ASSERT_EQ(publicKeys.size(), 1u) << listing;
        EXPECT_EQ(privateKeys[0].fields.at("label"), certs[0].fields.at("label"));
        EXPECT_EQ(publicKeys[0].fields.at("label"), certs[0].fields.at("label"));
        EXPECT_CONTAINS(privateKeys[0].fields.at("Usage"), "sign");
    }
    std::vector<std::string> subjects;
    for (const ListedObject& o : objects)
        if (o.is("Certificate Object")) subjects.push_back(o.fields.count("subject") ? o.fields.at("subject") : "");
    EXPECT_EQ(subjects.size(), users.size() + 2) << listing;
    for (const char* ca : {"Root CA", "Intermediate CA"})
        EXPECT_EQ(std::count(subjects.begin(), subjects.end(),
                             std::string("DN: C=XX, O=Korvo Invented Test Data, CN=Korvo Test ") + ca),
                  1)
            << listing;

    const std::string data = dataFile();
    for (const StoreCertificate& user : users) {
        SCOPED_TRACE(user.path);
        const std::string read = work + "/read.der";
        succeed(tool + " --read-object --type cert --id " + user.id + " -o " + shellWord(read));
        EXPECT_EQ(contents(read), korvo::readFile(user.path));

        const std::string signature = work + "/" + user.id + ".sig";
        succeed(tool + " -s -m SHA256-RSA-PKCS --id " + user.id + " -i " + shellWord(data) + " -o " +
                shellWord(signature));
        EXPECT_TRUE(verifies(user, data, signature));
        // The token's public key verifies what its private key signed.
        const std::string verify = " --verify --id " + user.id + " -i " + shellWord(data) + " --signature-file " +
                                   shellWord(signature);
        EXPECT_CONTAINS(succeed(tool + verify + " -m SHA256-RSA-PKCS"), "Signature is valid");
        succeed(tool + " -s -m SHA256-RSA-PKCS-PSS --id " + user.id + " -i " + shellWord(data) + " -o " +
                shellWord(signature));
        EXPECT_TRUE(verifies(user, data, signature, kPss));
        EXPECT_CONTAINS(succeed(tool + verify + " -m SHA256-RSA-PKCS-PSS"), "Signature is valid");
    }
    // Its built-in self-test signs with each key and verifies through the
    // token. Its one complaint is the private key's answer to a multi-part
    // CKM_RSA_PKCS signature (CKR_MECHANISM_INVALID, as that key has always
    // answered); everything else holds.
    const CommandResult selfTest = runCommand(tool + " --test");
    const std::string& out = selfTest.output;
    const size_t verifySection = out.find("Verify (currently only for RSA)");
    ASSERT_NE(verifySection, std::string::npos) << out;
    const std::string verifyPart = out.substr(verifySection, out.find("Decryption", verifySection) - verifySection);
    EXPECT_CONTAINS(verifyPart, "SHA1-RSA-PKCS: OK");
    EXPECT_CONTAINS(verifyPart, "RSA-PKCS: OK");
    EXPECT_CONTAINS(out, "1 errors");
    EXPECT_CONTAINS(out, "ERR: C_SignUpdate failed: CKR_MECHANISM_INVALID");
    EXPECT_EQ(out.find("ERR", out.find("ERR") + 3), std::string::npos) << out;
}

// ---- GnuTLS p11tool ---------------------------------------------------------------

TEST_F(ClientApps, P11ToolListsAndExportsEveryCertificateOfTheStore)
{
    if (!installed("p11tool")) GTEST_FAIL() << "p11tool (gnutls-bin) is not installed" << " (tools/install-deps.sh installs it)";
    const std::string tool = client("p11tool --provider '" KORVO_MODULE_PATH "'");

    const std::string listing = succeed(tool + " --list-all-certs");
    std::vector<std::string> urls;
    for (const std::string& line : lines(listing)) {
        const std::string text = trimmed(line);
        if (text.rfind("URL: ", 0) == 0) urls.push_back(text.substr(5));
    }
    // p11tool writes a CKA_ID as colon-separated hex bytes.
    for (const StoreCertificate& user : users) {
        std::string id;
        for (size_t i = 0; i < user.id.size(); i += 2) id += (i ? ":" : "") + user.id.substr(i, 2);
        EXPECT_CONTAINS(listing, "ID: " + id);
    }

    // Every listed certificate exported (PEM) is one of the store's files, and every file is listed once.
    std::vector<korvo::FileBytes> exported, expected;
    for (const std::string& url : urls) {
        SCOPED_TRACE(url);
        EXPECT_CONTAINS(url, "token=Korvo%20central%20server");
        const std::string pem = work + "/export.pem";
        succeed(tool + " --export " + shellWord(url) + " --outfile " + shellWord(pem));
        exported.push_back(pemToDer(pem));
    }
    for (const StoreCertificate& cert : users) expected.push_back(korvo::readFile(cert.path));
    expected.push_back(korvo::readFile(intermediate.path));
    expected.push_back(korvo::readFile(root.path));
    std::sort(exported.begin(), exported.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_TRUE(exported == expected) << exported.size() << " certificates exported of " << expected.size()
                                      << " in the store; listing:\n"
                                      << listing;
}

// ---- NSS ------------------------------------------------------------------------------

TEST_F(ClientApps, NssTrustsTheRootFindsTheUserKeysAndSignsWithThem)
{
    for (const char* tool : {"modutil", "certutil", "cmsutil"})
        if (!installed(tool)) GTEST_FAIL() << tool << " (the NSS tools) is not installed (tools/install-deps.sh installs it)";
    const std::string db = "sql:" + work + "/nssdb";
    const std::string nss = " -d " + shellWord(db) + " ";
    ASSERT_EQ(runCommand("mkdir -p " + shellWord(work + "/nssdb")).status, 0);
    succeed("certutil -N" + nss + "--empty-password");
    const std::string added = succeed(client("modutil -dbdir " + shellWord(db) +
                                             " -add 'Korvo token' -libfile '" KORVO_MODULE_PATH "' -force" +
                                             " < /dev/null"));
    EXPECT_CONTAINS(added, "Module \"Korvo token\" added to database.");

    // "nickname   SSL,S/MIME,JAR/XPI" lines; the token's nicknames are "<token label>:<object label>".
    const std::string listing = succeed(client("certutil -L -h all" + nss + "< /dev/null"));
    std::map<std::string, std::vector<std::string>> trustOf;  // nickname -> the three trust fields
    for (const std::string& line : lines(listing)) {
        const std::string text = trimmed(line);
        if (text.rfind("Korvo central server:", 0) != 0) continue;
        const size_t gap = text.find_last_of(' ');
        ASSERT_NE(gap, std::string::npos) << listing;
        std::vector<std::string> fields;
        std::istringstream trust(text.substr(gap + 1));
        for (std::string field; std::getline(trust, field, ',');) fields.push_back(field);
        fields.resize(3);
        trustOf[trimmed(text.substr(0, gap))] = fields;
    }
    // Which certificates each nickname names: certutil writes them back as PEM
    // (alice's two certificates have one subject, hence one label and nickname).
    std::map<std::string, std::string> nicknameOf;  // CKA_ID hex -> nickname
    for (const auto& entry : trustOf) {
        const std::string pem =
            succeed(client("certutil -L" + nss + "-n " + shellWord(entry.first) + " -a < /dev/null"));
        for (const korvo::FileBytes& der : pemCertificates(pem)) nicknameOf[korvo::sha256Hex(der)] = entry.first;
    }
    const std::vector<std::string> userTrust{"u", "u", "u"}, noTrust{"", "", ""};
    for (const StoreCertificate& cert : users) {
        SCOPED_TRACE(cert.path);
        ASSERT_TRUE(nicknameOf.count(cert.id)) << "no nickname for the user certificate in:\n" << listing;
        EXPECT_EQ(trustOf[nicknameOf[cert.id]], userTrust) << listing;  // u: NSS found its private key
    }
    ASSERT_TRUE(nicknameOf.count(root.id)) << "no nickname for the root in:\n" << listing;
    ASSERT_TRUE(nicknameOf.count(intermediate.id)) << "no nickname for the intermediate in:\n" << listing;
    // The root's trust object makes it a trusted CA for TLS servers (C) and
    // clients (T) and for e-mail (C), but not for code signing.
    const std::vector<std::string> rootTrust = trustOf[nicknameOf[root.id]];
    EXPECT_EQ(rootTrust[0], "CT") << listing;
    EXPECT_EQ(rootTrust[1], "C") << listing;
    EXPECT_EQ(rootTrust[2].find_first_of("CT"), std::string::npos) << listing;
    // The intermediate has no trust object: it is trusted only through the chain.
    EXPECT_EQ(trustOf[nicknameOf[intermediate.id]], noTrust) << listing;

    // The whole chain from the token: a user certificate validates through the
    // token's intermediate up to the root the token's trust object vouches for.
    const StoreCertificate& signer = userNamed("bob");  // alone under its nickname
    const std::string nickname = shellWord(nicknameOf[signer.id]);
    EXPECT_CONTAINS(succeed(client("certutil -V -u C -e" + nss + "-n " + nickname + " < /dev/null")),
                    "certificate is valid");

    // NSS signs a CMS message with the key it found for the certificate; plain
    // openssl checks the signature and the chain up to the root file.
    const std::string data = dataFile(), message = work + "/signed.p7", content = work + "/content.txt";
    const std::string rootPem = work + "/root.pem", intermediatePem = work + "/intermediate.pem";
    succeed(client("cmsutil -S" + nss + "-N " + nickname + " -i " + shellWord(data) + " -o " + shellWord(message) +
                   " < /dev/null"));
    succeed("openssl x509 -inform DER -in " + shellWord(root.path) + " -out " + shellWord(rootPem));
    succeed("openssl x509 -inform DER -in " + shellWord(intermediate.path) + " -out " + shellWord(intermediatePem));
    EXPECT_CONTAINS(succeed("openssl cms -verify -purpose any -inform DER -in " + shellWord(message) + " -CAfile " +
                            shellWord(rootPem) + " -certfile " + shellWord(intermediatePem) + " -out " +
                            shellWord(content)),
                    "Verification successful");
    EXPECT_EQ(contents(content), korvo::readFile(data));
}

// ---- OpenSSL pkcs11 engine --------------------------------------------------------------

TEST_F(ClientApps, OpenSslEngineSignsAndDecryptsWithTheTokenKey)
{
    const std::string engine = trimmed(runCommand("openssl version -e").output);  // ENGINESDIR: "..."
    const size_t quote = engine.find('"');
    const std::string engineLibrary =
        quote == std::string::npos ? "" : engine.substr(quote + 1, engine.rfind('"') - quote - 1) + "/pkcs11.so";
    struct stat info {};
    if (engineLibrary.empty() || stat(engineLibrary.c_str(), &info) != 0)
        GTEST_FAIL() << "the OpenSSL pkcs11 engine is not installed (" << engine << ")" << " (tools/install-deps.sh installs it)";

    // The engine's module comes from a configuration file of our own.
    const std::string config = work + "/engine.cnf";
    {
        std::ofstream out(config, std::ios::trunc);
        out << "openssl_conf = openssl_init\n"
               "[openssl_init]\nengines = engine_section\n"
               "[engine_section]\npkcs11 = pkcs11_section\n"
               "[pkcs11_section]\nengine_id = pkcs11\nMODULE_PATH = " KORVO_MODULE_PATH "\n";
    }
    const std::string openssl = client("OPENSSL_CONF=" + shellWord(config) + " openssl");
    const StoreCertificate& user = userNamed("carol");
    const std::string key = shellWord("pkcs11:id=" + uriId(user.id) + ";type=private");
    const std::string keyOptions = " -engine pkcs11 -keyform engine ";

    const std::string data = dataFile();
    const std::string signature = work + "/engine.sig";
    succeed(openssl + " dgst -sha256" + keyOptions + "-sign " + key + " -out " + shellWord(signature) + " " +
            shellWord(data));
    EXPECT_TRUE(verifies(user, data, signature));

    const std::string digest = work + "/data.sha256";
    succeed("openssl dgst -sha256 -binary -out " + shellWord(digest) + " " + shellWord(data));
    succeed(openssl + " pkeyutl -sign" + keyOptions + "-inkey " + key +
            " -pkeyopt digest:sha256 -pkeyopt rsa_padding_mode:pss -pkeyopt rsa_pss_saltlen:32 -in " +
            shellWord(digest) + " -out " + shellWord(signature));
    EXPECT_TRUE(verifies(user, data, signature, kPss));

    const std::string secret = "a secret for the engine to decrypt";
    for (const char* padding : {"pkcs1", "oaep"}) {
        SCOPED_TRACE(padding);
        const std::string ciphertext = work + "/engine." + padding;
        const std::string padOption = std::string(" -pkeyopt rsa_padding_mode:") + padding;
        succeed("printf %s " + shellWord(secret) + " | openssl pkeyutl -encrypt -pubin -inkey " +
                shellWord(publicKey(user)) + padOption + " -out " + shellWord(ciphertext));
        const std::string plain = ciphertext + ".plain";
        succeed(openssl + " pkeyutl -decrypt" + keyOptions + "-inkey " + key + padOption + " -in " +
                shellWord(ciphertext) + " -out " + shellWord(plain));
        const korvo::FileBytes bytes = contents(plain);
        EXPECT_EQ(std::string(bytes.begin(), bytes.end()), secret);
    }
}

// ---- PyKCS11 ------------------------------------------------------------------------------

TEST_F(ClientApps, PyKcs11SignsAndDecryptsWithEachUserKeyFoundById)
{
    // Debian's interpreter carries Debian's PyKCS11; another python3 may come first on PATH.
    std::string python;
    for (const char* candidate : {"/usr/bin/python3", "python3"})
        if (runCommand(std::string(candidate) + " -c 'import PyKCS11'").status == 0) {
            python = candidate;
            break;
        }
    if (python.empty()) GTEST_FAIL() << "PyKCS11 is not installed" << " (tools/install-deps.sh installs it)";
    const CommandResult result =
        runCommand(client(python + " '" KORVO_TEST_SOURCE_DIR "/abi/pykcs11_sign.py' '" KORVO_MODULE_PATH "'"));
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_CONTAINS(result.output, "over 4 user certificates");
}
