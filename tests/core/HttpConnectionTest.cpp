// HttpConnection::getHttpData against the loopback servers: what the server receives, the status and
// content-type checks, the failures before any transfer, keep-alive reuse, time-outs and cancellation.
#include <gtest/gtest.h>

#include <kx/http/HttpAuthenticatorInterface.h>
#include <kx/http/HttpConnectionParameters.h>
#include <kx/system/kxCancelFlag.h>
#include <kx/system/kxStringUtils.h>

#include "core/ConnectionTestCall.h"
#include "support/LogCapture.h"
#include "support/LoopbackHttpServer.h"
#include "support/RawTcpFaultServer.h"

#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>
#include "core/HttpConnectionAccess.h"

namespace {

using Access = kx::http::detail::HttpConnectionAccess;

using kx::http::HttpConnection;
using kx::http::HttpHeaders;
using kx::http::HttpUrl;
using kx::test::ConnectionTestCall;
using kx::test::LoopbackHttpServer;

// Adds one header, or fails with a fixed text.
class TestAuthenticator : public kx::http::HttpAuthenticatorInterface {
 public:
  explicit TestAuthenticator(std::string error) : error_(std::move(error)) {}
  bool equalTo(const HttpAuthenticatorInterface&) const override { return false; }
  bool getAuthenticationHttpHeaders(const HttpUrl&, HttpHeaders& headers, std::string& error) override {
    if (!error_.empty()) {
      error = error_;
      return false;
    }
    headers.addHeaderValue("X-Order", "authenticator");
    return true;
  }
  std::unique_ptr<HttpAuthenticatorInterface> cloneAuthenticator() override {
    return std::make_unique<TestAuthenticator>(error_);
  }

