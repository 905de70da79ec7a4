// Whole queries: on several threads at once, and through the rigwarden-check tool.
#include "../keel/keel_test.h"
#include "fake_machine.h"
#include "oRigwarden.h"
#include "oRigwardenSnapshot.h"

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>

namespace {

// A laptop with one slow processor and too little memory; its database folder is "db".
void DescribeMachine(const FakeMachine& machine) {
    machine.AddPciIds();
    machine.AddPci("0000:00:02.0", 0x030000, 0x8086, 0xa780, true);
    machine.AddPci("0000:01:00.0", 0x030200, 0x10de, 0x28e0);
    machine.Write("proc/cpuinfo", "model name\t: CPU @ 2.10GHz\n");
    machine.Write("sys/devices/system/cpu/online", "0\n");
    machine.Write("proc/meminfo", "MemTotal:       1048576 kB\nMemFree:  1 kB\n");
    machine.Write("db/a.cfg", "8086, A780, 1, 1600, 300, D ; UHD 770\n");
    machine.Write("db/b.cfg", "10DE, 28E0, 3, 1920, 2500, M ; RTX 4060 laptop\n");
}

// Runs rigwarden-check through the shell after the environment's assignments: its output and status.
std::string Check(const std::string& arguments, int& status, const std::string& environment = "") {
    std::string output, command = environment + " " + RIGWARDEN_CHECK_COMMAND + " " + arguments;
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
    const klString db = (machine.Root() + "/db").c_str(), expected = oRigwarden::RunQuery(db).spec.underMinSpecReason;
    std::thread threads[4];
    for (std::thread& thread : threads)
        thread = std::thread([&] {
            for (int i = 0; i < 25; ++i)
                EXPECT_STREQ(expected.Const(), oRigwarden::RunQuery(db).spec.underMinSpecReason.Const());
        });
    for (std::thread& thread : threads) thread.join();
}

TEST(Query, CheckToolReportsAndRefusals) {
    FakeMachine machine("tool");
    DescribeMachine(machine);
    machine.Write("nocfg/readme.txt", "");
    const std::string root = machine.Root(), on = " --root " + root + " --db " + root;
    int status = -1;
    const std::string json = Check("--json" + on + "/db", status);
    EXPECT_EQ(1, status);
    const std::string memory = "Your system is below the minimal hardware specs. We recommend at least 2048 MB of "
                               "system memory to run the game, but your system only has 2048 MB.";
    EXPECT_EQ("{\n  \"IsError\": false,\n  \"ErrorMessage\": \"\",\n  \"IsUnderMinSpec\": true,\n"
              "  \"UnderMinSpecReason\": \"CPU is under minimal hardware specs. Found: 1 cores @2100MHz). Required: 2 "
              "cores @2200MHz).\\n" + memory + "\\n\",\n  \"BestGpuIndex\": 1,\n  \"GpuInfo\": [\n    {\n"
              "      \"AdapterName\": \"Intel Corporation Raptor Lake-S GT1 [UHD Graphics 770]\",\n"
              "      \"VendorId\": 32902,\n      \"DeviceId\": 42880,\n      \"NotListed\": false,\n"
              "      \"NotListedInfo\": \"\",\n      \"RecommendedVideoQuality\": 1,\n      \"RecommendedWidth\": 1600,\n"
              "      \"Benchmark\": 300,\n      \"Mobile\": false\n    },\n    {\n"
              "      \"AdapterName\": \"NVIDIA Corporation AD107M [GeForce RTX 4060 Max-Q / Mobile]\",\n"
              "      \"VendorId\": 4318,\n      \"DeviceId\": 10464,\n      \"NotListed\": false,\n"
              "      \"NotListedInfo\": \"\",\n      \"RecommendedVideoQuality\": 3,\n      \"RecommendedWidth\": 1920,\n"
              "      \"Benchmark\": 2500,\n      \"Mobile\": true\n    }\n  ],\n  \"CpuCount\": 1,\n  \"CpuMHz\": 2100,\n"
              "  \"TotalPhysicalMemory\": 1073741824\n}\n",
              json);
    EXPECT_EQ(json, Check("--all-adapters --json" + on + "/db", status)); // Linux lists every display device anyway

    const std::string usage = Check("--help", status);
    EXPECT_EQ(0u, usage.rfind("usage: rigwarden-check [--db DIR]", 0));
    const struct {
        std::string arguments;
        int status;
        std::string stderrText;
    } kRuns[] = {
        // The verdict stands without a database, with a warning.
        {on + "/nocfg", 1, "rigwarden-check: warning: database folder '" + root + "/nocfg' holds no *.cfg file\n"},
        {on + "/nodb", 1, "rigwarden-check: warning: database folder '" + root + "/nodb' does not exist\n"},
        {" --root " + root + "/db", 64,
         "rigwarden-check: root folder '" + root + "/db' holds neither proc/ nor sys/\n"},
        {" --root " + root + "/none", 64, "rigwarden-check: root folder '" + root + "/none' does not exist\n"},
        {" --json --bogus", 64, "rigwarden-check: unknown option '--bogus'\n" + usage},
        {" --db", 64, "rigwarden-check: missing value for '--db'\n" + usage},
        {" --capture ''", 64, "rigwarden-check: missing value for '--capture'\n" + usage},
        {" --capture x --root " + root, 64,
         "rigwarden-check: --capture takes this machine; it cannot be given with --root\n"},
    };
    for (const auto& run : kRuns) {
        EXPECT_EQ(run.stderrText, Check(run.arguments + " 2>&1 >/dev/null", status));
        EXPECT_EQ(run.status, status) << run.arguments;
    }

    // No clock, and a database that lists the discrete GPU alone.
    machine.Write("proc/cpuinfo", "model name\t: CPU\n");
    machine.Write("db2/b.cfg", "10DE, 28E0, 3, 1920, 2500, M\n");
    EXPECT_EQ("Database:   " + root + "/db2\nProcessor:  1 logical processors at 0 MHz\nMemory:     1024 MB\n"
              "Display adapters: 2\n    [0] Intel Corporation Raptor Lake-S GT1 [UHD Graphics 770] (8086:a780)\n"
              "        not in the database: Could not find graphics adapter (0x8086, 0xA780, Intel Corporation Raptor "
              "Lake-S GT1 [UHD Graphics 770]) in our database. If your graphics card is old, you are probably below "
              "the minimal hardware specs and the game may not function correctly.\n"
              "  * [1] NVIDIA Corporation AD107M [GeForce RTX 4060 Max-Q / Mobile] (10de:28e0)  <- best\n"
              "        quality 3, width 1920, benchmark 2500, mobile\nProbe errors:\n"
              "  Failed to detect CPU core speed from the system registry.\nVerdict:    BELOW the minimum spec\n"
              "  CPU is under minimal hardware specs. Found: 1 cores @0MHz). Required: 2 cores @2200MHz).\n  " + memory +
                  "\n",
              Check(on + "/db2", status));
    EXPECT_EQ(2, status); // a probe failure comes before the verdict

    // A Latin-1 byte, a well-formed "\u00e9" and an encoded surrogate in one adapter's name.
    machine.Write("usr/share/misc/pci.ids", "8086  Intel Corpor\xe9tion\n\ta780  UHD \xc3\xa9 \xed\xa0\x80 770\n");
    EXPECT_NE(std::string::npos,
              Check("--json" + on + "/db", status)
                  .find("\"AdapterName\": \"Intel Corpor\\ufffdtion UHD \xc3\xa9 \\ufffd\\ufffd\\ufffd 770\","));
}

// Replaying a snapshot points the probes at it; stopping puts the root before it back.
TEST(Query, ReplayMovesTheProbesRootAndBack) {
    setenv("RIGWARDEN_ROOT", "/before", 1);
    klString error;
    ASSERT_TRUE(oRigwardenSnapshot::StartReplay("/snapshot", error));
    EXPECT_STREQ("/snapshot", std::getenv("RIGWARDEN_ROOT"));
    oRigwardenSnapshot::StopReplay();
    EXPECT_STREQ("/before", std::getenv("RIGWARDEN_ROOT"));
    unsetenv("RIGWARDEN_ROOT");
}

TEST(Query, CaptureThenReplayAnswersAsTheMachineDid) {
    // A machine with more in its files than a snapshot may keep: audio, a serial number, free memory.
    FakeMachine machine("capture");
    DescribeMachine(machine);
    machine.AddPci("0000:00:1f.3", 0x040300, 0x8086, 0x51c8);
    machine.Write("proc/cpuinfo", "processor\t: 0\nmodel name\t: CPU @ 2.10GHz\nSerial\t\t: 00000000deadbeef\n");
    const std::string db = " --db " + machine.Root() + "/db", snapshot = machine.Root() + "/snapshot";
    int live = -1, replayed = -1;
    std::string report = Check("--json" + db + " --capture " + snapshot, live, "RIGWARDEN_ROOT=" + machine.Root());
    EXPECT_EQ(report, Check("--json" + db + " --root " + snapshot, replayed));
    EXPECT_TRUE(live == 1 && replayed == 1) << live << replayed;
    // The probe files, cut to what the probes read: of the PCI devices, the display devices' attributes.
    size_t files = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(snapshot)) files += entry.is_regular_file();
    EXPECT_EQ(1u + 4 + 2 * 4, files);
    EXPECT_EQ("model name\t: CPU @ 2.10GHz\n", keeltest::ReadFile(snapshot + "/proc/cpuinfo"));
    EXPECT_EQ("10de  NVIDIA Corporation\n\t28e0  AD107M [GeForce RTX 4060 Max-Q / Mobile]\n"
              "8086  Intel Corporation\n\ta780  Raptor Lake-S GT1 [UHD Graphics 770]\n",
              keeltest::ReadFile(snapshot + "/usr/share/misc/pci.ids"));
    const std::string manifest = keeltest::ReadFile(snapshot + "/rigwarden.json");
    EXPECT_NE(std::string::npos, manifest.find("\n  \"Answer\": {\n    \"IsError\": false,\n")) << manifest;
    std::string version = Check("--version", live).substr(16);
    version.pop_back();

