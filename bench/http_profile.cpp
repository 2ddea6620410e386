// A fixed number of keep-alive GETs through one client, for instruction counts under callgrind, where a
// shared and busy machine makes wall-clock timings unreliable. bench/profile_http.sh runs it.
//
//   http_profile <corvix|raw> <text|discard> <requests> [bytes]
//
// The same two clients as http_bench (HttpBenchClients.h) against the same nginx set-up. A few warm-up
// requests open the connection and fill the caches first; only what runs inside ProfiledRequests is
// meant to be counted (callgrind --dump-before=ProfiledRequests --dump-after=ProfiledRequests puts it
// in a part of its own), so that count divided by the number of requests is the client's cost of one
// request.
#include <kx/Corvix.h>

#include "HttpBenchClients.h"
#include "LoopbackNginx.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

struct Client {
  kx::http::HttpConnectionPool* pool = nullptr;
  const kx::http::HttpUrl* url = nullptr;
  bench::RawCurlGet* raw = nullptr;
  std::string* body = nullptr;
  int64_t bytes = 0;
};

namespace {

int RunRequests(const Client* client, int requests) {
  int failures = 0;
  for (int i = 0; i < requests; ++i) {
    int64_t received = 0;
    bool ok;
    if (client->raw != nullptr) {
      if (client->body != nullptr) client->body->clear();
      ok = client->raw->get(client->body, received);
    } else {
      ok = bench::CorvixGet(*client->pool, *client->url, client->body, received);
    }
    if (!ok || received != client->bytes) ++failures;
  }
  return failures;
}

}  // namespace

// Out of line with C linkage so that callgrind can find it by its plain name.
extern "C" __attribute__((noinline)) int ProfiledRequests(const Client* client, int requests) {
  return RunRequests(client, requests);
}

int main(int argc, char** argv) {
  if (argc < 4 || (std::strcmp(argv[1], "corvix") != 0 && std::strcmp(argv[1], "raw") != 0) ||
      (std::strcmp(argv[2], "text") != 0 && std::strcmp(argv[2], "discard") != 0)) {
    std::fprintf(stderr, "usage: %s <corvix|raw> <text|discard> <requests> [bytes]\n", argv[0]);
    return 2;
  }
  const bool raw = std::strcmp(argv[1], "raw") == 0;
  const bool text = std::strcmp(argv[2], "text") == 0;
  const int requests = std::atoi(argv[3]);
  const int64_t bytes = argc > 4 ? std::atoll(argv[4]) : 1024;

  kx::initializeCorvix(bench::kUserAgent);
  int rc = 0;
  {
    const std::string path = "/" + std::to_string(bytes);
    bench::LoopbackNginx nginx({{path.substr(1), static_cast<size_t>(bytes)}});
    if (!nginx.ready()) {
      std::fprintf(stderr, "nginx did not start (is the nginx package installed?)\n");
      rc = 1;
    } else {
      kx::http::HttpConnectionPool pool;
      const kx::http::HttpUrl url(nginx.url(path));
      std::unique_ptr<bench::RawCurlGet> rawClient;
      if (raw) {
        rawClient = std::make_unique<bench::RawCurlGet>(
            nginx.url(path), text ? bench::RawCurlGet::Body::kText : bench::RawCurlGet::Body::kDiscard);
      }
      std::string body;
      const Client client{&pool, &url, rawClient.get(), text ? &body : nullptr, bytes};
      const std::string expected = bench::FileContent(static_cast<size_t>(bytes));
      // Opens the connection and lets curl and the library fill their one-time caches.
      int failures = RunRequests(&client, 20);
      failures += ProfiledRequests(&client, requests);
      if (text && body != expected) {
        std::fprintf(stderr, "body differs from the served file\n");
        rc = 1;
      }
      std::printf("%s %s: %d requests of %lld bytes, %d failed\n", argv[1], argv[2], requests,
                  static_cast<long long>(bytes), failures);
      if (failures != 0) rc = 1;
    }
  }
  kx::terminateCorvix();
  return rc;
}
