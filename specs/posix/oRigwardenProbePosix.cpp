// The Linux probes. Everything is read below a root folder, "/" unless the environment
// names another in RIGWARDEN_ROOT, so a captured machine can be judged like a live one.
// Display adapters come from sysfs attributes alone: opening a device or its DRM node
// would wake a discrete GPU that sleeps to save a laptop's battery.
#include "../oRigwarden.h"
#include "../oRigwardenSnapshot.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace {

// The kernel's probe files are small (a cpuinfo of a few hundred processors stays below
// a megabyte); a larger one is no file the kernel wrote and counts as unreadable.
constexpr size_t kMaxProbeFileBytes = 16u << 20;
// Beyond any real machine's processor numbers; a list naming more is unreadable.
constexpr uint64_t kMaxCpuNumber = 1u << 20;

const char* Root() {
    const char* root = std::getenv("RIGWARDEN_ROOT");
    return root && *root ? root : nullptr;
}

// Judging a captured machine: then nothing may be taken from the host that runs the probe.
bool SnapshotMode() { return Root() != nullptr; }

klString RootPath(const char* relative) {
    const char* root = Root() ? Root() : "/";
    size_t length = std::strlen(root);
    return klpf("%s%s%s", root, root[length - 1] == '/' ? "" : "/", relative);
}

// While a snapshot is captured on this thread: every probe file read, whole, by its path
// below the root. EndCapture keeps of it what a replay needs.
thread_local bool tRecording = false;
thread_local std::vector<vsSnapshotFile> tRecorded;

void Record(const klString& path, const klString& text) {
    if (!tRecording) return;
    klString relative = path.SubString(RootPath("").Size(), path.Size());
    for (vsSnapshotFile& file : tRecorded)
        if (file.path == relative) {
            file.text = text;
            return;
        }
    tRecorded.push_back({relative, text});
}

// A descriptor for reading path when it is a regular file, else -1. A FIFO or a device
// at a probe path would block the read (or the open) forever, so the type is checked
// before opening and again on what was opened, which O_NONBLOCK keeps from blocking.
// The stated size of what was opened goes to size when asked for.
int OpenRegular(const klString& path, size_t* size = nullptr) {
    struct stat status;
    if (stat(path.Const(), &status) != 0 || !S_ISREG(status.st_mode)) return -1;
    int fd = open(path.Const(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return -1;
    if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        close(fd);
        return -1;
    }
    if (size) *size = size_t(status.st_size);
    return fd;
}

// The whole of a probe file (a sysfs attribute, a /proc file) in one pass; false when it
// is unreadable, no regular file or larger than kMaxProbeFileBytes. The stated size is
// only a hint (sysfs states 4096, /proc 0), so the buffer doubles when it fills.
bool ReadText(const klString& path, klString& text) {
    size_t stated = 0;
    int fd = OpenRegular(path, &stated);
    if (fd < 0) return false;
    std::vector<char> bytes(std::min(std::max<size_t>(stated + 1, 4096), kMaxProbeFileBytes + 1));
    size_t used = 0;
    bool ok = true;
    for (;;) {
        if (used == bytes.size()) {
            if (used > kMaxProbeFileBytes) break;
            bytes.resize(std::min(used * 2, kMaxProbeFileBytes + 1));
        }
        ssize_t got = read(fd, bytes.data() + used, bytes.size() - used);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) {
            ok = got == 0;
            break;
        }
        used += size_t(got);
    }
    close(fd);
    if (!ok || used > kMaxProbeFileBytes) return false;
    text = klString(bytes.data(), uint32_t(used));
    Record(path, text);
    return true;
}

bool IsBlank(char c) { return c == ' ' || c == '\t'; }
bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// A whole number as sysfs writes it (decimal, or hexadecimal behind "0x"), blanks before
// it allowed; false without digits, with a sign, or above max: a negative or oversized
// value is unreadable rather than wrapped.
bool ParseNumber(const char* text, uint64_t max, uint64_t& value) {
    while (IsBlank(*text)) ++text;
    if (!IsDigit(*text)) return false;
    errno = 0;
    value = std::strtoull(text, nullptr, 0);
    return errno != ERANGE && value <= max;
}

bool ReadNumber(const klString& path, uint64_t max, uint64_t& value) {
    klString text;
    return ReadText(path, text) && ParseNumber(text.Const(), max, value);
}

