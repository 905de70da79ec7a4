// An uncontended lock and release: klMutex beside the standard recursive mutex.
#include "keel/kllock.h"

#include "keel_bench.h"

#include <mutex>

namespace {

template <class Mutex> void LockUnlock(benchmark::State& state) {
    static Mutex mutex;
    for (auto _ : state) {
        mutex.lock();
        mutex.unlock();
    }
}

// klMutex under the standard names, so both run the same loop.
struct KeelMutex {
    klMutex mutex;
    void lock() { mutex.Lock(); }
    void unlock() { mutex.Unlock(); }
};

} // namespace

KEEL_BENCHMARK(LockUnlock<KeelMutex>)->Name("MutexLock/keel");
KEEL_BENCHMARK(LockUnlock<std::recursive_mutex>)->Name("MutexLock/std");
