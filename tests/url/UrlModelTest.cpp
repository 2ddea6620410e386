#include <kx/Url.h>

#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <string>

namespace kx {
namespace {


// Every byte of a string's allocated storage, including what lies past its length.
bool StorageIsZero(const char* data, size_t capacity) {
  for (size_t i = 0; i < capacity; ++i) {
    if (data[i] != '\0') return false;
  }
  return true;
}

TEST(UrlModelTest, ParseErrorIsLoggedOnlyWithoutMessagePointer) {
  test::LogCapture capture;
  Url url;
  std::string error;
  EXPECT_FALSE(url.fromEncodedUtf8String("http://host:65536/", &error, false));
  EXPECT_EQ(error, "fail to parse port");
  EXPECT_TRUE(capture.records().empty());

  EXPECT_FALSE(url.fromEncodedUtf8String("http://host:65536/", nullptr, false));
  const Url fromConstructor("http://user@host/");
  const auto records = capture.records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].type, 1);
  EXPECT_EQ(records[0].category, "url");
  EXPECT_EQ(records[0].text, "Url parse error : fail to parse port");
  EXPECT_EQ(records[1].text, "Url parse error : invalid url user info, ':' is missing");
  EXPECT_FALSE(fromConstructor.isValid());
}

TEST(UrlModelTest, FailedReparseForgetsPreviousAddress) {
  Url url("http://[::1]:80/");
  ASSERT_EQ(url.getIpAddress().getType(), IpAddress::IPv6);
  std::string error;
  EXPECT_FALSE(url.fromEncodedUtf8String("http://[::1]:99999/", &error, false));
  EXPECT_FALSE(url.getIpAddress().isValid());
  EXPECT_FALSE(url.isValid());
}

TEST(UrlModelTest, ParsingOwnComponentIsSafe) {
  Url url;
  url.setHost("http://other.example/p");  // nonsense host, but a complete URL text
  ASSERT_TRUE(url.fromEncodedUtf8String(url.getHost(), nullptr, false));
  EXPECT_EQ(url.getHost(), "other.example");
  EXPECT_EQ(url.getPathSegments(), std::vector<std::string>{"p"});
}

TEST(UrlModelTest, SetHostCanonicalisesOnlyIpv6) {
  Url url;
  url.setHost("2001:DB8:0::1");
  EXPECT_EQ(url.getHost(), "[2001:db8::1]");
  EXPECT_EQ(url.getIpAddress().getType(), IpAddress::IPv6);
  url.setHost("010.1.1.1");  // not an address for inet_pton: kept as a name
  EXPECT_EQ(url.getHost(), "010.1.1.1");
  EXPECT_FALSE(url.getIpAddress().isValid());
  url.setHost("10.1.1.1");
  EXPECT_EQ(url.getHost(), "10.1.1.1");
  EXPECT_EQ(url.getIpAddress().getType(), IpAddress::IPv4);
  url.setHost("[::1]");  // brackets are not understood
  EXPECT_EQ(url.getHost(), "[::1]");
  EXPECT_FALSE(url.getIpAddress().isValid());
  url.setHost(url.getHost());
  EXPECT_EQ(url.getHost(), "[::1]");
}

TEST(UrlModelTest, ValidityNeedsSchemeAndHostOnly) {
  EXPECT_FALSE(Url("mailto:x@y").isValid());
  EXPECT_FALSE(Url("//host/p").isValid());
  EXPECT_TRUE(Url("foo://host").isValid());
  Url url;
  EXPECT_FALSE(url.isValid());
  url.setScheme("x");
  url.setHost("y");
  EXPECT_TRUE(url.isValid());
}

TEST(UrlModelTest, CredentialsNeedBothParts) {
  Url url("http://user:@host/");
  EXPECT_EQ(url.getUser(), "user");
  EXPECT_FALSE(url.hasCredentials());
  url.setCredentials("u", "p");
  EXPECT_TRUE(url.hasCredentials());
  std::string user, password;
  url.getCredentials(user, password);
  EXPECT_EQ(user, "u");
  EXPECT_EQ(password, "p");
  url.setCredentials("", "p");
  EXPECT_FALSE(url.hasCredentials());
}

