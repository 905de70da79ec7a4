#include "keel_test.h"

#include "keel/klfilesystem.h"
#include "keel/kllog.h"
#include "keel/klplatform.h"

#include <cstdarg>
#include <sstream>

#ifndef _WIN32
#include <fcntl.h>
#include <unistd.h>
#endif

namespace {

namespace fs = std::filesystem;

struct FixedTime {
    FixedTime() {
        klLogClock = [](std::tm* out) {
            *out = std::tm{};
            out->tm_year = 126, out->tm_mon = 0, out->tm_mday = 2, out->tm_hour = 3, out->tm_min = 4, out->tm_sec = 5;
        };
    }
    ~FixedTime() { klLogClock = kl::detail::LocalTimeNow; }
};

std::string Tid() {
    char text[16];
    std::snprintf(text, sizeof(text), "(%05u)", kl::platform::CurrentThreadId());
    return text;
}

std::string ReadAll(const fs::path& path) {
    std::stringstream text;
    text << std::ifstream(path).rdbuf(); // text mode: "\r\n" reads as "\n" on Windows
    return text.str();
}

std::vector<std::string> gSeen;
void RecordingSink(uint32_t level, const char* tag, const char* message, va_list* args) {
    char text[256];
    if (args) std::vsnprintf(text, sizeof(text), message, *args);
    gSeen.push_back(std::string(klLogLevelName(level)) + "|" + tag + "|" + (args ? text : message));
}
klLogFunc gRecording = RecordingSink;

} // namespace

TEST(LogTest, TagsLevelNamesAndConsoleAttributes) {
    const std::pair<const char*, const char*> tags[] = {
        {"a%b", "  A_B  "}, {"Networking", "NETWORK"}, {"DEATH", " DEATH "}, {"", "       "}};
    for (const auto& [name, tag] : tags) EXPECT_STREQ(tag, klLogger(name).Tag());
    EXPECT_STREQ("NOTCE", klLogLevelName(klLogNotice));
    EXPECT_STREQ("?????", klLogLevelName(7));
    const std::pair<const char*, int32_t> names[] = {{"Warning", klLogWarn}, {"error or info", klLogInfo},
                                                     {"TRACE", klLogTrace},  {"nothing", klLogNothing},
                                                     {"", klLogInfo}};
    for (const auto& [name, level] : names) EXPECT_EQ(level, klLogger::LevelFromName(name)) << name;
    // Without intensity to drop the colours are inverted; bright ones lose the intensity.
    const int attributes[][3] = {{7, klLogTrace, 8},     {15, klLogDebug, 7}, {7, klLogNotice, 0x80F8},
                                 {7, klLogWarn, 14},     {7, klLogError, 78}, {7, klLogNothing, 78}};
    for (const auto& a : attributes) EXPECT_EQ(a[2], kl::detail::LogConsoleAttribute(uint16_t(a[0]), a[1])) << a[1];
}

// A change of the minimum is announced at info level, when the old minimum lets it through.
TEST(LogTest, FilteringLevelsAndTheMinimumChange) {
    gSeen.clear();
    klLogger log("net", &gRecording, klLogWarn);
    log.Info("hidden %d", 1);
    log.Warn("shown %d", 2);
    log.Error("%s", "err");
    log.SetLevel(klLogTrace); // announced under warn: silent
    log.SetLevel(klLogError);
    log.SetLevel(klLogError);
    log.SetLevel(klLogTrace);
    log.SetLevel(klLogDebug, true);
    EXPECT_EQ((std::vector<std::string>{"WARN |  NET  |shown 2", "ERROR|  NET  |err",
                                        "INFO |  NET  |Minimum LogLevel changing to ERROR"}),
              gSeen);

    keeltest::CaptureAsserts capture;
    log.SetLevel(klLogError, true);
    log.Log(klLogInfo, "below", nullptr);
    EXPECT_EQ("INFO |  NET  |below", gSeen.back());
    klLogFunc none = nullptr;
    klLogger("x", &none, klLogTrace).Error("dropped");
    EXPECT_EQ((std::vector<std::string>{"lvl >= mLevel", "mLogger != NULL && (*mLogger) != NULL"}), capture.Exprs());

    klLogger follower("def", nullptr, klLogTrace);
    EXPECT_EQ(&RecordingSink, klSetDefaultLogSink(RecordingSink));
    follower.Debug("to %s", "recorder");
    EXPECT_EQ(&klConsoleLogSink, klSetDefaultLogSink(nullptr));
    EXPECT_EQ("DEBUG|  DEF  |to recorder", gSeen.back());
}

