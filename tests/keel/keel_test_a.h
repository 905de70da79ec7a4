// Helpers shared by the keel tests of threads, locks and the lock-free pool.
#pragma once

#include "keel_test.h"

#include "keel/kllifetime.h" // the standard headers these helpers use come with keel_test.h

namespace keeltest {

// Ends the test program when a test still runs after 30 s: a hang becomes a failure.
struct Watchdog {
    std::atomic<bool> done{false};
    std::thread thread{[this] {
        for (int i = 0; i < 3000 * kTimeScale && !done; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        if (!done) std::fputs("watchdog: the test hung\n", stderr), std::_Exit(3);
    }};
    ~Watchdog() { done = true, thread.join(); }
};

// Runs body(t) on count threads, t from 0, and joins them.
template <class F> void RunThreads(int count, F body) {
    std::vector<std::thread> threads;
    for (int t = 0; t < count; ++t) threads.emplace_back(body, t);
    for (std::thread& thread : threads) thread.join();
}

// Keeps the singletons live for the whole program, once added as a global environment.
struct LiveSingletons : testing::Environment {
    void SetUp() override { klObjectLifetimeManager::Initialize(); }
    void TearDown() override { klObjectLifetimeManager::Shutdown(); }
};

} // namespace keeltest
