// Non-blocking building blocks: atomic operations, the counted-pointer stack, the
// fixed-size node pool that sits beneath queues, short strings and thread-local storage,
// the multi-producer multi-consumer queue, a spinning semaphore counter and the
// reader/writer spin lock.
#pragma once

#include "keel/kllifetime.h"

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

// A counting semaphore that spins instead of blocking: a taker lowers it by one while it
// is positive.
class klSpinCounter {
public:
    explicit klSpinCounter(uint32_t initial = 0) : mValue(initial) {}

    // Lowers a positive counter by one and returns the old value; returns 0 at once when
    // the counter is 0.
    uint32_t TryDecrement();
    // Lowers the counter by one as soon as it is positive, sleeping 1 ms between looks,
    // and returns the old value. Gives up and returns 0 once timeoutMs have passed
    // (0 = wait for ever).
    uint32_t WaitDecrement(uint32_t timeoutMs);
    // Raises the counter from expected to expected + 1; false when it held another value.
    bool TryIncrementFrom(uint32_t expected) { return klCompareAndSwap(&mValue, expected, expected + 1); }
    // Raises the counter by one and returns the old value.
    uint32_t Increment() { return klXchgAdd(&mValue, 1u); }
    uint32_t Value() const { return klAtomicLoad(&mValue); }

private:
    uint32_t mValue;
};

// Multi-producer, multi-consumer FIFO of non-zero pointer-sized values. The queue always
// ends in a trailing node that carries no value yet; nodes come from the process-wide
// node pool, so neither Push nor Pop touches the heap once the pool has grown enough.
class klSafeQueue {
public:
    // One queue node: the link, then the value it carries. The value is pointer-sized so
    // that a pointer fits on every platform.
    struct Node {
        Node* next;
        uintptr_t value;
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
        // Describes the units handed out and never given back: a header with the pool's
        // figures, then one line per unit (at most kLeaksListed, then "...") with its
        // address and the 16 bytes behind its first pointer-sized word. Returns a new
        // text of kLeakReportBytes bytes (always terminated); release it with klFree.
        // Only while no other thread uses the pool.
        char* LeakReport() const;
        static constexpr uint32_t kLeakReportBytes = 4097;
        static constexpr uint32_t kLeaksListed = 25;

        uint32_t Count() const { return klAtomicLoad(&mCount); }
        uint32_t ElemSize() const { return mElemSize; }
        uint32_t Alignment() const { return mAlignment; }
        uint32_t Padding() const { return mPadding; }
        uint32_t GrowBy() const { return mGrowBy; }
        uint32_t Stride() const { return mElemSize + mPadding; }

    private:
        void Grow();
        size_t BlockBytes() const;
        char* FirstUnit(char* block) const;
        bool IsFree(const void* unit) const;

        klCountedStack mFreeList;
        klCountedStack mBlockList;
        uint32_t mCount;
        uint32_t mElemSize;
        uint32_t mAlignment;
        uint32_t mPadding;
        uint32_t mGrowBy;
    };

    klSafeQueue();
    // A queue must be empty when it dies; anything else is fatal.
    ~klSafeQueue();
    klSafeQueue(const klSafeQueue&) = delete;
    klSafeQueue& operator=(const klSafeQueue&) = delete;

    // Appends a value. 0 is not allowed: Pop could not tell it from "empty".
    void Push(uintptr_t value);
    // Takes the oldest value, or returns 0 when there is none.
    uintptr_t Pop();
    // Values pushed and not yet popped. A push counts before its value can be popped, so
    // Count may briefly exceed what Pop finds.
    uint32_t Count() const { return klAtomicLoad(&mCount); }

private:
    klUsesSingleton<NodePool> mUsesPool; // first: the pool outlives every node taken below
    NodePool* mPool;
    // Producers work on mTail and consumers on mHead; the padding keeps them, and the count
    // both sides change, on different cache lines.
    klCountedPtr mHead;
    char mPadHead[64 - sizeof(klCountedPtr)];
    klCountedPtr mTail;
    char mPadTail[64 - sizeof(klCountedPtr)];
    uint32_t mCount;
};

// The node pool under its allocator's name, the one its leak report gives.
using klSafeAllocT = klSafeQueue::NodePool;

