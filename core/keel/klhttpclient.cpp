#include "keel/klhttpclient.h"

#include "keel/klassert.h"
#include "keel/klconsole.h"
#include "keel/kllifetime.h"
#include "keel/kllock.h"
#include "keel/kllockfree.h"
#include "keel/klnetworkbuf.h"
#include "keel/klplatform.h"
#include "keel/klsystem.h"
#include "keel/klthread.h"

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

// ---------------------------------------------------------------------------------------
// Socket start-up and the connection pool, both keel singletons.

class klNetStartup {
public:
    klNetStartup() : mStarted(kl::net::Startup()) {}
    ~klNetStartup() {
        if (mStarted) kl::net::Cleanup();
    }

private:
    bool mStarted;
};

class klHTTPConnectionPool {
public:
    enum class Claim { Ready, Busy, Failed };
    static constexpr uint32_t kSlots = 256;
    // Receive and send buffer of each connection. A 256 MiB download from a local nginx
    // ran at 0.25 GB/s with 256 bytes (one recv per refill), 2.4 GB/s with 16 KiB and
    // 2.7 GB/s with 64 KiB; buffers are only made for slots that get used.
    static constexpr uint32_t kBufferSize = 64 * 1024;

    klHTTPConnectionPool() : mLock("klHTTPClient"), mSlots{} {}
    ~klHTTPConnectionPool() {
        for (klNetworkBuf* slot : mSlots) delete slot;
    }

    // A connection to host:port claimed for the caller: a kept-alive one when there is
    // one, else a free slot opened afresh (an idle connection to another host is given
    // up for it when no slot is unconnected). Busy when every slot is in use.
    Claim Acquire(const char* host, uint32_t port, uint32_t startMs, uint32_t budgetMs, klNetworkBuf** out) {
        klNetworkBuf* chosen = nullptr;
        mLock.Lock();
        *out = FindKeptAlive(host, port);
        if (!*out) chosen = ClaimForOpening();
        mLock.Unlock();
        if (*out) (*out)->SetDeadline(startMs, budgetMs);
        if (*out) return Claim::Ready;
        if (!chosen) return Claim::Busy;
        chosen->SetDeadline(startMs, budgetMs);
        // Opened outside the lock, so that a slow connect holds up nobody else.
        if (!chosen->Open(host, int32_t(port))) {
            Release(chosen);
            return Claim::Failed;
        }
        *out = chosen;
        return Claim::Ready;
    }
    // A connection goes back for reuse only when nothing is left on it: bytes past a
    // body (or a body nobody announced) would be read as the next response.
    static void Release(klNetworkBuf* conn) {
        if (!conn->IsIdle()) conn->Close();
        klXchgAdd(conn->InUseCounter(), -1);
    }

private:
    // The slot claimed from 0 to 1 (made on first use), or null when it is in use.
    klNetworkBuf* TryClaim(uint32_t i) {
        if (!mSlots[i]) mSlots[i] = new klNetworkBuf(kl::net::kInvalidSocket, kBufferSize);
        return klCompareAndSwap(mSlots[i]->InUseCounter(), 0, 1) ? mSlots[i] : nullptr;
    }
    // A slot is claimed before it is looked at: its owner may be writing to it.
    klNetworkBuf* FindKeptAlive(const char* host, uint32_t port) {
        for (uint32_t i = 0; i < kSlots && mSlots[i]; ++i) {
            klNetworkBuf* slot = TryClaim(i);
            if (!slot) continue;
            if (slot->Port() == port && kl::platform::StrICmp(slot->Host(), host) == 0) {
                if (slot->IsIdle()) return slot;
                slot->Close(); // gone, or stray bytes or the server's close on it: unfit for a request
            }
            Release(slot);
        }
        return nullptr;
    }
    klNetworkBuf* ClaimForOpening() {
        klNetworkBuf* spare = nullptr;
        for (uint32_t i = 0; i < kSlots; ++i) {
            klNetworkBuf* slot = TryClaim(i);
            if (!slot) continue;
            if (!slot->IsConnected()) {
                if (spare) Release(spare);
                return slot;
            }
            if (spare) Release(slot);
            else spare = slot;
        }
        return spare;
    }

    klUsesSingleton<klNetStartup> mStartup;
    klMutex mLock;
    klNetworkBuf* mSlots[kSlots];
};

