// Threads, waiting primitives and thread-local slots.
//
// klThread is a base class: a subclass fills in Run() and, when its loop blocks, wakes it
// in RequestStop(). klAutoResetEvent and klSemaphore are thin handles over the system's
// own. klThreadLocalMgr hands out any number of per-thread 32-bit slots on top of one
// system TLS slot; every key carries a generation, so a key that was freed and handed out
// again never reads what its previous owner stored.
//
// A thread that ignores a stop is killed on Windows. On Linux it is never killed: it is
// reported as still running, the process goes on, and its object is deliberately leaked
// rather than freed under it (WaitStop, operator delete).
//
// The declarations are portable; win32/klw32thread.cpp and posix/klposixthread.cpp
// define the system half, klthread.cpp the rest.
#pragma once

#include "keel/kllifetime.h"
#include "keel/kllockfree.h"

#include <cstddef>
#include <cstdint>

class klThread {
public:
    // debugName is copied; stackSize 0 takes the system's default reservation.
    explicit klThread(const char* debugName, uint32_t stackSize = 0);
    // Waits up to 10 seconds for a running thread, then kills it (Windows) or gives up on
    // it (Linux, see WaitStop). A subclass whose Run() uses its own members must stop the
    // thread in its own destructor.
    virtual ~klThread();
    // Frees the object, except one whose destructor gave up on a thread still running in
    // it (Linux): that object is deliberately leaked, so the thread never runs on freed
    // memory. Only objects made with new can be kept this way; one on the stack or inside
    // another object goes with its scope, so keep such threads on the heap.
    static void* operator new(size_t size) { return ::operator new(size); }
    static void operator delete(void* p, size_t size);
    klThread(const klThread&) = delete;
    klThread& operator=(const klThread&) = delete;

    // Called on the owning thread right before a start; false vetoes it.
    virtual bool OnStart() { return true; }
    // Called on the owning thread before every stop; wakes a blocked Run().
    virtual void RequestStop() {}
    // The thread body.
    virtual void Run() = 0;

    // Stops and joins a previous run without limit, then starts a new one. False when
    // OnStart() vetoed or the system could not create the thread.
    bool Start();
    // Sets the stop flag, then calls RequestStop(), and waits up to timeoutMs (0 = without
    // limit) for the thread to end. A thread that does not end in time is logged at ERROR
    // ("Possible deadlock in <name>, terminating the thread"), then:
    // - Windows: killed (TerminateThread); the result is true.
    // - Linux: no thread can be killed safely there (cancelling ends the process when the
    //   thread is in noexcept code, and a spinning thread never notices). It is left
    //   running, IsRunning() stays true and the result is false; the process goes on. A
    //   later WaitStop or Start waits for it again, and the destructor leaks the object
    //   rather than free memory the thread still uses (see operator delete).
    // True when no thread is running afterwards.
    bool WaitStop(uint32_t timeoutMs);
    // Read by Run() loops on the running thread.
    bool IsStopRequested() const { return klAtomicLoad(&mStopRequested); }
    bool IsRunning() const { return mRunning; }
    const char* GetName() const { return mName; }
    // System id of the thread of the latest Start().
    uint32_t GetThreadId() const { return mThreadId; }

    // Replaces the name and gives it to the calling thread (call it from Run()).
    void SetName(const char* name);
    // 0 lowest, 1 below normal, 2 normal, 3 above normal, 4 highest; false for any other
    // level, when not running, or when the system refuses.
    bool SetPriority(int level);
    // Bit n lets the thread run on processor n. False when not running or refused.
    bool SetAffinityMask(uint64_t mask);
    // The processor the scheduler should prefer for the thread.
    bool SetIdealProcessor(uint32_t processor);

    // Id of the calling thread; never 0. The identity the locks record as owner.
    static uint32_t GetCurrentThreadId();

private:
    void ThreadMain(); // the new thread's life: name, hooks, Run()

    // System half.
    bool Launch();                 // creates the thread; sets mHandle and mThreadId
    bool Join(uint32_t timeoutMs); // false when the thread did not end in time
    bool Terminate();              // ends a thread that did not stop; false where it cannot
    void ReleaseHandle();          // after Join or Terminate, or to give up on a running thread
    friend struct klThreadEntry;

    bool mStopRequested;
    bool mRunning;
    char* mName;
    void* mHandle;
    uint32_t mThreadId;
    uint32_t mStackSize;
};