// ---------------------------------------------------------------------------------------
// Reader/writer spin lock: any number of readers, or one writer. The writer may recurse
// and takes read locks for free; a thread holding read locks may become the writer. A
// writer first keeps new readers out, then waits for the ones inside to leave, so a stream
// of readers cannot starve it. Each thread's count of read locks lives in a thread-local
// slot, so the read locks of a thread that upgrades are still held after it downgrades.

class klThread;
class klThreadLocalMgr;
void klYieldOrSleep();

// Writer thread id and reader count, side by side and swapped together as one 8-byte unit.
struct klRWLockState {
    uint32_t mWritingThread; // 0 when there is no writer
    uint32_t mReadCount;     // readers inside, over all threads
};

// The whole lock inline, for code that cannot afford a call per lock (the profiler).
// Thread and ThreadLocals only defer the lookup of klThread and klThreadLocalMgr, which
// need this header themselves; use klInlineReadWriteLock.
template <class Thread = klThread, class ThreadLocals = klThreadLocalMgr> class klInlineReadWriteLockT {
public:
    klInlineReadWriteLockT() : mCASUnit(0), mWriteSpin(0), mTLRSKey(NewKey()) {
        klAssertAs(mTLRSKey != ThreadLocals::INVALID_KEY, "mTLRSKey != klThreadLocalMgr::INVALID_KEY");
    }
    ~klInlineReadWriteLockT() {
        klAssertAs(WritingThread() == 0, "mCAS.mWritingThread == 0");
        klAssertAs(ReadCount() == 0, "mCAS.mReadCount == 0");
        ThreadLocals::Instance()->FreeKey(mTLRSKey);
    }
    klInlineReadWriteLockT(const klInlineReadWriteLockT&) = delete;
    klInlineReadWriteLockT& operator=(const klInlineReadWriteLockT&) = delete;

    void WriteLock() {
        const uint32_t myThread = Thread::GetCurrentThreadId();
        if (!klAssert(myThread != 0)) return;
        if (WritingThread() == myThread) {
            if (klAssert(mWriteSpin > 0 && mWriteSpin < 0xffff)) ++mWriteSpin;
            return;
        }
        // Our own read locks must not keep us waiting: they leave the count while we wait.
        const uint32_t mine = ThreadLocals::Instance()->GetValue(mTLRSKey);
        if (mine != 0) klXchgAdd(&mCASUnit, -ReadersUnit(mine));
        for (uint64_t seen;;) {
            seen = klAtomicLoad(&mCASUnit);
            if (uint32_t(seen) == 0 && klCompareAndSwap(&mCASUnit, seen, seen | myThread)) break;
            if (uint32_t(seen) != 0) klYieldOrSleep(); // only a race with a reader retries at once
        }
        klAssert(mWriteSpin == 0);
        mWriteSpin = 1;
        while (ReadCount() != 0) klYieldOrSleep(); // new readers are kept out already
        if (mine != 0) klXchgAdd(&mCASUnit, ReadersUnit(mine));
    }

    void WriteUnlock() {
        const uint32_t writer = WritingThread();
        if (!klAssertAs(writer == Thread::GetCurrentThreadId(),
                        "mCAS.mWritingThread == (size_t)klThread::GetCurrentThreadId()") ||
            !klAssertAs(writer != 0, "mCAS.mWritingThread != 0") || !klAssert(mWriteSpin > 0))
            return;
        if (--mWriteSpin == 0) klXchgAdd(&mCASUnit, uint64_t(0) - writer); // writer word to 0
    }

    void ReadLock() {
        for (uint64_t seen;;) {
            seen = klAtomicLoad(&mCASUnit) & kReadersMask; // succeeds only while there is no writer
            if (klCompareAndSwap(&mCASUnit, seen, seen + ReadersUnit(1))) break;
            const uint32_t writer = WritingThread();
            if (writer == Thread::GetCurrentThreadId()) return; // the writer reads for free
            if (writer != 0) klYieldOrSleep(); // a race with another reader retries at once
        }
        klAssertAs(ReadCount() > 0, "mCAS.mReadCount > 0");
        ThreadLocals* locals = ThreadLocals::Instance();
        locals->SetValue(mTLRSKey, locals->GetValue(mTLRSKey) + 1);
    }

    void ReadUnlock() { ReleaseRead("klXchgAdd(&mCAS.mReadCount, (size_t)-1) > 0"); }

    bool IsWriteLockedByMe() const {
        const uint32_t writer = WritingThread();
        return writer != 0 && writer == Thread::GetCurrentThreadId();
    }
    bool IsReadLockedByMe() const {
        return IsWriteLockedByMe() || ThreadLocals::Instance()->GetValue(mTLRSKey) != 0;
    }

    uint32_t WritingThread() const { return State().mWritingThread; }
    uint32_t ReadCount() const { return State().mReadCount; }
    uint32_t WriteDepth() const { return mWriteSpin; }

private:
    friend class klReadWriteLock;
    static constexpr uint64_t kReadersMask = ~uint64_t(0) << 32;

    // The unit is the state as one little-endian word: writer low, reader count high.
    static uint64_t ReadersUnit(uint32_t readers) { return uint64_t(readers) << 32; }
    klRWLockState State() const {
        const uint64_t unit = klAtomicLoad(&mCASUnit);
        return {uint32_t(unit), uint32_t(unit >> 32)};
    }
    static uint32_t NewKey() {
        klUsesSingleton<ThreadLocals> needsThreadLocals; // created before the first key
        return ThreadLocals::Instance()->AllocKey();
    }

    void ReleaseRead(const char* underflowText) {
        if (IsWriteLockedByMe()) return; // the writer's reads were never counted
        const uint32_t readCount = uint32_t(klXchgAdd(&mCASUnit, -ReadersUnit(1)) >> 32);
        if (!klAssertAs(readCount > 0, underflowText)) {
            klXchgAdd(&mCASUnit, ReadersUnit(1)); // undo the wrap below zero
            return;
        }
        ThreadLocals* locals = ThreadLocals::Instance();
        const uint32_t rc = locals->GetValue(mTLRSKey);
        if (klAssert(rc > 0)) locals->SetValue(mTLRSKey, rc - 1);
    }

    // mCAS names the two words; mCASUnit is how they change, always as one.
    union alignas(8) {
        klRWLockState mCAS;
        uint64_t mCASUnit;
    };
    uint32_t mWriteSpin; // writer recursion depth, touched only by the writer
    uint32_t mTLRSKey;   // this thread's number of read locks on this lock
};
using klInlineReadWriteLock = klInlineReadWriteLockT<>;

