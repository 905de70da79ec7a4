// The file layer's "http://" handlers: a URL opened through klFileSystem::Open is served
// from its local copy under klFileSystem::NetworkCachePath, fetched from the server when
// it is opened for reading or appending and sent back when a written copy is closed.
#pragma once

#include "keel/klstring.h"

#include <cstdint>

namespace klNetworkCache {

// Tries to open a cache file that is busy elsewhere, 100 ms apart (5 s in all); then the
// open or upload fails. A lasting fault (a missing folder, no permission) fails at once.
constexpr uint32_t kContentionTries = 50;
// Downloads that may fail before the open gives up.
constexpr uint32_t kFailedDownloads = 3;
// Sends of an upload that the server refuses before it is given up.
constexpr uint32_t kUploadTries = 4;

// Open for reading or appending: HEAD, then GET into the cache unless the cached copy
// already has the server's size and modification time. *local receives the cache file.
// False for a refused URL, a failed request or a redirected one. Only a whole body is
// kept and dated: a download that fails, breaks off or cannot be written leaves no file.
bool Fetch(const char* url, klString* local);
// Open for writing: *local receives the cache file, whose folders are created; nothing
// is sent.
bool Prepare(const char* url, klString* local);
// Close after writing or appending: sends local, the cache file that was opened, with PUT.
void Upload(const char* url, const char* local);

} // namespace klNetworkCache
