#include "keel/klevent.h"

#include "keel/klassert.h"
#include "keel/kllock.h"
#include "keel/klplatform.h"
#include "keel/klstats.h"

#include <atomic>
#include <vector>

namespace {

// ---------------------------------------------------------------------------------------
// The clock

void WaitOnCondition(uint32_t ms);

kl::detail::EventClock gClock = {nullptr, 0, nullptr};

// The system clock is read on first use, like the counter frequency it depends on.
const kl::detail::EventClock& Clock() {
    if (!gClock.counter) gClock = {kl::platform::PerformanceCounter, kl::platform::PerformanceFrequency(), nullptr};
    return gClock;
}

// a * b / c without overflowing for the counts a frame loop sees over days.
int64_t MulDiv(int64_t a, int64_t b, int64_t c) { return a / c * b + a % c * b / c; }

// ---------------------------------------------------------------------------------------
// Tick lists and delayed callbacks

struct TickList {
    std::vector<klTickFunc> funcs;
    klMutex lock{"klTickFuncList"};
};

struct TickLists {
    TickList pendingAdd, active, pendingRemove;
};

struct DelayedRecord {
    double elapsed;
    float delay;
    klEventCallback* callback;
    uint64_t serial; // finds the record again after its callback ran unlocked
};

struct DelayedRecords {
    std::vector<DelayedRecord> items;
    uint64_t nextSerial = 0;
    klMutex lock{"sPendingEventsLock"};
};

std::atomic<TickLists*> gTickLists{nullptr};
std::atomic<DelayedRecords*> gDelayed{nullptr};
std::atomic<bool> gStop{false};
double gLastSleep = 0.0;

// Creates *slot once, whoever gets there first.
template <class T> T* Ensure(std::atomic<T*>& slot) {
    T* current = slot.load(std::memory_order_acquire);
    if (current) return current;
    T* fresh = new T();
    if (slot.compare_exchange_strong(current, fresh, std::memory_order_acq_rel)) return fresh;
    delete fresh;
    return current;
}

template <class T> void Destroy(std::atomic<T*>& slot) { delete slot.exchange(nullptr); }

void Append(TickList& list, klTickFunc fn) {
    klScopedLock<klMutex> hold(list.lock);
    list.funcs.push_back(fn);
}

// Removals first, then additions; then every active function, called without a lock so
// that it may add or remove functions (which then wait for the next frame). Only the
// loop's thread changes the active list, so walking it by index is safe.
void UpdateTicks(TickLists& lists, double delta) {
    TickList& active = lists.active;
    lists.pendingRemove.lock.Lock();
    for (klTickFunc fn : lists.pendingRemove.funcs) {
        for (auto it = active.funcs.begin(); it != active.funcs.end(); ++it) {
            if (*it != fn) continue;
            active.funcs.erase(it);
            break;
        }
    }
    lists.pendingRemove.funcs.clear();
    lists.pendingRemove.lock.Unlock();

    active.lock.Lock();
    lists.pendingAdd.lock.Lock();
    active.funcs.insert(active.funcs.end(), lists.pendingAdd.funcs.begin(), lists.pendingAdd.funcs.end());
    lists.pendingAdd.funcs.clear();
    lists.pendingAdd.lock.Unlock();
    for (size_t i = 0; i < active.funcs.size(); ++i) {
        const klTickFunc fn = active.funcs[i];
        active.lock.Unlock();
        fn(delta);
        active.lock.Lock();
    }
    active.lock.Unlock();
}

// The index moves on after an erase, so the record that slid into the erased place waits
// for the next frame: callbacks expiring together fire one a frame in order.
void UpdateDelayed(DelayedRecords& records, double delta) {
    klScopedLock<klMutex> hold(records.lock);
    for (DelayedRecord& record : records.items) record.elapsed += delta;
    for (size_t i = 0; i < records.items.size(); ++i) {
        if (!(records.items[i].elapsed > records.items[i].delay)) continue;
        const uint64_t serial = records.items[i].serial;
        klEventCallback* callback = records.items[i].callback;
        records.lock.Unlock();
        callback->Invoke();
        records.lock.Lock();
        for (auto it = records.items.begin(); it != records.items.end(); ++it) {
            if (it->serial != serial) continue;
            records.items.erase(it);
            break;
        }
    }
}

// ---------------------------------------------------------------------------------------
// The frame limiter

class FrameLimiter {
public:
    explicit FrameLimiter(uint32_t fps) : mFps(fps), mMsPerFrame(fps ? 1000.0 / fps : 0.0) {}

