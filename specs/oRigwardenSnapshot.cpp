#include "oRigwardenSnapshot.h"

#include "keel/klbuffer.h"
#include "keel/klfilesystem.h"
#include "keel/klhashfunc.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string_view>

const char* const oRigwardenSnapshot::kManifestName = "rigwarden.json";

namespace {

// A snapshot file is a probe file (at most 16 MiB) or smaller; the manifest holds a few
// dozen digests and one answer.
constexpr uint32_t kMaxSnapshotFileBytes = 16u << 20;
constexpr uint32_t kMaxManifestBytes = 1u << 20;
// Deeper than any probe path (sys/bus/pci/devices/X/attribute); a link loop stops here.
constexpr int kMaxFolderDepth = 12;

const char kManifestHead[] = "{\n  \"Snapshot\": \"rigwarden\",\n";

klString Digest(const char* data, uint32_t size) {
    klHashMD5 md5;
    md5.Update(data, size);
    klMD5Digest digest = md5.Finish();
    char hex[33];
    for (int i = 0; i < 16; ++i)
        std::snprintf(hex + 2 * i, 3, "%02x", digest.mBytes[i]);
    return hex;
}

// A file's digest; false when it is no regular file, unreadable or too large.
bool FileDigest(const klString& path, klString& digest) {
    klBlob blob;
    if (!klFileSystem::LoadZ(path, blob, kMaxSnapshotFileBytes)) return false;
    uint32_t size = blob.Size() ? blob.Size() - 1 : 0; // LoadZ's closing zero is no part of it
    digest = Digest(size ? reinterpret_cast<const char*>(blob.ConstPtr(0)) : "", size);
    return true;
}

// A path a manifest may name: relative, '/'-separated, of plain name characters, with no
// empty, "." or ".." part, so that it stays inside the snapshot folder.
bool IsSnapshotPath(std::string_view path) {
    if (path.empty() || path == oRigwardenSnapshot::kManifestName) return false;
    for (char c : path)
        if (!(std::isalnum(static_cast<unsigned char>(c)) || std::strchr("._:/+-", c)))
            return false;
    for (size_t begin = 0; begin <= path.size();) {
        size_t end = std::min(path.find('/', begin), path.size());
        std::string_view part = path.substr(begin, end - begin);
        if (part.empty() || part == "." || part == "..") return false;
        begin = end + 1;
    }
    return true;
}

bool WriteFile(const klString& path, const klString& text) {
    FILE* fp = klFileSystem::Open(path, "wb");
    if (!fp) return false;
    bool ok = std::fwrite(text.Const(), 1, text.Size(), fp) == text.Size();
    return klFileSystem::Close(fp) == 0 && ok;
}

bool IsAbsentOrEmpty(const klString& folder) {
    if (!klFileSystem::FileExists(folder.Const())) return true;
    std::vector<klString> folders, files;
    klFileSystem::ListDirectory(folder.Const(), folders, files);
    return folders.empty() && files.empty();
}

// Every entry below folder/relative that is no folder, by its path below folder. False
// when the tree is deeper than any snapshot.
bool ListFiles(const klString& folder, const klString& relative, int depth,
               std::vector<klString>& paths) {
    if (depth > kMaxFolderDepth) return false;
    std::vector<klString> folders, files;
    klFileSystem::ListDirectory(
        relative.IsEmpty() ? folder.Const() : klFileSystem::CombinePath(folder, relative).Const(),
        folders, files);
    auto below = [&](const klString& name) {
        return relative.IsEmpty() ? name : klpf("%s/%s", relative.Const(), name.Const());
    };
    for (const klString& name : files)
        paths.push_back(below(name));
    for (const klString& name : folders)
        if (!ListFiles(folder, below(name), depth + 1, paths)) return false;
    return true;
}

// The lines of a manifest, read strictly in the layout Write gives them.
class ManifestLines {
public:
    explicit ManifestLines(const char* text) : mAt(text) {}
    bool Next(std::string_view& line) {
        const char* end = std::strchr(mAt, '\n');
        if (!end) return false;
        line = std::string_view(mAt, size_t(end - mAt));
        mAt = end + 1;
        return true;
    }
    // The value of a line `  "name": "value",`; false when the line is not one.
    bool Value(const char* name, std::string_view& value) {
        std::string_view line;
        klString head = klpf("  \"%s\": \"", name);
        if (!Next(line) || line.substr(0, head.Size()) != head.Const() ||
            line.size() < head.Size() + 2 || line.substr(line.size() - 2) != "\",")
            return false;
        value = line.substr(head.Size(), line.size() - head.Size() - 2);
        return value.find('"') == std::string_view::npos;
    }

private:
    const char* mAt;
};

// The files a manifest lists, with their digests: from its "Files" line to the line that
// closes the list. False when a line is not in the layout.
bool ReadFileList(ManifestLines& lines, std::vector<vsSnapshotFile>& files) {
    std::string_view line;
    if (!lines.Next(line) || line != "  \"Files\": {") return false;
    bool last = false; // an entry without its comma ends the list
    while (lines.Next(line)) {
        if (line == "  },") return files.empty() || last;
        if (last || line.size() < 5) return false;
        last = line.back() != ',';
        if (!last) line.remove_suffix(1);
        size_t colon = line.find("\": \"");
        if (line.substr(0, 5) != "    \"" || colon == std::string_view::npos || line.back() != '"')
            return false;
        std::string_view path = line.substr(5, colon - 5),
                         digest = line.substr(colon + 4, line.size() - colon - 5);
        if (!IsSnapshotPath(path) || digest.size() != 32 ||
            digest.find_first_not_of("0123456789abcdef") != std::string_view::npos)
            return false;
        files.push_back(
            {klString(path.data(), uint32_t(path.size())), klString(digest.data(), 32)});
    }
    return false;
}

} // namespace

