// Throughput of the hash engine for every identifier, and its overhead over
// calling libcrypto directly (the peer) on short and long messages.
//
//     cmake -B build -DKORVO_BENCH=ON && cmake --build build --target korvo_bench
//     build/bench/korvo_bench

#include <vector>

#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include "crypto/csprgbg.h"
#include "crypto/hash.h"

namespace {

void BM_HashEngine(benchmark::State& state, int hashId)
{
    const std::vector<unsigned char> data(size_t(state.range(0)), 0x5A);
    unsigned char digest[HASH_MAX_DIGEST_LENGTH];
    for (auto _ : state) {
        hash_buffer(hashId, data.data(), data.size(), digest);
        benchmark::DoNotOptimize(digest);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * state.range(0));
}

// The peer: libcrypto's SHA-256 in the default library context.
void BM_LibcryptoSha256(benchmark::State& state)
{
    const std::vector<unsigned char> data(size_t(state.range(0)), 0x5A);
    unsigned char digest[EVP_MAX_MD_SIZE];
    for (auto _ : state) {
        EVP_Digest(data.data(), data.size(), digest, nullptr, EVP_sha256(), nullptr);
        benchmark::DoNotOptimize(digest);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * state.range(0));
}

void BM_Csprgbg(benchmark::State& state)
{
    std::vector<unsigned char> seed(48, 0x11), out(size_t(state.range(0)));
    csprgbg_state* rng = nullptr;
    csprgbg_init(&rng, seed.data(), seed.size(), nullptr, 0);
    for (auto _ : state) {
        csprgbg_bytes(rng, out.data(), out.size());
        benchmark::DoNotOptimize(out.data());
    }
    csprgbg_exit(&rng);
    state.SetBytesProcessed(int64_t(state.iterations()) * state.range(0));
}

}  // namespace

BENCHMARK_CAPTURE(BM_HashEngine, MD2, int(HASH_MD2))->Arg(64)->Arg(65536);
BENCHMARK_CAPTURE(BM_HashEngine, MD5, int(HASH_MD5))->Arg(64)->Arg(65536);
BENCHMARK_CAPTURE(BM_HashEngine, SHA1, int(HASH_SHA1))->Arg(64)->Arg(65536);
BENCHMARK_CAPTURE(BM_HashEngine, RIPEMD160, int(HASH_RIPEMD160))->Arg(64)->Arg(65536);
BENCHMARK_CAPTURE(BM_HashEngine, SHA256, int(HASH_SHA256))->Arg(64)->Arg(65536);
BENCHMARK_CAPTURE(BM_HashEngine, SHA512, int(HASH_SHA512))->Arg(64)->Arg(65536);
BENCHMARK(BM_LibcryptoSha256)->Arg(64)->Arg(65536);
BENCHMARK(BM_Csprgbg)->Arg(32)->Arg(4096);
