// HttpConnectionLocker: the scoped lease gives pooled connections back, destroys private ones, and
// warns (verbose log only) when a reused connection was taken to another host or port.
#include <gtest/gtest.h>

#include <kx/http/HttpConnection.h>
#include <kx/http/HttpConnectionLocker.h>
#include <kx/http/HttpConnectionPool.h>
#include <kx/http/HttpHelpers.h>
#include <kx/http/HttpUrl.h>

#include "core/HttpConnectionAccess.h"
#include "support/LogCapture.h"
#include "support/LoopbackHttpServer.h"

#include <memory>
#include <string>

namespace {

using kx::http::HttpConnection;
using kx::http::HttpConnectionLocker;
using kx::http::HttpConnectionPool;
using kx::http::HttpUrl;

bool Get(HttpConnection& connection, const HttpUrl& url) {
  return kx::http::HttpHelpers::HttpGet(connection, url, nullptr, nullptr, nullptr, nullptr);
}

class HttpConnectionLockerTest : public testing::Test {
 protected:
  kx::test::LoopbackHttpServer server, other;
  HttpUrl url{server.url("/echo")}, otherUrl{other.url("/echo")};
};

TEST_F(HttpConnectionLockerTest, GivesPooledConnectionsBackAndDestroysPrivateOnes) {
  kx::test::LogCapture quiet(false);
  HttpConnectionPool pool;
  HttpConnection* leased = nullptr;
  {
    HttpConnectionLocker lease(pool, url);
    leased = lease.get();
    ASSERT_TRUE(Get(*lease, url)) << lease->getLastErrorMsg();
  }
  EXPECT_EQ(pool.getIdleConnectionCount(), 1u);
  {
    HttpConnectionLocker again(&pool, url);
    EXPECT_EQ(again.get(), leased);
    EXPECT_EQ(pool.getIdleConnectionCount(), 0u);
    // Moving the locker to another server gives the used connection back first.
    again.setConnection("127.0.0.1", other.port());
    EXPECT_NE(again.get(), leased);
    EXPECT_EQ(pool.getIdleConnectionCount(), 1u);
  }
  {
    HttpConnectionLocker lease(nullptr, url);
    ASSERT_TRUE(Get(*lease, url));
  }
  {
    auto own = std::make_unique<HttpConnection>();
    HttpConnection* raw = own.get();
    HttpConnectionLocker adopted(std::move(own));
    EXPECT_EQ(adopted.get(), raw);
    ASSERT_TRUE(Get(*adopted, url));
  }
  EXPECT_EQ(pool.getIdleConnectionCount(), 1u) << "private connections never reach a pool";
  EXPECT_EQ(server.acceptedConnections(), 3u);
}

// Verbose log only, and only for a connection reused from the pool that then talks to another port.
TEST_F(HttpConnectionLockerTest, WarnsWhenAReusedConnectionMovedToAnotherPort) {
  const std::string warning = "Http connection from pool was used with an other host/port '127.0.0.1' than the "
                              "one declared 127.0.0.1:" + std::to_string(other.port());
  for (bool verbose : {true, false}) {
    SCOPED_TRACE(verbose);
    kx::test::LogCapture log(verbose);
    HttpConnectionPool pool;
    {
      HttpConnectionLocker fresh(pool, url);  // never used before this lease: no warning
      ASSERT_TRUE(Get(*fresh, otherUrl));
    }
    {
      HttpConnectionLocker sameServer(pool, otherUrl);
      ASSERT_TRUE(Get(*sameServer, otherUrl));
    }
    EXPECT_FALSE(log.containsFragment("Http connection from pool")) << log.dump();
    {
      HttpConnectionLocker moved(pool, otherUrl);
      ASSERT_TRUE(Get(*moved, url));
    }
    EXPECT_EQ(log.count(warning), verbose ? 1u : 0u) << log.dump();
    // Pooled under the host and port it last talked to.
    HttpConnectionLocker onServer(pool, url);
    EXPECT_TRUE(kx::http::detail::HttpConnectionAccess::HasCurlHandle(*onServer));
  }
}

}  // namespace
