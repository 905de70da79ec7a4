#include "keel_test_a.h"

#include "keel/klbuffer.h"
#include "keel/klmalloc.h"

#include <cstdlib>

using Exprs = std::vector<std::string>;

namespace {

std::string Text(const klBlob& blob) {
    return blob.Size() ? std::string(reinterpret_cast<const char*>(blob.Const()), blob.Size()) : "";
}
std::string Pattern(uint32_t n) {
    std::string s;
    while (s.size() < n) s += char('a' + s.size() % 23);
    return s;
}
uint32_t PoolInUse() {
    return klSingleton<klBlobBucketPool>::Instance()->InUse();
}

// A singleton holding a small blob for its whole life: it must die before the pool.
struct BlobHolder {
    klBlob blob{"held", 4};
};

} // namespace

class KlBlob : public testing::Test {
protected:
    static void SetUpTestSuite() { klObjectLifetimeManager::Initialize(); }
    static void TearDownTestSuite() { klObjectLifetimeManager::Shutdown(); }
};

TEST_F(KlBlob, SmallBlobsStayInOnePoolBlockThenMoveToDoublingHeapBuckets) {
    const std::string data = Pattern(30000);
    const uint32_t bytesBefore = klProcessBytesInUse(), poolBefore = PoolInUse();
    {
        klBlob blob;
        EXPECT_EQ(nullptr, blob.Extend(0));
        std::memcpy(blob.Extend(100), data.data(), 100);
        EXPECT_EQ(poolBefore + 1, PoolInUse());
        const uint8_t* first = blob.Const();
        blob.Append(data.data() + 100, 1948);
        EXPECT_EQ(first, blob.Const());
        *blob.Extend(1) = uint8_t(data[2048]); // the new byte, past the old ones
        EXPECT_EQ(4096u, blob.Capacity());
        EXPECT_EQ(poolBefore, PoolInUse());
        blob.Append(data.data() + 2049, 2048);
        EXPECT_EQ(8192u, blob.Capacity());
        blob.Append(data.data() + 4097, 30000 - 4097); // past the double: exactly what is needed
        EXPECT_EQ(30000u, blob.Capacity());
        EXPECT_EQ(data, Text(blob));
        blob.Resize(10);
        blob.Reserve(40000); // keeps the size
        EXPECT_EQ(data.substr(0, 10), Text(blob));
        blob.Resize(0); // gives the bucket back, so the small reserve below is a pool block
        blob.Reserve(100);
        EXPECT_EQ(poolBefore + 1, PoolInUse());
    }
    EXPECT_EQ(poolBefore, PoolInUse());
    EXPECT_EQ(bytesBefore, klProcessBytesInUse());
}

TEST_F(KlBlob, SharedBytesAreCopiedBeforeTheFirstWrite) {
    klBlob a("hello", 5), b = a;
    EXPECT_EQ(a.Const(), b.Const());
    *b.WritePtr(0) = 'j';
    EXPECT_EQ(b.Const(), b.WritePtr(1) - 1); // unique now: written in place
    klBlob c = a, d = a;
    c.Append("!", 1);
    d.Set("bye", 3);
    a.Resize(2);
    EXPECT_EQ("jello hello! bye he", Text(b) + " " + Text(c) + " " + Text(d) + " " + Text(a));

    klBlob large(Pattern(3000).data(), 3000);
    large.Reserve(4000);
    klBlob sharer = large;
    sharer.Append("x", 1); // it fits, but the copy of shared bytes is sized exactly
    EXPECT_EQ(3001u, sharer.Capacity());
    EXPECT_EQ(Pattern(3000), Text(large));

    klBlob self("abcdef", 6); // bytes taken from the blob itself survive its reallocation
    self.Set(self.Const() + 1, 5);
    klBlob selfShared = self;
    selfShared.Set(selfShared.ConstPtr(2), 3);
    EXPECT_EQ("bcdef def", Text(self) + " " + Text(selfShared));
    sharer.Append(sharer.Const(), 3001);
    EXPECT_EQ(Pattern(3000) + "x" + Pattern(3000) + "x", Text(sharer));
}

// A copy released on another thread is ordered before the owner's write in place.
TEST_F(KlBlob, ConcurrentReleaseOfACopyComesBeforeTheOwnersWriteInPlace) {
    for (int round = 0; round < 50; ++round) {
        klBlob owner("shared bytes", 12);
        const uint8_t* bytes = owner.Const();
        std::atomic<bool> released{false};
        std::thread reader([copy = owner, &released]() mutable {
            EXPECT_EQ('s', *copy.ConstPtr(0));
            copy.Clear();
            released.store(true, std::memory_order_relaxed); // orders nothing by itself
        });
        while (!released.load(std::memory_order_relaxed)) klYieldOrSleep();
        ASSERT_EQ(bytes, owner.WritePtr(0)); // sole owner again: written in place
        owner.WritePtr(0)[0] = 'S';
        reader.join();
        EXPECT_EQ("Shared bytes", Text(owner));
    }
}

