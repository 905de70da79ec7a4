// The operating-system services beneath the file layer: one declaration here, one
// definition in win32/klw32file.cpp and one in posix/klposixfile.cpp.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

class klString;

namespace kl::platform {

// The separator that the platform's own path calls expect: '\\' on Windows, '/' on Linux.
char PathSeparator();

// Turns every separator of the other platform into PathSeparator(), in place.
void ToNativeSeparators(char* path);

// Size of an open file as its status reports it; false when the status is unavailable.
bool OpenFileSize(FILE* file, uint64_t* size);

// Moves an open file's position by a 64-bit offset from origin (0 start, 1 current,
// 2 end), handed to the C runtime unchanged: any other origin fails there and leaves the
// position alone. Returns 0 on success, as fseek does.
int SeekFile(FILE* file, int64_t offset, int origin);
// Flushes file and cuts it to size bytes; false on failure.
bool TruncateFile(FILE* file, uint64_t size);
// Whether the last failed open (errno, and on Windows the system's last error) was a
// passing conflict with another user of the file rather than a lasting fault.
bool OpenFailureIsTransient();

// Whether CombinePath takes a second path part as it is instead of joining it: on Windows
// a part with ':' anywhere (a drive, a stream or a scheme); on Linux, where ':' is an
// ordinary name character, only a URL.
bool NamesOwnRoot(const char* part);

// Whether path names a file or folder, its name taken literally (Windows names cannot
// hold the wildcards of its search; Linux names can, so there it is no search).
bool PathExists(const char* path);
// Whether path exists but is no regular file (a folder, a FIFO, a device): reading one
// as data could block or never end.
bool IsNonRegularFile(const char* path);

// Receives one entry of a directory search; returns false to end the search early.
using FindVisitor = bool (*)(void* context, const char* name, bool isDirectory);

// Searches for searchPath: a path in native separators whose last part may hold the wildcards
// '*' and '?', matched without regard to case. Calls visit for every entry found, "."
// and ".." included, in the platform's enumeration order. Returns whether the search
// found at least one entry; a folder that does not exist finds nothing.
bool FindEntries(const char* searchPath, FindVisitor visit, void* context);

// The working folder into buf (bufSize bytes, always terminated); false when the system
// will not say or it does not fit.
bool CurrentDirectory(char* buf, size_t bufSize);
// Makes path the working folder; false when it cannot.
bool ChangeDirectory(const char* path);

// Creates one folder (mkdir); true when it was made or already exists.
bool MakeFolder(const char* path);
// Removes one empty folder (rmdir); true on success.
bool RemoveFolder(const char* path);
// Deletes one file (unlink); true on success. A folder is never removed this way.
bool UnlinkFile(const char* path);
// Creates path exclusively (it must not exist yet), read-write, binary, owner-only, and
// opens it "w+b". Null on failure with errno telling why (EEXIST when it exists).
FILE* CreateExclusiveFile(const char* path);
uint32_t ProcessId();
// The position of an open file as a 64-bit offset; -1 on failure.
int64_t TellFile(FILE* file);
// Size and modification time (seconds since 1970, UTC) of a file; false without status.
bool FileStatus(const char* path, uint64_t* size, int64_t* modified);
// Sets a file's access and modification times (seconds since 1970, UTC).
bool SetFileTimes(const char* path, int64_t seconds);

// A stream over the caller's size bytes for mode "r", "w" or "r+" (binary); null when
// the platform cannot make one.
FILE* OpenMemoryStream(void* buffer, uint32_t size, const char* mode);

// Wide paths, for folders whose names leave ASCII.
bool WidePathExists(const wchar_t* path);
// Creates one folder; true when it was made or already exists.
bool MakeFolderW(const wchar_t* path);
// The narrow text of a wide path into *out; with shortForm, of its short form where the
// platform has one. False when the platform cannot give it.
bool NarrowPath(const wchar_t* path, bool shortForm, klString* out);

} // namespace kl::platform
