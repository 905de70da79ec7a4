#include "keel_test.h"

#include <cstdio>
#include <cstdlib>
#include <thread>

using keeltest::Has;

TEST(Assert, FormatsBothReportShapes) {
    char text[128];
    klFormatAssert(text, sizeof(text), "a < b", "core/keel/x.cpp", 42, nullptr);
    EXPECT_STREQ("assert(a < b) failed at: core/keel/x.cpp:42\n", text);
    klFormatAssert(text, sizeof(text), "p != 0", "core/keel/x.cpp", 7, "why");
    EXPECT_STREQ("assertmsg(p != 0, why) failed at: core/keel/x.cpp:7\n", text);
    // A report longer than the buffer is cut, never overrun.
    char small[16];
    klFormatAssert(small, sizeof(small), "a very long expression", "f", 1, nullptr);
    EXPECT_STREQ("assert(a very l", small);
}

TEST(Assert, PlainAssertionReportsAndCarriesOn) {
    keeltest::CaptureAsserts capture;
    int value = 3;
    bool held = klAssert(value == 3);
    EXPECT_TRUE(held);
    EXPECT_TRUE(capture.Reports().empty());

    const int line = __LINE__ + 1;
    bool broken = klAssertMsg(value > 5, "too small");
    EXPECT_FALSE(broken);
    ASSERT_EQ(1u, capture.Reports().size());
    EXPECT_EQ("value > 5", capture.Reports()[0].expr);
    EXPECT_EQ("too small", capture.Reports()[0].message);
    // Sources are named by their path from the repository root.
    EXPECT_EQ("tests/keel/test_klassert.cpp", capture.Reports()[0].file);
    EXPECT_EQ(line, capture.Reports()[0].line);
}

void FailArithmetic() { klFatalAssert(1 + 1 == 3, "arithmetic"); }
const int kArithmeticLine = __LINE__ - 1;

TEST(AssertDeathTest, FatalAssertionReportsOnceAndExitsWith123) {
    std::string expected = "assertmsg(1 + 1 == 3, arithmetic) failed at: tests/keel/test_klassert.cpp:" +
                           std::to_string(kArithmeticLine) + "\n";
    EXPECT_EXIT(FailArithmetic(), testing::ExitedWithCode(123),
                (keeltest::HasAll({{"  DEATH  (", 2}, {") ASSERT\n", 1}, {") " + expected + "\n", 1}})));
    EXPECT_EXIT(klFatal("x", nullptr), testing::ExitedWithCode(klDeathExitCode),
                Has(") assert(x) failed at: tests/keel/test_klassert.cpp:"));
}

void PrintingCallback(const char* message) { std::fprintf(stderr, "callback saw [%s]\n", message); }
void DyingCallback(const char* message) {
    std::fprintf(stderr, "callback saw [%s]\n", message);
    klDie("AGAIN", "second death");
}

TEST(AssertDeathTest, DeathCallbackRunsBeforeTheReport) {
    EXPECT_EXIT(
        {
            klSetDeathCallback(PrintingCallback);
            klDie("TERMINATE", "std::terminate()");
        },
        testing::ExitedWithCode(123), (keeltest::HasAll({{"callback saw [std::terminate()]\nERROR ", 1},
                                                       {") TERMINATE\nERROR ", 1}, {") std::terminate()\n", 1}})));
}

TEST(AssertDeathTest, DeathInsideTheCallbackEndsAtOnce) {
    // The second death neither recurses nor reports: the process simply ends.
    EXPECT_EXIT(
        {
            klSetDeathCallback(DyingCallback);
            klDie("ASSERT", "first death");
        },
        testing::ExitedWithCode(123), (keeltest::HasAll({{"callback saw [first death]", 1}, {"AGAIN", 0}, {"DEATH", 0}})));
}

TEST(AssertDeathTest, TwoDyingThreadsGiveOneReport) {
    EXPECT_EXIT(
        {
            std::thread first([] { klDie("ASSERT", "from a thread"); });
            std::thread second([] { klDie("ASSERT", "from a thread"); });
            first.join(); // never returns: the winner ends the process, the loser halts
            second.join();
        },
        testing::ExitedWithCode(123), Has(") from a thread\n", 1));
}

TEST(AssertDeathTest, ReportDeathSpeaksOnceAndReturns) {
    EXPECT_EXIT(
        {
            klReportDeath("WARN", "first");
            klReportDeath("WARN", "second");
            std::fprintf(stderr, "still running\n");
            std::exit(7);
        },
        testing::ExitedWithCode(7),
        (keeltest::HasAll({{"  DEATH  (", 1}, {") WARN: first\n\n", 1}, {"second", 0}, {"still running", 1}})));
}
