// Request bodies of the helpers: PUT and POST from memory, string and devices (random access or not),
// the bytes and framing the server receives, rewinding on redirects, and failing sources.
#include <gtest/gtest.h>

#include <kx/http/HttpConnection.h>
#include <kx/http/HttpHelpers.h>
#include <kx/http/HttpUrl.h>
#include <kx/system/kxIoDeviceFileStream.h>
#include <kx/system/kxIoDeviceStringReadOnly.h>

#include "core/ConnectionTestCall.h"
#include "core/HttpConnectionAccess.h"
#include "support/LogCapture.h"
#include "support/LoopbackHttpServer.h"

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

namespace {

using Access = kx::http::detail::HttpConnectionAccess;
using kx::http::HttpConnection;
using kx::http::HttpUrl;
using kx::test::LoopbackHttpServer;
using kx::test::StreamSource;
using H = kx::http::HttpHelpers;

class HttpHelpersBodiesTest : public testing::Test {
 protected:
  void TearDown() override { std::remove(filePath.c_str()); }
  std::string Report() const { return connection.getLastErrorMsg(); }

  kx::test::LogCapture log{false};
  LoopbackHttpServer server;
  HttpConnection connection;
  const std::string filePath = testing::TempDir() + "kx-body-" + std::to_string(getpid());
};

// A 307 keeps the method and needs the body once more: curl rewinds it through the seek function. A
// device without random access cannot go back, and the call fails.
enum class Source { kMemory, kString, kSeekableDevice, kStreamDevice, kPausingStream, kFile };
struct BodyCase {
  const char* name;
  bool post;
  Source source;
  size_t size;
  bool via307;
  bool ok;  // with via307: the body was sent again
};
constexpr BodyCase kBodyCases[] = {
    {"PutMemory", false, Source::kMemory, 70000, true, true},
    {"PutEmpty", false, Source::kMemory, 0, true, true},
    {"PostString", true, Source::kString, 5, true, true},
    {"PostSeekable", true, Source::kSeekableDevice, 70000, true, true},
    {"PutStream", false, Source::kStreamDevice, 70000, true, false},
    {"PostEmptyStream", true, Source::kStreamDevice, 0, false, true},
    {"PostFile", true, Source::kFile, 70000, true, true},
    {"PutPausingStream", false, Source::kPausingStream, 70000, false, true},
};

class HttpHelpersBodyCaseTest : public HttpHelpersBodiesTest, public testing::WithParamInterface<BodyCase> {
 protected:
  bool Send(const BodyCase& c, const std::string& data) {
    const HttpUrl url(server.url(c.via307 ? "/redirect-to?status=307&url=/echo/body" : "/echo/body"));
    auto device = [&](kx::kxIoDevice& d) {
      return c.post ? H::HttpPost(connection, url, d, 200, {}, {}, {}, {})
                    : H::HttpPut(connection, url, d, 200, {}, {}, {}, {});
    };
    kx::kxIoDeviceStringReadOnly seekable(data);
    StreamSource stream(data, std::string::npos, c.source == Source::kPausingStream ? StreamSource::Fault::kPauses
                                                                                    : StreamSource::Fault::kNone);
    kx::kxIoDeviceFileStream file;
    switch (c.source) {
      case Source::kMemory:
        return c.post ? H::HttpPost(data.data(), data.size(), connection, url, 200, {}, {}, {}, {})
                      : H::HttpPut(data.data(), data.size(), connection, url, 200, {}, {}, {}, {});
      case Source::kString:
        return c.post ? H::HttpPost(connection, url, data, 200, {}, {}, {}, {})
                      : H::HttpPut(connection, url, data, 200, {}, {}, {}, {});
      case Source::kSeekableDevice:
        return device(seekable);
      case Source::kStreamDevice:
      case Source::kPausingStream:
        return device(stream);
      case Source::kFile:
        std::ofstream(filePath, std::ios::binary) << data;
        EXPECT_TRUE(file.open(filePath, kx::kxIoDevice::DW_Read)) << file.getDeviceErrorMsg();
        return device(file);
    }
    return false;
  }
};

TEST_P(HttpHelpersBodyCaseTest, ServerReceivesTheExactBodyAgainAfterA307) {
  const BodyCase& c = GetParam();
  const std::string data = LoopbackHttpServer::PatternBytes(c.size);
  ASSERT_EQ(Send(c, data), c.ok) << Report();
  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), c.via307 && c.ok ? 2u : 1u);
  for (const auto& request : requests) {
    EXPECT_EQ(request.method, c.post ? "POST" : "PUT");
    EXPECT_EQ(request.body, data);
    EXPECT_EQ(request.header("Content-Type"), "application/octet-stream");
    // Only a device of unknown length is sent chunked; everything else announces its length.
    if (c.source == Source::kStreamDevice || c.source == Source::kPausingStream)
      EXPECT_EQ(request.header("Transfer-Encoding"), "chunked");
    else
      EXPECT_EQ(request.header("Content-Length"), std::to_string(c.size));
  }
  if (c.ok) return;
  EXPECT_EQ(Access::LastCurlCode(connection), 65);  // CURLE_SEND_FAIL_REWIND
  EXPECT_TRUE(log.containsFragment(c.post ? "Http POST error " : "Http PUT error ")) << log.dump();
}

