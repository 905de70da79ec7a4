// Blocking locks: klMutex, a recursive mutex that counts its own depth, and
// klCondition, a condition variable made of two mutexes and two events.
//
// The operating-system objects live inside their owners (no heap); the Windows half is
// win32/klw32lock.cpp, the Linux half posix/klposixlock.cpp.
#pragma once

#include <atomic>
#include <cstdint>

// A time-out that never ends.
constexpr uint32_t klInfinite = 0xFFFFFFFFu;

// Where a profiler receives the life of every klMutex. All four entries are required;
// each gets the lock's telemetry area and the source position of the report.
struct klLockTelemetry {
    void (*mNameLock)(void* area, const char* name, const char* file, int line);
    void (*mTryBegin)(void* area, const char* file, int line);
    void (*mTryEnd)(void* area, bool acquired, const char* file, int line);
    // state is "locked", "released" or "destroyed".
    void (*mSetState)(void* area, const char* state, const char* file, int line);
};

// Attaches a profiler's table, or detaches with null. The table must outlive every lock
// that may still report to it. Without a table a report costs one pointer test.
void klSetLockTelemetry(const klLockTelemetry* table);

namespace kl::detail {

// The attached profiler's table; null when none.
extern std::atomic<const klLockTelemetry*> g_lockTelemetry;

// Reports lock misuse (a plain assertion, or the fatal hook when message is given) as
// raised in the platform half, where the system lock lives. Returns false. Each half
// defines it by calling ReportLockMisuse with its own source position.
bool LockMisuse(const char* expr, const char* message);
bool ReportLockMisuse(const char* expr, const char* file, int line, const char* message);

// A recursive operating-system lock held in place.
class SystemLock {
public:
    SystemLock();
    ~SystemLock();
    SystemLock(const SystemLock&) = delete;
    SystemLock& operator=(const SystemLock&) = delete;

    bool TryEnter();
    void Enter();
    void Leave();

private:
    alignas(8) unsigned char mStorage[6 * sizeof(void*)];
};

// Two events with one wait for either. The signal event lets one waiter through and
// clears itself; the broadcast event stays set until Reset. Both start clear.
class EventPair {
public:
    enum Which : uint32_t { kSignal = 0, kBroadcast = 1 };

    EventPair();
    ~EventPair();
    EventPair(const EventPair&) = delete;
    EventPair& operator=(const EventPair&) = delete;

    void Set(Which event);
    void Reset(Which event);
    // Waits until either event is set (the signal event first when both are), at most
    // timeoutMs; 0 only looks. Returns false when the time ran out.
    bool WaitAny(uint32_t timeoutMs);

private:
    alignas(8) unsigned char mStorage[96];
};

} // namespace kl::detail

class klMutex {
public:
    klMutex() : klMutex("Unnamed") {}
    explicit klMutex(const char* name);
    // Destroying a held mutex is a broken contract (asserts "_bSpin == 0").
    ~klMutex();
    klMutex(const klMutex&) = delete;
    klMutex& operator=(const klMutex&) = delete;

    // One attempt without blocking; true when this thread now holds the lock.
    bool TryLock();
    // Blocks until this thread holds the lock. The owner may lock again.
    void Lock() {
        // Without a profiler nobody sees a separate first attempt, and the system's own
        // blocking call is the quicker way in.
        if (kl::detail::g_lockTelemetry.load(std::memory_order_acquire))
            LockReported();
        else
            mLock.Enter();
        ++_bSpin;
    }
    void Unlock() {
        --_bSpin;
        mLock.Leave();
        if (kl::detail::g_lockTelemetry.load(std::memory_order_acquire)) ReportReleased();
    }

    // Names the lock for a profiler, cut to 31 characters.
    void SetName(const char* name);
    const char* Name() const { return mName; }
    // How many times the owner holds the lock; 0 when free. Meaningful to the owner only.
    uint32_t RecursionDepth() const { return _bSpin; }

private:
    friend class klCondition;
    void LockReported();
    void ReportReleased();

    kl::detail::SystemLock mLock;
    void* mTelemetryArea[2] = {}; // the profiler's own per-lock scratch space
    char mName[32];
    uint32_t _bSpin = 0;
};

// Waits for a predicate guarded by the condition's own lock:
//   cond.Lock(); while (!ready) cond.Wait(); ... cond.Unlock();
// A Signal or Broadcast while nobody waits is lost, and a waiter may wake without one,
// so waiters always test their predicate again in a loop.
class klCondition {
public:
    klCondition();
    ~klCondition();
    klCondition(const klCondition&) = delete;
    klCondition& operator=(const klCondition&) = delete;

    void Lock() { _mutex.Lock(); }
    void Unlock() { _mutex.Unlock(); }

    // Releases the lock (once), waits for a Signal or Broadcast or timeoutMs (0 only
    // looks), then takes the lock back. False when the time ran out. Needs the lock.
    bool Wait(uint32_t timeoutMs);
    bool Wait() { return Wait(klInfinite); }
    // Wakes one waiter. Needs the lock.
    void Signal();
    // Wakes every thread waiting now. Needs the lock.
    void Broadcast();

    klMutex& Mutex() { return _mutex; }
    // Threads inside Wait.
    uint32_t Waiting();

private:
    void Notify(kl::detail::EventPair::Which event, const char* misuse);

    klMutex mInternal; // guards _waiting only
    kl::detail::EventPair mEvents;
    klMutex _mutex{"klCondition"};
    uint32_t _waiting = 0;
};

// Holds a klMutex or a klCondition's lock for one scope.
template <class Lockable> class klScopedLock {
public:
    explicit klScopedLock(Lockable& lock) : mLock(lock) { mLock.Lock(); }
    ~klScopedLock() { mLock.Unlock(); }
    klScopedLock(const klScopedLock&) = delete;
    klScopedLock& operator=(const klScopedLock&) = delete;

private:
    Lockable& mLock;
};
