// The Linux half of the log: ANSI colours, and only on a terminal, so that a redirected
// log stays plain text.
#include "keel/kllog.h"

#include <time.h>
#include <unistd.h>

namespace {

// Escape sequence for each level, from trace to nothing; info keeps the terminal's own.
const char* const kColours[] = {"\033[2m", "\033[2m", "", "\033[4;7m", "\033[1;33m", "\033[1;33;41m", "\033[1;33;41m"};

} // namespace

bool kl::detail::LogStreamIsTerminal(FILE* stream) { return isatty(fileno(stream)) == 1; }

uint32_t kl::detail::BeginLogColour(FILE* stream, uint32_t level) {
    if (level > klLogNothing || !*kColours[level] || !LogStreamIsTerminal(stream)) return 0;
    std::fputs(kColours[level], stream);
    return 1;
}

void kl::detail::EndLogColour(FILE* stream, uint32_t saved) {
    if (saved) std::fputs("\033[0m", stream);
}

void kl::detail::LocalTimeNow(std::tm* out) {
    time_t now = time(nullptr);
    localtime_r(&now, out);
}

void kl::detail::WriteToDebugger(const char* text) {
    std::fputs(text, stderr); // a Linux debugger reads the program's own stderr
    std::fflush(stderr);
}
