// Request bodies of the helpers: PUT and POST from memory, string and devices (random access or not),
// the bytes and framing the server receives, rewinding on redirects, and failing sources.
#include <gtest/gtest.h>

#include <kx/http/HttpConnection.h>
#include <kx/http/HttpHelpers.h>
#include <kx/http/HttpUrl.h>
#include <kx/system/kxIoDeviceFileStream.h>
#include <kx/system/kxIoDeviceStringReadOnly.h>

#include "core/ConnectionTestCall.h"
#include "support/LogCapture.h"
#include "support/LoopbackHttpServer.h"

#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include "core/HttpConnectionAccess.h"

namespace {

using Access = kx::http::detail::HttpConnectionAccess;

using kx::http::HttpConnection;
using kx::http::HttpHelpers;
using kx::http::HttpUrl;
using kx::test::LoopbackHttpServer;

using kx::test::StreamSource;

enum class Source { kMemory, kString, kSeekableDevice, kStreamDevice, kPausingStream, kFile };
struct BodyCase {
  const char* name;
  bool post;
  Source source;
  size_t size;
};
constexpr BodyCase kBodyCases[] = {
    {"PutMemory", false, Source::kMemory, 70000},       {"PutEmpty", false, Source::kMemory, 0},
    {"PostString", true, Source::kString, 5},           {"PostSeekable", true, Source::kSeekableDevice, 70000},
    {"PutStream", false, Source::kStreamDevice, 70000}, {"PostEmptyStream", true, Source::kStreamDevice, 0},
    {"PutFile", false, Source::kFile, 70000},           {"PutPausingStream", false, Source::kPausingStream, 70000},
};

class HttpHelpersBodiesTest : public testing::Test {
 protected:
  void TearDown() override {
    if (!filePath.empty()) std::remove(filePath.c_str());
  }

  // Sends `data` from `source` with the PUT or POST helper.
  bool Send(bool post, Source source, const std::string& data, const std::string& path,
            HttpHelpers::HttpResult* result = nullptr) {
    const HttpUrl url(server.url(path));
    switch (source) {
      case Source::kMemory:
        return post ? HttpHelpers::HttpPost(data.data(), data.size(), connection, url, 200, result, nullptr, nullptr,
                                            nullptr)
                    : HttpHelpers::HttpPut(data.data(), data.size(), connection, url, 200, result, nullptr, nullptr,
                                           nullptr);
      case Source::kString:
        return post ? HttpHelpers::HttpPost(connection, url, data, 200, result, nullptr, nullptr, nullptr)
                    : HttpHelpers::HttpPut(connection, url, data, 200, result, nullptr, nullptr, nullptr);
      case Source::kSeekableDevice: {
        kx::kxIoDeviceStringReadOnly device(data);
        return SendDevice(post, device, url, result);
      }
      case Source::kStreamDevice:
      case Source::kPausingStream: {
        StreamSource device(data, std::string::npos,
                            source == Source::kPausingStream ? StreamSource::Fault::kPauses : StreamSource::Fault::kNone);
        return SendDevice(post, device, url, result);
      }
      case Source::kFile: {
        char name[] = "/tmp/kx-helpers-body-XXXXXX";
        const int fd = mkstemp(name);
        EXPECT_GE(fd, 0);
        filePath = name;
        EXPECT_EQ(write(fd, data.data(), data.size()), static_cast<ssize_t>(data.size()));
        close(fd);
        kx::kxIoDeviceFileStream file;
        EXPECT_TRUE(file.open(filePath, kx::kxIoDevice::DW_Read)) << file.getDeviceErrorMsg();
        return SendDevice(post, file, url, result);
      }
    }
    return false;
  }
  bool SendDevice(bool post, kx::kxIoDevice& device, const HttpUrl& url, HttpHelpers::HttpResult* result) {
    return post ? HttpHelpers::HttpPost(connection, url, device, 200, result, nullptr, nullptr, nullptr)
                : HttpHelpers::HttpPut(connection, url, device, 200, result, nullptr, nullptr, nullptr);
  }
  std::string Report() const { return connection.getLastErrorMsg(); }