 private:
  std::string error_;
};

class HttpConnectionTest : public kx::test::CorvixSuite {
 protected:
  LoopbackHttpServer server;
  HttpConnection connection;
  ConnectionTestCall call;
};

TEST_F(HttpConnectionTest, SendsDefaultThenCommonThenRequestHeaders) {
  kx::test::LogCapture quiet(false);
  kx::EditDefaultHttpHeaders().addHeaderValue("X-Order", "default");
  connection.editCommonHeaders().addHeaderValues("X-Order", std::vector<std::string>{"common1", "common2"});
  HttpUrl url(server.url("/echo"));
  url.addAuthenticator(std::make_unique<TestAuthenticator>(""));
  call.onCall = [](CURL*, HttpHeaders& headers, int) {
    headers.addHeaderValue("X-Order", "callback");
    return 0;
  };
  const bool ok = call.run(connection, url);
  kx::EditDefaultHttpHeaders().removeHeader("X-Order");
  ASSERT_TRUE(ok) << connection.getLastErrorMsg();
  const auto request = server.lastRequest();
  EXPECT_EQ(request.headerValues("X-Order"),
            (std::vector<std::string>{"default", "common1", "common2", "authenticator", "callback"}));
  EXPECT_EQ(request.header("Connection"), "Keep-Alive");
  EXPECT_EQ(request.header("User-Agent"), "kx-connection-tests");
  EXPECT_FALSE(request.hasHeader("X-Request-ID")) << "ids are only sent with the log verbose";
  EXPECT_EQ(connection.getLastRequestId(), "");
}

TEST_F(HttpConnectionTest, VerboseLogSendsRequestId) {
  kx::test::LogCapture verbose(true);
  ASSERT_TRUE(call.run(connection, server.url("/echo"))) << connection.getLastErrorMsg();
  const std::string id = connection.getLastRequestId();
  ASSERT_EQ(id.size(), 36u);
  EXPECT_EQ(id[14], '4');
  EXPECT_EQ(server.lastRequest().header("X-Request-ID"), id);
}

TEST_F(HttpConnectionTest, StatusCheck) {
  const std::string url = server.url("/status/404");
  EXPECT_FALSE(call.run(connection, url, 200));
  EXPECT_EQ(connection.getLastHttpReturnCode(), 404);
  EXPECT_EQ(connection.getLastErrorMsg().substr(0, connection.getLastErrorMsg().find('\n')),
            "HttpConnection error : bad html response code, got 404, expect 200 " + url);
  EXPECT_TRUE(Access::HasCurlHandle(connection)) << "a wrong status keeps the handle";
  EXPECT_EQ(call.body, "status 404\n");

  EXPECT_TRUE(call.run(connection, url, 0)) << "0 accepts any status";
  EXPECT_TRUE(call.run(connection, server.url("/status/500"), -1));
  EXPECT_TRUE(call.run(connection, url, 404));
}

TEST_F(HttpConnectionTest, ContentTypeCheckIsExact) {
  const std::string url = server.url("/status/200");
  ASSERT_TRUE(call.run(connection, url, 200, "")) << connection.getLastErrorMsg();
  const std::string type = connection.getLastReceivedType();
  ASSERT_FALSE(type.empty());
  EXPECT_TRUE(call.run(connection, url, 200, type));
  EXPECT_FALSE(call.run(connection, url, 200, "application/json"));
  EXPECT_EQ(connection.getLastErrorMsg().substr(0, connection.getLastErrorMsg().find('\n')),
            "HttpConnection error : bad content type, got " + type + ", expect application/json " + url);
  EXPECT_FALSE(call.run(connection, url, 200, kx::kxStringUtils::AsciiToUpper(type)));
  EXPECT_TRUE(Access::HasCurlHandle(connection));
}

TEST_F(HttpConnectionTest, FailuresBeforeTheTransferSendNothing) {
  ASSERT_TRUE(call.run(connection, server.url("/echo")));
  ASSERT_TRUE(Access::HasCurlHandle(connection));

  HttpUrl url(server.url("/echo"));
  url.addAuthenticator(std::make_unique<TestAuthenticator>("token expired"));
  EXPECT_FALSE(call.run(connection, url));
  EXPECT_EQ(connection.getLastErrorMsg().substr(0, connection.getLastErrorMsg().find('\n')),
            "HttpConnection error : Authenticator return an error : token expired");
  EXPECT_FALSE(Access::HasCurlHandle(connection));

  call.onCall = [](CURL*, HttpHeaders&, int) { return 7; };
  EXPECT_FALSE(call.run(connection, server.url("/echo")));
  EXPECT_EQ(connection.getLastErrorMsg().substr(0, connection.getLastErrorMsg().find('\n')),
            "HttpConnection error : User callback return and error");
  EXPECT_FALSE(Access::HasCurlHandle(connection));
  call.onCall = nullptr;

  EXPECT_FALSE(call.run(connection, "ftp://127.0.0.1/file"));
  EXPECT_EQ(connection.getLastErrorMsg().substr(0, connection.getLastErrorMsg().find('\n')),
            "HttpConnection error : Fail to setupconnection");

  HttpUrl noHost;
  noHost.setScheme("http");
  EXPECT_FALSE(call.run(connection, noHost));
  EXPECT_EQ(connection.getLastErrorMsg().substr(0, connection.getLastErrorMsg().find('\n')),
            "HttpConnection error : Invalid http url");
  EXPECT_EQ(server.requestCount(), 1u);
}

TEST_F(HttpConnectionTest, BodyWithoutSinkFailsWithWriteError) {
  EXPECT_FALSE(connection.getHttpData(HttpUrl(server.url("/echo")), "", 200, nullptr, nullptr, nullptr));
  EXPECT_EQ(Access::LastCurlCode(connection), CURLE_WRITE_ERROR);
  EXPECT_FALSE(Access::HasCurlHandle(connection)) << "a transfer error destroys the handle";
}

TEST(HttpConnectionUninitializedTest, RefusesToCreateAHandle) {
  if (kx::IsCorvixInitialized()) GTEST_SKIP() << "initialised by another part of this test program";
  kx::test::LogCapture log;
  HttpConnection connection;
  ConnectionTestCall call;
  EXPECT_FALSE(call.run(connection, "http://127.0.0.1:1/"));
  EXPECT_EQ(connection.getLastErrorMsg(), "HttpConnection error : Corvix library not initialized.");
  EXPECT_TRUE(log.contains("Corvix library not initialized."));
  EXPECT_EQ(call.calls, 0);
}

TEST_F(HttpConnectionTest, KeepAliveReusesTheSocketAndCountsItsUses) {
  HttpConnection tracked(true);
  std::vector<uint64_t> socketUses;
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(call.run(tracked, server.url("/echo"))) << tracked.getLastErrorMsg();
    socketUses.push_back(tracked.getSocketUseCount());
  }
  EXPECT_EQ(server.acceptedConnections(), 1u);
  EXPECT_TRUE(tracked.isUnderlyingSockerValid());
  // The server drops the idle socket: the next call reconnects, often on the same descriptor number.
  server.closeConnections();
  ASSERT_TRUE(call.run(tracked, server.url("/echo"))) << tracked.getLastErrorMsg();
  socketUses.push_back(tracked.getSocketUseCount());
  EXPECT_EQ(server.acceptedConnections(), 2u);
  EXPECT_EQ(socketUses, (std::vector<uint64_t>{0, 1, 2, 0}));
  EXPECT_EQ(tracked.getConnectionUseCount(), 4u);
}

