// A library that takes over the process's crash handling while it loads, as some
// third-party libraries do. The loader must undo that.
#ifdef _WIN32
#include <windows.h>
#define CRASHLIB_EXPORT extern "C" __declspec(dllexport)
static LONG WINAPI OwnFilter(EXCEPTION_POINTERS*) { return EXCEPTION_CONTINUE_SEARCH; }
static void TakeOverCrashHandling() { SetUnhandledExceptionFilter(OwnFilter); }
#else
#include <signal.h>
#define CRASHLIB_EXPORT extern "C" __attribute__((visibility("default")))
static void OwnHandler(int) {}
static void TakeOverCrashHandling() {
    struct sigaction action = {};
    action.sa_handler = OwnHandler;
    sigaction(SIGSEGV, &action, nullptr);
}
#endif

// 1 once the take-over has run.
CRASHLIB_EXPORT int crashlib_took_over;
int crashlib_took_over = 0;

namespace {
struct TakeOver {
    TakeOver() {
        TakeOverCrashHandling();
        crashlib_took_over = 1;
    }
} gTakeOver;
} // namespace