// Outside the manager's life blobs take exact heap buckets; a pooled one held across
// Shutdown is fatal.
TEST(KlBlobDeathTest, BlobsBeforeDuringAndAfterTheLifetimeManager) {
    static bool sHold;
    auto body = [] {
        keeltest::CaptureAsserts capture;
        klBlob before("abc", 3);
        klBlob copy = before;
        copy.Append("def", 3);
        std::fprintf(stderr, "%s %s %u\n", Text(before).c_str(), Text(copy).c_str(), copy.Capacity());
        klObjectLifetimeManager::Initialize();
        std::fprintf(stderr, "held: %u %u\n", klSingleton<BlobHolder>::Instance()->blob.Capacity(), PoolInUse());
        klBlob held(sHold ? "still here" : "", sHold ? 10 : 0);
        klObjectLifetimeManager::Shutdown();
        std::fprintf(stderr, "%s %u, after: %u, %zu reports\n", Text(held).c_str(), held.Capacity(),
                     klBlob("after", 5).Capacity(), capture.Reports().size());
        held.Append("!", 1);
        held.Clear();
        std::exit(0);
    };
    EXPECT_EXIT(body(), testing::ExitedWithCode(0),
                keeltest::HasAll({{"abc abcdef 6\n", 1}, {"held: 2048 1\n", 1}, {" 0, after: 5, 0 reports\n", 1}}));
    sHold = true;
    EXPECT_EXIT(body(), testing::ExitedWithCode(klDeathExitCode),
                keeltest::Has("assertmsg(InUse() == 0, a pooled klBlob is still held at Shutdown) failed at: "
                              "core/keel/klbuffer.cpp:", 1));
}

TEST(KlStreams, TransfersClipAtTheEndAndTheNullStreamOnlyCounts) {
    keeltest::CaptureAsserts capture;
    uint8_t block[10] = {};
    klBufferStream stream(block, sizeof(block));
    const std::string data = Pattern(20);
    char out[8] = {};
    EXPECT_EQ(4u, stream.Write(data.data(), 4));
    EXPECT_EQ(6u, stream.Write(data.data() + 4, 10));
    EXPECT_EQ(data.substr(0, 10), std::string(block, block + 10));
    stream.Seek(klSeekEnd, -3);
    EXPECT_EQ(3u, stream.Read(out, 5));
    stream.Seek(klSeekStart, 2);
    stream.Seek(klSeekCurrent, 3);
    EXPECT_EQ(2u, stream.Read(out + 3, 2));
    EXPECT_EQ(data.substr(7, 3) + data.substr(5, 2), std::string(out, 5));
    stream.Seek(klSeekStart, 12); // reported but kept; the transfers then move nothing
    EXPECT_EQ(0u, stream.Read(out, 1) + stream.Write(out, 1) + klBufferStream(nullptr, 10).Write(out, 1));
    Exprs expected(5, "mIndex <= mSize");
    expected.push_back("data != NULL");
    EXPECT_EQ(expected, capture.Exprs());

    klNullStream null; // counts the running position and stores nothing
    EXPECT_EQ(5u, null.Write("12345", 5));
    null.Seek(klSeekEnd, -5); // ignored
    null.Seek(klSeekCurrent, -4);
    EXPECT_EQ(4u, null.Read(nullptr, 3));
}

TEST(KlStreams, StringStreamWritesInsertAndReadsLeaveThePosition) {
    klString text = "abc";
    klStringStream stream(&text, 1);
    char out[10] = {};
    EXPECT_EQ(2u, stream.Write("XY", 2));
    EXPECT_EQ(2u, stream.Read(out, 10));
    EXPECT_EQ("bc", std::string(out));
    EXPECT_EQ(3u, stream.Tell());
    klString shared = text;
    stream.Reserve(100);
    EXPECT_GE(text.Capacity(), 100u);
    EXPECT_NE(shared.Const(), text.Const());
    keeltest::CaptureAsserts capture;
    stream.Seek(klSeekEnd, 4);
    EXPECT_EQ(0u, stream.Read(out, 1));
    EXPECT_EQ(3u, stream.Write("Z", 3)); // past the end: the insert is refused, yet counted
    EXPECT_EQ(12u, stream.Tell());
    EXPECT_EQ(text, "aXYbc");
    klStringStream nothing(nullptr, 2);
    EXPECT_EQ(0u, nothing.Write("Z", 1) + nothing.Read(out, 1));
    EXPECT_EQ((Exprs{"index <= Size()", "mString != NULL"}), capture.Exprs());
}
