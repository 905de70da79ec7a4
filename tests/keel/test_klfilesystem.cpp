#include "keel_test.h"

#include "keel/klbuffer.h"
#include "keel/klfilesystem.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace fs = std::filesystem;

namespace {

const std::string kSep(1, kl::platform::PathSeparator());

std::string Normalized(std::string path) {
    std::vector<char> buffer(path.begin(), path.end());
    buffer.push_back(0);
    klFileSystem::NormalizeOpenPath(buffer.data());
    return buffer.data();
}

bool IsTracked(FILE* fp) {
    return !klFileSystem::OpenedPath(fp).IsEmpty();
}

std::vector<std::string> Names(const std::vector<klString>& list, size_t from = 0) {
    std::vector<std::string> names;
    for (size_t i = from; i < list.size(); ++i)
        names.push_back(list[i].Const());
    std::sort(names.begin(), names.end());
    return names;
}

// A fresh folder under the system's temporary folder, removed again after each test.
class KlFileSystemFiles : public testing::Test {
protected:
    void SetUp() override {
        mDir = fs::temp_directory_path() / ("klfs-" + std::to_string(std::random_device()()));
        fs::create_directories(mDir);
    }
    void TearDown() override {
        std::error_code ignored;
        fs::remove_all(mDir, ignored);
    }
    std::string Path(const std::string& name) const { return (mDir / name).string(); }
    std::string Write(const std::string& name, const std::string& bytes) const {
        std::ofstream(mDir / name, std::ios::binary) << bytes;
        return Path(name);
    }
    // Opens path n times for reading and checks that each stream opened.
    static std::vector<FILE*> OpenMany(const std::string& path, int n) {
        std::vector<FILE*> streams;
        for (int i = 0; i < n; ++i) {
            streams.push_back(klFileSystem::Open(path.c_str(), "rb"));
            EXPECT_NE(nullptr, streams.back()) << i;
        }
        return streams;
    }
    static void CloseAll(std::vector<FILE*>& streams) {
        for (FILE* fp : streams)
            klFileSystem::Close(fp);
        streams.clear();
    }

    fs::path mDir;
};

} // namespace

TEST(KlFileSystem, CombinePathJoinsWithExactlyOneSeparator) {
    using klFileSystem::CombinePath;
    EXPECT_STREQ("a\\b", CombinePath("a\\", "\\b"));
    EXPECT_STREQ(("a" + kSep + "b").c_str(), CombinePath("a", "b"));
    EXPECT_STREQ("a/b", CombinePath("a/", "b"));
    EXPECT_STREQ("a/b", CombinePath("a", "/b"));
    EXPECT_STREQ("a\\b", CombinePath("a/", "\\b"));
    EXPECT_STREQ("a//b", CombinePath("a//", "/b")); // only one separator is dropped
    EXPECT_STREQ("c:\\x", CombinePath("a", "c:\\x"));
    EXPECT_STREQ("http://h/x", CombinePath("base", "http://h/x"));
    EXPECT_STREQ("b", CombinePath("", "b"));
    EXPECT_STREQ("a", CombinePath("a", ""));
}

TEST(KlFileSystem, CanonicalAndNativeSeparators) {
    using klFileSystem::CanonicalPath;
    EXPECT_STREQ("a/b/c", CanonicalPath("a\\b/c"));
    EXPECT_STREQ("c:/dir/f", CanonicalPath("c:\\dir\\\\f"));
    EXPECT_STREQ("c://x", CanonicalPath("c://x"));
    EXPECT_STREQ("//server/share", CanonicalPath("\\\\server\\\\share"));
    EXPECT_STREQ("http://host/a/b", CanonicalPath("http://host//a\\\\b"));
    EXPECT_STREQ("a//b", CanonicalPath("a///b")); // one halving pass only
    EXPECT_STREQ("", CanonicalPath(""));

    char path[] = "a/b\\c";
    klFileSystem::ToNativeSeparators(path);
    EXPECT_STREQ(("a" + kSep + "b" + kSep + "c").c_str(), path);
}

TEST(KlFileSystem, OpenedPathNormalisation) {
    EXPECT_EQ("c:\\dir//f.txt", Normalized("c:\\dir\\\\\\f.txt"));
    EXPECT_EQ("c:\\x", Normalized("c:/x"));
    EXPECT_EQ("\\\\srv/share/f", Normalized("\\\\srv\\share\\\\f"));
    EXPECT_EQ("\\\\srv/x", Normalized("//srv//x"));
    EXPECT_EQ("/", Normalized("\\\\")); // too short to be a share
    EXPECT_EQ("http://h/a//b", Normalized("http://h//a///b"));
    EXPECT_EQ("a//b/c", Normalized("a////b//c"));
}

