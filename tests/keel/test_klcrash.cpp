#include "keel/klcrash.h"

#include "keel_test.h"

#include <cerrno>
#include <csignal>
#include <exception>

using testing::ExitedWithCode;

namespace {

void Install() { klInstallCrashHandlers(true, nullptr); }
void Disable() {
    Install();
    klInstallCrashHandlers(false, nullptr);
    klReinstallCrashHandlers(); // stays disabled
}

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

const std::string kAbort = "SIGABRT - signo " + std::to_string(SIGABRT);

} // namespace

TEST(CrashDeathTest, EachWayToDieReachesOneReport) {
    keeltest::ExpectDeaths({
        {[] { Install(), std::abort(); }, {{"ASSERT", -1}, {kAbort, 1}}},
        {[] { Install(), std::terminate(); }, {{"TERMINATE", -1}, {"std::terminate()", 1}}},
        // Disabling restores the system's handling and the host's terminate handler.
#ifdef _WIN32
        {[] { Disable(), std::abort(); }, {{kAbort, 0}}, ExitedWithCode(3)},
#else
        {[] { Disable(), std::abort(); }, {{kAbort, 0}}, testing::KilledBySignal(SIGABRT)},
#endif
        {[] { std::set_terminate([] { std::_Exit(7); }), Install(), Disable(), std::terminate(); },
         {{"TERMINATE", 0}}, ExitedWithCode(7)},
#ifndef _WIN32
        {[] {
             klInstallCrashHandlers(true, [](void*) { return long(std::fputs("filter ran\n", stderr)); });
             WriteThroughNull();
         },
         {{"filter ran\n", 1}, {"CRASH", -1}, {"SIGSEGV - signo 11", 1}}},
        // An overflow reports on the installing thread's alternate stack.
        {[] { Install(), Recurse(0); }, {{"SIGSEGV - signo 11", 1}}},
#endif
    });
}

// Debug prints are cut to their buffer; on Linux wide ones become UTF-8, bad values U+FFFD.
TEST(Crash, MiniDumpDebugPrintAndLastError) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(nullptr, klWriteMiniDump("keel_crash_test_dump", "comment", nullptr));
    testing::internal::GetCapturedStderr();
    testing::internal::CaptureStdout();
    klDebugPrint("%s", std::string(3000, 'a').c_str());
    klDebugPrint(L"%ls=%d\n", std::wstring(3000, L'b').c_str(), 7);
    std::string expected = std::string(2047, 'a') + std::string(2047, 'b');
#ifndef _WIN32
    klDebugPrint(L"%lc%lc%lc%lc", wchar_t(0xE9), wchar_t(0x1F600), wchar_t(0xD800), wchar_t(0x110000));
    expected += "\xC3\xA9\xF0\x9F\x98\x80\xEF\xBF\xBD\xEF\xBF\xBD";
#endif
    EXPECT_EQ(expected, testing::internal::GetCapturedStdout());

    errno = ENOENT; // the Windows half reads GetLastError, which the C runtime sets too
    std::fopen("keel_crash_test_no_such_file", "rb");
    const std::string text = klLastErrorText().Const(); // glibc, Windows and wine word it apart
    EXPECT_TRUE(text.find("No such file") != std::string::npos || text.find("not find the file") != std::string::npos ||
                text.find("File not found") != std::string::npos)
        << text;
}