// Process-wide hooks run on every klThread right before and right after Run(), for a
// profiler or telemetry to register threads. Null or the default do nothing. Set them
// before starting the threads they should see.
using klThreadHookFn = void (*)();
extern klThreadHookFn klThreadBeginHook;
extern klThreadHookFn klThreadEndHook;

constexpr uint32_t klCallingThread = 0xFFFFFFFFu;
// Names a thread for debuggers and system tools; threadId klCallingThread names the
// calling one. Long names are cut where the system has a limit.
void klSetThreadName(const char* threadName, uint32_t threadId = klCallingThread);

void klSleep(uint32_t ms);
// Offers the processor to another ready thread; whether one ran.
bool klYield();
// klYield(), and when nothing else was ready, the shortest sleep the system has. For
// spin-wait loops.
void klYieldOrSleep();

class klAutoResetEvent {
public:
    klAutoResetEvent();
    ~klAutoResetEvent();
    klAutoResetEvent(const klAutoResetEvent&) = delete;
    klAutoResetEvent& operator=(const klAutoResetEvent&) = delete;

    // Wakes one waiter, or the next one to wait; signals do not accumulate.
    void Signal();
    // True only when the event was signalled within timeoutMs (0 = without limit).
    bool Wait(uint32_t timeoutMs = 0);

private:
    void* mAutoResetEvent;
};

class klSemaphore {
public:
    klSemaphore(uint32_t initial, uint32_t maximum);
    ~klSemaphore();
    klSemaphore(const klSemaphore&) = delete;
    klSemaphore& operator=(const klSemaphore&) = delete;

    // Releases one count; false when the count is already at its maximum.
    bool Post();
    // Takes one count, waiting without limit; false only for a semaphore that failed to
    // be created.
    bool Wait();

private:
    void* mSemaphore;
};

// Any number of per-thread 32-bit slots over one system TLS slot. AllocKey and FreeKey
// may run on any thread at once; GetValue and SetValue touch only the calling thread's
// record and take no lock. A thread's record lives until the manager dies.
class klThreadLocalMgr : public klUsesSingleton<klSafeQueue::NodePool> {
public:
    // Bits 31..12: slot index (from 1); bits 11..0: generation.
    using KeyType = uint32_t;
    static constexpr KeyType INVALID_KEY = 0;
    static constexpr uint32_t GEN_BITS = 12;

    static klThreadLocalMgr* Instance() { return klSingleton<klThreadLocalMgr>::Instance(); }

    klThreadLocalMgr();
    ~klThreadLocalMgr() override;
    klThreadLocalMgr(const klThreadLocalMgr&) = delete;
    klThreadLocalMgr& operator=(const klThreadLocalMgr&) = delete;

    KeyType AllocKey();
    // Releases the key for reuse under its next generation and zeroes the variable.
    void FreeKey(KeyType& key);
    // The calling thread's value under key; 0 when it stored none under this generation.
    uint32_t GetValue(KeyType key);
    void SetValue(KeyType key, uint32_t value);

    // The key a freed key comes back as: same index, generation + 1 (0xFFF wraps to 0).
    static KeyType NextGeneration(KeyType key) { return (((key + 1) ^ key) & 0xFFFu) ^ key; }
    // Entries in the calling thread's record (grown by SetValue only).
    uint32_t ThreadEntryCount();

private:
    struct Entry {
        uint32_t value;
        KeyType key; // the full key that stored value
    };
    struct Storage;
    Storage* ThreadStorage();
    Storage* AttachThreadStorage(); // the slow part of ThreadStorage, kept out of line
    Entry* CachedSlot(KeyType key);
    // GetValue and SetValue whole, for when CachedSlot has no answer.
    uint32_t LookUpValue(KeyType key);
    void StoreValue(KeyType key, uint32_t value);

    uint32_t mMasterKey;
    klSafeQueue mFreeKeys;
    klSafeQueue::NodePool mStoragePool;
    klCountedStack mRecords; // every record handed out, for the destructor
    uint32_t mNextIndex;
    uint64_t mInstance; // tells this manager apart from any earlier one at the same address
};

namespace kl::detail {
// The system TLS slot behind klThreadLocalMgr; defined by the system half.
constexpr uint32_t kNoTlsSlot = 0xFFFFFFFFu;
uint32_t TlsSlotAlloc(); // kNoTlsSlot when the system has none left
void TlsSlotFree(uint32_t slot);
void* TlsSlotGet(uint32_t slot);
void TlsSlotSet(uint32_t slot, void* value);
} // namespace kl::detail
