#include "keel/klsystem.h"

#include "keel/klassert.h"
#include "keel/klcrash.h"
#include "keel/klfilesystem.h"
#include "keel/kllifetime.h"
#include "keel/kllineparser.h"
#include "keel/kllockfree.h"
#include "keel/kllog.h"
#include "keel/klthread.h"

#include <cstdio>
#include <cstring>

// Element count of an array (the assertion below reports the length check with it).
#ifndef klARRSIZE
#define klARRSIZE(a) (sizeof(a) / sizeof((a)[0]))
#endif

namespace {

// The option list while GlobalArgs lives; readers outside its life see this empty one.
const std::vector<klCommandOption> kNoOptions;
const std::vector<klCommandOption>& LiveArgs() {
    return klSingleton<GlobalArgs>::IsLive() ? klSingleton<GlobalArgs>::Instance()->options : kNoOptions;
}

bool IsSeparator(char c) { return c == ' ' || c == ',' || c == '\t'; }

// Cuts the next token out of the buffer in place (terminating it); null at the end.
char* NextToken(char*& cursor) {
    while (IsSeparator(*cursor)) ++cursor;
    if (!*cursor) return nullptr;
    char* token = cursor;
    while (*cursor && !IsSeparator(*cursor)) ++cursor;
    if (*cursor) *cursor++ = 0;
    return token;
}

bool IsOption(const char* token) { return token && token[0] == '-' && token[1] == '-'; }

// Turns the tokens into entries. Holds one token of look-ahead for the value rule.
void FillArgs(char* buffer, std::vector<klCommandOption>& args) {
    char* cursor = buffer;
    char* token = NextToken(cursor);
    while (token) {
        char* next = NextToken(cursor);
        if (!IsOption(token)) {
            args.push_back({klString(), klString(token)});
        } else if (token[2]) {
            char* name = token + 2;
            char* equals = std::strchr(name, '=');
            if (equals) *equals = 0;
            const char* value = equals ? equals + 1 : (!IsOption(next) ? next : nullptr);
            args.push_back({klString(name), klString(value ? value : "")});
            if (!equals && value) next = NextToken(cursor);
        }
        token = next;
    }
}

klShutdownRequestFn gShutdownFn = nullptr;
bool gShutdownRequested = false;
uint32_t gKillSignalGraceMs = 30000;
bool gKillHandlerInstalled = false;

} // namespace

void klParseCommandLine(const char* cmdline) {
    char buffer[2048];
    GlobalArgs* live = klSingleton<GlobalArgs>::Instance(); // asserts outside its life
    if (!live) return;
    if (!klAssertAs(live->options.size() == 0, "g_args().size() == 0") || !cmdline) return;
    if (!klAssert(strlen(cmdline) < klARRSIZE(buffer))) return;
    std::memcpy(buffer, cmdline, strlen(cmdline) + 1);
    FillArgs(buffer, live->options);
}

void klParseCommandLine(int argc, char** argv) {
    klString joined;
    for (int i = 1; i < argc; ++i) {
        if (i > 1) joined.Append(" ");
        joined.Append(argv[i]);
    }
    klParseCommandLine(joined.Const());
}

const klCommandOption* klFindOption(const char* name) {
    for (const klCommandOption& option : LiveArgs())
        if (option.name == name) return &option;
    return nullptr;
}

void klOptionValues(const char* name, std::vector<klString>& values) {
    for (const klCommandOption& option : LiveArgs())
        if (option.name == name) values.push_back(option.value);
}

const std::vector<klCommandOption>& klCommandLineOptions() { return LiveArgs(); }

void klClearCommandLine() {
    if (klSingleton<GlobalArgs>::IsLive()) klSingleton<GlobalArgs>::Instance()->options.clear();
}

ProxyInfo::ProxyInfo() { kl::detail::ReadProxySettings(server, bypass); }

// Nothing in the library asks for the proxy settings, so naming the holder here is what
// registers it wherever this module is linked.
[[maybe_unused]] static const void* const gProxyRegistration = &klSingleton<ProxyInfo>::sRegistration;

