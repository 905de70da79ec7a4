// Tracked allocation. The global new/new[]/delete/delete[] of every program that links
// keel are replaced by klAlloc/klFree, which count the bytes in use per thread and for
// the whole process and can report each block to a pair of hooks. Running out of memory
// is fatal: "OOM allocating <n> bytes." through the fatal assertion hook.
#pragma once

#include <cstddef>
#include <cstdint>

// Allocates size bytes from the system heap (never null). Counts the block's usable size.
void* klAlloc(size_t size);
// Frees a block of klAlloc; null is fine and counts nothing.
void klFree(void* p);

// Bytes in use by tracked blocks: the process-wide total, and the calling thread's share.
// A block freed by another thread than its allocator is taken off the freeing thread's
// count, so one thread's figure may wrap below zero; the sum over threads is what counts.
uint32_t klProcessBytesInUse();
uint32_t klThreadBytesInUse();

// Allocation hooks. The filter decides for each block whether the recorder hears of it and
// may hand it a cookie. Both are called on the allocating or freeing thread.
using klAllocFilterFn = bool (*)(bool isAllocation, void** cookie);
using klAllocRecorderFn = void (*)(void* p, bool isAllocation, size_t size, void* cookie);
void klSetAllocHooks(klAllocFilterFn filter, klAllocRecorderFn recorder);

struct klMemoryReport {
    uint64_t maxSystemBytes; // most the heap ever took from the system
    uint64_t systemBytes;    // what the heap holds from the system now
    uint64_t inUseBytes;     // what the heap has handed out now
    uint32_t trackedBytes;   // klProcessBytesInUse()
    uint32_t threadBytes;    // klThreadBytesInUse() of the caller
};
klMemoryReport klGetMemoryReport();

// Scratch memory: klMalloca(size) carves size bytes out of the caller's stack frame when
// size + 8 is at most 1024 bytes, and takes them from the tracked heap otherwise. Each
// block starts 8 bytes after a header whose first word says where it lives. Release with
// klFreea in the same function. klMalloca evaluates size twice.
#define klMalloca(size) \
    kl::detail::MallocaPlace(kl::detail::MallocaOnStack(size) ? KL_ALLOCA((size) + kl::detail::kMallocaSlack) : nullptr, (size))
void klFreea(void* p);

namespace kl::detail {
constexpr size_t kMallocaHeader = 8;
constexpr size_t kMallocaStackLimit = 1024;
constexpr size_t kMallocaSlack = kMallocaHeader + 15; // header, and room to align to 16
constexpr uint32_t kMallocaHeapMarker = 0xDDD0;
constexpr uint32_t kMallocaStackMarker = 0xCCC0;
// Compared without adding, so that a size near the top of size_t cannot wrap onto the stack.
inline bool MallocaOnStack(size_t size) { return size <= kMallocaStackLimit - kMallocaHeader; }
void* MallocaPlace(void* stackArea, size_t size);
// Raises "OOM allocating <bytes> bytes." (every digit) through the fatal hook under the
// given expression.
void ReportOutOfMemory(const char* expr, size_t bytes, const char* file, int line);
// klAlloc(size + padding), where a sum past the largest size_t is the fatal out-of-memory
// report for size; null only when a test's fatal hook returns.
void* AllocPadded(size_t size, size_t padding);
} // namespace kl::detail

#if defined(_WIN32)
#include <malloc.h>
#define KL_ALLOCA _alloca
#else
#include <alloca.h>
#define KL_ALLOCA alloca
#endif
