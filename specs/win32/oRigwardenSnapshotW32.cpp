// A Windows snapshot: the answers of the platform calls the probes make, kept as text in
// windows-machine.txt and replayed through the table of platform calls.
#include "../oRigwarden.h"
#include "../oRigwardenSnapshot.h"
#include "oRigwardenWin32Calls.h"

#include "keel/klbuffer.h"
#include "keel/klfilesystem.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

const char kMachineFile[] = "windows-machine.txt";
const char kMachineHead[] = "rigwarden windows machine";
constexpr uint32_t kMaxMachineFileBytes = 1u << 20;

struct Display {
    DWORD flags;
    std::string id, description;
};

// What the probes can learn of one machine, call by call.
struct Machine {
    enum MHzState { kRead, kKeyMissing, kValueMissing } mhzState = kRead;
    DWORD mhz = 0;
    DWORD processors = 0;
    DWORDLONG memory = 0;
    std::vector<Display> displays;
    bool presentReadable = true;
    std::vector<vsPresentDevice> present;
};

Machine gReplayed;
bool gReplaying = false;
vsWin32Calls gCallsBeforeReplay;

// A text as one blank-free token: bytes up to the blank, '%' and DEL as %XX. The empty
// text is "%00", which reads back as empty because a text ends at its first zero byte.
klString Escape(const char* text) {
    if (!*text) return "%00";
    klString token;
    for (const char* at = text; *at; ++at) {
        unsigned char c = static_cast<unsigned char>(*at);
        char plain[2] = {*at, 0};
        token << (c <= ' ' || c == '%' || c == 0x7F ? klpf("%%%02X", c).Const() : plain);
    }
    return token;
}

bool Unescape(std::string_view token, std::string& text) {
    text.clear();
    for (size_t i = 0; i < token.size(); ++i) {
        if (token[i] != '%') {
            text += token[i];
            continue;
        }
        char hex[3] = {i + 2 < token.size() ? token[i + 1] : 'x',
                       i + 2 < token.size() ? token[i + 2] : 'x', 0};
        char* end = nullptr;
        long value = std::strtol(hex, &end, 16);
        if (end != hex + 2 || hex[0] == '-' || hex[0] == '+') return false;
        text += char(value);
        i += 2;
    }
    text.resize(std::strlen(text.c_str()));
    return true;
}

bool ParseUnsigned(std::string_view token, int base, uint64_t max, uint64_t& value) {
    std::string digits(token);
    if (digits.empty() || !std::isxdigit(static_cast<unsigned char>(digits[0]))) return false;
    char* end = nullptr;
    errno = 0;
    value = std::strtoull(digits.c_str(), &end, base);
    return *end == 0 && errno != ERANGE && value <= max;
}

// One line of the machine file into machine; false when it is not one the capture writes.
bool ParseLine(const std::vector<std::string_view>& tokens, Machine& machine) {
    uint64_t value = 0;
    std::string_view kind = tokens[0];
    if (kind == "cpu-mhz" && tokens.size() == 2) {
        if (tokens[1] == "key-missing")
            machine.mhzState = Machine::kKeyMissing;
        else if (tokens[1] == "value-missing")
            machine.mhzState = Machine::kValueMissing;
        else if (ParseUnsigned(tokens[1], 10, UINT32_MAX, value))
            machine.mhz = DWORD(value);
        else
            return false;
        return true;
    }
    if (kind == "processors" && tokens.size() == 2 &&
        ParseUnsigned(tokens[1], 10, UINT32_MAX, value)) {
        machine.processors = DWORD(value);
        return true;
    }
    if (kind == "memory" && tokens.size() == 2 && ParseUnsigned(tokens[1], 10, UINT64_MAX, value)) {
        machine.memory = value;
        return true;
    }
    if (kind == "display" && tokens.size() == 4 &&
        ParseUnsigned(tokens[1], 16, UINT32_MAX, value)) {
        Display display{DWORD(value), {}, {}};
        machine.displays.push_back(display);
        return Unescape(tokens[2], machine.displays.back().id) &&
               Unescape(tokens[3], machine.displays.back().description);
    }
    if (kind == "present" && tokens.size() == 3) {
        machine.present.emplace_back();
        return Unescape(tokens[1], machine.present.back().hardwareId) &&
               Unescape(tokens[2], machine.present.back().description);
    }
    if (kind == "present-unreadable" && tokens.size() == 1) {
        machine.presentReadable = false;
        return true;
    }
    return false;
}

// The whole machine file: its head line, one line per answer, and "end" last.
bool ParseMachine(const char* text, Machine& machine) {
    std::vector<std::string_view> tokens;
    bool first = true;
    for (const char* line = text; *line;) {
        const char* next = std::strchr(line, '\n');
        if (!next) return false;
        std::string_view whole(line, size_t(next - line));
        line = next + 1;
        if (first) {
            if (whole != kMachineHead) return false;
            first = false;
            continue;
        }
        if (whole == "end") return *line == 0;
        tokens.clear();
        for (size_t begin = 0; begin <= whole.size();) {
            size_t end = std::min(whole.find(' ', begin), whole.size());
            tokens.push_back(whole.substr(begin, end - begin));
            begin = end + 1;
        }
        if (!ParseLine(tokens, machine)) return false;
    }
    return false;
}

