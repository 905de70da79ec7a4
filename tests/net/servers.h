// Local HTTP servers for the network tests on 127.0.0.1, each stopped (and its folder
// removed) by its owner's destructor. Start* return false when the program is missing or
// does not listen within 10 s; the caller then skips rather than fails.
//
//   nginx: document root `root`, keep-alive, WebDAV PUT/DELETE/MKCOL anywhere (folders
//   created), access log lines "<connection serial> <request line> <status>"; /chain/0 ..
//   /chain/9 answer 301 to the next, /chain/10 301 to /chain.txt, /found 302 to /chain.txt.
//   Apache httpd: a strict parser (bare line feeds get 400), the same root, log lines
//   "<client port> <request line> <status>". Both answer /old with 301 to /data.bin.
//   Fault server: tests/net/fault_server.py, one scenario of its table per process; every
//   request head is appended raw to `requests`, a connection's first after a line
//   "CONNECT". upstream: the port "cutproxy" forwards to.
//
// Under wine they run as host programs (wine starts a unix program named by its unix path)
// in folders below KEEL_NET_HOST_DIR, python being KEEL_NET_HOST_PYTHON; ctest sets both.
// On real Windows nothing starts and the tests skip.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace keelnet {

struct TestServer {
    int port = 0;
    std::string dir;      // private folder: configuration, logs
    std::string root;     // document root (dir + "/www")
    std::string requests; // fault server: the raw request heads
    long pid = -1;        // -1 when not running (or not ours to signal)
    std::vector<std::string> stop; // under wine: the host command that stops it

    TestServer() = default;
    TestServer(const TestServer&) = delete;
    TestServer& operator=(const TestServer&) = delete;
    ~TestServer();

    std::string Url(const char* path) const { return "http://127.0.0.1:" + std::to_string(port) + path; }
    std::string AccessLog() const; // nginx and Apache
    std::string RequestLog() const;
};

bool StartNginx(TestServer* server);
bool StartApache(TestServer* server);
bool StartFaultServer(TestServer* server, const char* scenario, int upstream = 0);

// Writes bytes to root + "/" + relative (folders created); false on failure.
bool WriteServerFile(const TestServer& server, const char* relative, const std::string& bytes);
std::string ReadWholeFile(const std::string& path); // "" when it cannot be read
int UnusedPort(); // a loopback port on which nothing listens right now
// For tests that play the server: a socket listening on a free loopback port (-1 on
// failure), the connection the test has made to it, and closing either.
int32_t ListenLoopback(int* port, int backlog = 8);
int32_t AcceptOne(int32_t listener);
void CloseSocket(int32_t s);
size_t Count(const std::string& text, const std::string& needle); // overlaps counted
// n bytes of the fault server's body pattern (seed 0); other seeds give other bytes.
std::string Pattern(size_t n, uint32_t seed = 0);

} // namespace keelnet