TEST(UrlModelTest, EqualityIsByteForByteAndIgnoresFlagAndAddress) {
  EXPECT_NE(Url("http://Host/"), Url("http://host/"));
  Url a, b;
  ASSERT_TRUE(a.fromEncodedUtf8String("http://Host/", nullptr, true));
  ASSERT_TRUE(b.fromEncodedUtf8String("HTTP://host/", nullptr, true));
  EXPECT_EQ(a, b);
  EXPECT_EQ(Url("http://[::ABCD]/"), Url("http://[::abcd]/"));
  EXPECT_NE(Url("http://h/?a=1&b=2"), Url("http://h/?b=2&a=1"));
  EXPECT_NE(Url("http://h/a/b"), Url("http://h/a/b/"));
  EXPECT_NE(Url("http://u:p@h/"), Url("http://u:q@h/"));
  EXPECT_NE(Url("http://h:1/"), Url("http://h:2/"));
  EXPECT_NE(Url("http://h/#x"), Url("http://h/#y"));
  // The same host as text, once recognised as an address and once not.
  Url named("http://h/");
  Url copy(named);
  copy.setHost("h");
  EXPECT_EQ(named, copy);
}

// A derived URL type whose equality always refuses, to see which slot operator== goes through.
class RefusingUrl : public Url {
 public:
  using Url::Url;
  bool equalTo(const Url&) const override { return false; }
};

TEST(UrlModelTest, OperatorEqualsDispatchesOnLeftOperand) {
  const Url plain("http://h/");
  const RefusingUrl refusing("http://h/");
  EXPECT_TRUE(plain == refusing);
  EXPECT_FALSE(refusing == plain);
  EXPECT_TRUE(refusing != plain);
  const Url& asBase = refusing;
  EXPECT_FALSE(asBase == plain);
}

TEST(UrlModelTest, ClearingWipesWholeCapacity) {
  Url url;
  const std::string longSecret(100, 'S');
  url.setCredentials("someone-with-a-long-user-name", longSecret);
  url.setHost("a-very-long-host-name.example.internal");
  url.setFragment("a-fragment-long-enough-for-the-heap");
  const char* password = url.getPassword().data();
  const size_t passwordCapacity = url.getPassword().capacity();
  const char* user = url.getUser().data();
  const size_t userCapacity = url.getUser().capacity();
  url.clearCredentials();
  ASSERT_EQ(url.getPassword().data(), password);  // same buffer, now zeroed
  EXPECT_TRUE(StorageIsZero(password, passwordCapacity));
  EXPECT_TRUE(StorageIsZero(user, userCapacity));

  const char* host = url.getHost().data();
  const size_t hostCapacity = url.getHost().capacity();
  const char* fragment = url.getFragment().data();
  const size_t fragmentCapacity = url.getFragment().capacity();
  url.clearUrl();
  ASSERT_EQ(url.getHost().data(), host);
  EXPECT_TRUE(StorageIsZero(host, hostCapacity));
  EXPECT_TRUE(StorageIsZero(fragment, fragmentCapacity));
  EXPECT_FALSE(url.hasFragment());
}

TEST(UrlModelTest, ReplacingCredentialsLeavesNoOldBytes) {
  Url url;
  url.setCredentials("user", std::string(64, 'X'));
  const char* password = url.getPassword().data();
  const size_t capacity = url.getPassword().capacity();
  url.setCredentials("user", "short");
  ASSERT_EQ(url.getPassword().data(), password);  // reused, so the tail must have been zeroed
  EXPECT_EQ(std::string(password, 5), "short");
  EXPECT_TRUE(StorageIsZero(password + 5, capacity - 5));
}

TEST(UrlModelTest, CopiesAreIndependentAndMovesEmptyTheSource) {
  Url source("https://u:p@[::1]:8443/a?b=c#d");
  Url copy(source);
  EXPECT_EQ(copy, source);
  EXPECT_EQ(copy.getIpAddress(), source.getIpAddress());
  copy.editPathSegments().push_back("more");
  EXPECT_NE(copy, source);

  Url assigned("http://x/");
  assigned = source;
  EXPECT_EQ(assigned, source);
  EXPECT_TRUE(assigned.hasFragment());

  Url moved(std::move(assigned));
  EXPECT_EQ(moved, source);
  EXPECT_FALSE(assigned.isValid());       // NOLINT(bugprone-use-after-move): the state is specified
  EXPECT_TRUE(assigned.getPassword().empty());

  Url target("http://other/");
  target = std::move(moved);
  EXPECT_EQ(target, source);
  EXPECT_TRUE(moved.getUser().empty());  // NOLINT(bugprone-use-after-move)
}

TEST(UrlModelTest, FragmentSetterKeepsFlagInStep) {
  Url url("http://h/");
  url.setFragment("top");
  EXPECT_TRUE(url.hasFragment());
  EXPECT_EQ(url.toEncodedUrl(false), "http://h#top");
  url.setFragment("");
  EXPECT_FALSE(url.hasFragment());
  url.setFragment("x");
  url.clearFragment();
  EXPECT_FALSE(url.hasFragment());
  EXPECT_EQ(url.getFragment(), "");
}

}  // namespace
}  // namespace kx
