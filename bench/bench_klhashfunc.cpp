// keel's hashes beside their peers: MD5 beside OpenSSL's (when built with it), FNV-1a
// beside the textbook byte loop. Names "X/keel" and "X/<peer>" are the pairs bench_main
// compares.
#include "keel/klhashfunc.h"

#include "keel_bench.h"

#include <cstdint>
#include <vector>

#if KEEL_HAVE_OPENSSL
#include <openssl/evp.h>
#endif

namespace {

const std::vector<uint8_t>& Input(size_t bytes) {
    static std::vector<uint8_t> data;
    if (data.size() != bytes) {
        data.resize(bytes);
        uint32_t x = 12345;
        for (uint8_t& b : data) b = uint8_t((x = x * 1103515245u + 12345u) >> 24);
    }
    return data;
}

constexpr size_t kMd5Bytes = size_t(64) << 20;
constexpr size_t kFnvBytes = size_t(1) << 20;

void Md5Keel(benchmark::State& state) {
    const std::vector<uint8_t>& data = Input(kMd5Bytes);
    for (auto _ : state) {
        klHashMD5 md5;
        md5.Update(data.data(), uint32_t(data.size()));
        benchmark::DoNotOptimize(md5.Finish());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(data.size()));
}

#if KEEL_HAVE_OPENSSL
void Md5OpenSsl(benchmark::State& state) {
    const std::vector<uint8_t>& data = Input(kMd5Bytes);
    unsigned char digest[16];
    for (auto _ : state) {
        EVP_Digest(data.data(), data.size(), digest, nullptr, EVP_md5(), nullptr);
        benchmark::DoNotOptimize(digest);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(data.size()));
}
KEEL_BENCHMARK(Md5OpenSsl)->Name("MD5/openssl")->Unit(benchmark::kMillisecond);
#endif
KEEL_BENCHMARK(Md5Keel)->Name("MD5/keel")->Unit(benchmark::kMillisecond);

// The reference: the published byte loop, written out plainly.
template <class Word, Word Basis, Word Prime>
Word PlainFnv(const uint8_t* p, size_t n) {
    Word h = Basis;
    for (size_t i = 0; i < n; ++i) h = (h ^ p[i]) * Prime;
    return h;
}

template <class Hash>
void Fnv(benchmark::State& state, Hash hash) {
    const std::vector<uint8_t>& data = Input(kFnvBytes);
    for (auto _ : state) benchmark::DoNotOptimize(hash(data.data(), data.size()));
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(data.size()));
}

void Fnv32Keel(benchmark::State& s) { Fnv(s, [](const uint8_t* p, size_t n) { return klHashBytes32(p, uint32_t(n)); }); }
void Fnv32Plain(benchmark::State& s) { Fnv(s, PlainFnv<uint32_t, 0x811c9dc5u, 16777619u>); }
void Fnv64Keel(benchmark::State& s) { Fnv(s, [](const uint8_t* p, size_t n) { return klHashBytes64(p, uint32_t(n)); }); }
void Fnv64Plain(benchmark::State& s) { Fnv(s, PlainFnv<uint64_t, 0xcbf29ce484222325ull, 0x100000001b3ull>); }
KEEL_BENCHMARK(Fnv32Keel)->Name("Fnv32/keel");
KEEL_BENCHMARK(Fnv32Plain)->Name("Fnv32/plain");
KEEL_BENCHMARK(Fnv64Keel)->Name("Fnv64/keel");
KEEL_BENCHMARK(Fnv64Plain)->Name("Fnv64/plain");

} // namespace
