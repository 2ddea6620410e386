// A short tour of Corvix against an embedded loopback server, or a fetch of your own URL:
//
//   corvix_demo                      # the tour
//   corvix_demo https://example.org/ # status, headers and the first bytes of the body
//
// It is also the first code a new user reads: every call below is the way the library is meant to be used.
#include <kx/Corvix.h>
#include <kx/Version.h>
#include <kx/http/HttpConnection.h>
#include <kx/http/HttpConnectionLocker.h>
#include <kx/http/HttpConnectionPool.h>
#include <kx/http/HttpHeaders.h>
#include <kx/http/HttpHelpers.h>
#include <kx/http/HttpUrl.h>
#include <kx/system/kxIoDeviceStringReadOnly.h>

#include <httplib.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

using kx::http::HttpConnectionLocker;
using kx::http::HttpConnectionPool;
using kx::http::HttpHelpers;
using kx::http::HttpUrl;

namespace {

void PrintHeaders(const kx::http::HttpHeaders& headers) {
  headers.iterateOverHeaders([](const std::string& name, const std::list<std::string>& values) {
    std::printf("    %s:", name.c_str());
    for (const std::string& value : values) std::printf(" [%s]", value.c_str());
    std::printf("\n");
    return true;
  });
}

// Fetches a user's URL and shows what came back, whatever the status.
int FetchOne(const std::string& target) {
  HttpUrl url(target);
  if (!url.isValid()) {
    std::fprintf(stderr, "not an http(s) URL: %s\n", target.c_str());
    return 2;
  }
  kx::http::HttpConnection connection;
  std::string body;
  kx::http::HttpHeaders headers;
  HttpHelpers::HttpResult result;
  result.body = &body;        // the body is collected whatever the status
  result.headers = &headers;  // status lines appear as value-less names
  const bool ok = HttpHelpers::HttpGet(connection, url, &result, nullptr, nullptr, nullptr);
  if (result.httpStatus == 0) {
    std::printf("request failed:\n%s\n", connection.getLastErrorMsg().c_str());
    return 1;
  }
  std::printf("GET %s -> %d%s, %lld body bytes\n", url.toDisplayableUrl().c_str(), result.httpStatus,
              ok ? "" : " (not 200)", static_cast<long long>(result.bodyLength));
  PrintHeaders(headers);
  std::printf("first bytes:\n%.300s\n", body.c_str());
  return 0;
}

// The embedded server of the tour: a tiny JSON store on 127.0.0.1.
class DemoServer {
 public:
  DemoServer() {
    server_.Get("/items/1", [](const httplib::Request&, httplib::Response& res) {
      res.set_content(R"({"id":1,"name":"corvix"})", "application/json");
    });
    server_.Post("/items", [](const httplib::Request& req, httplib::Response& res) {
      res.status = 201;
      res.set_content(R"({"created":)" + req.body + "}", "application/json");
    });
    server_.Put("/blobs/a", [](const httplib::Request& req, httplib::Response& res) {
      res.set_content("stored " + std::to_string(req.body.size()) + " bytes", "text/plain");
    });
    server_.Delete("/items/1", [](const httplib::Request&, httplib::Response& res) { res.status = 204; });
    server_.Get("/missing", [](const httplib::Request&, httplib::Response& res) {
      res.status = 404;
      res.set_content("no such item", "text/plain");
    });
    server_.set_keep_alive_max_count(1000);  // let the pooled sockets live through the whole tour
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    while (!server_.is_running()) std::this_thread::yield();  // listening starts right after bind
  }
  ~DemoServer() {
    server_.stop();
    thread_.join();
  }
  std::string base() const { return "http://127.0.0.1:" + std::to_string(port_); }

 private:
  httplib::Server server_;
  int port_ = 0;
  std::thread thread_;
};

int Tour() {
  DemoServer server;
  HttpConnectionPool pool;  // after initializeCorvix: its idle connections expire on the library's updater
  pool.ensureAtLeastMaxConcurrentConnection(4);
  const HttpUrl item(server.base() + "/items/1");
  std::printf("embedded server at %s\n\n", server.base().c_str());

  {
    HttpConnectionLocker lease(pool, item);  // back to the pool at the end of the scope
    std::string json;
    bool ok = HttpHelpers::HttpGetJson(*lease, item, json, nullptr, nullptr, nullptr, nullptr, nullptr, 0, false);
    std::printf("GET JSON    -> %s %s\n", ok ? "ok" : "FAILED", json.c_str());

    const std::string payload = R"({"name":"new item"})";
    std::string created;
    HttpHelpers::HttpResult result;
    result.body = &created;
    ok = HttpHelpers::HttpPostJson(payload.data(), payload.size(), *lease, HttpUrl(server.base() + "/items"), 201,
                                   &result, nullptr, nullptr, nullptr);
    std::printf("POST JSON   -> %s status %d %s\n", ok ? "ok" : "FAILED", result.httpStatus, created.c_str());

    kx::kxIoDeviceStringReadOnly blob(std::string(100000, 'x'));  // any device can be a request body
    std::string answer;
    HttpHelpers::HttpResult putResult;
    putResult.body = &answer;
    ok = HttpHelpers::HttpPut(*lease, HttpUrl(server.base() + "/blobs/a"), blob, 200, &putResult, nullptr, nullptr,
                              nullptr);
    std::printf("PUT device  -> %s %s\n", ok ? "ok" : "FAILED", answer.c_str());

    kx::http::HttpHeaders headers;
    HttpHelpers::HttpResult headResult;
    headResult.headers = &headers;
    ok = HttpHelpers::HttpHead(*lease, item, &headResult, nullptr, nullptr, nullptr);
    std::printf("HEAD        -> %s, response headers:\n", ok ? "ok" : "FAILED");
    PrintHeaders(headers);

    ok = HttpHelpers::HttpDelete(*lease, item, 204, nullptr, nullptr, nullptr, nullptr);
    std::printf("DELETE      -> %s\n", ok ? "ok" : "FAILED");

    ok = HttpHelpers::HttpGet(*lease, HttpUrl(server.base() + "/missing"), nullptr, nullptr, nullptr, nullptr);
    std::printf("GET missing -> %s; the connection's report:\n%s\n\n", ok ? "unexpected success" : "failed as expected",
                lease->getLastErrorMsg().c_str());
  }

  // Four threads share the pool; each lease reuses an idle keep-alive connection when one is there.
  std::atomic<int> failures{0};
  std::atomic<unsigned long long> maxSocketUses{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 50; ++i) {
        HttpConnectionLocker lease(pool, item);
        std::string json;
        if (!HttpHelpers::HttpGetJson(*lease, item, json, nullptr, nullptr, nullptr, nullptr, nullptr, 0, false)) {
          ++failures;
        }
        unsigned long long uses = lease->getSocketUseCount();
        unsigned long long seen = maxSocketUses.load();
        while (uses > seen && !maxSocketUses.compare_exchange_weak(seen, uses)) {
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  std::printf("4 threads x 50 pooled GETs -> %d failures, %zu idle connections, busiest socket used %llu times\n",
              failures.load(), pool.getIdleConnectionCount(), maxSocketUses.load());
  return failures.load() == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  kx::initializeCorvix("corvix-demo/" + Corvix::Version::GetDescStringMajorMinorRelease());
  std::printf("Corvix %s\n", Corvix::Version::GetDescStringMajorMinorReleaseRevisionDate().c_str());
  const int rc = argc > 1 ? FetchOne(argv[1]) : Tour();
  kx::terminateCorvix();
  return rc;
}
