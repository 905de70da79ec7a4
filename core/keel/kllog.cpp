#include "keel/kllog.h"

#include "keel/klassert.h"
#include "keel/klfilesystem.h"
#include "keel/kllock.h"
#include "keel/klplatform.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>

klLogClockFn klLogClock = kl::detail::LocalTimeNow;

namespace {

// Fixed 6-byte entries; "NOTCE" keeps notice to the five columns of the others.
const char kLevelNames[][6] = {"TRACE", "DEBUG", "INFO ", "NOTCE", "WARN ", "ERROR", "NONE "};
// Everything before the message: level, local time, tag and thread.
const char kPrefixFormat[] = "%5s %04d-%02d-%02d %02d:%02d:%02d %7s (%05u) ";

klLogFunc gDefaultSink = klConsoleLogSink;

klMutex& LogLock() {
    static klMutex lock("klLogLock");
    return lock;
}

char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// Whether text holds word (lower case) anywhere, without regard to case.
bool HoldsWord(const char* text, const char* word) {
    for (; *text; ++text) {
        size_t i = 0;
        while (word[i] && Lower(text[i]) == word[i]) ++i;
        if (!word[i]) return true;
    }
    return false;
}

// Writes text right-justified in width columns (printf's "%*s").
char* PutText(char* at, const char* text, size_t width) {
    const size_t length = std::strlen(text);
    for (size_t i = length; i < width; ++i) *at++ = ' ';
    std::memcpy(at, text, length);
    return at + length;
}

// Writes value with at least width digits, zeros in front (printf's "%0*u"), then after.
char* PutNumber(char* at, uint64_t value, int width, char after) {
    char digits[24];
    int count = 0;
    do digits[count++] = char('0' + value % 10);
    while ((value /= 10) != 0);
    for (int i = count; i < width; ++i) *at++ = '0';
    while (count > 0) *at++ = digits[--count];
    *at++ = after;
    return at;
}

// The text kPrefixFormat makes of these fields, and its length. printf costs more than
// the rest of a line, so the usual fields are written by hand; a negative one (a clock
// hook's odd date) takes printf, whose sign and padding rules are the reference.
int FormatPrefix(char (&out)[96], const char* name, const std::tm& t, const char* tag, unsigned thread) {
    const long long fields[] = {t.tm_year + 1900LL, t.tm_mon + 1LL, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec};
    if (std::strlen(name) > 16 || std::strlen(tag) > 16 || *std::min_element(fields, fields + 6) < 0)
        return std::snprintf(out, sizeof(out), kPrefixFormat, name, t.tm_year + 1900, t.tm_mon + 1, t.tm_mday,
                             t.tm_hour, t.tm_min, t.tm_sec, tag, thread);
    char* at = PutText(out, name, 5);
    *at++ = ' ';
    const char separators[] = "-- :: "; // after year, month, day, hour, minute and second
    for (int i = 0; i < 6; ++i) at = PutNumber(at, uint64_t(fields[i]), i == 0 ? 4 : 2, separators[i]);
    at = PutText(at, tag, 7);
    *at++ = ' ';
    *at++ = '(';
    at = PutNumber(at, thread, 5, ')');
    *at++ = ' ';
    *at = 0;
    return int(at - out);
}

// One whole line on out. With args, the line format is expanded first with the message
// as its text and the result formats the arguments, so the message's own directives are
// filled in the second pass. Where that changes nothing (the prefix holds no '%' and the
// expanded format is not cut to klLogLineMax), the message is formatted straight after the
// prefix instead: the same bytes for half the formatting.
void WriteLine(FILE* out, uint32_t level, const char* tag, const char* message, va_list* args) {
    std::tm t{};
    klLogClock(&t);
    char prefix[96];
    const int length = FormatPrefix(prefix, klLogLevelName(level), t, tag, kl::platform::CurrentThreadId());
    if (!args) {
        std::fprintf(out, "%s%s\n", prefix, message);
        return;
    }
    va_list copy;
    va_copy(copy, *args);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    if (!std::strchr(prefix, '%') && size_t(length) + std::strlen(message) + 1 < klLogLineMax) {
        std::fputs(prefix, out);
        std::vfprintf(out, message, copy);
        std::fputc('\n', out);
    } else {
        char format[klLogLineMax];
        std::snprintf(format, sizeof(format), "%s%s\n", prefix, message);
        std::vfprintf(out, format, copy);
    }
#pragma GCC diagnostic pop
    va_end(copy);
}

// A tag whose terminator was overwritten is not trusted as a text.
const char* CheckedTag(const char* tag) { return tag && tag[7] == 0 ? tag : "BAD MEM"; }

// The file sink's open log and the path it was opened by, whole however long it is
// (a cut copy would never match again and restart the file on every line). It comes from
// the C heap and is kept for the process's life, so it outlives every logger.
FILE* gLogFile = nullptr;
char* gLogFilePath = nullptr;

void RememberLogPath(const char* path) {
    const size_t size = std::strlen(path) + 1;
    if (char* copy = static_cast<char*>(std::realloc(gLogFilePath, size))) {
        std::memcpy(copy, path, size);
        gLogFilePath = copy;
    }
}

FILE* LogFileFor(const char* path) {
    bool samePath = gLogFilePath && std::strcmp(gLogFilePath, path) == 0;
    if (gLogFile && samePath) return gLogFile;
    if (gLogFile) std::fclose(gLogFile);
    if (!samePath) RememberLogPath(path);
    // A new path starts a fresh log; a file closed in between is continued.
    gLogFile = std::fopen(path, samePath ? "a" : "w");
    return gLogFile;
}

} // namespace

