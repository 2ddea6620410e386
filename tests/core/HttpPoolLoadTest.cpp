// One pool under load: 8 threads, each leasing a connection per request through HttpConnectionLocker
// and running a keep-alive GET against the loopback server. Every request must succeed, sockets must be
// reused, and no file descriptor may be left open afterwards.
//
// KX_LOAD_REQUESTS overrides the requests per thread (2000). The full count takes a few seconds, also
// under AddressSanitizer and ThreadSanitizer, so sanitizer builds run it unscaled.
#include <gtest/gtest.h>

#include <kx/http/HttpConnection.h>
#include <kx/http/HttpConnectionLocker.h>
#include <kx/http/HttpConnectionPool.h>
#include <kx/http/HttpHelpers.h>
#include <kx/http/HttpUrl.h>

#include "core/ConnectionTestCall.h"
#include "support/LogCapture.h"
#include "support/LoopbackHttpServer.h"

#include <dirent.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using kx::http::HttpConnectionLocker;
using kx::http::HttpConnectionPool;
using kx::http::HttpHelpers;
using kx::http::HttpUrl;
using kx::test::LoopbackHttpServer;

constexpr int kThreads = 8;

int RequestsPerThread() {
  if (const char* text = std::getenv("KX_LOAD_REQUESTS")) {
    const int value = std::atoi(text);
    if (value > 0) return value;
  }
  return 2000;
}

int OpenDescriptorCount() {
  int count = 0;
  if (DIR* dir = opendir("/proc/self/fd")) {
    while (readdir(dir) != nullptr) ++count;
    closedir(dir);
  }
  return count;  // includes ".", ".." and the directory's own descriptor: constant between two calls
}

class HttpPoolLoadTest : public kx::test::CorvixSuite {};

TEST_F(HttpPoolLoadTest, EightThreadsThroughOnePool) {
  kx::test::LogCapture quiet(false);
  {
    // Warm-up: whatever libcurl, OpenSSL or the server open lazily once per process is open before the
    // first count.
    LoopbackHttpServer warmUp;
    HttpConnectionPool pool;
    HttpConnectionLocker lease(pool, HttpUrl(warmUp.url("/bytes/16")));
    ASSERT_TRUE(HttpHelpers::HttpGet(*lease, HttpUrl(warmUp.url("/bytes/16")), nullptr, nullptr, nullptr, nullptr));
  }
  const int descriptorsBefore = OpenDescriptorCount();
  const int perThread = RequestsPerThread();
  std::atomic<int> failures{0};
  std::atomic<uint64_t> maxSocketUse{0};
  uint64_t accepted = 0;
  {
    LoopbackHttpServer server;
    HttpConnectionPool pool;
    pool.ensureAtLeastMaxConcurrentConnection(kThreads);
    const HttpUrl url(server.url("/bytes/256"));
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&] {
        std::string body;
        HttpHelpers::HttpResult result;
        result.body = &body;
        for (int i = 0; i < perThread; ++i) {
          HttpConnectionLocker lease(pool, url);
          if (!HttpHelpers::HttpGet(*lease, url, &result, nullptr, nullptr, nullptr) || body.size() != 256) {
            if (failures.fetch_add(1) == 0) ADD_FAILURE() << lease->getLastErrorMsg();
            continue;
          }
          const uint64_t uses = lease->getSocketUseCount();
          uint64_t seen = maxSocketUse.load();
          while (uses > seen && !maxSocketUse.compare_exchange_weak(seen, uses)) {
          }
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    accepted = server.acceptedConnections();
    EXPECT_LE(pool.getIdleConnectionCount(), static_cast<size_t>(kThreads));
  }
  const int total = kThreads * perThread;
  EXPECT_EQ(failures.load(), 0);
  EXPECT_GT(maxSocketUse.load(), 1u);
  // Each thread holds at most one connection at a time; a handful of extra sockets is the most that
  // interleaved releases can cost.
  EXPECT_LE(accepted, static_cast<uint64_t>(4 * kThreads)) << "of " << total << " requests";
  EXPECT_EQ(OpenDescriptorCount(), descriptorsBefore);
}

}  // namespace
