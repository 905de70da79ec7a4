#include "keel/klfilesystem.h"

#include "keel/klfileplatform.h"
#include "keel/kllockfree.h"
#include "keel/kllog.h"
#include "keel/klmalloc.h"
#include "keel/klnetworkcache.h"
#include "keel/klplatform.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <mutex>
#include <iterator>
#include <string>

namespace {

// A handler row serves the paths that begin with its prefix. An open handler gets the
// requested path and may name in *local the file to open instead; a close handler runs
// after the stream is flushed and before it closes, and gets the file that was opened.
using OpenHandler = bool (*)(const char* requested, klString* local);
using CloseHandler = void (*)(const char* requested, const char* local);

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
// handlers, opens every path as a plain local file. Appending to a URL fetches it like
// reading does, so that the upload on close sends the whole file, not just the tail.
const UrlHandler kHandlers[] = {
    {"http://", 7, klNetworkCache::Fetch, klNetworkCache::Prepare, klNetworkCache::Fetch, nullptr,
     klNetworkCache::Upload, klNetworkCache::Upload},
    {"", 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr},
};
// The plain-file row, which also serves streams over memory.
constexpr uint32_t kPlainRow = static_cast<uint32_t>(std::size(kHandlers) - 1);

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

klString NativePath(const char* path) {
    klString native(path);
    if (char* text = native.Ptr()) kl::platform::ToNativeSeparators(text);
    return native;
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
    klString local;
    if (handler && !handler(slot.requestedPath, &local)) {
        FreePaths(slot);
        klAtomicStore(&slot.fp, uintptr_t(0));
        return nullptr;
    }
    slot.localPath = CopyText(local.IsEmpty() ? slot.requestedPath : local.Const());

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
    if (handler) handler(slot->requestedPath, slot->localPath);
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

bool LoadZ(const klString& path, klBufferInterface& output, uint32_t maxBytes) {
    if (kl::platform::IsNonRegularFile(NativePath(path).Const())) return false;
    FILE* fp = Open(path, "rb");
    if (!fp) return false;
    uint64_t size = 0;
    bool ok = kl::platform::OpenFileSize(fp, &size) && size <= maxBytes && size < UINT32_MAX;
    // An empty file leaves output untouched, previous contents included: callers that
    // load many files into one buffer depend on not paying for a clear per file.
    if (ok && size > 0) {
        const auto count = static_cast<uint32_t>(size);
        // The whole file goes straight into output: a stream buffer would only add a copy
        // and, on Linux, a second fstat and read.
        std::setvbuf(fp, nullptr, _IONBF, 0);
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
    if (kl::platform::IsNonRegularFile(NativePath(path).Const())) return false;
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
    if (kl::platform::NamesOwnRoot(b.Const())) return b;
    const bool aEnds = IsPathSeparator(a.Const()[a.Size() - 1]);
    const bool bStarts = IsPathSeparator(b.Const()[0]);
    if (aEnds && bStarts) return Concat(a.Const(), a.Size() - 1, "", 0, b.Const(), b.Size());
    if (aEnds || bStarts) return Concat(a.Const(), a.Size(), "", 0, b.Const(), b.Size());
    const char separator = kl::platform::PathSeparator();
    return Concat(a.Const(), a.Size(), &separator, 1, b.Const(), b.Size());
}

klString FolderOf(const klString& path) {
    uint32_t end = path.Size();
    while (end > 0 && !IsPathSeparator(path.Const()[end - 1])) --end;
    return path.SubString(0, end);
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
    return path && *path && kl::platform::PathExists(NativePath(path).Const());
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
klString& CacheName() {
    static klString* name = new klString();
    return *name;
}

// Length of the stream behind fp, which is left at its start; -1 when it cannot seek.
int64_t StreamSize(FILE* fp) {
    if (kl::platform::SeekFile(fp, 0, 2) != 0) return -1;
    const int64_t size = kl::platform::TellFile(fp);
    return kl::platform::SeekFile(fp, 0, 0) == 0 ? size : -1;
}

// Copies count bytes in 4096-byte chunks; false when either side falls short.
bool CopyChunks(FILE* in, FILE* out, uint64_t count) {
    char chunk[4096];
    while (count > 0) {
        const size_t want = count < sizeof(chunk) ? static_cast<size_t>(count) : sizeof(chunk);
        const size_t got = std::fread(chunk, 1, want, in);
        if (got == 0 || std::fwrite(chunk, 1, got, out) != got) return false;
        count -= got;
    }
    return true;
}

bool CopyBytewise(FILE* in, FILE* out, uint64_t count) {
    for (; count > 0; --count) {
        const int c = std::fgetc(in);
        if (c == EOF || std::fputc(c, out) == EOF) return false;
    }
    return true;
}

// Adler-32 of at most count bytes from the current position, read one at a time.
uint32_t Adler32(FILE* fp, uint64_t count) {
    uint32_t a = 1, b = 0;
    for (int c; count > 0 && (c = std::fgetc(fp)) != EOF; --count) {
        a = (a + static_cast<uint32_t>(c)) % 65521;
        b = (b + a) % 65521;
    }
    return (b << 16) | a;
}

// One SafeCopy attempt: a checked copy of in (at its start) into a new temporary file
// beside to, which then replaces to. The temporary is removed when anything fails.
bool CopyVerified(FILE* in, int64_t size, uint32_t checksum, const char* to) {
    klString temp = Concat(to, static_cast<uint32_t>(std::strlen(to)), "XXXXXX", 6, "", 0);
    FILE* copy = klFileSystem::MakeTempFile(temp.Ptr());
    if (!copy) return false;
    kl::platform::SeekFile(in, 0, 0);
    bool ok = CopyBytewise(in, copy, static_cast<uint64_t>(size)) && std::fflush(copy) == 0;
    ok = ok && kl::platform::SeekFile(copy, 0, 0) == 0 && Adler32(copy, UINT64_MAX) == checksum;
    std::fclose(copy);
    if (ok) {
        std::remove(to);
        ok = std::rename(temp.Const(), to) == 0;
    }
    if (!ok) kl::platform::UnlinkFile(temp.Const());
    return ok;
}

bool IsHexDigit(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}
int HexValue(char c) {
    return c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10;
}

// The character at *at with a percent escape decoded; moves *at past it.
char DecodedAt(const char* text, size_t* at) {
    const char* p = text + *at;
    if (p[0] == '%' && IsHexDigit(p[1]) && IsHexDigit(p[2])) {
        *at += 3;
        return static_cast<char>(HexValue(p[1]) * 16 + HexValue(p[2]));
    }
    *at += 1;
    return p[0];
}

// Whether every '%' in text starts a two-digit escape, as it must in a URL.
bool EscapesAreWellFormed(const char* text) {
    for (const char* p = std::strchr(text, '%'); p; p = std::strchr(p + 1, '%'))
        if (!IsHexDigit(p[1]) || !IsHexDigit(p[2])) return false;
    return true;
}

// Whether a relative path stays below the folder it is joined to: no part made of two
// or more dots and nothing else (Windows drops trailing dots and spaces, so "..." and
// ". ." lead up too), no ':' (a drive or a stream), no escaped zero, read with percent
// escapes decoded and either separator.
bool StaysInside(const char* text) {
    uint32_t length = 0, dots = 0;
    bool onlyDots = true;
    for (size_t at = 0;;) {
        const bool end = text[at] == 0;
        const char c = end ? '/' : DecodedAt(text, &at);
        if (IsPathSeparator(c)) {
            if (length > 0 && onlyDots && dots >= 2) return false;
            if (end) return true;
            length = dots = 0;
            onlyDots = true;
            continue;
        }
        if (c == ':' || c == 0) return false;
        ++length;
        dots += c == '.';
        onlyDots = onlyDots && (c == '.' || c == ' ');
    }
}

klString PrintablePath(const wchar_t* path) {
    klString text;
    kl::platform::NarrowPath(path, false, &text);
    return text;
}

// Added to before each temporary name: different processes and runs start apart.
uint64_t sNameCounter = 0;

} // namespace

bool CreatePath(const char* path) {
    if (!path || !*path) return false;
    // Only the last answer counts: a prefix that cannot be made, such as a drive ("c:"),
    // is no failure as long as the whole path can be.
    klString prefix;
    for (const char* p = path + 1; *p; ++p)
        if (IsPathSeparator(*p) && !IsPathSeparator(p[-1])) {
            prefix.Copy(path, static_cast<uint32_t>(p - path));
            CreateDirectory(prefix.Const());
        }
    return CreateDirectory(path);
}

FILE* OpenMemory(void* buffer, uint32_t size, const char* mode) {
    if (!buffer || !mode || size == 0 || std::strchr(mode, 'a')) return nullptr;
    const char* streamMode = std::strchr(mode, '+')   ? "r+"
                             : std::strchr(mode, 'r') ? "r"
                             : std::strchr(mode, 'w') ? "w"
                                                      : nullptr;
    if (!streamMode) return nullptr;
    const uint32_t index = ClaimSlot();
    if (index == kMaxTrackedFiles) return nullptr;
    FileSlot& slot = sSlots[index];
    FILE* fp = kl::platform::OpenMemoryStream(buffer, size, streamMode);
    if (fp) {
        slot.requestedPath = CopyText("");
        slot.localPath = CopyText("");
        slot.handler = kPlainRow;
        slot.mode = streamMode[0];
    }
    klAtomicStore(&slot.fp, reinterpret_cast<uintptr_t>(fp));
    return fp;
}

bool CreateDirectory(const char* path) {
    return path && *path && kl::platform::MakeFolder(NativePath(path).Const());
}

bool EnsureTrailingSeparator(klString& path) {
    if (path.IsEmpty()) return false;
    const char separator = kl::platform::PathSeparator();
    if (!IsPathSeparator(path.Const()[path.Size() - 1])) path.Append(&separator, 1);
    return CreatePath(path.Const());
}

bool DeleteTree(const char* dir) {
    if (!dir || !*dir) return false;
    std::vector<klString> folders, files;
    ListDirectory(dir, folders, files);
    const klString base = NativePath(dir);
    for (const klString& file : files)
        kl::platform::UnlinkFile(CombinePath(base, file).Const());
    for (const klString& folder : folders) {
        const klString path = CombinePath(base, folder);
        // A link to a folder goes like a file: what it points at is not part of this tree.
        if (!kl::platform::UnlinkFile(path.Const())) DeleteTree(path.Const());
    }
    return kl::platform::RemoveFolder(base.Const());
}

bool CreateDirectoryTreeW(const wchar_t* path) {
    if (!path || !*path) return false;
    if (kl::platform::WidePathExists(path)) return true;
    const size_t length = std::wcslen(path);
    size_t cut = length; // just behind the last separator
    while (cut > 0 && path[cut - 1] != L'\\' && path[cut - 1] != L'/')
        --cut;
    if (cut > 1) {
        if (!CreateDirectoryTreeW(std::wstring(path, cut - 1).c_str())) return false;
        if (cut == length) return true; // "parent/" names the parent itself
    }
    return kl::platform::MakeFolderW(path);
}

klString ToAsciiPath(const wchar_t* path, bool create) {
    if (!path) return klString();
    if (!kl::platform::WidePathExists(path) && !(create && CreateDirectoryTreeW(path))) {
        klConsoleLogger().Error("Unable to convert path to Ascii: %s", PrintablePath(path).Const());
        return klString();
    }
    bool ascii = true;
    for (const wchar_t* p = path; *p; ++p)
        ascii = ascii && static_cast<uint32_t>(*p) < 0x80;
    klString narrow;
    if (!kl::platform::NarrowPath(path, !ascii, &narrow)) {
        klConsoleLogger().Error("Unable to create a short path name: %s", PrintablePath(path).Const());
        narrow.clear();
    }
    return narrow;
}

bool CopyFile(const char* from, const char* to) {
    uint64_t size = 0;
    int64_t modified = 0;
    if (!from || !to || !kl::platform::FileStatus(from, &size, &modified)) return false;
    FILE* in = Open(from, "rb");
    if (!in) return false;
    FILE* out = Open(to, "wb");
    const bool ok = out && CopyChunks(in, out, size);
    if (out) Close(out);
    Close(in);
    return ok;
}

bool CopyStreamToFile(FILE* from, const char* to) {
    if (!from || !to) return false;
    const int64_t size = StreamSize(from);
    if (size < 0) return false;
    FILE* out = Open(to, "wb");
    if (!out) return false;
    const bool ok = CopyChunks(from, out, static_cast<uint64_t>(size));
    Close(out);
    return ok;
}

bool SafeCopy(const char* from, const char* to) {
    if (!from || !to || !*to) return false;
    FILE* in = Open(from, "rb");
    if (!in) return false;
    const int64_t size = StreamSize(in);
    const uint32_t checksum = size < 0 ? 0 : Adler32(in, static_cast<uint64_t>(size));
    bool copied = false;
    // Copies onto flaky media (a share, a failing disk) may read back wrong now and then;
    // ten tries tell such noise from a copy that can never succeed.
    for (int attempt = 0; size >= 0 && !copied && attempt < 10; ++attempt)
        copied = CopyVerified(in, size, checksum, to);
    Close(in);
    return copied;
}

int32_t NextFreeNumber(const char* prefix, const char* suffix) {
    if (!prefix || !suffix) return -1;
    auto exists = [&](uint32_t n) { return FileExists(klpf("%s%u%s", prefix, n, suffix)); };
    // Doubling brackets the first gap in few searches; the bisection then trusts that the
    // numbers in use run from 1 without holes, which is how this function hands them out.
    uint32_t low = 0, high = 16;
    for (uint32_t doublings = 0; exists(high);) {
        low = high;
        high *= 2;
        if (++doublings == 32 || high == 0) return -1;
    }
    while (high - low > 1) {
        const uint32_t mid = (low + high) / 2;
        (exists(mid) ? low : high) = mid;
    }
    return static_cast<int32_t>(high);
}

FILE* MakeTempFile(char* templ) {
    // Modulus 63 over 62 letters: index 62 picks the terminating zero and ends the name
    // early. Kept so that a given counter value always makes the name it always made.
    static const char kLetters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    if (!templ) return nullptr;
    const size_t length = std::strlen(templ);
    if (length < 6 || std::strcmp(templ + length - 6, "XXXXXX") != 0) return nullptr;
    char* name = templ + length - 6;
    const uint64_t seed = kl::platform::ProcessId() ^ kl::platform::Milliseconds();
    uint64_t value = klXchgAdd(&sNameCounter, seed) + seed;
    for (uint32_t attempt = 0; attempt < 32767; ++attempt) {
        uint64_t v = value;
        for (int i = 0; i < 6; ++i, v /= 63)
            name[i] = kLetters[v % 63];
        if (FILE* fp = kl::platform::CreateExclusiveFile(templ)) return fp;
        // Another name cannot help when the folder itself is missing.
        if (errno == ENOENT || errno == ENOTDIR) break;
        value = klXchgAdd(&sNameCounter, uint64_t(7777)) + 7777;
    }
    templ[0] = 0;
    return nullptr;
}

// The default is made once, whichever thread asks first: several threads opening their
// first URLs at once would otherwise all write the one string.
const klString& GetLocalAssetsDir() {
    static std::once_flag defaulted;
    std::call_once(defaulted, [] {
        klString& local = LocalDir();
        if (!local.IsEmpty()) return;
        klString working;
        GetCurrentDir(&working);
        local = CombinePath(working, "localassets");
        EnsureTrailingSeparator(local);
    });
    return LocalDir();
}

void SetNetworkCacheName(const char* name) { CacheName() = name ? name : ""; }

klString NetworkCachePath(const char* url) {
    if (!url) return klString();
    // The URL's path starts at the first '/' behind "http://" and the host; a bare host
    // is asked for as "/".
    const char* urlPath = std::strlen(url) > 7 ? std::strchr(url + 7, '/') : nullptr;
    if (!urlPath) urlPath = "/";
    if (!StaysInside(CacheName().Const()) || !StaysInside(urlPath) || !EscapesAreWellFormed(urlPath))
        return klString();
    klString path = CombinePath(CanonicalPath(GetLocalAssetsDir()), "cache/network");
    path = CombinePath(path, CacheName());
    path = CombinePath(path, urlPath);
    // A path ending in a separator names a folder; its file gets a name no URL path can
    // spell raw (a '%' must start an escape), so it never meets a real resource's file.
    const char last = path.IsEmpty() ? 0 : path.Const()[path.Size() - 1];
    if (last == '/' || last == '\\') path.Append(kFolderIndexName);
    return path;
}

void SetLogDir(const char* dir) {
    if (!dir || !*dir) return;
    klString& local = LocalDir();
    local = dir;
    EnsureTrailingSeparator(local);
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
