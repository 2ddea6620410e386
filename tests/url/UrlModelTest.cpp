#include <kx/Url.h>

#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <string_view>
#include <type_traits>

// While armed, every block handed back to the allocator is searched for a secret: a buffer that held a
// password must be wiped before it is freed, also when it is dropped because a string outgrew it. Both
// new and delete are replaced so that they stay a matching pair under AddressSanitizer.
namespace {
std::atomic<const char*> gSecret{nullptr};
std::atomic<int> gLeakedSecrets{0};

void InspectAndFree(void* block) {
  const char* secret = gSecret.load();
  if (block != nullptr && secret != nullptr &&
      memmem(block, malloc_usable_size(block), secret, std::strlen(secret)) != nullptr) {
    ++gLeakedSecrets;
  }
  std::free(block);
}
}  // namespace

void* operator new(std::size_t size) {
  if (void* block = std::malloc(size == 0 ? 1 : size)) return block;
  throw std::bad_alloc();
}
void operator delete(void* block) noexcept { InspectAndFree(block); }
void operator delete(void* block, std::size_t) noexcept { InspectAndFree(block); }

namespace kx {
namespace {

static_assert(std::is_convertible_v<const std::string&, Url>, "Url u = text; must compile");

bool StorageIsZero(const char* data, size_t size) { return std::all_of(data, data + size, [](char c) { return !c; }); }

TEST(UrlModelTest, EncodingWithCredentialsFreesNoUnwipedCopy) {
  const std::string password = "pw-Secr3t-0123456789";
  Url url("https://h:8443/");
  url.setCredentials("someone", password);
  url.setPathSegments(Url::PathSegments(20, std::string(30, 'p')));  // the output grows well past any guess
  for (int i = 0; i < 20; ++i) url.addQueryParameter("key" + std::to_string(i), std::string(40, 'v'));
  gLeakedSecrets = 0;
  gSecret = password.c_str();
  std::string encoded = url.toEncodedUrl(true);
  gSecret = nullptr;
  EXPECT_EQ(gLeakedSecrets, 0);
  EXPECT_EQ(encoded.rfind("https://someone:" + password + "@h:8443/", 0), 0u);
  EXPECT_GT(encoded.size(), 1000u);
}

TEST(UrlModelTest, ParseErrorIsLoggedOnlyWithoutMessagePointer) {
  test::LogCapture capture;
  Url url;
  std::string error;
  EXPECT_FALSE(url.fromEncodedUtf8String("http://host:65536/", &error, false));
  EXPECT_EQ(error, "fail to parse port");
  EXPECT_TRUE(capture.records().empty());
  const std::string text = "http://user@host/";
  const Url fromConstructor = text;
  const auto records = capture.records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].type, 1);
  EXPECT_EQ(records[0].category, "url");
  EXPECT_EQ(records[0].text, "Url parse error : invalid url user info, ':' is missing");
  EXPECT_FALSE(fromConstructor.isValid());
}

TEST(UrlModelTest, ParsingOwnComponentIsSafe) {
  Url url;
  url.setHost("http://other.example/p");  // nonsense host, but a complete URL text
  ASSERT_TRUE(url.fromEncodedUtf8String(url.getHost(), nullptr, false));
  EXPECT_EQ(url.getHost(), "other.example");
  EXPECT_EQ(url.getPathSegments(), Url::PathSegments{"p"});
}

TEST(UrlModelTest, SetHostCanonicalisesOnlyIpv6AndRefusesNul) {
  Url url;
  url.setHost("2001:DB8:0::1");
  EXPECT_EQ(url.getHost(), "[2001:db8::1]");
  EXPECT_EQ(url.getIpAddress().getType(), IpAddress::IPv6);
  url.setHost("[::1]");  // brackets are not understood, and a second pass keeps them
  EXPECT_FALSE(url.getIpAddress().isValid());
  url.setHost(url.getHost());
  EXPECT_EQ(url.getHost(), "[::1]");
  url.setHost("010.1.1.1");  // not an address for inet_pton: kept as a name
  EXPECT_FALSE(url.getIpAddress().isValid());
  url.setHost("10.1.1.1");
  url.setHost(std::string("127.0.0.1\0.evil.example", 23));
  EXPECT_EQ(url.getHost(), "10.1.1.1");
  EXPECT_EQ(url.getIpAddress(), IpAddress("10.1.1.1", IpAddress::IPv4));
}

TEST(UrlModelTest, ClearingAndReplacingWipeWholeCapacity) {
  Url url;
  url.setCredentials("someone-with-a-long-user-name", std::string(100, 'S'));
  url.setHost("a-very-long-host-name.example.internal");
  url.setFragment("a-fragment-long-enough-for-the-heap");
  const std::string* fields[] = {&url.getUser(), &url.getPassword(), &url.getHost(), &url.getFragment()};
  std::string_view storage[4];  // each field's whole allocation
  for (int i = 0; i < 4; ++i) storage[i] = {fields[i]->data(), fields[i]->capacity()};
  url.setCredentials("user", "short");
  ASSERT_EQ(url.getPassword().data(), storage[1].data());  // reused, so the tail must have been zeroed
  EXPECT_TRUE(StorageIsZero(storage[1].data() + 5, storage[1].size() - 5));
  url.clearUrl();
  for (int i = 0; i < 4; ++i) {
    ASSERT_EQ(fields[i]->data(), storage[i].data());
    EXPECT_TRUE(StorageIsZero(storage[i].data(), storage[i].size())) << i;
  }
}

TEST(UrlModelTest, CopiesAreIndependentAndMovesEmptyTheSource) {
  const Url source("https://u:p@[::1]:8443/a?b=c#d");
  Url copy(source);
  EXPECT_EQ(copy.getIpAddress(), source.getIpAddress());
  copy.editPathSegments().push_back("more");
  EXPECT_NE(copy, source);
  Url assigned("http://x/");
  assigned = source;
  Url moved(std::move(assigned));
  EXPECT_EQ(moved, source);
  EXPECT_TRUE(assigned.getPassword().empty());  // NOLINT(bugprone-use-after-move): the state is specified
  Url target("http://other/");
  target = std::move(moved);
  EXPECT_EQ(target, source);
  EXPECT_TRUE(target.hasFragment());
  EXPECT_TRUE(moved.getUser().empty());  // NOLINT(bugprone-use-after-move)
}

}  // namespace
}  // namespace kx
