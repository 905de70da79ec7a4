#include "keel/klassert.h"

#include "keel/klplatform.h"
#include "keel/kllockfree.h"
#include "keel/kllog.h"

#include <cstdio>
#include <cstring>

klAssertHookFn klAssertHook = klDefaultAssert;
klAssertHookFn klAssertReportHook = klDefaultAssertReport;

namespace {

// Id of the first thread that began to die; 0 while none has. Set once, never cleared.
uint32_t gDyingThread = 0;
klDeathCallbackFn gDeathCallback = nullptr;

// Exception codes handed to an attached debugger.
constexpr uint32_t kDeathCode = 0x12ED500;
constexpr uint32_t kReportedDeathCode = 0x12ED502;

enum class Claim { First, AlreadyMine, Other };

Claim ClaimDeath() {
    uint32_t me = kl::platform::CurrentThreadId();
    if (klCompareAndSwap(&gDyingThread, 0u, me)) return Claim::First;
    return klAtomicLoad(&gDyingThread) == me ? Claim::AlreadyMine : Claim::Other;
}

// The log channel of deaths. A static object: reporting a death allocates nothing.
klLogger& DeathLog() {
    static klLogger log("DEATH");
    return log;
}
} // namespace

int klFormatAssert(char* buf, int bufSize, const char* expr, const char* file, int line,
                   const char* message) {
    if (message) {
        return std::snprintf(buf, bufSize, "assertmsg(%s, %s) failed at: %s:%d\n", expr, message,
                             file, line);
    }
    return std::snprintf(buf, bufSize, "assert(%s) failed at: %s:%d\n", expr, file, line);
}

void klDefaultAssert(const char* expr, const char* file, int line, const char* message) {
    char text[4096];
    klFormatAssert(text, sizeof(text), expr, file, line, message);
    klDie("ASSERT", text);
}

void klDefaultAssertReport(const char* expr, const char* file, int line, const char* message) {
    char text[4096];
    klFormatAssert(text, sizeof(text), expr, file, line, message);
    std::fputs(text, stderr);
}

bool kl::detail::AssertFailed(const char* expr, const char* file, int line, const char* message) {
    if (klAssertReportHook) klAssertReportHook(expr, file, line, message);
    return false;
}

void klSetDeathCallback(klDeathCallbackFn callback) {
    __atomic_store_n(&gDeathCallback, callback, __ATOMIC_SEQ_CST);
}

void klDie(const char* kind, const char* message) {
    switch (ClaimDeath()) {
    case Claim::Other:
        kl::platform::HaltCallingThread(); // the first reporter speaks for the process
    case Claim::AlreadyMine:
        kl::platform::FlushAndExit(klDeathExitCode); // died while dying: no second report
    case Claim::First:
        break;
    }
    if (klDeathCallbackFn callback = __atomic_load_n(&gDeathCallback, __ATOMIC_SEQ_CST))
        callback(message ? message : "");
    if (kl::platform::IsDebuggerAttached())
        kl::platform::RaiseDebuggerReport(kDeathCode, false, kind, message);
    DeathLog().Error("%s", kind ? kind : "");
    DeathLog().Error("%s", message ? message : "");
    klLogFlush();
    kl::platform::FlushAndExit(klDeathExitCode);
}

void klReportDeath(const char* kind, const char* message) {
    if (ClaimDeath() != Claim::First) return;
    DeathLog().Error("%s: %s\n", kind ? kind : "", message ? message : "");
    std::fflush(nullptr);
    if (kl::platform::IsDebuggerAttached())
        kl::platform::RaiseDebuggerReport(kReportedDeathCode, true, kind, message);
}