const klString& klOperatingSystemDescription() {
    static const klString description = kl::detail::QueryOperatingSystemDescription();
    return description;
}

namespace {

// The PRETTY_NAME of one os-release file, unquoted; empty when the file does not give one.
klString PrettyNameIn(const klString& path) {
    FILE* file = klFileSystem::Open(path.Const(), "rb");
    if (!file) return klString();
    char text[16384]; // os-release files are a few hundred bytes
    size_t size = std::fread(text, 1, sizeof(text), file);
    klFileSystem::Close(file);
    klLineParser lines(text, static_cast<uint32_t>(size));
    const char key[] = "PRETTY_NAME=";
    while (lines.ReadLine()) {
        klString line = lines.GetLineText().Trim();
        if (std::strncmp(line.Const(), key, sizeof(key) - 1) != 0) continue;
        const char* value = line.Const() + sizeof(key) - 1;
        uint32_t n = line.Size() - uint32_t(sizeof(key) - 1);
        bool quoted = n >= 2 && (value[0] == '"' || value[0] == '\'') && value[n - 1] == value[0];
        return quoted ? klString(value + 1, n - 2) : klString(value, n);
    }
    return klString();
}

} // namespace

klString klDescribeOperatingSystem(const char* root, const char* release, bool is64) {
    klString name;
    for (const char* file : {"etc/os-release", "usr/lib/os-release"}) {
        klString path(root);
        name = PrettyNameIn(path << file);
        if (!name.IsEmpty()) break;
    }
    if (name.IsEmpty()) name = "Linux";
    klString description;
    description.AppendFormat("%s (Linux %s), %s", name.Const(), release ? release : "",
                             is64 ? "64-bit" : "32-bit");
    return description;
}

namespace {

constexpr uint32_t kWorkstation = 1;
constexpr uint32_t kArchItanium = 6;
constexpr uint32_t kArchX64 = 9;
constexpr uint32_t kSuiteEnterprise = 0x2;
constexpr uint32_t kSuiteDatacenter = 0x80;
constexpr uint32_t kSuitePersonal = 0x200;
constexpr uint32_t kSuiteBlade = 0x400;
constexpr uint32_t kSuiteStorageServer = 0x2000;
constexpr uint32_t kSuiteComputeServer = 0x4000;
constexpr uint32_t kSuiteHomeServer = 0x8000;

const char* ProductEdition(uint32_t type) {
    switch (type) {
    case 1: return "Ultimate Edition";
    case 2: return "Home Basic Edition";
    case 3: return "Home Premium Edition";
    case 4:
    case 10: return "Enterprise Edition";
    case 6: return "Business Edition";
    case 7: return "Standard Edition";
    case 8: return "Datacenter Edition";
    case 9: return "Small Business Server";
    case 11: return "Starter Edition";
    case 12: return "Datacenter Edition Core";
    case 13: return "Standard Edition Core";
    case 14: return "Enterprise Edition Core";
    case 15: return "Enterprise Edition for Itanium-based Systems";
    case 17: return "Web Server Edition";
    case 18: return "Cluster Server Edition";
    case 25: return "Small Business Server Premium Edition";
    case 48: return "Professional";
    default: return "";
    }
}

const char* Version6Name(const klWindowsVersion& v) {
    bool workstation = v.productType == kWorkstation;
    switch (v.major == 6 ? v.minor : 99) {
    case 0: return workstation ? "Windows Vista " : "Windows Server 2008 ";
    case 1: return workstation ? "Windows 7 " : "Windows Server 2008 R2 ";
    case 2: return workstation ? "Windows 8 " : "Windows Server 8 ";
    default: return "Windows ? ";
    }
}

const char* Server2003Name(const klWindowsVersion& v) {
    if (v.serverR2) return "Windows Server 2003 R2, ";
    if (v.suiteMask & kSuiteStorageServer) return "Windows Storage Server 2003, ";
    if (v.suiteMask & kSuiteHomeServer) return "Windows Home Server, ";
    if (v.productType == kWorkstation && v.processorArchitecture == kArchX64)
        return "Windows XP Professional x64 Edition, ";
    return "Windows Server 2003, ";
}

// The 5.2 server editions, from the processor first and the suite second.
const char* Server2003Edition(const klWindowsVersion& v) {
    if (v.productType == kWorkstation) return "";
    bool datacenter = v.suiteMask & kSuiteDatacenter, enterprise = v.suiteMask & kSuiteEnterprise;
    if (v.processorArchitecture == kArchItanium)
        return datacenter ? "Datacenter Edition for Itanium-based Systems"
               : enterprise ? "Enterprise Edition for Itanium-based Systems" : "";
    if (v.processorArchitecture == kArchX64)
        return datacenter ? "Datacenter x64 Edition" : enterprise ? "Enterprise x64 Edition" : "Standard x64 Edition";
    if (v.suiteMask & kSuiteComputeServer) return "Compute Cluster Edition";
    if (datacenter) return "Datacenter Edition";
    if (enterprise) return "Enterprise Edition";
    return v.suiteMask & kSuiteBlade ? "Web Edition" : "Standard Edition";
}

const char* Windows2000Edition(const klWindowsVersion& v) {
    if (v.productType == kWorkstation) return "Professional";
    if (v.suiteMask & kSuiteDatacenter) return "Datacenter Server";
    return v.suiteMask & kSuiteEnterprise ? "Advanced Server" : "Server";
}

} // namespace

