// Walks through what the module's inner layers already do, against the home
// directory it is started with (tools/demo.sh gives it a sandbox):
// configuration, the hash engine on a file, the random generator, the log
// and the PKCS#11 call trace.
//
//     korvo_demo <file to hash>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <vector>

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include "config/fileconfiguration.h"
#include "crypto/csprgbg.h"
#include "crypto/hash.h"
#include "deps/cpp_modules/SecureRandomNumberGenerator.h"
#include "logging/SimpleLogManager.h"
#include "pkcs11/db/Tavik_p11trace.h"

extern "C" CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list);

namespace {

void heading(const char* title)
{
    std::printf("\n== %s ==\n", title);
}

void showConfiguration()
{
    heading("Configuration (settings file, defaults where it is silent)");
    FileConfiguration cfg;
    std::printf("%s", qPrintable(cfg.toString()));
    std::printf("Log file: %s\n", qPrintable(cfg.logFile()));
    std::printf("User certificates in: %s\n", qPrintable(FileConfiguration::expandDir(cfg.certificateDir()).absolutePath()));
    for (const QSslCertificate& root : cfg.sslRootCerts())
        std::printf("Built-in TLS root: %s\n", qPrintable(root.subjectDisplayName()));
}

bool showDigests(const char* path)
{
    heading("Digests of the file through the hash engine");
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        std::printf("cannot read %s\n", path);
        return false;
    }
    const std::vector<unsigned char> data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const struct { int id; const char* name; } hashes[] = {
        {HASH_MD2, "MD2"},       {HASH_MD5, "MD5"},       {HASH_SHA1, "SHA-1"},     {HASH_RIPEMD160, "RIPEMD-160"},
        {HASH_SHA224, "SHA-224"}, {HASH_SHA256, "SHA-256"}, {HASH_SHA384, "SHA-384"}, {HASH_SHA512, "SHA-512"}};
    for (const auto& hash : hashes) {
        std::vector<unsigned char> digest(hash_digestLength(hash.id));
        if (hash_buffer(hash.id, data.data(), data.size(), digest.data()) != 0) return false;
        std::printf("%-10s ", hash.name);
        for (unsigned char b : digest) std::printf("%02x", b);
        std::printf("\n");
    }
    return true;
}

bool showRandom()
{
    heading("Deterministic random bit generator seeded from the system");
    const ByteArray seed = SecureRandomNumberGenerator::getBytes(48);
    csprgbg_state* rng = nullptr;
    unsigned char out[32];
    if (csprgbg_init(&rng, seed.data(), seed.size(), nullptr, 0) != 0 || csprgbg_bytes(rng, out, sizeof out) != 0)
        return false;
    std::printf("32 random bytes: %s\n", ByteArray(out, sizeof out).toHex().c_str());
    csprgbg_exit(&rng);
    return true;
}

void showLog()
{
    heading("Log file: real calls of the module, traced, with logging switched on for the demo");
    using namespace TSQ::Tavik::Logging;
    FileConfiguration cfg;
    QDir().mkpath(QFileInfo(cfg.logFile()).absolutePath());
    CK_FUNCTION_LIST_PTR f = nullptr;
    if (C_GetFunctionList(&f) != CKR_OK || f->C_Initialize(nullptr) != CKR_OK) return;
    // C_Initialize opens the trace and leaves logging off, as it always
    // does; the demo switches it on and then calls the module as an
    // application would, before any certificate folder exists.
    SimpleLogManager* manager = SimpleLogManager::GetInstance();
    manager->SetLevel(ITavikLogger::TRACE);
    manager->SetLogging(true);
    CK_INFO info;
    CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
    CK_OBJECT_HANDLE found[4];
    CK_ULONG count = 0;
    (void)f->C_GetInfo(&info);
    (void)f->C_OpenSession(0, CKF_SERIAL_SESSION, nullptr, nullptr, &session);
    (void)f->C_FindObjectsInit(session, nullptr, 0);
    (void)f->C_FindObjects(session, found, 4, &count);
    (void)f->C_FindObjectsFinal(session);
    (void)f->C_CloseSession(session);
    (void)f->C_CloseSession(session);  // closed already: traced with its error code
    manager->SetLogging(false);
    (void)f->C_Finalize(nullptr);

    // The call trace's lines and whatever the layers below said above their
    // trace level; the rest of the trace-level chatter is left in the file.
    QFile file(cfg.logFile());
    if (!file.open(QIODevice::ReadOnly)) return;
    while (!file.atEnd()) {
        const QByteArray line = file.readLine();
        if (line.contains("Tavik_p11trace.cpp") || line.contains("[INFO]") || line.contains("[Error]"))
            std::printf("%s", line.constData());
    }
    std::printf("(the whole log, trace lines of every layer included: %s)\n", qPrintable(cfg.logFile()));
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: korvo_demo <file to hash>\n");
        return 2;
    }
    showConfiguration();
    if (!showDigests(argv[1]) || !showRandom()) return 1;
    showLog();
    return 0;
}
