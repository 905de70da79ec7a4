// The Windows half of the log: console text attributes through the standard-output
// handle, restored after every line.
#include "keel/kllog.h"

#include <windows.h>

#include <io.h>

namespace {

// Marks a line for which no colour was set.
constexpr uint32_t kNoColour = 0xFFFFFFFFu;

HANDLE StdOut() {
    HANDLE handle = GetStdHandle(STD_OUTPUT_HANDLE);
    return handle == INVALID_HANDLE_VALUE ? nullptr : handle;
}

} // namespace

bool kl::detail::LogStreamIsTerminal(FILE* stream) { return _isatty(_fileno(stream)) != 0; }

uint32_t kl::detail::BeginLogColour(FILE*, uint32_t level) {
    HANDLE out = StdOut();
    if (!out) return kNoColour;
    CONSOLE_SCREEN_BUFFER_INFO info;
    uint16_t current = GetConsoleScreenBufferInfo(out, &info) ? info.wAttributes : 15;
    SetConsoleTextAttribute(out, LogConsoleAttribute(current, level));
    return current;
}

void kl::detail::EndLogColour(FILE*, uint32_t saved) {
    HANDLE out = StdOut();
    if (out && saved != kNoColour) SetConsoleTextAttribute(out, static_cast<WORD>(saved));
}

void kl::detail::LocalTimeNow(std::tm* out) {
    __time64_t now = _time64(nullptr);
    _localtime64_s(out, &now);
}

void kl::detail::WriteToDebugger(const char* text) { OutputDebugStringA(text); }
