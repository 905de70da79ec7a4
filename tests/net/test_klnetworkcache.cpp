// "http://" paths through klFileSystem::Open and Close, against tests/net/server.py.
#include "keel/klfilesystem.h"
#include "servers.h"
#include "../keel/keel_test.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>

#ifndef _WIN32
#include <csignal>
#include <sys/resource.h>
#endif

namespace fs = std::filesystem;

namespace {

using keelnet::Count;
using keelnet::Pattern;

// Every test's local folder (and so its cache) lies in a fresh temporary folder.
class KlNetworkCache : public keeltest::TempFolderTest {
protected:
    void SetUp() override {
        TempFolderTest::SetUp();
        klFileSystem::SetLogDir(Path("local").c_str());
        if (!server.Start()) GTEST_SKIP() << "python3 is not installed or the server did not start";
    }
    // The server's file at path read through the file layer; "<failed>" when it does not open.
    std::string Read(const std::string& path) {
        FILE* fp = klFileSystem::Open(server.Url(path).c_str(), "rb");
        if (!fp) return "<failed>";
        std::string bytes(1 << 20, '\0');
        bytes.resize(std::fread(bytes.data(), 1, bytes.size(), fp));
        klFileSystem::Close(fp);
        return bytes;
    }
    bool Write(const std::string& path, const char* mode, const std::string& bytes) {
        FILE* fp = klFileSystem::Open(server.Url(path).c_str(), mode);
        if (!fp) return false;
        const bool ok = std::fwrite(bytes.data(), 1, bytes.size(), fp) == bytes.size();
        return klFileSystem::Close(fp) == 0 && ok;
    }
    std::string CachePath(const std::string& path) { return klFileSystem::NetworkCachePath(server.Url(path).c_str()).Const(); }
    keelnet::TestServer server;
};

} // namespace

TEST_F(KlNetworkCache, ReadsThroughTheCacheRefetchesChangesAndUploads) {
    const std::string versions[] = {Pattern(100000, 1), Pattern(100001, 2), Pattern(100001, 3)};
    ASSERT_TRUE(server.Put("/dir/file.bin", versions[0]));
    EXPECT_EQ(versions[0], Read("/dir/file.bin"));
    EXPECT_EQ(versions[0], keeltest::ReadFile(CachePath("/dir/file.bin")));
    EXPECT_EQ(versions[0], Read("/dir/file.bin")); // unchanged: asked about, not fetched again
    EXPECT_EQ(2u, Count(server.Log(), "HEAD /dir/file.bin"));
    EXPECT_EQ(1u, Count(server.Log(), "GET /dir/file.bin"));
    ASSERT_TRUE(server.Put("/dir/file.bin", versions[1]));
    EXPECT_EQ(versions[1], Read("/dir/file.bin"));
    // Same size, other bytes: only the time tells, and it must.
    const auto before = fs::last_write_time(server.Served("/dir/file.bin"));
    ASSERT_TRUE(server.Put("/dir/file.bin", versions[2]));
    fs::last_write_time(server.Served("/dir/file.bin"), before + std::chrono::hours(1));
    EXPECT_EQ(versions[2], Read("/dir/file.bin"));
    EXPECT_EQ(3u, Count(server.Log(), "GET /dir/file.bin"));

    // A bare host is "/": its file lies inside the cache folder, never on it.
    ASSERT_TRUE(server.Put("/index.html", "front page"));
    EXPECT_EQ("front page", Read(""));
    EXPECT_EQ(CachePath(""), CachePath("/"));
    EXPECT_TRUE(fs::is_regular_file(CachePath("")));
    EXPECT_EQ("", CachePath("/a/%in"));

    // Written and appended files are uploaded.
    const std::string bytes = Pattern(70000, 4);
    ASSERT_TRUE(Write("/up/new.bin", "wb", bytes));
    EXPECT_EQ(bytes, keeltest::ReadFile(server.Served("/up/new.bin")));
    ASSERT_TRUE(Write("/up/new.bin", "ab", "tail"));
    EXPECT_EQ(bytes + "tail", keeltest::ReadFile(server.Served("/up/new.bin")));
    EXPECT_EQ(2u, Count(server.Log(), "PUT /up/new.bin"));
}

// What the cache keeps is exactly the server's current bytes, or nothing: a 404, a 301
// and a 302 (another URL's file), bodies that change or never complete, a file where the
// cache needs a folder (no contention: it fails at once), and paths outside the cache
// folder, which are never asked for. A download that keeps failing is given up.
TEST_F(KlNetworkCache, KeepsOnlyWholeCurrentBodies) {
    ASSERT_TRUE(server.Put("/chain.txt", "elsewhere"));
    ASSERT_TRUE(server.Put("/blocked/x.bin", "x"));
    fs::create_directories(fs::path(CachePath("/blocked")).parent_path());
    std::ofstream(CachePath("/blocked")) << "a file";
    const struct {
        const char* path;
        std::string expected;
        size_t gets; // of the path
        double maxSeconds;
    } rows[] = {
        {"/missing.bin", "<failed>", 0, 15},  {"/chain/10", "<failed>", 0, 15},
        {"/found", "<failed>", 3, 15},        {"/changed/f", Pattern(300, 7), 2, 15},
        {"/stuck/f", "<failed>", 12, 15},     {"/norange/f", "<failed>", 12, 15},
        {"/blocked/x.bin", "<failed>", 0, 1}, {"/../escape.txt", "<failed>", 0, 1},
        {"/a/%2e%2e/%2E%2e/%2e%2e/escape.txt", "<failed>", 0, 1}, {"/a\\..\\..\\escape.txt", "<failed>", 0, 1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path);
        const auto start = std::chrono::steady_clock::now();
        testing::internal::CaptureStdout();
        EXPECT_TRUE(Read(row.path) == row.expected);
        EXPECT_EQ("", testing::internal::GetCapturedStdout());
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::duration<double>(row.maxSeconds));
        const std::string cached = keeltest::ReadFile(CachePath(row.path));
        EXPECT_TRUE(cached == (row.expected == "<failed>" ? "" : row.expected)) << cached.size() << " bytes kept";
        EXPECT_EQ(Count(server.Log(), std::string("GET ") + row.path + " "), row.gets);
        EXPECT_TRUE(std::string(row.path).find("escape") == std::string::npos || !Write(row.path, "wb", "bad"));
    }
    EXPECT_EQ(0u, Count(server.Log(), "escape"));
    for (const auto& entry : fs::recursive_directory_iterator(mDir))
        EXPECT_EQ(std::string::npos, entry.path().string().find("escape")) << entry.path();
    const std::string refused = "http://127.0.0.1:" + std::to_string(keelnet::Listener().port) + "/x";
    EXPECT_EQ(nullptr, klFileSystem::Open(refused.c_str(), "rb"));

#ifndef _WIN32
    // A disk that fills up during the download: the open fails and no part is kept.
    ASSERT_TRUE(server.Put("/big.bin", Pattern(100000)));
    rlimit saved{};
    getrlimit(RLIMIT_FSIZE, &saved);
    const auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit small = saved;
    small.rlim_cur = 50000;
    setrlimit(RLIMIT_FSIZE, &small);
    const std::string result = Read("/big.bin");
    setrlimit(RLIMIT_FSIZE, &saved);
    std::signal(SIGXFSZ, oldHandler);
    EXPECT_EQ("<failed>", result);
    EXPECT_FALSE(fs::exists(CachePath("/big.bin")));
#endif
}
