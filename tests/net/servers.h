// The network tests' HTTP server (tests/net/server.py: files, redirects and faults) on
// 127.0.0.1, started by the host's python3 in a fresh folder below the build folder; under
// wine it runs as a host program. The destructor removes the folder, which ends it.
#pragma once

#include <cstdint>
#include <string>

namespace keelnet {

std::string ReadWholeFile(const std::string& path); // "" when it cannot be read

struct TestServer {
    int port = 0;
    std::string dir;
    ~TestServer();

    bool Start(); // false when python3 is missing or the server is not up within 10 s
    std::string Url(const std::string& path) const { return "http://127.0.0.1:" + std::to_string(port) + path; }
    std::string Log() const { return ReadWholeFile(dir + "/requests.log"); } // the raw request heads
    std::string Served(const std::string& path) const { return dir + "/www" + path; }
    bool Put(const std::string& path, const std::string& bytes) const; // under www/, folders created
};

int UnusedPort(); // a loopback port on which nothing listens right now
// For tests that play the server: a socket listening on a free loopback port (-1 on
// failure) and the connection the test has made to it; kl::net::ShutdownAndClose closes either.
int32_t ListenLoopback(int* port, int backlog = 8);
int32_t AcceptOne(int32_t listener);
size_t Count(const std::string& text, const std::string& needle); // overlaps counted
// n bytes of the server's body pattern (seed 0); other seeds give other bytes.
std::string Pattern(size_t n, uint32_t seed = 0);

} // namespace keelnet
