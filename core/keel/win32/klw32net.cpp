// Winsock 2 behind klnetworkbuf.h.
#include "keel/klnetworkbuf.h"

#include <winsock2.h>

namespace kl::net {

bool Startup() {
    WSADATA data;
    return WSAStartup(MAKEWORD(2, 2), &data) == 0;
}
void Cleanup() { WSACleanup(); }

// Winsock keeps gethostbyname's result per thread, so concurrent requests are safe.
bool LookupHost(const char* name, uint32_t* address) {
    const hostent* host = gethostbyname(name);
    if (!host || host->h_addrtype != AF_INET || !host->h_addr_list[0]) return false;
    *address = *reinterpret_cast<const u_long*>(host->h_addr_list[0]);
    return true;
}

bool ParseDotted(const char* text, uint32_t* address) {
    *address = inet_addr(text);
    return *address != INADDR_NONE;
}

Socket OpenStream() {
    const SOCKET s = socket(AF_INET, SOCK_STREAM, 0);
    return s == INVALID_SOCKET ? kInvalidSocket : Socket(s);
}

namespace {
// Waits up to ms for s to become readable (or writable): 1 ready with no error, 0 time-out,
// -1 error.
int Wait(Socket s, bool forWrite, uint32_t ms) {
    fd_set ready, failed;
    FD_ZERO(&ready);
    FD_ZERO(&failed);
    FD_SET(SOCKET(s), &ready);
    FD_SET(SOCKET(s), &failed);
    timeval limit{long(ms / 1000), long(ms % 1000) * 1000};
    const int rc = forWrite ? select(0, nullptr, &ready, &failed, &limit) : select(0, &ready, nullptr, &failed, &limit);
    if (rc == 0) return 0;
    if (rc < 0 || FD_ISSET(SOCKET(s), &failed)) return -1;
    return FD_ISSET(SOCKET(s), &ready) ? 1 : -1;
}
} // namespace

bool Connect(Socket s, uint32_t address, uint16_t port, uint32_t limitMs) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    to.sin_addr.s_addr = address;
    // With a limit the connect runs without blocking and is waited for, then the socket
    // blocks again as the stream buffer expects.
    u_long nonBlocking = limitMs ? 1 : 0;
    if (limitMs) ioctlsocket(SOCKET(s), FIONBIO, &nonBlocking);
    int rc = connect(SOCKET(s), reinterpret_cast<const sockaddr*>(&to), sizeof(to));
    if (rc != 0 && limitMs && WSAGetLastError() == WSAEWOULDBLOCK) rc = Wait(s, true, limitMs) == 1 ? 0 : -1;
    nonBlocking = 0;
    if (limitMs) ioctlsocket(SOCKET(s), FIONBIO, &nonBlocking);
    if (rc != 0) return false;
    // Requests are written whole and flushed once: no reason to hold the last segment back.
    const BOOL one = TRUE;
    setsockopt(SOCKET(s), IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&one), sizeof(one));
    return true;
}

int32_t Send(Socket s, const char* data, int32_t count) { return send(SOCKET(s), data, count, 0); }
int32_t Recv(Socket s, char* data, int32_t count) { return recv(SOCKET(s), data, count, 0); }

int WaitReadable(Socket s, uint32_t ms) { return Wait(s, false, ms); }

bool IsWritable(Socket s) { return Wait(s, true, 0) == 1; }

bool IsQuiet(Socket s) { return Wait(s, true, 0) == 1 && Wait(s, false, 0) == 0; }

void SetSendLimit(Socket s, uint32_t ms) {
    const DWORD limit = ms;
    setsockopt(SOCKET(s), SOL_SOCKET, SO_SNDTIMEO, reinterpret_cast<const char*>(&limit), sizeof(limit));
}

void ShutdownAndClose(Socket s) {
    shutdown(SOCKET(s), SD_BOTH);
    closesocket(SOCKET(s));
}

} // namespace kl::net
