// The console lives for the whole test program (a global environment starts and stops
// the lifetime manager); the static references and the queue fixture below are built
// before that, during static construction, as a game's would be.
#include "keel_test.h"

#include "keel/klconsole.h"
#include "keel/kllog.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

using keeltest::CaptureAsserts;
using keeltest::HasAll;

namespace {

klVarRef gEarlyWidth("Width");
klVarRef gEarlyWIDTH("WIDTH");

// Queues three references and destroys the middle one before start-up.
struct QueueFixture {
    QueueFixture() {
        setBeforeStart = klSetCvar("Width", "1");
        first = new klVarRef("QueueFirst");
        auto* gone = new klVarRef("QueueGone");
        last = new klVarRef("QueueLast");
        queuedBeforeStart = first->IsBound() || gone->IsBound() || last->IsBound() ? -1 : 3;
        delete gone;
    }
    bool setBeforeStart;
    int queuedBeforeStart;
    klVarRef* first;
    klVarRef* last;
} gQueue;

struct LifetimeEnvironment : testing::Environment {
    void SetUp() override { klObjectLifetimeManager::Initialize(); }
    void TearDown() override { klObjectLifetimeManager::Shutdown(); }
};
[[maybe_unused]] auto* const gLifetime = testing::AddGlobalTestEnvironment(new LifetimeEnvironment);

klCvar* Find(const char* name) { return klConsole::Live()->Find(name); }

bool InsideRecord(const klCvar* record) {
    const char* text = record->GetString();
    const char* base = reinterpret_cast<const char*>(record);
    return text >= base && text < base + sizeof(klCvar);
}

// The self-checking values of the concurrent test below.
std::string Pattern(uint32_t k) {
    return std::to_string(k) + ":" + std::string(10 + (k % 7) * 40, static_cast<char>('a' + k % 26));
}

bool WellFormed(const char* text, uint32_t* k) {
    char* end = nullptr;
    *k = static_cast<uint32_t>(std::strtoul(text, &end, 10));
    return end != text && Pattern(*k) == text;
}

} // namespace

TEST(Console, TextStaysInsideUpTo127Characters) {
    const std::string inside(127, 'a'), spilled(128, 'b');
    ASSERT_TRUE(klSetCvar("Buffer", inside.c_str()));
    klCvar* record = Find("buffer");
    ASSERT_NE(nullptr, record);
    EXPECT_TRUE(record->IsInline());
    EXPECT_TRUE(InsideRecord(record));
    EXPECT_EQ(inside, record->GetString());

    ASSERT_TRUE(klSetCvar("Buffer", spilled.c_str()));
    EXPECT_FALSE(record->IsInline());
    EXPECT_FALSE(InsideRecord(record));
    EXPECT_EQ(spilled, record->GetString());
    // Its own text again, and a longer one: the old block must outlive the copy.
    {
        klScopedLock<klMutex> hold(klConsole::Live()->Lock());
        record->Set(record->GetString());
        EXPECT_EQ(spilled, record->GetString());
        const std::string longer = std::string(record->GetString()) + std::string(300, 'c');
        record->Set(longer.c_str());
        EXPECT_EQ(longer, record->GetString());
    }

    ASSERT_TRUE(klSetCvar("Buffer", "short"));
    EXPECT_TRUE(record->IsInline());
    EXPECT_TRUE(InsideRecord(record));
    EXPECT_STREQ("short", record->GetString());

    CaptureAsserts capture;
    EXPECT_FALSE(klSetCvar("Buffer", nullptr));
    EXPECT_FALSE(klSetCvar(nullptr, "1"));
    EXPECT_EQ((std::vector<std::string>{"val != NULL", "name != NULL"}), capture.Exprs());
    EXPECT_STREQ("short", record->GetString());
}

TEST(Console, NumbersFollowTheTextsBase) {
    struct Case {
        const char* text;
        int32_t asInt;
        uint32_t asUInt;
        double asFloat;
    };
    const Case cases[] = {
        {"0x10", 16, 16, 0.0}, {"010", 8, 8, 10.0}, {"-1", -1, 4294967295u, -1.0}, {"3.5", 3, 3, 3.5},
        {" 12px", 12, 12, 12.0}, {"inf", 0, 0, 0.0}, {"-0x10", -16, 4294967280u, 0.0},
        {"-99999999999999999999", -2147483647 - 1, 4294967295u, -1e20},
    };
    klVarRef ref("Number");
    for (const Case& c : cases) {
        ASSERT_TRUE(klSetCvar("NUMBER", c.text));
        EXPECT_STREQ(c.text, ref.GetString());
        EXPECT_EQ(c.asInt, ref.GetInt()) << c.text;
        EXPECT_EQ(c.asUInt, ref.GetUInt()) << c.text;
        EXPECT_DOUBLE_EQ(c.asFloat, ref.GetFloat()) << c.text;
    }
}

