#include <kx/system/kxVariant.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <utility>

namespace {

using kx::kxVariant;
using kx::kxVariantListImpl;
using kx::kxVariantMapImpl;

constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
constexpr int64_t kMax = std::numeric_limits<int64_t>::max();

// One row per value: its text and integer readings, and whether each was a real reading.
struct ConversionCase {
  const char* name;
  kxVariant value;
  std::string text;
  bool textOk;
  int64_t integer;
  bool integerOk;
};

const ConversionCase kConversionCases[] = {
    {"Null", kxVariant(), "", false, 0, false},
    {"True", kxVariant(true), "true", true, 1, true},
    {"Int64Min", kxVariant(kMin), "-9223372036854775808", true, kMin, true},
    {"HugeUnsignedIsDouble", kxVariant(uint64_t{18446744073709551615u}), "18446744073709551616", true, kMax, false},
    {"DoubleTruncatesTowardZero", kxVariant(-3.9), "-3.9", true, -3, true},
    {"DoubleIntegral", kxVariant(1.0), "1", true, 1, true},
    {"DoubleHugeNegativeSaturates", kxVariant(-1e300), "-1e+300", true, kMin, false},
    {"DoubleNan", kxVariant(std::nan("")), "nan", true, 0, false},
    {"StringWithBlanks", kxVariant(" 42\t"), " 42\t", true, 42, true},
    {"StringFloating", kxVariant("4.2e1"), "4.2e1", true, 42, true},
    {"StringPastInt64Max", kxVariant("9223372036854775808"), "9223372036854775808", true, kMax, false},
    {"StringPlusSign", kxVariant("+5"), "+5", true, 0, false},
    {"StringTrailingGarbage", kxVariant("12abc"), "12abc", true, 0, false},
    {"StringEmpty", kxVariant(""), "", true, 0, false},
    {"Map", kxVariant(kxVariantMapImpl{{"a", 1}}), "", false, 0, false},
};

class VariantConversionTest : public testing::TestWithParam<ConversionCase> {};

TEST_P(VariantConversionTest, ReadsAsStringAndAsInteger) {
  const ConversionCase& c = GetParam();
  bool ok = !c.textOk;
  EXPECT_EQ(c.value.toString(&ok), c.text);
  EXPECT_EQ(ok, c.textOk);
  ok = !c.integerOk;
  EXPECT_EQ(c.value.toInt64(&ok), c.integer);
  EXPECT_EQ(ok, c.integerOk);
}

INSTANTIATE_TEST_SUITE_P(Variant, VariantConversionTest, testing::ValuesIn(kConversionCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(VariantTest, BoolAndDoubleConversions) {
  bool ok = false;
  EXPECT_TRUE(kxVariant("true").toBool(&ok) && ok);
  EXPECT_FALSE(kxVariant("0").toBool(&ok));
  EXPECT_TRUE(ok);
  EXPECT_FALSE(kxVariant("yes").toBool(&ok) || ok);
  EXPECT_TRUE(kxVariant(int64_t{-1}).toBool() && kxVariant(0.5).toBool() && !kxVariant(0.0).toBool());
  EXPECT_DOUBLE_EQ(kxVariant(" 2.5 ").toDouble(&ok), 2.5);
  EXPECT_TRUE(ok);
  EXPECT_EQ(kxVariant("x").toDouble(&ok), 0.0);
  EXPECT_FALSE(ok);
}

TEST(VariantTest, EqualityIsDeepAndStrictOnForm) {
  const kxVariant a(kxVariantMapImpl{{"k", kxVariantListImpl{1, "x", kxVariantMapImpl{{"z", nullptr}}}}});
  kxVariant b = a;
  EXPECT_EQ(a, b);
  b["k"].editList()[2]["z"] = false;  // a copy is independent
  EXPECT_NE(a, b);
  EXPECT_NE(kxVariant(1), kxVariant(1.0));
  EXPECT_EQ(kxVariant(0.0), kxVariant(-0.0));
  EXPECT_NE(kxVariant(kxVariantMapImpl{{"a", 1}}), kxVariant(kxVariantMapImpl{{"b", 1}}));
  EXPECT_NE(kxVariant(kxVariantListImpl{1}), kxVariant(kxVariantListImpl{1, 1}));
}

TEST(VariantTest, AssignmentFromAChildAndEditsOfAnotherForm) {
  kxVariant tree(kxVariantMapImpl{{"a", kxVariantMapImpl{{"b", "deep"}}}});
  tree = tree["a"];  // the source dies with the old value: the copy must be taken first
  EXPECT_EQ(tree, kxVariant(kxVariantMapImpl{{"b", "deep"}}));
  tree = std::move(tree["b"]);
  EXPECT_EQ(tree, kxVariant("deep"));

  kxVariant value(5);
  EXPECT_TRUE(value.getString().empty());
  EXPECT_EQ(value.getAt(0), nullptr);
  value.editMap()["a"] = "x";
  EXPECT_TRUE(value.isMap());
  value.append("two");
  ASSERT_TRUE(value.isList());
  EXPECT_EQ(value.size(), 1u);
  value.editString() = "s";
  EXPECT_EQ(value, kxVariant("s"));
}

TEST(VariantTest, DeepNestingCopiesComparesAndDiesWithoutRecursion) {
  // Alternating maps and lists, far deeper than any call stack could recurse (more so under ASan).
  constexpr int kDepth = 100000;
  kxVariant root;
  kxVariant* node = &root;
  for (int i = 0; i < kDepth; ++i) node = i % 2 ? &node->append(nullptr) : &(*node)["k"];
  *node = "leaf";
  kxVariant copy = root;
  EXPECT_EQ(copy, root);
  kxVariant* leaf = &copy;
  for (int i = 0; i < kDepth; ++i) leaf = i % 2 ? leaf->editAt(0) : leaf->editMember("k");
  ASSERT_NE(leaf, nullptr);
  *leaf = "other";
  EXPECT_NE(copy, root);
}

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
    {"ListIndexOutOfRange", "hits/hits/2/_id", '/', nullptr},
    {"ListIndexLeadingZero", "hits/hits/01/_id", '/', nullptr},
    {"ListIndexSigned", "hits/hits/+1/_id", '/', nullptr},
    {"ListIndexHuge", "hits/hits/99999999999999999999999/_id", '/', nullptr},
    {"ThroughScalar", "hits/total/value/x", '/', nullptr},
    {"TrailingSeparatorNamesEmptyKey", "hits/total/", '/', nullptr},
    {"LeadingSeparatorNamesEmptyKey", "/x", '/', "empty key"},
    {"SlashInsideKeyWithOtherSeparator", "a/b", '.', "slash key"},
};

class VariantPathTest : public testing::TestWithParam<PathCase> {};

TEST_P(VariantPathTest, FindsTheNamedValueOrNothing) {
  const PathCase& c = GetParam();
  kxVariant root = SearchResponse();
  const kxVariant* found = std::as_const(root).getPath(c.path, c.separator);
  EXPECT_EQ(static_cast<const kxVariant*>(root.editPath(c.path, c.separator)), found);
  EXPECT_EQ(kxVariant::GetPath(root.getMap(), c.path, c.separator), found);
  if (c.expected == nullptr) {
    EXPECT_EQ(found, nullptr);
  } else {
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->toString(), c.expected);
  }
}

INSTANTIATE_TEST_SUITE_P(Variant, VariantPathTest, testing::ValuesIn(kPathCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(VariantPathTest, SetPathCreatesMissingMapsButNeverOverwritesAScalar) {
  kxVariant body;
  ASSERT_TRUE(body.setPath("query/bool/filter", "doc"));
  ASSERT_TRUE(body.setPath("query/bool/must", kxVariantListImpl{kxVariant()}));
  ASSERT_TRUE(body.setPath("query/bool/must/0/ids", "x"));  // a null list element becomes a map
  EXPECT_EQ(body, kxVariant(kxVariantMapImpl{
                      {"query", kxVariantMapImpl{{"bool", kxVariantMapImpl{
                                                              {"filter", "doc"},
                                                              {"must", kxVariantListImpl{kxVariantMapImpl{{"ids", "x"}}}},
                                                          }}}}}));
  const kxVariant before = body;
  EXPECT_FALSE(body.setPath("query/bool/filter/deeper", 1));
  EXPECT_FALSE(body.setPath("query/bool/must/5", 1));
  EXPECT_FALSE(body.setPath("query/bool/must/name", 1));
  EXPECT_FALSE(kxVariant::SetPath(body.editMap(), "", 1));
  EXPECT_EQ(body, before);
  ASSERT_TRUE(body.setPath("", 7));
  EXPECT_EQ(body, kxVariant(7));
}

TEST(VariantPathTest, MapRootedHelpersReadAndWriteAPayload) {
  kxVariantMapImpl payload{{"azp", "client"}, {"aud", kxVariantListImpl{"a", "b"}}};
  kxVariant::EditPath(payload, "aud/0")->editString() = "z";
  EXPECT_EQ(payload["aud"], kxVariant(kxVariantListImpl{"z", "b"}));
  ASSERT_TRUE(kxVariant::SetPath(payload, "ext/roles", kxVariantListImpl{"admin"}));
  EXPECT_EQ(kxVariant::GetPath(payload, "ext/roles/0")->getString(), "admin");
  EXPECT_FALSE(kxVariant::SetPath(payload, "azp/x", 1));
  EXPECT_FALSE(kxVariant::SetPath(payload, "aud/5", 1));
  EXPECT_EQ(payload["azp"].getString(), "client");
}

}  // namespace
