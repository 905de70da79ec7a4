#include "keel_test.h"

#include "keel/kllineparser.h"

using Lines = std::vector<std::string>;

// Only line feeds end lines; the last line stays readable; nothing past the size is read.
TEST(KlLineParser, SplitsAtLineFeedsOnlyAndStaysAtTheEnd) {
    const std::pair<std::string, Lines> rows[] = {
        {"a\n", {"a"}}, {"\n\n", {"", ""}}, {"one\rtwo\r\n \tpadded\t", {"one\rtwo\r", " \tpadded\t"}},
        {"", {}},       {std::string("a\0b\nc", 5), {std::string("a\0b", 3), "c"}}};
    for (const auto& [text, lines] : rows) {
        klLineParser parser(text.data(), uint32_t(text.size()));
        Lines read;
        while (parser.ReadLine()) read.emplace_back(parser.GetLineText().Const(), parser.GetLineText().Size());
        EXPECT_EQ(lines, read) << text;
        EXPECT_EQ(lines.size(), parser.GetLineNumber());
        EXPECT_EQ(parser.GetLineText(), lines.empty() ? "" : lines.back().c_str());
    }
    klLineParser cut("ab\ncd", 2);
    EXPECT_TRUE(cut.ReadLine() && cut.GetLineText() == "ab" && !cut.ReadLine());
    EXPECT_FALSE(klLineParser(nullptr, 5).ReadLine());
}
