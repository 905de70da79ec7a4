// The Windows probes against a machine made of fake system calls.
#include "oRigwarden.h"
#include "oRigwardenSnapshot.h"
#include "win32/oRigwardenWin32Calls.h"

#include "../keel/keel_test.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace {

// The displays the enumeration reports, and the present display devices of the device
// registry (a null text is an absent property).
struct FakeDevice {
    DWORD flags;
    const char *id, *name;
};
struct FakePresent {
    const char *hardwareId, *description;
};
std::vector<FakeDevice> gDevices;
std::vector<FakePresent> gPresent;
LSTATUS gOpenResult, gQueryResult;
bool gClassDevsFails;
DWORD gPropertyFailsAt; // the device whose properties cannot be read
int gCloses, gClassDevsCalls, gDestroyed;
std::vector<DWORD> gAskedIndexes;
const HDEVINFO kFakeSet = reinterpret_cast<HDEVINFO>(0x5678);

LSTATUS WINAPI FakeOpen(HKEY root, LPCSTR subKey, DWORD, REGSAM access, PHKEY key) {
    EXPECT_TRUE(root == HKEY_LOCAL_MACHINE && access == KEY_READ);
    EXPECT_STREQ("HARDWARE\\DESCRIPTION\\System\\CentralProcessor\\0\\", subKey);
    *key = reinterpret_cast<HKEY>(0x1234);
    return gOpenResult;
}
LSTATUS WINAPI FakeQuery(HKEY, LPCSTR name, LPDWORD, LPDWORD, LPBYTE data, LPDWORD size) {
    EXPECT_STREQ("~MHz", name);
    EXPECT_EQ(4u, *size);
    DWORD mhz = 3600; // written even when the call fails
    std::memcpy(data, &mhz, 4);
    return gQueryResult;
}
LSTATUS WINAPI FakeClose(HKEY) {
    ++gCloses;
    return ERROR_SUCCESS;
}
void WINAPI FakeSystemInfo(LPSYSTEM_INFO info) { info->dwNumberOfProcessors = 12; }
BOOL WINAPI FakeEnum(LPCSTR device, DWORD index, PDISPLAY_DEVICEA out, DWORD flags) {
    EXPECT_TRUE(!device && flags == 0 && out->cb == sizeof(DISPLAY_DEVICEA));
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
HDEVINFO WINAPI FakeClassDevs(const GUID* cls, PCSTR enumerator, HWND window, DWORD flags) {
    const GUID kDisplayClass = {0x4d36e968, 0xe325, 0x11ce, {0xbf, 0xc1, 0x08, 0x00, 0x2b, 0xe1, 0x03, 0x18}};
    EXPECT_TRUE(IsEqualGUID(*cls, kDisplayClass));
    EXPECT_TRUE(!enumerator && !window && flags == DIGCF_PRESENT);
    ++gClassDevsCalls;
    return gClassDevsFails ? INVALID_HANDLE_VALUE : kFakeSet;
}
BOOL WINAPI FakeEnumInfo(HDEVINFO set, DWORD index, PSP_DEVINFO_DATA data) {
    EXPECT_TRUE(set == kFakeSet && data->cbSize == sizeof(SP_DEVINFO_DATA));
    if (index >= gPresent.size()) {
        SetLastError(ERROR_NO_MORE_ITEMS);
        return FALSE;
    }
    data->DevInst = index;
    return TRUE;
}
BOOL WINAPI FakeProperty(HDEVINFO, PSP_DEVINFO_DATA data, DWORD property, PDWORD, PBYTE buffer, DWORD size,
                         PDWORD needed) {
    const FakePresent& device = gPresent[data->DevInst];
    const char* text = property == SPDRP_HARDWAREID ? device.hardwareId : device.description;
    SetLastError(data->DevInst == gPropertyFailsAt ? ERROR_ACCESS_DENIED : ERROR_INVALID_DATA);
    if (!text || data->DevInst == gPropertyFailsAt) return FALSE;
    *needed = DWORD(std::strlen(text) + 1); // stored without the list's closing zero
    if (size < *needed) {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return FALSE;
    }
    std::memcpy(buffer, text, *needed);
    return TRUE;
}
BOOL WINAPI FakeDestroy(HDEVINFO set) {
    EXPECT_EQ(kFakeSet, set);
    ++gDestroyed;
    return TRUE;
}

// A hybrid laptop: the integrated GPU drives the panel, the discrete one only renders.
const std::vector<FakeDevice> kHybrid = {
    {DISPLAY_DEVICE_ATTACHED_TO_DESKTOP | DISPLAY_DEVICE_PRIMARY_DEVICE, "PCI\\VEN_8086&DEV_A7A0&SUBSYS_8A2C1043",
     "Intel(R) Iris(R) Xe Graphics"},
    {0, "PCI\\VEN_10DE&DEV_28E0&SUBSYS_8A2C1043&REV_A1", "NVIDIA GeForce RTX 4060 Laptop GPU"}};
const std::vector<FakePresent> kHybridPresent = {
    {"PCI\\VEN_8086&DEV_A7A0&SUBSYS_8A2C1043&REV_04", "Intel(R) Iris(R) Xe Graphics"},
    {"PCI\\VEN_10DE&DEV_28E0&SUBSYS_8A2C1043&REV_A1", "NVIDIA GeForce RTX 4060 Laptop GPU"}};

// Puts the fake machine in place for one test and the real calls back afterwards.
class ProbeW32 : public keeltest::TempFolderTest {
protected:
    void SetUp() override {
        keeltest::TempFolderTest::SetUp();
        mSaved = oRigwardenWin32Calls();
        oRigwardenWin32Calls() = {FakeOpen,   FakeQuery,     FakeClose,    FakeSystemInfo, FakeEnum,
                                  FakeMemory, FakeClassDevs, FakeEnumInfo, FakeProperty,   FakeDestroy};
        gOpenResult = gQueryResult = ERROR_SUCCESS;
        gCloses = 0;
        gClassDevsFails = false;
        gPropertyFailsAt = DWORD(-1);
        Write("db/gpus.cfg", "8086 A7A0 1 1600 300 M\n10DE 28E0 3 1920 2500 M\n");
    }
    void TearDown() override {
        oRigwardenWin32Calls() = mSaved;
        keeltest::TempFolderTest::TearDown();
    }
    vsWin32Calls mSaved;
};

// Each adapter as "name vendor:device benchmark|".
std::string Adapters(const vsQueryResult& result) {
    std::string text;
    for (const vsGpuInfo& gpu : result.adapters)
        text += klpf("%s %x:%x %u|", gpu.name.Const(), gpu.vendorId, gpu.deviceId, gpu.benchmark).Const();
    return text;
}

std::string Describe(const vsQueryResult& result) {
    return Adapters(result) + klpf("%u %s|%u %u %llu", result.bestIndex, result.probeErrors.Const(), result.cpuMHz,
                       result.cpuCount, static_cast<unsigned long long>(result.totalPhysBytes)).Const();
}

} // namespace

