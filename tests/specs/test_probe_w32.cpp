// The Windows probes against a machine made of fake system calls.
#include "oRigwarden.h"
#include "win32/oRigwardenWin32Calls.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace {

struct FakeDevice {
    DWORD flags;
    const char* id;
    const char* name;
};
std::vector<FakeDevice> gDevices;
LSTATUS gOpenResult = ERROR_SUCCESS;
LSTATUS gQueryResult = ERROR_SUCCESS;
int gCloses = 0;
std::vector<DWORD> gAskedIndexes;

LSTATUS WINAPI FakeOpen(HKEY root, LPCSTR subKey, DWORD, REGSAM access, PHKEY key) {
    EXPECT_EQ(HKEY_LOCAL_MACHINE, root);
    EXPECT_STREQ("HARDWARE\\DESCRIPTION\\System\\CentralProcessor\\0\\", subKey);
    EXPECT_EQ(DWORD(KEY_READ), DWORD(access));
    *key = reinterpret_cast<HKEY>(0x1234);
    return gOpenResult;
}
LSTATUS WINAPI FakeQuery(HKEY, LPCSTR name, LPDWORD, LPDWORD, LPBYTE data, LPDWORD size) {
    EXPECT_STREQ("~MHz", name);
    EXPECT_EQ(4u, *size);
    DWORD mhz = 3600;
    std::memcpy(data, &mhz, 4);
    return gQueryResult;
}
LSTATUS WINAPI FakeClose(HKEY) {
    ++gCloses;
    return ERROR_SUCCESS;
}
void WINAPI FakeSystemInfo(LPSYSTEM_INFO info) { info->dwNumberOfProcessors = 12; }
BOOL WINAPI FakeEnum(LPCSTR device, DWORD index, PDISPLAY_DEVICEA out, DWORD flags) {
    EXPECT_EQ(nullptr, device);
    EXPECT_EQ(0u, flags);
    EXPECT_EQ(sizeof(DISPLAY_DEVICEA), out->cb);
    gAskedIndexes.push_back(index);
    if (index >= gDevices.size()) return FALSE;
    out->StateFlags = gDevices[index].flags;
    std::strcpy(out->DeviceID, gDevices[index].id);
    std::strcpy(out->DeviceString, gDevices[index].name);
    return TRUE;
}
BOOL WINAPI FakeMemory(LPMEMORYSTATUSEX status) {
    EXPECT_EQ(64u, status->dwLength);
    status->ullTotalPhys = 8ull << 30;
    return TRUE;
}

// Puts the fake machine in place for one test and the real calls back afterwards.
class ProbeW32 : public testing::Test {
protected:
    void SetUp() override {
        mSaved = oRigwardenWin32Calls();
        oRigwardenWin32Calls() = {FakeOpen, FakeQuery, FakeClose, FakeSystemInfo, FakeEnum, FakeMemory};
        gOpenResult = gQueryResult = ERROR_SUCCESS;
        gCloses = 0;
        gAskedIndexes.clear();
    }
    void TearDown() override { oRigwardenWin32Calls() = mSaved; }
    vsWin32Calls mSaved;
};

} // namespace

TEST_F(ProbeW32, RegistryAndItsTwoFailures) {
    klString errors;
    EXPECT_EQ(3600u, oRigwardenProbe::ReadCpuMHz(errors));
    EXPECT_TRUE(errors.IsEmpty());
    EXPECT_EQ(1, gCloses);

    gQueryResult = ERROR_FILE_NOT_FOUND;
    EXPECT_EQ(0u, oRigwardenProbe::ReadCpuMHz(errors));
    EXPECT_STREQ("Failed to detect CPU core speed from the system registry.\n", errors.Const());
    EXPECT_EQ(2, gCloses);

    gOpenResult = ERROR_ACCESS_DENIED; // the value is never asked for, so one message only
    errors.clear();
    EXPECT_EQ(0u, oRigwardenProbe::ReadCpuMHz(errors));
    EXPECT_STREQ("Failed to get CPU info from the system registry.\n", errors.Const());
    EXPECT_EQ(2, gCloses);

    EXPECT_EQ(12u, oRigwardenProbe::ReadCpuCount());
    EXPECT_EQ(8ull << 30, oRigwardenProbe::ReadTotalPhysicalMemory());
}

TEST_F(ProbeW32, DisplayDevicesAttachedDistinctAndInherited) {
    gDevices = {
        {0, "PCI\\VEN_1002&DEV_68C1&SUBSYS_0", "Detached Radeon"},
        {DISPLAY_DEVICE_ATTACHED_TO_DESKTOP | DISPLAY_DEVICE_PRIMARY_DEVICE,
         "PCI\\VEN_10de&DEV_2684&SUBSYS_889D1043&REV_A1", "NVIDIA GeForce RTX 4090"},
        {DISPLAY_DEVICE_ATTACHED_TO_DESKTOP, "PCI\\VEN_10DE&DEV_2684&SUBSYS_889D1043&REV_A1", "second output"},
        {DISPLAY_DEVICE_ATTACHED_TO_DESKTOP, "PCI\\DEV_1C03", "no vendor in the id"},
        {DISPLAY_DEVICE_ATTACHED_TO_DESKTOP, "ROOT\\BasicRender", ""},
    };
    std::vector<vsGpuInfo> adapters;
    oRigwardenProbe::ReadAdapters(adapters);
    ASSERT_EQ(2u, adapters.size());
    EXPECT_STREQ("NVIDIA GeForce RTX 4090", adapters[0].name.Const());
    EXPECT_EQ(0x10DEu, adapters[0].vendorId);
    EXPECT_EQ(0x2684u, adapters[0].deviceId);
    EXPECT_STREQ("no vendor in the id", adapters[1].name.Const());
    EXPECT_EQ(0x10DEu, adapters[1].vendorId); // inherited from the device before it
    EXPECT_EQ(0x1C03u, adapters[1].deviceId);
    EXPECT_EQ((std::vector<DWORD>{0, 1, 2, 3, 4, 5}), gAskedIndexes); // each index once, until FALSE
}
