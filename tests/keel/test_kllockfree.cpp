#include "keel_test_a.h"

#include "keel/kllockfree.h"
#include "keel/klmalloc.h"
#include "keel/klplatform.h"

#include <algorithm>
#include <cstring>
#include <set>

using Pool = klSafeQueue::NodePool;
using Strings = std::vector<std::string>;
using namespace std::chrono_literals;
using keeltest::RunThreads;

namespace {
[[maybe_unused]] auto* const gLive = testing::AddGlobalTestEnvironment(new keeltest::LiveSingletons);
} // namespace

TEST(LockFree, PoolPlacesAlignedUnitsAndReturnsEveryByte) {
    const uint32_t before = klProcessBytesInUse();
    struct Case {
        uint32_t elem, grow, align, stride;
    } cases[] = {{20, 8, 8, 24}, {32, 128, 16, 32}, {24, 8, 1, 24}, {40, 4, 64, 64}};
    for (const Case& c : cases) {
        Pool pool(c.elem, c.grow, c.align);
        EXPECT_EQ(c.stride - c.elem, pool.Padding());
        char* previous = static_cast<char*>(pool.Alloc());
        EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(previous) % c.align);
        for (uint32_t i = 1; i < c.grow; previous += c.stride, ++i) // one block, in order
            EXPECT_EQ(previous + c.stride, pool.Alloc()) << c.elem << "/" << c.align;
    }
    {
        Pool pool(16, 4, 8);
        static std::set<void*> handed, all;
        for (int i = 0; i < 9; ++i) handed.insert(pool.Alloc()); // three blocks
        EXPECT_EQ(9u, pool.Count());
        pool.ForEach([](void* unit) { all.insert(unit); });
        EXPECT_EQ(12u, all.size()); // every unit of every block, handed out or not
        EXPECT_TRUE(std::includes(all.begin(), all.end(), handed.begin(), handed.end()));
        pool.Free(*handed.begin());
        EXPECT_EQ(*handed.begin(), pool.Alloc()); // a freed unit comes back first
        handed.clear(), all.clear();
    }
    EXPECT_EQ(before, klProcessBytesInUse());

    keeltest::CaptureAsserts capture; // broken arguments fall back to usable values
    EXPECT_EQ(8u, Pool(24, 8, 6).Alignment());
    Pool empty(0, 0, 0);
    EXPECT_NE(nullptr, empty.Alloc());
    empty.Free(nullptr);
    empty.ForEach(nullptr);
    EXPECT_EQ((Strings{"(mAlignment & (mAlignment-1)) == 0", "mElemSize > 0", "mGrowBy > 0", "mAlignment > 0",
                       "ptr != NULL", "dtor != NULL"}),
              capture.Exprs());
}

// The interleaving behind ABA, played by hand: a pop reads the top and its link, other pops
// and pushes put the same top back with another link, and the first pop's swap must fail.
TEST(LockFree, CountedSwapFailsAfterTheTopWasTakenAndPutBack) {
    int a;
    klCountedPtr slot{&a, 7};
    EXPECT_FALSE(klCompareAndSwapCounted(&slot, {nullptr, 7}, {&a, 8})); // the pointer half counts too
    keeltest::CaptureAsserts capture;
    void* units[3][2] = {};
    klCountedStack stack;
    EXPECT_EQ(nullptr, stack.Pop());
    for (auto& unit : units) stack.Push(unit);
    EXPECT_EQ(units[2], stack.Pop()); // last in, first out
    static_assert(std::is_standard_layout_v<klCountedStack>);
    klCountedPtr* top = reinterpret_cast<klCountedPtr*>(&stack); // its one member
    const klCountedPtr seen = klLoadCounted(top);
    EXPECT_EQ(units[1], stack.Pop());
    EXPECT_EQ(units[0], stack.Pop());
    stack.Push(units[1]); // the same top again, now without a successor
    EXPECT_FALSE(klCompareAndSwapCounted(top, seen, {units[0], seen.tag + 1}));
    EXPECT_EQ(units[1], stack.Pop());
    stack.Push(nullptr);
    EXPECT_EQ(Strings{"data != NULL"}, capture.Exprs());
    EXPECT_TRUE(stack.IsEmpty());
}

