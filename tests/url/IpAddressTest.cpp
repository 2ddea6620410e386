#include <kx/IpAddress.h>

#include "support/LogCapture.h"
#include "url/ResolveHostNameText.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/un.h>

#include <gtest/gtest.h>

#include <cstdlib>

#include <ostream>
#include <string>
#include <vector>

namespace kx {
namespace {

struct AddressCase {
  std::string name;
  std::string text;
  IpAddress::Type requested;
  IpAddress::Type expected;
  std::string canonical;  // getAddressAsString(false)
};

void PrintTo(const AddressCase& c, std::ostream* os) { *os << c.name; }

class IpAddressParseTest : public testing::TestWithParam<AddressCase> {};

TEST_P(IpAddressParseTest, ReadsRequestedFamilyOnly) {
  const AddressCase& c = GetParam();
  IpAddress address("10.9.8.7", IpAddress::IPv4);  // overwritten, valid or not
  address.fromStringAddress(c.text, c.requested);
  EXPECT_EQ(address.getType(), c.expected);
  EXPECT_EQ(address.isValid(), c.expected != IpAddress::Invalid);
  EXPECT_EQ(address.getAddressAsString(false), c.canonical);
  EXPECT_EQ(address.getSockaddrLen(), c.expected == IpAddress::IPv4   ? 16u
                                      : c.expected == IpAddress::IPv6 ? 28u
                                                                      : 0u);
  EXPECT_EQ(address.getSockaddr() == nullptr, c.expected == IpAddress::Invalid);
  EXPECT_EQ(address.getIPv4Sockaddr() != nullptr, c.expected == IpAddress::IPv4);
  EXPECT_EQ(address.getIPv6Sockaddr() != nullptr, c.expected == IpAddress::IPv6);
  if (const sockaddr* raw = address.getSockaddr()) {
    EXPECT_EQ(raw->sa_family, c.expected == IpAddress::IPv4 ? AF_INET : AF_INET6);
  }
}

INSTANTIATE_TEST_SUITE_P(
    IpAddress, IpAddressParseTest,
    testing::Values(
        AddressCase{"Ipv4AnyFamily", "10.0.0.1", IpAddress::Invalid, IpAddress::IPv4, "10.0.0.1"},
        AddressCase{"Ipv4AsIpv4", "255.255.255.255", IpAddress::IPv4, IpAddress::IPv4, "255.255.255.255"},
        AddressCase{"Ipv4AsIpv6Refused", "1.2.3.4", IpAddress::IPv6, IpAddress::Invalid, ""},
        AddressCase{"Ipv6AsIpv4Refused", "::1", IpAddress::IPv4, IpAddress::Invalid, ""},
        AddressCase{"Ipv6Loopback", "::1", IpAddress::Invalid, IpAddress::IPv6, "::1"},
        AddressCase{"Ipv6Compressed", "2001:DB8:0:0:0:0:0:1", IpAddress::IPv6, IpAddress::IPv6, "2001:db8::1"},
        AddressCase{"Ipv6Mapped", "::ffff:10.0.0.1", IpAddress::Invalid, IpAddress::IPv6, "::ffff:10.0.0.1"},
        AddressCase{"BracketsRefused", "[::1]", IpAddress::Invalid, IpAddress::Invalid, ""},
        AddressCase{"PortSuffixRefused", "10.0.0.1:80", IpAddress::Invalid, IpAddress::Invalid, ""},
        AddressCase{"LeadingZeroRefused", "01.2.3.4", IpAddress::Invalid, IpAddress::Invalid, ""},
        AddressCase{"ShortFormRefused", "1.2.3", IpAddress::Invalid, IpAddress::Invalid, ""},
        AddressCase{"NameRefused", "localhost", IpAddress::Invalid, IpAddress::Invalid, ""},
        AddressCase{"EmptyRefused", "", IpAddress::Invalid, IpAddress::Invalid, ""}),
    [](const testing::TestParamInfo<AddressCase>& info) { return info.param.name; });

struct CompareCase {
  std::string name;
  std::string left, right;
  bool equal;
};

void PrintTo(const CompareCase& c, std::ostream* os) { *os << c.name; }

class IpAddressCompareTest : public testing::TestWithParam<CompareCase> {};

TEST_P(IpAddressCompareTest, ComparesAddressesOnly) {
  const CompareCase& c = GetParam();
  const IpAddress left(c.left, IpAddress::Invalid);
  const IpAddress right(c.right, IpAddress::Invalid);
  EXPECT_EQ(left.compareAddresses(right), c.equal);
  EXPECT_EQ(right.compareAddresses(left), c.equal);
  EXPECT_EQ(left == right, c.equal);
  EXPECT_EQ(left != right, !c.equal);
}

INSTANTIATE_TEST_SUITE_P(
    IpAddress, IpAddressCompareTest,
    testing::Values(CompareCase{"SameIpv4", "10.0.0.1", "10.0.0.1", true},
                    CompareCase{"OtherIpv4", "10.0.0.1", "10.0.0.2", false},
                    CompareCase{"SameIpv6Spelling", "2001:db8::1", "2001:DB8:0::1", true},
                    CompareCase{"OtherIpv6", "::1", "::2", false},
                    CompareCase{"MappedEqualsIpv4", "::ffff:10.0.0.1", "10.0.0.1", true},
                    CompareCase{"MappedOtherIpv4", "::ffff:10.0.0.2", "10.0.0.1", false},
                    CompareCase{"CompatibleIsNotMapped", "::10.0.0.1", "10.0.0.1", false},
                    CompareCase{"WrongMarkerIsNotMapped", "::fffe:10.0.0.1", "10.0.0.1", false},
                    CompareCase{"BothInvalid", "x", "y", true},
                    CompareCase{"InvalidAgainstIpv4", "x", "0.0.0.0", false},
                    CompareCase{"InvalidAgainstIpv6", "x", "::", false}),
    [](const testing::TestParamInfo<CompareCase>& info) { return info.param.name; });

sockaddr_in6 Ipv6WithPort(const char* text, uint16_t port) {
  sockaddr_in6 raw{};
  raw.sin6_family = AF_INET6;
  raw.sin6_port = htons(port);
  raw.sin6_scope_id = 3;
  EXPECT_EQ(inet_pton(AF_INET6, text, &raw.sin6_addr), 1);
  return raw;
}

TEST(IpAddressTest, PortsAndScopesDoNotTakePartInComparison) {
  IpAddress a, b;
  const sockaddr_in6 raw = Ipv6WithPort("2001:db8::1", 443);
  a.fromIPv6(&raw);
  b.fromStringAddress("2001:db8::1", IpAddress::IPv6);
  EXPECT_EQ(a, b);
  EXPECT_EQ(a.getAddressAsString(true), "2001:db8::1:443");
  EXPECT_EQ(b.getAddressAsString(true), "2001:db8::1:0");
  EXPECT_EQ(a.getIPv6Sockaddr()->sin6_scope_id, 3u);

  sockaddr_in v4{};
  v4.sin_family = AF_INET;
  v4.sin_port = htons(80);
  v4.sin_addr.s_addr = htonl(0x01020304);
  IpAddress c, d("1.2.3.4", IpAddress::IPv4);
  c.fromIP(reinterpret_cast<const sockaddr*>(&v4));
  EXPECT_EQ(c.getAddressAsString(true), "1.2.3.4:80");
  EXPECT_EQ(c, d);
  EXPECT_EQ(IpAddress().getAddressAsString(true), "");
}

TEST(IpAddressTest, WrongFamiliesLeaveInvalid) {
  IpAddress address("1.2.3.4", IpAddress::IPv4);
  sockaddr_un local{};
  local.sun_family = AF_UNIX;
  address.fromIP(reinterpret_cast<const sockaddr*>(&local));
  EXPECT_FALSE(address.isValid());
  address.fromIP(nullptr);
  EXPECT_FALSE(address.isValid());
  sockaddr_in v4{};
  v4.sin_family = AF_INET6;  // structure of one family, tag of the other
  address.fromIPv4(&v4);
  EXPECT_FALSE(address.isValid());
  const sockaddr_in6 v6 = Ipv6WithPort("::1", 1);
  address.fromIPv4(reinterpret_cast<const sockaddr_in*>(&v6));
  EXPECT_FALSE(address.isValid());
  address.fromIPv6(nullptr);
  EXPECT_FALSE(address.isValid());
}

TEST(IpAddressTest, CopiesAreDeep) {
  IpAddress original("::1", IpAddress::IPv6);
  IpAddress copy(original);
  ASSERT_NE(copy.getSockaddr(), original.getSockaddr());
  original.fromStringAddress("10.0.0.1", IpAddress::IPv4);
  EXPECT_EQ(copy.getAddressAsString(false), "::1");
  copy = copy;  // self-assignment keeps the address
  EXPECT_EQ(copy.getAddressAsString(false), "::1");
  copy = original;
  EXPECT_EQ(copy.getType(), IpAddress::IPv4);
  IpAddress moved(std::move(copy));
  EXPECT_EQ(moved.getAddressAsString(false), "10.0.0.1");
  EXPECT_FALSE(copy.isValid());  // NOLINT(bugprone-use-after-move): a moved-from address is Invalid
  copy = IpAddress();
  EXPECT_FALSE(copy.isValid());
}

TEST(ResolveHostNameTest, EmptyNameFailsWithoutResolving) {
  test::LogCapture capture;
  std::vector<IpAddress> addresses(2);
  EXPECT_FALSE(ResolveHostName("", 80, addresses));
  EXPECT_TRUE(addresses.empty());
  EXPECT_TRUE(capture.records().empty());
}

TEST(ResolveHostNameTest, NumericHostGivesOneAddressWithPort) {
  std::vector<IpAddress> addresses;
  ASSERT_TRUE(ResolveHostName("127.0.0.1", 8443, addresses));
  ASSERT_EQ(addresses.size(), 1u);
  EXPECT_EQ(addresses[0].getAddressAsString(true), "127.0.0.1:8443");
  ASSERT_TRUE(ResolveHostName("::1", 443, addresses));
  ASSERT_EQ(addresses.size(), 1u);
  EXPECT_EQ(addresses[0].getAddressAsString(true), "::1:443");
}

TEST(ResolveHostNameTest, LocalhostResolvesToLoopback) {
  std::vector<IpAddress> addresses;
  ASSERT_TRUE(ResolveHostName("localhost", 80, addresses));
  ASSERT_FALSE(addresses.empty());
  const IpAddress loopback4("127.0.0.1", IpAddress::IPv4);
  const IpAddress loopback6("::1", IpAddress::IPv6);
  for (const IpAddress& address : addresses) {
    EXPECT_TRUE(address == loopback4 || address == loopback6) << address.getAddressAsString(false);
    EXPECT_EQ(address.getAddressAsString(true).substr(address.getAddressAsString(false).size()), ":80");
  }
}

TEST(ResolveHostNameTest, FailureIsLoggedAsWarning) {
  test::LogCapture capture;
  std::vector<IpAddress> addresses(1);
  // An empty DNS label: the C library refuses the name before any query leaves the machine.
  EXPECT_FALSE(ResolveHostName("a..b", 80, addresses));
  EXPECT_TRUE(addresses.empty());
  const auto records = capture.records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].type, 2);
  EXPECT_EQ(records[0].category, "url");
  // Which code the resolver gives is its business; the line must be the exact text for that code.
  const std::string prefix = "getaddrinfo return ";
  ASSERT_EQ(records[0].text.compare(0, prefix.size(), prefix), 0) << records[0].text;
  const int code = std::atoi(records[0].text.c_str() + prefix.size());
  EXPECT_NE(code, 0);
  EXPECT_EQ(records[0].text, url::detail::GetAddrInfoFailureText(code));
}

TEST(ResolveHostNameTest, FailureTexts) {
  using url::detail::GetAddrInfoFailureText;
  const std::pair<int, const char*> named[] = {
      {EAI_BADFLAGS, "EAI_BADFLAGS"}, {EAI_NONAME, "EAI_NONAME"},   {EAI_AGAIN, "EAI_AGAIN"},
      {EAI_FAIL, "EAI_FAIL"},         {EAI_FAMILY, "EAI_FAMILY"},   {EAI_SOCKTYPE, "EAI_SOCKTYPE"},
      {EAI_SERVICE, "EAI_SERVICE"},   {EAI_MEMORY, "EAI_MEMORY"}};
  for (const auto& [code, name] : named) {
    EXPECT_EQ(GetAddrInfoFailureText(code),
              "getaddrinfo return " + std::to_string(code) + " (" + name + ")");
  }
  EXPECT_EQ(GetAddrInfoFailureText(EAI_NONAME), "getaddrinfo return -2 (EAI_NONAME)");
  EXPECT_EQ(GetAddrInfoFailureText(EAI_SYSTEM), "getaddrinfo return -11");
  EXPECT_EQ(GetAddrInfoFailureText(12345), "getaddrinfo return 12345");
}

}  // namespace
}  // namespace kx
