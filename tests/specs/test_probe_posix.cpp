// The Linux probes on captured machines.
#include "fake_machine.h"
#include "oRigwarden.h"

#include "../keel/keel_test.h"

#include <gtest/gtest.h>

#include <optional>

namespace {

// Each adapter as "name vendor:device|".
std::string ReadAdapters() {
    std::vector<vsGpuInfo> adapters;
    oRigwardenProbe::ReadAdapters(adapters);
    std::string text;
    for (const vsGpuInfo& gpu : adapters)
        text += klpf("%s %x:%x|", gpu.name.Const(), gpu.vendorId, gpu.deviceId).Const();
    return text;
}

std::string Repeat(const char* block, int count) {
    std::string text;
    for (int i = 0; i < count; ++i) text += klpf(block, i).Const();
    return text;
}

} // namespace

TEST(ProbePosix, DisplayDevices) {
    FakeMachine machine("pci"); // without a pci.ids, every device is named by its ids
    machine.AddPci("0000:01:00.0", 0x030000, 0x10de, 0x2684);
    machine.Use();
    EXPECT_EQ("Display adapter [10de:2684] 10de:2684|", ReadAdapters());
    // The boot display first, then bus order: a 3D controller, other display controllers
    // and VGA ones; neither a switched-off device nor audio.
    machine.AddPciIds();
    machine.AddPci("0000:03:00.0", 0x030000, 0x1002, 0x744c, false, 1);
    machine.AddPci("0000:02:00.0", 0x038000, 0x1234, 0xabcd);
    machine.AddPci("0000:00:01.0", 0x030000, 0x10de, 0x28e0, false, 0);
    machine.AddPci("0000:00:1f.3", 0x040300, 0x8086, 0x51c8);
    machine.AddPci("0000:04:00.0", 0x030000, 0x8086, 0xa7a0, true);
    EXPECT_EQ("Intel Corporation Raptor Lake-P [Iris Xe Graphics] 8086:a7a0|NVIDIA Corporation AD102 [GeForce RTX 4090] "
              "10de:2684|Display adapter [1234:abcd] 1234:abcd|Advanced Micro Devices, Inc. [AMD/ATI] Navi 31 [Radeon "
              "RX 7900 XT/7900 XTX] 1002:744c|",
              ReadAdapters());
}

TEST(ProbePosix, PciIdsLinesAreFoundAcrossTheReadBoundary) {
    // pci.ids is read 64 KiB at a time: the vendor line, then the device line, are moved
    // across the first boundary byte by byte, behind decoys of the same id.
    for (size_t shift = 0; shift <= 80; ++shift) {
        std::string ids = "# filler\n";
        while (ids.size() < 65000) ids += "1234  Other Vendor\n\t2684  Not this one\n\t\t10de 2684  Nor this\n";
        ids += "#" + std::string(65536 - 80 + shift - ids.size() - 2, 'x') + "\n";
        ids += "10de  NVIDIA Corporation\n\t\t1043 2684  sub\n\t2684  AD102 [GeForce RTX 4090]\n";
        FakeMachine machine("boundary");
        machine.Write("usr/share/misc/pci.ids", ids);
        machine.AddPci("0000:01:00.0", 0x030000, 0x10de, 0x2684);
        machine.Use();
        EXPECT_EQ("NVIDIA Corporation AD102 [GeForce RTX 4090] 10de:2684|", ReadAdapters()) << shift;
    }
}

namespace {

const std::string kCpu = "sys/devices/system/cpu/", kOnline = kCpu + "online", kCpuinfo = "proc/cpuinfo",
                  kBase = kCpu + "cpu0/cpufreq/base_frequency", kMaxFreq = kCpu + "cpu0/cpufreq/cpuinfo_max_freq",
                  kMeminfo = "proc/meminfo";
const char kNoInfo[] = "Failed to get CPU info from the system registry.\n";
const char kNoClock[] = "Failed to detect CPU core speed from the system registry.\n";

// What each architecture's kernel writes, cut down.
const std::string kIntel = "processor\t: 0\nmodel name\t: 13th Gen Intel(R) Core(TM) i7-13700H @ 2.40GHz\n"
                           "cpu MHz\t\t: 400.000\n";
const std::string kRyzen = "model name\t: AMD Ryzen 7 7840U\ncpu MHz\t\t: 1896.6\n";
const std::string kX86 = "processor\t: 0\nmodel name\t: Intel(R) Core(TM) i5-7200U CPU @ 2.50GHz\n";
const std::string kPower = Repeat("processor\t: %d\ncpu\t\t: POWER9 (raw), altivec supported\nclock\t\t: "
                                  "3864.000000MHz\n\n", 3) + "timebase\t: 512000000\n";
const std::string kArm = Repeat("processor\t: %d\nBogoMIPS\t: 50.00\nFeatures\t: fp asimd evtstrm aes\n\n", 2);
const std::string kS390 = "vendor_id       : IBM/S390\n# processors    : 5\nbogomips per cpu: 3241.00\n" +
                          Repeat("processor %d: version = FF,  identification = 0133E8,  machine = 3906\n", 5);
// A cpuinfo of 3 MB (an ARM server's, say).
const std::string kBig = Repeat("processor\t: %d\nBogoMIPS\t: 50.00\nFeatures\t: fp asimd evtstrm aes pmull sha1 sha2 "
                                "crc32 atomics fphp asimdhp cpuid asimdrdm lrcpc dcpop asimddp\n\n", 22000);

} // namespace

