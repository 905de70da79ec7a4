// rigwarden-check: judges this machine (or a captured Linux snapshot) against a
// graphics-card database and prints the report for people or, with --json, for scripts.
//
// Exit status: 0 meets the minimum spec, 1 below it, 2 a probe failed, 64 bad usage.
#include "oRigwarden.h"

#include "keel/klfilesystem.h"
#include "keel/kllifetime.h"
#include "keel/klplatform.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#ifndef RIGWARDEN_VERSION
#define RIGWARDEN_VERSION "0.0.0"
#endif

namespace {

enum ExitCode { kMeetsSpec = 0, kBelowSpec = 1, kProbeError = 2, kUsageError = 64 };

const char kUsage[] =
    "usage: rigwarden-check [--db DIR] [--root DIR] [--all-adapters] [--json]\n"
    "       rigwarden-check --help | --version\n"
    "\n"
    "Judges this machine against the graphics-card database in DIR (every *.cfg file).\n"
    "  --db DIR     database folder (default: the bundled database)\n"
    "  --root DIR   read sys/ and proc/ below DIR instead of / (Linux snapshots;\n"
    "               the same as setting RIGWARDEN_ROOT)\n"
    "  --all-adapters  also list the display devices that drive no desktop, such as\n"
    "               a hybrid laptop's discrete GPU (Windows; Linux lists all anyway)\n"
    "  --json       print the answer as JSON\n"
    "Exit status: 0 meets the minimum spec, 1 below it, 2 a probe failed, 64 bad usage.\n";

struct Options {
    klString database;
    const char* root = nullptr;
    bool json = false;
    uint32_t flags = vsQueryDefault;
};

// The database shipped with the tool: beside an installed tool, else in the source tree.
klString BundledDatabase() {
    char exe[1024];
    kl::platform::ExecutablePath(exe, sizeof(exe));
    klString folder(exe);
    int32_t slash = std::max(folder.Find('/', true), folder.Find('\\', true));
    if (slash >= 0) {
        klString installed = klFileSystem::CombinePath(folder.SubString(0, uint32_t(slash)), "../share/rigwarden/gpudb");
        if (klFileSystem::FileExists(installed)) return installed;
    }
    return RIGWARDEN_SOURCE_GPUDB;
}

// A snapshot folder must exist and hold proc/ or sys/: anything else would be judged as a
// machine without processors, memory or adapters, a verdict about nothing.
bool CheckRoot(const char* root) {
    if (!root) return true;
    const char* problem = nullptr;
    if (!*root || !klFileSystem::FileExists(root))
        problem = "does not exist";
    else if (!klFileSystem::FileExists(klFileSystem::CombinePath(root, "proc")) &&
             !klFileSystem::FileExists(klFileSystem::CombinePath(root, "sys")))
        problem = "holds neither proc/ nor sys/";
    if (problem) std::fprintf(stderr, "rigwarden-check: root folder '%s' %s\n", root, problem);
    return !problem;
}

// Returns -1 when the options are good, else the exit code to leave with.
int ParseOptions(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        const char* arg = argv[i];
        bool hasValue = i + 1 < argc;
        if (std::strcmp(arg, "--help") == 0) {
            std::fputs(kUsage, stdout);
            return kMeetsSpec;
        } else if (std::strcmp(arg, "--version") == 0) {
            std::printf("rigwarden-check %s\n", RIGWARDEN_VERSION);
            return kMeetsSpec;
        } else if (std::strcmp(arg, "--json") == 0) {
            options.json = true;
        } else if (std::strcmp(arg, "--all-adapters") == 0) {
            options.flags |= vsQueryAllAdapters;
        } else if (std::strcmp(arg, "--db") == 0 && hasValue) {
            options.database = argv[++i];
        } else if (std::strcmp(arg, "--root") == 0 && hasValue) {
            options.root = argv[++i];
        } else {
            std::fprintf(stderr, "rigwarden-check: %s '%s'\n%s",
                         std::strncmp(arg, "--", 2) == 0 && !hasValue ? "missing value for" : "unknown option",
                         arg, kUsage);
            return kUsageError;
        }
    }
    if (options.database.IsEmpty()) options.database = BundledDatabase();
    return CheckRoot(options.root) ? -1 : kUsageError;
}

// Warns when the database folder offers nothing to read; the verdict goes on without it.
void WarnAboutDatabase(const klString& database) {
    std::vector<klString> files;
    klFileSystem::DirectoryContents(database, "*.cfg", files);
    if (!files.empty()) return;
    std::fprintf(stderr, "rigwarden-check: warning: database folder '%s' %s\n", database.Const(),
                 klFileSystem::FileExists(database) ? "holds no *.cfg file" : "does not exist");
}

// The length of the well-formed UTF-8 sequence at text (no overlong form, no surrogate,
// nothing above U+10FFFF), or 0 when the bytes there form none.
int Utf8Length(const unsigned char* text) {
    const unsigned char c = text[0];
    int length = c < 0x80 ? 1 : (c >> 5) == 6 ? 2 : (c >> 4) == 14 ? 3 : (c >> 3) == 30 ? 4 : 0;
    uint32_t code = length == 1 ? c : c & (0x7F >> length);
    for (int i = 1; i < length; ++i) {
        if ((text[i] & 0xC0) != 0x80) return 0;
        code = (code << 6) | (text[i] & 0x3F);
    }
    static const uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    bool valid = length > 0 && code >= kSmallest[length] && code <= 0x10FFFF && (code < 0xD800 || code > 0xDFFF);
    return valid ? length : 0;
}

