// HttpHelpers against the loopback server: methods and what the server receives, status checks with the
// error excerpt, the sink rules, response headers, the log texts, cancellation and GenericCall's
// context (progress callback, method codes, per-call parameters).
#include <gtest/gtest.h>

#include <kx/http/HttpConnection.h>
#include <kx/http/HttpConnectionParameters.h>
#include <kx/http/HttpHeaders.h>
#include <kx/http/HttpHelpers.h>
#include <kx/http/HttpUrl.h>
#include <kx/system/kxCancelFlag.h>
#include <kx/system/kxIoDeviceStringWriteOnly.h>

#include "core/ConnectionTestCall.h"
#include "core/HttpCallContext.h"
#include "support/LogCapture.h"
#include "support/LoopbackHttpServer.h"

#include <chrono>
#include <cstring>
#include <functional>
#include <list>
#include <string>
#include <thread>
#include "core/HttpConnectionAccess.h"

namespace {

using Access = kx::http::detail::HttpConnectionAccess;

using kx::http::HttpConnection;
using kx::http::HttpHeaders;
using kx::http::HttpHelpers;
using kx::http::HttpUrl;
using kx::test::LoopbackHttpServer;
using Result = HttpHelpers::HttpResult;

class HttpHelpersTest : public kx::test::CorvixSuite {
 protected:
  HttpUrl Url(const std::string& path) const { return HttpUrl(server.url(path)); }
  std::string Report() const { return connection.getLastErrorMsg(); }

