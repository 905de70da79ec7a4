// Local HTTP servers for the network tests, all on 127.0.0.1 and all owned by the test
// that starts them.
//
//   nginx (StartNginx): a private instance on a free loopback port with a generated
//   configuration: document root `root` (put files there before requesting them),
//   keep-alive on, WebDAV PUT/DELETE/MKCOL enabled everywhere (missing folders are
//   created), no body size limit, and an access log whose lines read
//   "<connection serial> <request line> <status>" (AccessLog() returns them). Fixed
//   locations: /chain/0 .. /chain/9 each answer 301 to the next one, /chain/10 answers
//   301 to /chain.txt; /found answers 302 to /chain.txt.
//
//   The fault server (StartFaultServer): tests/net/fault_server.py under python3, one
//   scenario per process (see the script's header for what each does). Every request
//   head it receives is appended, raw, to `requests` (the file RequestLog() reads).
//
// Both return false when the program is missing or does not come up within 10 s; the
// caller then skips (GTEST_SKIP) rather than fails. Stop* may be called twice and is
// called by the destructor, so a failing test never leaves a server behind.
//
// Under wine no process can be started: StartFaultServer succeeds only for the scenario
// that the ctest fixture started on the host, whose port it reads from the file named by
// the environment variable KEEL_NET_FIXTURE_PORTFILE. StartNginx returns false there.
#pragma once

#include <cstdint>
#include <string>

namespace keelnet {

struct TestServer {
    int port = 0;         // loopback port it listens on
    std::string dir;      // private temp folder: config, logs, pid
    std::string root;     // nginx: document root (dir + "/www"); fault server: unused
    std::string requests; // fault server: raw request heads log
    long pid = -1;        // server process; -1 when not running (or not ours to stop)
    int control = -1;     // fault server: our end of its stdin (it exits when that closes)

    TestServer() = default;
    TestServer(const TestServer&) = delete;
    TestServer& operator=(const TestServer&) = delete;
    ~TestServer();

    // "http://127.0.0.1:<port><path>"; path starts with "/".
    std::string Url(const char* path) const;
    // nginx: the access log's text so far (lines "<connection> <request line> <status>").
    std::string AccessLog() const;
    // Fault server: everything received so far.
    std::string RequestLog() const;
};

bool StartNginx(TestServer* server);
void StopNginx(TestServer* server);

bool StartFaultServer(TestServer* server, const char* scenario);
void StopFaultServer(TestServer* server);

// Writes bytes to root + "/" + relative (folders created); false on failure.
bool WriteServerFile(const TestServer& server, const char* relative, const std::string& bytes);
// A loopback port on which nothing listens right now.
int UnusedPort();
// For tests that play the server themselves: a socket listening on a free loopback port
// (-1 on failure), the next connection on it (waits at most 5 s; -1 when none came),
// and closing either.
int32_t ListenLoopback(int* port);
int32_t AcceptOne(int32_t listener);
void CloseSocket(int32_t s);
// The whole file, or "" when it cannot be read.
std::string ReadWholeFile(const std::string& path);

} // namespace keelnet
