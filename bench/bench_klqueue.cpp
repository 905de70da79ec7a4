// klSafeQueue beside two well-known lock-free queues: values pushed by P producer threads
// and popped by C consumer threads, a fixed batch per iteration.
#include "keel/kllifetime.h"
#include "keel/kllockfree.h"

#include "keel_bench.h"

#include <boost/lockfree/queue.hpp>
#include <concurrentqueue/concurrentqueue.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr uintptr_t kBatch = 1 << 16;

// The three queues under one pair of names.
struct KeelStarted {
    KeelStarted() { static const bool started = (klObjectLifetimeManager::Initialize(), true); (void)started; }
};
struct KeelQueue {
    KeelStarted started; // the node pool exists before the queue
    klSafeQueue queue;
    void Push(uintptr_t value) { queue.Push(value); }
    bool Pop(uintptr_t& value) { return (value = queue.Pop()) != 0; }
};
struct BoostQueue {
    boost::lockfree::queue<uintptr_t> queue{1024};
    void Push(uintptr_t value) { queue.push(value); }
    bool Pop(uintptr_t& value) { return queue.pop(value); }
};
struct MoodycamelQueue {
    moodycamel::ConcurrentQueue<uintptr_t> queue;
    void Push(uintptr_t value) { queue.enqueue(value); }
    bool Pop(uintptr_t& value) { return queue.try_dequeue(value); }
};

// Each producer pushes its share of 1..kBatch; consumers pop until the producers are done
// and the queue is drained. The sum proves every value arrived exactly once.
template <class Queue> void MoveBatch(Queue& queue, int producers, int consumers) {
    std::atomic<bool> pushed{false};
    std::atomic<uintptr_t> sum{0};
    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p)
        threads.emplace_back([&, p] {
            for (uintptr_t value = 1 + p; value <= kBatch; value += producers) queue.Push(value);
        });
    for (int c = 0; c < consumers; ++c)
        threads.emplace_back([&] {
            uintptr_t mine = 0, value;
            for (;;) {
                if (queue.Pop(value)) {
                    mine += value;
                } else if (pushed.load()) {
                    if (!queue.Pop(value)) break;
                    mine += value;
                }
            }
            sum.fetch_add(mine);
        });
    for (int p = 0; p < producers; ++p) threads[p].join();
    pushed = true;
    for (int c = 0; c < consumers; ++c) threads[producers + c].join();
    if (sum.load() != kBatch * (kBatch + 1) / 2) std::abort();
}

template <class Queue> void Throughput(benchmark::State& state, int producers, int consumers) {
    Queue queue;
    for (auto _ : state) MoveBatch(queue, producers, consumers);
    state.SetItemsProcessed(int64_t(state.iterations() * kBatch));
}

void Register(const char* shape, int producers, int consumers) {
    std::string name = shape;
    benchmark::RegisterBenchmark((name + "/keel").c_str(), Throughput<KeelQueue>, producers, consumers)
        ->UseRealTime()
        ->Apply(keel::bench::Track);
    benchmark::RegisterBenchmark((name + "/boost").c_str(), Throughput<BoostQueue>, producers, consumers)
        ->UseRealTime()
        ->Apply(keel::bench::Track);
    benchmark::RegisterBenchmark((name + "/moodycamel").c_str(), Throughput<MoodycamelQueue>, producers, consumers)
        ->UseRealTime()
        ->Apply(keel::bench::Track);
}

const bool gRegistered = (Register("Queue1x1", 1, 1), Register("Queue2x2", 2, 2), true);

} // namespace