TEST_F(KlFileSystemFiles, OpenKeepsNormalisedPathAndCutsLongOnes) {
    fs::create_directory(mDir / "sub");
    Write("sub/f.txt", "hello");
    std::string dir = mDir.string();
    FILE* fp = klFileSystem::Open((dir + "\\sub\\\\\\f.txt").c_str(), "rb");
    ASSERT_NE(nullptr, fp);
    std::replace(dir.begin(), dir.end(), '\\', '/');
    if (dir.size() > 2 && dir[1] == ':') dir[2] = '\\';
    EXPECT_STREQ((dir + "/sub//f.txt").c_str(), klFileSystem::OpenedPath(fp));
    EXPECT_EQ(0, klFileSystem::Close(fp));
    EXPECT_TRUE(klFileSystem::OpenedPath(fp).IsEmpty());

    // 1023 characters name the file (a long run of separators stands for one); what
    // follows them must be ignored, even the very next character.
    const std::string head = mDir.string();
    std::string path = head + std::string(1023 - head.size() - 9, '/') + "sub/f.txt";
    ASSERT_EQ(1023u, path.size());
    path += "x/more";
    fp = klFileSystem::Open(path.c_str(), "rb");
    ASSERT_NE(nullptr, fp);
    char text[8] = {};
    EXPECT_EQ(5u, std::fread(text, 1, sizeof text, fp));
    EXPECT_STREQ("hello", text);
    EXPECT_EQ(0, klFileSystem::Close(fp));
    EXPECT_EQ(nullptr, klFileSystem::Open(Path("missing.txt").c_str(), "rb"));
}

TEST_F(KlFileSystemFiles, TableTracks256StreamsAndCloseFreesOnlyTrackedSlots) {
    const std::string path = Write("f.bin", "x");
    std::vector<FILE*> tracked = OpenMany(path, 256);
    for (FILE* fp : tracked)
        EXPECT_TRUE(IsTracked(fp));

    FILE* extra = klFileSystem::Open(path.c_str(), "rb");
    ASSERT_NE(nullptr, extra);
    EXPECT_FALSE(IsTracked(extra));
    EXPECT_EQ(0, klFileSystem::Close(extra)); // fclose's own result
    extra = klFileSystem::Open(path.c_str(), "rb");
    EXPECT_FALSE(IsTracked(extra)) << "closing an untracked stream released a slot";
    klFileSystem::Close(extra);

    EXPECT_EQ(0, klFileSystem::Close(tracked[100]));
    tracked[100] = klFileSystem::Open(path.c_str(), "rb");
    EXPECT_TRUE(IsTracked(tracked[100]));
    extra = klFileSystem::Open(path.c_str(), "rb");
    EXPECT_FALSE(IsTracked(extra));
    klFileSystem::Close(extra);
    CloseAll(tracked);
    EXPECT_EQ(EOF, klFileSystem::Close(nullptr));
}

TEST_F(KlFileSystemFiles, LoadZAppendsZeroAndKeepsBlobForEmptyFile) {
    klBlob blob;
    ASSERT_TRUE(klFileSystem::LoadZ(Write("ten.txt", "0123456789").c_str(), blob));
    ASSERT_EQ(11u, blob.Size());
    EXPECT_EQ(0, std::memcmp("0123456789", blob.ConstPtr(0), 11));

    const std::string binary("\0\x01\r\n\x1a\xff\0z", 8);
    ASSERT_TRUE(klFileSystem::LoadZ(Write("bin.dat", binary).c_str(), blob));
    ASSERT_EQ(9u, blob.Size());
    EXPECT_EQ(binary, std::string(reinterpret_cast<const char*>(blob.ConstPtr(0)), 8));
    EXPECT_EQ(0, blob.ConstPtr(0)[8]);

    blob.Set("prev", 4);
    EXPECT_TRUE(klFileSystem::LoadZ(Write("empty.txt", "").c_str(), blob));
    ASSERT_EQ(4u, blob.Size());
    EXPECT_EQ(0, std::memcmp("prev", blob.ConstPtr(0), 4));
    EXPECT_FALSE(klFileSystem::LoadZ(Path("missing.txt").c_str(), blob));
    EXPECT_EQ(4u, blob.Size());
}

TEST_F(KlFileSystemFiles, LoadTextReadsInTextMode) {
    klString text("old");
    ASSERT_TRUE(klFileSystem::LoadText(Write("t.txt", "one\r\ntwo\r\n").c_str(), &text));
#if defined(_WIN32)
    EXPECT_STREQ("one\ntwo\n", text); // shorter than the file: cut to what was read
    EXPECT_EQ(8u, text.Size());
#else
    EXPECT_STREQ("one\r\ntwo\r\n", text);
#endif
    EXPECT_TRUE(klFileSystem::LoadText(Write("e.txt", "").c_str(), &text));
    EXPECT_STREQ("", text);
    text = "kept";
    EXPECT_FALSE(klFileSystem::LoadText(Path("missing.txt").c_str(), &text));
    EXPECT_STREQ("kept", text);

    keeltest::CaptureAsserts asserts;
    EXPECT_FALSE(klFileSystem::LoadText(Path("t.txt").c_str(), nullptr));
    ASSERT_EQ(1u, asserts.Reports().size());
    EXPECT_EQ("output != NULL", asserts.Reports()[0].expr);
    EXPECT_EQ("core/keel/klfilesystem.cpp", asserts.Reports()[0].file);
}

