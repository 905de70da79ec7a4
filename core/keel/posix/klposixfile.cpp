// Linux half of the file layer.
#include "keel/klfileplatform.h"

#include "keel/klassert.h"
#include "keel/klstring.h"

#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>
#include <utime.h>

#include <cerrno>
#include <cstring>

namespace kl::platform {

char PathSeparator() {
    return '/';
}

void ToNativeSeparators(char* path) {
    for (; *path; ++path)
        if (*path == '\\') *path = '/';
}

bool OpenFileSize(FILE* file, uint64_t* size) {
    struct stat status;
    if (fstat(fileno(file), &status) != 0) return false;
    *size = static_cast<uint64_t>(status.st_size);
    return true;
}

bool NamesOwnRoot(const char* part) { return std::strncmp(part, "http://", 7) == 0; }

bool PathExists(const char* path) {
    struct stat status;
    return stat(path, &status) == 0;
}

bool IsNonRegularFile(const char* path) {
    struct stat status;
    return stat(path, &status) == 0 && !S_ISREG(status.st_mode);
}

int SeekFile(FILE* file, int64_t offset, int origin) {
    static_assert(SEEK_SET == 0 && SEEK_CUR == 1 && SEEK_END == 2);
    return fseeko(file, static_cast<off_t>(offset), origin);
}

bool TruncateFile(FILE* file, uint64_t size) {
    return std::fflush(file) == 0 && ftruncate(fileno(file), static_cast<off_t>(size)) == 0;
}

// Linux locks nothing on open: only a shortage of descriptors or an interrupted call
// passes by itself.
bool OpenFailureIsTransient() {
    return errno == EINTR || errno == EMFILE || errno == ENFILE || errno == EBUSY || errno == ETXTBSY;
}

bool FindEntries(const char* searchPath, FindVisitor visit, void* context) {
    // The folder is everything before the last separator, the pattern the rest.
    const char* slash = std::strrchr(searchPath, '/');
    klString folder;
    const char* pattern = searchPath;
    if (!slash) {
        folder = ".";
    } else {
        folder.Copy(searchPath, slash == searchPath ? 1u : static_cast<uint32_t>(slash - searchPath));
        pattern = slash + 1;
    }
    DIR* dir = opendir(folder.Const());
    if (!dir) return false;

    bool found = false;
    klString path;
    while (const dirent* entry = readdir(dir)) {
        // Windows matches names without regard to case, and the file layer's callers
        // (a "*.cfg" database search, say) expect the same here.
        if (fnmatch(pattern, entry->d_name, FNM_CASEFOLD) != 0) continue;
        path = folder;
        path.Append("/", 1);
        path.Append(entry->d_name);
        struct stat status;
        const bool isDirectory = stat(path.Const(), &status) == 0 && S_ISDIR(status.st_mode);
        found = true;
        if (!visit(context, entry->d_name, isDirectory)) break;
    }
    closedir(dir);
    return found;
}

bool CurrentDirectory(char* buf, size_t bufSize) { return getcwd(buf, bufSize) != nullptr; }

bool ChangeDirectory(const char* path) { return chdir(path) == 0; }

bool MakeFolder(const char* path) {
    const int ret = mkdir(path, 0777);
    if (ret == 0) return true;
    // The call answers 0 or -1; anything else is a C library we cannot trust with errno.
    if (!klAssert(ret == -1)) return false;
    return errno == EEXIST;
}

bool RemoveFolder(const char* path) {
    const int ret = rmdir(path);
    if (ret == 0) return true;
    klAssert(ret == -1);
    return false;
}

bool UnlinkFile(const char* path) { return unlink(path) == 0; }

FILE* CreateExclusiveFile(const char* path) {
    const int fd = open(path, O_RDWR | O_CREAT | O_EXCL, 0700);
    if (fd == -1) return nullptr;
    FILE* file = fdopen(fd, "w+b");
    if (!file) {
        const int error = errno;
        close(fd);
        unlink(path);
        errno = error;
    }
    return file;
}

uint32_t ProcessId() { return static_cast<uint32_t>(getpid()); }

int64_t TellFile(FILE* file) { return static_cast<int64_t>(ftello(file)); }

bool FileStatus(const char* path, uint64_t* size, int64_t* modified) {
    struct stat status;
    if (stat(path, &status) != 0) return false;
    *size = static_cast<uint64_t>(status.st_size);
    *modified = static_cast<int64_t>(status.st_mtime);
    return true;
}

bool SetFileTimes(const char* path, int64_t seconds) {
    utimbuf times;
    times.actime = times.modtime = static_cast<time_t>(seconds);
    return utime(path, &times) == 0;
}

FILE* OpenMemoryStream(void* buffer, uint32_t size, const char* mode) {
    return fmemopen(buffer, size, mode);
}

namespace {

// UTF-8 of one code point into out (at least 4 bytes); 0 for a value that is no character.
uint32_t EncodeUtf8(uint32_t c, char* out) {
    if (c < 0x80) {
        out[0] = static_cast<char>(c);
        return 1;
    }
    if ((c >= 0xD800 && c < 0xE000) || c > 0x10FFFF) return 0;
    const uint32_t count = c < 0x800 ? 2 : c < 0x10000 ? 3 : 4;
    static const uint8_t kLead[] = {0, 0, 0xC0, 0xE0, 0xF0};
    for (uint32_t i = count - 1; i > 0; --i, c >>= 6)
        out[i] = static_cast<char>(0x80 | (c & 0x3F));
    out[0] = static_cast<char>(kLead[count] | c);
    return count;
}

// File names here are bytes; wide names are taken as Unicode and stored as UTF-8.
bool ToUtf8(const wchar_t* path, klString* out) {
    out->clear();
    char bytes[4];
    for (; *path; ++path) {
        const uint32_t count = EncodeUtf8(static_cast<uint32_t>(*path), bytes);
        if (count == 0) return false;
        out->Append(bytes, count);
    }
    return true;
}

} // namespace

bool WidePathExists(const wchar_t* path) {
    klString narrow;
    struct stat status;
    return ToUtf8(path, &narrow) && stat(narrow.Const(), &status) == 0;
}

bool MakeFolderW(const wchar_t* path) {
    klString narrow;
    return ToUtf8(path, &narrow) && MakeFolder(narrow.Const());
}

// Linux has no short names: the UTF-8 form opens as it is.
bool NarrowPath(const wchar_t* path, bool, klString* out) { return ToUtf8(path, out); }

} // namespace kl::platform
