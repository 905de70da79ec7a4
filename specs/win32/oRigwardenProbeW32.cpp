// The Windows probes: the processor's nominal clock from the registry, the processor
// count, the display adapters attached to the desktop and the physical memory.
#include "../oRigwarden.h"
#include "oRigwardenWin32Calls.h"

vsWin32Calls& oRigwardenWin32Calls() {
    static vsWin32Calls calls = {RegOpenKeyExA, RegQueryValueExA, RegCloseKey,
                                 GetSystemInfo, EnumDisplayDevicesA, GlobalMemoryStatusEx};
    return calls;
}

uint32_t oRigwardenProbe::ReadCpuMHz(klString& errors) {
    const vsWin32Calls& calls = oRigwardenWin32Calls();
    HKEY key;
    if (calls.regOpenKeyExA(HKEY_LOCAL_MACHINE, "HARDWARE\\DESCRIPTION\\System\\CentralProcessor\\0\\", 0,
                            KEY_READ, &key) != ERROR_SUCCESS) {
        errors << kCpuInfoMissingMessage;
        return 0;
    }
    DWORD mhz = 0, size = sizeof(mhz);
    if (calls.regQueryValueExA(key, "~MHz", nullptr, nullptr, reinterpret_cast<LPBYTE>(&mhz), &size) !=
        ERROR_SUCCESS) {
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

void oRigwardenProbe::ReadAdapters(std::vector<vsGpuInfo>& adapters) {
    vsAdapterCollector collector(adapters);
    DISPLAY_DEVICEA device = {};
    device.cb = sizeof(device);
    // Every index is asked once, whatever becomes of its device.
    for (DWORD index = 0; oRigwardenWin32Calls().enumDisplayDevicesA(nullptr, index, &device, 0); ++index) {
        collector.Add((device.StateFlags & DISPLAY_DEVICE_ATTACHED_TO_DESKTOP) != 0, device.DeviceID,
                      device.DeviceString);
    }
}

uint64_t oRigwardenProbe::ReadTotalPhysicalMemory() {
    MEMORYSTATUSEX status = {};
    status.dwLength = sizeof(status);
    // A failed call leaves 0, which fails the memory check: the cautious answer.
    oRigwardenWin32Calls().globalMemoryStatusEx(&status);
    return status.ullTotalPhys;
}
