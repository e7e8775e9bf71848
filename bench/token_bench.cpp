// The certificate token as its users meet it, with a peer where there is one:
//
//   a. NSS listing certificates the way a browser does: `certutil -L -h all`
//      over a fresh NSS database to which the module was added with modutil,
//      the store holding every root certificate of the system's CA bundle
//      (/etc/ssl/certs/ca-certificates.crt, converted to <sha-256>.cer DER
//      files) plus one user certificate with its key. The same listing goes
//      through p11-kit's trust module, which reads the same bundle, in a
//      database of its own; and an empty database shows what NSS costs by
//      itself. Every run has a fresh HOME and database; figures are medians.
//      One more, untimed, run through OpenSC's pkcs11-spy counts the searches
//      NSS makes (each one makes the token look at its files again).
//   b. One full search (C_FindObjectsInit with an empty template, C_FindObjects
//      until nothing is left, C_FindObjectsFinal) over stores of 10, 100 and
//      1,000 user certificates: the first search after C_Initialize (cold;
//      C_Finalize + C_Initialize drops the token's objects) and the same search
//      repeated with no file changed (warm). The library's certificate store
//      lives on across C_Finalize, so the very first search over a store (the
//      files read and parsed) is reported on its own as "first".
//   c. C_SignInit(CKM_SHA256_RSA_PKCS) + C_Sign through the reference helper
//      with distinct data each time (the helper runs every time), split into
//      the helper run directly with the library's own popen("exec helper ...")
//      line, starting it alone (the same line with an argument the helper
//      refuses at once, and /bin/true the same way), the helper's key load and
//      RSA operation done in-process with libcrypto, and what is left for the
//      library; and the same signature repeated (answered from the cache).
//
// It ends with one table: each figure, its target, and whether it was met.
//
//     cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DKORVO_BENCH=ON
//     cmake --build build-bench --target token_bench
//     build-bench/bench/token_bench [options]
//
//   --repetitions=N        runs of each NSS listing and cold searches (default 7)
//   --warm_searches=N      warm searches per store (default 25)
//   --signatures=N         helper signatures, helper starts, cached signatures (default 15)
//   --sizes=10,100,1000    user certificates in the search stores
//   --only=nss,search,sign the parts to run (default all three)
//   --enforce_targets      exit with status 2 when a target is missed
//   --keep_dirs            leave the temporary directories in place and print them
//   --korvo_module=PATH    another build of the module (its KorvoPerformRsa beside it)
//   --p11kit_module=PATH   p11-kit's trust module (default: the Debian multiarch path)
//   --ca_bundle=PATH       the PEM bundle of root certificates
//
// The certificates are made in-process with libcrypto: one RSA-2048 key is
// shared by every user certificate (distinct serial numbers and names make
// distinct certificates), so 1,000 of them take about a second. Nothing
// outside temporary directories is touched. Exit status 1 when a part could
// not be set up or checked. All figures are wall-clock: run it on an otherwise
// idle machine (the load average is printed at start and end).

#include <fcntl.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include "p11_harness.h"

#ifndef KORVO_MODULE_PATH
#error "KORVO_MODULE_PATH must name the built module"
#endif
#ifndef P11KIT_TRUST_MODULE_PATH
#define P11KIT_TRUST_MODULE_PATH "/usr/lib/x86_64-linux-gnu/pkcs11/p11-kit-trust.so"
#endif
#ifndef PKCS11_SPY_MODULE_PATH
#define PKCS11_SPY_MODULE_PATH "/usr/lib/x86_64-linux-gnu/pkcs11/pkcs11-spy.so"
#endif

extern char** environ;

