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

TEST(HttpHeadersTest, NamesFoldAsciiCaseOnlyAndIterateInByteOrder) {
  HttpHeaders headers;
  headers.addHeaderValue("Content-Type", "Text/HTML ");
  headers.addHeaderValue("CONTENT-TYPE", "b");
  headers.addHeaderValue(" Content-Type", "c");  // blanks are part of the name
  for (const char* name : {"\xC3\x89Z", "Z"}) headers.addHeaderValue(name, name);
  ASSERT_NE(headers.find("content-TYPE"), nullptr);
  EXPECT_FALSE(headers.contains("Content-Type "));
  // Only ASCII letters fold; 0xC3 sorts after every ASCII byte, whatever the signedness of char.
  EXPECT_EQ(Dump(headers), (Entries{{" content-type", {"c"}}, {"content-type", {"Text/HTML ", "b"}}, {"z", {"Z"}},
                                    {"\xC3\x89z", {"\xC3\x89Z"}}}));
  headers.removeHeader("Z");
  headers.removeHeader("absent");
  EXPECT_FALSE(headers.contains("z"));
  headers.clear();
  EXPECT_EQ(headers.find("content-type"), nullptr);
}

// Every way of passing one of the collection's own lists or values back in.
TEST(HttpHeadersTest, ReplaceAndAddTakeTheirOwnValuesAsArguments) {
  HttpHeaders headers;
  headers.addHeaderValues("L", Values{});
  headers.addHeaderValues("V", std::vector<std::string>{});
  headers.replaceHeader("X");
  EXPECT_EQ(Dump(headers), (Entries{{"l", {}}, {"v", {}}, {"x", {}}}));  // empty input still creates
  headers.addHeaderValues("l", Values{"1", "2"});
  headers.addHeaderValues("L", std::vector<std::string>{"3"});
  headers.addHeaderValues("l", *headers.find("l"));  // a list appended to itself doubles, once
  EXPECT_EQ(*headers.find("l"), (Values{"1", "2", "3", "1", "2", "3"}));
  headers.replaceHeader("L", headers.find("l")->back());
  EXPECT_EQ(*headers.find("l"), Values{"3"});
  headers.replaceHeader("l");
  EXPECT_TRUE(headers.find("l")->empty());

  HttpHeaders other;
  other.addHeaderValue("ACCEPT", "b");
  other.replaceHeader("Empty");
  headers.addHeaderValue("Accept", "a");
  headers.addHeaders(other);
  headers.addHeaders(headers);
  EXPECT_EQ(*headers.find("accept"), (Values{"a", "b", "a", "b"}));
  EXPECT_TRUE(headers.find("empty")->empty());
  EXPECT_EQ(Dump(other), (Entries{{"accept", {"b"}}, {"empty", {}}}));
}

TEST(HttpHeadersTest, IterationStopsAtFirstFalseMayEditValuesAndRefusesEmptyVisitor) {
  HttpHeaders headers;
  const HttpHeaders& view = headers;
  EXPECT_TRUE(headers.iterateOverHeaders(nullptr));  // nothing to visit
  EXPECT_TRUE(view.iterateOverHeaders(nullptr));
  EXPECT_TRUE(headers.iterateOverHeaders([](const std::string&, Values&) { return false; }));
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
  EXPECT_FALSE(view.iterateOverHeaders([](const std::string&, const Values&) { return false; }));
  EXPECT_FALSE(headers.iterateOverHeaders(std::function<bool(const std::string&, Values&)>()));
  EXPECT_FALSE(view.iterateOverHeaders(std::function<bool(const std::string&, const Values&)>()));
}

}  // namespace
