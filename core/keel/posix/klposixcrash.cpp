// Linux half of crash handling: signal handlers instead of an exception filter, and no
// dump library.
#include "keel/klcrash.h"

#include "keel/kltext.h"

#include <signal.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

struct CrashSignal {
    int signo;
    const char* name;
};
// SIGABRT first: it reports as an assertion, the others as crashes.
constexpr CrashSignal kSignals[] = {
    {SIGABRT, "SIGABRT"}, {SIGSEGV, "SIGSEGV"}, {SIGBUS, "SIGBUS"}, {SIGILL, "SIGILL"}, {SIGFPE, "SIGFPE"},
};
constexpr int kSignalCount = sizeof(kSignals) / sizeof(kSignals[0]);

klCrashFilter gFilter = nullptr;

// A stack overflow leaves no room for the handler on the thread's own stack: each thread
// that asks gets an alternate one of this size, mapped apart from the heap (the report
// formats into buffers of a few kilobytes).
constexpr size_t kCrashStackBytes = 64 * 1024;

// The calling thread's alternate stack, switched off and unmapped when the thread ends.
struct ThreadCrashStack {
    void* mArea = nullptr;
    ~ThreadCrashStack() {
        if (!mArea) return;
        stack_t off = {};
        off.ss_flags = SS_DISABLE;
        sigaltstack(&off, nullptr);
        munmap(mArea, kCrashStackBytes);
    }
};
thread_local ThreadCrashStack tCrashStack;

void OnSignal(int signo, siginfo_t* info, void*) {
    if (signo == SIGABRT) kl::crash::OnAbortSignal(signo);
    if (klCrashFilter filter = __atomic_load_n(&gFilter, __ATOMIC_SEQ_CST)) filter(info);
    const char* name = "signal";
    for (const CrashSignal& s : kSignals)
        if (s.signo == signo) name = s.name;
    kl::crash::OnCrashSignal(name, signo);
}

} // namespace

bool klUseCrashStack() {
    if (tCrashStack.mArea) return true;
    void* area = mmap(nullptr, kCrashStackBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    if (area == MAP_FAILED) return false;
    stack_t stack = {};
    stack.ss_sp = area;
    stack.ss_size = kCrashStackBytes;
    if (sigaltstack(&stack, nullptr) != 0) {
        munmap(area, kCrashStackBytes);
        return false;
    }
    tCrashStack.mArea = area;
    return true;
}

struct klCrashGuard::Saved {
    struct sigaction actions[kSignalCount];
};

klCrashGuard::klCrashGuard() : mSaved(new Saved) {
    for (int i = 0; i < kSignalCount; ++i) sigaction(kSignals[i].signo, nullptr, &mSaved->actions[i]);
}

klCrashGuard::~klCrashGuard() {
    for (int i = 0; i < kSignalCount; ++i) sigaction(kSignals[i].signo, &mSaved->actions[i], nullptr);
    delete mSaved;
}

namespace kl::crash {

// glibc's __cxa_pure_virtual cannot be replaced safely from a static library; it ends in
// std::terminate, so a pure virtual call reports as "TERMINATE".
void InstallPlatformHandlers(bool enable, klCrashFilter filter) {
    __atomic_store_n(&gFilter, filter, __ATOMIC_SEQ_CST);
    struct sigaction action = {};
    sigemptyset(&action.sa_mask);
    if (enable) {
        klUseCrashStack(); // the installing thread's; other threads ask for their own
        action.sa_sigaction = OnSignal;
        // SA_NODEFER: a crash inside the report re-enters, and klDie then exits at once.
        action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
    } else {
        action.sa_handler = SIG_DFL;
    }
    for (const CrashSignal& s : kSignals) sigaction(s.signo, &action, nullptr);
}

void DebuggerOutput(const char*) {} // no debugger channel beside stdout

void WideDebugPrint(const wchar_t* text) {
    char utf8[2048 * 4]; // 2047 characters of at most 4 bytes each, and the terminator
    uint32_t used = 0;
    for (; *text; ++text) {
        const uint32_t value = static_cast<uint32_t>(*text);
        const bool surrogate = value >= 0xD800 && value <= 0xDFFF;
        const uint32_t length = surrogate ? 0 : klTextBuffer::EncodeChar(value, utf8 + used);
        used += length ? length : klTextBuffer::EncodeChar(0xFFFD, utf8 + used);
    }
    utf8[used] = 0;
    std::fputs(utf8, stdout);
}

const char* WriteMiniDump(const char*, const char*, void*) { return nullptr; }

klString LastErrorText() { return klString(std::strerror(errno)); }

} // namespace kl::crash
