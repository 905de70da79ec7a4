// Tracked allocation and the node pool beside the system heap.
#include "keel/kllockfree.h"
#include "keel/klmalloc.h"
#include "keel/klplatform.h"

#include "keel_bench.h"

#include <atomic>
#include <cstdlib>

namespace {

constexpr size_t kBlock = 32;

// new/delete here are keel's tracked versions; malloc/free are the bare system heap.
void TrackedNew_keel(benchmark::State& state) {
    for (auto _ : state) {
        char* p = new char[kBlock];
        benchmark::DoNotOptimize(p);
        delete[] p;
    }
}
void TrackedNew_malloc(benchmark::State& state) {
    for (auto _ : state) {
        void* p = std::malloc(kBlock);
        benchmark::DoNotOptimize(p);
        std::free(p);
    }
}

// What tracking cannot do without, with nothing else: the heap, the block's usable size
// both ways, and the locked add to the process-wide byte counter both ways.
void TrackedNew_floor(benchmark::State& state) {
    uint32_t bytes = 0;
    for (auto _ : state) {
        void* p = std::malloc(kBlock);
        klXchgAdd(&bytes, uint32_t(kl::platform::HeapUsableSize(p)));
        benchmark::DoNotOptimize(p);
        klXchgAdd(&bytes, 0u - uint32_t(kl::platform::HeapUsableSize(p)));
        std::free(p);
    }
    benchmark::DoNotOptimize(bytes);
}

// A filter that declines everything must cost no more than no hook at all.
bool DeclineAll(bool, void**) { return false; }
void FilteredHook_keel(benchmark::State& state) {
    klSetAllocHooks(DeclineAll, nullptr);
    TrackedNew_keel(state);
    klSetAllocHooks(nullptr, nullptr);
}
void FilteredHook_nohook(benchmark::State& state) { TrackedNew_keel(state); }

klSafeQueue::NodePool gPool(kBlock, 128, 16);

void NodePool_keel(benchmark::State& state) {
    for (auto _ : state) {
        void* p = gPool.Alloc();
        benchmark::DoNotOptimize(p);
        gPool.Free(p);
    }
}
void NodePool_malloc(benchmark::State& state) { TrackedNew_malloc(state); }

// The locked instructions an Alloc and a Free cannot do without: two double-width swaps
// of the free list and two counter updates. No pool can be faster than this.
void NodePool_floor(benchmark::State& state) {
    klCountedPtr top{nullptr, 0};
    uint32_t count = 0;
    for (auto _ : state) {
        klCountedPtr seen = top;
        klCompareAndSwapCounted(&top, seen, {&top, seen.tag + 1});
        klXchgAdd(&count, 1u);
        seen = top;
        klCompareAndSwapCounted(&top, seen, {nullptr, seen.tag + 1});
        klXchgAdd(&count, uint32_t(-1));
    }
    benchmark::DoNotOptimize(count);
}

// Two threads, each handing every block it allocates to the other to free, through a
// single-producer single-consumer ring per direction.
struct Ring {
    static constexpr unsigned kSize = 1024;
    void* slots[kSize];
    alignas(64) std::atomic<unsigned> head{0};
    alignas(64) std::atomic<unsigned> tail{0};
    bool Put(void* p) {
        unsigned t = tail.load(std::memory_order_relaxed);
        if (t - head.load(std::memory_order_acquire) == kSize) return false;
        slots[t % kSize] = p;
        tail.store(t + 1, std::memory_order_release);
        return true;
    }
    void* Take() {
        unsigned h = head.load(std::memory_order_relaxed);
        if (h == tail.load(std::memory_order_acquire)) return nullptr;
        void* p = slots[h % kSize];
        head.store(h + 1, std::memory_order_release);
        return p;
    }
};
Ring gRings[2];

template <void* (*Alloc)(), void (*Free)(void*)> void CrossFree(benchmark::State& state) {
    Ring& out = gRings[state.thread_index()];
    Ring& in = gRings[1 - state.thread_index()];
    for (auto _ : state) {
        void* p = Alloc();
        if (!out.Put(p)) Free(p);
        if (void* q = in.Take()) Free(q);
    }
}
template <void (*Free)(void*)> void DrainRings(const benchmark::State&) {
    for (Ring& ring : gRings)
        while (void* p = ring.Take()) Free(p);
}
void* PoolAlloc() { return gPool.Alloc(); }
void PoolFree(void* p) { gPool.Free(p); }
void* HeapAlloc() { return std::malloc(kBlock); }
void HeapFree(void* p) { std::free(p); }

} // namespace

KEEL_BENCHMARK(TrackedNew_keel)->Name("TrackedNew/keel");
KEEL_BENCHMARK(TrackedNew_malloc)->Name("TrackedNew/malloc");
KEEL_BENCHMARK(TrackedNew_floor)->Name("TrackedNew/floor");
KEEL_BENCHMARK(FilteredHook_keel)->Name("FilteredHook/keel");
KEEL_BENCHMARK(FilteredHook_nohook)->Name("FilteredHook/nohook");
KEEL_BENCHMARK(NodePool_keel)->Name("NodePool/keel");
KEEL_BENCHMARK(NodePool_malloc)->Name("NodePool/malloc");
KEEL_BENCHMARK(NodePool_floor)->Name("NodePool/floor");
KEEL_BENCHMARK(CrossFree<PoolAlloc, PoolFree>)->Name("CrossThreadFree/keel")->Threads(2)->Teardown(DrainRings<PoolFree>);
KEEL_BENCHMARK(CrossFree<HeapAlloc, HeapFree>)->Name("CrossThreadFree/malloc")->Threads(2)->Teardown(DrainRings<HeapFree>);