// Lines reach the disk at once; a broken tag shows as BAD MEM; a closed file is continued.
using LogFileTest = keeltest::TempFolderTest;
TEST_F(LogFileTest, FileSinkWritesExactLinesAndFlushes) {
    FixedTime fixed;
    klFileSystem::SetLogDir(nullptr);
    klFileSystem::SetLogDir("");
    EXPECT_STREQ("console.log", klFileSystem::GetLogFile().Const());
    klFileSystem::SetLogDir((mDir / "a" / "b").string().c_str());
    const fs::path file = mDir / "a" / "b" / "console.log";
    EXPECT_EQ(file.string(), klFileSystem::GetLogFile().Const());

    klLogFunc sink = klFileLogSink;
    klLogger log("File%", &sink, klLogTrace);
    log.Info("%d%% of %s", 50, "it");
    log.Log(klLogWarn, "%d%% raw", nullptr);
    const char damaged[8] = {'X', 'X', 'X', 'X', 'X', 'X', 'X', 'X'};
    klFileLogSink(klLogError, damaged, "tag", nullptr);
    const std::string at = " 2026-01-02 03:04:05 ";
    const std::string expected = "INFO " + at + " FILE_  " + Tid() + " 50% of it\nWARN " + at + " FILE_  " + Tid() +
                                 " %d%% raw\nERROR" + at + "BAD MEM " + Tid() + " tag\n";
    EXPECT_EQ(expected, ReadAll(file));
    klCloseLogFile();
    klFileLogSink(klLogInfo, "       ", "again", nullptr);
    klCloseLogFile();
    EXPECT_EQ(expected + "INFO " + at + "        " + Tid() + " again\n", ReadAll(file));

#ifndef _WIN32 // the narrow Windows file calls stop at 260 characters
    fs::path dir = mDir;
    while (dir.string().size() < 1100) dir /= std::string(200, 'd');
    klFileSystem::SetLogDir(dir.string().c_str());
    for (const char* message : {"one", "two"}) klFileLogSink(klLogInfo, "       ", message, nullptr);
    klCloseLogFile();
    const std::string prefix = "INFO " + at + "        " + Tid() + " ";
    EXPECT_EQ(prefix + "one\n" + prefix + "two\n", ReadAll(dir / "console.log"));
#endif
}

static void FileLine(const char* tag, const char* format, ...) {
    va_list args;
    va_start(args, format);
    klFileLogSink(klLogInfo, tag, format, &args);
    va_end(args);
}

// The prefix is written by hand for ordinary dates and by printf for odd ones; both must
// match printf's format. A '%' in the prefix is expanded in the second pass, and a message
// too long for one pass is cut with the line's format.
TEST_F(LogFileTest, FileSinkLinesMatchTheFormatForEveryDate) {
    klFileSystem::SetLogDir(mDir.string().c_str());
    static std::tm sDate;
    klLogClock = [](std::tm* out) { *out = sDate; };
    const int dates[][6] = {{126, 0, 2, 3, 4, 5}, {9000, 11, 31, 23, 59, 60}, {-1901, -2, -3, 100, -1, 0}, {0, 8, 9, 0, 0, 7}};
    std::string expected;
    for (const auto& d : dates) {
        sDate = std::tm{};
        sDate.tm_year = d[0], sDate.tm_mon = d[1], sDate.tm_mday = d[2], sDate.tm_hour = d[3], sDate.tm_min = d[4];
        sDate.tm_sec = d[5];
        FileLine("  DATE ", "n=%d", d[0]);
        char line[160];
        std::snprintf(line, sizeof(line), "INFO  %04d-%02d-%02d %02d:%02d:%02d   DATE  (%05u) n=%d\n", d[0] + 1900, d[1] + 1,
                      d[2], d[3], d[4], d[5], kl::platform::CurrentThreadId(), d[0]);
        expected += line;
    }
    FileLine("100%%ok", "n=%d", 7);
    FileLine("  DATE ", std::string(klLogLineMax, 'x').c_str(), 0);
    klCloseLogFile();
    klLogClock = kl::detail::LocalTimeNow;
    const std::string text = ReadAll(mDir / "console.log");
    ASSERT_EQ(0u, text.find(expected)) << text;
    const std::string rest = text.substr(expected.size());
    EXPECT_EQ(0u, rest.find("INFO  1900-09-09 00:00:07 100%ok " + Tid() + " n=7\nINFO ")) << rest;
    // The expanded format is cut at klLogLineMax - 1 bytes, its line feed among the lost.
    EXPECT_EQ(klLogLineMax - 1, rest.size() - rest.rfind("INFO "));
}

