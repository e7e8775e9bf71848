// The module driven by an independent PKCS#11 client, OpenSC's pkcs11-tool:
// what it shows of the library, slot, token and mechanisms, and a digest it
// computes through the module. The child inherits the temporary HOME.

#include <cstdio>
#include <fstream>
#include <string>

#include "abi/module_harness.h"

namespace {

class Pkcs11Tool : public testing::Test {
protected:
    std::string tool;

    void SetUp() override
    {
        const korvo::CommandResult which = korvo::runCommand("command -v pkcs11-tool");
        if (which.status != 0) GTEST_FAIL() << "pkcs11-tool is not installed" << " (tools/install-deps.sh installs it)";
        if (!korvo::clientsCanLoadModule()) GTEST_SKIP() << "no shared sanitizer runtime to hand to pkcs11-tool";
        tool = korvo::sanitizerPreload() + "pkcs11-tool --module '" KORVO_MODULE_PATH "'";
    }

    std::string expectSuccess(const std::string& options)
    {
        const korvo::CommandResult result = korvo::runCommand(tool + " " + options);
        EXPECT_EQ(result.status, 0) << options << ":\n" << result.output;
        return result.output;
    }
};

#define EXPECT_CONTAINS(haystack, needle) \
    EXPECT_NE((haystack).find(needle), std::string::npos) << "missing \"" << (needle) << "\" in:\n" << (haystack)

}  // namespace

TEST_F(Pkcs11Tool, ShowsTheLibraryInformation)
{
    const std::string output = expectSuccess("-I");
    EXPECT_CONTAINS(output, "Cryptoki version 2.20");
    EXPECT_CONTAINS(output, "Tavik A/S");
    EXPECT_CONTAINS(output, "Korvo cryptographic library");
    EXPECT_CONTAINS(output, "ver 2.0");
}

TEST_F(Pkcs11Tool, ListsTheSlotWithItsToken)
{
    for (const char* option : {"-L", "-T"}) {
        SCOPED_TRACE(option);
        const std::string output = expectSuccess(option);
        EXPECT_CONTAINS(output, "Korvo slot");
        EXPECT_CONTAINS(output, "Korvo central server");
        EXPECT_CONTAINS(output, "Korvo token");
        EXPECT_CONTAINS(output, "readonly");  // the tool's word for a write-protected token
        EXPECT_CONTAINS(output, "pin min/max        : 1/1024");
    }
}

TEST_F(Pkcs11Tool, ListsTheMechanismTable)
{
    const std::string output = expectSuccess("-M");
    for (const char* name : {"RSA-PKCS,", "RSA-PKCS-OAEP", "RSA-X-509", "SHA256-RSA-PKCS,", "SHA512-RSA-PKCS-PSS",
                             "DES-CBC-PAD", "DES3-KEY-GEN", "AES-CBC-PAD", "RC2-CBC", "RC4-KEY-GEN"})
        EXPECT_CONTAINS(output, name);
    EXPECT_CONTAINS(output, "keySize={64,4096}");
    EXPECT_CONTAINS(output, "keySize={16,64}");
    EXPECT_EQ(output.find("SHA256,"), std::string::npos) << "digests are not in the table:\n" << output;
}

TEST_F(Pkcs11Tool, HashesAFileLikeSha256sum)
{
    const std::string dir = korvo::tempHome() + "/pkcs11-tool-hash";
    ASSERT_EQ(korvo::runCommand("mkdir -p '" + dir + "'").status, 0);
    const std::string input = dir + "/input.bin";
    const std::string output = dir + "/digest.bin";
    {
        std::ofstream file(input, std::ios::binary);
        for (int i = 0; i < 5000; ++i) file << "line " << i << " of the input\n";
    }
    expectSuccess("--hash -m SHA256 -i '" + input + "' -o '" + output + "'");

    const korvo::CommandResult fromTool = korvo::runCommand("od -An -tx1 -v '" + output + "' | tr -d ' \\n'");
    const korvo::CommandResult reference = korvo::runCommand("sha256sum '" + input + "' | cut -d' ' -f1 | tr -d '\\n'");
    ASSERT_EQ(reference.status, 0);
    EXPECT_EQ(reference.output.size(), 64u);
    EXPECT_EQ(fromTool.output, reference.output);
}
