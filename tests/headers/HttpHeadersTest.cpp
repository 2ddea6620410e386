#include <kx/http/HttpHeaders.h>

#include <gtest/gtest.h>

#include <functional>
#include <list>
#include <string>
#include <utility>
#include <vector>

namespace {

using kx::http::HttpHeaders;
using Values = std::list<std::string>;
using Entries = std::vector<std::pair<std::string, Values>>;

Entries Dump(const HttpHeaders& headers) {
  Entries entries;
  headers.iterateOverHeaders([&](const std::string& name, const Values& values) {
    entries.emplace_back(name, values);
    return true;
  });
  return entries;
}

TEST(HttpHeadersTest, NamesFoldCaseOnlyValuesKeepBytes) {
  HttpHeaders headers;
  headers.addHeaderValue("Content-Type", "Text/HTML ");
  headers.addHeaderValue("CONTENT-TYPE", "b");
  headers.addHeaderValue(" Content-Type", "c");  // blanks are part of the name
  ASSERT_NE(headers.find("content-TYPE"), nullptr);
  EXPECT_FALSE(headers.contains("content-type "));
  EXPECT_EQ(Dump(headers), (Entries{{" content-type", {"c"}}, {"content-type", {"Text/HTML ", "b"}}}));
  EXPECT_EQ(HttpHeaders::NormalizeHeaderName(" X-\xC3\x89Z\t"), " x-\xC3\x89z\t");
}

TEST(HttpHeadersTest, IteratesInByteOrderOfLowerCaseNames) {
  HttpHeaders headers;
  for (const char* name : {"b", "\xC3\xA9", "A", "c", "Z"}) headers.addHeaderValue(name, name);
  // 0xC3 sorts after every ASCII byte: unsigned comparison, whatever the signedness of char.
  EXPECT_EQ(Dump(headers), (Entries{{"a", {"A"}}, {"b", {"b"}}, {"c", {"c"}}, {"z", {"Z"}},
                                    {"\xC3\xA9", {"\xC3\xA9"}}}));
}

TEST(HttpHeadersTest, ReplaceKeepsNameWithoutValues) {
  HttpHeaders headers;
  headers.replaceHeader("X");
  EXPECT_TRUE(headers.contains("x"));
  EXPECT_EQ(Dump(headers), (Entries{{"x", {}}}));

  headers.addHeaderValues("Accept", Values{"a", "b"});
  headers.replaceHeader("ACCEPT", "c");
  EXPECT_EQ(*headers.find("accept"), Values{"c"});
  headers.replaceHeader("accept", headers.find("accept")->front());  // value aliases the list it replaces
  EXPECT_EQ(*headers.find("accept"), Values{"c"});
  headers.replaceHeader("accept");
  EXPECT_TRUE(headers.find("accept")->empty());
}

TEST(HttpHeadersTest, AddValuesAppendsAndEmptyInputStillCreates) {
  HttpHeaders headers;
  headers.addHeaderValues("L", Values{});
  headers.addHeaderValues("V", std::vector<std::string>{});
  EXPECT_EQ(Dump(headers), (Entries{{"l", {}}, {"v", {}}}));
  headers.addHeaderValues("l", Values{"1", "2"});
  headers.addHeaderValues("L", std::vector<std::string>{"3", "1"});
  headers.addHeaderValues("l", *headers.find("l"));  // a list appended to itself doubles, once
  EXPECT_EQ(*headers.find("l"), (Values{"1", "2", "3", "1", "1", "2", "3", "1"}));
}

TEST(HttpHeadersTest, AddHeadersMergesWithoutReplacing) {
  HttpHeaders target;
  target.addHeaderValue("Accept", "a");
  target.addHeaderValue("Z", "z");
  HttpHeaders other;
  other.addHeaderValue("ACCEPT", "b");
  other.addHeaderValue("accept", "a");
  other.replaceHeader("Empty");
  target.addHeaders(other);
  EXPECT_EQ(Dump(target), (Entries{{"accept", {"a", "b", "a"}}, {"empty", {}}, {"z", {"z"}}}));
  target.addHeaders(target);
  EXPECT_EQ(*target.find("z"), (Values{"z", "z"}));
  EXPECT_EQ(Dump(other), (Entries{{"accept", {"b", "a"}}, {"empty", {}}}));
}

TEST(HttpHeadersTest, RemoveAndClear) {
  HttpHeaders headers;
  headers.addHeaderValue("A", "1");
  headers.addHeaderValue("B", "2");
  headers.removeHeader("a");
  headers.removeHeader("absent");
  EXPECT_EQ(Dump(headers), (Entries{{"b", {"2"}}}));
  headers.clear();
  EXPECT_EQ(headers.find("b"), nullptr);
}

TEST(HttpHeadersTest, IterationStopsAtFirstFalseAndMayEditValues) {
  HttpHeaders headers;
  for (const char* name : {"a", "b", "c"}) headers.addHeaderValue(name, "v");
  std::vector<std::string> seen;
  EXPECT_FALSE(headers.iterateOverHeaders([&](const std::string& name, Values& values) {
    seen.push_back(name);
    values.push_back("edited");
    return name != "b";
  }));
  EXPECT_EQ(seen, (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(*headers.find("b"), (Values{"v", "edited"}));
  EXPECT_EQ(*headers.find("c"), Values{"v"});
  EXPECT_TRUE(HttpHeaders().iterateOverHeaders([](const std::string&, Values&) { return false; }));
}

TEST(HttpHeadersTest, EmptyVisitorIsNeverCalled) {
  HttpHeaders headers;
  const HttpHeaders& view = headers;
  EXPECT_TRUE(headers.iterateOverHeaders(nullptr));  // nothing to visit
  EXPECT_TRUE(view.iterateOverHeaders(nullptr));
  headers.addHeaderValue("a", "1");
  EXPECT_FALSE(headers.iterateOverHeaders(std::function<bool(const std::string&, Values&)>()));
  EXPECT_FALSE(view.iterateOverHeaders(std::function<bool(const std::string&, const Values&)>()));
}

}  // namespace
