#include "keel_test.h"

#include "keel/klmalloc.h"
#include "keel/klplatform.h"

#include <cstdint>
#include <cstring>
#include <thread>

#if defined(__SANITIZE_ADDRESS__)
// Let a huge request fail with null, as the system heap does, instead of ASan's report.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }
#endif

using keeltest::Has;

namespace {

uint32_t Marker(void* p) { return *reinterpret_cast<uint32_t*>(static_cast<char*>(p) - 8); }

// Keeps the optimiser from pairing a new with its delete and removing both.
template <class T> T* Opaque(T* p) {
    asm volatile("" : "+r"(p));
    return p;
}

} // namespace

TEST(Malloc, CountersUseTheHeapsUsableSizeAndBalance) {
    uint32_t process = klProcessBytesInUse();
    uint32_t thread = klThreadBytesInUse();
    char* block = Opaque(new char[13]);
    size_t usable = kl::platform::HeapUsableSize(block);
    EXPECT_GE(usable, 13u);
    EXPECT_EQ(process + usable, klProcessBytesInUse());
    EXPECT_EQ(thread + usable, klThreadBytesInUse());
    delete[] block;
    EXPECT_EQ(process, klProcessBytesInUse());
    EXPECT_EQ(thread, klThreadBytesInUse());

    // Over-aligned objects are tracked too, and really aligned.
    struct alignas(64) Wide { char bytes[100]; };
    Wide* wide = Opaque(new Wide);
    EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(wide) % 64);
    EXPECT_GT(klProcessBytesInUse(), process);
    delete wide;
    EXPECT_EQ(process, klProcessBytesInUse());
    EXPECT_EQ(thread, klThreadBytesInUse());
}

TEST(Malloc, ConcurrentFreeOnAnotherThreadMovesOnlyTheSum) {
    void* block = nullptr;
    uint32_t workerDelta = 0;
    std::thread worker([&] {
        uint32_t before = klThreadBytesInUse();
        block = klAlloc(1000);
        workerDelta = klThreadBytesInUse() - before;
    });
    worker.join();
    size_t usable = kl::platform::HeapUsableSize(block);
    EXPECT_EQ(usable, workerDelta);
    uint32_t process = klProcessBytesInUse();
    uint32_t mine = klThreadBytesInUse();
    klFree(block);
    // The freeing thread pays for the block, even below zero; the process total balances.
    EXPECT_EQ(mine - usable, klThreadBytesInUse());
    EXPECT_EQ(process - usable, klProcessBytesInUse());
}

namespace {
struct HookLog {
    int filtered = 0;
    int recorded = 0;
    void* lastPointer = nullptr;
    bool lastWasAllocation = false;
    size_t lastSize = 0;
    void* lastCookie = nullptr;
    bool pass = false;
} gHooks;
int gCookie;

bool Filter(bool, void** cookie) {
    ++gHooks.filtered;
    *cookie = &gCookie;
    return gHooks.pass;
}
void Recorder(void* p, bool isAllocation, size_t size, void* cookie) {
    ++gHooks.recorded;
    gHooks = {gHooks.filtered, gHooks.recorded, p, isAllocation, size, cookie, gHooks.pass};
}
} // namespace

TEST(Malloc, FilterDecidesWhatTheRecorderHears) {
    klSetAllocHooks(Filter, Recorder);
    void* ignored = klAlloc(24);
    klFree(ignored);
    EXPECT_EQ(2, gHooks.filtered);
    EXPECT_EQ(0, gHooks.recorded);

    gHooks.pass = true;
    void* block = klAlloc(40);
    EXPECT_EQ(1, gHooks.recorded);
    EXPECT_EQ(block, gHooks.lastPointer);
    EXPECT_TRUE(gHooks.lastWasAllocation);
    EXPECT_EQ(kl::platform::HeapUsableSize(block), gHooks.lastSize);
    EXPECT_EQ(&gCookie, gHooks.lastCookie);
    klFree(block);
    klSetAllocHooks(nullptr, nullptr);
    EXPECT_EQ(2, gHooks.recorded);
    EXPECT_FALSE(gHooks.lastWasAllocation);
    EXPECT_EQ(block, gHooks.lastPointer);
}

TEST(Malloc, ScratchBlocksSwitchToTheHeapAbove1016Bytes) {
    uint32_t process = klProcessBytesInUse();
    void* onStack = klMalloca(1016);
    EXPECT_EQ(kl::detail::kMallocaStackMarker, Marker(onStack));
    EXPECT_EQ(0u, (reinterpret_cast<uintptr_t>(onStack) - 8) % 16);
    EXPECT_EQ(process, klProcessBytesInUse());
    std::memset(onStack, 0xAB, 1016);

    void* onHeap = klMalloca(1017);
    EXPECT_EQ(kl::detail::kMallocaHeapMarker, Marker(onHeap));
    EXPECT_GE(klProcessBytesInUse() - process, 1017u + 8u);
    std::memset(onHeap, 0xCD, 1017);

    klFreea(onHeap);
    klFreea(onStack);
    klFreea(nullptr);
    EXPECT_EQ(process, klProcessBytesInUse());
}

TEST(MallocDeathTest, CorruptedScratchPointerAndOutOfMemoryAreFatal) {
    EXPECT_EXIT(
        {
            uint64_t fake[2] = {0x1234};
            klFreea(&fake[1]);
        },
        testing::ExitedWithCode(123), Has("ASSERT: assertmsg(, Corrupted pointer passed to klFreea) failed at: core/keel/klmalloc.cpp:"));
    EXPECT_EXIT(Opaque(static_cast<char*>(klAlloc(SIZE_MAX - 4096))), testing::ExitedWithCode(123),
                (keeltest::HasAll({{"ASSERT: assertmsg(p != 0, OOM allocating ", 1},
                                  {" bytes.) failed at: core/keel/klmalloc.cpp:", 1}})));
}

TEST(Malloc, MemoryReportIsConsistent) {
    klMemoryReport before = klGetMemoryReport();
    EXPECT_EQ(klProcessBytesInUse(), before.trackedBytes);
    EXPECT_EQ(klThreadBytesInUse(), before.threadBytes);
    EXPECT_GE(before.maxSystemBytes, before.systemBytes);
    EXPECT_GE(before.systemBytes, before.inUseBytes);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    // A sanitizer's own heap stands between us and the system's; without one the report
    // sees a large block.
    char* big = Opaque(new char[8 << 20]);
    big[0] = 1;
    klMemoryReport during = klGetMemoryReport();
    EXPECT_GE(during.inUseBytes, before.inUseBytes + (8u << 20));
    EXPECT_GE(during.maxSystemBytes, during.systemBytes);
    delete[] big;
#endif
}
