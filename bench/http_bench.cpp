// Keep-alive GET throughput against nginx on loopback: Corvix's pooled HttpGet against a raw libcurl loop
// reusing one easy handle with the same options, and cpp-httplib's own client, same server, same run.
//
//   ./build.sh bench            (or build-bench/bench/http_bench --benchmark_repetitions=5)
//
// The program starts nginx itself (Debian's /usr/sbin/nginx) with a temporary configuration serving
// /1k and /256k from a temporary folder on 127.0.0.1 and a free port, and stops it at the end.
#include <kx/Corvix.h>
#include <kx/http/HttpConnection.h>
#include <kx/http/HttpConnectionLocker.h>
#include <kx/http/HttpConnectionPool.h>
#include <kx/http/HttpHelpers.h>
#include <kx/http/HttpUrl.h>
#include <kx/system/kxIoDeviceNullWriteOnly.h>

#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <httplib.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

namespace {

int FreeLoopbackPort() {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  socklen_t length = sizeof address;
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  close(fd);
  return ntohs(address.sin_port);
}

bool CanConnect(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const bool ok = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  close(fd);
  return ok;
}

// nginx in the foreground with its own prefix, so it needs no root and touches nothing of the system's.
class Nginx {
 public:
  Nginx() {
    dir_ = std::filesystem::temp_directory_path() / ("kx-bench-nginx-" + std::to_string(getpid()));
    std::filesystem::create_directories(dir_ / "www");
    std::filesystem::create_directories(dir_ / "logs");
    std::ofstream(dir_ / "www" / "1k") << std::string(1024, 'a');
    std::ofstream(dir_ / "www" / "256k") << std::string(256 * 1024, 'b');
    port_ = FreeLoopbackPort();
    std::ofstream(dir_ / "nginx.conf")
        << "daemon off; master_process off; worker_processes 1; pid " << (dir_ / "nginx.pid").string() << ";\n"
        << "error_log " << (dir_ / "logs" / "error.log").string() << ";\n"
        << "events { worker_connections 256; }\n"
        << "http { access_log off; keepalive_requests 1000000; keepalive_timeout 60s;\n"
        << "  client_body_temp_path " << dir_.string() << "; proxy_temp_path " << dir_.string() << ";\n"
        << "  fastcgi_temp_path " << dir_.string() << "; uwsgi_temp_path " << dir_.string() << ";\n"
        << "  scgi_temp_path " << dir_.string() << ";\n"
        << "  server { listen 127.0.0.1:" << port_ << "; root " << (dir_ / "www").string() << "; } }\n";
    pid_ = fork();
    if (pid_ == 0) {
      execl("/usr/sbin/nginx", "nginx", "-p", dir_.c_str(), "-c", (dir_ / "nginx.conf").c_str(),
            static_cast<char*>(nullptr));
      _exit(127);
    }
    for (int i = 0; i < 500 && !CanConnect(port_); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ready_ = CanConnect(port_);
  }
  ~Nginx() {
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      waitpid(pid_, nullptr, 0);
    }
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
  bool ready() const { return ready_; }
  int port() const { return port_; }
  std::string url(const char* path) const { return "http://127.0.0.1:" + std::to_string(port_) + path; }

 private:
  std::filesystem::path dir_;
  int port_ = 0;
  pid_t pid_ = -1;
  bool ready_ = false;
};

Nginx* gNginx = nullptr;
kx::http::HttpConnectionPool* gPool = nullptr;

const char* PathOf(int64_t bytes) { return bytes == 1024 ? "/1k" : "/256k"; }

void BM_Get_KxPool(benchmark::State& state) {
  const kx::http::HttpUrl url(gNginx->url(PathOf(state.range(0))));
  int64_t failures = 0;
  for (auto _ : state) {
    kx::http::HttpConnectionLocker lease(*gPool, url);
    kx::kxIoDeviceNullWriteOnly sink;
    kx::http::HttpHelpers::HttpResult result;
    result.responseSink = &sink;
    if (!kx::http::HttpHelpers::HttpGet(*lease, url, &result, nullptr, nullptr, nullptr) ||
        result.bodyLength != state.range(0)) {
      ++failures;
    }
  }
  state.counters["failures"] = static_cast<double>(failures);
  state.counters["req/s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

size_t CountBytes(char*, size_t size, size_t count, void* user) {
  *static_cast<int64_t*>(user) += static_cast<int64_t>(size * count);
  return size * count;
}

void BM_Get_RawCurl(benchmark::State& state) {
  const std::string url = gNginx->url(PathOf(state.range(0)));
  CURL* curl = curl_easy_init();
  int64_t failures = 0;
  for (auto _ : state) {
    // The same reset-and-configure work per request that a reusable connection does.
    curl_easy_reset(curl);
    int64_t received = 0;
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_ACCEPT_ENCODING, "");
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(curl, CURLOPT_MAXREDIRS, 3L);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, 10L);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, 10L);
    curl_easy_setopt(curl, CURLOPT_COOKIEFILE, "");
    curl_easy_setopt(curl, CURLOPT_PROXY, "");
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &CountBytes);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &received);
    curl_slist* headers = curl_slist_append(nullptr, "Connection: Keep-Alive");
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    long status = 0;
    if (curl_easy_perform(curl) != CURLE_OK || received != state.range(0)) ++failures;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    if (status != 200) ++failures;
    curl_slist_free_all(headers);
  }
  curl_easy_cleanup(curl);
  state.counters["failures"] = static_cast<double>(failures);
  state.counters["req/s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

void BM_Get_Httplib(benchmark::State& state) {
  httplib::Client client("127.0.0.1", gNginx->port());
  client.set_keep_alive(true);
  const char* path = PathOf(state.range(0));
  int64_t failures = 0;
  for (auto _ : state) {
    auto response = client.Get(path);
    if (!response || response->status != 200 || static_cast<int64_t>(response->body.size()) != state.range(0)) {
      ++failures;
    }
  }
  state.counters["failures"] = static_cast<double>(failures);
  state.counters["req/s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

BENCHMARK(BM_Get_KxPool)->Arg(1024)->Arg(256 * 1024)->UseRealTime();
BENCHMARK(BM_Get_RawCurl)->Arg(1024)->Arg(256 * 1024)->UseRealTime();
BENCHMARK(BM_Get_Httplib)->Arg(1024)->Arg(256 * 1024)->UseRealTime();
// Several threads through one pool (one idle connection per thread is kept).
BENCHMARK(BM_Get_KxPool)->Arg(1024)->Threads(1)->Threads(2)->Threads(4)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  kx::initializeCorvix("corvix-bench");
  int rc = 0;
  {
    Nginx nginx;
    if (!nginx.ready()) {
      std::fprintf(stderr, "nginx did not start (is the nginx package installed?)\n");
      rc = 1;
    } else {
      kx::http::HttpConnectionPool pool;
      pool.ensureAtLeastMaxConcurrentConnection(8);
      gNginx = &nginx;
      gPool = &pool;
      benchmark::RunSpecifiedBenchmarks();
      gPool = nullptr;
    }
  }
  kx::terminateCorvix();
  benchmark::Shutdown();
  return rc;
}
