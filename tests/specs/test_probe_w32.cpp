// The Windows probes against a machine made of fake system calls.
#include "oRigwarden.h"
#include "oRigwardenSnapshot.h"
#include "win32/oRigwardenWin32Calls.h"

#include "../keel/keel_test.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace {

// A display the enumeration reports, or a present device of the device registry (null: no such property).
struct FakeDevice {
    DWORD flags;
    const char *id, *name;
};
// The fake machine, and what the probes asked of it.
struct Fake {
    std::vector<FakeDevice> devices = {}, present = {};
    LSTATUS open = ERROR_SUCCESS, query = ERROR_SUCCESS;
    bool classDevsFails = false;
    int closes = 0, classDevsCalls = 0, destroyed = 0;
    size_t nextIndex = 0; // of the enumeration: each index once, until FALSE
} gFake;

LSTATUS WINAPI FakeOpen(HKEY, LPCSTR, DWORD, REGSAM, PHKEY key) {
    *key = reinterpret_cast<HKEY>(0x1234);
    return gFake.open;
}
LSTATUS WINAPI FakeQuery(HKEY, LPCSTR, LPDWORD, LPDWORD, LPBYTE data, LPDWORD) {
    DWORD mhz = 3600; // written even when the call fails
    std::memcpy(data, &mhz, 4);
    return gFake.query;
}
LSTATUS WINAPI FakeClose(HKEY) {
    ++gFake.closes;
    return ERROR_SUCCESS;
}
void WINAPI FakeSystemInfo(LPSYSTEM_INFO info) { info->dwNumberOfProcessors = 12; }
BOOL WINAPI FakeEnum(LPCSTR, DWORD index, PDISPLAY_DEVICEA out, DWORD) {
    EXPECT_EQ(sizeof(DISPLAY_DEVICEA), out->cb);
    EXPECT_EQ(gFake.nextIndex, index);
    gFake.nextIndex = index < gFake.devices.size() ? index + 1 : 0;
    if (index >= gFake.devices.size()) return FALSE;
    out->StateFlags = gFake.devices[index].flags;
    std::strcpy(out->DeviceID, gFake.devices[index].id);
    std::strcpy(out->DeviceString, gFake.devices[index].name);
    return TRUE;
}
BOOL WINAPI FakeMemory(LPMEMORYSTATUSEX status) {
    EXPECT_EQ(64u, status->dwLength);
    status->ullTotalPhys = 8ull << 30;
    return TRUE;
}
HDEVINFO WINAPI FakeClassDevs(const GUID*, PCSTR, HWND, DWORD flags) {
    EXPECT_EQ(DWORD(DIGCF_PRESENT), flags);
    ++gFake.classDevsCalls;
    return gFake.classDevsFails ? INVALID_HANDLE_VALUE : reinterpret_cast<HDEVINFO>(0x5678);
}
BOOL WINAPI FakeEnumInfo(HDEVINFO, DWORD index, PSP_DEVINFO_DATA data) {
    EXPECT_EQ(sizeof(SP_DEVINFO_DATA), data->cbSize);
    data->DevInst = index;
    SetLastError(ERROR_NO_MORE_ITEMS);
    return index < gFake.present.size();
}
BOOL WINAPI FakeProperty(HDEVINFO, PSP_DEVINFO_DATA data, DWORD property, PDWORD, PBYTE buffer, DWORD size,
                         PDWORD needed) {
    const FakeDevice& device = gFake.present[data->DevInst];
    const char* text = property == SPDRP_HARDWAREID ? device.id : device.name;
    SetLastError(text ? ERROR_INSUFFICIENT_BUFFER : ERROR_INVALID_DATA); // a short buffer, or no such property
    if (!text) return FALSE;
    *needed = DWORD(std::strlen(text) + 1); // stored without the list's closing zero
    if (size >= *needed) std::memcpy(buffer, text, *needed);
    return size >= *needed;
}
BOOL WINAPI FakeDestroy(HDEVINFO) {
    ++gFake.destroyed;
    return TRUE;
}

