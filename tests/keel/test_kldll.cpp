#include "keel/kldll.h"

#include "keel/klcrash.h"
#include "keel_test.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <signal.h>
#endif

namespace {
// Identity of the process's crash handling, which a loaded library could replace.
void* CurrentCrashHandler() {
#ifdef _WIN32
    LPTOP_LEVEL_EXCEPTION_FILTER filter = SetUnhandledExceptionFilter(nullptr);
    SetUnhandledExceptionFilter(filter);
    return reinterpret_cast<void*>(filter);
#else
    struct sigaction action;
    sigaction(SIGSEGV, nullptr, &action);
    return reinterpret_cast<void*>(action.sa_sigaction);
#endif
}
} // namespace

// The library replaces the crash handling while it loads: both loaders put it back. A failed
// narrow load logs one line; the wide loader stays quiet.
TEST(DLL, LoadsKeepTheCrashHandlingAndFailuresLeaveNoHandle) {
    klInstallCrashHandlers(true, [](void*) { return 0L; });
    void* before = CurrentCrashHandler();
    klDLL library(KEEL_CRASHLIB);
    ASSERT_NE(nullptr, library.Symbol("crashlib_took_over"));
    EXPECT_EQ(1, *static_cast<int*>(library.Symbol("crashlib_took_over")));
    EXPECT_EQ(before, CurrentCrashHandler());
    library.Unload();
    library.Unload(); // a second unload does nothing
    EXPECT_EQ(nullptr, library.Handle());
    const std::string narrow = KEEL_CRASHLIB;
    void* handle = klLoadLibrary(std::wstring(narrow.begin(), narrow.end()).c_str());
    ASSERT_NE(nullptr, handle);
    EXPECT_EQ(before, CurrentCrashHandler());
    EXPECT_TRUE(kl::dll::Close(handle));
    klInstallCrashHandlers(false, nullptr);

    testing::internal::CaptureStderr();
    EXPECT_EQ(nullptr, klDLL("keel_no_such_library.dll").Symbol("anything"));
    EXPECT_EQ(nullptr, klLoadLibrary(L"keel_no_such_library.dll"));
    EXPECT_EQ(nullptr, klLoadLibrary(nullptr));
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(keeltest::HasAll({{"klLoadLibrary (keel_no_such_library.dll) failed", 1}, {"ERROR", 1}}).Matches(log))
        << log;
    keeltest::CaptureAsserts capture;
    EXPECT_EQ(nullptr, klDLL(nullptr).Handle());
    ASSERT_EQ(1u, capture.Reports().size());
    EXPECT_EQ("libname|ERROR: klDLL::klDLL() requires a library's name!|core/keel/kldll.cpp",
              capture.Reports()[0].Text());
}