namespace {

namespace fs = std::filesystem;
using p11bench::Module;
using p11bench::rvName;
using p11bench::takeFlag;
using Bytes = std::vector<unsigned char>;
using Clock = std::chrono::steady_clock;

const char* const kTokenLabel = "Korvo central server";
const char* const kPeerTokenLabel = "System Trust";

// Targets.
constexpr double kTargetNssRatio = 1.0;          // ours / p11-kit, listing time
constexpr double kTargetColdMaxMs = 100.0;       // cold search at 1,000 certificates
constexpr double kTargetColdGrowth = 15.0;       // cold(1,000) / cold(100); linear is 10
constexpr double kTargetWarmSpeedup = 10.0;      // cold / warm at 1,000 certificates
constexpr double kTargetCacheSpeedup = 100.0;    // helper signature / cached signature

double seconds(Clock::time_point from, Clock::time_point to)
{
    return std::chrono::duration<double>(to - from).count();
}

double median(std::vector<double> values)
{
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

std::string loadAverage()
{
    std::ifstream in("/proc/loadavg");
    std::string a, b, c;
    in >> a >> b >> c;
    return a + " " + b + " " + c;
}

// ---------------------------------------------------------------------------
// Temporary directories and files

class TempDir {
public:
    explicit TempDir(const char* prefix, bool keep) : keep_(keep)
    {
        std::string pattern = fs::temp_directory_path().string() + "/" + prefix + "XXXXXX";
        std::vector<char> buffer(pattern.begin(), pattern.end());
        buffer.push_back('\0');
        if (mkdtemp(buffer.data())) path_ = buffer.data();
    }
    ~TempDir()
    {
        std::error_code ignored;
        if (keep_ && !path_.empty()) std::printf("(kept %s)\n", path_.c_str());
        else if (!path_.empty()) fs::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    bool ok() const { return !path_.empty(); }
    const std::string& path() const { return path_; }

private:
    std::string path_;
    bool keep_;
};

bool writeFile(const std::string& path, const void* data, size_t size)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(static_cast<const char*>(data), std::streamsize(size));
    return bool(out);
}

bool writeFile(const std::string& path, const Bytes& data) { return writeFile(path, data.data(), data.size()); }

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string toHex(const unsigned char* data, size_t size)
{
    static const char digits[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(size * 2);
    for (size_t i = 0; i < size; ++i) {
        hex.push_back(digits[data[i] >> 4]);
        hex.push_back(digits[data[i] & 15]);
    }
    return hex;
}

std::string sha256Hex(const Bytes& data)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(data.data(), data.size(), digest, &length, EVP_sha256(), nullptr);
    return toHex(digest, length);
}

// ---------------------------------------------------------------------------
// Certificates

struct PKeyFree {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using PKey = std::unique_ptr<EVP_PKEY, PKeyFree>;

Bytes toDer(X509* cert)
{
    unsigned char* out = nullptr;
    const int length = i2d_X509(cert, &out);
    Bytes der(out, out + (length > 0 ? length : 0));
    OPENSSL_free(out);
    return der;
}

void addExtension(X509* cert, X509* issuer, int nid, const char* value)
{
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
    X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
    if (extension) {
        X509_add_ext(cert, extension, -1);
        X509_EXTENSION_free(extension);
    }
}

void addName(X509_NAME* name, const char* field, const std::string& value)
{
    X509_NAME_add_entry_by_txt(name, field, MBSTRING_UTF8, reinterpret_cast<const unsigned char*>(value.c_str()), -1, -1, 0);
}

// The CA every user certificate names as its issuer; signed with the same
// key as the user certificates, which is all the token needs of them.
class Issuer {
public:
    explicit Issuer(EVP_PKEY* key) : key_(key)
    {
        cert_ = X509_new();
        X509_set_version(cert_, 2);
        ASN1_INTEGER_set(X509_get_serialNumber(cert_), 1);
        X509_gmtime_adj(X509_getm_notBefore(cert_), -3600);
        X509_gmtime_adj(X509_getm_notAfter(cert_), 10L * 365 * 24 * 3600);
        X509_set_pubkey(cert_, key);
        X509_NAME* name = X509_get_subject_name(cert_);
        addName(name, "C", "XX");
        addName(name, "O", "Korvo Invented Bench Data");
        addName(name, "CN", "Korvo Bench CA");
        X509_set_issuer_name(cert_, name);
        addExtension(cert_, cert_, NID_basic_constraints, "critical,CA:TRUE");
        addExtension(cert_, cert_, NID_key_usage, "critical,keyCertSign,cRLSign");
        addExtension(cert_, cert_, NID_subject_key_identifier, "hash");
        X509_sign(cert_, key, EVP_sha256());
    }
    ~Issuer() { X509_free(cert_); }
    Issuer(const Issuer&) = delete;
    Issuer& operator=(const Issuer&) = delete;

    Bytes der() const { return toDer(cert_); }

    // A user certificate with the OCES person policy, an invented name and
    // the given serial number.
    Bytes user(long serial) const
    {
        X509* cert = X509_new();
        X509_set_version(cert, 2);
        ASN1_INTEGER_set(X509_get_serialNumber(cert), 1000 + serial);
        X509_gmtime_adj(X509_getm_notBefore(cert), -3600);
        X509_gmtime_adj(X509_getm_notAfter(cert), 2L * 365 * 24 * 3600);
        X509_set_pubkey(cert, key_);
        X509_NAME* name = X509_get_subject_name(cert);
        addName(name, "C", "XX");
        addName(name, "O", "Invented Bench Org");
        addName(name, "CN", "Bench User " + std::to_string(serial));
        X509_set_issuer_name(cert, X509_get_subject_name(cert_));
        addExtension(cert, cert_, NID_basic_constraints, "critical,CA:FALSE");
        addExtension(cert, cert_, NID_key_usage, "critical,digitalSignature,nonRepudiation,keyEncipherment");
        addExtension(cert, cert_, NID_subject_key_identifier, "hash");
        addExtension(cert, cert_, NID_authority_key_identifier, "keyid");
        addExtension(cert, cert_, NID_certificate_policies, "1.2.208.169.1.1.1.1");
        X509_sign(cert, key_, EVP_sha256());
        Bytes der = toDer(cert);
        X509_free(cert);
        return der;
    }

private:
    EVP_PKEY* key_;
    X509* cert_ = nullptr;
};

std::string pkcs8Pem(EVP_PKEY* key)
{
    BIO* bio = BIO_new(BIO_s_mem());
    PEM_write_bio_PrivateKey(bio, key, nullptr, nullptr, 0, nullptr, nullptr);
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio, &data);
    std::string pem(data, size_t(length));
    BIO_free(bio);
    return pem;
}

// Every certificate of a PEM bundle as DER, duplicates dropped.
std::vector<Bytes> readBundle(const std::string& path)
{
    std::vector<Bytes> certs;
    BIO* bio = BIO_new_file(path.c_str(), "r");
    if (!bio) return certs;
    std::set<std::string> seen;
    while (X509* cert = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr)) {
        Bytes der = toDer(cert);
        X509_free(cert);
        if (seen.insert(sha256Hex(der)).second) certs.push_back(std::move(der));
    }
    BIO_free(bio);
    return certs;
}

// A home directory laid out as the token reads it.
struct Store {
    std::string home;
    std::string users() const { return home + "/.korvo/user_certificates"; }
    std::string intermediates() const { return home + "/.korvo/intermediate_certificates"; }
    std::string roots() const { return home + "/.korvo/root_certificates"; }
    std::string keys() const { return home + "/.korvo/keys"; }

