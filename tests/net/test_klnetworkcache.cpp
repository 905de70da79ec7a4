// "http://" paths through klFileSystem::Open and Close, against tests/net/server.py.
#include "keel/klfilesystem.h"
#include "servers.h"
#include "../keel/keel_test.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#ifndef _WIN32
#include <csignal>
#include <sys/resource.h>
#endif

namespace fs = std::filesystem;

namespace {

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
class KlNetworkCache : public keeltest::TempFolderTest {
protected:
    void SetUp() override {
        TempFolderTest::SetUp();
        klFileSystem::SetLogDir(Path("local").c_str());
        if (!mServer.Start()) GTEST_SKIP() << "python3 is not installed or the server did not start";
    }
    keelnet::TestServer mServer;
};

// Threads racing for the local folder's first use.
using KlNetworkCacheConcurrent = keeltest::TempFolderTest;

} // namespace

TEST_F(KlNetworkCache, ReadsThroughTheCacheAndRefetchesChanges) {
    const std::string url = mServer.Url("/dir/file.bin");
    const std::string first = keelnet::Pattern(100000, 1);
    ASSERT_TRUE(mServer.Put("/dir/file.bin", first));
    EXPECT_EQ(first, ReadUrl(url));
    const fs::path cached(klFileSystem::NetworkCachePath(url.c_str()).Const());
    EXPECT_EQ(first, keelnet::ReadWholeFile(cached.string()));
    EXPECT_EQ(first, ReadUrl(url)); // unchanged: asked about, not fetched again
    EXPECT_EQ(2u, Count(mServer.Log(), "HEAD /dir/file.bin"));
    EXPECT_EQ(1u, Count(mServer.Log(), "GET /dir/file.bin"));

    const std::string second = keelnet::Pattern(100001, 2);
    ASSERT_TRUE(mServer.Put("/dir/file.bin", second));
    EXPECT_EQ(second, ReadUrl(url));
    // Same size, other bytes: only the time tells, and it must.
    const std::string third = keelnet::Pattern(100001, 3);
    const fs::path served = mServer.Served("/dir/file.bin");
    const auto before = fs::last_write_time(served);
    ASSERT_TRUE(mServer.Put("/dir/file.bin", third));
    fs::last_write_time(served, before + std::chrono::hours(1));
    EXPECT_EQ(third, ReadUrl(url));
    EXPECT_EQ(3u, Count(mServer.Log(), "GET /dir/file.bin"));
}

TEST_F(KlNetworkCache, WrittenAndAppendedFilesAreUploaded) {
    const std::string url = mServer.Url("/up/new.bin"), served = mServer.Served("/up/new.bin");
    const std::string bytes = keelnet::Pattern(70000, 4);
    ASSERT_TRUE(WriteUrl(url, "wb", bytes));
    EXPECT_EQ(bytes, keelnet::ReadWholeFile(served));
    ASSERT_TRUE(WriteUrl(url, "ab", "tail"));
    EXPECT_EQ(bytes + "tail", keelnet::ReadWholeFile(served));
    EXPECT_EQ(2u, Count(mServer.Log(), "PUT /up/new.bin"));
    // The upload reads the file that was opened, wherever the local folder has moved since.
    FILE* fp = klFileSystem::Open(mServer.Url("/up/moved.bin").c_str(), "wb");
    ASSERT_NE(nullptr, fp);
    std::fputs("opened here", fp);
    klFileSystem::SetLogDir(Path("elsewhere").c_str());
    klFileSystem::Close(fp);
    klFileSystem::SetLogDir(Path("local").c_str());
    EXPECT_EQ("opened here", keelnet::ReadWholeFile(mServer.Served("/up/moved.bin")));
}

TEST_F(KlNetworkCache, FailuresEndTheOpenInBoundedTime) {
    const auto start = std::chrono::steady_clock::now();
    const std::string refused = "http://127.0.0.1:" + std::to_string(keelnet::UnusedPort()) + "/x";
    EXPECT_EQ(nullptr, klFileSystem::Open(refused.c_str(), "rb"));
    EXPECT_EQ(nullptr, klFileSystem::Open(mServer.Url("/missing.bin").c_str(), "rb"));
    ASSERT_TRUE(mServer.Put("/chain.txt", "elsewhere"));
    EXPECT_EQ(nullptr, klFileSystem::Open(mServer.Url("/chain/10").c_str(), "rb")); // moved
    EXPECT_EQ(nullptr, klFileSystem::Open(mServer.Url("/found").c_str(), "rb"));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
    const std::string log = mServer.Log();
    EXPECT_EQ(0u, Count(log, "GET /missing.bin") + Count(log, "GET /chain"));
    EXPECT_EQ(3u, Count(log, "GET /found")); // a download that keeps failing is given up

    // Nothing outside the cache folder is asked for or written.
    ASSERT_TRUE(mServer.Put("/x.txt", "x"));
    for (const char* path : {"/../escape.txt", "/a/%2e%2e/%2E%2e/%2e%2e/escape.txt", "/a\\..\\..\\escape.txt"}) {
        EXPECT_FALSE(WriteUrl(mServer.Url(path), "wb", "bad")) << path;
        EXPECT_EQ("<failed>", ReadUrl(mServer.Url(path))) << path;
    }
    EXPECT_EQ(0u, Count(mServer.Log(), "escape"));
    for (const auto& entry : fs::recursive_directory_iterator(mDir))
        EXPECT_EQ(std::string::npos, entry.path().string().find("escape")) << entry.path();
}