// A non-negative decimal with an optional fraction at `at`, blanks before it allowed, in
// units of 10^-places, rounded to the nearest; `at` ends behind it. False without digits,
// with a sign, or above max. Read by hand so that no locale changes the decimal point.
bool ParseDecimal(const char*& at, int places, uint64_t max, uint64_t& value) {
    while (IsBlank(*at)) ++at;
    if (!IsDigit(*at)) return false;
    bool overflow = false;
    value = 0;
    auto push = [&](uint64_t digit) {
        overflow |= __builtin_mul_overflow(value, uint64_t(10), &value);
        overflow |= __builtin_add_overflow(value, digit, &value);
    };
    for (; IsDigit(*at); ++at) push(uint64_t(*at - '0'));
    bool fraction = *at == '.' && IsDigit(at[1]);
    if (fraction) ++at;
    for (int place = 0; place < places; ++place) push(fraction && IsDigit(*at) ? uint64_t(*at++ - '0') : 0);
    if (fraction && *at >= '5' && *at <= '9') overflow |= __builtin_add_overflow(value, uint64_t(1), &value);
    while (fraction && IsDigit(*at)) ++at;
    return !overflow && value <= max;
}

// When line's key is exactly key (blanks may stand before the colon): its value, from
// behind the colon; else null.
const char* KeyValue(const char* line, const char* key) {
    size_t keyLength = std::strlen(key);
    if (std::strncmp(line, key, keyLength) != 0) return nullptr;
    const char* at = line + keyLength;
    while (IsBlank(*at)) ++at;
    return *at == ':' ? at + 1 : nullptr;
}

// The value of the first line of text whose key is exactly key; null when none has it.
const char* FieldValue(const klString& text, const char* key) {
    for (const char* line = text.Const(); *line;) {
        if (const char* value = KeyValue(line, key)) return value;
        const char* next = std::strchr(line, '\n');
        if (!next) break;
        line = next + 1;
    }
    return nullptr;
}

// The lines of text that have one of keys, in their order: of a "key : value" file, all
// that the probes read and all that a snapshot keeps (a serial number stays behind).
klString KeptLines(const klString& text, std::initializer_list<const char*> keys) {
    klString kept;
    for (const char* line = text.Const(); *line;) {
        const char* next = std::strchr(line, '\n');
        uint32_t length = uint32_t(next ? next + 1 - line : std::strlen(line));
        if (std::any_of(keys.begin(), keys.end(), [&](const char* key) { return KeyValue(line, key) != nullptr; }))
            kept << klString(line, length);
        if (!next) break;
        line = next + 1;
    }
    return kept;
}

// A clock such as "2.40GHz", "3864.000000MHz" or "2400 MHz" in MHz; 0 when the text
// holds none or one beyond 32 bits.
uint32_t ClockMHz(const char* text) {
    uint64_t thousandths = 0;
    if (!text || !ParseDecimal(text, 3, UINT64_MAX, thousandths)) return 0;
    while (IsBlank(*text)) ++text;
    uint64_t mhz = std::strncmp(text, "GHz", 3) == 0   ? thousandths
                   : std::strncmp(text, "MHz", 3) == 0 ? (thousandths + 500) / 1000
                                                       : 0;
    return mhz <= UINT32_MAX ? uint32_t(mhz) : 0;
}

// The "@ 3.20GHz" that Intel and some AMD processors put at the end of their model name:
// the nominal clock, which is what the registry value on Windows holds too.
uint32_t ModelNameMHz(const klString& cpuinfo) {
    const char* model = FieldValue(cpuinfo, "model name");
    if (!model) return 0;
    const char* end = std::strchr(model, '\n');
    std::string_view line(model, end ? size_t(end - model) : std::strlen(model));
    size_t at = line.rfind('@');
    return at == std::string_view::npos ? 0 : ClockMHz(model + at + 1);
}

// The first "cpu MHz" line (s390 names its nominal clock "cpu MHz static").
uint32_t CpuMHzField(const klString& cpuinfo) {
    const char* value = FieldValue(cpuinfo, "cpu MHz");
    if (!value) value = FieldValue(cpuinfo, "cpu MHz static");
    uint64_t mhz = 0;
    return value && ParseDecimal(value, 0, UINT32_MAX, mhz) ? uint32_t(mhz) : 0;
}

