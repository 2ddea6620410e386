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

const CodecCase kEncodeCases[] = {
    {"SpaceAndSlash", "a b/c", "a%20b%2Fc"},
    {"Utf8AndHighByte", "\xC3\xA9\xFF", "%C3%A9%FF"},
    {"UnreservedKept", "AZaz09-._~", "AZaz09-._~"},
    {"ReservedEscaped", "?&=:@+#%", "%3F%26%3D%3A%40%2B%23%25"},
    {"LineBreaksNotNormalised", "\r\n\n", "%0D%0A%0A"},
    {"Nuls", "\0a\0\0b\0"s, "%00a%00%00b%00"},
    {"Empty", "", ""},
};

class UrlEncodeTest : public testing::TestWithParam<CodecCase> {};

TEST_P(UrlEncodeTest, EscapesAllButUnreserved) {
  EXPECT_EQ(Url::UrlEncodeFromUtf8String(GetParam().decoded), GetParam().encoded);
}

INSTANTIATE_TEST_SUITE_P(Url, UrlEncodeTest, testing::ValuesIn(kEncodeCases),
                         [](const auto& info) { return info.param.name; });

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
    {"DelFails", "", "%7F"},
    {"SurrogateFails", "", "%ED%A0%80"},
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

TEST(UrlEncodingTest, EncodedAndDisplayForms) {
  Url url("https://u:p@[::1]:8080/x/y?q=1#f");
  EXPECT_EQ(url.toEncodedUrl(true), "https://u:p@[::1]:8080/x/y?q=1#f");
  EXPECT_EQ(url.toEncodedUrl(false), "https://[::1]:8080/x/y?q=1#f");
  EXPECT_EQ(url.toDisplayableUrl(), "https://u:*******@[::1]:8080/x/y?q=1");
  url.setCredentials("us er", std::string(40, 'z'));  // neither the password nor its length shows
  EXPECT_EQ(url.toDisplayableUrl(), "https://us er:*******@[::1]:8080/x/y?q=1");
  url.setCredentials("user", "");
  EXPECT_EQ(url.toEncodedUrl(true), "https://[::1]:8080/x/y?q=1#f");
  EXPECT_EQ(url.toDisplayableUrl(), "https://[::1]:8080/x/y?q=1");
  const Url invalid("mailto:someone@example.com");
  EXPECT_EQ(invalid.toEncodedUrl(true), "");
  EXPECT_EQ(invalid.toDisplayableUrl(), "");
}

TEST(UrlEncodingTest, EncodedFormEscapesEveryComponent) {
  Url url;
  url.setScheme("http");
  url.setHost("h");
  url.setCredentials("a@b", "c:d/e");
  url.setPathSegments({"p q", "r?s"});
  url.addQueryParameter("k&", "v#");
  url.setFragment("f g");
  EXPECT_EQ(url.toEncodedUrl(true), "http://a%40b:c%3Ad%2Fe@h/p%20q/r%3Fs?k%26=v%23#f%20g");
}

TEST(UrlEncodingTest, BasicCredentials) {
  std::string token;
  Url::BasicEncodeCredentials("Aladdin", "open sesame", token);
  EXPECT_EQ(token, "QWxhZGRpbjpvcGVuIHNlc2FtZQ==");
  const Url url("http://user:p%3Ass@h/");
  url.getCredentialsBasicEncoded(token);
  EXPECT_EQ(token, "dXNlcjpwOnNz");  // "user:p:ss"
  std::string user, password;
  url.getCredentials(user, password);
  EXPECT_EQ(user + "|" + password, "user|p:ss");
  Url("http://user:@h/").getCredentialsBasicEncoded(token);
  EXPECT_EQ(token, "");
}

}  // namespace
}  // namespace kx
