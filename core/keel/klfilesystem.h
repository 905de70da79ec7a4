// klFileSystem: the library's file layer. Every file the library opens goes through
// Open/Close, which keep a process-wide table of the open streams; on top of that sit
// whole-file loading, path joining and canonical forms, and directory listings.
//
// Two separators meet here. The platform's own calls get its native one ('\\' on Windows,
// '/' on Linux); paths that the library keeps (opened paths, canonical paths) use '/'.
#pragma once

#include "keel/klassert.h"
#include "keel/klbuffer.h"
#include "keel/klfileplatform.h"
#include "keel/klstring.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <vector>

// <windows.h> maps these names to its own A/W functions; here they must stay this
// layer's names in every translation unit, whichever header came first.
#ifdef CopyFile
#undef CopyFile
#endif
#ifdef CreateDirectory
#undef CreateDirectory
#endif

namespace klFileSystem {

// Streams open at once that the table tracks; further ones are opened untracked.
constexpr uint32_t kMaxTrackedFiles = 256;
// Characters of a path that Open keeps; the rest of a longer path is cut off.
constexpr uint32_t kMaxOpenPath = 1023;

// The library's fopen. Tracked streams are opened by their normalised path (see
// NormalizeOpenPath); when all slots are taken the stream is opened untracked, by the
// path exactly as given. Null when the file cannot be opened.
FILE* Open(const char* path, const char* mode);
// The library's fclose: 0 for a tracked stream, fclose's result for an untracked one.
int Close(FILE* fp);
// The normalised path by which a tracked stream was opened; empty for a stream that the
// table does not hold. For the thread that owns fp.
klString OpenedPath(FILE* fp);
// The form in which Open keeps a path: every '\\' becomes '/', a drive root ("c:/") and
// a share prefix ("//") keep backslashes, and one pass halves each run of slashes.
void NormalizeOpenPath(char* path);

// Reads the whole file (binary) into output and appends a zero byte. False when the file
// cannot be opened, is no regular file (a folder, a FIFO or a device is never read as
// data: it could block or never end), is larger than maxBytes, or reads short (output is
// then cleared). An empty file succeeds and leaves output exactly as it was.
bool LoadZ(const klString& path, klBufferInterface& output, uint32_t maxBytes = UINT32_MAX - 1);
// Reads the whole file in text mode into *output. False when it cannot be opened or is no
// regular file, or when a non-empty file reads nothing (the string is then cleared).
bool LoadText(const klString& path, klString* output);

// Joins two parts with the platform separator, never doubling or dropping one. A second
// part that names its own root is returned as it is: on Windows one that holds ':' (a
// drive or a scheme), on Linux, where ':' is an ordinary name character, a URL.
klString CombinePath(const klString& a, const klString& b);
// Whether c separates the parts of a path ('/' or '\\', on either platform).
inline bool IsPathSeparator(char c) { return c == '/' || c == '\\'; }
// The folder part of path with its last separator ("a/b/" for "a/b/c"); empty when path
// has no separator.
klString FolderOf(const klString& path);
// The '/' form of a path, each run of slashes halved once; a drive prefix ("c:/"), a
// share prefix ("//") and the "http://" of a URL are kept.
klString CanonicalPath(const klString& path);
// Every separator becomes the platform's own, in place.
void ToNativeSeparators(char* path);

// True when path names a file or a folder. The name is taken literally: wildcards are
// only wildcards where Windows cannot have them in a name, and on Linux "a[1].ini" is
// that file and nothing else.
bool FileExists(const char* path);
// Appends to files the names of the plain files of dir that match pattern ("*" when
// null), case-insensitively, in the platform's enumeration order. files is not cleared.
void DirectoryContents(const char* dir, const char* pattern, std::vector<klString>& files);
// Appends the names of dir's subfolders to folders and of its other entries to files;
// "." and ".." are left out.
void ListDirectory(const char* dir, std::vector<klString>& folders, std::vector<klString>& files);

// Creates every prefix of path that ends before a separator, left to right, then path
// itself; the result is that of the last step (true when it was made or already exists).
bool CreatePath(const char* path);
// Streams over memory: a stream on the caller's size bytes; "+" read-write, 'r' read,
// 'w' write; 'a', a size of 0 or a full table give null. Its paths are empty.
FILE* OpenMemory(void* buffer, uint32_t size, const char* mode);

// Folders.
// Creates one folder; true when it was made or already exists.
bool CreateDirectory(const char* path);
// Appends the platform separator unless path ends with one, then creates it.
bool EnsureTrailingSeparator(klString& path);
// Removes dir with everything in it.
bool DeleteTree(const char* dir);
// Wide-character folders (names outside ASCII): creates path and its missing parents.
bool CreateDirectoryTreeW(const wchar_t* path);
// A narrow path for a wide one that the narrow file calls can open (the short form on
// Windows when it holds non-ASCII characters); created first when create is set. Empty
// on failure, which is logged.
klString ToAsciiPath(const wchar_t* path, bool create);

// Copies and names. False when a file cannot be opened or a write falls short.
bool CopyFile(const char* from, const char* to);
// Copies the whole of an open stream (from its start) to the file to; from stays open.
bool CopyStreamToFile(FILE* from, const char* to);
// Copies through a temporary file and checks the copy's Adler-32 before it replaces to.
bool SafeCopy(const char* from, const char* to);
// The smallest n for which prefix<n>suffix does not exist, assuming 1.. run without gaps;
// -1 when none is found.
int32_t NextFreeNumber(const char* prefix, const char* suffix);
// Creates and opens ("w+b") a new file named templ with its trailing "XXXXXX" replaced
// (templ is changed in place); null on failure.
FILE* MakeTempFile(char* templ);

// Well-known folders.
// The local folder: SetLogDir's, else <working folder>/localassets/ (created).
const klString& GetLocalAssetsDir();
// The name of this program's own folder inside the network cache; null or "" clears it.
void SetNetworkCacheName(const char* name);
// Where the file for url is cached: <local folder>/cache/network/<cache name>/<url path>.
// A URL that names a folder ("http://host", "http://host/dir/") is kept in that folder
// under kFolderIndexName, so a URL never maps onto a folder of the cache.
// Empty when the URL's path would lead outside the cache folder: a ".." part (also
// percent-encoded or between backslashes) or a ':'; or when it holds a '%' that starts
// no escape.
klString NetworkCachePath(const char* url);
constexpr const char* kFolderIndexName = "%index";

// The working folder (in the platform's own separators); false when it cannot be read.
bool GetCurrentDir(klString* dir);
// Changes the working folder; false when dir is not a folder that can be entered.
bool SetCurrentDir(const char* dir);
// Moves the log (and the local folder) to dir: stores it with a trailing separator,
// creates it, and points the log file at dir/console.log. Ignored for null or "".
void SetLogDir(const char* dir);
// The log file's path; "console.log" in the working folder until SetLogDir.
const klString& GetLogFile();

} // namespace klFileSystem

