#include "keel/klhashfunc.h"
#include "keel/klmap.h"
#include "keel/klstring.h"
#include "keel_test.h"

namespace {
std::string Hex(const klMD5Digest& d) {
    char text[33];
    for (int i = 0; i < 16; ++i) std::snprintf(text + 2 * i, 3, "%02x", d.mBytes[i]);
    return text;
}
std::string Md5Of(const void* bytes, uint32_t size) {
    klHashMD5 md5;
    md5.Update(bytes, size);
    return Hex(md5.Finish());
}
} // namespace

// 64 bits: plain FNV-1a; 32 bits: FNV-1a stirred. The text form stops at a zero byte.
TEST(HashFunc, FnvInBothWidthsAndForms) {
    const std::tuple<std::string, uint64_t, uint32_t> cases[] = {
        {"", 0xcbf29ce484222325ull, 0x5902879eu},   {"foobar", 0x85944171f73967e8ull, 0x950a6281u},
        {"\xff", 0xaf64724c8602eb6eull, 0x39b2a712u}, {{"a\0b", 3}, 0xe5d29919042666b2ull, 0x0fc4f418u},
    };
    for (const auto& [bytes, fnv64, mixed32] : cases) {
        EXPECT_EQ(fnv64, klHashBytes64(bytes.data(), uint32_t(bytes.size()))) << bytes;
        EXPECT_EQ(mixed32, klHashBytes32(bytes.data(), uint32_t(bytes.size()))) << bytes;
        const std::string text = bytes.c_str();
        EXPECT_EQ(klHashBytes64(text.data(), uint32_t(text.size())), klHashString64(bytes.c_str()));
        EXPECT_EQ(klHashBytes32(text.data(), uint32_t(text.size())), klHashString32(bytes.c_str()));
    }
}

// The RFC's suite and the padding boundaries; any split of the input gives the same digest.
TEST(HashFunc, Md5MatchesPublishedDigestsHoweverTheInputIsSplit) {
    const std::pair<std::string, const char*> suite[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
        {std::string(55, 'a'), "ef1772b6dff9a122358552954ad0df65"},
        {std::string(56, 'a'), "3b0c8ac703f828b04c6c197006d17218"},
        {std::string(64, 'a'), "014842d480b571495a4a0363793f7367"}};
    for (const auto& [text, digest] : suite) EXPECT_EQ(digest, Md5Of(text.data(), uint32_t(text.size()))) << text;

    std::vector<uint8_t> data(200);
    std::mt19937 gen(7);
    for (uint8_t& b : data) b = uint8_t(gen());
    const std::string whole = Md5Of(data.data(), 200);
    klHashMD5 md5;
    md5.Update("junk", 4);
    for (uint32_t cut = 0; cut <= 64; ++cut) {
        md5.Start();
        md5.Update(data.data(), cut);
        md5.Update(data.data() + cut, 0);
        md5.Update(data.data() + cut, cut);
        md5.Update(data.data() + 2 * cut, 200 - 2 * cut);
        EXPECT_EQ(whole, Hex(md5.Finish())) << "cut " << cut;
    }
    keeltest::CaptureAsserts capture;
    md5.Update("abc", 3); // finished: ignored, and reported
    EXPECT_EQ(std::string(32, '0'), Hex(md5.Finish()));
    EXPECT_EQ((std::vector<std::string>{"_internal != NULL", "_internal != NULL"}), capture.Exprs());
}

TEST(HashFunc, MapFindCopiesOutOrReports) {
    keeltest::CaptureAsserts capture;
    klMap<klString, int, klStringLessThan> map;
    map[klString("two")] = 2;
    int out = 99;
    EXPECT_TRUE(klMapFind(map, klString("two"), &out) && !klMapFind(map, klString("three"), &out) && out == 2);
    EXPECT_FALSE(klMapFind(map, klString("two"), static_cast<int*>(nullptr)));
    EXPECT_EQ("pOut != NULL||core/keel/klmap.h", capture.Reports().back().Text());
}