bool oRigwardenSnapshot::Write(const klString& folder, const std::vector<vsSnapshotFile>& files,
                               const char* version, const klString& answerJson, klString& error) {
    if (!IsAbsentOrEmpty(folder) || !klFileSystem::CreatePath(folder.Const())) {
        error = klpf("'%s' is not an empty folder that can be written", folder.Const());
        return false;
    }
    char captured[32];
    std::time_t now = std::time(nullptr);
    std::strftime(captured, sizeof(captured), "%Y-%m-%dT%H:%M:%SZ", std::gmtime(&now));
    klString manifest = kManifestHead;
    manifest << klpf(
        "  \"Version\": \"%s\",\n  \"Platform\": \"%s\",\n  \"Captured\": \"%s\",\n  \"Files\": {",
        version, Platform(), captured);
    for (size_t i = 0; i < files.size(); ++i) {
        klString path = klFileSystem::CombinePath(folder, files[i].path);
        if (!IsSnapshotPath(files[i].path.Const()) ||
            !klFileSystem::CreatePath(klFileSystem::FolderOf(path).Const()) ||
            !WriteFile(path, files[i].text)) {
            error = klpf("cannot write '%s'", path.Const());
            return false;
        }
        manifest << klpf("%s\n    \"%s\": \"%s\"", i ? "," : "", files[i].path.Const(),
                         Digest(files[i].text.Const(), files[i].text.Size()).Const());
    }
    // The answer as the tool printed it, two more blanks in.
    manifest << "\n  },\n  \"Answer\": ";
    for (const klString& line : Split(answerJson.Const(), "\n"))
        manifest << (line == "{" ? "" : "\n  ") << line;
    manifest << "\n}\n";
    klString manifestPath = klFileSystem::CombinePath(folder, kManifestName);
    if (!WriteFile(manifestPath, manifest)) {
        error = klpf("cannot write '%s'", manifestPath.Const());
        return false;
    }
    return true;
}

oRigwardenSnapshot::Status oRigwardenSnapshot::Check(const klString& folder, const char* version,
                                                     klString& error) {
    klString manifestPath = klFileSystem::CombinePath(folder, kManifestName);
    if (!klFileSystem::FileExists(manifestPath.Const())) return kNoManifest;
    klBlob blob;
    bool loaded = klFileSystem::LoadZ(manifestPath, blob, kMaxManifestBytes) && blob.Size() > 0;
    ManifestLines lines(loaded ? reinterpret_cast<const char*>(blob.ConstPtr(0)) : "");
    std::string_view line, value;
    std::vector<vsSnapshotFile> files;
    if (!lines.Next(line) || line != "{" || !lines.Next(line) ||
        line != "  \"Snapshot\": \"rigwarden\",") {
        error = klpf("is damaged: %s is no snapshot manifest", kManifestName);
        return kUnusable;
    }
    // The version comes first, so a later layout still meets a clear refusal.
    if (!lines.Value("Version", value) || value != version) {
        error = klpf("was captured by rigwarden-check %.*s; this is rigwarden-check %s",
                     int(std::min<size_t>(value.size(), 64)), value.data(), version);
        return kUnusable;
    }
    if (!lines.Value("Platform", value) || value != Platform()) {
        error = klpf("was captured on %.*s; this rigwarden-check reads %s snapshots",
                     int(std::min<size_t>(value.size(), 64)), value.data(), Platform());
        return kUnusable;
    }
    if (!lines.Value("Captured", value) || !ReadFileList(lines, files)) {
        error = klpf("is damaged: %s is not as it was written", kManifestName);
        return kUnusable;
    }
    for (const vsSnapshotFile& file : files) {
        klString digest;
        if (!FileDigest(klFileSystem::CombinePath(folder, file.path), digest))
            error = klpf("is damaged: %s is missing", file.path.Const());
        else if (digest != file.text)
            error = klpf("is damaged: %s is not as it was captured", file.path.Const());
        if (!error.IsEmpty()) return kUnusable;
    }
    std::vector<klString> present;
    if (!ListFiles(folder, klString(), 0, present)) {
        error = "is damaged: its folders go deeper than a snapshot's";
        return kUnusable;
    }
    for (const klString& path : present) {
        bool listed = std::any_of(files.begin(), files.end(),
                                  [&](const vsSnapshotFile& file) { return file.path == path; });
        if (!listed && path != kManifestName) {
            error = klpf("is damaged: %s is no part of it", path.Const());
            return kUnusable;
        }
    }
    return kUsable;
}
