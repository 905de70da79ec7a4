#include "servers.h"

#include "keel/kllifetime.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#ifdef _WIN32
#include <winsock2.h>
#include <windows.h>
using socklen_t = int;
#else
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#endif

namespace fs = std::filesystem;

namespace keelnet {

// Every network test runs with keel's singletons (the connection pool among them) alive.
struct KeelRunning : testing::Environment {
    void SetUp() override { klObjectLifetimeManager::Initialize(); }
    void TearDown() override { klObjectLifetimeManager::Shutdown(); }
};
testing::Environment* const g_keel = testing::AddGlobalTestEnvironment(new KeelRunning);

bool TestServer::Put(const std::string& path, const std::string& bytes) const {
    std::error_code ignored;
    fs::create_directories(fs::path(Served(path)).parent_path(), ignored);
    return bool(std::ofstream(Served(path), std::ios::binary).write(bytes.data(), std::streamsize(bytes.size())));
}

bool TestServer::Start() {
    dir = KEEL_NET_DIR "/server-" + std::to_string(std::chrono::steady_clock::now().time_since_epoch().count());
    std::error_code failed;
    if (!fs::create_directories(dir, failed)) return false;
    std::string line = std::string(KEEL_NET_PYTHON) + " " + KEEL_NET_SERVER + " " + dir;
#ifdef _WIN32
    STARTUPINFOA startup{};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION process{};
    if (!CreateProcessA(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process))
        return false;
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
#else
    if (std::system((line + " &").c_str()) != 0) return false;
#endif
    for (int i = 0; i < 1000 && port <= 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        std::istringstream(keeltest::ReadFile(dir + "/port")) >> port;
    }
    return port > 0;
}

TestServer::~TestServer() {
    std::error_code ignored;
    if (!dir.empty()) fs::remove_all(dir, ignored);
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

Listener::Listener(int backlog) {
    [[maybe_unused]] static const bool started = kl::net::Startup();
    socket = int32_t(::socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(at);
    if (bind(socket, reinterpret_cast<sockaddr*>(&at), sizeof(at)) == 0 && listen(socket, backlog) == 0 &&
        getsockname(socket, reinterpret_cast<sockaddr*>(&at), &len) == 0)
        port = ntohs(at.sin_port);
}

Listener::~Listener() { kl::net::ShutdownAndClose(socket); }

// The connection waits in the queue once Open has returned.
int32_t Listener::Connect(klNetworkBuf* client) const {
    return port > 0 && client->Open("127.0.0.1", port) ? int32_t(accept(socket, nullptr, nullptr)) : -1;
}

} // namespace keelnet
