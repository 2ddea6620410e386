// The multi-threaded document getter against a loopback search server that waits 20 ms before each
// answer, as a remote cluster would. The figure that matters is the ratio user counter: wall time over
// the ideal ceil(N / batch) x 20 ms / K, i.e. how close K workers come to K requests always in flight.
//
//   cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DKX_BUILD_BENCH=ON
//   cmake --build build-bench --target getter_bench
//   ./build-bench/bench/getter_bench --benchmark_repetitions=3 --benchmark_report_aggregates_only=true
//
// Cases are Getter/<ids>/<workers>/<batch>/<queuedFirst>: 10,000 ids in batches of 100, but 1,000 ids in
// batches of one (10,000 single-id requests at 20 ms take 200 s on one worker). The server is cpp-httplib with 64
// threads and unlimited keep-alive, so that it never becomes the queue; each answer holds exactly the
// hits asked for. Every run checks that every id came back found, once, before its time counts.
#include <kx/Corvix.h>
#include <kx/elasticsearch/MultiThreadedDocumentGetter.h>

#include <benchmark/benchmark.h>
#include <httplib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <rapidjson/document.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <future>
#include <memory>
#include <string>
#include <thread>

namespace {

using Getter = kx::elasticsearch::MultiThreadedDocumentGetter;

constexpr auto kLatency = std::chrono::milliseconds(20);

// Answers a getter's search with one hit per id of its "ids" clauses, after the injected latency.
class SlowSearchServer {
 public:
  // Debian's cpp-httplib is a compiled library that listens with a backlog of 5: sixteen workers
  // connecting at once overflow it, and the dropped SYNs come back a second later, a delay of the
  // server's making. Listening again on the same socket raises the backlog; the library does not hand
  // out the socket, so it is found by its port.
  static void WidenBacklog(int port) {
    for (int fd = 0; fd < 1024; ++fd) {
      sockaddr_in address{};
      socklen_t length = sizeof address;
      int listening = 0;
      socklen_t flagLength = sizeof listening;
      if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0 && address.sin_family == AF_INET &&
          ntohs(address.sin_port) == port && getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &flagLength) == 0 &&
          listening != 0) {
        listen(fd, 256);
        return;
      }
    }
  }

  SlowSearchServer() {
    server_.new_task_queue = [] { return new httplib::ThreadPool(64); };
    server_.set_keep_alive_max_count(1000000);
    server_.set_keep_alive_timeout(60);
    // Without it the answer's head and body leave as two segments and the second waits for the client's
    // delayed ACK (40 ms on loopback): the server, not the getter, would set the pace.
    server_.set_tcp_nodelay(true);
    server_.Post("/idx/_search", [this](const httplib::Request& req, httplib::Response& res) {
      requests_.fetch_add(1, std::memory_order_relaxed);
      const auto start = std::chrono::steady_clock::now();
      rapidjson::Document query;
      query.Parse(req.body.data(), req.body.size());
      std::string body = R"({"took":1,"timed_out":false,"hits":{"total":{"value":0,"relation":"eq"},"hits":[)";
      bool first = true;
      if (!query.HasParseError() && query.HasMember("query")) {
        for (const auto& should : query["query"]["bool"]["should"].GetArray()) {
          for (const auto& id : should["bool"]["must"][0]["ids"]["values"].GetArray()) {
            if (!first) body += ',';
            first = false;
            const std::string text(id.GetString(), id.GetStringLength());
            body += R"({"_index":"idx","_id":")" + text + R"(","_score":1.0,"_source":{"name":")" + text +
                    R"(","type":"doc"}})";
          }
        }
      }
      body += "]}}";
      std::this_thread::sleep_until(start + kLatency);
      res.set_content(body, "application/json; charset=UTF-8");
    });
    port_ = server_.bind_to_any_port("127.0.0.1");
    WidenBacklog(port_);
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    // bind_to_any_port already listens: connections wait in the backlog until the loop accepts them.
  }
  ~SlowSearchServer() {
    server_.stop();
    thread_.join();
  }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/idx"; }
  int64_t requests() const { return requests_.load(); }

 private:
  httplib::Server server_;
  int port_ = 0;
  std::atomic<int64_t> requests_{0};
  std::thread thread_;
};

