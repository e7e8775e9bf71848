#include "pkcs11/db/Tavik_privatekey_helper.h"

#include <dlfcn.h>
#include <openssl/crypto.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>


#include "logging/Logger.h"
#include "pkcs11/objects/P11Obj.h"

KORVO_FILE_LOGGER;

namespace {

const size_t kCertDigestLength = 32;

// Only these reach the shell unquoted, so no argument can carry a shell
// metacharacter.
bool isUpperHexOrEmptyMarker(const std::string& argument)
{
    if (argument == "''") return true;
    for (char c : argument)
        if (!((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'))) return false;
    return true;
}

// The directory goes between double quotes; inside them the shell would
// still expand these.
bool isSafeInDoubleQuotes(const std::string& text)
{
    for (char c : text)
        if (c == '"' || c == '$' || c == '`' || c == '\\') return false;
    return true;
}

extern "C" char** environ;

// Runs a command line through the shell as popen would, but the child gets
// nothing of the application's: standard input and error are /dev/null,
// standard output our pipe, and every other descriptor is closed. At most
// kHelperOutputLimit bytes of its output are kept (`overflowed` tells when
// there was more; the rest is read to its end and dropped, so the helper
// never blocks on a full pipe). `status` is waitpid's, as pclose gives it.
bool runThroughShell(const std::string& command, std::string* output, bool* overflowed, int* status)
{
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return false;
    posix_spawn_file_actions_t actions;
    if (posix_spawn_file_actions_init(&actions) != 0) {
        close(fds[0]);
        close(fds[1]);
        return false;
    }
    bool ready = posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0) == 0 &&
                 posix_spawn_file_actions_adddup2(&actions, fds[1], 1) == 0 &&
                 posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0) == 0 &&
                 posix_spawn_file_actions_addclosefrom_np(&actions, 3) == 0;
    char shell[] = "sh", flag[] = "-c";
    std::string line = command;
    char* argv[] = {shell, flag, line.data(), nullptr};
    pid_t child = -1;
    if (ready) ready = posix_spawn(&child, "/bin/sh", &actions, nullptr, argv, environ) == 0;
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    if (!ready) {
        close(fds[0]);
        return false;
    }
    output->clear();
    output->reserve(kHelperOutputLimit);  // never reallocated, so never left behind unwiped
    *overflowed = false;
    char buffer[4096];
    for (;;) {
        const ssize_t got = read(fds[0], buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        const size_t room = kHelperOutputLimit - output->size();
        if (size_t(got) > room) *overflowed = true;
        output->append(buffer, std::min(room, size_t(got)));
    }
    OPENSSL_cleanse(buffer, sizeof buffer);  // the last read of the answer
    close(fds[0]);
    pid_t waited;
    do {
        waited = waitpid(child, status, 0);
    } while (waited < 0 && errno == EINTR);
    if (waited < 0) *status = -1;
    return true;
}

}  // namespace

bool Tavik_parseHelperOutput(const std::string& output, ByteArray* result)
{
    // The first run of "00" and the hexadecimal digits after it, in the
    // upper-cased output (the copy is wiped before it goes).
    std::string upper;
    upper.reserve(output.size());
    upper = output;
    for (char& c : upper)
        if (c >= 'a' && c <= 'z') c = char(c - 'a' + 'A');
    const size_t start = upper.find("00");
    bool found = start != std::string::npos;
    if (found) {
        size_t end = start + 2;
        while (end < upper.size() && ((upper[end] >= '0' && upper[end] <= '9') || (upper[end] >= 'A' && upper[end] <= 'F')))
            ++end;
        *result = ByteArray::fromHex(std::string_view(upper).substr(start + 2, end - start - 2));
    }
    OPENSSL_cleanse(upper.data(), upper.size());
    return found;
}

std::string Tavik_userNameHex(const wchar_t* userName)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string hex;
    if (userName) {
        for (const wchar_t* p = userName; *p; ++p) {
            const unsigned unit = static_cast<unsigned>(*p) & 0xFFFFu;
            hex += digits[(unit >> 12) & 0xF];
            hex += digits[(unit >> 8) & 0xF];
            hex += digits[(unit >> 4) & 0xF];
            hex += digits[unit & 0xF];
        }
    }
    if (hex.empty()) hex = "''";
    return hex;
}

DecryptionCache& DecryptionCache::instance()
{
    static DecryptionCache cache;
    return cache;
}

bool DecryptionCache::TryLookUp(const ByteArray_constSlice& digest, const ByteArray_constSlice& input, ByteArray& result)
{
    std::lock_guard<std::mutex> guard(mutex_);
    if (digest != digest_.constSlice() || input != input_.constSlice()) return false;
    result = result_;
    return true;
}

void DecryptionCache::Insert(const ByteArray_constSlice& digest, const ByteArray_constSlice& input,
                             const ByteArray_constSlice& result)
{
    ByteArray newDigest(digest), newInput(input), newResult(result);
    std::lock_guard<std::mutex> guard(mutex_);
    digest_ = std::move(newDigest);
    input_ = std::move(newInput);
    result_ = std::move(newResult);
}

std::string CurrentFileName::directoryBytes()
{
    Dl_info info;
    std::memset(&info, 0, sizeof info);
    if (dladdr(reinterpret_cast<void*>(&CurrentFileName::getCurrentFileName), &info) == 0 || !info.dli_fname)
        return std::string();
    std::string path = info.dli_fname;
    if (path.empty() || path[0] != '/') {
        char cwd[4096];
        if (!getcwd(cwd, sizeof cwd)) return std::string();
        path = std::string(cwd) + "/" + path;
    }
    const size_t slash = path.rfind('/');
    return slash == 0 ? std::string("/") : path.substr(0, slash);
}

QString CurrentFileName::getCurrentFileName()
{
    Dl_info info;
    std::memset(&info, 0, sizeof info);
    if (dladdr(reinterpret_cast<void*>(&CurrentFileName::getCurrentFileName), &info) == 0 || !info.dli_fname)
        return QString();
    return QString::fromLocal8Bit(info.dli_fname);
}

namespace {

// Runs `work`; an exception is logged and answered CKR_FUNCTION_CANCELED.
template <typename Work>
CK_RV cancelOnException(Work work)
{
    try {
        return work();
    } catch (const std::exception& e) {
        fileLogger->Error(__LINE__, QString("Caught std::exception: %1").arg(QString::fromLocal8Bit(e.what())));
    } catch (...) {
        fileLogger->Error(__LINE__, "Caught (...) exception.");
    }
    fileLogger->Trace(__LINE__, "Tavik_RSA_decrypt exit");
    return CKR_FUNCTION_CANCELED;
}

// The helper's result for (digest, input): from the cache, or from a run of
// the helper, whose result then goes into the cache.
CK_RV helperResult(const ByteArray_constSlice& digest, const std::string& userHex, const ByteArray_constSlice& input,
                   ByteArray& result)
{
    DecryptionCache& cache = DecryptionCache::instance();
    if (cache.TryLookUp(digest, input, result)) {
        fileLogger->Trace(__LINE__, "Using cached decryption result");
        return CKR_OK;
    }
    fileLogger->Trace(__LINE__, "Preparing to invoke KorvoPerformRsa");

    const std::string digestHex = digest.toHex(HexCase::Upper);
    const std::string inputHex = input.toHex(HexCase::Upper);

    const std::string directory = CurrentFileName::directoryBytes();
    fileLogger->Trace(__LINE__, QString("Current file dir is: ") + QString::fromLocal8Bit(directory.c_str()));

    const std::string command = "\"" + directory + "/KorvoPerformRsa\" " + userHex + " " + digestHex + " " + inputHex;
    fileLogger->Trace(__LINE__, QString("Executing KorvoPerformRsa with the following command: ") +
                                    QString::fromLocal8Bit(command.c_str()));

    // Nothing outside these character sets reaches the shell. The shell
    // hands its process over to the helper, so a helper ended by a signal
    // shows as such in the status below (a shell that forked would report
    // it as an ordinary exit code); the shell's own complaints (a missing
    // helper, say) go nowhere.
    std::string raw;
    std::string upper;
    // Both copies of the output hold the result in hexadecimal: wiped
    // however this function ends.
    struct Wipe {
        std::string& a;
        std::string& b;
        ~Wipe()
        {
            OPENSSL_cleanse(a.data(), a.size());
            OPENSSL_cleanse(b.data(), b.size());
        }
    } wipe{raw, upper};
    bool overflowed = false;
    int status = -1;
    const bool started = !directory.empty() && isUpperHexOrEmptyMarker(userHex) && isUpperHexOrEmptyMarker(digestHex) &&
                         isUpperHexOrEmptyMarker(inputHex) && isSafeInDoubleQuotes(directory) &&
                         runThroughShell("exec " + command + " 2>/dev/null", &raw, &overflowed, &status);
    if (!started) {
        fileLogger->Error(__LINE__, "Could not open pipe to KorvoPerformRsa.");
        return CKR_DEVICE_ERROR;
    }

    fileLogger->Trace(__LINE__, "Reading output from KorvoPerformRsa");
    // Only an abnormal end counts here; a helper that exits non-zero
    // but printed a result is a success, the output decides.
    if (status == -1 || (status & 0x7F) != 0) {
        fileLogger->Error(__LINE__,
                          QString("An error occured while trying to close pipe after executing KorvoPerformRsa: %1").arg(status));
        return CKR_DEVICE_ERROR;
    }
    fileLogger->Trace(__LINE__, "Closed KorvoPerformRsa pipe");
    // Output beyond the limit holds no answer the module would take.
    if (overflowed || !Tavik_parseHelperOutput(raw, &result)) {
        if (!overflowed) upper = raw;
        fileLogger->Error(__LINE__, QString("KorvoPerformRsa returned an error. hexOutput = ") +
                                        QString::fromLatin1(upper.data(), int(upper.size())));
        return CKR_FUNCTION_CANCELED;
    }
    cache.Insert(digest, input, result);
    fileLogger->Trace(__LINE__, "KorvoPerformRsa output inserted into cache successfully");
    return CKR_OK;
}

}  // namespace

CK_RV Tavik_RSA_decrypt(P11Session* /*session*/, P11Obj* key, unsigned char* in, unsigned long inLen,
                        unsigned char* out, unsigned long* pulOutLen, const Tavik_RsaKeyAccess& access)
{
    fileLogger->Trace(__LINE__, "Tavik_RSA_decrypt enter");

    if (!key) return CKR_KEY_NEEDED;
    if (!access.privateKeyClass || key->clazz != access.privateKeyClass) return CKR_KEY_TYPE_INCONSISTENT;
    if (!pulOutLen || !in) return CKR_MECHANISM_PARAM_INVALID;

    return cancelOnException([&]() -> CK_RV {
        if (!out) {
            const CK_ATTRIBUTE* modulus = nullptr;
            const CK_RV rv = P11Obj_peekAttribute(key, CKA_MODULUS, &modulus);
            if (rv != CKR_OK) return rv;
            if (!modulus) return CKR_ATTRIBUTE_TYPE_INVALID;
            *pulOutLen = modulus->ulValueLen;
            return CKR_OK;
        }

        Tavik_RsaKeyInfo keyInfo{nullptr, nullptr};
        if (!access.readKeyInfo) return CKR_KEY_TYPE_INCONSISTENT;
        const CK_RV infoRv = access.readKeyInfo(key, &keyInfo);
        if (infoRv != CKR_OK) return infoRv;
        if (!keyInfo.certDigest) return CKR_KEY_TYPE_INCONSISTENT;

        // What the helper needs of the key is copied: the key's lock is let
        // go while the helper runs (a person may take a minute at its
        // prompt), so that searches and reads of the key go on meanwhile.
        const ByteArray digest(ByteArray_constSlice(keyInfo.certDigest, kCertDigestLength));
        const std::string userHex = Tavik_userNameHex(keyInfo.userName);
        const ByteArray_constSlice input(in, inLen);
        ByteArray result;
        const CK_RV rv = P11Obj_runUnlocked(key, [&] {
            return cancelOnException([&] { return helperResult(digest.constSlice(), userHex, input, result); });
        });
        if (rv != CKR_OK) return rv;

        if (*pulOutLen < result.size()) return CKR_BUFFER_TOO_SMALL;
        if (!result.empty()) std::memcpy(out, result.data(), result.size());
        *pulOutLen = result.size();
        fileLogger->Trace(__LINE__, "Tavik_RSA_decrypt exit");
        return CKR_OK;
    });
}
