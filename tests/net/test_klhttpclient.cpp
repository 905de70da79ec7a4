// klHTTPClient's parsers, and its requests against tests/net/server.py.
#include "keel/klconsole.h"
#include "keel/klhttpclient.h"
#include "keel/klnetworkbuf.h"
#include "keel/klplatform.h"
#include "keel/klsystem.h"
#include "servers.h"
#include "../keel/keel_test.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <sstream>
#include <thread>

namespace {

// A response collected in a klString.
struct Sink : klStringStream {
    Sink() : klStringStream(&text) {}
    std::string data() const { return std::string(text.Const(), text.Size()); }
    void Reset() {
        text.Clear(false);
        Seek(klSeekStart, 0);
    }
    klString text;
};

using keelnet::Count;
using keelnet::Pattern;

TEST(klHTTPClient, SplitsURLs) {
    klHTTPClient client;
    EXPECT_TRUE(client.SetURL("http://Example.com:8080/a/b?c=d"));
    EXPECT_EQ(std::string(client.Host()) + ":" + std::to_string(client.Port()) + client.Path(), "Example.com:8080/a/b?c=d");
    EXPECT_TRUE(client.SetURL("HTTP://host"));
    EXPECT_EQ(std::to_string(client.Port()) + client.Path(), "80/");
    EXPECT_TRUE(client.SetURL("host/x"));
    EXPECT_STREQ(client.GetURL(), "host/x");
    for (const char* bad : {"https://host/", "ftp://h/x", "", "http://", "http:///x", "h:0/", "h:65536/",
                            "h:12a/", "h:/", "a b/", "h/a b", "h/x\r\nX: y"})
        EXPECT_FALSE(client.SetURL(bad)) << bad;
    EXPECT_STREQ(client.GetURL(), "host/x"); // refused texts change nothing
    EXPECT_FALSE(client.SetURL(("h/" + std::string(1022, 'p')).c_str()));
}

TEST(klHTTPClient, ParsesTheThreeDateForms) {
    for (const char* form : {"Sun, 06 Nov 1994 08:49:37 GMT", "Sunday, 06-Nov-94 08:49:37 GMT", "Sun Nov  6 08:49:37 1994"})
        EXPECT_EQ(klParseHTTPDate(form), 784111777) << form;
    EXPECT_EQ(klParseHTTPDate("Thu, 29 Feb 2024 23:59:59 GMT"), 1709251199);
    for (const char* bad : {"", "yesterday", "Sun, 06 Foo 1994 08:49:37 GMT", "Sun, 32 Nov 1994 08:49:37 GMT",
                            "Sun, 06 Nov 1994 25:49:37 GMT"})
        EXPECT_EQ(klParseHTTPDate(bad), 0) << bad;
}

TEST(klHTTPClient, ResolvesLocationsLikeABrowser) {
    const std::pair<const char*, const char*> cases[] = {
        {"g", "/a/b/g"}, {"./g", "/a/b/g"}, {"g/", "/a/b/g/"}, {"/g", "/g"}, {"?y", "/a/b/c?y"},
        {"g?y/./x", "/a/b/g?y/./x"}, {"#s", "/a/b/c?q"}, {"g#s", "/a/b/g"}, {"", "/a/b/c?q"}, {".", "/a/b/"},
        {"..", "/a/"}, {"../g", "/a/g"}, {"../..", "/"}, {"../../../g", "/g"}, {"/./g", "/g"},
        {"/../g", "/g"}, {"g.", "/a/b/g."}, {"..g", "/a/b/..g"}, {"./../g", "/a/g"}, {"g/./h", "/a/b/g/h"},
        {"g/../h", "/a/b/h"}, {"//other:81/x", "<>http://other:81/x"}, {"HTTP://o/x#f", "<>HTTP://o/x"},
        {"https://o/", nullptr}, {"mailto:a@b", nullptr}};
    for (const auto& [location, want] : cases) {
        char out[klHTTPClient::kTextSize];
        const bool ok = klResolveHTTPLocation("h", 8080, "/a/b/c?q", location, out, sizeof(out));
        EXPECT_EQ(ok, want != nullptr) << location;
        if (!ok || !want) continue;
        const std::string expected = std::strncmp(want, "<>", 2) == 0 ? want + 2 : std::string("http://h:8080") + want;
        EXPECT_EQ(std::string(out), expected) << location;
    }
    char tiny[16];
    EXPECT_FALSE(klResolveHTTPLocation("h", 80, "/", "a-long-name", tiny, sizeof(tiny)));
}

TEST(klHTTPClient, ReadsResponseHeads) {
    std::stringbuf in("HTTP/1.1 301 Moved\r\nX-Long: " + std::string(5000, 'a') +
                      "\r\nContent-Length: 12\r\nLast-Modified: Sun, 06 Nov 1994 08:49:37 GMT and more\r\n"
                      "Date: Sun, 06 Nov 1994 08:49:38 GMT\r\nLocation: /next\r\n\r\nbody");
    klHTTPResponseHead head;
    ASSERT_TRUE(klReadHTTPResponseHead(&in, &head));
    EXPECT_EQ(head.status, 301);
    EXPECT_EQ(head.contentLength, 12);
    EXPECT_STREQ(head.lastModified, "Sun, 06 Nov 1994 08:49:37 GMT"); // 29 characters kept
    EXPECT_EQ(head.date, 784111778);
    EXPECT_TRUE(head.hasLocation);
    EXPECT_STREQ(head.location, "/next");
    EXPECT_EQ(in.sgetc(), 'b'); // stops right after the empty line

    std::stringbuf cut("HTTP/1.0 301 X\nLocation: " + std::string(3000, 'x') + "\n\n");
    ASSERT_TRUE(klReadHTTPResponseHead(&cut, &(head = {})));
    EXPECT_TRUE(head.locationCut);
    EXPECT_EQ(std::strlen(head.location), 1013u);

    std::stringbuf other("HTTP/1.0 200 OK\nLocation: /x\nContent-Length: -5\n"); // no end of head
    EXPECT_FALSE(klReadHTTPResponseHead(&other, &(head = {})));
    EXPECT_FALSE(head.hasLocation); // only read while the status is 301
    EXPECT_EQ(head.contentLength, 0);
}

// The server's files: data.bin and chain.txt.
class klHTTPClientServed : public testing::Test {
protected:
    void SetUp() override {
        if (!server.Start()) GTEST_SKIP() << "python3 is not installed or the server did not start";
        ASSERT_TRUE(server.Put("/data.bin", body));
        ASSERT_TRUE(server.Put("/chain.txt", "end of chain"));
    }
    int32_t Get(const char* path, const char* method = "GET", int32_t redirects = 5, int64_t first = 0, int64_t last = -1) {
        out.Reset();
        EXPECT_TRUE(client.SetURL(server.Url(path).c_str()));
        return client.Request(method, nullptr, &out, redirects, first, last);
    }
    keelnet::TestServer server;
    klHTTPClient client;
    Sink out;
    const std::string body = Pattern(100000);
};

TEST_F(klHTTPClientServed, FollowsOnly301ToTheLimitAndServesFilesOnOneConnection) {
    EXPECT_EQ(Get("/chain/0", "GET", 3), 301);
    EXPECT_EQ(Count(server.Log(), "GET /chain/"), 4u); // the limit plus one
    EXPECT_EQ(std::string(client.GetURL()), server.Url("/chain/4"));
    EXPECT_EQ(Get("/chain/0", "GET", 11), 200);
    EXPECT_EQ(out.data(), "end of chain");
    EXPECT_EQ(std::string(client.GetURL()), server.Url("/chain.txt"));
    EXPECT_EQ(Get("/found"), 302);
    EXPECT_EQ(std::string(client.GetURL()), server.Url("/found"));
    EXPECT_EQ(Count(server.Log(), "GET /chain.txt"), 1u);

    // GET, HEAD, ranges, a 404 and a PUT, all on the same kept-alive connection.
    EXPECT_EQ(Get("/data.bin"), 200);
    EXPECT_TRUE(out.data() == body);
    EXPECT_EQ(Get("/data.bin", "HEAD"), 200);
    EXPECT_EQ(client.ContentLength(), 100000);
    EXPECT_EQ(out.data(), "");
    EXPECT_EQ(Get("/data.bin", "GET", 5, 10, 19), 206);
    EXPECT_EQ(out.data(), body.substr(10, 10));
    EXPECT_EQ(Get("/data.bin", "GET", 5, 99990), 206); // open range
    EXPECT_EQ(out.data(), body.substr(99990));
    EXPECT_EQ(Get("/missing"), 404);
    EXPECT_EQ(Get("/old"), 200);
    EXPECT_EQ(std::string(client.GetURL()), server.Url("/data.bin"));

    std::string bytes = Pattern(70000, 1);
    klBufferStream upload(bytes.data(), uint32_t(bytes.size()));
    upload.Seek(klSeekStart, 123); // measured from its end, sent from its start
    ASSERT_TRUE(client.SetURL(server.Url("/up/file.bin").c_str()));
    EXPECT_EQ(client.Request("PUT", &upload, &out), 201);
    EXPECT_EQ(keeltest::ReadFile(server.Served("/up/file.bin")), bytes);
    EXPECT_EQ(Count(server.Log(), "CONNECT\n"), 1u);
}

TEST_F(klHTTPClientServed, ConcurrentClientsShareThePool) {
    constexpr int kThreads = 6, kRequests = 20;
    std::atomic<int> good{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&] {
            klHTTPClient mine;
            mine.SetURL(server.Url("/data.bin").c_str());
            for (int i = 0; i < kRequests; ++i) {
                Sink sink;
                if (mine.Request("GET", nullptr, &sink, 5, i, i + 99) == 206 && sink.data() == body.substr(i, 100))
                    ++good;
            }
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(good.load(), kThreads * kRequests);
    EXPECT_LE(Count(server.Log(), "CONNECT\n"), size_t(kThreads)); // connections are reused, never shared
}

// The request head byte for byte in each framing (the console variable decides when the
// client leaves it to the process), and the arguments and header texts it refuses.
TEST_F(klHTTPClientServed, WritesTheRequestAsDocumented) {
    klHTTPClient fresh;
    EXPECT_EQ(fresh.Request("GET", nullptr, &out), 400); // no URL yet: nothing sent
    keeltest::CaptureAsserts asserts;
    EXPECT_EQ(Get("/basic/f", "GET /x HTTP/1.0\n"), 400);
    EXPECT_EQ(client.Failure(), klHTTPFailure::Refused);
    EXPECT_EQ(client.Request("GET", nullptr, nullptr), 400);
    client.Request("GET", nullptr, &out, -1);
    EXPECT_EQ(asserts.Exprs(), (std::vector<std::string>{"response != NULL", "maxredirects >= 0"}));
    EXPECT_EQ(asserts.Reports()[0].file, "core/keel/klhttpclient.cpp");
    EXPECT_TRUE(client.SetContentType("text/plain; charset=utf-8")); // spaces and tabs stay allowed
    EXPECT_TRUE(client.SetCookie("id=42"));
    // Line breaks would forge header lines: refused, the old values stay.
    EXPECT_FALSE(client.SetCookie("a=1\nX-Injected: yes"));
    EXPECT_FALSE(client.SetContentType("text/plain\r\nX-Injected: yes"));
    const std::string agent = std::string("User-Agent: klHTTPClient/1.0 (") + klOperatingSystemDescription().Const() + ")";
    const std::pair<klHTTPFraming, std::string> rows[] = {
        {klHTTPFraming::Legacy, "GET /basic/f HTTP/1.0\nAccept: */*\nAccept-Language: en-us\n" + agent +
                                    "\nHost: 127.0.0.1\nConnection: Keep-Alive\nCookie=id=42\n\n"},
        {klHTTPFraming::Configured, "GET /basic/f HTTP/1.0\r\nAccept: */*\r\nAccept-Language: en-us\r\n" + agent +
                                        "\r\nHost: 127.0.0.1:" + std::to_string(server.port) +
                                        "\r\nConnection: Keep-Alive\r\nCookie: id=42\r\n\r\n"},
    };
    klSetCvar("http_standard_framing", "1");
    for (const auto& [framing, request] : rows) {
        client.SetFraming(framing);
        EXPECT_EQ(Get("/basic/f"), 200);
        EXPECT_EQ(out.data(), "hello");
        EXPECT_EQ(client.LastModified(), 784111777);
        EXPECT_EQ(client.Date(), 784111777);
        const std::string log = server.Log();
        EXPECT_EQ(log.substr(log.size() - std::min(log.size(), request.size())), request);
    }
    klSetCvar("http_standard_framing", "0");
}

// One request per row, each beside a fresh server.py: a path below one of its faults, or
// "//host/" where no server answers. On Linux a listener with backlog 0 that accepts
// nothing leaves further connects hanging once the fillers wait in its queue; one with
// room that never reads leaves an upload hanging.
TEST(klHTTPClientFaults, EachFaultEndsAsDocumented) {
    const keelnet::Listener full(0), deaf;
    ASSERT_GT(full.port, 0);
    ASSERT_GT(deaf.port, 0);
#ifndef _WIN32
    klNetworkBuf fillers[3];
    for (klNetworkBuf& filler : fillers) {
        filler.SetDeadline(kl::platform::Milliseconds(), 300);
        filler.Open("127.0.0.1", full.port);
    }
#endif
    const std::string ifRange = "\nIf-Range: Sun, 06 Nov 1994 08:49:37 GMT\n\n", loopback = "//127.0.0.1:";
    const std::string noConnect = "Error: Could not connect to host at ";
    constexpr klHTTPFailure None = klHTTPFailure::None, Incomplete = klHTTPFailure::Incomplete;
    constexpr klHTTPFailure Connect = klHTTPFailure::Connect;
    struct Row {
        std::string request; // method and path
        int64_t last;        // of the range asked for (-1: none)
        uint32_t limitMs;    // 0: the default time limit
        int32_t status;
        klHTTPFailure failure;
        std::string body;
        double maxSeconds;
        std::string printed = ""; // how the output starts
        std::vector<std::pair<std::string, size_t>> logged = {};
        bool leftovers = false;       // bytes were left on the connection: the next request opens another
        const char* endsAt = nullptr; // the URL's path afterwards (nullptr: the one asked for)
    } const rows[] = {
#ifndef _WIN32
        {"GET " + loopback + std::to_string(full.port) + "/", -1, 800, 400, Connect, "", 1.5, noConnect + "127.0.0.1.\n"},
#endif
        {"GET " + loopback + std::to_string(keelnet::Listener().port) + "/", -1, 800, 400, Connect, "", 1.5,
         noConnect + "127.0.0.1.\n"},
        {"GET //nonexistent.invalid/", -1, 800, 400, Connect, "", 20, noConnect + "nonexistent.invalid.\n"},
        {"PUT " + loopback + std::to_string(deaf.port) + "/", -1, 800, 400, klHTTPFailure::TimeLimit, "", 2.0},
        // A broken body is resumed byte for byte from where it broke.
        {"GET /midclose/f", -1, 0, 206, None, Pattern(300000), 60, "",
         {{"GET /midclose/f HTTP/1.0\n", 3}, {"Range: bytes=100000-" + ifRange, 1}, {"Range: bytes=200000-" + ifRange, 1}}},
        // More bytes than the range asked for: the connection is closed, not read on.
        {"GET /overrange/f", 99, 0, 206, None, "", 1.5, "", {{"Range: bytes=0-99\n", 1}}, true},
        {"GET /silentonce/f", -1, 0, 200, None, "hello", 6.0}, // asked again after 2 s of silence
        {"GET /silentonce/f", -1, 700, 400, klHTTPFailure::TimeLimit, "", 1.5},
        {"GET /longlocation/f", -1, 0, 404, None, "", 60, "Error: Could not parse: http://127.0.0.1:", {{"GET ", 1}}},
        {"GET /garbage/f", -1, 0, 400, None, "", 60},
        // Bodies that never complete end in a failure, never in a 2xx with part of a body.
        {"GET /stuck/f", -1, 0, 400, Incomplete, Pattern(400), 3.0, "", {{"GET /stuck/f", 4}, {"Range: bytes=400-", 3}}},
        {"GET /norange/f", -1, 0, 400, Incomplete, Pattern(400), 3.0, "", {{"GET /norange/f", 4}}},
        // The resource changed under a resume: the answer holds the new body alone.
        {"GET /changed/f", -1, 0, 200, None, Pattern(300, 7), 3.0, "", {{"Range: bytes=500-" + ifRange, 1}}},
        {"GET /relative/b/start", -1, 0, 200, None, "hello", 60, "", {{"GET /relative/c/hop ", 1}}, false,
         "/basic/end?x=1"},
        {"GET /more/f", -1, 0, 200, None, "hello", 60, "", {}, true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.request);
        keelnet::TestServer server;
        if (!server.Start()) GTEST_SKIP() << "python3 is not installed or the server did not start";
        const std::string method = row.request.substr(0, row.request.find(' ')), path = row.request.substr(method.size() + 1);
        const std::string url = path[1] == '/' ? "http:" + path : server.Url(path);
        std::string upload(method == "PUT" ? 64 << 20 : 0, 'x');
        klBufferStream body(upload.data(), uint32_t(upload.size()));
        klHTTPClient client;
        client.SetTimeLimit(row.limitMs);
        Sink out;
        ASSERT_TRUE(client.SetURL(url.c_str()));
        const auto start = std::chrono::steady_clock::now();
        keeltest::CaptureLog log;
        testing::internal::CaptureStdout();
        EXPECT_EQ(client.Request(method.c_str(), upload.empty() ? nullptr : &body, &out, 5, 0, row.last), row.status);
        const std::string printed = testing::internal::GetCapturedStdout();
        EXPECT_EQ(client.Failure(), row.failure);
        const std::string logged = log.Lines().empty() ? "" : log.Lines().back();
        EXPECT_EQ(logged.find("klHTTPClient: " + url + ": ") != std::string::npos, row.failure != None && row.failure != Connect)
            << logged;
        EXPECT_TRUE(out.data() == row.body) << out.data().size() << " bytes";
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::duration<double>(row.maxSeconds));
        EXPECT_EQ(printed.rfind(row.printed, 0), 0u) << printed;
        EXPECT_EQ(std::string(client.GetURL()), row.endsAt ? server.Url(row.endsAt) : url);
        for (const auto& [needle, times] : row.logged) EXPECT_EQ(Count(server.Log(), needle), times) << needle;
        if (!row.leftovers) continue;
        ASSERT_TRUE(client.SetURL(server.Url("/basic/f").c_str()));
        EXPECT_EQ(client.Request("GET", nullptr, &out), 200);
        EXPECT_EQ(Count(server.Log(), "CONNECT\n"), 2u);
    }
}

} // namespace
