#include "oRigwarden.h"

#include "keel/klbuffer.h"
#include "keel/klfilesystem.h"
#include "keel/kllineparser.h"
#include "keel/klmath.h"

#include <cstdlib>
#include <cstring>

const char* const kCpuInfoMissingMessage = "Failed to get CPU info from the system registry.\n";
const char* const kCpuSpeedMissingMessage = "Failed to detect CPU core speed from the system registry.\n";

namespace {

// The game's fixed minimums.
constexpr uint32_t kMinCpuCount = 2;
constexpr uint32_t kMinCpuMHz = 2200;
constexpr uint32_t kMemoryThresholdMB = 2047; // one below the advertised figure, on purpose
constexpr uint32_t kAdvertisedMemoryMB = 2048;

constexpr int kRecordTokens = 6;

struct vsDatabaseRecord {
    uint32_t vendorId;
    uint32_t deviceId;
    int32_t quality;
    uint32_t width;
    uint32_t benchmark;
    bool mobile;
};

// Splits text in place at runs of comma, space and tab; at most `max` tokens.
int Tokenize(char* text, char** tokens, int max) {
    static const char kDelimiters[] = ", \t";
    int count = 0;
    char* at = text;
    while (count < max) {
        at += std::strspn(at, kDelimiters);
        if (!*at) break;
        tokens[count++] = at;
        at += std::strcspn(at, kDelimiters);
        if (*at) *at++ = 0;
    }
    return count;
}

// Numbers parse as far as their digits go and are cut to 32 bits: "-1" as a width
// wraps to 4294967295, and a token without digits reads 0.
uint32_t ParseUnsigned(const char* token, int base) {
    return static_cast<uint32_t>(std::strtoull(token, nullptr, base));
}
int32_t ParseSigned(const char* token) { return static_cast<int32_t>(std::strtoll(token, nullptr, 10)); }

// A line is a record when six tokens remain after its comment is cut off.
bool ParseRecord(const klString& line, vsDatabaseRecord& record) {
    klString text = line; // a private copy: Ptr() unshares it before we cut into it
    char* chars = text.Ptr();
    if (!chars) return false;
    if (char* comment = std::strchr(chars, ';')) *comment = 0;
    char* tokens[kRecordTokens];
    if (Tokenize(chars, tokens, kRecordTokens) < kRecordTokens) return false;
    record.vendorId = ParseUnsigned(tokens[0], 16);
    record.deviceId = ParseUnsigned(tokens[1], 16);
    record.quality = ParseSigned(tokens[2]);
    record.width = ParseUnsigned(tokens[3], 10);
    record.benchmark = ParseUnsigned(tokens[4], 10);
    record.mobile = tokens[5][0] == 'M' || tokens[5][0] == 'm';
    return true;
}

// Every adapter still unlisted with these ids takes the record, so the first record for
// a pair wins across lines and files.
void ApplyRecord(const vsDatabaseRecord& record, std::vector<vsGpuInfo>& adapters) {
    for (vsGpuInfo& adapter : adapters) {
        if (!adapter.notListed || adapter.vendorId != record.vendorId || adapter.deviceId != record.deviceId)
            continue;
        adapter.notListed = false;
        adapter.recommendedVideoQuality = record.quality;
        adapter.recommendedWidth = record.width;
        adapter.benchmark = record.benchmark;
        adapter.mobile = record.mobile;
    }
}

std::vector<klString> ListDatabaseFiles(const std::vector<klString>& dirs) {
    std::vector<klString> paths;
    for (const klString& dir : dirs) {
        size_t first = paths.size();
        klFileSystem::DirectoryContents(dir, "*.cfg", paths);
        for (size_t i = first; i < paths.size(); ++i) paths[i] = klFileSystem::CombinePath(dir, paths[i]);
    }
    return paths;
}

void ExplainUnlisted(std::vector<vsGpuInfo>& adapters) {
    for (vsGpuInfo& adapter : adapters) {
        if (!adapter.notListed) continue;
        adapter.notListedInfo = klpf(
            "Could not find graphics adapter (0x%X, 0x%X, %s) in our database. If your graphics card is "
            "old, you are probably below the minimal hardware specs and the game may not function "
            "correctly.",
            adapter.vendorId, adapter.deviceId, adapter.name.Const());
    }
}

} // namespace

void vsAdapterCollector::Add(bool attachedToDesktop, char* deviceId, const char* deviceString) {
    if (!attachedToDesktop) return;
    char* vendor = std::strstr(deviceId, "VEN_");
    char* device = std::strstr(deviceId, "DEV_");
    for (char* amp = std::strchr(deviceId, '&'); amp; amp = std::strchr(amp + 1, '&')) *amp = 0;
    if (vendor) mVendorId = kl::math::hexStringToNumber(vendor + 4);
    if (device) mDeviceId = kl::math::hexStringToNumber(device + 4);

    klString name = deviceString;
    if (name.IsEmpty() || mVendorId == 0 || mDeviceId == 0) return;
    uint64_t key = (uint64_t(mVendorId) << 32) | mDeviceId;
    if (!mSeen.insert(key).second) return; // several outputs, or twin cards: listed once
    mAdapters.emplace_back(name, mVendorId, mDeviceId);
}

