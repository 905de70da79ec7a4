// The hardware check: the native records of one query, the graphics-card database
// reader, the best-adapter choice and the minimum-spec verdict.
#pragma once

#include "keel/klstring.h"

#include <cstdint>
#include <unordered_set>
#include <vector>

// One distinct display adapter of the machine, with what the database says about it.
struct vsGpuInfo {
    vsGpuInfo(const klString& adapterName, uint32_t vendor, uint32_t device)
        : name(adapterName), vendorId(vendor), deviceId(device) {}

    klString name;
    uint32_t vendorId;
    uint32_t deviceId;
    bool notListed = true;       // no database record matched (yet)
    klString notListedInfo;      // the player's message when none did
    int32_t recommendedVideoQuality = 0; // -1: below the minimum spec
    uint32_t recommendedWidth = 0;
    uint32_t benchmark = 0;      // higher is faster
    bool mobile = false;
};

// The verdict: whether the machine is below the minimum, and the player's messages.
struct vsSpecInfo {
    bool underMinSpec = false;
    klString underMinSpecReason;
};

// Everything one query learns, in the order it learns it.
struct vsQueryResult {
    klString probeErrors; // registry (processor speed) failures, each ending in "\n"
    uint32_t cpuMHz = 0;
    uint32_t cpuCount = 0;
    std::vector<vsGpuInfo> adapters;
    uint64_t totalPhysBytes = 0;
    uint32_t bestIndex = 0;
    vsSpecInfo spec;
};

// Turns the display enumeration's device records into adapter-list entries: one per
// distinct vendor/device pair, in the order first seen.
class vsAdapterCollector {
public:
    explicit vsAdapterCollector(std::vector<vsGpuInfo>& adapters) : mAdapters(adapters) {}

    // deviceId is a text such as "PCI\VEN_10DE&DEV_2684&SUBSYS_...". It is cut in place at
    // every "&". A device whose text lacks "VEN_" or "DEV_" inherits the previous device's
    // value, as the enumeration on Windows has always been read.
    void Add(bool attachedToDesktop, char* deviceId, const char* deviceString);

private:
    std::vector<vsGpuInfo>& mAdapters;
    std::unordered_set<uint64_t> mSeen;
    uint32_t mVendorId = 0;
    uint32_t mDeviceId = 0;
};

// Options of one query, the bits of the C interface's RIGWARDEN_QUERY_* flags.
enum vsQueryFlags : uint32_t {
    vsQueryDefault = 0,
    // Also the display devices that drive no desktop (the discrete GPU of a hybrid laptop).
    vsQueryAllAdapters = 1,
};

class oRigwarden {
public:
    // Reads every "*.cfg" file of the directories into the adapters' database fields,
    // explains each adapter no record matched, and picks the best adapter.
    static void GetGpuInfo(const std::vector<klString>& dirs, std::vector<vsGpuInfo>& adapters,
                           uint32_t& bestIndex);
    // The verdict on processor, graphics and memory, in that order.
    static vsSpecInfo GetSpecInfo(const std::vector<vsGpuInfo>& adapters, uint32_t bestIndex,
                                  uint32_t cpuCount, uint32_t cpuMHz, uint64_t totalPhysBytes);

    // Applies the records of one database file's bytes to the adapters still not listed.
    static void ApplyDatabaseText(const uint8_t* data, uint32_t size, std::vector<vsGpuInfo>& adapters);
    static uint32_t ChooseBestAdapter(const std::vector<vsGpuInfo>& adapters);
    // A database number read from the token [begin, end) by the C runtime's rules for
    // strtoull (isSigned false) or strtoll (true): leading white space, a sign, "0x" before
    // hexadecimal digits, digits up to the first non-digit, saturation on overflow. The
    // database reads tokens where they lie, without copying them out to terminate them.
    static uint64_t ParseNumberToken(const char* begin, const char* end, int base, bool isSigned);

    // One whole query: probe this machine, read the database folder, judge. flags is a
    // combination of vsQueryFlags; other bits are ignored.
    static vsQueryResult RunQuery(const klString& databaseDir, uint32_t flags = vsQueryDefault);
};

// The machine probes; each platform has its own half (specs/win32, specs/posix).
struct oRigwardenProbe {
    // Processor speed in MHz; on failure 0, with the failure's message appended to errors.
    static uint32_t ReadCpuMHz(klString& errors);
    static uint32_t ReadCpuCount();
    // The display adapters attached to the desktop; with allPresent, then every other
    // present display device too. Linux has no such split: it always reads them all.
    static void ReadAdapters(std::vector<vsGpuInfo>& adapters, bool allPresent = false);
    static uint64_t ReadTotalPhysicalMemory();
};

// The two processor-probe messages. The launcher matches these texts, so every platform
// reports its failures with them.
extern const char* const kCpuInfoMissingMessage;
extern const char* const kCpuSpeedMissingMessage;
