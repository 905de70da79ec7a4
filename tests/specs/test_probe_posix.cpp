// The Linux probes on captured machines.
#include "fake_machine.h"
#include "oRigwarden.h"

#include "../keel/keel_test.h"

#include <gtest/gtest.h>

#include <chrono>

namespace {

const char kIntelCpuinfo[] = "processor\t: 0\nmodel name\t: 13th Gen Intel(R) Core(TM) i7-13700H @ 2.40GHz\n"
                             "cpu MHz\t\t: 400.000\n";

std::vector<vsGpuInfo> ReadAdapters() {
    std::vector<vsGpuInfo> adapters;
    oRigwardenProbe::ReadAdapters(adapters);
    return adapters;
}

} // namespace

TEST(ProbePosix, HybridLaptopListsTheBootDisplayFirst) {
    FakeMachine machine("hybrid");
    machine.AddPciIds();
    machine.AddPci("0000:01:00.0", 0x030200, 0x10de, 0x28e0);       // discrete, as a 3D controller
    machine.AddPci("0000:00:02.0", 0x030000, 0x8086, 0xa7a0, true); // integrated, drives the panel
    machine.AddPci("0000:00:1f.3", 0x040300, 0x8086, 0x51c8);       // audio: not a display
    machine.Use();
    std::vector<vsGpuInfo> adapters = ReadAdapters();
    ASSERT_EQ(2u, adapters.size());
    EXPECT_STREQ("Intel Corporation Raptor Lake-P [Iris Xe Graphics]", adapters[0].name.Const());
    EXPECT_EQ(0x8086u, adapters[0].vendorId);
    EXPECT_EQ(0xa7a0u, adapters[0].deviceId);
    EXPECT_STREQ("NVIDIA Corporation AD107M [GeForce RTX 4060 Max-Q / Mobile]", adapters[1].name.Const());
}

TEST(ProbePosix, DisabledDevicesUnknownNamesAndBusOrder) {
    FakeMachine machine("disabled");
    machine.AddPci("0000:03:00.0", 0x030000, 0x1002, 0x744c);
    machine.AddPci("0000:02:00.0", 0x038000, 0x1234, 0xabcd);        // display controller, unknown ids
    machine.AddPci("0000:01:00.0", 0x030000, 0x10de, 0x2684, false, 0); // switched off
    machine.Use();
    std::vector<vsGpuInfo> adapters = ReadAdapters(); // and there is no pci.ids at all
    ASSERT_EQ(2u, adapters.size());
    EXPECT_STREQ("Display adapter [1234:abcd]", adapters[0].name.Const());
    EXPECT_STREQ("Display adapter [1002:744c]", adapters[1].name.Const());

    FakeMachine compute("3d-only"); // a compute card or a headless GPU: a 3D controller alone
    compute.AddPciIds();
    compute.AddPci("0000:41:00.0", 0x030200, 0x10de, 0x2684);
    compute.Use();
    ASSERT_EQ(1u, ReadAdapters().size());
    EXPECT_STREQ("NVIDIA Corporation AD102 [GeForce RTX 4090]", ReadAdapters()[0].name.Const());

    FakeMachine empty("nogpu");
    empty.Use();
    EXPECT_TRUE(ReadAdapters().empty());
}

TEST(ProbePosix, PciIdsLinesAreFoundAcrossTheReadBoundary) {
    // pci.ids is read 64 KiB at a time: the vendor line, then the device line, are moved
    // across the first boundary byte by byte, behind decoys of the same id.
    for (size_t shift = 0; shift <= 80; ++shift) {
        SCOPED_TRACE(shift);
        std::string ids = "# filler\n";
        while (ids.size() < 65000) ids += "1234  Other Vendor\n\t2684  Not this one\n\t\t10de 2684  Nor this\n";
        const size_t vendorAt = 65536 - 80 + shift;
        ids += "#" + std::string(vendorAt - ids.size() - 2, 'x') + "\n";
        ids += "10de  NVIDIA Corporation\n\t\t1043 2684  sub\n\t2684  AD102 [GeForce RTX 4090]\n";
        FakeMachine machine("boundary");
        machine.Write("usr/share/misc/pci.ids", ids);
        machine.AddPci("0000:01:00.0", 0x030000, 0x10de, 0x2684);
        machine.Use();
        const std::vector<vsGpuInfo> adapters = ReadAdapters();
        ASSERT_EQ(1u, adapters.size());
        EXPECT_STREQ("NVIDIA Corporation AD102 [GeForce RTX 4090]", adapters[0].name.Const());
    }
}

