#include "keel/klnetworkcache.h"

#include "keel/klfilesystem.h"
#include "keel/klfileplatform.h"
#include "keel/klhttpclient.h"
#include "keel/kllog.h"
#include "keel/klplatform.h"
#include "keel/klthread.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

// Creates the folders that hold path (every prefix that ends before a separator).
void CreateFoldersFor(const klString& path) {
    const klString folder = klFileSystem::FolderOf(path);
    if (!folder.IsEmpty()) klFileSystem::CreatePath(folder.Const());
}

// Opens path, waiting while another writer or reader holds it; null after
// kContentionTries, and at once for a lasting fault (a missing folder, no permission).
FILE* OpenContended(const klString& path, const char* mode) {
    for (uint32_t attempt = 0; attempt < klNetworkCache::kContentionTries; ++attempt) {
        if (FILE* fp = klFileSystem::Open(path.Const(), mode)) return fp;
        if (!kl::platform::OpenFailureIsTransient()) {
            klConsoleLogger().Error("Network cache: cannot open %s: %s", path.Const(), std::strerror(errno));
            return nullptr;
        }
        std::printf("Contention Issue\n");
        std::fflush(stdout);
        klSleep(100);
    }
    return nullptr;
}

int32_t Head(klHTTPClient& client) {
    klNullStream nothing;
    return client.Request("HEAD", nullptr, &nothing);
}

// Whether the cached copy has the size and time the server last reported.
bool IsCurrent(const klString& path, const klHTTPClient& client) {
    uint64_t size = 0;
    int64_t modified = 0;
    return kl::platform::FileStatus(path.Const(), &size, &modified) &&
           size == static_cast<uint64_t>(client.ContentLength()) && modified == client.LastModified();
}

// Whether the body in file is whole and on the disk: every byte the server announced,
// written without error (a full disk shows here at the latest).
bool Complete(klFileStream& file, const klHTTPClient& client) {
    FILE* fp = file.File();
    return std::fflush(fp) == 0 && !std::ferror(fp) && kl::platform::TellFile(fp) == client.ContentLength();
}

// GETs the URL into the cache file; the status, or 400 when the file cannot be opened or
// the body did not reach it whole. A failed download leaves no file behind.
int32_t Download(klHTTPClient& client, const klString& path) {
    CreateFoldersFor(path);
    FILE* fp = OpenContended(path, "wb");
    if (!fp) return 400;
    klFileStream file(fp);
    int32_t status = client.Request("GET", nullptr, &file);
    const bool success = status >= 200 && status <= 299;
    if (success && !Complete(file, client)) {
        klConsoleLogger().Error("Network cache: %s could not be written whole to %s", client.GetURL(), path.Const());
        status = 400;
    }
    file.Close();
    if (status < 200 || status > 299) {
        kl::platform::UnlinkFile(path.Const());
        return status;
    }
    // The server's time marks the copy as current; without one it is fetched again
    // next time rather than trusted forever.
    if (client.LastModified() != 0) kl::platform::SetFileTimes(path.Const(), client.LastModified());
    return status;
}

} // namespace

namespace klNetworkCache {

bool Fetch(const char* url, klString* local) {
    const klString path = klFileSystem::NetworkCachePath(url);
    klHTTPClient client;
    if (path.IsEmpty() || !client.SetURL(url)) return false;
    const klString before(client.GetURL());
    int32_t status = Head(client);
    // A redirected file is not this URL's file, and must not be cached under its name.
    if (status >= 400 || kl::platform::StrICmp(before.Const(), client.GetURL()) != 0) return false;
    if (!IsCurrent(path, client)) {
        for (uint32_t failed = 0; status < 400; status = Head(client)) {
            status = Download(client, path);
            if (status >= 200 && status <= 299) break;
            // Every failed download counts, whatever its status, so the loop always ends.
            if (++failed == kFailedDownloads) return false;
        }
        if (status >= 300) return false;
    }
    *local = path;
    return true;
}

bool Prepare(const char* url, klString* local) {
    const klString path = klFileSystem::NetworkCachePath(url);
    if (path.IsEmpty()) return false;
    CreateFoldersFor(path);
    *local = path;
    return true;
}

void Upload(const char* url, const char* local) {
    const klString path(local ? local : "");
    klHTTPClient client;
    if (path.IsEmpty() || !client.SetURL(url)) return;
    FILE* fp = OpenContended(path, "rb");
    if (!fp) return;
    klFileStream file(fp);
    klNullStream reply;
    client.SetContentType("application/octet-stream");
    for (uint32_t attempt = 0; attempt < kUploadTries; ++attempt) {
        file.Seek(klSeekStart, 0);
        const int32_t status = client.Request("PUT", &file, &reply);
        if (status >= 200 && status < 300) return;
    }
}

} // namespace klNetworkCache
