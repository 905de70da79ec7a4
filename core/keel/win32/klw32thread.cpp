// Windows half of threads, events, semaphores and the TLS slot.
#include "keel/klthread.h"

#include <windows.h>

#include <process.h>

static_assert(sizeof(DWORD) == sizeof(uint32_t), "ids and TLS indices are 32-bit");
static_assert(TLS_OUT_OF_INDEXES == kl::detail::kNoTlsSlot, "one value for no slot");

namespace {

HANDLE ToHandle(void* handle) {
    return static_cast<HANDLE>(handle);
}
DWORD Timeout(uint32_t ms) {
    return ms ? DWORD(ms) : INFINITE;
}

constexpr DWORD kThreadNameException = 0x406D1388;

// Debuggers listen for kThreadNameException; without one the exception must not reach
// the unhandled-exception filter, so this handler ends it where it was raised.
LONG CALLBACK SwallowThreadName(EXCEPTION_POINTERS* info) {
    return info->ExceptionRecord->ExceptionCode == kThreadNameException
               ? EXCEPTION_CONTINUE_EXECUTION
               : EXCEPTION_CONTINUE_SEARCH;
}

} // namespace

struct klThreadEntry {
    static unsigned __stdcall Start(void* argument) {
        static_cast<klThread*>(argument)->ThreadMain();
        _endthreadex(0);
        return 0;
    }
};

bool klThread::Launch() {
    unsigned id = 0;
    uintptr_t handle = _beginthreadex(nullptr, mStackSize, &klThreadEntry::Start, this,
                                      STACK_SIZE_PARAM_IS_A_RESERVATION, &id);
    mThreadId = id;
    mHandle = reinterpret_cast<void*>(handle);
    return mHandle != nullptr;
}

bool klThread::Join(uint32_t timeoutMs) {
    return WaitForSingleObject(ToHandle(mHandle), Timeout(timeoutMs)) == WAIT_OBJECT_0;
}

bool klThread::Terminate() {
    TerminateThread(ToHandle(mHandle), 0);
    return true;
}

void klThread::ReleaseHandle() {
    CloseHandle(ToHandle(mHandle));
}

bool klThread::SetPriority(int level) {
    static const int kPriorityOfLevel[] = {THREAD_PRIORITY_LOWEST, THREAD_PRIORITY_BELOW_NORMAL,
                                           THREAD_PRIORITY_NORMAL, THREAD_PRIORITY_ABOVE_NORMAL,
                                           THREAD_PRIORITY_HIGHEST};
    if (level < 0 || level > 4 || !mRunning) return false;
    return SetThreadPriority(ToHandle(mHandle), kPriorityOfLevel[level]) != FALSE;
}

bool klThread::SetAffinityMask(uint64_t mask) {
    return mRunning && SetThreadAffinityMask(ToHandle(mHandle), DWORD_PTR(mask)) != 0;
}

bool klThread::SetIdealProcessor(uint32_t processor) {
    return mRunning && SetThreadIdealProcessor(ToHandle(mHandle), processor) != DWORD(-1);
}

void klSetThreadName(const char* threadName, uint32_t threadId) {
    if (!klAssert(threadName != NULL)) return;
    // The record a debugger reads: type 0x1000, the name, the thread, flags.
    struct {
        DWORD type;
        LPCSTR name;
        DWORD threadId;
        DWORD flags;
    } info = {0x1000, threadName, threadId, 0};
    PVOID handler = AddVectoredExceptionHandler(1, SwallowThreadName);
    RaiseException(kThreadNameException, 0, sizeof(info) / sizeof(ULONG_PTR),
                   reinterpret_cast<const ULONG_PTR*>(&info));
    RemoveVectoredExceptionHandler(handler);
}

void klSleep(uint32_t ms) {
    Sleep(ms);
}

bool klYield() {
    return SwitchToThread() != FALSE;
}

void klYieldOrSleep() {
    if (!SwitchToThread()) Sleep(0);
}

klAutoResetEvent::klAutoResetEvent()
    : mAutoResetEvent(CreateEventA(nullptr, FALSE, FALSE, nullptr)) {
    klAssert(mAutoResetEvent != NULL);
}

klAutoResetEvent::~klAutoResetEvent() {
    if (mAutoResetEvent) CloseHandle(ToHandle(mAutoResetEvent));
}

void klAutoResetEvent::Signal() {
    SetEvent(ToHandle(mAutoResetEvent));
}

bool klAutoResetEvent::Wait(uint32_t timeoutMs) {
    return WaitForSingleObject(ToHandle(mAutoResetEvent), Timeout(timeoutMs)) == WAIT_OBJECT_0;
}

klSemaphore::klSemaphore(uint32_t initial, uint32_t maximum)
    : mSemaphore(CreateSemaphoreA(nullptr, LONG(initial), LONG(maximum), nullptr)) {
    klAssert(mSemaphore != NULL);
}

klSemaphore::~klSemaphore() {
    if (mSemaphore) CloseHandle(ToHandle(mSemaphore));
}

bool klSemaphore::Post() {
    return mSemaphore && ReleaseSemaphore(ToHandle(mSemaphore), 1, nullptr) != FALSE;
}

bool klSemaphore::Wait() {
    return mSemaphore && WaitForSingleObject(ToHandle(mSemaphore), INFINITE) == WAIT_OBJECT_0;
}

namespace kl::detail {

uint32_t TlsSlotAlloc() {
    return TlsAlloc();
} // TLS_OUT_OF_INDEXES is kNoTlsSlot

void TlsSlotFree(uint32_t slot) {
    TlsFree(slot);
}

void* TlsSlotGet(uint32_t slot) {
    return TlsGetValue(slot);
}

void TlsSlotSet(uint32_t slot, void* value) {
    TlsSetValue(slot, value);
}

} // namespace kl::detail
