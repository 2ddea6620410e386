// HTTP transfers against nginx on loopback: Corvix's pooled HttpGet against the best hand-written libcurl
// loop (one easy handle per thread, options set once, only curl_easy_perform per request), and
// cpp-httplib's own client, same server, same run.
//
//   ./build.sh bench
//   build-bench/bench/http_bench --benchmark_repetitions=5 --benchmark_enable_random_interleaving=true
//       --benchmark_out=http.json --benchmark_out_format=json      (one command line)
//   bench/http_ratios.py http.json
//
// On a shared machine, interleaving the repetitions spreads the busy spells over both sides; the
// instruction counts of bench/profile_http.sh are steadier still.
//
// Cases:
// - Get/<bytes>: keep-alive GET of 1 KiB and 256 KiB, body into a text (the string is kept from one
//   request to the next on both sides, as a loop over many requests would do) or discarded; at 1 and 4
//   threads.
// - Download: 50 MiB into a fresh text per download, or discarded. The raw side reserves the text
//   once curl knows the Content-Length, as a careful hand-written client does; RawNoReserve shows what
//   letting the text grow as data arrives costs.
//
// The time column is wall time per request (UseRealTime; with threads, wall time divided by all the
// threads' requests, i.e. the inverse of the throughput); the CPU column is the client threads' CPU
// time per request. Compare Corvix and Raw rows of the same case from the same run.
//
// Before anything is timed, both clients fetch every file once and their bodies are compared with the
// served bytes; the program stops if they differ. The program starts nginx itself (Debian's
// /usr/sbin/nginx) with a temporary configuration on 127.0.0.1 and a free port, and stops it at the end.
#include <kx/Corvix.h>

#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <httplib.h>

#include "HttpBenchClients.h"
#include "LoopbackNginx.h"

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>

namespace {

constexpr int64_t kSmall = 1024;
constexpr int64_t kLarge = 256 * 1024;
constexpr int64_t kDownload = 50 * 1024 * 1024;

bench::LoopbackNginx* gNginx = nullptr;
kx::http::HttpConnectionPool* gPool = nullptr;

// The raw side's handles, one per benchmark thread, URL and body mode, kept for the whole program as the
// pool keeps Corvix's connections: each side then works on long-lived connections whose TCP windows
// have grown, instead of the raw side starting every run on a fresh connection.
class RawClients {
 public:
  bench::RawCurlGet& get(const std::string& url, bench::RawCurlGet::Body mode, int thread) {
    const std::lock_guard<std::mutex> lock(mutex_);
    auto& client = clients_[{url, static_cast<int>(mode), thread}];
    if (!client) client = std::make_unique<bench::RawCurlGet>(url, mode);
    return *client;
  }