klString klDescribeWindows(const klWindowsVersion& v) {
    klString text("Microsoft ");
    bool nt5 = v.platformId == 2 && v.major == 5 && v.minor <= 2;
    if (v.platformId == 2 && v.major >= 6) {
        text << Version6Name(v) << ProductEdition(v.productInfo);
    } else if (nt5 && v.minor == 2) {
        text << Server2003Name(v) << Server2003Edition(v);
    } else if (nt5 && v.minor == 1) {
        text << "Windows XP " << (v.suiteMask & kSuitePersonal ? "Home Edition" : "Professional");
    } else if (nt5) {
        text << "Windows 2000 " << Windows2000Edition(v);
    } else {
        text << "Windows (unknown version)";
    }
    text.AppendFormat(" build %u", v.build);
    if (v.platformId == 2 && v.major >= 6) text << (v.processorArchitecture == kArchX64 ? ", 64-bit" : ", 32-bit");
    return text;
}

void kl::detail::OnKillSignal() {
    klLogger& console = klConsoleLogger();
    // Level nothing is at or above any minimum, so the line shows however quiet the
    // logger was set; only a minimum beyond nothing would refuse it.
    if (console.Level() <= klLogNothing) console.Log(klLogNothing, "Caught kill signal. Shutting down...", nullptr);
    klAtomicStore(&gShutdownRequested, true);
    if (klShutdownRequestFn fn = klAtomicLoad(&gShutdownFn)) fn();
    klSleep(klAtomicLoad(&gKillSignalGraceMs));
}

void klInstallKillSignalHandler() {
    if (klCompareAndSwap(&gKillHandlerInstalled, false, true)) kl::detail::InstallKillSignalHandler();
}

void klSetShutdownRequestHandler(klShutdownRequestFn fn) { klAtomicStore(&gShutdownFn, fn); }

bool klShutdownRequested() { return klAtomicLoad(&gShutdownRequested); }

void klSetKillSignalGraceMs(uint32_t ms) { klAtomicStore(&gKillSignalGraceMs, ms); }

void klSystemStartup() {
    klInstallCrashHandlers(true, nullptr);
    klInstallKillSignalHandler();
    klObjectLifetimeManager::Initialize();
}

int klExitReport() {
    if (klObjectLifetimeManager::IsInitialized()) klObjectLifetimeManager::Shutdown();
    if (!klObjectLifetimeManager::HasErrorCondition()) return 0;
    std::fputs("Application exited with error condition (code 5)\n", stderr);
    std::fflush(stderr);
    return 5;
}
