#include "keel_test.h"

#include "keel/klcrash.h"
#include "keel/kllifetime.h"
#include "keel/kllog.h"
#include "keel/klsystem.h"
#include "keel/klthread.h"

#include <cstdlib>

#ifndef _WIN32
#include <signal.h>
#include <unistd.h>
#endif

using keeltest::Has;
using keeltest::HasAll;
using Strings = std::vector<std::string>;

namespace {

std::string Dump() {
    std::string text;
    for (const klCommandOption& option : klCommandLineOptions())
        text += (text.empty() ? "" : " ") + std::string(option.name) + "=" + option.value.Const();
    return text;
}

TEST(CommandLine, SplitsTokensAttachesValuesAndLimitsTheLength) {
    klObjectLifetimeManager::Initialize();
    klParseCommandLine("--config,my.ini\t--dir=C:/a=b,, plain --a --b x --oconfig=1,--oconfig 2 --oconfig -- tail");
    EXPECT_EQ("config=my.ini dir=C:/a=b =plain a= b=x oconfig=1 oconfig=2 oconfig= =tail", Dump());
    std::vector<klString> values(1, "kept");
    klOptionValues("oconfig", values);
    EXPECT_EQ((Strings{"kept", "1", "2", ""}), Strings(values.begin(), values.end()));
    EXPECT_EQ(&klCommandLineOptions()[5], klFindOption("oconfig")); // the first one
    EXPECT_EQ(nullptr, klFindOption("Config"));

    keeltest::CaptureAsserts capture; // filled once
    klParseCommandLine("--late");
    klClearCommandLine();
    char prog[] = "prog", opt[] = "--x", words[] = "y z";
    char* argv[] = {prog, opt, words};
    klParseCommandLine(3, argv);
    EXPECT_EQ("x=y =z", Dump());

    klClearCommandLine();
    const std::string fits = "--k=" + std::string(2043, 'v');
    klParseCommandLine(fits.c_str());
    EXPECT_EQ(2043u, klFindOption("k")->value.Size());
    klClearCommandLine();
    klParseCommandLine((fits + "w").c_str());
    klParseCommandLine(static_cast<const char*>(nullptr));
    EXPECT_EQ((Strings{"g_args().size() == 0", "strlen(cmdline) < klARRSIZE(buffer)"}), capture.Exprs());
    EXPECT_TRUE(klCommandLineOptions().empty());
    klObjectLifetimeManager::Shutdown();
}

class OperatingSystem : public keeltest::TempFolderTest {};

TEST_F(OperatingSystem, LinuxFromAFakeRoot) {
    const std::string base = mDir.generic_string() + "/";
    auto describe = [&](bool is64) { return std::string(klDescribeOperatingSystem(base.c_str(), "6.1.0-9", is64)); };
    EXPECT_EQ("Linux (Linux 6.1.0-9), 64-bit", describe(true)); // neither file exists
    const char* const rows[][3] = { // file, text, the name it gives
        {"usr/lib/os-release", "NAME=Lib\nPRETTY_NAME=Lib OS 1\n", "Lib OS 1"},
        {"etc/os-release", "NAME=\"Debian\"\nPRETTY_NAME=\"\"\n", "Lib OS 1"}, // names nothing: the next file
        {"etc/os-release", "ID=debian\r\nPRETTY_NAME=\"Debian GNU/Linux 12\"\r\n", "Debian GNU/Linux 12"},
        {"etc/os-release", "PRETTY_NAME='Single \"Quoted\"'", "Single \"Quoted\""},
        {"etc/os-release", "XPRETTY_NAME=no\nPRETTY_NAME=\"half", "\"half"}};
    for (const auto& [file, text, name] : rows) {
        Write(file, text);
        EXPECT_EQ(std::string(name) + " (Linux 6.1.0-9), 32-bit", describe(false));
    }

    const std::string real = klOperatingSystemDescription().Const();
#ifdef _WIN32
    EXPECT_EQ(0, real.rfind("Microsoft ", 0)) << real;
#else
    EXPECT_TRUE(HasAll({{sizeof(void*) == 8 ? "), 64-bit" : "), 32-bit", -1}, {" (Linux ", -1}, {"(Linux )", 0}})
                    .Matches(real))
        << real; // the running kernel's release
#endif
}

klWindowsVersion Nt(uint32_t major, uint32_t minor, uint32_t type, uint32_t suite = 0, uint32_t arch = 0,
                    uint32_t product = 0, bool r2 = false) {
    return {2, major, minor, 1234, type, suite, arch, product, r2};
}

TEST_F(OperatingSystem, WindowsVersionsAndEditions) {
    const uint32_t ws = 1, server = 3, x64 = 9, ia64 = 6;
    const std::pair<klWindowsVersion, const char*> rows[] = {
        {Nt(6, 0, ws, 0, x64, 1), "Windows Vista Ultimate Edition build 1234, 64-bit"},
        {Nt(6, 1, 2, 0, x64, 7), "Windows Server 2008 R2 Standard Edition build 1234, 64-bit"},
        {Nt(10, 0, ws, 0, ia64, 48), "Windows ? Professional build 1234, 32-bit"},
        {Nt(5, 2, server, 0x80, 0, 0, true), "Windows Server 2003 R2, Datacenter Edition build 1234"},
        {Nt(5, 2, server, 0x8000 | 0x400), "Windows Home Server, Web Edition build 1234"},
        {Nt(5, 2, ws, 0, x64), "Windows XP Professional x64 Edition,  build 1234"},
        {Nt(5, 2, server, 0x80, ia64), "Windows Server 2003, Datacenter Edition for Itanium-based Systems build 1234"},
        {Nt(5, 2, server, 0x4000, x64), "Windows Server 2003, Standard x64 Edition build 1234"},
        {Nt(5, 2, server, 0x2), "Windows Server 2003, Enterprise Edition build 1234"},
        {Nt(5, 1, ws, 0x200), "Windows XP Home Edition build 1234"},
        {Nt(5, 0, ws, 0x80), "Windows 2000 Professional build 1234"},
        {Nt(5, 0, 2), "Windows 2000 Server build 1234"},
        {Nt(5, 3, ws), "Windows (unknown version) build 1234"},
    };
    for (const auto& [version, expected] : rows)
        EXPECT_EQ(std::string("Microsoft ") + expected, std::string(klDescribeWindows(version)));
}

// Initialize alone leaves the handlers to the host; the start-up installs them. The exit
// report shuts down and turns a recorded error condition into code 5.
TEST(SystemStartupDeathTest, InstallsTheCrashAndKillSignalHandlers) {
    auto start = [](bool whole) {
        whole ? klSystemStartup() : klObjectLifetimeManager::Initialize();
        std::fprintf(stderr, "handlers %d, args %d\n", int(klCrashHandlersInstalled()),
                     int(klSingleton<GlobalArgs>::IsLive()));
    };
    EXPECT_EXIT((start(false), std::exit(klExitReport())), testing::ExitedWithCode(0), Has("handlers 0, args 1\n", 1));
    EXPECT_EXIT((start(true), std::abort()), testing::ExitedWithCode(123),
                HasAll({{"handlers 1, args 1\n", 1}, {"SIGABRT - signo", 1}}));
    EXPECT_EXIT((start(false), klObjectLifetimeManager::RecordErrorCondition(), std::exit(klExitReport())),
                testing::ExitedWithCode(5), Has("Application exited with error condition (code 5)\n", 1));
}

#ifndef _WIN32

void NoteShutdown() { std::fprintf(stderr, "shutdown requested, flag %d\n", int(klShutdownRequested())); }

// Installs the handler (twice) in a quiet process, sends stdout to stderr and signals itself.
[[noreturn]] void KillMyself(int signo, bool startup) {
    dup2(2, 1);
    klConsoleLogger().SetLevel(klLogError, true);
    klSetKillSignalGraceMs(300);
    klSetShutdownRequestHandler(NoteShutdown);
    startup ? klSystemStartup() : klInstallKillSignalHandler();
    klInstallKillSignalHandler();
    raise(signo);
    for (int i = 0; i < 1000 && !klShutdownRequested(); ++i) klSleep(10);
    std::fprintf(stderr, "main runs on during the grace\n");
    klSleep(10000);
    std::exit(1);
}

TEST(KillSignalDeathTest, ConcurrentWatcherLogsAsksWaitsAndEndsByTheSignal) {
    for (int signo : {SIGINT, SIGTERM, SIGHUP}) {
        EXPECT_EXIT(KillMyself(signo, signo == SIGTERM), testing::KilledBySignal(signo),
                    HasAll({{"NONE ", 1}, {" CONSOLE (", 1}, {"Caught kill signal. Shutting down...\n", 1},
                            {"shutdown requested, flag 1\n", 1}, {"main runs on during the grace\n", 1}}))
            << signo;
    }
}

#endif

} // namespace