#ifndef _WIN32
// Colours go to a terminal only, each line's switched back off; a file gets plain text.
TEST(LogTest, ColoursOnlyOnATerminal) {
    const int master = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(master, 0);
    ASSERT_EQ(0, grantpt(master) | unlockpt(master));
    FILE* terminal = std::fopen(ptsname(master), "w");
    ASSERT_NE(nullptr, terminal);
    for (uint32_t level : {klLogWarn, klLogInfo}) {
        const uint32_t saved = kl::detail::BeginLogColour(terminal, level);
        std::fputs("x", terminal);
        kl::detail::EndLogColour(terminal, saved);
    }
    std::fclose(terminal);
    char seen[64] = {};
    EXPECT_EQ("\033[1;33mx\033[0mx", std::string(seen, size_t(read(master, seen, sizeof(seen)))));
    close(master);
    FILE* file = std::tmpfile();
    EXPECT_EQ(0u, kl::detail::BeginLogColour(file, klLogWarn));
    std::fclose(file);
}
#endif

// Errors go to stderr, the rest to stdout, uncoloured off a console; threads' lines stay whole.
TEST(LogDeathTest, ConcurrentConsoleSinkPicksTheStreamByLevelAndKeepsLinesWhole) {
    auto body = [] {
        const fs::path out = fs::temp_directory_path() / "kllog-console.txt";
        FixedTime fixed;
        keeltest::CaptureAsserts capture;
        if (!std::freopen(out.string().c_str(), "w", stdout)) std::exit(3);
        klLogger log("net", nullptr, klLogTrace);
        log.Warn("same %d", 1);
        log.Error("same %d", 1);
        klSysLog("sys %s", "up");
        klConsoleLogSink(9, "  ODD  ", "odd", nullptr);
        std::vector<std::thread> threads;
        for (int t = 0; t < 8; ++t)
            threads.emplace_back([] {
                klLogger own("net", nullptr, klLogTrace);
                for (int i = 0; i < 300; ++i) own.Info("%s", "payload-payload-payload");
            });
        for (std::thread& thread : threads) thread.join();
        std::fclose(stdout);
        std::istringstream lines(ReadAll(out));
        int whole = 0;
        for (std::string line; std::getline(lines, line);)
            whole += line.rfind("INFO  2026-01-02 03:04:05   NET   (", 0) == 0 &&
                     line.find(") payload-payload-payload") == line.size() - 25;
        std::fprintf(stderr, "asserts=%s whole=%d\nOUT<%s>\n", capture.Exprs().at(0).c_str(), whole,
                     ReadAll(out).substr(0, 200).c_str());
        fs::remove(out);
        std::exit(0);
    };
    EXPECT_EXIT(body(), testing::ExitedWithCode(0),
                keeltest::HasAll({{"ERROR 2026-01-02 03:04:05   NET   (", 1},
                                  {") same 1\n", 2},
                                  {"asserts=unknown log enum whole=2400\nOUT<WARN  2026-01-02 03:04:05   NET   (", 1},
                                  {"\nNOTCE 2026-01-02 03:04:05 SYSLOG  (", 1},
                                  {") sys up\n", 1},
                                  {"\n????? 2026-01-02 03:04:05   ODD   (", 1},
                                  {"\033", 0}}));
}
