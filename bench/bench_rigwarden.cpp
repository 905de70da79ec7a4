// The hardware check: whole queries, database reading beside a bare line scan, and the
// rigwarden-check process beside lspci.
#include "../tests/specs/fake_machine.h"
#include "oRigwarden.h"

#include "keel/kllifetime.h"

#include "keel_bench.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cstring>
#include <string>

extern char** environ;

namespace {

// 5000 records over four files, the machine's adapters near the end of the last one.
std::string DatabaseText(int file) {
    std::string text = "; vendor, device, quality, width, benchmark, mobile\n";
    char line[96];
    for (int i = 0; i < 1250; ++i) {
        std::snprintf(line, sizeof(line), "%04X, %04X, %d, %d, %d, %c ; card %d\n", 0x1000 + file, 0x100 + i, i % 5,
                      1280 + i % 4 * 320, i * 7, i % 3 ? 'D' : 'M', i);
        text += line;
    }
    if (file == 3) text += "8086, A780, 1, 1600, 300, D ; UHD 770\n10DE, 2684, 4, 3840, 9800, D ; RTX 4090\n";
    return text;
}

const FakeMachine& Machine() {
    static FakeMachine* machine = [] {
        auto* m = new FakeMachine("bench");
        m->AddPci("0000:00:02.0", 0x030000, 0x8086, 0xa780, true);
        m->AddPci("0000:01:00.0", 0x030000, 0x10de, 0x2684);
        m->Write("proc/cpuinfo", "model name\t: CPU @ 3.60GHz\n");
        m->Write("sys/devices/system/cpu/online", "0-15\n");
        m->Write("proc/meminfo", "MemTotal:       33554432 kB\nMemFree:  1 kB\n");
        for (int file = 0; file < 4; ++file) m->Write("db/part" + std::to_string(file) + ".cfg", DatabaseText(file));
        FILE* real = std::fopen("/usr/share/misc/pci.ids", "rb");
        if (real) {
            std::string ids;
            char chunk[65536];
            while (size_t got = std::fread(chunk, 1, sizeof(chunk), real)) ids.append(chunk, got);
            std::fclose(real);
            m->Write("usr/share/misc/pci.ids", ids);
        }
        m->Use();
        return m;
    }();
    return *machine;
}

void FullQuery(benchmark::State& state) {
    klString db = (Machine().Root() + "/db").c_str();
    for (auto _ : state) {
        vsQueryResult result = oRigwarden::RunQuery(db);
        benchmark::DoNotOptimize(result.bestIndex);
    }
    state.SetLabel("5000 records, 2 adapters, names from the system's pci.ids");
}

std::string AllRecords() {
    std::string all;
    for (int file = 0; file < 4; ++file) all += DatabaseText(file);
    return all;
}

void DatabaseScan_keel(benchmark::State& state) {
    const std::string text = AllRecords();
    for (auto _ : state) {
        std::vector<vsGpuInfo> adapters;
        adapters.emplace_back("UHD 770", 0x8086, 0xA780);
        oRigwarden::ApplyDatabaseText(reinterpret_cast<const uint8_t*>(text.data()), uint32_t(text.size()), adapters);
        benchmark::DoNotOptimize(adapters[0].benchmark);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(text.size()));
}

// The floor: finding every line and nothing else.
void DatabaseScan_memchr(benchmark::State& state) {
    const std::string text = AllRecords();
    for (auto _ : state) {
        size_t lines = 0;
        for (const char* at = text.data(); (at = static_cast<const char*>(std::memchr(at, '\n', text.data() + text.size() - at)));
             ++at)
            ++lines;
        benchmark::DoNotOptimize(lines);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(text.size()));
}

void RunProcess(benchmark::State& state, std::vector<std::string> args) {
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t quiet;
    posix_spawn_file_actions_init(&quiet);
    posix_spawn_file_actions_addopen(&quiet, 1, "/dev/null", O_WRONLY, 0);
    for (auto _ : state) {
        pid_t pid;
        if (posix_spawnp(&pid, argv[0], &quiet, nullptr, argv.data(), environ) != 0) {
            state.SkipWithError("cannot start the program");
            break;
        }
        int status;
        waitpid(pid, &status, 0);
    }
    posix_spawn_file_actions_destroy(&quiet);
}

// Both list this machine's display adapters by name; the check also reads the database.
void WholeProcess_keel(benchmark::State& state) {
    RunProcess(state, {RIGWARDEN_CHECK_PATH, "--root", "/", "--db", RIGWARDEN_SOURCE_GPUDB});
}
void WholeProcess_lspci(benchmark::State& state) { RunProcess(state, {"lspci", "-mm", "-d", "::0300"}); }

} // namespace

KEEL_BENCHMARK(FullQuery)->Unit(benchmark::kMicrosecond);
KEEL_BENCHMARK(DatabaseScan_keel)->Name("DatabaseScan/keel");
KEEL_BENCHMARK(DatabaseScan_memchr)->Name("DatabaseScan/memchr");
// Real time decides the count: the parent only waits, so its processor time says nothing.
KEEL_BENCHMARK(WholeProcess_keel)->Name("WholeProcess/keel")->Unit(benchmark::kMillisecond)->UseRealTime();
KEEL_BENCHMARK(WholeProcess_lspci)->Name("WholeProcess/lspci")->Unit(benchmark::kMillisecond)->UseRealTime();
