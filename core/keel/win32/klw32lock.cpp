// Windows half of the locks: a critical section, and the two events of a condition as
// an auto-reset and a manual-reset event waited for together. The system calls' results
// are not checked: none of them fails on valid objects.
#include "keel/kllock.h"

#include <windows.h>

#include <new>

namespace kl::detail {

namespace {

static_assert(klInfinite == INFINITE);

CRITICAL_SECTION* Section(unsigned char* storage) {
    return std::launder(reinterpret_cast<CRITICAL_SECTION*>(storage));
}
struct Events {
    HANDLE handle[2]; // signal first, as WaitForMultipleObjects favours the lower index
};

HANDLE* Handles(unsigned char* storage) {
    return std::launder(reinterpret_cast<Events*>(storage))->handle;
}

} // namespace

bool LockMisuse(const char* expr, const char* message) {
    return ReportLockMisuse(expr, __FILE__, __LINE__, message);
}

SystemLock::SystemLock() {
    static_assert(sizeof(CRITICAL_SECTION) <= sizeof(mStorage) && alignof(CRITICAL_SECTION) <= 8);
    InitializeCriticalSection(new (mStorage) CRITICAL_SECTION);
}

SystemLock::~SystemLock() {
    DeleteCriticalSection(Section(mStorage));
}

bool SystemLock::TryEnter() {
    return TryEnterCriticalSection(Section(mStorage)) != 0;
}
void SystemLock::Enter() {
    EnterCriticalSection(Section(mStorage));
}
void SystemLock::Leave() {
    LeaveCriticalSection(Section(mStorage));
}

EventPair::EventPair() {
    static_assert(sizeof(Events) <= sizeof(mStorage));
    new (mStorage)
        Events{{CreateEventA(NULL, FALSE, FALSE, NULL), CreateEventA(NULL, TRUE, FALSE, NULL)}};
}

EventPair::~EventPair() {
    HANDLE* handles = Handles(mStorage);
    CloseHandle(handles[kSignal]);
    CloseHandle(handles[kBroadcast]);
}

void EventPair::Set(Which event) {
    SetEvent(Handles(mStorage)[event]);
}
void EventPair::Reset(Which event) {
    ResetEvent(Handles(mStorage)[event]);
}

bool EventPair::WaitAny(uint32_t timeoutMs) {
    return WaitForMultipleObjects(2, Handles(mStorage), FALSE, timeoutMs) != WAIT_TIMEOUT;
}

} // namespace kl::detail
