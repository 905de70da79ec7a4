// klNetworkBuf against a loopback socket that the test itself listens on.
#include "keel/kllifetime.h"
#include "keel/klnetworkbuf.h"
#include "servers.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>

namespace {

struct KeelRunning : testing::Environment {
    void SetUp() override { klObjectLifetimeManager::Initialize(); }
    void TearDown() override { klObjectLifetimeManager::Shutdown(); }
};
testing::Environment* const g_keel = testing::AddGlobalTestEnvironment(new KeelRunning);

// A listening socket for one test, closed at its end; Connect opens client to it and
// returns the accepted end (-1 on failure).
struct Listener {
    int port = 0;
    int32_t socket = keelnet::ListenLoopback(&port);
    ~Listener() { keelnet::CloseSocket(socket); }
    int32_t Connect(klNetworkBuf* client) const {
        return socket >= 0 && client->Open("127.0.0.1", port) ? keelnet::AcceptOne(socket) : -1;
    }
};

std::string ReadAll(klNetworkBuf* in) {
    std::string text;
    for (int c = in->sbumpc(); c != EOF; c = in->sbumpc()) text += char(c);
    return text;
}

TEST(klNetworkBuf, PortRulesAndLookups) {
    Listener server;
    ASSERT_GE(server.socket, 0);
    const std::string port = std::to_string(server.port);
    klNetworkBuf buf;
    EXPECT_FALSE(buf.IsConnected());

    const uint32_t lookups = kl::net::HostLookups();
    EXPECT_TRUE(buf.Open(("127.0.0.1:" + port).c_str(), -1)); // the text's port
    EXPECT_EQ(buf.Port(), uint32_t(server.port));
    EXPECT_STREQ(buf.Host(), ("127.0.0.1:" + port).c_str());
    EXPECT_TRUE(buf.IsConnected());
    EXPECT_EQ(kl::net::HostLookups(), lookups); // a dotted address needs no lookup
    EXPECT_TRUE(buf.Open("localhost", server.port));
    EXPECT_EQ(kl::net::HostLookups(), lookups + 1);

    EXPECT_TRUE(buf.Open("127.0.0.1:8080", server.port)); // the argument wins over the text
    EXPECT_EQ(buf.Port(), uint32_t(server.port));

    EXPECT_FALSE(buf.Open("127.0.0.1:", -1)); // a bare colon is port 0
    EXPECT_EQ(buf.Port(), 0u);
    EXPECT_FALSE(buf.IsConnected());
    buf.Open("127.0.0.1:-1", -1);
    EXPECT_EQ(buf.Port(), 80u);
    buf.Open("127.0.0.1", -1);
    EXPECT_EQ(buf.Port(), 80u);

    // The host text keeps 255 characters; a dotted text that is no address fails at once.
    EXPECT_FALSE(buf.Open(std::string(300, '1').c_str(), server.port));
    EXPECT_EQ(std::string(buf.Host()), std::string(255, '1'));
}

// Empty flushes send nothing; data through 256-byte buffers both ways crosses many
// refills and flushes intact.
TEST(klNetworkBuf, TransfersThroughSmallBuffers) {
    Listener server;
    klNetworkBuf client;
    klNetworkBuf peer(server.Connect(&client), 256);
    ASSERT_GE(peer.GetSocket(), 0);
    EXPECT_EQ(client.pubsync(), 0);
    EXPECT_EQ(client.pubsync(), 0);

    std::string sent;
    for (int i = 0; i < 5000; ++i) sent += std::to_string(i) + ",";
    EXPECT_EQ(client.sputn(sent.data(), std::streamsize(sent.size())), std::streamsize(sent.size()));
    EXPECT_EQ(client.pubsync(), 0);
    client.Close();
    EXPECT_FALSE(client.IsConnected());
    EXPECT_EQ(ReadAll(&peer), sent); // ends at the peer's close, not after 2 s
    EXPECT_FALSE(peer.IsConnected());
}

TEST(klNetworkBuf, SilentPeerEndsTheStreamAfterTwoSeconds) {
    Listener server;
    klNetworkBuf client;
    const int32_t accepted = server.Connect(&client);
    ASSERT_GE(accepted, 0);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(client.sgetc(), EOF);
    const double waited = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_GE(waited, 1.9);
    EXPECT_LT(waited, 4.0);
    EXPECT_FALSE(client.IsConnected());
    keelnet::CloseSocket(accepted);
}

TEST(klNetworkBuf, SendToAClosedPeerFails) {
    Listener server;
    klNetworkBuf client;
    const int32_t accepted = server.Connect(&client);
    ASSERT_GE(accepted, 0);
    keelnet::CloseSocket(accepted);
    const std::string block(64 * 1024, 'x');
    int sync = 0;
    for (int i = 0; i < 200 && sync == 0; ++i) {
        client.sputn(block.data(), std::streamsize(block.size()));
        sync = client.pubsync();
    }
    EXPECT_EQ(sync, -1);
    EXPECT_FALSE(client.IsConnected());
}

} // namespace