// ---------------------------------------------------------------------------------------
// Response head

namespace {

constexpr uint32_t kTextSize = klHTTPClient::kTextSize;

// One line up to its line feed (dropped) into line; bytes past kTextSize - 1 are skipped
// and the line marked cut. False when the stream ends before the line feed.
bool ReadLine(std::streambuf* in, char* line, bool* cut) {
    uint32_t n = 0;
    *cut = false;
    for (;;) {
        const int c = in->sbumpc();
        if (c == std::char_traits<char>::eof() || c == '\n') {
            line[n] = '\0';
            return c == '\n';
        }
        if (n < kTextSize - 1) line[n++] = char(c);
        else *cut = true;
    }
}

bool Prefix(const char* line, const char* prefix) { return std::strncmp(line, prefix, std::strlen(prefix)) == 0; }

void ReadLocation(const char* value, bool cut, klHTTPResponseHead* head) {
    head->hasLocation = true;
    head->locationCut = cut;
    std::snprintf(head->location, sizeof(head->location), "%s", value);
    const size_t len = std::strlen(head->location);
    if (len && head->location[len - 1] == '\r') head->location[len - 1] = '\0';
}

void ParseHeaderLine(const char* line, bool cut, klHTTPResponseHead* head) {
    if (Prefix(line, "Location: ") && head->status == 301) return ReadLocation(line + 10, cut, head);
    if (cut) return; // a value cut short would be a wrong value
    int status = 0;
    char text[30] = {};
    if (Prefix(line, "HTTP/1.")) {
        if (std::sscanf(line, "HTTP/1.%*d %d", &status) == 1) head->status = status;
    } else if (Prefix(line, "Content-Length:")) {
        const long long length = std::strtoll(line + 15, nullptr, 10);
        head->contentLength = length > 0 ? length : 0; // a negative length announces nothing
    } else if (Prefix(line, "Last-Modified: ")) {
        if (std::sscanf(line + 15, "%29[^\r\n]", head->lastModified) == 1)
            head->lastModifiedTime = klParseHTTPDate(head->lastModified);
    } else if (Prefix(line, "Date: ")) {
        if (std::sscanf(line + 6, "%29[^\r\n]", text) == 1) head->date = klParseHTTPDate(text);
    } else if (Prefix(line, "Content-Range: bytes ")) {
        long long first = -1;
        if (std::sscanf(line + 21, "%lld-", &first) == 1 && first >= 0) head->rangeFirst = first;
    }
}

} // namespace

bool klReadHTTPResponseHead(std::streambuf* in, klHTTPResponseHead* head) {
    char line[kTextSize];
    bool cut = false;
    for (;;) {
        if (!ReadLine(in, line, &cut)) return false;
        if (line[0] == '\r' || line[0] == '\0') return true;
        ParseHeaderLine(line, cut, head);
    }
}

// ---------------------------------------------------------------------------------------
// Dates and URLs

namespace {

// Days from 1970-01-01 to the given proleptic Gregorian date (month 1-12).
int64_t DaysSinceEpoch(int64_t year, int month, int day) {
    year -= month <= 2; // count the year from March, so that February comes last
    const int64_t era = (year >= 0 ? year : year - 399) / 400;
    const int64_t yearOfEra = year - era * 400;
    const int64_t dayOfYear = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
    const int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return era * 146097 + dayOfEra - 719468;
}

int MonthNumber(const char* name) {
    static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    for (int m = 0; m < 12; ++m)
        if (std::strcmp(name, kMonths[m]) == 0) return m + 1;
    return 0;
}

int64_t ComposeTime(int64_t year, const char* monthName, int day, int h, int m, int s) {
    const int month = MonthNumber(monthName);
    if (year < 100) year += year < 70 ? 2000 : 1900;
    if (!month || day < 1 || day > 31 || h < 0 || h > 23 || m < 0 || m > 59 || s < 0 || s > 60) return 0;
    return DaysSinceEpoch(year, month, day) * 86400 + h * 3600 + m * 60 + s;
}

} // namespace