// A JSON string: control characters escaped, and every byte that is not part of
// well-formed UTF-8 (a Latin-1 name in an old pci.ids, say) replaced by U+FFFD.
void PrintJsonString(const klString& text) {
    std::putchar('"');
    for (const char* at = text.Const(); *at; ++at) {
        unsigned char c = static_cast<unsigned char>(*at);
        if (int length = c < 0x80 ? 1 : Utf8Length(reinterpret_cast<const unsigned char*>(at)); length > 1) {
            std::fwrite(at, 1, size_t(length), stdout);
            at += length - 1;
        } else if (length == 0)
            std::fputs("\\ufffd", stdout);
        else if (c == '"' || c == '\\')
            std::printf("\\%c", c);
        else if (c == '\n')
            std::fputs("\\n", stdout);
        else if (c == '\r')
            std::fputs("\\r", stdout);
        else if (c == '\t')
            std::fputs("\\t", stdout);
        else if (c < 0x20)
            std::printf("\\u%04x", c);
        else
            std::putchar(c);
    }
    std::putchar('"');
}

void PrintJson(const vsQueryResult& result) {
    auto flag = [](bool value) { return value ? "true" : "false"; };
    std::printf("{\n  \"IsError\": %s,\n  \"ErrorMessage\": ", flag(!result.probeErrors.IsEmpty()));
    PrintJsonString(result.probeErrors);
    std::printf(",\n  \"IsUnderMinSpec\": %s,\n  \"UnderMinSpecReason\": ", flag(result.spec.underMinSpec));
    PrintJsonString(result.spec.underMinSpecReason);
    std::printf(",\n  \"BestGpuIndex\": %u,\n  \"GpuInfo\": [", result.bestIndex);
    for (size_t i = 0; i < result.adapters.size(); ++i) {
        const vsGpuInfo& gpu = result.adapters[i];
        std::printf("%s\n    {\n      \"AdapterName\": ", i ? "," : "");
        PrintJsonString(gpu.name);
        std::printf(",\n      \"VendorId\": %u,\n      \"DeviceId\": %u,\n      \"NotListed\": %s,\n"
                    "      \"NotListedInfo\": ",
                    gpu.vendorId, gpu.deviceId, flag(gpu.notListed));
        PrintJsonString(gpu.notListedInfo);
        std::printf(",\n      \"RecommendedVideoQuality\": %d,\n      \"RecommendedWidth\": %u,\n"
                    "      \"Benchmark\": %u,\n      \"Mobile\": %s\n    }",
                    gpu.recommendedVideoQuality, gpu.recommendedWidth, gpu.benchmark, flag(gpu.mobile));
    }
    std::printf("%s],\n  \"CpuCount\": %u,\n  \"CpuMHz\": %u,\n  \"TotalPhysicalMemory\": %llu\n}\n",
                result.adapters.empty() ? "" : "\n  ", result.cpuCount, result.cpuMHz,
                static_cast<unsigned long long>(result.totalPhysBytes));
}

// Prints each line of text behind an indent.
void PrintIndented(const klString& text, const char* indent) {
    for (const klString& line : Split(text.Const(), "\n")) std::printf("%s%s\n", indent, line.Const());
}

void PrintText(const vsQueryResult& result, const klString& database) {
    std::printf("Database:   %s\n", database.Const());
    std::printf("Processor:  %u logical processors at %u MHz\n", result.cpuCount, result.cpuMHz);
    std::printf("Memory:     %llu MB\n", static_cast<unsigned long long>(result.totalPhysBytes >> 20));
    std::printf("Display adapters: %u\n", unsigned(result.adapters.size()));
    for (size_t i = 0; i < result.adapters.size(); ++i) {
        const vsGpuInfo& gpu = result.adapters[i];
        bool best = i == result.bestIndex;
        std::printf("  %s[%u] %s (%04x:%04x)%s\n", best ? "* " : "  ", unsigned(i), gpu.name.Const(),
                    gpu.vendorId, gpu.deviceId, best ? "  <- best" : "");
        if (gpu.notListed)
            std::printf("        not in the database: %s\n", gpu.notListedInfo.Const());
        else
            std::printf("        quality %d, width %u, benchmark %u, %s\n", gpu.recommendedVideoQuality,
                        gpu.recommendedWidth, gpu.benchmark, gpu.mobile ? "mobile" : "not mobile");
    }
    if (!result.probeErrors.IsEmpty()) {
        std::printf("Probe errors:\n");
        PrintIndented(result.probeErrors, "  ");
    }
    if (result.spec.underMinSpec) {
        std::printf("Verdict:    BELOW the minimum spec\n");
        PrintIndented(result.spec.underMinSpecReason, "  ");
    } else {
        std::printf("Verdict:    meets the minimum spec\n");
    }
}

int Run(const Options& options) {
    if (options.root && !kl::platform::SetEnv("RIGWARDEN_ROOT", options.root)) {
        std::fprintf(stderr, "rigwarden-check: cannot use root folder '%s'\n", options.root);
        return kUsageError;
    }
    WarnAboutDatabase(options.database);
    vsQueryResult result = oRigwarden::RunQuery(options.database, options.flags);
    if (options.json)
        PrintJson(result);
    else
        PrintText(result, options.database);
    if (!result.probeErrors.IsEmpty()) return kProbeError;
    return result.spec.underMinSpec ? kBelowSpec : kMeetsSpec;
}

} // namespace

int main(int argc, char** argv) {
    klObjectLifetimeManager::Initialize();
    Options options;
    int code = ParseOptions(argc, argv, options);
    if (code < 0) code = Run(options);
    klObjectLifetimeManager::Shutdown();
    return code;
}
