// The parser splits queries itself; the pairs must be exactly what uriDissectQueryMallocA gives, checked
// against uriparser item by item.
#include "url/UrlCodec.h"

#include <uriparser/Uri.h>

#include <gtest/gtest.h>

#include <list>
#include <string>
#include <utility>

namespace kx {
namespace {

using Pairs = std::list<std::pair<std::string, std::string>>;

TEST(UrlQueryTest, SplitsLikeUriparser) {
  for (const std::string query : {"", "&", "a", "a=", "=", "=x", "a=b=c", "a&&b&", "&a", "+", "a+b=c+d",
                                  "%2B=%26", "a=%", "a=%4", "a=%4G", "%41%42=%43", "==", "a=&=b&c",
                                  "%%41=1", "k=v&k=v2", "x=a+%20+b"}) {
    SCOPED_TRACE(query);
    UriQueryListA* list = nullptr;
    int count = 0;
    ASSERT_EQ(uriDissectQueryMallocA(&list, &count, query.data(), query.data() + query.size()), URI_SUCCESS);
    Pairs expected;
    for (const UriQueryListA* item = list; item != nullptr; item = item->next) {
      expected.emplace_back(item->key, item->value != nullptr ? item->value : "");
    }
    uriFreeQueryListA(list);
    Pairs ours;
    EXPECT_EQ(url::detail::DissectQuery(query, ours), url::detail::ComponentCheck::kOk);
    EXPECT_EQ(ours, expected);
  }
}

}  // namespace
}  // namespace kx
