#include "keel_test_a.h"

#include "keel/kllock.h"

#include <algorithm>
#include <deque>
#include <mutex>
#include <new>

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

// Lock misuse is reported from the platform half.
#ifdef _WIN32
const std::string kLockSource = "core/keel/win32/klw32lock.cpp";
#else
const std::string kLockSource = "core/keel/posix/klposixlock.cpp";
#endif

// Polls until done() holds or five seconds pass.
template <class F> bool Eventually(F done) {
    for (auto until = Clock::now() + 5s; Clock::now() < until; std::this_thread::sleep_for(1ms))
        if (done()) return true;
    return done();
}

bool TryLockElsewhere(klMutex& mutex) {
    bool taken = false;
    std::thread([&] { taken = mutex.TryLock() ? (mutex.Unlock(), true) : false; }).join();
    return taken;
}

// A profiler that writes down what it hears, from any thread.
std::mutex gHeardGuard;
std::vector<std::string> gHeard;
size_t Hear(const char* event = nullptr) {
    std::lock_guard<std::mutex> hold(gHeardGuard);
    if (event) gHeard.push_back(event);
    return gHeard.size();
}
constexpr klLockTelemetry kRecorder{
    [](void*, const char* name, const char*, int) { Hear((std::string("name ") + name).c_str()); },
    [](void*, const char*, int) { Hear("try"); },
    [](void*, bool acquired, const char*, int) { Hear(acquired ? "ok" : "fail"); },
    [](void*, const char* state, const char*, int) { Hear(state); }};

} // namespace

TEST(KlMutex, RecursesForItsOwnerOnly) {
    keeltest::CaptureAsserts capture;
    alignas(klMutex) unsigned char storage[sizeof(klMutex)];
    klMutex& mutex = *new (storage) klMutex;
    EXPECT_STREQ("Unnamed", mutex.Name());
    mutex.SetName("klFileSystem(open-file table lock)");
    EXPECT_STREQ("klFileSystem(open-file table lo", mutex.Name());
    mutex.Lock();
    mutex.Lock();
    EXPECT_TRUE(mutex.TryLock());
    EXPECT_FALSE(TryLockElsewhere(mutex));
    mutex.Unlock(), mutex.Unlock();
    EXPECT_EQ(1u, mutex.RecursionDepth());
    mutex.~klMutex(); // still held
    EXPECT_EQ(std::vector<std::string>{"_bSpin == 0"}, capture.Exprs());
}

TEST(KlCondition, UnheardWakeUpsAreLostAndTimeOutsReturnLocked) {
    klCondition cond;
    klScopedLock hold(cond);
    cond.Signal(), cond.Broadcast();
    EXPECT_FALSE(cond.Wait(0));
    Clock::time_point start = Clock::now();
    EXPECT_FALSE(cond.Wait(990)); // the deadline's nanoseconds almost surely carry into seconds
    EXPECT_GE(Clock::now() - start, 950ms); // the Windows timer may end a wait a tick early
    EXPECT_EQ(1u, cond.Mutex().RecursionDepth());
    EXPECT_EQ(0u, cond.Waiting());
}

// The last waiter out clears a broadcast: a later waiter is not let through.
TEST(KlCondition, ConcurrentSignalWakesOneAndBroadcastWakesTheRest) {
    klCondition cond;
    std::atomic<int> woken{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i) waiters.emplace_back([&] { klScopedLock hold(cond); woken += cond.Wait(5000); });
    ASSERT_TRUE(Eventually([&] { return cond.Waiting() == 3; }));
    cond.Lock(), cond.Signal(), cond.Unlock();
    EXPECT_TRUE(Eventually([&] { return woken == 1; }));
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(2u, cond.Waiting());
    cond.Lock(), cond.Broadcast(), cond.Unlock();
    for (std::thread& waiter : waiters) waiter.join();
    EXPECT_EQ(3, woken.load());
    klScopedLock hold(cond);
    EXPECT_FALSE(cond.Wait(20));
}

TEST(KlMutex, ConcurrentContentionIsReportedToAProfiler) {
    klSetLockTelemetry(&kRecorder);
    {
        klMutex mutex("cvarLock");
        mutex.Lock();
        std::thread contender([&] { mutex.Lock(), mutex.Unlock(); }); // fails once, then blocks
        EXPECT_TRUE(Eventually([] { return Hear() >= 7; }));
        mutex.Unlock();
        contender.join();
    }
    klSetLockTelemetry(nullptr);
    ASSERT_EQ(12u, gHeard.size());
    EXPECT_EQ(
        (std::vector<std::string>{"name cvarLock", "try", "ok", "locked", "try", "fail", "try"}),
        std::vector<std::string>(gHeard.begin(), gHeard.begin() + 7));
    // The release is reported once the lock is free, so the contender may speak first.
    EXPECT_EQ(2, std::count(gHeard.begin() + 7, gHeard.end(), "released"));
    EXPECT_EQ("destroyed", gHeard[11]);
}

TEST(KlConditionDeathTest, UseWithoutTheLockIsFatal) {
    auto fatal = [](const std::string& call) {
        return keeltest::Has(") assertmsg(_mutex._bSpin != 0, Condition should be locked "
                             "before calling " + call + ") failed at: " + kLockSource + ":", 1);
    };
    klCondition cond;
    EXPECT_EXIT(cond.Wait(10), testing::ExitedWithCode(123), fatal("Wait"));
    EXPECT_EXIT(cond.Signal(), testing::ExitedWithCode(123), fatal("Signal"));
    EXPECT_EXIT(cond.Broadcast(), testing::ExitedWithCode(123), fatal("Broadcast"));
}

TEST(KlCondition, ConcurrentProducersAndConsumersMoveEveryItem) {
    constexpr uint64_t kThreads = 3, kItems = 3000, kTotal = kThreads * kItems;
    klCondition cond;
    std::deque<uint64_t> queue;
    std::atomic<uint64_t> producing{kThreads};
    uint64_t sum = 0, count = 0, timeOuts = 0;
    keeltest::RunThreads(2 * kThreads, [&](uint64_t t) {
        klScopedLock hold(cond);
        for (uint64_t i = 1; t < kThreads && i <= kItems; ++i) // a producer
            queue.push_back(t * kItems + i), cond.Signal(), cond.Unlock(), cond.Lock();
        if (t < kThreads && --producing == 0) cond.Broadcast();
        for (auto until = Clock::now() + 10s; t >= kThreads && Clock::now() < until;) {
            if (!queue.empty()) sum += queue.front(), ++count, queue.pop_front();
            else if (producing == 0) break;
            else timeOuts += !cond.Wait(2000);
        }
    });
    EXPECT_EQ(kTotal, count);
    EXPECT_EQ(kTotal * (kTotal + 1) / 2, sum);
    EXPECT_EQ(0u, timeOuts);
    EXPECT_EQ(0u, cond.Waiting());
}
