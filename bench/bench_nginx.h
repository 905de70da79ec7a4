// A private nginx on 127.0.0.1 for the HTTP benchmark: its own folder below /tmp, the
// document root www/ in it, kept-alive connections; the destructor stops it and removes
// the folder. Linux only, as is the benchmark.
#pragma once

#include <string>

struct BenchNginx {
    int port = 0;
    std::string dir;
    long pid = -1;

    BenchNginx() = default;
    BenchNginx(const BenchNginx&) = delete;
    BenchNginx& operator=(const BenchNginx&) = delete;
    ~BenchNginx();

    bool Start(); // false when nginx does not listen within 10 s
    bool Put(const std::string& path, const std::string& bytes) const; // below www/
    std::string Url(const char* path) const { return "http://127.0.0.1:" + std::to_string(port) + path; }
};
