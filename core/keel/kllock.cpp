// klMutex and klCondition above the system halves: depth counting, profiler reports and
// the waiting protocol.
#include "keel/kllock.h"

#include "keel/klassert.h"

#include <atomic>
#include <cstring>

std::atomic<const klLockTelemetry*> kl::detail::g_lockTelemetry{nullptr};

void klSetLockTelemetry(const klLockTelemetry* table) {
    kl::detail::g_lockTelemetry.store(table, std::memory_order_release);
}

bool kl::detail::ReportLockMisuse(const char* expr, const char* file, int line, const char* message) {
    if (!message) return kl::detail::AssertFailed(expr, file, line, nullptr);
    klAssertHook(expr, file, line, message);
    return false;
}

// The lock's own assertions, named after the platform half.
#define klLockAssert(expr) (static_cast<bool>(expr) || kl::detail::LockMisuse(#expr, nullptr))
#define klLockFatal(expr, msg) (static_cast<bool>(expr) || kl::detail::LockMisuse(#expr, (msg)))

// One report to an attached profiler, naming this line of the lock code.
#define KL_LOCK_REPORT(entry, ...)                                                                 \
    do {                                                                                           \
        if (const klLockTelemetry* table =                                                         \
                kl::detail::g_lockTelemetry.load(std::memory_order_acquire))                       \
            table->entry(mTelemetryArea __VA_OPT__(, ) __VA_ARGS__, __FILE__, __LINE__);           \
    } while (0)

klMutex::klMutex(const char* name) {
    SetName(name);
}

klMutex::~klMutex() {
    klLockAssert(_bSpin == 0);
    KL_LOCK_REPORT(mSetState, "destroyed");
}

void klMutex::SetName(const char* name) {
    if (!klLockAssert(name != nullptr)) name = "Unnamed";
    size_t length = strnlen(name, sizeof(mName) - 1);
    std::memcpy(mName, name, length);
    mName[length] = 0;
    KL_LOCK_REPORT(mNameLock, mName);
}

bool klMutex::TryLock() {
    KL_LOCK_REPORT(mTryBegin);
    if (!mLock.TryEnter()) {
        KL_LOCK_REPORT(mTryEnd, false);
        return false;
    }
    KL_LOCK_REPORT(mTryEnd, true);
    KL_LOCK_REPORT(mSetState, "locked");
    ++_bSpin;
    return true;
}

void klMutex::LockReported() {
    // The attempt without blocking comes first so that the profiler's timeline shows any
    // contention as a wait of its own.
    KL_LOCK_REPORT(mTryBegin);
    if (!mLock.TryEnter()) {
        KL_LOCK_REPORT(mTryEnd, false);
        KL_LOCK_REPORT(mTryBegin);
        mLock.Enter();
    }
    KL_LOCK_REPORT(mTryEnd, true);
    KL_LOCK_REPORT(mSetState, "locked");
}

void klMutex::ReportReleased() {
    KL_LOCK_REPORT(mSetState, "released");
}

klCondition::klCondition() = default;

klCondition::~klCondition() {
    klLockAssert(_waiting == 0);
}

uint32_t klCondition::Waiting() {
    klScopedLock guard(mInternal);
    return _waiting;
}

bool klCondition::Wait(uint32_t timeoutMs) {
    if (!klLockFatal(_mutex._bSpin != 0, "Condition should be locked before calling Wait"))
        return false;
    mInternal.Lock();
    klLockAssert(_waiting < 0xffffffff);
    ++_waiting;
    mInternal.Unlock();

    _mutex.Unlock();
    bool woken = mEvents.WaitAny(timeoutMs);

    mInternal.Lock();
    if (klLockAssert(_waiting > 0)) --_waiting;
    bool last = _waiting == 0;
    mInternal.Unlock();
    // The last waiter to leave closes a broadcast; a thread that arrives before that
    // passes too, one of the wake-ups without cause that callers must expect.
    if (last) mEvents.Reset(kl::detail::EventPair::kBroadcast);

    _mutex.Lock();
    return woken;
}

void klCondition::Signal() {
    Notify(kl::detail::EventPair::kSignal, "Condition should be locked before calling Signal");
}

void klCondition::Broadcast() {
    Notify(kl::detail::EventPair::kBroadcast,
           "Condition should be locked before calling Broadcast");
}

void klCondition::Notify(kl::detail::EventPair::Which event, const char* misuse) {
    if (!klLockFatal(_mutex._bSpin != 0, misuse)) return;
    // Nobody waiting: the wake-up is dropped rather than left for a later Wait.
    if (Waiting() != 0) mEvents.Set(event);
}
