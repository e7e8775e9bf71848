// korvo-store, run as a person runs it, over the temporary home of this
// process: each command and each refusal, the folders unchanged by a
// refusal, and the module showing at its next search what the tool added
// and no longer showing what it removed.

#include <openssl/evp.h>

#include <filesystem>
#include <string>
#include <vector>

#include "abi/token_fixture.h"

namespace korvo {
namespace {

CommandResult storeTool(const std::string& arguments)
{
    return runCommand(std::string(KORVO_STORE_TOOL) + " " + arguments);
}

// Every file under the store, with its bytes.
std::vector<std::pair<std::string, Bytes>> storeContents()
{
    std::vector<std::pair<std::string, Bytes>> contents;
    for (const char* folder : {"user_certificates", "intermediate_certificates", "root_certificates"}) {
        if (!std::filesystem::exists(storeFolder(folder))) continue;
        for (const std::string& file : filesIn(storeFolder(folder))) contents.push_back({file, readFile(file)});
    }
    return contents;
}

class StoreTool : public TokenTest {
protected:
    void SetUp() override
    {
        TokenTest::SetUp();
        std::filesystem::remove_all(tempHome() + "/.korvo");
    }
    size_t certificatesShown()
    {
        Tmpl t;
        t.ulong(CKA_CLASS, CKO_CERTIFICATE);
        return find(t).size();
    }
};

TEST_F(StoreTool, EachCommandDoesWhatItSaysAndRefusesWhatTheTokenCouldNotUse)
{
    const std::string certs = std::string(KORVO_TEST_CERTS_DIR) + "/";
    // A PEM copy of one user certificate.
    const Bytes person = certificate("user-person.der");
    std::string pem = "-----BEGIN CERTIFICATE-----\n";
    std::string body(4 * ((person.size() + 2) / 3) + 1, '\0');
    body.resize(size_t(EVP_EncodeBlock(reinterpret_cast<unsigned char*>(body.data()), person.data(), int(person.size()))));
    for (size_t i = 0; i < body.size(); i += 64) pem += body.substr(i, 64) + "\n";
    pem += "-----END CERTIFICATE-----\n";
    const std::string pemPath = tempHome() + "/person.pem";
    writeFile(pemPath, Bytes(pem.begin(), pem.end()));
    const std::string personHash = sha256Hex(person);

    struct Row {
        std::string arguments;
        int status;
        std::string says;
        size_t certificatesAfter;
    } rows[] = {
        {"list", 0, "(no such folder)", 0},
        {"add-user alice " + certs + "user-company.der", 0, "added", 1},
        {"add-user alice " + certs + "user-company.der", 1, "already present", 1},
        {"add-user bob " + pemPath, 0, "bob_" + personHash + ".cer", 2},
        {"add-user carol " + certs + "user-dsa.der", 1, "not a user certificate the token can use", 2},
        {"add-user carol " + certs + "user-san-two-emails.der", 1, "not a user certificate the token can use", 2},
        {"add-user carol " + certs + "root-ca.key.pem", 1, "is not a certificate", 2},
        {"add-user a_b " + certs + "user-employee.der", 1, "user name", 2},
        {"add-root " + certs + "user-missing.der", 1, "cannot read", 2},
        {"add-root " + certs + "root-ca.der", 0, "added", 3},
        {"add-intermediate " + certs + "intermediate-ca.der", 0, "added", 4},
        {"list", 0, "Korvo Test Root CA", 4},
        {"remove 00000000", 1, "no certificate", 4},
        {"remove " + personHash.substr(0, 12), 0, "removed", 3},
        {"remove 12", 1, "at least four", 3},
        {"launch", 2, "usage", 3},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.arguments);
        const auto before = storeContents();
        const CommandResult run = storeTool(row.arguments);
        EXPECT_EQ(run.status, row.status) << run.output;
        EXPECT_NE(run.output.find(row.says), std::string::npos) << run.output;
        if (row.status != 0) {
            EXPECT_EQ(storeContents(), before) << "a refusal changed the folders";
        }
        EXPECT_EQ(certificatesShown(), row.certificatesAfter);
    }
    // No scratch folder is left behind.
    for (const char* folder : {"user_certificates", "intermediate_certificates", "root_certificates"})
        for (const auto& entry : std::filesystem::directory_iterator(storeFolder(folder)))
            EXPECT_TRUE(entry.is_regular_file()) << entry.path();
}

}  // namespace
}  // namespace korvo
