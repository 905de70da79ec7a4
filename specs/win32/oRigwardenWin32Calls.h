// The Windows calls the probes make, gathered in one table so that tests can stand in
// for the machine. The table starts out pointing at the real functions.
#pragma once

#include <windows.h>

#include <setupapi.h>

#include <functional>
#include <string>
#include <vector>

struct vsWin32Calls {
    LSTATUS(WINAPI* regOpenKeyExA)(HKEY, LPCSTR, DWORD, REGSAM, PHKEY);
    LSTATUS(WINAPI* regQueryValueExA)(HKEY, LPCSTR, LPDWORD, LPDWORD, LPBYTE, LPDWORD);
    LSTATUS(WINAPI* regCloseKey)(HKEY);
    void(WINAPI* getSystemInfo)(LPSYSTEM_INFO);
    BOOL(WINAPI* enumDisplayDevicesA)(LPCSTR, DWORD, PDISPLAY_DEVICEA, DWORD);
    BOOL(WINAPI* globalMemoryStatusEx)(LPMEMORYSTATUSEX);
    // The device registry, asked only by the all-adapters query.
    HDEVINFO(WINAPI* setupDiGetClassDevsA)(const GUID*, PCSTR, HWND, DWORD);
    BOOL(WINAPI* setupDiEnumDeviceInfo)(HDEVINFO, DWORD, PSP_DEVINFO_DATA);
    BOOL(WINAPI* setupDiGetDeviceRegistryPropertyA)
    (HDEVINFO, PSP_DEVINFO_DATA, DWORD, PDWORD, PBYTE, DWORD, PDWORD);
    BOOL(WINAPI* setupDiDestroyDeviceInfoList)(HDEVINFO);
};

// The table every probe reads; replace entries to fake a machine, restore them after.
vsWin32Calls& oRigwardenWin32Calls();

// The display device class of the device registry, {4d36e968-e325-11ce-bfc1-08002be10318}.
extern const GUID kDisplayDeviceClass;

// Calls visit(StateFlags, DeviceID, DeviceString) for each device EnumDisplayDevicesA
// reports, from index 0 until it answers FALSE. DeviceID may be changed in place.
void vsEnumDisplayDevices(const std::function<void(DWORD, char*, const char*)>& visit);

// One present display-class device as the device registry knows it.
struct vsPresentDevice {
    std::string hardwareId;  // the first (most specific) hardware id; empty when it has none
    std::string description; // the device description
};

// Appends every present display-class device of the device registry, in its order. When
// a call fails (anything but the end of the list or an absent property) nothing is
// appended and the result is false.
bool vsReadPresentDisplayDevices(std::vector<vsPresentDevice>& devices);
