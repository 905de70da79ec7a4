// Whole queries: on several threads at once, and through the rigwarden-check tool.
#include "fake_machine.h"
#include "oRigwarden.h"

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <string>
#include <thread>

namespace {

void DescribeMachine(const FakeMachine& machine) {
    machine.AddPciIds();
    machine.AddPci("0000:00:02.0", 0x030000, 0x8086, 0xa780, true);
    machine.AddPci("0000:01:00.0", 0x030200, 0x10de, 0x28e0);
    machine.SetCpu("model name\t: CPU @ 2.10GHz\n", "0\n");
    machine.SetMemoryKB(1024 * 1024);
    machine.Write("db/a.cfg", "8086, A780, 1, 1600, 300, D ; UHD 770\n");
    machine.Write("db/b.cfg", "10DE, 28E0, 3, 1920, 2500, M ; RTX 4060 laptop\n");
}

std::string Describe(const vsQueryResult& result) {
    std::string text = result.probeErrors.Const();
    text += result.spec.underMinSpecReason.Const();
    for (const vsGpuInfo& gpu : result.adapters)
        text += klpf("|%s %x %x %d %u %u %d %d %s", gpu.name.Const(), gpu.vendorId, gpu.deviceId,
                     gpu.notListed, gpu.recommendedWidth, gpu.benchmark, gpu.recommendedVideoQuality,
                     gpu.mobile, gpu.notListedInfo.Const()).Const();
    return text + klpf("|%u %u %u %llu", result.bestIndex, result.cpuCount, result.cpuMHz,
                       static_cast<unsigned long long>(result.totalPhysBytes)).Const();
}

// Runs a command; returns its standard output and sets its exit status.
std::string RunCommand(const std::string& command, int& status) {
    std::string output;
    FILE* pipe = popen(command.c_str(), "r");
    char chunk[4096];
    while (size_t got = std::fread(chunk, 1, sizeof(chunk), pipe)) output.append(chunk, got);
    int raw = pclose(pipe);
    status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    return output;
}

} // namespace

TEST(Query, ConcurrentQueriesGiveIdenticalAnswers) {
    FakeMachine machine("concurrent");
    DescribeMachine(machine);
    machine.Use();
    klString db = (machine.Root() + "/db").c_str();
    const std::string expected = Describe(oRigwarden::RunQuery(db));
    EXPECT_EQ(1u, oRigwarden::RunQuery(db).bestIndex);
    std::vector<std::string> answers(4 * 25);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 25; ++i) answers[t * 25 + i] = Describe(oRigwarden::RunQuery(db));
        });
    for (std::thread& thread : threads) thread.join();
    for (const std::string& answer : answers) EXPECT_EQ(expected, answer);
}

TEST(Query, CheckToolReportsJsonAndExitStatus) {
    FakeMachine machine("tool");
    DescribeMachine(machine);
    const std::string tool = RIGWARDEN_CHECK_COMMAND;
    int status = -1;
    std::string json = RunCommand(
        tool + " --json --root " + machine.Root() + " --db " + machine.Root() + "/db", status);
    EXPECT_EQ(1, status); // one slow processor, too little memory
    EXPECT_EQ(json, RunCommand(tool + " --all-adapters --json --root " + machine.Root() + " --db " +
                                   machine.Root() + "/db",
                               status)); // Linux lists every display device anyway
    for (const char* field :
         {"\"IsError\": false", "\"ErrorMessage\": \"\"", "\"IsUnderMinSpec\": true", "\"BestGpuIndex\": 1",
          "\"AdapterName\": \"Intel Corporation Raptor Lake-S GT1 [UHD Graphics 770]\"", "\"VendorId\": 4318",
          "\"DeviceId\": 10464", "\"NotListed\": false", "\"RecommendedVideoQuality\": 3",
          "\"RecommendedWidth\": 1920", "\"Benchmark\": 2500", "\"Mobile\": true", "\"CpuCount\": 1",
          "\"CpuMHz\": 2100", "\"TotalPhysicalMemory\": 1073741824",
          "\"UnderMinSpecReason\": \"CPU is under minimal hardware specs. Found: 1 cores @2100MHz). Required: 2 "
          "cores @2200MHz).\\nYour system is below"})
        EXPECT_NE(std::string::npos, json.find(field)) << field << "\n" << json;

    machine.Write("empty/proc/version", "Linux\n");
    RunCommand(tool + " --root " + machine.Root() + "/empty --db " + machine.Root() + "/db", status);
    EXPECT_EQ(2, status); // no processor information at all is a probe failure
    std::string usage = RunCommand(tool + " --bogus 2>&1", status);
    EXPECT_EQ(64, status);
    EXPECT_NE(std::string::npos, usage.find("usage: rigwarden-check"));
    EXPECT_EQ(0, (RunCommand(tool + " --version", status), status));
}

