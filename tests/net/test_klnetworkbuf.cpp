// klNetworkBuf against a loopback socket that the test itself listens on.
#include "keel/klnetworkbuf.h"
#include "servers.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>

namespace {

// Which port Open takes from the host text and its argument, and when it looks a name up.
TEST(klNetworkBuf, PortRulesAndLookups) {
    keelnet::Listener server;
    ASSERT_GT(server.port, 0);
    const std::string port = std::to_string(server.port);
    struct Row {
        std::string host;
        int32_t port;
        bool connects;
        uint32_t portAfter, lookups;
    } const rows[] = {
        {"127.0.0.1:" + port, -1, true, uint32_t(server.port), 0}, // the text's port; a dotted address needs no lookup
        {"localhost", server.port, true, uint32_t(server.port), 1},
        {"127.0.0.1:8080", server.port, true, uint32_t(server.port), 0}, // the argument wins over the text
        {"127.0.0.1:", -1, false, 0, 0},                                 // a bare colon is port 0
        {"127.0.0.1:-1", -1, false, 80, 0},
        {"127.0.0.1", -1, false, 80, 0},
        {std::string(300, '1'), server.port, false, uint32_t(server.port), 0}, // a dotted text that is no address
        {"127.0.0.2", server.port, false, uint32_t(server.port), 0}, // listening on 127.0.0.1 alone
    };
    klNetworkBuf buf; // each Open replaces the connection before it
    for (const Row& row : rows) {
        SCOPED_TRACE(row.host);
        const uint32_t lookups = kl::net::HostLookups();
        const bool connected = buf.Open(row.host.c_str(), row.port);
        EXPECT_TRUE(connected == row.connects || row.portAfter == 80); // port 80 may have a server
        EXPECT_EQ(buf.IsConnected(), connected);
        EXPECT_EQ(buf.Port(), row.portAfter);
        EXPECT_EQ(kl::net::HostLookups() - lookups, row.lookups);
        EXPECT_EQ(std::string(buf.Host()), row.host.substr(0, 255)); // the host text keeps 255 characters
    }
}

// Empty flushes send nothing; data through 256-byte buffers both ways crosses many
// refills and flushes intact, and the reader ends at the writer's close. A peer that says
// nothing ends the stream after two seconds; one that went away fails the send.
TEST(klNetworkBuf, TalkingSilentAndClosedPeers) {
    keelnet::Listener server;
    klNetworkBuf client, silent, other;
    klNetworkBuf peer(server.Connect(&client), 256);
    ASSERT_GE(peer.GetSocket(), 0);
    EXPECT_EQ(client.pubsync(), 0);
    EXPECT_EQ(client.pubsync(), 0);
    std::string sent, received;
    for (int i = 0; i < 5000; ++i) sent += std::to_string(i) + ",";
    EXPECT_EQ(client.sputn(sent.data(), std::streamsize(sent.size())), std::streamsize(sent.size()));
    EXPECT_EQ(client.pubsync(), 0);
    client.Close();
    EXPECT_FALSE(client.IsConnected());
    auto start = std::chrono::steady_clock::now();
    for (int c = peer.sbumpc(); c != EOF; c = peer.sbumpc()) received += char(c);
    EXPECT_EQ(received, sent);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1500)); // the close ended it
    EXPECT_FALSE(peer.IsConnected());

    const int32_t accepted = server.Connect(&silent);
    ASSERT_GE(accepted, 0);
    start = std::chrono::steady_clock::now();
    EXPECT_EQ(silent.sgetc(), EOF);
    const double waited = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_GE(waited, 1.9);
    EXPECT_LT(waited, 4.0);
    EXPECT_FALSE(silent.IsConnected());
    kl::net::ShutdownAndClose(accepted);

    kl::net::ShutdownAndClose(server.Connect(&other));
    const std::string block(64 * 1024, 'x');
    int sync = 0;
    for (int i = 0; i < 200 && sync == 0; ++i) {
        other.sputn(block.data(), std::streamsize(block.size()));
        sync = other.pubsync();
    }
    EXPECT_EQ(sync, -1);
    EXPECT_FALSE(other.IsConnected());
}

} // namespace
