// korvo-store: keeps the token's certificate folders from the command line,
// with the token's own store code, the way the client program that fills
// them does.
//
//   korvo-store list
//   korvo-store add-user <user name> <certificate file>
//   korvo-store add-intermediate <certificate file>
//   korvo-store add-root <certificate file>
//   korvo-store remove <SHA-256 of the certificate, or a unique start of it>
//
// Certificate files may be DER or PEM. The folders are the ones the settings
// file names (by default ~/.korvo/{user,intermediate,root}_certificates).
// What the token could not use is refused: bytes that are no certificate, a
// user certificate without an RSA key or one the certificate model refuses,
// a certificate that is already there. An addition is written into a
// hidden scratch folder inside the target and renamed into place, so a failed
// one leaves the folder as it was.
//
// Exit status: 0 done, 1 refused or failed (the reason on standard error),
// 2 wrong usage.

#include <fcntl.h>
#include <stdio.h>

#include <algorithm>
#include <exception>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include "certificates/ocescertificate.h"
#include "certificates/x509certificate.h"
#include "config/certificatehandler.h"
#include "config/fileconfiguration.h"
#include "config/fileutil.h"
#include "config/multicertificate.h"
#include "deps/cpp_modules/Hashers.h"
#include "deps/cpp_modules/base64.h"

