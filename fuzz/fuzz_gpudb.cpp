// Feeds arbitrary bytes to the graphics-card database reader, then judges the result.
#include "oRigwarden.h"

#include <algorithm>
#include <cstdlib>
#include <string>

// Numbers are read where they lie, exactly as the C runtime reads a terminated copy of the token.
static void CompareWithCRuntime(const uint8_t* data, size_t size) {
    std::string token(reinterpret_cast<const char*>(data), std::min<size_t>(size, 64));
    token = token.substr(0, token.find_first_of(std::string(",\t ;\0", 5)));
    const char* begin = token.c_str();
    const char* end = begin + token.size();
    if (oRigwarden::ParseNumberToken(begin, end, 16, false) != std::strtoull(begin, nullptr, 16) ||
        oRigwarden::ParseNumberToken(begin, end, 10, false) != std::strtoull(begin, nullptr, 10) ||
        int64_t(oRigwarden::ParseNumberToken(begin, end, 10, true)) != std::strtoll(begin, nullptr, 10))
        __builtin_trap();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CompareWithCRuntime(data, size);
    std::vector<vsGpuInfo> adapters = {{"RTX 4090", 0x10DE, 0x2684}, {"UHD 770", 0x8086, 0xA780},
                                       {"twin", 0x10DE, 0x2684}};
    oRigwarden::ApplyDatabaseText(data, uint32_t(size), adapters);
    uint32_t best = oRigwarden::ChooseBestAdapter(adapters);
    if (best >= adapters.size()) __builtin_trap();
    vsSpecInfo spec = oRigwarden::GetSpecInfo(adapters, best, 4, 3000, 8ull << 30);
    if (spec.underMinSpec != !spec.underMinSpecReason.IsEmpty()) __builtin_trap();
    return 0;
}
