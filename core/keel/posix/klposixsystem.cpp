// Linux half of the platform services.
#include "keel/klplatform.h"

#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <strings.h>
#include <time.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kl::platform {

uint32_t CurrentThreadId() {
    static thread_local uint32_t id = static_cast<uint32_t>(syscall(SYS_gettid));
    return id;
}

uint32_t Milliseconds() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint32_t>(uint64_t(now.tv_sec) * 1000u + uint64_t(now.tv_nsec) / 1000000u);
}

int64_t PerformanceCounter() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t(now.tv_sec) * 1000000000 + now.tv_nsec;
}

int64_t PerformanceFrequency() { return 1000000000; }

size_t HeapUsableSize(void* p) { return p ? malloc_usable_size(p) : 0; }

namespace {

// glibc keeps the peak of its arenas only in the malloc_info report; the last
// <system type="max"> element there is the total over all arenas.
uint64_t ArenaPeakBytes() {
    char* text = nullptr;
    size_t length = 0;
    FILE* stream = open_memstream(&text, &length);
    if (!stream) return 0;
    malloc_info(0, stream);
    std::fclose(stream);
    uint64_t peak = 0;
    const char* tag = "<system type=\"max\" size=\"";
    for (const char* at = text; (at = std::strstr(at, tag)) != nullptr; at += std::strlen(tag))
        peak = std::strtoull(at + std::strlen(tag), nullptr, 10);
    std::free(text);
    return peak;
}

} // namespace

HeapStats QueryHeapStats() {
    struct mallinfo2 info = mallinfo2();
    HeapStats stats;
    // Blocks too large for an arena are mapped on their own (hblkhd) and count for both.
    stats.systemBytes = info.arena + info.hblkhd;
    stats.inUseBytes = info.uordblks + info.hblkhd;
    stats.maxSystemBytes = ArenaPeakBytes() + info.hblkhd;
    if (stats.maxSystemBytes < stats.systemBytes) stats.maxSystemBytes = stats.systemBytes;
    return stats;
}

int StrICmp(const char* a, const char* b) { return strcasecmp(a, b); }

int FormatV(char* buf, size_t bufSize, const char* format, va_list args) {
    int count = std::vsnprintf(buf, bufSize, format, args);
    return count >= 0 && static_cast<size_t>(count) < bufSize ? count : -1;
}

int FormatPositionalV(char* buf, size_t bufSize, const char* format, va_list args) {
    int count = FormatV(buf, bufSize, format, args); // glibc understands %n$ itself
    if (count < 0) buf[0] = 0;
    return count;
}

bool IsDebuggerAttached() {
    // Plain system calls: this runs on the death path, where nothing may allocate.
    int fd = open("/proc/self/status", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    char text[4096];
    ssize_t length = read(fd, text, sizeof(text) - 1);
    close(fd);
    if (length <= 0) return false;
    text[length] = 0;
    const char* tracer = std::strstr(text, "TracerPid:");
    return tracer && std::atoi(tracer + std::strlen("TracerPid:")) != 0;
}

void ExecutablePath(char* buf, size_t bufSize) {
    ssize_t length = readlink("/proc/self/exe", buf, bufSize - 1);
    buf[length > 0 ? length : 0] = 0;
}

bool SetEnv(const char* name, const char* value) { return setenv(name, value, 1) == 0; }

void RaiseDebuggerReport(uint32_t, bool, const char*, const char*) {
    // A debugger stops on SIGTRAP; the report itself reaches it through stderr.
    raise(SIGTRAP);
}

void HaltCallingThread() {
    for (;;) pause();
}

void FlushAndExit(int code) {
    std::fflush(nullptr);
    FlushCoverage();
    _exit(code);
}

} // namespace kl::platform