const char* klLogLevelName(uint32_t level) {
    return level <= klLogNothing ? kLevelNames[level] : "?????";
}

klLogger::klLogger(const char* name, klLogFunc* sink, int32_t level)
    : mLevel(level), mLogger(sink ? sink : &gDefaultSink) {
    std::memset(mTag, ' ', 7);
    mTag[7] = 0;
    size_t length = name ? std::strlen(name) : 0;
    size_t column = length < 7 ? (7 - length) / 2 : 0;
    for (const char* c = name; c && *c && column < 7; ++c, ++column)
        mTag[column] = *c == '%' ? '_' : static_cast<char>(*c >= 'a' && *c <= 'z' ? *c - 'a' + 'A' : *c);
    klAssert(mLogger != NULL);
}

// The level functions differ only in their level; each costs one comparison when filtered.
#define KL_LOG_LEVEL_FUNCTION(Name, level)            \
    void klLogger::Name(const char* format, ...) {    \
        if (mLevel > (level)) return;                 \
        va_list args;                                 \
        va_start(args, format);                       \
        Log((level), format, &args);                  \
        va_end(args);                                 \
    }
KL_LOG_LEVEL_FUNCTION(Trace, klLogTrace)
KL_LOG_LEVEL_FUNCTION(Debug, klLogDebug)
KL_LOG_LEVEL_FUNCTION(Info, klLogInfo)
KL_LOG_LEVEL_FUNCTION(Notice, klLogNotice)
KL_LOG_LEVEL_FUNCTION(Warn, klLogWarn)
KL_LOG_LEVEL_FUNCTION(Error, klLogError)
#undef KL_LOG_LEVEL_FUNCTION

void klLogger::Log(int32_t lvl, const char* message, va_list* args) {
    klAssert(lvl >= mLevel);
    if (!klAssert(mLogger != NULL && (*mLogger) != NULL)) return;
    (*mLogger)(static_cast<uint32_t>(lvl), mTag, message, args);
}

void klLogger::SetLevel(int32_t lvl, bool quiet) {
    if (lvl != mLevel && !quiet) Info("Minimum LogLevel changing to %s", klLogLevelName(static_cast<uint32_t>(lvl)));
    mLevel = lvl;
}

int32_t klLogger::LevelFromName(const char* name) {
    static const char* const kWords[] = {"trace", "debug", "info", "warn", "error", "notice", "nothing"};
    static const int32_t kLevels[] = {klLogTrace, klLogDebug, klLogInfo, klLogWarn, klLogError, klLogNotice, klLogNothing};
    for (size_t i = 0; name && i < sizeof(kWords) / sizeof(kWords[0]); ++i)
        if (HoldsWord(name, kWords[i])) return kLevels[i];
    return klLogInfo;
}

void klConsoleLogSink(uint32_t level, const char* tag, const char* message, va_list* args) {
    tag = CheckedTag(tag);
    klScopedLock<klMutex> hold(LogLock());
    bool known = level <= klLogNothing;
    klAssertAs(known, "unknown log enum");
    FILE* out = level == klLogError ? stderr : stdout;
    uint32_t saved = known ? kl::detail::BeginLogColour(out, level) : 0;
    WriteLine(out, level, tag, message ? message : "", args);
    std::fflush(out);
    if (known) kl::detail::EndLogColour(out, saved);
}

void klFileLogSink(uint32_t level, const char* tag, const char* message, va_list* args) {
    tag = CheckedTag(tag);
    klScopedLock<klMutex> hold(LogLock());
    FILE* out = LogFileFor(klFileSystem::GetLogFile().Const());
    if (!out) return;
    WriteLine(out, level, tag, message ? message : "", args);
    std::fflush(out); // a crash right after the line must not lose it
}

void klCloseLogFile() {
    klScopedLock<klMutex> hold(LogLock());
    if (gLogFile) std::fclose(gLogFile);
    gLogFile = nullptr;
}

klLogFunc klSetDefaultLogSink(klLogFunc sink) {
    gDefaultSink = sink ? sink : klConsoleLogSink;
    return gDefaultSink;
}

void klSysLogV(const char* message, va_list* args) { klConsoleLogSink(klLogNotice, "SYSLOG ", message, args); }

void klSysLog(const char* format, ...) {
    va_list args;
    va_start(args, format);
    klSysLogV(format, &args);
    va_end(args);
}

klLogger& klConsoleLogger() {
    static klLogger console("Console"); // trivially destructible: outlives every user
    return console;
}

void klLogFlush() {
    klScopedLock<klMutex> hold(LogLock());
    std::fflush(nullptr);
}

uint16_t kl::detail::LogConsoleAttribute(uint16_t a, uint32_t level) {
    switch (level) {
    case klLogTrace:
    case klLogDebug: // dimmer than the text around it
        return ((a ^ (a >> 8)) & 8) ? static_cast<uint16_t>(a ^ 8) : static_cast<uint16_t>(a ^ 15);
    case klLogNotice: // inverted and underscored
        return static_cast<uint16_t>((~a & 255) | 0x8000);
    case klLogWarn: return 14;
    case klLogError:
    case klLogNothing: return 78;
    default: return a;
    }
}
