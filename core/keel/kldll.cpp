#include "keel/kldll.h"

#include "keel/klassert.h"
#include "keel/klcrash.h"

#include "keel/kllog.h"

namespace {

template <typename Name, typename Open>
void* ProtectedLoad(Name libname, Open open) {
    klCrashGuard guard; // puts back whatever the library's start-up code installs
    return open(libname);
}

} // namespace

klDLL::klDLL(const char* libname) {
    if (!klAssertMsg(libname, "ERROR: klDLL::klDLL() requires a library's name!")) return;
    mHandle = ProtectedLoad(libname, kl::dll::Open);
    if (!mHandle) klConsoleLogger().Error("klLoadLibrary (%s) failed", libname);
}

void klDLL::Unload() {
    if (!mHandle) return;
    if (!kl::dll::Close(mHandle)) klConsoleLogger().Error("FreeLibrary failed");
    mHandle = nullptr;
}

void* klDLL::Symbol(const char* name) const { return mHandle ? kl::dll::Symbol(mHandle, name) : nullptr; }

void* klLoadLibrary(const wchar_t* libname) { return libname ? ProtectedLoad(libname, kl::dll::OpenWide) : nullptr; }
