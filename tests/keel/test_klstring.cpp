#include "keel_test.h"

#include "keel/klmalloc.h"
#include "keel/klstring.h"

#include <cctype>
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace {

// A header field at offset bytes before the text (-8 is the form word in both forms).
template <class T> T HeaderField(const klString& s, int offset) {
    T value;
    std::memcpy(&value, s.Const() + offset, sizeof(T));
    return value;
}
klString Repeat(char c, uint32_t n) {
    return klString(std::string(n, c).c_str());
}

int AppendV(klString& s, bool positional, const char* format, ...) {
    va_list args;
    va_start(args, format);
    int count = positional ? s.AppendFormatPV(format, args) : s.AppendFormatV(format, args);
    va_end(args);
    return count;
}

} // namespace

TEST(KlString, CapacityAndHeaderFormAtEachBoundary) {
    auto& pool = klStringDetails::SmallStringPool();
    klString("warm"); // the pool's first block is not this test's allocation
    const uint32_t poolBefore = pool.Count();
    const uint32_t bytesBefore = klProcessBytesInUse();
    {
        klString s23 = Repeat('a', 23);
        EXPECT_EQ(poolBefore + 1, pool.Count());
        EXPECT_EQ(bytesBefore, klProcessBytesInUse());
        EXPECT_EQ(23u, HeaderField<uint16_t>(s23, -8));
        EXPECT_EQ(23u, HeaderField<uint16_t>(s23, -6));
        klString copy = s23;
        EXPECT_EQ(2u, HeaderField<uint32_t>(s23, -4));
    }
    EXPECT_EQ(poolBefore, pool.Count());
    for (uint32_t n : {24u, 65535u, 65536u}) {
        const bool large = n > 65535;
        const uint32_t before = klProcessBytesInUse();
        {
            klString s = Repeat('b', n);
            EXPECT_EQ(n, s.Capacity());
            EXPECT_EQ(large ? 0u : n, HeaderField<uint16_t>(s, -8));
            EXPECT_EQ(large ? n : 0u, large ? HeaderField<uint32_t>(s, -16) : 0u);
            const uint32_t block = klProcessBytesInUse() - before;
            EXPECT_GE(block, n + (large ? 17u : 9u));
            EXPECT_LT(block, n + 64u);
            s.Append("c"); // growth is exact
            EXPECT_EQ(n + 1, s.Capacity());
        }
        EXPECT_EQ(before, klProcessBytesInUse());
    }
}

TEST(KlString, WritesNeverReachSharedText) {
    klString a = "hello";
    klString b = a;
    b.Append(" world");
    EXPECT_EQ(a, "hello");
    EXPECT_EQ(b, "hello world");
    klString c = a;
    EXPECT_NE(a.Const(), c.Ptr());
    EXPECT_EQ(c.Const(), c.Ptr()); // already unique: no second copy

    klString big = Repeat('x', 40);
    const char* text = big.Const();
    big.Clear(false);
    EXPECT_EQ(text, big.Const());
    EXPECT_EQ(40u, big.Capacity());
    big = Repeat('x', 40);
    klString shared = big;
    shared.Clear(false);
    EXPECT_EQ(23u, shared.Capacity());
    EXPECT_EQ(40u, big.Size());
    shared = "";
    EXPECT_TRUE(!shared);
    EXPECT_EQ(nullptr, shared.Ptr());

    // Text taken from the string itself survives the reallocation it causes.
    klString self = "hello world";
    self = self.Const() + 1;
    self.Append(self);
    EXPECT_EQ(self, "ello worldello world");
}

