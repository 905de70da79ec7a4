#include "keel_test.h"

#include "keel/kllockfree.h"
#include "keel/klmalloc.h"

#include <atomic>
#include <cstdint>
#include <set>
#include <thread>
#include <vector>

using Pool = klSafeQueue::NodePool;

TEST(LockFree, CountedSwapNeedsBothHalves) {
    int a, b;
    klCountedPtr slot{&a, 7};
    EXPECT_FALSE(klCompareAndSwapCounted(&slot, {&a, 6}, {&b, 8}));
    EXPECT_FALSE(klCompareAndSwapCounted(&slot, {&b, 7}, {&b, 8}));
    EXPECT_TRUE(klCompareAndSwapCounted(&slot, {&a, 7}, {&b, 8}));
    EXPECT_EQ(&b, slot.ptr);
    EXPECT_EQ(8u, slot.tag);
    EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(&slot) % (2 * sizeof(void*)));
}

TEST(LockFree, CountedStackIsLastInFirstOut) {
    keeltest::CaptureAsserts capture;
    void* units[3][2];
    klCountedStack stack;
    EXPECT_EQ(nullptr, stack.Pop());
    for (auto& unit : units) stack.Push(unit);
    EXPECT_EQ(units[2], stack.Pop());
    EXPECT_EQ(units[1], stack.Pop());
    stack.Push(units[2]);
    EXPECT_EQ(units[2], stack.Pop());
    EXPECT_EQ(units[0], stack.Pop());
    EXPECT_TRUE(stack.IsEmpty());
    stack.Push(nullptr);
    EXPECT_EQ(std::vector<std::string>{"data != NULL"}, capture.Exprs());
    EXPECT_TRUE(stack.IsEmpty());
}

TEST(LockFree, PoolPlacesAlignedUnitsWithPadding) {
    struct Case {
        uint32_t elem, grow, align, stride;
    } cases[] = {{24, 8, 8, 24}, {20, 8, 8, 24}, {32, 128, 16, 32}, {24, 8, 1, 24}, {40, 4, 64, 64}};
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.elem << "/" << c.align);
        Pool pool(c.elem, c.grow, c.align);
        EXPECT_EQ(c.stride - c.elem, pool.Padding());
        std::vector<char*> units;
        for (uint32_t i = 0; i < c.grow; ++i) units.push_back(static_cast<char*>(pool.Alloc()));
        EXPECT_EQ(c.grow, pool.Count());
        for (uint32_t i = 0; i < c.grow; ++i) {
            EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(units[i]) % c.align);
            if (i > 0) {
                EXPECT_EQ(ptrdiff_t(c.stride), units[i] - units[i - 1]); // one block, in order
            }
        }
        for (char* unit : units) pool.Free(unit);
        EXPECT_EQ(0u, pool.Count());
    }
}

TEST(LockFree, PoolGrowsByBlocksAndReturnsEveryByte) {
    uint32_t before = klProcessBytesInUse();
    {
        Pool pool(16, 4, 8);
        std::set<void*> handed;
        for (int i = 0; i < 9; ++i) handed.insert(pool.Alloc()); // three blocks
        EXPECT_EQ(9u, handed.size());
        EXPECT_EQ(9u, pool.Count());
        std::set<void*> all;
        static std::set<void*>* sink;
        sink = &all;
        pool.ForEach([](void* unit) { sink->insert(unit); });
        EXPECT_EQ(12u, all.size()); // every unit of every block, handed out or not
        for (void* unit : handed) EXPECT_EQ(1u, all.count(unit));

        void* freed = *handed.begin();
        pool.Free(freed);
        EXPECT_EQ(freed, pool.Alloc()); // a freed unit comes back first
    }
    EXPECT_EQ(before, klProcessBytesInUse());
}

TEST(LockFree, PoolReportsBrokenArgumentsAndFallsBack) {
    keeltest::CaptureAsserts capture;
    Pool odd(24, 8, 6);
    EXPECT_EQ(std::vector<std::string>{"(mAlignment & (mAlignment-1)) == 0"}, capture.Exprs());
    EXPECT_EQ(8u, odd.Alignment());
    EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(odd.Alloc()) % 8);

    capture.Clear();
    Pool empty(0, 0, 0);
    EXPECT_EQ((std::vector<std::string>{"mElemSize > 0", "mGrowBy > 0", "mAlignment > 0"}), capture.Exprs());
    EXPECT_NE(nullptr, empty.Alloc());

    empty.Free(nullptr);
    empty.ForEach(nullptr);
    EXPECT_EQ("dtor != NULL", capture.Exprs().back());
    EXPECT_EQ("ptr != NULL", capture.Exprs()[capture.Exprs().size() - 2]);
    EXPECT_EQ(1u, empty.Count());
}

// Each thread stamps the units it holds and checks the stamps before giving them back:
// a unit handed to two threads at once, or a lost unit, shows up as a broken stamp or a
// wrong count.
TEST(LockFree, ConcurrentPoolNeverHandsOutAUnitTwice) {
    Pool pool(16, 32, 16);
    constexpr int kThreads = 4, kRounds = 3000, kHeld = 8;
    std::atomic<int> broken{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            uintptr_t stamp = uintptr_t(t + 1) << 20;
            for (int round = 0; round < kRounds; ++round) {
                uintptr_t* held[kHeld];
                for (int i = 0; i < kHeld; ++i) {
                    held[i] = static_cast<uintptr_t*>(pool.Alloc());
                    held[i][0] = stamp + i; // over the free-list link, as real users do
                }
                for (int i = 0; i < kHeld; ++i) {
                    if (held[i][0] != stamp + i) ++broken;
                    pool.Free(held[i]);
                }
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(0, broken.load());
    EXPECT_EQ(0u, pool.Count());
    std::set<void*> distinct;
    for (int i = 0; i < kThreads * kHeld; ++i) distinct.insert(pool.Alloc());
    EXPECT_EQ(size_t(kThreads * kHeld), distinct.size());
}
