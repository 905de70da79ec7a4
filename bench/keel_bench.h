// Registration for keel's benchmark programs: KEEL_BENCHMARK(fn) is BENCHMARK(fn), and
// also lets bench_main fix its iteration count (--iterations=N). Benchmarks that set
// their own time or count use plain BENCHMARK.
#pragma once

#include <benchmark/benchmark.h>

namespace keel::bench {
// Remembers a registered benchmark so that main can adjust it after parsing flags.
void Track(benchmark::internal::Benchmark* registered);
} // namespace keel::bench

#define KEEL_BENCHMARK(...) BENCHMARK(__VA_ARGS__)->Apply(keel::bench::Track)