int64_t klParseHTTPDate(const char* text) {
    if (!text) return 0;
    char month[4] = {};
    int day = 0, year = 0, h = 0, m = 0, s = 0;
    if (std::sscanf(text, "%*[A-Za-z], %d %3[A-Za-z] %d %d:%d:%d", &day, month, &year, &h, &m, &s) == 6 ||
        std::sscanf(text, "%*[A-Za-z], %d-%3[A-Za-z]-%d %d:%d:%d", &day, month, &year, &h, &m, &s) == 6 ||
        std::sscanf(text, "%*[A-Za-z] %3[A-Za-z] %d %d:%d:%d %d", month, &day, &h, &m, &s, &year) == 6)
        return ComposeTime(year, month, day, h, m, s);
    return 0;
}

namespace {
// Spaces and control characters would break the request line or forge header lines.
bool PlainText(const char* begin, const char* end) {
    for (const char* p = begin; p < end; ++p)
        if (static_cast<unsigned char>(*p) <= ' ' || *p == 0x7f) return false;
    return true;
}

bool StartsWithScheme(const char* url) {
    static const char kScheme[] = "http://";
    for (int i = 0; i < 7; ++i)
        if (std::tolower(static_cast<unsigned char>(url[i])) != kScheme[i]) return false;
    return true;
}

bool SplitPort(const char* colon, const char* end, uint32_t* port) {
    if (colon + 1 == end || end - colon > 6) return false;
    uint32_t value = 0;
    for (const char* p = colon + 1; p < end; ++p) {
        if (*p < '0' || *p > '9') return false;
        value = value * 10 + uint32_t(*p - '0');
    }
    *port = value;
    return value >= 1 && value <= 65535;
}
} // namespace

bool klSplitHTTPURL(const char* url, char* host, char* path, uint32_t* port) {
    if (!url) return false;
    const char* p = url;
    if (StartsWithScheme(url)) p += 7;
    const char* pathStart = std::strchr(p, '/');
    const char* hostEnd = pathStart ? pathStart : p + std::strlen(p);
    const char* scheme = std::strstr(p, "://");
    if (scheme && scheme < hostEnd) return false; // another scheme
    const char* colon = static_cast<const char*>(std::memchr(p, ':', size_t(hostEnd - p)));
    const char* nameEnd = colon ? colon : hostEnd;
    const size_t nameLen = size_t(nameEnd - p);
    const size_t pathLen = pathStart ? std::strlen(pathStart) : 1;
    uint32_t number = 80;
    if (nameLen == 0 || nameLen >= kTextSize || pathLen >= kTextSize || !PlainText(p, hostEnd) ||
        (pathStart && !PlainText(pathStart, pathStart + pathLen)) || (colon && !SplitPort(colon, hostEnd, &number)))
        return false;
    std::memcpy(host, p, nameLen);
    host[nameLen] = '\0';
    std::memcpy(path, pathStart ? pathStart : "/", pathLen + 1);
    *port = number;
    return true;
}

namespace {
bool StartsWith(std::string_view text, std::string_view prefix) { return text.substr(0, prefix.size()) == prefix; }

// Removes "." and ".." segments from an absolute path, as a browser does.
std::string RemoveDotSegments(std::string_view in) {
    std::string out;
    auto dropLastSegment = [&out] { out.erase(std::min(out.size(), out.rfind('/'))); };
    while (!in.empty()) {
        if (StartsWith(in, "../") || StartsWith(in, "./")) {
            in.remove_prefix(in[0] == '.' && in[1] == '.' ? 3 : 2);
        } else if (StartsWith(in, "/./") || in == "/.") {
            in.remove_prefix(2); // "/./x" goes on as "/x", "/." as "/"
            if (in.empty()) in = "/";
        } else if (StartsWith(in, "/../") || in == "/..") {
            in.remove_prefix(3);
            dropLastSegment();
            if (in.empty()) in = "/";
        } else if (in == "." || in == "..") {
            in = {};
        } else {
            const size_t next = in.find('/', 1);
            out.append(in.substr(0, next));
            in.remove_prefix(next == std::string_view::npos ? in.size() : next);
        }
    }
    return out;
}

// "scheme:" at the start of a reference (letters, then letters, digits, "+", "-", ".").
bool HasScheme(std::string_view ref) {
    const size_t colon = ref.find(':');
    if (colon == 0 || colon == std::string_view::npos || !std::isalpha(static_cast<unsigned char>(ref[0])))
        return false;
    for (size_t i = 1; i < colon; ++i) {
        const char c = ref[i];
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '+' && c != '-' && c != '.') return false;
    }
    return true;
}

