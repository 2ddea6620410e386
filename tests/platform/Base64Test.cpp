#include <kx/system/kxBase64.h>

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(Base64Test, KnownVectorsInBothAlphabets) {
  // RFC 4648 section 10 test vectors; the URL alphabet drops the padding.
  const std::pair<const char*, const char*> vectors[] = {
      {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}, {"\xfb\xff\xbf", "+/+/"}};
  for (const auto& [raw, encoded] : vectors) {
    std::string url(encoded), decoded;
    while (!url.empty() && url.back() == '=') url.pop_back();
    for (char& c : url) c = c == '+' ? '-' : c == '/' ? '_' : c;
    EXPECT_EQ(kx::base64Encode(raw, kx::kBase64Standard), encoded);
    EXPECT_EQ(kx::base64Encode(raw, kx::kBase64Url), url);
    ASSERT_TRUE(kx::base64Decode(encoded, decoded, kx::kBase64Standard)) << encoded;
    EXPECT_EQ(decoded, raw);
    ASSERT_TRUE(kx::base64Decode(url, decoded, kx::kBase64Url)) << url;
    EXPECT_EQ(decoded, raw);
  }
}

TEST(Base64Test, RoundTripsEveryByteAtEveryLength) {
  std::string bytes;
  for (int i = 0; i < 256; ++i) bytes.push_back(static_cast<char>(i));
  for (size_t length = 0; length <= bytes.size(); ++length) {
    const std::string slice = bytes.substr(256 - length);
    for (int charset : {kx::kBase64Standard, kx::kBase64Url}) {
      std::string decoded;
      ASSERT_TRUE(kx::base64Decode(kx::base64Encode(slice, charset), decoded, charset)) << length;
      ASSERT_EQ(decoded, slice) << length;
    }
  }
}

TEST(Base64Test, RejectsBadInputAndClearsTheOutput) {
  const std::pair<const char*, int> cases[] = {
      {"Zm9v!", kx::kBase64Standard},  // character outside the alphabet
      {"Zm9 v", kx::kBase64Standard},  // blank
      {"Z", kx::kBase64Standard},      // one leftover character cannot make a byte
      {"Zm9vY", kx::kBase64Url},       // same, URL alphabet
      {"Zg=", kx::kBase64Standard},    // padding without a full quantum
      {"Z===", kx::kBase64Standard},   // too much padding
      {"Zg==", kx::kBase64Url},        // URL alphabet has no padding
      {"-_-_", kx::kBase64Standard},   // URL symbols in the standard alphabet
      {"+/+/", kx::kBase64Url},        // standard symbols in the URL alphabet
      {"Zh==", kx::kBase64Standard},   // non-zero trailing bits
      {"Zm=v", kx::kBase64Standard},   // padding in the middle
  };
  for (const auto& [text, charset] : cases) {
    std::string out = "stale";
    EXPECT_FALSE(kx::base64Decode(text, out, charset)) << text;
    EXPECT_TRUE(out.empty());
  }
}

}  // namespace
