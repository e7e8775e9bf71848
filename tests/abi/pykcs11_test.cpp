// Session objects made and read back by PyKCS11, an independent client, in a
// child process: pykcs11_objects.py beside this file holds the checks. The
// child inherits the temporary HOME.

#include <cstdio>
#include <fstream>
#include <string>

#include "abi/module_harness.h"

TEST(PyKcs11, CreatesFindsAndReadsCertificateAndDataSessionObjects)
{
    // Debian's interpreter carries Debian's PyKCS11; another python3 may come first on PATH.
    std::string python;
    for (const char* candidate : {"/usr/bin/python3", "python3"})
        if (korvo::runCommand(std::string(candidate) + " -c 'import PyKCS11'").status == 0) {
            python = candidate;
            break;
        }
    if (python.empty()) GTEST_FAIL() << "PyKCS11 is not installed" << " (tools/install-deps.sh installs it)";
    if (!korvo::clientsCanLoadModule()) GTEST_SKIP() << "no shared sanitizer runtime to hand to the interpreter";
    const korvo::CommandResult result = korvo::runCommand(korvo::sanitizerPreload() + python + " '" KORVO_TEST_SOURCE_DIR "/abi/pykcs11_objects.py' '" +
                              KORVO_MODULE_PATH "'");
    EXPECT_EQ(result.status, 0) << result.output;
}