TEST_F(KlFileSystemFiles, ListingsAndExistence) {
    Write("a.cfg", "a");
    fs::create_directory(mDir / "b.cfg");
    Write("c.txt", "c");
    Write("D.CFG", "d");
    const std::string dir = mDir.string();

    std::vector<klString> files{"keep"};
    klFileSystem::DirectoryContents(dir.c_str(), "*.cfg", files);
    ASSERT_FALSE(files.empty());
    EXPECT_STREQ("keep", files[0]);
    EXPECT_EQ((std::vector<std::string>{"D.CFG", "a.cfg"}), Names(files, 1));
    files.clear();
    klFileSystem::DirectoryContents(dir.c_str(), nullptr, files);
    EXPECT_EQ((std::vector<std::string>{"D.CFG", "a.cfg", "c.txt"}), Names(files));
    klFileSystem::DirectoryContents(Path("missing").c_str(), "*.cfg", files);
    EXPECT_EQ(3u, files.size());

    std::vector<klString> folders, others;
    klFileSystem::ListDirectory((dir + "/").c_str(), folders, others);
    EXPECT_EQ((std::vector<std::string>{"b.cfg"}), Names(folders));
    EXPECT_EQ((std::vector<std::string>{"D.CFG", "a.cfg", "c.txt"}), Names(others));

    EXPECT_TRUE(klFileSystem::FileExists((dir + "/*.CfG").c_str()));
    EXPECT_TRUE(klFileSystem::FileExists((dir + "/c.txt").c_str()));
    EXPECT_TRUE(klFileSystem::FileExists((dir + "\\b.cfg").c_str())); // a folder counts
    EXPECT_TRUE(klFileSystem::FileExists(dir.c_str()));
    EXPECT_FALSE(klFileSystem::FileExists((dir + "/*.ini").c_str()));
    EXPECT_FALSE(klFileSystem::FileExists(Path("missing/x").c_str()));
    EXPECT_FALSE(klFileSystem::FileExists(""));
}

TEST_F(KlFileSystemFiles, FileStreamOverTrackedFile) {
    keeltest::CaptureAsserts asserts;
    klFileStream closed;
    char byte = 'z';
    EXPECT_EQ(0u, closed.Read(&byte, 1));
    EXPECT_EQ(0u, closed.Write(&byte, 1));
    closed.Seek(klSeekStart, 0);
    EXPECT_EQ(0u, closed.Tell());
    EXPECT_EQ((std::vector<std::string>{"IsOpen()", "IsOpen()", "IsOpen()"}), asserts.Exprs());
    EXPECT_EQ("core/keel/klfilesystem.h", asserts.Reports()[0].file);
    asserts.Clear();

    klFileStream file;
    ASSERT_TRUE(file.Open(Path("s.bin").c_str(), "w+b"));
    EXPECT_TRUE(IsTracked(file.File()));
    klStream& stream = file;
    EXPECT_EQ(10u, stream.Write("0123456789", 10));
    EXPECT_EQ(0u, stream.Write(nullptr, 4));
    EXPECT_EQ(10u, stream.Tell());
    stream.Seek(klSeekEnd, -3);
    EXPECT_EQ(7u, stream.Tell());
    char out[8] = {};
    EXPECT_EQ(3u, stream.Read(out, 5));
    EXPECT_STREQ("789", out);
    stream.Seek(klSeekStart, 2);
    stream.Seek(klSeekCurrent, 1);
    EXPECT_EQ(3u, stream.Tell());
    EXPECT_TRUE(asserts.Reports().empty());
    file.Close();
    EXPECT_FALSE(file.IsOpen());
    EXPECT_EQ(10u, fs::file_size(mDir / "s.bin"));
}

TEST_F(KlFileSystemFiles, ConcurrentOpenCloseLosesNoSlot) {
    constexpr int kThreads = 8, kRounds = 300;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        const std::string path = Write("t" + std::to_string(t) + ".txt", std::to_string(t));
        threads.emplace_back([path, &failures] {
            const std::string expected = Normalized(path);
            for (int i = 0; i < kRounds; ++i) {
                FILE* fp = klFileSystem::Open(path.c_str(), "rb");
                // With far fewer streams than slots, every one must be tracked, and
                // under its own name.
                if (!fp || expected != klFileSystem::OpenedPath(fp).Const()) ++failures;
                if (fp && klFileSystem::Close(fp) != 0) ++failures;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(0, failures.load());

    std::vector<FILE*> all = OpenMany(Path("t0.txt"), 257);
    for (int i = 0; i < 256; ++i)
        EXPECT_TRUE(IsTracked(all[i])) << i;
    EXPECT_FALSE(IsTracked(all[256]));
    CloseAll(all);
}
