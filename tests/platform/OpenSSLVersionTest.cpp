#include <kx/crypto/kxOpenSSL.h>

#include <openssl/crypto.h>

#include <gtest/gtest.h>

#include <memory>
#include <string_view>

namespace {

TEST(ParseOpenSSLVersionStringTest, GivesOpenSSLsOwnNumberOrZero) {
  const std::pair<std::string_view, unsigned long> cases[] = {
      // 3.x layout 0xMNN00PP0
      {"3.0.19", 0x30000130}, {"3.12.255", 0x30c00ff0}, {"3.2.0-alpha.1", 0x30200000}, {"3.1.4+quic", 0x30100040},
      {"OpenSSL 3.0.19 27 Jan 2026", 0x30000130}, {" \t3.0.2\n", 0x30000020},
      // pre-3.0 layout 0xMNNFFPPS
      {"1.1.1w", 0x1010117f}, {"1.0.2", 0x1000200f}, {"0.9.8zh", 0x0090821f}, {"1.0.2-beta1", 0x10002001},
      {"1.1.0-pre3", 0x10100003}, {"1.1.1-dev", 0x10101000},
      // not versions
      {"", 0}, {"3.0", 0}, {"3.0.19x", 0}, {"3.0.1a", 0}, {"1.1.1W", 0}, {"16.0.0", 0}, {"3.256.0", 0}, {"3.0.0019", 0},
      {"1.1.1-rc1", 0}, {"1.0.2-beta15", 0}, {"1.0.2-beta0", 0}, {"3.0.1-", 0}, {"0.9.8az", 0}, {"LibreSSL/3.8.2", 0},
  };
  for (const auto& [text, number] : cases) {
    // An exactly sized copy, so an over-read shows up under AddressSanitizer.
    auto copy = std::make_unique<char[]>(text.size());
    text.copy(copy.get(), text.size());
    EXPECT_EQ(kx::kxOpenSSL::ParseOpenSSLVersionString(std::string_view(copy.get(), text.size())), number)
        << std::hex << "text '" << text << "'";
  }
  EXPECT_EQ(kx::kxOpenSSL::ParseOpenSSLVersionString(OpenSSL_version(OPENSSL_VERSION)), OpenSSL_version_num());
}

}  // namespace