TEST(KlString, ConcurrentCopiesShareOneText) {
    const klString original = Repeat('s', 100);
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&original, t] {
            for (int i = 0; i < 2000; ++i) {
                klString copy = original;
                klString second = copy;
                if (i % 4 == t % 4) second.AppendFormat("-%d", i);
                EXPECT_EQ('\0', original.Const()[100]);
                klString shortText = klpf("t%d", i); // the pool, from many threads
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(1u, original.UseCount());
    EXPECT_EQ(original, Repeat('s', 100));
}

TEST(KlString, BrokenContractsAreReportedAndSurvived) {
    keeltest::CaptureAsserts capture;
    klString s = "abcd";
    s.Insert(5, "x");
    s.Insert(1, s.Const() + 1, 2);
    s.ReplaceRange(3, 2, "z", 1);
    EXPECT_EQ(s, "abcd");
    EXPECT_EQ(0u, s.Replace(nullptr, "x", true));
    EXPECT_EQ(1u, s.Replace("b", nullptr, true));
    EXPECT_EQ(s, "acd");
    EXPECT_TRUE(Split(nullptr, ",").empty());
    EXPECT_EQ(1u, Split("a,b", nullptr).size());
    char buf[2] = {'q', 0};
    klStrNCopy(buf, "x", 0);
    EXPECT_EQ('q', buf[0]);
    {
        klString damaged = "abc"; // its block is leaked, not given to the wrong allocator
        const uint16_t bogus = 5;
        std::memcpy(damaged.Ptr() - 8, &bogus, sizeof(bogus));
    }
    EXPECT_EQ((std::vector<std::string>{
                  "index <= Size()",
                  "!mData || data > reinterpret_cast<const char*>(mData.bytes) + Size() || "
                  "data + insertLen < reinterpret_cast<const char*>(mData.bytes)",
                  "start + len <= curSize", "szOld && szNew", "szOld && szNew", "source != NULL",
                  "splitChars != NULL", "dstBufferSize > 0",
                  "header->stringCapacity >= klStringDetails::smallCapacitySize"}),
              capture.Exprs());
    EXPECT_EQ("core/keel/klstring.cpp", capture.Reports().back().file);
}

TEST(KlString, EditingAndSlicing) {
    klString s = "held";
    s.Insert(2, "llo wor");
    s.Insert(0, ">");
    EXPECT_EQ(s, ">hello world");
    s.ReplaceRange(1, 5, "HI", 2); // shrinking
    s.ReplaceRange(0, 1, "[[", 2); // growing
    EXPECT_EQ(s, "[[HI world");
    klString a = "aaa";
    EXPECT_EQ(3u, a.Replace("a", "aa", true));
    EXPECT_EQ(a, "aaaaaa");
    EXPECT_EQ(1u, a.Replace("aa", "b", false));
    EXPECT_EQ(0u, a.Replace("", "x", false));
    klString shared = a;
    EXPECT_EQ(1u, shared.ReplaceChar('a', 'b', false));
    EXPECT_EQ(2u, shared.ReplaceChar('b', 'c', true));
    EXPECT_EQ(shared, "ccaaa");
    EXPECT_EQ(a, "baaaa");

    EXPECT_EQ(1, s.Find('[', true));
    EXPECT_EQ(5, s.Find("wo", 5));
    EXPECT_EQ(-1, s.Find("[", 2));
    EXPECT_EQ(-1, klString("hello").Find("", 5));
    EXPECT_EQ(-1, klString().Find("", 0));
    EXPECT_EQ(s.SubString(5, 99), "world");
    EXPECT_TRUE(s.SubString(3, 2).IsEmpty());
    EXPECT_TRUE(klString("   ").Trim().IsEmpty());
    EXPECT_EQ(klString(" a b\t\n").Trim(), "a b");
    // A line that ends exactly at position 10 keeps its line feed; one ending at 9 does not.
    EXPECT_EQ(klString("0123456789\nabc").GetLineAt(3), "0123456789\n");
    EXPECT_EQ(klString("012345678\nabc").GetLineAt(3), "012345678");
    EXPECT_EQ(klString("ab\ncd\nef").GetLineAt(4), "cd");
}

TEST(KlString, SplitAndJoin) {
    std::vector<klString> parts = Split(",a,,b,", ",");
    ASSERT_EQ(2u, parts.size());
    EXPECT_EQ(parts[0], "a");
    EXPECT_EQ(parts[1], "b");
    EXPECT_EQ(Join(", ", {"a", "", "b"}), "a, , b");
    // The whole text is reserved at once: a single heap block, however many parts.
    const std::vector<klString> long3{Repeat('a', 20), Repeat('b', 20), "c"};
    static int allocations;
    allocations = 0;
    klSetAllocHooks([](bool isAllocation, void**) { return isAllocation; },
                    [](void*, bool, size_t, void*) { ++allocations; });
    klString joined = Join("--", long3);
    klSetAllocHooks(nullptr, nullptr);
    EXPECT_EQ(1, allocations);
    EXPECT_EQ(45u, joined.Size());
}

TEST(KlString, CaseConversionMatchesTheByteRule) {
    std::string all;
    for (int c = 1; c < 256; ++c)
        all += static_cast<char>(c);
    for (uint32_t offset = 0; offset < 9; ++offset) { // every byte in every word lane
        std::string text = all.substr(offset, 200), upper = text, lower = text;
        for (size_t i = 0; i < text.size(); ++i) {
            upper[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(text[i])));
            lower[i] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[i])));
        }
        klString s = text.c_str();
        EXPECT_EQ(s.ToUpper(), upper.c_str());
        EXPECT_EQ(s.ToLower(), lower.c_str());
        EXPECT_TRUE(s.IsLowerCase());
    }
    klString mixed = "MiXeD";
    klLCaseString key = mixed;
    EXPECT_EQ(key, "mixed");
    EXPECT_FALSE(mixed.IsLowerCase());
    EXPECT_TRUE(mixed.EqualsNoCase("mIxEd"));
    EXPECT_STREQ("HayStack", klStrIStr("Some HayStack", "hAYs"));
}

