// Character-to-byte lookups over a 1 MB UTF-8 text: walking forward one character at a
// time (the cached case) beside restarting from the first character for every lookup.
#include "keel/kltext.h"

#include "keel_bench.h"

#include <string>

namespace {

// About 1 MB of mixed one-, two- and three-byte characters.
const klTextBuffer& Text() {
    static const klTextBuffer text = [] {
        std::string bytes;
        while (bytes.size() < (1u << 20)) bytes += "plain text, caf\xc3\xa9 \xe2\x82\xac 5 ";
        return klTextBuffer(bytes.c_str());
    }();
    return text;
}

void Sequential(benchmark::State& state) {
    const klTextBuffer& text = Text();
    uint32_t index = 0;
    for (auto _ : state) {
        if (++index >= text.CharLength()) index = 1;
        benchmark::DoNotOptimize(text.CharToByteIndex(index));
    }
}

// Each lookup first asks for character 0's neighbour, which sends the next one back to
// the start: the cost of a lookup without the cache, at an index spread over the text.
void Restart(benchmark::State& state) {
    const klTextBuffer& text = Text();
    uint32_t index = 0;
    for (auto _ : state) {
        index = (index + 7919) % text.CharLength();
        text.CharToByteIndex(1);
        benchmark::DoNotOptimize(text.CharToByteIndex(index < 2 ? 2 : index));
    }
}

} // namespace

KEEL_BENCHMARK(Sequential)->Name("CharToByteIndex/keel");
KEEL_BENCHMARK(Restart)->Name("CharToByteIndex/restart");
