// Starts and stops keel's singletons as the DLL is loaded and unloaded. The C runtime
// has run every static constructor of the DLL before DllMain is called.
#include "keel/kllifetime.h"

#include <windows.h>

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID) {
    if (reason == DLL_PROCESS_ATTACH) klObjectLifetimeManager::Initialize();
    if (reason == DLL_PROCESS_DETACH) klObjectLifetimeManager::Shutdown();
    return TRUE;
}
