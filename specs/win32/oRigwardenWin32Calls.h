// The Windows calls the probes make, gathered in one table so that tests can stand in
// for the machine. The table starts out pointing at the real functions.
#pragma once

#include <windows.h>

struct vsWin32Calls {
    LSTATUS(WINAPI* regOpenKeyExA)(HKEY, LPCSTR, DWORD, REGSAM, PHKEY);
    LSTATUS(WINAPI* regQueryValueExA)(HKEY, LPCSTR, LPDWORD, LPDWORD, LPBYTE, LPDWORD);
    LSTATUS(WINAPI* regCloseKey)(HKEY);
    void(WINAPI* getSystemInfo)(LPSYSTEM_INFO);
    BOOL(WINAPI* enumDisplayDevicesA)(LPCSTR, DWORD, PDISPLAY_DEVICEA, DWORD);
    BOOL(WINAPI* globalMemoryStatusEx)(LPMEMORYSTATUSEX);
};

// The table every probe reads; replace entries to fake a machine, restore them after.
vsWin32Calls& oRigwardenWin32Calls();
