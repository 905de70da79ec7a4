#include "keel/kllockfree.h"

#include "keel/klassert.h"
#include "keel/klmalloc.h"

#include <cstring>

namespace {

// The counted pointer as one machine unit for the processor's double-width swap. The
// __sync builtin compiles to the lock-prefixed instruction itself (with -mcx16 on
// x86-64); the __atomic form of 16 bytes would call into libatomic instead.
#if UINTPTR_MAX == 0xFFFFFFFFu
using CountedUnit = uint64_t;
#else
using CountedUnit = unsigned __int128;
#endif
static_assert(sizeof(CountedUnit) == sizeof(klCountedPtr), "counted pointer must be one unit");

CountedUnit ToUnit(klCountedPtr value) {
    CountedUnit unit;
    std::memcpy(&unit, &value, sizeof(unit));
    return unit;
}

// Pop may read the link of a unit that another thread has just taken and is writing;
// the value is then discarded because the tag fails the swap. That race is the design,
// so ThreadSanitizer is told not to watch this one read.
__attribute__((no_sanitize_thread)) void* LoadLink(void* unit) {
    return __atomic_load_n(static_cast<void**>(unit), __ATOMIC_RELAXED);
}
void StoreLink(void* unit, void* next) {
    __atomic_store_n(static_cast<void**>(unit), next, __ATOMIC_RELAXED);
}

template <class T> T RoundUp(T value, T powerOfTwo) { return (value + powerOfTwo - 1) & ~(powerOfTwo - 1); }

} // namespace

bool klCompareAndSwapCounted(klCountedPtr* target, klCountedPtr expected, klCountedPtr desired) {
    return __sync_bool_compare_and_swap(reinterpret_cast<CountedUnit*>(target), ToUnit(expected),
                                        ToUnit(desired));
}

klCountedPtr klLoadCounted(const klCountedPtr* source) {
    klCountedPtr value;
    value.tag = klAtomicLoad(&source->tag);
    value.ptr = klAtomicLoad(&source->ptr);
    return value;
}

void klCountedStack::Push(void* data) {
    if (!klAssert(data != NULL)) return;
    klCountedPtr seen;
    do {
        seen = klLoadCounted(&mTop);
        StoreLink(data, seen.ptr);
    } while (!klCompareAndSwapCounted(&mTop, seen, {data, seen.tag + 1}));
}

void* klCountedStack::Pop() {
    for (;;) {
        klCountedPtr seen = klLoadCounted(&mTop);
        if (!seen.ptr) return nullptr;
        // The unit may have been taken (and written) by another thread since the load;
        // it is still pool memory, so the read is harmless and the tag fails the swap.
        void* next = LoadLink(seen.ptr);
        if (klCompareAndSwapCounted(&mTop, seen, {next, seen.tag + 1})) return seen.ptr;
    }
}

klSafeQueue::NodePool::NodePool(uint32_t elemSize, uint32_t growBy, uint32_t alignment)
    : mCount(0), mElemSize(elemSize), mAlignment(alignment), mPadding(0), mGrowBy(growBy) {
    // Broken arguments are reported and replaced by the nearest usable value.
    if (!klAssert(mElemSize > 0)) mElemSize = 1;
    if (!klAssert(mGrowBy > 0)) mGrowBy = 1;
    if (!klAssert(mAlignment > 0)) mAlignment = 1;
    if (!klAssert((mAlignment & (mAlignment-1)) == 0)) {
        while (mAlignment & (mAlignment - 1)) mAlignment &= mAlignment - 1;
        mAlignment <<= 1;
    }
    // Each unit also carries the free-list link while it is free, so the stride never
    // drops below pointer alignment, whatever alignment the user asked for.
    uint32_t strideAlign = mAlignment > sizeof(void*) ? mAlignment : uint32_t(sizeof(void*));
    mPadding = RoundUp(mElemSize, strideAlign) - mElemSize;
}

klSafeQueue::NodePool::~NodePool() {
    while (void* block = mBlockList.Pop()) klFree(block);
}

char* klSafeQueue::NodePool::FirstUnit(char* block) const {
    // The block's first word links it into the block list; units follow, aligned.
    uintptr_t start = reinterpret_cast<uintptr_t>(block);
    return block + (RoundUp<uintptr_t>(start + sizeof(void*), mAlignment) - start);
}

void klSafeQueue::NodePool::Grow() {
    size_t bytes = size_t(Stride()) * mGrowBy + mAlignment + sizeof(void*) - 1;
    char* block = static_cast<char*>(klAlloc(bytes));
    if (!block) {
        kl::detail::ReportOutOfMemory("block != 0", bytes, __FILE__, __LINE__);
        return;
    }
    mBlockList.Push(block);
    char* first = FirstUnit(block);
    uintptr_t block_start = reinterpret_cast<uintptr_t>(first);
    klAssert(block_start % mAlignment == 0);
    // Pushed last to first so that Alloc hands out a fresh block in address order.
    for (uint32_t i = mGrowBy; i-- > 0;) {
        char* node = first + size_t(i) * Stride();
        klAssert(((size_t)node % mAlignment) == 0);
        mFreeList.Push(node);
    }
}

void* klSafeQueue::NodePool::Alloc() {
    void* unit;
    while ((unit = mFreeList.Pop()) == nullptr) Grow();
    klXchgAdd(&mCount, 1u);
    // A mask, not the modulo the report names: a division would cost more than the swap.
    uintptr_t unit_start = reinterpret_cast<uintptr_t>(unit);
    klAssertAs((unit_start & (mAlignment - 1)) == 0, "unit_start % mAlignment == 0");
    return unit;
}

void klSafeQueue::NodePool::Free(void* ptr) {
    if (!klAssert(ptr != NULL)) return;
    klXchgAdd(&mCount, uint32_t(-1));
    mFreeList.Push(ptr);
}

void klSafeQueue::NodePool::ForEach(void (*dtor)(void* unit)) {
    if (!klAssert(dtor != NULL)) return;
    mBlockList.Walk([&](void* block) {
        char* first = FirstUnit(static_cast<char*>(block));
        for (uint32_t i = 0; i < mGrowBy; ++i) dtor(first + size_t(i) * Stride());
    });
}
