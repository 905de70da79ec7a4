#include "keel/klbuffer.h"

#include "keel/klmalloc.h"

#include <algorithm>
#include <new>

// ---------------------------------------------------------------------------------------
// klByteBucketPool

template <uint32_t BUCKET_POOL_MEMORY_SIZE, uint32_t BUCKET_POOL_GROW_BY>
klByteBucketPool<BUCKET_POOL_MEMORY_SIZE, BUCKET_POOL_GROW_BY>::klByteBucketPool()
    : mNodes(new klSafeQueue::NodePool(ELEMENT_SIZE, BUCKET_POOL_GROW_BY, ELEMENT_ALIGNMENT)) {
    klAtomicStore(&sRunning, this);
}

template <uint32_t BUCKET_POOL_MEMORY_SIZE, uint32_t BUCKET_POOL_GROW_BY>
klByteBucketPool<BUCKET_POOL_MEMORY_SIZE, BUCKET_POOL_GROW_BY>::~klByteBucketPool() {
    klAtomicStore(&sRunning, static_cast<klByteBucketPool*>(nullptr));
    if (klFatalAssert(InUse() == 0, "a pooled klBlob is still held at Shutdown")) {
        delete mNodes;
        return;
    }
    // Only a fatal hook that returns gets here. The blobs still held keep using their
    // blocks, so the pool's memory is left to them rather than freed under them.
    sAbandoned = mNodes;
}

template <uint32_t BUCKET_POOL_MEMORY_SIZE, uint32_t BUCKET_POOL_GROW_BY>
klByteBucket* klByteBucketPool<BUCKET_POOL_MEMORY_SIZE, BUCKET_POOL_GROW_BY>::Take() {
    void* block = mNodes->Alloc();
    if (!block) return nullptr;
    return new (block) klByteBucket(klByteBucket::PoolRecord(), BUCKET_POOL_MEMORY_SIZE);
}

template <uint32_t BUCKET_POOL_MEMORY_SIZE, uint32_t BUCKET_POOL_GROW_BY>
void klByteBucketPool<BUCKET_POOL_MEMORY_SIZE, BUCKET_POOL_GROW_BY>::Give(klByteBucket* bucket) {
    bucket->mBytes = nullptr;
    bucket->~klByteBucket();
    mNodes->Free(bucket);
}

template <uint32_t BUCKET_POOL_MEMORY_SIZE, uint32_t BUCKET_POOL_GROW_BY>
void klByteBucketPool<BUCKET_POOL_MEMORY_SIZE, BUCKET_POOL_GROW_BY>::PooledByteBucket::Deleter::
operator()(klByteBucket* bucket) const {
    // Anything else is not a block of this pool; it is left to its owner rather than
    // pushed onto the free list.
    const bool offsetOk = klAssertAs(bucket->mAlignOffset == 0, "mAlignOffset == 0");
    const bool sizeOk = klAssertAs(bucket->mAllocated == BUCKET_POOL_MEMORY_SIZE,
                                   "mAllocated == BUCKET_POOL_MEMORY_SIZE");
    if (!offsetOk || !sizeOk) return;
    // A bucket that outlived the pool was reported when the pool died, which left it its
    // memory; a pool is never created again, so there is nothing to give it back to.
    if (klByteBucketPool* pool = Running()) pool->Give(bucket);
}

template class klByteBucketPool<2048, 32>;

static_assert(sizeof(void*) != 4 || klBlobBucketPool::ELEMENT_SIZE == 2064,
              "with 4-byte pointers a pool block is exactly the 16-byte record and its 2048 bytes");

// ---------------------------------------------------------------------------------------
// klByteBucket

klByteBucket::klByteBucket(uint32_t allocated, uint32_t alignment)
    : mAllocated(allocated), mBytes(nullptr), mAlignOffset(0), mSize(0) {
    if (!klAssert(mAllocated > 0)) mAllocated = 1;
    // The sum can pass the largest size_t where it is 32 bits wide.
    auto* block = static_cast<uint8_t*>(kl::detail::AllocPadded(mAllocated, alignment));
    if (!block) return; // only a test's fatal hook returns
    if (alignment) {
        // An aligned block moves by a full alignment too: the slack is there either way,
        // and the offset is then never 0.
        mAlignOffset = alignment - uint32_t(reinterpret_cast<uintptr_t>(block) % alignment);
    }
    mBytes = block + mAlignOffset;
}

klByteBucket::~klByteBucket() {
    if (mBytes) klFree(mBytes - mAlignOffset);
}

