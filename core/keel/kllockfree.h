// Non-blocking building blocks: atomic operations, the counted-pointer stack and the
// fixed-size node pool that sits beneath queues, short strings and thread-local storage.
#pragma once

#include <cstddef>
#include <cstdint>

// Atomic exchange-add on a naturally aligned integer; returns the previous value.
template <class T> inline T klXchgAdd(T* target, T delta) {
    return __atomic_fetch_add(target, delta, __ATOMIC_SEQ_CST);
}
// Atomic compare-and-swap; returns whether target held expected and now holds desired.
template <class T> inline bool klCompareAndSwap(T* target, T expected, T desired) {
    return __atomic_compare_exchange_n(target, &expected, desired, false, __ATOMIC_SEQ_CST,
                                       __ATOMIC_SEQ_CST);
}
// Atomic load after a full fence.
template <class T> inline T klAtomicLoad(const T* source) {
    return __atomic_load_n(source, __ATOMIC_SEQ_CST);
}
template <class T> inline void klAtomicStore(T* target, T value) {
    __atomic_store_n(target, value, __ATOMIC_SEQ_CST);
}

// A pointer and a tag, compared and swapped together as one unit (cmpxchg8b on 32-bit
// x86, cmpxchg16b on x86-64). Every successful swap bumps the tag, so a pointer that was
// taken and put back between a reader's load and its swap no longer matches.
struct alignas(2 * sizeof(void*)) klCountedPtr {
    void* ptr;
    uintptr_t tag;
};

// Swaps *target from expected to desired as one unit; returns whether it did.
bool klCompareAndSwapCounted(klCountedPtr* target, klCountedPtr expected, klCountedPtr desired);
// Reads the tag, then the pointer, each atomically. The pair may be torn; callers confirm
// it with klCompareAndSwapCounted.
klCountedPtr klLoadCounted(const klCountedPtr* source);

// A lock-free stack of memory units linked through each unit's first word. Units must
// stay readable for as long as the stack lives (the pool never returns its memory).
class klCountedStack {
public:
    klCountedStack() : mTop{nullptr, 0} {}
    klCountedStack(const klCountedStack&) = delete;
    klCountedStack& operator=(const klCountedStack&) = delete;

    void Push(void* data);
    void* Pop(); // null when empty
    bool IsEmpty() const { return klAtomicLoad(&mTop.ptr) == nullptr; }
    // Visits every unit without taking any; only while no other thread changes the stack.
    template <class F> void Walk(F&& visit) const {
        for (void* unit = mTop.ptr; unit; unit = *static_cast<void* const*>(unit)) visit(unit);
    }

private:
    klCountedPtr mTop;
};

class klSafeQueue {
public:
    // One queue node: the link, then the value it carries.
    struct Node {
        Node* next;
        uint32_t value;
    };

    // Hands out fixed-size units from blocks of mGrowBy units. Units are never returned
    // to the allocator while the pool lives, which keeps its lock-free free list safe to
    // read. Default-constructed it serves queue nodes (the process-wide singleton).
    class NodePool {
    public:
        explicit NodePool(uint32_t elemSize = sizeof(Node), uint32_t growBy = 32,
                          uint32_t alignment = alignof(Node));
        ~NodePool();
        NodePool(const NodePool&) = delete;
        NodePool& operator=(const NodePool&) = delete;

        void* Alloc();
        void Free(void* unit);
        // Calls dtor on every unit of every block, handed out or not.
        void ForEach(void (*dtor)(void* unit));

        uint32_t Count() const { return klAtomicLoad(&mCount); }
        uint32_t ElemSize() const { return mElemSize; }
        uint32_t Alignment() const { return mAlignment; }
        uint32_t Padding() const { return mPadding; }
        uint32_t GrowBy() const { return mGrowBy; }
        uint32_t Stride() const { return mElemSize + mPadding; }

    private:
        void Grow();
        char* FirstUnit(char* block) const;

        klCountedStack mFreeList;
        klCountedStack mBlockList;
        uint32_t mCount;
        uint32_t mElemSize;
        uint32_t mAlignment;
        uint32_t mPadding;
        uint32_t mGrowBy;
    };
};
