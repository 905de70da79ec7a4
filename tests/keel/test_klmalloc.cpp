#include "keel_test.h"

#include "keel/klmalloc.h"
#include "keel/klplatform.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
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
// Each recorded event as "+size" or "-size", with the pointer and cookie checked on the way.
std::string gEvents;
bool gPass = false;
int gFiltered = 0;
int gCookie;
void* gAllocated;

bool Filter(bool, void** cookie) {
    ++gFiltered;
    *cookie = &gCookie;
    return gPass;
}
void Recorder(void* p, bool isAllocation, size_t size, void* cookie) {
    char event[32]; // no allocation in here: it would come straight back to the hooks
    bool wrong = cookie != &gCookie || (!isAllocation && p != gAllocated);
    std::snprintf(event, sizeof(event), "%s%c%zu", wrong ? "?" : "", isAllocation ? '+' : '-', size);
    gEvents += event;
    if (isAllocation) gAllocated = p;
}
} // namespace

TEST(Malloc, FilterDecidesWhatTheRecorderHears) {
    gEvents.reserve(64);
    klSetAllocHooks(Filter, Recorder);
    klFree(klAlloc(24));
    gPass = true;
    void* block = klAlloc(40);
    EXPECT_EQ(block, gAllocated);
    std::string size = std::to_string(kl::platform::HeapUsableSize(block));
    klFree(block);
    klSetAllocHooks(nullptr, nullptr);
    EXPECT_EQ(4, gFiltered);
    EXPECT_EQ("+" + size + "-" + size, gEvents);
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
        testing::ExitedWithCode(123), Has(") assertmsg(, Corrupted pointer passed to klFreea) failed at: core/keel/klmalloc.cpp:"));
    // Every request the heap cannot meet ends in the fatal report with its full size, also
    // where the arithmetic around it (alignment room, scratch header) would wrap.
    const struct {
        size_t size;
        void (*allocate)(size_t);
    } requests[] = {
        {SIZE_MAX - 4096, [](size_t n) { Opaque(static_cast<char*>(klAlloc(n))); }},
        // Printed whole where long is narrower than size_t (64-bit Windows).
        {size_t(uint64_t(5) << 30 | 3),
         [](size_t n) { kl::detail::ReportOutOfMemory("p != 0", n, "core/keel/klmalloc.cpp", 1); }},
        {SIZE_MAX - 16, [](size_t n) { Opaque(static_cast<char*>(operator new(n, std::align_val_t(64)))); }},
        {SIZE_MAX - 4, [](size_t n) { Opaque(static_cast<char*>(klMalloca(n))); }},
        {SIZE_MAX - 7, [](size_t n) { Opaque(static_cast<char*>(kl::detail::MallocaPlace(nullptr, n))); }},
    };
    for (const auto& request : requests)
        EXPECT_EXIT(request.allocate(request.size), testing::ExitedWithCode(123),
                    Has(") assertmsg(p != 0, OOM allocating " + std::to_string(request.size) +
                            " bytes.) failed at: core/keel/klmalloc.cpp:",
                        1))
            << request.size;
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
