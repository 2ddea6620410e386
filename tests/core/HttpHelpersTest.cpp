// HttpHelpers against the loopback server: methods and what the server receives, status checks with the
// error excerpt, the sink rules, response headers, the log texts and GenericCall's
// context (progress callback, method codes, per-call parameters).
#include <gtest/gtest.h>

#include <kx/http/HttpConnection.h>
#include <kx/http/HttpConnectionParameters.h>
#include <kx/http/HttpHeaders.h>
#include <kx/http/HttpHelpers.h>
#include <kx/http/HttpUrl.h>
#include <kx/system/kxIoDeviceStringWriteOnly.h>

#include "core/ConnectionTestCall.h"
#include "core/HttpCallContext.h"
#include "support/LogCapture.h"
#include "support/LoopbackHttpServer.h"

#include <cstring>
#include <functional>
#include <list>
#include <string>
#include "core/HttpConnectionAccess.h"

namespace {

using Access = kx::http::detail::HttpConnectionAccess;

using kx::http::HttpConnection;
using kx::http::HttpHeaders;
using kx::http::HttpHelpers;
using kx::http::HttpUrl;
using kx::test::LoopbackHttpServer;
using Result = HttpHelpers::HttpResult;

class HttpHelpersTest : public testing::Test {
 protected:
  HttpUrl Url(const std::string& path) const { return HttpUrl(server.url(path)); }
  std::string Report() const { return connection.getLastErrorMsg(); }

