// A made-up clock: tick functions "work" by moving it on, the limiter's sleeps likewise.
#include "keel/klevent.h"
#include "keel/klstats.h"

#include "keel_test.h"

#include <numeric>

namespace {

int64_t gNow = 0; // the made-up counter, in microseconds unless a test says otherwise
std::vector<uint32_t> gSlept;
std::vector<std::string> gCalls; // which function ran in which frame, as "1A"
int gFrame = 0, gStopAfter = 0;

int64_t FakeCounter() { return gNow; }
void FakeSleep(uint32_t ms) {
    gSlept.push_back(ms);
    gNow += int64_t(ms) * 1000;
}

class KlEventLoop : public testing::Test {
protected:
    void SetUp() override {
        gNow = gFrame = 0;
        gStopAfter = 4;
        const kl::detail::EventClock fake = {FakeCounter, 1000000, FakeSleep};
        mSaved = kl::detail::SetEventClock(&fake);
        klStopEventLoop(false);
    }
    void TearDown() override { kl::detail::SetEventClock(&mSaved); }
    kl::detail::EventClock mSaved;
};

void FrameCounter(double) {
    if (++gFrame >= gStopAfter) klStopEventLoop();
}
template <char Name> void Tick(double) { gCalls.push_back(std::to_string(gFrame) + Name); }
constexpr klTickFunc TickA = Tick<'A'>, TickB = Tick<'B'>;
void SelfRemoving(double) {
    Tick<'S'>(0);
    klRemoveTickFunc(SelfRemoving);
}
void RemoveAndAddA(double) {
    if (gFrame != 1) return;
    klRemoveTickFunc(TickA);
    klAddTickFunc(TickA);
    klAddTickFunc(TickB);
}
template <int Ms> void Work(double) { gNow += Ms * 1000; }

template <char Name> struct Recorder : klEventCallback {
    void Invoke() override { Tick<Name>(0); }
};

} // namespace

// Tick changes take effect the next frame; delayed callbacks due together fire one a frame.
TEST_F(KlEventLoop, TickChangesAndDelayedCallbacksTakeEffectFrameByFrame) {
    const klAssertHookFn savedHook = klAssertHook;
    klAssertHook = [](const char*, const char*, int, const char*) {}; // posting reports as unfinished
    Recorder<'x'> x;
    Recorder<'y'> y;
    Recorder<'z'> z;
    klPostDelayed(5.0f, &x);
    klPostDelayed(5.0f, &y);
    klPostDelayed(10.0f, &z); // due exactly as the first fires: only after it
    klAssertHook = savedHook;

    for (klTickFunc tick : {FrameCounter, TickA, SelfRemoving, RemoveAndAddA, Work<10>}) klAddTickFunc(tick);
    klRunEventLoop(0, nullptr);
    EXPECT_EQ(std::vector<std::string>({"1A", "1S", "1x", "2A", "2B", "2y", "3A", "3B", "3z", "4A", "4B"}), gCalls);
    EXPECT_TRUE(gSlept.empty()); // fps 0 never sleeps
}

TEST_F(KlEventLoop, LimiterSleepsTheRestOfTheFrameOnceTheRingsFill) {
    gStopAfter = 300;
    klAddTickFunc(Work<5>);
    klAddTickFunc(FrameCounter);
    klRunEventLoop(60, nullptr);
    ASSERT_EQ(299u, gSlept.size()); // the first frame has no length yet, so it sleeps nothing
    EXPECT_EQ(16u, gSlept[0]);      // empty rings: almost the whole frame
    const double slept = std::accumulate(gSlept.begin() + 150, gSlept.end(), 0.0);
    EXPECT_NEAR(11.67, slept / double(gSlept.size() - 150), 0.7); // 16.67 a frame with the work
    EXPECT_NEAR(11.67, kl::detail::LastLimiterSleep(), 0.7);
}

// A zone entered twice in a frame counts once, with the sum; levels stop at 7.
TEST_F(KlEventLoop, FrameStatisticsFoldFramesAndReport) {
    klFrameStats::Reset();
    auto zone = [](uint32_t z, int64_t micros) {
        klScopedZone scoped(z);
        gNow += micros;
    };
    zone(3, 250);
    zone(3, 100);
    EXPECT_EQ(1u, klFrameStats::PushLevel());
    zone(4, 40);
    klFrameStats::PopLevel();
    klFrameStats::End(-1); // nothing open: nothing happens
    klFrameStats::EndFrame();
    zone(3, 50);
    klFrameStats::EndFrame();
    klFrameStats::EndFrame();
    EXPECT_STREQ("", klFrameStats::ZoneName(8));
    for (int i = 0; i < 9; ++i) klFrameStats::PushLevel();
    EXPECT_EQ(7u, klFrameStats::Level());

    const std::string path = (std::filesystem::temp_directory_path() / "klstats-report.txt").string();
    klFrameStats::Report(path.c_str());
    EXPECT_EQ("             Culling min 50 max 350 avg 200 miscroseconds/frame\n"
              "             Physics min 40 max 40 avg 40 miscroseconds/frame\n",
              std::string(std::istreambuf_iterator<char>(std::ifstream(path).rdbuf()), {}));
    std::filesystem::remove(path);
}

namespace {
std::atomic<int> gHelperFrames{0}, gFinished{0};
struct Finisher : klEventCallback {
    ~Finisher() override { gFinished += 10; }
    void Invoke() override { gFinished += 1; }
};
} // namespace

// A helper's stop leaves the host's loop alone; its callback runs once at its end, then goes.
TEST(KlEventThreadConcurrent, RunsItsOwnLoopAndEndsWithItsCallback) {
    klStopEventLoop(false);
    klEventThread helper(500, new Finisher);
    helper.Loop().AddTickFunc([](double) { ++gHelperFrames; });
    helper.Start();
    while (gHelperFrames < 3) klSleep(1);
    helper.WaitStop(5000);
    EXPECT_EQ(11, gFinished.load());
    EXPECT_FALSE(klEventLoopStopping());
}