// A cpufreq attribute in kHz as MHz; ARM kernels keep it in the policy folder alone.
// Found is set when the file could be read, whatever it held.
uint32_t CpufreqMHz(const char* attribute, bool& found) {
    for (const char* folder : {"sys/devices/system/cpu/cpu0/cpufreq/", "sys/devices/system/cpu/cpufreq/policy0/"}) {
        klString text;
        if (!ReadText(RootPath(klpf("%s%s", folder, attribute)), text)) continue;
        found = true;
        uint64_t khz = 0;
        if (ParseNumber(text.Const(), uint64_t(UINT32_MAX) * 1000, khz) && khz >= 1000) return uint32_t(khz / 1000);
        return 0;
    }
    return 0;
}

// The number of processors a kernel list such as "0-3,8,10-11" names; 0 for a list that
// is empty, malformed, descending or beyond any real machine.
uint32_t CountCpuList(const klString& list) {
    const char* at = list.Const();
    uint64_t count = 0;
    for (;;) {
        uint64_t first = 0, last = 0;
        if (!ParseDecimal(at, 0, kMaxCpuNumber, first)) return 0;
        last = first;
        if (*at == '-' && !ParseDecimal(++at, 0, kMaxCpuNumber, last)) return 0;
        if (last < first || (count += last - first + 1) > kMaxCpuNumber) return 0;
        if (*at != ',') break;
        ++at;
    }
    while (*at == '\n' || IsBlank(*at)) ++at;
    return *at == 0 ? uint32_t(count) : 0;
}

// The "cpuN" folders of sys/devices/system/cpu.
uint32_t CountCpuFolders() {
    DIR* dir = opendir(RootPath("sys/devices/system/cpu").Const());
    if (!dir) return 0;
    uint32_t count = 0;
    while (const dirent* entry = readdir(dir)) {
        const char* name = entry->d_name;
        if (std::strncmp(name, "cpu", 3) != 0 || !IsDigit(name[3])) continue;
        name += 3;
        while (IsDigit(*name)) ++name;
        count += *name == 0;
    }
    closedir(dir);
    return count;
}

// The processor entries of a cpuinfo: "processor : 3" lines (x86, ARM, POWER) or
// "processor 3: ..." lines (s390).
uint32_t CountCpuinfoProcessors(const klString& cpuinfo) {
    uint32_t count = 0;
    for (const char* line = cpuinfo.Const(); *line;) {
        if (std::strncmp(line, "processor", 9) == 0) {
            const char* at = line + 9;
            while (IsBlank(*at)) ++at;
            if (*at == ':') {
                ++at;
                while (IsBlank(*at)) ++at;
                count += IsDigit(*at);
            } else {
                const char* digits = at;
                while (IsDigit(*at)) ++at;
                count += at > digits && *at == ':';
            }
        }
        const char* next = std::strchr(line, '\n');
        if (!next) break;
        line = next + 1;
    }
    return count;
}

} // namespace

uint32_t oRigwardenProbe::ReadCpuMHz(klString& errors) {
    // Sources from the most to the least faithful to the nominal clock: the current clock
    // in /proc/cpuinfo comes late, since an idle core understates the processor, and
    // POWER's "clock" line last.
    bool sourceFound = false;
    if (uint32_t mhz = CpufreqMHz("base_frequency", sourceFound)) return mhz;
    klString cpuinfo;
    bool haveCpuinfo = ReadText(RootPath("proc/cpuinfo"), cpuinfo);
    sourceFound |= haveCpuinfo;
    if (uint32_t mhz = haveCpuinfo ? ModelNameMHz(cpuinfo) : 0) return mhz;
    if (uint32_t mhz = CpufreqMHz("cpuinfo_max_freq", sourceFound)) return mhz;
    if (uint32_t mhz = haveCpuinfo ? CpuMHzField(cpuinfo) : 0) return mhz;
    if (uint32_t mhz = haveCpuinfo ? ClockMHz(FieldValue(cpuinfo, "clock")) : 0) return mhz;
    errors << (sourceFound ? kCpuSpeedMissingMessage : kCpuInfoMissingMessage);
    return 0;
}

