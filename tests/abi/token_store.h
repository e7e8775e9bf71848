#pragma once
// The certificate store of the token tests: the generated test certificates
// laid out in the temporary home as the token reads them
// ($HOME/.korvo/{user,intermediate,root}_certificates) with the user keys
// where the reference helper finds them ($HOME/.korvo/keys/<sha-256>.pem).

#include <string>
#include <vector>

namespace korvo {

using FileBytes = std::vector<unsigned char>;

// Copies the generated store into the temporary home (replacing what is
// there): four user certificates (two of alice, one of bob, one of carol),
// the intermediate and the root, and the four keys.
void installTestStore();

// $HOME/.korvo/<folder>
std::string storeFolder(const std::string& folder);
// A file of the generated test certificates (KORVO_TEST_CERTS_DIR/<name>).
std::string testCertPath(const std::string& name);

FileBytes readFile(const std::string& path);
void writeFile(const std::string& path, const FileBytes& bytes);
// Lower-case hex SHA-256 of the bytes, as the store's file names use it.
std::string sha256Hex(const FileBytes& bytes);
// Every regular file of a folder, sorted by name.
std::vector<std::string> filesIn(const std::string& folder);

}  // namespace korvo