// The clock's and the count's sources in order, and the memory, on machines that answer alone.
// A file's text "<dir>", "<fifo>" or "<null>" makes a folder, a FIFO or a link to /dev/null.
TEST(ProbePosix, ProcessorAndMemory) {
    const struct {
        uint32_t mhz, count;
        const char* error;
        uint64_t memory;
        std::vector<std::pair<std::string, std::string>> files;
    } kMachines[] = {
        {0, 0, kNoInfo, 0, {}},
        {0, 8, kNoClock, 0, {{kCpuinfo, "processor\t: 0\nmodel name\t: Some CPU\n"}, {kOnline, "0-7\n"}}},
        {1897, 0, "", 0, {{kCpuinfo, kRyzen}}},
        {5132, 1, "", 0, {{kCpuinfo, kRyzen}, {kMaxFreq, "5132000\n"}}}, // and a cpu0 folder to count
        // The nominal clock in the model name beats the boost clock, the base frequency beats both.
        {2400, 7, "", 0, {{kCpuinfo, kIntel}, {kMaxFreq, "5132000\n"}, {kOnline, "0-3,8,10-11\n"}}},
        {2100, 1, "", 0, {{kCpuinfo, kIntel}, {kMaxFreq, "5132000\n"}, {kBase, "2100000\n"}}},
        {2500, 6, "", 0, {{kCpuinfo, kX86}, {kCpu + "present", "0-5\n"}}},
        {2500, 2, "", 0, {{kCpuinfo, kX86}, {kCpu + "cpu0/topology/core_id", "0"}, {kCpu + "cpu1/x", ""},
                          {kCpu + "cpufreq/x", ""}, {kCpu + "cpuidle/x", ""}}},
        {3864, 3, "", 0, {{kCpuinfo, kPower}}},
        {3000, 80, "", 0,
         {{kCpuinfo, kArm}, {kOnline, "0-79\n"}, {kCpu + "cpufreq/policy0/cpuinfo_max_freq", "3000000\n"}}},
        {5200, 5, "", 0, {{kCpuinfo, kS390 + "cpu MHz dynamic : 4800\ncpu MHz static  : 5200\n"}}},
        {0, 1, kNoClock, 0, {{kCpuinfo, "processor 0: a\nprocessor 1 b\n"}}}, // an s390 entry's number ends in ':'
        // Out of range is unreadable, never wrapped: each falls through to the next source.
        {0, 2, kNoClock, 0, {{kCpuinfo, kArm + "cpu MHz\t\t: -5\n"}, {kOnline, "0-18446744073709551617\n"}}},
        {2500, 1, "", 0, {{kCpuinfo, "processor\t: 0\nmodel name\t: X @ 99999999999.99GHz\ncpu MHz\t\t: 4294967296\n"
                                     "clock\t: 2.5GHz\n"}, {kOnline, "3-1\n"}, {kBase, "-2100000\n"}}},
        {0, 0, kNoInfo, 18014398509481983ull * 1024, {{kMeminfo, "MemTotal:  18014398509481983 kB\nMemFree:  1 kB\n"}}},
        {0, 0, kNoInfo, 0, {{kMeminfo, "MemTotal:  18014398509481984 kB\n"}}},
        {0, 0, kNoInfo, 0, {{kMeminfo, "MemTotal:  -5 kB\n"}}},
        // Never this host's count from a file that is no file; big files in one pass, up to a cap.
        {0, 0, kNoInfo, 0, {{kCpuinfo, "<null>"}, {kOnline, "<dir>"}, {kMeminfo, "<fifo>"}}},
        {2600, 22000, "", 0, {{kCpuinfo, kBig + "cpu MHz\t\t: 2600\n"}}},
        {0, 0, kNoInfo, 0, {{kCpuinfo, kBig + std::string(16 << 20, ' ') + "\ncpu MHz\t\t: 2600\n"}}},
    };
    for (const auto& row : kMachines) {
        FakeMachine machine("cpu");
        std::optional<keeltest::ReleasedFifo> fifo;
        for (const auto& [path, text] : row.files) {
            const std::string full = machine.Root() + "/" + path;
            machine.Write(path, text);
            if (text == "<dir>" || text == "<fifo>" || text == "<null>") std::filesystem::remove(full);
            if (text == "<dir>") std::filesystem::create_directories(full);
            if (text == "<fifo>") fifo.emplace(full);
            if (text == "<null>") std::filesystem::create_symlink("/dev/null", full);
        }
        machine.Use();
        klString errors;
        const size_t at = &row - kMachines;
        EXPECT_EQ(row.mhz, oRigwardenProbe::ReadCpuMHz(errors)) << at;
        EXPECT_EQ(row.count, oRigwardenProbe::ReadCpuCount()) << at;
        EXPECT_STREQ(row.error, errors.Const()) << at;
        EXPECT_EQ(row.memory, oRigwardenProbe::ReadTotalPhysicalMemory()) << at;
    }
}
