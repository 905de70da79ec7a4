#include "bench_nginx.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

namespace fs = std::filesystem;

namespace {

sockaddr_in Loopback(int port) {
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_port = htons(uint16_t(port));
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return at;
}

bool Connects(int port) {
    const int s = socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in at = Loopback(port);
    const bool ok = connect(s, reinterpret_cast<const sockaddr*>(&at), sizeof(at)) == 0;
    close(s);
    return ok;
}

// A port the kernel hands out for port 0, let go again for nginx to take.
int FreePort() {
    const int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in at = Loopback(0);
    socklen_t len = sizeof(at);
    const bool ok = bind(s, reinterpret_cast<sockaddr*>(&at), sizeof(at)) == 0 &&
                    getsockname(s, reinterpret_cast<sockaddr*>(&at), &len) == 0;
    close(s);
    return ok ? ntohs(at.sin_port) : 0;
}

} // namespace

bool BenchNginx::Start() {
    const std::string nginx = KEEL_NGINX; // found by the build
    dir = "/tmp/keel-bench-nginx-" + std::to_string(getpid());
    std::error_code failed;
    fs::create_directories(dir + "/www", failed);
    port = FreePort();
    if (failed || port == 0) return false;
    std::ofstream(dir + "/nginx.conf")
        << "daemon off;\nmaster_process off;\nworker_processes 1;\npid " << dir << "/nginx.pid;\nerror_log " << dir
        << "/error.log;\nevents { worker_connections 512; }\nhttp {\n  access_log off;\n  client_body_temp_path " << dir
        << "/tmp-body;\n  proxy_temp_path " << dir << "/tmp-proxy;\n  fastcgi_temp_path " << dir
        << "/tmp-fastcgi;\n  uwsgi_temp_path " << dir << "/tmp-uwsgi;\n  scgi_temp_path " << dir
        << "/tmp-scgi;\n  keepalive_timeout 60;\n  keepalive_requests 1000000;\n  sendfile on;\n"
        << "  default_type application/octet-stream;\n  server {\n    listen 127.0.0.1:" << port << ";\n    root " << dir
        << "/www;\n  }\n}\n";
    const std::string conf = dir + "/nginx.conf", error = dir + "/error.log";
    const pid_t child = fork();
    if (child == 0) {
        const int quiet = open("/dev/null", O_RDWR);
        dup2(quiet, 0);
        dup2(quiet, 1);
        execl(nginx.c_str(), nginx.c_str(), "-p", dir.c_str(), "-c", conf.c_str(), "-e", error.c_str(), nullptr);
        _exit(127);
    }
    pid = child;
    for (int i = 0; i < 1000 && child > 0 && waitpid(child, nullptr, WNOHANG) == 0; ++i) {
        if (Connects(port)) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

bool BenchNginx::Put(const std::string& path, const std::string& bytes) const {
    return bool(std::ofstream(dir + "/www/" + path, std::ios::binary).write(bytes.data(), std::streamsize(bytes.size())));
}

// SIGTERM, then SIGKILL when it is still there after 5 s.
BenchNginx::~BenchNginx() {
    if (pid > 0) {
        kill(pid_t(pid), SIGTERM);
        for (int i = 0; i < 500 && waitpid(pid_t(pid), nullptr, WNOHANG) == 0; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        if (kill(pid_t(pid), SIGKILL) == 0) waitpid(pid_t(pid), nullptr, 0);
    }
    std::error_code ignored;
    if (!dir.empty()) fs::remove_all(dir, ignored);
}