  kx::test::LogCapture log{false};
  LoopbackHttpServer server;
  HttpConnection connection;
};

TEST_F(HttpHelpersTest, HeadSendsNoBodyAndReceivesNone) {
  Result result;
  std::string body;
  result.body = &body;
  ASSERT_TRUE(HttpHelpers::HttpHead(connection, Url("/echo"), &result, nullptr, nullptr, nullptr)) << Report();
  const auto request = server.lastRequest();
  EXPECT_EQ(request.method, "HEAD");
  EXPECT_EQ(request.body, "");
  EXPECT_FALSE(request.hasHeader("Content-Length"));
  EXPECT_FALSE(request.hasHeader("Content-Type"));
  EXPECT_EQ(result.httpStatus, 200);
  EXPECT_EQ(result.bodyLength, 0);
  EXPECT_EQ(body, "");
}

TEST_F(HttpHelpersTest, GetJsonWithBodySendsItWithJsonType) {
  const std::string query = R"({"query":{"match_all":{}}})";
  std::string out = "stale";
  Result result;
  std::string callerBody;
  result.body = &callerBody;
  ASSERT_TRUE(HttpHelpers::HttpGetJson(connection, Url("/echo/body"), out, &result, nullptr, nullptr, nullptr, &query,
                                       false))
      << Report();
  const auto request = server.lastRequest();
  EXPECT_EQ(request.method, "GET");
  EXPECT_EQ(request.body, query);
  EXPECT_EQ(request.headerValues("Content-Type"), std::vector<std::string>{"application/json"});
  EXPECT_EQ(out, query);
  EXPECT_EQ(result.body, &callerBody) << "the caller's pointer is restored";
  EXPECT_EQ(callerBody, "");
}

TEST_F(HttpHelpersTest, GetJsonWithoutBodyIsAPlainGet) {
  std::string out;
  ASSERT_TRUE(HttpHelpers::HttpGetJson(connection, Url("/echo"), out, nullptr, nullptr, nullptr, nullptr, nullptr, 0,
                                       false));
  const auto request = server.lastRequest();
  EXPECT_EQ(request.method, "GET");
  EXPECT_FALSE(request.hasHeader("Content-Length"));
  EXPECT_EQ(out.rfind("GET /echo\n", 0), 0u) << out;
}

TEST_F(HttpHelpersTest, DeleteWithAndWithoutJsonBody) {
  ASSERT_TRUE(HttpHelpers::HttpDelete(connection, Url("/echo"), 200, nullptr, nullptr, nullptr, nullptr));
  auto request = server.lastRequest();
  EXPECT_EQ(request.method, "DELETE");
  EXPECT_EQ(request.body, "");
  EXPECT_FALSE(request.hasHeader("Content-Type"));

  const std::string doc = R"({"ids":[1,2]})";
  ASSERT_TRUE(HttpHelpers::HttpDeleteJson(connection, Url("/echo"), doc.data(), doc.size(), 200, nullptr, nullptr,
                                          nullptr, nullptr))
      << Report();
  request = server.lastRequest();
  EXPECT_EQ(request.method, "DELETE");
  EXPECT_EQ(request.body, doc);
  EXPECT_EQ(request.header("Content-Length"), std::to_string(doc.size()));
  EXPECT_EQ(request.header("Content-Type"), "application/json");
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
constexpr ExcerptCase kExcerptCases[] = {{"Empty", 0},        {"OneByte", 1},         {"Below", 4095},
                                         {"Exactly", 4096},   {"OneAbove", 4097},     {"TenThousand", 10000},
                                         {"ManyChunks", 200000}};

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

TEST_F(HttpHelpersTest, WrongStatusReportsStatusAndBody) {
  EXPECT_FALSE(HttpHelpers::HttpGet(connection, Url("/missing"), nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(connection.getLastHttpReturnCode(), 404);
  EXPECT_NE(Report().find("received [Not Found\n]"), std::string::npos) << Report();

  const std::string doc = "{}";
  Result result;
  EXPECT_FALSE(HttpHelpers::HttpPost(doc.data(), doc.size(), connection, Url("/echo/body"), 201, &result, nullptr,
                                     nullptr, nullptr));
  EXPECT_EQ(result.httpStatus, 200);
  EXPECT_NE(Report().find("bad html response code, got 200, expect 201"), std::string::npos) << Report();
  EXPECT_NE(Report().find("received [{}]"), std::string::npos) << Report();
}

TEST_F(HttpHelpersTest, ExpectedStatusZeroAcceptsAnyStatus) {
  kx::kxIoDeviceStringWriteOnly sink;
  Result result;
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

// Which helpers log their failure, and with which prefix.
struct LogCase {
  const char* name;
  const char* prefix;  // "" when the helper does not log
  std::function<bool(HttpConnection&, const HttpUrl&)> call;
};
const std::string kDoc = "{}";
const LogCase kLogCases[] = {
    {"Get", "Http GET error ",
     [](auto& c, auto& u) { return HttpHelpers::HttpGet(c, u, nullptr, nullptr, nullptr, nullptr); }},
    {"Head", "Http HEAD error ",
     [](auto& c, auto& u) { return HttpHelpers::HttpHead(c, u, nullptr, nullptr, nullptr, nullptr); }},
    {"GetJson", "Http GET error ",
     [](auto& c, auto& u) {
       std::string out;
       return HttpHelpers::HttpGetJson(c, u, out, nullptr, nullptr, nullptr, nullptr, nullptr, 0, false);
     }},
    {"PutJson", "Http PUT error ",
     [](auto& c, auto& u) {
       return HttpHelpers::HttpPutJson(kDoc.data(), 2, c, u, 200, nullptr, nullptr, nullptr, nullptr);
     }},
    {"PostJson", "Http POST error ",
     [](auto& c, auto& u) {
       return HttpHelpers::HttpPostJson(kDoc.data(), 2, c, u, 200, nullptr, nullptr, nullptr, nullptr);
     }},
    {"Delete", "Http DELETE error ",
     [](auto& c, auto& u) { return HttpHelpers::HttpDelete(c, u, 200, nullptr, nullptr, nullptr, nullptr); }},
    {"DeleteJson", "Http DELETE error ",
     [](auto& c, auto& u) {
       return HttpHelpers::HttpDeleteJson(c, u, kDoc.data(), 2, 200, nullptr, nullptr, nullptr, nullptr);
     }},
    {"PutMemory", "",
     [](auto& c, auto& u) {
       return HttpHelpers::HttpPut(kDoc.data(), 2, c, u, 200, nullptr, nullptr, nullptr, nullptr);
     }},
    {"PostString", "",
     [](auto& c, auto& u) { return HttpHelpers::HttpPost(c, u, kDoc, 200, nullptr, nullptr, nullptr, nullptr); }},
};

class HttpHelpersLogTest : public HttpHelpersTest, public testing::WithParamInterface<LogCase> {};

TEST_P(HttpHelpersLogTest, LogsFailureWithMethodAndReport) {
  const LogCase& c = GetParam();
  EXPECT_FALSE(c.call(connection, Url("/status/500")));
  if (*c.prefix == '\0') {
    EXPECT_TRUE(log.texts("http").empty()) << log.dump();
  } else {
    // The history line holds ages in milliseconds, which move between the log and this read.
    const auto texts = log.texts("http");
    ASSERT_EQ(texts.size(), 1u) << log.dump();
    const std::string report = Report();
    const size_t history = report.find("\nConnection created ");
    ASSERT_NE(history, std::string::npos);
    EXPECT_EQ(texts[0].substr(0, history + std::strlen(c.prefix)), c.prefix + report.substr(0, history));
  }
}

INSTANTIATE_TEST_SUITE_P(Helpers, HttpHelpersLogTest, testing::ValuesIn(kLogCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(HttpHelpersTest, CancelledFromAnotherThread) {
  kx::kxCancelFlag cancel;
  std::thread canceller([&] {
    if (server.waitForRequests(1, std::chrono::seconds(10))) cancel.cancel();
  });
  Result result;
  const bool ok = HttpHelpers::HttpGet(connection, Url("/slow?bytes=100000&intervalMs=20"), &result, nullptr,
                                       nullptr, &cancel);
  canceller.join();
  EXPECT_FALSE(ok);
  EXPECT_EQ(Access::LastCurlCode(connection), 42);  // CURLE_ABORTED_BY_CALLBACK
  EXPECT_FALSE(connection.wasAbortedByCallback()) << "inverted sense";
  EXPECT_NE(Report().find("HttpConnection error : Curl easy perform canceled after "), std::string::npos) << Report();
  EXPECT_LT(result.bodyLength, 100000);
  EXPECT_TRUE(Access::HasCurlHandle(connection)) << "a cancelled call keeps the handle";
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
