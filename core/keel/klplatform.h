// The few operating-system services the portable keel code needs. One declaration
// here, one definition in win32/klw32system.cpp and one in posix/klposixsystem.cpp.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>

// For keel's few hot thread-local variables: on ELF systems they go into the static TLS
// block (initial-exec), so reaching one is a load from the thread pointer rather than a
// resolver call that also costs the caller a stack frame. Keep them few and small: even
// when keel lives in a library opened at run time, the loader's spare room holds them.
#if defined(__ELF__)
#define KL_STATIC_TLS __attribute__((tls_model("initial-exec")))
#else
#define KL_STATIC_TLS
#endif

namespace kl::platform {

// Id of the calling thread; never 0.
uint32_t CurrentThreadId();

// A steady millisecond clock from an arbitrary start; it wraps at 2^32, so only the
// unsigned difference of two readings means anything.
uint32_t Milliseconds();
// The system's high-resolution monotonic counter, and its ticks per second.
int64_t PerformanceCounter();
int64_t PerformanceFrequency();

// Bytes the system heap really gave block p (at least what was asked for); 0 for null.
size_t HeapUsableSize(void* p);

// The heap's own statistics. maxSystemBytes is the most it ever took from the system.
struct HeapStats {
    uint64_t maxSystemBytes;
    uint64_t systemBytes;
    uint64_t inUseBytes;
};
HeapStats QueryHeapStats();

// Case-insensitive comparison of two texts, byte-wise in the C locale.
int StrICmp(const char* a, const char* b);

// printf-style formatting into buf of bufSize bytes (bufSize > 0). The result is always
// terminated. Returns the character count, or -1 when the text did not fit in
// bufSize - 1 characters; buf then holds its first bufSize - 1 characters.
int FormatV(char* buf, size_t bufSize, const char* format, va_list args);
// The same, accepting positional references such as "%2$s %1$s". When the text does not
// fit, buf holds an empty text.
int FormatPositionalV(char* buf, size_t bufSize, const char* format, va_list args);

bool IsDebuggerAttached();

// Full path of the running program; empty when the system will not say.
void ExecutablePath(char* buf, size_t bufSize);

// Sets a variable of this process's environment; false on failure.
bool SetEnv(const char* name, const char* value);

// Hands a fatal report to an attached debugger. Returns only when the debugger lets
// the program go on (and always when the report is continuable).
void RaiseDebuggerReport(uint32_t code, bool continuable, const char* kind, const char* message);

// Stops the calling thread for good; the rest of the process runs on.
[[noreturn]] void HaltCallingThread();

// Flushes every stdio stream, then ends the process at once with no static destructors.
[[noreturn]] void FlushAndExit(int code);

#if defined(KEEL_COVERAGE)
extern "C" void __gcov_dump(void);
#endif
// Writes a coverage build's counters now (nothing elsewhere): an exit that skips atexit,
// or a death by signal, would lose them.
inline void FlushCoverage() {
#if defined(KEEL_COVERAGE)
    __gcov_dump();
#endif
}

} // namespace kl::platform
