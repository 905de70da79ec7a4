// BSD sockets behind klnetworkbuf.h.
#include "keel/klnetworkbuf.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace kl::net {

bool Startup() { return true; }
void Cleanup() {}

// getaddrinfo rather than gethostbyname: the latter's static result would be shared by
// requests running on several threads.
bool LookupHost(const char* name, uint32_t* address) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(name, nullptr, &hints, &found) != 0 || !found) return false;
    *address = reinterpret_cast<const sockaddr_in*>(found->ai_addr)->sin_addr.s_addr;
    freeaddrinfo(found);
    return true;
}

bool ParseDotted(const char* text, uint32_t* address) {
    *address = inet_addr(text);
    return *address != INADDR_NONE;
}

Socket OpenStream() {
    const int s = socket(AF_INET, SOCK_STREAM, 0);
    return s < 0 ? kInvalidSocket : Socket(s);
}

bool Connect(Socket s, uint32_t address, uint16_t port, uint32_t limitMs) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    to.sin_addr.s_addr = address;
    // With a limit the connect runs without blocking and is waited for, then the socket
    // blocks again as the stream buffer expects.
    const int flags = fcntl(s, F_GETFL);
    if (limitMs) fcntl(s, F_SETFL, flags | O_NONBLOCK);
    int rc = connect(s, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
    if (rc != 0 && (errno == EINPROGRESS || errno == EINTR)) {
        pollfd p{s, POLLOUT, 0};
        int error = 0;
        socklen_t length = sizeof(error);
        rc = poll(&p, 1, limitMs ? int(limitMs) : -1) == 1 &&
                     getsockopt(s, SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0
                 ? 0
                 : -1;
    }
    if (limitMs) fcntl(s, F_SETFL, flags);
    if (rc != 0) return false;
    // Requests are written whole and flushed once: no reason to hold the last segment back.
    const int one = 1;
    setsockopt(s, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    return true;
}

// MSG_NOSIGNAL: a peer that went away is a failed send, not a SIGPIPE.
int32_t Send(Socket s, const char* data, int32_t count) {
    ssize_t rc;
    do {
        rc = send(s, data, size_t(count), MSG_NOSIGNAL);
    } while (rc < 0 && errno == EINTR);
    return int32_t(rc);
}

int32_t Recv(Socket s, char* data, int32_t count) {
    ssize_t rc;
    do {
        rc = recv(s, data, size_t(count), 0);
    } while (rc < 0 && errno == EINTR);
    return int32_t(rc);
}

// poll rather than select: descriptors past FD_SETSIZE are legal here.
int WaitReadable(Socket s, uint32_t ms) {
    pollfd p{s, POLLIN, 0};
    const int rc = poll(&p, 1, int(ms));
    if (rc == 0) return 0;
    if (rc < 0 || (p.revents & (POLLERR | POLLNVAL))) return -1;
    return (p.revents & (POLLIN | POLLHUP)) ? 1 : -1;
}

void SetSendLimit(Socket s, uint32_t ms) {
    timeval limit{time_t(ms / 1000), suseconds_t(ms % 1000) * 1000};
    setsockopt(s, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
}

bool IsQuiet(Socket s) {
    pollfd p{s, POLLIN | POLLOUT, 0};
    return poll(&p, 1, 0) == 1 && p.revents == POLLOUT;
}

bool IsWritable(Socket s) {
    pollfd p{s, POLLOUT, 0};
    return poll(&p, 1, 0) == 1 && (p.revents & POLLOUT) && !(p.revents & (POLLERR | POLLHUP | POLLNVAL));
}

void ShutdownAndClose(Socket s) {
    shutdown(s, SHUT_RDWR);
    close(s);
}

} // namespace kl::net
