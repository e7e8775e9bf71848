// What the certificate store costs when the token refreshes its objects:
// 1,000 user certificate files loaded by loadClientCertificates(), against
// parsing the same 1,000 DER certificates in memory. The difference between
// "load and parse" and "parse in memory" is what the file system adds.
//
//     cmake -B build -DKORVO_BENCH=ON && cmake --build build --target store_bench
//     build/bench/store_bench
//
// The certificates (one RSA-2048 key, 1,000 serials, the OCES person policy)
// are made with libcrypto when the program starts and written to the default
// user certificate directory of a temporary HOME, so the page cache is warm.

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <unistd.h>

#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <QDir>
#include <QFile>

#include "certificates/ocescertificate.h"
#include "config/certificatehandler.h"
#include "config/fileconfiguration.h"
#include "config/multicertificate.h"
#include "deps/cpp_modules/Hashers.h"

namespace {

const int kCertificates = 1000;

std::vector<ByteArray> g_der;
std::unique_ptr<FileConfiguration> g_config;

ByteArray makeCertificate(EVP_PKEY* key, int serial)
{
    X509* cert = X509_new();
    X509_set_version(cert, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert), serial);
    X509_gmtime_adj(X509_getm_notBefore(cert), 0);
    X509_gmtime_adj(X509_getm_notAfter(cert), 365L * 24 * 3600);
    X509_set_pubkey(cert, key);
    X509_NAME* name = X509_get_subject_name(cert);
    const std::string cn = "Bench User " + std::to_string(serial);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(cn.c_str()), -1, -1, 0);
    X509_set_issuer_name(cert, name);
    // certificatePolicies: SEQUENCE { PolicyInformation { 1.2.208.169.1.1.1.1 } }
    static const unsigned char policies[] = {0x30, 0x0D, 0x30, 0x0B, 0x06, 0x09, 0x2A, 0x81,
                                             0x50, 0x81, 0x29, 0x01, 0x01, 0x01, 0x01};
    ASN1_OCTET_STRING* value = ASN1_OCTET_STRING_new();
    ASN1_OCTET_STRING_set(value, policies, sizeof policies);
    X509_EXTENSION* policy = X509_EXTENSION_create_by_NID(nullptr, NID_certificate_policies, 0, value);
    ASN1_OCTET_STRING_free(value);
    X509_add_ext(cert, policy, -1);
    X509_EXTENSION_free(policy);
    X509_sign(cert, key, EVP_sha256());

    unsigned char* out = nullptr;
    const int length = i2d_X509(cert, &out);
    ByteArray der(out, size_t(length > 0 ? length : 0));
    OPENSSL_free(out);
    X509_free(cert);
    return der;
}

// Writes the certificates as <user>_<sha256 hex>.cer into the user
// certificate directory of the (temporary) home.
bool prepare()
{
    EVP_PKEY* key = EVP_RSA_gen(2048);
    if (!key) return false;
    for (int i = 0; i < kCertificates; ++i) g_der.push_back(makeCertificate(key, i + 1));
    EVP_PKEY_free(key);

    g_config = std::make_unique<FileConfiguration>();
    const QDir dir = FileConfiguration::expandDir(g_config->certificateDir());
    if (!QDir().mkpath(dir.absolutePath())) return false;
    for (int i = 0; i < kCertificates; ++i) {
        const QString name = QStringLiteral("user%1_%2.cer")
                                  .arg(i)
                                  .arg(QString::fromStdString(Sha256::Hash(g_der[size_t(i)]).toHex(HexCase::Lower)));
        QFile file(dir.absoluteFilePath(name));
        if (!file.open(QIODevice::WriteOnly)) return false;
        file.write(reinterpret_cast<const char*>(g_der[size_t(i)].data()), qint64(g_der[size_t(i)].size()));
    }
    // Every certificate must be one the store accepts.
    for (const ByteArray& der : g_der) OcesCertificate::Parse(der);
    return true;
}