// What the cache keeps must be exactly the server's current bytes, or nothing.
TEST_F(KlNetworkCache, KeepsOnlyWholeCurrentBodies) {
    const std::pair<const char*, std::string> rows[] = {{"changed", keelnet::Pattern(300, 7)}, {"stuck", "<failed>"}, {"norange", "<failed>"}};
    for (const auto& [scenario, expected] : rows) {
        SCOPED_TRACE(scenario);
        const std::string url = mServer.Url(std::string("/") + scenario + "/file");
        const auto start = std::chrono::steady_clock::now();
        EXPECT_TRUE(ReadUrl(url) == expected);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15));
        const std::string cached = keelnet::ReadWholeFile(klFileSystem::NetworkCachePath(url.c_str()).Const());
        EXPECT_TRUE(cached == (expected == "<failed>" ? "" : expected)) << cached.size() << " bytes kept";
    }
}

TEST_F(KlNetworkCache, FoldersAndLastingFaults) {
    // A bare host is "/": its file lies inside the cache folder, never on it.
    ASSERT_TRUE(mServer.Put("/index.html", "front page"));
    const std::string bare = mServer.Url("");
    EXPECT_EQ("front page", ReadUrl(bare));
    EXPECT_EQ(klFileSystem::NetworkCachePath(bare.c_str()), klFileSystem::NetworkCachePath((bare + "/").c_str()));
    EXPECT_TRUE(fs::is_regular_file(klFileSystem::NetworkCachePath(bare.c_str()).Const()));
    EXPECT_TRUE(klFileSystem::NetworkCachePath((bare + "/a/%in").c_str()).IsEmpty());

    // A file where the cache needs a folder is no contention: the open fails at once.
    const fs::path blocker(klFileSystem::NetworkCachePath(mServer.Url("/blocked").c_str()).Const());
    std::ofstream(blocker) << "a file";
    ASSERT_TRUE(mServer.Put("/blocked/x.bin", "x"));
    const auto start = std::chrono::steady_clock::now();
    testing::internal::CaptureStdout();
    EXPECT_EQ("<failed>", ReadUrl(mServer.Url("/blocked/x.bin")));
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));

#ifndef _WIN32
    // A disk that fills up during the download: the open fails and no part is kept.
    ASSERT_TRUE(mServer.Put("/big.bin", keelnet::Pattern(100000)));
    rlimit saved{};
    getrlimit(RLIMIT_FSIZE, &saved);
    const auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit small = saved;
    small.rlim_cur = 50000;
    setrlimit(RLIMIT_FSIZE, &small);
    const std::string result = ReadUrl(mServer.Url("/big.bin"));
    setrlimit(RLIMIT_FSIZE, &saved);
    std::signal(SIGXFSZ, oldHandler);
    EXPECT_EQ("<failed>", result);
    EXPECT_FALSE(fs::exists(klFileSystem::NetworkCachePath(mServer.Url("/big.bin").c_str()).Const()));
#endif
}

// Several threads opening their first URLs at once all default the local folder: in a
// fresh process (the death-test child), the first use races unless it is made once. Under
// an emulator the child is forked instead, from a process that runs only this test.
TEST_F(KlNetworkCacheConcurrent, FirstUseOfTheLocalFolder) {
#ifndef KEEL_TEST_UNDER_EMULATOR
    GTEST_FLAG_SET(death_test_style, "threadsafe");
#endif
    EXPECT_EXIT(
        {
            klFileSystem::SetCurrentDir(mDir.string().c_str());
            std::vector<std::thread> threads;
            std::vector<std::string> seen(8);
            for (std::string& mine : seen)
                threads.emplace_back([&mine] { mine = klFileSystem::GetLocalAssetsDir().Const(); });
            for (std::thread& thread : threads) thread.join();
            bool same = !seen[0].empty();
            for (const std::string& one : seen) same = same && one == seen[0];
            std::exit(same ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}
