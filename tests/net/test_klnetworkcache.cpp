// "http://" paths through klFileSystem::Open and Close, against a private nginx.
#include "keel/klfilesystem.h"
#include "keel/kllifetime.h"
#include "servers.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <random>

namespace fs = std::filesystem;

namespace {

struct KeelRunning : testing::Environment {
    void SetUp() override { klObjectLifetimeManager::Initialize(); }
    void TearDown() override { klObjectLifetimeManager::Shutdown(); }
};
testing::Environment* const g_keel = testing::AddGlobalTestEnvironment(new KeelRunning);

using keelnet::Count;

// Reads a whole URL through the file layer; "<failed>" when it does not open.
std::string ReadUrl(const std::string& url) {
    FILE* fp = klFileSystem::Open(url.c_str(), "rb");
    if (!fp) return "<failed>";
    std::string bytes;
    char chunk[4096];
    for (size_t got; (got = std::fread(chunk, 1, sizeof(chunk), fp)) > 0;) bytes.append(chunk, got);
    klFileSystem::Close(fp);
    return bytes;
}

bool WriteUrl(const std::string& url, const char* mode, const std::string& bytes) {
    FILE* fp = klFileSystem::Open(url.c_str(), mode);
    if (!fp) return false;
    const bool ok = std::fwrite(bytes.data(), 1, bytes.size(), fp) == bytes.size();
    return klFileSystem::Close(fp) == 0 && ok;
}

// Every test's local folder (and so its cache) lies in a fresh temporary folder.
class KlNetworkCache : public testing::Test {
protected:
    static void SetUpTestSuite() {
        sDir = fs::temp_directory_path() / ("klnc-" + std::to_string(std::random_device()()));
        klFileSystem::SetLogDir((sDir / "local").string().c_str());
    }
    static void TearDownTestSuite() {
        std::error_code ignored;
        fs::remove_all(sDir, ignored);
    }
    void SetUp() override {
        if (!keelnet::StartNginx(&mServer)) GTEST_SKIP() << "nginx is not available";
    }
    static inline fs::path sDir;
    keelnet::TestServer mServer;
};

} // namespace

TEST_F(KlNetworkCache, ReadsThroughTheCacheAndRefetchesChanges) {
    const std::string url = mServer.Url("/dir/file.bin");
    const std::string first = keelnet::Pattern(100000, 1);
    ASSERT_TRUE(keelnet::WriteServerFile(mServer, "dir/file.bin", first));
    EXPECT_EQ(first, ReadUrl(url));
    const fs::path cached(klFileSystem::NetworkCachePath(url.c_str()).Const());
    EXPECT_EQ(first, keelnet::ReadWholeFile(cached.string()));
    EXPECT_EQ(first, ReadUrl(url)); // unchanged: asked about, not fetched again
    EXPECT_EQ(2u, Count(mServer.AccessLog(), "HEAD /dir/file.bin"));
    EXPECT_EQ(1u, Count(mServer.AccessLog(), "GET /dir/file.bin"));

    const std::string second = keelnet::Pattern(100001, 2);
    ASSERT_TRUE(keelnet::WriteServerFile(mServer, "dir/file.bin", second));
    EXPECT_EQ(second, ReadUrl(url));
    // Same size, other bytes: only the time tells, and it must.
    const std::string third = keelnet::Pattern(100001, 3);
    const fs::path served = fs::path(mServer.root) / "dir/file.bin";
    const auto before = fs::last_write_time(served);
    ASSERT_TRUE(keelnet::WriteServerFile(mServer, "dir/file.bin", third));
    fs::last_write_time(served, before + std::chrono::hours(1));
    EXPECT_EQ(third, ReadUrl(url));
    EXPECT_EQ(3u, Count(mServer.AccessLog(), "GET /dir/file.bin"));
}

TEST_F(KlNetworkCache, WrittenAndAppendedFilesAreUploaded) {
    const std::string url = mServer.Url("/up/new.bin");
    const std::string bytes = keelnet::Pattern(70000, 4);
    ASSERT_TRUE(WriteUrl(url, "wb", bytes));
    const std::string served = mServer.root + "/up/new.bin";
    EXPECT_EQ(bytes, keelnet::ReadWholeFile(served));
    ASSERT_TRUE(WriteUrl(url, "ab", "tail"));
    EXPECT_EQ(bytes + "tail", keelnet::ReadWholeFile(served));
    EXPECT_EQ(2u, Count(mServer.AccessLog(), "PUT /up/new.bin"));
}

TEST_F(KlNetworkCache, FailuresEndTheOpenInBoundedTime) {
    const auto start = std::chrono::steady_clock::now();
    const std::string refused = "http://127.0.0.1:" + std::to_string(keelnet::UnusedPort()) + "/x";
    EXPECT_EQ(nullptr, klFileSystem::Open(refused.c_str(), "rb"));
    EXPECT_EQ(nullptr, klFileSystem::Open(mServer.Url("/missing.bin").c_str(), "rb"));
    ASSERT_TRUE(keelnet::WriteServerFile(mServer, "chain.txt", "elsewhere"));
    EXPECT_EQ(nullptr, klFileSystem::Open(mServer.Url("/chain/10").c_str(), "rb")); // moved
    EXPECT_EQ(nullptr, klFileSystem::Open(mServer.Url("/found").c_str(), "rb"));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
    const std::string log = mServer.AccessLog();
    EXPECT_EQ(0u, Count(log, "GET /missing.bin") + Count(log, "GET /chain"));
    EXPECT_EQ(3u, Count(log, "GET /found")); // a download that keeps failing is given up

    // Nothing outside the cache folder is asked for or written.
    ASSERT_TRUE(keelnet::WriteServerFile(mServer, "x.txt", "x"));
    for (const char* path : {"/../escape.txt", "/a/%2e%2e/%2E%2e/%2e%2e/escape.txt", "/a\\..\\..\\escape.txt"}) {
        EXPECT_FALSE(WriteUrl(mServer.Url(path), "wb", "bad")) << path;
        EXPECT_EQ("<failed>", ReadUrl(mServer.Url(path))) << path;
    }
    EXPECT_EQ(0u, Count(mServer.AccessLog(), "escape"));
    for (const auto& entry : fs::recursive_directory_iterator(sDir))
        EXPECT_EQ(std::string::npos, entry.path().string().find("escape")) << entry.path();
}