TEST(SafeQueueDeathTest, KeepsOrderReturnsZeroWhenEmptyAndMustBeEmptiedBeforeDestruction) {
    klSafeQueue queue;
    for (uintptr_t value = 1; value <= 100; ++value) queue.Push(value); // past one pool block
    EXPECT_EQ(100u, queue.Count());
    for (uintptr_t value = 1; value <= 101; ++value) ASSERT_EQ(value % 101, queue.Pop());
    EXPECT_EXIT(klSafeQueue().Push(42), testing::ExitedWithCode(klDeathExitCode),
                keeltest::Has(") assertmsg(mHead.ptr == mTail.ptr, ERROR: queue should be empty when "
                              "destroyed) failed at: core/keel/kllockfree.cpp:", 1));
}

// Every value is (producer, sequence): marks find duplicates, the count finds losses, and
// each consumer sees any one producer's values in push order.
TEST(SafeQueue, ConcurrentProducersAndConsumersMoveEveryValueOnce) {
    constexpr uintptr_t kProducers = 4, kEach = 25000, kTotal = kProducers * kEach;
    klSafeQueue queue;
    std::vector<std::atomic<uint8_t>> marks(kTotal);
    std::atomic<uint64_t> popped{0}, faults{0};
    RunThreads(2 * kProducers, [&](uintptr_t t) {
        for (uintptr_t i = 1; t < kProducers && i <= kEach; ++i) queue.Push((t + 1) << 20 | i);
        uintptr_t last[kProducers] = {};
        const auto until = std::chrono::steady_clock::now() + 20s;
        while (t >= kProducers && popped < kTotal && std::chrono::steady_clock::now() < until) {
            uintptr_t value = queue.Pop(), producer = (value >> 20) - 1, sequence = value & 0xFFFFF;
            if (value == 0) continue;
            faults += sequence <= last[producer] || marks[producer * kEach + sequence - 1].exchange(1);
            last[producer] = sequence;
            ++popped;
        }
    });
    EXPECT_EQ(kTotal, popped.load());
    EXPECT_EQ(0u, faults.load());
}

TEST(SpinCounter, TakesOnlyWhilePositiveAndGivesUpAfterTheTimeout) {
    klSpinCounter counter(1);
    EXPECT_EQ(1u, counter.WaitDecrement(0));
    EXPECT_FALSE(counter.TryIncrementFrom(1));
    EXPECT_TRUE(counter.TryIncrementFrom(0));
    EXPECT_EQ(1u, counter.TryDecrement());
    EXPECT_EQ(0u, counter.TryDecrement());
    const uint32_t start = kl::platform::Milliseconds();
    EXPECT_EQ(0u, counter.WaitDecrement(10));
    const uint32_t waited = kl::platform::Milliseconds() - start;
    EXPECT_TRUE(waited >= 10 && waited < 2000) << waited; // a loaded machine may oversleep
}

// Units carry a known pattern behind their first word, so each report line is known here:
// 25 of the 30 leaks, newest block first and each block in address order.
TEST(LockFree, LeakReportListsTwentyFiveUnitsNeverGivenBack) {
    klSafeAllocT pool(32, 16, 8);
    unsigned char* units[40];
    for (unsigned char*& unit : units)
        std::memcpy((unit = static_cast<unsigned char*>(pool.Alloc())) + sizeof(void*), "Leak\0\x7F\x1F ~\xFF\x80z!!!!", 16);
    for (int i = 0; i < 40; i += 4) pool.Free(units[i]);
    char* report = pool.LeakReport();
    const std::string text = report;
    char first[128], last[32];
    std::snprintf(first, sizeof(first), "Leaking nodes:\n     0) 0x%llX  4C65616B007F1F207EFF807A21212121 Leak..."
                  " ~..z!!!!\n     1) 0x", (unsigned long long)(uintptr_t)units[33]);
    std::snprintf(last, sizeof(last), "    24) 0x%llX  ", (unsigned long long)(uintptr_t)units[9]);
    const std::string header = "Free all pointers before SafeAlloc destructs. Dtors will not be called by "
                               "safealloc's cleanup.\nThis usually means you have a memory leak!\nInfo about this "
                               "klSafeAllocT: NodeCount:30, ElemSize:32, Alignment:8, Padding:0, GrowBy:16\n";
    EXPECT_TRUE(keeltest::HasAll({{header + first, 1}, {") 0x", 25}, {last, 1}, {"z!!!!\n...\n", 1}}).Matches(text))
        << text;
    klFree(report);
    Pool small(8, 4, 8); // the dump of its last unit would run past the block's end
    for (int i = 0; i < 4; ++i) std::memset(small.Alloc(), 'A' + i, 8);
    report = small.LeakReport();
    EXPECT_NE(nullptr, std::strstr(report, "     3) 0x"));
    klFree(report);
}

