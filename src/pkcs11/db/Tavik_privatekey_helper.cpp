#include "pkcs11/db/Tavik_privatekey_helper.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstring>
#include <exception>

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>

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
bool isSafeInDoubleQuotes(const QString& text)
{
    for (QChar c : text)
        if (c == QLatin1Char('"') || c == QLatin1Char('$') || c == QLatin1Char('`') || c == QLatin1Char('\\'))
            return false;
    return true;
}

}  // namespace

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

    const QString directory = QFileInfo(CurrentFileName::getCurrentFileName()).dir().absolutePath();
    fileLogger->Trace(__LINE__, QString("Current file dir is: ") + directory);

    const QString command = QString("\"") + directory + "/KorvoPerformRsa\" " + QString::fromLatin1(userHex.c_str()) + " " +
                            QString::fromLatin1(digestHex.c_str()) + " " + QString::fromLatin1(inputHex.c_str());
    fileLogger->Trace(__LINE__, QString("Executing KorvoPerformRsa with the following command: ") + command);

    // Nothing outside these character sets reaches the shell.
    FILE* pipe = nullptr;
    if (isUpperHexOrEmptyMarker(userHex) && isUpperHexOrEmptyMarker(digestHex) && isUpperHexOrEmptyMarker(inputHex) &&
        isSafeInDoubleQuotes(directory))
        // The shell hands its process over to the helper, so a helper
        // ended by a signal shows as such in the status below (a shell
        // that forked would report it as an ordinary exit code). The
        // helper's and the shell's own complaints (a missing helper,
        // say) must not land on the host application's error stream.
        pipe = popen((QStringLiteral("exec ") + command + QStringLiteral(" 2>/dev/null")).toLocal8Bit().constData(), "r");
    if (!pipe) {
        fileLogger->Error(__LINE__, "Could not open pipe to KorvoPerformRsa.");
        return CKR_DEVICE_ERROR;
    }

    fileLogger->Trace(__LINE__, "Reading output from KorvoPerformRsa");
    QString output;
    char buffer[256];
    while (fgets(buffer, sizeof buffer, pipe)) output += QString::fromLatin1(buffer);
    const int status = pclose(pipe);
    // Only an abnormal end counts here; a helper that exits non-zero
    // but printed a result is a success, the output decides.
    if (status == -1 || (status & 0x7F) != 0) {
        fileLogger->Error(__LINE__,
                          QString("An error occured while trying to close pipe after executing KorvoPerformRsa: %1").arg(status));
        return CKR_DEVICE_ERROR;
    }
    fileLogger->Trace(__LINE__, "Closed KorvoPerformRsa pipe");

    static const QRegularExpression resultPattern(QStringLiteral("(00[0-9A-F]*)"));
    const QRegularExpressionMatch match = resultPattern.match(output.toUpper());
    const QString hexOutput = match.hasMatch() ? match.captured(0) : QString();
    if (hexOutput.size() < 2 || !hexOutput.startsWith(QLatin1String("00"))) {
        fileLogger->Error(__LINE__, QString("KorvoPerformRsa returned an error. hexOutput = ") + output);
        return CKR_FUNCTION_CANCELED;
    }

    result = ByteArray::fromHex(hexOutput.mid(2).toStdString());
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
