// The frame loop at 60 frames a second with 5 ms of work in every frame, for 5 seconds:
// the mean frame period and its spread against the 16.67 ms target.
#include "keel/klevent.h"

#include "keel_bench.h"

#include <chrono>
#include <cmath>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
std::vector<double> gPeriods;
Clock::time_point gLast, gEnd;

void FiveMsOfWork(double) {
    const Clock::time_point until = Clock::now() + std::chrono::milliseconds(5);
    while (Clock::now() < until) {
    }
}

void Measure(double) {
    const Clock::time_point now = Clock::now();
    if (gLast != Clock::time_point()) gPeriods.push_back(std::chrono::duration<double, std::milli>(now - gLast).count());
    gLast = now;
    if (now >= gEnd) klStopEventLoop();
}

void FrameLoop(benchmark::State& state) {
    for (auto _ : state) {
        gPeriods.clear();
        gLast = Clock::time_point();
        gEnd = Clock::now() + std::chrono::seconds(5);
        klStopEventLoop(false);
        klAddTickFunc(FiveMsOfWork);
        klAddTickFunc(Measure);
        klRunEventLoop(60, nullptr);
    }
    // The first 128 frames fill the limiter's rings; the figures are for the rest.
    const size_t skip = gPeriods.size() > 256 ? 128 : 0;
    double sum = 0, squares = 0;
    for (size_t i = skip; i < gPeriods.size(); ++i) sum += gPeriods[i];
    const double count = double(gPeriods.size() - skip), mean = sum / count;
    for (size_t i = skip; i < gPeriods.size(); ++i) squares += (gPeriods[i] - mean) * (gPeriods[i] - mean);
    state.counters["frames"] = count;
    state.counters["mean_ms"] = mean;
    state.counters["stddev_ms"] = std::sqrt(squares / count);
    state.counters["target_ms"] = 1000.0 / 60.0;
}

} // namespace

BENCHMARK(FrameLoop)->Name("FrameLoop60fps5msWork")->Iterations(1)->Unit(benchmark::kSecond);
