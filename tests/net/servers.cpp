#include "servers.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#ifdef _WIN32
#include <winsock2.h>
using socklen_t = int;
#else
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/select.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

namespace fs = std::filesystem;

namespace keelnet {

TestServer::~TestServer() {
    if (root.empty()) StopFaultServer(this);
    else StopNginx(this);
}

std::string TestServer::Url(const char* path) const {
    return "http://127.0.0.1:" + std::to_string(port) + path;
}
std::string TestServer::AccessLog() const { return ReadWholeFile(dir + "/access.log"); }
std::string TestServer::RequestLog() const { return ReadWholeFile(requests); }

std::string ReadWholeFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

bool WriteServerFile(const TestServer& server, const char* relative, const std::string& bytes) {
    const fs::path path = fs::path(server.root) / relative;
    std::error_code ignored;
    fs::create_directories(path.parent_path(), ignored);
    std::ofstream out(path, std::ios::binary);
    out.write(bytes.data(), std::streamsize(bytes.size()));
    return bool(out);
}

int UnusedPort() {
#ifdef _WIN32
    WSADATA data;
    WSAStartup(MAKEWORD(2, 2), &data);
    const SOCKET s = socket(AF_INET, SOCK_STREAM, 0);
#else
    const int s = socket(AF_INET, SOCK_STREAM, 0);
#endif
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(at);
    int port = 0;
    if (bind(s, reinterpret_cast<sockaddr*>(&at), sizeof(at)) == 0 &&
        getsockname(s, reinterpret_cast<sockaddr*>(&at), &len) == 0)
        port = ntohs(at.sin_port);
#ifdef _WIN32
    closesocket(s);
    WSACleanup();
#else
    close(s);
#endif
    return port;
}

int32_t ListenLoopback(int* port) {
    const auto s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(at);
    if (bind(s, reinterpret_cast<sockaddr*>(&at), sizeof(at)) != 0 || listen(s, 8) != 0 ||
        getsockname(s, reinterpret_cast<sockaddr*>(&at), &len) != 0) {
        CloseSocket(int32_t(s));
        return -1;
    }
    *port = ntohs(at.sin_port);
    return int32_t(s);
}

int32_t AcceptOne(int32_t listener) {
    fd_set ready;
    FD_ZERO(&ready);
    FD_SET(listener, &ready);
    timeval limit{5, 0};
    if (select(int(listener) + 1, &ready, nullptr, nullptr, &limit) != 1) return -1;
    return int32_t(accept(listener, nullptr, nullptr));
}

void CloseSocket(int32_t s) {
#ifdef _WIN32
    closesocket(SOCKET(s));
#else
    close(s);
#endif
}

#ifdef _WIN32

// No process can be started under wine: the ctest fixture started a "basic" server on
// the host and named its port in a file.
bool StartFaultServer(TestServer* server, const char* scenario) {
    const char* portfile = std::getenv("KEEL_NET_FIXTURE_PORTFILE");
    if (!portfile || std::strcmp(scenario, "basic") != 0) return false;
    std::istringstream line(ReadWholeFile(portfile));
    return bool(line >> server->port) && server->port > 0;
}
void StopFaultServer(TestServer* server) { server->port = 0; }
bool StartNginx(TestServer*) { return false; }
void StopNginx(TestServer*) {}

#else

namespace {

bool MakeTempDir(TestServer* server) {
    char pattern[] = "/tmp/keelnet-XXXXXX";
    if (!mkdtemp(pattern)) return false;
    server->dir = pattern;
    return true;
}

bool Accepts(int port) {
    const int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_port = htons(uint16_t(port));
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool ok = connect(s, reinterpret_cast<sockaddr*>(&at), sizeof(at)) == 0;
    close(s);
    return ok;
}

// Runs argv with stdin and stdout given (-1: /dev/null); returns the pid or -1.
long Spawn(const char* const* argv, int in, int out) {
    const pid_t pid = fork();
    if (pid != 0) return pid;
    const int quiet = open("/dev/null", O_RDWR);
    dup2(in >= 0 ? in : quiet, 0);
    dup2(out >= 0 ? out : quiet, 1);
    for (int fd = 3; fd < 256; ++fd) close(fd);
    execvp(argv[0], const_cast<char* const*>(argv));
    _exit(127);
}

void Stop(TestServer* server) {
    if (server->pid > 0) {
        kill(pid_t(server->pid), SIGTERM);
        for (int i = 0; i < 500 && waitpid(pid_t(server->pid), nullptr, WNOHANG) == 0; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        if (waitpid(pid_t(server->pid), nullptr, WNOHANG) == 0) {
            kill(pid_t(server->pid), SIGKILL);
            waitpid(pid_t(server->pid), nullptr, 0);
        }
    }
    if (server->control >= 0) close(server->control);
    server->control = -1;
    server->pid = -1;
    server->port = 0;
    std::error_code ignored;
    if (!server->dir.empty()) fs::remove_all(server->dir, ignored);
    server->dir.clear();
}

// Waits up to 10 s for the server's port to accept while the process lives.
bool WaitUntilUp(TestServer* server) {
    for (int i = 0; i < 1000; ++i) {
        if (waitpid(pid_t(server->pid), nullptr, WNOHANG) != 0) {
            server->pid = -1;
            return false;
        }
        if (Accepts(server->port)) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

const char* FindNginx() {
    for (const char* path : {"/usr/sbin/nginx", "/usr/local/sbin/nginx", "/usr/local/nginx/sbin/nginx", "/usr/bin/nginx"})
        if (access(path, X_OK) == 0) return path;
    return nullptr;
}

std::string NginxConfig(const TestServer& s) {
    std::string c = "daemon off;\nmaster_process off;\nworker_processes 1;\npid " + s.dir + "/nginx.pid;\n";
    c += "error_log " + s.dir + "/error.log;\nevents { worker_connections 512; }\nhttp {\n";
    c += "  log_format keel '$connection $request $status';\n  access_log " + s.dir + "/access.log keel;\n";
    for (const char* temp : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"})
        c += std::string("  ") + temp + "_temp_path " + s.dir + "/tmp-" + temp + ";\n";
    c += "  keepalive_timeout 60;\n  keepalive_requests 1000000;\n  sendfile on;\n  default_type application/octet-stream;\n";
    c += "  server {\n    listen 127.0.0.1:" + std::to_string(s.port) + ";\n    root " + s.root + ";\n";
    c += "    location / { dav_methods PUT DELETE MKCOL; create_full_put_path on; client_max_body_size 0; }\n";
    for (int i = 0; i <= 10; ++i)
        c += "    location = /chain/" + std::to_string(i) + " { return 301 " +
             (i < 10 ? "/chain/" + std::to_string(i + 1) : std::string("/chain.txt")) + "; }\n";
    c += "    location = /found { return 302 /chain.txt; }\n  }\n}\n";
    return c;
}

} // namespace

bool StartNginx(TestServer* server) {
    const char* nginx = FindNginx();
    if (!nginx || !MakeTempDir(server)) return false;
    server->root = server->dir + "/www";
    fs::create_directories(server->root);
    server->port = UnusedPort();
    std::ofstream(server->dir + "/nginx.conf") << NginxConfig(*server);
    const std::string conf = server->dir + "/nginx.conf", errors = server->dir + "/error.log";
    const char* argv[] = {nginx, "-p", server->dir.c_str(), "-c", conf.c_str(), "-e", errors.c_str(), nullptr};
    server->pid = Spawn(argv, -1, -1);
    if (server->pid > 0 && WaitUntilUp(server)) return true;
    StopNginx(server);
    return false;
}

void StopNginx(TestServer* server) { Stop(server); }

bool StartFaultServer(TestServer* server, const char* scenario) {
    if (!MakeTempDir(server)) return false;
    server->requests = server->dir + "/requests.log";
    int in[2], out[2];
    if (pipe(in) != 0) return false;
    if (pipe(out) != 0) {
        close(in[0]);
        close(in[1]);
        return false;
    }
    const char* argv[] = {"python3", KEEL_NET_FAULT_SERVER, scenario, server->requests.c_str(), nullptr};
    server->pid = Spawn(argv, in[0], out[1]);
    close(in[0]);
    close(out[1]);
    // The server ends when its stdin closes: keep the write end open (inherited by no one
    // else) until this process goes.
    fcntl(in[1], F_SETFD, FD_CLOEXEC);
    server->control = in[1];
    // The port arrives as one line; it may come in pieces.
    char line[32] = {};
    size_t got = 0;
    pollfd p{out[0], POLLIN, 0};
    while (server->pid > 0 && got < sizeof(line) - 1 && !std::memchr(line, '\n', got) && poll(&p, 1, 10000) == 1) {
        const ssize_t n = read(out[0], line + got, sizeof(line) - 1 - got);
        if (n <= 0) break;
        got += size_t(n);
    }
    if (std::memchr(line, '\n', got)) server->port = std::atoi(line);
    close(out[0]);
    if (server->port > 0 && WaitUntilUp(server)) return true;
    StopFaultServer(server);
    return false;
}

void StopFaultServer(TestServer* server) { Stop(server); }

#endif

} // namespace keelnet
