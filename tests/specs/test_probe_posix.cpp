// The Linux probes on captured machines.
#include "fake_machine.h"
#include "oRigwarden.h"

#include <gtest/gtest.h>

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
    machine.Write("proc/meminfo", "garbage\n");
    EXPECT_EQ(0u, oRigwardenProbe::ReadTotalPhysicalMemory());
}