SlowSearchServer* gServer = nullptr;

struct Counts {
  std::atomic<int64_t> found{0};
  std::atomic<int64_t> other{0};
  // Holds the workers at their start until every id is queued (the "queued first" cases).
  std::promise<void> go;
  std::shared_future<void> gate = go.get_future().share();
};

void Count(Getter&, const std::string&, const std::string&, const std::string&, Getter::DocumentResult result,
           void* user, void*) {
  auto* counts = static_cast<Counts*>(user);
  (result == Getter::DR_Found ? counts->found : counts->other).fetch_add(1, std::memory_order_relaxed);
}

void WaitForGate(Getter&, void* user, void*&) { static_cast<Counts*>(user)->gate.wait(); }

// Args: ids, workers, batch size, and whether every id is queued before the workers may take any (1) or
// added one by one while they already run (0), as a caller streaming ids in would do. In the second
// form the first workers find a short queue and take small batches, so more requests are made.
void BM_Getter(benchmark::State& state) {
  const int64_t ids = state.range(0);
  const auto workers = static_cast<unsigned>(state.range(1));
  const auto batch = static_cast<unsigned>(state.range(2));
  const bool queuedFirst = state.range(3) != 0;
  const kx::elasticsearch::ESConnectionParameters index{kx::http::HttpUrl(gServer->url())};
  const kx::kxVariant filter{kx::kxVariant::kxVariantListImpl{"name", "type"}};
  double seconds = 0;
  int64_t requests = 0;
  for (auto _ : state) {
    state.PauseTiming();
    Counts counts;
    auto getter = std::make_unique<Getter>(index, &Count, &counts, queuedFirst ? &WaitForGate : nullptr, nullptr,
                                           workers, batch, filter);
    const int64_t requestsBefore = gServer->requests();
    state.ResumeTiming();
    const auto start = std::chrono::steady_clock::now();
    for (int64_t i = 0; i < ids; ++i) getter->addJob("doc-" + std::to_string(1000000 + i), "doc");
    counts.go.set_value();
    const bool done = getter->waitUntilAllJobsAreDone(nullptr, nullptr);
    seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    state.PauseTiming();
    requests += gServer->requests() - requestsBefore;
    getter.reset();
    if (!done || counts.found != ids || counts.other != 0) {
      state.SkipWithError("an id was not found exactly once");
      return;
    }
    state.ResumeTiming();
  }
  const double idealRequests = double((ids + batch - 1) / batch);
  const double ideal = idealRequests * std::chrono::duration<double>(kLatency).count() / workers;
  state.counters["ratio"] = seconds / double(state.iterations()) / ideal;
  state.counters["requests"] = double(requests) / double(state.iterations());
  state.SetItemsProcessed(state.iterations() * ids);
}

BENCHMARK(BM_Getter)
    ->ArgNames({"ids", "workers", "batch", "queuedFirst"})
    ->ArgsProduct({{10000}, {1, 4, 16}, {100}, {1, 0}})
    ->ArgsProduct({{1000}, {1, 4, 16}, {1}, {1}})
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  if (!kx::initializeCorvix("corvix-bench")) {
    std::fprintf(stderr, "getter_bench: initializeCorvix failed\n");
    return 1;
  }
  int rc = 0;
  {
    SlowSearchServer server;
    gServer = &server;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
      rc = 1;
    } else {
      benchmark::RunSpecifiedBenchmarks();
    }
    benchmark::Shutdown();
    gServer = nullptr;
  }
  kx::terminateCorvix();
  return rc;
}
