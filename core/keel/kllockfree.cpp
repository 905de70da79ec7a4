#include "keel/kllockfree.h"

#include "keel/klassert.h"
#include "keel/klmalloc.h"
#include "keel/klplatform.h"

#include <chrono>
#include <cstdarg>
#include <cstring>
#include <thread>

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

size_t klSafeQueue::NodePool::BlockBytes() const {
    // The link word, the units, and the slack for aligning the first unit.
    return size_t(Stride()) * mGrowBy + mAlignment + sizeof(void*) - 1;
}

void klSafeQueue::NodePool::Grow() {
    size_t bytes = BlockBytes();
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

namespace {

// Appends formatted text at *used, keeping the text terminated within capacity bytes.
// Returns false once the text is full (the last piece then stands cut short).
bool AppendF(char* text, size_t capacity, size_t* used, const char* format, ...) {
    va_list args;
    va_start(args, format);
    int count = kl::platform::FormatV(text + *used, capacity - *used, format, args);
    va_end(args);
    *used = count < 0 ? capacity - 1 : *used + size_t(count);
    return count >= 0 && *used < capacity - 1;
}

// Up to 16 bytes from `from` (never at or past `end`) as upper-case hex digits, one blank,
// and the same bytes as characters with "." for anything not printable.
void DumpBytes(const unsigned char* from, const unsigned char* end, char* out) {
    static const char kHex[] = "0123456789ABCDEF";
    size_t count = end > from ? size_t(end - from) : 0;
    if (count > 16) count = 16;
    for (size_t i = 0; i < count; ++i) {
        *out++ = kHex[from[i] >> 4];
        *out++ = kHex[from[i] & 15];
    }
    *out++ = ' ';
    for (size_t i = 0; i < count; ++i) *out++ = from[i] >= 0x20 && from[i] < 0x7F ? char(from[i]) : '.';
    *out = 0;
}

} // namespace

bool klSafeQueue::NodePool::IsFree(const void* unit) const {
    bool found = false;
    mFreeList.Walk([&](void* freeUnit) { found = found || freeUnit == unit; });
    return found;
}

char* klSafeQueue::NodePool::LeakReport() const {
    // 4096 characters at most, and the last byte is always the terminator.
    const size_t capacity = kLeakReportBytes;
    char* text = static_cast<char*>(klAlloc(capacity));
    text[0] = 0;
    text[capacity - 1] = 0;
    size_t used = 0;
    bool room = AppendF(text, capacity, &used,
                        "Free all pointers before SafeAlloc destructs. Dtors will not be called by safealloc's "
                        "cleanup.\nThis usually means you have a memory leak!\nInfo about this klSafeAllocT: "
                        "NodeCount:%u, ElemSize:%u, Alignment:%u, Padding:%u, GrowBy:%u\nLeaking nodes:\n",
                        Count(), mElemSize, mAlignment, mPadding, mGrowBy);
    uint32_t listed = 0;
    mBlockList.Walk([&](void* block) {
        char* first = FirstUnit(static_cast<char*>(block));
        const unsigned char* blockEnd = static_cast<unsigned char*>(block) + BlockBytes();
        for (uint32_t i = 0; room && i < mGrowBy; ++i) {
            char* unit = first + size_t(i) * Stride();
            if (IsFree(unit)) continue;
            if (listed == kLeaksListed) {
                AppendF(text, capacity, &used, "...\n");
                room = false;
                break;
            }
            // The dump skips the unit's first word, the one that links it while it is free.
            // It stops at the end of the block rather than read memory the pool never owned.
            char dump[16 * 3 + 2];
            DumpBytes(reinterpret_cast<unsigned char*>(unit) + sizeof(void*), blockEnd, dump);
            room = AppendF(text, capacity, &used, "  %4u) 0x%llX  %s\n", listed++,
                           (unsigned long long)(uintptr_t)unit, dump);
        }
    });
    return text;
}

uint32_t klSpinCounter::TryDecrement() {
    for (;;) {
        uint32_t seen = klAtomicLoad(&mValue);
        if (seen == 0 || klCompareAndSwap(&mValue, seen, seen - 1)) return seen;
    }
}

uint32_t klSpinCounter::WaitDecrement(uint32_t timeoutMs) {
    const uint32_t start = kl::platform::Milliseconds();
    for (;;) {
        if (uint32_t old = TryDecrement()) return old;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        if (timeoutMs != 0 && kl::platform::Milliseconds() - start >= timeoutMs) return 0;
    }
}

namespace {

using Node = klSafeQueue::Node;

// A consumer may read the link of a node that another thread has just taken back from the
// pool and is reinitialising; the tag then fails its swap. Every access to a link is
// therefore atomic. The acquire pairs with the producer's release so that a consumer who
// sees the link also sees the value written before it.
Node* LoadNext(Node* node) { return __atomic_load_n(&node->next, __ATOMIC_ACQUIRE); }
void StoreNext(Node* node, Node* next) { __atomic_store_n(&node->next, next, __ATOMIC_RELEASE); }

} // namespace

klSafeQueue::klSafeQueue()
    : mPool(klSingleton<NodePool>::Instance()), mHead{nullptr, 0}, mPadHead{}, mTail{nullptr, 0},
      mPadTail{}, mCount(0) {
    // The text is the classic 4-byte rule; what is checked is what the counted pointers need.
    klAssertAs(((size_t)this & (alignof(klCountedPtr) - 1)) == 0, "((size_t)this & 0x3) == 0");
    Node* trailing = static_cast<Node*>(mPool->Alloc());
    trailing->value = 0;
    StoreNext(trailing, nullptr);
    mHead.ptr = trailing;
    mTail.ptr = trailing;
}

klSafeQueue::~klSafeQueue() {
    klFatalAssert(mHead.ptr == mTail.ptr, "ERROR: queue should be empty when destroyed");
    klFatalAssert(mCount == 0, "ERROR: queue should be empty when destroyed");
    mPool->Free(mHead.ptr);
}

void klSafeQueue::Push(uintptr_t value) {
    klXchgAdd(&mCount, 1u);
    Node* trailing = static_cast<Node*>(mPool->Alloc());
    trailing->value = 0;
    StoreNext(trailing, nullptr);
    // One exchange instead of a tagged swap loop: it cannot be fooled by a recycled node, so
    // the tail's tag is never needed and stays 0.
    Node* tail = static_cast<Node*>(__atomic_exchange_n(&mTail.ptr, static_cast<void*>(trailing), __ATOMIC_SEQ_CST));
    if (!klAssert(tail != NULL)) return;
    // The old trailing node is ours alone now: fill it, then link it, in that order.
    klAssert(tail->next == NULL);
    tail->value = value;
    StoreNext(tail, trailing);
}

uintptr_t klSafeQueue::Pop() {
    klCountedPtr seen;
    for (;;) {
        seen = klLoadCounted(&mHead);
        if (!klAssertAs(seen.ptr != nullptr, "head != NULL")) return 0;
        Node* next = LoadNext(static_cast<Node*>(seen.ptr));
        if (next) {
            if (klCompareAndSwapCounted(&mHead, seen, {next, seen.tag + 1})) break;
        } else if (klAtomicLoad(&mHead.tag) == seen.tag) {
            return 0; // the head did not move while its link was read: truly empty
        }
    }
    klXchgAdd(&mCount, uint32_t(-1));
    Node* head = static_cast<Node*>(seen.ptr);
    uintptr_t value = head->value;
    mPool->Free(head);
    return value;
}

klReadWriteLock::klReadWriteLock() = default;
klReadWriteLock::~klReadWriteLock() = default;
void klReadWriteLock::WriteLock() { mLock.WriteLock(); }
void klReadWriteLock::WriteUnlock() { mLock.WriteUnlock(); }
void klReadWriteLock::ReadLock() { mLock.ReadLock(); }
void klReadWriteLock::ReadUnlock() { mLock.ReleaseRead("readCount > 0"); }
bool klReadWriteLock::IsWriteLockedByMe() const { return mLock.IsWriteLockedByMe(); }
bool klReadWriteLock::IsReadLockedByMe() const { return mLock.IsReadLockedByMe(); }
