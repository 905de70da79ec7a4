// Windows half of library loading.
#include "keel/kldll.h"

#include <windows.h>

namespace kl::dll {

void* Open(const char* libname) { return LoadLibraryA(libname); }
void* OpenWide(const wchar_t* libname) { return LoadLibraryW(libname); }
bool Close(void* handle) { return FreeLibrary(static_cast<HMODULE>(handle)) != FALSE; }
void* Symbol(void* handle, const char* name) {
    return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(handle), name));
}

} // namespace kl::dll
