#include <kx/Url.h>

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

namespace kx {
namespace {

using Segments = std::vector<std::string>;

struct CodecCase {
  std::string name;
  std::string decoded;
  std::string encoded;
};

void PrintTo(const CodecCase& c, std::ostream* os) { *os << c.name; }

class UrlEncodeTest : public testing::TestWithParam<CodecCase> {};

TEST_P(UrlEncodeTest, EncodesEveryReservedByte) {
  EXPECT_EQ(Url::UrlEncodeFromUtf8String(GetParam().decoded), GetParam().encoded);
}

INSTANTIATE_TEST_SUITE_P(
    Url, UrlEncodeTest,
    testing::Values(CodecCase{"SpaceAndSlash", "a b/c", "a%20b%2Fc"},
                    CodecCase{"TwoByteUtf8", "\xC3\xA9", "%C3%A9"},
                    CodecCase{"UnreservedKept", "AZaz09-._~", "AZaz09-._~"},
                    CodecCase{"ReservedEscaped", "?&=:@+#%", "%3F%26%3D%3A%40%2B%23%25"},
                    CodecCase{"LineBreaksNotNormalised", "\r\n\n", "%0D%0A%0A"},
                    CodecCase{"EmbeddedNul", std::string("a\0b", 3), "a%00b"},
                    CodecCase{"LeadingAndTrailingNul", std::string("\0x\0", 3), "%00x%00"},
                    CodecCase{"OnlyNuls", std::string("\0\0", 2), "%00%00"},
                    CodecCase{"Empty", "", ""}, CodecCase{"HighByte", "\xFF", "%FF"}),
    [](const testing::TestParamInfo<CodecCase>& info) { return info.param.name; });

// `encoded` -> `decoded`; rows with `ok` false expect failure and an emptied result.
struct DecodeCase {
  std::string name;
  std::string encoded;
  bool ok;
  std::string decoded;
};

void PrintTo(const DecodeCase& c, std::ostream* os) { *os << c.name; }

class UrlDecodeTest : public testing::TestWithParam<DecodeCase> {};

TEST_P(UrlDecodeTest, DecodesOrFailsEmpty) {
  const DecodeCase& c = GetParam();
  std::string decoded = "previous content";
  EXPECT_EQ(Url::UrlDecodeToUtf8String(c.encoded, decoded), c.ok);
  EXPECT_EQ(decoded, c.ok ? c.decoded : std::string());
  EXPECT_LE(decoded.size(), c.encoded.size());
}

INSTANTIATE_TEST_SUITE_P(
    Url, UrlDecodeTest,
    testing::Values(DecodeCase{"PlusKept", "a+b%20c", true, "a+b c"},
                    DecodeCase{"LowerCaseHex", "%c3%a9%4a", true, "\xC3\xA9J"},
                    DecodeCase{"LonePercent", "%", true, "%"},
                    DecodeCase{"TruncatedEscape", "ab%4", true, "ab%4"},
                    DecodeCase{"NonHexEscape", "%G1", true, "%G1"},
                    DecodeCase{"PercentBeforeEscape", "%%41", true, "%A"},
                    DecodeCase{"Empty", "", true, ""},
                    DecodeCase{"FourByteUtf8", "%F0%9F%98%80", true, "\xF0\x9F\x98\x80"},
                    DecodeCase{"CarriageReturnFails", "%0D", false, ""},
                    DecodeCase{"TruncatedUtf8Fails", "%C3", false, ""},
                    DecodeCase{"EscapedNulFails", "ab%00cd", false, ""},
                    DecodeCase{"RawNulFails", std::string("ab\0cd", 5), false, ""},
                    DecodeCase{"DelFails", "%7F", false, ""},
                    DecodeCase{"SurrogateFails", "%ED%A0%80", false, ""},
                    DecodeCase{"AboveUnicodeFails", "%F4%90%80%80", false, ""},
                    DecodeCase{"OverlongFails", "%C0%AF", false, ""},
                    DecodeCase{"RawHighByteFails", "\xFF", false, ""}),
    [](const testing::TestParamInfo<DecodeCase>& info) { return info.param.name; });

TEST(UrlEncodingTest, EncodedParameters) {
  const Url::QueryParameters pairs = {{"a", "1"}, {"b", ""}, {"k y", "v&w=x"}};
  EXPECT_EQ(Url::ToEncodedParameters(pairs, true), "?a=1&b=&k%20y=v%26w%3Dx");
  EXPECT_EQ(Url::ToEncodedParameters(pairs, false), "a=1&b=&k%20y=v%26w%3Dx");
  EXPECT_EQ(Url::ToEncodedParameters({}, true), "");
  EXPECT_EQ(Url::ToEncodedParameters({{"", ""}}, true), "?=");
}

TEST(UrlEncodingTest, EncodedPath) {
  EXPECT_EQ(Url::ToEncodedPath(Segments{}), "");
  EXPECT_EQ(Url::ToEncodedPath(Segments{""}), "");
  EXPECT_EQ(Url::ToEncodedPath(Segments{"", ""}), "/");
  EXPECT_EQ(Url::ToEncodedPath(Segments{"a", ""}), "a/");
  EXPECT_EQ(Url::ToEncodedPath(Segments{"a b", "c/d", "\xC3\xA9"}), "a%20b/c%2Fd/%C3%A9");
  const Segments segments = {"x", "y", "z"};
  EXPECT_EQ(Url::ToEncodedPath(segments.begin() + 1, segments.end()), "y/z");
  EXPECT_EQ(Url::ToEncodedPath(segments.begin(), segments.begin()), "");
}

TEST(UrlEncodingTest, FromEncodedPathDropsEmptyPiecesAndReplaces) {
  Segments segments = {"old"};
  EXPECT_TRUE(Url::FromEncodedPath("//a//b%2Fc/", segments));
  EXPECT_EQ(segments, (Segments{"a", "b/c"}));
  EXPECT_TRUE(Url::FromEncodedPath("", segments));
  EXPECT_TRUE(segments.empty());
  segments = {"old"};
  EXPECT_FALSE(Url::FromEncodedPath("/a/%FF", segments));
  EXPECT_TRUE(segments.empty());
  segments = {"a%20b/c"};
  EXPECT_TRUE(Url::FromEncodedPath(segments[0], segments));  // argument lives in the target
  EXPECT_EQ(segments, (Segments{"a b", "c"}));
}

TEST(UrlEncodingTest, PathSetters) {
  Url url("http://h/start");
  EXPECT_TRUE(url.setEncodedPath("/a%20b//c/"));
  EXPECT_EQ(url.getPathSegments(), (Segments{"a b", "c"}));
  EXPECT_FALSE(url.setEncodedPath("/ok/%0A"));
  EXPECT_TRUE(url.getPathSegments().empty());

  url.setNonEncodedPath("/%41//b c/");
  EXPECT_EQ(url.getPathSegments(), (Segments{"%41", "b c"}));
  EXPECT_EQ(url.getEncodedPath(), "%2541/b%20c");

  url.pushEncodedPath("x%2Fy/z");
  EXPECT_EQ(url.getPathSegments(), (Segments{"%41", "b c", "x/y", "z"}));
  url.pushEncodedPath("good/%FF");  // one bad piece: nothing at all is appended
  EXPECT_EQ(url.getPathSegments().size(), 4u);
  url.pushNonEncodedPath("/%2F/");
  EXPECT_EQ(url.getPathSegments().back(), "%2F");
  EXPECT_EQ(url.toEncodedUrl(false), "http://h/%2541/b%20c/x%2Fy/z/%252F");
}

TEST(UrlEncodingTest, EncodedAndDisplayForms) {
  const Url url("http://u:p@h:8080/x/y?q=1#f");
  EXPECT_EQ(url.toEncodedUrl(true), "http://u:p@h:8080/x/y?q=1#f");
  EXPECT_EQ(url.toEncodedUrl(false), "http://h:8080/x/y?q=1#f");
  EXPECT_EQ(url.toDisplayableUrl(), "http://u:*******@h:8080/x/y?q=1");
}

TEST(UrlEncodingTest, DisplayNeverRevealsThePassword) {
  Url url("https://[::1]:443/a%20b?k=v%20w#frag");
  url.setCredentials("us er", std::string(40, 'z'));
  EXPECT_EQ(url.toDisplayableUrl(), "https://us er:*******@[::1]:443/a%20b?k=v%20w");
  EXPECT_EQ(url.toEncodedUrl(true), "https://us%20er:" + std::string(40, 'z') + "@[::1]:443/a%20b?k=v%20w#frag");
  url.setCredentials("x", "p");
  EXPECT_EQ(url.toDisplayableUrl(), "https://x:*******@[::1]:443/a%20b?k=v%20w");
}

TEST(UrlEncodingTest, HalfCredentialsAreNeitherEncodedNorShown) {
  const Url url("http://user:@h/p");
  EXPECT_EQ(url.toEncodedUrl(true), "http://h/p");
  EXPECT_EQ(url.toDisplayableUrl(), "http://h/p");
  std::string token = "stale";
  url.getCredentialsBasicEncoded(token);
  EXPECT_EQ(token, "");
}

TEST(UrlEncodingTest, InvalidUrlGivesEmptyForms) {
  const Url url("mailto:someone@example.com");
  EXPECT_EQ(url.toEncodedUrl(true), "");
  EXPECT_EQ(url.toDisplayableUrl(), "");
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
  Url back;
  ASSERT_TRUE(back.fromEncodedUtf8String(url.toEncodedUrl(true), nullptr, false));
  EXPECT_EQ(back, url);
}

TEST(UrlEncodingTest, BasicCredentials) {
  std::string token;
  Url::BasicEncodeCredentials("Aladdin", "open sesame", token);
  EXPECT_EQ(token, "QWxhZGRpbjpvcGVuIHNlc2FtZQ==");
  Url::BasicEncodeCredentials("", "", token);
  EXPECT_EQ(token, "Og==");
  const Url url("http://user:p%3Ass@h/");
  url.getCredentialsBasicEncoded(token);
  EXPECT_EQ(token, "dXNlcjpwOnNz");  // "user:p:ss"
}

}  // namespace
}  // namespace kx
