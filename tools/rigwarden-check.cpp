// rigwarden-check: judges this machine (or a snapshot of one) against a graphics-card
// database and prints the report for people or, with --json, for scripts. It also
// captures this machine into a snapshot folder.
//
// Exit status: 0 meets the minimum spec, 1 below it, 2 a probe failed, 64 bad usage,
// 65 an unusable snapshot, 73 a snapshot that could not be captured.
#include "oRigwarden.h"
#include "oRigwardenSnapshot.h"

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

enum ExitCode {
    kMeetsSpec = 0,
    kBelowSpec = 1,
    kProbeError = 2,
    kUsageError = 64,
    kUnusableSnapshot = 65,
    kCaptureFailed = 73,
};

const char kUsage[] =
    "usage: rigwarden-check [--db DIR] [--root DIR | --capture DIR] [--all-adapters] [--json]\n"
    "       rigwarden-check --help | --version\n"
    "\n"
    "Judges this machine against the graphics-card database in DIR (every *.cfg file).\n"
    "  --db DIR       database folder (default: the bundled database)\n"
    "  --capture DIR  also write a snapshot of this machine into DIR (absent or empty)\n"
    "  --root DIR     judge the snapshot in DIR instead of this machine; on Linux also\n"
    "                 a folder made by hand, read as / (the same as RIGWARDEN_ROOT)\n"
    "  --all-adapters also list the display devices that drive no desktop, such as\n"
    "                 a hybrid laptop's discrete GPU (Windows; Linux lists all anyway)\n"
    "  --json         print the answer as JSON\n"
    "Exit status: 0 meets the minimum spec, 1 below it, 2 a probe failed, 64 bad usage,\n"
    "65 a snapshot that is damaged or from another version, 73 a failed capture.\n";

struct Options {
    klString database;
    const char* root = nullptr;
    const char* capture = nullptr;
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

// A root folder made by hand must exist and hold proc/ or sys/: anything else would be
// judged as a machine without processors, memory or adapters, a verdict about nothing.
bool CheckRoot(const char* root) {
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
        const bool hasValue = i + 1 < argc;
        const bool takesValue = !std::strcmp(arg, "--db") || !std::strcmp(arg, "--root") || !std::strcmp(arg, "--capture");
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
        } else if (std::strcmp(arg, "--capture") == 0 && hasValue && *argv[i + 1]) {
            options.capture = argv[++i];
        } else {
            std::fprintf(stderr, "rigwarden-check: %s '%s'\n%s",
                         takesValue ? "missing value for" : "unknown option",
                         arg, kUsage);
            return kUsageError;
        }
    }
    if (options.database.IsEmpty()) options.database = BundledDatabase();
    if (options.root && options.capture) {
        std::fprintf(stderr, "rigwarden-check: --capture takes this machine; it cannot be given with --root\n");
        return kUsageError;
    }
    return -1;
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

// Appends text as a JSON string: control characters escaped, and every byte that is not
// part of well-formed UTF-8 (a Latin-1 name in an old pci.ids, say) replaced by U+FFFD.
void AppendJsonString(klString& out, const klString& text) {
    out << "\"";
    for (const char* at = text.Const(); *at; ++at) {
        unsigned char c = static_cast<unsigned char>(*at);
        if (int length = c < 0x80 ? 1 : Utf8Length(reinterpret_cast<const unsigned char*>(at)); length > 1) {
            out << klString(at, uint32_t(length));
            at += length - 1;
        } else if (length == 0)
            out << "\\ufffd";
        else if (c == '"' || c == '\\')
            out << klpf("\\%c", c);
        else if (c == '\n')
            out << "\\n";
        else if (c == '\r')
            out << "\\r";
        else if (c == '\t')
            out << "\\t";
        else if (c < 0x20)
            out << klpf("\\u%04x", c);
        else
            out << klString(at, 1);
    }
    out << "\"";
}

klString JsonReport(const vsQueryResult& result) {
    auto flag = [](bool value) { return value ? "true" : "false"; };
    klString out = klpf("{\n  \"IsError\": %s,\n  \"ErrorMessage\": ", flag(!result.probeErrors.IsEmpty()));
    AppendJsonString(out, result.probeErrors);
    out << klpf(",\n  \"IsUnderMinSpec\": %s,\n  \"UnderMinSpecReason\": ", flag(result.spec.underMinSpec));
    AppendJsonString(out, result.spec.underMinSpecReason);
    out << klpf(",\n  \"BestGpuIndex\": %u,\n  \"GpuInfo\": [", result.bestIndex);
    for (size_t i = 0; i < result.adapters.size(); ++i) {
        const vsGpuInfo& gpu = result.adapters[i];
        out << klpf("%s\n    {\n      \"AdapterName\": ", i ? "," : "");
        AppendJsonString(out, gpu.name);
        out << klpf(",\n      \"VendorId\": %u,\n      \"DeviceId\": %u,\n      \"NotListed\": %s,\n"
                    "      \"NotListedInfo\": ",
                    gpu.vendorId, gpu.deviceId, flag(gpu.notListed));
        AppendJsonString(out, gpu.notListedInfo);
        out << klpf(",\n      \"RecommendedVideoQuality\": %d,\n      \"RecommendedWidth\": %u,\n"
                    "      \"Benchmark\": %u,\n      \"Mobile\": %s\n    }",
                    gpu.recommendedVideoQuality, gpu.recommendedWidth, gpu.benchmark, flag(gpu.mobile));
    }
    out << klpf("%s],\n  \"CpuCount\": %u,\n  \"CpuMHz\": %u,\n  \"TotalPhysicalMemory\": %llu\n}\n",
                result.adapters.empty() ? "" : "\n  ", result.cpuCount, result.cpuMHz,
                static_cast<unsigned long long>(result.totalPhysBytes));
    return out;
}

