// Windows half of the system module: the description from the version calls, and the
// console control handler.
#include "keel/win32/klw32sysinfo.h"

namespace {

klW32SysInfoCalls MakeRealCalls() {
    HMODULE kernel = GetModuleHandleA("kernel32.dll");
    auto native = kernel ? GetProcAddress(kernel, "GetNativeSystemInfo") : nullptr;
    // A function pointer of another signature is how GetProcAddress answers; the cast
    // goes through void* so the compiler accepts it.
    auto nativeFn = reinterpret_cast<void(WINAPI*)(LPSYSTEM_INFO)>(reinterpret_cast<void*>(native));
    return {GetVersionExA, nativeFn, GetSystemInfo, GetProductInfo, GetSystemMetrics};
}

} // namespace

klW32SysInfoCalls& klW32SystemCalls() {
    static klW32SysInfoCalls calls = MakeRealCalls();
    return calls;
}

bool klW32ReadWindowsVersion(klWindowsVersion* out) {
    klW32SysInfoCalls& calls = klW32SystemCalls();
    OSVERSIONINFOEXA info = {};
    info.dwOSVersionInfoSize = sizeof(info);
    if (!calls.getVersionExA(reinterpret_cast<LPOSVERSIONINFOA>(&info))) return false;
    SYSTEM_INFO system = {};
    (calls.getNativeSystemInfo ? calls.getNativeSystemInfo : calls.getSystemInfo)(&system);
    DWORD product = 0;
    if (info.dwMajorVersion >= 6) calls.getProductInfo(info.dwMajorVersion, info.dwMinorVersion, 0, 0, &product);
    *out = {info.dwPlatformId, info.dwMajorVersion, info.dwMinorVersion, info.dwBuildNumber, info.wProductType,
            info.wSuiteMask, system.wProcessorArchitecture, product, calls.getSystemMetrics(SM_SERVERR2) != 0};
    return true;
}

klString kl::detail::QueryOperatingSystemDescription() {
    klWindowsVersion version;
    return klW32ReadWindowsVersion(&version) ? klDescribeWindows(version) : klString("Microsoft Windows (unknown version)");
}

BOOL WINAPI klW32KillSignalHandler(DWORD event) {
    switch (event) {
    case CTRL_C_EVENT:
    case CTRL_BREAK_EVENT:
    case CTRL_CLOSE_EVENT:
    case CTRL_LOGOFF_EVENT:
    case CTRL_SHUTDOWN_EVENT: kl::detail::OnKillSignal(); break;
    default: break;
    }
    return TRUE; // every event counts as handled, known or not
}

void kl::detail::InstallKillSignalHandler() { SetConsoleCtrlHandler(klW32KillSignalHandler, TRUE); }

namespace {

// A text value of an open registry key; empty when it is missing or no text.
klString RegistryText(HKEY key, const char* name) {
    char text[2048];
    DWORD type = 0, size = sizeof(text) - 1;
    if (RegQueryValueExA(key, name, nullptr, &type, reinterpret_cast<BYTE*>(text), &size) != ERROR_SUCCESS ||
        type != REG_SZ)
        return klString();
    text[size] = 0;
    return klString(text);
}

} // namespace

// Read from the registry rather than through WinHTTP: this runs inside Initialize, which a
// library calls from its load hook, where loading another library is not safe.
void kl::detail::ReadProxySettings(klString& server, klString& bypass) {
    HKEY key;
    if (RegOpenKeyExA(HKEY_CURRENT_USER, "Software\\Microsoft\\Windows\\CurrentVersion\\Internet Settings", 0,
                      KEY_QUERY_VALUE, &key) != ERROR_SUCCESS)
        return;
    DWORD enabled = 0, size = sizeof(enabled);
    if (RegQueryValueExA(key, "ProxyEnable", nullptr, nullptr, reinterpret_cast<BYTE*>(&enabled), &size) ==
            ERROR_SUCCESS && enabled) {
        server = RegistryText(key, "ProxyServer");
        bypass = RegistryText(key, "ProxyOverride");
    }
    RegCloseKey(key);
}