// The target path of a reference without scheme or authority, against the base path.
std::string MergePath(std::string_view basePath, std::string_view ref) {
    const std::string_view baseNoQuery = basePath.substr(0, basePath.find('?'));
    if (ref.empty()) return std::string(basePath);
    if (ref[0] == '?') return std::string(baseNoQuery) + std::string(ref);
    std::string merged = ref[0] == '/' ? std::string() : std::string(baseNoQuery.substr(0, baseNoQuery.rfind('/') + 1));
    merged.append(ref);
    const size_t query = merged.find('?');
    return RemoveDotSegments(std::string_view(merged).substr(0, query)) +
           (query == std::string::npos ? std::string() : merged.substr(query));
}
} // namespace

bool klResolveHTTPLocation(const char* host, uint32_t port, const char* path, const char* location, char* out,
                           size_t size) {
    std::string_view ref(location);
    ref = ref.substr(0, ref.find('#')); // a fragment is for the reader, never sent
    std::string url;
    if (StartsWithScheme(location)) url = ref;
    else if (StartsWith(ref, "//")) url = "http:" + std::string(ref);
    else if (HasScheme(ref)) return false;
    else url = "http://" + std::string(host) + ":" + std::to_string(port) + MergePath(path, ref);
    if (url.size() >= size) return false;
    std::memcpy(out, url.c_str(), url.size() + 1);
    return true;
}

// ---------------------------------------------------------------------------------------
// The client

struct klHTTPClient::Transfer {
    const char* method;
    klStream* body;
    klStream* response;
    int64_t firstByte;
    int64_t lastByte;
    int64_t originalFirstByte;
    uint32_t startMs;           // when the request began, for its time limit
    int64_t bodyLength = 0;
    int64_t received = 0;       // body bytes delivered to the response in this call
    int64_t furthest = 0;       // the furthest body offset any attempt has reached
    uint32_t responseStart = 0; // where the response stood when the call began
    int32_t attempts = 0;
    bool progressed = false;    // the current attempt took the body further than before
    bool headSeen = false;      // some attempt read a whole response head
    bool standard = false;      // CRLF line ends and "Cookie: "
    char lastModified[30] = {}; // held from an earlier attempt, for "If-Range: "
};

namespace {

// Writes printf-style text to the connection, however long it turns out.
void Put(klNetworkBuf* conn, const char* format, ...) {
    char small[1024];
    va_list args, again;
    va_start(args, format);
    va_copy(again, args);
    const int len = std::vsnprintf(small, sizeof(small), format, args);
    va_end(args);
    if (len < 0) {
        va_end(again);
        return;
    }
    if (size_t(len) < sizeof(small)) {
        conn->sputn(small, len);
    } else {
        std::vector<char> large(size_t(len) + 1);
        std::vsnprintf(large.data(), large.size(), format, again);
        conn->sputn(large.data(), len);
    }
    va_end(again);
}

// Moves up to count bytes from the connection to out (null: dropped); returns how many
// were taken off the connection. *refused is set when out took fewer than given.
int64_t CopyBody(klNetworkBuf* conn, klStream* out, int64_t count, bool* refused) {
    constexpr int64_t kChunk = 64 * 1024;
    std::unique_ptr<char[]> chunk(new char[kChunk]);
    int64_t copied = 0;
    while (copied < count) {
        const std::streamsize want = std::streamsize(count - copied < kChunk ? count - copied : kChunk);
        const std::streamsize got = conn->sgetn(chunk.get(), want);
        if (got > 0 && out && out->Write(chunk.get(), uint32_t(got)) < uint32_t(got)) {
            *refused = true;
            return copied;
        }
        copied += got;
        if (got < want) break;
    }
    return copied;
}

// Header values must stay on their one line.
bool SingleLine(const char* text) {
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p; ++p)
        if ((*p < ' ' && *p != '\t') || *p == 0x7f) return false;
    return true;
}

// A method is a token: letters only here, which every real method is.
bool IsToken(const char* method) {
    size_t n = 0;
    for (; method[n]; ++n)
        if (!std::isalpha(static_cast<unsigned char>(method[n])) || n >= 32) return false;
    return n > 0;
}

// The longest 301 body that is read away to keep its connection; longer ones close it.
constexpr int64_t kDiscardLimit = 64 * 1024;

} // namespace

