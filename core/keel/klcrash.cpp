#include "keel/klcrash.h"

#include "keel/klassert.h"
#include "keel/klplatform.h"

#include <cstdarg>
#include <cstdio>
#include <cwchar>
#include <iterator>
#include <exception>

namespace {

bool gInstalled = false;
klCrashFilter gFilter = nullptr;
// The terminate handler found before ours, put back when the handlers are removed.
std::terminate_handler gPreviousTerminate = nullptr;

[[noreturn]] void OnTerminate() { klDie("TERMINATE", "std::terminate()"); }

// C++20 has no std::set_unexpected any more, so "UNEXPECTED" cannot arise; a throwing
// noexcept function ends in std::terminate and reports as "TERMINATE".
void InstallTerminate(bool enable) {
    if (enable) {
        std::terminate_handler previous = std::set_terminate(OnTerminate);
        if (previous != OnTerminate) gPreviousTerminate = previous;
    } else if (std::get_terminate() == OnTerminate) { // a disabled reinstall keeps the host's
        std::set_terminate(gPreviousTerminate);
        gPreviousTerminate = nullptr;
    }
}

} // namespace

void klInstallCrashHandlers(bool enable, klCrashFilter filter) {
    kl::crash::InstallPlatformHandlers(enable, enable ? filter : nullptr);
    InstallTerminate(enable);
    gInstalled = enable;
    gFilter = enable ? filter : nullptr;
}

void klReinstallCrashHandlers() { klInstallCrashHandlers(gInstalled, gFilter); }

bool klCrashHandlersInstalled() { return gInstalled; }

const char* klWriteMiniDump(const char* name, const char* comment, void* exceptionPointers) {
    if (!name) return nullptr;
    return kl::crash::WriteMiniDump(name, comment ? comment : "", exceptionPointers);
}

void klDebugPrint(const char* format, ...) {
    char text[2048];
    va_list args;
    va_start(args, format);
    kl::platform::FormatV(text, sizeof(text), format, args);
    va_end(args);
    kl::crash::DebuggerOutput(text);
    std::fputs(text, stdout);
}

void klDebugPrint(const wchar_t* format, ...) {
    wchar_t text[2048];
    va_list args;
    va_start(args, format);
    std::vswprintf(text, std::size(text), format, args);
    va_end(args);
    text[std::size(text) - 1] = 0; // glibc leaves a cut text unterminated
    kl::crash::WideDebugPrint(text);
}

klString klLastErrorText() { return kl::crash::LastErrorText(); }

void kl::crash::OnAbortSignal(int signo) {
    char message[512];
    std::snprintf(message, sizeof(message), "SIGABRT - signo %d", signo);
    klDie("ASSERT", message);
}

void kl::crash::OnCrashSignal(const char* signalName, int signo) {
    char message[512];
    std::snprintf(message, sizeof(message), "%s - signo %d", signalName, signo);
    klDie("CRASH", message);
}

void kl::crash::OnPureCall() { klDie("PUREVIRT", "pure virtual function call"); }

void kl::crash::OnInvalidParameter() { klDie("INVALIDP", "invalid parameter"); }