TEST_F(ProbeW32, RegistryCountAndMemory) {
    klString errors;
    EXPECT_EQ(3600u, oRigwardenProbe::ReadCpuMHz(errors));
    gQueryResult = ERROR_FILE_NOT_FOUND;
    EXPECT_EQ(0u, oRigwardenProbe::ReadCpuMHz(errors));
    EXPECT_STREQ("Failed to detect CPU core speed from the system registry.\n", errors.Const());
    gOpenResult = ERROR_ACCESS_DENIED; // the value is never asked for, so one message only
    errors.clear();
    EXPECT_EQ(0u, oRigwardenProbe::ReadCpuMHz(errors));
    EXPECT_STREQ("Failed to get CPU info from the system registry.\n", errors.Const());
    EXPECT_EQ(2, gCloses); // a key that was never opened is never closed
    EXPECT_EQ(12u, oRigwardenProbe::ReadCpuCount());
    EXPECT_EQ(8ull << 30, oRigwardenProbe::ReadTotalPhysicalMemory());
}

TEST_F(ProbeW32, AttachedAdaptersAndWhatTheDeviceRegistryAdds) {
    const std::string longName(700, 'x'); // longer than the first buffer a property is read into
    const std::string kIntel = "Intel(R) Iris(R) Xe Graphics 8086:a7a0 300|",
                      kRtx = "NVIDIA GeForce RTX 4090 10de:2684 0|";
    const struct {
        std::vector<FakeDevice> devices;
        std::vector<FakePresent> present;
        bool registryFails;
        DWORD propertyFailsAt;
        std::string standard, all; // the adapters without and with the device registry
    } kMachines[] = {
        {kHybrid, kHybridPresent, false, DWORD(-1), kIntel,
         kIntel + "NVIDIA GeForce RTX 4060 Laptop GPU 10de:28e0 2500|"},
        // Present devices are deduplicated and inherit ids like attached ones.
        {{{DISPLAY_DEVICE_ATTACHED_TO_DESKTOP, "PCI\\VEN_10DE&DEV_2684&REV_A1", "NVIDIA GeForce RTX 4090"}},
         {{"PCI\\VEN_10DE&DEV_2684&REV_A1", "second name of the same card"},
          {"PCI\\DEV_1C03", "no vendor in the id"},
          {nullptr, "no hardware id at all"},
          {"PCI\\VEN_1002&DEV_744C", nullptr},
          {"PCI\\VEN_1002&DEV_73BF", longName.c_str()}},
         false, DWORD(-1), kRtx, kRtx + "no vendor in the id 10de:1c03 0|" + longName + " 1002:73bf 0|"},
        // A registry that fails, or fails on its third device, adds nothing.
        {kHybrid, kHybridPresent, true, DWORD(-1), kIntel, kIntel},
        {kHybrid, {kHybridPresent[0], kHybridPresent[1], {"PCI\\VEN_1002&DEV_744C", "Radeon"}}, false, 2, kIntel,
         kIntel},
    };
    for (const auto& machine : kMachines) {
        gDevices = machine.devices;
        gPresent = machine.present;
        gClassDevsFails = machine.registryFails;
        gPropertyFailsAt = machine.propertyFailsAt;
        gAskedIndexes.clear();
        gClassDevsCalls = gDestroyed = 0;
        EXPECT_EQ(machine.standard, Adapters(oRigwarden::RunQuery(Path("db").c_str())));
        EXPECT_EQ(0, gClassDevsCalls); // the launcher's own query never asks the device registry
        std::vector<DWORD> indexes(gDevices.size() + 1); // each index once, until FALSE
        for (DWORD i = 0; i < indexes.size(); ++i) indexes[i] = i;
        EXPECT_EQ(indexes, gAskedIndexes);
        EXPECT_EQ(machine.all, Adapters(oRigwarden::RunQuery(Path("db").c_str(), vsQueryAllAdapters)));
        EXPECT_EQ(machine.registryFails ? 0 : 1, gDestroyed);
    }
}

