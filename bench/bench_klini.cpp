// Parsing a generated 1 MB configuration: klIni (which stores every entry in its
// case-insensitive maps) beside inih (Debian's libinih-dev) on the same text, both as its
// INIReader, which stores entries too, and as the bare callback parser.
#include "keel/klini.h"

#include "keel_bench.h"

#include <INIReader.h>
#include <ini.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace {

// Sections of short keys and values, with comments: about 1 MB. Nothing in it is read
// differently by the two grammars (no spaces in values, one entry a line).
const std::string& Text() {
    static const std::string text = [] {
        std::string out;
        char line[128];
        for (int s = 0; out.size() < (1u << 20); ++s) {
            std::snprintf(line, sizeof(line), "; settings group %d\n[Section%d]\n", s, s);
            out += line;
            for (int k = 0; k < 24; ++k) {
                std::snprintf(line, sizeof(line), "Key%d = value_%d_%d\n", k, s, k * 7919);
                out += line;
            }
        }
        return out;
    }();
    return text;
}

void Processed(benchmark::State& state) {
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(Text().size()));
}

void IniParseKeel(benchmark::State& state) {
    for (auto _ : state) {
        klIni ini;
        if (!ini.Parse(Text().c_str())) state.SkipWithError("parse failed");
        benchmark::DoNotOptimize(ini.SectionCount());
    }
    Processed(state);
}

void IniParseInihReader(benchmark::State& state) {
    for (auto _ : state) {
        INIReader reader(Text().data(), Text().size());
        if (reader.ParseError() != 0) state.SkipWithError("parse failed");
        benchmark::DoNotOptimize(reader.HasSection("Section1"));
    }
    Processed(state);
}

void IniParseInihCallback(benchmark::State& state) {
    for (auto _ : state) {
        size_t entries = 0;
        ini_parse_string(Text().c_str(), [](void* user, const char*, const char*, const char*) {
            ++*static_cast<size_t*>(user);
            return 1;
        }, &entries);
        benchmark::DoNotOptimize(entries);
    }
    Processed(state);
}

// The floor under klIni: only the storing it must do (each key and value copied into its own
// string, the key folded to lower case, both put in the section's case-insensitive map), on
// entries split beforehand, so no parsing at all.
void IniParseStoreFloor(benchmark::State& state) {
    struct Entry {
        std::string section, key, value;
    };
    std::vector<Entry> entries;
    for (const char* at = Text().c_str(); *at;) {
        const char* end = std::strchr(at, '\n');
        std::string line(at, end - at);
        at = end + 1;
        if (line[0] == '[') entries.push_back({line.substr(1, line.size() - 2), "", ""});
        else if (line[0] != ';') entries.push_back({"", line.substr(0, line.find(' ')), line.substr(line.rfind(' ') + 1)});
    }
    using Section = std::map<klLCaseString, klString, klLCaseStringLessThan>;
    for (auto _ : state) {
        std::map<klLCaseString, Section, klLCaseStringLessThan> sections;
        Section* section = nullptr;
        for (const Entry& e : entries) {
            if (e.key.empty()) section = &sections[klLCaseString(klString(e.section.data(), uint32_t(e.section.size())))];
            else section->try_emplace(klLCaseString(klString(e.key.data(), uint32_t(e.key.size()))),
                                      klString(e.value.data(), uint32_t(e.value.size())));
        }
        benchmark::DoNotOptimize(sections.size());
    }
    Processed(state);
}

} // namespace

KEEL_BENCHMARK(IniParseStoreFloor)->Name("IniParse/floor")->Unit(benchmark::kMillisecond);
KEEL_BENCHMARK(IniParseKeel)->Name("IniParse/keel")->Unit(benchmark::kMillisecond);
KEEL_BENCHMARK(IniParseInihReader)->Name("IniParse/inih-reader")->Unit(benchmark::kMillisecond);
KEEL_BENCHMARK(IniParseInihCallback)->Name("IniParse/inih-callback")->Unit(benchmark::kMillisecond);
