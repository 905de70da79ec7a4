#include "keel_test.h"

TEST(Assert, FormatsBothShapesCutToTheBufferAndReportsPlainOnes) {
    char text[128];
    klFormatAssert(text, sizeof(text), "a < b", "core/keel/x.cpp", 42, nullptr);
    EXPECT_STREQ("assert(a < b) failed at: core/keel/x.cpp:42\n", text);
    klFormatAssert(text, sizeof(text), "p != 0", "core/keel/x.cpp", 7, "why");
    EXPECT_STREQ("assertmsg(p != 0, why) failed at: core/keel/x.cpp:7\n", text);
    testing::internal::CaptureStderr(); // the default report cuts at its 4096-byte buffer
    klDefaultAssertReport("x", "f", 1, std::string(5000, 'm').c_str());
    EXPECT_EQ(4095u, testing::internal::GetCapturedStderr().size());

    keeltest::CaptureAsserts capture;
    int value = 3;
    EXPECT_FALSE(klAssertMsg(value > 5, "too small"));
    ASSERT_EQ(1u, capture.Reports().size());
    EXPECT_EQ("value > 5|too small|tests/keel/test_klassert.cpp", capture.Reports()[0].Text()); // path from the root
}

namespace {
void FailArithmetic() { klFatalAssert(1 + 1 == 3, "arithmetic"); }
const int kArithmeticLine = __LINE__ - 1;
void Print(const char* message) { std::fprintf(stderr, "callback saw [%s]\n", message); }
void DieAgain(const char* message) { Print(message), klDie("AGAIN", "second death"); }
} // namespace

// A death in the death callback ends the process at once; of two dying threads one reports;
// klReportDeath speaks once and returns.
TEST(AssertDeathTest, EachDeathReportsOnce) {
    const std::string arithmetic = ") assertmsg(1 + 1 == 3, arithmetic) failed at: tests/keel/test_klassert.cpp:" +
                                   std::to_string(kArithmeticLine) + "\n\n";
    keeltest::ExpectDeaths({
        {FailArithmetic, {{"  DEATH  (", 2}, {") ASSERT\n", 1}, {arithmetic, 1}}},
        {[] { klSetDeathCallback(DieAgain), klDie("ASSERT", "first death"); },
         {{"callback saw [first death]", 1}, {"AGAIN", 0}, {"DEATH", 0}}},
        {[] {
             std::thread first([] { klDie("ASSERT", "from a thread"); });
             std::thread second([] { klDie("ASSERT", "from a thread"); });
             first.join(), second.join();
         },
         {{") from a thread\n", 1}}},
        {[] {
             klReportDeath("WARN", "first");
             klReportDeath("WARN", "second");
             std::fprintf(stderr, "still running\n");
             std::exit(7);
         },
         {{"  DEATH  (", 1}, {") WARN: first\n\n", 1}, {"second", 0}, {"still running", 1}},
         testing::ExitedWithCode(7)},
    });
}