  kx::test::LogCapture log{false};
  LoopbackHttpServer server;
  HttpConnection connection;
};

// Each helper: the method, body and framing the server receives, and whether its failure is logged
// and with which prefix.
const std::string kDoc = R"({"ids":[1,2]})";
struct HelperCase {
  const char* name;
  const char* method;
  bool sendsDoc;            // else no body and no Content-Length
  const char* contentType;  // "": none sent
  const char* logPrefix;    // "" when the helper does not log
  std::function<bool(HttpConnection&, const HttpUrl&)> call;
};
const HelperCase kHelperCases[] = {
    {"Get", "GET", false, "", "Http GET error ",
     [](auto& c, auto& u) { return HttpHelpers::HttpGet(c, u, nullptr, nullptr, nullptr, nullptr); }},
    {"Head", "HEAD", false, "", "Http HEAD error ",
     [](auto& c, auto& u) { return HttpHelpers::HttpHead(c, u, nullptr, nullptr, nullptr, nullptr); }},
    {"GetJson", "GET", false, "application/json", "Http GET error ",
     [](auto& c, auto& u) {
       std::string out;
       return HttpHelpers::HttpGetJson(c, u, out, nullptr, nullptr, nullptr, nullptr, nullptr, 0, false);
     }},
    {"GetJsonWithBody", "GET", true, "application/json", "Http GET error ",
     [](auto& c, auto& u) {
       std::string out;
       return HttpHelpers::HttpGetJson(c, u, out, nullptr, nullptr, nullptr, nullptr, &kDoc, false);
     }},
    {"PutJson", "PUT", true, "application/json", "Http PUT error ",
     [](auto& c, auto& u) {
       return HttpHelpers::HttpPutJson(kDoc.data(), kDoc.size(), c, u, 200, nullptr, nullptr, nullptr, nullptr);
     }},
    {"PostJson", "POST", true, "application/json", "Http POST error ",
     [](auto& c, auto& u) {
       return HttpHelpers::HttpPostJson(kDoc.data(), kDoc.size(), c, u, 200, nullptr, nullptr, nullptr, nullptr);
     }},
    {"Delete", "DELETE", false, "", "Http DELETE error ",
     [](auto& c, auto& u) { return HttpHelpers::HttpDelete(c, u, 200, nullptr, nullptr, nullptr, nullptr); }},
    {"DeleteJson", "DELETE", true, "application/json", "Http DELETE error ",
     [](auto& c, auto& u) {
       return HttpHelpers::HttpDeleteJson(c, u, kDoc.data(), kDoc.size(), 200, nullptr, nullptr, nullptr, nullptr);
     }},
    {"PutMemory", "PUT", true, "application/octet-stream", "",
     [](auto& c, auto& u) {
       return HttpHelpers::HttpPut(kDoc.data(), kDoc.size(), c, u, 200, nullptr, nullptr, nullptr, nullptr);
     }},
    {"PostString", "POST", true, "application/octet-stream", "",
     [](auto& c, auto& u) { return HttpHelpers::HttpPost(c, u, kDoc, 200, nullptr, nullptr, nullptr, nullptr); }},
};

class HttpHelpersCallTest : public HttpHelpersTest, public testing::WithParamInterface<HelperCase> {};

TEST_P(HttpHelpersCallTest, SendsItsRequestAndLogsItsFailure) {
  const HelperCase& c = GetParam();
  ASSERT_TRUE(c.call(connection, Url("/echo/body"))) << Report();
  const auto request = server.lastRequest();
  EXPECT_EQ(request.method, c.method);
  EXPECT_EQ(request.body, c.sendsDoc ? kDoc : "");
  EXPECT_EQ(request.headerValues("Content-Type"),
            *c.contentType ? std::vector<std::string>{c.contentType} : std::vector<std::string>{});
  EXPECT_EQ(request.header("Content-Length"), c.sendsDoc ? std::to_string(kDoc.size()) : "");
  EXPECT_TRUE(log.texts("http").empty()) << log.dump();

  EXPECT_FALSE(c.call(connection, Url("/status/500")));
  if (*c.logPrefix == '\0') {
    EXPECT_TRUE(log.texts("http").empty()) << log.dump();
  } else {
    // The history line holds ages in milliseconds, which move between the log and this read.
    const auto texts = log.texts("http");
    ASSERT_EQ(texts.size(), 1u) << log.dump();
    const std::string report = Report();
    const size_t history = report.find("\nConnection created ");
    ASSERT_NE(history, std::string::npos);
    EXPECT_EQ(texts[0].substr(0, history + std::strlen(c.logPrefix)), c.logPrefix + report.substr(0, history));
  }
}

INSTANTIATE_TEST_SUITE_P(Helpers, HttpHelpersCallTest, testing::ValuesIn(kHelperCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(HttpHelpersTest, GetJsonFillsItsOutputAndRestoresTheCallersBody) {
  std::string out = "stale";
  Result result;
  std::string callerBody;
  result.body = &callerBody;
  ASSERT_TRUE(HttpHelpers::HttpGetJson(connection, Url("/echo/body"), out, &result, nullptr, nullptr, nullptr, &kDoc,
                                       false))
      << Report();
  EXPECT_EQ(out, kDoc);
  EXPECT_EQ(result.body, &callerBody);
  EXPECT_EQ(callerBody, "");
}

TEST_F(HttpHelpersTest, CallerContentTypeIsKept) {
  HttpHeaders headers;
  headers.addHeaderValue("Content-Type", "application/vnd.kx+json");
  const std::string doc = "{}";
  ASSERT_TRUE(HttpHelpers::HttpPostJson(doc.data(), doc.size(), connection, Url("/echo/body"), 200, nullptr, nullptr,
                                        &headers, nullptr));
  EXPECT_EQ(server.lastRequest().headerValues("Content-Type"), std::vector<std::string>{"application/vnd.kx+json"});
  connection.editCommonHeaders().addHeaderValue("content-type", "text/csv");
  ASSERT_TRUE(HttpHelpers::HttpPut(connection, Url("/echo/body"), std::string("a,b"), 200, nullptr, nullptr, nullptr,
                                   nullptr));
  EXPECT_EQ(server.lastRequest().headerValues("Content-Type"), std::vector<std::string>{"text/csv"});
}

TEST_F(HttpHelpersTest, ResponseHeadersIncludeStatusLines) {
  HttpHeaders headers;
  headers.addHeaderValue("stale", "x");
  Result result;
  result.headers = &headers;
  ASSERT_TRUE(HttpHelpers::HttpGet(connection, Url("/redirect/1?X-Kx=a"), &result, nullptr, nullptr, nullptr));
  EXPECT_FALSE(headers.contains("stale")) << "cleared before the call";
  ASSERT_NE(headers.find("http/1.1 302 found"), nullptr);
  EXPECT_TRUE(headers.find("http/1.1 302 found")->empty());
  EXPECT_TRUE(headers.contains("http/1.1 200 ok"));
  EXPECT_TRUE(headers.contains("location"));

  ASSERT_TRUE(HttpHelpers::HttpGet(connection, Url("/response-headers?X-Kx=1&X-Kx=2,3"), &result, nullptr, nullptr,
                                   nullptr));
  ASSERT_NE(headers.find("x-kx"), nullptr);
  EXPECT_EQ(*headers.find("x-kx"), (std::list<std::string>{"1", "2", "3"}));
  EXPECT_FALSE(headers.contains("")) << "the blank line ending the block is not a header";

  ASSERT_TRUE(HttpHelpers::HttpGet(connection, Url("/bytes/5000"), &result, nullptr, nullptr, nullptr));
  EXPECT_EQ(HttpHelpers::GetContentLength(headers), 5000);
}

// The body of an unexpected status goes into the report, cut at 4096 bytes; the body text gets it whole.
struct ExcerptCase {
  const char* name;
  size_t size;
};
constexpr ExcerptCase kExcerptCases[] = {
    {"Empty", 0}, {"Below", 4095}, {"Exactly", 4096}, {"OneAbove", 4097}, {"ManyChunks", 200000}};

class HttpHelpersExcerptTest : public HttpHelpersTest, public testing::WithParamInterface<ExcerptCase> {};

TEST_P(HttpHelpersExcerptTest, CutsTheErrorBodyAt4096Bytes) {
  const size_t size = GetParam().size;
  std::string body;
  kx::kxIoDeviceStringWriteOnly sink;
  Result result;
  result.body = &body;
  result.responseSink = &sink;
  EXPECT_FALSE(HttpHelpers::HttpGet(connection, Url("/status/500?size=" + std::to_string(size)), &result, nullptr,
                                    nullptr, nullptr));
  EXPECT_EQ(result.httpStatus, 500);
  EXPECT_EQ(result.bodyLength, static_cast<int64_t>(size));
  EXPECT_EQ(body, LoopbackHttpServer::PatternBytes(size));
  EXPECT_EQ(sink.getString(), "") << "the sink only gets the expected status's body";
  const std::string excerpt = LoopbackHttpServer::PatternBytes(std::min<size_t>(size, 4096));
  EXPECT_NE(Report().find("Extra error info : received [" + excerpt + "]\n"), std::string::npos) << Report();
}

INSTANTIATE_TEST_SUITE_P(Helpers, HttpHelpersExcerptTest, testing::ValuesIn(kExcerptCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(HttpHelpersTest, WrongStatusReportsStatusAndBodyAndZeroAcceptsAny) {
  EXPECT_FALSE(HttpHelpers::HttpGet(connection, Url("/missing"), nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(connection.getLastHttpReturnCode(), 404);
  EXPECT_NE(Report().find("received [Not Found\n]"), std::string::npos) << Report();

  Result result;
  EXPECT_FALSE(HttpHelpers::HttpPost(kDoc.data(), kDoc.size(), connection, Url("/echo/body"), 201, &result, nullptr,
                                     nullptr, nullptr));
  EXPECT_EQ(result.httpStatus, 200);
  EXPECT_NE(Report().find("bad html response code, got 200, expect 201"), std::string::npos) << Report();
  EXPECT_NE(Report().find("received [" + kDoc + "]"), std::string::npos) << Report();

  // Expected status 0 accepts any status and gives the sink its body.
  kx::kxIoDeviceStringWriteOnly sink;
  result.responseSink = &sink;
  ASSERT_TRUE(HttpHelpers::HttpPut(connection, Url("/status/404"), std::string("x"), 0, &result, nullptr, nullptr,
                                   nullptr));
  EXPECT_EQ(result.httpStatus, 404);
  EXPECT_EQ(sink.getString(), "status 404\n");
  EXPECT_EQ(Report().find("received ["), std::string::npos) << Report();
}

TEST_F(HttpHelpersTest, SinkRules) {
  Result result;
  result.ownedSink = std::make_unique<kx::kxIoDeviceStringWriteOnly>();
  auto* owned = static_cast<kx::kxIoDeviceStringWriteOnly*>(result.ownedSink.get());
  ASSERT_TRUE(HttpHelpers::HttpGet(connection, Url("/bytes/5000"), &result, nullptr, nullptr, nullptr));
  EXPECT_EQ(owned->getString(), LoopbackHttpServer::PatternBytes(5000)) << "owned sink used without responseSink";

  kx::kxIoDeviceStringWriteOnly always;
  result.responseSink = &always;
  result.writeSinkOnlyOnExpectedStatus = false;
  EXPECT_FALSE(HttpHelpers::HttpGet(connection, Url("/status/503"), &result, nullptr, nullptr, nullptr));
  EXPECT_EQ(always.getString(), "status 503\n");

  kx::kxIoDeviceStringWriteOnly tooSmall;
  tooSmall.setMaxSize(100);
  result.responseSink = &tooSmall;
  EXPECT_FALSE(HttpHelpers::HttpGet(connection, Url("/bytes/5000"), &result, nullptr, nullptr, nullptr));
  EXPECT_EQ(Access::LastCurlCode(connection), 23);  // CURLE_WRITE_ERROR
  EXPECT_NE(Report().find("(device in error : write exceeds the maximum size of the device)"), std::string::npos)
      << Report();
}

// GenericCall driven directly with its context: the progress callback, bad method codes, and
// parameters installed for one call only.
using kx::http::detail::HttpCallContext;

TEST_F(HttpHelpersTest, ProgressCallbackAbortsTheTransfer) {
  int polls = 0;
  HttpCallContext context;
  context.progress = [](void* argument) { return ++*static_cast<int*>(argument) >= 3; };
  context.progressArgument = &polls;
  Result result;
  EXPECT_FALSE(HttpHelpers::GenericCall(connection, Url("/slow?bytes=100000&intervalMs=20"), result, nullptr,
                                        nullptr, &context, 200, nullptr));
  EXPECT_EQ(Access::LastCurlCode(connection), 42);
  EXPECT_EQ(polls, 3);
}

TEST_F(HttpHelpersTest, GenericCallRefusesUnknownMethodAndNullContext) {
  HttpCallContext context;
  context.method = 6;
  Result result;
  EXPECT_FALSE(HttpHelpers::GenericCall(connection, Url("/echo"), result, nullptr, nullptr, &context, 200, nullptr));
  EXPECT_NE(Report().find("HttpConnection error : User callback return and error"), std::string::npos) << Report();
  EXPECT_EQ(server.requestCount(), 0u);
  EXPECT_FALSE(HttpHelpers::GenericCall(connection, Url("/echo"), result, nullptr, nullptr, nullptr, 200, nullptr));
}

TEST_F(HttpHelpersTest, ParametersApplyToOneCallOnly) {
  kx::http::HttpConnectionParameters noRedirects;
  noRedirects.followLocation = false;
  Result result;
  // Statuses above 255 cannot be expected (the argument is one byte): accept any and look.
  ASSERT_TRUE(HttpHelpers::HttpDelete(connection, Url("/redirect/1"), 0, &result, &noRedirects, nullptr, nullptr))
      << Report();
  EXPECT_EQ(result.httpStatus, 302);
  EXPECT_TRUE(connection.getConnectionParameters().followLocation);
  ASSERT_TRUE(HttpHelpers::HttpDelete(connection, Url("/redirect/1"), 200, &result, nullptr, nullptr, nullptr))
      << Report();
  EXPECT_EQ(server.lastRequest().method, "DELETE");
}

struct ContentLengthCase {
  const char* name;
  std::list<std::string> values;  // empty: header absent
  int64_t expected;
};
const ContentLengthCase kContentLengthCases[] = {
    {"Absent", {}, -1},          {"Zero", {"0"}, 0},         {"Plain", {"1234"}, 1234},
    {"Empty", {""}, -1},         {"Signed", {"-1"}, -1},     {"Plus", {"+5"}, -1},
    {"Trailing", {"12a"}, -1},   {"Blank", {"1 2"}, -1},     {"Overflow", {"99999999999999999999"}, -1},
    {"RepeatedSame", {"7", "7"}, 7}, {"RepeatedDiffer", {"7", "8"}, -1},
};

class GetContentLengthTest : public testing::TestWithParam<ContentLengthCase> {};

TEST_P(GetContentLengthTest, ReadsWholeDecimalOnly) {
  HttpHeaders headers;
  if (!GetParam().values.empty()) headers.addHeaderValues("Content-Length", GetParam().values);
  EXPECT_EQ(HttpHelpers::GetContentLength(headers), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(Helpers, GetContentLengthTest, testing::ValuesIn(kContentLengthCases),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
