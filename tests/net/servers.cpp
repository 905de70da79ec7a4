#include "servers.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
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
#include <signal.h>
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

namespace {

sockaddr_in Loopback(int port) {
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_port = htons(uint16_t(port));
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return at;
}

bool Accepts(int port) {
    const auto s = socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in at = Loopback(port);
    const bool ok = connect(s, reinterpret_cast<const sockaddr*>(&at), sizeof(at)) == 0;
    CloseSocket(int32_t(s));
    return ok;
}

} // namespace

int32_t ListenLoopback(int* port, int backlog) {
#ifdef _WIN32
    [[maybe_unused]] static const int started = [] { WSADATA data; return WSAStartup(MAKEWORD(2, 2), &data); }();
#endif
    const auto s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in at = Loopback(0);
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
    CloseSocket(ListenLoopback(&port));
    return port;
}

// The test has connected already: the connection waits in the queue.
int32_t AcceptOne(int32_t listener) { return int32_t(accept(listener, nullptr, nullptr)); }

void CloseSocket(int32_t s) {
#ifdef _WIN32
    closesocket(SOCKET(s));
#else
    close(s);
#endif
}

namespace {

void Pause() { std::this_thread::sleep_for(std::chrono::milliseconds(10)); }

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

// A private folder below the platform's base whose document root any user may read
// (started as root, Apache serves as "daemon").
bool MakeServerDir(TestServer* server) {
    static std::atomic<int> serial{0};
#ifdef _WIN32
    const char* base = std::getenv("KEEL_NET_HOST_DIR");
    const long self = long(GetCurrentProcessId());
#else
    const char* base = "/tmp";
    const long self = long(getpid());
#endif
    if (!base) return false;
    server->dir = std::string(base) + "/keelnet-" + std::to_string(self) + "-" + std::to_string(++serial);
    server->root = server->dir + "/www";
    std::error_code failed, ignored;
    fs::create_directories(server->root, failed);
    for (const std::string& folder : {server->dir, server->root})
        fs::permissions(folder,
                        fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                            fs::perms::others_read | fs::perms::others_exec,
                        ignored);
    return !failed;
}

#ifdef _WIN32
// CreateProcess runs a unix program given by its unix path. A host process has no handle
// to wait on here: each server is ended by its own stop command.
long Spawn(const std::vector<std::string>& argv) {
    std::string line;
    for (const std::string& arg : argv) line += (line.empty() ? "" : " ") + arg;
    STARTUPINFOA startup{};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION process{};
    if (!CreateProcessA(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process))
        return -1;
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    return 1;
}

bool Exited(long) { return false; }

void Terminate(TestServer* server) {
    if (!server->stop.empty()) Spawn(server->stop);
    for (int i = 0; i < 500 && server->port > 0 && Accepts(server->port); ++i) Pause();
}

std::string Python() {
    const char* python = std::getenv("KEEL_NET_HOST_PYTHON");
    return python ? python : "";
}
#else
long Spawn(const std::vector<std::string>& argv) {
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    const pid_t pid = fork();
    if (pid != 0) return pid;
    const int quiet = open("/dev/null", O_RDWR);
    dup2(quiet, 0);
    dup2(quiet, 1);
    for (int fd = 3; fd < 256; ++fd) close(fd);
    execvp(args[0], args.data());
    _exit(127);
}

bool Exited(long pid) { return waitpid(pid_t(pid), nullptr, WNOHANG) != 0; }

// SIGTERM, then SIGKILL when it is still there after 5 s.
void Terminate(TestServer* server) {
    if (server->pid <= 0) return;
    kill(pid_t(server->pid), SIGTERM);
    for (int i = 0; i < 500 && !Exited(server->pid); ++i) Pause();
    if (!Exited(server->pid) && kill(pid_t(server->pid), SIGKILL) == 0) waitpid(pid_t(server->pid), nullptr, 0);
}

std::string Python() { return FindProgram({"/usr/bin/python3", "/usr/local/bin/python3"}); }
#endif

// Once the server is gone: no process, no port, and its folder removed.
void Stop(TestServer* server) {
    Terminate(server);
    server->pid = -1;
    server->port = 0;
    server->stop.clear();
    std::error_code ignored;
    if (!server->dir.empty()) fs::remove_all(server->dir, ignored);
    server->dir.clear();
}

// Waits up to 10 s for the port to accept; stops the server otherwise.
bool WaitUntilUp(TestServer* server) {
    for (int i = 0; i < 1000 && server->pid > 0 && server->port > 0 && !Exited(server->pid); ++i) {
        if (Accepts(server->port)) return true;
        Pause();
    }
    Stop(server);
    return false;
}

// Writes the configuration for a fresh port to dir/server.conf and starts argv.
bool Launch(TestServer* server, std::string (*config)(const TestServer&), const std::vector<std::string>& argv) {
    server->port = UnusedPort();
    std::ofstream(server->dir + "/server.conf") << config(*server);
    server->pid = Spawn(argv);
    return WaitUntilUp(server);
}

} // namespace

TestServer::~TestServer() { Stop(this); }

bool StartNginx(TestServer* server) {
    const std::string nginx = FindProgram({"/usr/sbin/nginx", "/usr/local/sbin/nginx", "/usr/bin/nginx"});
    if (nginx.empty() || !MakeServerDir(server)) return false;
    const std::vector<std::string> run = {nginx, "-p", server->dir, "-c", server->dir + "/server.conf",
                                          "-e", server->dir + "/error.log"};
    server->stop = run;
    server->stop.insert(server->stop.end(), {"-s", "stop"});
    return Launch(server, NginxConfig, run);
}

bool StartApache(TestServer* server) {
    const std::string apache = FindProgram({"/usr/sbin/apache2", "/usr/sbin/httpd"});
    if (apache.empty() || !MakeServerDir(server)) return false;
    const std::string conf = server->dir + "/server.conf";
    server->stop = {apache, "-f", conf, "-k", "stop"};
    return Launch(server, ApacheConfig, {apache, "-f", conf, "-X"}); // -X: one process, which SIGTERM ends
}

// The server names its port in a file; under wine it detaches itself, since its host
// process cannot be signalled from here.
bool StartFaultServer(TestServer* server, const char* scenario, int upstream) {
    const std::string python = Python();
    if (python.empty() || !MakeServerDir(server)) return false;
    server->requests = server->dir + "/requests.log";
    const std::string portfile = server->dir + "/port";
    std::vector<std::string> run = {python, KEEL_NET_FAULT_SERVER, scenario, server->requests,
                                    "--upstream", std::to_string(upstream), "--portfile", portfile};
#ifdef _WIN32
    run.push_back("--detach");
    server->stop = {python, KEEL_NET_FAULT_SERVER, "--stop", portfile};
#endif
    server->pid = Spawn(run);
    for (int i = 0; i < 1000 && server->pid > 0 && !Exited(server->pid) && !fs::exists(portfile); ++i) Pause();
    std::istringstream(ReadWholeFile(portfile)) >> server->port;
    return WaitUntilUp(server);
}

} // namespace keelnet