    // Snapshots from elsewhere, or damaged ones, are refused with the reason, never judged.
    const struct {
        const char* file;
        std::string from, to, message;
    } kDamages[] = {
        {"rigwarden.json", "\"Version\": \"" + version, "\"Version\": \"9.9.9",
         "was captured by rigwarden-check 9.9.9; this is rigwarden-check " + version},
        {"rigwarden.json", "\"Platform\": \"linux\"", "\"Platform\": \"windows\"",
         "was captured on windows; this rigwarden-check reads linux snapshots"},
        {"rigwarden.json", "    \"proc/cpuinfo", "    \"../proc/cpuinfo",
         "is damaged: rigwarden.json is not as it was written"},
        {"proc/meminfo", "1048576", "9048576", "is damaged: proc/meminfo is not as it was captured"},
        {"proc/cpuinfo", "", "", "is damaged: proc/cpuinfo is missing"},
        {"sys/devices/system/cpu/cpu0/cpufreq/base_frequency", "", "4000000\n",
         "is damaged: sys/devices/system/cpu/cpu0/cpufreq/base_frequency is no part of it"},
    };
    const std::string copy = machine.Root() + "/damaged";
    for (const auto& damage : kDamages) {
        std::filesystem::remove_all(copy);
        std::filesystem::copy(snapshot, copy, std::filesystem::copy_options::recursive);
        std::string text = keeltest::ReadFile(copy + "/" + damage.file);
        std::filesystem::remove(copy + "/" + damage.file);
        if (!damage.to.empty()) // a text without the damage's "from" throws, which fails the test
            machine.Write("damaged/" + std::string(damage.file),
                          text.replace(text.find(damage.from), damage.from.size(), damage.to));
        EXPECT_EQ("rigwarden-check: snapshot '" + copy + "' " + damage.message + "\n",
                  Check("--root " + copy + db + " 2>&1", live));
        EXPECT_EQ(65, live) << damage.message;
    }

    // A folder that is not empty is never written into.
    EXPECT_EQ("rigwarden-check: cannot capture into '" + snapshot + "' is not an empty folder that can be written\n",
              Check("--capture " + snapshot + db + " 2>&1 >/dev/null", live));
    EXPECT_EQ(73, live);
}
