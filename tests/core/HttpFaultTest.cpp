// Transfer faults as a caller meets them: each row runs one request helper on a connection leased from
// a pool against a server that misbehaves, and checks that the call fails with the exact report, that
// the failed connection is not pooled, that no descriptor outlives the row and that the same pool then
// serves a good request.
#include <gtest/gtest.h>

#include <kx/http/HttpConnection.h>
#include <kx/http/HttpConnectionLocker.h>
#include <kx/http/HttpConnectionParameters.h>
#include <kx/http/HttpConnectionPool.h>
#include <kx/http/HttpHelpers.h>
#include <kx/http/HttpPolicies.h>
#include <kx/http/HttpUrl.h>
#include <kx/system/kxCancelFlag.h>

#include "core/ConnectionTestCall.h"
#include "support/LogCapture.h"
#include "support/LoopbackHttpServer.h"
#include "support/RawTcpFaultServer.h"

#include <chrono>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using kx::http::HttpConnectionLocker;
using kx::http::HttpConnectionPool;
using kx::http::HttpHelpers;
using kx::http::HttpUrl;
using kx::test::LoopbackHttpServer;
using kx::test::RawTcpFaultServer;
using Mode = RawTcpFaultServer::Mode;
using Tls = kx::test::LoopbackHttpServerOptions::Tls;

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// Where the request goes: to the raw server itself, through a proxy on its closed port, or over TLS
// to a loopback server that cannot complete the handshake.
enum class Target { kRawServer, kClosedProxy, kHttpsToPlainServer, kHttpsUntrusted };
enum class Helper { kGet, kGetJson, kPut };

struct FaultCase {
  const char* name;
  Target target;
  Mode mode;              // of the raw server
  Helper helper;
  bool cancel;            // cancelled once the raw server has read the request
  bool headArrived;       // "Http return code 200", else the empty body excerpt of a missing status
  const char* curlError;  // the report's exact "Curl error : " line
  const char* internal;   // part of curl's own message; {port} stands for the raw server's port
};

constexpr FaultCase kFaultCases[] = {
    {"Refused", Target::kRawServer, Mode::kRefuse, Helper::kGet, false, false,
     "Curl error : CURLE_COULDNT_CONNECT (7), Couldn't connect to server",
     "Failed to connect to 127.0.0.1 port {port} after "},
    {"AcceptAndClose", Target::kRawServer, Mode::kAcceptAndClose, Helper::kPut, false, false,
     "Curl error : CURLE_GOT_NOTHING (52), Server returned nothing (no headers, no data)",
     "Empty reply from server"},
    {"ResetMidBody", Target::kRawServer, Mode::kResetAfterPartialResponse, Helper::kGetJson, false, true,
     "Curl error : CURLE_RECV_ERROR (56), Failure when receiving data from the peer",
     "Connection reset by peer"},
    {"HalfResponse", Target::kRawServer, Mode::kPartialResponse, Helper::kGet, false, true,
     "Curl error : CURLE_PARTIAL_FILE (18), Transferred a partial file",
     "transfer closed with 988 bytes remaining to read"},
    {"StallAfterPartialBody", Target::kRawServer, Mode::kStallAfterPartialResponse, Helper::kGet, false, true,
     "Curl error : CURLE_OPERATION_TIMEDOUT (28), Timeout was reached",
     "Operation too slow. Less than 100 bytes/sec transferred the last 1 seconds"},
    {"ProxyDown", Target::kClosedProxy, Mode::kRefuse, Helper::kGetJson, false, false,
     "Curl error : CURLE_COULDNT_CONNECT (7), Couldn't connect to server",
     "Failed to connect to 127.0.0.1 port {port} after "},
    {"TlsOnPlainServer", Target::kHttpsToPlainServer, Mode::kRefuse, Helper::kGet, false, false,
     "Curl error : CURLE_SSL_CONNECT_ERROR (35), SSL connect error",
     "wrong version number"},
    {"TlsUnverifiedPeer", Target::kHttpsUntrusted, Mode::kRefuse, Helper::kPut, false, false,
     "Curl error : CURLE_PEER_FAILED_VERIFICATION (60), SSL peer certificate or SSH remote key was not OK",
     "SSL certificate problem: unable to get local issuer certificate"},
    {"Canceled", Target::kRawServer, Mode::kStall, Helper::kGetJson, true, false,
     "Curl error : CURLE_ABORTED_BY_CALLBACK (42), Operation was aborted by an application callback",
     "Callback aborted"},
};

class HttpFaultTest : public testing::Test, public testing::WithParamInterface<FaultCase> {
 protected:
  // Whatever libcurl and OpenSSL open once per process (and keep) is opened here, before any row counts.
  static void SetUpTestSuite() {
    kx::test::LogCapture quiet(false);
    LoopbackHttpServer secure({.tls = Tls::kOn});
    kx::http::HttpConnection connection;
    EXPECT_TRUE(HttpHelpers::HttpGet(connection, HttpUrl(secure.url("/echo")), nullptr, nullptr, nullptr, nullptr));
  }

  static bool Call(Helper helper, kx::http::HttpConnection& connection, const HttpUrl& url,
                   const kx::http::HttpConnectionParameters* params, const kx::kxCancelInterfaceReadOnly* cancel) {
    std::string json;
    switch (helper) {
      case Helper::kGet:
        return HttpHelpers::HttpGet(connection, url, nullptr, params, nullptr, cancel);
      case Helper::kGetJson:
        return HttpHelpers::HttpGetJson(connection, url, json, nullptr, params, nullptr, cancel, nullptr, 0, false);
      case Helper::kPut:  // empty body: nothing is left unread when the server closes
        return HttpHelpers::HttpPut(connection, url, std::string(), 200, nullptr, params, nullptr, cancel);
    }
    return true;
  }

