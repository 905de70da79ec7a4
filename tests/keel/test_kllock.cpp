#include "keel_test_a.h"

#include "keel/kllock.h"

#include <new>

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

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
