// HttpConnection::getHttpData against the loopback servers: the status and content-type checks, the
// failures before any transfer, the error report with its sections, trace and history, and the single retry with any address family.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kx/http/HttpAuthenticatorInterface.h>
#include <kx/http/HttpConnectionParameters.h>
#include <kx/http/HttpPolicies.h>
#include <kx/system/kxStringUtils.h>

#include "core/ConnectionTestCall.h"
#include "core/HttpConnectionAccess.h"
#include "support/CorvixTestEnvironment.h"
#include "support/LogCapture.h"
#include "support/LoopbackHttpServer.h"

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

namespace {

using Access = kx::http::detail::HttpConnectionAccess;
using kx::http::HttpConnection;
using kx::http::HttpHeaders;
using kx::http::HttpPolicies;
using kx::http::HttpUrl;
using kx::test::ConnectionTestCall;
using kx::test::LoopbackHttpServer;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

// Fails with a fixed text.
struct TestAuthenticator : kx::http::HttpAuthenticatorInterface {
  explicit TestAuthenticator(std::string text) : error(std::move(text)) {}
  bool equalTo(const HttpAuthenticatorInterface&) const override { return false; }
  bool getAuthenticationHttpHeaders(const HttpUrl&, HttpHeaders& headers, std::string& out) override {
    if (error.empty()) return headers.addHeaderValue("X-Order", "authenticator"), true;
    out = error;
    return false;
  }
  std::unique_ptr<HttpAuthenticatorInterface> cloneAuthenticator() override {
    return std::make_unique<TestAuthenticator>(error);
  }
  std::string error;
};

class HttpConnectionTest : public testing::Test {
 protected:
  std::string FirstLine() const {
    const std::string report = connection.getLastErrorMsg();
    return report.substr(0, report.find('\n'));
  }

