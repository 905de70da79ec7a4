// Linux half of the file layer.
#include "keel/klfileplatform.h"

#include "keel/klstring.h"

#include <dirent.h>
#include <fnmatch.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

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

int SeekFile(FILE* file, int64_t offset, int origin) {
    const int whence = origin == 0 ? SEEK_SET : origin == 1 ? SEEK_CUR : SEEK_END;
    return fseeko(file, static_cast<off_t>(offset), whence);
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

} // namespace kl::platform
