// The reader/writer spin lock beside std::shared_mutex: an uncontended read lock and
// release, the same for the header-inline build, and an uncontended write lock.
#include "keel/kllifetime.h"
#include "keel/kllockfree.h"

#include "keel_bench.h"

#include <shared_mutex>

namespace {

void StartKeel() {
    static const bool started = (klObjectLifetimeManager::Initialize(), true);
    (void)started;
}

template <class Lock> void ReadKeel(benchmark::State& state) {
    StartKeel();
    Lock lock;
    for (auto _ : state) {
        lock.ReadLock();
        benchmark::ClobberMemory();
        lock.ReadUnlock();
    }
}
template <class Lock> void WriteKeel(benchmark::State& state) {
    StartKeel();
    Lock lock;
    for (auto _ : state) {
        lock.WriteLock();
        benchmark::ClobberMemory();
        lock.WriteUnlock();
    }
}
void ReadStd(benchmark::State& state) {
    std::shared_mutex lock;
    for (auto _ : state) {
        lock.lock_shared();
        benchmark::ClobberMemory();
        lock.unlock_shared();
    }
}
void WriteStd(benchmark::State& state) {
    std::shared_mutex lock;
    for (auto _ : state) {
        lock.lock();
        benchmark::ClobberMemory();
        lock.unlock();
    }
}

} // namespace

KEEL_BENCHMARK(ReadKeel<klReadWriteLock>)->Name("ReadLock/keel");
KEEL_BENCHMARK(ReadStd)->Name("ReadLock/std");
KEEL_BENCHMARK(ReadKeel<klInlineReadWriteLock>)->Name("InlineReadLock/keel");
KEEL_BENCHMARK(ReadStd)->Name("InlineReadLock/std");
KEEL_BENCHMARK(WriteKeel<klReadWriteLock>)->Name("WriteLock/keel");
KEEL_BENCHMARK(WriteStd)->Name("WriteLock/std");