  LoopbackHttpServer server;
  HttpConnection connection;
  ConnectionTestCall call;
};

TEST_F(HttpConnectionTest, SendsDefaultThenCommonThenRequestHeaders) {
  kx::test::LogCapture quiet(false);
  kx::EditDefaultHttpHeaders().addHeaderValue("X-Order", "default");  // the environment resets the defaults
  connection.editCommonHeaders().addHeaderValues("X-Order", std::vector<std::string>{"common1", "common2"});
  HttpUrl url(server.url("/echo"));
  url.addAuthenticator(std::make_unique<TestAuthenticator>(""));
  call.onCall = [](CURL*, HttpHeaders& headers, int) { return headers.addHeaderValue("X-Order", "callback"), 0; };
  ASSERT_TRUE(call.run(connection, url)) << connection.getLastErrorMsg();
  const auto request = server.lastRequest();
  EXPECT_EQ(request.headerValues("X-Order"),
            (std::vector<std::string>{"default", "common1", "common2", "authenticator", "callback"}));
  EXPECT_EQ(request.header("Connection"), "Keep-Alive");
  EXPECT_EQ(request.header("User-Agent"), kx::test::CorvixTestEnvironment::kUserAgent);
  EXPECT_FALSE(request.hasHeader("X-Request-ID")) << "ids are only sent with the log verbose";
  EXPECT_EQ(connection.getLastRequestId(), "");
}

TEST_F(HttpConnectionTest, StatusAndContentTypeChecks) {
  const std::string url = server.url("/status/404");
  EXPECT_FALSE(call.run(connection, url, 200));
  EXPECT_EQ(connection.getLastHttpReturnCode(), 404);
  EXPECT_EQ(FirstLine(), "HttpConnection error : bad html response code, got 404, expect 200 " + url);
  EXPECT_TRUE(Access::HasCurlHandle(connection)) << "a wrong status keeps the handle";
  EXPECT_EQ(call.body, "status 404\n");
  EXPECT_TRUE(call.run(connection, url, 0)) << "0 accepts any status";
  EXPECT_TRUE(call.run(connection, url, 404));

  const std::string typed = server.url("/status/200");
  ASSERT_TRUE(call.run(connection, typed, 200, "")) << connection.getLastErrorMsg();
  const std::string type = connection.getLastReceivedType();
  ASSERT_FALSE(type.empty());
  EXPECT_TRUE(call.run(connection, typed, 200, type));
  EXPECT_FALSE(call.run(connection, typed, 200, "application/json"));
  EXPECT_EQ(FirstLine(), "HttpConnection error : bad content type, got " + type + ", expect application/json " + typed);
  EXPECT_FALSE(call.run(connection, typed, 200, kx::kxStringUtils::AsciiToUpper(type))) << "exact, case included";
  EXPECT_TRUE(Access::HasCurlHandle(connection));
}

TEST_F(HttpConnectionTest, FailuresBeforeTheTransferSendNothing) {
  ASSERT_TRUE(call.run(connection, server.url("/echo")));
  HttpUrl url(server.url("/echo"));
  url.addAuthenticator(std::make_unique<TestAuthenticator>("token expired"));
  EXPECT_FALSE(call.run(connection, url));
  EXPECT_EQ(FirstLine(), "HttpConnection error : Authenticator return an error : token expired");
  EXPECT_FALSE(Access::HasCurlHandle(connection));
  call.onCall = [](CURL*, HttpHeaders&, int) { return 7; };
  EXPECT_FALSE(call.run(connection, server.url("/echo")));
  EXPECT_EQ(FirstLine(), "HttpConnection error : User callback return and error");
  EXPECT_FALSE(Access::HasCurlHandle(connection));
  call.onCall = nullptr;
  EXPECT_FALSE(call.run(connection, "ftp://127.0.0.1/file"));
  EXPECT_EQ(FirstLine(), "HttpConnection error : Fail to setupconnection");
  HttpUrl noHost;
  noHost.setScheme("http");
  EXPECT_FALSE(call.run(connection, noHost));
  EXPECT_EQ(FirstLine(), "HttpConnection error : Invalid http url");
  EXPECT_EQ(server.requestCount(), 1u);
  // A body nobody asked for fails the transfer instead of vanishing; a transfer error destroys the handle.
  EXPECT_FALSE(connection.getHttpData(HttpUrl(server.url("/echo")), "", 200, nullptr, nullptr, nullptr));
  EXPECT_EQ(Access::LastCurlCode(connection), CURLE_WRITE_ERROR);
  EXPECT_FALSE(Access::HasCurlHandle(connection));
}

TEST(HttpConnectionUninitializedTest, RefusesToCreateAHandle) {
  kx::test::LogCapture log;
  HttpConnection connection;
  ConnectionTestCall call;
  EXPECT_FALSE(call.run(connection, "http://127.0.0.1:1/"));
  EXPECT_EQ(connection.getLastErrorMsg(), "HttpConnection error : Corvix library not initialized.");
  EXPECT_TRUE(log.contains("Corvix library not initialized."));
  EXPECT_EQ(call.calls, 0);
}

// getLastErrorMsg: its sections and their order, the history line; no trace without the verbose log.
TEST_F(HttpConnectionTest, ReportShowsStatusExtraInfoAndHistoryInOrder) {
  kx::test::LogCapture quiet(false);
  EXPECT_EQ(connection.getLastErrorMsg(), "") << "no handle, no report";
  ASSERT_TRUE(call.run(connection, server.url("/echo")));
  EXPECT_THAT(connection.getLastErrorMsg(),
              MatchesRegex("Http return code 200\nConnection created [0-9.]+m?s ago, first use, "
                           "connection use count 1, socket use count 1"));
  const std::string url = server.url("/status/503");
  ASSERT_FALSE(call.run(connection, url));
  connection.addErrorInfo("");
  connection.addErrorInfo("received [status 503]");
  connection.addErrorInfo("second");
  EXPECT_THAT(connection.getLastErrorMsg(),
              MatchesRegex("HttpConnection error : bad html response code, got 503, expect 200 " + url +
                           "\nHttp return code 503\nExtra error info : received \\[status 503\\] second\n"
                           "Connection created [0-9.]+m?s ago, previous use was [0-9.]+m?s ago, "
                           "connection use count 2, socket use count 2"));
  EXPECT_TRUE(quiet.texts("curl").empty());
  ASSERT_TRUE(call.run(connection, server.url("/echo")));
  EXPECT_THAT(connection.getLastErrorMsg(), Not(HasSubstr("Extra error info"))) << "a new call, a new report";
}

TEST_F(HttpConnectionTest, VerboseTraceShowsHeadersAndRequestIdButNoBody) {
  server.Get("/secret", [](const httplib::Request&, httplib::Response& res) {
    res.set_content("BODY-MARKER-0123456789", "text/plain");
  });
  kx::test::LogCapture verbose(true);
  // Uncompressed, so the body's own bytes would show if they leaked into the trace.
  connection.editConnectionParameters().acceptEncoding = false;
  ASSERT_FALSE(call.run(connection, server.url("/secret"), 404));
  EXPECT_EQ(call.body, "BODY-MARKER-0123456789");
  const std::string id = connection.getLastRequestId();
  ASSERT_EQ(id.size(), 36u);
  EXPECT_EQ(id[14], '4') << "a version 4 UUID";
  EXPECT_EQ(server.lastRequest().header("X-Request-ID"), id);
  const std::string report = connection.getLastErrorMsg();
  for (const std::string& part : std::vector<std::string>{
           "HttpConnection error : bad html response code, got 200, expect 404 ", "\nX-Request-ID : " + id + "\n",
           "\nCurl diag info : \n", "\n> GET /secret HTTP/1.1\r\n", "\n> X-Request-ID: " + id + "\r\n",
           "< Content-Length: 22\r\n", "\n* "})
    EXPECT_THAT(report, HasSubstr(part));
  EXPECT_THAT(report, testing::ContainsRegex("\n# -> 0B @[0-9]+B/sec\n# <- 22B @[0-9]+B/sec\n"));
  EXPECT_THAT(report, Not(HasSubstr("BODY-MARKER")));
  // The logged trace is the same without the statistics lines.
  const std::vector<std::string> curlLog = verbose.texts("curl");
  ASSERT_EQ(curlLog.size(), 1u);
  EXPECT_THAT(curlLog[0], MatchesRegex("Curl debug output \n(.|\n|\r)*> GET /secret HTTP/1.1\r\n(.|\n|\r)*"));
  EXPECT_THAT(curlLog[0], Not(testing::ContainsRegex("# <- |BODY-MARKER")));
}

TEST_F(HttpConnectionTest, MovingToAnotherServerWarnsAndRestartsTheCounts) {
  LoopbackHttpServer other;
  kx::test::LogCapture verbose(true);
  const std::string warning = "Http connection was reused with a different host:port ";
  const std::string first = server.url("/echo"), second = other.url("/echo"),
                    third = other.urlWithHost("localhost", "/echo");  // same port, other host name
  for (const std::string* url : {&first, &first, &second, &third})
    ASSERT_TRUE(call.run(connection, *url)) << connection.getLastErrorMsg();
  EXPECT_EQ(verbose.count(warning + first + " " + second), 1u) << verbose.dump();
  EXPECT_EQ(verbose.count(warning + second + " " + third), 1u) << verbose.dump();
  EXPECT_EQ(verbose.count(warning + first + " " + first), 0u);
  EXPECT_EQ(connection.getConnectionUseCount(), 1u);
  EXPECT_EQ(connection.getSocketUseCount(), 1u);
}

// The single retry with any address family. No DNS server is involved: "kx-retry.test" resolves only
// through CURLOPT_RESOLVE set from the header callback, and a resolver-start callback that refuses to
// start stands for a name the system cannot resolve. curl discards an IPv4-only CURLOPT_RESOLVE entry
// under CURL_IPRESOLVE_V6, so a second attempt that kept the IPv6 preference would hit the refusing
// resolver: success proves the retry was set up anew with any family.
constexpr const char* kHost = "kx-retry.test";

class HttpConnectionRetryTest : public HttpConnectionTest {
 protected:
  ~HttpConnectionRetryTest() override { curl_slist_free_all(resolve); }