TEST_F(HttpConnectionTest, LowSpeedRuleEndsAStalledTransfer) {
  kx::test::RawTcpFaultServer stall(kx::test::RawTcpFaultServer::Mode::kStall);
  ASSERT_TRUE(stall.isRunning()) << stall.startError();
  connection.editConnectionParameters().lowSpeedTimeSec = 1;
  EXPECT_FALSE(call.run(connection, stall.url("/stalled")));
  EXPECT_TRUE(connection.isLastCallTimedOut());
  EXPECT_TRUE(connection.wasAbortedByCallback()) << "inverted: true when not aborted";
  const std::string report = connection.getLastErrorMsg();
  EXPECT_EQ(report.rfind("HttpConnection error : Curl easy perform error after ", 0), 0u) << report;
  const std::string expected = "s, " + stall.url("/stalled") +
                               "\nCurl error : CURLE_OPERATION_TIMEDOUT (28), Timeout was reached\n"
                               "Curl internal error : Operation too slow.";
  EXPECT_NE(report.find(expected), std::string::npos) << report;
  EXPECT_FALSE(Access::HasCurlHandle(connection));
}

TEST_F(HttpConnectionTest, CancelFromAnotherThreadStopsTheTransferAndKeepsTheHandle) {
  kx::kxCancelFlag cancel;
  std::promise<void> firstBytes;
  std::thread canceller([&cancel, started = firstBytes.get_future()]() mutable {
    started.wait();
    cancel.cancel();
  });
  struct Sink {
    std::promise<void>* firstBytes;
    size_t received = 0;
  } sink{&firstBytes};
  call.onCall = [&sink](CURL* curl, HttpHeaders&, int) {
    curl_write_callback write = [](char*, size_t size, size_t count, void* data) {
      auto* s = static_cast<Sink*>(data);
      if (s->received == 0) s->firstBytes->set_value();
      s->received += size * count;
      return size * count;
    };
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, write);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &sink);
    return 0;
  };
  const std::string url = server.url("/slow?chunk=10&intervalMs=20&bytes=1000000");
  const bool ok = call.run(connection, HttpUrl(url), 200, "", &cancel);
  if (sink.received == 0) firstBytes.set_value();  // never leave the canceller waiting
  canceller.join();
  EXPECT_FALSE(ok);
  EXPECT_EQ(Access::LastCurlCode(connection), CURLE_ABORTED_BY_CALLBACK);
  EXPECT_FALSE(connection.wasAbortedByCallback()) << "inverted: false after a cancelled transfer";
  EXPECT_GT(sink.received, 0u);
  EXPECT_LT(sink.received, 1000000u);
  const std::string report = connection.getLastErrorMsg();
  EXPECT_EQ(report.rfind("HttpConnection error : Curl easy perform canceled after ", 0), 0u) << report;
  EXPECT_TRUE(Access::HasCurlHandle(connection));
}

}  // namespace
