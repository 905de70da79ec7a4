// The portable half of threads and thread-local slots.
#include "keel/klthread.h"

#include "keel/klcrash.h"
#include "keel/kllog.h"
#include "keel/klmalloc.h"
#include "keel/klplatform.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>

klThreadHookFn klThreadBeginHook = nullptr;
klThreadHookFn klThreadEndHook = nullptr;

namespace {

char* CopyName(const char* name) {
    size_t size = std::strlen(name) + 1;
    char* copy = static_cast<char*>(klAlloc(size));
    std::memcpy(copy, name, size);
    return copy;
}

constexpr uint32_t kDestructorTimeoutMs = 10000;

// The object whose destructor just gave up on its still-running thread; the deallocation
// that follows on this thread leaves its memory alone.
thread_local const klThread* tAbandoned = nullptr;

} // namespace

klThread::klThread(const char* debugName, uint32_t stackSize)
    : mStopRequested(false), mRunning(false), mName(nullptr), mHandle(nullptr), mThreadId(0),
      mStackSize(stackSize) {
    if (!klAssert(debugName != NULL)) debugName = "";
    mName = CopyName(debugName);
}

klThread::~klThread() {
    if (mRunning) {
        klConsoleLogger().Debug("klThread::~klThread() - thread still running, waiting for completion.");
        if (!WaitStop(kDestructorTimeoutMs)) {
            // The thread runs on in this object: its memory and name are left to it.
            ReleaseHandle();
            tAbandoned = this;
            return;
        }
    }
    klFree(mName);
}

void klThread::operator delete(void* p, size_t size) {
    const auto at = reinterpret_cast<uintptr_t>(tAbandoned), from = reinterpret_cast<uintptr_t>(p);
    if (at >= from && at < from + size) {
        tAbandoned = nullptr; // deliberately leaked
        return;
    }
    ::operator delete(p);
}

bool klThread::Start() {
    WaitStop(0);
    klAtomicStore(&mStopRequested, false);
    if (!OnStart()) return false;
    mRunning = Launch();
    return mRunning;
}

bool klThread::WaitStop(uint32_t timeoutMs) {
    // The flag first: a thread that RequestStop wakes must find it set.
    klAtomicStore(&mStopRequested, true);
    RequestStop();
    if (!mRunning) return true;
    if (!Join(timeoutMs)) {
        klConsoleLogger().Error("klThread::WaitStop(): Possible deadlock in %s, terminating the thread",
                  mName);
        if (!Terminate()) return false; // still running, and still ours to wait for
    }
    ReleaseHandle();
    mHandle = nullptr;
    mRunning = false;
    return true;
}

void klThread::SetName(const char* name) {
    if (!klAssert(name != NULL)) return;
    char* old = mName;
    mName = CopyName(name);
    klFree(old);
    klSetThreadName(mName);
}

void klThread::ThreadMain() {
    klSetThreadName(mName);
    if (klThreadHookFn begin = klThreadBeginHook) begin();
    // After the hook, so that nothing it sets up for signals displaces this: even a stack
    // overflow in Run() ends in the death report.
    klUseCrashStack();
    Run();
    if (klThreadHookFn end = klThreadEndHook) end();
}

uint32_t klThread::GetCurrentThreadId() {
    return kl::platform::CurrentThreadId();
}

// One thread's slots: a growable array of entries indexed by the key's index. The first
// word is the link of the manager's record list.
struct klThreadLocalMgr::Storage {
    void* mLink;
    Entry* mEntries;
    uint32_t mCount;
    uint32_t mCapacity;

    explicit Storage(uint32_t capacity)
        : mLink(nullptr), mEntries(static_cast<Entry*>(klAlloc(capacity * sizeof(Entry)))),
          mCount(0), mCapacity(capacity) {}
    ~Storage() { klFree(mEntries); }

    // Makes entries [mCount, count) exist, zeroed.
    void GrowTo(uint32_t count) {
        if (count > mCapacity) {
            uint32_t capacity = mCapacity * 2 > count ? mCapacity * 2 : count;
            Entry* entries = static_cast<Entry*>(klAlloc(size_t(capacity) * sizeof(Entry)));
            std::memcpy(entries, mEntries, mCount * sizeof(Entry));
            klFree(mEntries);
            mEntries = entries;
            mCapacity = capacity;
        }
        std::memset(mEntries + mCount, 0, (count - mCount) * sizeof(Entry));
        mCount = count;
    }
};

namespace {
// The pool's units are 24 bytes, or the record's size where a wider pointer makes it
// larger. Alignment 1 is enough: the pool never places a unit below pointer alignment.
constexpr uint32_t kRecordGrowBy = 8;
constexpr uint32_t kFirstEntries = 32;
} // namespace

namespace {
// The calling thread's record of the manager it used last. The system slot stays the
// record's home; this copy only spares a system call on every read, which the reader/
// writer lock makes twice per lock.
// In the static TLS block (KL_STATIC_TLS), so GetValue and SetValue need no stack frame.
struct ThreadCache {
    uint64_t instance;
    void* storage;
};
thread_local ThreadCache tCache KL_STATIC_TLS = {0, nullptr};
uint64_t gManagerInstances = 0;
} // namespace

