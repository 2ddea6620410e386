#include <kx/http/HttpHeaders.h>

#include <gtest/gtest.h>

#include <clocale>
#include <iterator>
#include <list>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace std::string_view_literals;
using kx::http::HttpHeaders;
using Values = std::list<std::string>;

// Exactly sized, not NUL-terminated copy: an over-read past `length` shows up under the sanitizers.
bool Split(std::string_view line, std::string& name, Values& values) {
  std::vector<char> exact(line.begin(), line.end());
  return HttpHeaders::SplitHttpHeader(exact.data(), exact.size(), name, values);
}

struct SplitCase {
  std::string_view label, line;
  bool ok;
  std::string_view name;
  std::vector<std::string_view> values;
};

const SplitCase kSplitCases[] = {
    {"SingleValueNameFolded", "IF-Modified-Since: Sat, 29 Oct 1994\r\n", true, "if-modified-since", {"Sat, 29 Oct 1994"}},
    {"FirstColonCuts", "Location: http://h:80/a,b\r\n", true, "location", {"http://h:80/a", "b"}},
    {"QuotedCommaKept", "Link: \"a,b\", c\r\n", true, "link", {"\"a,b\"", "c"}},
    {"EscapedQuoteInQuotes", "X: \"a\\\",b\", c", true, "x", {"\"a\\\",b\"", "c"}},
    {"DoubleBackslashClosesQuote", "X: \"a\\\\\", b", true, "x", {"\"a\\\\\"", "b"}},
    {"BackslashOutsideDisablesQuotes", "X: a\\, \"b,c\"", true, "x", {"a\\", "\"b", "c\""}},
    {"UnclosedQuote", "X: \"a, b\r\n", false, "x", {}},
    {"EmptyItemsKept", "X: a,,b,\r\n", true, "x", {"a", "", "b", ""}},
    {"StatusLineIsName", "HTTP/1.1 200 OK\r\n", true, "HTTP/1.1 200 OK", {}},
    {"BlankLine", "\r\n", false, "", {}},
    {"NameOnly", "Name:", true, "name", {}},
    {"NameWithCrLf", "Name:\r\n", true, "name", {""}},
    {"EmptyName", ": x\r\n", false, "", {"x"}},
    {"SixBlanksTrimmed", "\v\fX-Y\t : \t v \v\f\r\n", true, "x-y", {"v"}},
    {"HighBytesUnchanged", "X-\xC4\xB0\xC3\x89: \xC3\xA9t\xC3\xA9\r\n", true, "x-\xC4\xB0\xC3\x89", {"\xC3\xA9t\xC3\xA9"}},
    {"NbspIsNotBlank", "X: \xA0v\xA0\r\n", true, "x", {"\xA0v\xA0"}},
    // A NUL ends the line, as it ends the text of ParseMultiValueHeader.
    {"NulEndsValue", "X: a\0b, c\r\n"sv, true, "x", {"a"}},
    {"NulEndsName", "Host\0: evil\r\n"sv, true, "Host", {}},
};

class SplitHttpHeaderTest : public testing::TestWithParam<SplitCase> {};

TEST_P(SplitHttpHeaderTest, CutsNameAndValues) {
  const SplitCase& c = GetParam();
  std::string name = "stale";
  Values values{"stale"};
  EXPECT_EQ(Split(c.line, name, values), c.ok);
  EXPECT_EQ(name, c.name);
  EXPECT_EQ(values, Values(c.values.begin(), c.values.end()));
}

INSTANTIATE_TEST_SUITE_P(Headers, SplitHttpHeaderTest, testing::ValuesIn(kSplitCases),
                         [](const auto& info) { return std::string(info.param.label); });

TEST(ParseMultiValueHeaderTest, AppendsAndFailureOrNullLeaveValuesEmpty) {
  Values values{"old"};
  EXPECT_TRUE(HttpHeaders::ParseMultiValueHeader(" a ,b", values));
  EXPECT_TRUE(HttpHeaders::ParseMultiValueHeader("", values));
  EXPECT_EQ(values, (Values{"old", "a", "b", ""}));
  EXPECT_FALSE(HttpHeaders::ParseMultiValueHeader("a, \"b", values));
  EXPECT_TRUE(values.empty());
  values = {"old"};
  EXPECT_FALSE(HttpHeaders::ParseMultiValueHeader(nullptr, values));
  EXPECT_TRUE(values.empty());
  std::string name;
  EXPECT_FALSE(HttpHeaders::SplitHttpHeader(nullptr, 4, name, values));
}

// Items are trimmed around the first "="; the first empty, "="-less or repeated item stops the walk,
// with the pairs before it stored.
TEST(ExtractHeaderKeyPairValuesTest, StoresPairsUntilFirstBadItem) {
  using Pairs = std::map<std::string, std::string>;
  Pairs pairs;
  EXPECT_TRUE(HttpHeaders::ExtractHeaderKeyPairValues({"Max = 5", " b= \"x y\" ", "k=v=w", "=v"}, pairs));
  EXPECT_EQ(pairs, (Pairs{{"Max", "5"}, {"b", "\"x y\""}, {"k", "v=w"}, {"", "v"}}));
  for (const Values& items : {Values{"a=1", "", "b=2"}, Values{"a=1", "  ", "b=2"}, Values{"a=1", "a=2", "c=3"}}) {
    pairs.clear();
    EXPECT_FALSE(HttpHeaders::ExtractHeaderKeyPairValues(items, pairs)) << *std::next(items.begin());
    EXPECT_EQ(pairs, (Pairs{{"a", "1"}}));
  }
}

// The C tolower of a Turkish locale folds 'I' to a dotless i (or leaves it), and its isspace may count
// 0xA0; neither may change what the parsers produce.
TEST(HeaderLocaleTest, TurkishLocaleChangesNothing) {
  const std::string saved = std::setlocale(LC_ALL, nullptr);
  const char* turkish = nullptr;
  for (const char* candidate : {"tr_TR.ISO-8859-9", "tr_TR.UTF-8", "tr_TR.utf8", "tr_TR"}) {
    if ((turkish = std::setlocale(LC_ALL, candidate)) != nullptr) break;
  }
  if (turkish == nullptr) GTEST_SKIP() << "no Turkish locale on this machine (locale -a)";

  std::string name;
  Values values;
  EXPECT_TRUE(Split("IF-MODIFIED-SINCE: Sat, 29 Oct 1994\r\n", name, values));
  EXPECT_EQ(name, "if-modified-since");
  EXPECT_EQ(values, Values{"Sat, 29 Oct 1994"});
  EXPECT_TRUE(Split("X-I\xDD: \xA0" "a\xA0, \xFD\r\n", name, values));
  EXPECT_EQ(name, "x-i\xDD");
  EXPECT_EQ(values, (Values{"\xA0" "a\xA0", "\xFD"}));
  EXPECT_EQ(HttpHeaders::NormalizeHeaderName("IDENTITY"), "identity");
  std::setlocale(LC_ALL, saved.c_str());
}

}  // namespace
