// Helpers shared by the keel tests. Death tests match stderr by substring: GoogleTest's own
// regex differs between platforms.
#pragma once

#include "keel/klassert.h"
#include "keel/kllog.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <random>
#include <string>
#include <thread>
#include <vector>

#if !defined(_WIN32)
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace keeltest {

// The file's bytes, unchanged ("" when it cannot be read).
inline std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

// Time bounds are set for native code; the emulated 32-bit build (qemu) is several times slower.
#ifdef KEEL_TEST_UNDER_EMULATOR
inline constexpr int kTimeScale = 8;
#else
inline constexpr int kTimeScale = 1;
#endif

// Keeps every assertion report while it lives; Text() joins expression, message and file with '|'.
class CaptureAsserts {
public:
    struct Report {
        std::string expr, message, file;
        int line;
        std::string Text() const { return expr + "|" + message + "|" + file; }
    };
    CaptureAsserts() : mSaved(klAssertReportHook) {
        sActive = this;
        klAssertReportHook = &Hook;
    }
    ~CaptureAsserts() {
        klAssertReportHook = mSaved;
        sActive = nullptr;
    }
    const std::vector<Report>& Reports() const { return mReports; }
    std::vector<std::string> Exprs() const {
        std::vector<std::string> exprs;
        for (const Report& r : mReports) exprs.push_back(r.expr);
        return exprs;
    }

private:
    static void Hook(const char* expr, const char* file, int line, const char* message) {
        sActive->mReports.push_back({expr, message ? message : "", file, line});
    }
    static inline CaptureAsserts* sActive = nullptr;
    klAssertHookFn mSaved;
    std::vector<Report> mReports;
};

// Matches a text holding each needle exactly its count of times (negative: at least once).
class SubstringMatcher : public testing::MatcherInterface<const std::string&> {
public:
    using Needles = std::vector<std::pair<std::string, int>>;
    explicit SubstringMatcher(Needles needles) : mNeedles(std::move(needles)) {}
    bool MatchAndExplain(const std::string& text, testing::MatchResultListener* out) const override {
        for (const auto& [needle, times] : mNeedles) {
            int count = 0;
            for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1))
                ++count;
            if (times < 0 ? count == 0 : count != times) {
                *out << "\"" << needle << "\" found " << count << " times";
                return false;
            }
        }
        return true;
    }
    void DescribeTo(std::ostream* os) const override {
        for (const auto& [needle, times] : mNeedles) *os << "has \"" << needle << "\" x" << times << " ";
    }

private:
    Needles mNeedles;
};

inline testing::Matcher<const std::string&> Has(std::string needle, int times = -1) {
    return testing::MakeMatcher(new SubstringMatcher({{std::move(needle), times}}));
}
inline testing::Matcher<const std::string&> HasAll(SubstringMatcher::Needles needles) {
    return testing::MakeMatcher(new SubstringMatcher(std::move(needles)));
}

// A death test row: what to run, what its stderr must hold, how it must end (keel's code by default).
struct Death {
    void (*run)();
    SubstringMatcher::Needles stderrHas;
    std::function<bool(int)> ends = testing::ExitedWithCode(klDeathExitCode);
};
inline void ExpectDeaths(const std::vector<Death>& deaths) {
    for (size_t i = 0; i < deaths.size(); ++i)
        EXPECT_EXIT(deaths[i].run(), deaths[i].ends, HasAll(deaths[i].stderrHas)) << "row " << i;
}

// A test with a fresh folder under the system's temporary folder, removed after it.
class TempFolderTest : public testing::Test {
protected:
    void SetUp() override {
        mDir = std::filesystem::temp_directory_path() / ("keel-" + std::to_string(std::random_device()()));
        std::filesystem::create_directories(mDir);
    }
    void TearDown() override {
        std::error_code ignored;
        std::filesystem::remove_all(mDir, ignored);
    }
    std::string Path(const std::string& name) const { return (mDir / name).string(); }
    // Writes bytes to the file name inside the folder, making its folders; its path.
    std::string Write(const std::string& name, const std::string& bytes) const {
        std::filesystem::create_directories((mDir / name).parent_path());
        std::ofstream(mDir / name, std::ios::binary) << bytes;
        return Path(name);
    }
    std::filesystem::path mDir;
};

// Replaces the default log sink for its lifetime and keeps every message, expanded, and its
// level. Single-threaded use.
class CaptureLog {
public:
    CaptureLog() {
        sActive = this;
        klSetDefaultLogSink(&Sink);
    }
    ~CaptureLog() {
        klSetDefaultLogSink(nullptr);
        sActive = nullptr;
    }
    const std::vector<std::string>& Lines() const { return mLines; }
    std::vector<uint32_t> Levels() const { return mLevels; }

private:
    static void Sink(uint32_t level, const char*, const char* message, va_list* args) {
        char line[2048];
        if (args) {
            va_list copy;
            va_copy(copy, *args);
            std::vsnprintf(line, sizeof(line), message, copy);
            va_end(copy);
        } else {
            std::snprintf(line, sizeof(line), "%s", message);
        }
        sActive->mLines.push_back(line);
        sActive->mLevels.push_back(level);
    }
    static inline CaptureLog* sActive = nullptr;
    std::vector<std::string> mLines;
    std::vector<uint32_t> mLevels;
};

#if !defined(_WIN32)
// A FIFO at path for its lifetime. A thread keeps opening it for writing, which releases a
// reader stuck in open(): code that wrongly reads the FIFO fails its test instead of hanging.
class ReleasedFifo {
public:
    explicit ReleasedFifo(const std::string& path) : mPath(path) {
        mkfifo(path.c_str(), 0600);
        mThread = std::thread([this] {
            while (!mDone) {
                int fd = open(mPath.c_str(), O_WRONLY | O_NONBLOCK);
                if (fd >= 0) close(fd);
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
        });
    }
    ~ReleasedFifo() {
        mDone = true;
        mThread.join();
    }

private:
    std::string mPath;
    std::atomic<bool> mDone{false};
    std::thread mThread;
};
#endif

} // namespace keeltest
