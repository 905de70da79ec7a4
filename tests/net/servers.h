// tests/net/server.py on 127.0.0.1, run by the host's python3 (a host program under wine) in
// a fresh folder below the build folder; the destructor removes the folder, which ends it.
#pragma once

#include "../keel/keel_test.h"
#include "keel/klnetworkbuf.h"

#include <cstdint>
#include <string>

namespace keelnet {

struct TestServer {
    int port = 0;
    std::string dir;
    ~TestServer();

    bool Start(); // false when python3 is missing or the server is not up within 10 s
    std::string Url(const std::string& path) const { return "http://127.0.0.1:" + std::to_string(port) + path; }
    std::string Log() const { return keeltest::ReadFile(dir + "/requests.log"); } // the raw request heads
    std::string Served(const std::string& path) const { return dir + "/www" + path; }
    bool Put(const std::string& path, const std::string& bytes) const; // under www/, folders created
};

// A loopback listener for tests that play the server (port 0: it failed); Connect opens client
// to it and returns the accepted end (-1: failed). Listener().port has nothing listening.
struct Listener {
    explicit Listener(int backlog = 8);
    ~Listener();
    int32_t Connect(klNetworkBuf* client) const;
    int port = 0;
    int32_t socket = -1;
};

size_t Count(const std::string& text, const std::string& needle); // overlaps counted
// n bytes of the server's body pattern (seed 0); other seeds give other bytes.
std::string Pattern(size_t n, uint32_t seed = 0);

} // namespace keelnet
