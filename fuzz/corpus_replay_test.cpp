// Replays the fuzz targets' seed corpus (the test certificates, and for the
// text decoders and the helper parser each also as base64 and as a helper's
// answer), the regression inputs and deterministic mutations of the seeds
// through the same bodies the libFuzzer programs run, so the normal test suite covers them without a
// fuzz build. An exception a body lets out fails the test with the input's
// name; a broken invariant aborts the program.

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <typeinfo>
#include <vector>

#include <gtest/gtest.h>

#include "deps/cpp_modules/ByteArray.h"
#include "deps/cpp_modules/base64.h"
#include "fuzz_targets.h"

namespace {

namespace fs = std::filesystem;

const char* const kCallSequences = "fuzz_call_sequence";

struct Input {
    std::string name;
    ByteArray bytes;
};

ByteArray readFile(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    return ByteArray(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
}

// Regular files of a directory in name order; only those ending in `suffix`
// when it is given. A missing directory gives none.
std::vector<Input> readDirectory(const fs::path& dir, const std::string& suffix)
{
    std::vector<Input> inputs;
    if (!fs::is_directory(dir))
        return inputs;
    for (const fs::directory_entry& entry : fs::directory_iterator(dir)) {
        const std::string name = entry.path().filename().string();
        if (!entry.is_regular_file() || name.size() < suffix.size() ||
            name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0)
            continue;
        inputs.push_back({name, readFile(entry.path())});
    }
    std::sort(inputs.begin(), inputs.end(), [](const Input& a, const Input& b) { return a.name < b.name; });
    return inputs;
}

std::vector<Input> seeds()
{
    return readDirectory(KORVO_TEST_CERTS_DIR, ".der");
}

// xorshift32: the same mutations on every run.
struct Random {
    uint32_t state;
    uint32_t next()
    {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        return state;
    }
    size_t below(size_t n) { return n == 0 ? 0 : next() % n; }
};

// Bytes that DER gives a meaning to: tags, length forms, the two-byte tag mark.
const uint8_t kTelling[] = {0x00, 0x01, 0x02, 0x03, 0x04, 0x06, 0x0C, 0x17, 0x18, 0x1C, 0x1E, 0x1F,
                            0x30, 0x31, 0x7F, 0x80, 0x81, 0x82, 0x83, 0x84, 0xA0, 0xA3, 0xFF};

ByteArray mutate(const ByteArray& seed, Random& random)
{
    std::vector<uint8_t> bytes(seed.begin(), seed.end());
    switch (random.below(6)) {
    case 0:  // one bit flipped
        if (!bytes.empty())
            bytes[random.below(bytes.size())] ^= static_cast<uint8_t>(1u << random.below(8));
        break;
    case 1:  // a few bits flipped
        for (int i = 0; i < 4 && !bytes.empty(); ++i)
            bytes[random.below(bytes.size())] ^= static_cast<uint8_t>(1u << random.below(8));
        break;
    case 2:  // one byte replaced by a telling value
        if (!bytes.empty())
            bytes[random.below(bytes.size())] = kTelling[random.below(sizeof kTelling)];
        break;
    case 3:  // truncated
        bytes.resize(random.below(bytes.size()));
        break;
    case 4: {  // a run of bytes removed
        const size_t at = random.below(bytes.size());
        const size_t count = std::min(bytes.size() - at, 1 + random.below(16));
        bytes.erase(bytes.begin() + at, bytes.begin() + at + count);
        break;
    }
    default: {  // a run of bytes doubled
        const size_t at = random.below(bytes.size());
        const size_t count = std::min(bytes.size() - at, 1 + random.below(16));
        const std::vector<uint8_t> run(bytes.begin() + at, bytes.begin() + at + count);
        bytes.insert(bytes.begin() + at, run.begin(), run.end());
        break;
    }
    }
    return ByteArray(bytes.data(), bytes.size());
}

// Runs every body; an exception they let out is reported with the input's name.
void replay(const Input& input)
{
    for (auto body : {korvo_fuzz::Asn1ReaderInput, korvo_fuzz::OcesCertificateInput, korvo_fuzz::HelperOutputInput,
                      korvo_fuzz::TextDecodersInput, korvo_fuzz::PrivateKeyInfoInput, korvo_fuzz::Pkcs1DecodersInput,
                      korvo_fuzz::SettingsInput}) {
        try {
            body(input.bytes.data(), input.bytes.size());
        } catch (const std::exception& e) {
            ADD_FAILURE() << input.name << ": undocumented " << typeid(e).name() << ": " << e.what();
        } catch (...) {
            ADD_FAILURE() << input.name << ": an exception of no standard type";
        }
    }
}

// Programs of calls on the whole module: each keeps the invariants that
// CallSequenceInput checks (a broken one aborts).
TEST(FuzzCorpusReplay, CallSequencesKeepTheModulesInvariants)
{
    const std::vector<Input> programs = readDirectory(fs::path(KORVO_FUZZ_CORPUS_DIR) / kCallSequences, "");
    ASSERT_GE(programs.size(), 20u);
    for (const Input& program : programs) {
        SCOPED_TRACE(program.name);
        korvo_fuzz::CallSequenceInput(program.bytes.data(), program.bytes.size());
    }
}

TEST(FuzzCorpusReplay, DerReaderWalksEverySeedCertificateToItsEnd)
{
    const std::vector<Input> corpus = seeds();
    ASSERT_GE(corpus.size(), 10u) << "no seed certificates in " << KORVO_TEST_CERTS_DIR;
    for (const Input& seed : corpus)
        EXPECT_TRUE(korvo_fuzz::Asn1ReaderInput(seed.bytes.data(), seed.bytes.size())) << seed.name;
}

TEST(FuzzCorpusReplay, OcesParseRefusesOnlyTheDsaKeyAndTheSecondEmailAddress)
{
    const std::vector<std::string> refused = {"user-dsa.der", "user-san-two-emails.der"};
    for (const Input& seed : seeds()) {
        const bool mustRefuse = std::find(refused.begin(), refused.end(), seed.name) != refused.end();
        EXPECT_EQ(korvo_fuzz::OcesCertificateInput(seed.bytes.data(), seed.bytes.size()), !mustRefuse) << seed.name;
    }
}

TEST(FuzzCorpusReplay, RegressionsAndMutatedSeedsRaiseOnlyDocumentedExceptions)
{
    std::vector<Input> inputs = readDirectory(KORVO_FUZZ_REGRESSIONS_DIR, "");
    // The minimised corpora the fuzzers left, one folder each; the call
    // sequences have a test of their own.
    if (fs::is_directory(KORVO_FUZZ_CORPUS_DIR))
        for (const fs::directory_entry& folder : fs::directory_iterator(KORVO_FUZZ_CORPUS_DIR))
            if (folder.path().filename() != kCallSequences)
                for (Input& input : readDirectory(folder.path(), ""))
                    inputs.push_back({folder.path().filename().string() + "/" + input.name, std::move(input.bytes)});
    inputs.push_back({"(empty input)", ByteArray()});
    Random random{0x4B6F7276u};
    const int perSeed = 30;
    std::vector<Input> textSeeds;
    for (const Input& seed : seeds()) {
        // The text decoders and the helper parser get text: each seed also as
        // base64 and as a helper's answer.
        const std::string base64Text = base64::encode(seed.bytes);
        const std::string answer = "00" + seed.bytes.toHex(HexCase::Upper) + "\n";
        textSeeds.push_back({seed.name + " base64", ByteArray::fromString(base64Text)});
        textSeeds.push_back({seed.name + " answer", ByteArray::fromString(answer)});
    }
    std::vector<Input> allSeeds = seeds();
    allSeeds.insert(allSeeds.end(), textSeeds.begin(), textSeeds.end());
    for (const Input& seed : allSeeds)
        for (int i = 0; i < perSeed; ++i)
            inputs.push_back({seed.name + " mutation " + std::to_string(i), mutate(seed.bytes, random)});
    ASSERT_GE(inputs.size(), 300u);
    for (const Input& input : inputs)
        replay(input);
}

}  // namespace
