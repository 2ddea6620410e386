// HttpConnectionPool against the loopback server: what is pooled and what is closed, the order of
// reuse, generations, expiry under an injected clock, capacity, and eight threads leasing through one pool.
#include <gtest/gtest.h>

#include <kx/http/HttpConnection.h>
#include <kx/http/HttpConnectionLocker.h>
#include <kx/http/HttpConnectionParameters.h>
#include <kx/http/HttpConnectionPool.h>
#include <kx/http/HttpHelpers.h>
#include <kx/http/HttpUrl.h>

#include "core/ConnectionTestCall.h"
#include "core/HttpConnectionAccess.h"
#include "support/LogCapture.h"
#include "support/LoopbackHttpServer.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <cstdint>
#include <limits>
#include <string>
#include <thread>
#include <vector>

namespace {

using Access = kx::http::detail::HttpConnectionAccess;
using kx::http::HttpConnection;
using kx::http::HttpConnectionPool;
using kx::http::HttpUrl;
using kx::test::LoopbackHttpServer;
using Lease = std::pair<HttpConnection*, unsigned int>;

std::atomic<int64_t> g_fakeNow{1'000'000};
int64_t FakeNow() { return g_fakeNow.load(); }

bool Get(HttpConnection& connection, const LoopbackHttpServer& server, const std::string& path = "/echo") {
  return kx::http::HttpHelpers::HttpGet(connection, HttpUrl(server.url(path)), nullptr, nullptr, nullptr, nullptr);
}

class HttpConnectionPoolTest : public testing::Test {
 protected:
  // A lease whose connection has talked to the server once.
  Lease LeaseAndUse() {
    auto lease = pool.getHttpConnection("127.0.0.1", server.port());
    EXPECT_TRUE(Get(*lease.first, server)) << lease.first->getLastErrorMsg();
    return lease;
  }

