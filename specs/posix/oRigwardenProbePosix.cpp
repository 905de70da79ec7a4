// The Linux probes. Everything is read below a root folder, "/" unless the environment
// names another in RIGWARDEN_ROOT, so a captured machine can be judged like a live one.
// Display adapters come from sysfs attributes alone: opening a device or its DRM node
// would wake a discrete GPU that sleeps to save a laptop's battery.
#include "../oRigwarden.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

klString RootPath(const char* relative) {
    const char* root = std::getenv("RIGWARDEN_ROOT");
    if (!root || !*root) root = "/";
    size_t length = std::strlen(root);
    return klpf("%s%s%s", root, root[length - 1] == '/' ? "" : "/", relative);
}

// The whole of a small text file (sysfs attributes, /proc files); false if unreadable.
bool ReadText(const klString& path, klString& text) {
    FILE* file = std::fopen(path.Const(), "rb");
    if (!file) return false;
    text.clear();
    char chunk[4096];
    size_t got;
    while ((got = std::fread(chunk, 1, sizeof(chunk), file)) > 0) text.Append(chunk, uint32_t(got));
    std::fclose(file);
    return true;
}

// Leading decimal or "0x" hexadecimal number of a text; false when it has no digits.
bool ParseNumber(const char* text, uint64_t& value) {
    char* end = nullptr;
    value = std::strtoull(text, &end, 0);
    return end != text;
}

bool ReadNumber(const klString& path, uint64_t& value) {
    klString text;
    return ReadText(path, text) && ParseNumber(text.Const(), value);
}

// The value after the colon of the first "key : value" line that starts with key.
const char* FieldValue(const klString& text, const char* key) {
    size_t keyLength = std::strlen(key);
    for (const char* line = text.Const(); *line;) {
        if (std::strncmp(line, key, keyLength) == 0) {
            const char* colon = std::strchr(line, ':');
            const char* newline = std::strchr(line, '\n');
            if (colon && (!newline || colon < newline)) return colon + 1;
        }
        const char* next = std::strchr(line, '\n');
        if (!next) break;
        line = next + 1;
    }
    return nullptr;
}

// "x.yz" gigahertz as megahertz, read by hand so that no locale changes the decimal point.
uint32_t ParseGHzAsMHz(const char* text) {
    const char* at = text;
    uint32_t mhz = 0;
    for (; *at >= '0' && *at <= '9'; ++at) mhz = mhz * 10 + uint32_t(*at - '0');
    if (at == text) return 0;
    mhz *= 1000;
    if (*at == '.') {
        uint32_t place = 100; // digits past the third fall below a megahertz
        for (++at; *at >= '0' && *at <= '9'; ++at, place /= 10) mhz += uint32_t(*at - '0') * place;
    }
    return std::strncmp(at, "GHz", 3) == 0 ? mhz : 0;
}

// The "@ 3.20GHz" that Intel and some AMD processors put at the end of their model name:
// the nominal clock, which is what the registry value on Windows holds too.
uint32_t ModelNameMHz(const klString& cpuinfo) {
    const char* model = FieldValue(cpuinfo, "model name");
    if (!model) return 0;
    const char* end = std::strchr(model, '\n');
    std::string_view line(model, end ? size_t(end - model) : std::strlen(model));
    size_t at = line.rfind('@');
    if (at == std::string_view::npos) return 0;
    const char* number = model + at + 1;
    while (*number == ' ') ++number;
    return ParseGHzAsMHz(number);
}

uint32_t CpuMHzField(const klString& cpuinfo) {
    const char* value = FieldValue(cpuinfo, "cpu MHz");
    return value ? uint32_t(std::strtod(value, nullptr) + 0.5) : 0;
}

} // namespace