TEST(ProbePosix, ProcessorSpeedSourcesInOrder) {
    FakeMachine machine("cpu");
    machine.Use();
    klString errors;
    EXPECT_EQ(0u, oRigwardenProbe::ReadCpuMHz(errors));
    EXPECT_STREQ("Failed to get CPU info from the system registry.\n", errors.Const());

    machine.SetCpu("processor\t: 0\nmodel name\t: Some CPU\n"); // found, but holds no clock
    errors.clear();
    EXPECT_EQ(0u, oRigwardenProbe::ReadCpuMHz(errors));
    EXPECT_STREQ("Failed to detect CPU core speed from the system registry.\n", errors.Const());

    machine.SetCpu("model name\t: AMD Ryzen 7 7840U\ncpu MHz\t\t: 1896.6\n");
    EXPECT_EQ(1897u, oRigwardenProbe::ReadCpuMHz(errors));
    machine.Write("sys/devices/system/cpu/cpu0/cpufreq/cpuinfo_max_freq", "5132000\n");
    EXPECT_EQ(5132u, oRigwardenProbe::ReadCpuMHz(errors));
    machine.SetCpu(kIntelCpuinfo); // the nominal clock in the model name beats the boost clock
    EXPECT_EQ(2400u, oRigwardenProbe::ReadCpuMHz(errors));
    machine.Write("sys/devices/system/cpu/cpu0/cpufreq/base_frequency", "2100000\n");
    EXPECT_EQ(2100u, oRigwardenProbe::ReadCpuMHz(errors));
    EXPECT_STREQ("Failed to detect CPU core speed from the system registry.\n", errors.Const());
}

TEST(ProbePosix, CountAndMemory) {
    FakeMachine machine("count");
    machine.SetCpu(kIntelCpuinfo, "0-3,8,10-11\n");
    machine.SetMemoryKB(16318532);
    machine.Use();
    EXPECT_EQ(7u, oRigwardenProbe::ReadCpuCount());
    EXPECT_EQ(16318532ull * 1024, oRigwardenProbe::ReadTotalPhysicalMemory());
    for (const char* meminfo : {"garbage\n", "MemTotal:  -5 kB\n", "MemTotal:  18014398509481984 kB\n"}) {
        machine.Write("proc/meminfo", meminfo);
        EXPECT_EQ(0u, oRigwardenProbe::ReadTotalPhysicalMemory()) << meminfo;
    }
}

namespace {

// Machines as their snapshots look, cut down: what each architecture's kernel writes.
struct Snapshot {
    const char* name;
    std::vector<std::pair<const char*, std::string>> files;
    uint32_t mhz, count;
    const char* error;
};

const char kOnline[] = "sys/devices/system/cpu/online";
const char kCpuinfo[] = "proc/cpuinfo";
const char kNoClock[] = "Failed to detect CPU core speed from the system registry.\n";

std::string Repeat(const char* block, int count) {
    std::string text;
    for (int i = 0; i < count; ++i) text += klpf(block, i).Const();
    return text;
}

const std::string kX86 = Repeat("processor\t: %d\nvendor_id\t: GenuineIntel\nmodel name\t: Intel(R) Core(TM) "
                                "i5-7200U CPU @ 2.50GHz\ncpu MHz\t\t: 800.021\n\n", 4);
const std::string kPower = Repeat("processor\t: %d\ncpu\t\t: POWER9 (raw), altivec supported\nclock\t\t: "
                                  "3864.000000MHz\nrevision\t: 2.3 (pvr 004e 1203)\n\n", 3) +
                           "timebase\t: 512000000\nplatform\t: PowerNV\nmodel\t\t: 9006-22P\n";
const std::string kArm = Repeat("processor\t: %d\nBogoMIPS\t: 50.00\nFeatures\t: fp asimd evtstrm aes\n"
                                "CPU implementer\t: 0x41\nCPU part\t: 0xd0c\n\n", 2);
const std::string kS390 = "vendor_id       : IBM/S390\n# processors    : 5\nbogomips per cpu: 3241.00\n" +
                          Repeat("processor %d: version = FF,  identification = 0133E8,  machine = 3906\n", 5);

} // namespace

