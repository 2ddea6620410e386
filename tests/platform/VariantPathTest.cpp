#include <kx/system/kxVariant.h>

#include <gtest/gtest.h>

#include <string>

namespace {

using kx::kxVariant;
using kx::kxVariantListImpl;
using kx::kxVariantMapImpl;

// The shape of a search response: maps holding a list of maps.
kxVariant SearchResponse() {
  return kxVariant(kxVariantMapImpl{
      {"hits", kxVariantMapImpl{{"total", kxVariantMapImpl{{"value", 2}}},
                                {"hits", kxVariantListImpl{kxVariantMapImpl{{"_id", "first"}},
                                                           kxVariantMapImpl{{"_id", "second"}}}}}},
      {"a/b", "slash key"},
      {"", kxVariantMapImpl{{"x", "empty key"}}},
  });
}

struct PathCase {
  const char* name;
  const char* path;
  char separator;
  const char* expected;  // the value as text; nullptr when the path names nothing
};

const PathCase kPathCases[] = {
    {"NestedMaps", "hits/total/value", '/', "2"},
    {"ListIndex", "hits/hits/1/_id", '/', "second"},
    {"ListIndexZero", "hits/hits/0/_id", '/', "first"},
    {"ListIndexOutOfRange", "hits/hits/2/_id", '/', nullptr},
    {"ListIndexLeadingZero", "hits/hits/01/_id", '/', nullptr},
    {"ListIndexSigned", "hits/hits/+1/_id", '/', nullptr},
    {"ListIndexNegative", "hits/hits/-1/_id", '/', nullptr},
    {"ListIndexNotDecimal", "hits/hits/one/_id", '/', nullptr},
    {"ListIndexHuge", "hits/hits/99999999999999999999999/_id", '/', nullptr},
    {"MissingMember", "hits/total/relation", '/', nullptr},
    {"ThroughScalar", "hits/total/value/x", '/', nullptr},
    {"TrailingSeparatorNamesEmptyKey", "hits/total/", '/', nullptr},
    {"LeadingSeparatorNamesEmptyKey", "/x", '/', "empty key"},
    {"OtherSeparator", "hits.total.value", '.', "2"},
    {"SlashInsideKeyWithOtherSeparator", "a/b", '.', "slash key"},
    {"SlashKeyNotFoundWithSlashSeparator", "a/b", '/', nullptr},
};

class VariantPathTest : public testing::TestWithParam<PathCase> {};

TEST_P(VariantPathTest, FindsTheNamedValueOrNothing) {
  const PathCase& c = GetParam();
  kxVariant root = SearchResponse();
  const kxVariant& constRoot = root;
  const kxVariant* found = constRoot.getPath(c.path, c.separator);
  kxVariant* edited = root.editPath(c.path, c.separator);
  EXPECT_EQ(static_cast<const kxVariant*>(edited), found);
  const kxVariant* fromMap = kxVariant::GetPath(constRoot.getMap(), c.path, c.separator);
  EXPECT_EQ(fromMap, found);
  if (c.expected == nullptr) {
    EXPECT_EQ(found, nullptr);
  } else {
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->toString(), c.expected);
  }
}

INSTANTIATE_TEST_SUITE_P(Variant, VariantPathTest, testing::ValuesIn(kPathCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(VariantPathTest, EmptyPathNamesTheValueButNoMapMember) {
  kxVariant root = SearchResponse();
  EXPECT_EQ(root.getPath(""), &root);
  EXPECT_EQ(kxVariant::GetPath(root.getMap(), ""), nullptr);
  EXPECT_FALSE(kxVariant::SetPath(root.editMap(), "", 1));
}

TEST(VariantPathTest, SetPathCreatesMissingMapsAndReplacesValues) {
  kxVariant body;
  ASSERT_TRUE(body.setPath("query/bool/filter/term/type", "doc"));
  ASSERT_TRUE(body.setPath("size", 3));
  ASSERT_TRUE(body.setPath("query/bool/must", kxVariantListImpl{kxVariant()}));
  ASSERT_TRUE(body.setPath("query/bool/must/0/ids", "x"));  // a null list element becomes a map
  const kxVariant expected(kxVariantMapImpl{
      {"query", kxVariantMapImpl{{"bool", kxVariantMapImpl{
                                              {"filter", kxVariantMapImpl{{"term", kxVariantMapImpl{{"type", "doc"}}}}},
                                              {"must", kxVariantListImpl{kxVariantMapImpl{{"ids", "x"}}}},
                                          }}}},
      {"size", 3},
  });
  EXPECT_EQ(body, expected);
  ASSERT_TRUE(body.setPath("size", "replaced"));
  EXPECT_EQ(body.getPath("size")->getString(), "replaced");
  ASSERT_TRUE(body.setPath("", 7));
  EXPECT_EQ(body, kxVariant(7));
}

TEST(VariantPathTest, SetPathRefusesToOverwriteAScalarOrMissAListElement) {
  kxVariant root = SearchResponse();
  const kxVariant before = root;
  EXPECT_FALSE(root.setPath("hits/total/value/deeper", 1));
  EXPECT_FALSE(root.setPath("hits/hits/5", 1));
  EXPECT_FALSE(root.setPath("hits/hits/name", 1));
  EXPECT_FALSE(kxVariant::SetPath(root.editMap(), "hits/hits/0/_id/x", 1));
  EXPECT_EQ(root, before);
}

TEST(VariantPathTest, MapRootedHelpersReadAndWriteAPayload) {
  kxVariantMapImpl payload{{"azp", "client"}, {"aud", kxVariantListImpl{"a", "b"}}};
  ASSERT_NE(kxVariant::GetPath(payload, "azp"), nullptr);
  EXPECT_EQ(kxVariant::GetPath(payload, "azp")->getString(), "client");
  EXPECT_EQ(kxVariant::GetPath(payload, "aud/1")->getString(), "b");
  kxVariant::EditPath(payload, "aud/0")->editString() = "z";
  EXPECT_EQ(payload["aud"], kxVariant(kxVariantListImpl{"z", "b"}));
  ASSERT_TRUE(kxVariant::SetPath(payload, "ext/roles", kxVariantListImpl{"admin"}));
  ASSERT_TRUE(kxVariant::SetPath(payload, "iat", 1700000000));
  EXPECT_EQ(payload["ext"].getPath("roles/0")->getString(), "admin");
  EXPECT_EQ(payload["iat"].toInt64(), 1700000000);
  EXPECT_FALSE(kxVariant::SetPath(payload, "azp/x", 1));
  EXPECT_EQ(payload["azp"].getString(), "client");
}

}  // namespace
