#include "keel_test.h"

#include "keel/klmalloc.h"
#include "keel/klplatform.h"

#if defined(__SANITIZE_ADDRESS__)
// Let a huge request fail with null, as the system heap does, instead of ASan's report.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }
#endif

namespace {

uint32_t Marker(void* p) { return *reinterpret_cast<uint32_t*>(static_cast<char*>(p) - 8); }

// Hides a value from the optimiser: a new is not paired with its delete and removed, a
// huge size is not refused at compile time.
template <class T> T Opaque(T v) {
    asm volatile("" : "+r"(v));
    return v;
}

// Each recorded event as "+size" or "-size"; "?" marks a wrong pointer or cookie.
std::string gEvents;
bool gPass = false;
int gFiltered = 0, gCookie;
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

TEST(Malloc, CountersUseTheHeapsUsableSizeAndBalance) {
    const uint32_t process = klProcessBytesInUse(), thread = klThreadBytesInUse();
    char* block = Opaque(new char[13]);
    const size_t usable = kl::platform::HeapUsableSize(block);
    EXPECT_GE(usable, 13u);
    EXPECT_EQ(process + usable, klProcessBytesInUse());
    EXPECT_EQ(thread + usable, klThreadBytesInUse());
    delete[] block;
    // Over-aligned objects are tracked too, and really aligned.
    struct alignas(64) Wide {
        char bytes[100];
    };
    Wide* wide = Opaque(new Wide);
    EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(wide) % 64);
    // The block holds the object, room to align it and the heap block's start.
    EXPECT_GE(klProcessBytesInUse() - process, sizeof(Wide) + 64 + sizeof(void*));
    delete wide;
    Wide* many[32]; // blocks at every offset: the pointer kept before each stays inside it
    for (Wide*& w : many) w = Opaque(new Wide);
    for (Wide* w : many) delete w;
    EXPECT_EQ(process, klProcessBytesInUse());
    EXPECT_EQ(thread, klThreadBytesInUse());

    const klMemoryReport report = klGetMemoryReport();
    EXPECT_EQ(klProcessBytesInUse(), report.trackedBytes);
    EXPECT_EQ(klThreadBytesInUse(), report.threadBytes);
    EXPECT_GE(report.maxSystemBytes, report.systemBytes);
    EXPECT_GE(report.systemBytes, report.inUseBytes);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    // A sanitizer's heap stands between us and the system's; without one a big block shows.
    char* big = Opaque(new char[8 << 20]);
    big[0] = 1;
    EXPECT_GE(klGetMemoryReport().inUseBytes, report.inUseBytes + (8u << 20));
    delete[] big;

#endif
}

TEST(Malloc, ConcurrentFreeOnAnotherThreadMovesOnlyTheSum) {
    void* block = nullptr;
    uint32_t workerDelta = 0;
    std::thread([&] {
        const uint32_t before = klThreadBytesInUse();
        block = klAlloc(1000);
        workerDelta = klThreadBytesInUse() - before;
    }).join();
    const size_t usable = kl::platform::HeapUsableSize(block);
    EXPECT_EQ(usable, workerDelta);
    const uint32_t process = klProcessBytesInUse(), mine = klThreadBytesInUse();
    klFree(block);
    // The freeing thread pays for the block, even below zero; the process total balances.
    EXPECT_EQ(mine - usable, klThreadBytesInUse());
    EXPECT_EQ(process - usable, klProcessBytesInUse());
}

TEST(Malloc, FilterDecidesWhatTheRecorderHears) {
    gEvents.reserve(64);
    klSetAllocHooks(Filter, Recorder);
    klFree(klAlloc(24));
    gPass = true;
    void* block = klAlloc(40);
    const std::string size = std::to_string(kl::platform::HeapUsableSize(block));
    klFree(block);
    klSetAllocHooks(nullptr, nullptr);
    EXPECT_EQ(4, gFiltered);
    EXPECT_EQ("+" + size + "-" + size, gEvents);
}

TEST(Malloc, ScratchBlocksSwitchToTheHeapAbove1016Bytes) {
    const uint32_t process = klProcessBytesInUse();
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

// Every request the heap cannot meet ends in the fatal report with its full size, also
// where the arithmetic around it (alignment room, scratch header) would wrap, and where
// long is narrower than size_t (64-bit Windows).
TEST(MallocDeathTest, CorruptedScratchPointerAndOutOfMemoryAreFatal) {
    const auto oom = [](size_t size) -> keeltest::SubstringMatcher::Needles {
        return {{") assertmsg(p != 0, OOM allocating " + std::to_string(size) + " bytes.) failed at: core/keel/klmalloc.cpp:", 1}};
    };
    keeltest::ExpectDeaths({
        {[] {
             uint64_t fake[2] = {0x1234};
             klFreea(&fake[1]);
         },
         {{") assertmsg(, Corrupted pointer passed to klFreea) failed at: core/keel/klmalloc.cpp:", 1}}},
        {[] { Opaque(klAlloc(Opaque(SIZE_MAX - 4096))); }, oom(SIZE_MAX - 4096)},
        {[] { kl::detail::ReportOutOfMemory("p != 0", size_t(uint64_t(5) << 30 | 3), "core/keel/klmalloc.cpp", 1); },
         oom(size_t(uint64_t(5) << 30 | 3))},
        {[] { Opaque(operator new(Opaque(SIZE_MAX - 16), std::align_val_t(64))); }, oom(SIZE_MAX - 16)},
        {[] { Opaque(klMalloca(Opaque(SIZE_MAX - 4))); }, oom(SIZE_MAX - 4)},
        {[] { Opaque(kl::detail::MallocaPlace(nullptr, Opaque(SIZE_MAX - 7))); }, oom(SIZE_MAX - 7)},
    });
}