TEST(ProbePosix, SnapshotsOfOtherMachinesAnswerForThemAlone) {
    const Snapshot snapshots[] = {
        {"x86-online", {{kCpuinfo, kX86}, {kOnline, "0-7\n"}}, 2500, 8, ""},
        {"x86-present", {{kCpuinfo, kX86}, {"sys/devices/system/cpu/present", "0-5\n"}}, 2500, 6, ""},
        {"x86-folders",
         {{kCpuinfo, kX86}, {"sys/devices/system/cpu/cpu0/topology/core_id", "0"}, {"sys/devices/system/cpu/cpu1/x", ""},
          {"sys/devices/system/cpu/cpufreq/x", ""}, {"sys/devices/system/cpu/cpuidle/x", ""}},
         2500, 2, ""},
        {"x86-cpuinfo", {{kCpuinfo, kX86}}, 2500, 4, ""},
        {"power", {{kCpuinfo, kPower}}, 3864, 3, ""},
        {"arm-cpufreq",
         {{kCpuinfo, kArm}, {kOnline, "0-79\n"}, {"sys/devices/system/cpu/cpufreq/policy0/cpuinfo_max_freq", "3000000\n"}},
         3000, 80, ""},
        {"arm", {{kCpuinfo, kArm}}, 0, 2, kNoClock},
        {"s390", {{kCpuinfo, kS390}}, 0, 5, kNoClock},
        {"s390-static", {{kCpuinfo, kS390 + "cpu MHz dynamic : 4800\ncpu MHz static  : 5200\n"}}, 5200, 5, ""},
        // Out of range is unreadable, never wrapped: each falls through to the next source.
        {"negative", {{kCpuinfo, kArm + "cpu MHz\t\t: -5\n"}, {kOnline, "0-18446744073709551617\n"}}, 0, 2, kNoClock},
        {"huge",
         {{kCpuinfo, "processor\t: 0\nmodel name\t: X @ 99999999999.99GHz\ncpu MHz\t\t: 4294967296\nclock\t: 2.5GHz\n"},
          {kOnline, "3-1\n"}, {"sys/devices/system/cpu/cpu0/cpufreq/base_frequency", "-2100000\n"}},
         2500, 1, ""},
    };
    for (const Snapshot& snapshot : snapshots) {
        FakeMachine machine(snapshot.name);
        for (const auto& [path, text] : snapshot.files) machine.Write(path, text);
        machine.Use();
        klString errors;
        EXPECT_EQ(snapshot.mhz, oRigwardenProbe::ReadCpuMHz(errors)) << snapshot.name;
        EXPECT_STREQ(snapshot.error, errors.Const()) << snapshot.name;
        EXPECT_EQ(snapshot.count, oRigwardenProbe::ReadCpuCount()) << snapshot.name;
    }
}

TEST(ProbePosix, FilesThatAreNotFilesAreUnreadableAndBigOnesReadInLinearTime) {
    FakeMachine machine("not-files");
    machine.Use();
    std::filesystem::create_directories(machine.Root() + "/proc");
    std::filesystem::create_symlink("/dev/null", machine.Root() + "/proc/cpuinfo");
    std::filesystem::create_directories(machine.Root() + "/sys/devices/system/cpu/online");
    keeltest::ReleasedFifo fifo(machine.Root() + "/proc/meminfo");
    klString errors;
    EXPECT_EQ(0u, oRigwardenProbe::ReadCpuMHz(errors));
    EXPECT_STREQ("Failed to get CPU info from the system registry.\n", errors.Const()); // found nothing
    EXPECT_EQ(0u, oRigwardenProbe::ReadCpuCount()); // and never this host's count
    EXPECT_EQ(0u, oRigwardenProbe::ReadTotalPhysicalMemory());

    // A cpuinfo of 3 MB, the last one (an ARM server's, say) and one above the cap.
    const std::string big = Repeat("processor\t: %d\nBogoMIPS\t: 50.00\nFeatures\t: fp asimd evtstrm aes pmull "
                                   "sha1 sha2 crc32 atomics fphp asimdhp cpuid asimdrdm lrcpc dcpop asimddp\n\n",
                                   22000);
    ASSERT_GT(big.size(), 3u << 20);
    FakeMachine large("large");
    large.Write("proc/cpuinfo", big + "cpu MHz\t\t: 2600\n");
    large.Use();
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(2600u, oRigwardenProbe::ReadCpuMHz(errors));
    EXPECT_EQ(22000u, oRigwardenProbe::ReadCpuCount());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(250 * keeltest::kTimeScale));
    large.Write("proc/cpuinfo", big + std::string(16 << 20, ' ') + "\ncpu MHz\t\t: 2600\n");
    EXPECT_EQ(0u, oRigwardenProbe::ReadCpuCount());
}
