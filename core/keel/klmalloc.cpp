#include "keel/klmalloc.h"

#include "keel/klassert.h"
#include "keel/kllockfree.h"
#include "keel/klplatform.h"

#include <cstdio>
#include <cstdlib>
#include <new>

namespace {

uint32_t gProcessBytes = 0;
thread_local uint32_t tThreadBytes KL_STATIC_TLS = 0;
klAllocFilterFn gFilter = nullptr;
klAllocRecorderFn gRecorder = nullptr;

// Tells the hooks about a block and moves both counters by its usable size. The counters
// are unsigned and wrap, so a release on another thread still balances the sum.
void Track(void* p, bool isAllocation) {
    size_t size = kl::platform::HeapUsableSize(p);
    if (klAllocFilterFn filter = __atomic_load_n(&gFilter, __ATOMIC_ACQUIRE)) {
        void* cookie = nullptr;
        if (filter(isAllocation, &cookie)) {
            if (klAllocRecorderFn recorder = __atomic_load_n(&gRecorder, __ATOMIC_ACQUIRE))
                recorder(p, isAllocation, size, cookie);
        }
    }
    uint32_t delta = isAllocation ? static_cast<uint32_t>(size) : 0u - static_cast<uint32_t>(size);
    tThreadBytes += delta;
    klXchgAdd(&gProcessBytes, delta);
}

// Aligned blocks come from klAlloc with room to align; the word before the aligned
// address remembers where the heap block starts.
void* AllocAligned(size_t size, std::align_val_t alignment) {
    uintptr_t align = static_cast<uintptr_t>(alignment);
    void* block = kl::detail::AllocPadded(size, align + sizeof(void*));
    if (!block) return nullptr; // only a test's fatal hook returns
    uintptr_t start = reinterpret_cast<uintptr_t>(block) + sizeof(void*);
    void** aligned = reinterpret_cast<void**>((start + align - 1) & ~(align - 1));
    aligned[-1] = block;
    return aligned;
}

void FreeAligned(void* p) {
    if (p) klFree(static_cast<void**>(p)[-1]);
}

} // namespace

void* klAlloc(size_t size) {
    void* p = std::malloc(size ? size : 1); // every new must yield a distinct block
    if (!p) {
        kl::detail::ReportOutOfMemory("p != 0", size, __FILE__, __LINE__);
        return nullptr; // only a test's fatal hook returns
    }
    Track(p, true);
    return p;
}

void klFree(void* p) {
    if (p) Track(p, false);
    std::free(p);
}

uint32_t klProcessBytesInUse() { return klAtomicLoad(&gProcessBytes); }
uint32_t klThreadBytesInUse() { return tThreadBytes; }

void klSetAllocHooks(klAllocFilterFn filter, klAllocRecorderFn recorder) {
    __atomic_store_n(&gRecorder, recorder, __ATOMIC_RELEASE);
    __atomic_store_n(&gFilter, filter, __ATOMIC_RELEASE);
}

klMemoryReport klGetMemoryReport() {
    kl::platform::HeapStats heap = kl::platform::QueryHeapStats();
    return {heap.maxSystemBytes, heap.systemBytes, heap.inUseBytes, klProcessBytesInUse(),
            klThreadBytesInUse()};
}

void kl::detail::ReportOutOfMemory(const char* expr, size_t bytes, const char* file, int line) {
    char text[48]; // fixed: nothing may be allocated on the way out
    // Every digit of the size: long is 32 bits wide on 64-bit Windows.
    std::snprintf(text, sizeof(text), "OOM allocating %llu bytes.", static_cast<unsigned long long>(bytes));
    klAssertHook(expr, file, line, text);
}

void* kl::detail::AllocPadded(size_t size, size_t padding) {
    if (size > SIZE_MAX - padding) {
        ReportOutOfMemory("p != 0", size, __FILE__, __LINE__);
        return nullptr;
    }
    return klAlloc(size + padding);
}

void* kl::detail::MallocaPlace(void* stackArea, size_t size) {
    char* header;
    uint32_t marker;
    if (stackArea) {
        uintptr_t at = reinterpret_cast<uintptr_t>(stackArea);
        header = static_cast<char*>(stackArea) + (((at + 15) & ~uintptr_t(15)) - at);
        marker = kMallocaStackMarker;
    } else {
        header = static_cast<char*>(AllocPadded(size, kMallocaHeader));
        if (!header) return nullptr; // only a test's fatal hook returns
        marker = kMallocaHeapMarker;
    }
    *reinterpret_cast<uint32_t*>(header) = marker;
    return header + kMallocaHeader;
}

void klFreea(void* p) {
    if (!p) return;
    char* header = static_cast<char*>(p) - kl::detail::kMallocaHeader;
    switch (*reinterpret_cast<uint32_t*>(header)) {
    case kl::detail::kMallocaHeapMarker:
        klFree(header);
        break;
    case kl::detail::kMallocaStackMarker:
        break;
    default:
        klFatal("", "Corrupted pointer passed to klFreea");
    }
}

// The global allocation functions of every program that links keel. "Nothrow" forms
// behave like the others: running out of memory is fatal, never a null result.
void* operator new(size_t size) { return klAlloc(size); }
void* operator new[](size_t size) { return klAlloc(size); }
void* operator new(size_t size, const std::nothrow_t&) noexcept { return klAlloc(size); }
void* operator new[](size_t size, const std::nothrow_t&) noexcept { return klAlloc(size); }
void operator delete(void* p) noexcept { klFree(p); }
void operator delete[](void* p) noexcept { klFree(p); }
void operator delete(void* p, size_t) noexcept { klFree(p); }
void operator delete[](void* p, size_t) noexcept { klFree(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { klFree(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { klFree(p); }

void* operator new(size_t size, std::align_val_t align) { return AllocAligned(size, align); }
void* operator new[](size_t size, std::align_val_t align) { return AllocAligned(size, align); }
void* operator new(size_t size, std::align_val_t align, const std::nothrow_t&) noexcept {
    return AllocAligned(size, align);
}
void* operator new[](size_t size, std::align_val_t align, const std::nothrow_t&) noexcept {
    return AllocAligned(size, align);
}
void operator delete(void* p, std::align_val_t) noexcept { FreeAligned(p); }
void operator delete[](void* p, std::align_val_t) noexcept { FreeAligned(p); }
void operator delete(void* p, size_t, std::align_val_t) noexcept { FreeAligned(p); }
void operator delete[](void* p, size_t, std::align_val_t) noexcept { FreeAligned(p); }
void operator delete(void* p, std::align_val_t, const std::nothrow_t&) noexcept { FreeAligned(p); }
void operator delete[](void* p, std::align_val_t, const std::nothrow_t&) noexcept { FreeAligned(p); }
