#include "keel_test.h"

#include "keel/klbuffer.h"
#include "keel/klfileplatform.h"
#include "keel/klfilesystem.h"

#include <algorithm>
#include <cerrno>

namespace fs = std::filesystem;
using Strings = std::vector<std::string>;

namespace {

#if defined(_WIN32)
constexpr bool kOnWindows = true;
#else
constexpr bool kOnWindows = false; // ':' is a name character; names may hold wildcards
#endif
const std::string kSep(1, kl::platform::PathSeparator());

std::string Normalized(std::string path) {
    klFileSystem::NormalizeOpenPath(path.data());
    return path.c_str();
}

bool IsTracked(FILE* fp) { return !klFileSystem::OpenedPath(fp).IsEmpty(); }

Strings Names(const std::vector<klString>& list) {
    Strings names(list.begin(), list.end());
    std::sort(names.begin(), names.end());
    return names;
}

using KlFileSystemFiles = keeltest::TempFolderTest;

} // namespace

#ifndef _WIN32
// Only a shortage of descriptors or an interrupted call passes by itself on Linux.
TEST(KlFileSystem, OpenFailuresThatPass) {
    const std::pair<int, bool> rows[] = {{EINTR, true},  {EMFILE, true},  {ENFILE, true}, {EBUSY, true},
                                         {ETXTBSY, true}, {ENOENT, false}, {EACCES, false}};
    for (const auto& [error, passing] : rows) {
        errno = error;
        EXPECT_EQ(passing, kl::platform::OpenFailureIsTransient()) << error;
    }
}
#endif

TEST(KlFileSystem, JoinedCanonicalAndOpenedPathForms) {
    // Parts, then the join; only one separator is dropped, and a drive or scheme wins.
    const std::string drive = kOnWindows ? "c:\\x" : "a/c:\\x", colon = kOnWindows ? "a:b.cfg" : "db/a:b.cfg";
    const std::string joins[][3] = {{"a", "b", "a" + kSep + "b"}, {"a/", "\\b", "a\\b"}, {"a//", "/b", "a//b"},
                                    {"a", "c:\\x", drive},          {"db/", "a:b.cfg", colon},
                                    {"a", "http://h/x", "http://h/x"}, {"", "b", "b"},      {"a", "", "a"}};
    for (const auto& r : joins)
        EXPECT_EQ(r[2], klFileSystem::CombinePath(r[0].c_str(), r[1].c_str()).Const()) << r[0] << " + " << r[1];

    // A path, its canonical form, then the form Open keeps (one halving pass only).
    const char* const forms[][3] = {{"c:\\dir\\\\\\f.txt", "c:/dir//f.txt", "c:\\dir//f.txt"},
                                    {"c://x", "c://x", "c:\\/x"},
                                    {"\\\\srv\\share\\\\f", "//srv/share/f", "\\\\srv/share/f"},
                                    {"\\\\", "//", "/"}, // too short to be a share when opened
                                    {"http://h//a\\\\\\b", "http://h/a//b", "http://h/a//b"},
                                    {"", "", ""}};
    for (const auto& r : forms) {
        EXPECT_STREQ(r[1], klFileSystem::CanonicalPath(r[0])) << r[0];
        EXPECT_EQ(r[2], Normalized(r[0])) << r[0];
    }
    char path[] = "a/b\\c";
    klFileSystem::ToNativeSeparators(path);
    EXPECT_EQ("a" + kSep + "b" + kSep + "c", path);
}

TEST_F(KlFileSystemFiles, OpenKeepsNormalisedPathAndCutsLongOnes) {
    Write("sub/f.txt", "hello");
    const std::string dir = mDir.string();
    FILE* fp = klFileSystem::Open((dir + "\\sub\\\\\\f.txt").c_str(), "rb");
    ASSERT_NE(nullptr, fp);
    EXPECT_EQ(Normalized(dir) + "/sub//f.txt", klFileSystem::OpenedPath(fp).Const());
    EXPECT_EQ(0, klFileSystem::Close(fp));
    // 1023 characters name the file (a run of separators counts as one); the rest is ignored.
    std::string path = dir + std::string(1023 - dir.size() - 9, '/') + "sub/f.txt";
    EXPECT_EQ(0, klFileSystem::Close(klFileSystem::Open((path + "x/more").c_str(), "rb")));
    EXPECT_EQ(nullptr, klFileSystem::Open(Path("missing.txt").c_str(), "rb"));
}

