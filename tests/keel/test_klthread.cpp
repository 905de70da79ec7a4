#include "keel_test_a.h"

#include "keel/klthread.h"

#include <cstdlib>

#ifndef _WIN32
#include <pthread.h>
#endif

using keeltest::HasAll;
using keeltest::Watchdog;
using Key = klThreadLocalMgr::KeyType;
using Clock = std::chrono::steady_clock;

namespace {

[[maybe_unused]] auto* const gLive = testing::AddGlobalTestEnvironment(new keeltest::LiveSingletons);

std::atomic<int> gBegins{0}, gEnds{0}, gRuns{0};

struct Worker : klThread {
    explicit Worker(const char* name) : klThread(name) {}
    ~Worker() override { WaitStop(5000); }
    bool OnStart() override { return (mFinishedAtStart = mFinished, mAllowStart); }
    void RequestStop() override { ++mStopRequests; }
    void Run() override {
        mHooksInside = gBegins * 10 + gEnds;
#ifndef _WIN32
        pthread_getname_np(pthread_self(), mNameInside, sizeof(mNameInside));
#endif
        for (++gRuns; !IsStopRequested();) klSleep(1);
        ++mFinished;
    }
    std::atomic<int> mFinished{0}, mStopRequests{0};
    int mFinishedAtStart = -1, mHooksInside = 0;
    bool mAllowStart = true;
    char mNameInside[32] = {};
};

} // namespace

TEST(Thread, RestartJoinsThePreviousRunAndOnStartMayVeto) {
    Watchdog watchdog;
    klThreadBeginHook = [] { ++gBegins; };
    klThreadEndHook = [] { ++gEnds; };
    Worker worker("a-rather-long-worker-name");
    EXPECT_FALSE(worker.SetPriority(2)); // nothing to set it on yet
    ASSERT_TRUE(worker.Start());
    while (gRuns < 1) klSleep(1);
#ifndef _WIN32
    EXPECT_STREQ("a-rather-long-w", worker.mNameInside); // the kernel keeps 15 characters
#endif
    EXPECT_FALSE(worker.SetPriority(5) || worker.SetPriority(-1));
    EXPECT_TRUE(worker.SetPriority(2));
    ASSERT_TRUE(worker.Start());
    EXPECT_EQ(1, worker.mFinishedAtStart); // the first run had ended before OnStart
    EXPECT_EQ(2, worker.mStopRequests);    // every Start asks first, even with nothing running
    while (gRuns < 2) klSleep(1);
    klSleep(20);
    EXPECT_EQ(1, worker.mFinished); // the restart cleared its stop request
    worker.mAllowStart = false;
    EXPECT_FALSE(worker.Start());
    EXPECT_EQ(2, worker.mFinished);
    EXPECT_EQ(21, worker.mHooksInside); // second run: two begins, one end so far
    EXPECT_EQ(2, gEnds);
    klThreadBeginHook = klThreadEndHook = nullptr;
}

// Blocked inside noexcept code, where a cancellation would end the whole process.
struct DeafSleeper : klThread {
    DeafSleeper() : klThread("deaf") {}
    void Run() noexcept override {
        for (;;) klSleep(1000);
    }
};

TEST(ThreadDeathTest, AnOverdueThreadIsReportedAndNeverEndsTheProcess) {
    auto overdue = [] {
        Watchdog watchdog;
        DeafSleeper deaf;
        deaf.Start();
        klSleep(20);
        auto begin = Clock::now();
        const bool stopped = deaf.WaitStop(50);
        const bool slow = Clock::now() - begin > std::chrono::seconds(2);
        std::fprintf(stderr, "returned stopped=%d running=%d slow=%d\n", stopped, deaf.IsRunning(), slow);
        std::exit(0);
    };
#ifdef _WIN32
    const std::string returned = "returned stopped=1 running=0 slow=0"; // killed
#else
    const std::string returned = "returned stopped=0 running=1 slow=0"; // Linux kills no thread
#endif
    EXPECT_EXIT(overdue(), testing::ExitedWithCode(0),
                HasAll({{"ERROR ", 1}, {" CONSOLE (", 1},
                        {") klThread::WaitStop(): Possible deadlock in deaf, terminating the thread\n", 1},
                        {returned, 1}, {"TERMINATE", 0}}));
}