void oRigwarden::ApplyDatabaseText(const uint8_t* data, uint32_t size, std::vector<vsGpuInfo>& adapters) {
    klLineParser parser(data, size);
    vsDatabaseRecord record;
    while (parser.ReadLine()) {
        if (ParseRecord(parser.GetLineText(), record)) ApplyRecord(record, adapters);
    }
}

uint32_t oRigwarden::ChooseBestAdapter(const std::vector<vsGpuInfo>& adapters) {
    uint32_t best = 0;
    uint32_t bestBenchmark = 0;
    int32_t bestQuality = -1;
    for (uint32_t i = 0; i < adapters.size(); ++i) {
        const vsGpuInfo& adapter = adapters[i];
        bool better = adapter.benchmark > bestBenchmark ||
                      (adapter.benchmark == bestBenchmark && adapter.recommendedVideoQuality > bestQuality);
        if (!better) continue;
        best = i;
        bestBenchmark = adapter.benchmark;
        bestQuality = adapter.recommendedVideoQuality;
    }
    return best;
}

void oRigwarden::GetGpuInfo(const std::vector<klString>& dirs, std::vector<vsGpuInfo>& adapters,
                            uint32_t& bestIndex) {
    // One blob for every file: an empty file loads without touching it, so its turn walks
    // the previous file's records again, which changes nothing since the first record wins.
    klBlob blob;
    for (const klString& path : ListDatabaseFiles(dirs)) {
        if (!klFileSystem::LoadZ(path, blob)) continue;
        ApplyDatabaseText(blob.ConstPtr(0), blob.Size(), adapters);
    }
    ExplainUnlisted(adapters);
    bestIndex = ChooseBestAdapter(adapters);
}

vsSpecInfo oRigwarden::GetSpecInfo(const std::vector<vsGpuInfo>& adapters, uint32_t bestIndex,
                                   uint32_t cpuCount, uint32_t cpuMHz, uint64_t totalPhysBytes) {
    vsSpecInfo spec;
    if (cpuCount < kMinCpuCount || cpuMHz < kMinCpuMHz) {
        spec.underMinSpec = true;
        // The unbalanced parentheses are what players and the launcher have always seen.
        spec.underMinSpecReason << klpf("CPU is under minimal hardware specs. Found: %d cores @%dMHz). "
                                        "Required: %d cores @%dMHz).\n",
                                        int(cpuCount), int(cpuMHz), int(kMinCpuCount), int(kMinCpuMHz));
    }
    if (bestIndex < adapters.size()) {
        const vsGpuInfo& best = adapters[bestIndex];
        if (best.recommendedVideoQuality == -1) {
            spec.underMinSpec = true;
            spec.underMinSpecReason << klpf("Your graphics adapter '%s' is below the minimal hardware specs. "
                                            "The game may not function correctly.\n",
                                            best.name.Const());
        }
    } else {
        spec.underMinSpec = true;
        spec.underMinSpecReason << "No graphics adapter detected in your system. This game requires "
                                   "accelerated 3D graphics to function correctly.\n";
    }
    uint32_t megabytes = static_cast<uint32_t>(totalPhysBytes >> 20);
    if (megabytes < kMemoryThresholdMB) {
        spec.underMinSpec = true;
        // The text has one %d, so it names the advertised 2048 and never the measured size;
        // the measured size is passed all the same, as it always was.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-extra-args"
        spec.underMinSpecReason << klpf("Your system is below the minimal hardware specs. We recommend at "
                                        "least 2048 MB of system memory to run the game, but your system "
                                        "only has %d MB.\n",
                                        int(kAdvertisedMemoryMB), int(megabytes));
#pragma GCC diagnostic pop
    }
    return spec;
}

vsQueryResult oRigwarden::RunQuery(const klString& databaseDir) {
    vsQueryResult result;
    result.cpuMHz = oRigwardenProbe::ReadCpuMHz(result.probeErrors);
    result.cpuCount = oRigwardenProbe::ReadCpuCount();
    oRigwardenProbe::ReadAdapters(result.adapters);
    result.totalPhysBytes = oRigwardenProbe::ReadTotalPhysicalMemory();
    GetGpuInfo({databaseDir}, result.adapters, result.bestIndex);
    result.spec = GetSpecInfo(result.adapters, result.bestIndex, result.cpuCount, result.cpuMHz,
                              result.totalPhysBytes);
    return result;
}