uint32_t oRigwardenProbe::ReadCpuMHz(klString& errors) {
    // Sources from the most to the least faithful to the nominal clock: the current clock
    // in /proc/cpuinfo comes last, since an idle core understates the processor.
    bool sourceFound = false;
    uint64_t khz = 0;
    klString cpuinfo;
    klString path = RootPath("sys/devices/system/cpu/cpu0/cpufreq/base_frequency");
    if (ReadText(path, cpuinfo)) {
        sourceFound = true;
        if (ParseNumber(cpuinfo.Const(), khz) && khz >= 1000) return uint32_t(khz / 1000);
    }
    bool haveCpuinfo = ReadText(RootPath("proc/cpuinfo"), cpuinfo);
    sourceFound |= haveCpuinfo;
    if (uint32_t mhz = haveCpuinfo ? ModelNameMHz(cpuinfo) : 0) return mhz;
    klString maxText;
    if (ReadText(RootPath("sys/devices/system/cpu/cpu0/cpufreq/cpuinfo_max_freq"), maxText)) {
        sourceFound = true;
        if (ParseNumber(maxText.Const(), khz) && khz >= 1000) return uint32_t(khz / 1000);
    }
    if (uint32_t mhz = haveCpuinfo ? CpuMHzField(cpuinfo) : 0) return mhz;
    errors << (sourceFound ? kCpuSpeedMissingMessage : kCpuInfoMissingMessage);
    return 0;
}

uint32_t oRigwardenProbe::ReadCpuCount() {
    // A range list such as "0-3,8" names the online processors.
    klString online;
    if (ReadText(RootPath("sys/devices/system/cpu/online"), online)) {
        uint32_t count = 0;
        for (const char* at = online.Const(); *at >= '0' && *at <= '9';) {
            char* end;
            unsigned long first = std::strtoul(at, &end, 10), last = first;
            if (*end == '-') last = std::strtoul(end + 1, &end, 10);
            if (last >= first) count += uint32_t(last - first + 1);
            at = *end == ',' ? end + 1 : end;
        }
        if (count > 0) return count;
    }
    long count = sysconf(_SC_NPROCESSORS_ONLN);
    return count > 0 ? uint32_t(count) : 0;
}

uint64_t oRigwardenProbe::ReadTotalPhysicalMemory() {
    klString meminfo;
    if (!ReadText(RootPath("proc/meminfo"), meminfo)) return 0;
    const char* value = FieldValue(meminfo, "MemTotal");
    return value ? uint64_t(std::strtoull(value, nullptr, 10)) * 1024 : 0;
}

namespace {

struct PciDisplayDevice {
    klString address; // "0000:01:00.0": sorts in bus order as text
    bool bootVga;
    uint32_t vendor, device, subsystemVendor, subsystemDevice, revision;
    klString name;
};

uint32_t ReadAttribute(const klString& folder, const char* attribute) {
    uint64_t value = 0;
    ReadNumber(klpf("%s/%s", folder.Const(), attribute), value);
    return uint32_t(value);
}

// Display controllers (PCI class 0x03: VGA, 3D and other display controllers), enabled
// ones only, the firmware's boot display first and the rest in bus order.
std::vector<PciDisplayDevice> ScanPciDisplayDevices() {
    std::vector<PciDisplayDevice> devices;
    klString base = RootPath("sys/bus/pci/devices");
    DIR* dir = opendir(base.Const());
    if (!dir) return devices;
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.') continue;
        klString folder = klpf("%s/%s", base.Const(), entry->d_name);
        uint64_t cls = 0, enable = 1;
        if (!ReadNumber(klpf("%s/class", folder.Const()), cls) || (cls >> 16) != 0x03) continue;
        if (ReadNumber(klpf("%s/enable", folder.Const()), enable) && enable == 0) continue;
        devices.push_back({entry->d_name, ReadAttribute(folder, "boot_vga") == 1,
                           ReadAttribute(folder, "vendor"), ReadAttribute(folder, "device"),
                           ReadAttribute(folder, "subsystem_vendor"),
                           ReadAttribute(folder, "subsystem_device"), ReadAttribute(folder, "revision"),
                           klString()});
    }
    closedir(dir);
    std::sort(devices.begin(), devices.end(), [](const PciDisplayDevice& a, const PciDisplayDevice& b) {
        if (a.bootVga != b.bootVga) return a.bootVga;
        return std::strcmp(a.address.Const(), b.address.Const()) < 0;
    });
    return devices;
}

