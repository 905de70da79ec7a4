// Byte buffers and byte streams.
//
// klBlob is the growable byte buffer behind klBufferInterface. Its storage is one
// klByteBucket held through a shared pointer: copies of a blob share the bytes, and the
// first write through a blob whose bucket has other users copies them first. Buckets of
// up to 2048 bytes with no alignment requirement come from klByteBucketPool<2048, 32>,
// a lock-free pool in which a bucket record and its bytes form one block.
//
// klStream is the minimal byte-stream interface; this header holds its memory, string
// and null implementations (the file stream lives with the file system).
#pragma once

#include "keel/klassert.h"
#include "keel/kllifetime.h"
#include "keel/kllockfree.h"
#include "keel/klstring.h"

#include <cstdint>
#include <cstring>
#include <memory>

// ---------------------------------------------------------------------------------------
// Buckets

class klByteBucket {
public:
    // A heap bucket of allocated usable bytes whose first byte is aligned to alignment
    // (0: no requirement). Bytes come from the tracked heap.
    klByteBucket(uint32_t allocated, uint32_t alignment);
    ~klByteBucket();
    klByteBucket(const klByteBucket&) = delete;
    klByteBucket& operator=(const klByteBucket&) = delete;

    // A bucket of capacity size (alignment 0: none): a pool block when it fits the pool
    // and the pool is running, a heap bucket otherwise. Empty when the pool has no block.
    static std::shared_ptr<klByteBucket> Acquire(uint32_t size, uint32_t alignment);

    uint8_t* GetBytes() const { return mBytes; }
    uint32_t GetAllocated() const { return mAllocated; }
    uint32_t GetAlignOffset() const { return mAlignOffset; }
    uint32_t GetSize() const { return mSize; }
    void SetSize(uint32_t sz) {
        if (klAssert(sz <= mAllocated)) mSize = sz;
    }

private:
    struct PoolRecord {};
    // The record at the head of a pool block; its bytes follow it directly.
    klByteBucket(PoolRecord, uint32_t allocated)
        : mAllocated(allocated), mBytes(reinterpret_cast<uint8_t*>(this + 1)), mAlignOffset(0),
          mSize(0) {}

    uint32_t mAllocated;   // usable capacity, never 0
    uint8_t* mBytes;       // first usable byte; null once a pool block is handed back
    uint32_t mAlignOffset; // heap block start to mBytes; 0 in pool blocks
    uint32_t mSize;        // bytes in use, at most mAllocated

    template <uint32_t, uint32_t> friend class klByteBucketPool;
};

// The process-wide pool of small buckets: BUCKET_POOL_MEMORY_SIZE usable bytes each,
// BUCKET_POOL_GROW_BY more blocks whenever it runs dry. A keel singleton, created first by
// klObjectLifetimeManager::Initialize and destroyed last by Shutdown. Every pooled blob
// must be released before Shutdown: one still held there is a fatal assertion ("a pooled
// klBlob is still held at Shutdown"). Should the fatal hook return, the pool's memory is
// deliberately leaked so that the blobs still held stay valid.
template <uint32_t BUCKET_POOL_MEMORY_SIZE, uint32_t BUCKET_POOL_GROW_BY> class klByteBucketPool {
public:
    // One pool block: the bucket record, then its bytes. 2064 bytes where pointers are
    // 4 bytes wide; the record grows with the pointer on 64-bit targets.
    static constexpr uint32_t ELEMENT_SIZE =
        uint32_t(sizeof(klByteBucket)) + BUCKET_POOL_MEMORY_SIZE;
    static constexpr uint32_t ELEMENT_ALIGNMENT = 1;

    struct PooledByteBucket {
        // The shared pointer's deleter for pool blocks: hands the block back to the pool.
        struct Deleter {
            void operator()(klByteBucket* bucket) const;
        };
    };

    klByteBucketPool();
    ~klByteBucketPool();
    klByteBucketPool(const klByteBucketPool&) = delete;
    klByteBucketPool& operator=(const klByteBucketPool&) = delete;

    // A fresh bucket record with its bytes, size 0; null when the pool cannot grow.
    klByteBucket* Take();
    void Give(klByteBucket* bucket);
    // Blocks handed out and not yet given back.
    uint32_t InUse() const { return mNodes->Count(); }

    // The living pool, or null before Initialize and after Shutdown.
    static klByteBucketPool* Running() { return klAtomicLoad(&sRunning); }

private:
    klSafeQueue::NodePool* mNodes; // left allocated when blocks outlive the pool
    static inline klByteBucketPool* sRunning = nullptr;
    static inline klSafeQueue::NodePool* sAbandoned = nullptr; // the deliberate leak, kept in reach
};