TEST_F(ProbeW32, CaptureThenReplayAnswersAsTheMachineDid) {
    gDevices = kHybrid;
    gDevices.push_back({DISPLAY_DEVICE_ATTACHED_TO_DESKTOP, "PCI\\VEN_1002&DEV_744C", "100% odd\tname"});
    gDevices.push_back({DISPLAY_DEVICE_ATTACHED_TO_DESKTOP, "PCI\\VEN_1002&DEV_73BF", ""});
    gPresent = kHybridPresent;
    gPresent.push_back({nullptr, "no hardware id"});
    const struct {
        LSTATUS open, query;
        bool registryFails;
    } kMachines[] = {{ERROR_SUCCESS, ERROR_SUCCESS, false},
                     {ERROR_ACCESS_DENIED, ERROR_SUCCESS, true},
                     {ERROR_SUCCESS, ERROR_FILE_NOT_FOUND, false}};
    for (const auto& machine : kMachines) {
        gOpenResult = machine.open;
        gQueryResult = machine.query;
        gClassDevsFails = machine.registryFails;
        klString db = Path("db").c_str(), folder = Path(klpf("snapshot%d", int(&machine - kMachines)).Const()).c_str(),
                 error;
        std::string standard = Describe(oRigwarden::RunQuery(db)),
                    all = Describe(oRigwarden::RunQuery(db, vsQueryAllAdapters));
        oRigwardenSnapshot::BeginCapture();
        ASSERT_TRUE(oRigwardenSnapshot::Write(folder, oRigwardenSnapshot::EndCapture(), "1.2.3", "{}\n", error))
            << error.Const();
        ASSERT_EQ(oRigwardenSnapshot::kUsable, oRigwardenSnapshot::Check(folder, "1.2.3", error)) << error.Const();
        ASSERT_TRUE(oRigwardenSnapshot::StartReplay(folder, error)) << error.Const();
        EXPECT_NE(FakeEnum, oRigwardenWin32Calls().enumDisplayDevicesA); // the fake machine is not asked again
        EXPECT_EQ(standard, Describe(oRigwarden::RunQuery(db)));
        EXPECT_EQ(all, Describe(oRigwarden::RunQuery(db, vsQueryAllAdapters)));
        oRigwardenSnapshot::StopReplay();
        EXPECT_EQ(FakeEnum, oRigwardenWin32Calls().enumDisplayDevicesA);
    }
    for (const char* damaged : {"rigwarden windows machine\nprocessors -1\nend\n",
                                "rigwarden windows machine\ndisplay 1 PCI%4 name\nend\n",
                                "rigwarden windows machine\nprocessors 4\n"}) {
        Write("damaged/windows-machine.txt", damaged);
        klString error;
        EXPECT_FALSE(oRigwardenSnapshot::StartReplay(Path("damaged").c_str(), error)) << damaged;
        EXPECT_STREQ("is damaged: windows-machine.txt cannot be read", error.Const());
        EXPECT_EQ(FakeEnum, oRigwardenWin32Calls().enumDisplayDevicesA);
    }
}