// Reads a text file line by line in fixed chunks, so a large file is never held whole.
class ChunkedLineReader {
public:
    explicit ChunkedLineReader(FILE* file) : mFile(file) {}
    // The next line without its line feed; false at the end. Lines longer than the
    // buffer come back cut into buffer-sized pieces.
    bool Next(std::string_view& line) {
        for (;;) {
            char* start = mBuffer + mBegin;
            size_t available = mEnd - mBegin;
            if (char* newline = static_cast<char*>(std::memchr(start, '\n', available))) {
                line = std::string_view(start, size_t(newline - start));
                mBegin += line.size() + 1;
                return true;
            }
            if (mAtEnd || available == sizeof(mBuffer)) {
                if (available == 0) return false;
                line = std::string_view(start, available);
                mBegin = mEnd;
                return true;
            }
            Refill();
        }
    }

private:
    void Refill() {
        std::memmove(mBuffer, mBuffer + mBegin, mEnd - mBegin);
        mEnd -= mBegin;
        mBegin = 0;
        size_t got = std::fread(mBuffer + mEnd, 1, sizeof(mBuffer) - mEnd, mFile);
        mEnd += got;
        mAtEnd = got == 0;
    }

    FILE* mFile;
    char mBuffer[64 * 1024];
    size_t mBegin = 0, mEnd = 0;
    bool mAtEnd = false;
};

FILE* OpenPciIds() {
    for (const char* relative : {"usr/share/misc/pci.ids", "usr/share/hwdata/pci.ids"}) {
        if (FILE* file = std::fopen(RootPath(relative).Const(), "rb")) return file;
    }
    return nullptr;
}

// Four hexadecimal digits and two blanks open every vendor and device line of pci.ids.
bool ParseIdLine(std::string_view text, uint32_t& id, std::string_view& name) {
    if (text.size() < 7 || text[4] != ' ' || text[5] != ' ') return false;
    id = 0;
    for (size_t i = 0; i < 4; ++i) {
        char c = text[i];
        uint32_t digit = c >= '0' && c <= '9' ? uint32_t(c - '0') : c >= 'a' && c <= 'f' ? uint32_t(c - 'a' + 10) : 99;
        if (digit == 99) return false;
        id = id * 16 + digit;
    }
    name = text.substr(6);
    return true;
}

// Names every device from pci.ids in one pass that ends as soon as all are named or the
// vendor list is over (the device classes follow it).
void NameFromPciIds(std::vector<PciDisplayDevice>& devices) {
    FILE* file = OpenPciIds();
    if (!file) return;
    ChunkedLineReader reader(file);
    std::string_view line, name;
    uint32_t vendor = 0, id = 0;
    bool vendorWanted = false; // device lines of other vendors are skipped unread
    klString vendorName;
    size_t unnamed = devices.size();
    while (unnamed > 0 && reader.Next(line)) {
        if (line.empty() || line[0] == '#') continue;
        if (line[0] != '\t') {
            if (line.size() > 1 && line[0] == 'C' && line[1] == ' ') break;
            vendorWanted = ParseIdLine(line, vendor, name) &&
                           std::any_of(devices.begin(), devices.end(),
                                       [&](const PciDisplayDevice& device) { return device.vendor == vendor; });
            if (vendorWanted) vendorName = klString(name.data(), uint32_t(name.size()));
            continue;
        }
        if (!vendorWanted || line.size() < 2 || line[1] == '\t' || !ParseIdLine(line.substr(1), id, name)) continue;
        for (PciDisplayDevice& device : devices) {
            if (device.vendor != vendor || device.device != id || !device.name.IsEmpty()) continue;
            device.name = klpf("%s %.*s", vendorName.Const(), int(name.size()), name.data());
            --unnamed;
        }
    }
    std::fclose(file);
}

} // namespace

void oRigwardenProbe::ReadAdapters(std::vector<vsGpuInfo>& adapters) {
    std::vector<PciDisplayDevice> devices = ScanPciDisplayDevices();
    NameFromPciIds(devices);
    vsAdapterCollector collector(adapters);
    for (PciDisplayDevice& device : devices) {
        // Without a pci.ids entry the name still tells the player which device it is.
        if (device.name.IsEmpty())
            device.name = klpf("Display adapter [%04x:%04x]", device.vendor, device.device);
        // The same text Windows gives, parsed by the same code.
        char id[128];
        std::snprintf(id, sizeof(id), "PCI\\VEN_%04X&DEV_%04X&SUBSYS_%04X%04X&REV_%02X", device.vendor,
                      device.device, device.subsystemDevice, device.subsystemVendor, device.revision);
        collector.Add(true, id, device.name.Const());
    }
}