INSTANTIATE_TEST_SUITE_P(Bodies, HttpHelpersBodyCaseTest, testing::ValuesIn(kBodyCases),
                         [](const auto& info) { return std::string(info.param.name); });

// curl keeps a PUT, a DELETE or a GET with a body (its custom method) across a 301, 302 or 303 but drops
// the body: the server at the new location would get the method with nothing. Such an answer ends the
// call with its status instead. A POST becomes a GET there, as browsers do, and a 307 resends the body.
using Verb = bool (*)(HttpConnection&, const HttpUrl&, const std::string& body);
const Verb kPut = [](HttpConnection& c, const HttpUrl& u, const std::string& b) {
  return H::HttpPut(c, u, b, 200, {}, {}, {}, {});
};
const Verb kDeleteJson = [](HttpConnection& c, const HttpUrl& u, const std::string& b) {
  return H::HttpDeleteJson(c, u, b.data(), b.size(), 200, {}, {}, {}, {});
};
const Verb kGetJson = [](HttpConnection& c, const HttpUrl& u, const std::string& b) {
  std::string out;
  return H::HttpGetJson(c, u, out, {}, {}, {}, {}, b.data(), b.size(), false);
};
const Verb kPost = [](HttpConnection& c, const HttpUrl& u, const std::string& b) {
  return H::HttpPost(c, u, b, 200, {}, {}, {}, {});
};
struct BodylessRedirectCase {
  const char* name;
  Verb verb;
  int status;
  bool followed;
};
const BodylessRedirectCase kBodylessRedirectCases[] = {
    {"Put301", kPut, 301, false},          {"Put302", kPut, 302, false},
    {"Put303", kPut, 303, false},          {"DeleteWithBody303", kDeleteJson, 303, false},
    {"GetWithBody302", kGetJson, 302, false}, {"Post303BecomesGet", kPost, 303, true},
    {"Put307KeepsBody", kPut, 307, true},
};

class HttpHelpersBodylessRedirectTest : public HttpHelpersBodiesTest,
                                        public testing::WithParamInterface<BodylessRedirectCase> {};

TEST_P(HttpHelpersBodylessRedirectTest, UploadIsNeverRepeatedWithoutItsBody) {
  const BodylessRedirectCase& c = GetParam();
  const std::string data = "{\"k\":\"payload\"}";
  const bool ok = c.verb(connection, HttpUrl(server.url("/redirect-to?status=" + std::to_string(c.status) +
                                                         "&url=/echo/body")), data);
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
  EXPECT_EQ(requests[1].method, c.verb == kPost ? "GET" : "PUT");
  EXPECT_EQ(requests[1].body, c.verb == kPost ? "" : data);
}

INSTANTIATE_TEST_SUITE_P(Bodies, HttpHelpersBodylessRedirectTest, testing::ValuesIn(kBodylessRedirectCases),
                         [](const auto& info) { return std::string(info.param.name); });

// A source that breaks is named in the log; one that stalls fails the call instead of truncating the body;
// a null pointer with a size is refused before anything is sent.
TEST_F(HttpHelpersBodiesTest, FailingStalledOrNullSourcesFailTheCall) {
  const HttpUrl url(server.url("/echo/body"));
  StreamSource broken(LoopbackHttpServer::PatternBytes(50000), 20000, StreamSource::Fault::kError);
  EXPECT_FALSE(H::HttpPut(connection, url, broken, 200, {}, {}, {}, {}));
  EXPECT_EQ(Access::LastCurlCode(connection), 42);  // CURLE_ABORTED_BY_CALLBACK, from the read function
  const auto texts = log.texts("http");
  ASSERT_EQ(texts.size(), 1u) << log.dump();
  const std::string head = "Http PUT error " + Report().substr(0, Report().find("\nConnection created "));
  EXPECT_EQ(texts[0].substr(0, head.size()), head);
  const std::string tail = "(device in error : source broke)";
  EXPECT_EQ(texts[0].substr(texts[0].size() - std::min(texts[0].size(), tail.size())), tail);

  server.clearRequests();
  StreamSource stalled(LoopbackHttpServer::PatternBytes(50000), 20000, StreamSource::Fault::kStall);
  EXPECT_FALSE(H::HttpPost(connection, url, stalled, 200, {}, {}, {}, {}));
  EXPECT_NE(Report().find("request body device delivered no data before its end"), std::string::npos) << Report();
  for (const auto& request : server.requests()) EXPECT_NE(request.body.size(), 20000u) << "truncated body accepted";

  server.clearRequests();
  EXPECT_FALSE(H::HttpPut(nullptr, 10, connection, url, 200, {}, {}, {}, {}));
  EXPECT_NE(Report().find("User callback return and error"), std::string::npos) << Report();
  EXPECT_EQ(server.requestCount(), 0u);
  ASSERT_TRUE(H::HttpPut(nullptr, 0, connection, url, 200, {}, {}, {}, {})) << Report();
  EXPECT_EQ(server.lastRequest().header("Content-Length"), "0");
}

}  // namespace
