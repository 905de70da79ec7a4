// Feeds arbitrary bytes to the HTTP response-head reader, and as text to the date parser and
// the URL splitter: nothing may overflow, and every field stays within its bounds.
#include "keel/klhttpclient.h"

#include <cstdlib>
#include <cstring>
#include <sstream>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    std::stringbuf in(bytes);
    klHTTPResponseHead head;
    const bool complete = klReadHTTPResponseHead(&in, &head);
    if (std::strlen(head.lastModified) > 29 || std::strlen(head.location) >= klHTTPClient::kTextSize ||
        head.contentLength < 0 || (!complete && in.sgetc() != EOF))
        std::abort();

    const std::string text = bytes.substr(0, bytes.find('\0'));
    klParseHTTPDate(text.c_str());
    char host[klHTTPClient::kTextSize], path[klHTTPClient::kTextSize];
    uint32_t port = 0;
    if (klSplitHTTPURL(text.c_str(), host, path, &port) &&
        (!host[0] || path[0] != '/' || port < 1 || port > 65535 || std::strlen(host) + std::strlen(path) > text.size() + 1))
        std::abort();
    return 0;
}
