// Whole queries: on several threads at once, and through the rigwarden-check tool.
#include "fake_machine.h"
#include "oRigwarden.h"

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdio>
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
    std::string json = RunCommand(tool + " --json --root " + machine.Root() + " --db " + machine.Root() + "/db", status);
    EXPECT_EQ(1, status); // one slow processor, too little memory
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