  kx::test::LogCapture quiet{false};
  LoopbackHttpServer server;
  HttpConnectionPool pool;
};

// Pooled: used connections the server keeps open, keyed by host bytes and port. Every lease, reused or
// new, carries the pool's current default parameters.
TEST_F(HttpConnectionPoolTest, PoolsUsedLiveConnectionsByHostBytesAndPort) {
  LoopbackHttpServer other, closing({.keepAliveMaxRequests = 1});
  auto used = LeaseAndUse();
  used.first->editConnectionParameters().maxRedirects = 1;
  pool.releaseHttpConnection(used);
  auto otherPort = pool.getHttpConnection("127.0.0.1", other.port());
  auto otherName = pool.getHttpConnection("localhost", server.port());
  EXPECT_FALSE(Access::HasCurlHandle(*otherPort.first)) << "a fresh connection, not the idle one";
  EXPECT_FALSE(Access::HasCurlHandle(*otherName.first));
  pool.releaseHttpConnection(otherPort);  // never used: not pooled
  pool.releaseHttpConnection(otherName);
  pool.releaseHttpConnection({nullptr, 0});
  auto closed = pool.getHttpConnection("127.0.0.1", closing.port());
  ASSERT_TRUE(Get(*closed.first, closing));
  pool.releaseHttpConnection(closed);  // answered "Connection: close": not pooled
  EXPECT_EQ(pool.getIdleConnectionCount(), 1u);

  kx::http::HttpConnectionParameters parameters;
  parameters.maxRedirects = 7;
  pool.setDefaultConnectionParameters(parameters);
  EXPECT_EQ(pool.getDefaultConnectionParameters().maxRedirects, 7);
  auto reused = pool.getHttpConnection("127.0.0.1", server.port());
  auto fresh = pool.getHttpConnection("127.0.0.1", server.port());
  EXPECT_EQ(reused.first, used.first);
  EXPECT_EQ(reused.first->getConnectionParameters().maxRedirects, 7);
  EXPECT_EQ(fresh.first->getConnectionParameters().maxRedirects, 7);
  pool.releaseHttpConnection(reused);
  pool.releaseHttpConnection(fresh);
}

// Trimming closes the oldest idle connections; ensureAtLeast only ever raises the capacity; zero keeps one.
TEST_F(HttpConnectionPoolTest, CapacityTrimsTheOldestIdleConnections) {
  pool.setMaxPendingConnection(3);
  pool.ensureAtLeastMaxConcurrentConnection(2);
  EXPECT_EQ(pool.getMaxConcurrentConnection(), 3u);
  auto a = LeaseAndUse(), b = LeaseAndUse(), c = LeaseAndUse();
  for (const auto& lease : {a, b, c}) pool.releaseHttpConnection(lease);
  pool.setMaxPendingConnection(2);
  EXPECT_EQ(pool.getIdleConnectionCount(), 2u);
  auto first = pool.getHttpConnection("127.0.0.1", server.port());
  auto second = pool.getHttpConnection("127.0.0.1", server.port());
  EXPECT_EQ(first.first, c.first) << "most recently released first";
  EXPECT_EQ(second.first, b.first);
  pool.setMaxPendingConnection(0);
  EXPECT_EQ(pool.getMaxConcurrentConnection(), 1u);
  pool.releaseHttpConnection(second);
  pool.releaseHttpConnection(first);
  EXPECT_EQ(pool.getIdleConnectionCount(), 1u);
  auto kept = pool.getHttpConnection("127.0.0.1", server.port());
  EXPECT_EQ(kept.first, first.first) << "capacity trims the oldest";
  pool.releaseHttpConnection(kept);
  pool.ensureAtLeastMaxConcurrentConnection(5);
  EXPECT_EQ(pool.getMaxConcurrentConnection(), 5u);
}

// Client sockets to 127.0.0.1:port that the server has closed and this side has not (CLOSE_WAIT).
size_t CloseWaitSocketsTo(uint16_t port) {
  std::ifstream table("/proc/net/tcp");
  std::string line;
  std::getline(table, line);  // column titles
  size_t count = 0;
  char remote[32];
  unsigned state = 0;
  while (std::getline(table, line)) {
    if (std::sscanf(line.c_str(), "%*s %*s %31s %x", remote, &state) == 2 && state == 0x08 &&
        std::strncmp(remote, "0100007F:", 9) == 0 && std::strtoul(remote + 9, nullptr, 16) == port)
      ++count;
  }
  return count;
}

TEST_F(HttpConnectionPoolTest, IdleConnectionClosedByTheServerIsDiscardedAtLeaseTime) {
  LoopbackHttpServer closing({.keepAliveTimeout = std::chrono::seconds(1)});
  auto first = pool.getHttpConnection("127.0.0.1", closing.port());
  ASSERT_TRUE(Get(*first.first, closing));
  pool.releaseHttpConnection(first);
  ASSERT_EQ(pool.getIdleConnectionCount(), 1u);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (CloseWaitSocketsTo(closing.port()) == 0 && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  ASSERT_EQ(CloseWaitSocketsTo(closing.port()), 1u) << "the server did not close the idle connection";

  auto lease = pool.getHttpConnection("127.0.0.1", closing.port());
  EXPECT_EQ(CloseWaitSocketsTo(closing.port()), 0u) << "the dead connection was not closed";
  EXPECT_FALSE(Access::HasCurlHandle(*lease.first)) << "the dead connection was handed out";
  EXPECT_EQ(pool.getIdleConnectionCount(), 0u);
  ASSERT_TRUE(Get(*lease.first, closing));
  EXPECT_EQ(closing.acceptedConnections(), 2u);
  pool.releaseHttpConnection(lease);
}

TEST_F(HttpConnectionPoolTest, ReleaseAllClosesIdleAndRefusesEarlierLeases) {
  pool.releaseHttpConnection(LeaseAndUse());
  auto early = LeaseAndUse();
  EXPECT_EQ(pool.getIdleConnectionCount(), 0u);
  pool.releaseHttpConnection(LeaseAndUse());
  EXPECT_EQ(pool.getIdleConnectionCount(), 1u);
  const unsigned int generation = Access::Generation(pool);
  pool.releaseAllConnections();
  EXPECT_EQ(Access::Generation(pool), generation + 1);
  EXPECT_EQ(pool.getIdleConnectionCount(), 0u);
  pool.releaseHttpConnection(early);
  EXPECT_EQ(pool.getIdleConnectionCount(), 0u) << "leased before releaseAllConnections: closed";
  auto late = LeaseAndUse();
  EXPECT_EQ(late.second, generation + 1);
  pool.releaseHttpConnection(late);
  EXPECT_EQ(pool.getIdleConnectionCount(), 1u) << "the pool stays usable";
}

// Expiry: an entry idle for exactly the keep-open duration stays; one millisecond more and it goes. A
// keep-open duration too long for milliseconds saturates instead of wrapping.
constexpr uint64_t kHugeSec = std::numeric_limits<uint64_t>::max() / 999;  // * 1000 would wrap
constexpr int64_t kT = 1'000'000, kMin = std::numeric_limits<int64_t>::min() + 1,
                  kMax = std::numeric_limits<int64_t>::max();
TEST_F(HttpConnectionPoolTest, ExpiresStrictlyAfterKeepOpenDuration) {
  struct {
    const char* name;
    uint64_t keepOpenSec;  // 0: left as it is (the first row sees the default)
    uint64_t keepOpenMs;
    int64_t releasedAt, now;
    size_t idleAfter;
  } const cases[] = {
      {"DefaultIdle30000", 0, 30000, kT, kT + 30000, 1},
      {"OneSecondIdle1001", 1, 1000, kT, kT + 1001, 0},
      {"ClockWentBackwards", 30, 30000, kT, kT - 5000, 1},
      {"HugeKeepOpenSaturates", kHugeSec, std::numeric_limits<uint64_t>::max(), kMin, kMax, 1},
  };
  Access::SetTimeSource(pool, &FakeNow);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.keepOpenSec != 0) pool.setKeepOpenDurationSec(c.keepOpenSec);
    EXPECT_EQ(pool.getKeepOpenDurationMs(), c.keepOpenMs);
    g_fakeNow = c.releasedAt;
    pool.releaseHttpConnection(LeaseAndUse());
    g_fakeNow = c.now;
    HttpConnectionPool::UpdatePool(&pool);
    EXPECT_EQ(pool.getIdleConnectionCount(), c.idleAfter);
    pool.releaseAllConnections();
  }
}

