// Reading a thread-local value: a keel slot beside the system's TLS and the language's own.
#include "keel/klthread.h"

#include "keel_bench.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <pthread.h>
#endif

#include <cstdint>

namespace {

klThreadLocalMgr* Manager() {
    static klThreadLocalMgr* manager = [] {
        klObjectLifetimeManager::Initialize();
        return klThreadLocalMgr::Instance();
    }();
    return manager;
}

void TlsGet_keel(benchmark::State& state) {
    klThreadLocalMgr* manager = Manager();
    static const klThreadLocalMgr::KeyType key = manager->AllocKey();
    manager->SetValue(key, 7);
    for (auto _ : state)
        benchmark::DoNotOptimize(manager->GetValue(key));
}

#ifdef _WIN32
void TlsGet_win32(benchmark::State& state) {
    static const DWORD slot = TlsAlloc();
    TlsSetValue(slot, reinterpret_cast<void*>(uintptr_t(7)));
    for (auto _ : state)
        benchmark::DoNotOptimize(TlsGetValue(slot));
}
#else
void TlsGet_pthread(benchmark::State& state) {
    static const pthread_key_t key = [] {
        pthread_key_t created;
        pthread_key_create(&created, nullptr);
        return created;
    }();
    pthread_setspecific(key, reinterpret_cast<void*>(uintptr_t(7)));
    for (auto _ : state)
        benchmark::DoNotOptimize(pthread_getspecific(key));
}
#endif

thread_local uint32_t tValue = 0;
// The language's own: the compiler reaches it through the thread pointer directly. The
// barrier keeps the load inside the loop.
void TlsGet_thread_local(benchmark::State& state) {
    tValue = 7;
    for (auto _ : state) {
        benchmark::ClobberMemory();
        benchmark::DoNotOptimize(tValue);
    }
}

} // namespace

KEEL_BENCHMARK(TlsGet_keel)->Name("TlsGet/keel")->Threads(1)->Threads(2);
#ifdef _WIN32
KEEL_BENCHMARK(TlsGet_win32)->Name("TlsGet/win32")->Threads(1)->Threads(2);
#else
KEEL_BENCHMARK(TlsGet_pthread)->Name("TlsGet/pthread")->Threads(1)->Threads(2);
#endif
KEEL_BENCHMARK(TlsGet_thread_local)->Name("TlsGet/thread_local")->Threads(1)->Threads(2);