namespace klBufferDetails {
constexpr uint32_t bucketPoolMemorySize = 2048;
constexpr uint32_t bucketPoolGrowBy = 32;
} // namespace klBufferDetails

using klBlobBucketPool =
    klByteBucketPool<klBufferDetails::bucketPoolMemorySize, klBufferDetails::bucketPoolGrowBy>;
extern template class klByteBucketPool<2048, 32>;

// ---------------------------------------------------------------------------------------
// Buffers

class klBufferInterface {
public:
    virtual ~klBufferInterface() = default;
    // Writable bytes from offset (0..Size()), made unshared first; null when empty.
    virtual uint8_t* WritePtr(uint32_t offset) = 0;
    // Readable bytes from offset (0..Size()), never copied; null when empty.
    virtual const uint8_t* ConstPtr(uint32_t offset) const = 0;
    virtual uint32_t Size() const = 0;
    // Replaces the contents with len bytes of data.
    virtual void Set(const void* data, uint32_t len) = 0;
    // Size 0, storage released.
    virtual void Clear() = 0;
    virtual void Append(const void* data, uint32_t len) = 0;
    // New size; existing bytes up to it are kept, bytes past the old size are undefined.
    virtual void Resize(uint32_t size) = 0;
    // Grows by len bytes and returns the first of them for the caller to fill.
    virtual uint8_t* Extend(uint32_t len) = 0;
};

class klBlob : public klBufferInterface {
public:
    klBlob() : mAlignment(0) {}
    klBlob(const void* data, uint32_t len);
    // Copies share the bucket; the bytes are copied at the first write.
    klBlob(const klBlob& other) : mBucket(other.mBucket), mAlignment(other.mAlignment) {}
    // Shares the other's bucket but keeps this blob's alignment.
    klBlob& operator=(const klBlob& other);
    ~klBlob() override = default;

    uint8_t* WritePtr(uint32_t offset) override;
    const uint8_t* ConstPtr(uint32_t offset) const override;
    uint32_t Size() const override { return mBucket ? mBucket->GetSize() : 0; }
    void Set(const void* data, uint32_t len) override;
    void Clear() override;
    void Append(const void* data, uint32_t len) override;
    void Resize(uint32_t size) override;
    uint8_t* Extend(uint32_t len) override;

    const uint8_t* Const() const { return mBucket ? mBucket->GetBytes() : nullptr; }
    // Grows the capacity to at least capacity bytes; the size stays.
    void Reserve(uint32_t capacity);
    // Required alignment of the first byte (0: none); moves the bytes when they do not meet it.
    void SetAlignment(uint32_t alignment);
    uint32_t GetAlignment() const { return mAlignment; }
    uint32_t Capacity() const { return mBucket ? mBucket->GetAllocated() : 0; }

private:
    // The single place where the size changes. Returns the bucket it replaced (empty when
    // the change happened in place) so that a caller copying from it can finish first.
    std::shared_ptr<klByteBucket> Reallocate(uint32_t newSize, bool keepContents);
    bool MeetsAlignment() const;
    // True when no other blob shares the bucket, and every write by this thread is ordered
    // after the reads of the holders that have let it go (they may live on other threads).
    bool SoleOwner() const;

    std::shared_ptr<klByteBucket> mBucket;
    uint32_t mAlignment;
};

// ---------------------------------------------------------------------------------------
// Streams

enum klSeekOrigin { klSeekStart = 0, klSeekCurrent = 1, klSeekEnd = 2 };

class klStream {
public:
    virtual ~klStream() = default;
    // Both return an unsigned count whose meaning each stream defines.
    virtual uint32_t Write(const void* data, uint32_t count) = 0;
    virtual uint32_t Read(void* data, uint32_t count) = 0;
    // origin: klSeekStart, klSeekCurrent or klSeekEnd.
    virtual void Seek(int origin, int32_t offset) = 0;
    // A capacity hint.
    virtual void Reserve(uint32_t size) = 0;
    virtual uint32_t Tell() = 0;
    // Drops everything from size on, so that the stream ends there; false (and nothing
    // dropped) for a stream that cannot end early, such as a fixed block.
    virtual bool Truncate(uint32_t size) {
        (void)size;
        return false;
    }
};

namespace klBufferDetails {
// Where a seek lands; an unknown origin leaves the position alone. Positions wrap as
// unsigned numbers, so a seek before the start lands far past the end.
inline uint32_t SeekPosition(uint32_t position, uint32_t end, int origin, int32_t offset) {
    if (origin == klSeekStart) return uint32_t(offset);
    if (origin == klSeekCurrent) return position + uint32_t(offset);
    if (origin == klSeekEnd) return end + uint32_t(offset);
    return position;
}
} // namespace klBufferDetails

