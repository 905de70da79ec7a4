// Linux half of threads, events, semaphores and the TLS slot: pthreads.
#include "keel/klthread.h"

#include "keel/klplatform.h"

#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>

static_assert(sizeof(pthread_t) <= sizeof(void*), "the thread handle field holds a pthread_t");

namespace {

pthread_t ToThread(void* handle) {
    return reinterpret_cast<pthread_t>(handle);
}

timespec DeadlineAfter(clockid_t clock, uint32_t ms) {
    timespec at;
    clock_gettime(clock, &at);
    at.tv_sec += ms / 1000;
    at.tv_nsec += long(ms % 1000) * 1000000L;
    if (at.tv_nsec >= 1000000000L) {
        at.tv_sec += 1;
        at.tv_nsec -= 1000000000L;
    }
    return at;
}

// A counter with a ceiling, guarded by a mutex and woken through a condition variable:
// an auto-reset event is one with ceiling 1, a semaphore one with its maximum.
struct Counter {
    pthread_mutex_t mMutex;
    pthread_cond_t mWake;
    uint32_t mCount;
    uint32_t mMaximum;

    Counter(uint32_t initial, uint32_t maximum) : mCount(initial), mMaximum(maximum) {
        pthread_mutex_init(&mMutex, nullptr);
        pthread_condattr_t attr;
        pthread_condattr_init(&attr);
        pthread_condattr_setclock(&attr, CLOCK_MONOTONIC); // timeouts immune to clock changes
        pthread_cond_init(&mWake, &attr);
        pthread_condattr_destroy(&attr);
    }
    ~Counter() {
        pthread_cond_destroy(&mWake);
        pthread_mutex_destroy(&mMutex);
    }
    // Adds one up to the ceiling; saturate says whether a full counter is still success.
    bool Post(bool saturate) {
        pthread_mutex_lock(&mMutex);
        bool full = mCount >= mMaximum;
        if (!full) ++mCount;
        pthread_mutex_unlock(&mMutex);
        if (!full) pthread_cond_signal(&mWake);
        return !full || saturate;
    }
    // Takes one, waiting up to timeoutMs (0 = without limit).
    bool Take(uint32_t timeoutMs) {
        timespec deadline = DeadlineAfter(CLOCK_MONOTONIC, timeoutMs);
        pthread_mutex_lock(&mMutex);
        int rc = 0;
        while (mCount == 0 && rc != ETIMEDOUT)
            rc = timeoutMs ? pthread_cond_timedwait(&mWake, &mMutex, &deadline)
                           : pthread_cond_wait(&mWake, &mMutex);
        bool taken = mCount > 0;
        if (taken) --mCount;
        pthread_mutex_unlock(&mMutex);
        return taken;
    }
};

Counter* AsCounter(void* handle) {
    return static_cast<Counter*>(handle);
}

} // namespace

struct klThreadEntry {
    static void* Start(void* argument) {
        klThread* self = static_cast<klThread*>(argument);
        klAtomicStore(&self->mThreadId, kl::platform::CurrentThreadId());
        self->ThreadMain();
        return nullptr;
    }
};

bool klThread::Launch() {
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    // PTHREAD_STACK_MIN is a long, so both sides are compared as size_t.
    if (mStackSize != 0) pthread_attr_setstacksize(&attr, std::max<size_t>(mStackSize, PTHREAD_STACK_MIN));
    klAtomicStore(&mThreadId, 0u);
    pthread_t thread;
    int rc = pthread_create(&thread, &attr, &klThreadEntry::Start, this);
    pthread_attr_destroy(&attr);
    if (rc != 0) return false;
    mHandle = reinterpret_cast<void*>(thread);
    // The kernel id is only known on the new thread; priorities are set through it.
    while (klAtomicLoad(&mThreadId) == 0)
        sched_yield();
    return true;
}

// A joined thread has no handle left: ReleaseHandle then has nothing to let go.
bool klThread::Join(uint32_t timeoutMs) {
    int rc;
    if (timeoutMs == 0) {
        rc = pthread_join(ToThread(mHandle), nullptr);
    } else {
        timespec deadline = DeadlineAfter(CLOCK_REALTIME, timeoutMs); // the clock the call takes
        rc = pthread_timedjoin_np(ToThread(mHandle), nullptr, &deadline);
    }
    if (rc == 0) mHandle = nullptr;
    return rc == 0;
}

// Linux cannot end one thread of a process safely. Cancelling unwinds the thread's stack
// and, inside noexcept code, ends the whole process through std::terminate; a thread that
// spins never reaches a cancellation point at all. So the thread is left running, and
// klThread keeps reporting it as running.
bool klThread::Terminate() { return false; }

