// The frame loop: a microsecond timer, tick functions called once a frame with the
// frame's length, a frame-rate limiter that sleeps away the rest of each frame, and
// klEventThread, a thread that runs the loop.
//
//   klAddTickFunc(UpdateGame);             // called every frame with the delta in ms
//   klSetShutdownRequestHandler([] { klStopEventLoop(); }); // e.g. on Ctrl+C (klsystem.h)
//   klRunEventLoop(60, nullptr);           // returns once klStopEventLoop() was called
//
// klStopEventLoop is how the host ends the loop: the current frame finishes, and the
// loop returns. Call klStopEventLoop(false) before running a loop again. Each loop owns
// its state (klEventLoop): a klEventThread runs its own, apart from the host's.
#pragma once

#include "keel/klthread.h"

#include <cstdint>

// A performance-counter stopwatch.
class klTimer {
public:
    void Start();
    // Microseconds since Start. With reset, the start moves on by exactly the whole
    // microseconds counted, so the fractions left over are carried into the next reading.
    int64_t ElapsedMicroseconds(bool reset);
    double ElapsedMilliseconds(bool reset) { return double(ElapsedMicroseconds(reset)) * 0.001; }

private:
    int64_t mStart = 0;
};

// What the loop calls: a function taking the frame's length in milliseconds.
using klTickFunc = void (*)(double deltaMs);

// A callback object; the loop calls Invoke.
class klEventCallback {
public:
    virtual ~klEventCallback() = default;
    virtual void Invoke() = 0;
};

// One frame loop and everything it owns: its tick functions, its delayed callbacks, its
// frame-rate limiter and its stop flag. Loops on different threads share nothing, so
// stopping one stops only it. The host's loop is klHostEventLoop(); every klEventThread
// has its own.
class klEventLoop {
public:
    klEventLoop();
    ~klEventLoop();
    klEventLoop(const klEventLoop&) = delete;
    klEventLoop& operator=(const klEventLoop&) = delete;

    // Add or remove a tick function. Both only queue the change, which the loop applies
    // at the start of the next frame's tick update (removals before additions), so they
    // are safe from any thread and from inside a tick function.
    void AddTickFunc(klTickFunc fn);
    void RemoveTickFunc(klTickFunc fn);
    // See klPostDelayed.
    void PostDelayed(float delayMs, klEventCallback* callback);
    // Runs frames until Stop: calls perFrame (may be null) first in every frame, then the
    // delayed callbacks and the tick functions with the frame's length, then sleeps what
    // is left of 1000 / fps milliseconds (fps 0: never sleeps). The tick functions are
    // dropped when it returns. Only the host's loop feeds the frame statistics (klstats.h),
    // which are one process-wide set.
    void Run(uint32_t fps, klEventCallback* perFrame);
    // Sets (or clears) the flag that ends Run after the current frame.
    void Stop(bool stop = true);
    bool Stopping() const;
    // The limiter's last sleep in milliseconds.
    double LastLimiterSleep() const;

private:
    struct State;
    State* mState;
};

// The loop that the host runs on its own thread.
klEventLoop& klHostEventLoop();

// The functions below act on the calling thread's loop: the one it is running (inside a
// tick function of a klEventThread, that thread's loop), else the host's loop.
void klAddTickFunc(klTickFunc fn);
void klRemoveTickFunc(klTickFunc fn);

// One-shot delayed callbacks are not built out: posting one goes through the fatal
// assertion hook (which ends the process by default). Use a tick function instead.
// When the hook returns, the callback (not owned) runs once delayMs have passed.
void klPostDelayed(float delayMs, klEventCallback* callback);

// Runs the calling thread's loop (see klEventLoop::Run).
void klRunEventLoop(uint32_t fps, klEventCallback* perFrame);
// Sets (or clears) the stop flag of the calling thread's loop; from any other thread (a
// signal handler's, say) that is the host's loop.
void klStopEventLoop(bool stop = true);
bool klEventLoopStopping();

// A thread running its own loop at fps. An owned callback is invoked and deleted after
// the loop returns.
class klEventThread : public klThread {
public:
    explicit klEventThread(uint32_t fps, klEventCallback* owned = nullptr);
    ~klEventThread() override;
    void Run() override;
    // Start stops a previous run first, which raises the loop's stop flag: lower it again.
    bool OnStart() override {
        mLoop.Stop(false);
        return true;
    }
    // Ends this thread's loop only.
    void RequestStop() override { mLoop.Stop(); }
    // Its loop, for adding tick functions from outside the thread.
    klEventLoop& Loop() { return mLoop; }

private:
    klEventLoop mLoop;
    uint32_t mFps;
    klEventCallback* mOwned;
};

namespace kl::detail {
// The loop's clock and its sleep, replaceable so that tests can run frames on a made-up
// clock: counter() reads a monotonic counter of frequency ticks a second; sleepMs waits.
struct EventClock {
    int64_t (*counter)();
    int64_t frequency;
    void (*sleepMs)(uint32_t ms); // null: the limiter's own timed wait
};
// Installs clock (null: the system's) and returns the one in force before.
EventClock SetEventClock(const EventClock* clock);
// The limiter's last sleep in milliseconds, of the calling thread's loop.
double LastLimiterSleep();
} // namespace kl::detail