void BM_LoadFiles(benchmark::State& state)
{
    std::unique_ptr<CertificateHandler> store(CertificateHandler::Instance(g_config.get()));
    for (auto _ : state) {
        store->loadClientCertificates();
        benchmark::DoNotOptimize(store->certificates().size());
    }
    if (store->certificates().size() != kCertificates) state.SkipWithError("not every file was loaded");
}

void BM_ParseInMemory(benchmark::State& state)
{
    for (auto _ : state)
        for (const ByteArray& der : g_der) benchmark::DoNotOptimize(OcesCertificate::Parse(der));
}

// The token's refresh: load the files, then parse every certificate.
void BM_LoadFilesAndParse(benchmark::State& state)
{
    std::unique_ptr<CertificateHandler> store(CertificateHandler::Instance(g_config.get()));
    for (auto _ : state) {
        store->loadClientCertificates();
        for (const MultiCertificate& mc : store->certificates()) benchmark::DoNotOptimize(mc.asOcesCertificate());
    }
}

BENCHMARK(BM_LoadFiles)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ParseInMemory)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LoadFilesAndParse)->Unit(benchmark::kMillisecond);

// Console output as usual, and each benchmark's real and CPU time (in
// milliseconds) kept for the summary.
class SummaryReporter : public benchmark::ConsoleReporter {
public:
    SummaryReporter() : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_ColorTabular : OO_Tabular) {}
    struct Times {
        double real = 0, cpu = 0;
    };
    void ReportRuns(const std::vector<Run>& runs) override
    {
        // With --benchmark_repetitions the median stands for the benchmark.
        for (const Run& run : runs) {
            if (run.error_occurred) continue;
            if (run.run_type == Run::RT_Iteration || run.aggregate_name == "median")
                milliseconds[run.run_name.str()] = Times{run.GetAdjustedRealTime(), run.GetAdjustedCPUTime()};
        }
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, Times> milliseconds;
};

void printSummary(std::map<std::string, SummaryReporter::Times>& ms)
{
    if (!ms.count("BM_LoadFiles") || !ms.count("BM_ParseInMemory") || !ms.count("BM_LoadFilesAndParse")) return;
    const auto load = ms["BM_LoadFiles"], parse = ms["BM_ParseInMemory"], both = ms["BM_LoadFilesAndParse"];
    const auto line = [](const char* what, double real, double cpu) {
        std::printf("  %-38s %8.3f ms real %8.3f ms CPU  (%.1f us real a certificate)\n", what, real, cpu,
                    real * 1000 / kCertificates);
    };
    std::printf("\n%d user certificates, one pass each:\n", kCertificates);
    line("loadClientCertificates()", load.real, load.cpu);
    line("OcesCertificate::Parse in memory", parse.real, parse.cpu);
    line("load, then parse every entry", both.real, both.cpu);
    line("file-system cost (load+parse - parse)", both.real - parse.real, both.cpu - parse.cpu);
}

}  // namespace

int main(int argc, char** argv)
{
    char pattern[] = "/tmp/korvo-store-bench-XXXXXX";
    const char* home = mkdtemp(pattern);
    if (!home) return 1;
    // Before anything reads the settings: the store's directories then lie
    // in the temporary home.
    setenv("HOME", home, 1);
    unsetenv("XDG_CONFIG_HOME");

    int status = 1;
    if (prepare()) {
        benchmark::Initialize(&argc, argv);
        SummaryReporter reporter;
        benchmark::RunSpecifiedBenchmarks(&reporter);
        benchmark::Shutdown();

        printSummary(reporter.milliseconds);
        status = 0;
    } else {
        std::fprintf(stderr, "store_bench: could not prepare the certificate files\n");
    }
    g_config.reset();
    std::error_code ignored;
    std::filesystem::remove_all(home, ignored);
    return status;
}
