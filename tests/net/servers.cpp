#include "servers.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#ifdef _WIN32
#include <winsock2.h>
#include <windows.h>
using socklen_t = int;
#else
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

namespace fs = std::filesystem;

namespace keelnet {

// nginx writes a request's line after it has answered, so the client may be quicker than
// the log: read until two readings 50 ms apart agree (a second at most).
std::string TestServer::AccessLog() const {
    std::string log = ReadWholeFile(dir + "/access.log");
    for (int i = 0; i < 20; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        std::string again = ReadWholeFile(dir + "/access.log");
        if (again == log) break;
        log = std::move(again);
    }
    return log;
}
std::string TestServer::RequestLog() const { return ReadWholeFile(requests); }

std::string ReadWholeFile(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

bool WriteServerFile(const TestServer& server, const char* relative, const std::string& bytes) {
    const fs::path path = fs::path(server.root) / relative;
    std::error_code ignored;
    fs::create_directories(path.parent_path(), ignored);
    return bool(std::ofstream(path, std::ios::binary).write(bytes.data(), std::streamsize(bytes.size())));
}

size_t Count(const std::string& text, const std::string& needle) {
    size_t n = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++n;
    return n;
}

std::string Pattern(size_t n, uint32_t seed) {
    std::string bytes(n, '\0');
    for (size_t i = 0; i < n; ++i) bytes[i] = char(((uint64_t(i) + seed) * 2654435761u) >> 13);
    return bytes;
}

int32_t ListenLoopback(int* port, int backlog) {
#ifdef _WIN32
    [[maybe_unused]] static const int started = [] { WSADATA data; return WSAStartup(MAKEWORD(2, 2), &data); }();
#endif
    const auto s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(at);
    if (bind(s, reinterpret_cast<sockaddr*>(&at), sizeof(at)) != 0 || listen(s, backlog) != 0 ||
        getsockname(s, reinterpret_cast<sockaddr*>(&at), &len) != 0) {
        CloseSocket(int32_t(s));
        return -1;
    }
    *port = ntohs(at.sin_port);
    return int32_t(s);
}

int UnusedPort() {
    int port = 0;
    const int32_t s = ListenLoopback(&port);
    if (s >= 0) CloseSocket(s);
    return port;
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

namespace {

bool Accepts(int port) {
    const auto s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_port = htons(uint16_t(port));
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool ok = connect(s, reinterpret_cast<sockaddr*>(&at), sizeof(at)) == 0;
    CloseSocket(int32_t(s));
    return ok;
}

// The first of the usual places where a host program is installed (a unix path: under
// wine the drive the tests run on maps it), or "".
std::string FindProgram(std::initializer_list<const char*> paths) {
    for (const char* path : paths)
        if (fs::exists(path)) return path;
    return "";
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
    c += "    location = /found { return 302 /chain.txt; }\n";
    c += "    location = /old { return 301 /data.bin; }\n  }\n}\n";
    return c;
}

std::string ApacheConfig(const TestServer& s) {
    std::string c = "ServerRoot " + s.dir + "\nServerName 127.0.0.1\nListen 127.0.0.1:" + std::to_string(s.port) + "\n";
    for (const char* module : {"mpm_event", "authz_core", "alias", "mime"})
        c += std::string("LoadModule ") + module + "_module /usr/lib/apache2/modules/mod_" + module + ".so\n";
    // Started as root it serves as "daemon", which must be able to read the folder.
    c += "User daemon\nGroup daemon\nPidFile " + s.dir + "/httpd.pid\nMutex file:" + s.dir + "\n";
    c += "TypesConfig /etc/mime.types\nDocumentRoot " + s.root + "\n<Directory " + s.root + ">\n  Require all granted\n</Directory>\n";
    c += "ErrorLog " + s.dir + "/error.log\nLogFormat \"%{remote}p %r %>s\" keel\nCustomLog " + s.dir + "/access.log keel\n";
    c += "KeepAlive On\nMaxKeepAliveRequests 0\nKeepAliveTimeout 60\nRedirect permanent /old /data.bin\n";
    return c;
}

// Once the server is gone: no process, no port, and its folder removed.
void Forget(TestServer* server) {
    server->pid = -1;
    server->port = 0;
    std::error_code ignored;
    if (!server->dir.empty()) fs::remove_all(server->dir, ignored);
    server->dir.clear();
}

// A private folder with a document root that any user may read.
bool MakeServerDir(TestServer* server);
// Starts argv (a host program), its stdin and stdout given (-1: none); pid or -1.
long Spawn(const std::vector<std::string>& argv, int in, int out);
void Stop(TestServer* server);

// Waits up to 10 s for the port to accept; stops the server otherwise.
bool WaitUntilUp(TestServer* server);
} // namespace

bool StartNginx(TestServer* server) {
    const std::string nginx = FindProgram({"/usr/sbin/nginx", "/usr/local/sbin/nginx", "/usr/bin/nginx"});
    if (nginx.empty() || !MakeServerDir(server)) return false;
    const std::string conf = server->dir + "/nginx.conf", errors = server->dir + "/error.log";
    server->port = UnusedPort();
    std::ofstream(conf) << NginxConfig(*server);
    server->stop = {nginx, "-p", server->dir, "-c", conf, "-e", errors, "-s", "stop"};
    server->pid = Spawn({nginx, "-p", server->dir, "-c", conf, "-e", errors}, -1, -1);
    return WaitUntilUp(server);
}

bool StartApache(TestServer* server) {
    const std::string apache = FindProgram({"/usr/sbin/apache2", "/usr/sbin/httpd"});
    if (apache.empty() || !MakeServerDir(server)) return false;
    const std::string conf = server->dir + "/httpd.conf";
    server->port = UnusedPort();
    std::ofstream(conf) << ApacheConfig(*server);
    server->stop = {apache, "-f", conf, "-k", "stop"};
    // -X: one process in the foreground, which SIGTERM ends.
    server->pid = Spawn({apache, "-f", conf, "-X"}, -1, -1);
    return WaitUntilUp(server);
}

#ifdef _WIN32

// Under wine the servers are host programs: CreateProcess runs a unix program given by
// its unix path, and unix paths name files on the drive the tests run from. The folders
// lie below KEEL_NET_HOST_DIR (a unix path); without it (real Windows) nothing starts.
namespace {

bool MakeServerDir(TestServer* server) {
    static int serial = 0;
    const char* base = std::getenv("KEEL_NET_HOST_DIR");
    if (!base) return false;
    server->dir = std::string(base) + "/keelnet-" + std::to_string(GetCurrentProcessId()) + "-" + std::to_string(++serial);
    server->root = server->dir + "/www";
    std::error_code failed;
    fs::create_directories(server->root, failed);
    return !failed;
}

long Spawn(const std::vector<std::string>& argv, int, int) {
    std::string line;
    for (const std::string& arg : argv) line += (line.empty() ? "" : " ") + arg;
    STARTUPINFOA startup{};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION process{};
    if (!CreateProcessA(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process))
        return -1;
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    return 1; // a host process has no handle to wait on here
}

void Stop(TestServer* server) {
    if (!server->stop.empty()) Spawn(server->stop, -1, -1);
    for (int i = 0; i < 500 && server->port > 0 && Accepts(server->port); ++i) Sleep(10);
    server->stop.clear();
    Forget(server);
}

bool WaitUntilUp(TestServer* server) {
    for (int i = 0; i < 1000 && server->pid > 0 && server->port > 0; ++i) {
        if (Accepts(server->port)) return true;
        Sleep(10);
    }
    Stop(server);
    return false;
}

} // namespace

TestServer::~TestServer() { Stop(this); }

// The server detaches itself and names its port in a file.
bool StartFaultServer(TestServer* server, const char* scenario, int upstream) {
    const char* python = std::getenv("KEEL_NET_HOST_PYTHON");
    if (!python || !MakeServerDir(server)) return false;
    server->requests = server->dir + "/requests.log";
    const std::string portfile = server->dir + "/port";
    server->stop = {python, KEEL_NET_FAULT_SERVER, "--stop", portfile};
    server->pid = Spawn({python, KEEL_NET_FAULT_SERVER, scenario, server->requests, "--upstream",
                         std::to_string(upstream), "--portfile", portfile},
                        -1, -1);
    for (int i = 0; i < 1000 && server->pid > 0 && !fs::exists(portfile); ++i) Sleep(10);
    std::istringstream line(ReadWholeFile(portfile));
    if (!(line >> server->port)) server->port = 0;
    return WaitUntilUp(server);
}

#else

namespace {

bool MakeServerDir(TestServer* server) {
    char pattern[] = "/tmp/keelnet-XXXXXX";
    if (!mkdtemp(pattern)) return false;
    server->dir = pattern;
    server->root = server->dir + "/www";
    fs::create_directories(server->root);
    for (const fs::path& folder : {fs::path(server->dir), fs::path(server->root)})
        fs::permissions(folder, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                                    fs::perms::others_read | fs::perms::others_exec);
    return true;
}

bool Exited(long pid) { return waitpid(pid_t(pid), nullptr, WNOHANG) != 0; }

long Spawn(const std::vector<std::string>& argv, int in, int out) {
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    const pid_t pid = fork();
    if (pid != 0) return pid;
    const int quiet = open("/dev/null", O_RDWR);
    dup2(in >= 0 ? in : quiet, 0);
    dup2(out >= 0 ? out : quiet, 1);
    for (int fd = 3; fd < 256; ++fd) close(fd);
    execvp(args[0], args.data());
    _exit(127);
}

// SIGTERM, then SIGKILL when it is still there after 5 s; the folder goes too.
void Stop(TestServer* server) {
    if (server->pid > 0) {
        kill(pid_t(server->pid), SIGTERM);
        for (int i = 0; i < 500 && !Exited(server->pid); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
        if (!Exited(server->pid) && kill(pid_t(server->pid), SIGKILL) == 0) waitpid(pid_t(server->pid), nullptr, 0);
    }
    if (server->control >= 0) close(server->control);
    server->control = -1;
    Forget(server);
}

bool WaitUntilUp(TestServer* server) {
    for (int i = 0; i < 1000 && server->pid > 0 && server->port > 0 && !Exited(server->pid); ++i) {
        if (Accepts(server->port)) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    Stop(server);
    return false;
}

} // namespace

TestServer::~TestServer() { Stop(this); }

bool StartFaultServer(TestServer* server, const char* scenario, int upstream) {
    int in[2], out[2];
    if (!MakeServerDir(server) || pipe(in) != 0 || pipe(out) != 0) return false;
    server->requests = server->dir + "/requests.log";
    server->pid = Spawn({"python3", KEEL_NET_FAULT_SERVER, scenario, server->requests, "--upstream",
                         std::to_string(upstream)},
                        in[0], out[1]);
    close(in[0]);
    close(out[1]);
    // The server ends when its stdin closes: our end stays open, inherited by no one.
    fcntl(in[1], F_SETFD, FD_CLOEXEC);
    server->control = in[1];
    // The port comes as one short line in one write, which a pipe delivers whole.
    char line[32] = {};
    pollfd ready{out[0], POLLIN, 0};
    if (poll(&ready, 1, 10000) == 1 && read(out[0], line, sizeof(line) - 1) > 0 && std::strchr(line, '\n'))
        server->port = std::atoi(line);
    close(out[0]);
    return WaitUntilUp(server);
}

#endif

} // namespace keelnet