klHTTPClient::klHTTPClient()
    : mURL{}, mPath{}, mHost{}, mPort(80), mContentLength(0), mLastModified(0), mDate(0), mStatus(400),
      mFailure(klHTTPFailure::None), mFraming(klHTTPFraming::Configured), mTimeLimitMs(kDefaultTimeLimitMs) {}

bool klHTTPClient::Split(const char* url) { return klSplitHTTPURL(url, mHost, mPath, &mPort); }

bool klHTTPClient::SetURL(const char* url) {
    if (!url || std::strlen(url) >= kTextSize) return false;
    char host[kTextSize], path[kTextSize];
    uint32_t port = 0;
    if (!klSplitHTTPURL(url, host, path, &port)) return false;
    std::memcpy(mURL, url, std::strlen(url) + 1);
    std::memcpy(mHost, host, sizeof(host));
    std::memcpy(mPath, path, sizeof(path));
    mPort = port;
    return true;
}

namespace {
bool SetHeaderText(klString* field, const char* text, const char* what) {
    if (text && !SingleLine(text)) {
        klConsoleLogger().Error("klHTTPClient: %s refused: it holds a line break or control character", what);
        return false;
    }
    *field = text ? text : "";
    return true;
}
} // namespace

const char* klHTTPClient::GetURL() const { return mURL; }
bool klHTTPClient::SetCookie(const char* cookie) { return SetHeaderText(&mCookie, cookie, "cookie"); }
bool klHTTPClient::SetContentType(const char* type) { return SetHeaderText(&mContentType, type, "content type"); }
int32_t klHTTPClient::Status() const { return mStatus; }
int64_t klHTTPClient::ContentLength() const { return mContentLength; }
int64_t klHTTPClient::LastModified() const { return mLastModified; }
int64_t klHTTPClient::Date() const { return mDate; }

bool klHTTPClient::StandardFraming() const {
    if (mFraming != klHTTPFraming::Configured) return mFraming == klHTTPFraming::Standard;
    // Made by the first request rather than at start-up, so that a library that never
    // sends one leaves no console record behind when it is unloaded.
    static klVarRef standard("http_standard_framing");
    return standard.IsBound() && standard.GetInt() != 0;
}

bool klHTTPClient::TimeLeft(const Transfer& t) const {
    return kl::platform::Milliseconds() - t.startMs < mTimeLimitMs;
}