// A hybrid laptop: the integrated GPU drives the panel, the discrete one only renders.
const std::vector<FakeDevice> kHybrid = {
    {DISPLAY_DEVICE_ATTACHED_TO_DESKTOP | DISPLAY_DEVICE_PRIMARY_DEVICE, "PCI\\VEN_8086&DEV_A7A0&SUBSYS_8A2C1043",
     "Intel(R) Iris(R) Xe Graphics"},
    {0, "PCI\\VEN_10DE&DEV_28E0&SUBSYS_8A2C1043&REV_A1", "NVIDIA GeForce RTX 4060 Laptop GPU"}};

// Puts the fake machine in place for one test and the real calls back afterwards.
class ProbeW32 : public keeltest::TempFolderTest {
protected:
    void SetUp() override {
        keeltest::TempFolderTest::SetUp();
        oRigwardenWin32Calls() = {FakeOpen,   FakeQuery,     FakeClose,    FakeSystemInfo, FakeEnum,
                                  FakeMemory, FakeClassDevs, FakeEnumInfo, FakeProperty,   FakeDestroy};
        gFake = {.present = kHybrid};
        Write("db/gpus.cfg", "8086 A7A0 1 1600 300 M\n10DE 28E0 3 1920 2500 M\n");
    }
    ~ProbeW32() override { oRigwardenWin32Calls() = mSaved; }
    vsWin32Calls mSaved = oRigwardenWin32Calls();
};

// Each adapter as "name vendor:device benchmark|".
std::string Adapters(const vsQueryResult& result) {
    std::string text;
    for (const vsGpuInfo& gpu : result.adapters)
        text += klpf("%s %x:%x %u|", gpu.name.Const(), gpu.vendorId, gpu.deviceId, gpu.benchmark).Const();
    return text;
}

} // namespace

TEST_F(ProbeW32, AttachedAdaptersAndWhatTheDeviceRegistryAdds) {
    const std::string longName(700, 'x'); // longer than the first buffer a property is read into
    const std::string kIntel = "Intel(R) Iris(R) Xe Graphics 8086:a7a0 300|",
                      kRtx = "NVIDIA GeForce RTX 4090 10de:2684 0|";
    const struct {
        Fake fake;
        std::string standard, all; // the adapters without and with the device registry
    } kMachines[] = {
        {{kHybrid, kHybrid}, kIntel, kIntel + "NVIDIA GeForce RTX 4060 Laptop GPU 10de:28e0 2500|"},
        // Present devices are deduplicated like attached ones; an absent property is no device.
        {{{{DISPLAY_DEVICE_ATTACHED_TO_DESKTOP, "PCI\\VEN_10DE&DEV_2684&REV_A1", "NVIDIA GeForce RTX 4090"}},
          {{0, "PCI\\VEN_10DE&DEV_2684&REV_A1", "second name of the same card"},
           {0, nullptr, "no hardware id at all"},
           {0, "PCI\\VEN_1002&DEV_744C", nullptr},
           {0, "PCI\\VEN_1002&DEV_73BF", longName.c_str()}}},
         kRtx, kRtx + longName + " 1002:73bf 0|"},
        // A registry that fails adds nothing.
        {{.devices = kHybrid, .present = kHybrid, .classDevsFails = true}, kIntel, kIntel},
    };
    for (const auto& machine : kMachines) {
        gFake = machine.fake;
        EXPECT_EQ(machine.standard, Adapters(oRigwarden::RunQuery(Path("db").c_str())));
        EXPECT_EQ(0, gFake.classDevsCalls); // the launcher's own query never asks the device registry
        EXPECT_EQ(0u, gFake.nextIndex); // the enumeration went on to its end
        EXPECT_EQ(machine.all, Adapters(oRigwarden::RunQuery(Path("db").c_str(), vsQueryAllAdapters)));
        EXPECT_EQ(machine.fake.classDevsFails ? 0 : 1, gFake.destroyed);
    }
}

