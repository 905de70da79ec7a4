// Setting a cvar by name: klSetCvar beside a standard hash map of strings under a mutex.
// Both lower-case the name, find or insert, and store the value; 1000 names in turn, the
// value alternating between two short texts.
#include "keel/klconsole.h"

#include "keel_bench.h"

#include <algorithm>
#include <cctype>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

constexpr size_t kNames = 1000;
const char* const kValues[2] = {"1280", "720p"};

const std::vector<std::string>& Names() {
    static const std::vector<std::string> names = [] {
        std::vector<std::string> made;
        for (size_t i = 0; i < kNames; ++i) made.push_back("Bench_Cvar_" + std::to_string(i));
        return made;
    }();
    return names;
}

void CvarSet_keel(benchmark::State& state) {
    static const bool started = [] {
        klObjectLifetimeManager::Initialize();
        return true;
    }();
    benchmark::DoNotOptimize(started);
    const std::vector<std::string>& names = Names();
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(klSetCvar(names[i % kNames].c_str(), kValues[(i / kNames) & 1]));
        ++i;
    }
}

struct StdConsole {
    std::mutex lock;
    std::unordered_map<std::string, std::string> vars;

    void Set(const char* name, const char* value) {
        std::string key(name);
        std::transform(key.begin(), key.end(), key.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        std::lock_guard<std::mutex> hold(lock);
        vars[key] = value;
    }
};

void CvarSet_std(benchmark::State& state) {
    static StdConsole console;
    const std::vector<std::string>& names = Names();
    size_t i = 0;
    for (auto _ : state) {
        console.Set(names[i % kNames].c_str(), kValues[(i / kNames) & 1]);
        ++i;
    }
    benchmark::DoNotOptimize(console.vars.size());
}

} // namespace

KEEL_BENCHMARK(CvarSet_keel)->Name("CvarSet/keel");
KEEL_BENCHMARK(CvarSet_std)->Name("CvarSet/std");
