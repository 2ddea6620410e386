// HttpHelpers against the loopback server: methods and what the server receives, status checks with the
// error excerpt, the sink rules, the log texts and GenericCall's
// context (progress callback, method codes).
#include <gtest/gtest.h>

#include <kx/http/HttpConnection.h>
#include <kx/http/HttpHeaders.h>
#include <kx/http/HttpHelpers.h>
#include <kx/http/HttpUrl.h>
#include <kx/system/kxIoDeviceStringWriteOnly.h>

#include "core/HttpCallContext.h"
#include "core/HttpConnectionAccess.h"
#include "support/LogCapture.h"
#include "support/LoopbackHttpServer.h"

#include <cstring>
#include <functional>
#include <list>
#include <string>

namespace {

using Access = kx::http::detail::HttpConnectionAccess;
using kx::http::HttpConnection;
using kx::http::HttpHeaders;
using kx::http::HttpUrl;
using kx::test::LoopbackHttpServer;
using H = kx::http::HttpHelpers;
using Result = H::HttpResult;

class HttpHelpersTest : public testing::Test {
 protected:
  HttpUrl Url(const std::string& path) const { return HttpUrl(server.url(path)); }
  std::string Report() const { return connection.getLastErrorMsg(); }
  bool Contains(const std::string& text) const { return Report().find(text) != std::string::npos; }