TEST_F(ProbeW32, CaptureThenReplayAnswersAsTheMachineDid) {
    gFake.devices = kHybrid;
    gFake.devices.push_back({DISPLAY_DEVICE_ATTACHED_TO_DESKTOP, "PCI\\VEN_1002&DEV_744C", "100% odd\tname"});
    gFake.devices.push_back({DISPLAY_DEVICE_ATTACHED_TO_DESKTOP, "PCI\\VEN_1002&DEV_73BF", ""});
    gFake.present.push_back({0, nullptr, "no hardware id"});
    auto describe = [](const vsQueryResult& result) {
        return Adapters(result) + klpf("%u %s|%u %u %llu", result.bestIndex, result.probeErrors.Const(), result.cpuMHz,
                                       result.cpuCount, static_cast<unsigned long long>(result.totalPhysBytes))
                                      .Const();
    };
    // Everything answers; then the registry key and the device registry fail (so the clock's
    // value is never asked for); then the clock's value, which the call writes all the same.
    const LSTATUS kOpen[] = {ERROR_SUCCESS, ERROR_ACCESS_DENIED, ERROR_SUCCESS},
                  kQuery[] = {ERROR_SUCCESS, ERROR_SUCCESS, ERROR_FILE_NOT_FOUND};
    const char* kClock[] = {"|3600 12 8589934592", "Failed to get CPU info from the system registry.\n|0 12 8589934592",
                            "Failed to detect CPU core speed from the system registry.\n|0 12 8589934592"};
    for (int i = 0; i < 3; ++i) {
        gFake.open = kOpen[i];
        gFake.query = kQuery[i];
        gFake.classDevsFails = i == 1;
        klString db = Path("db").c_str(), folder = Path(klpf("snapshot%d", i).Const()).c_str(), error;
        std::string standard = describe(oRigwarden::RunQuery(db)),
                    all = describe(oRigwarden::RunQuery(db, vsQueryAllAdapters));
        EXPECT_EQ(standard.size() - std::strlen(kClock[i]), standard.rfind(kClock[i])) << standard;
        oRigwardenSnapshot::BeginCapture();
        ASSERT_TRUE(oRigwardenSnapshot::Write(folder, oRigwardenSnapshot::EndCapture(), "1.2.3", "{}\n", error))
            << error.Const();
        ASSERT_EQ(oRigwardenSnapshot::kUsable, oRigwardenSnapshot::Check(folder, "1.2.3", error)) << error.Const();
        ASSERT_TRUE(oRigwardenSnapshot::StartReplay(folder, error)) << error.Const();
        EXPECT_NE(FakeEnum, oRigwardenWin32Calls().enumDisplayDevicesA); // the fake machine is not asked again
        EXPECT_EQ(standard, describe(oRigwarden::RunQuery(db)));
        EXPECT_EQ(all, describe(oRigwarden::RunQuery(db, vsQueryAllAdapters)));
        oRigwardenSnapshot::StopReplay();
        EXPECT_EQ(FakeEnum, oRigwardenWin32Calls().enumDisplayDevicesA);
    }
    EXPECT_EQ(6, gFake.closes); // three reads where the key opens (two queries, the capture), none where not
    Write("damaged/windows-machine.txt", "rigwarden windows machine\ndisplay 1 PCI%4 name\nend\n"); // a bad escape
    klString error;
    EXPECT_FALSE(oRigwardenSnapshot::StartReplay(Path("damaged").c_str(), error));
    EXPECT_STREQ("is damaged: windows-machine.txt cannot be read", error.Const());
    EXPECT_EQ(FakeEnum, oRigwardenWin32Calls().enumDisplayDevicesA);
}
