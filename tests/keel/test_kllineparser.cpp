#include "keel_test.h"

#include "keel/kllineparser.h"

#include <cstring>
#include <string>
#include <vector>

namespace {

using Lines = std::vector<std::string>;

Lines ReadAll(const void* data, uint32_t size) {
    klLineParser parser(data, size);
    Lines lines;
    while (parser.ReadLine())
        lines.emplace_back(parser.GetLineText().Const(), parser.GetLineText().Size());
    return lines;
}
Lines ReadAll(const std::string& block) {
    return ReadAll(block.data(), uint32_t(block.size()));
}

} // namespace

TEST(KlLineParser, OnlyLineFeedsEndLines) {
    EXPECT_EQ((Lines{"a", "b"}), ReadAll("a\nb"));
    EXPECT_EQ((Lines{"a"}), ReadAll("a\n"));
    EXPECT_EQ((Lines{"", ""}), ReadAll("\n\n"));
    EXPECT_EQ((Lines{"a\r"}), ReadAll("a\r\n"));
    EXPECT_EQ((Lines{"one\rtwo\r", " \tpadded\t"}), ReadAll("one\rtwo\r\n \tpadded\t"));
    EXPECT_EQ((Lines{std::string("a\0b", 3), "c"}), ReadAll(std::string("a\0b\nc", 5)));
    EXPECT_EQ((Lines{}), ReadAll(nullptr, 5));
    EXPECT_EQ((Lines{"ab"}), ReadAll("ab\ncd", 2)); // never past the size
}

TEST(KlLineParser, CountsLinesAndStaysAtTheEnd) {
    klLineParser empty("abc", 0);
    EXPECT_FALSE(empty.ReadLine());
    EXPECT_EQ(0u, empty.GetLineText().Size());

    const char block[] = "first\n\nthird\n";
    klLineParser parser(block, uint32_t(std::strlen(block)));
    for (const char* expected : {"first", "", "third"}) {
        ASSERT_TRUE(parser.ReadLine());
        EXPECT_EQ(parser.GetLineText(), expected);
    }
    EXPECT_EQ(3u, parser.GetLineNumber());
    for (int i = 0; i < 3; ++i)
        EXPECT_FALSE(parser.ReadLine());
    EXPECT_EQ(3u, parser.GetLineNumber());
    EXPECT_EQ(parser.GetLineText(), "third"); // the last line stays readable
}
