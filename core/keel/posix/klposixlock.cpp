// Linux half of the locks: a recursive pthread mutex, and the two events of a condition
// as two flags under one pthread mutex with one condition variable, so that a waiter
// can wait for either.
#include "keel/kllock.h"

#include <pthread.h>
#include <time.h>

#include <cerrno>
#include <new>

namespace kl::detail {

namespace {

struct Events {
    pthread_mutex_t mutex;
    pthread_cond_t changed;
    bool set[2];
};

template <class T> T* In(unsigned char* storage) {
    return std::launder(reinterpret_cast<T*>(storage));
}

// The moment timeoutMs from now on the monotonic clock, which wall-clock changes leave alone.
timespec DeadlineAfter(uint32_t timeoutMs) {
    timespec at;
    clock_gettime(CLOCK_MONOTONIC, &at);
    at.tv_sec += timeoutMs / 1000;
    at.tv_nsec += long(timeoutMs % 1000) * 1000000;
    if (at.tv_nsec >= 1000000000) {
        at.tv_sec += 1;
        at.tv_nsec -= 1000000000;
    }
    return at;
}

} // namespace

bool LockMisuse(const char* expr, const char* message) {
    return ReportLockMisuse(expr, __FILE__, __LINE__, message);
}

SystemLock::SystemLock() {
    static_assert(sizeof(pthread_mutex_t) <= sizeof(mStorage) && alignof(pthread_mutex_t) <= 8);
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(new (mStorage) pthread_mutex_t, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

SystemLock::~SystemLock() {
    pthread_mutex_destroy(In<pthread_mutex_t>(mStorage));
}

bool SystemLock::TryEnter() {
    return pthread_mutex_trylock(In<pthread_mutex_t>(mStorage)) == 0;
}
void SystemLock::Enter() {
    pthread_mutex_lock(In<pthread_mutex_t>(mStorage));
}
void SystemLock::Leave() {
    pthread_mutex_unlock(In<pthread_mutex_t>(mStorage));
}

EventPair::EventPair() {
    static_assert(sizeof(Events) <= sizeof(mStorage) && alignof(Events) <= 8);
    Events* events = new (mStorage) Events{};
    pthread_mutex_init(&events->mutex, nullptr);
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(&events->changed, &attributes);
    pthread_condattr_destroy(&attributes);
}

EventPair::~EventPair() {
    Events* events = In<Events>(mStorage);
    pthread_cond_destroy(&events->changed);
    pthread_mutex_destroy(&events->mutex);
}

void EventPair::Set(Which event) {
    Events* events = In<Events>(mStorage);
    pthread_mutex_lock(&events->mutex);
    events->set[event] = true;
    // Any waiter takes either event, so one woken thread is enough for the signal event.
    if (event == kSignal)
        pthread_cond_signal(&events->changed);
    else
        pthread_cond_broadcast(&events->changed);
    pthread_mutex_unlock(&events->mutex);
}

void EventPair::Reset(Which event) {
    Events* events = In<Events>(mStorage);
    pthread_mutex_lock(&events->mutex);
    events->set[event] = false;
    pthread_mutex_unlock(&events->mutex);
}

bool EventPair::WaitAny(uint32_t timeoutMs) {
    Events* events = In<Events>(mStorage);
    timespec deadline = timeoutMs == klInfinite ? timespec{} : DeadlineAfter(timeoutMs);
    pthread_mutex_lock(&events->mutex);
    int result = 0;
    while (!events->set[kSignal] && !events->set[kBroadcast] && result != ETIMEDOUT) {
        result = timeoutMs == klInfinite
                     ? pthread_cond_wait(&events->changed, &events->mutex)
                     : pthread_cond_timedwait(&events->changed, &events->mutex, &deadline);
    }
    // An event set while the time ran out still counts, so no signal is swallowed.
    bool woken = events->set[kSignal] || events->set[kBroadcast];
    events->set[kSignal] = false;
    pthread_mutex_unlock(&events->mutex);
    return woken;
}

} // namespace kl::detail
