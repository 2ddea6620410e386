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

using kx::http::HttpConnection;
using Send = bool (*)(HttpConnection&, const HttpUrl&, const std::string& body);
struct UploadCase {
  const char* name;
  size_t size;
  const char* requestLine;
  Send send;
};
const UploadCase kUploadCases[] = {
    {"PutMemory", 70000, "PUT /upload HTTP/1.1",
     [](HttpConnection& c, const HttpUrl& u, const std::string& b) {
       return HttpHelpers::HttpPut(b.data(), b.size(), c, u, 200, {}, {}, {}, {});
     }},
    {"PutSizedDevice", 70000, "PUT /upload HTTP/1.1",
     [](HttpConnection& c, const HttpUrl& u, const std::string& b) {
       kx::kxIoDeviceStringReadOnly sized(b);
       return HttpHelpers::HttpPut(c, u, sized, 200, {}, {}, {}, {});
     }},
    {"PutChunkedDevice", 70000, "PUT /upload HTTP/1.1",
     [](HttpConnection& c, const HttpUrl& u, const std::string& b) {
       StreamSource stream(b);
       return HttpHelpers::HttpPut(c, u, stream, 200, {}, {}, {}, {});
     }},
    {"GetJsonWithBody", 3000, "GET /upload HTTP/1.1",
     [](HttpConnection& c, const HttpUrl& u, const std::string& b) {
       std::string out;
       return HttpHelpers::HttpGetJson(c, u, out, {}, {}, {}, {}, b.data(), b.size(), false);
     }},
    {"DeleteJsonWithBody", 3000, "DELETE /upload HTTP/1.1",
     [](HttpConnection& c, const HttpUrl& u, const std::string& b) {
       return HttpHelpers::HttpDeleteJson(c, u, b.data(), b.size(), 200, {}, {}, {}, {});
     }},
    {"Post2MiB", 2 << 20, "POST /upload HTTP/1.1",
     [](HttpConnection& c, const HttpUrl& u, const std::string& b) {
       return HttpHelpers::HttpPost(b.data(), b.size(), c, u, 200, {}, {}, {}, {});
     }},
};

class HttpUploadTest : public testing::Test, public testing::WithParamInterface<UploadCase> {
 protected:
  kx::test::LogCapture quiet{false};
};

TEST_P(HttpUploadTest, SendsNoExpectAndTheWholeBody) {
  const UploadCase& c = GetParam();
  kx::test::RawTcpFaultServer server(kx::test::RawTcpFaultServer::Mode::kAnswerAfterBody);
  ASSERT_TRUE(server.isRunning()) << server.startError();
  const std::string body = kx::test::LoopbackHttpServer::PatternBytes(c.size);
  HttpConnection connection;
  EXPECT_TRUE(c.send(connection, HttpUrl(server.url("/upload")), body)) << connection.getLastErrorMsg();
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
