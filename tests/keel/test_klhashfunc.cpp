#include "keel/klhashfunc.h"
#include "keel/klmap.h"
#include "keel/klstring.h"
#include "keel_test.h"

#include <cstring>

namespace {

std::string Hex(const klMD5Digest& d) {
    char text[33];
    for (int i = 0; i < 16; ++i) std::snprintf(text + 2 * i, 3, "%02x", d.mBytes[i]);
    return text;
}

std::string Md5Of(const std::string& text) {
    klHashMD5 md5;
    md5.Update(text.data(), uint32_t(text.size()));
    return Hex(md5.Finish());
}

// The avalanche step written as the multiplications it stands for.
uint32_t Mixed(uint32_t h) {
    h *= 8193u;
    h ^= h >> 7;
    h *= 9u;
    h ^= h >> 17;
    return h * 33u;
}

} // namespace

TEST(HashFunc, Fnv64MatchesPublishedValuesInBothForms) {
    const std::pair<const char*, uint64_t> vectors[] = {
        {"", 0xcbf29ce484222325ull}, {"a", 0xaf63dc4c8601ec8cull}, {"foobar", 0x85944171f73967e8ull}};
    for (const auto& [text, value] : vectors) {
        EXPECT_EQ(value, klHashString64(text)) << text;
        EXPECT_EQ(value, klHashBytes64(text, uint32_t(std::strlen(text)))) << text;
    }
    // High bytes count as 128..255, not as negative chars.
    EXPECT_EQ((0xcbf29ce484222325ull ^ 0xe9) * 0x100000001b3ull, klHashString64("\xe9"));
    // A block may hold zero bytes; the text form stops at the first.
    EXPECT_NE(klHashBytes64("a\0b", 3), klHashString64("a\0b"));
}

TEST(HashFunc, Fnv32IsPublishedFnv1aThenMixed) {
    const std::pair<const char*, uint32_t> unmixed[] = {
        {"", 0x811c9dc5u}, {"a", 0xe40c292cu}, {"foobar", 0xbf9cf968u}};
    for (const auto& [text, value] : unmixed) {
        EXPECT_EQ(Mixed(value), klHashString32(text)) << text;
        EXPECT_EQ(Mixed(value), klHashBytes32(text, uint32_t(std::strlen(text)))) << text;
    }
    EXPECT_EQ(Mixed((0x811c9dc5u ^ 0xffu) * 16777619u), klHashString32("\xff"));
}

TEST(HashFunc, Md5MatchesTheRfcSuite) {
    const std::pair<std::string, const char*> suite[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
        // Around the padding boundaries, where the length goes into the same or a new block.
        {std::string(55, 'a'), "ef1772b6dff9a122358552954ad0df65"},
        {std::string(56, 'a'), "3b0c8ac703f828b04c6c197006d17218"},
        {std::string(63, 'a'), "b06521f39153d618550606be297466d5"},
        {std::string(64, 'a'), "014842d480b571495a4a0363793f7367"},
        {std::string(65, 'a'), "c743a45e0d2e6a95cb859adae0248435"},
        {std::string(1000000, 'a'), "7707d6ae4e027c70eea2a935c2296f21"}};
    for (const auto& [text, digest] : suite) EXPECT_EQ(digest, Md5Of(text)) << text.size();
}

TEST(HashFunc, Md5GivesTheSameDigestHoweverTheInputIsSplit) {
    std::vector<uint8_t> data(200);
    std::mt19937 gen(7);
    for (uint8_t& b : data) b = uint8_t(gen());
    klHashMD5 md5;
    md5.Update(data.data(), 200);
    const std::string whole = Hex(md5.Finish());
    for (uint32_t cut = 0; cut <= 64; ++cut) {
        md5.Start();
        md5.Update(data.data(), cut);
        md5.Update(data.data() + cut, 0);
        md5.Update(data.data() + cut, cut); // a second piece of the same length crosses other edges
        md5.Update(data.data() + 2 * cut, 200 - 2 * cut);
        EXPECT_EQ(whole, Hex(md5.Finish())) << "cut " << cut;
    }
    // Starting again drops a digest in progress.
    md5.Start();
    md5.Update("junk", 4);
    md5.Start();
    md5.Update(data.data(), 200);
    EXPECT_EQ(whole, Hex(md5.Finish()));
}

TEST(HashFunc, Md5WithoutADigestInProgressReportsAndFallsBack) {
    keeltest::CaptureAsserts capture;
    klHashMD5 md5;
    EXPECT_TRUE(md5.InProgress());
    md5.Finish();
    EXPECT_FALSE(md5.InProgress());
    EXPECT_TRUE(capture.Reports().empty());
    md5.Update("abc", 3);
    EXPECT_EQ(std::string(32, '0'), Hex(md5.Finish()));
    ASSERT_EQ((std::vector<std::string>{"_internal != NULL", "_internal != NULL"}), capture.Exprs());
    EXPECT_EQ("core/keel/klhashfunc.cpp", capture.Reports()[1].file);
    EXPECT_LT(capture.Reports()[0].line, capture.Reports()[1].line); // Update's, then Finish's
    // The ignored bytes leave no trace in the next digest.
    md5.Start();
    EXPECT_EQ("d41d8cd98f00b204e9800998ecf8427e", Hex(md5.Finish()));
}

TEST(HashFunc, MapFindCopiesOnlyWhatIsThere) {
    klMap<klString, int, klStringLessThan> map;
    map[klString("one")] = 1;
    map[klString("two")] = 2;
    int out = 99;
    EXPECT_TRUE(klMapFind(map, klString("two"), &out));
    EXPECT_FALSE(klMapFind(map, klString("three"), &out));
    EXPECT_EQ(2, out);
    keeltest::CaptureAsserts capture;
    EXPECT_FALSE(klMapFind(map, klString("one"), static_cast<int*>(nullptr)));
    ASSERT_EQ(std::vector<std::string>{"pOut != NULL"}, capture.Exprs());
    EXPECT_EQ("core/keel/klmap.h", capture.Reports()[0].file);
}