    // Sleeps what the last 128 frames say is left of a frame once the work is done: the
    // frame times include the sleeps, so their difference is the work.
    void Run(double delta) {
        double sleep = 0.0;
        if (mFps) {
            const double work = (mFrameSum - mSleepSum) * 0.0078125;
            sleep = mMsPerFrame - work > 0.0 ? mMsPerFrame - work : 0.0;
        }
        if (sleep > 0.001) {
            const uint32_t ms = static_cast<uint32_t>(sleep);
            if (Clock().sleepMs)
                Clock().sleepMs(ms);
            else
                WaitOnCondition(ms);
        }
        mFrameSum += delta - mFrames[mIndex];
        mSleepSum += sleep - mSleeps[mIndex];
        mFrames[mIndex] = delta;
        mSleeps[mIndex] = sleep;
        mIndex = (mIndex + 1) % kRing;
        gLastSleep = sleep;
    }

private:
    static constexpr uint32_t kRing = 128;
    uint32_t mFps;
    double mMsPerFrame;
    double mFrames[kRing] = {};
    double mSleeps[kRing] = {};
    double mFrameSum = 0.0, mSleepSum = 0.0;
    uint32_t mIndex = 0;
};

// A timed wait that nothing signals: the limiter's sleep.
void WaitOnCondition(uint32_t ms) {
    static klCondition condition;
    condition.Lock();
    condition.Wait(ms);
    condition.Unlock();
}

} // namespace

// ---------------------------------------------------------------------------------------

void klTimer::Start() { mStart = Clock().counter(); }

int64_t klTimer::ElapsedMicroseconds(bool reset) {
    const kl::detail::EventClock& clock = Clock();
    const int64_t now = clock.counter();
    const int64_t micros = MulDiv(now - mStart, 1000000, clock.frequency);
    if (reset) mStart += MulDiv(micros, clock.frequency, 1000000);
    return micros;
}

void klAddTickFunc(klTickFunc fn) { Append(Ensure(gTickLists)->pendingAdd, fn); }

void klRemoveTickFunc(klTickFunc fn) { Append(Ensure(gTickLists)->pendingRemove, fn); }

void klPostDelayed(float delayMs, klEventCallback* callback) {
    klFatal("", "TODO: Flesh out event system... use 'klTickFunc' otherwise");
    DelayedRecords* records = Ensure(gDelayed);
    klScopedLock<klMutex> hold(records->lock);
    records->items.push_back({0.0, delayMs, callback, records->nextSerial++});
}

void klStopEventLoop(bool stop) { gStop.store(stop); }

bool klEventLoopStopping() { return gStop.load(); }

void klRunEventLoop(uint32_t fps, klEventCallback* perFrame) {
    FrameLimiter limiter(fps);
    TickLists* lists = Ensure(gTickLists);
    DelayedRecords* delayed = Ensure(gDelayed);
    klTimer frame;
    frame.Start();
    klFrameStats::Reset();
    while (!klEventLoopStopping()) {
        klFrameStats::Begin(klFrameStats::kFramePeriod);
        if (perFrame) perFrame->Invoke();
        const double delta = frame.ElapsedMilliseconds(true);
        klAssert(delta >= 0.0f);
        UpdateDelayed(*delayed, delta);
        UpdateTicks(*lists, delta);
        if (delta > 0) limiter.Run(delta);
        klFrameStats::End(klFrameStats::kFramePeriod);
        klFrameStats::EndFrame();
    }
    Destroy(gDelayed);
    Destroy(gTickLists);
}

klEventThread::klEventThread(uint32_t fps, klEventCallback* owned)
    : klThread("klThreadUnnamed", 0x40000), mFps(fps), mOwned(owned) {}

klEventThread::~klEventThread() {
    WaitStop(0);
    delete mOwned;
}

void klEventThread::Run() {
    klRunEventLoop(mFps, nullptr);
    if (!mOwned) return;
    mOwned->Invoke();
    delete mOwned;
    mOwned = nullptr;
}

kl::detail::EventClock kl::detail::SetEventClock(const EventClock* clock) {
    const EventClock before = Clock();
    gClock = clock ? *clock : EventClock{nullptr, 0, nullptr};
    return before;
}

double kl::detail::LastLimiterSleep() { return gLastSleep; }
