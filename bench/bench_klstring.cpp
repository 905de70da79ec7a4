// klString beside std::string: sharing copies, short strings, and building a long text.
// Names "X/keel" and "X/std" are the pairs that bench_main compares.
#include "keel/klstring.h"

#include <benchmark/benchmark.h>

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
void ShortKeel(benchmark::State& state) {
    for (auto _ : state) {
        klString text = kShort;
        benchmark::DoNotOptimize(text);
    }
}

void ShortStd(benchmark::State& state) {
    for (auto _ : state) {
        std::string text = kShort;
        benchmark::DoNotOptimize(text);
    }
}

// (c) One text from 1000 parts: appended one by one (each append reallocates exactly),
// joined in one allocation, and std::string's geometric growth for reference.
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

BENCHMARK(CopyKeel)->Name("StringCopy1000/keel");
BENCHMARK(CopyStd)->Name("StringCopy1000/std");
BENCHMARK(ShortKeel)->Name("StringShort10/keel");
BENCHMARK(ShortStd)->Name("StringShort10/std");
BENCHMARK(BuildAppend)->Name("Build1000/append");
BENCHMARK(BuildJoin)->Name("Build1000/join");
BENCHMARK(BuildStd)->Name("Build1000/std");
