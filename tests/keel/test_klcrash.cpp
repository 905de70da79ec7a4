#include "keel/klcrash.h"
#include "keel/klthread.h"

#include "keel_test.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <string>
#include <thread>

using keeltest::Has;
using keeltest::HasAll;

namespace {

void Install() { klInstallCrashHandlers(true, nullptr); }

// The sanitizer's own null check would end the program before the signal does.
[[maybe_unused]] __attribute__((no_sanitize("undefined"))) void WriteThroughNull() {
    volatile int* volatile nowhere = nullptr;
    *nowhere = 1;
}

volatile bool gStopRecursion = false;
[[maybe_unused]] __attribute__((noinline)) int Recurse(int depth) {
    volatile char frame[512];
    frame[0] = static_cast<char>(depth);
    return gStopRecursion ? 0 : Recurse(depth + 1) + frame[0];
}

[[maybe_unused]] long NoisyFilter(void*) { return std::fputs("filter ran\n", stderr); }

void AbortingCallback(const char* message) {
    std::fprintf(stderr, "callback saw [%s]\n", message);
    std::abort();
}

const std::string kAbortMessage = "SIGABRT - signo " + std::to_string(SIGABRT);

} // namespace

TEST(CrashDeathTest, AbortAndTerminateReachTheDeathReport) {
    EXPECT_EXIT({ Install(); std::abort(); }, testing::ExitedWithCode(123),
                HasAll({{"ASSERT", -1}, {kAbortMessage, 1}}));
    EXPECT_EXIT({ Install(); std::terminate(); }, testing::ExitedWithCode(123),
                HasAll({{"TERMINATE", -1}, {"std::terminate()", 1}}));
    EXPECT_EXIT({ Install(); klReinstallCrashHandlers(); std::abort(); }, testing::ExitedWithCode(123),
                Has(kAbortMessage, 1));
    // A death inside the death callback ends the process at once, with no second report.
    EXPECT_EXIT({ Install(); klSetDeathCallback(AbortingCallback); std::terminate(); },
                testing::ExitedWithCode(123), HasAll({{"callback saw [std::terminate()]", 1}, {"SIGABRT", 0}}));
}

TEST(CrashDeathTest, DisablingRestoresTheSystemDefaults) {
    auto disable = [] {
        Install();
        klInstallCrashHandlers(false, nullptr);
        klReinstallCrashHandlers(); // stays disabled
    };
#ifdef _WIN32
    EXPECT_EXIT({ disable(); std::abort(); }, testing::ExitedWithCode(3), Has(kAbortMessage, 0));
#else
    EXPECT_EXIT({ disable(); std::abort(); }, testing::KilledBySignal(SIGABRT), Has(kAbortMessage, 0));
    EXPECT_EXIT({ disable(); std::terminate(); }, testing::KilledBySignal(SIGABRT), Has("TERMINATE", 0));
#endif
    // The host's terminate handler comes back, however often keel's was installed.
    EXPECT_EXIT({ std::set_terminate([] { std::_Exit(7); }); Install(); disable(); std::terminate(); },
                testing::ExitedWithCode(7), Has("TERMINATE", 0));
}

#ifndef _WIN32
TEST(CrashDeathTest, CrashSignalsReportThroughTheFilter) {
    EXPECT_EXIT({ klInstallCrashHandlers(true, NoisyFilter); WriteThroughNull(); },
                testing::ExitedWithCode(123), HasAll({{"filter ran\n", 1}, {"CRASH", -1}, {"SIGSEGV - signo 11", 1}}));
    // A stack overflow still reports, on the alternate stack.
    EXPECT_EXIT({ Install(); Recurse(0); }, testing::ExitedWithCode(123), Has("SIGSEGV - signo 11", 1));
    EXPECT_EXIT({ Install(); std::raise(SIGFPE); }, testing::ExitedWithCode(123), Has("SIGFPE - signo 8", 1));
    auto crashTwice = [] {
        Install();
        std::thread first(WriteThroughNull);
        std::thread second(WriteThroughNull);
        first.join();
        second.join();
    };
    EXPECT_EXIT(crashTwice(), testing::ExitedWithCode(123), Has("SIGSEGV - signo 11", 1));
}

// The sanitizers give each thread an alternate stack of their own; without one, as in a
// plain build, only keel's can catch the overflow.
void DropAlternateStack() {
    stack_t off = {};
    off.ss_flags = SS_DISABLE;
    sigaltstack(&off, nullptr);
}

struct Overflowing : klThread {
    Overflowing() : klThread("overflowing", 256 * 1024) {}
    void Run() override { Recurse(0); }
};

TEST(CrashDeathTest, StackOverflowsOnOtherThreadsReachTheOneReport) {
    auto onKeelThread = [] {
        Install();
        klThreadBeginHook = DropAlternateStack;
        Overflowing thread;
        thread.Start();
        thread.WaitStop(0);
    };
    auto onThreadThatAsks = [] {
        Install();
        std::thread([] { (DropAlternateStack(), klUseCrashStack(), klUseCrashStack(), Recurse(0)); }).join();
    };
    EXPECT_EXIT(onKeelThread(), testing::ExitedWithCode(123), HasAll({{"CRASH", -1}, {"SIGSEGV - signo 11", 1}}));
    EXPECT_EXIT(onThreadThatAsks(), testing::ExitedWithCode(123), Has("SIGSEGV - signo 11", 1));
}
#endif

TEST(Crash, MiniDumpDebugPrintAndLastError) {
    auto path = std::filesystem::temp_directory_path() / "keel_crash_test_dump.dmp";
    std::filesystem::remove(path);
    testing::internal::CaptureStderr();
    EXPECT_EQ(nullptr, klWriteMiniDump("keel_crash_test_dump", "comment", nullptr));
    EXPECT_EQ(nullptr, klWriteMiniDump(nullptr, nullptr, nullptr));
    testing::internal::GetCapturedStderr();
    EXPECT_FALSE(std::filesystem::exists(path));

    testing::internal::CaptureStdout();
    klDebugPrint("%s=%d\n", "x", 5);
    klDebugPrint("%s", std::string(3000, 'a').c_str()); // cut to the buffer
    EXPECT_EQ("x=5\n" + std::string(2047, 'a'), testing::internal::GetCapturedStdout());

    testing::internal::CaptureStdout();
    klDebugPrint(L"%ls=%d\n", L"w", 7);
    klDebugPrint(L"%ls", std::wstring(3000, L'b').c_str());
    std::string wide = "w=7\n" + std::string(2047, 'b');
#ifndef _WIN32 // converted to UTF-8; no character for a lone surrogate or a value too large
    klDebugPrint(L"%lc%lc%lc%lc", wchar_t(0xE9), wchar_t(0x1F600), wchar_t(0xD800), wchar_t(0x110000));
    wide += "\xC3\xA9\xF0\x9F\x98\x80\xEF\xBF\xBD\xEF\xBF\xBD";
#endif
    EXPECT_EQ(wide, testing::internal::GetCapturedStdout());

    errno = ENOENT; // the Windows half reads GetLastError, which the C runtime sets too
    std::fopen("keel_crash_test_no_such_file", "rb");
    std::string notFound = klLastErrorText().Const();
    // glibc, Windows and wine each word it their own way.
    EXPECT_TRUE(notFound.find("No such file") != std::string::npos || notFound.find("not find the file") != std::string::npos ||
                notFound.find("File not found") != std::string::npos) << notFound;
}