 private:
  std::mutex mutex_;
  std::map<std::tuple<std::string, int, int>, std::unique_ptr<bench::RawCurlGet>> clients_;
};

RawClients* gRawClients = nullptr;

std::string PathOf(int64_t bytes) {
  std::string path = "/";
  path += std::to_string(bytes);
  return path;
}

void Report(benchmark::State& state, int64_t bytes, int64_t failures) {
  state.counters["failures"] = benchmark::Counter(static_cast<double>(failures));
  state.counters["req/s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
  state.SetBytesProcessed(state.iterations() * bytes);
}

// Keep-alive GET, Corvix. range(0): size, range(1): 1 to keep the body as text, 0 to discard it.
void BM_Get_Corvix(benchmark::State& state) {
  const int64_t bytes = state.range(0);
  const kx::http::HttpUrl url(gNginx->url(PathOf(bytes)));
  std::string text;
  std::string* body = state.range(1) != 0 ? &text : nullptr;
  int64_t failures = 0;
  for (auto _ : state) {
    int64_t received = 0;
    if (!bench::CorvixGet(*gPool, url, body, received) || received != bytes) ++failures;
  }
  Report(state, bytes, failures);
}

// Keep-alive GET, raw libcurl: one handle per thread, configured once; one request before the timed loop
// opens its connection the first time.
void BM_Get_Raw(benchmark::State& state) {
  const int64_t bytes = state.range(0);
  bench::RawCurlGet& client =
      gRawClients->get(gNginx->url(PathOf(bytes)),
                       state.range(1) != 0 ? bench::RawCurlGet::Body::kText : bench::RawCurlGet::Body::kDiscard,
                       state.thread_index());
  std::string text;
  int64_t failures = 0;
  int64_t received = 0;
  if (!client.get(&text, received) || received != bytes) ++failures;
  for (auto _ : state) {
    text.clear();
    if (!client.get(&text, received) || received != bytes) ++failures;
  }
  Report(state, bytes, failures);
}

void BM_Get_Httplib(benchmark::State& state) {
  const int64_t bytes = state.range(0);
  httplib::Client client("127.0.0.1", gNginx->port());
  client.set_keep_alive(true);
  const std::string path = PathOf(bytes);
  int64_t failures = 0;
  for (auto _ : state) {
    auto response = client.Get(path);
    if (!response || response->status != 200 || static_cast<int64_t>(response->body.size()) != bytes) ++failures;
  }
  Report(state, bytes, failures);
}

// 50 MiB, Corvix. range(0): 1 for the result's body text (a fresh string per download), 0 to discard.
void BM_Download_Corvix(benchmark::State& state) {
  const kx::http::HttpUrl url(gNginx->url(PathOf(kDownload)));
  int64_t failures = 0;
  for (auto _ : state) {
    std::string text;
    int64_t received = 0;
    if (!bench::CorvixGet(*gPool, url, state.range(0) != 0 ? &text : nullptr, received) || received != kDownload)
      ++failures;
  }
  Report(state, kDownload, failures);
}

void DownloadRaw(benchmark::State& state, bench::RawCurlGet::Body mode) {
  bench::RawCurlGet& client = gRawClients->get(gNginx->url(PathOf(kDownload)), mode, state.thread_index());
  int64_t failures = 0;
  int64_t received = 0;
  {
    std::string text;
    if (!client.get(&text, received) || received != kDownload) ++failures;
  }
  for (auto _ : state) {
    std::string text;
    if (!client.get(&text, received) || received != kDownload) ++failures;
  }
  Report(state, kDownload, failures);
}

void BM_Download_Raw(benchmark::State& state) {
  DownloadRaw(state, state.range(0) != 0 ? bench::RawCurlGet::Body::kText : bench::RawCurlGet::Body::kDiscard);
}

void BM_Download_RawNoReserve(benchmark::State& state) { DownloadRaw(state, bench::RawCurlGet::Body::kTextNoReserve); }

void GetArgs(benchmark::internal::Benchmark* b) {
  b->ArgNames({"bytes", "text"});
  for (int64_t bytes : {kSmall, kLarge})
    for (int64_t text : {1, 0}) b->Args({bytes, text});
  b->Threads(1)->Threads(4)->UseRealTime();
}

BENCHMARK(BM_Get_Corvix)->Apply(GetArgs);
BENCHMARK(BM_Get_Raw)->Apply(GetArgs);
BENCHMARK(BM_Get_Httplib)->ArgName("bytes")->Arg(kSmall)->Arg(kLarge)->UseRealTime();
BENCHMARK(BM_Download_Corvix)->ArgName("text")->Arg(1)->Arg(0)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Download_Raw)->ArgName("text")->Arg(1)->Arg(0)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Download_RawNoReserve)->UseRealTime()->Unit(benchmark::kMillisecond);

// Both clients must receive exactly the served bytes before any timing means anything.
bool BodiesMatch() {
  bool ok = true;
  for (int64_t bytes : {kSmall, kLarge, kDownload}) {
    const std::string expected = bench::FileContent(static_cast<size_t>(bytes));
    const std::string url = gNginx->url(PathOf(bytes));
    std::string corvix;
    std::string raw;
    int64_t corvixLength = 0;
    int64_t rawLength = 0;
    const bool corvixOk = bench::CorvixGet(*gPool, kx::http::HttpUrl(url), &corvix, corvixLength);
    bench::RawCurlGet client(url, bench::RawCurlGet::Body::kText);
    const bool rawOk = client.get(&raw, rawLength);
    if (!corvixOk || !rawOk || corvix != expected || raw != expected || corvixLength != bytes || rawLength != bytes) {
      std::fprintf(stderr, "%s: bodies differ (corvix %s, %zu bytes; raw %s, %zu bytes; expected %lld)\n",
                   url.c_str(), corvixOk ? "ok" : "failed", corvix.size(), rawOk ? "ok" : "failed", raw.size(),
                   static_cast<long long>(bytes));
      ok = false;
    }
  }
  return ok;
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  kx::initializeCorvix(bench::kUserAgent);
  int rc = 0;
  {
    bench::LoopbackNginx nginx({{PathOf(kSmall).substr(1), kSmall},
                                {PathOf(kLarge).substr(1), kLarge},
                                {PathOf(kDownload).substr(1), kDownload}});
    if (!nginx.ready()) {
      std::fprintf(stderr, "nginx did not start (is the nginx package installed?)\n");
      rc = 1;
    } else {
      kx::http::HttpConnectionPool pool;
      pool.ensureAtLeastMaxConcurrentConnection(8);
      gNginx = &nginx;
      gPool = &pool;
      if (BodiesMatch()) {
        RawClients rawClients;
        gRawClients = &rawClients;
        benchmark::RunSpecifiedBenchmarks();
        gRawClients = nullptr;
      } else {
        rc = 1;
      }
      gPool = nullptr;
    }
  }
  kx::terminateCorvix();
  benchmark::Shutdown();
  return rc;
}
