// What only the push parser does: handler refusals, the unsupported read side, and its use as the
// response sink of the request helpers against the loopback server, redirects included.
#include <gtest/gtest.h>

#include <kx/http/HttpConnection.h>
#include <kx/http/HttpHelpers.h>
#include <kx/http/HttpUrl.h>

#include "bodies/MultiPartRun.h"
#include "support/LogCapture.h"
#include "support/LoopbackHttpServer.h"

namespace {

using kx::http::HttpHelpers;
using kx::test::SaxCollector;
using namespace std::string_literals;

const std::string kBody =
    "--b\r\nContent-Disposition: form-data; name=f; filename=\"r.bin\"\r\n\r\n\0\r\n-\r\n--b--\r\n"s;

TEST(MultiPartSaxParserTest, HandlerRefusalAndReadSideStopTheParse) {
  kx::http::HttpHeaders headers;
  headers.addHeaderValue("Content-Type", "multipart/form-data; boundary=b");
  std::vector<char> work[2];
  SaxCollector refusing(headers, work[0]), reading(headers, work[1]);
  refusing.refuseData = true;
  EXPECT_EQ(refusing.write(kBody.data(), kBody.size()), 0u);
  EXPECT_EQ(refusing.getDeviceErrorMsg(), "Multipart part handler stopped the parse");
  EXPECT_EQ(refusing.write("x", 1), 0u);
  EXPECT_FALSE(refusing.isAllDataConsumed());

  EXPECT_TRUE(reading.isAllDataConsumed());
  kx::test::LogCapture log;
  EXPECT_FALSE(reading.atEnd());
  EXPECT_EQ(log.dump(), "5 [multipart] Not implemented : MultiPartSaxParser::atEnd\n");
  char byte;
  EXPECT_EQ(reading.readBytes(&byte, 1), 0u);
  EXPECT_EQ(reading.getDeviceErrorMsg(), "read not implemented");
}

// A followed redirect leaves the Content-Type of both responses in the result's headers.
TEST(MultiPartSaxParserTest, ParsesAResponseButNotOneThatFollowedARedirect) {
  kx::test::LoopbackHttpServer server;
  server.Get("/form", [](const auto&, auto& res) { res.set_content(kBody, "multipart/form-data; boundary=b"); });
  server.Get("/moved", [](const auto&, auto& res) {
    res.status = 302;
    res.set_header("Location", "/form");
    res.set_content("moved", "text/html");
  });
  kx::http::HttpConnection connection;
  kx::test::LogCapture log;
  kx::http::HttpHeaders headers[2];
  std::vector<char> work[2];
  SaxCollector direct(headers[0], work[0]), redirected(headers[1], work[1]);
  HttpHelpers::HttpResult results[2];
  for (int i : {0, 1}) {
    results[i].headers = &headers[i];
    results[i].responseSink = i == 0 ? &direct : &redirected;
  }
  const auto url = [&](const char* path) { return kx::http::HttpUrl(server.url(path)); };
  EXPECT_TRUE(HttpHelpers::HttpGet(connection, url("/form"), &results[0], nullptr, nullptr, nullptr));
  EXPECT_TRUE(direct.isAllDataConsumed());
  EXPECT_EQ(direct.parts, (std::vector<kx::test::ParsedPart>{{"f", "r.bin", "", "\0\r\n-"s}}));

  EXPECT_FALSE(HttpHelpers::HttpGet(connection, url("/moved"), &results[1], nullptr, nullptr, nullptr));
  EXPECT_EQ(redirected.getDeviceErrorMsg(), "Multiple content-type header in http response");
  EXPECT_TRUE(redirected.parts.empty());
  EXPECT_TRUE(log.containsFragment("(device in error : Multiple content-type header in http response)"));
}

}  // namespace
