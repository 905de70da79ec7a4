#include "keel_test_a.h"

#include "keel/kllockfree.h"
#include "keel/klmalloc.h"
#include "keel/klplatform.h"

#include <algorithm>
#include <cstring>
#include <set>

using Pool = klSafeQueue::NodePool;
using namespace std::chrono_literals;
using keeltest::RunThreads;

namespace {
[[maybe_unused]] auto* const gLive = testing::AddGlobalTestEnvironment(new keeltest::LiveSingletons);
} // namespace

TEST(LockFree, PoolPlacesAlignedUnitsAndReturnsEveryByte) {
    const uint32_t before = klProcessBytesInUse();
    struct Case {
        uint32_t elem, grow, align, stride;
    } cases[] = {{24, 8, 8, 24}, {20, 8, 8, 24}, {32, 128, 16, 32}, {24, 8, 1, 24}, {40, 4, 64, 64}};
    for (const Case& c : cases) {
        Pool pool(c.elem, c.grow, c.align);
        EXPECT_EQ(c.stride - c.elem, pool.Padding());
        std::vector<char*> units;
        for (uint32_t i = 0; i < c.grow; ++i) units.push_back(static_cast<char*>(pool.Alloc()));
        EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(units[0]) % c.align);
        for (uint32_t i = 1; i < c.grow; ++i) // one block, in order
            EXPECT_EQ(ptrdiff_t(c.stride), units[i] - units[i - 1]) << c.elem << "/" << c.align;
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
}

TEST(LockFree, PoolReportsBrokenArgumentsAndFallsBack) {
    keeltest::CaptureAsserts capture;
    Pool odd(24, 8, 6);
    EXPECT_EQ(8u, odd.Alignment());
    Pool empty(0, 0, 0);
    EXPECT_NE(nullptr, empty.Alloc());
    empty.Free(nullptr);
    empty.ForEach(nullptr);
    EXPECT_EQ(1u, empty.Count());
    EXPECT_EQ((std::vector<std::string>{"(mAlignment & (mAlignment-1)) == 0", "mElemSize > 0", "mGrowBy > 0",
                                        "mAlignment > 0", "ptr != NULL", "dtor != NULL"}),
              capture.Exprs());
}

// Each thread stamps the units it holds and checks the stamps before giving them back.
TEST(LockFree, ConcurrentPoolNeverHandsOutAUnitTwice) {
    Pool pool(16, 32, 16);
    constexpr int kThreads = 4, kHeld = 8;
    std::atomic<int> broken{0};
    RunThreads(kThreads, [&](int t) {
        for (int round = 0; round < 3000; ++round) {
            uintptr_t* held[kHeld];
            for (int i = 0; i < kHeld; ++i) // over the free-list link, as users do
                *(held[i] = static_cast<uintptr_t*>(pool.Alloc())) = (uintptr_t(t + 1) << 20) + i;
            for (int i = 0; i < kHeld; ++i)
                broken += held[i][0] != (uintptr_t(t + 1) << 20) + i, pool.Free(held[i]);
        }
    });
    EXPECT_EQ(0, broken.load());
    EXPECT_EQ(0u, pool.Count());
    std::set<void*> distinct;
    for (int i = 0; i < kThreads * kHeld; ++i) distinct.insert(pool.Alloc());
    EXPECT_EQ(size_t(kThreads * kHeld), distinct.size());
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
    ASSERT_EQ(units[1], seen.ptr);
    EXPECT_EQ(units[1], stack.Pop());
    EXPECT_EQ(units[0], stack.Pop());
    stack.Push(units[1]); // the same top again, now without a successor
    EXPECT_FALSE(klCompareAndSwapCounted(top, seen, {units[0], seen.tag + 1}));
    EXPECT_EQ(units[1], stack.Pop());
    stack.Push(nullptr);
    EXPECT_EQ(std::vector<std::string>{"data != NULL"}, capture.Exprs());
    EXPECT_TRUE(stack.IsEmpty());
}

TEST(SafeQueue, KeepsOrderForOneProducerAndReturnsZeroWhenEmpty) {
    klSafeQueue queue;
    for (uintptr_t value = 1; value <= 100; ++value) queue.Push(value); // past one pool block
    EXPECT_EQ(100u, queue.Count());
    for (uintptr_t value = 1; value <= 101; ++value) ASSERT_EQ(value % 101, queue.Pop());
}

TEST(SafeQueueDeathTest, DestroyingAFilledQueueIsFatal) {
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
    EXPECT_EQ(0u, queue.Count());
}