klThreadLocalMgr::klThreadLocalMgr()
    : mMasterKey(kl::detail::kNoTlsSlot),
      mStoragePool(sizeof(Storage) > 24 ? sizeof(Storage) : 24, kRecordGrowBy, 1), mNextIndex(1),
      mInstance(klXchgAdd(&gManagerInstances, uint64_t(1)) + 1) {
    mMasterKey = kl::detail::TlsSlotAlloc();
    klAssertAs(mMasterKey != kl::detail::kNoTlsSlot, "mMasterKey != TLS_OUT_OF_INDEXES");
}

klThreadLocalMgr::~klThreadLocalMgr() {
    if (mMasterKey != kl::detail::kNoTlsSlot) kl::detail::TlsSlotFree(mMasterKey);
    while (void* record = mRecords.Pop()) {
        static_cast<Storage*>(record)->~Storage();
        mStoragePool.Free(record);
    }
    while (mFreeKeys.Pop() != 0) {
    }
}

klThreadLocalMgr::KeyType klThreadLocalMgr::AllocKey() {
    if (KeyType reused = KeyType(mFreeKeys.Pop())) return reused;
    uint32_t index;
    do {
        index = klAtomicLoad(&mNextIndex);
    } while (!klCompareAndSwap(&mNextIndex, index, index + 1));
    KeyType key = index;
    klFatalAssert(
        key < (~(KeyType)0 >> GEN_BITS),
        "we have more than this many active keys? something is wrong (they should be getting "
        "reused when destroyed)");
    key = index << GEN_BITS;
    klAssert(key != INVALID_KEY);
    return key;
}

void klThreadLocalMgr::FreeKey(KeyType& key) {
    if (!klAssert(key != 0)) return;
    mFreeKeys.Push(NextGeneration(key));
    key = 0;
}

// The check every GetValue and SetValue makes; small enough to be inlined into both.
inline klThreadLocalMgr::Storage* klThreadLocalMgr::ThreadStorage() {
    if (tCache.instance == mInstance) return static_cast<Storage*>(tCache.storage);
    return AttachThreadStorage();
}

// This thread's record from the system slot, made on its first use of this manager.
[[gnu::noinline]] klThreadLocalMgr::Storage* klThreadLocalMgr::AttachThreadStorage() {
    if (void* record = kl::detail::TlsSlotGet(mMasterKey)) {
        tCache.instance = mInstance;
        tCache.storage = record;
        return static_cast<Storage*>(record);
    }
    if (mMasterKey == kl::detail::kNoTlsSlot) return nullptr; // reported at construction
    uint32_t next = klAtomicLoad(&mNextIndex);
    Storage* threadStorage =
        new (mStoragePool.Alloc()) Storage(next > kFirstEntries ? next : kFirstEntries);
    mRecords.Push(threadStorage);
    kl::detail::TlsSlotSet(mMasterKey, threadStorage);
    klAssert(threadStorage != NULL);
    tCache.instance = mInstance;
    tCache.storage = threadStorage;
    return threadStorage;
}

// The entry of key's index in this thread's record, when the record is the cached one and
// already reaches that far; null otherwise (and for the invalid key). Its key may be
// another generation's.
inline klThreadLocalMgr::Entry* klThreadLocalMgr::CachedSlot(KeyType key) {
    if (tCache.instance != mInstance || key == INVALID_KEY) return nullptr;
    Storage* storage = static_cast<Storage*>(tCache.storage);
    const uint32_t index = key >> GEN_BITS;
    return index < storage->mCount ? storage->mEntries + index : nullptr;
}

// The reader/writer lock reads and writes a slot twice per lock: the common case takes no
// call beyond this one and no stack frame.
uint32_t klThreadLocalMgr::GetValue(KeyType key) {
    if (const Entry* slot = CachedSlot(key)) return slot->key == key ? slot->value : 0;
    return LookUpValue(key);
}

void klThreadLocalMgr::SetValue(KeyType key, uint32_t value) {
    if (Entry* slot = CachedSlot(key)) {
        *slot = {value, key};
        return;
    }
    StoreValue(key, value);
}

[[gnu::noinline]] uint32_t klThreadLocalMgr::LookUpValue(KeyType key) {
    if (!klAssert(key != INVALID_KEY)) return 0;
    Storage* storage = ThreadStorage();
    uint32_t index = key >> GEN_BITS;
    if (!storage || index >= storage->mCount || storage->mEntries[index].key != key) return 0;
    return storage->mEntries[index].value;
}

[[gnu::noinline]] void klThreadLocalMgr::StoreValue(KeyType key, uint32_t value) {
    if (!klAssert(key != INVALID_KEY)) return;
    Storage* storage = ThreadStorage();
    if (!storage) return;
    uint32_t index = key >> GEN_BITS;
    if (index >= storage->mCount) storage->GrowTo(index + 1);
    storage->mEntries[index] = {value, key};
}

uint32_t klThreadLocalMgr::ThreadEntryCount() {
    Storage* storage = ThreadStorage();
    return storage ? storage->mCount : 0;
}
