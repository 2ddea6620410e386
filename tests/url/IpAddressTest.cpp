#include <kx/IpAddress.h>

#include "support/LogCapture.h"
#include "url/Ipv6Text.h"
#include "url/ResolveHostNameText.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/un.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace kx {
namespace {

struct CompareCase {
  std::string name, left, right;
  bool equal;
};

const CompareCase kCompareCases[] = {
    {"SameIpv4", "10.0.0.1", "10.0.0.1", true},
    {"OtherIpv4", "10.0.0.1", "10.0.0.2", false},
    {"SameIpv6Spelling", "2001:db8::1", "2001:DB8:0::1", true},
    {"MappedEqualsIpv4", "::ffff:10.0.0.1", "10.0.0.1", true},
    {"MappedOtherIpv4", "::ffff:10.0.0.2", "10.0.0.1", false},
    {"CompatibleIsNotMapped", "::10.0.0.1", "10.0.0.1", false},
    {"BothInvalid", "x", "y", true},
    {"InvalidAgainstIpv4", "x", "0.0.0.0", false},
};

class IpAddressCompareTest : public testing::TestWithParam<CompareCase> {};

TEST_P(IpAddressCompareTest, ComparesAddressesOnlyBothWays) {
  const CompareCase& c = GetParam();
  const IpAddress left(c.left, IpAddress::Invalid);
  const IpAddress right(c.right, IpAddress::Invalid);
  EXPECT_EQ(left == right, c.equal);
  EXPECT_EQ(right != left, !c.equal);
}

INSTANTIATE_TEST_SUITE_P(IpAddress, IpAddressCompareTest, testing::ValuesIn(kCompareCases),
                         [](const auto& info) { return info.param.name; });

TEST(IpAddressTest, SocketAddressesKeepPortAndScopeOutsideComparison) {
  sockaddr_in6 v6{};
  v6.sin6_family = AF_INET6;
  v6.sin6_port = htons(443);
  v6.sin6_scope_id = 3;
  ASSERT_EQ(inet_pton(AF_INET6, "2001:db8::1", &v6.sin6_addr), 1);
  IpAddress a;
  a.fromIP(reinterpret_cast<const sockaddr*>(&v6));
  EXPECT_EQ(a, IpAddress("2001:db8::1", IpAddress::IPv6));
  EXPECT_EQ(a.getAddressAsString(true), "2001:db8::1:443");
  EXPECT_EQ(a.getIPv6Sockaddr()->sin6_scope_id, 3u);
  EXPECT_EQ(a.getSockaddrLen(), sizeof(sockaddr_in6));

  sockaddr_in v4{};
  v4.sin_family = AF_INET;
  v4.sin_port = htons(80);
  v4.sin_addr.s_addr = htonl(0x01020304);
  IpAddress c;
  c.fromIP(reinterpret_cast<const sockaddr*>(&v4));
  EXPECT_EQ(c.getAddressAsString(true), "1.2.3.4:80");
  EXPECT_EQ(c, IpAddress("1.2.3.4", IpAddress::IPv4));
  EXPECT_EQ(c.getSockaddrLen(), sizeof(sockaddr_in));
  EXPECT_EQ(IpAddress().getAddressAsString(true), "");
  EXPECT_EQ(IpAddress().getSockaddrLen(), 0u);
  EXPECT_EQ(IpAddress().getSockaddr(), nullptr);
  EXPECT_EQ(c.getSockaddr(), reinterpret_cast<const sockaddr*>(c.getIPv4Sockaddr()));

  // Moving leaves an Invalid address behind.
  IpAddress moved(std::move(c));
  EXPECT_FALSE(c.isValid());  // NOLINT(bugprone-use-after-move)
  c = std::move(moved);
  EXPECT_EQ(c.getAddressAsString(true), "1.2.3.4:80");
  EXPECT_FALSE(moved.isValid());  // NOLINT(bugprone-use-after-move)

  // A structure of another family, or of one family under the tag of the other, is refused.
  sockaddr_un local{};
  local.sun_family = AF_UNIX;
  c.fromIP(reinterpret_cast<const sockaddr*>(&local));
  EXPECT_FALSE(c.isValid());
  a.fromIPv4(reinterpret_cast<const sockaddr_in*>(&v6));
  EXPECT_FALSE(a.isValid());
  v4.sin_family = AF_INET6;
  a.fromIPv4(&v4);
  EXPECT_FALSE(a.isValid());
}

// The formatter must write what inet_ntop writes, byte for byte: words drawn from {0, 1, 0xffff, random}
// give every placement of zero runs, ties between runs, and the IPv4-compatible and -mapped forms.
TEST(IpAddressTest, Ipv6TextMatchesInetNtop) {
  uint64_t state = 0x9E3779B97F4A7C15ULL;
  for (int n = 0; n < 20000; ++n) {
    unsigned char bytes[16];
    for (int i = 0; i < 8; ++i) {
      state = state * 6364136223846793005ULL + 1442695040888963407ULL;
      const unsigned pick = static_cast<unsigned>(state >> 60) % 4;
      const unsigned word = pick == 0 ? 0 : pick == 1 ? 1 : pick == 2 ? 0xffff : static_cast<unsigned>(state >> 40);
      bytes[2 * i] = static_cast<unsigned char>(word >> 8);
      bytes[2 * i + 1] = static_cast<unsigned char>(word);
    }
    char expected[INET6_ADDRSTRLEN];
    char ours[INET6_ADDRSTRLEN];
    ASSERT_NE(inet_ntop(AF_INET6, bytes, expected, sizeof expected), nullptr);
    ASSERT_EQ(url::detail::FormatIpv6(bytes, ours), std::strlen(expected));
    ASSERT_STREQ(ours, expected);
  }
}

// Numeric names give one address with the port; a failure is one warning naming the code, by number and
// by name where it has one, and the empty name fails before the resolver is asked.
TEST(ResolveHostNameTest, NumericNamesAndFailures) {
  test::LogCapture capture;
  std::vector<IpAddress> addresses(2);
  EXPECT_FALSE(ResolveHostName("", 80, addresses));
  EXPECT_TRUE(addresses.empty());
  EXPECT_TRUE(capture.records().empty());
  ASSERT_TRUE(ResolveHostName("127.0.0.1", 8443, addresses));
  ASSERT_EQ(addresses.size(), 1u);
  EXPECT_EQ(addresses[0].getAddressAsString(true), "127.0.0.1:8443");
  ASSERT_TRUE(ResolveHostName("::1", 443, addresses));
  ASSERT_EQ(addresses.size(), 1u);
  EXPECT_EQ(addresses[0].getAddressAsString(true), "::1:443");

  // An empty DNS label: the C library refuses the name before any query leaves the machine.
  EXPECT_FALSE(ResolveHostName("a..b", 80, addresses));
  EXPECT_TRUE(addresses.empty());
  const auto records = capture.records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].type, 2);
  EXPECT_EQ(records[0].category, "url");
  // Which code the resolver gives is its business; the text names it by number and by name.
  EXPECT_EQ(records[0].text.rfind("getaddrinfo return -", 0), 0u) << records[0].text;
  EXPECT_NE(records[0].text.find(" (EAI_"), std::string::npos) << records[0].text;
  EXPECT_EQ(url::detail::GetAddrInfoFailureText(EAI_NONAME), "getaddrinfo return -2 (EAI_NONAME)");
  EXPECT_EQ(url::detail::GetAddrInfoFailureText(12345), "getaddrinfo return 12345");
}

}  // namespace
}  // namespace kx
