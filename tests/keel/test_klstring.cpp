#include "keel_test.h"

#include "keel/klmalloc.h"
#include "keel/klstring.h"

namespace {
// A header field at offset bytes before the text (-8 is the form word in both forms).
template <class T> T HeaderField(const klString& s, int offset) {
    T value;
    std::memcpy(&value, s.Const() + offset, sizeof(T));
    return value;
}
klString Repeat(char c, uint32_t n) { return klString(std::string(n, c).c_str()); }
} // namespace

TEST(KlString, CapacityAndHeaderFormAtEachBoundary) {
    auto& pool = klStringDetails::SmallStringPool();
    klString("warm"); // the pool's first block is not this test's allocation
    for (uint32_t n : {23u, 24u, 65535u, 65536u}) {
        const bool large = n > 65535, pooled = n == 23;
        const uint32_t poolBefore = pool.Count(), before = klProcessBytesInUse();
        {
            klString s = Repeat('b', n), copy = s;
            EXPECT_EQ(large ? 0u : n, HeaderField<uint16_t>(s, -8));
            EXPECT_EQ(n, large ? HeaderField<uint32_t>(s, -12) : HeaderField<uint16_t>(s, -6));
            EXPECT_EQ(2u, HeaderField<uint32_t>(s, -4)); // the use count, last in both forms
            EXPECT_EQ(poolBefore + (pooled ? 1 : 0), pool.Count());
            const uint32_t block = klProcessBytesInUse() - before;
            EXPECT_GE(block, pooled ? 0u : n + (large ? 17u : 9u));
            s.Append("c"); // growth is exact
            EXPECT_EQ(n + 1, s.Capacity());
        }
        EXPECT_EQ(poolBefore, pool.Count());
        EXPECT_EQ(before, klProcessBytesInUse());
    }
}

// Writes copy shared text first, reuse unshared room, and may read the string itself.
TEST(KlString, WritesNeverReachSharedText) {
    klString a = "hello", b = a, c = a;
    b.Append(" world");
    EXPECT_EQ(a, "hello");
    EXPECT_NE(a.Const(), c.Ptr());
    EXPECT_EQ(c.Const(), c.Ptr()); // already unique: no second copy

    klString big = Repeat('x', 40), shared = big;
    shared.Clear(false); // shared text: a fresh smallest block instead
    EXPECT_EQ(23u, shared.Capacity());
    const char* block = big.Const();
    big.Clear(false); // unique now: the buffer stays
    big = "short";
    EXPECT_EQ(block, big.Const());

    klString self = "0123456789abcdefghijklmnopqrstuvwxyz";
    self = self.Const() + 1;
    self.Append(self);
    EXPECT_EQ(self, "123456789abcdefghijklmnopqrstuvwxyz123456789abcdefghijklmnopqrstuvwxyz");
}

// Inserted text is never matched again; a line ending exactly at 10 keeps its line feed;
// formatted text stops at 2047 characters, counted, not at the terminator.
TEST(KlString, EditingSlicingJoiningAndFormatting) {
    klString s = "held";
    s.Insert(2, "llo wor");
    s.Insert(0, ">");
    s.ReplaceRange(1, 5, "HI", 2); // shrinking
    s.ReplaceRange(0, 1, "[[", 2); // growing
    EXPECT_EQ(s, "[[HI world");
    klString a = "aaa";
    EXPECT_EQ(3u, a.Replace("a", "aa", true));
    EXPECT_EQ(1u, a.Replace("aa", "b", false));
    klString shared = a;
    EXPECT_EQ(1u, shared.ReplaceChar('a', 'b', false));
    EXPECT_EQ(3u, shared.ReplaceChar('a', 'c', true));
    EXPECT_EQ(shared, "bbccc");
    EXPECT_EQ(a, "baaaa");

    EXPECT_EQ(1, s.Find('[', true));
    EXPECT_EQ(5, s.Find("wo", 5));
    EXPECT_EQ(-1, klString("hello").Find("", 5));
    EXPECT_EQ(s.SubString(5, 99), "world");
    EXPECT_EQ(klString(" a b\t\n").Trim(), "a b");
    EXPECT_TRUE(s.SubString(3, 2).IsEmpty() && klString("   ").Trim().IsEmpty());
    EXPECT_EQ(klString("0123456789\nabc").GetLineAt(3), "0123456789\n");
    EXPECT_EQ(klString("012345678\nabc").GetLineAt(3), "012345678");
    EXPECT_EQ((std::vector<klString>{"a", "b"}), Split(",a,,b,", ","));
    EXPECT_EQ(Join(", ", {"a", "", "b"}), "a, , b");
    EXPECT_EQ(Join(nullptr, {"a", "b"}), "ab");
    EXPECT_EQ(0u, Join("", {"", ""}).Capacity()); // nothing to hold: no block

    const std::string big(3000, 'y');
    EXPECT_EQ(klString(big.c_str(), 2047), klpf("%s", big.c_str()));
    klString f = "<";
    EXPECT_EQ(2047, f.AppendFormat("%2047d", 7));
    keeltest::CaptureAsserts capture;
    EXPECT_EQ(-1, f.AppendFormatP("%2048d", 7));
    EXPECT_EQ(1u + 2047, f.Size());
    EXPECT_EQ(std::vector<std::string>{"written >= 0"}, capture.Exprs());
    klString p = "=";
    EXPECT_EQ(3, p.AppendFormat("a%cb", 0));
    EXPECT_EQ(3, p.AppendFormatP("%2$s %1$s", "a", "b"));
    EXPECT_EQ(p, klString("=a\0bb a", 7));
}

// Every byte in every word lane converts as the C library says; booleans read with both defaults.
TEST(KlString, CaseConversionAndNumbers) {
    for (int offset = 0; offset < 9; ++offset) {
        std::string text, upper, lower;
        for (int c = 1 + offset; c <= 200 + offset; ++c) {
            text += static_cast<char>(c);
            upper += static_cast<char>(std::toupper(c));
            lower += static_cast<char>(std::tolower(c));
        }
        klString s = text.c_str();
        EXPECT_EQ(s.ToUpper(), upper.c_str());
        EXPECT_EQ(s.ToLower(), lower.c_str());
    }
    klString mixed = "MiXeD";
    EXPECT_TRUE(klLCaseString(mixed) == "mixed" && !mixed.IsLowerCase() && mixed.EqualsNoCase("mIxEd"));
    EXPECT_STREQ("HayStack", klStrIStr("Some HayStack", "hAYs"));
    const char* const cases[][2] = {{"", "10"},  {"0", "00"},    {"T", "11"},     {"x", "10"},  {"-1", "00"},
                                    {"12", "11"}, {"TRUE", "11"}, {"False", "00"}, {"yes", "10"}};
    for (const auto& [text, results] : cases)
        EXPECT_EQ(results, klpf("%d%d", klStringToBool(text, true), klStringToBool(text, false))) << text;
    EXPECT_EQ(0xFFFFFFFFu, klString("99999999999").ToULong(10));
}