uint32_t oRigwardenProbe::ReadCpuCount() {
    klString text;
    if (ReadText(RootPath("sys/devices/system/cpu/online"), text))
        if (uint32_t count = CountCpuList(text)) return count;
    if (!SnapshotMode()) {
        long count = sysconf(_SC_NPROCESSORS_ONLN);
        if (count <= 0 || uint64_t(count) > UINT32_MAX) return 0;
        // A snapshot may not ask its host, so it keeps the count as the kernel's list.
        Record(RootPath("sys/devices/system/cpu/online"), klpf("0-%ld\n", count - 1));
        return uint32_t(count);
    }
    if (ReadText(RootPath("sys/devices/system/cpu/present"), text))
        if (uint32_t count = CountCpuList(text)) return count;
    if (uint32_t count = CountCpuFolders()) return count;
    return ReadText(RootPath("proc/cpuinfo"), text) ? CountCpuinfoProcessors(text) : 0;
}

uint64_t oRigwardenProbe::ReadTotalPhysicalMemory() {
    klString meminfo;
    if (!ReadText(RootPath("proc/meminfo"), meminfo)) return 0;
    const char* value = FieldValue(meminfo, "MemTotal");
    uint64_t kb = 0;
    return value && ParseDecimal(value, 0, UINT64_MAX / 1024, kb) ? kb * 1024 : 0;
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
    ReadNumber(klpf("%s/%s", folder.Const(), attribute), UINT32_MAX, value);
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
        if (!ReadNumber(klpf("%s/class", folder.Const()), UINT32_MAX, cls) || (cls >> 16) != 0x03) continue;
        if (ReadNumber(klpf("%s/enable", folder.Const()), UINT32_MAX, enable) && enable == 0) continue;
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
    explicit ChunkedLineReader(int fd) : mFd(fd) {}
    // The next line without its line feed; false at the end. Lines longer than the
    // buffer come back cut into buffer-sized pieces.
    bool Next(std::string_view& line) {
        for (;;) {
            char* start = mBuffer + mBegin;
            size_t available = mEnd - mBegin;
            if (char* newline = static_cast<char*>(std::memchr(start, '\n', available))) {
                line = std::string_view(start, size_t(newline - start));
                mBegin += line.size() + 1;
                mLineStart = true;
                return true;
            }
            if (mAtEnd || available == sizeof(mBuffer)) {
                if (available == 0) return false;
                line = std::string_view(start, available);
                mBegin = mEnd;
                mLineStart = false; // a piece of a longer line may follow
                return true;
            }
            Refill();
        }
    }

    // Moves to the start of the next line, this one included, for which matters(head)
    // holds; head has kLook bytes, which may run past a short line's end. False at the end
    // of the file (a last line shorter than kLook is never looked at). Skipped lines are
    // never split out one by one, which makes long skips cheap.
    static constexpr size_t kLook = 7;
    template <class Matters> bool SkipLines(Matters matters) {
        for (;;) {
            const char* at = mBuffer + mBegin;
            const char* const end = mBuffer + mEnd;
            for (const char* feed; !mLineStart; mLineStart = true, at = feed + 1)
                if (!(feed = static_cast<const char*>(std::memchr(at, '\n', size_t(end - at))))) {
                    at = end;
                    break;
                }
            while (mLineStart && size_t(end - at) >= kLook) {
                if (matters(at)) {
                    mBegin = size_t(at - mBuffer);
                    return true;
                }
                const char* feed = static_cast<const char*>(std::memchr(at, '\n', size_t(end - at)));
                mLineStart = feed != nullptr;
                at = feed ? feed + 1 : end;
            }
            mBegin = size_t(at - mBuffer);
            if (mAtEnd) return false;
            Refill();
        }
    }

private:
    void Refill() {
        std::memmove(mBuffer, mBuffer + mBegin, mEnd - mBegin);
        mEnd -= mBegin;
        mBegin = 0;
        ssize_t got;
        do got = read(mFd, mBuffer + mEnd, sizeof(mBuffer) - mEnd);
        while (got < 0 && errno == EINTR);
        mEnd += got > 0 ? size_t(got) : 0;
        mAtEnd = got <= 0; // a read error ends the file where it stands
    }

    int mFd;
    char mBuffer[64 * 1024];
    size_t mBegin = 0, mEnd = 0;
    bool mAtEnd = false;
    bool mLineStart = true; // mBegin is where a line begins
};

