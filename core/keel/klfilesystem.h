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
// cannot be opened or reads short (output is then cleared). An empty file succeeds and
// leaves output exactly as it was.
bool LoadZ(const klString& path, klBufferInterface& output);
// Reads the whole file in text mode into *output. False when it cannot be opened, or when
// a non-empty file reads nothing (the string is then cleared).
bool LoadText(const klString& path, klString* output);

// Joins two parts with the platform separator, never doubling or dropping one. A second
// part that holds ':' (a drive or a scheme) is returned as it is.
klString CombinePath(const klString& a, const klString& b);
// The '/' form of a path, each run of slashes halved once; a drive prefix ("c:/"), a
// share prefix ("//") and the "http://" of a URL are kept.
klString CanonicalPath(const klString& path);
// Every separator becomes the platform's own, in place.
void ToNativeSeparators(char* path);

// True when a directory search for path (a file, a folder or a wildcard pattern) finds
// anything at all.
bool FileExists(const char* path);
// Appends to files the names of the plain files of dir that match pattern ("*" when
// null), case-insensitively, in the platform's enumeration order. files is not cleared.
void DirectoryContents(const char* dir, const char* pattern, std::vector<klString>& files);
// Appends the names of dir's subfolders to folders and of its other entries to files;
// "." and ".." are left out.
void ListDirectory(const char* dir, std::vector<klString>& folders, std::vector<klString>& files);

// Creates the folder path and every folder above it that is missing. True when path is
// a folder afterwards.
bool CreatePath(const char* path);
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

private:
    FILE* mFile = nullptr;
};
