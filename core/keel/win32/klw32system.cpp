// Windows half of the platform services.
#include "keel/klplatform.h"

#include <windows.h>

#include <malloc.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

namespace kl::platform {

uint32_t CurrentThreadId() { return GetCurrentThreadId(); }

// The performance counter rather than timeGetTime: millisecond-exact without changing the
// system timer's resolution, and no extra import library.
int64_t PerformanceCounter() {
    LARGE_INTEGER count;
    QueryPerformanceCounter(&count);
    return count.QuadPart;
}

int64_t PerformanceFrequency() {
    LARGE_INTEGER frequency;
    QueryPerformanceFrequency(&frequency);
    return frequency.QuadPart;
}

uint32_t Milliseconds() {
    LARGE_INTEGER count, frequency;
    QueryPerformanceCounter(&count);
    QueryPerformanceFrequency(&frequency);
    uint64_t ticks = uint64_t(count.QuadPart), perSecond = uint64_t(frequency.QuadPart);
    return static_cast<uint32_t>(ticks / perSecond * 1000u + ticks % perSecond * 1000u / perSecond);
}

size_t HeapUsableSize(void* p) { return p ? _msize(p) : 0; }

HeapStats QueryHeapStats() {
    HeapStats stats = {};
    _HEAPINFO entry = {};
    while (_heapwalk(&entry) == _HEAPOK) {
        stats.systemBytes += entry._size;
        if (entry._useflag == _USEDENTRY) stats.inUseBytes += entry._size;
    }
    // The CRT heap keeps no peak of its own, so the report keeps the highest it has seen.
    static uint64_t peak = 0;
    uint64_t seen = __atomic_load_n(&peak, __ATOMIC_SEQ_CST);
    while (seen < stats.systemBytes &&
           !__atomic_compare_exchange_n(&peak, &seen, stats.systemBytes, false, __ATOMIC_SEQ_CST,
                                        __ATOMIC_SEQ_CST)) {
    }
    stats.maxSystemBytes = seen > stats.systemBytes ? seen : stats.systemBytes;
    return stats;
}

int StrICmp(const char* a, const char* b) { return _stricmp(a, b); }

int FormatV(char* buf, size_t bufSize, const char* format, va_list args) {
    // _vsnprintf leaves a text of exactly bufSize - 1 characters unterminated.
    buf[bufSize - 1] = 0;
    return _vsnprintf(buf, bufSize - 1, format, args);
}

int FormatPositionalV(char* buf, size_t bufSize, const char* format, va_list args) {
    // _vsprintf_p treats a short buffer as an invalid parameter, so measure first.
    va_list measure;
    va_copy(measure, args);
    int needed = _vscprintf_p(format, measure);
    va_end(measure);
    if (needed < 0 || static_cast<size_t>(needed) >= bufSize) {
        buf[0] = 0;
        return -1;
    }
    return _vsprintf_p(buf, bufSize, format, args);
}

bool IsDebuggerAttached() { return IsDebuggerPresent() != FALSE; }

void ExecutablePath(char* buf, size_t bufSize) {
    DWORD length = GetModuleFileNameA(nullptr, buf, DWORD(bufSize));
    buf[length < bufSize ? length : 0] = 0;
}

bool SetEnv(const char* name, const char* value) { return _putenv_s(name, value) == 0; }

namespace {
DWORD gSwallowedCode = 0;
LONG CALLBACK SwallowReport(EXCEPTION_POINTERS* info) {
    return info->ExceptionRecord->ExceptionCode == gSwallowedCode ? EXCEPTION_CONTINUE_EXECUTION
                                                                  : EXCEPTION_CONTINUE_SEARCH;
}
} // namespace

void RaiseDebuggerReport(uint32_t code, bool continuable, const char* kind, const char* message) {
    if (!kind) kind = "";
    if (!message) message = "";
    ULONG_PTR args[4] = {strlen(kind), reinterpret_cast<ULONG_PTR>(kind), strlen(message),
                         reinterpret_cast<ULONG_PTR>(message)};
    if (!continuable) {
        RaiseException(code, EXCEPTION_NONCONTINUABLE, 4, args);
        return;
    }
    // The debugger sees the exception first; the handler then lets the program go on.
    gSwallowedCode = code;
    PVOID handler = AddVectoredExceptionHandler(1, SwallowReport);
    RaiseException(code, 0, 4, args);
    RemoveVectoredExceptionHandler(handler);
}

void HaltCallingThread() {
    SuspendThread(GetCurrentThread());
    for (;;) Sleep(INFINITE);
}

void FlushAndExit(int code) {
    _flushall();
    _exit(code);
}

} // namespace kl::platform
