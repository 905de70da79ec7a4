#include "keel/kltext.h"

#include "keel_test.h"

using keeltest::CaptureAsserts;
using Exprs = std::vector<std::string>;

// Indexes walk on from the cache or back from the start; erases clip; views refuse changes.
TEST(KlText, IndexesInsertsErasesAndViews) {
    klTextBuffer m("a\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80z"); // 1, 2, 3, 4, 1 bytes
    EXPECT_EQ(5u, m.CharLength());
    const uint32_t offsets[] = {0, 1, 3, 6, 10, 11};
    for (uint32_t i = 0; i <= 5; ++i) EXPECT_EQ(offsets[i], m.CharToByteIndex(i)) << i;
    for (uint32_t i = 5; i-- > 0;) EXPECT_EQ(offsets[i], m.CharToByteIndex(i)) << i;
    for (uint32_t i = 0; i <= 5; ++i) EXPECT_EQ(i, m.ByteToCharIndex(offsets[i])) << i;

    klTextBuffer text;
    text.Insert(0, "world", 5);
    EXPECT_EQ(20u, text.Capacity()); // 6 rounded down to 4, plus 16
    text.Insert(0, "hello ", 6);
    text.InsertChar(5, 0x20AC);
    text.InsertChar(12, 0x1F600);
    EXPECT_STREQ("hello\xe2\x82\xac world\xf0\x9f\x98\x80", text.Bytes());
    EXPECT_EQ(13u, text.CharLength());
    EXPECT_EQ(0u, text.Erase(4, 3));
    EXPECT_EQ(0u, text.Erase(8, 100)); // clipped to the end
    EXPECT_STREQ("hellworl", text.Bytes());
    EXPECT_EQ(8u, text.Erase(8, 1)); // at the end: nothing removed

    klTextBuffer view = klTextBuffer::View("read only", 9), copy = view; // a copy owns its bytes
    CaptureAsserts asserts;
    EXPECT_EQ(0u, m.CharToByteIndex(6));
    view.Insert(0, "x", 1);
    view.Erase(0, 1);
    copy.Erase(0, 5);
    EXPECT_EQ(Exprs({"idx <= mCharLen", "false", "!mSlave", "!mSlave"}), asserts.Exprs());
    EXPECT_EQ("false|index out of bounds|core/keel/kltext.cpp", asserts.Reports()[1].Text());
    EXPECT_STREQ("read only", view.Bytes());
    EXPECT_STREQ("only", copy.Bytes());
}

TEST(KlText, SetDecodedEntitiesAndCaseInsensitiveFind) {
    const std::pair<const char*, const char*> cases[] = {
        {"x&lt;y&gt;&apos;", "xy"}, {"a & b; c", "a & b; c"}, {"&AMP;&quot;&nbsp;&;", "&\" "},
        {"&copy;&reg;&tm;", "\xef\x9b\x99\xef\x9b\x9a\xef\x9b\x9b"},
        {"&#128512;&#x41;&#1114112;", "\xf0\x9f\x98\x80"}, {"tail &amp", "tail &amp"},
    };
    for (const auto& [input, expected] : cases) {
        klTextBuffer text;
        text.SetDecoded(input);
        EXPECT_STREQ(expected, text.Bytes()) << input;
    }

    klTextBuffer hay("x\xc3\xa9xaabcAaB\xc3\x89");
    EXPECT_EQ(4, hay.Find(klTextBuffer("ABC"), 0, false));
    EXPECT_EQ(7, hay.Find(klTextBuffer("aab"), 4, false));
    EXPECT_EQ(-1, hay.Find(klTextBuffer("\xc3\xa9"), 2, false)); // É is not folded to é
    EXPECT_EQ(1, klTextBuffer("aaab").Find(klTextBuffer("aab"), 0, true)); // inside a failed partial match
}

// Every code point survives DecodeChar, and every one but the surrogates both wide forms.
TEST(KlText, EncodingsRoundTripAndRefuseBrokenSequences) {
    std::string all;
    char bytes[8] = {};
    uint32_t length = 99, wrong = 0;
    for (uint32_t cp = 1; cp <= 0x10FFFF; ++cp) {
        const uint32_t encoded = klTextBuffer::EncodeChar(cp, bytes);
        bytes[encoded] = 0;
        wrong += klTextBuffer::DecodeChar(bytes, &length) != int32_t(cp) || length != encoded;
        if (cp < 0xD800 || cp > 0xDFFF) all.append(bytes, encoded);
    }
    EXPECT_EQ(0u, wrong);
    EXPECT_EQ(0u, klTextBuffer::EncodeChar(0x110000, bytes));
    EXPECT_EQ(0x4000000, klTextBuffer::DecodeChar("\xfc\x84\x80\x80\x80\x80", &length)); // 6 bytes
    EXPECT_EQ(6u, length);
    for (const char* bad : {"\x80", "\xfe", "\xff", "\xc3", "\xe2\x28\xa1", "\xf0\x9f\x98"}) {
        EXPECT_EQ(-1, klTextBuffer::DecodeChar(bad, &length)) << bad;
        EXPECT_EQ(0u, length);
    }
    EXPECT_EQ(-1, klTextBuffer::DecodeChar(nullptr, &length));
    CaptureAsserts asserts;
    EXPECT_EQ(-1, klTextBuffer::DecodeChar("a", nullptr));
    EXPECT_EQ(Exprs({"len_out != NULL"}), asserts.Exprs());

    std::vector<klWideChar> wide(all.size() + 1);
    ASSERT_TRUE(Utf8ToWide(all.c_str(), wide.data(), uint32_t(wide.size())));
    EXPECT_EQ(all, std::string(WideToUtf8String(wide.data())));
    std::vector<char> back(all.size() + 1);
    ASSERT_TRUE(WideToUtf8(wide.data(), back.data(), uint32_t(back.size())));
    EXPECT_EQ(all, std::string(back.data()));
    EXPECT_FALSE(WideToUtf8(wide.data(), back.data(), uint32_t(all.size()))); // one byte short

    klWideChar out[4];
    EXPECT_FALSE(Utf8ToWide("abcd", out, 4));
    EXPECT_TRUE(Utf8ToWide("\xf0\x9f\x98\x80", out, 4)); // one surrogate pair
    EXPECT_EQ(std::vector<int>({0xD83D, 0xDE00, 0}), std::vector<int>(out, out + 3));
    EXPECT_TRUE(HasNonAscii(out));
    EXPECT_TRUE(Utf8ToWide("a\xff", out, 4));
    EXPECT_EQ(0xFFFD, int(out[1]));
    EXPECT_FALSE(HasNonAscii(std::vector<klWideChar>{'a', 0}.data()));
    EXPECT_FALSE(Utf8ToWide(nullptr, out, 4) || Utf8ToWide("a", nullptr, 4) || Utf8ToWide("a", out, 0));
    const klWideChar lone[] = {'a', 0xD800, 'b', 0};
    EXPECT_EQ("a\xef\xbf\xbd" + std::string("b"), WideToUtf8String(lone).Const());
}