// Reads and writes a fixed memory block the caller owns; transfers stop at its end.
class klBufferStream : public klStream {
public:
    klBufferStream(void* data, uint32_t size)
        : mData(static_cast<uint8_t*>(data)), mSize(size), mIndex(0) {
        if (!klAssert(data != NULL)) mSize = 0;
    }

    uint32_t Read(void* data, uint32_t count) override {
        klAssert(mIndex <= mSize);
        const uint32_t moved = Clip(count);
        if (moved) std::memcpy(data, mData + mIndex, moved);
        mIndex += moved;
        klAssert(mIndex <= mSize);
        return moved;
    }
    uint32_t Write(const void* data, uint32_t count) override {
        klAssert(mIndex <= mSize);
        const uint32_t moved = Clip(count);
        if (moved) std::memcpy(mData + mIndex, data, moved);
        mIndex += moved;
        klAssert(mIndex <= mSize);
        return moved;
    }
    // A seek past the end is reported but kept; transfers from there move nothing.
    void Seek(int origin, int32_t offset) override {
        mIndex = klBufferDetails::SeekPosition(mIndex, mSize, origin, offset);
        klAssert(mIndex <= mSize);
    }
    void Reserve(uint32_t) override {}
    uint32_t Tell() override { return mIndex; }

private:
    uint32_t Clip(uint32_t count) const {
        if (mIndex >= mSize) return 0;
        return count <= mSize - mIndex ? count : mSize - mIndex;
    }

    uint8_t* mData;
    uint32_t mSize;
    uint32_t mIndex;
};

// Writes into a klString the caller owns by inserting at the position; reads the text at
// the position.
class klStringStream : public klStream {
public:
    explicit klStringStream(klString* string, uint32_t position = 0)
        : mPosition(position), mString(string) {
        klAssert(mString != NULL);
    }

    // Inserts rather than overwrites: the text after the position moves right. Returns
    // count and advances by count.
    uint32_t Write(const void* data, uint32_t count) override {
        if (!mString) return 0;
        mString->Insert(mPosition, static_cast<const char*>(data), count);
        // Also when the insert was refused (position past the end, null data): callers
        // count what they asked to write, as the string stream always has.
        mPosition += count;
        return count;
    }
    // Reading only looks: the position marks where the next write goes, and a read
    // must not move it.
    uint32_t Read(void* data, uint32_t count) override {
        if (!mString || !data) return 0;
        const uint32_t size = mString->Size();
        if (mPosition >= size) return 0;
        const uint32_t copied = count <= size - mPosition ? count : size - mPosition;
        std::memcpy(data, mString->Const() + mPosition, copied);
        return copied;
    }
    void Seek(int origin, int32_t offset) override {
        if (mString)
            mPosition = klBufferDetails::SeekPosition(mPosition, mString->Size(), origin, offset);
    }
    // Grows the string's capacity to at least size characters; its text stays as it is.
    void Reserve(uint32_t size) override {
        if (!mString) return;
        const uint32_t keep = mString->Size();
        mString->AllocUniqueBuffer(size > keep ? size : keep, false);
        mString->AllocUniqueBuffer(keep, false);
    }
    uint32_t Tell() override { return mPosition; }
    bool Truncate(uint32_t size) override {
        if (!mString) return false;
        if (size < mString->Size()) mString->ReplaceRange(size, mString->Size() - size, "", 0);
        if (mPosition > size) mPosition = size;
        return true;
    }

private:
    uint32_t mPosition;
    klString* mString;
};

// Stores nothing and counts: a dry run of a writer measures its output with it.
class klNullStream : public klStream {
public:
    klNullStream() : mPosition(0) {}

    // Both return the running position rather than the count, so that the last call of
    // a dry run already tells the total.
    uint32_t Write(const void*, uint32_t count) override { return mPosition += count; }
    uint32_t Read(void*, uint32_t count) override { return mPosition += count; }
    // Seeks from the end are ignored: a stream that keeps nothing has no end.
    void Seek(int origin, int32_t offset) override {
        if (origin != klSeekEnd)
            mPosition = klBufferDetails::SeekPosition(mPosition, 0, origin, offset);
    }
    void Reserve(uint32_t) override {}
    uint32_t Tell() override { return mPosition; }
    bool Truncate(uint32_t size) override {
        if (mPosition > size) mPosition = size;
        return true;
    }

private:
    uint32_t mPosition;
};
