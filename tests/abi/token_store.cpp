#include "abi/token_store.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "abi/module_harness.h"

namespace fs = std::filesystem;

namespace korvo {

std::string storeFolder(const std::string& folder)
{
    return tempHome() + "/.korvo/" + folder;
}

std::string testCertPath(const std::string& name)
{
    return std::string(KORVO_TEST_CERTS_DIR) + "/" + name;
}

void installTestStore()
{
    const fs::path source = fs::path(KORVO_TEST_CERTS_DIR) / "store";
    const fs::path target = fs::path(tempHome()) / ".korvo";
    fs::remove_all(target);
    fs::create_directories(target);
    fs::copy(source, target, fs::copy_options::recursive | fs::copy_options::overwrite_existing);
}

FileBytes readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path);
    return FileBytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void writeFile(const std::string& path, const FileBytes& bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
    if (!out) throw std::runtime_error("cannot write " + path);
}

std::string sha256Hex(const FileBytes& bytes)
{
    unsigned char digest[32];
    unsigned int length = 0;
    EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha256(), nullptr);
    static const char hex[] = "0123456789abcdef";
    std::string text;
    for (unsigned i = 0; i < length; ++i) {
        text += hex[digest[i] >> 4];
        text += hex[digest[i] & 0xF];
    }
    return text;
}

std::vector<std::string> filesIn(const std::string& folder)
{
    std::vector<std::string> files;
    for (const auto& entry : fs::directory_iterator(folder))
        if (entry.is_regular_file()) files.push_back(entry.path().string());
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace korvo
