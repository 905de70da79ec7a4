// The Windows probes: the processor's nominal clock from the registry, the processor
// count, the display adapters attached to the desktop (and, when asked, every present
// display device of the device registry) and the physical memory.
#include "../oRigwarden.h"
#include "oRigwardenWin32Calls.h"

const GUID kDisplayDeviceClass = {
    0x4d36e968, 0xe325, 0x11ce, {0xbf, 0xc1, 0x08, 0x00, 0x2b, 0xe1, 0x03, 0x18}};

namespace {

// Far above any machine's display devices; a registry that lists more is not believed.
constexpr DWORD kMaxPresentDevices = 256;

// The first string of one device's text property (a hardware id list holds several, the
// most specific first). An absent property reads as empty; false when the call fails
// otherwise. The buffer keeps two zero bytes of its own at the end, since the registry
// does not promise to terminate what it stores.
bool ReadTextProperty(HDEVINFO set, SP_DEVINFO_DATA& device, DWORD property, std::string& text) {
    std::vector<char> buffer(512, 0);
    for (int attempt = 0; attempt < 2; ++attempt) {
        DWORD needed = 0;
        if (oRigwardenWin32Calls().setupDiGetDeviceRegistryPropertyA(
                set, &device, property, nullptr, reinterpret_cast<PBYTE>(buffer.data()),
                DWORD(buffer.size() - 2), &needed)) {
            text = buffer.data();
            return true;
        }
        DWORD error = GetLastError();
        if (error == ERROR_INVALID_DATA) {
            text.clear();
            return true;
        }
        if (error != ERROR_INSUFFICIENT_BUFFER || needed > 65536) return false;
        buffer.assign(needed + 2, 0);
    }
    return false;
}

} // namespace

vsWin32Calls& oRigwardenWin32Calls() {
    static vsWin32Calls calls = {RegOpenKeyExA,
                                 RegQueryValueExA,
                                 RegCloseKey,
                                 GetSystemInfo,
                                 EnumDisplayDevicesA,
                                 GlobalMemoryStatusEx,
                                 SetupDiGetClassDevsA,
                                 SetupDiEnumDeviceInfo,
                                 SetupDiGetDeviceRegistryPropertyA,
                                 SetupDiDestroyDeviceInfoList};
    return calls;
}

void vsEnumDisplayDevices(const std::function<void(DWORD, char*, const char*)>& visit) {
    DISPLAY_DEVICEA device = {};
    device.cb = sizeof(device);
    // Every index is asked once, whatever becomes of its device.
    for (DWORD index = 0; oRigwardenWin32Calls().enumDisplayDevicesA(nullptr, index, &device, 0);
         ++index)
        visit(device.StateFlags, device.DeviceID, device.DeviceString);
}

bool vsReadPresentDisplayDevices(std::vector<vsPresentDevice>& devices) {
    const vsWin32Calls& calls = oRigwardenWin32Calls();
    // The registry's view of the devices: nothing here opens a device, so a discrete GPU
    // that sleeps stays asleep.
    HDEVINFO set =
        calls.setupDiGetClassDevsA(&kDisplayDeviceClass, nullptr, nullptr, DIGCF_PRESENT);
    if (set == INVALID_HANDLE_VALUE) return false;
    std::vector<vsPresentDevice> found;
    bool ok = false;
    for (DWORD index = 0; index < kMaxPresentDevices; ++index) {
        SP_DEVINFO_DATA device = {};
        device.cbSize = sizeof(device);
        if (!calls.setupDiEnumDeviceInfo(set, index, &device)) {
            ok = GetLastError() == ERROR_NO_MORE_ITEMS;
            break;
        }
        vsPresentDevice present;
        if (!ReadTextProperty(set, device, SPDRP_HARDWAREID, present.hardwareId) ||
            !ReadTextProperty(set, device, SPDRP_DEVICEDESC, present.description))
            break;
        found.push_back(present);
    }
    calls.setupDiDestroyDeviceInfoList(set);
    if (ok) devices.insert(devices.end(), found.begin(), found.end());
    return ok;
}

uint32_t oRigwardenProbe::ReadCpuMHz(klString& errors) {
    const vsWin32Calls& calls = oRigwardenWin32Calls();
    HKEY key;
    if (calls.regOpenKeyExA(HKEY_LOCAL_MACHINE,
                            "HARDWARE\\DESCRIPTION\\System\\CentralProcessor\\0\\", 0, KEY_READ,
                            &key) != ERROR_SUCCESS) {
        errors << kCpuInfoMissingMessage;
        return 0;
    }
    DWORD mhz = 0, size = sizeof(mhz);
    if (calls.regQueryValueExA(key, "~MHz", nullptr, nullptr, reinterpret_cast<LPBYTE>(&mhz),
                               &size) != ERROR_SUCCESS) {
        errors << kCpuSpeedMissingMessage;
        mhz = 0;
    }
    calls.regCloseKey(key);
    return mhz;
}

uint32_t oRigwardenProbe::ReadCpuCount() {
    SYSTEM_INFO info = {};
    oRigwardenWin32Calls().getSystemInfo(&info);
    return info.dwNumberOfProcessors;
}

void oRigwardenProbe::ReadAdapters(std::vector<vsGpuInfo>& adapters, bool allPresent) {
    vsAdapterCollector collector(adapters);
    vsEnumDisplayDevices([&](DWORD flags, char* id, const char* description) {
        collector.Add((flags & DISPLAY_DEVICE_ATTACHED_TO_DESKTOP) != 0, id, description);
    });
    std::vector<vsPresentDevice> present;
    // A registry that cannot be read whole adds nothing: the attached adapters stand.
    if (!allPresent || !vsReadPresentDisplayDevices(present)) return;
    // After the attached ones, so an adapter seen by both keeps its desktop name.
    for (vsPresentDevice& device : present)
        collector.Add(true, device.hardwareId.data(), device.description.c_str());
}

uint64_t oRigwardenProbe::ReadTotalPhysicalMemory() {
    MEMORYSTATUSEX status = {};
    status.dwLength = sizeof(status);
    // A failed call leaves 0, which fails the memory check: the cautious answer.
    oRigwardenWin32Calls().globalMemoryStatusEx(&status);
    return status.ullTotalPhys;
}
