// Windows half of the file layer.
#include <windows.h>

#include "keel/klassert.h"
#include "keel/klfileplatform.h"
#include "keel/klfilesystem.h"
#include "keel/klstring.h"

#include <direct.h>
#include <errno.h>
#include <fcntl.h>
#include <io.h>
#include <process.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/utime.h>

#include <vector>

namespace kl::platform {

char PathSeparator() {
    return '\\';
}

void ToNativeSeparators(char* path) {
    for (; *path; ++path)
        if (*path == '/') *path = '\\';
}

bool OpenFileSize(FILE* file, uint64_t* size) {
    struct _stati64 status;
    if (_fstati64(_fileno(file), &status) != 0) return false;
    *size = static_cast<uint64_t>(status.st_size);
    return true;
}

int SeekFile(FILE* file, int64_t offset, int origin) {
    static_assert(SEEK_SET == 0 && SEEK_CUR == 1 && SEEK_END == 2);
    return _fseeki64(file, offset, origin);
}

bool TruncateFile(FILE* file, uint64_t size) {
    return fflush(file) == 0 && _chsize_s(_fileno(file), static_cast<__int64>(size)) == 0;
}

// Another process holding the file without sharing it is the contention worth waiting
// out; the C runtime reports it as EACCES, like a real permission error, so the
// system's own code tells them apart.
bool OpenFailureIsTransient() {
    const DWORD error = GetLastError();
    return error == ERROR_SHARING_VIOLATION || error == ERROR_LOCK_VIOLATION || errno == EMFILE;
}

bool NamesOwnRoot(const char* part) { return strchr(part, ':') != nullptr; }

bool PathExists(const char* path) {
    return FindEntries(path, [](void*, const char*, bool) { return false; }, nullptr);
}

bool IsNonRegularFile(const char* path) {
    struct _stati64 status;
    return _stati64(path, &status) == 0 && (status.st_mode & _S_IFREG) == 0;
}

bool FindEntries(const char* searchPath, FindVisitor visit, void* context) {
    struct _finddata_t entry;
    const intptr_t search = _findfirst(searchPath, &entry);
    if (search == -1) return false;
    do {
        if (!visit(context, entry.name, (entry.attrib & _A_SUBDIR) != 0)) break;
    } while (_findnext(search, &entry) == 0);
    _findclose(search);
    return true;
}

bool CurrentDirectory(char* buf, size_t bufSize) {
    // Read wide and handed out in its ASCII-safe form, so that a user folder with a
    // non-ASCII name still opens through the narrow calls.
    const DWORD length = GetCurrentDirectoryW(0, nullptr);
    if (length == 0) return false;
    std::vector<wchar_t> wide(length);
    if (GetCurrentDirectoryW(length, wide.data()) >= length) return false;
    const klString narrow = klFileSystem::ToAsciiPath(wide.data(), true);
    if (narrow.IsEmpty() || narrow.Size() >= bufSize) return false;
    memcpy(buf, narrow.Const(), narrow.Size() + 1);
    return true;
}

bool ChangeDirectory(const char* path) { return _chdir(path) == 0; }

bool MakeFolder(const char* path) {
    const int ret = _mkdir(path);
    if (ret == 0) return true;
    // The call answers 0 or -1; anything else is a C runtime we cannot trust with errno.
    if (!klAssert(ret == -1)) return false;
    return errno == EEXIST;
}

bool RemoveFolder(const char* path) {
    const int ret = _rmdir(path);
    if (ret == 0) return true;
    klAssert(ret == -1);
    return false;
}

bool UnlinkFile(const char* path) { return _unlink(path) == 0; }

FILE* CreateExclusiveFile(const char* path) {
    const int fd = _open(path, _O_RDWR | _O_CREAT | _O_EXCL | _O_BINARY, 0700);
    if (fd == -1) return nullptr;
    FILE* file = _fdopen(fd, "w+b");
    if (!file) {
        const int error = errno;
        _close(fd);
        _unlink(path);
        errno = error;
    }
    return file;
}

uint32_t ProcessId() { return static_cast<uint32_t>(_getpid()); }

int64_t TellFile(FILE* file) { return _ftelli64(file); }

bool FileStatus(const char* path, uint64_t* size, int64_t* modified) {
    struct _stati64 status;
    if (_stati64(path, &status) != 0) return false;
    *size = static_cast<uint64_t>(status.st_size);
    *modified = static_cast<int64_t>(status.st_mtime);
    return true;
}

bool SetFileTimes(const char* path, int64_t seconds) {
    struct __utimbuf64 times;
    times.actime = times.modtime = static_cast<__time64_t>(seconds);
    return _utime64(path, &times) == 0;
}

FILE* OpenMemoryStream(void* buffer, uint32_t size, const char* mode) {
    // A temporary file, deleted on close, that starts with the caller's bytes; the caller's
    // buffer becomes its stdio buffer, so reads and writes land in that memory first.
    char folder[MAX_PATH + 1];
    char name[MAX_PATH + 1];
    const DWORD length = GetTempPathA(sizeof(folder), folder);
    if (length == 0 || length > MAX_PATH || GetTempFileNameA(folder, "klm", 0, name) == 0)
        return nullptr;
    const int fd = _open(name, _O_RDWR | _O_BINARY | _O_TEMPORARY | _O_SHORT_LIVED);
    if (fd == -1) {
        DeleteFileA(name);
        return nullptr;
    }
    const bool filled = _write(fd, buffer, size) == static_cast<int>(size) && _lseek(fd, 0, SEEK_SET) == 0;
    char streamMode[4] = {mode[0], 'b', mode[1] == '+' ? '+' : '\0', 0};
    FILE* file = filled ? _fdopen(fd, streamMode) : nullptr;
    if (!file) {
        _close(fd);
        return nullptr;
    }
    if (setvbuf(file, static_cast<char*>(buffer), _IOFBF, size) != 0) {
        fclose(file);
        return nullptr;
    }
    return file;
}

bool WidePathExists(const wchar_t* path) { return GetFileAttributesW(path) != INVALID_FILE_ATTRIBUTES; }

bool MakeFolderW(const wchar_t* path) {
    return CreateDirectoryW(path, nullptr) || GetLastError() == ERROR_ALREADY_EXISTS;
}

bool NarrowPath(const wchar_t* path, bool shortForm, klString* out) {
    std::vector<wchar_t> shortPath;
    if (shortForm) {
        const DWORD length = GetShortPathNameW(path, nullptr, 0);
        if (length == 0) return false;
        shortPath.resize(length);
        const DWORD written = GetShortPathNameW(path, shortPath.data(), length);
        if (written == 0 || written >= length) return false;
        path = shortPath.data();
    }
    const int bytes = WideCharToMultiByte(CP_ACP, 0, path, -1, nullptr, 0, nullptr, nullptr);
    if (bytes <= 0) return false;
    if (bytes == 1) {
        out->clear();
        return true;
    }
    out->AllocUniqueBuffer(static_cast<uint32_t>(bytes - 1), false);
    return WideCharToMultiByte(CP_ACP, 0, path, -1, out->Ptr(), bytes, nullptr, nullptr) == bytes;
}

} // namespace kl::platform