// Under load: 8 threads, each leasing a connection per request through HttpConnectionLocker for a
// keep-alive GET. Every request must succeed, sockets must be reused, no descriptor may be left open.
TEST_F(HttpConnectionPoolTest, EightThreadsThroughOnePool) {
  constexpr int kThreads = 8, kPerThread = 1000;
  {
    // Whatever libcurl, OpenSSL or a server open lazily once per process is open before the first count.
    LoopbackHttpServer warmUp;
    HttpConnection connection;
    ASSERT_TRUE(Get(connection, warmUp));
  }
  const size_t descriptorsBefore = kx::test::OpenDescriptors();
  std::atomic<int> failures{0};
  uint64_t accepted = 0;
  {
    LoopbackHttpServer loaded;
    HttpConnectionPool shared;
    shared.ensureAtLeastMaxConcurrentConnection(kThreads);
    const HttpUrl url(loaded.url("/bytes/256"));
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&] {
        std::string body;
        kx::http::HttpHelpers::HttpResult result;
        result.body = &body;
        for (int i = 0; i < kPerThread; ++i) {
          kx::http::HttpConnectionLocker lease(shared, url);
          if (!kx::http::HttpHelpers::HttpGet(*lease, url, &result, nullptr, nullptr, nullptr) || body.size() != 256) {
            if (failures.fetch_add(1) == 0) ADD_FAILURE() << lease->getLastErrorMsg();
          }
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    accepted = loaded.acceptedConnections();
    EXPECT_LE(shared.getIdleConnectionCount(), static_cast<size_t>(kThreads));
  }
  EXPECT_EQ(failures.load(), 0);
  // Sockets are reused: each thread holds one connection at a time, and interleaved releases cost a
  // handful of extra sockets at most.
  EXPECT_LE(accepted, static_cast<uint64_t>(4 * kThreads));
  EXPECT_EQ(kx::test::OpenDescriptors(), descriptorsBefore);
}

}  // namespace
