// Feeds arbitrary text to the INI parser. Whatever parses must write out and read back to
// the same configuration, and every value must look up without harm.
#include "keel/klini.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>

namespace {

using Entries = std::map<std::string, std::string>;

// Runs in an empty folder of its own, so that include instructions find nothing real.
const char* WorkFolder() {
    static std::string folder = [] {
        char name[] = "/tmp/fuzz-ini-XXXXXX";
        if (!mkdtemp(name) || chdir(name) != 0) std::abort();
        return std::string(name);
    }();
    return folder.c_str();
}

Entries Collect(klIni& ini, const std::string& text) {
    Entries entries;
    // Section names are only known from the text; every "[...]" candidate is tried.
    std::set<std::string> sections = {"default"};
    for (size_t at = text.find('['); at != std::string::npos; at = text.find('[', at + 1)) {
        const size_t end = text.find_first_of("]\n", at + 1);
        if (end != std::string::npos) sections.insert(text.substr(at + 1, end - at - 1));
    }
    for (const std::string& section : sections)
        ini.ForEachKey(section.c_str(), [&](const char* key, const char* value) {
            entries[section + "\n" + key] = value;
            ini.GetValue(section.c_str(), key);
        });
    return entries;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), strnlen(reinterpret_cast<const char*>(data), size));
    // Absolute include names could reach devices that never end; relative ones stay here.
    if (text.find("include") != std::string::npos && text.find_first_of("/\\:") != std::string::npos)
        return 0;
    const std::string written = std::string(WorkFolder()) + "/written.ini";
    klIni ini;
    if (!ini.Parse(text.c_str())) return 0;
    const Entries before = Collect(ini, text);
    if (!ini.Write(written.c_str())) __builtin_trap();
    klIni again;
    if (!again.Include(written.c_str()) || again.SectionCount() != ini.SectionCount() ||
        Collect(again, text) != before)
        __builtin_trap();
    unlink(written.c_str()); // so that no later input can include it
    return 0;
}
