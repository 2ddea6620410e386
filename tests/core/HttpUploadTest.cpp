// Uploads against a server that never answers "100 Continue": libcurl asks for it before any body it
// does not know to be small and then waits a second for the answer, unless the request leaves the
// header out. What the server received shows whether it was asked.
#include <gtest/gtest.h>

#include <kx/http/HttpConnection.h>
#include <kx/http/HttpHelpers.h>
#include <kx/http/HttpUrl.h>
#include <kx/system/kxIoDeviceStringReadOnly.h>

#include "core/ConnectionTestCall.h"
#include "support/LogCapture.h"
#include "support/LoopbackHttpServer.h"
#include "support/RawTcpFaultServer.h"

#include <strings.h>

#include <string>

namespace {

using kx::http::HttpHelpers;
using kx::http::HttpUrl;

using kx::test::StreamSource;

enum class Upload { kPutMemory, kPutSizedDevice, kPutStream, kGetJson, kDeleteJson, kPost };
struct UploadCase {
  const char* name;
  Upload upload;
  size_t size;
  const char* requestLine;
};
constexpr UploadCase kUploadCases[] = {
    {"PutMemory", Upload::kPutMemory, 70000, "PUT /upload HTTP/1.1"},
    {"PutSizedDevice", Upload::kPutSizedDevice, 70000, "PUT /upload HTTP/1.1"},
    {"PutChunkedDevice", Upload::kPutStream, 70000, "PUT /upload HTTP/1.1"},
    {"GetJsonWithBody", Upload::kGetJson, 3000, "GET /upload HTTP/1.1"},
    {"DeleteJsonWithBody", Upload::kDeleteJson, 3000, "DELETE /upload HTTP/1.1"},
    {"Post2MiB", Upload::kPost, 2 << 20, "POST /upload HTTP/1.1"},
};

class HttpUploadTest : public testing::Test, public testing::WithParamInterface<UploadCase> {
 protected:
  kx::test::LogCapture quiet{false};
};

TEST_P(HttpUploadTest, SendsNoExpectAndTheWholeBody) {
  const UploadCase& c = GetParam();
  kx::test::RawTcpFaultServer server(kx::test::RawTcpFaultServer::Mode::kAnswerAfterBody);
  ASSERT_TRUE(server.isRunning()) << server.startError();
  const HttpUrl url(server.url("/upload"));
  const std::string body = kx::test::LoopbackHttpServer::PatternBytes(c.size);
  kx::http::HttpConnection connection;
  std::string out;
  kx::kxIoDeviceStringReadOnly sized(body);
  StreamSource stream(body);
  bool ok = false;
  switch (c.upload) {
    case Upload::kPutMemory:
      ok = HttpHelpers::HttpPut(body.data(), body.size(), connection, url, 200, nullptr, nullptr, nullptr, nullptr);
      break;
    case Upload::kPutSizedDevice:
      ok = HttpHelpers::HttpPut(connection, url, sized, 200, nullptr, nullptr, nullptr, nullptr);
      break;
    case Upload::kPutStream:
      ok = HttpHelpers::HttpPut(connection, url, stream, 200, nullptr, nullptr, nullptr, nullptr);
      break;
    case Upload::kGetJson:
      ok = HttpHelpers::HttpGetJson(connection, url, out, nullptr, nullptr, nullptr, nullptr, body.data(), body.size(),
                                    false);
      break;
    case Upload::kDeleteJson:
      ok = HttpHelpers::HttpDeleteJson(connection, url, body.data(), body.size(), 200, nullptr, nullptr, nullptr,
                                       nullptr);
      break;
    case Upload::kPost:
      ok = HttpHelpers::HttpPost(body.data(), body.size(), connection, url, 200, nullptr, nullptr, nullptr, nullptr);
      break;
  }
  EXPECT_TRUE(ok) << connection.getLastErrorMsg();
  ASSERT_EQ(server.requestHeads().size(), 1u);
  const std::string head = server.requestHeads()[0];
  EXPECT_EQ(head.substr(0, head.find("\r\n")), c.requestLine);
  for (size_t at = head.find("\r\n"); at != std::string::npos; at = head.find("\r\n", at + 2))
    EXPECT_NE(::strncasecmp(head.c_str() + at + 2, "Expect:", 7), 0) << head;
  EXPECT_EQ(server.requestBodies()[0], body);
}

INSTANTIATE_TEST_SUITE_P(Uploads, HttpUploadTest, testing::ValuesIn(kUploadCases),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