TEST(Console, StartupBindsQueuedReferencesToOneRecordPerName) {
    EXPECT_FALSE(gQueue.setBeforeStart);
    EXPECT_EQ(3, gQueue.queuedBeforeStart);
    ASSERT_TRUE(gEarlyWidth.IsBound());
    EXPECT_EQ(gEarlyWidth.Record(), gEarlyWIDTH.Record());
    EXPECT_EQ(Find("wIDth"), gEarlyWidth.Record());
    klVarRef late("wIdTh");
    EXPECT_EQ(gEarlyWidth.Record(), late.Record());
    ASSERT_TRUE(klSetCvar("width", "640"));
    EXPECT_EQ(640, gEarlyWIDTH.GetInt());
    EXPECT_STREQ("640", late.GetString());

    // The destroyed reference left the queue; its neighbours were still bound.
    EXPECT_TRUE(gQueue.first->IsBound());
    EXPECT_TRUE(gQueue.last->IsBound());
    EXPECT_EQ(nullptr, Find("QueueGone"));

    // A new name gets an empty record, as at start-up.
    klVarRef fresh("FreshAfterStart");
    ASSERT_TRUE(fresh.IsBound());
    EXPECT_EQ(Find("freshafterstart"), fresh.Record());
    EXPECT_STREQ("", fresh.GetString());

    CaptureAsserts capture;
    late.Reconstruct("WIDTH");
    EXPECT_EQ(gEarlyWidth.Record(), late.Record());
    late.Reconstruct("Height");
    EXPECT_EQ(Find("height"), late.Record());
    EXPECT_TRUE(capture.Exprs().empty());

    klVarRef unnamed(nullptr);
    EXPECT_FALSE(unnamed.IsBound());
    EXPECT_STREQ("", unnamed.GetString());
    EXPECT_EQ(0, unnamed.GetInt());
    EXPECT_EQ((std::vector<std::string>{"name != NULL", "mVal != NULL", "mVal != NULL"}), capture.Exprs());
}

TEST(Console, SetsAreLoggedAtDebugLevel) {
    keeltest::CaptureLog log;
    klConsoleLogger().SetLevel(klLogDebug, true);
    klSetCvar("LoggedVar", "1");
    klSetCvar("loggedvar", "two words");
    klConsoleLogger().SetLevel(klLogInfo, true);
    klSetCvar("LoggedVar", "3"); // below the minimum again: silent
    EXPECT_EQ((std::vector<std::string>{"Manually creating cvar LoggedVar = 1",
                                        "Updating cvar loggedvar = two words"}),
              log.Lines());
    EXPECT_EQ((std::vector<uint32_t>{klLogDebug, klLogDebug}), log.Levels());
}

TEST(ConsoleDeathTest, ShutdownKeepsRecordsAndRefusesSets) {
    EXPECT_EXIT(
        {
            klSetCvar("Width", "77");
            klObjectLifetimeManager::Shutdown();
            CaptureAsserts capture;
            const bool setAfter = klSetCvar("Width", "78");
            klVarRef after("Width");
            const int32_t number = after.GetInt();
            const std::string text = after.GetString();
            std::fprintf(stderr, "set=%d width=%s after=%d:%d:%s reports=%zu\n", setAfter,
                         gEarlyWidth.GetString(), after.IsBound(), number, text.c_str(),
                         capture.Reports().size());
            std::exit(0);
        },
        testing::ExitedWithCode(0), HasAll({{"set=0 width=77 after=0:0: reports=2\n", 1}}));
}

// Writers store self-checking values (a number, then a length and letter derived from it)
// whose sizes cross the in-record limit; readers must never see a mix of two values.
TEST(Console, ConcurrentSetsAndReadsSeeWholeValues) {
    constexpr int kWriters = 4, kReaders = 3, kVars = 4, kSets = 3000;
    const char* names[kVars] = {"Conc0", "CONC1", "conc2", "Conc3"};
    for (const char* name : names) klSetCvar(name, Pattern(0).c_str());
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    std::atomic<int> sets{0}, bad{0}, writersLeft{kWriters};
    std::vector<std::thread> threads;
    for (int w = 0; w < kWriters; ++w) {
        threads.emplace_back([&, w] {
            for (int i = 1; i <= kSets && std::chrono::steady_clock::now() < deadline; ++i) {
                const uint32_t k = static_cast<uint32_t>(w * 100000 + i);
                if (klSetCvar(names[i % kVars], Pattern(k).c_str())) ++sets;
            }
            --writersLeft;
        });
    }
    for (int r = 0; r < kReaders; ++r) {
        threads.emplace_back([&, r] {
            klVarRef ref(names[r % kVars]);
            while (writersLeft > 0 && std::chrono::steady_clock::now() < deadline) {
                uint32_t k = 0;
                const klString text = ref.Copy();
                const int32_t asInt = ref.GetInt();
                if (!WellFormed(text, &k) || asInt < 0 || asInt % 100000 > kSets) ++bad;
            }
        });
    }
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(0, bad.load());
    EXPECT_EQ(kWriters * kSets, sets.load()) << "writers ran out of time";
    for (const char* name : names) {
        uint32_t k = 0;
        klVarRef ref(name);
        EXPECT_TRUE(WellFormed(ref.Copy(), &k)) << name;
        EXPECT_TRUE(k % 100000 >= 1 && k % 100000 <= kSets && k / 100000 < kWriters) << name << " " << k;
        EXPECT_EQ(static_cast<int32_t>(k), ref.GetInt());
    }
}