int OpenPciIds(klString& path) {
    for (const char* relative : {"usr/share/misc/pci.ids", "usr/share/hwdata/pci.ids"})
        if (int fd = OpenRegular(path = RootPath(relative)); fd >= 0) return fd;
    return -1;
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
// A snapshot keeps only the lines that named a device, each under its vendor's line.
void NameFromPciIds(std::vector<PciDisplayDevice>& devices) {
    klString path;
    const int fd = OpenPciIds(path);
    if (fd < 0) return;
    ChunkedLineReader reader(fd);
    std::string_view line, name;
    uint32_t vendor = 0, id = 0;
    bool vendorWanted = false; // device lines of other vendors are skipped unread
    klString vendorName, vendorLine, kept;
    uint32_t keptVendor = UINT32_MAX;
    std::vector<std::string> wanted; // "\tdddd  " of the wanted vendor's devices
    // Only vendor lines (and comments, and the device classes) are not indented; inside a
    // wanted vendor's section only the lines of our devices matter.
    auto matters = [&](const char* head) {
        if (head[0] != '\t') return true;
        for (const std::string& start : wanted)
            if (std::memcmp(head, start.data(), ChunkedLineReader::kLook) == 0) return true;
        return false;
    };
    size_t unnamed = devices.size();
    while (unnamed > 0 && reader.SkipLines(matters) && reader.Next(line)) {
        if (line.empty() || line[0] == '#') continue;
        if (line[0] != '\t') {
            if (line.size() > 1 && line[0] == 'C' && line[1] == ' ') break;
            vendorWanted = ParseIdLine(line, vendor, name) &&
                           std::any_of(devices.begin(), devices.end(),
                                       [&](const PciDisplayDevice& device) { return device.vendor == vendor; });
            wanted.clear();
            if (!vendorWanted) continue;
            vendorName = klString(name.data(), uint32_t(name.size()));
            if (tRecording) vendorLine = klString(line.data(), uint32_t(line.size()));
            for (const PciDisplayDevice& device : devices)
                if (device.vendor == vendor) wanted.push_back(klpf("\t%04x  ", device.device).Const());
            continue;
        }
        if (!vendorWanted || line.size() < 2 || line[1] == '\t' || !ParseIdLine(line.substr(1), id, name)) continue;
        size_t before = unnamed;
        for (PciDisplayDevice& device : devices) {
            if (device.vendor != vendor || device.device != id || !device.name.IsEmpty()) continue;
            device.name = klpf("%s %.*s", vendorName.Const(), int(name.size()), name.data());
            --unnamed;
        }
        if (unnamed == before || !tRecording) continue;
        if (keptVendor != vendor) kept << vendorLine << "\n";
        keptVendor = vendor;
        kept << klString(line.data(), uint32_t(line.size())) << "\n";
    }
    close(fd);
    if (!kept.IsEmpty()) Record(path, kept);
}

} // namespace

// Every enabled display device is read whether it drives a display or not, so asking for
// all present ones changes nothing here.
void oRigwardenProbe::ReadAdapters(std::vector<vsGpuInfo>& adapters, bool /*allPresent*/) {
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

void oRigwardenSnapshot::BeginCapture() {
    tRecorded.clear();
    tRecording = true;
}

std::vector<vsSnapshotFile> oRigwardenSnapshot::EndCapture() {
    tRecording = false;
    std::vector<vsSnapshotFile> kept;
    const char kPciFolder[] = "sys/bus/pci/devices/";
    for (vsSnapshotFile& file : tRecorded) {
        // The keys that ReadCpuMHz and ReadTotalPhysicalMemory ask for.
        if (file.path == "proc/cpuinfo")
            file.text = KeptLines(file.text, {"model name", "cpu MHz", "cpu MHz static", "clock"});
        if (file.path == "proc/meminfo") file.text = KeptLines(file.text, {"MemTotal"});
        if (std::strncmp(file.path.Const(), kPciFolder, sizeof(kPciFolder) - 1) == 0) {
            // Display-class devices only: the class of every PCI device was read to find them.
            klString classPath = klpf("%s/class", file.path.SubString(0, uint32_t(file.path.Find('/', true))).Const());
            auto cls = std::find_if(tRecorded.begin(), tRecorded.end(),
                                    [&](const vsSnapshotFile& other) { return other.path == classPath; });
            uint64_t value = 0;
            if (cls == tRecorded.end() || !ParseNumber(cls->text.Const(), UINT32_MAX, value) || (value >> 16) != 0x03)
                continue;
        }
        kept.push_back(file);
    }
    tRecorded.clear();
    return kept;
}
