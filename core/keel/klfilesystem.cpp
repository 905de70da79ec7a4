#include "keel/klfilesystem.h"

#include "keel/klfileplatform.h"
#include "keel/kllockfree.h"
#include "keel/kllog.h"
#include "keel/klmalloc.h"
#include "keel/klplatform.h"

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace {

// A handler row serves the paths that begin with its prefix. An open handler gets the
// requested path and may hand back, as an owned copy from klAlloc, the local file to
// open instead; a close handler runs after the stream is flushed and before it closes.
using OpenHandler = bool (*)(const char* requested, char** local);
using CloseHandler = void (*)(const char* requested);

struct UrlHandler {
    const char* prefix;
    uintptr_t prefixLength; // 0 matches every path
    OpenHandler openRead;
    OpenHandler openWrite;
    OpenHandler openAppend;
    CloseHandler closeRead;
    CloseHandler closeWrite;
    CloseHandler closeAppend;
};

// Searched in order, first match wins; the last row, with an empty prefix and no
// handlers, opens every path as a plain local file. URLs are not served yet: until a
// row for "http://" (fetch into a local cache on open, upload on close) goes in front of
// the plain-file row, a URL is opened as a local file name like any other path.
const UrlHandler kHandlers[] = {
    {"", 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr},
};

// One tracked stream. fp is 0 while the slot is free, the slot's 1-based index while its
// claimer fills it in, and the open stream after that. Only fp is shared: the other
// fields belong to the thread that claimed the slot until it releases it again.
struct FileSlot {
    uintptr_t fp;
    uint32_t handler;
    char mode;
    char* requestedPath;
    char* localPath;
};

// Process-wide and never torn down: streams may be closed during static destruction.
FileSlot sSlots[klFileSystem::kMaxTrackedFiles];

char* CopyText(const char* text) {
    const size_t length = std::strlen(text);
    auto* copy = static_cast<char*>(klAlloc(length + 1));
    std::memcpy(copy, text, length + 1);
    return copy;
}

void FreePaths(FileSlot& slot) {
    klFree(slot.requestedPath);
    klFree(slot.localPath);
    slot.requestedPath = nullptr;
    slot.localPath = nullptr;
}

// Index of the claimed slot, or kMaxTrackedFiles when every slot is taken.
uint32_t ClaimSlot() {
    for (uint32_t i = 0; i < klFileSystem::kMaxTrackedFiles; ++i) {
        if (klAtomicLoad(&sSlots[i].fp) == 0 &&
            klCompareAndSwap(&sSlots[i].fp, uintptr_t(0), uintptr_t(i + 1)))
            return i;
    }
    return klFileSystem::kMaxTrackedFiles;
}

// The slot that holds fp, or null.
FileSlot* FindSlot(FILE* fp) {
    const auto key = reinterpret_cast<uintptr_t>(fp);
    for (FileSlot& slot : sSlots)
        if (klAtomicLoad(&slot.fp) == key) return &slot;
    return nullptr;
}

uint32_t FindHandler(const char* path) {
    uint32_t row = 0;
    while (kHandlers[row].prefixLength != 0 &&
           std::strncmp(path, kHandlers[row].prefix, kHandlers[row].prefixLength) != 0)
        ++row;
    return row;
}

bool IsSeparator(char c) {
    return c == '/' || c == '\\';
}

// A string of exactly the given parts, built in one allocation.
klString Concat(const char* a, uint32_t aLength, const char* b, uint32_t bLength, const char* c,
                uint32_t cLength) {
    klString result;
    const uint32_t total = aLength + bLength + cLength;
    if (total == 0) return result;
    result.AllocUniqueBuffer(total, false);
    char* text = result.Ptr();
    std::memcpy(text, a, aLength);
    std::memcpy(text + aLength, b, bLength);
    std::memcpy(text + aLength + bLength, c, cLength);
    text[total] = 0;
    return result;
}

// Halves every run of slashes in one left-to-right pass: each "//" loses one slash and
// the scan goes on behind the kept one, so "///" becomes "//". Not a full collapse on
// purpose: a given path must keep mapping to the same stored name it always had.
void HalveSlashRuns(char* text) {
    char* out = text;
    for (const char* in = text; *in;) {
        *out++ = *in;
        in += (in[0] == '/' && in[1] == '/') ? 2 : 1;
    }
    *out = 0;
}

// Runs a directory search for the native form of searchPath and calls visit(name, isDirectory).
template <class Visit> bool Search(klString searchPath, Visit visit) {
    if (char* text = searchPath.Ptr()) kl::platform::ToNativeSeparators(text);
    auto trampoline = [](void* context, const char* name, bool isDirectory) {
        return (*static_cast<Visit*>(context))(name, isDirectory);
    };
    return kl::platform::FindEntries(searchPath.Const(), trampoline, &visit);
}

bool IsDotEntry(const char* name) {
    return name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0));
}

