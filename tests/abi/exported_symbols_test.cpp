// The module is loaded into browsers and mail clients: nothing but the
// Cryptoki entry points may leave it, or its internals could clash with the
// host's own symbols.

#include <dlfcn.h>

#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "abi/module_harness.h"

namespace {

const std::set<std::string> kCryptokiFunctions(std::begin(korvo::kCryptokiFunctionNames),
                                                std::end(korvo::kCryptokiFunctionNames));

std::string runCommand(const std::string& command)
{
    std::string output;
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return output;
    char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) output.append(buffer, n);
    pclose(pipe);
    return output;
}

// Names of the dynamic symbols the module defines.
std::vector<std::string> exportedSymbols()
{
    std::vector<std::string> names;
    const std::string listing = runCommand("nm -D --defined-only '" KORVO_MODULE_PATH "'");
    size_t start = 0;
    while (start < listing.size()) {
        size_t end = listing.find('\n', start);
        if (end == std::string::npos) end = listing.size();
        const std::string line = listing.substr(start, end - start);
        const size_t space = line.rfind(' ');
        if (space != std::string::npos) names.push_back(line.substr(space + 1));
        start = end + 1;
    }
    return names;
}

}  // namespace

TEST(ExportedSymbols, ExactlyTheCryptokiEntryPointsLeaveTheModule)
{
    ASSERT_EQ(kCryptokiFunctions.size(), 68u);
    const std::vector<std::string> exported = exportedSymbols();
    for (const std::string& name : exported)
        EXPECT_TRUE(kCryptokiFunctions.count(name)) << "unexpected exported symbol: " << name;
    EXPECT_EQ(std::set<std::string>(exported.begin(), exported.end()), kCryptokiFunctions);
}

TEST(ExportedSymbols, ModuleCarriesItsSonameAndLoadsWithAllSymbolsResolved)
{
    EXPECT_STREQ(KORVO_MODULE_SONAME, "libTavik_PKCS11.so.1");
    const std::string dynamic = runCommand("objdump -p '" KORVO_MODULE_PATH "'");
    EXPECT_NE(dynamic.find("SONAME               libTavik_PKCS11.so.1"), std::string::npos) << dynamic;

    void* module = dlopen(KORVO_MODULE_DIR "/libTavik_PKCS11.so", RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(module, nullptr) << dlerror();
    EXPECT_EQ(dlclose(module), 0);
}