  kx::test::LogCapture log{false};
  LoopbackHttpServer server;
  HttpConnection connection;
};

// Each helper: the method, body and framing the server receives, and whether its failure is logged
// and with which prefix.
const std::string kDoc = R"({"ids":[1,2]})";
std::string g_out;  // the Json GET's output, unused here
struct HelperCase {
  const char* name;
  const char* method;
  bool sendsDoc;            // else no body and no Content-Length
  const char* contentType;  // "": none sent
  const char* logPrefix;    // "" when the helper does not log
  std::function<bool(HttpConnection&, const HttpUrl&)> call;
};
const HelperCase kHelperCases[] = {
    {"Get", "GET", false, "", "Http GET error ", [](auto& c, auto& u) { return H::HttpGet(c, u, {}, {}, {}, {}); }},
    {"Head", "HEAD", false, "", "Http HEAD error ", [](auto& c, auto& u) { return H::HttpHead(c, u, {}, {}, {}, {}); }},
    {"GetJson", "GET", false, "application/json", "Http GET error ",
     [](auto& c, auto& u) { return H::HttpGetJson(c, u, g_out, {}, {}, {}, {}, nullptr, 0, false); }},
    {"GetJsonWithBody", "GET", true, "application/json", "Http GET error ",
     [](auto& c, auto& u) { return H::HttpGetJson(c, u, g_out, {}, {}, {}, {}, &kDoc, false); }},
    {"PutJson", "PUT", true, "application/json", "Http PUT error ",
     [](auto& c, auto& u) { return H::HttpPutJson(kDoc.data(), kDoc.size(), c, u, 200, {}, {}, {}, {}); }},
    {"PostJson", "POST", true, "application/json", "Http POST error ",
     [](auto& c, auto& u) { return H::HttpPostJson(kDoc.data(), kDoc.size(), c, u, 200, {}, {}, {}, {}); }},
    {"DeleteJson", "DELETE", true, "application/json", "Http DELETE error ",
     [](auto& c, auto& u) { return H::HttpDeleteJson(c, u, kDoc.data(), kDoc.size(), 200, {}, {}, {}, {}); }},
    {"PutMemory", "PUT", true, "application/octet-stream", "",
     [](auto& c, auto& u) { return H::HttpPut(kDoc.data(), kDoc.size(), c, u, 200, {}, {}, {}, {}); }},
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
  const auto texts = log.texts("http");
  ASSERT_EQ(texts.size(), *c.logPrefix ? 1u : 0u) << log.dump();
  if (texts.empty()) return;
  // The history line holds ages in milliseconds, which move between the log and this read.
  const size_t history = Report().find("\nConnection created ");
  ASSERT_NE(history, std::string::npos);
  EXPECT_EQ(texts[0].substr(0, history + std::strlen(c.logPrefix)), c.logPrefix + Report().substr(0, history));
}

INSTANTIATE_TEST_SUITE_P(Helpers, HttpHelpersCallTest, testing::ValuesIn(kHelperCases),
                         [](const auto& info) { return std::string(info.param.name); });

// The body of an unexpected status goes into the report, cut at 4096 bytes; the body text gets it whole.
struct ExcerptCase {
  const char* name;
  size_t size;
};
constexpr ExcerptCase kExcerptCases[] = {{"Empty", 0}, {"Exactly", 4096}, {"OneAbove", 4097}, {"ManyChunks", 200000}};

class HttpHelpersExcerptTest : public HttpHelpersTest, public testing::WithParamInterface<ExcerptCase> {};

TEST_P(HttpHelpersExcerptTest, CutsTheErrorBodyAt4096Bytes) {
  const size_t size = GetParam().size;
  std::string body;
  kx::kxIoDeviceStringWriteOnly sink;
  Result result;
  result.body = &body;
  result.responseSink = &sink;
  EXPECT_FALSE(H::HttpGet(connection, Url("/status/500?size=" + std::to_string(size)), &result, nullptr, nullptr,
                          nullptr));
  EXPECT_EQ(result.httpStatus, 500);
  EXPECT_EQ(result.bodyLength, static_cast<int64_t>(size));
  EXPECT_EQ(body, LoopbackHttpServer::PatternBytes(size));
  EXPECT_EQ(sink.getString(), "") << "the sink only gets the expected status's body";
  const std::string excerpt = LoopbackHttpServer::PatternBytes(std::min<size_t>(size, 4096));
  EXPECT_TRUE(Contains("Extra error info : received [" + excerpt + "]\n")) << Report();
}

INSTANTIATE_TEST_SUITE_P(Helpers, HttpHelpersExcerptTest, testing::ValuesIn(kExcerptCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(HttpHelpersTest, SinkRules) {
  Result result;
  EXPECT_FALSE(H::HttpPost(kDoc.data(), kDoc.size(), connection, Url("/echo/body"), 201, &result, nullptr, nullptr,
                           nullptr));
  EXPECT_EQ(result.httpStatus, 200);
  EXPECT_TRUE(Contains("bad html response code, got 200, expect 201")) << Report();
  EXPECT_TRUE(Contains("received [" + kDoc + "]")) << Report();

  result.ownedSink = std::make_unique<kx::kxIoDeviceStringWriteOnly>();
  auto* owned = static_cast<kx::kxIoDeviceStringWriteOnly*>(result.ownedSink.get());
  ASSERT_TRUE(H::HttpGet(connection, Url("/bytes/5000"), &result, nullptr, nullptr, nullptr));
  EXPECT_EQ(owned->getString(), LoopbackHttpServer::PatternBytes(5000)) << "owned sink used without responseSink";

  // Expected status 0 accepts any status and gives the sink its body.
  kx::kxIoDeviceStringWriteOnly any;
  result.responseSink = &any;
  ASSERT_TRUE(H::HttpPut(connection, Url("/status/404"), std::string("x"), 0, &result, nullptr, nullptr, nullptr));
  EXPECT_EQ(result.httpStatus, 404);
  EXPECT_EQ(any.getString(), "status 404\n");
  EXPECT_FALSE(Contains("received [")) << Report();

  kx::kxIoDeviceStringWriteOnly always;
  result.responseSink = &always;
  result.writeSinkOnlyOnExpectedStatus = false;
  EXPECT_FALSE(H::HttpGet(connection, Url("/status/503"), &result, nullptr, nullptr, nullptr));
  EXPECT_EQ(always.getString(), "status 503\n");

  kx::kxIoDeviceStringWriteOnly tooSmall;
  tooSmall.setMaxSize(100);
  result.responseSink = &tooSmall;
  EXPECT_FALSE(H::HttpGet(connection, Url("/bytes/5000"), &result, nullptr, nullptr, nullptr));
  EXPECT_EQ(Access::LastCurlCode(connection), 23);  // CURLE_WRITE_ERROR
  EXPECT_TRUE(Contains("(device in error : write exceeds the maximum size of the device)")) << Report();
}

// GenericCall driven directly with its context: the progress callback, bad method codes, and
// parameters installed for one call only.
using kx::http::detail::HttpCallContext;

TEST_F(HttpHelpersTest, GenericCallRefusesBadMethodOrContextAndProgressAborts) {
  HttpCallContext badMethod;
  badMethod.method = 6;
  Result result;
  EXPECT_FALSE(H::GenericCall(connection, Url("/echo"), result, nullptr, nullptr, &badMethod, 200, nullptr));
  EXPECT_TRUE(Contains("HttpConnection error : User callback return and error")) << Report();
  EXPECT_FALSE(H::GenericCall(connection, Url("/echo"), result, nullptr, nullptr, nullptr, 200, nullptr));
  EXPECT_EQ(server.requestCount(), 0u);

  int polls = 0;
  HttpCallContext context;
  context.progress = [](void* argument) { return ++*static_cast<int*>(argument) >= 3; };
  context.progressArgument = &polls;
  EXPECT_FALSE(H::GenericCall(connection, Url("/bytes/20000000"), result, nullptr, nullptr, &context,
                              200, nullptr));
  EXPECT_EQ(Access::LastCurlCode(connection), 42);
  EXPECT_EQ(polls, 3);
}

struct ContentLengthCase {
  const char* name;
  std::list<std::string> values;  // empty: header absent
  int64_t expected;
};
const ContentLengthCase kContentLengthCases[] = {
    {"Absent", {}, -1},          {"Zero", {"0"}, 0},         {"Empty", {""}, -1},
    {"Signed", {"-1"}, -1},      {"Trailing", {"12a"}, -1},  {"Overflow", {"99999999999999999999"}, -1},
    {"RepeatedSame", {"7", "7"}, 7}, {"RepeatedDiffer", {"7", "8"}, -1},
};

class GetContentLengthTest : public testing::TestWithParam<ContentLengthCase> {};

TEST_P(GetContentLengthTest, ReadsWholeDecimalOnly) {
  HttpHeaders headers;
  if (!GetParam().values.empty()) headers.addHeaderValues("Content-Length", GetParam().values);
  EXPECT_EQ(H::GetContentLength(headers), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(Helpers, GetContentLengthTest, testing::ValuesIn(kContentLengthCases),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
