#include <kx/system/kxBase64.h>

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(Base64Test, KnownVectorsInBothAlphabets) {
  // RFC 4648 section 10 vectors (their high bytes catch a sign-extended char); the URL form has no padding.
  const char* vectors[][3] = {{"", "", ""},           {"f", "Zg==", "Zg"},       {"fo", "Zm8=", "Zm8"},
                              {"foo", "Zm9v", "Zm9v"}, {"foob", "Zm9vYg==", "Zm9vYg"}, {"\xfb\xff\xbf", "+/+/", "-_-_"}};
  for (const auto& [raw, standard, url] : vectors) {
    std::string decoded;
    EXPECT_EQ(kx::base64Encode(raw, kx::kBase64Standard), standard);
    EXPECT_EQ(kx::base64Encode(raw, kx::kBase64Url), url);
    EXPECT_TRUE(kx::base64Decode(standard, decoded, kx::kBase64Standard) && decoded == raw) << standard;
    EXPECT_TRUE(kx::base64Decode(url, decoded, kx::kBase64Url) && decoded == raw) << url;
  }
}

TEST(Base64Test, RejectsBadInputAndClearsTheOutput) {
  const std::pair<const char*, int> cases[] = {
      {"Zm9v!", kx::kBase64Standard}, {"Zm9 v", kx::kBase64Standard}, {"Z", kx::kBase64Standard},
      {"Zm9vY", kx::kBase64Url},      {"Zg=", kx::kBase64Standard},   {"Z===", kx::kBase64Standard},
      {"Zg==", kx::kBase64Url},       {"-_-_", kx::kBase64Standard},  {"+/+/", kx::kBase64Url},
      {"Zh==", kx::kBase64Standard},  {"Zm=v", kx::kBase64Standard},  // non-zero trailing bits; inner padding
  };
  for (const auto& [text, charset] : cases) {
    std::string out = "stale";
    EXPECT_FALSE(kx::base64Decode(text, out, charset)) << text;
    EXPECT_TRUE(out.empty());
  }
}

}  // namespace
