#include "keel_test_a.h"

#include "keel/kllockfree.h"
#include "keel/klmalloc.h"
#include "keel/klplatform.h"

#include <cstring>

using Pool = klSafeQueue::NodePool;
using Strings = std::vector<std::string>;
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
        void* last = nullptr;
        for (int i = 0; i < 9; ++i) last = pool.Alloc(); // three blocks
        static int sUnits = 0;
        pool.ForEach([](void*) { ++sUnits; });
        EXPECT_EQ(12, sUnits); // every unit of every block, handed out or not
        pool.Free(last);
        EXPECT_EQ(last, pool.Alloc()); // a freed unit comes back first
        EXPECT_EQ(9u, pool.Count());
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

TEST(SafeQueueDeathTest, KeepsOrderReturnsZeroWhenEmptyAndMustBeEmptiedBeforeDestruction) {
    klSafeQueue queue;
    for (uintptr_t value = 1; value <= 100; ++value) queue.Push(value); // past one pool block
    EXPECT_EQ(100u, queue.Count());
    for (uintptr_t value = 1; value <= 101; ++value) ASSERT_EQ(value % 101, queue.Pop());
    EXPECT_EXIT(klSafeQueue().Push(42), testing::ExitedWithCode(klDeathExitCode),
                keeltest::Has(") assertmsg(mHead.ptr == mTail.ptr, ERROR: queue should be empty when "
                              "destroyed) failed at: core/keel/kllockfree.cpp:", 1));
}

// Values are (producer, sequence): no duplicate, no loss, each producer's in push order.
TEST(SafeQueue, ConcurrentProducersAndConsumersMoveEveryValueOnce) {
    constexpr uintptr_t kProducers = 4, kEach = 25000, kTotal = kProducers * kEach;
    klSafeQueue queue;
    std::vector<std::atomic<uint8_t>> marks(kTotal);
    std::atomic<uint64_t> popped{0}, faults{0};
    RunThreads(2 * kProducers, [&](uintptr_t t) {
        for (uintptr_t i = 1; t < kProducers && i <= kEach; ++i) queue.Push((t + 1) << 20 | i);
        uintptr_t last[kProducers] = {};
        const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
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
    EXPECT_TRUE(counter.TryIncrementFrom(1) && !counter.TryIncrementFrom(1));
    EXPECT_EQ(2u, counter.WaitDecrement(0));
    EXPECT_EQ(1u, counter.TryDecrement());
    EXPECT_EQ(0u, counter.TryDecrement() + counter.WaitDecrement(10)); // gives up
}

// 25 of the 30 leaks are listed, newest block first and each block in address order.
TEST(LockFree, LeakReportListsTwentyFiveUnitsNeverGivenBack) {
    klSafeAllocT pool(32, 16, 8);
    unsigned char* units[40];
    for (unsigned char*& unit : units) {
        unit = static_cast<unsigned char*>(pool.Alloc());
        std::memcpy(unit + sizeof(void*), "Leak\0\x7F\x1F ~\xFF\x80z!!!!", 16);
    }
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
}

// Both builds of the reader/writer lock, the out-of-line one and the header-inline one.
template <class Lock> class ReadWriteLock : public testing::Test {};
using LockKinds = testing::Types<klReadWriteLock, klInlineReadWriteLock>;
TYPED_TEST_SUITE(ReadWriteLock, LockKinds);

TYPED_TEST(ReadWriteLock, WriterReadsForFreeAndMisuseIsReported) {
    keeltest::CaptureAsserts capture;
    TypeParam lock;
    lock.ReadLock();
    {
        klRWGuardT<TypeParam, &TypeParam::WriteLock, &TypeParam::WriteUnlock> write(&lock); // past our reader
        lock.ReadLock();
        EXPECT_EQ(1u, lock.ReadCount());
        lock.ReadUnlock();
        write.Unlock(), write.Unlock();
        write.Relock(), write.Relock(); // a second take would never be released
    }
    EXPECT_TRUE(lock.IsReadLockedByMe());
    lock.ReadUnlock();
    for (uint32_t depth = 0; depth <= 0xffff; ++depth) lock.WriteLock(); // one past the ceiling
    for (uint32_t depth = 0; depth <= 0xffff; ++depth) lock.WriteUnlock();
    lock.ReadUnlock();
    EXPECT_EQ((Strings{"!mUnlock", "mWriteSpin > 0 && mWriteSpin < 0xffff",
                       "mCAS.mWritingThread == (size_t)klThread::GetCurrentThreadId()",
                       std::is_same_v<TypeParam, klReadWriteLock> ? "readCount > 0"
                                                                  : "klXchgAdd(&mCAS.mReadCount, (size_t)-1) > 0"}),
              capture.Exprs());
}

// Readers never see the two counters apart; one of them sometimes upgrades to write.
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
}