TEST(Query, CheckToolWritesUtf8JsonWarnsAboutTheDatabaseAndRefusesBadRoots) {
    FakeMachine machine("tool-hostile");
    DescribeMachine(machine);
    // A Latin-1 byte, a well-formed "\u00e9" and an encoded surrogate in one adapter's name.
    machine.Write("usr/share/misc/pci.ids", "8086  Intel Corpor\xe9tion\n\ta780  UHD \xc3\xa9 \xed\xa0\x80 770\n");
    const std::string tool = std::string(RIGWARDEN_CHECK_COMMAND) + " --root " + machine.Root();
    int status = -1;
    std::string json = RunCommand(tool + " --json --db " + machine.Root() + "/db", status);
    EXPECT_EQ(1, status);
    EXPECT_NE(std::string::npos,
              json.find("\"AdapterName\": \"Intel Corpor\\ufffdtion UHD \xc3\xa9 \\ufffd\\ufffd\\ufffd 770\""))
        << json;
    EXPECT_EQ(std::string::npos, json.find_first_of("\xe9\xed"));

    // The verdict stands without a database, with a warning on stderr.
    machine.Write("nocfg/readme.txt", "");
    for (const char* db : {"/nocfg", "/nodb"}) {
        std::string warning = RunCommand(tool + " --db " + machine.Root() + db + " 2>&1 >/dev/null", status);
        EXPECT_EQ(1, status);
        EXPECT_EQ(klpf("rigwarden-check: warning: database folder '%s%s' %s\n", machine.Root().c_str(), db,
                       db[3] == 'c' ? "holds no *.cfg file" : "does not exist").Const(),
                  warning);
    }
    for (const char* root : {"/db", "/none"}) {
        std::string message = RunCommand(std::string(RIGWARDEN_CHECK_COMMAND) + " --root " + machine.Root() + root +
                                              " 2>&1 >/dev/null",
                                          status);
        EXPECT_EQ(64, status);
        EXPECT_EQ(klpf("rigwarden-check: root folder '%s%s' %s\n", machine.Root().c_str(), root,
                       root[1] == 'd' ? "holds neither proc/ nor sys/" : "does not exist").Const(),
                  message);
    }
}

namespace {

std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

// Every file below folder, by its path there, with its bytes.
std::map<std::string, std::string> Tree(const std::string& folder) {
    std::map<std::string, std::string> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder))
        if (entry.is_regular_file())
            files[std::filesystem::relative(entry.path(), folder).string()] = ReadFile(entry.path().string());
    return files;
}

} // namespace