TEST(SpinCounter, TakesOnlyWhilePositiveAndGivesUpAfterTheTimeout) {
    klSpinCounter counter(2);
    EXPECT_EQ(2u, counter.TryDecrement());
    EXPECT_EQ(1u, counter.WaitDecrement(0));
    EXPECT_EQ(0u, counter.TryDecrement());
    EXPECT_FALSE(counter.TryIncrementFrom(1));
    EXPECT_TRUE(counter.TryIncrementFrom(0));
    EXPECT_EQ(1u, counter.TryDecrement());
    const uint32_t start = kl::platform::Milliseconds();
    EXPECT_EQ(0u, counter.WaitDecrement(10));
    const uint32_t waited = kl::platform::Milliseconds() - start;
    EXPECT_TRUE(waited >= 10 && waited < 2000) << waited; // a loaded machine may oversleep
    EXPECT_EQ(0u, counter.Value());
}

// Units carry a known pattern behind their first word, so each report line is known here.
TEST(LockFree, LeakReportListsTwentyFiveUnitsNeverGivenBack) {
    klSafeAllocT pool(32, 16, 8);
    std::vector<unsigned char*> units;
    for (int i = 0; i < 40; ++i) {
        units.push_back(static_cast<unsigned char*>(pool.Alloc()));
        std::memcpy(units.back() + sizeof(void*), "Leak 00\0\x7F\x1F ~\xFF\x80z!", 16);
        units.back()[sizeof(void*) + 5] += i / 10, units.back()[sizeof(void*) + 6] += i % 10;
    }
    for (int i = 0; i < 40; i += 4) pool.Free(units[i]); // 30 leak
    std::string expected =
        "Free all pointers before SafeAlloc destructs. Dtors will not be called by safealloc's cleanup.\n"
        "This usually means you have a memory leak!\nInfo about this klSafeAllocT: NodeCount:30, ElemSize:32, "
        "Alignment:8, Padding:0, GrowBy:16\nLeaking nodes:\n";
    int listed = 0;
    for (int unit : {33, 34, 35, 37, 38, 39, 17, 18, 19, 21, 22, 23, 25, 26, 27, 29, 30, 31, 1, 2, 3, 5, 6, 7, 9}) {
        char line[128]; // newest block first, each block in address order
        std::snprintf(line, sizeof(line), "  %4d) 0x%llX  4C65616B203%d3%d007F1F207EFF807A21 Leak %02d... ~..z!\n",
                      listed++, (unsigned long long)(uintptr_t)units[unit], unit / 10, unit % 10, unit);
        expected += line;
    }
    char* report = pool.LeakReport();
    EXPECT_EQ(expected + "...\n", report);
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
    lock.ReadLock();
    bool elsewhere = true;
    std::thread([&] { elsewhere = lock.IsReadLockedByMe(); }).join();
    EXPECT_FALSE(elsewhere); // the count is per thread
    {
        klRWGuardT<TypeParam, &TypeParam::WriteLock, &TypeParam::WriteUnlock> write(&lock); // past our readers
        EXPECT_EQ(kl::platform::CurrentThreadId(), lock.WritingThread());
        lock.ReadLock();
        EXPECT_EQ(2u, lock.ReadCount());
        lock.ReadUnlock();
        write.Unlock(), write.Unlock();
        write.Relock(), write.Relock(); // a second take would never be released
        EXPECT_EQ(1u, lock.WriteDepth());
    }
    EXPECT_EQ(2u, lock.ReadCount());
    lock.ReadUnlock();
    EXPECT_TRUE(lock.IsReadLockedByMe());
    lock.ReadUnlock();
    EXPECT_FALSE(lock.IsReadLockedByMe());

    for (uint32_t depth = 0; depth <= 0xffff; ++depth) lock.WriteLock();
    EXPECT_EQ(0xffffu, lock.WriteDepth());
    for (uint32_t depth = 0; depth < 0xffff; ++depth) lock.WriteUnlock();
    EXPECT_EQ(0u, lock.WritingThread());
    lock.WriteUnlock();
    lock.ReadUnlock();
    EXPECT_EQ(0u, lock.ReadCount());
    EXPECT_EQ((std::vector<std::string>{"!mUnlock", "mWriteSpin > 0 && mWriteSpin < 0xffff",
                                        "mCAS.mWritingThread == (size_t)klThread::GetCurrentThreadId()",
                                        std::is_same_v<TypeParam, klReadWriteLock>
                                            ? "readCount > 0"
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
    constexpr int kRounds = 5000;
    RunThreads(5, [&](int t) {
        for (int round = 0; round < kRounds; ++round) {
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
    EXPECT_EQ(uint64_t(2 * kRounds + kRounds / 8), first);

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