TEST_F(KlFileSystemFiles, LoadZAndLoadText) {
    klBlob blob;
    const std::string binary("\0\x01\r\n\x1a\xff\0z", 8);
    ASSERT_TRUE(klFileSystem::LoadZ(Write("bin.dat", binary).c_str(), blob));
    EXPECT_EQ(binary + '\0', std::string(reinterpret_cast<const char*>(blob.Const()), blob.Size()));
    EXPECT_TRUE(klFileSystem::LoadZ(Write("empty.txt", "").c_str(), blob)); // leaves it as it was
    EXPECT_FALSE(klFileSystem::LoadZ(Path("missing.txt").c_str(), blob));
    EXPECT_FALSE(klFileSystem::LoadZ(Path("bin.dat").c_str(), blob, 7)); // over the cap
    EXPECT_EQ(9u, blob.Size());
    klString text("old");
#if !defined(_WIN32)
    { // only regular files are data: neither call may even open a FIFO
        keeltest::ReleasedFifo fifo(Path("x.cfg"));
        EXPECT_FALSE(klFileSystem::LoadZ(Path("x.cfg").c_str(), blob));
        EXPECT_FALSE(klFileSystem::LoadText(Path("x.cfg").c_str(), &text));
    }
#endif
    std::string crlf, lf; // far longer than the old text: it must get a buffer of its own
    for (int i = 0; i < 500; ++i) crlf += "one\r\n", lf += "one\n";
    ASSERT_TRUE(klFileSystem::LoadText(Write("t.txt", crlf).c_str(), &text));
    EXPECT_EQ(kOnWindows ? lf : crlf, text.Const()); // Windows: cut to what was read
    EXPECT_FALSE(klFileSystem::LoadText(Path("missing.txt").c_str(), &text));
    EXPECT_TRUE(klFileSystem::LoadText(Path("empty.txt").c_str(), &text));
    EXPECT_STREQ("", text);
}

TEST_F(KlFileSystemFiles, ListingsAndExistence) {
    for (const char* name : {"a.cfg", "c.txt", "D.CFG", "x[1].ini", "y1.ini"})
        Write(name, "x");
    fs::create_directory(mDir / "b.cfg");
    const std::string dir = mDir.string();
    std::vector<klString> files{"keep"}, all, folders, others;
    klFileSystem::DirectoryContents(dir.c_str(), "*.cfg", files);
    EXPECT_EQ((Strings{"D.CFG", "a.cfg", "keep"}), Names(files));
    klFileSystem::DirectoryContents(dir.c_str(), nullptr, all);
    klFileSystem::DirectoryContents(Path("missing").c_str(), "*.cfg", all);
    const Strings plain{"D.CFG", "a.cfg", "c.txt", "x[1].ini", "y1.ini"};
    EXPECT_EQ(plain, Names(all));
    klFileSystem::ListDirectory((dir + "/").c_str(), folders, others);
    EXPECT_EQ((Strings{"b.cfg"}), Names(folders));
    EXPECT_EQ(plain, Names(others));

    // A name is taken literally and a folder counts (Windows: a pattern still matches).
    const std::pair<const char*, bool> exists[] = {{"/*.CfG", kOnWindows}, {"\\b.cfg", true},    {"", true},
                                                   {"/*.xml", false},      {"/x[1].ini", true}, {"/y[1].ini", false},
                                                   {"/C.TXT", kOnWindows}};
    for (const auto& [suffix, expected] : exists)
        EXPECT_EQ(expected, klFileSystem::FileExists((dir + suffix).c_str())) << suffix;
    EXPECT_FALSE(klFileSystem::FileExists(""));
}