// Appends each line of text behind an indent.
void AppendIndented(klString& out, const klString& text, const char* indent) {
    for (const klString& line : Split(text.Const(), "\n")) out << indent << line << "\n";
}

klString TextReport(const vsQueryResult& result, const klString& database) {
    klString out = "Database:   ";
    out << database << klpf("\nProcessor:  %u logical processors at %u MHz\n", result.cpuCount, result.cpuMHz);
    out << klpf("Memory:     %llu MB\n", static_cast<unsigned long long>(result.totalPhysBytes >> 20));
    out << klpf("Display adapters: %u\n", unsigned(result.adapters.size()));
    for (size_t i = 0; i < result.adapters.size(); ++i) {
        const vsGpuInfo& gpu = result.adapters[i];
        bool best = i == result.bestIndex;
        // Names and messages are appended whole: a formatted piece is cut at 2047 characters.
        out << klpf("  %s[%u] ", best ? "* " : "  ", unsigned(i)) << gpu.name
            << klpf(" (%04x:%04x)%s\n", gpu.vendorId, gpu.deviceId, best ? "  <- best" : "");
        if (gpu.notListed)
            out << "        not in the database: " << gpu.notListedInfo << "\n";
        else
            out << klpf("        quality %d, width %u, benchmark %u, %s\n", gpu.recommendedVideoQuality,
                        gpu.recommendedWidth, gpu.benchmark, gpu.mobile ? "mobile" : "not mobile");
    }
    if (!result.probeErrors.IsEmpty()) {
        out << "Probe errors:\n";
        AppendIndented(out, result.probeErrors, "  ");
    }
    if (result.spec.underMinSpec) {
        out << "Verdict:    BELOW the minimum spec\n";
        AppendIndented(out, result.spec.underMinSpecReason, "  ");
    } else {
        out << "Verdict:    meets the minimum spec\n";
    }
    return out;
}

klString Report(const vsQueryResult& result, const Options& options) {
    return options.json ? JsonReport(result) : TextReport(result, options.database);
}

int ExitStatus(const vsQueryResult& result) {
    if (!result.probeErrors.IsEmpty()) return kProbeError;
    return result.spec.underMinSpec ? kBelowSpec : kMeetsSpec;
}

// Points the probes at a --root folder: a snapshot, checked whole first, or on Linux a
// folder made by hand. Returns -1 when they read it, else the exit code to leave with.
int UseRoot(const char* root) {
    klString error;
    oRigwardenSnapshot::Status status = oRigwardenSnapshot::Check(root, RIGWARDEN_VERSION, error);
    if (status == oRigwardenSnapshot::kUsable && oRigwardenSnapshot::StartReplay(root, error)) return -1;
    if (status != oRigwardenSnapshot::kNoManifest) {
        std::fprintf(stderr, "rigwarden-check: snapshot '%s' %s\n", root, error.Const());
        return kUnusableSnapshot;
    }
    // Windows probes read no files, so only a snapshot can stand in for a machine there.
    if (std::strcmp(oRigwardenSnapshot::Platform(), "linux") != 0) {
        std::fprintf(stderr, "rigwarden-check: root folder '%s' holds no %s\n", root,
                     oRigwardenSnapshot::kManifestName);
        return kUsageError;
    }
    if (!CheckRoot(root)) return kUsageError;
    if (kl::platform::SetEnv("RIGWARDEN_ROOT", root)) return -1;
    std::fprintf(stderr, "rigwarden-check: cannot use root folder '%s'\n", root);
    return kUsageError;
}

// Captures this machine into folder while answering the query, then judges the snapshot
// at once: one that does not give this machine's answer is removed, never handed on.
bool CaptureInto(const char* folder, const Options& options, vsQueryResult& live) {
    oRigwardenSnapshot::BeginCapture();
    live = oRigwarden::RunQuery(options.database, options.flags);
    std::vector<vsSnapshotFile> files = oRigwardenSnapshot::EndCapture();
    klString answer = JsonReport(live), error;
    if (!oRigwardenSnapshot::Write(folder, files, RIGWARDEN_VERSION, answer, error)) {
        std::fprintf(stderr, "rigwarden-check: cannot capture into %s\n", error.Const());
        return false;
    }
    bool replayed = oRigwardenSnapshot::Check(folder, RIGWARDEN_VERSION, error) == oRigwardenSnapshot::kUsable &&
                    oRigwardenSnapshot::StartReplay(folder, error);
    replayed = replayed && JsonReport(oRigwarden::RunQuery(options.database, options.flags)) == answer;
    oRigwardenSnapshot::StopReplay();
    if (replayed) return true;
    klFileSystem::DeleteTree(folder);
    std::fprintf(stderr, "rigwarden-check: the snapshot in '%s' did not answer as this machine did; removed\n", folder);
    return false;
}

int Run(const Options& options) {
    if (options.root)
        if (int code = UseRoot(options.root); code >= 0) return code;
    WarnAboutDatabase(options.database);
    vsQueryResult result;
    bool captured = !options.capture || CaptureInto(options.capture, options, result);
    if (!options.capture) result = oRigwarden::RunQuery(options.database, options.flags);
    std::fputs(Report(result, options).Const(), stdout);
    return captured ? ExitStatus(result) : kCaptureFailed;
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
