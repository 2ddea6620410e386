#include <kx/Url.h>

#include <gtest/gtest.h>

#include <string>

namespace kx {
namespace {

using namespace std::string_literals;
using Segments = Url::PathSegments;

struct CodecCase {
  std::string name, decoded, encoded;
};

// Everything but the unreserved characters is escaped with upper-case hex, a space never as "+", line
// breaks as they are, NULs included (uriparser's escaper alone would stop at the first one).
TEST(UrlEncodingTest, EscapesAllButUnreserved) {
  EXPECT_EQ(Url::UrlEncodeFromUtf8String("AZaz09-._~ /?&=:@+#%"), "AZaz09-._~%20%2F%3F%26%3D%3A%40%2B%23%25");
  EXPECT_EQ(Url::UrlEncodeFromUtf8String("\xC3\xA9\xFF\r\n\n"), "%C3%A9%FF%0D%0A%0A");
  EXPECT_EQ(Url::UrlEncodeFromUtf8String("\0a\0\0b\0"s), "%00a%00%00b%00");
  EXPECT_EQ(Url::UrlEncodeFromUtf8String(""), "");
}

// An empty `decoded` with a non-empty `encoded` means the decoding must fail.
const CodecCase kDecodeCases[] = {
    {"PlusKeptLowerHexRead", "a+b \xC3\xA9J", "a+b%20%c3%a9%4a"},
    {"BrokenEscapesKept", "%4%G1%A%", "%4%G1%%41%"},
    {"FourByteUtf8", "\xF0\x9F\x98\x80", "%F0%9F%98%80"},
    {"LongRunsBetweenEscapes", "Abcdefghijklmnopq rstuvwxyz0123456789B", "%41bcdefghijklmnopq%20rstuvwxyz0123456789%42"},
    {"Empty", "", ""},
    {"CarriageReturnFails", "", "%0D"},
    {"TruncatedUtf8Fails", "", "%C3"},
    {"EscapedNulFails", "", "ab%00cd"},
    {"RawNulFails", "", "ab\0cd"s},
    {"AboveUnicodeFails", "", "%F4%90%80%80"},
    {"OverlongFails", "", "%C0%AF"},
    {"RawHighByteFails", "", "\xFF"},
};

class UrlDecodeTest : public testing::TestWithParam<CodecCase> {};

TEST_P(UrlDecodeTest, DecodesOrFailsEmpty) {
  const CodecCase& c = GetParam();
  std::string decoded = "previous content";
  EXPECT_EQ(Url::UrlDecodeToUtf8String(c.encoded, decoded), !c.decoded.empty() || c.encoded.empty());
  EXPECT_EQ(decoded, c.decoded);
}

INSTANTIATE_TEST_SUITE_P(Url, UrlDecodeTest, testing::ValuesIn(kDecodeCases),
                         [](const auto& info) { return info.param.name; });

TEST(UrlEncodingTest, ParametersAndPaths) {
  const Url::QueryParameters pairs = {{"a", "1"}, {"b", ""}, {"k y", "v&w=x"}};
  EXPECT_EQ(Url::ToEncodedParameters(pairs, true), "?a=1&b=&k%20y=v%26w%3Dx");
  EXPECT_EQ(Url::ToEncodedParameters(pairs, false), "a=1&b=&k%20y=v%26w%3Dx");
  EXPECT_EQ(Url::ToEncodedParameters({}, true), "");
  EXPECT_EQ(Url::ToEncodedPath(Segments{""}), "");
  EXPECT_EQ(Url::ToEncodedPath(Segments{"", ""}), "/");
  EXPECT_EQ(Url::ToEncodedPath(Segments{"a b", "c/d", ""}), "a%20b/c%2Fd/");
  const Segments segments = {"x", "y", "z"};
  EXPECT_EQ(Url::ToEncodedPath(segments.begin() + 1, segments.end()), "y/z");
}

TEST(UrlEncodingTest, FromEncodedPathDropsEmptyPiecesAndReplaces) {
  Segments segments = {"old"};
  EXPECT_TRUE(Url::FromEncodedPath("//a//b%2Fc/", segments));
  EXPECT_EQ(segments, (Segments{"a", "b/c"}));
  EXPECT_FALSE(Url::FromEncodedPath("/a/%FF", segments));
  EXPECT_TRUE(segments.empty());
  segments = {"a%20b/c"};
  EXPECT_TRUE(Url::FromEncodedPath(segments[0], segments));  // argument lives in the target
  EXPECT_EQ(segments, (Segments{"a b", "c"}));
}

TEST(UrlEncodingTest, PathSetters) {
  Url url("http://h/start");
  EXPECT_FALSE(url.setEncodedPath("/ok/%0A"));
  EXPECT_TRUE(url.getPathSegments().empty());
  url.setNonEncodedPath("/%41//b c/");
  url.pushEncodedPath("x%2Fy/z");
  url.pushEncodedPath("good/%FF");  // one bad piece: nothing at all is appended
  url.pushNonEncodedPath("/%2F/");
  EXPECT_EQ(url.getPathSegments(), (Segments{"%41", "b c", "x/y", "z", "%2F"}));
  EXPECT_EQ(url.toEncodedUrl(false), "http://h/%2541/b%20c/x%2Fy/z/%252F");
}

TEST(UrlEncodingTest, BasicCredentials) {
  std::string token;
  Url::BasicEncodeCredentials("Aladdin", "open sesame", token);
  EXPECT_EQ(token, "QWxhZGRpbjpvcGVuIHNlc2FtZQ==");
  Url("http://user:p%3Ass@h/").getCredentialsBasicEncoded(token);
  EXPECT_EQ(token, "dXNlcjpwOnNz");  // "user:p:ss"
  Url("http://user:@h/").getCredentialsBasicEncoded(token);
  EXPECT_EQ(token, "");
}

}  // namespace
}  // namespace kx