namespace {

// A refusal: its text is shown to the person and the tool ends with 1.
struct Refused : std::runtime_error {
    using std::runtime_error::runtime_error;
};

enum class Kind { User, Intermediate, Root };

struct Folder {
    Kind kind;
    const char* title;
    QString path;
    QString pattern;
};

std::vector<Folder> folders(const Configuration& configuration)
{
    return {{Kind::User, "user certificates", FileConfiguration::expandDir(configuration.certificateDir()).absolutePath(),
             QStringLiteral("*_*.cer")},
            {Kind::Intermediate, "intermediate CA certificates",
             FileConfiguration::expandDir(configuration.caCertificateDir()).absolutePath(), QStringLiteral("*.cer")},
            {Kind::Root, "root CA certificates",
             FileConfiguration::expandDir(configuration.rootCertificateDir()).absolutePath(), QStringLiteral("*.cer")}};
}

std::string text(const QString& s)
{
    return s.toStdString();
}

std::string sha256Hex(const ByteArray& der)
{
    return Sha256::Hash(der).toHex(HexCase::Lower);
}

// A file's certificate: DER as it is, PEM decoded.
ByteArray readCertificate(const QString& path)
{
    ByteArray bytes;
    try {
        bytes = FileUtil::readFileIntoByteArray(path);
    } catch (const std::exception&) {
        throw Refused("cannot read " + text(path));
    }
    const std::string content(bytes.begin(), bytes.end());
    const std::string begin = "-----BEGIN CERTIFICATE-----", end = "-----END CERTIFICATE-----";
    const size_t from = content.find(begin);
    if (from != std::string::npos) {
        const size_t body = from + begin.size();
        const size_t to = content.find(end, body);
        if (to == std::string::npos) throw Refused(text(path) + " is not a certificate: its PEM block has no end");
        std::string base64Text;
        for (char c : content.substr(body, to - body))
            if (c != '\n' && c != '\r' && c != ' ' && c != '\t') base64Text += c;
        try {
            bytes = base64::decode(base64Text);
        } catch (const std::exception&) {
            throw Refused(text(path) + " is not a certificate: its PEM block is not base64");
        }
    }
    try {
        (void)X509Certificate::Parse(bytes);
    } catch (const std::exception& e) {
        throw Refused(text(path) + " is not a certificate (" + e.what() + ")");
    }
    return bytes;
}

// The folder's usable files with their bytes, in name order.
struct Entry {
    QString path;
    QString name;
    ByteArray der;
};

std::vector<Entry> entries(const Folder& folder)
{
    std::vector<Entry> found;
    if (!QDir(folder.path).exists()) return found;
    QStringList names = FileUtil::getFilesInDirectory(QDir(folder.path), folder.pattern);
    names.sort();
    for (const QString& name : names) {
        const QString path = QDir(folder.path).absoluteFilePath(name);
        ByteArray der;
        try {
            der = FileUtil::readFileIntoByteArray(path);
        } catch (const std::exception&) {
        }
        found.push_back({path, name, der});
    }
    return found;
}

int list(const Configuration& configuration)
{
    for (const Folder& folder : folders(configuration)) {
        const std::vector<Entry> found = entries(folder);
        std::cout << folder.title << ": " << text(folder.path);
        if (!QDir(folder.path).exists()) std::cout << " (no such folder)";
        else if (found.empty()) std::cout << " (empty)";
        std::cout << "\n";
        for (const Entry& entry : found) {
            if (folder.kind == Kind::User)
                std::cout << "  user " << text(entry.name.left(entry.name.indexOf(QLatin1Char('_')))) << "\n";
            try {
                const X509Certificate certificate = X509Certificate::Parse(entry.der);
                std::cout << "  subject " << text(certificate.getSubjectName().toString()) << "\n"
                          << "  valid   " << text(certificate.getNotBefore().toString(Qt::ISODate)) << " to "
                          << text(certificate.getNotAfter().toString(Qt::ISODate)) << "\n";
            } catch (const std::exception& e) {
                std::cout << "  unusable: " << (entry.der.empty() ? "empty or unreadable" : e.what()) << "\n";
            }
            std::cout << "  sha256  " << sha256Hex(entry.der) << "\n"
                      << "  file    " << text(entry.path) << "\n";
        }
    }
    return 0;
}

// The configuration with every folder replaced by one scratch folder, so
// the store writes a new file there first.
class ScratchConfiguration : public FileConfiguration {
public:
    explicit ScratchConfiguration(const QString& scratch) : scratch_(scratch) {}
    QString certificateDir() const override { return scratch_; }
    QString caCertificateDir() const override { return scratch_; }
    QString rootCertificateDir() const override { return scratch_; }

private:
    QString scratch_;
};

int add(const Configuration& configuration, Kind kind, const QString& userName, const QString& file)
{
    if (kind == Kind::User && (userName.isEmpty() || userName.contains(QLatin1Char('_')) ||
                               userName.contains(QLatin1Char('/')) || userName.startsWith(QLatin1Char('.'))))
        throw Refused("a user name must be non-empty, without '_' or '/', and not start with '.'");
    const ByteArray der = readCertificate(file);
    if (kind == Kind::User) {
        try {
            (void)OcesCertificate::Parse(der);
        } catch (const std::exception& e) {
            throw Refused(text(file) + " is not a user certificate the token can use (" + e.what() + ")");
        }
    }
    const Folder folder = folders(configuration)[size_t(kind)];
    for (const Entry& entry : entries(folder))
        if (entry.der == der) throw Refused("already present: " + text(entry.path));
    if (!QDir().mkpath(folder.path)) throw Refused("cannot create " + text(folder.path));

    QTemporaryDir scratch(folder.path + QStringLiteral("/.korvo-store-XXXXXX"));
    if (!scratch.isValid()) throw Refused("cannot write in " + text(folder.path));
    ScratchConfiguration scratchConfiguration(scratch.path());
    std::unique_ptr<CertificateHandler> store(CertificateHandler::Instance(&scratchConfiguration));
    try {
        switch (kind) {
        case Kind::User: store->saveUserCertificate(MultiCertificate(userName, der), true); break;
        case Kind::Intermediate: store->saveIntermediateCaCertificate(der); break;
        case Kind::Root: store->saveRootCaCertificate(der); break;
        }
    } catch (const std::exception& e) {
        throw Refused(std::string("could not write the certificate: ") + e.what());
    }
    const QString written = QDir(scratch.path()).entryList(QDir::Files).value(0);
    const QString target = QDir(folder.path).absoluteFilePath(written);
    const QByteArray from = QFile::encodeName(QDir(scratch.path()).absoluteFilePath(written));
    const QByteArray to = QFile::encodeName(target);
    if (written.isEmpty() || QFileInfo::exists(target) ||
        renameat2(AT_FDCWD, from.constData(), AT_FDCWD, to.constData(), RENAME_NOREPLACE) != 0)
        throw Refused("could not put the certificate in place as " + text(target));
    std::cout << "added " << text(target) << "\n";
    return 0;
}

int remove(Configuration& configuration, const std::string& hashStart)
{
    std::string wanted = hashStart;
    std::transform(wanted.begin(), wanted.end(), wanted.begin(), ::tolower);
    if (wanted.size() < 4 || wanted.find_first_not_of("0123456789abcdef") != std::string::npos)
        throw Refused("give at least four hexadecimal digits of the certificate's SHA-256");
    std::vector<std::pair<Folder, Entry>> matches;
    for (const Folder& folder : folders(configuration))
        for (const Entry& entry : entries(folder))
            if (sha256Hex(entry.der).compare(0, wanted.size(), wanted) == 0) matches.push_back({folder, entry});
    if (matches.empty()) throw Refused("no certificate's SHA-256 starts with " + wanted);
    if (matches.size() > 1) {
        std::string which;
        for (const auto& match : matches) which += "\n  " + text(match.second.path);
        throw Refused("more than one certificate matches " + wanted + ":" + which);
    }
    const Folder& folder = matches[0].first;
    const Entry& entry = matches[0].second;
    // The store removes the file under the name it gives the certificate;
    // a file under another name goes by its own.
    std::unique_ptr<CertificateHandler> store(CertificateHandler::Instance(&configuration));
    switch (folder.kind) {
    case Kind::User:
        store->deleteUserCertificate(MultiCertificate(entry.name.left(entry.name.indexOf(QLatin1Char('_'))), entry.der));
        break;
    case Kind::Intermediate: store->deleteIntermediateCaCertificate(entry.der); break;
    case Kind::Root: store->deleteRootCaCertificate(entry.der); break;
    }
    if (QFileInfo::exists(entry.path) && !QFile::remove(entry.path))
        throw Refused("could not remove " + text(entry.path));
    std::cout << "removed " << text(entry.path) << "\n";
    return 0;
}

int usage()
{
    std::cerr << "usage: korvo-store list\n"
                 "       korvo-store add-user <user name> <certificate file>\n"
                 "       korvo-store add-intermediate <certificate file>\n"
                 "       korvo-store add-root <certificate file>\n"
                 "       korvo-store remove <SHA-256 of the certificate, or a unique start of it>\n";
    return 2;
}

}  // namespace

int main(int argc, char** argv)
{
    const std::vector<std::string> args(argv + 1, argv + argc);
    const auto arg = [&](size_t i) { return QString::fromLocal8Bit(args[i].c_str()); };
    FileConfiguration configuration;
    try {
        if (args.size() == 1 && args[0] == "list") return list(configuration);
        if (args.size() == 3 && args[0] == "add-user") return add(configuration, Kind::User, arg(1), arg(2));
        if (args.size() == 2 && args[0] == "add-intermediate")
            return add(configuration, Kind::Intermediate, QString(), arg(1));
        if (args.size() == 2 && args[0] == "add-root") return add(configuration, Kind::Root, QString(), arg(1));
        if (args.size() == 2 && args[0] == "remove") return remove(configuration, args[1]);
        return usage();
    } catch (const Refused& refused) {
        std::cerr << "korvo-store: " << refused.what() << "\n";
    } catch (const std::exception& e) {
        std::cerr << "korvo-store: " << e.what() << "\n";
    }
    return 1;
}