  kx::test::LogCapture quiet{false};
};

TEST_P(HttpFaultTest, FailsWithItsReportAndLeavesNothingBehind) {
  const FaultCase& c = GetParam();
  const size_t descriptorsBefore = kx::test::OpenDescriptors();
  {
    // Servers first: they stop after the pool has closed its sockets, and take their own ends along.
    LoopbackHttpServer good;
    RawTcpFaultServer raw(c.mode);
    ASSERT_TRUE(raw.isRunning()) << raw.startError();
    std::optional<LoopbackHttpServer> tls;
    std::string url;
    std::string shown;  // the URL as the report shows it
    kx::http::HttpConnectionParameters params;
    kx::kxCancelFlag cancel;
    std::thread canceller;
    switch (c.target) {
      case Target::kRawServer:
        url = shown = raw.url("/fault");
        break;
      case Target::kClosedProxy:
        url = "http://proxied.invalid/fault";
        shown = url + " {Proxy:http://127.0.0.1:" + std::to_string(raw.port()) + "}";
        break;
      case Target::kHttpsToPlainServer:
        // The server waits for the end of a request line that a TLS client never sends, then answers 400.
        tls.emplace(kx::test::LoopbackHttpServerOptions{.ioTimeout = std::chrono::milliseconds(200)});
        url = shown = "https://127.0.0.1:" + std::to_string(tls->port()) + "/echo";
        break;
      case Target::kHttpsUntrusted:
        // A certificate for another name from a CA the helpers cannot be told to trust: the chain fails
        // first. (The name check alone needs CURLOPT_CAINFO, which only a raw header callback can set.)
        tls.emplace(kx::test::LoopbackHttpServerOptions{.tls = Tls::kOn, .wrongNameCertificate = true});
        url = shown = tls->urlWithHost("localhost", "/echo");
        break;
    }
    HttpUrl target(url);
    if (c.target == Target::kClosedProxy) {
      kx::http::HttpPolicies policies;
      const HttpUrl proxy("http://127.0.0.1:" + std::to_string(raw.port()));
      ASSERT_TRUE(policies.setHttpProxyPolicy(kx::http::PP_StaticProxy, &proxy));
      target.setPolicies(std::make_shared<const kx::http::HttpPolicies>(policies));
    }
    // libcurl judges the low-speed rule on its average over 5 s: above the partial body's rate, the
    // stall counts from the first second.
    params.lowSpeedLimit = 100;
    params.lowSpeedTimeSec = 1;
    if (c.cancel) {
      canceller = std::thread([&] {
        EXPECT_TRUE(raw.waitForRequests(1, std::chrono::seconds(10)));
        cancel.cancel();
      });
    }

    HttpConnectionPool pool;
    std::string report;
    {
      HttpConnectionLocker lease(pool, target);
      EXPECT_FALSE(Call(c.helper, *lease, target, &params, &cancel));
      report = lease->getLastErrorMsg();
      EXPECT_EQ(lease->isLastCallTimedOut(), std::string(c.curlError).find(" (28), ") != std::string::npos);
      EXPECT_EQ(lease->wasAbortedByCallback(), !c.cancel) << "inverted: false after a cancelled transfer";
    }
    if (canceller.joinable()) canceller.join();
    EXPECT_EQ(pool.getIdleConnectionCount(), 0u) << "a failed connection went back to the pool";

    // Sections in order: whole lines, or (prefix true) the start of a line whose rest varies.
    std::vector<std::pair<std::string, bool>> expected = {
        {std::string("HttpConnection error : Curl easy perform ") +
             (c.cancel ? "canceled after " : "error after "),
         true}};
    if (c.headArrived) expected.emplace_back("Http return code 200", false);
    expected.emplace_back(c.curlError, false);
    if (!c.headArrived) expected.emplace_back("Extra error info : received []", false);
    expected.emplace_back("Curl internal error : ", true);
    expected.emplace_back("Connection created ", true);
    const std::vector<std::string> lines = Lines(report);
    ASSERT_EQ(lines.size(), expected.size()) << report;
    EXPECT_EQ(lines[0].substr(lines[0].rfind(", ") + 2), shown) << report;
    std::string internal = c.internal;
    if (size_t at = internal.find("{port}"); at != std::string::npos)
      internal.replace(at, 6, std::to_string(raw.port()));
    EXPECT_NE(lines[lines.size() - 2].find(internal), std::string::npos) << report;
    for (size_t i = 0; i < lines.size(); ++i)
      EXPECT_EQ(expected[i].second ? lines[i].substr(0, expected[i].first.size()) : lines[i], expected[i].first)
          << report;

    pool.releaseAllConnections();
    HttpConnectionLocker again(pool, "127.0.0.1", good.port());
    EXPECT_TRUE(HttpHelpers::HttpGet(*again, HttpUrl(good.url("/echo")), nullptr, nullptr, nullptr, nullptr))
        << again->getLastErrorMsg();
  }
  EXPECT_EQ(kx::test::OpenDescriptors(), descriptorsBefore);
}

INSTANTIATE_TEST_SUITE_P(Faults, HttpFaultTest, testing::ValuesIn(kFaultCases),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
