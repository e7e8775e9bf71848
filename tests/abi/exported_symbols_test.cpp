// The module is loaded into browsers and mail clients: nothing but the
// Cryptoki entry points may leave it, or its internals could clash with the
// host's own symbols.

#include <dlfcn.h>

#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

// The 68 entry points of Cryptoki 2.20, in function-list order.
const std::set<std::string> kCryptokiFunctions = {
    "C_Initialize", "C_Finalize", "C_GetInfo", "C_GetFunctionList", "C_GetSlotList", "C_GetSlotInfo",
    "C_GetTokenInfo", "C_GetMechanismList", "C_GetMechanismInfo", "C_InitToken", "C_InitPIN", "C_SetPIN",
    "C_OpenSession", "C_CloseSession", "C_CloseAllSessions", "C_GetSessionInfo", "C_GetOperationState",
    "C_SetOperationState", "C_Login", "C_Logout", "C_CreateObject", "C_CopyObject", "C_DestroyObject",
    "C_GetObjectSize", "C_GetAttributeValue", "C_SetAttributeValue", "C_FindObjectsInit", "C_FindObjects",
    "C_FindObjectsFinal", "C_EncryptInit", "C_Encrypt", "C_EncryptUpdate", "C_EncryptFinal", "C_DecryptInit",
    "C_Decrypt", "C_DecryptUpdate", "C_DecryptFinal", "C_DigestInit", "C_Digest", "C_DigestUpdate",
    "C_DigestKey", "C_DigestFinal", "C_SignInit", "C_Sign", "C_SignUpdate", "C_SignFinal",
    "C_SignRecoverInit", "C_SignRecover", "C_VerifyInit", "C_Verify", "C_VerifyUpdate", "C_VerifyFinal",
    "C_VerifyRecoverInit", "C_VerifyRecover", "C_DigestEncryptUpdate", "C_DecryptDigestUpdate",
    "C_SignEncryptUpdate", "C_DecryptVerifyUpdate", "C_GenerateKey", "C_GenerateKeyPair", "C_WrapKey",
    "C_UnwrapKey", "C_DeriveKey", "C_SeedRandom", "C_GenerateRandom", "C_GetFunctionStatus",
    "C_CancelFunction", "C_WaitForSlotEvent"};

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
