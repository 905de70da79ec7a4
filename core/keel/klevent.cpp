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

kl::detail::EventClock gClock = {nullptr, 0, nullptr};

// The system clock is read on first use, like the counter frequency it depends on; loops
// on several threads may be first together.
const kl::detail::EventClock& Clock() {
    static const kl::detail::EventClock system = {kl::platform::PerformanceCounter,
                                                  kl::platform::PerformanceFrequency(), nullptr};
    return gClock.counter ? gClock : system;
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
            if (Clock().sleepMs) {
                Clock().sleepMs(ms);
            } else { // a timed wait that nothing signals
                mSleeper.Lock();
                mSleeper.Wait(ms);
                mSleeper.Unlock();
            }
        }
        mFrameSum += delta - mFrames[mIndex];
        mSleepSum += sleep - mSleeps[mIndex];
        mFrames[mIndex] = delta;
        mSleeps[mIndex] = sleep;
        mIndex = (mIndex + 1) % kRing;
        mLastSleep = sleep;
    }
    double LastSleep() const { return mLastSleep; }

private:
    static constexpr uint32_t kRing = 128;
    uint32_t mFps;
    double mMsPerFrame;
    double mFrames[kRing] = {};
    double mSleeps[kRing] = {};
    double mFrameSum = 0.0, mSleepSum = 0.0;
    uint32_t mIndex = 0;
    double mLastSleep = 0.0;
    klCondition mSleeper;
};

// The loop the calling thread is running, if any.
thread_local klEventLoop* tRunningLoop = nullptr;

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

struct klEventLoop::State {
    TickLists ticks;
    DelayedRecords delayed;
    std::atomic<bool> stop{false};
    double lastSleep = 0.0; // written by the running loop only
};

klEventLoop::klEventLoop() : mState(new State) {}

klEventLoop::~klEventLoop() { delete mState; }

void klEventLoop::AddTickFunc(klTickFunc fn) { Append(mState->ticks.pendingAdd, fn); }

void klEventLoop::RemoveTickFunc(klTickFunc fn) { Append(mState->ticks.pendingRemove, fn); }

void klEventLoop::PostDelayed(float delayMs, klEventCallback* callback) {
    klFatal("", "TODO: Flesh out event system... use 'klTickFunc' otherwise");
    DelayedRecords& records = mState->delayed;
    klScopedLock<klMutex> hold(records.lock);
    records.items.push_back({0.0, delayMs, callback, records.nextSerial++});
}

void klEventLoop::Stop(bool stop) { mState->stop.store(stop); }

bool klEventLoop::Stopping() const { return mState->stop.load(); }

double klEventLoop::LastLimiterSleep() const { return mState->lastSleep; }

// Every list is emptied once the loop ends: what was added for this run goes with it.
void klEventLoop::Run(uint32_t fps, klEventCallback* perFrame) {
    klEventLoop* const outer = tRunningLoop;
    tRunningLoop = this;
    const bool stats = this == &klHostEventLoop(); // one process-wide set of statistics
    FrameLimiter limiter(fps);
    klTimer frame;
    frame.Start();
    if (stats) klFrameStats::Reset();
    while (!Stopping()) {
        if (stats) klFrameStats::Begin(klFrameStats::kFramePeriod);
        if (perFrame) perFrame->Invoke();
        const double delta = frame.ElapsedMilliseconds(true);
        klAssert(delta >= 0.0f);
        UpdateDelayed(mState->delayed, delta);
        UpdateTicks(mState->ticks, delta);
        if (delta > 0) {
            limiter.Run(delta);
            mState->lastSleep = limiter.LastSleep();
        }
        if (stats) {
            klFrameStats::End(klFrameStats::kFramePeriod);
            klFrameStats::EndFrame();
        }
    }
    for (TickList* list : {&mState->ticks.pendingAdd, &mState->ticks.active, &mState->ticks.pendingRemove}) {
        klScopedLock<klMutex> hold(list->lock);
        list->funcs.clear();
    }
    klScopedLock<klMutex> hold(mState->delayed.lock);
    mState->delayed.items.clear();
    tRunningLoop = outer;
}

// Never destroyed: a tick function or a signal handler may reach it during exit.
klEventLoop& klHostEventLoop() {
    static klEventLoop* const host = new klEventLoop;
    return *host;
}

namespace {
klEventLoop& CallersLoop() { return tRunningLoop ? *tRunningLoop : klHostEventLoop(); }
} // namespace

void klAddTickFunc(klTickFunc fn) { CallersLoop().AddTickFunc(fn); }

void klRemoveTickFunc(klTickFunc fn) { CallersLoop().RemoveTickFunc(fn); }

void klPostDelayed(float delayMs, klEventCallback* callback) { CallersLoop().PostDelayed(delayMs, callback); }

void klStopEventLoop(bool stop) { CallersLoop().Stop(stop); }

bool klEventLoopStopping() { return CallersLoop().Stopping(); }

void klRunEventLoop(uint32_t fps, klEventCallback* perFrame) { CallersLoop().Run(fps, perFrame); }

klEventThread::klEventThread(uint32_t fps, klEventCallback* owned)
    : klThread("klThreadUnnamed", 0x40000), mFps(fps), mOwned(owned) {}

klEventThread::~klEventThread() {
    WaitStop(0);
    delete mOwned;
}

void klEventThread::Run() {
    mLoop.Run(mFps, nullptr);
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

double kl::detail::LastLimiterSleep() { return CallersLoop().LastLimiterSleep(); }
