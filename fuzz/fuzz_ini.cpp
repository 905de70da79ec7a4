// Feeds arbitrary text to the INI parser. Whatever parses must write out and read back to
// the same configuration, so that writing what was read back gives the same file again.
#include "keel/klini.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

static std::string ReadFile(const char* path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // An empty folder of its own, so that relative include instructions find nothing real.
    static const bool inWorkFolder = [] {
        char name[] = "/tmp/fuzz-ini-XXXXXX";
        return mkdtemp(name) && chdir(name) == 0;
    }();
    const std::string text(reinterpret_cast<const char*>(data), strnlen(reinterpret_cast<const char*>(data), size));
    // Absolute include names could reach devices that never end.
    if (!inWorkFolder || (text.find("include") != std::string::npos && text.find_first_of("/\\:") != std::string::npos))
        return 0;
    klIni ini, again;
    if (!ini.Parse(text.c_str())) return 0;
    if (!ini.Write("written.ini") || !again.Include("written.ini") || again.SectionCount() != ini.SectionCount() ||
        !again.Write("again.ini") || ReadFile("written.ini") != ReadFile("again.ini"))
        __builtin_trap();
    unlink("written.ini"); // so that no later input can include them
    unlink("again.ini");
    return 0;
}