  // Attempts listed in `resolvable` get the CURLOPT_RESOLVE entry; every attempt gets the refusing resolver.
  void script(const LoopbackHttpServer& target, std::vector<int> resolvable) {
    curl_slist_free_all(resolve);
    resolve = curl_slist_append(nullptr, (std::string(kHost) + ":" + std::to_string(target.port()) + ":127.0.0.1").c_str());
    call.calls = 0;
    call.onCall = [this, resolvable](CURL* curl, HttpHeaders&, int attempt) {
      curl_resolver_start_callback refuse = [](void*, void*, void* count) { return ++*static_cast<int*>(count), 1; };
      curl_easy_setopt(curl, CURLOPT_RESOLVER_START_FUNCTION, refuse);
      curl_easy_setopt(curl, CURLOPT_RESOLVER_START_DATA, &resolverStarts);
      if (std::find(resolvable.begin(), resolvable.end(), attempt) != resolvable.end())
        curl_easy_setopt(curl, CURLOPT_RESOLVE, resolve);
      return 0;
    };
  }

  static HttpUrl Url(const std::string& text, kx::http::HostNameResolutionPolicy policy,
                     HttpPolicies policies = HttpPolicies()) {
    policies.setHostNameResolutionPolicy(policy);
    return kx::test::WithPolicies(text, policies);
  }

  curl_slist* resolve = nullptr;
  int resolverStarts = 0;
};

TEST_F(HttpConnectionRetryTest, OnlyOneRetryWithAnyFamilyAndOnlyUnderAPreference) {
  const std::string url = server.urlWithHost(kHost, "/echo");
  script(server, {2});
  ASSERT_TRUE(call.run(connection, Url(url, kx::http::HNRP_PreferIpv6))) << connection.getLastErrorMsg();
  EXPECT_EQ(call.calls, 2);
  EXPECT_EQ(resolverStarts, 1) << "the second attempt must take the IPv4-only entry";
  EXPECT_EQ(server.lastRequest().header("Host"), std::string(kHost) + ":" + std::to_string(server.port()));
  EXPECT_EQ(connection.getLastErrorMsg().rfind("Http return code 200\n", 0), 0u) << connection.getLastErrorMsg();

  HttpConnection fresh;  // the first one still holds a socket to the server
  script(server, {});
  EXPECT_FALSE(call.run(fresh, Url(url, kx::http::HNRP_PreferIpv4)));
  EXPECT_EQ(call.calls, 2);
  EXPECT_EQ(Access::LastCurlCode(fresh), CURLE_COULDNT_RESOLVE_HOST);
  EXPECT_EQ(fresh.getLastErrorMsg().rfind("HttpConnection error : Curl easy perform error after ", 0), 0u);
  script(server, {});
  EXPECT_FALSE(call.run(fresh, Url(url, kx::http::HNRP_Whatever)));
  EXPECT_EQ(call.calls, 1);
  EXPECT_EQ(server.requestCount(), 1u);
}

}  // namespace