    bool create() const
    {
        std::error_code error;
        for (const std::string& dir : {users(), intermediates(), roots(), keys()}) {
            fs::create_directories(dir, error);
            if (error) return false;
        }
        return true;
    }
    bool addUser(const std::string& user, const Bytes& der, const std::string* keyPem = nullptr) const
    {
        const std::string digest = sha256Hex(der);
        if (!writeFile(users() + "/" + user + "_" + digest + ".cer", der)) return false;
        return !keyPem || writeFile(keys() + "/" + digest + ".pem", keyPem->data(), keyPem->size());
    }
    bool addCa(const std::string& dir, const Bytes& der) const { return writeFile(dir + "/" + sha256Hex(der) + ".cer", der); }
};

// ---------------------------------------------------------------------------
// Child processes

struct ChildRun {
    bool started = false;
    int status = -1;
    double wall = 0;  // seconds
    double cpu = 0;   // user + system seconds of the child
    std::string out;
    std::string err;
    bool ok() const { return started && WIFEXITED(status) && WEXITSTATUS(status) == 0; }
    std::string describe() const
    {
        if (!started) return "could not be started";
        if (WIFSIGNALED(status)) return "ended by signal " + std::to_string(WTERMSIG(status));
        return "exit status " + std::to_string(WEXITSTATUS(status)) + (err.empty() ? "" : ": " + err.substr(0, 300));
    }
};

// Runs argv with HOME replaced (and XDG_CONFIG_HOME dropped) and extraEnv
// added, standard input
// from /dev/null, standard output and error into files under scratch. Only
// spawn and wait are timed.
ChildRun runChild(const std::vector<std::string>& argv, const std::string& home, const std::string& scratch,
                  const std::vector<std::string>& extraEnv = {})
{
    ChildRun run;
    std::vector<std::string> envStrings;
    for (char** e = environ; *e; ++e) {
        if (std::strncmp(*e, "HOME=", 5) == 0 || std::strncmp(*e, "XDG_CONFIG_HOME=", 16) == 0) continue;
        envStrings.emplace_back(*e);
    }
    envStrings.push_back("HOME=" + home);
    envStrings.insert(envStrings.end(), extraEnv.begin(), extraEnv.end());
    std::vector<char*> envp, args;
    for (std::string& s : envStrings) envp.push_back(s.data());
    envp.push_back(nullptr);
    std::vector<std::string> argvCopy = argv;
    for (std::string& s : argvCopy) args.push_back(s.data());
    args.push_back(nullptr);

    const std::string outPath = scratch + "/child.out", errPath = scratch + "/child.err";
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);

    pid_t pid = -1;
    const Clock::time_point start = Clock::now();
    const int spawned = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) return run;
    run.started = true;
    struct rusage usage = {};
    while (wait4(pid, &run.status, 0, &usage) < 0 && errno == EINTR) {}
    run.wall = seconds(start, Clock::now());
    run.cpu = double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) + double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    run.out = readFile(outPath);
    run.err = readFile(errPath);
    while (!run.err.empty() && (run.err.back() == '\n' || run.err.back() == '\r')) run.err.pop_back();
    return run;
}

// ---------------------------------------------------------------------------
// Results

struct Row {
    std::string part;
    std::string what;
    std::string value;
    std::string target;
    int met = -1;  // -1: no target, 0: not met, 1: met, 2: not measured
};

std::vector<Row> g_rows;
std::vector<std::string> g_problems;

std::string format(const char* fmt, double value)
{
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, fmt, value);
    return buffer;
}

void addRow(const std::string& part, const std::string& what, const std::string& value, const std::string& target = "",
            int met = -1)
{
    g_rows.push_back({part, what, value, target, met});
}

void problem(const std::string& text)
{
    std::printf("PROBLEM: %s\n", text.c_str());
    std::fflush(stdout);
    g_problems.push_back(text);
}

// ---------------------------------------------------------------------------
// a. NSS listing

struct Listing {
    size_t ofToken = 0;                   // lines whose nickname carries the token's label
    std::map<std::string, size_t> trust;  // trust column -> lines (of the token)
};

