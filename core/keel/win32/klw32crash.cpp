// Windows half of crash handling: the unhandled-exception filter, the C runtime's
// handlers, debugger output and minidumps through the dump library.
#include "keel/klcrash.h"

#include "keel/kldll.h"

#include <windows.h>
#include <dbghelp.h>

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>

// Written by the build; a local build is a "custom_build".
#ifndef KEEL_BUILD_NAME
#define KEEL_BUILD_NAME "custom_build"
#endif
#ifndef KEEL_BUILD_NUMBER
#define KEEL_BUILD_NUMBER 0
#endif
#ifndef KEEL_BUILD_CHANGE
#define KEEL_BUILD_CHANGE 0
#endif

namespace {

klCrashFilter gFilter = nullptr;
char gDumpPath[260];

// The user's filter has the portable signature; the system wants WINAPI.
LONG WINAPI FilterTrampoline(EXCEPTION_POINTERS* pointers) {
    klCrashFilter filter = __atomic_load_n(&gFilter, __ATOMIC_SEQ_CST);
    return filter ? static_cast<LONG>(filter(pointers)) : EXCEPTION_CONTINUE_SEARCH;
}

void OnAbort(int signo) { kl::crash::OnAbortSignal(signo); }
void OnPureCall() { kl::crash::OnPureCall(); }
void OnInvalidParameter(const wchar_t*, const wchar_t*, const wchar_t*, unsigned, uintptr_t) {
    kl::crash::OnInvalidParameter();
}

// A library loaded into someone else's process leaves process-wide settings to its host.
bool IsPartOfMainExecutable() {
    HMODULE own = nullptr;
    GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       reinterpret_cast<LPCSTR>(&IsPartOfMainExecutable), &own);
    return own == GetModuleHandleA(nullptr);
}

void InstallProcessWide(bool enable) {
    SetUnhandledExceptionFilter(enable && gFilter ? FilterTrampoline : nullptr);
    signal(SIGABRT, enable ? OnAbort : SIG_DFL);
    _set_purecall_handler(enable ? OnPureCall : nullptr);
    _set_invalid_parameter_handler(enable ? OnInvalidParameter : nullptr);
    _set_error_mode(enable ? _OUT_TO_STDERR : _OUT_TO_DEFAULT);
}

// msvcrt.dll has no _set_abort_behavior (and shows no abort dialog); newer runtimes do.
void SetAbortBehavior(unsigned flags) {
    using SetAbortBehaviorFn = unsigned(__cdecl*)(unsigned, unsigned);
    for (const char* runtime : {"ucrtbase.dll", "msvcr120.dll", "msvcr100.dll"}) {
        HMODULE module = GetModuleHandleA(runtime);
        void* entry = module ? reinterpret_cast<void*>(GetProcAddress(module, "_set_abort_behavior")) : nullptr;
        if (entry) reinterpret_cast<SetAbortBehaviorFn>(entry)(flags, _WRITE_ABORT_MSG);
    }
}

using MiniDumpWriteDumpFn = BOOL(WINAPI*)(HANDLE, DWORD, HANDLE, MINIDUMP_TYPE, PMINIDUMP_EXCEPTION_INFORMATION,
                                          PMINIDUMP_USER_STREAM_INFORMATION, PMINIDUMP_CALLBACK_INFORMATION);

struct BuildInfo {
    char name[64] = KEEL_BUILD_NAME;
    uint32_t number = KEEL_BUILD_NUMBER;
    uint32_t change = KEEL_BUILD_CHANGE;
};

MINIDUMP_USER_STREAM Stream(ULONG type, const void* data, size_t size) {
    return {type, static_cast<ULONG>(size), const_cast<void*>(data)};
}

bool WriteDump(MiniDumpWriteDumpFn write, HANDLE file, const char* name, const char* comment,
               void* exceptionPointers) {
    static const BuildInfo build;
    MINIDUMP_USER_STREAM streams[] = {
        Stream(0x1000B, name, strlen(name) + 1),
        Stream(0x10002, build.name, strlen(build.name) + 1),
        Stream(0x10005, &build.number, sizeof(build.number)),
        Stream(0x10004, &build.change, sizeof(build.change)),
        Stream(0x10007, comment, strlen(comment) + 1),
    };
    MINIDUMP_USER_STREAM_INFORMATION user = {5, streams};
    MINIDUMP_EXCEPTION_INFORMATION exception = {GetCurrentThreadId(),
                                                static_cast<EXCEPTION_POINTERS*>(exceptionPointers), FALSE};
    return write(GetCurrentProcess(), GetCurrentProcessId(), file, MiniDumpWithFullMemory,
                 exceptionPointers ? &exception : nullptr, &user, nullptr) != FALSE;
}

} // namespace

struct klCrashGuard::Saved {
    LPTOP_LEVEL_EXCEPTION_FILTER filter;
};

bool klUseCrashStack() { return true; }

klCrashGuard::klCrashGuard() : mSaved(new Saved) {
    mSaved->filter = SetUnhandledExceptionFilter(nullptr); // the only way to read it
    SetUnhandledExceptionFilter(mSaved->filter);
}

klCrashGuard::~klCrashGuard() {
    SetUnhandledExceptionFilter(mSaved->filter);
    delete mSaved;
}

namespace kl::crash {

// g++ code calls libstdc++'s __cxa_pure_virtual, which ends in std::terminate; the
// runtime's pure-call handler serves code built by other compilers.
void InstallPlatformHandlers(bool enable, klCrashFilter filter) {
    __atomic_store_n(&gFilter, filter, __ATOMIC_SEQ_CST);
    if (IsPartOfMainExecutable()) InstallProcessWide(enable);
    SetAbortBehavior(enable ? 0 : _WRITE_ABORT_MSG);
}

void DebuggerOutput(const char* text) { OutputDebugStringA(text); }

void WideDebugPrint(const wchar_t* text) {
    OutputDebugStringW(text);
    fputws(text, stdout);
}

const char* WriteMiniDump(const char* name, const char* comment, void* exceptionPointers) {
    klDLL library("dbghelp_korv.dll");
    auto write = reinterpret_cast<MiniDumpWriteDumpFn>(library.Symbol("MiniDumpWriteDump"));
    if (!write) return nullptr;
    char temp[260];
    DWORD length = GetTempPathA(sizeof(temp), temp);
    if (length == 0 || length >= sizeof(temp)) return nullptr;
    int pathLength = snprintf(gDumpPath, sizeof(gDumpPath), "%s%s.dmp", temp, name);
    if (pathLength < 0 || pathLength >= static_cast<int>(sizeof(gDumpPath))) return nullptr;
    HANDLE file = CreateFileA(gDumpPath, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return nullptr;
    bool written = WriteDump(write, file, name, comment, exceptionPointers);
    CloseHandle(file);
    return written ? gDumpPath : nullptr;
}

klString LastErrorText() {
    DWORD error = GetLastError();
    char* text = nullptr;
    FormatMessageA(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM, nullptr, error,
                   MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), reinterpret_cast<LPSTR>(&text), 0, nullptr);
    klString result(text ? text : "");
    if (text) LocalFree(text);
    return result;
}

} // namespace kl::crash