klString SearchPathFor(const char* dir, const char* pattern) {
    const char separator = kl::platform::PathSeparator();
    return Concat(dir, static_cast<uint32_t>(std::strlen(dir)), &separator, 1, pattern,
                  static_cast<uint32_t>(std::strlen(pattern)));
}

} // namespace

namespace klFileSystem {

void NormalizeOpenPath(char* path) {
    for (char* p = path; *p; ++p)
        if (*p == '\\') *p = '/';
    const size_t length = std::strlen(path);
    // The platform resolves a drive root and a network share only by their own separators.
    if (length >= 3 && path[1] == ':' && path[2] == '/') path[2] = '\\';
    if (length >= 3 && path[0] == '/' && path[1] == '/') path[0] = path[1] = '\\';
    const bool isUrl = std::strncmp(path, "http://", 7) == 0;
    HalveSlashRuns(isUrl ? path + 7 : path);
}

FILE* Open(const char* path, const char* mode) {
    if (!path || !mode) return nullptr;
    const uint32_t index = ClaimSlot();
    // A full table is no failure: the file simply goes untracked.
    if (index == kMaxTrackedFiles) return std::fopen(path, mode);
    FileSlot& slot = sSlots[index];

    char buffer[kMaxOpenPath + 1];
    const size_t length = strnlen(path, kMaxOpenPath);
    std::memcpy(buffer, path, length);
    buffer[length] = 0;
    NormalizeOpenPath(buffer);
    slot.requestedPath = CopyText(buffer);
    slot.localPath = nullptr;
    slot.handler = FindHandler(buffer);

    const UrlHandler& row = kHandlers[slot.handler];
    OpenHandler handler = nullptr;
    slot.mode = 0;
    if (std::strchr(mode, 'r')) {
        handler = row.openRead;
        slot.mode = 'r';
    } else if (std::strchr(mode, 'w')) {
        handler = row.openWrite;
        slot.mode = 'w';
    } else if (std::strchr(mode, 'a')) {
        handler = row.openAppend;
        slot.mode = 'a';
    }
    if (handler && !handler(slot.requestedPath, &slot.localPath)) {
        FreePaths(slot);
        klAtomicStore(&slot.fp, uintptr_t(0));
        return nullptr;
    }
    if (!slot.localPath) slot.localPath = CopyText(slot.requestedPath);

    FILE* fp = std::fopen(slot.localPath, mode);
    if (!fp) FreePaths(slot);
    // Publishing the stream (or 0 when the open failed, which frees the slot again).
    klAtomicStore(&slot.fp, reinterpret_cast<uintptr_t>(fp));
    return fp;
}

int Close(FILE* fp) {
    if (!fp) return EOF;
    FileSlot* slot = FindSlot(fp);
    if (!slot) return std::fclose(fp);

    // A close handler may read the local file, so everything written must be in it first.
    std::fflush(fp);
    const UrlHandler& row = kHandlers[slot->handler];
    CloseHandler handler = slot->mode == 'r'   ? row.closeRead
                           : slot->mode == 'w' ? row.closeWrite
                           : slot->mode == 'a' ? row.closeAppend
                                               : nullptr;
    if (handler) handler(slot->requestedPath);
    FreePaths(*slot);
    // The slot is released before fclose: once fclose has run, another thread's fopen may
    // hand out the same FILE address, and it must not find this slot still holding it.
    klAssertAs(klCompareAndSwap(&slot->fp, reinterpret_cast<uintptr_t>(fp), uintptr_t(0)),
               "klCompareAndSwap((UPTR*)&fd.fp, (UPTR)fp, (UPTR)0)");
    std::fclose(fp);
    return 0;
}

klString OpenedPath(FILE* fp) {
    const FileSlot* slot = fp ? FindSlot(fp) : nullptr;
    return slot ? klString(slot->requestedPath) : klString();
}

bool LoadZ(const klString& path, klBufferInterface& output) {
    FILE* fp = Open(path, "rb");
    if (!fp) return false;
    uint64_t size = 0;
    bool ok = kl::platform::OpenFileSize(fp, &size) && size < UINT32_MAX;
    // An empty file leaves output untouched, previous contents included: callers that
    // load many files into one buffer depend on not paying for a clear per file.
    if (ok && size > 0) {
        const auto count = static_cast<uint32_t>(size);
        output.Resize(count + 1);
        uint8_t* bytes = output.WritePtr(0);
        ok = std::fread(bytes, 1, count, fp) == count;
        if (ok)
            bytes[count] = 0;
        else
            output.Clear();
    }
    Close(fp);
    return ok;
}

bool LoadText(const klString& path, klString* output) {
    if (!klAssert(output != NULL)) return false;
    FILE* fp = Open(path, "r");
    if (!fp) return false;
    uint64_t size = 0;
    if (!kl::platform::OpenFileSize(fp, &size) || size >= UINT32_MAX) {
        Close(fp);
        return false;
    }
    const auto capacity = static_cast<uint32_t>(size);
    size_t count = 0;
    if (capacity > 0) {
        output->AllocUniqueBuffer(capacity, false);
        count = std::fread(output->Ptr(), 1, capacity, fp);
    }
    Close(fp);
    // Text mode shrinks line ends, so the count read is the text's size, not the file's.
    if (count == 0) {
        output->clear();
        return capacity == 0;
    }
    output->AllocUniqueBuffer(static_cast<uint32_t>(count), false);
    return true;
}

klString CombinePath(const klString& a, const klString& b) {
    if (a.IsEmpty()) return b;
    if (b.IsEmpty()) return a;
    if (b.Find(':') >= 0) return b;
    const bool aEnds = IsSeparator(a.Const()[a.Size() - 1]);
    const bool bStarts = IsSeparator(b.Const()[0]);
    if (aEnds && bStarts) return Concat(a.Const(), a.Size() - 1, "", 0, b.Const(), b.Size());
    if (aEnds || bStarts) return Concat(a.Const(), a.Size(), "", 0, b.Const(), b.Size());
    const char separator = kl::platform::PathSeparator();
    return Concat(a.Const(), a.Size(), &separator, 1, b.Const(), b.Size());
}

klString CanonicalPath(const klString& path) {
    klString result = path;
    result.ReplaceChar('\\', '/', true);
    char* text = result.Ptr();
    if (!text) return result;
    // The prefix that a halving pass would break: a URL's scheme, a share's "//" and a
    // drive root's "c:/" (so "c://x" keeps its slash behind the drive).
    uint32_t keep = 0;
    if (std::strncmp(text, "http://", 7) == 0)
        keep = 7;
    else if (text[0] == '/' && text[1] == '/')
        keep = 2;
    else if (text[0] && text[1] == ':' && text[2] == '/')
        keep = 3;
    HalveSlashRuns(text + keep);
    result.AllocUniqueBuffer(static_cast<uint32_t>(std::strlen(text)), false);
    return result;
}

void ToNativeSeparators(char* path) {
    if (path) kl::platform::ToNativeSeparators(path);
}

bool FileExists(const char* path) {
    // This search is where the profiler zone "klFileSystem_FileExists" belongs once keel
    // has a profiler.
    if (!path || !*path) return false;
    return Search(klString(path), [](const char*, bool) { return false; });
}

void DirectoryContents(const char* dir, const char* pattern, std::vector<klString>& files) {
    if (!dir) return;
    Search(SearchPathFor(dir, pattern ? pattern : "*"), [&files](const char* name, bool isDirectory) {
        if (!isDirectory && !IsDotEntry(name)) files.emplace_back(name);
        return true;
    });
}

void ListDirectory(const char* dir, std::vector<klString>& folders, std::vector<klString>& files) {
    if (!dir) return;
    Search(SearchPathFor(dir, "*"), [&](const char* name, bool isDirectory) {
        if (!IsDotEntry(name)) (isDirectory ? folders : files).emplace_back(name);
        return true;
    });
}

namespace {

// The folder of the log and the local files, and the log file; never torn down, so that
// lines logged late in the shut-down still find them.
klString& LocalDir() {
    static klString* dir = new klString();
    return *dir;
}
klString& LogFile() {
    static klString* file = new klString("console.log");
    return *file;
}

} // namespace

bool CreatePath(const char* path) {
    const std::filesystem::path folder(reinterpret_cast<const char8_t*>(path)); // UTF-8 text
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    return std::filesystem::is_directory(folder, error);
}

void SetLogDir(const char* dir) {
    if (!dir || !*dir) return;
    klString& local = LocalDir();
    local = dir;
    const char separator[2] = {kl::platform::PathSeparator(), 0};
    if (!IsSeparator(local.Const()[local.Size() - 1])) local += separator;
    CreatePath(local.Const());
    LogFile() = CombinePath(local, "console.log");
    if (kl::platform::IsDebuggerAttached()) {
        char announcement[1100];
        std::snprintf(announcement, sizeof(announcement), "KORV-LOGPATH=%s\n", LogFile().Const());
        kl::detail::WriteToDebugger(announcement);
    }
}

const klString& GetLogFile() { return LogFile(); }

bool GetCurrentDir(klString* dir) {
    char buffer[kMaxOpenPath + 1];
    if (!kl::platform::CurrentDirectory(buffer, sizeof(buffer)) || !buffer[0]) return false;
    *dir = buffer;
    return true;
}

bool SetCurrentDir(const char* dir) { return dir && *dir && kl::platform::ChangeDirectory(dir); }

} // namespace klFileSystem
