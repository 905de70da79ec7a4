// Lines a second into a file: keel's file sink, keel's console sink with stdout sent to a
// file, and spdlog's synchronous basic file logger writing the same lines. Both keel sinks
// flush every line, so spdlog is set to flush every line too. Also the cost of a message
// below the logger's minimum.
#include "keel/klfilesystem.h"
#include "keel/kllog.h"

#include "keel_bench.h"

#include <cstdio>
#include <filesystem>
#include <string>

#ifdef _WIN32
#include <io.h>
#else
#include <unistd.h>
#endif

#ifdef KEEL_BENCH_SPDLOG
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#endif

namespace {

std::string BenchDir() { return (std::filesystem::temp_directory_path() / "kllog-bench").string(); }

void LogFile(benchmark::State& state) {
    klFileSystem::SetLogDir(BenchDir().c_str());
    klLogFunc sink = klFileLogSink;
    klLogger log("Bench", &sink);
    int i = 0;
    for (auto _ : state) log.Info("frame %d took %.3f ms in %s", ++i, 16.667, "render");
    state.SetItemsProcessed(state.iterations());
}

// The floor under any logger that flushes every line: one finished line written and
// flushed, with no formatting at all.
void LogFileFloor(benchmark::State& state) {
    FILE* file = std::fopen((BenchDir() + "/floor.log").c_str(), "w");
    if (!file) return state.SkipWithError("cannot open the file");
    const char line[] = "INFO  2026-11-23 05:12:18  BENCH  (01626) frame 1 took 16.667 ms in render\n";
    for (auto _ : state) {
        std::fwrite(line, 1, sizeof(line) - 1, file);
        std::fflush(file);
    }
    std::fclose(file);
    state.SetItemsProcessed(state.iterations());
}

void LogConsoleToFile(benchmark::State& state) {
    // stdout goes to a file for the run and comes back for the report after it.
    std::fflush(stdout);
    int saved = dup(fileno(stdout));
    FILE* file = std::fopen((BenchDir() + "/stdout.log").c_str(), "w");
    if (file) dup2(fileno(file), fileno(stdout));
    klLogger log("Bench");
    int i = 0;
    for (auto _ : state) log.Info("frame %d took %.3f ms in %s", ++i, 16.667, "render");
    state.SetItemsProcessed(state.iterations());
    std::fflush(stdout);
    dup2(saved, fileno(stdout));
    close(saved);
    if (file) std::fclose(file);
}

void LogFiltered(benchmark::State& state) {
    klLogger log("Bench", nullptr, klLogError);
    int i = 0;
    for (auto _ : state) {
        log.Info("frame %d took %.3f ms in %s", ++i, 16.667, "render");
        benchmark::ClobberMemory();
    }
}

#ifdef KEEL_BENCH_SPDLOG
void LogFileSpdlog(benchmark::State& state) {
    auto log = spdlog::basic_logger_mt("bench", BenchDir() + "/spdlog.log", true);
    log->set_pattern("%L %Y-%m-%d %H:%M:%S %n (%t) %v");
    log->flush_on(spdlog::level::info);
    int i = 0;
    for (auto _ : state) log->info("frame {} took {:.3f} ms in {}", ++i, 16.667, "render");
    state.SetItemsProcessed(state.iterations());
    spdlog::drop("bench");
}
KEEL_BENCHMARK(LogFileSpdlog)->Name("LogFile/spdlog");
#endif

} // namespace

KEEL_BENCHMARK(LogFile)->Name("LogFile/keel");
KEEL_BENCHMARK(LogFileFloor)->Name("LogFile/floor");
KEEL_BENCHMARK(LogConsoleToFile)->Name("LogConsoleToFile/keel");
KEEL_BENCHMARK(LogFiltered)->Name("LogFiltered/keel");
