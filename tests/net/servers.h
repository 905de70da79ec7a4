// Local HTTP servers for the network tests, on 127.0.0.1, each owned (and stopped by the
// destructor) by the test that starts it. Start* return false when the program is missing
// or does not come up within 10 s; the caller then skips rather than fails.
//
//   StartNginx: a private nginx with document root `root` (put files there first),
//   keep-alive, WebDAV PUT/DELETE/MKCOL anywhere (folders created), no body size limit,
//   access log lines "<connection serial> <request line> <status>". /chain/0 .. /chain/9
//   each answer 301 to the next, /chain/10 301 to /chain.txt; /found 302 to /chain.txt.
//
//   StartApache: a private Apache httpd (a strict parser: bare line feeds and header lines
//   without a colon get 400) with the same document root layout, keep-alive, access log
//   lines "<client port> <request line> <status>", and /old 301 to /data.bin.
//   nginx has /old too.
//
//   StartFaultServer: tests/net/fault_server.py under python3, one scenario per process;
//   every request head it receives is appended raw to `requests`, each connection's first
//   after a line "CONNECT". upstream: the port "cutproxy" forwards to.
//
// Under wine the same servers run as host programs (wine starts a unix program named by
// its unix path) in folders below KEEL_NET_HOST_DIR, the fault server under
// KEEL_NET_HOST_PYTHON; ctest sets both. On real Windows nothing starts and the tests skip.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace keelnet {

struct TestServer {
    int port = 0;         // loopback port it listens on
    std::string dir;      // private temp folder: config, logs
    std::string root;     // nginx: document root (dir + "/www")
    std::string requests; // fault server: raw request heads log
    long pid = -1;        // server process; -1 when not running (or not ours to stop)
    int control = -1;     // fault server: our end of its stdin (it exits when that closes)
    std::vector<std::string> stop; // under wine: the host command that stops it

    TestServer() = default;
    TestServer(const TestServer&) = delete;
    TestServer& operator=(const TestServer&) = delete;
    ~TestServer();

    std::string Url(const char* path) const { return "http://127.0.0.1:" + std::to_string(port) + path; }
    std::string AccessLog() const;  // nginx
    std::string RequestLog() const; // fault server
};

bool StartNginx(TestServer* server);
bool StartApache(TestServer* server);
bool StartFaultServer(TestServer* server, const char* scenario, int upstream = 0);

// Writes bytes to root + "/" + relative (folders created); false on failure.
bool WriteServerFile(const TestServer& server, const char* relative, const std::string& bytes);
// The whole file, or "" when it cannot be read.
std::string ReadWholeFile(const std::string& path);
// A loopback port on which nothing listens right now.
int UnusedPort();
// For tests that play the server: a socket listening on a free loopback port (-1 on
// failure), its next connection (-1 when none came within 5 s), and closing either.
// A listener with backlog 0 that accepts nothing leaves further connects hanging on Linux
// once one or two wait in its queue.
int32_t ListenLoopback(int* port, int backlog = 8);
int32_t AcceptOne(int32_t listener);
void CloseSocket(int32_t s);
// How often needle occurs in text (overlaps counted).
size_t Count(const std::string& text, const std::string& needle);
// n bytes of the fault server's body pattern (seed 0); other seeds give other bytes.
std::string Pattern(size_t n, uint32_t seed = 0);

} // namespace keelnet
