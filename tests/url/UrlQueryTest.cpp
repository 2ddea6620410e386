// The query splitter must give exactly what uriDissectQueryMallocA gives (the parser used to call it and
// callers may still compare with it): checked item by item against uriparser itself.
#include "url/UrlCodec.h"

#include <kx/Url.h>

#include <uriparser/Uri.h>

#include <gtest/gtest.h>

#include <list>
#include <string>
#include <utility>
#include <vector>

namespace kx {
namespace {

using Pairs = std::list<std::pair<std::string, std::string>>;

Pairs DissectWithUriparser(const std::string& query) {
  UriQueryListA* list = nullptr;
  int count = 0;
  EXPECT_EQ(uriDissectQueryMallocA(&list, &count, query.data(), query.data() + query.size()), URI_SUCCESS);
  Pairs pairs;
  for (const UriQueryListA* item = list; item != nullptr; item = item->next) {
    pairs.emplace_back(item->key, item->value != nullptr ? item->value : "");
  }
  uriFreeQueryListA(list);
  EXPECT_EQ(static_cast<size_t>(count), pairs.size());
  return pairs;
}

TEST(UrlQueryTest, SplitsLikeUriparser) {
  const std::vector<std::string> queries = {
      "",       "&",         "&&",     "a",          "a=",          "=",         "=x",
      "a=b=c",  "a&b",       "a&&b&",  "&a",         "+",           "a+b=c+d",   "%2B=%26",
      "a=%",    "a=%4",      "a=%4G",  "%41%42=%43", "a%3D=b%3d",   "==",        "a=&=b&c",
      "%%41=1", "k=v&k=v2",  "x=a+%20+b"};
  for (const std::string& query : queries) {
    SCOPED_TRACE(query);
    Pairs ours;
    EXPECT_EQ(url::detail::DissectQuery(query, ours), url::detail::ComponentCheck::kOk);
    EXPECT_EQ(ours, DissectWithUriparser(query));
  }
}

TEST(UrlQueryTest, StopsAtFirstBadItemKeyBeforeValue) {
  Pairs pairs;
  EXPECT_EQ(url::detail::DissectQuery("a=1&%FF=%0A&b=2", pairs), url::detail::ComponentCheck::kInvalidUtf8);
  pairs.clear();
  EXPECT_EQ(url::detail::DissectQuery("a=1&%0A=%FF&b=2", pairs), url::detail::ComponentCheck::kForbiddenChar);
  pairs.clear();
  EXPECT_EQ(url::detail::DissectQuery("a=%E2%82%AC&b=%E2%82", pairs), url::detail::ComponentCheck::kInvalidUtf8);
  // Through the parser, a failure anywhere in the query leaves no pair behind.
  Url url;
  std::string error;
  EXPECT_FALSE(url.fromEncodedUtf8String("http://h/?a=1&b=%7F", &error, false));
  EXPECT_EQ(error, "Found ASCII forbidden char in string");
  EXPECT_TRUE(url.getQueryParameters().empty());
}

}  // namespace
}  // namespace kx
