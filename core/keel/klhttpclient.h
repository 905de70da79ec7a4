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
// Bounds. A request never waits or retries without limit: it makes at most kMaxAttempts
// attempts (the first sending and every reconnect, resume or restart after a break), gives
// up after kMaxStalledAttempts attempts in a row that took the body no further than it
// had already got (bytes sent again after a restart are not progress), and ends once its
// time limit has passed (kDefaultTimeLimitMs unless SetTimeLimit says otherwise), waits
// for a free pool slot, connects, reads and redirects included. A read that hears
// nothing for two seconds still ends the attempt.
//
// Failures come back as statuses, and Failure() says which one it was:
//   400 + NoResponse   no response head could be read (or the server's own 400);
//   400 + Connect      the host could not be reached ("Error: Could not connect ...");
//   400 + Incomplete   the body stayed short of its Content-Length after the retries, or
//                      a resume came back from the wrong byte: never a 2xx with part of
//                      a body;
//   400 + ResponseWrite the response stream took fewer bytes than given (a full disk),
//                      or could not be cut back when a resume was answered with the
//                      whole resource;
//   400 + TimeLimit    the time limit passed;
//   400 + Refused      the method was not a plain token (nothing sent);
//   404                a redirect's target cannot be followed ("Error: Could not parse").
// Every failure but the last two printed ones is also logged on the console logger.
//
// Framing. By default request lines end in a bare line feed and a cookie is sent as
// "Cookie=<value>", which the servers this client was first written against expect.
// Strict servers (Apache httpd, lighttpd, Node.js) refuse both; the standard framing
// ends lines in CRLF, sends "Cookie: <value>" and names a non-default port in the Host
// line. Choose it per client with SetFraming, or for the whole process with the console
// variable "http_standard_framing" (1: standard), e.g. in an INI file's [cvars] section.
#pragma once

#include "keel/klbuffer.h"
#include "keel/kllog.h"
#include "keel/klstring.h"

#include <cstddef>
#include <cstdint>
#include <streambuf>

struct klHTTPResponseHead;

enum class klHTTPFraming { Configured, Legacy, Standard }; // Configured: the console variable

enum class klHTTPFailure { None, Refused, Connect, NoResponse, Incomplete, ResponseWrite, TimeLimit };

class klHTTPClient {
public:
    klHTTPClient();
    bool SetURL(const char* url);          // "http://host[:port]/path"; false when it cannot be split
    const char* GetURL() const;            // the current URL (the redirect target after a 301)
    // Both refuse (false, logged, the old value kept) a text holding a line break or
    // another control character: it would forge header lines.
    bool SetCookie(const char* cookie);
    bool SetContentType(const char* type);
    void SetFraming(klHTTPFraming framing) { mFraming = framing; }
    // The longest a whole request may take, in milliseconds (0: kDefaultTimeLimitMs).
    void SetTimeLimit(uint32_t ms) { mTimeLimitMs = ms ? ms : kDefaultTimeLimitMs; }
    // method, request body (may be null), response (required), redirects, range first/last (-1: open)
    int32_t Request(const char* method, klStream* body, klStream* response, int32_t maxRedirects = 5,
                    int64_t firstByte = 0, int64_t lastByte = -1);
    int32_t Status() const;
    klHTTPFailure Failure() const { return mFailure; } // why the last request failed
    int64_t ContentLength() const;
    int64_t LastModified() const;          // seconds since 1970 (UTC); 0 when not sent
    int64_t Date() const;

    const char* Host() const { return mHost; }
    const char* Path() const { return mPath; }
    uint32_t Port() const { return mPort; }

    // The version in the User-Agent line "klHTTPClient/<version> (<OS description>)".
    static constexpr const char* kVersion = "1.0";
    static constexpr uint32_t kTextSize = 1024;
    static constexpr int32_t kMaxAttempts = 8;
    static constexpr int32_t kMaxStalledAttempts = 3;
    static constexpr uint32_t kDefaultTimeLimitMs = 120000;

private:
    struct Transfer;
    enum class Outcome { Done, Redirect, Broken, Failed };

    bool Split(const char* url);
    Outcome Attempt(class klNetworkBuf* conn, Transfer& t);
    int32_t Exchange(klNetworkBuf* conn, Transfer& t, bool* redirect);
    void WriteRequest(klNetworkBuf* conn, const Transfer& t);
    void SendBody(klNetworkBuf* conn, const Transfer& t);
    bool ReadResponseHead(klNetworkBuf* conn, Transfer& t);
    Outcome ReceiveBody(klNetworkBuf* conn, Transfer& t);
    bool Restart(Transfer& t);
    bool FollowLocation(const klHTTPResponseHead& head);
    bool StandardFraming() const;
    bool TimeLeft(const Transfer& t) const;
    void Fail(klHTTPFailure failure, const char* format, ...) KL_PRINTF_LIKE(3, 4);

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
    klHTTPFailure mFailure;
    klHTTPFraming mFraming;
    uint32_t mTimeLimitMs;
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
    int64_t rangeFirst = -1;    // the first byte of "Content-Range: bytes F-L/N"; -1 when none
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

// Resolves a Location value against the URL being requested (host, port, path) into an
// absolute "http://host:port/path" URL in out (size bytes), the way a browser follows a
// link: an absolute http:// URL stands as it is, "//host/x" keeps the scheme, "/x" the
// server, "x", "../x", "?q" are taken relative to the current path, dot segments are
// removed and a "#fragment" is dropped. False for another scheme or a result too long.
bool klResolveHTTPLocation(const char* host, uint32_t port, const char* path, const char* location, char* out,
                           size_t size);