// certutil -L prints "<nickname padded> <SSL>,<S/MIME>,<JAR/XPI>" per certificate.
Listing parseListing(const std::string& out, const std::string& tokenLabel)
{
    Listing listing;
    std::istringstream lines(out);
    std::string line;
    while (std::getline(lines, line)) {
        while (!line.empty() && (line.back() == ' ' || line.back() == '\r')) line.pop_back();
        const size_t space = line.find_last_of(' ');
        if (space == std::string::npos) continue;
        const std::string trust = line.substr(space + 1);
        if (std::count(trust.begin(), trust.end(), ',') != 2 ||
            trust.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ,") != std::string::npos)
            continue;
        if (line.compare(0, tokenLabel.size() + 1, tokenLabel + ":") != 0) continue;
        ++listing.ofToken;
        ++listing.trust[trust];
    }
    return listing;
}

std::string describeTrust(const Listing& listing)
{
    std::string text;
    for (const auto& [trust, count] : listing.trust) text += (text.empty() ? "" : ", ") + std::to_string(count) + "x " + trust;
    return text.empty() ? "none" : text;
}

// One fresh HOME with a fresh NSS database; the module (if any) added with
// modutil; then the timed `certutil -L -h all`.
struct NssRun {
    bool ok = false;
    double wall = 0, cpu = 0;
    Listing listing;
    std::map<std::string, size_t> calls;  // with spyModule: Cryptoki calls NSS made, by name
};

// With spyModule set, OpenSC's pkcs11-spy is added in front of the module and
// its log counts NSS's calls (not timed: the spy's logging dominates).
NssRun nssRun(const std::string& module, const std::string& moduleName, const std::string& tokenLabel,
              const std::function<bool(const Store&)>& fillStore, bool keep, const std::string& spyModule = "")
{
    NssRun result;
    TempDir home("token-bench-nss-", keep);
    if (!home.ok()) {
        problem("cannot create a temporary HOME");
        return result;
    }
    Store store{home.path()};
    if (fillStore && (!store.create() || !fillStore(store))) {
        problem("cannot write the certificate store for " + moduleName);
        return result;
    }
    const std::string db = "sql:" + home.path() + "/nssdb";
    fs::create_directories(home.path() + "/nssdb");
    const std::string spyLog = home.path() + "/spy.log";
    std::vector<std::string> env;
    if (!spyModule.empty()) env = {"PKCS11SPY=" + module, "PKCS11SPY_OUTPUT=" + spyLog};
    const std::string library = spyModule.empty() ? module : spyModule;
    ChildRun step = runChild({"certutil", "-N", "-d", db, "--empty-password"}, home.path(), home.path());
    if (!step.ok()) {
        problem("certutil -N: " + step.describe());
        return result;
    }
    if (!module.empty()) {
        step = runChild({"modutil", "-dbdir", db, "-add", moduleName, "-libfile", library, "-force"}, home.path(), home.path(),
                        env);
        if (!step.ok()) {
            problem("modutil -add " + moduleName + ": " + step.describe());
            return result;
        }
    }
    if (!spyModule.empty()) fs::remove(spyLog);
    const ChildRun list = runChild({"certutil", "-L", "-h", "all", "-d", db}, home.path(), home.path(), env);
    if (!list.ok()) {
        problem("certutil -L -h all with " + moduleName + ": " + list.describe());
        return result;
    }
    result.ok = true;
    result.wall = list.wall;
    result.cpu = list.cpu;
    result.listing = parseListing(list.out, tokenLabel);
    if (keep) writeFile(home.path() + "/listing.txt", list.out.data(), list.out.size());
    if (!spyModule.empty()) {
        // The spy logs each call as "<n>: C_Name" on a line of its own.
        std::istringstream log(readFile(spyLog));
        std::string line;
        while (std::getline(log, line)) {
            const size_t colon = line.find(": C_");
            if (colon == std::string::npos || colon == 0 ||
                line.find_first_not_of("0123456789") != colon)
                continue;
            const std::string name = line.substr(colon + 2);
            ++result.calls[name.substr(0, name.find_first_of(" \t\r"))];
        }
    }
    return result;
}

struct NssFigures {
    std::vector<double> wall, cpu;
    Listing last;
    size_t failures = 0;
};

bool partNss(const std::string& korvoModule, const std::string& p11kitModule, const std::string& spyModule,
             const std::string& bundle, const std::string& keyPem, const Bytes& userDer, int repetitions, bool keep)
{
    std::printf("\n== a. NSS: certutil -L -h all over the system's root certificates ==\n");
    const std::vector<Bytes> roots = readBundle(bundle);
    if (roots.empty()) {
        problem("no certificates read from " + bundle);
        return false;
    }
    std::printf("%zu distinct root certificates from %s, converted to DER <sha-256>.cer files, plus one user "
                "certificate with its key\n",
                roots.size(), bundle.c_str());
    std::printf("p11-kit trust module: %s (reads the same bundle)\n", p11kitModule.c_str());
    std::fflush(stdout);

    const auto fill = [&](const Store& store) {
        for (const Bytes& der : roots)
            if (!store.addCa(store.roots(), der)) return false;
        return store.addUser("benchuser", userDer, &keyPem);
    };

    NssFigures ours, peer, none;
    for (int r = 0; r < repetitions; ++r) {
        // Interleaved, so a change in the machine's load touches all three alike.
        NssRun a = nssRun(korvoModule, "Korvo token", kTokenLabel, fill, keep && r == 0);
        NssRun b = nssRun(p11kitModule, "p11-kit-trust", kPeerTokenLabel, nullptr, keep && r == 0);
        NssRun c = nssRun("", "no module", "", nullptr, false);
        for (auto [run, figures] : {std::pair{&a, &ours}, std::pair{&b, &peer}, std::pair{&c, &none}}) {
            if (!run->ok) {
                ++figures->failures;
                continue;
            }
            figures->wall.push_back(run->wall);
            figures->cpu.push_back(run->cpu);
            figures->last = run->listing;
        }
        std::printf("  run %d: Korvo %7.1f ms (%zu listed)   p11-kit %7.1f ms (%zu listed)   NSS alone %6.1f ms\n", r + 1,
                    a.wall * 1e3, a.listing.ofToken, b.wall * 1e3, b.listing.ofToken, c.wall * 1e3);
        std::fflush(stdout);
    }
    if (ours.wall.empty() || peer.wall.empty() || none.wall.empty()) {
        addRow("a", "NSS listing", "not measured", "", 2);
        return false;
    }

    const size_t expected = roots.size() + 1;
    std::printf("Listed through Korvo:   %zu of %zu certificates; trust: %s\n", ours.last.ofToken, expected,
                describeTrust(ours.last).c_str());
    std::printf("Listed through p11-kit: %zu of %zu roots; trust: %s\n", peer.last.ofToken, roots.size(),
                describeTrust(peer.last).c_str());
    bool ok = true;
    if (ours.last.ofToken != expected) {
        problem("NSS listed " + std::to_string(ours.last.ofToken) + " certificates of the Korvo token, not " +
                std::to_string(expected));
        ok = false;
    }

    const double oursMs = median(ours.wall) * 1e3, peerMs = median(peer.wall) * 1e3, noneMs = median(none.wall) * 1e3;
    const double ratio = oursMs / peerMs;
    const std::string runs = " (median of " + std::to_string(ours.wall.size()) + ")";
    addRow("a", "certificates in the store (roots + 1 user)", std::to_string(expected) + ", " + std::to_string(ours.last.ofToken) + " listed");
    addRow("a", "certutil -L -h all, Korvo [ms]" + runs, format("%.1f", oursMs) + " (CPU " + format("%.1f", median(ours.cpu) * 1e3) + ")");
    addRow("a", "certutil -L -h all, p11-kit trust [ms]", format("%.1f", peerMs) + " (CPU " + format("%.1f", median(peer.cpu) * 1e3) + ")");
    addRow("a", "certutil -L -h all, NSS alone [ms]", format("%.1f", noneMs));
    // A listing that misses certificates is no fair comparison.
    addRow("a", "ratio Korvo / p11-kit", format("%.2f", ratio) + (ok ? "" : " (listing incomplete)"),
           "<= " + format("%.2f", kTargetNssRatio), ok ? ratio <= kTargetNssRatio : 2);
    if (oursMs > noneMs && peerMs > noneMs)
        addRow("a", "ratio above NSS alone, Korvo / p11-kit", format("%.2f", (oursMs - noneMs) / (peerMs - noneMs)));

    // What NSS asked of the module, counted once through OpenSC's spy: every
    // C_FindObjectsInit makes the token look at its files again.
    if (!spyModule.empty() && access(spyModule.c_str(), R_OK) == 0) {
        const NssRun spied = nssRun(korvoModule, "Korvo token (spied)", kTokenLabel, fill, false, spyModule);
        const auto count = [&](const char* name) {
            const auto it = spied.calls.find(name);
            return it == spied.calls.end() ? size_t(0) : it->second;
        };
        const size_t searches = count("C_FindObjectsInit");
        if (spied.ok && searches > 0) {
            std::printf("Through pkcs11-spy NSS made %zu C_FindObjectsInit, %zu C_FindObjects and %zu C_GetAttributeValue "
                        "calls on the Korvo token\n",
                        searches, count("C_FindObjects"), count("C_GetAttributeValue"));
            addRow("a", "C_FindObjectsInit calls by certutil (pkcs11-spy)", std::to_string(searches));
            addRow("a", "Korvo listing above NSS alone, per search [ms]", format("%.3f", (oursMs - noneMs) / double(searches)));
        }
    }
    return ok;
}

// ---------------------------------------------------------------------------
// b. Searches

// C_FindObjectsInit(empty) + C_FindObjects until empty + C_FindObjectsFinal.
CK_RV searchAll(CK_FUNCTION_LIST_PTR f, CK_SESSION_HANDLE session, size_t* found)
{
    *found = 0;
    CK_RV rv = f->C_FindObjectsInit(session, nullptr, 0);
    if (rv != CKR_OK) return rv;
    CK_OBJECT_HANDLE handles[256];
    for (;;) {
        CK_ULONG n = 0;
        rv = f->C_FindObjects(session, handles, 256, &n);
        if (rv != CKR_OK) {
            f->C_FindObjectsFinal(session);
            return rv;
        }
        if (n == 0) break;
        *found += n;
    }
    return f->C_FindObjectsFinal(session);
}

// Points HOME at the store, then C_Finalize + C_Initialize + C_OpenSession.
bool freshToken(Module& module, const std::string& home, CK_SESSION_HANDLE* session, double* initSeconds = nullptr)
{
    setenv("HOME", home.c_str(), 1);
    const Clock::time_point start = Clock::now();
    CK_SLOT_ID slot = 0;
    if (!module.reinitialise() || !module.findSlot(&slot, Module::TokenState::Any) || !module.openSession(slot, session)) {
        problem("Korvo: " + module.error());
        return false;
    }
    if (initSeconds) *initSeconds = seconds(start, Clock::now());
    return true;
}

struct SearchFigures {
    size_t certificates = 0;
    double firstMs = 0;  // the first search over these files in the process: the store reads them
    double coldMs = 0, warmMs = 0, initMs = 0;
    bool measured = false;
};

bool partSearch(Module& module, Issuer& issuer, const std::vector<size_t>& sizes, int repetitions, int warmSearches,
                const std::string& scratch)
{
    std::printf("\n== b. Search of every object: cold (first after C_Initialize) and warm (no file changed) ==\n");
    std::fflush(stdout);
    std::vector<SearchFigures> figures;
    CK_FUNCTION_LIST_PTR f = module.functions();
    bool ok = true;
    for (size_t count : sizes) {
        SearchFigures fig;
        fig.certificates = count;
        const Clock::time_point made = Clock::now();
        Store store{scratch + "/search-" + std::to_string(count)};
        bool written = store.create();
        for (size_t i = 0; written && i < count; ++i) written = store.addUser("user" + std::to_string(i), issuer.user(long(i)));
        if (!written) {
            problem("cannot write the store of " + std::to_string(count) + " certificates");
            ok = false;
            continue;
        }
        std::printf("%zu user certificates made and written in %.0f ms\n", count, seconds(made, Clock::now()) * 1e3);

        std::vector<double> cold, warm, init;
        size_t found = 0;
        bool failed = false;
        for (int r = 0; r < repetitions && !failed; ++r) {
            CK_SESSION_HANDLE session;
            double initSeconds = 0;
            if (!freshToken(module, store.home, &session, &initSeconds)) return false;
            init.push_back(initSeconds);
            Clock::time_point start = Clock::now();
            CK_RV rv = searchAll(f, session, &found);
            cold.push_back(seconds(start, Clock::now()));
            for (int w = 0; w < warmSearches && rv == CKR_OK; ++w) {
                size_t again = 0;
                start = Clock::now();
                rv = searchAll(f, session, &again);
                warm.push_back(seconds(start, Clock::now()));
                if (rv == CKR_OK && again != found) {
                    problem("a warm search found " + std::to_string(again) + " objects, the cold one " + std::to_string(found));
                    failed = true;
                    break;
                }
            }
            if (rv != CKR_OK) {
                problem("a search call returned " + rvName(rv));
                failed = true;
            }
            f->C_CloseSession(session);
        }
        if (failed) {
            ok = false;
            continue;
        }
        if (found != 3 * count) {
            problem("the search over " + std::to_string(count) + " user certificates found " + std::to_string(found) +
                    " objects, not " + std::to_string(3 * count) + " (certificate, public key, private key each)");
            ok = false;
            continue;
        }
        // The library's certificate store outlives C_Finalize: only the first
        // cold search reads the files; later ones rebuild the objects.
        fig.firstMs = cold.front() * 1e3;
        if (cold.size() > 1) cold.erase(cold.begin());
        fig.coldMs = median(cold) * 1e3;
        fig.warmMs = median(warm) * 1e3;
        fig.initMs = median(init) * 1e3;
        fig.measured = true;
        std::printf("  %5zu certificates, %5zu objects: first %8.3f ms   cold %8.3f ms   warm %8.3f ms   "
                    "(C_Finalize+C_Initialize+C_OpenSession %.3f ms)\n",
                    count, found, fig.firstMs, fig.coldMs, fig.warmMs, fig.initMs);
        std::fflush(stdout);
        figures.push_back(fig);
        std::error_code ignored;
        fs::remove_all(store.home, ignored);
    }

    const std::string runs = "cold: median of " + std::to_string(std::max(repetitions - 1, 1)) + ", warm: " +
                             std::to_string(repetitions * warmSearches);
    for (const SearchFigures& fig : figures)
        addRow("b", "search, " + std::to_string(fig.certificates) + " certs first / cold / warm [ms]",
               format("%.3f", fig.firstMs) + " / " + format("%.3f", fig.coldMs) + " / " + format("%.3f", fig.warmMs));
    addRow("b", "  (first: files not yet read; " + runs + ")", "");
    const auto at = [&](size_t count) -> const SearchFigures* {
        for (const SearchFigures& fig : figures)
            if (fig.certificates == count) return &fig;
        return nullptr;
    };
    const SearchFigures* hundred = at(100);
    const SearchFigures* thousand = at(1000);
    if (thousand) {
        addRow("b", "cold search at 1,000 certificates [ms]", format("%.2f", thousand->coldMs),
               "< " + format("%.0f", kTargetColdMaxMs), thousand->coldMs < kTargetColdMaxMs);
        addRow("b", "first search at 1,000, files read [ms]", format("%.2f", thousand->firstMs),
               "< " + format("%.0f", kTargetColdMaxMs), thousand->firstMs < kTargetColdMaxMs);
        const double speedup = thousand->coldMs / thousand->warmMs;
        addRow("b", "cold / warm at 1,000 certificates", format("%.1f", speedup), ">= " + format("%.0f", kTargetWarmSpeedup),
               speedup >= kTargetWarmSpeedup);
    } else if (std::find(sizes.begin(), sizes.end(), size_t(1000)) != sizes.end()) {
        addRow("b", "cold search at 1,000 certificates", "not measured", "< " + format("%.0f", kTargetColdMaxMs), 2);
    }
    if (hundred && thousand) {
        const double growth = thousand->coldMs / hundred->coldMs;
        addRow("b", "cold growth 100 -> 1,000 (linear: 10)", format("%.1f", growth), "<= " + format("%.0f", kTargetColdGrowth),
               growth <= kTargetColdGrowth);
    }
    return ok;
}

// ---------------------------------------------------------------------------
// c. Signatures

CK_RV findOne(CK_FUNCTION_LIST_PTR f, CK_SESSION_HANDLE session, CK_OBJECT_CLASS cls, CK_OBJECT_HANDLE* object)
{
    CK_ATTRIBUTE byClass = {CKA_CLASS, &cls, sizeof cls};
    CK_RV rv = f->C_FindObjectsInit(session, &byClass, 1);
    if (rv != CKR_OK) return rv;
    CK_ULONG n = 0;
    rv = f->C_FindObjects(session, object, 1, &n);
    f->C_FindObjectsFinal(session);
    if (rv == CKR_OK && n != 1) return CKR_FUNCTION_FAILED;
    return rv;
}

CK_RV signOnce(CK_FUNCTION_LIST_PTR f, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE key, const std::string& data, Bytes* signature)
{
    CK_MECHANISM mechanism = {CKM_SHA256_RSA_PKCS, nullptr, 0};
    CK_RV rv = f->C_SignInit(session, &mechanism, key);
    if (rv != CKR_OK) return rv;
    signature->resize(1024);
    CK_ULONG length = CK_ULONG(signature->size());
    rv = f->C_Sign(session, reinterpret_cast<CK_BYTE_PTR>(const_cast<char*>(data.data())), CK_ULONG(data.size()),
                   signature->data(), &length);
    if (rv == CKR_OK) signature->resize(length);
    return rv;
}

bool verify(EVP_PKEY* key, const std::string& data, const Bytes& signature)
{
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    const bool ok = EVP_DigestVerifyInit(ctx, nullptr, EVP_sha256(), nullptr, key) == 1 &&
                    EVP_DigestVerify(ctx, signature.data(), signature.size(),
                                     reinterpret_cast<const unsigned char*>(data.data()), data.size()) == 1;
    EVP_MD_CTX_free(ctx);
    return ok;
}

// popen + read everything + pclose of a command, as the library runs its helper.
double timePopen(const std::string& command, std::string* output = nullptr)
{
    const Clock::time_point start = Clock::now();
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return -1;
    std::string text;
    char buffer[256];
    while (std::fgets(buffer, sizeof buffer, pipe)) text += buffer;
    pclose(pipe);
    const double elapsed = seconds(start, Clock::now());
    if (output) *output = text;
    return elapsed;
}

// What the helper itself does, in-process: read the PEM key, one raw RSA
// private-key operation on a full-length block.
double timeInProcessRsa(const std::string& keyPath)
{
    const Clock::time_point start = Clock::now();
    FILE* file = std::fopen(keyPath.c_str(), "r");
    if (!file) return -1;
    EVP_PKEY* key = PEM_read_PrivateKey(file, nullptr, nullptr, nullptr);
    std::fclose(file);
    if (!key) return -1;
    const size_t size = size_t(EVP_PKEY_get_size(key));
    Bytes block(size, 0x5a), out(size);
    block[0] = 0;
    EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(key, nullptr);
    size_t outLength = out.size();
    const bool ok = ctx && EVP_PKEY_decrypt_init(ctx) == 1 && EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_NO_PADDING) == 1 &&
                    EVP_PKEY_decrypt(ctx, out.data(), &outLength, block.data(), block.size()) == 1;
    EVP_PKEY_CTX_free(ctx);
    EVP_PKEY_free(key);
    return ok ? seconds(start, Clock::now()) : -1;
}

