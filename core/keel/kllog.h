// The library's log: named loggers with a minimum level, each writing through a sink
// function. The default sink prints one line a message, errors on stderr and everything
// else on stdout, coloured on a console:
//
//   INFO  2026-11-21 20:50:33 CONSOLE (01234) the message
//
// Every part of keel reports through the shared logger klConsoleLogger().
// The console colour and the terminal test live in win32/klw32log.cpp and posix/klposixlog.cpp.
#pragma once

#include "keel/klstring.h" // KL_PRINTF_LIKE

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <ctime>

enum klLogLevel : int32_t {
    klLogTrace = 0,
    klLogDebug = 1,
    klLogInfo = 2,
    klLogNotice = 3,
    klLogWarn = 4,
    klLogError = 5,
    klLogNothing = 6, // only as a minimum: silences a logger
};

// A sink writes one message: level, the 8-byte tag (7 columns and a zero), the message or
// format text, and the argument list, or null when the message is printed as it stands.
using klLogFunc = void (*)(uint32_t level, const char* tag, const char* message, va_list* args);

// Bytes of expanded line format a line may take before its arguments are applied.
constexpr size_t klLogLineMax = 1536;

class klLogger {
public:
    // A null sink follows the process-wide default sink, also when that changes later.
    klLogger(const char* name, klLogFunc* sink = nullptr, int32_t level = klLogInfo);

    void Trace(const char* format, ...) KL_PRINTF_LIKE(2, 3);
    void Debug(const char* format, ...) KL_PRINTF_LIKE(2, 3);
    void Info(const char* format, ...) KL_PRINTF_LIKE(2, 3);
    void Notice(const char* format, ...) KL_PRINTF_LIKE(2, 3);
    void Warn(const char* format, ...) KL_PRINTF_LIKE(2, 3);
    void Error(const char* format, ...) KL_PRINTF_LIKE(2, 3);

    // Hands the message to the sink as it is; args null prints the text literally.
    void Log(int32_t lvl, const char* message, va_list* args);

    // Announces a change at info level (under the old minimum) unless quiet.
    void SetLevel(int32_t lvl, bool quiet = false);
    int32_t Level() const { return mLevel; }
    const char* Tag() const { return mTag; }

    // The first of trace, debug, info, warn, error, notice, nothing found in the text,
    // without regard to case; info for anything else.
    static int32_t LevelFromName(const char* name);

private:
    char mTag[8];
    int32_t mLevel;
    klLogFunc* mLogger;
};

// The 5-column printed name of a level ("NOTCE" for notice); "?????" out of range.
const char* klLogLevelName(uint32_t level);

// The default sink: one whole line on stdout or stderr under "klLogLock", coloured.
void klConsoleLogSink(uint32_t level, const char* tag, const char* message, va_list* args);
// The same lines, appended to klFileSystem::GetLogFile() and flushed one by one. The file
// is started afresh the first time a path is written to in a process.
void klFileLogSink(uint32_t level, const char* tag, const char* message, va_list* args);

// Closes the file sink's file; its next line opens it again, appending.
void klCloseLogFile();

// Installs the default sink of every logger built without one; null restores the console
// sink. Returns the new default.
klLogFunc klSetDefaultLogSink(klLogFunc sink);

// Notice-level lines tagged "SYSLOG " straight through the console sink, whatever any
// logger's minimum.
void klSysLog(const char* format, ...) KL_PRINTF_LIKE(1, 2);
void klSysLogV(const char* message, va_list* args);

// The shared logger "Console": default sink, minimum info. Lives until the process ends.
klLogger& klConsoleLogger();

// Pushes every buffered line out.
void klLogFlush();

// Where the log reads the local time; tests replace it to fix the clock.
using klLogClockFn = void (*)(std::tm* out);
extern klLogClockFn klLogClock;

namespace kl::detail {

// Windows console attribute for a line of a known level, from the attribute a in effect.
uint16_t LogConsoleAttribute(uint16_t a, uint32_t level);

// Platform halves. Colours the console for one line of a known level written to stream;
// the returned value goes back to EndLogColour once the line is out.
uint32_t BeginLogColour(FILE* stream, uint32_t level);
void EndLogColour(FILE* stream, uint32_t saved);
bool LogStreamIsTerminal(FILE* stream);
void LocalTimeNow(std::tm* out);
// A text for an attached debugger (stderr where the platform has no debugger channel).
void WriteToDebugger(const char* text);

} // namespace kl::detail
