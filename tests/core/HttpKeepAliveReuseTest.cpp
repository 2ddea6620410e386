// A connection reused for consecutive calls keeps the last call's URL and header list on the handle
// when nothing changed. Each step below changes one thing between two calls on one connection and checks
// that the server saw the new request, not the cached one.
#include <gtest/gtest.h>

#include <kx/Corvix.h>
#include <kx/http/HttpConnection.h>
#include <kx/http/HttpHeaders.h>
#include <kx/http/HttpHelpers.h>
#include <kx/http/HttpUrl.h>

#include "support/LoopbackHttpServer.h"

#include <functional>
#include <string>

namespace {

using kx::http::HttpHelpers;
using kx::http::HttpUrl;
using kx::test::RecordedRequest;

struct ReuseStep {
  const char* name;
  std::function<void(kx::http::HttpConnection&, HttpUrl&)> change;
  std::function<void(const RecordedRequest&)> check;
};

TEST(HttpKeepAliveReuseTest, EveryChangeBetweenCallsReachesTheServer) {
  kx::test::LoopbackHttpServer server;
  kx::http::HttpConnection connection;
  HttpUrl url(server.url("/echo"));
  const ReuseStep steps[] = {
      {"same call again", [](auto&, auto&) {}, [](const RecordedRequest& r) { EXPECT_EQ(r.path, "/echo"); }},
      {"other path", [&](auto&, HttpUrl& u) { u = HttpUrl(server.url("/status/200")); },
       [](const RecordedRequest& r) { EXPECT_EQ(r.path, "/status/200"); }},
      {"credentials added",
       [](auto&, HttpUrl& u) { u.setCredentials("user", "secret"); },
       [](const RecordedRequest& r) { EXPECT_EQ(r.header("Authorization"), "Basic dXNlcjpzZWNyZXQ="); }},
      {"credentials dropped, same URL otherwise", [](auto&, HttpUrl& u) { u.clearCredentials(); },
       [](const RecordedRequest& r) { EXPECT_FALSE(r.hasHeader("Authorization")); }},
      {"common header added",
       [](kx::http::HttpConnection& c, auto&) { c.editCommonHeaders().addHeaderValue("X-Common", "1"); },
       [](const RecordedRequest& r) { EXPECT_EQ(r.header("X-Common"), "1"); }},
      {"common header changed in place",
       [](kx::http::HttpConnection& c, auto&) { c.editCommonHeaders().find("x-common")->front() = "2"; },
       [](const RecordedRequest& r) { EXPECT_EQ(r.header("X-Common"), "2"); }},
      {"default header added",
       [](auto&, auto&) { kx::EditDefaultHttpHeaders().addHeaderValue("X-Default", "d"); },
       [](const RecordedRequest& r) { EXPECT_EQ(r.header("X-Default"), "d"); }},
      {"default header removed", [](auto&, auto&) { kx::EditDefaultHttpHeaders().removeHeader("X-Default"); },
       [](const RecordedRequest& r) { EXPECT_FALSE(r.hasHeader("X-Default")); }},
  };
  ASSERT_TRUE(HttpHelpers::HttpGet(connection, url, nullptr, nullptr, nullptr, nullptr));
  for (const ReuseStep& step : steps) {
    SCOPED_TRACE(step.name);
    step.change(connection, url);
    ASSERT_TRUE(HttpHelpers::HttpGet(connection, url, nullptr, nullptr, nullptr, nullptr));
    step.check(server.lastRequest());
  }
  // A per-call header goes out once and is gone from the next call on the same connection.
  kx::http::HttpHeaders once;
  once.addHeaderValue("X-Once", "1");
  ASSERT_TRUE(HttpHelpers::HttpGet(connection, url, nullptr, nullptr, &once, nullptr));
  EXPECT_EQ(server.lastRequest().header("X-Once"), "1");
  ASSERT_TRUE(HttpHelpers::HttpGet(connection, url, nullptr, nullptr, nullptr, nullptr));
  EXPECT_FALSE(server.lastRequest().hasHeader("X-Once"));
  EXPECT_EQ(server.acceptedConnections(), 1u);
}

}  // namespace
