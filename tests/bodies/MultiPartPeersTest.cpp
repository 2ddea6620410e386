// Our builders against other parsers, other builders' bodies against our parsers, and our chunked framing
// against node's strict HTTP server. Each peer program runs from tests/support/ on a body saved to a file.
#include <kx/http/MultiPartBuilder.h>
#include <kx/http/MultiPartStreamBuilder.h>
#include <kx/http/kxIoDeviceHttpChunked.h>
#include <kx/system/kxIoDeviceStringWriteOnly.h>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <openssl/sha.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <regex>

#include "MultiPartRun.h"
#include "support/RawTcpFaultServer.h"

namespace kx::test {
namespace {

std::string Shell(const std::string& command) {
  std::string out;
  FILE* pipe = ::popen(command.c_str(), "r");
  char buffer[65536];
  for (size_t n; pipe != nullptr && (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, n);
  if (pipe != nullptr && ::pclose(pipe) != 0) out += "<exit status>";
  return out;
}
bool Have(const std::string& program) { return Shell("command -v " + program + " >/dev/null && echo y") == "y\n"; }
std::string Save(const std::string& bytes) {
  const std::string path = testing::TempDir() + "peer_body";
  std::ofstream(path, std::ios::binary) << bytes;
  return path;
}
std::string Support(const char* file) { return std::string(std::getenv("KX_TEST_SOURCE_DIR")) + "/support/" + file; }
std::string Hex(std::string_view bytes) {
  std::string out;
  for (unsigned char c : bytes) out += "0123456789abcdef"[c >> 4], out += "0123456789abcdef"[c & 15];
  return out;
}

// Empty, one byte and a 1 MiB binary part full of CRLF "--", the way every part starts and ends.
const std::string kBinary = [] {
  std::string s;
  for (int i = 0; s.size() < (1 << 20); ++i) s += "\r\n--" + std::string(1, char(i)) + "\r\n-";
  return s;
}();
const std::vector<ParsedPart> kParts = {{"empty", "", "", ""}, {"one", "", "", "1"}, {"bin", "b.bin", "", kBinary}};

struct ToPeer { const char* name; const char* program; const char* script; bool streamBuilder; std::string boundary; };
class BuildersToPeersTest : public testing::TestWithParam<ToPeer> {};

TEST_P(BuildersToPeersTest, PeerReadsOurPartsExactly) {
  const ToPeer& row = GetParam();
  const std::string program(row.program);
  if (!Have(program.substr(program.rfind(' ') + 1))) GTEST_SKIP() << row.program << " is not installed";
  std::string body, boundary, expected;
  if (row.streamBuilder) {
    kxIoDeviceStringWriteOnly sink;
    http::MultiPartStreamBuilder builder(row.boundary);
    ASSERT_TRUE(builder.beginDelegation(&sink, kxIoDevice::DW_Write));
    for (const ParsedPart& p : kParts) ASSERT_TRUE(builder.startNewPart(p.name, p.fileName) && builder.writeAll(p.data));
    ASSERT_TRUE(builder.endDelegation());
    body = sink.getString();
    boundary = builder.getBoundary();
  } else {
    http::MultiPartBuilder builder(row.boundary);
    for (const ParsedPart& p : kParts)
      builder.queueSrcBuffer(p.data.data(), p.data.size(), p.name, p.fileName.empty() ? nullptr : &p.fileName);
    char buffer[65536];
    do body.append(buffer, builder.read(buffer, sizeof buffer));
    while (!builder.atEnd() && builder.good());
    boundary = builder.getBoundary();
  }
  for (const ParsedPart& p : kParts) expected += "[\"" + p.name + "\",\"" + p.fileName + "\",\"" + Hex(p.data) + "\"]\n";
  // A generated boundary has '=' and braces, which are not token characters: those go quoted.
  if (row.boundary.empty()) boundary = "\"" + boundary + "\"";
  EXPECT_EQ(Shell(std::string(row.program) + " " + Support(row.script) + " 'multipart/form-data; boundary=" + boundary +
                  "' " + Save(body)), expected);
}
const char kBusboy[] = "NODE_PATH=/usr/share/nodejs node", kPython[] = "/usr/bin/python3";
INSTANTIATE_TEST_SUITE_P(Peers, BuildersToPeersTest, testing::Values(
    ToPeer{"BuilderBusboy", kBusboy, "busboy.js", false, ""}, ToPeer{"StreamBuilderBusboy", kBusboy, "busboy.js", true, ""},
    ToPeer{"BuilderPython", kPython, "pymultipart.py", false, ""}, ToPeer{"StreamBuilderPython", kPython, "pymultipart.py", true, ""},
    ToPeer{"TokenBoundaryBusboy", kBusboy, "busboy.js", false, "peer-token_42"},
    ToPeer{"TokenBoundaryPython", kPython, "pymultipart.py", true, "peer-token_42"}),
    [](const auto& info) { return std::string(info.param.name); });

// Each script writes the Content-Type value on one line, then the body.
const char kUrllib3[] = "from urllib3.filepost import encode_multipart_formdata as e; import sys\n"
                        "b, t = e([('a', 'x'), ('f', ('n.bin', bytes(range(256)) + b'\\r\\n--', 'application/x-bin'))])\n"
                        "sys.stdout.buffer.write(t.encode() + b'\\n' + b)";
const char kEmail[] = "from email.mime.multipart import MIMEMultipart; from email.mime.text import MIMEText\n"
                      "from email.policy import HTTP; import sys\nm = MIMEMultipart('mixed', policy=HTTP)\n"
                      "for t in ('one', '--two'): m.attach(MIMEText(t, policy=HTTP))\n"
                      "b = m.as_bytes().split(b'\\r\\n\\r\\n', 1)[1]\nsys.stdout.buffer.write(m['Content-Type'].encode() + b'\\n' + b)";
struct FromPeer { const char* name; std::string contentTypeAndBody; std::vector<ParsedPart> parts; bool formData; };
std::vector<FromPeer> FromPeers() {
  std::string bytes;
  for (int i = 0; i < 256; ++i) bytes += char(i);
  std::vector<FromPeer> rows;
  if (Have(kPython)) {
    rows.push_back({"Urllib3", Shell(std::string(kPython) + " -c \"" + kUrllib3 + "\""),
                    {{"a", "", "", "x"}, {"f", "n.bin", "application/x-bin", bytes + "\r\n--"}}, true});
    rows.push_back({"EmailMixed", Shell(std::string(kPython) + " -c \"" + kEmail + "\""),
                    {{"", "", "text/plain; charset=\"us-ascii\"", "one"}, {"", "", "text/plain; charset=\"us-ascii\"", "--two"}}, false});
  }
  if (Have("/usr/bin/curl")) {
    RawTcpFaultServer server(RawTcpFaultServer::Mode::kAnswerAfterBody);
    const std::string file("\xff\r\n--\x00 \xc3\xa9", 9);
    Save(file);
    Shell("/usr/bin/curl -s -H 'Expect:' -F a=1 -F 'é=ü' -F 'f=@" + testing::TempDir() + "peer_body;type=app/x' -F "
          "'h=v;headers=\"X-A: 1\"' " + server.url("/"));
    std::smatch type;
    const std::string head = server.requestHeads().at(0);
    std::regex_search(head, type, std::regex("Content-Type: (.*)\r"));
    rows.push_back({"CurlF", type[1].str() + "\n" + server.requestBodies().at(0),
                    {{"a", "", "", "1"}, {"é", "", "", "ü"}, {"f", "peer_body", "app/x", file},
                     {"h", "", "", "v"}}, true});
  }
  return rows;
}
class PeersToParsersTest : public testing::TestWithParam<FromPeer> {};

TEST_P(PeersToParsersTest, ParsersReturnThePeersPartBytes) {
  const size_t cut = GetParam().contentTypeAndBody.find('\n');
  const std::list<std::string> type{GetParam().contentTypeAndBody.substr(0, cut)};
  const std::string body = GetParam().contentTypeAndBody.substr(cut + 1);
  for (Pieces pieces : {Pieces::kWhole, Pieces::kBytes, Pieces::kRandom}) {
    const ParseOutcome sax = RunSax(type, body, pieces);
    EXPECT_EQ(sax.error, "");
    EXPECT_EQ(sax.parts, GetParam().parts);
    if (GetParam().formData) { EXPECT_EQ(RunIterator(type, body, pieces).parts, GetParam().parts); }
  }
}
INSTANTIATE_TEST_SUITE_P(Peers, PeersToParsersTest, testing::ValuesIn(FromPeers()),
                         [](const auto& info) { return std::string(info.param.name); });
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(PeersToParsersTest);

// Node's llhttp rejects what cpp-httplib lets through: a bad size line, a missing CRLF, a lost last chunk.
class ChunkedToNodeTest : public testing::TestWithParam<uint32_t> {};

TEST_P(ChunkedToNodeTest, NodeDecodesOurFraming) {
  if (!Have("node")) GTEST_SKIP() << "node is not installed";
  FILE* sink = ::popen(("exec node " + Support("chunked_sink.js")).c_str(), "r");
  int port = 0;
  ASSERT_EQ(std::fscanf(sink, "%d", &port), 1);
  kxIoDeviceStringWriteOnly framed;
  http::kxIoDeviceHttpChunked chunked(GetParam());
  ASSERT_TRUE(chunked.beginDelegation(&framed, kxIoDevice::DW_Write));
  for (size_t at = 0, n = 1; at < kBinary.size() / 8; at += n, n = n * 3 % 5000 + 1)
    ASSERT_TRUE(chunked.writeAll(kBinary.data() + at, std::min(n, kBinary.size() / 8 - at)));
  ASSERT_TRUE(chunked.endDelegation());
  const std::string request = "POST / HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n" + framed.getString();
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{AF_INET, htons(uint16_t(port)), {htonl(INADDR_LOOPBACK)}, {}};
  ASSERT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  for (size_t at = 0; at < request.size();) at += size_t(std::max<ssize_t>(0, ::send(fd, request.data() + at, request.size() - at, 0)));
  std::string answer(65536, '\0');
  answer.resize(size_t(std::max<ssize_t>(0, ::recv(fd, answer.data(), answer.size(), MSG_WAITALL))));
  ::close(fd);
  ::pclose(sink);
  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const unsigned char*>(kBinary.data()), kBinary.size() / 8, digest);
  EXPECT_NE(answer.find("\r\n\r\n" + std::to_string(kBinary.size() / 8) + " " +
                        Hex({reinterpret_cast<char*>(digest), sizeof digest})), std::string::npos) << answer;
}
INSTANTIATE_TEST_SUITE_P(Peers, ChunkedToNodeTest, testing::Values(1u, 7u, 4096u, 1u << 20));

}  // namespace
}  // namespace kx::test
