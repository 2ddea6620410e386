#include <kx/crypto/kxOpenSSL.h>

#include <openssl/crypto.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <string_view>

namespace {

struct VersionCase {
  const char* name;
  const char* text;
  unsigned long number;  // 0 = not a version
};
constexpr VersionCase kVersionCases[] = {
    // 3.x layout 0xMNN00PP0
    {"Modern", "3.0.19", 0x30000130},
    {"ModernTwoDigitMinor", "3.12.255", 0x30c00ff0},
    {"ModernPreRelease", "3.2.0-alpha.1", 0x30200000},
    {"ModernBuildMetadata", "3.1.4+quic", 0x30100040},
    {"ModernWithPrefixAndDate", "OpenSSL 3.0.19 27 Jan 2026", 0x30000130},
    {"SurroundingBlanks", " \t3.0.2\n", 0x30000020},
    // pre-3.0 layout 0xMNNFFPPS
    {"LegacyLetter", "1.1.1w", 0x1010117f},
    {"LegacyNoLetter", "1.0.2", 0x1000200f},
    {"LegacyLateDoubleLetter", "0.9.8zh", 0x0090821f},
    {"LegacyBeta", "1.0.2-beta1", 0x10002001},
    {"LegacyPre", "1.1.0-pre3", 0x10100003},
    {"LegacyDev", "1.1.1-dev", 0x10101000},
    // not versions
    {"Empty", "", 0},
    {"TwoComponents", "3.0", 0},
    {"JunkAfterVersion", "3.0.19x", 0},
    {"ModernWithLetter", "3.0.1a", 0},
    {"UpperCaseLetter", "1.1.1W", 0},
    {"MajorTooLarge", "16.0.0", 0},
    {"MinorTooLarge", "3.256.0", 0},
    {"FourDigitField", "3.0.0019", 0},
    {"UnknownLegacyStatus", "1.1.1-rc1", 0},
    {"LegacyBetaOutOfRange", "1.0.2-beta15", 0},
    {"LegacyBetaZero", "1.0.2-beta0", 0},
    {"DashOnly", "3.0.1-", 0},
    {"LetterBeforeZ", "0.9.8az", 0},
    {"OtherLibrary", "LibreSSL/3.8.2", 0},
};

class ParseOpenSSLVersionTest : public testing::TestWithParam<VersionCase> {};

TEST_P(ParseOpenSSLVersionTest, GivesOpenSSLsOwnNumber) {
  // An exactly sized copy, so an over-read shows up under AddressSanitizer.
  const std::string_view text = GetParam().text;
  auto copy = std::make_unique<char[]>(text.size());
  text.copy(copy.get(), text.size());
  EXPECT_EQ(kx::kxOpenSSL::ParseOpenSSLVersionString(std::string_view(copy.get(), text.size())),
            GetParam().number)
      << std::hex << "text '" << text << "'";
}

INSTANTIATE_TEST_SUITE_P(OpenSSL, ParseOpenSSLVersionTest, testing::ValuesIn(kVersionCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(ParseOpenSSLVersionStringTest, AgreesWithTheLinkedLibcrypto) {
  EXPECT_EQ(kx::kxOpenSSL::ParseOpenSSLVersionString(OpenSSL_version(OPENSSL_VERSION)), OpenSSL_version_num());
}

}  // namespace