TEST(Query, CaptureThenReplayAnswersAsTheLiveRun) {
    FakeMachine scratch("capture");
    const std::string tool = RIGWARDEN_CHECK_COMMAND, db = " --db " + scratch.Root() + "/db";
    scratch.Write("db/a.cfg", "8086, A780, 1, 1600, 300, D\n");
    int live = -1, replayed = -1;
    for (const char* mode : {"", " --json"}) { // this very machine
        const std::string snapshot = scratch.Root() + "/live" + (*mode ? "-json" : "");
        std::string report = RunCommand(tool + mode + db + " --capture " + snapshot, live);
        EXPECT_EQ(report, RunCommand(tool + mode + db + " --root " + snapshot, replayed)) << mode;
        EXPECT_EQ(live, replayed);
        EXPECT_TRUE(live == 0 || live == 1 || live == 2) << live;
    }

    // A machine with more in its files than a snapshot may keep.
    FakeMachine machine("capture-source");
    DescribeMachine(machine);
    machine.AddPci("0000:00:1f.3", 0x040300, 0x8086, 0x51c8); // audio
    machine.SetCpu("processor\t: 0\nmodel name\t: CPU @ 2.10GHz\nflags\t\t: fpu sse2\nSerial\t\t: "
                   "00000000deadbeef\n",
                   "0\n");
    machine.Write("proc/meminfo",
                  "MemTotal:       1048576 kB\nMemFree:  1 kB\nHardwareCorrupted: 0 kB\n");
    const std::string snapshot = scratch.Root() + "/fake",
                      rooted = "RIGWARDEN_ROOT=" + machine.Root() + " ";
    std::string report =
        RunCommand(rooted + tool + " --json" + db + " --capture " + snapshot, live);
    EXPECT_EQ(1, live);
    EXPECT_EQ(report, RunCommand(tool + " --json" + db + " --root " + snapshot, replayed));
    EXPECT_EQ(1, replayed);
    std::map<std::string, std::string> files = Tree(snapshot);
    std::string manifest = files["rigwarden.json"];
    files.erase("rigwarden.json");
    std::map<std::string, std::string> expected = {
        {"proc/cpuinfo", "model name\t: CPU @ 2.10GHz\n"},
        {"proc/meminfo", "MemTotal:       1048576 kB\n"},
        {"sys/devices/system/cpu/online", "0\n"},
        {"usr/share/misc/pci.ids",
         "10de  NVIDIA Corporation\n\t28e0  AD107M [GeForce RTX 4060 Max-Q / Mobile]\n"
         "8086  Intel Corporation\n\ta780  Raptor Lake-S GT1 [UHD Graphics 770]\n"}};
    for (const char* device : {"0000:00:02.0", "0000:01:00.0"})
        for (const char* attribute : {"class", "vendor", "device", "subsystem_vendor",
                                      "subsystem_device", "revision", "boot_vga"}) {
            std::string path = std::string("sys/bus/pci/devices/") + device + "/" + attribute;
            expected[path] = ReadFile(machine.Root() + "/" + path);
        }
    EXPECT_EQ(expected, files);
    std::string version = RunCommand(tool + " --version", live).substr(16);
    version.pop_back();
    EXPECT_NE(std::string::npos,
              manifest.find("  \"Version\": \"" + version + "\",\n  \"Platform\": \"linux\",\n"));
    EXPECT_TRUE(std::regex_search(
        manifest,
        std::regex("\n  \"Captured\": "
                   "\"20[0-9][0-9]-[01][0-9]-[0-3][0-9]T[0-2][0-9]:[0-5][0-9]:[0-5][0-9]Z\",\n")));
    EXPECT_NE(std::string::npos, manifest.find("\n  \"Answer\": {\n    \"IsError\": false,\n"))
        << manifest;

    // Snapshots from elsewhere, or damaged ones, are refused with the reason, never judged.
    const struct {
        const char* file;
        std::string from, to;
        std::string message;
    } kDamages[] = {
        {"rigwarden.json", version, "9.9.9",
         "was captured by rigwarden-check 9.9.9; this is rigwarden-check " + version},
        {"rigwarden.json", "\"linux\"", "\"windows\"",
         "was captured on windows; this rigwarden-check reads linux snapshots"},
        {"rigwarden.json", "    \"proc/cpuinfo", "    \"../proc/cpuinfo",
         "is damaged: rigwarden.json is not as it was written"},
        {"rigwarden.json", "{\n  \"Snapshot\"", "{\n  \"Snapshots\"",
         "is damaged: rigwarden.json is no snapshot manifest"},
        {"proc/meminfo", "1048576", "9048576",
         "is damaged: proc/meminfo is not as it was captured"},
        {"proc/cpuinfo", "", "", "is damaged: proc/cpuinfo is missing"},
        {"sys/devices/system/cpu/cpu0/cpufreq/base_frequency", "", "4000000\n",
         "is damaged: sys/devices/system/cpu/cpu0/cpufreq/base_frequency is no part of it"},
    };
    for (const auto& damage : kDamages) {
        std::string copy = scratch.Root() + "/damaged";
        std::filesystem::remove_all(copy);
        std::filesystem::copy(snapshot, copy, std::filesystem::copy_options::recursive);
        std::string path = copy + "/" + damage.file, text = ReadFile(path);
        std::filesystem::remove(path);
        if (!damage.to.empty()) {
            size_t at = text.find(damage.from);
            ASSERT_NE(std::string::npos, at) << damage.from;
            std::filesystem::create_directories(std::filesystem::path(path).parent_path());
            std::ofstream(path, std::ios::binary)
                << text.replace(at, damage.from.size(), damage.to);
        }
        std::string message = RunCommand(tool + " --root " + copy + db + " 2>&1", live);
        EXPECT_EQ(65, live) << damage.message;
        EXPECT_EQ("rigwarden-check: snapshot '" + copy + "' " + damage.message + "\n", message);
    }

    std::string refusal =
        RunCommand(tool + " --capture " + snapshot + db + " 2>&1 >/dev/null", live);
    EXPECT_EQ(73, live); // a folder that is not empty is never written into
    EXPECT_EQ("rigwarden-check: cannot capture into '" + snapshot +
                  "' is not an empty folder that can be written\n",
              refusal);
    EXPECT_EQ(64,
              (RunCommand(tool + " --capture " + snapshot + "2 --root " + snapshot + " 2>/dev/null",
                          live),
               live));
    EXPECT_FALSE(std::filesystem::exists(snapshot + "2"));
}