std::shared_ptr<klByteBucket> klByteBucket::Acquire(uint32_t size, uint32_t alignment) {
    if (!klAssert(size > 0)) return {};
    if (size <= klBufferDetails::bucketPoolMemorySize && alignment == 0) {
        // Without a running pool (no Initialize yet, or after Shutdown) small buckets come
        // from the heap like large ones, so blobs work in any program at any time.
        if (klBlobBucketPool* pool = klBlobBucketPool::Running()) {
            klByteBucket* bucket = pool->Take();
            if (!bucket) return {};
            return std::shared_ptr<klByteBucket>(bucket,
                                                 klBlobBucketPool::PooledByteBucket::Deleter());
        }
    }
    return std::make_shared<klByteBucket>(size, alignment);
}

// ---------------------------------------------------------------------------------------
// klBlob

klBlob::klBlob(const void* data, uint32_t len) : mAlignment(0) {
    Set(data, len);
}

klBlob& klBlob::operator=(const klBlob& other) {
    mBucket = other.mBucket;
    if (!MeetsAlignment()) Reallocate(Size(), true);
    return *this;
}

bool klBlob::MeetsAlignment() const {
    return mAlignment == 0 || !mBucket ||
           reinterpret_cast<uintptr_t>(mBucket->GetBytes()) % mAlignment == 0;
}

std::shared_ptr<klByteBucket> klBlob::Reallocate(uint32_t newSize, bool keepContents) {
    // Size 0 always gives the bucket back, shared or not: an empty blob holds nothing.
    if (newSize == 0) return std::move(mBucket);
    const uint32_t capacity = mBucket ? mBucket->GetAllocated() : 0;
    if (mBucket && SoleOwner() && newSize <= capacity && MeetsAlignment()) {
        mBucket->SetSize(newSize);
        return {};
    }
    std::shared_ptr<klByteBucket> old = std::move(mBucket);
    uint64_t newCapacity = newSize;
    if (newSize > capacity && uint64_t(capacity) * 2 > newSize)
        newCapacity = std::min<uint64_t>(uint64_t(capacity) * 2, UINT32_MAX);
    mBucket = klByteBucket::Acquire(uint32_t(newCapacity), mAlignment);
    if (!mBucket) return old; // no memory for it: the blob is empty
    if (keepContents && old)
        std::memcpy(mBucket->GetBytes(), old->GetBytes(), std::min(old->GetSize(), newSize));
    mBucket->SetSize(newSize);
    return old;
}

bool klBlob::SoleOwner() const {
    if (mBucket.use_count() != 1) return false;
    // use_count() is a relaxed read: seeing 1 does not order the last other holder's
    // reads of the bytes before our writes. Taking and dropping a reference is an
    // acquire-release change of the same count, which reads that holder's release and so
    // synchronises with it.
    std::shared_ptr<klByteBucket> probe = mBucket;
    return true;
}

uint8_t* klBlob::WritePtr(uint32_t offset) {
    const uint32_t size = Size();
    if (!klAssert(offset <= size)) return nullptr;
    // Without bytes there is nothing to protect, and reallocating to 0 would drop the bucket.
    if (size > 0) Reallocate(size, true);
    return mBucket ? mBucket->GetBytes() + offset : nullptr;
}

const uint8_t* klBlob::ConstPtr(uint32_t offset) const {
    if (!klAssert(offset <= Size())) return nullptr;
    return mBucket ? mBucket->GetBytes() + offset : nullptr;
}

void klBlob::Set(const void* data, uint32_t len) {
    // The old bucket stays alive until the copy is done: data may point into it.
    std::shared_ptr<klByteBucket> old = Reallocate(len, false);
    if (mBucket && len) std::memmove(mBucket->GetBytes(), data, len);
}

void klBlob::Clear() {
    Reallocate(0, false);
}

void klBlob::Append(const void* data, uint32_t len) {
    const uint32_t oldSize = Size();
    std::shared_ptr<klByteBucket> old = Reallocate(oldSize + len, true);
    if (mBucket && len) std::memmove(mBucket->GetBytes() + oldSize, data, len);
}

void klBlob::Resize(uint32_t size) {
    Reallocate(size, true);
}

uint8_t* klBlob::Extend(uint32_t len) {
    const uint32_t oldSize = Size();
    Reallocate(oldSize + len, true);
    return mBucket ? mBucket->GetBytes() + oldSize : nullptr;
}

void klBlob::Reserve(uint32_t capacity) {
    const uint32_t size = Size();
    if (std::max(size, capacity) == 0) return; // nothing to hold
    Reallocate(std::max(size, capacity), true);
    if (mBucket) mBucket->SetSize(size);
}

void klBlob::SetAlignment(uint32_t alignment) {
    mAlignment = alignment;
    if (!MeetsAlignment()) Reallocate(Size(), true);
}
