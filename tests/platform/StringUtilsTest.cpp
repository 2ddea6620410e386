#include <kx/system/kxStringUtils.h>

#include <gtest/gtest.h>

#include <clocale>
#include <limits>
#include <list>
#include <set>
#include <string>
#include <vector>

namespace su = kx::kxStringUtils;

namespace {

TEST(StringUtilsTest, DecimalAndDurationTexts) {
  EXPECT_EQ(su::ToDecimal(std::numeric_limits<int64_t>::min()), "-9223372036854775808");
  EXPECT_EQ(su::ToDecimalUnsigned(std::numeric_limits<uint64_t>::max()), "18446744073709551615");
  int64_t value = 7;
  EXPECT_TRUE(su::FromDecimal("-9223372036854775808", value));
  EXPECT_EQ(value, std::numeric_limits<int64_t>::min());
  for (const char* bad : {"", "9223372036854775808", "+1", " 1", "1 ", "0x10", "1e3", "-"}) {
    value = 7;
    EXPECT_FALSE(su::FromDecimal(bad, value) || value != 7) << bad;  // a failure keeps the target
  }
  for (const auto& [ms, text] : {std::pair<int64_t, const char*>{999, "999ms"}, {1549, "1.5s"}, {90000, "1.5min"},
                                 {5400000, "1.5h"}, {-1500, "-1.5s"}}) {
    EXPECT_EQ(su::humanizeDuration(ms), text);
  }
  EXPECT_EQ(su::humanizeDuration(2 * 86400000LL, 0), "2d");
  EXPECT_FALSE(su::humanizeDuration(std::numeric_limits<int64_t>::min()).empty());
}

TEST(StringUtilsTest, TrimAndCaseFoldingIgnoreTheProcessLocale) {
  // In a Turkish locale tolower('I') is not 'i', and some locales call 0xA0 blank; ours must not care.
  const char* previous = std::setlocale(LC_ALL, nullptr);
  const std::string saved = previous ? previous : "C";
  std::setlocale(LC_ALL, "tr_TR.UTF-8");
  EXPECT_EQ(su::Trim(" \t\n\v\f\rvalue \r\n"), "value");
  EXPECT_EQ(su::Trim("\xA0v\xA0"), "\xA0v\xA0");
  std::string s = "  in place  ";
  su::TrimInPlace(s);
  EXPECT_EQ(s, "in place");
  EXPECT_EQ(su::AsciiToLower("If-Modified-Since\xC4\xB0"), "if-modified-since\xC4\xB0");
  EXPECT_TRUE(su::EqualsIgnoreAsciiCase("OPENSSL/3", "openssl/3"));
  EXPECT_TRUE(su::StartsWithIgnoreAsciiCase("OpenSSL/3.0.19", "openssl/"));
  std::setlocale(LC_ALL, saved.c_str());
}

TEST(StringUtilsTest, SplitJoinByteClassesAndEncodings) {
  EXPECT_EQ(su::Split("a,,b,", ','), (std::vector<std::string>{"a", "", "b", ""}));
  EXPECT_EQ(su::Split("", ','), (std::vector<std::string>{""}));
  EXPECT_EQ(su::SplitSkipEmpty("/a//b/", '/'), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(su::Join(std::set<std::string>{"b", "a"}, ",", "'"), "'a','b'");
  EXPECT_EQ(su::Join(std::list<std::string>{"x"}, ", "), "x");
  EXPECT_EQ(su::Join(std::vector<std::string>{"a", "", "b"}, "/"), "a//b");
  for (const std::string& bad : {std::string("a\0b", 3), std::string("\x1F"), std::string("\x7F")}) {
    EXPECT_TRUE(su::ContainsAsciiNonPrintableChar(bad));
  }
  EXPECT_FALSE(su::ContainsAsciiNonPrintableChar(" ~\xC3\xA9"));
  EXPECT_TRUE(su::IsValidUtf8("\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"));
  for (const char* bad : {"\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xE2\x82", "\x80", "\xFF"}) {
    EXPECT_FALSE(su::IsValidUtf8(bad)) << bad;
  }
  EXPECT_EQ(su::Latin1ToUtf8("caf\xE9"), "caf\xC3\xA9");
  std::string latin1;
  EXPECT_TRUE(su::Utf8ToLatin1("caf\xC3\xA9", latin1));
  EXPECT_EQ(latin1, "caf\xE9");
  EXPECT_FALSE(su::Utf8ToLatin1("\xE2\x82\xAC", latin1));
}

TEST(StringUtilsTest, SecureClearZeroesTheWholeCapacity) {
  for (size_t length : {size_t{5}, size_t{200}}) {  // short buffer and heap block
    std::string secret(length, 'S');
    secret.reserve(length + 40);
    secret.resize(length / 2);  // bytes beyond size() still hold secret material
    const char* storage = secret.data();
    const size_t capacity = secret.capacity();
    su::SecureClear(secret);
    EXPECT_EQ(secret.size(), 0u);
    ASSERT_EQ(secret.data(), storage);  // clear() keeps the block, so it can be inspected
    for (size_t i = 0; i < capacity; ++i) ASSERT_EQ(storage[i], '\0') << "byte " << i << " of " << capacity;
  }
}

}  // namespace
