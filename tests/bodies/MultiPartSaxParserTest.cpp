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
using kx::test::ParsedPart;
using kx::test::SaxCollector;
using namespace std::string_literals;

const std::string kBody = "--b\r\nContent-Disposition: form-data; name=f; filename=\"r.bin\"\r\n\r\n\0\r\n-\r\n--b--\r\n"s;

TEST(MultiPartSaxParserTest, HandlerRefusalStopsTheParse) {
  kx::http::HttpHeaders headers;
  headers.addHeaderValue("Content-Type", "multipart/form-data; boundary=b");
  std::vector<char> work;
  SaxCollector parser(headers, work);
  parser.refuseData = true;
  EXPECT_EQ(parser.write(kBody.data(), kBody.size()), 0u);
  EXPECT_EQ(parser.getDeviceErrorMsg(), "Multipart part handler stopped the parse");
  EXPECT_EQ(parser.write("x", 1), 0u);
  EXPECT_FALSE(parser.isAllDataConsumed());
}

TEST(MultiPartSaxParserTest, ReadSideIsRefused) {
  kx::http::HttpHeaders headers;
  std::vector<char> work;
  SaxCollector parser(headers, work);
  EXPECT_TRUE(parser.isAllDataConsumed());
  kx::test::LogCapture log;
  EXPECT_FALSE(parser.atEnd());
  ASSERT_EQ(log.records().size(), 1u);
  EXPECT_EQ(log.records()[0].type, 5);
  EXPECT_EQ(log.texts("multipart"), std::vector<std::string>{"Not implemented : MultiPartSaxParser::atEnd"});
  char byte;
  EXPECT_EQ(parser.readBytes(&byte, 1), 0u);
  EXPECT_EQ(parser.getDeviceErrorMsg(), "read not implemented");
}

TEST(MultiPartSaxParserTest, ParsesAResponseButNotOneThatFollowedARedirect) {
  kx::test::LoopbackHttpServer server;
  server.Get("/form", [](const httplib::Request&, httplib::Response& res) {
    res.set_content(kBody, "multipart/form-data; boundary=b");
  });
  server.Get("/moved", [](const httplib::Request&, httplib::Response& res) {
    res.status = 302;
    res.set_header("Location", "/form");
    res.set_content("moved", "text/html");
  });
  kx::http::HttpConnection connection;
  kx::test::LogCapture log;
  for (const std::string path : {"/form", "/moved"}) {
    SCOPED_TRACE(path);
    kx::http::HttpHeaders headers;
    std::vector<char> work;
    SaxCollector parser(headers, work);
    HttpHelpers::HttpResult result;
    result.headers = &headers;
    result.responseSink = &parser;
    const bool ok = HttpHelpers::HttpGet(connection, kx::http::HttpUrl(server.url(path)), &result, nullptr, nullptr,
                                         nullptr);
    EXPECT_EQ(ok, path == "/form");
    if (path == "/form") {
      EXPECT_TRUE(parser.isAllDataConsumed());
      EXPECT_EQ(parser.parts, (std::vector<ParsedPart>{{"f", "r.bin", "", std::string("\0\r\n-", 4)}}));
    } else {
      EXPECT_EQ(parser.getDeviceErrorMsg(), "Multiple content-type header in http response");
      EXPECT_TRUE(parser.parts.empty());
      EXPECT_TRUE(log.containsFragment("(device in error : Multiple content-type header in http response)"));
    }
  }
}

}  // namespace
