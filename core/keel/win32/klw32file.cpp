// Windows half of the file layer.
#include "keel/klfileplatform.h"

#include <direct.h>
#include <io.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/types.h>

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
    const int whence = origin == 0 ? SEEK_SET : origin == 1 ? SEEK_CUR : SEEK_END;
    return _fseeki64(file, offset, whence);
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
    return _getcwd(buf, static_cast<int>(bufSize)) != nullptr;
}

bool ChangeDirectory(const char* path) { return _chdir(path) == 0; }

} // namespace kl::platform