TEST(KlString, Conversions) {
    // Text, then the result with default true and with default false ('1' true, '0' false).
    const char* const cases[][2] = {{"", "10"},   {"0", "00"},    {"f", "00"},     {"T", "11"},
                                    {"t", "11"},  {"x", "10"},    {"-1", "00"},    {"12", "11"},
                                    {"00", "00"}, {"TRUE", "11"}, {"False", "00"}, {"yes", "10"}};
    for (const auto& c : cases) {
        EXPECT_EQ(c[1][0] == '1', klStringToBool(c[0], true)) << c[0];
        EXPECT_EQ(c[1][1] == '1', klStringToBool(c[0], false)) << c[0];
    }
    EXPECT_EQ(0xFFFFFFFFu, klString("99999999999").ToULong(10));
    EXPECT_EQ(0xFFFFFFFEu, klString("-2").ToULong(10));
    std::map<klString, int, klStringLessThan> keys{{klString("b\0c", 3), 1},
                                                   {klString("b\0a", 3), 2}};
    EXPECT_EQ(2, keys.begin()->second);
}

TEST(KlString, FormattingLimits) {
    const std::string big(3000, 'y');
    EXPECT_EQ(klString(big.c_str(), 2047), klpf("%s", big.c_str()));
    for (bool positional : {false, true}) {
        klString s = "<";
        EXPECT_EQ(2046, AppendV(s, positional, "%2046d", 7));
        EXPECT_EQ(2047, AppendV(s, positional, "%2047d", 7));
        EXPECT_EQ(1u + 2046 + 2047, s.Size());
        keeltest::CaptureAsserts capture;
        EXPECT_EQ(-1, AppendV(s, positional, "%2048d", 7));
        EXPECT_EQ(1u + 2046 + 2047, s.Size());
        ASSERT_EQ(1u, capture.Reports().size());
        EXPECT_EQ("buffer overflow", capture.Reports()[0].message);
    }
    klString p = "=";
    EXPECT_EQ(3, p.AppendFormat("a%cb", 0)); // the count decides, not the terminator
    EXPECT_EQ(4u, p.Size());
    p = "=";
    EXPECT_EQ(3, p.AppendFormatP("%2$s %1$s", "a", "b"));
    EXPECT_EQ(p, "=b a");
}
