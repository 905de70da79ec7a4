// klHTTPClient beside libcurl, both against one private nginx on the loopback: a 256 MiB
// download into a sink that keeps nothing, and many small GETs over one kept-alive
// connection (curl reuses its easy handle). bench_main pairs "X/keel" with "X/curl".
#include "keel/klhttpclient.h"
#include "keel/kllifetime.h"
#include "bench_nginx.h"

#include "keel_bench.h"
#include <curl/curl.h>

#include <cstdio>
#include <string>

namespace {

constexpr int64_t kBigBytes = int64_t(256) << 20;
const std::string kSmallBody(512, 's');

// nginx with big.bin and small.txt, started at the first use and kept for the run.
const BenchNginx* Server() {
    static BenchNginx server;
    static const bool up = [] {
        klObjectLifetimeManager::Initialize();
        curl_global_init(CURL_GLOBAL_DEFAULT);
        std::string big(size_t(kBigBytes), '\0');
        for (size_t i = 0; i < big.size(); i += 4096) big[i] = char(i >> 12);
        return server.Start() && server.Put("big.bin", big) && server.Put("small.txt", kSmallBody);
    }();
    return up ? &server : nullptr;
}

void Download(benchmark::State& state, const char* path, int64_t bytes, bool keel) {
    const BenchNginx* server = Server();
    if (!server) return state.SkipWithError("nginx did not start");
    const std::string url = server->Url(path);
    klHTTPClient client;
    client.SetURL(url.c_str());
    CURL* curl = curl_easy_init();
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, +[](char*, size_t size, size_t n, void*) { return size * n; });
    for (auto _ : state) {
        int64_t status = 0;
        if (keel) {
            klNullStream sink;
            status = client.Request("GET", nullptr, &sink);
        } else {
            curl_easy_perform(curl);
            long code = 0;
            curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &code);
            status = code;
        }
        if (status != 200) return state.SkipWithError("request failed");
    }
    curl_easy_cleanup(curl);
    state.SetBytesProcessed(int64_t(state.iterations()) * bytes);
    state.SetItemsProcessed(int64_t(state.iterations()));
}

void BigKeel(benchmark::State& s) { Download(s, "/big.bin", kBigBytes, true); }
void BigCurl(benchmark::State& s) { Download(s, "/big.bin", kBigBytes, false); }
void SmallKeel(benchmark::State& s) { Download(s, "/small.txt", int64_t(kSmallBody.size()), true); }
void SmallCurl(benchmark::State& s) { Download(s, "/small.txt", int64_t(kSmallBody.size()), false); }
BENCHMARK(BigKeel)->Name("Download256M/keel")->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();
BENCHMARK(BigCurl)->Name("Download256M/curl")->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();
KEEL_BENCHMARK(SmallKeel)->Name("SmallGet/keel")->Unit(benchmark::kMicrosecond)->UseRealTime();
KEEL_BENCHMARK(SmallCurl)->Name("SmallGet/curl")->Unit(benchmark::kMicrosecond)->UseRealTime();

} // namespace