  kx::test::LogCapture log{false};
  LoopbackHttpServer server;
  HttpConnection connection;
  std::string filePath;
};

class HttpHelpersBodyCaseTest : public HttpHelpersBodiesTest, public testing::WithParamInterface<BodyCase> {};

TEST_P(HttpHelpersBodyCaseTest, ServerReceivesTheExactBody) {
  const BodyCase& c = GetParam();
  const std::string data = LoopbackHttpServer::PatternBytes(c.size);
  std::string echoed;
  HttpHelpers::HttpResult result;
  result.body = &echoed;
  ASSERT_TRUE(Send(c.post, c.source, data, "/echo/body", &result)) << Report();
  const auto request = server.lastRequest();
  EXPECT_EQ(request.method, c.post ? "POST" : "PUT");
  EXPECT_EQ(request.body, data);
  EXPECT_EQ(echoed, data);
  EXPECT_EQ(request.header("Content-Type"), "application/octet-stream");
  // Only a device of unknown length is sent chunked; everything else announces its length.
  if (c.source == Source::kStreamDevice || c.source == Source::kPausingStream) {
    EXPECT_EQ(request.header("Transfer-Encoding"), "chunked");
  } else {
    EXPECT_EQ(request.header("Content-Length"), std::to_string(c.size));
  }
}

INSTANTIATE_TEST_SUITE_P(Bodies, HttpHelpersBodyCaseTest, testing::ValuesIn(kBodyCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(HttpHelpersBodiesTest, RandomAccessDeviceIsSentFromItsPosition) {
  kx::kxIoDeviceStringReadOnly device("skip-me|payload");
  ASSERT_TRUE(device.seek(8));
  ASSERT_TRUE(HttpHelpers::HttpPut(connection, HttpUrl(server.url("/echo/body")), device, 200, nullptr, nullptr,
                                   nullptr, nullptr));
  EXPECT_EQ(server.lastRequest().body, "payload");
  EXPECT_EQ(server.lastRequest().header("Content-Length"), "7");
}

// A 307 keeps the method and needs the body once more: curl rewinds it through the seek function.
struct RedirectCase {
  const char* name;
  bool post;
  Source source;
  bool resent;  // false: the body cannot be rewound and the call fails
};
constexpr RedirectCase kRedirectCases[] = {
    {"PutMemory", false, Source::kMemory, true}, {"PutSeekable", false, Source::kSeekableDevice, true},
    {"PostFile", true, Source::kFile, true},     {"PostStream", true, Source::kStreamDevice, false},
};

class HttpHelpersRedirectTest : public HttpHelpersBodiesTest, public testing::WithParamInterface<RedirectCase> {};

TEST_P(HttpHelpersRedirectTest, RedirectResendsRewindableBodiesOnly) {
  const RedirectCase& c = GetParam();
  const std::string data = LoopbackHttpServer::PatternBytes(20000);
  const bool ok = Send(c.post, c.source, data, "/redirect-to?status=307&url=/echo/body");
  ASSERT_EQ(ok, c.resent) << Report();
  const auto requests = server.requests();
  if (c.resent) {
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[1].path, "/echo/body");
    EXPECT_EQ(requests[1].method, c.post ? "POST" : "PUT");
    EXPECT_EQ(requests[1].body, data);
  } else {
    EXPECT_EQ(Access::LastCurlCode(connection), 65);  // CURLE_SEND_FAIL_REWIND
    EXPECT_EQ(requests.size(), 1u);
    EXPECT_TRUE(log.containsFragment(c.post ? "Http POST error " : "Http PUT error ")) << log.dump();
  }
}

INSTANTIATE_TEST_SUITE_P(Bodies, HttpHelpersRedirectTest, testing::ValuesIn(kRedirectCases),
                         [](const auto& info) { return std::string(info.param.name); });

// curl keeps a PUT, a DELETE or a GET with a body (its custom method) across a 301, 302 or 303 but drops
// the body: the server at the new location would get the method with nothing. Such an answer ends the
// call with its status instead. A POST becomes a GET there, as browsers do, and a 307 resends the body.
enum class Verb { kPut, kDeleteJson, kGetJson, kPost };
struct BodylessRedirectCase {
  const char* name;
  Verb verb;
  int status;
  bool followed;
};
constexpr BodylessRedirectCase kBodylessRedirectCases[] = {
    {"Put301", Verb::kPut, 301, false},          {"Put302", Verb::kPut, 302, false},
    {"Put303", Verb::kPut, 303, false},          {"DeleteWithBody303", Verb::kDeleteJson, 303, false},
    {"GetWithBody302", Verb::kGetJson, 302, false}, {"Post303BecomesGet", Verb::kPost, 303, true},
    {"Put307KeepsBody", Verb::kPut, 307, true},
};

class HttpHelpersBodylessRedirectTest : public HttpHelpersBodiesTest,
                                        public testing::WithParamInterface<BodylessRedirectCase> {};

TEST_P(HttpHelpersBodylessRedirectTest, UploadIsNeverRepeatedWithoutItsBody) {
  const BodylessRedirectCase& c = GetParam();
  const std::string data = "{\"k\":\"payload\"}";
  const HttpUrl url(server.url("/redirect-to?status=" + std::to_string(c.status) + "&url=/echo/body"));
  std::string out;
  bool ok = false;
  switch (c.verb) {
    case Verb::kPut:
      ok = HttpHelpers::HttpPut(connection, url, data, 200, nullptr, nullptr, nullptr, nullptr);
      break;
    case Verb::kDeleteJson:
      ok = HttpHelpers::HttpDeleteJson(connection, url, data.data(), data.size(), 200, nullptr, nullptr, nullptr,
                                       nullptr);
      break;
    case Verb::kGetJson:
      ok = HttpHelpers::HttpGetJson(connection, url, out, nullptr, nullptr, nullptr, nullptr, data.data(), data.size(),
                                    false);
      break;
    case Verb::kPost:
      ok = HttpHelpers::HttpPost(connection, url, data, 200, nullptr, nullptr, nullptr, nullptr);
      break;
  }
  const auto requests = server.requests();
  if (!c.followed) {
    EXPECT_FALSE(ok);
    EXPECT_EQ(connection.getLastHttpReturnCode(), c.status);
    EXPECT_NE(Report().find("redirect " + std::to_string(c.status) + " not followed"), std::string::npos) << Report();
    EXPECT_EQ(requests.size(), 1u) << "the new location was asked without the body";
    return;
  }
  ASSERT_TRUE(ok) << Report();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[1].method, c.verb == Verb::kPost ? "GET" : "PUT");
  EXPECT_EQ(requests[1].body, c.verb == Verb::kPost ? "" : data);
}

INSTANTIATE_TEST_SUITE_P(Bodies, HttpHelpersBodylessRedirectTest, testing::ValuesIn(kBodylessRedirectCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(HttpHelpersBodiesTest, FailingSourceDeviceIsNamedInTheLog) {
  StreamSource device(LoopbackHttpServer::PatternBytes(50000), 20000, StreamSource::Fault::kError);
  EXPECT_FALSE(HttpHelpers::HttpPut(connection, HttpUrl(server.url("/echo/body")), device, 200, nullptr, nullptr,
                                    nullptr, nullptr));
  EXPECT_EQ(Access::LastCurlCode(connection), 42);  // CURLE_ABORTED_BY_CALLBACK, from the read function
  const auto texts = log.texts("http");
  ASSERT_EQ(texts.size(), 1u) << log.dump();
  const std::string report = Report();
  const std::string head = "Http PUT error " + report.substr(0, report.find("\nConnection created "));
  const std::string tail = "(device in error : source broke)";
  EXPECT_EQ(texts[0].substr(0, head.size()), head);
  EXPECT_EQ(texts[0].substr(texts[0].size() - std::min(texts[0].size(), tail.size())), tail);
}

TEST_F(HttpHelpersBodiesTest, StalledSourceDeviceFailsInsteadOfTruncating) {
  StreamSource device(LoopbackHttpServer::PatternBytes(50000), 20000, StreamSource::Fault::kStall);
  EXPECT_FALSE(HttpHelpers::HttpPost(connection, HttpUrl(server.url("/echo/body")), device, 200, nullptr, nullptr,
                                     nullptr, nullptr));
  EXPECT_NE(Report().find("request body device delivered no data before its end"), std::string::npos) << Report();
  for (const auto& request : server.requests()) EXPECT_NE(request.body.size(), 20000u) << "truncated body accepted";
}

TEST_F(HttpHelpersBodiesTest, NullDataWithSizeIsRefusedBeforeSending) {
  EXPECT_FALSE(HttpHelpers::HttpPut(nullptr, 10, connection, HttpUrl(server.url("/echo/body")), 200, nullptr,
                                    nullptr, nullptr, nullptr));
  EXPECT_NE(Report().find("User callback return and error"), std::string::npos) << Report();
  EXPECT_EQ(server.requestCount(), 0u);
  ASSERT_TRUE(HttpHelpers::HttpPut(nullptr, 0, connection, HttpUrl(server.url("/echo/body")), 200, nullptr, nullptr,
                                   nullptr, nullptr))
      << Report();
  EXPECT_EQ(server.lastRequest().header("Content-Length"), "0");
}

}  // namespace
