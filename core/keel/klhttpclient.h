// An HTTP/1.0 client over pooled, kept-alive TCP connections.
//
// One klHTTPClient runs one request at a time; any number of clients on any threads
// share the process's pool of 256 connections (keel singletons, so the pool exists
// between klObjectLifetimeManager::Initialize and Shutdown). A request follows 301
// redirects up to its limit, returns every other status (302 included) as it is, sends
// byte ranges, and resumes a body that breaks off with an open range and "If-Range:"
// so that the server continues the same version of the resource.
//
// URLs are "[http://]host[:port]/path": the scheme may be left out but no other scheme
// is accepted, the port defaults to 80, the path to "/". Each of URL, host and path
// holds at most 1023 characters; longer texts are refused.
//
// Failures come back as statuses: 400 when no response could be read (the host could
// not be reached or the connection broke five times running without delivering
// anything new), 404 when a redirect's target cannot be split.
#pragma once

#include "keel/klbuffer.h"
#include "keel/klstring.h"

#include <cstdint>
#include <streambuf>

class klHTTPClient {
public:
    klHTTPClient();
    bool SetURL(const char* url);          // "http://host[:port]/path"; false when it cannot be split
    const char* GetURL() const;            // the current URL (the redirect target after a 301)
    void SetCookie(const char* cookie);
    void SetContentType(const char* type);
    // method, request body (may be null), response (required), redirects, range first/last (-1: open)
    int32_t Request(const char* method, klStream* body, klStream* response, int32_t maxRedirects = 5,
                    int64_t firstByte = 0, int64_t lastByte = -1);
    int32_t Status() const;
    int64_t ContentLength() const;
    int64_t LastModified() const;          // seconds since 1970 (UTC); 0 when not sent
    int64_t Date() const;

    const char* Host() const { return mHost; }
    const char* Path() const { return mPath; }
    uint32_t Port() const { return mPort; }

    // The version in the User-Agent line "klHTTPClient/<version> (<OS description>)".
    static constexpr const char* kVersion = "1.0";
    static constexpr uint32_t kTextSize = 1024;
    // Consecutive broken attempts that delivered nothing new before a request gives up.
    static constexpr int32_t kMaxStalledAttempts = 5;

private:
    struct Transfer;
    enum class Outcome { Done, Redirect, Broken };

    bool Split(const char* url);
    Outcome Attempt(class klNetworkBuf* conn, Transfer& t);
    int32_t Exchange(klNetworkBuf* conn, Transfer& t, bool* redirect);
    void WriteRequest(klNetworkBuf* conn, const Transfer& t);
    void SendBody(klNetworkBuf* conn, const Transfer& t);
    bool ReadResponseHead(klNetworkBuf* conn, Transfer& t);
    Outcome ReceiveBody(klNetworkBuf* conn, Transfer& t);

    char mURL[kTextSize];
    char mPath[kTextSize];
    char mHost[kTextSize];
    uint32_t mPort;
    klString mCookie;
    klString mReply; // cleared per request; nothing reads it yet
    klString mContentType;
    int64_t mContentLength;
    int64_t mLastModified;
    int64_t mDate;
    int32_t mStatus;
};

// What the client takes from a response head.
struct klHTTPResponseHead {
    int32_t status = 400;
    int64_t contentLength = 0;
    char lastModified[30] = {}; // the "Last-Modified: " text, at most 29 characters
    int64_t lastModifiedTime = 0;
    int64_t date = 0;
    bool hasLocation = false;   // a "Location: " line came while the status was 301
    bool locationCut = false;   // ... and it did not fit in location
    char location[klHTTPClient::kTextSize] = {};
};

// Reads header lines from in up to and including the empty line that ends them. Lines
// longer than 1023 bytes are kept cut and marked (a cut line is never taken as a value,
// save a cut Location which the caller refuses). False when the stream ended first.
bool klReadHTTPResponseHead(std::streambuf* in, klHTTPResponseHead* head);

// An HTTP date (RFC 1123 "Sun, 06 Nov 1994 08:49:37 GMT", RFC 850
// "Sunday, 06-Nov-94 08:49:37 GMT" or asctime "Sun Nov  6 08:49:37 1994") as seconds
// since 1970 UTC; 0 when the text is none of them. Two-digit years 70-99 are 19xx.
int64_t klParseHTTPDate(const char* text);

// Splits "[http://]host[:port][/path]" into its parts (host and path buffers of
// klHTTPClient::kTextSize bytes). False for another scheme, an empty host, a port
// outside 1..65535 or a part too long.
bool klSplitHTTPURL(const char* url, char* host, char* path, uint32_t* port);