TEST_F(KlFileSystemFiles, ConcurrentOpenCloseLosesNoSlot) {
    std::atomic<int> failures{0};
    for (int t = 0; t < 8; ++t) Write("t" + std::to_string(t) + ".txt", "");
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([this, t, &failures] {
            const std::string path = Path("t" + std::to_string(t) + ".txt"), expected = Normalized(path);
            for (int i = 0; i < 300; ++i) { // far fewer streams than slots: each tracked by its name
                FILE* fp = klFileSystem::Open(path.c_str(), "rb");
                failures += !fp || expected != klFileSystem::OpenedPath(fp).Const() || klFileSystem::Close(fp) != 0;
            }
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(0, failures.load());

    // Every slot came back: 256 streams are tracked again, the 257th is not.
    const std::string path = Path("t0.txt");
    std::vector<FILE*> tracked(256);
    for (FILE*& fp : tracked)
        EXPECT_TRUE(IsTracked(fp = klFileSystem::Open(path.c_str(), "rb")));
    char memory[4];
    EXPECT_EQ(nullptr, klFileSystem::OpenMemory(memory, 4, "r")); // memory streams need a slot
    EXPECT_EQ(0, klFileSystem::Close(tracked[100]));
    EXPECT_TRUE(IsTracked(tracked[100] = klFileSystem::Open(path.c_str(), "rb"))); // the freed slot
    FILE* extra = klFileSystem::Open(path.c_str(), "rb");
    EXPECT_FALSE(IsTracked(extra));
    EXPECT_EQ(0, klFileSystem::Close(extra)); // fclose's own result, and no slot freed
    EXPECT_FALSE(IsTracked(extra = klFileSystem::Open(path.c_str(), "rb")));
    klFileSystem::Close(extra);
    for (FILE* fp : tracked) klFileSystem::Close(fp);
    EXPECT_EQ(EOF, klFileSystem::Close(nullptr));
}

TEST_F(KlFileSystemFiles, NumbersAndTemporaryNames) {
    for (int n = 1; n <= 20; ++n) // a prefix that reads as a pattern is still a name
        Write("log[1]" + std::to_string(n) + ".txt", "");
    EXPECT_EQ(21, klFileSystem::NextFreeNumber(Path("log[1]").c_str(), ".txt"));
    EXPECT_EQ(1, klFileSystem::NextFreeNumber(Path("log[1]").c_str(), ".dat"));

    std::string names[2] = {Path("tmpXXXXXX"), Path("tmpXXXXXX")};
    for (std::string& name : names) {
        std::fclose(klFileSystem::MakeTempFile(name.data()));
        EXPECT_TRUE(fs::exists(name.c_str())) << name; // a zero among the six ends the name early
    }
    EXPECT_NE(names[0], names[1]);
    std::string bad[] = {"XXXXX", Path("fileXXXXXy"), Path("no/such/folderXXXXXX")};
    for (std::string& name : bad) EXPECT_EQ(nullptr, klFileSystem::MakeTempFile(name.data())) << name;
    EXPECT_EQ(Path("fileXXXXXy"), bad[1]); // refused before anything is touched
    EXPECT_EQ('\0', bad[2][0]);
}

TEST_F(KlFileSystemFiles, CopiesFoldersAndTrees) {
    std::string bytes(10000, '\0'); // more than two copy chunks, every byte value
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>(i * 7 + i / 256);
    const std::string from = Write("from.bin", bytes);
    FILE* stream = klFileSystem::Open(from.c_str(), "rb");
    std::fgetc(stream); // copied from its start all the same
    ASSERT_TRUE(klFileSystem::CopyStreamToFile(stream, Path("stream.bin").c_str()));
    klFileSystem::Close(stream);
    for (auto copy : {klFileSystem::CopyFile, klFileSystem::SafeCopy}) {
        EXPECT_FALSE(copy(Path("missing").c_str(), Path("x").c_str()) || copy(from.c_str(), Path("nodir/x").c_str()));
        ASSERT_TRUE(copy(from.c_str(), Write("safe.bin", "old and longer than nothing").c_str()));
        EXPECT_EQ(bytes, keeltest::ReadFile(Path("safe.bin")));
    }
    EXPECT_EQ(bytes, keeltest::ReadFile(Path("stream.bin")));
    std::vector<klString> left;
    klFileSystem::DirectoryContents(mDir.string().c_str(), nullptr, left);
    EXPECT_EQ((Strings{"from.bin", "safe.bin", "stream.bin"}), Names(left)); // no temporaries

    klString tree(Path("t").c_str());
    ASSERT_TRUE(klFileSystem::EnsureTrailingSeparator(tree));
    ASSERT_TRUE(klFileSystem::CreatePath(Path("t/a\\b/c/").c_str()));
    EXPECT_TRUE(klFileSystem::CreateDirectory(Path("t/a").c_str())); // already there
    EXPECT_FALSE(klFileSystem::CreateDirectory(Path("from.bin/x").c_str()));
    Write("t/a/b/c/f", "1");
    Write("outside/keep", "3");
#if !defined(_WIN32)
    fs::create_directory_symlink(mDir / "outside", mDir / "t/a/link");
#endif
    EXPECT_TRUE(klFileSystem::DeleteTree(Path("t").c_str()));
    EXPECT_FALSE(fs::exists(mDir / "t"));
    EXPECT_TRUE(fs::exists(mDir / "outside/keep")); // a link's target is left alone
    EXPECT_FALSE(klFileSystem::DeleteTree(Path("t").c_str()));
}

TEST_F(KlFileSystemFiles, WideFoldersBecomeNarrowPaths) {
    const std::wstring wide = mDir.wstring() + L"/\u00dcn\u00efc\u00f8de/\u65e5\u672c/";
    ASSERT_TRUE(klFileSystem::CreateDirectoryTreeW(wide.c_str()));
    EXPECT_TRUE(klFileSystem::CreateDirectoryTreeW(wide.c_str())); // already there
    const klString narrow = klFileSystem::ToAsciiPath(wide.c_str(), false);
    EXPECT_TRUE(fs::is_directory(narrow.Const())) << narrow.Const();
#ifndef _WIN32
    EXPECT_EQ(mDir.string() + "/\xc3\x9cn\xc3\xaf" "c\xc3\xb8" "de/\xe6\x97\xa5\xe6\x9c\xac/", narrow.Const());
#endif
    EXPECT_FALSE(klFileSystem::ToAsciiPath((mDir.wstring() + L"/new\u00e9/sub").c_str(), true).IsEmpty());
    keeltest::CaptureLog log;
    EXPECT_TRUE(klFileSystem::ToAsciiPath((mDir.wstring() + L"/gone\u00e9").c_str(), false).IsEmpty());
    EXPECT_EQ(0u, log.Lines().at(0).find("Unable to convert path to Ascii: ")) << log.Lines()[0];
}

TEST(KlFileSystem, MemoryStreams) {
    char buffer[16] = "0123456789", out[11] = {};
    FILE* fp = klFileSystem::OpenMemory(buffer, 10, "+");
    ASSERT_NE(nullptr, fp);
    std::fwrite("abc", 1, 3, fp);
    std::fseek(fp, 0, SEEK_SET);
    EXPECT_EQ(10u, std::fread(out, 1, 10, fp));
    EXPECT_STREQ("abc3456789", out);
    EXPECT_STREQ("", klFileSystem::OpenedPath(fp));
    EXPECT_EQ(0, klFileSystem::Close(fp));
    for (const auto& [size, mode] : {std::pair(10, "ab"), std::pair(10, "r+a"), std::pair(0, "r"), std::pair(10, "x")})
        EXPECT_EQ(nullptr, klFileSystem::OpenMemory(buffer, size, mode)) << mode;
}

TEST(KlFileSystem, LocalFolderAndNetworkCachePaths) {
    const fs::path saved = fs::current_path();
    const fs::path temp = fs::temp_directory_path() / ("klfs-cwd-" + std::to_string(std::random_device()()));
    fs::create_directories(temp);
    ASSERT_TRUE(klFileSystem::SetCurrentDir(temp.string().c_str()));
    const klString& local = klFileSystem::GetLocalAssetsDir();
    klString working;
    ASSERT_TRUE(klFileSystem::GetCurrentDir(&working));
    fs::current_path(saved);
    EXPECT_EQ(std::string(klFileSystem::CombinePath(working, "localassets")) + kSep, local.Const());
    EXPECT_TRUE(fs::is_directory(local.Const()));

    const std::string cache = std::string(klFileSystem::CanonicalPath(local)) + "cache/network";
    const char* const forms[][2] = {{"http://h:80/a/b.txt", "/a/b.txt"}, {"http://", "/%index"},
                                    {"http://h/d/", "/d/%index"},        {"http://h/a..b/..c/.x", "/a..b/..c/.x"}};
    for (const auto& [url, path] : forms)
        EXPECT_EQ(cache + path, klFileSystem::NetworkCachePath(url).Const()) << url;
    klFileSystem::SetNetworkCacheName("game");
    EXPECT_EQ(cache + kSep + "game/x", klFileSystem::NetworkCachePath("http://h/x").Const());
    for (const char* url : {"http://h/a/..", "http://h/a/%2e%2E/x", "http://h/a%2f..%2Fx", "http://h/a\\..\\x",
                            "http://h/. ./x", "http://h/c:/x", "http://h/a%00b", "http://h/a%zz"})
        EXPECT_STREQ("", klFileSystem::NetworkCachePath(url)) << url;
    klFileSystem::SetNetworkCacheName("../up");
    EXPECT_STREQ("", klFileSystem::NetworkCachePath("http://h/x"));
    klFileSystem::SetNetworkCacheName(nullptr);
    EXPECT_EQ(cache + "/x", klFileSystem::NetworkCachePath("http://h/x").Const());
    std::error_code ignored;
    fs::remove_all(temp, ignored);
}
