#include "oRigwarden.h"

#include "keel/klbuffer.h"
#include "keel/klfilesystem.h"
#include "keel/kllineparser.h"
#include "keel/klmath.h"

#include <cstdint>
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
// A database file is a few hundred kilobytes at most; a larger one in the folder is no
// database file, and reading it would only cost the launcher memory and time.
constexpr uint32_t kMaxDatabaseFileBytes = 16u << 20;

struct Token {
    const char* begin;
    const char* end;
};

// What each byte does to a record line: separate tokens (comma, space, tab), end the
// record (";" starts the comment; a zero byte is where a C string of the line would end),
// or nothing.
enum CharClass : uint8_t { kOrdinary, kDelimiter, kStop };
constexpr struct CharClasses {
    CharClass of[256] = {};
    constexpr CharClasses() {
        of[uint8_t(',')] = of[uint8_t(' ')] = of[uint8_t('\t')] = kDelimiter;
        of[uint8_t(';')] = of[0] = kStop;
    }
} kClasses;

CharClass ClassOf(const char* at) { return kClasses.of[uint8_t(*at)]; }

// The next token at or after `at`, or false at the end of the record.
bool NextToken(const char*& at, Token& token) {
    while (ClassOf(at) == kDelimiter) ++at;
    if (ClassOf(at) == kStop) return false;
    token.begin = at;
    while (ClassOf(at) == kOrdinary) ++at;
    token.end = at;
    return true;
}

uint32_t Narrow(uint64_t value) { return static_cast<uint32_t>(value); }

// The value of each byte as a digit of any base up to 36; 99 for a byte that is none.
constexpr struct DigitValues {
    uint8_t of[256] = {};
    constexpr DigitValues() {
        for (int c = 0; c < 256; ++c) of[c] = 99;
        for (int c = '0'; c <= '9'; ++c) of[c] = uint8_t(c - '0');
        for (int c = 'a'; c <= 'z'; ++c) of[c] = of[c - 32] = uint8_t(c - 'a' + 10);
    }
} kDigits;

uint32_t DigitValue(char c) { return kDigits.of[uint8_t(c)]; }

// An id token: nearly every record writes its ids as at most eight bare hex digits, read
// here directly; anything else (a sign, "0x", blanks, more digits) takes the full rules.
uint32_t ParseId(const Token& token) {
    if (token.end - token.begin <= 8) {
        uint32_t value = 0;
        const char* at = token.begin;
        for (uint32_t digit; at < token.end && (digit = DigitValue(*at)) < 16; ++at) value = value << 4 | digit;
        if (at == token.end) return value;
    }
    return Narrow(oRigwarden::ParseNumberToken(token.begin, token.end, 16, false));
}

// Whether some adapter that is still not listed passes the test.
template <class Test> bool AnyUnlisted(const std::vector<vsGpuInfo>& adapters, Test test) {
    for (const vsGpuInfo& adapter : adapters)
        if (adapter.notListed && test(adapter)) return true;
    return false;
}

// A line is a record when six tokens come before its comment; every adapter still
// unlisted with the record's ids takes it, so the first record for a pair wins across
// lines and files. Most records are for cards this machine does not have, so the ids are
// read first, one at a time, and the rest of the line only when some adapter wants it.
void ApplyLine(const klString& line, std::vector<vsGpuInfo>& adapters) {
    const char* at = line.Const();
    Token tokens[kRecordTokens];
    if (!NextToken(at, tokens[0])) return;
    const uint32_t vendorId = ParseId(tokens[0]);
    if (!AnyUnlisted(adapters, [&](const vsGpuInfo& a) { return a.vendorId == vendorId; })) return;
    if (!NextToken(at, tokens[1])) return;
    const uint32_t deviceId = ParseId(tokens[1]);
    if (!AnyUnlisted(adapters, [&](const vsGpuInfo& a) { return a.vendorId == vendorId && a.deviceId == deviceId; }))
        return;
    for (int i = 2; i < kRecordTokens; ++i)
        if (!NextToken(at, tokens[i])) return;
    for (vsGpuInfo& adapter : adapters) {
        if (!adapter.notListed || adapter.vendorId != vendorId || adapter.deviceId != deviceId) continue;
        adapter.notListed = false;
        adapter.recommendedVideoQuality =
            static_cast<int32_t>(oRigwarden::ParseNumberToken(tokens[2].begin, tokens[2].end, 10, true));
        adapter.recommendedWidth = Narrow(oRigwarden::ParseNumberToken(tokens[3].begin, tokens[3].end, 10, false));
        adapter.benchmark = Narrow(oRigwarden::ParseNumberToken(tokens[4].begin, tokens[4].end, 10, false));
        adapter.mobile = *tokens[5].begin == 'M' || *tokens[5].begin == 'm';
    }
}

bool IsCSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

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

uint64_t oRigwarden::ParseNumberToken(const char* begin, const char* end, int base, bool isSigned) {
    const char* at = begin;
    while (at < end && IsCSpace(*at)) ++at;
    bool negative = at < end && *at == '-';
    if (at < end && (*at == '-' || *at == '+')) ++at;
    if (base == 16 && end - at >= 3 && at[0] == '0' && (at[1] | 0x20) == 'x' && DigitValue(at[2]) < 16) at += 2;
    uint64_t value = 0;
    bool overflow = false;
    for (uint32_t digit; at < end && (digit = DigitValue(*at)) < uint32_t(base); ++at) {
        overflow |= __builtin_mul_overflow(value, uint64_t(base), &value);
        overflow |= __builtin_add_overflow(value, uint64_t(digit), &value);
    }
    if (isSigned) {
        const uint64_t limit = negative ? uint64_t(INT64_MAX) + 1 : uint64_t(INT64_MAX);
        if (overflow || value > limit) return negative ? uint64_t(INT64_MIN) : uint64_t(INT64_MAX);
    } else if (overflow) {
        return UINT64_MAX;
    }
    return negative ? 0 - value : value;
}

void oRigwarden::ApplyDatabaseText(const uint8_t* data, uint32_t size, std::vector<vsGpuInfo>& adapters) {
    klLineParser parser(data, size);
    while (parser.ReadLine()) ApplyLine(parser.GetLineText(), adapters);
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
    // A file that is no regular file (a FIFO named x.cfg) or is too large is skipped.
    klBlob blob;
    for (const klString& path : ListDatabaseFiles(dirs)) {
        if (!klFileSystem::LoadZ(path, blob, kMaxDatabaseFileBytes)) continue;
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

vsQueryResult oRigwarden::RunQuery(const klString& databaseDir, uint32_t flags) {
    vsQueryResult result;
    result.cpuMHz = oRigwardenProbe::ReadCpuMHz(result.probeErrors);
    result.cpuCount = oRigwardenProbe::ReadCpuCount();
    oRigwardenProbe::ReadAdapters(result.adapters, (flags & vsQueryAllAdapters) != 0);
    result.totalPhysBytes = oRigwardenProbe::ReadTotalPhysicalMemory();
    GetGpuInfo({databaseDir}, result.adapters, result.bestIndex);
    result.spec = GetSpecInfo(result.adapters, result.bestIndex, result.cpuCount, result.cpuMHz,
                              result.totalPhysBytes);
    return result;
}