// The same lock compiled once, in kllockfree.cpp.
class klReadWriteLock {
public:
    klReadWriteLock();
    ~klReadWriteLock();
    klReadWriteLock(const klReadWriteLock&) = delete;
    klReadWriteLock& operator=(const klReadWriteLock&) = delete;

    void WriteLock();
    void WriteUnlock();
    void ReadLock();
    void ReadUnlock();
    bool IsWriteLockedByMe() const;
    bool IsReadLockedByMe() const;

    uint32_t WritingThread() const { return mLock.WritingThread(); }
    uint32_t ReadCount() const { return mLock.ReadCount(); }
    uint32_t WriteDepth() const { return mLock.WriteDepth(); }

private:
    klInlineReadWriteLock mLock;
};

// Holds one side of a reader/writer lock for a scope. mUnlock says whether it holds it now.
template <class Lock, void (Lock::*Take)(), void (Lock::*Release)()> class klRWGuardT {
public:
    explicit klRWGuardT(Lock* lock, bool lockNow = true) : mLock(lock), mUnlock(false) {
        if (lockNow) Relock();
    }
    ~klRWGuardT() { Unlock(); }
    klRWGuardT(const klRWGuardT&) = delete;
    klRWGuardT& operator=(const klRWGuardT&) = delete;

    void Relock() {
        if (!klAssert(!mUnlock)) return; // already held: taking it twice would never balance
        (mLock->*Take)();
        mUnlock = true;
    }
    void Unlock() {
        if (!mUnlock) return;
        mUnlock = false;
        (mLock->*Release)();
    }

private:
    Lock* mLock;
    bool mUnlock;
};
using klReadGuard = klRWGuardT<klReadWriteLock, &klReadWriteLock::ReadLock, &klReadWriteLock::ReadUnlock>;
using klWriteGuard = klRWGuardT<klReadWriteLock, &klReadWriteLock::WriteLock, &klReadWriteLock::WriteUnlock>;
using klInlineReadGuard =
    klRWGuardT<klInlineReadWriteLock, &klInlineReadWriteLock::ReadLock, &klInlineReadWriteLock::ReadUnlock>;
using klInlineWriteGuard =
    klRWGuardT<klInlineReadWriteLock, &klInlineReadWriteLock::WriteLock, &klInlineReadWriteLock::WriteUnlock>;

// The thread services the lock above needs; they in turn use the queue and the pool.
#include "keel/klthread.h"
