// Runs the benchmarks, then sets each "NAME/keel" beside its "NAME/<peer>" runs and
// prints the ratio of their real times per iteration (above 1 means keel is faster).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace {

class PairingReporter : public benchmark::ConsoleReporter {
public:
    PairingReporter() : ConsoleReporter(OO_Tabular) {} // plain text: the output is kept in logs
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.run_type != Run::RT_Iteration || run.iterations == 0) continue;
            // In nanoseconds, whatever unit the benchmark reports in.
            mNanos[run.benchmark_name()] = run.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(run.time_unit) * 1e9;
        }
    }

    void PrintRatios() const {
        std::printf("\n%-44s %12s %12s %8s\n", "keel vs peer", "keel", "peer", "ratio");
        for (const auto& [name, keelTime] : mNanos) {
            std::string::size_type slash = name.find("/keel");
            if (slash == std::string::npos) continue;
            std::string stem = name.substr(0, slash);
            std::string rest = name.substr(slash + 5); // thread and argument suffixes
            for (const auto& [peerName, peerTime] : mNanos) {
                if (peerName == name || peerName.compare(0, stem.size() + 1, stem + "/") != 0) continue;
                if (peerName.size() < rest.size() ||
                    peerName.compare(peerName.size() - rest.size(), rest.size(), rest) != 0)
                    continue;
                std::string peer = peerName.substr(stem.size() + 1, peerName.size() - stem.size() - 1 - rest.size());
                if (peer.find('/') != std::string::npos) continue;
                std::printf("%-44s %10.1fns %10.1fns %7.2fx\n", (stem + rest + " vs " + peer).c_str(),
                            keelTime, peerTime, peerTime / keelTime);
            }
        }
    }

private:
    std::map<std::string, double> mNanos;
};

} // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    PairingReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.PrintRatios();
    benchmark::Shutdown();
    return 0;
}
