// Runs the benchmarks, then sets each "NAME/keel" beside its "NAME/<peer>" runs and
// prints the ratio of their real times per iteration (above 1 means keel is faster).
//
// Flags of its own, besides Google Benchmark's:
//   --repetitions=N  runs every benchmark N times; the table compares medians
//   --iterations=N   runs every benchmark for exactly N iterations (for instruction counts)
#include "keel_bench.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace {

std::vector<benchmark::internal::Benchmark*>& Tracked() {
    static std::vector<benchmark::internal::Benchmark*> tracked;
    return tracked;
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t middle = values.size() / 2;
    return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

// (slowest - fastest) / median, in percent.
double Spread(const std::vector<double>& values) {
    const auto [fastest, slowest] = std::minmax_element(values.begin(), values.end());
    return (*slowest - *fastest) / Median(values) * 100;
}

class PairingReporter : public benchmark::ConsoleReporter {
public:
    PairingReporter() : ConsoleReporter(OO_Tabular) {} // plain text: the output is kept in logs
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.run_type != Run::RT_Iteration || run.iterations == 0) continue;
            // In nanoseconds, whatever unit the benchmark reports in; one entry per repetition.
            mNanos[run.benchmark_name()].push_back(run.GetAdjustedRealTime() /
                                                   benchmark::GetTimeUnitMultiplier(run.time_unit) * 1e9);
        }
    }

    // One line per keel/peer pair: the median times and the ratio of the medians, and with
    // repetitions the spread of keel's runs. Benchmarks without a peer come first, alone.
    void PrintRatios() const {
        if (mNanos.empty()) return; // nothing ran (a listing, or a filter that matched none)
        std::printf("\n%-44s %12s %12s %8s %7s\n", "keel vs peer", "keel", "peer", "ratio", "spread");
        for (const auto& [name, times] : mNanos) // benchmarks with no peer: their own time
            if (name.find('/') == std::string::npos)
                std::printf("%-44s %10.1fns %12s %8s %6.0f%%\n", name.c_str(), Median(times), "", "", Spread(times));
        for (const auto& [name, keelTimes] : mNanos) {
            std::string::size_type slash = name.find("/keel");
            if (slash == std::string::npos) continue;
            std::string stem = name.substr(0, slash);
            std::string rest = name.substr(slash + 5); // thread and argument suffixes
            const double keelTime = Median(keelTimes);
            for (const auto& [peerName, peerTimes] : mNanos) {
                if (peerName == name || peerName.compare(0, stem.size() + 1, stem + "/") != 0) continue;
                if (peerName.size() < rest.size() ||
                    peerName.compare(peerName.size() - rest.size(), rest.size(), rest) != 0)
                    continue;
                std::string peer = peerName.substr(stem.size() + 1, peerName.size() - stem.size() - 1 - rest.size());
                if (peer.find('/') != std::string::npos) continue;
                const double peerTime = Median(peerTimes);
                std::printf("%-44s %10.1fns %10.1fns %7.2fx %6.0f%%\n", (stem + rest + " vs " + peer).c_str(),
                            keelTime, peerTime, peerTime / keelTime, Spread(keelTimes));
            }
        }
    }

private:
    std::map<std::string, std::vector<double>> mNanos;
};

// The value of "--flag=N" in arg, or 0 when arg is not that flag.
long FlagValue(const char* arg, const char* flag) {
    const size_t length = std::strlen(flag);
    if (std::strncmp(arg, flag, length) != 0 || arg[length] != '=') return 0;
    return std::strtol(arg + length + 1, nullptr, 10);
}

} // namespace

void keel::bench::Track(benchmark::internal::Benchmark* registered) {
    Tracked().push_back(registered);
}

int main(int argc, char** argv) {
    // Our flags become Google Benchmark's (repetitions) or settings on every benchmark
    // (iterations); the rest pass through.
    std::vector<char*> args;
    std::string repetitions;
    long iterations = 0;
    for (int i = 0; i < argc; ++i) {
        if (long value = FlagValue(argv[i], "--repetitions"); value > 0) {
            repetitions = "--benchmark_repetitions=" + std::to_string(value);
        } else if (long count = FlagValue(argv[i], "--iterations"); count > 0) {
            iterations = count;
        } else {
            args.push_back(argv[i]);
        }
    }
    if (!repetitions.empty()) args.push_back(repetitions.data());
    for (benchmark::internal::Benchmark* registered : Tracked())
        if (iterations > 0) registered->Iterations(iterations);
    int count = int(args.size());
    args.push_back(nullptr);
    benchmark::Initialize(&count, args.data());
    PairingReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.PrintRatios();
    benchmark::Shutdown();
    return 0;
}