// A thread given up on while still running is detached, so that the system reclaims it
// once it does end.
void klThread::ReleaseHandle() {
    if (mHandle) pthread_detach(ToThread(mHandle));
}

namespace {

// Linux lets an unprivileged thread lower its own priority but not raise it again, so the
// levels are nice values around the normal 0, and raising ones fail without rights.
constexpr int kNiceOfLevel[] = {10, 5, 0, -5, -10};

} // namespace

bool klThread::SetPriority(int level) {
    if (level < 0 || level > 4 || !mRunning) return false;
    return setpriority(PRIO_PROCESS, mThreadId, kNiceOfLevel[level]) == 0;
}

bool klThread::SetAffinityMask(uint64_t mask) {
    if (!mRunning) return false;
    cpu_set_t set;
    CPU_ZERO(&set);
    for (int cpu = 0; cpu < 64; ++cpu)
        if (mask & (uint64_t(1) << cpu)) CPU_SET(cpu, &set);
    return pthread_setaffinity_np(ToThread(mHandle), sizeof(set), &set) == 0;
}

// Linux has no soft preference for one processor, and pinning the thread would turn a
// hint into a rule; a valid processor is accepted and left to the scheduler.
bool klThread::SetIdealProcessor(uint32_t processor) {
    return mRunning && processor < uint32_t(sysconf(_SC_NPROCESSORS_CONF));
}

void klSetThreadName(const char* threadName, uint32_t threadId) {
    if (!klAssert(threadName != NULL)) return;
    char cut[16]; // the kernel keeps 15 characters
    std::snprintf(cut, sizeof(cut), "%s", threadName);
    if (threadId == klCallingThread || threadId == kl::platform::CurrentThreadId()) {
        pthread_setname_np(pthread_self(), cut);
        return;
    }
    // Another thread of this process is named through its entry in /proc.
    char path[64];
    std::snprintf(path, sizeof(path), "/proc/self/task/%u/comm", threadId);
    if (FILE* comm = std::fopen(path, "w")) {
        std::fputs(cut, comm);
        std::fclose(comm);
    }
}

void klSleep(uint32_t ms) {
    timespec left = {time_t(ms / 1000), long(ms % 1000) * 1000000L};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

namespace {
long ContextSwitches() {
    rusage usage;
    getrusage(RUSAGE_THREAD, &usage);
    return usage.ru_nvcsw + usage.ru_nivcsw;
}
} // namespace

// sched_yield does not say whether another thread ran; the thread's switch count does.
bool klYield() {
    long before = ContextSwitches();
    sched_yield();
    return ContextSwitches() != before;
}

// sched_yield already hands the processor to any ready thread, and a zero-length
// nanosleep is a real timer sleep on Linux, not the no-op it is elsewhere.
void klYieldOrSleep() {
    sched_yield();
}

klAutoResetEvent::klAutoResetEvent() : mAutoResetEvent(new Counter(0, 1)) {
    klAssert(mAutoResetEvent != NULL);
}

klAutoResetEvent::~klAutoResetEvent() {
    delete AsCounter(mAutoResetEvent);
}

void klAutoResetEvent::Signal() {
    AsCounter(mAutoResetEvent)->Post(true);
}

bool klAutoResetEvent::Wait(uint32_t timeoutMs) {
    return AsCounter(mAutoResetEvent)->Take(timeoutMs);
}

klSemaphore::klSemaphore(uint32_t initial, uint32_t maximum) : mSemaphore(nullptr) {
    // The same arguments the Windows call refuses.
    if (maximum > 0 && initial <= maximum && maximum <= uint32_t(INT_MAX))
        mSemaphore = new Counter(initial, maximum);
    klAssert(mSemaphore != NULL);
}

klSemaphore::~klSemaphore() {
    delete AsCounter(mSemaphore);
}

bool klSemaphore::Post() {
    return mSemaphore && AsCounter(mSemaphore)->Post(false);
}

bool klSemaphore::Wait() {
    return mSemaphore && AsCounter(mSemaphore)->Take(0);
}

namespace kl::detail {

uint32_t TlsSlotAlloc() {
    pthread_key_t key;
    static_assert(sizeof(key) <= sizeof(uint32_t), "a TLS slot fits 32 bits");
    return pthread_key_create(&key, nullptr) == 0 ? uint32_t(key) : kNoTlsSlot;
}

void TlsSlotFree(uint32_t slot) {
    pthread_key_delete(pthread_key_t(slot));
}

void* TlsSlotGet(uint32_t slot) {
    return pthread_getspecific(pthread_key_t(slot));
}

void TlsSlotSet(uint32_t slot, void* value) {
    pthread_setspecific(pthread_key_t(slot), value);
}

} // namespace kl::detail
