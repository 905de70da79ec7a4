#include "keel_test.h"

#include "keel/kllineparser.h"

using Lines = std::vector<std::string>;

namespace {

// Every line of the first size bytes of data.
Lines ReadAll(const char* data, size_t size) {
    klLineParser parser(data, uint32_t(size));
    Lines lines;
    while (parser.ReadLine())
        lines.emplace_back(parser.GetLineText().Const(), parser.GetLineText().Size());
    return lines;
}

} // namespace

TEST(KlLineParser, OnlyLineFeedsEndLines) {
    const std::pair<std::string, Lines> rows[] = {
        {"a\nb", {"a", "b"}},    {"a\n", {"a"}}, {"\n\n", {"", ""}}, {"a\r\n", {"a\r"}},
        {"one\rtwo\r\n \tpadded\t", {"one\rtwo\r", " \tpadded\t"}},  {"", {}},
        {std::string("a\0b\nc", 5), {std::string("a\0b", 3), "c"}}};
    for (const auto& [text, lines] : rows)
        EXPECT_EQ(lines, ReadAll(text.data(), text.size())) << text;
    EXPECT_EQ((Lines{}), ReadAll(nullptr, 5));
    EXPECT_EQ((Lines{"ab"}), ReadAll("ab\ncd", 2)); // never past the size
}

TEST(KlLineParser, CountsLinesAndStaysAtTheEnd) {
    klLineParser parser("first\n\nthird\n", 13);
    for (const char* expected : {"first", "", "third"}) {
        ASSERT_TRUE(parser.ReadLine());
        EXPECT_EQ(parser.GetLineText(), expected);
    }
    for (int i = 0; i < 3; ++i)
        EXPECT_FALSE(parser.ReadLine());
    EXPECT_EQ(3u, parser.GetLineNumber());
    EXPECT_EQ(parser.GetLineText(), "third"); // the last line stays readable
}
