// A first look at keel: shared strings, the tracked heap and the node pool at work.
#include "keel/klmalloc.h"
#include "keel/klstring.h"

#include <cstdio>
#include <vector>

int main() {
    uint32_t before = klProcessBytesInUse();
    {
        klString greeting = "keel";
        klString copy = greeting; // shares the text
        copy << " runtime";       // copies before the first write
        std::vector<klString> parts = Split("strings,buffers,,streams", ",");
        std::printf("%s / %s (shared by %u before the write)\n", greeting.Const(), copy.Const(),
                    greeting.UseCount());
        std::printf("%u parts: %s\n", static_cast<unsigned>(parts.size()), Join(" + ", parts).Const());
        std::printf("%s\n", klpf("%d short strings live in %u-byte pool blocks", 3, 32u).Const());
        klMemoryReport report = klGetMemoryReport();
        std::printf("heap: %llu bytes in use of %llu from the system (peak %llu); tracked: %u\n",
                    static_cast<unsigned long long>(report.inUseBytes),
                    static_cast<unsigned long long>(report.systemBytes),
                    static_cast<unsigned long long>(report.maxSystemBytes), report.trackedBytes);
    }
    std::printf("tracked bytes back to where they started: %s\n",
                klProcessBytesInUse() == before ? "yes" : "no");
    return 0;
}
