// The Windows calls behind the operating-system description, gathered in one table so
// that tests can stand in for any version of Windows, and the console control handler.
#pragma once

#include "keel/klsystem.h"

#include <windows.h>

struct klW32SysInfoCalls {
    BOOL(WINAPI* getVersionExA)(LPOSVERSIONINFOA);
    // Looked up in kernel32.dll, which lacks it before XP; null: getSystemInfo is used.
    void(WINAPI* getNativeSystemInfo)(LPSYSTEM_INFO);
    void(WINAPI* getSystemInfo)(LPSYSTEM_INFO);
    BOOL(WINAPI* getProductInfo)(DWORD, DWORD, DWORD, DWORD, PDWORD);
    int(WINAPI* getSystemMetrics)(int);
};

// The table the description reads; replace entries to fake a system, restore them after.
klW32SysInfoCalls& klW32SystemCalls();

// The version facts through the table; false when the version call fails.
bool klW32ReadWindowsVersion(klWindowsVersion* out);

// The console control handler that klInstallKillSignalHandler installs.
BOOL WINAPI klW32KillSignalHandler(DWORD event);