TEST(EventConcurrent, TimesOutWakesOnceAndSemaphoresLoseNoPost) {
    Watchdog watchdog;
    klAutoResetEvent event;
    auto begin = Clock::now();
    EXPECT_FALSE(event.Wait(30));
    EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(25));
    event.Signal(), event.Signal(); // does not accumulate
    EXPECT_TRUE(event.Wait(30));
    EXPECT_FALSE(event.Wait(1));
    std::atomic<bool> woke{false};
    std::thread waiter([&] { woke = event.Wait(0); }); // 0: for ever
    klSleep(50);
    EXPECT_FALSE(woke);
    event.Signal(), waiter.join();
    EXPECT_TRUE(woke);

    klSemaphore semaphore(1, 3); // a low ceiling makes producers meet it
    EXPECT_TRUE(semaphore.Post() && semaphore.Post());
    EXPECT_FALSE(semaphore.Post());
    EXPECT_TRUE(semaphore.Wait() && semaphore.Wait() && semaphore.Wait());
    std::atomic<int> taken{0};
    keeltest::RunThreads(8, [&](int t) {
        for (int i = 0; i < 2000; ++i)
            if (t % 2) taken += semaphore.Wait(); // odd threads take, even ones post
            else while (!semaphore.Post()) klYieldOrSleep();
    });
    EXPECT_EQ(4 * 2000, taken);
}

TEST(ThreadLocal, FreedKeysComeBackUnderTheNextGeneration) {
    Watchdog watchdog;
    klThreadLocalMgr mgr;
    Key first = mgr.AllocKey(), second = mgr.AllocKey();
    EXPECT_EQ(2u << 12, second);
    EXPECT_EQ((5u << 12) | 8, klThreadLocalMgr::NextGeneration((5u << 12) | 7));
    EXPECT_EQ(5u << 12, klThreadLocalMgr::NextGeneration((5u << 12) | 0xFFF));

    // A reused key never sees an old value; once it stores on a thread the old key reads 0.
    mgr.SetValue(first, 7);
    klAutoResetEvent stored, reallocated;
    Key stale = first, reused = 0;
    uint32_t reusedThere = 1, staleThere = 1;
    std::thread other([&] {
        mgr.SetValue(stale, 9), stored.Signal(), reallocated.Wait();
        reusedThere = mgr.GetValue(reused);
        mgr.SetValue(reused, 12), staleThere = mgr.GetValue(stale);
    });
    stored.Wait();
    mgr.FreeKey(first);
    EXPECT_EQ(0u, first);
    EXPECT_EQ(stale + 1, reused = mgr.AllocKey());
    EXPECT_EQ(0u, mgr.GetValue(reused));
    mgr.SetValue(reused, 11), reallocated.Signal();
    other.join();
    EXPECT_EQ(0u, reusedThere + staleThere + mgr.GetValue(stale));
    // With another manager's record in this thread's cache, both go the long way.
    klThreadLocalMgr& global = *klThreadLocalMgr::Instance();
    Key elsewhere = global.AllocKey();
    for (Key key : {stale, reused}) {
        global.SetValue(elsewhere, 1); // takes the cache
        EXPECT_EQ(key == reused ? 11u : 0u, mgr.GetValue(key));
    }
    global.FreeKey(elsewhere);
    keeltest::CaptureAsserts capture;
    Key zero = klThreadLocalMgr::INVALID_KEY;
    EXPECT_EQ(0u, mgr.GetValue(zero));
    mgr.FreeKey(zero);
    EXPECT_EQ((std::vector<std::string>{"key != INVALID_KEY", "key != 0"}), capture.Exprs());
    mgr.FreeKey(reused), mgr.FreeKey(second);
}