void klHTTPClient::Fail(klHTTPFailure failure, const char* format, ...) {
    mStatus = 400;
    mFailure = failure;
    char why[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(why, sizeof(why), format, args);
    va_end(args);
    klConsoleLogger().Error("klHTTPClient: %s: %s", mURL, why);
}

// By default lines end in a bare line feed and the cookie goes as "Cookie=": the servers
// this client grew up with expect exactly that. The standard framing is the opt-in.
void klHTTPClient::WriteRequest(klNetworkBuf* conn, const Transfer& t) {
    const char* eol = t.standard ? "\r\n" : "\n";
    Put(conn, "%s %s HTTP/1.0%s", t.method, mPath, eol);
    Put(conn, "Accept: */*%sAccept-Language: en-us%sUser-Agent: klHTTPClient/%s (%s)%sHost: %s", eol, eol, kVersion,
        klOperatingSystemDescription().Const(), eol, mHost);
    if (t.standard && mPort != 80) Put(conn, ":%u", mPort);
    Put(conn, "%sConnection: Keep-Alive%s", eol, eol);
    if (t.body) {
        Put(conn, "Content-Type: %s%s", mContentType.Const(), eol);
        Put(conn, "Content-Length: %lld%s", (long long)t.bodyLength, eol);
    }
    if (!mCookie.IsEmpty()) Put(conn, t.standard ? "Cookie: %s%s" : "Cookie=%s%s", mCookie.Const(), eol);
    bool ranged = true;
    if (t.lastByte >= 0)
        Put(conn, "Range: bytes=%lld-%lld%s", (long long)t.firstByte, (long long)t.lastByte, eol);
    else if (t.firstByte != 0 || t.lastModified[0])
        Put(conn, "Range: bytes=%lld-%s", (long long)t.firstByte, eol);
    else
        ranged = false;
    if (t.lastModified[0] && ranged) Put(conn, "If-Range: %s%s", t.lastModified, eol);
    Put(conn, "%s", eol);
    conn->pubsync();
}

void klHTTPClient::SendBody(klNetworkBuf* conn, const Transfer& t) {
    if (!t.body) return;
    t.body->Seek(klSeekStart, 0);
    char chunk[4096];
    for (int64_t left = t.bodyLength; left > 0;) {
        const uint32_t want = uint32_t(left < int64_t(sizeof(chunk)) ? left : int64_t(sizeof(chunk)));
        const uint32_t got = t.body->Read(chunk, want);
        const uint32_t moved = got < want ? got : want;
        if (moved == 0 || conn->sputn(chunk, moved) != std::streamsize(moved)) break;
        left -= moved;
    }
    conn->pubsync();
}

bool klHTTPClient::FollowLocation(const klHTTPResponseHead& head) {
    char target[kTextSize];
    if (head.locationCut || !klResolveHTTPLocation(mHost, mPort, mPath, head.location, target, sizeof(target)) ||
        !Split(target))
        return false;
    std::memcpy(mURL, target, std::strlen(target) + 1);
    return true;
}

bool klHTTPClient::ReadResponseHead(klNetworkBuf* conn, Transfer& t) {
    mStatus = 400;
    mContentLength = 0;
    mReply.Clear(false);
    klHTTPResponseHead head;
    const bool complete = klReadHTTPResponseHead(conn, &head);
    mStatus = head.status;
    mContentLength = head.contentLength;
    mLastModified = head.lastModifiedTime;
    mDate = head.date;
    if (head.lastModified[0]) std::memcpy(t.lastModified, head.lastModified, sizeof(t.lastModified));
    if (!complete) return false;
    t.headSeen = true;
    // A resumed body must go on from the byte asked for, or the copy would be spliced wrong.
    if (mStatus == 206 && t.received > 0 && head.rangeFirst >= 0 && head.rangeFirst != t.firstByte) {
        Fail(klHTTPFailure::Incomplete, "resumed at byte %lld instead of %lld", (long long)head.rangeFirst,
             (long long)t.firstByte);
        return true;
    }
    if (head.hasLocation && !FollowLocation(head)) {
        std::printf("Error: Could not parse: %s\n", head.location);
        std::fflush(stdout);
        mStatus = 404;
    }
    return true;
}

// A resume answered with anything but 206 carries the whole resource (perhaps a newer
// one): what the response holds of the old one must go, or the two would be spliced.
bool klHTTPClient::Restart(Transfer& t) {
    t.response->Seek(klSeekStart, int32_t(t.responseStart));
    if (!t.response->Truncate(t.responseStart)) {
        Fail(klHTTPFailure::ResponseWrite, "the body started over and the response stream cannot be cut back");
        return false;
    }
    t.received = 0;
    t.firstByte = t.originalFirstByte;
    return true;
}

klHTTPClient::Outcome klHTTPClient::ReceiveBody(klNetworkBuf* conn, Transfer& t) {
    if (mStatus == 400) {
        conn->Close(); // whatever follows an unreadable head would poison the next request
        return mFailure == klHTTPFailure::None ? Outcome::Done : Outcome::Failed;
    }
    if (mContentLength == 0 || std::strcmp(t.method, "HEAD") == 0) return Outcome::Done;
    if (t.lastByte >= 0 && mContentLength > t.lastByte - t.firstByte + 1) {
        conn->Close();
        return Outcome::Done;
    }
    if (t.received > 0 && mStatus != 206 && !Restart(t)) return Outcome::Failed;
    bool refused = false;
    const int64_t copied = CopyBody(conn, t.response, mContentLength, &refused);
    t.received += copied;
    if (refused) {
        Fail(klHTTPFailure::ResponseWrite, "the response stream refused the body after %lld bytes",
             (long long)t.received);
        return Outcome::Failed;
    }
    // Offsets count from the request's own first byte; bytes sent again are no progress.
    const int64_t reached = t.firstByte - t.originalFirstByte + copied;
    t.progressed = reached > t.furthest;
    if (t.progressed) t.furthest = reached;
    if (copied == mContentLength) return Outcome::Done;
    t.firstByte += copied;
    return Outcome::Broken;
}

klHTTPClient::Outcome klHTTPClient::Attempt(klNetworkBuf* conn, Transfer& t) {
    WriteRequest(conn, t);
    if (!conn->IsConnected()) return Outcome::Broken;
    SendBody(conn, t);
    if (!ReadResponseHead(conn, t)) return Outcome::Broken;
    if (mFailure != klHTTPFailure::None) return Outcome::Failed;
    if (mStatus != 301) return ReceiveBody(conn, t);
    // A HEAD answer has no body to read away, whatever its length says.
    if (std::strcmp(t.method, "HEAD") == 0) return Outcome::Redirect;
    bool refused = false;
    if (mContentLength > kDiscardLimit || CopyBody(conn, nullptr, mContentLength, &refused) != mContentLength)
        conn->Close();
    return Outcome::Redirect;
}

// Runs attempts on conn until one completes or the bounds are reached; a broken one
// reconnects and sends again. Releases conn.
int32_t klHTTPClient::Exchange(klNetworkBuf* conn, Transfer& t, bool* redirect) {
    int32_t stalled = 0;
    for (;;) {
        if (!TimeLeft(t)) {
            Fail(klHTTPFailure::TimeLimit, "gave up after %u ms", mTimeLimitMs);
            break;
        }
        ++t.attempts;
        t.progressed = false;
        const Outcome outcome = Attempt(conn, t);
        if (outcome == Outcome::Failed) break;
        if (outcome != Outcome::Broken) {
            *redirect = outcome == Outcome::Redirect;
            break;
        }
        stalled = t.progressed ? 0 : stalled + 1;
        if (stalled >= kMaxStalledAttempts || t.attempts >= kMaxAttempts) {
            if (t.headSeen)
                Fail(klHTTPFailure::Incomplete, "body ended at %lld of %lld bytes after %d attempts",
                     (long long)t.received, (long long)mContentLength, t.attempts);
            else
                Fail(klHTTPFailure::NoResponse, "no response after %d attempts", t.attempts);
            break;
        }
        conn->Open(mHost, int32_t(mPort)); // a failure shows as the next broken attempt
    }
    if (mFailure != klHTTPFailure::None) conn->Close();
    conn->SetDeadline(0, 0);
    klHTTPConnectionPool::Release(conn);
    return mStatus;
}

int32_t klHTTPClient::Request(const char* method, klStream* body, klStream* response, int32_t maxRedirects,
                              int64_t firstByte, int64_t lastByte) {
    mStatus = 400;
    mFailure = klHTTPFailure::None;
    mReply.Clear(false);
    if (!klAssert(response != NULL) || !method) return 400;
    if (!klAssertAs(maxRedirects >= 0, "maxredirects >= 0")) maxRedirects = 0;
    if (!klAssert(klSingleton<klHTTPConnectionPool>::IsLive())) return 400;
    if (!IsToken(method)) {
        Fail(klHTTPFailure::Refused, "method refused: not a plain word");
        return mStatus;
    }

    Transfer t{method, body, response, firstByte, lastByte, firstByte, kl::platform::Milliseconds()};
    t.standard = StandardFraming();
    t.responseStart = response->Tell();
    if (body) {
        const uint32_t at = body->Tell();
        body->Seek(klSeekEnd, 0);
        t.bodyLength = body->Tell();
        body->Seek(klSeekStart, int32_t(at));
    }
    for (int32_t redirects = 0;;) {
        if (!mPath[0]) return 400;
        klNetworkBuf* conn = nullptr;
        klHTTPConnectionPool::Claim claim;
        while ((claim = klSingleton<klHTTPConnectionPool>::Instance()->Acquire(mHost, mPort, t.startMs, mTimeLimitMs, &conn)) ==
               klHTTPConnectionPool::Claim::Busy) {
            if (!TimeLeft(t)) {
                Fail(klHTTPFailure::TimeLimit, "no free connection within %u ms", mTimeLimitMs);
                return mStatus;
            }
            klSleep(10);
        }
        if (claim == klHTTPConnectionPool::Claim::Failed) {
            std::printf("Error: Could not connect to host at %s.\n", mHost);
            std::fflush(stdout);
            mFailure = klHTTPFailure::Connect;
            return 400;
        }
        bool redirect = false;
        Exchange(conn, t, &redirect);
        if (!redirect) return mStatus;
        if (++redirects > maxRedirects) return 301;
    }
}
