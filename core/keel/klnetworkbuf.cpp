#include "keel/klnetworkbuf.h"

#include "keel/klassert.h"
#include "keel/kllockfree.h"
#include "keel/klplatform.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace {
constexpr size_t S32_MAX = INT32_MAX;
uint32_t g_hostLookups = 0;

// The port of a host text with its ":port" part already cut off at colon (null: none).
uint32_t PortFor(const char* colon, int32_t port) {
    if (port != -1) return uint32_t(port);
    if (!colon) return 80;
    const long fromText = std::atol(colon + 1);
    return fromText == -1 ? 80u : uint32_t(fromText);
}
} // namespace

uint32_t kl::net::HostLookups() { return klAtomicLoad(&g_hostLookups); }

// "No socket" is -1 rather than 0: descriptor 0 is a real one on the BSD side.
klNetworkBuf::klNetworkBuf(kl::net::Socket s, uint32_t size)
    : mSocket(s), mGetBuffer(new char[size]), mPutBuffer(new char[size + 1]), mGetSize(size),
      mPutSize(size), mConnected(s >= 0), mHost{}, mReserved(0), mPort(0), mInUse(0) {
    ResetAreas();
}

klNetworkBuf::klNetworkBuf() : klNetworkBuf(kl::net::kInvalidSocket, 256) { mConnected = false; }

klNetworkBuf::~klNetworkBuf() {
    overflow(traits_type::eof());
    ShutdownSocket();
    delete[] mGetBuffer;
    delete[] mPutBuffer;
    mGetSize = mPutSize = 0;
    mConnected = false;
}

void klNetworkBuf::ResetAreas() {
    setg(mGetBuffer, mGetBuffer, mGetBuffer);
    setp(mPutBuffer, mPutBuffer + mPutSize);
}

void klNetworkBuf::ShutdownSocket() {
    if (mSocket != kl::net::kInvalidSocket) kl::net::ShutdownAndClose(mSocket);
    mSocket = kl::net::kInvalidSocket;
    mConnected = false;
}

void klNetworkBuf::Close() {
    sync();
    ShutdownSocket();
}

bool klNetworkBuf::Resolve(const char* name, uint32_t* address) {
    if (std::isdigit(static_cast<unsigned char>(name[0]))) return kl::net::ParseDotted(name, address);
    klXchgAdd(&g_hostLookups, 1u);
    return kl::net::LookupHost(name, address);
}

bool klNetworkBuf::Open(const char* host, int32_t port) {
    Close();
    if (!klAssert(host != NULL)) host = "";
    std::strncpy(mHost, host, sizeof(mHost) - 1);
    mHost[sizeof(mHost) - 1] = '\0';
    mReserved = 0;

    char name[256];
    std::memcpy(name, mHost, sizeof(name));
    char* colon = std::strchr(name, ':');
    if (colon) *colon = '\0';
    mPort = PortFor(colon, port);

    uint32_t address = 0;
    if (!Resolve(name, &address)) return false;
    mSocket = kl::net::OpenStream();
    if (mSocket == kl::net::kInvalidSocket) return false;
    // A socket that could not connect stays until the next Close, Open or destruction.
    const uint32_t left = RemainingMs();
    if (left == 0 || !kl::net::Connect(mSocket, address, uint16_t(mPort), left == UINT32_MAX ? 0 : left)) return false;
    // A peer that takes nothing for as long as a read may wait is gone too; set once here,
    // so that no send outlasts the deadline by more than that.
    kl::net::SetSendLimit(mSocket, std::min(left, kReceiveLimitMs));
    mConnected = true;
    ResetAreas();
    return true;
}

bool klNetworkBuf::IsConnected() {
    if (mSocket != kl::net::kInvalidSocket && kl::net::IsWritable(mSocket)) return mConnected;
    mConnected = false;
    return false;
}

bool klNetworkBuf::IsIdle() {
    return mConnected && mSocket != kl::net::kInvalidSocket && gptr() == egptr() && kl::net::IsQuiet(mSocket);
}

void klNetworkBuf::SetDeadline(uint32_t startMs, uint32_t budgetMs) {
    mDeadlineStart = startMs;
    mDeadlineBudget = budgetMs;
}

// Milliseconds left before the deadline: UINT32_MAX without one, 0 once it has passed.
uint32_t klNetworkBuf::RemainingMs() const {
    if (mDeadlineBudget == 0) return UINT32_MAX;
    const uint32_t elapsed = kl::platform::Milliseconds() - mDeadlineStart; // wraps safely
    return elapsed >= mDeadlineBudget ? 0 : mDeadlineBudget - elapsed;
}

klNetworkBuf::int_type klNetworkBuf::overflow(int_type c) {
    klAssert(pbase());
    const bool eof = traits_type::eq_int_type(c, traits_type::eof());
    if (pptr() == pbase() && eof) return traits_type::not_eof(c);

    size_t count = size_t(pptr() - pbase());
    if (!eof) pbase()[count++] = traits_type::to_char_type(c); // the spare byte
    const char* next = pbase();
    if (RemainingMs() == 0) {
        mConnected = false;
        return traits_type::eof();
    }
    while (count > 0) {
        klAssert(count <= (size_t)S32_MAX);
        const int32_t sent = kl::net::Send(mSocket, next, int32_t(count));
        if (sent < 1) {
            mConnected = false;
            return traits_type::eof();
        }
        next += sent;
        count -= size_t(sent);
    }
    setp(mPutBuffer, mPutBuffer + mPutSize);
    return traits_type::not_eof(c);
}

klNetworkBuf::int_type klNetworkBuf::underflow() {
    klAssert(mGetSize <= (size_t)S32_MAX);
    if (gptr() < egptr()) return traits_type::to_int_type(*gptr());
    const uint32_t wait = std::min(RemainingMs(), kReceiveLimitMs);
    if (wait > 0 && kl::net::WaitReadable(mSocket, wait) == 1) {
        const int32_t got = kl::net::Recv(mSocket, mGetBuffer, int32_t(mGetSize));
        if (got > 0) {
            setg(mGetBuffer, mGetBuffer, mGetBuffer + got);
            return traits_type::to_int_type(*gptr());
        }
    }
    // Silence, an error or the peer's close all end the stream; the client reconnects.
    mConnected = false;
    return traits_type::eof();
}

int klNetworkBuf::sync() {
    return traits_type::eq_int_type(overflow(traits_type::eof()), traits_type::eof()) ? -1 : 0;
}
