// Feeds arbitrary bytes to the graphics-card database reader, then judges the result.
#include "oRigwarden.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<vsGpuInfo> adapters;
    adapters.emplace_back("NVIDIA GeForce RTX 4090", 0x10DE, 0x2684);
    adapters.emplace_back("Intel UHD Graphics 770", 0x8086, 0xA780);
    adapters.emplace_back("twin", 0x10DE, 0x2684);
    oRigwarden::ApplyDatabaseText(data, uint32_t(size), adapters);
    uint32_t best = oRigwarden::ChooseBestAdapter(adapters);
    if (best >= adapters.size()) __builtin_trap();
    vsSpecInfo spec = oRigwarden::GetSpecInfo(adapters, best, 4, 3000, 8ull << 30);
    if (spec.underMinSpec != !spec.underMinSpecReason.IsEmpty()) __builtin_trap();
    return 0;
}