bool partSign(Module& module, Issuer& issuer, EVP_PKEY* key, const std::string& keyPem, int signatures,
              const std::string& scratch)
{
    std::printf("\n== c. C_SignInit(CKM_SHA256_RSA_PKCS) + C_Sign through the reference helper ==\n");
    const std::string helper = fs::path(module.path()).parent_path().string() + "/KorvoPerformRsa";
    std::printf("helper: %s\n", helper.c_str());
    std::fflush(stdout);
    if (access(helper.c_str(), X_OK) != 0) {
        problem("no executable helper at " + helper + " (it is built with the module)");
        addRow("c", "signature through the helper", "not measured", "", 2);
        return false;
    }
    Store store{scratch + "/sign"};
    const Bytes der = issuer.user(999999);
    if (!store.create() || !store.addUser("signer", der, &keyPem) || !store.addCa(store.roots(), issuer.der())) {
        problem("cannot write the signing store");
        return false;
    }
    CK_SESSION_HANDLE session;
    if (!freshToken(module, store.home, &session)) return false;
    CK_FUNCTION_LIST_PTR f = module.functions();
    CK_OBJECT_HANDLE privateKey = CK_INVALID_HANDLE;
    CK_RV rv = findOne(f, session, CKO_PRIVATE_KEY, &privateKey);
    if (rv != CKR_OK) {
        problem("no private-key object found in the signing store (" + rvName(rv) + ")");
        addRow("c", "signature through the helper", "not measured", "", 2);
        return false;
    }

    // Distinct data each time: every signature runs the helper. Every one is
    // checked against the certificate's public key (outside the timing).
    std::vector<double> signTimes;
    Bytes signature;
    for (int i = 0; i <= signatures; ++i) {
        const std::string data = "token_bench signature " + std::to_string(i) + " " + std::to_string(getpid());
        const Clock::time_point start = Clock::now();
        rv = signOnce(f, session, privateKey, data, &signature);
        const double elapsed = seconds(start, Clock::now());
        if (rv != CKR_OK) {
            problem("C_SignInit/C_Sign returned " + rvName(rv));
            addRow("c", "signature through the helper", "not measured", "", 2);
            return false;
        }
        if (!verify(key, data, signature)) {
            problem("signature " + std::to_string(i) + " does not verify against the certificate's public key");
            return false;
        }
        if (i > 0) signTimes.push_back(elapsed);  // the first warms the file cache
    }

    // The same data again: answered from the helper-result cache.
    const std::string same = "token_bench repeated signature";
    rv = signOnce(f, session, privateKey, same, &signature);
    std::vector<double> cachedTimes;
    for (int i = 0; i < signatures && rv == CKR_OK; ++i) {
        Bytes again;
        const Clock::time_point start = Clock::now();
        rv = signOnce(f, session, privateKey, same, &again);
        cachedTimes.push_back(seconds(start, Clock::now()));
        if (rv == CKR_OK && again != signature) {
            problem("a repeated signature differs from the first");
            return false;
        }
    }
    if (rv != CKR_OK) {
        problem("repeated C_Sign returned " + rvName(rv));
        return false;
    }
    f->C_CloseSession(session);

    // The helper run directly with a full-length block, as the library runs
    // it; starting it alone: the same popen line with an argument the helper
    // refuses before it looks for any key; /bin/true the same way; the
    // helper's work in-process.
    std::string userHex, digestHex = sha256Hex(der), inputHex = "00";
    // The user name as UTF-16BE hex: "signer" is plain ASCII.
    for (const char c : std::string("signer")) userHex += "00" + toHex(reinterpret_cast<const unsigned char*>(&c), 1);
    for (char& c : userHex) c = char(std::toupper(static_cast<unsigned char>(c)));
    for (char& c : digestHex) c = char(std::toupper(static_cast<unsigned char>(c)));
    for (int i = 1; i < EVP_PKEY_get_size(key); ++i) inputHex += "5A";
    std::vector<double> helperRun, helperStart, trueStart, rsaInProcess;
    std::string result, refusal;
    for (int i = 0; i < signatures; ++i) {
        helperRun.push_back(timePopen("exec \"" + helper + "\" " + userHex + " " + digestHex + " " + inputHex + " 2>/dev/null", &result));
        helperStart.push_back(timePopen("exec \"" + helper + "\" x 2>/dev/null", &refusal));
        trueStart.push_back(timePopen("exec /bin/true 2>/dev/null"));
        rsaInProcess.push_back(timeInProcessRsa(store.keys() + "/" + sha256Hex(der) + ".pem"));
    }
    if (result.rfind("00", 0) != 0 || result.size() < 2 + 2 * size_t(EVP_PKEY_get_size(key)))
        problem("the helper run directly gave no result: " + result.substr(0, 200));
    if (refusal.rfind("KorvoPerformRsa error", 0) != 0) problem("the helper did not refuse the trivial argument: " + refusal);

    const double signMs = median(signTimes) * 1e3, cachedMs = median(cachedTimes) * 1e3;
    const double runMs = median(helperRun) * 1e3, helperMs = median(helperStart) * 1e3, trueMs = median(trueStart) * 1e3,
                 rsaMs = median(rsaInProcess) * 1e3;
    std::printf("  signature %.2f ms; helper run directly %.2f ms; helper start %.2f ms; sh + exec of /bin/true %.2f ms; "
                "key load + RSA in-process %.2f ms; cached %.4f ms\n",
                signMs, runMs, helperMs, trueMs, rsaMs, cachedMs);
    const auto share = [&](double ms) { return format("%.2f", ms) + " (" + format("%.0f", 100 * ms / signMs) + "%)"; };
    const std::string runs = " (median of " + std::to_string(signTimes.size()) + ")";
    addRow("c", "signature through the helper [ms]" + runs, format("%.2f", signMs));
    addRow("c", "  the helper run directly, same popen line [ms]", share(runMs));
    addRow("c", "    starting it (popen, argument refused) [ms]", share(helperMs));
    addRow("c", "      of that: popen of sh -c 'exec /bin/true' [ms]", share(trueMs));
    addRow("c", "    its key load + raw RSA-2048, in-process [ms]", share(rsaMs));
    addRow("c", "  the library's own part (signature - helper run) [ms]", share(signMs - runMs));
    addRow("c", "repeated identical signature, cached [ms]", format("%.4f", cachedMs));
    const double speedup = signMs / cachedMs;
    addRow("c", "helper signature / cached signature", format("%.0f", speedup), ">= " + format("%.0f", kTargetCacheSpeedup),
           speedup >= kTargetCacheSpeedup);
    return true;
}

