#include "keel/kldll.h"

#include "keel/klcrash.h"
#include "keel_test.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <signal.h>
#endif

namespace {

long TestFilter(void*) { return 0; }

// Identity of the process's crash handling that a loaded library could replace.
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

TEST(DLL, LoadKeepsTheProcessCrashHandling) {
    klInstallCrashHandlers(true, TestFilter);
    void* before = CurrentCrashHandler();
    ASSERT_NE(nullptr, before);
    {
        klDLL library(KEEL_CRASHLIB);
        ASSERT_NE(nullptr, library.Handle());
        auto* tookOver = static_cast<int*>(library.Symbol("crashlib_took_over"));
        ASSERT_NE(nullptr, tookOver);
        EXPECT_EQ(1, *tookOver); // the library did replace it while loading
        EXPECT_EQ(before, CurrentCrashHandler());
        EXPECT_EQ(nullptr, library.Symbol("no_such_symbol"));
        library.Unload();
        EXPECT_EQ(nullptr, library.Handle());
        library.Unload(); // a second unload does nothing
    }
    // The wide loader protects the same way.
    std::string narrow = KEEL_CRASHLIB;
    void* handle = klLoadLibrary(std::wstring(narrow.begin(), narrow.end()).c_str());
    ASSERT_NE(nullptr, handle);
    EXPECT_EQ(before, CurrentCrashHandler());
    EXPECT_TRUE(kl::dll::Close(handle));
    klInstallCrashHandlers(false, nullptr);
}

TEST(DLL, FailedLoadsReportAndLeaveNoHandle) {
    testing::internal::CaptureStderr();
    {
        klDLL missing("keel_no_such_library.dll");
        EXPECT_EQ(nullptr, missing.Handle());
        EXPECT_EQ(nullptr, missing.Symbol("anything"));
    }
    EXPECT_EQ(nullptr, klLoadLibrary(L"keel_no_such_library.dll"));
    EXPECT_EQ(nullptr, klLoadLibrary(nullptr));
    std::string log = testing::internal::GetCapturedStderr();
    // One line for the narrow load; the wide loader and the destructor stay quiet.
    EXPECT_TRUE(keeltest::HasAll({{"klLoadLibrary (keel_no_such_library.dll) failed", 1},
                                  {"FreeLibrary", 0}, {"ERROR", 1}}).Matches(log)) << log;

    keeltest::CaptureAsserts capture;
    klDLL unnamed(nullptr);
    EXPECT_EQ(nullptr, unnamed.Handle());
    ASSERT_EQ(1u, capture.Reports().size());
    EXPECT_EQ("libname", capture.Reports()[0].expr);
    EXPECT_EQ("ERROR: klDLL::klDLL() requires a library's name!", capture.Reports()[0].message);
    EXPECT_EQ("core/keel/kldll.cpp", capture.Reports()[0].file);
}
