// Feeds arbitrary text to the INI parser. Whatever parses must write out, read back and write
// out again to the same bytes.
#include "keel/klini.h"

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

namespace {

// Writes ini to name (in an empty folder of the fuzzer's own) and returns the bytes written.
std::string WriteOut(const klIni& ini, const char* name) {
    static const bool inFolder = [] {
        char folder[] = "/tmp/fuzz-ini-XXXXXX";
        return mkdtemp(folder) && chdir(folder) == 0; // includes find nothing real here
    }();
    if (!inFolder || !ini.Write(name)) __builtin_trap();
    std::ostringstream bytes;
    bytes << std::ifstream(name, std::ios::binary).rdbuf();
    return bytes.str();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), strnlen(reinterpret_cast<const char*>(data), size));
    // Absolute include names could reach devices that never end; relative ones stay here.
    if (text.find("include") != std::string::npos && text.find_first_of("/\\:") != std::string::npos)
        return 0;
    klIni ini, again;
    if (!ini.Parse(text.c_str())) return 0;
    const std::string first = WriteOut(ini, "first.ini");
    if (!again.Include("first.ini") || WriteOut(again, "second.ini") != first) __builtin_trap();
    unlink("first.ini"); // so that no later input can include it
    unlink("second.ini");
    return 0;
}