// ---------------------------------------------------------------------------

bool positive(const std::string& text, int* value)
{
    char* end = nullptr;
    const long parsed = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end || parsed < 1 || parsed > 100000) return false;
    *value = int(parsed);
    return true;
}

void usage()
{
    std::fprintf(stderr,
                 "usage: token_bench [--repetitions=N] [--warm_searches=N] [--signatures=N] [--sizes=10,100,1000]\n"
                 "                   [--only=nss,search,sign] [--enforce_targets] [--keep_dirs]\n"
                 "                   [--korvo_module=PATH] [--p11kit_module=PATH] [--ca_bundle=PATH]\n");
}

}  // namespace

int main(int argc, char** argv)
{
    std::string korvoPath = KORVO_MODULE_PATH;
    std::string p11kitPath = P11KIT_TRUST_MODULE_PATH;
    std::string spyPath = PKCS11_SPY_MODULE_PATH;
    std::string bundle = "/etc/ssl/certs/ca-certificates.crt";
    int repetitions = 7, warmSearches = 25, signatures = 15;
    std::vector<size_t> sizes = {10, 100, 1000};
    std::set<std::string> parts = {"nss", "search", "sign"};
    bool enforce = false, keep = false;

    for (int i = 1; i < argc; ++i) {
        std::string value;
        bool good = true;
        if (takeFlag(argv[i], "--korvo_module", &value)) korvoPath = value;
        else if (takeFlag(argv[i], "--p11kit_module", &value)) p11kitPath = value;
        else if (takeFlag(argv[i], "--ca_bundle", &value)) bundle = value;
        else if (takeFlag(argv[i], "--repetitions", &value)) good = positive(value, &repetitions);
        else if (takeFlag(argv[i], "--warm_searches", &value)) good = positive(value, &warmSearches);
        else if (takeFlag(argv[i], "--signatures", &value)) good = positive(value, &signatures);
        else if (takeFlag(argv[i], "--enforce_targets", &value)) enforce = true;
        else if (takeFlag(argv[i], "--keep_dirs", &value)) keep = true;
        else if (takeFlag(argv[i], "--sizes", &value)) {
            sizes.clear();
            std::istringstream list(value);
            std::string item;
            while (good && std::getline(list, item, ',')) {
                int n = 0;
                good = positive(item, &n);
                sizes.push_back(size_t(n));
            }
            good = good && !sizes.empty();
        } else if (takeFlag(argv[i], "--only", &value)) {
            parts.clear();
            std::istringstream list(value);
            std::string item;
            while (std::getline(list, item, ',')) {
                good = good && (item == "nss" || item == "search" || item == "sign");
                parts.insert(item);
            }
        } else good = false;
        if (!good) {
            std::fprintf(stderr, "token_bench: bad argument %s\n", argv[i]);
            usage();
            return 1;
        }
    }

    TempDir scratch("token-bench-", keep);
    if (!scratch.ok()) {
        std::fprintf(stderr, "token_bench: cannot create a temporary directory\n");
        return 1;
    }
    // The module is loaded with HOME in the scratch directory; each part
    // points HOME at its own store before it re-initialises the module.
    setenv("HOME", scratch.path().c_str(), 1);
    unsetenv("XDG_CONFIG_HOME");

    std::printf("token_bench: module %s\n", korvoPath.c_str());
    std::printf("load average at start: %s (2 cores: figures are wall-clock)\n", loadAverage().c_str());
    const Clock::time_point begin = Clock::now();

    PKey key(EVP_RSA_gen(2048));
    if (!key) {
        std::fprintf(stderr, "token_bench: RSA key generation failed\n");
        return 1;
    }
    const std::string keyPem = pkcs8Pem(key.get());
    Issuer issuer(key.get());

    bool ok = true;
    if (parts.count("nss"))
        ok = partNss(korvoPath, p11kitPath, spyPath, bundle, keyPem, issuer.user(0), repetitions, keep) && ok;

    if (parts.count("search") || parts.count("sign")) {
        Module module("Korvo", korvoPath);
        if (!module.load(true)) {
            problem("Korvo: " + module.error());
            ok = false;
        } else {
            if (parts.count("search")) ok = partSearch(module, issuer, sizes, repetitions + 1, warmSearches, scratch.path()) && ok;
            if (parts.count("sign")) ok = partSign(module, issuer, key.get(), keyPem, signatures, scratch.path()) && ok;
        }
    }

    std::printf("\n== Summary (wall clock; load average at end %s; %.0f s in all) ==\n", loadAverage().c_str(),
                seconds(begin, Clock::now()));
    std::printf("%-4s %-56s %-26s %-10s %s\n", "", "measurement", "value", "target", "");
    bool allMet = true;
    for (const Row& row : g_rows) {
        const char* verdict = row.met == 1 ? "MET" : row.met == 0 ? "NOT MET" : row.met == 2 ? "NOT MEASURED" : "";
        if (row.met == 0 || row.met == 2) allMet = false;
        if (row.value.empty()) {  // a note under the rows above
            std::printf("%-4s %s\n", row.part.c_str(), row.what.c_str());
            continue;
        }
        std::printf("%-4s %-56s %-26s %-10s %s\n", row.part.c_str(), row.what.c_str(), row.value.c_str(),
                    row.target.empty() ? "-" : row.target.c_str(), verdict);
    }
    for (const std::string& text : g_problems) std::printf("problem: %s\n", text.c_str());
    std::fflush(stdout);
    if (!ok) return 1;
    if (enforce && !allMet) return 2;
    return 0;
}