LSTATUS WINAPI ReplayOpenKey(HKEY, LPCSTR, DWORD, REGSAM, PHKEY key) {
    *key = reinterpret_cast<HKEY>(uintptr_t(1));
    return gReplayed.mhzState == Machine::kKeyMissing ? ERROR_FILE_NOT_FOUND : ERROR_SUCCESS;
}
LSTATUS WINAPI ReplayQueryValue(HKEY, LPCSTR, LPDWORD, LPDWORD, LPBYTE data, LPDWORD size) {
    if (gReplayed.mhzState != Machine::kRead) return ERROR_FILE_NOT_FOUND;
    if (*size < sizeof(DWORD)) return ERROR_MORE_DATA;
    std::memcpy(data, &gReplayed.mhz, sizeof(DWORD));
    *size = sizeof(DWORD);
    return ERROR_SUCCESS;
}
LSTATUS WINAPI ReplayCloseKey(HKEY) {
    return ERROR_SUCCESS;
}
void WINAPI ReplaySystemInfo(LPSYSTEM_INFO info) {
    info->dwNumberOfProcessors = gReplayed.processors;
}
BOOL WINAPI ReplayEnumDisplay(LPCSTR, DWORD index, PDISPLAY_DEVICEA device, DWORD) {
    if (index >= gReplayed.displays.size()) return FALSE;
    const Display& display = gReplayed.displays[index];
    device->StateFlags = display.flags;
    klStrNCopy(device->DeviceID, display.id.c_str(), sizeof(device->DeviceID));
    klStrNCopy(device->DeviceString, display.description.c_str(), sizeof(device->DeviceString));
    return TRUE;
}
BOOL WINAPI ReplayMemory(LPMEMORYSTATUSEX status) {
    status->ullTotalPhys = gReplayed.memory;
    return TRUE;
}
HDEVINFO WINAPI ReplayClassDevs(const GUID*, PCSTR, HWND, DWORD) {
    return gReplayed.presentReadable ? reinterpret_cast<HDEVINFO>(uintptr_t(1))
                                     : INVALID_HANDLE_VALUE;
}
BOOL WINAPI ReplayEnumDevice(HDEVINFO, DWORD index, PSP_DEVINFO_DATA device) {
    if (index >= gReplayed.present.size()) {
        SetLastError(ERROR_NO_MORE_ITEMS);
        return FALSE;
    }
    device->DevInst = index;
    return TRUE;
}
BOOL WINAPI ReplayProperty(HDEVINFO, PSP_DEVINFO_DATA device, DWORD property, PDWORD, PBYTE buffer,
                           DWORD size, PDWORD needed) {
    const vsPresentDevice& present = gReplayed.present[device->DevInst];
    const std::string& text =
        property == SPDRP_HARDWAREID ? present.hardwareId : present.description;
    SetLastError(text.empty() ? ERROR_INVALID_DATA : ERROR_INSUFFICIENT_BUFFER);
    if (needed) *needed = DWORD(text.size() + 1);
    if (text.empty() || size < text.size() + 1) return FALSE;
    std::memcpy(buffer, text.c_str(), text.size() + 1);
    return TRUE;
}
BOOL WINAPI ReplayDestroy(HDEVINFO) {
    return TRUE;
}

} // namespace

const char* oRigwardenSnapshot::Platform() {
    return "windows";
}

// The calls are asked at the end instead, all of them: the device registry too, so that
// the snapshot answers the query with and without all adapters.
void oRigwardenSnapshot::BeginCapture() {}

std::vector<vsSnapshotFile> oRigwardenSnapshot::EndCapture() {
    klString text = klpf("%s\n", kMachineHead);
    klString errors;
    uint32_t mhz = oRigwardenProbe::ReadCpuMHz(errors);
    text << (errors.IsEmpty()                   ? klpf("cpu-mhz %u\n", mhz)
             : errors == kCpuInfoMissingMessage ? klString("cpu-mhz key-missing\n")
                                                : klString("cpu-mhz value-missing\n"));
    text << klpf("processors %u\nmemory %llu\n", oRigwardenProbe::ReadCpuCount(),
                 static_cast<unsigned long long>(oRigwardenProbe::ReadTotalPhysicalMemory()));
    vsEnumDisplayDevices([&](DWORD flags, char* id, const char* description) {
        text << klpf("display %08lx ", static_cast<unsigned long>(flags)) << Escape(id) << " "
             << Escape(description) << "\n";
    });
    std::vector<vsPresentDevice> present;
    if (!vsReadPresentDisplayDevices(present)) text << "present-unreadable\n";
    for (const vsPresentDevice& device : present)
        text << "present " << Escape(device.hardwareId.c_str()) << " "
             << Escape(device.description.c_str()) << "\n";
    text << "end\n";
    return {{kMachineFile, text}};
}

bool oRigwardenSnapshot::StartReplay(const klString& folder, klString& error) {
    klBlob blob;
    Machine machine;
    if (!klFileSystem::LoadZ(klFileSystem::CombinePath(folder, kMachineFile), blob,
                             kMaxMachineFileBytes) ||
        blob.Size() == 0 ||
        !ParseMachine(reinterpret_cast<const char*>(blob.ConstPtr(0)), machine)) {
        error = klpf("is damaged: %s cannot be read", kMachineFile);
        return false;
    }
    gReplayed = machine;
    if (!gReplaying) gCallsBeforeReplay = oRigwardenWin32Calls();
    gReplaying = true;
    oRigwardenWin32Calls() = {
        ReplayOpenKey, ReplayQueryValue, ReplayCloseKey,   ReplaySystemInfo, ReplayEnumDisplay,
        ReplayMemory,  ReplayClassDevs,  ReplayEnumDevice, ReplayProperty,   ReplayDestroy};
    return true;
}

void oRigwardenSnapshot::StopReplay() {
    if (gReplaying) oRigwardenWin32Calls() = gCallsBeforeReplay;
    gReplaying = false;
}
