// The console lives for the whole program; these references are built before it, as a game's are.
#include "keel_test.h"

#include "keel/klconsole.h"

#include <tuple>

using keeltest::CaptureAsserts;
using Strings = std::vector<std::string>;

namespace {

klVarRef gEarlyWidth("Width"), gEarlyWIDTH("WIDTH");

// Queues three references and destroys the middle one before start-up.
struct QueueFixture {
    QueueFixture() {
        setBeforeStart = klSetCvar("Width", "1");
        first = new klVarRef("QueueFirst");
        auto* gone = new klVarRef("QueueGone");
        last = new klVarRef("QueueLast");
        boundBeforeStart = first->IsBound() || gone->IsBound() || last->IsBound();
        delete gone;
    }
    bool setBeforeStart, boundBeforeStart;
    klVarRef *first, *last;
} gQueue;

struct LifetimeEnvironment : testing::Environment {
    void SetUp() override { klObjectLifetimeManager::Initialize(); }
    void TearDown() override { klObjectLifetimeManager::Shutdown(); }
};
[[maybe_unused]] auto* const gLifetime = testing::AddGlobalTestEnvironment(new LifetimeEnvironment);

klCvar* Find(const char* name) { return klConsole::Live()->Find(name); }

} // namespace

// Up to 127 characters stay inside the record; numbers follow the text's base.
TEST(Console, TextStaysInsideUpTo127CharactersAndNumbersFollowItsBase) {
    const std::string inside(127, 'a'), spilled(128, 'b');
    ASSERT_TRUE(klSetCvar("Buffer", inside.c_str()));
    klCvar* record = Find("buffer");
    ASSERT_NE(nullptr, record);
    EXPECT_TRUE(record->IsInline());
    EXPECT_EQ(inside, record->GetString());
    ASSERT_TRUE(klSetCvar("Buffer", spilled.c_str()));
    EXPECT_FALSE(record->IsInline());
    EXPECT_EQ(spilled, record->GetString());
    ASSERT_TRUE(klSetCvar("Buffer", "short"));
    EXPECT_TRUE(record->IsInline());

    // Around the shortcut for plain integers: up to nine digits, a letter may follow.
    const std::tuple<const char*, int32_t, uint32_t, double> cases[] = {
        {"0x10", 16, 16, 0.0}, {"010", 8, 8, 10.0}, {"-1", -1, 4294967295u, -1.0}, {"3.5", 3, 3, 3.5},
        {" 12px", 12, 12, 12.0}, {"inf", 0, 0, 0.0},  {"-99999999999999999999", -2147483647 - 1, 4294967295u, -1e20},
        {"123456789", 123456789, 123456789u, 123456789.0}, {"1234567890", 1234567890, 1234567890u, 1234567890.0},
        {"720p", 720, 720, 720.0}, {"5e2", 5, 5, 500.0}, {"-7z", -7, 4294967289u, -7.0},
    };
    klVarRef ref("Number");
    for (const auto& [text, asInt, asUInt, asFloat] : cases) {
        ASSERT_TRUE(klSetCvar("NUMBER", text));
        EXPECT_EQ(std::make_tuple(asInt, asUInt, asFloat), std::make_tuple(ref.GetInt(), ref.GetUInt(), ref.GetFloat()))
            << text;
    }

    CaptureAsserts capture;
    EXPECT_FALSE(klSetCvar("Buffer", nullptr) || klSetCvar(nullptr, "1"));
    EXPECT_EQ((Strings{"val != NULL", "name != NULL"}), capture.Exprs());
}

// A reference destroyed before start-up left the queue; its neighbours were bound.
TEST(Console, StartupBindsQueuedReferencesToOneRecordPerName) {
    EXPECT_FALSE(gQueue.setBeforeStart || gQueue.boundBeforeStart);
    ASSERT_TRUE(gEarlyWidth.IsBound());
    EXPECT_EQ(gEarlyWidth.Record(), gEarlyWIDTH.Record());
    klVarRef late("wIdTh");
    EXPECT_EQ(gEarlyWidth.Record(), late.Record());
    EXPECT_TRUE(gQueue.first->IsBound() && gQueue.last->IsBound());
    EXPECT_EQ(nullptr, Find("QueueGone"));

    CaptureAsserts capture;
    late.Reconstruct("Height");
    EXPECT_EQ(Find("height"), late.Record());
    klVarRef unnamed(nullptr);
    EXPECT_STREQ("", unnamed.GetString());
    EXPECT_EQ((Strings{"name != NULL", "mVal != NULL"}), capture.Exprs());
}
