#include "keel_test.h"

#include "keel/klmalloc.h"
#include "keel/klplatform.h"

#if defined(__SANITIZE_ADDRESS__)
// Let a huge request fail with null, as the system heap does, instead of ASan's report.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }
#endif

namespace {

uint32_t Marker(void* p) { return *reinterpret_cast<uint32_t*>(static_cast<char*>(p) - 8); }

// Hides a value from the optimiser, so that no allocation is removed or refused early.
template <class T> T Opaque(T v) {
    asm volatile("" : "+r"(v));
    return v;
}

} // namespace

TEST(Malloc, CountersUseTheHeapsUsableSizeAndBalance) {
    const uint32_t process = klProcessBytesInUse(), thread = klThreadBytesInUse();
    char* block = Opaque(new char[13]);
    const size_t usable = kl::platform::HeapUsableSize(block);
    EXPECT_GE(usable, 13u);
    EXPECT_EQ(process + usable, klProcessBytesInUse());
    EXPECT_EQ(thread + usable, klThreadBytesInUse());
    const klMemoryReport report = klGetMemoryReport();
    EXPECT_EQ(klProcessBytesInUse(), report.trackedBytes);
    EXPECT_EQ(klThreadBytesInUse(), report.threadBytes);
    EXPECT_GE(report.systemBytes, report.inUseBytes);
    delete[] block;
    // Over-aligned objects: tracked and aligned, the heap block's start kept at every offset.
    struct alignas(64) Wide {
        char bytes[100];
    };
    Wide* many[32];
    for (Wide*& w : many) EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(w = Opaque(new Wide)) % 64);
    EXPECT_GE(klProcessBytesInUse() - process, 32 * (sizeof(Wide) + 64 + sizeof(void*)));
    for (Wide* w : many) delete w;
    EXPECT_EQ(process, klProcessBytesInUse());
    EXPECT_EQ(thread, klThreadBytesInUse());
}

TEST(Malloc, ScratchBlocksSwitchToTheHeapAbove1016Bytes) {
    const uint32_t process = klProcessBytesInUse();
    void* onStack = klMalloca(1016);
    EXPECT_EQ(kl::detail::kMallocaStackMarker, Marker(onStack));
    EXPECT_EQ(0u, (reinterpret_cast<uintptr_t>(onStack) - 8) % 16);
    void* onHeap = klMalloca(1017);
    EXPECT_EQ(kl::detail::kMallocaHeapMarker, Marker(onHeap));
    EXPECT_GE(klProcessBytesInUse() - process, 1017u + 8u);
    std::memset(onHeap, 0xCD, 1017);
    klFreea(onHeap);
    klFreea(onStack);
    klFreea(nullptr);
    EXPECT_EQ(process, klProcessBytesInUse());
}

// A request the heap cannot meet is fatal with its full size, also where the arithmetic
// around it would wrap and where long is narrower than size_t (64-bit Windows).
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
