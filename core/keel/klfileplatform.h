// The operating-system services beneath the file layer: one declaration here, one
// definition in win32/klw32file.cpp and one in posix/klposixfile.cpp.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace kl::platform {

// The separator that the platform's own path calls expect: '\\' on Windows, '/' on Linux.
char PathSeparator();

// Turns every separator of the other platform into PathSeparator(), in place.
void ToNativeSeparators(char* path);

// Size of an open file as its status reports it; false when the status is unavailable.
bool OpenFileSize(FILE* file, uint64_t* size);

// Moves an open file's position by a 64-bit offset from origin (0 start, 1 current,
// 2 end). Returns 0 on success, as fseek does.
int SeekFile(FILE* file, int64_t offset, int origin);

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

} // namespace kl::platform
