// klString beside std::string: sharing copies, short strings, and building a long text.
// Names "X/keel" and "X/std" are the pairs that bench_main compares.
#include "keel/klstring.h"

#include "keel_bench.h"

#include <string>
#include <vector>

namespace {

const char kShort[] = "0123456789";

std::string LongText() {
    return std::string(1000, 'k');
}

std::vector<klString> Parts() {
    return std::vector<klString>(1000, klString("part-"));
}

// (a) A copy of a 1000-character text, then its destruction.
void CopyKeel(benchmark::State& state) {
    const klString text = LongText().c_str();
    for (auto _ : state) {
        klString copy = text;
        benchmark::DoNotOptimize(copy);
    }
}

void CopyStd(benchmark::State& state) {
    const std::string text = LongText();
    for (auto _ : state) {
        std::string copy = text;
        benchmark::DoNotOptimize(copy);
    }
}

// (b) A 10-character string made from a C string, then destroyed.
// The source is hidden from the compiler on every iteration and the made text is forced
// to memory, so neither side can fold the length or skip the copy.
void ShortKeel(benchmark::State& state) {
    const char* source = kShort;
    for (auto _ : state) {
        benchmark::DoNotOptimize(source);
        klString text = source;
        benchmark::DoNotOptimize(text);
        benchmark::ClobberMemory();
    }
}

void ShortStd(benchmark::State& state) {
    const char* source = kShort;
    for (auto _ : state) {
        benchmark::DoNotOptimize(source);
        std::string text = source;
        benchmark::DoNotOptimize(text);
        benchmark::ClobberMemory();
    }
}

// (c) One text from 1000 parts: joined in one allocation, and appended one by one (each
// append reallocates exactly), both beside std::string's appends with geometric growth.
void BuildAppend(benchmark::State& state) {
    const std::vector<klString> parts = Parts();
    for (auto _ : state) {
        klString text;
        for (const klString& part : parts)
            text.Append(part);
        benchmark::DoNotOptimize(text);
    }
}

void BuildJoin(benchmark::State& state) {
    const std::vector<klString> parts = Parts();
    for (auto _ : state) {
        klString text = Join(nullptr, parts);
        benchmark::DoNotOptimize(text);
    }
}

void BuildStd(benchmark::State& state) {
    const std::vector<std::string> parts(1000, "part-");
    for (auto _ : state) {
        std::string text;
        for (const std::string& part : parts)
            text += part;
        benchmark::DoNotOptimize(text);
    }
}

} // namespace

KEEL_BENCHMARK(CopyKeel)->Name("StringCopy1000/keel");
KEEL_BENCHMARK(CopyStd)->Name("StringCopy1000/std");
KEEL_BENCHMARK(ShortKeel)->Name("StringShort10/keel");
KEEL_BENCHMARK(ShortStd)->Name("StringShort10/std");
KEEL_BENCHMARK(BuildJoin)->Name("Build1000/keel");
KEEL_BENCHMARK(BuildStd)->Name("Build1000/std");
KEEL_BENCHMARK(BuildAppend)->Name("Build1000Append/keel");
KEEL_BENCHMARK(BuildStd)->Name("Build1000Append/std");
