#include "keel/klhashfunc.h"
#include "keel/klmap.h"
#include "keel/klstring.h"
#include "keel_test.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#if KEEL_HAVE_OPENSSL
#include <openssl/evp.h>
#endif

namespace {

std::string Hex(const klMD5Digest& d) {
    std::string out;
    char two[3];
    for (uint8_t b : d.mBytes) {
        std::snprintf(two, sizeof(two), "%02x", b);
        out += two;
    }
    return out;
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

std::vector<uint8_t> RandomBytes(size_t n, uint32_t seed) {
    std::mt19937 gen(seed);
    std::vector<uint8_t> bytes(n);
    for (uint8_t& b : bytes) b = uint8_t(gen());
    return bytes;
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
    EXPECT_NE(0x811c9dc5u, klHashString32(""));
    EXPECT_EQ(Mixed((0x811c9dc5u ^ 0xffu) * 16777619u), klHashString32("\xff"));
}

TEST(HashFunc, Md5MatchesTheRfcSuite) {
    const std::pair<std::string, const char*> suite[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"}};
    for (const auto& [text, digest] : suite) EXPECT_EQ(digest, Md5Of(text)) << text;
    // Around the padding boundaries, where the length goes into the same or a new block.
    const std::pair<size_t, const char*> lengths[] = {{55, "ef1772b6dff9a122358552954ad0df65"},
                                                      {56, "3b0c8ac703f828b04c6c197006d17218"},
                                                      {63, "b06521f39153d618550606be297466d5"},
                                                      {64, "014842d480b571495a4a0363793f7367"},
                                                      {65, "c743a45e0d2e6a95cb859adae0248435"},
                                                      {1000000, "7707d6ae4e027c70eea2a935c2296f21"}};
    for (const auto& [n, digest] : lengths) EXPECT_EQ(digest, Md5Of(std::string(n, 'a'))) << n;
}

TEST(HashFunc, Md5GivesTheSameDigestHoweverTheInputIsSplit) {
    const std::vector<uint8_t> data = RandomBytes(200, 7);
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
    md5.Start();
    for (uint8_t b : data) md5.Update(&b, 1);
    EXPECT_EQ(whole, Hex(md5.Finish()));
    // Starting again drops a digest in progress.
    md5.Start();
    md5.Update("junk", 4);
    md5.Start();
    md5.Update(data.data(), 200);
    EXPECT_EQ(whole, Hex(md5.Finish()));
}

TEST(HashFunc, Md5OfLargeRandomInputAgreesWithOpenSsl) {
#if KEEL_HAVE_OPENSSL
    const std::vector<uint8_t> data = RandomBytes(6 << 20, 2024);
    klHashMD5 md5;
    std::mt19937 gen(5);
    for (size_t at = 0; at < data.size();) {
        const uint32_t piece = uint32_t(std::min<size_t>(gen() % 100000, data.size() - at));
        md5.Update(data.data() + at, piece);
        at += piece;
    }
    klMD5Digest expected;
    unsigned int size = 0;
    ASSERT_EQ(1, EVP_Digest(data.data(), data.size(), expected.mBytes, &size, EVP_md5(), nullptr));
    ASSERT_EQ(16u, size);
    EXPECT_EQ(Hex(expected), Hex(md5.Finish()));
#else
    GTEST_SKIP() << "built without OpenSSL";
#endif
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
    ASSERT_EQ(2u, capture.Reports().size());
    for (const auto& report : capture.Reports()) {
        EXPECT_EQ("_internal != NULL", report.expr);
        EXPECT_EQ("core/keel/klhashfunc.cpp", report.file);
    }
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
    EXPECT_EQ(2, out);
    EXPECT_FALSE(klMapFind(map, klString("three"), &out));
    EXPECT_EQ(2, out);

    keeltest::CaptureAsserts capture;
    EXPECT_FALSE(klMapFind(map, klString("one"), static_cast<int*>(nullptr)));
    ASSERT_EQ(1u, capture.Reports().size());
    EXPECT_EQ("pOut != NULL", capture.Reports()[0].expr);
    EXPECT_EQ("core/keel/klmap.h", capture.Reports()[0].file);
}
