#include <kx/system/kxBase64.h>

#include <gtest/gtest.h>

#include <string>

namespace {

std::string AllBytes() {
  std::string bytes;
  for (int i = 0; i < 256; ++i) bytes.push_back(static_cast<char>(i));
  return bytes;
}

TEST(Base64Test, KnownVectorsInBothAlphabets) {
  // RFC 4648 section 10 test vectors; the URL alphabet drops the padding.
  const std::pair<const char*, const char*> vectors[] = {{"", ""},         {"f", "Zg=="},         {"fo", "Zm8="},
                                                         {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="},
                                                         {"foobar", "Zm9vYmFy"}};
  for (const auto& [raw, encoded] : vectors) {
    SCOPED_TRACE(raw);
    EXPECT_EQ(kx::base64Encode(raw, kx::kBase64Standard), encoded);
    std::string unpadded(encoded);
    while (!unpadded.empty() && unpadded.back() == '=') unpadded.pop_back();
    EXPECT_EQ(kx::base64Encode(raw, kx::kBase64Url), unpadded);
    std::string decoded;
    ASSERT_TRUE(kx::base64Decode(encoded, decoded, kx::kBase64Standard));
    EXPECT_EQ(decoded, raw);
    ASSERT_TRUE(kx::base64Decode(unpadded, decoded, kx::kBase64Url));
    EXPECT_EQ(decoded, raw);
  }
}

TEST(Base64Test, RoundTripsEveryByteAtEveryLength) {
  const std::string bytes = AllBytes();
  for (size_t length = 0; length <= bytes.size(); ++length) {
    const std::string slice = bytes.substr(256 - length);
    for (int charset : {kx::kBase64Standard, kx::kBase64Url}) {
      std::string decoded;
      ASSERT_TRUE(kx::base64Decode(kx::base64Encode(slice, charset), decoded, charset)) << length;
      ASSERT_EQ(decoded, slice) << length;
    }
  }
}

TEST(Base64Test, AlphabetsDifferOnlyInTheLastTwoSymbols) {
  const std::string data("\xfb\xff\xbf", 3);
  EXPECT_EQ(kx::base64Encode(data, kx::kBase64Standard), "+/+/");
  EXPECT_EQ(kx::base64Encode(data, kx::kBase64Url), "-_-_");
}

TEST(Base64Test, RejectsBadInput) {
  struct Case {
    const char* text;
    int charset;
  };
  const Case cases[] = {
      {"Zm9v!", kx::kBase64Standard},    // character outside the alphabet
      {"Zm9 v", kx::kBase64Standard},    // blank
      {"Z", kx::kBase64Standard},        // one leftover character cannot make a byte
      {"Zm9vY", kx::kBase64Url},         // same, URL alphabet
      {"Zg=", kx::kBase64Standard},      // padding without a full quantum
      {"Z===", kx::kBase64Standard},     // too much padding
      {"Zg==", kx::kBase64Url},          // URL alphabet has no padding
      {"-_-_", kx::kBase64Standard},     // URL symbols in the standard alphabet
      {"+/+/", kx::kBase64Url},          // standard symbols in the URL alphabet
      {"Zh==", kx::kBase64Standard},     // non-zero trailing bits
      {"Zm=v", kx::kBase64Standard},     // padding in the middle
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    std::string out = "stale";
    EXPECT_FALSE(kx::base64Decode(c.text, out, c.charset));
    EXPECT_TRUE(out.empty());
  }
}

}  // namespace
