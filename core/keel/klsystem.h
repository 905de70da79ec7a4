// The system module: the process's command-line options, a one-line description of the
// operating system, the kill-signal handler and the exit report.
//
// Command line. The text is split into tokens at spaces, commas and tabs; empty tokens
// are skipped. Tokens become (name, value) entries, in order:
//   "--name=value"       name, and the value after the first "=" (it may hold more "=")
//   "--name x"           name, and x as its value when x does not begin with "--"
//   "--name"             name with an empty value (last token, or another option follows)
//   "x"                  a plain token nobody claimed: an entry with an empty name
//   "--"                 skipped; it carries neither a name nor a value
// So "--config,my.ini" gives config = my.ini, and "--a --b x" gives a = "" and b = x.
// Names are compared exactly (case matters). The list is the singleton GlobalArgs, which
// klObjectLifetimeManager::Initialize creates and Shutdown destroys: parse after
// Initialize (before it the parse is refused as an assertion), and fill it once at
// start-up, before other threads read it. Outside those two passes readers see no option.
//
// Kill signal. On Windows a console control handler; on Linux SIGINT, SIGTERM and SIGHUP,
// whose handler only wakes a watcher thread (nothing else is safe inside a signal
// handler). Either way the "Console" logger shows "Caught kill signal. Shutting down..."
// at level nothing, so it appears whatever the logger's minimum, the shutdown flag is set,
// the shutdown-request function is called, and the handler then waits a grace period
// (30 s) for the application to end. Windows ends the process itself after that; on
// Linux the watcher puts the signal's default action back and raises it again, so the
// process still ends the conventional way, killed by that signal.
//
// The operating-system description is built by the platform half (win32/klw32sysinfo.cpp,
// posix/klposixsysinfo.cpp) from the two portable describers below.
#pragma once

#include "keel/klstring.h"

#include <cstdint>
#include <vector>

struct klCommandOption {
    klString name; // without the leading "--"; empty for a plain token
    klString value; // may be empty
};

// The process-wide option list, in the order given.
struct GlobalArgs {
    std::vector<klCommandOption> options;
};

// The system's HTTP proxy settings, read once when klObjectLifetimeManager::Initialize
// creates the singleton (klSingleton<ProxyInfo>::Instance()). Windows: the user's
// Internet settings (ProxyServer and ProxyOverride, when ProxyEnable is set); Linux:
// http_proxy and no_proxy, else HTTP_PROXY and NO_PROXY. Empty texts: none configured.
struct ProxyInfo {
    ProxyInfo();
    klString server; // the proxy as configured ("host:port", or a URL)
    klString bypass; // the hosts reached without it, as configured
};

// Parses cmdline into the process-wide option list. The text must be shorter than 2048
// bytes, and the list must be empty (a second fill is refused); either failure is
// reported as an assertion and nothing is parsed. A null text parses nothing.
void klParseCommandLine(const char* cmdline);
// For main(): argv[1..argc-1] joined with single spaces, then parsed as above.
void klParseCommandLine(int argc, char** argv);
// The first option of that name, or null.
const klCommandOption* klFindOption(const char* name);
// Appends every value given for name, in order.
void klOptionValues(const char* name, std::vector<klString>& values);
// The whole list, in order (empty while GlobalArgs does not exist).
const std::vector<klCommandOption>& klCommandLineOptions();
// Empties the list so that it may be filled again (hosts that re-read their arguments,
// and tests).
void klClearCommandLine();

// The operating-system description, built once, e.g.
//   "Debian GNU/Linux 12 (bookworm) (Linux 6.1.0-18-amd64), 64-bit"
//   "Microsoft Windows 7 Ultimate Edition build 7601, 64-bit"
const klString& klOperatingSystemDescription();

// A Linux system whose files lie under root (a folder ending in "/", normally "/"):
// "<PRETTY_NAME> (Linux <release>), 64-bit" (", 32-bit" when !is64). PRETTY_NAME comes
// from root/etc/os-release, else root/usr/lib/os-release, with one pair of enclosing
// double or single quotes removed; "Linux" when neither file names the system.
klString klDescribeOperatingSystem(const char* root, const char* release, bool is64);

// What the Windows version calls report, as plain numbers (the win32 half fills it).
struct klWindowsVersion {
    uint32_t platformId;            // 2: the NT family
    uint32_t major, minor, build;
    uint32_t productType;           // 1 workstation, 2 domain controller, 3 server
    uint32_t suiteMask;
    uint32_t processorArchitecture; // 0 x86, 6 Itanium, 9 x64 (of the native system)
    uint32_t productInfo;           // edition number, asked for version 6 and later only
    bool serverR2;                  // system metric 89
};

// "Microsoft Windows 7 Ultimate Edition build 7601, 64-bit", after the classic table of
// Windows versions and editions. Versions after 6 read as "Windows ? " with their edition
// and bitness. Anything older than NT 5, not of the NT family, or 5.3 and up is
// "Microsoft Windows (unknown version) build <n>" (and without the build when Windows
// will not even say its version).
klString klDescribeWindows(const klWindowsVersion& version);

// Installs the kill-signal handler; calling it again does nothing.
void klInstallKillSignalHandler();
// The function the handler calls to ask the application to shut down (null: none). The
// flag read by klShutdownRequested is set in either case.
using klShutdownRequestFn = void (*)();
void klSetShutdownRequestHandler(klShutdownRequestFn fn);
bool klShutdownRequested();
// The handler's wait after asking for the shutdown, 30000 ms unless changed. Only tests
// have a reason to shorten it.
void klSetKillSignalGraceMs(uint32_t ms);

// The start-up of a host program: installs the crash handlers (klInstallCrashHandlers
// with enable and no filter) and the kill-signal handler, then runs
// klObjectLifetimeManager::Initialize. A host that installs handlers of its own (or a
// library loaded into someone else's process) calls Initialize alone instead.
void klSystemStartup();

// The process's exit: runs Shutdown when the lifetime manager was initialized, then
// returns 0, or 5 after "Application exited with error condition (code 5)" on stderr when
// klObjectLifetimeManager::RecordErrorCondition was called. For main's return.
int klExitReport();

namespace kl::detail {
// What the kill-signal handler does once the platform half has seen the signal: log,
// flag, ask for the shutdown, wait the grace period.
void OnKillSignal();
// Platform halves.
klString QueryOperatingSystemDescription();
void InstallKillSignalHandler();
void ReadProxySettings(klString& server, klString& bypass);
} // namespace kl::detail
