// getLastErrorMsg: its sections and their order, the connection history line, the verbose curl trace,
// and the warning when a connection moves to another server.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kx/http/HttpConnectionParameters.h>

#include "core/ConnectionTestCall.h"
#include "support/LogCapture.h"
#include "support/LoopbackHttpServer.h"

#include <string>
#include <vector>

namespace {

using kx::http::HttpConnection;
using kx::test::ConnectionTestCall;
using kx::test::LoopbackHttpServer;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

class HttpConnectionErrorReportTest : public kx::test::CorvixSuite {
 protected:
  LoopbackHttpServer server;
  HttpConnection connection;
  ConnectionTestCall call;
};

TEST_F(HttpConnectionErrorReportTest, ConnectionWithoutHandleReportsNothing) {
  EXPECT_EQ(connection.getLastErrorMsg(), "");
}

TEST_F(HttpConnectionErrorReportTest, SuccessStillReportsStatusAndHistory) {
  kx::test::LogCapture quiet(false);
  ASSERT_TRUE(call.run(connection, server.url("/echo")));
  EXPECT_THAT(connection.getLastErrorMsg(),
              MatchesRegex("Http return code 200\nConnection created [0-9.]+m?s ago, first use, "
                           "connection use count 1, socket use count 1"));
  ASSERT_TRUE(call.run(connection, server.url("/echo")));
  EXPECT_THAT(connection.getLastErrorMsg(),
              MatchesRegex("Http return code 200\nConnection created [0-9.]+m?s ago, previous use was [0-9.]+m?s "
                           "ago, connection use count 2, socket use count 2"));
}

TEST_F(HttpConnectionErrorReportTest, SectionsInOrderWithExtraInfo) {
  kx::test::LogCapture quiet(false);
  const std::string url = server.url("/status/503");
  ASSERT_FALSE(call.run(connection, url));
  connection.addErrorInfo("");
  connection.addErrorInfo("received [status 503]");
  connection.addErrorInfo("second");
  EXPECT_THAT(connection.getLastErrorMsg(),
              MatchesRegex("HttpConnection error : bad html response code, got 503, expect 200 " + url +
                           "\nHttp return code 503\nExtra error info : received \\[status 503\\] second\n"
                           "Connection created [^\n]+"));
  // A new call starts a new report.
  ASSERT_TRUE(call.run(connection, server.url("/echo")));
  EXPECT_THAT(connection.getLastErrorMsg(), Not(HasSubstr("Extra error info")));
}

TEST_F(HttpConnectionErrorReportTest, VerboseTraceShowsHeadersButNoBody) {
  server.Get("/secret", [](const httplib::Request&, httplib::Response& res) {
    res.set_content("BODY-MARKER-0123456789", "text/plain");
  });
  kx::test::LogCapture verbose(true);
  // Uncompressed, so the body's own bytes would show if they leaked into the trace.
  connection.editConnectionParameters().acceptEncoding = false;
  ASSERT_FALSE(call.run(connection, server.url("/secret"), 404));
  EXPECT_EQ(call.body, "BODY-MARKER-0123456789");
  const std::string report = connection.getLastErrorMsg();
  EXPECT_THAT(report, HasSubstr("HttpConnection error : bad html response code, got 200, expect 404 "));
  EXPECT_THAT(report, HasSubstr("\nX-Request-ID : " + connection.getLastRequestId() + "\n"));
  EXPECT_THAT(report, HasSubstr("\nCurl diag info : \n"));
  EXPECT_THAT(report, HasSubstr("\n> GET /secret HTTP/1.1\r\n"));
  EXPECT_THAT(report, HasSubstr("\n> Connection: Keep-Alive\r\n"));
  EXPECT_THAT(report, HasSubstr("\n> X-Request-ID: " + connection.getLastRequestId() + "\r\n"));
  EXPECT_THAT(report, HasSubstr("< HTTP/1.1 200 OK\r\n"));
  EXPECT_THAT(report, HasSubstr("< Content-Length: 22\r\n"));
  EXPECT_THAT(report, HasSubstr("\n* "));
  EXPECT_THAT(report, ContainsRegex("\n# -> 0B @[0-9]+B/sec\n# <- 22B @[0-9]+B/sec\n"));
  EXPECT_THAT(report, Not(HasSubstr("BODY-MARKER")));
  // The logged trace is the same without the statistics lines.
  const std::vector<std::string> curlLog = verbose.texts("curl");
  ASSERT_EQ(curlLog.size(), 1u);
  EXPECT_EQ(curlLog[0].rfind("Curl debug output \n", 0), 0u);
  EXPECT_THAT(curlLog[0], HasSubstr("> GET /secret HTTP/1.1\r\n"));
  EXPECT_THAT(curlLog[0], Not(HasSubstr("# <- ")));
  EXPECT_THAT(curlLog[0], Not(HasSubstr("BODY-MARKER")));
}

TEST_F(HttpConnectionErrorReportTest, NoTraceWithoutVerboseLog) {
  kx::test::LogCapture quiet(false);
  ASSERT_FALSE(call.run(connection, server.url("/status/404")));
  EXPECT_THAT(connection.getLastErrorMsg(), Not(HasSubstr("Curl diag info")));
  EXPECT_TRUE(quiet.texts("curl").empty());
}

TEST_F(HttpConnectionErrorReportTest, MovingToAnotherServerWarnsAndRestartsTheCounts) {
  LoopbackHttpServer other;
  kx::test::LogCapture verbose(true);
  ASSERT_TRUE(call.run(connection, server.url("/echo")));
  ASSERT_TRUE(call.run(connection, server.url("/echo")));
  EXPECT_EQ(connection.getConnectionUseCount(), 2u);
  EXPECT_FALSE(verbose.containsFragment("reused with a different host:port"));

  ASSERT_TRUE(call.run(connection, other.url("/echo")));
  EXPECT_TRUE(verbose.contains("Http connection was reused with a different host:port " + server.url("/echo") + " " +
                               other.url("/echo")))
      << verbose.dump();
  EXPECT_EQ(connection.getConnectionUseCount(), 1u);
  EXPECT_EQ(connection.getSocketUseCount(), 1u);

  // Same port, other host name: also another server.
  ASSERT_TRUE(call.run(connection, other.urlWithHost("localhost", "/echo")));
  EXPECT_EQ(connection.getConnectionUseCount(), 1u);
  EXPECT_EQ(verbose.count("Http connection was reused with a different host:port " + other.url("/echo") + " " +
                          other.urlWithHost("localhost", "/echo")),
            1u);
}

}  // namespace
