// Both multipart parsers over the same bodies: those curl -F, urllib3 and Python's email package write,
// and hand-made edge cases. Each body is fed whole, byte by byte and in random pieces; the parts and
// texts must not depend on the cut. Where the parsers differ on purpose (a preamble, a part without
// form-data disposition, a cut body) each row says what each one answers.
#include <gtest/gtest.h>

#include "bodies/MultiPartRun.h"

namespace {

using kx::test::ParsedPart;
using kx::test::Pieces;
using namespace std::string_literals;

// An empty error: the body was read to its closing boundary.
struct BodyCase {
  std::string name, contentType, body;
  std::vector<ParsedPart> parts;
  std::string iteratorError, saxError;
};
void PrintTo(const BodyCase& row, std::ostream* out) { *out << row.name; }

const std::string kCt = "multipart/form-data; boundary=bnd";
const std::string kPartA = "--bnd\r\nContent-Disposition: form-data; name=a\r\n\r\nx";
const std::string kCurl = "------------------------2cce64e0b5ca3a20";
const std::string kPython = "===============4866545210421785453==";
const std::string kNearMisses = "\r\r\n-\r\n--\r\n--bn\r\n";

// `text` with every '@' replaced by `boundary`.
std::string Fill(std::string text, const std::string& boundary) {
  for (size_t at; (at = text.find('@')) != std::string::npos;) text.replace(at, 1, boundary);
  return text;
}

std::string Repeat(const std::string& text, size_t times) {
  std::string out;
  while (times-- > 0) out += text;
  return out;
}

const std::vector<BodyCase> kBodyCases = {
    {"CurlForm", "multipart/form-data; boundary=" + kCurl,
     Fill("--@\r\nContent-Disposition: form-data; name=\"name\"\r\n\r\nvalue\r\n--@\r\nContent-Disposition: "
          "form-data; name=\"meta\"\r\nContent-Type: application/json\r\n\r\n{\"a\":1}\r\n--@\r\nContent-Disposition: "
          "form-data; name=\"up\"; filename=\"caf\xc3\xa9.bin\"\r\nContent-Type: application/octet-stream\r\n\r\n"
          "A\r\n--x\xff\r\n--@\r\nContent-Disposition: form-data; name=\"h\"\r\nX-Extra: 1\r\n\r\nx\r\n--@--\r\n",
          kCurl),
     {{"name", "", "", "value"}, {"meta", "", "application/json", "{\"a\":1}"},
      {"up", "caf\xc3\xa9.bin", "application/octet-stream", "A\r\n--x\xff"}, {"h", "", "", "x"}},
     "", ""},
    {"Urllib3", "multipart/form-data; boundary=b0f3c1a2",
     "--b0f3c1a2\r\nContent-Disposition: form-data; name=\"field\"\r\n\r\nva;lue\r\n--b0f3c1a2\r\nContent-Disposition: "
     "form-data; name=\"file\"; filename=\"r\xc3\xa9sum\xc3\xa9.txt\"\r\nContent-Type: text/plain\r\n\r\na\r\n--b\r\n"
     "--b0f3c1a2--\r\n",
     {{"field", "", "", "va;lue"}, {"file", "r\xc3\xa9sum\xc3\xa9.txt", "text/plain", "a\r\n--b"}}, "", ""},
    {"PythonMixedQuotedBoundary", "multipart/mixed; boundary=\"" + kPython + "\"",
     Fill("--@\r\nContent-Type: text/plain; charset=\"us-ascii\"\r\nMIME-Version: 1.0\r\nContent-Transfer-Encoding: "
          "7bit\r\n\r\nhello\r\n\r\n--@\r\nContent-Type: application/octet-stream\r\nMIME-Version: 1.0\r\n"
          "Content-Transfer-Encoding: base64\r\n\r\nAA0KLS3/\r\n\r\n--@--\r\n",
          kPython),
     {{"", "", "text/plain; charset=\"us-ascii\"", "hello\r\n"}, {"", "", "application/octet-stream", "AA0KLS3/\r\n"}},
     "name is empty, part #0", ""},
    {"PythonPreamble", "multipart/mixed; boundary=\"===============0123456789==\"",
     "This is a multi-part message in MIME format.\r\n--===============0123456789==\r\nContent-Type: text/plain; "
     "charset=\"us-ascii\"\r\nMIME-Version: 1.0\r\nContent-Transfer-Encoding: 7bit\r\n\r\nhello\r\n"
     "--===============0123456789==--\r\n",
     {{"", "", "text/plain; charset=\"us-ascii\"", "hello"}}, "bad boundary, part #0", ""},
    {"EmptyHeaderBlock", kCt, "--bnd\r\n\r\nx\r\n--bnd--", {{"", "", "", "x"}}, "name is empty, part #0", ""},
    {"NearMissDelimiters", kCt, kPartA + kNearMisses + "\r\n--bnd--", {{"a", "", "", "x" + kNearMisses}}, "", ""},
    {"LargeNearMisses", kCt, kPartA + Repeat("\r\n--bn\r\n-\0x"s, 30000) + "\r\n--bnd--",
     {{"a", "", "", "x" + Repeat("\r\n--bn\r\n-\0x"s, 30000)}}, "", ""},
    {"LooseParameters", kCt,
     "--bnd\r\nContent-Disposition: form-data;name=plain ; filename = \"a;b.txt\"\r\nContent-Type: t/x\r\n"
     "X-Tag: a, \"b,c\"\r\n\r\n\r\n--bnd--",
     {{"plain", "a;b.txt", "t/x", ""}}, "", ""},
    {"ClosingOnly", kCt, "--bnd--\r\n", {}, "", ""},
    {"ClosingThenCrlfAndByte", kCt, kPartA + "\r\n--bnd--\r\nX", {}, "too many data, part #1",
     "Got unexpected data after last boundary (too many bytes)"},
    {"ClosingThenOtherBytes", kCt, kPartA + "\r\n--bnd--xy", {}, "too many data, part #1",
     "Got unexpected data after last boundary (expect no data or CRLF)"},
    {"ClosingCutCr", kCt, kPartA + "\r\n--bnd--\r", {{"a", "", "", "x"}}, "not enough data, part #1", ""},
    {"ClosingCutDash", kCt, kPartA + "\r\n--bnd-", {}, "not enough data, part #1", "<cut>"},
    {"CutInData", kCt, kPartA + "yz\r\n--bn", {}, "Not enough data, part #1", "<cut>"},
    {"CutInHeader", kCt, "--bnd\r\nContent-Disp", {}, "Fail to locate end of part header, part #0", "<cut>"},
    {"EmptyBody", kCt, "", {}, "bad boundary not enough data, part #0", ""},
    {"WrongFirstBoundary", kCt, "--other\r\n\r\n", {}, "bad boundary, part #0",
     "Invalid boundary, got --oth, expected --bnd"},
    {"NoCrlfAfterBoundary", kCt, kPartA + "\r\n--bndzz", {}, "Invalid part header (should start with CRLF), part #1",
     "Unexpected data after boundary"},
    {"LineWithoutColon", kCt, "--bnd\r\nBogus\r\n\r\n--bnd--", {}, "Invalid part header, part #0",
     "Unexpected part header, missing ':' Bogus"},
    {"ControlByteInHeader", kCt, "--bnd\r\nX: a\x01z\r\n\r\n--bnd--", {}, "Invalid bytes in header, part #0",
     "Invalid bytes in header"},
    {"NotFormData", kCt, "--bnd\r\nContent-Disposition: attachment; name=a\r\n\r\n--bnd--", {},
     "Content-Disposition should be form-data, part #0", "Content-Disposition should be form-data attachment; name=a"},
    {"BadUtf8FileName", kCt, "--bnd\r\nContent-Disposition: form-data; name=a; filename=\"\xff.txt\"\r\n\r\n--bnd--",
     {}, "Fail to parse \xff.txt string", "Fail to parse \xff.txt string"},
    {"UnclosedQuote", kCt, "--bnd\r\nX: \"a\r\n\r\n--bnd--", {}, "Failed to split multivalue part header",
     "Failed to split multivalue part header"},
    {"HugeHeader", kCt, "--bnd\r\nX: " + std::string(70000, 'h') + "\r\n\r\n--bnd--", {},
     "Part header is too big, part #0", "Part header is too big"},
};

class MultiPartParsersTest : public testing::TestWithParam<BodyCase> {};

TEST_P(MultiPartParsersTest, SameOutcomeWhateverThePieces) {
  const BodyCase& row = GetParam();
  for (const Pieces pieces : {Pieces::kWhole, Pieces::kBytes, Pieces::kRandom}) {
    SCOPED_TRACE(static_cast<int>(pieces));
    const auto pulled = kx::test::RunIterator({row.contentType}, row.body, pieces);
    EXPECT_EQ(pulled.error, row.iteratorError);
    if (row.iteratorError.empty()) {
      EXPECT_EQ(pulled.parts, row.parts);
    }
    const auto pushed = kx::test::RunSax({row.contentType}, row.body, pieces);
    EXPECT_EQ(pushed.error, row.saxError);
    if (row.saxError.empty()) {
      EXPECT_EQ(pushed.parts, row.parts);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Bodies, MultiPartParsersTest, testing::ValuesIn(kBodyCases),
                         [](const auto& info) { return info.param.name; });

struct ContentTypeCase {
  std::string name;
  std::list<std::string> values;
  std::string boundary, iteratorError, saxError;
  kx::http::MultiPartSaxParser::MultiPartType saxType;
};
void PrintTo(const ContentTypeCase& row, std::ostream* out) { *out << row.name; }

const std::string kLong(256, 'b');
const std::string kStart = "Content-Type should start with 'multipart/form-data; boundary=' or 'multipart/mixed; "
                           "boundary=', received ";
const std::vector<ContentTypeCase> kContentTypeCases = {
    {"None", {}, "b", "missing or multiple Content-Type", "Missing content-type header in http response", {}},
    {"Two", {"multipart/form-data; boundary=b", "text/html"}, "b", "missing or multiple Content-Type",
     "Multiple content-type header in http response", {}},
    {"Empty", {" "}, "b", "Content-Type header is empty", kStart + " ", {}},
    {"NotMultipart", {"text/plain; boundary=b"}, "b", "Content-Type should be multipart/form-data or multipart/mixed",
     kStart + "text/plain; boundary=b", {}},
    {"NoBlank", {"multipart/form-data;boundary=b"}, "b", "", kStart + "multipart/form-data;boundary=b", {}},
    {"EmptyBoundary", {"multipart/mixed; boundary="}, "", "Content-Type boundary is missing or empty",
     "Invalid boundary in Content-Type multipart/mixed; boundary=", {}},
    {"Boundary256", {"multipart/mixed; boundary=" + kLong}, kLong, "", "", kx::http::MultiPartSaxParser::MPT_Mixed},
    {"Boundary257", {"multipart/mixed; boundary=" + kLong + "b"}, kLong + "b", "boundary is too long (limited to 256B)",
     "Invalid boundary in Content-Type multipart/mixed; boundary=" + kLong + "b", {}},
    {"QuotedWithBlank", {"multipart/form-data; boundary=\"a b\""}, "a b", "", "",
     kx::http::MultiPartSaxParser::MPT_FormData},
    {"UnquotedBlank", {"multipart/form-data; boundary=a b"}, "a b", "",
     "Invalid boundary in Content-Type multipart/form-data; boundary=a b", {}},
};

class MultiPartContentTypeTest : public testing::TestWithParam<ContentTypeCase> {};

TEST_P(MultiPartContentTypeTest, TakesBoundaryOrRefuses) {
  const ContentTypeCase& row = GetParam();
  const std::string body = "--" + row.boundary + "--";
  EXPECT_EQ(kx::test::RunIterator(row.values, body, Pieces::kWhole).error, row.iteratorError);
  kx::http::MultiPartSaxParser::MultiPartType type{};
  EXPECT_EQ(kx::test::RunSax(row.values, body, Pieces::kWhole, &type).error, row.saxError);
  EXPECT_EQ(type, row.saxType);
}

INSTANTIATE_TEST_SUITE_P(Headers, MultiPartContentTypeTest, testing::ValuesIn(kContentTypeCases),
                         [](const auto& info) { return info.param.name; });

}  // namespace
