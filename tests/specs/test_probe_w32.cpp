// The Windows probes against a machine made of fake system calls.
#include "oRigwarden.h"
#include "oRigwardenSnapshot.h"
#include "win32/oRigwardenWin32Calls.h"

#include "../keel/keel_test.h"

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

// The device registry: present display devices; a null text is an absent property.
struct FakePresent {
    const char* hardwareId;
    const char* description;
};
std::vector<FakePresent> gPresent;
bool gClassDevsFails = false;
DWORD gPropertyFailsAt = DWORD(-1); // the device whose properties cannot be read
int gClassDevsCalls = 0, gDestroyed = 0;
const HDEVINFO kFakeSet = reinterpret_cast<HDEVINFO>(0x5678);

HDEVINFO WINAPI FakeClassDevs(const GUID* cls, PCSTR enumerator, HWND window, DWORD flags) {
    EXPECT_TRUE(IsEqualGUID(*cls, GUID{0x4d36e968, 0xe325, 0x11ce, {0xbf, 0xc1, 0x08, 0x00, 0x2b, 0xe1, 0x03, 0x18}}));
    EXPECT_EQ(nullptr, enumerator);
    EXPECT_EQ(nullptr, window);
    EXPECT_EQ(DWORD(DIGCF_PRESENT), flags);
    ++gClassDevsCalls;
    return gClassDevsFails ? INVALID_HANDLE_VALUE : kFakeSet;
}
BOOL WINAPI FakeEnumInfo(HDEVINFO set, DWORD index, PSP_DEVINFO_DATA data) {
    EXPECT_EQ(kFakeSet, set);
    EXPECT_EQ(sizeof(SP_DEVINFO_DATA), data->cbSize);
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

// Puts the fake machine in place for one test and the real calls back afterwards.
class ProbeW32 : public keeltest::TempFolderTest {
protected:
    void SetUp() override {
        keeltest::TempFolderTest::SetUp();
        mSaved = oRigwardenWin32Calls();
        oRigwardenWin32Calls() = {FakeOpen,   FakeQuery,     FakeClose,    FakeSystemInfo, FakeEnum,
                                  FakeMemory, FakeClassDevs, FakeEnumInfo, FakeProperty,   FakeDestroy};
        gOpenResult = gQueryResult = ERROR_SUCCESS;
        gCloses = gClassDevsCalls = gDestroyed = 0;
        gAskedIndexes.clear();
        gPresent.clear();
        gClassDevsFails = false;
        gPropertyFailsAt = DWORD(-1);
    }
    void TearDown() override {
        oRigwardenWin32Calls() = mSaved;
        keeltest::TempFolderTest::TearDown();
    }
    // A hybrid laptop: the integrated GPU drives the panel, the discrete one only renders.
    void SetUpHybridLaptop() {
        gDevices = {{DISPLAY_DEVICE_ATTACHED_TO_DESKTOP | DISPLAY_DEVICE_PRIMARY_DEVICE,
                     "PCI\\VEN_8086&DEV_A7A0&SUBSYS_8A2C1043&REV_04", "Intel(R) Iris(R) Xe Graphics"},
                    {0, "PCI\\VEN_10DE&DEV_28E0&SUBSYS_8A2C1043&REV_A1", "NVIDIA GeForce RTX 4060 Laptop GPU"}};
        gPresent = {{"PCI\\VEN_8086&DEV_A7A0&SUBSYS_8A2C1043&REV_04", "Intel(R) Iris(R) Xe Graphics"},
                    {"PCI\\VEN_10DE&DEV_28E0&SUBSYS_8A2C1043&REV_A1", "NVIDIA GeForce RTX 4060 Laptop GPU"}};
        Write("db/gpus.cfg", "8086 A7A0 1 1600 300 M\n10DE 28E0 3 1920 2500 M\n");
    }
    std::vector<vsGpuInfo> AllAdapters() {
        std::vector<vsGpuInfo> adapters;
        oRigwardenProbe::ReadAdapters(adapters, true);
        return adapters;
    }
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

TEST_F(ProbeW32, HybridLaptopShowsItsDiscreteGpuOnlyWhenAsked) {
    SetUpHybridLaptop();
    vsQueryResult standard = oRigwarden::RunQuery(Path("db").c_str());
    ASSERT_EQ(1u, standard.adapters.size());
    EXPECT_STREQ("Intel(R) Iris(R) Xe Graphics", standard.adapters[0].name.Const());
    EXPECT_EQ(0, gClassDevsCalls); // the launcher's own query never asks the device registry

    vsQueryResult all = oRigwarden::RunQuery(Path("db").c_str(), vsQueryAllAdapters);
    ASSERT_EQ(2u, all.adapters.size());
    EXPECT_STREQ("Intel(R) Iris(R) Xe Graphics", all.adapters[0].name.Const());
    EXPECT_STREQ("NVIDIA GeForce RTX 4060 Laptop GPU", all.adapters[1].name.Const());
    EXPECT_EQ(0x10DEu, all.adapters[1].vendorId);
    EXPECT_EQ(0x28E0u, all.adapters[1].deviceId);
    EXPECT_EQ(2500u, all.adapters[1].benchmark);
    EXPECT_EQ(1u, all.bestIndex);
    EXPECT_EQ(1, gDestroyed);
}

TEST_F(ProbeW32, PresentDevicesAreDeduplicatedAndInheritIdsLikeAttachedOnes) {
    gDevices = {{DISPLAY_DEVICE_ATTACHED_TO_DESKTOP, "PCI\\VEN_10DE&DEV_2684&REV_A1", "NVIDIA GeForce RTX 4090"}};
    const std::string longName(700, 'x'); // longer than the first buffer the property is read into
    gPresent = {{"PCI\\VEN_10DE&DEV_2684&REV_A1", "second name of the same card"},
                {"PCI\\DEV_1C03", "no vendor in the id"},
                {nullptr, "no hardware id at all"},
                {"PCI\\VEN_1002&DEV_744C", nullptr},
                {"PCI\\VEN_1002&DEV_73BF", longName.c_str()}};
    std::vector<vsGpuInfo> adapters = AllAdapters();
    ASSERT_EQ(3u, adapters.size());
    EXPECT_STREQ("NVIDIA GeForce RTX 4090", adapters[0].name.Const());
    EXPECT_STREQ("no vendor in the id", adapters[1].name.Const());
    EXPECT_EQ(0x10DEu, adapters[1].vendorId); // inherited, as from the display enumeration
    EXPECT_EQ(0x1C03u, adapters[1].deviceId);
    EXPECT_EQ(longName, adapters[2].name.Const());
    EXPECT_EQ(0x73BFu, adapters[2].deviceId);
}

TEST_F(ProbeW32, AFailingDeviceRegistryLeavesTheAttachedAdapters) {
    SetUpHybridLaptop();
    gClassDevsFails = true;
    EXPECT_EQ(1u, AllAdapters().size());
    EXPECT_EQ(0, gDestroyed);

    gClassDevsFails = false;
    gPresent.push_back({"PCI\\VEN_1002&DEV_744C", "AMD Radeon RX 7900 XTX"});
    gPropertyFailsAt = 2; // the two devices before it were read; they are dropped all the same
    std::vector<vsGpuInfo> adapters = AllAdapters();
    ASSERT_EQ(1u, adapters.size());
    EXPECT_STREQ("Intel(R) Iris(R) Xe Graphics", adapters[0].name.Const());
    EXPECT_EQ(1, gDestroyed);
}

namespace {

std::string Describe(const vsQueryResult& result) {
    std::string text = klpf("%s|%u %u %llu %u|", result.probeErrors.Const(), result.cpuMHz, result.cpuCount,
                            static_cast<unsigned long long>(result.totalPhysBytes), result.bestIndex).Const();
    for (const vsGpuInfo& gpu : result.adapters)
        text += klpf("%s %x %x %u;", gpu.name.Const(), gpu.vendorId, gpu.deviceId, gpu.benchmark).Const();
    return text;
}

} // namespace

TEST_F(ProbeW32, CaptureThenReplayAnswersAsTheMachineDid) {
    SetUpHybridLaptop();
    gDevices.push_back({DISPLAY_DEVICE_ATTACHED_TO_DESKTOP, "PCI\\VEN_1002&DEV_744C", "100% odd\tname"});
    gDevices.push_back({DISPLAY_DEVICE_ATTACHED_TO_DESKTOP, "PCI\\VEN_1002&DEV_73BF", ""});
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
