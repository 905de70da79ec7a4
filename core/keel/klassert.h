// Assertions and the way the library dies.
//
// Two kinds of assertion exist. A plain one (klAssert, klAssertMsg) reports a broken
// contract through klAssertReportHook and the operation goes on with its documented
// fallback. A fatal one (klFatalAssert, klFatal) goes through klAssertHook, whose
// default ends the process with exit code 123 after one report.
#pragma once

#include <cstdint>

// (expression, source file, line, explanation or null).
using klAssertHookFn = void (*)(const char* expr, const char* file, int line, const char* message);
using klDeathCallbackFn = void (*)(const char* message);

// The fatal hook. Replaceable; a replacement that returns lets the caller go on.
extern klAssertHookFn klAssertHook;
// The report hook of plain assertions. Replaceable; the default writes to stderr.
extern klAssertHookFn klAssertReportHook;

// Writes "assert(%s) failed at: %s:%d\n", or "assertmsg(%s, %s) failed at: %s:%d\n"
// when a message is given, into buf (cut to fit). Returns the characters written.
int klFormatAssert(char* buf, int bufSize, const char* expr, const char* file, int line,
                   const char* message);

// Default fatal hook: formats the report and calls klDie("ASSERT", text).
[[noreturn]] void klDefaultAssert(const char* expr, const char* file, int line, const char* message);
// Default report hook: formats the report and writes it to stderr.
void klDefaultAssertReport(const char* expr, const char* file, int line, const char* message);

// Reports the death once (death callback, debugger, stderr) and exits with code 123.
// Only the first thread to die reports; any other dying thread stops where it is.
[[noreturn]] void klDie(const char* kind, const char* message);
// Reports like klDie, at most once per process, and returns.
void klReportDeath(const char* kind, const char* message);
void klSetDeathCallback(klDeathCallbackFn callback);

// Exit code of a process that died through klDie.
constexpr int klDeathExitCode = 123;

namespace kl::detail {
// Calls klAssertReportHook; always returns false so the macros can be used in a test.
bool AssertFailed(const char* expr, const char* file, int line, const char* message);
} // namespace kl::detail

// Plain assertions evaluate to the condition, so callers can take their fallback:
//   if (!klAssert(index <= Size())) return;
#define klAssert(expr) (static_cast<bool>(expr) || kl::detail::AssertFailed(#expr, __FILE__, __LINE__, nullptr))
#define klAssertMsg(expr, msg) (static_cast<bool>(expr) || kl::detail::AssertFailed(#expr, __FILE__, __LINE__, (msg)))
// For a condition whose reported text must differ from the code that tests it.
#define klAssertAs(cond, text) (static_cast<bool>(cond) || kl::detail::AssertFailed((text), __FILE__, __LINE__, nullptr))

#define klFatalAssert(expr, msg) \
    (static_cast<bool>(expr) || (klAssertHook(#expr, __FILE__, __LINE__, (msg)), false))
// Unconditional fatal report with an explicit expression text ("" for none).
#define klFatal(exprText, msg) klAssertHook((exprText), __FILE__, __LINE__, (msg))