// A klStream over an open C stream. The stream owns its file: it closes it with
// klFileSystem::Close when it is closed, reopened or destroyed.
class klFileStream : public klStream {
public:
    klFileStream() = default;
    // Takes over fp, which should come from klFileSystem::Open.
    explicit klFileStream(FILE* fp) : mFile(fp) {}
    ~klFileStream() override { Close(); }
    klFileStream(const klFileStream&) = delete;
    klFileStream& operator=(const klFileStream&) = delete;

    bool Open(const char* path, const char* mode) {
        Close();
        mFile = klFileSystem::Open(path, mode);
        return mFile != nullptr;
    }
    void Close() {
        if (mFile) klFileSystem::Close(mFile);
        mFile = nullptr;
    }
    bool IsOpen() const { return mFile != nullptr; }
    FILE* File() const { return mFile; }

    uint32_t Read(void* data, uint32_t count) override {
        klAssert(IsOpen());
        if (!data || !mFile) return 0;
        return static_cast<uint32_t>(std::fread(data, 1, count, mFile));
    }
    uint32_t Write(const void* data, uint32_t count) override {
        klAssert(IsOpen());
        if (!data || !mFile) return 0;
        return static_cast<uint32_t>(std::fwrite(data, 1, count, mFile));
    }
    void Seek(int origin, int32_t offset) override {
        if (!klAssert(IsOpen())) return;
        // Widened with its sign, so that a negative offset reaches back past 2 GiB as well.
        kl::platform::SeekFile(mFile, static_cast<int64_t>(offset), origin);
    }
    void Reserve(uint32_t) override {}
    uint32_t Tell() override { return mFile ? static_cast<uint32_t>(std::ftell(mFile)) : 0; }
    bool Truncate(uint32_t size) override { return mFile && kl::platform::TruncateFile(mFile, size); }

private:
    FILE* mFile = nullptr;
};
