// A character stream buffer over one TCP socket, and the few socket calls beneath it.
//
// klNetworkBuf lets the standard text streams write a request and read a response
// through a socket: output collects in the put buffer until it is full or flushed,
// input is received a buffer at a time. A read that waits more than two seconds ends
// the stream. The buffer also carries what the HTTP connection pool needs to find and
// claim a connection (host text, port, connected flag, in-use counter).
//
// The kl::net functions are the only platform part: one definition in
// win32/klw32net.cpp (Winsock 2) and one in posix/klposixnet.cpp (BSD sockets).
#pragma once

#include <cstdint>
#include <streambuf>

namespace kl::net {

// A socket handle as 32 bits; kInvalidSocket when there is none.
using Socket = int32_t;
constexpr Socket kInvalidSocket = -1;

// Process-wide socket start-up and its undoing (Winsock's WSAStartup/WSACleanup; the
// BSD side has nothing to start). Calls nest.
bool Startup();
void Cleanup();

// Name look-up to the first IPv4 address (network byte order); false when it fails.
bool LookupHost(const char* name, uint32_t* address);
// A dotted IPv4 text to its address (network byte order); false for the all-ones result.
bool ParseDotted(const char* text, uint32_t* address);
// An IPv4 stream socket, or kInvalidSocket.
Socket OpenStream();
// Connects, waiting at most limitMs (0: as long as the system does).
bool Connect(Socket s, uint32_t address, uint16_t port, uint32_t limitMs);
// What send/recv return: the byte count, 0 when the peer closed, negative on failure.
int32_t Send(Socket s, const char* data, int32_t count);
int32_t Recv(Socket s, char* data, int32_t count);
// Waits up to ms milliseconds: 1 readable with no error, 0 time-out, -1 error.
int WaitReadable(Socket s, uint32_t ms);
// Writable right now and showing no error.
bool IsWritable(Socket s);
// Makes each later send give up after ms (0: wait as long as it takes).
void SetSendLimit(Socket s, uint32_t ms);
// Right now: writable, nothing to read (no data, no close from the peer) and no error.
bool IsQuiet(Socket s);
// Shuts both directions down and closes.
void ShutdownAndClose(Socket s);

// Name look-ups made through klNetworkBuf::Open since the process started (tests see
// that dotted addresses need none).
uint32_t HostLookups();

} // namespace kl::net

class klNetworkBuf : public std::basic_streambuf<char> {
public:
    // Adopts socket s (connected when s >= 0); both buffers hold size bytes.
    klNetworkBuf(kl::net::Socket s, uint32_t size);
    klNetworkBuf();
    ~klNetworkBuf() override;
    klNetworkBuf(const klNetworkBuf&) = delete;
    klNetworkBuf& operator=(const klNetworkBuf&) = delete;

    // host may carry ":port"; port -1 then takes the number from the text (80 without
    // one). Any other port is used as given. True once connected.
    bool Open(const char* host, int32_t port);
    // Flushes, shuts down and closes; the buffer is then not connected.
    void Close();
    // Polls without waiting; a socket that is not writable or shows an error is no
    // longer counted as connected.
    bool IsConnected();
    // Connected, with no received byte left unread and nothing (data or the peer's close)
    // waiting on the socket: only such a connection may carry another request.
    bool IsIdle();
    // Connects and reads give up once budgetMs have passed since startMs
    // (kl::platform::Milliseconds), and no send starts after it; budgetMs 0 lifts the
    // limit. Each read, and each send that moves nothing, waits kReceiveLimitMs at most.
    void SetDeadline(uint32_t startMs, uint32_t budgetMs);

    const char* Host() const { return mHost; }
    uint32_t Port() const { return mPort; }
    kl::net::Socket GetSocket() const { return mSocket; }
    uint32_t BufferSize() const { return mGetSize; }
    // The connection pool claims a buffer by moving this from 0 to 1.
    int32_t* InUseCounter() { return &mInUse; }

    // The longest a read waits for the peer before the stream ends.
    static constexpr uint32_t kReceiveLimitMs = 2000;

protected:
    int_type overflow(int_type c) override;
    int_type underflow() override;
    int sync() override;

private:
    void ResetAreas();
    void ShutdownSocket();
    bool Resolve(const char* name, uint32_t* address);
    uint32_t RemainingMs() const;

    kl::net::Socket mSocket;
    char* mGetBuffer;
    char* mPutBuffer; // mPutSize + 1 bytes: the spare one takes the byte that forced a flush
    uint32_t mGetSize;
    uint32_t mPutSize;
    bool mConnected;
    char mHost[256];
    uint32_t mReserved;
    uint32_t mPort;
    int32_t mInUse;
    uint32_t mDeadlineStart = 0;
    uint32_t mDeadlineBudget = 0; // 0: reads wait kReceiveLimitMs each, however many
};