// Both builds of the reader/writer lock, the out-of-line one and the header-inline one.
template <class Lock> class ReadWriteLock : public testing::Test {};
using LockKinds = testing::Types<klReadWriteLock, klInlineReadWriteLock>;
TYPED_TEST_SUITE(ReadWriteLock, LockKinds);

TYPED_TEST(ReadWriteLock, WriterReadsForFreeUpgradesAndReportsMisuse) {
    keeltest::CaptureAsserts capture;
    TypeParam lock;
    lock.ReadLock();
    bool elsewhere = true;
    std::thread([&] { elsewhere = lock.IsReadLockedByMe(); }).join();
    EXPECT_FALSE(elsewhere); // the count is per thread
    {
        klRWGuardT<TypeParam, &TypeParam::WriteLock, &TypeParam::WriteUnlock> write(&lock); // past our readers
        EXPECT_EQ(kl::platform::CurrentThreadId(), lock.WritingThread());
        lock.ReadLock();
        EXPECT_EQ(1u, lock.ReadCount());
        lock.ReadUnlock();
        write.Unlock(), write.Unlock();
        write.Relock(), write.Relock(); // a second take would never be released
        EXPECT_EQ(1u, lock.WriteDepth());
    }
    EXPECT_TRUE(lock.IsReadLockedByMe());
    lock.ReadUnlock();
    EXPECT_FALSE(lock.IsReadLockedByMe());

    for (uint32_t depth = 0; depth <= 0xffff; ++depth) lock.WriteLock();
    EXPECT_EQ(0xffffu, lock.WriteDepth());
    for (uint32_t depth = 0; depth < 0xffff; ++depth) lock.WriteUnlock();
    EXPECT_EQ(0u, lock.WritingThread());
    lock.WriteUnlock();
    lock.ReadUnlock();
    EXPECT_EQ((Strings{"!mUnlock", "mWriteSpin > 0 && mWriteSpin < 0xffff",
                       "mCAS.mWritingThread == (size_t)klThread::GetCurrentThreadId()",
                       std::is_same_v<TypeParam, klReadWriteLock> ? "readCount > 0"
                                                                  : "klXchgAdd(&mCAS.mReadCount, (size_t)-1) > 0"}),
              capture.Exprs());
}

// Writers change two plain counters together; readers must never see them apart (and
// ThreadSanitizer no race on them). One reader sometimes upgrades from its read lock.
// Then a writer that waits for a reader must already keep new readers out.
TYPED_TEST(ReadWriteLock, ConcurrentWritersExcludeReaders) {
    keeltest::Watchdog watchdog;
    TypeParam lock;
    uint64_t first = 0, second = 0;
    std::atomic<int> readersIn{0}, writersIn{0}, torn{0};
    RunThreads(5, [&](int t) {
        for (int round = 0; round < 5000; ++round) {
            const bool upgrade = t == 4 && round % 8 == 0;
            if (t >= 2 && !upgrade) {
                lock.ReadLock(), readersIn++;
                torn += writersIn != 0 || first != second;
                readersIn--, lock.ReadUnlock();
                continue;
            }
            if (upgrade) lock.ReadLock();
            lock.WriteLock();
            torn += writersIn++ != 0 || readersIn != 0;
            ++first, ++second, writersIn--;
            lock.WriteUnlock();
            if (upgrade) lock.ReadUnlock();
        }
    });
    EXPECT_EQ(0, torn.load());
    EXPECT_EQ(uint64_t(2 * 5000 + 5000 / 8), first);

    std::atomic<int> stage{0}, readerSaw{-1};
    lock.ReadLock();
    std::thread writer([&] {
        lock.WriteLock(), stage = 1, std::this_thread::sleep_for(20ms), stage = 2, lock.WriteUnlock();
    });
    while (lock.WritingThread() == 0) std::this_thread::yield(); // the watchdog bounds the wait
    std::thread reader([&] { lock.ReadLock(), readerSaw = stage.load(), lock.ReadUnlock(); });
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(-1, readerSaw.load()); // kept out although only a reader holds the lock
    EXPECT_EQ(0, stage.load());      // and the writer waits for that reader
    lock.ReadUnlock();
    writer.join(), reader.join();
    EXPECT_EQ(2, readerSaw.load());
}
