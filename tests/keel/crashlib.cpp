// Takes over the crash handling while it loads, as some libraries do; the loader must undo it.
#ifdef _WIN32
#include <windows.h>
#define CRASHLIB_EXPORT extern "C" __declspec(dllexport)
static LONG WINAPI OwnFilter(EXCEPTION_POINTERS*) { return EXCEPTION_CONTINUE_SEARCH; }
static int TakeOverCrashHandling() {
    SetUnhandledExceptionFilter(OwnFilter);
    return 1;
}
#else
#include <signal.h>
#define CRASHLIB_EXPORT extern "C" __attribute__((visibility("default")))
static void OwnHandler(int) {}
static int TakeOverCrashHandling() {
    struct sigaction action = {};
    action.sa_handler = OwnHandler;
    return sigaction(SIGSEGV, &action, nullptr) == 0;
}
#endif

CRASHLIB_EXPORT int crashlib_took_over;
int crashlib_took_over = TakeOverCrashHandling();
