// Crash handling: routes aborts, std::terminate, crash signals (Linux), pure virtual
// calls and invalid C runtime parameters (Windows) into klDie, and writes minidumps.
//
// Crashes on other threads (Linux): the signal handlers serve every thread of the
// process, so a crash on any thread ends in the one death report and exit code 123; a
// second thread crashing meanwhile stops where it is. A stack overflow leaves no room to
// run a handler on the thread's own stack, so it needs the thread's alternate signal
// stack: the installing thread and every klThread get one by themselves, any other
// thread asks with klUseCrashStack(). A thread without one that overflows its stack is
// ended by the system (SIGSEGV, exit 139) with no report.
#pragma once

#include "keel/klstring.h"

// Called first for a crash the process did not handle, with the platform's crash record:
// EXCEPTION_POINTERS* on Windows (the return value is the filter's verdict), siginfo_t* on
// Linux (the return value is ignored; klDie follows). The library installs none itself.
using klCrashFilter = long (*)(void* crashRecord);

// enable true installs the handlers, false puts the system's defaults back. On Windows the
// process-wide items (exception filter, SIGABRT, pure-call and invalid-parameter handlers,
// error mode) are touched only when keel is part of the main executable.
void klInstallCrashHandlers(bool enable, klCrashFilter filter);
// Installs again with the flag and filter of the last klInstallCrashHandlers call.
void klReinstallCrashHandlers();
bool klCrashHandlersInstalled();

// Gives the calling thread its own alternate signal stack (Linux), kept until the thread
// ends, so that the crash handlers can report even its stack overflow. Calling it again
// does nothing. False when the system refused. Windows reports overflows through the
// exception filter and needs nothing: true.
bool klUseCrashStack();

// Writes a full-memory dump named "<temp dir><name>.dmp" through the dump library.
// Returns the dump's path (valid until the next call), or null on any failure; always
// null on Linux, which has no dump library.
const char* klWriteMiniDump(const char* name, const char* comment, void* exceptionPointers);

// Formats into a 2048-character buffer and writes the text to the debugger (Windows)
// and to standard output.
void klDebugPrint(const char* format, ...) KL_PRINTF_LIKE(1, 2);
// The wide twin: formats into 2048 wide characters (cut to fit). Windows writes them to
// the debugger (OutputDebugStringW) and to the wide standard output; Linux writes their
// UTF-8 form to standard output (a value that is no character becomes U+FFFD).
void klDebugPrint(const wchar_t* format, ...);

// The system's text for the calling thread's last error (GetLastError / errno).
klString klLastErrorText();

// Keeps the process's crash handling (Windows: the unhandled-exception filter; Linux: the
// handlers of the crash signals) for its lifetime and puts it back when it ends. Wraps
// anything that may run foreign start-up code, such as loading a library.
class klCrashGuard {
public:
    klCrashGuard();
    ~klCrashGuard();
    klCrashGuard(const klCrashGuard&) = delete;
    klCrashGuard& operator=(const klCrashGuard&) = delete;

private:
    struct Saved;
    Saved* mSaved;
};

// The shared entry points of the platform halves.
namespace kl::crash {
// Installs (enable) or resets the platform's own handlers.
void InstallPlatformHandlers(bool enable, klCrashFilter filter);
void DebuggerOutput(const char* text);
// The output of the wide klDebugPrint, once formatted.
void WideDebugPrint(const wchar_t* text);
const char* WriteMiniDump(const char* name, const char* comment, void* exceptionPointers);
klString LastErrorText();

// The causes, each ending in klDie with its kind and message.
[[noreturn]] void OnAbortSignal(int signo);
[[noreturn]] void OnCrashSignal(const char* signalName, int signo);
[[noreturn]] void OnPureCall();
[[noreturn]] void OnInvalidParameter();
} // namespace kl::crash
