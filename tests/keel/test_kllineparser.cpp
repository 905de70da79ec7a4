#include "keel_test.h"

#include "keel/kllineparser.h"

using Lines = std::vector<std::string>;

// Only line feeds end lines; the parser never reads past its size, counts the lines it gave,
// and keeps the last one readable once at the end.
TEST(KlLineParser, SplitsAtLineFeedsOnlyAndStaysAtTheEnd) {
    const struct {
        std::string text;
        uint32_t size;
        Lines lines;
    } rows[] = {{"a\n", 2, {"a"}},
                {"\n\n", 2, {"", ""}},
                {"one\rtwo\r\n \tpadded\t", 18, {"one\rtwo\r", " \tpadded\t"}},
                {"", 0, {}},
                {std::string("a\0b\nc", 5), 5, {std::string("a\0b", 3), "c"}},
                {"ab\ncd", 2, {"ab"}}};
    for (const auto& [text, size, lines] : rows) {
        klLineParser parser(text.data(), size);
        Lines read;
        while (parser.ReadLine()) read.emplace_back(parser.GetLineText().Const(), parser.GetLineText().Size());
        EXPECT_EQ(lines, read) << text;
        EXPECT_FALSE(parser.ReadLine());
        EXPECT_EQ(lines.size(), parser.GetLineNumber());
        EXPECT_EQ(parser.GetLineText(), lines.empty() ? "" : lines.back().c_str()); // the last stays readable
    }
    EXPECT_FALSE(klLineParser(nullptr, 5).ReadLine());
}
