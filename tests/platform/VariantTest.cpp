#include <kx/system/kxVariant.h>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <tuple>
#include <utility>

namespace {

using kx::kxVariant;
using kx::kxVariantListImpl;
using kx::kxVariantMapImpl;

constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
constexpr int64_t kMax = std::numeric_limits<int64_t>::max();

TEST(VariantTest, ReadsAsStringIntegerBoolAndDouble) {
  // value; its text and whether that was a real reading; its integer and whether that was one
  const std::tuple<kxVariant, std::string, bool, int64_t, bool> cases[] = {
      {kxVariant(), "", false, 0, false},
      {kxVariant(true), "true", true, 1, true},
      {kxVariant(kMin), "-9223372036854775808", true, kMin, true},
      {kxVariant(uint64_t{18446744073709551615u}), "18446744073709551616", true, kMax, false},  // a double
      {kxVariant(-3.9), "-3.9", true, -3, true},  // truncated toward zero
      {kxVariant(1.0), "1", true, 1, true},
      {kxVariant(-1e300), "-1e+300", true, kMin, false},  // saturates
      {kxVariant(std::nan("")), "nan", true, 0, false},
      {kxVariant(" 42\t"), " 42\t", true, 42, true},
      {kxVariant("4.2e1"), "4.2e1", true, 42, true},
      {kxVariant("9223372036854775808"), "9223372036854775808", true, kMax, false},
      {kxVariant("+5"), "+5", true, 0, false},
      {kxVariant("12abc"), "12abc", true, 0, false},
      {kxVariant(""), "", true, 0, false},
      {kxVariant(kxVariantMapImpl{{"a", 1}}), "", false, 0, false},
  };
  for (const auto& [value, text, textOk, integer, integerOk] : cases) {
    SCOPED_TRACE(text);
    bool ok = !textOk;
    EXPECT_EQ(value.toString(&ok), text);
    EXPECT_EQ(ok, textOk);
    ok = !integerOk;
    EXPECT_EQ(value.toInt64(&ok), integer);
    EXPECT_EQ(ok, integerOk);
  }
  bool ok = false;
  EXPECT_TRUE(kxVariant("true").toBool(&ok) && ok);
  EXPECT_FALSE(kxVariant("0").toBool(&ok) || !ok);
  EXPECT_FALSE(kxVariant("yes").toBool(&ok) || ok);
  EXPECT_TRUE(kxVariant(int64_t{-1}).toBool() && kxVariant(0.5).toBool() && !kxVariant(0.0).toBool());
  EXPECT_TRUE(kxVariant(" 2.5 ").toDouble(&ok) == 2.5 && ok);
  EXPECT_FALSE(kxVariant("x").toDouble(&ok) != 0.0 || ok);
}

TEST(VariantTest, EqualityIsDeepAndStrictOnForm) {
  const kxVariant a(kxVariantMapImpl{{"k", kxVariantListImpl{1, true, kxVariantMapImpl{{"z", nullptr}}}}});
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
  const std::string deep = "deep";
  EXPECT_EQ(tree, kxVariant(deep));
  kxVariant value(5);
  EXPECT_TRUE(value.getString().empty());
  EXPECT_EQ(value.getAt(0), nullptr);
  value.editMap()["a"] = "x";
  EXPECT_TRUE(value.isMap());
  value.append("two");
  EXPECT_TRUE(value.isList() && value.size() == 1u);
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

TEST(VariantPathTest, FindsTheNamedValueOrNothing) {
  kxVariant root(kxVariantMapImpl{  // the shape of a search response: maps holding a list of maps
      {"hits", kxVariantMapImpl{{"total", kxVariantMapImpl{{"value", 2}}},
                                {"hits", kxVariantListImpl{kxVariantMapImpl{{"_id", "first"}}, kxVariantMapImpl{{"_id", "second"}}}}}},
      {"a/b", "slash key"},
      {"", kxVariantMapImpl{{"x", "empty key"}}},
  });
  const std::tuple<const char*, char, const char*> cases[] = {  // path, separator, value as text (nullptr: none)
      {"hits/total/value", '/', "2"},         {"hits/hits/1/_id", '/', "second"},
      {"hits/hits/2/_id", '/', nullptr},      {"hits/hits/01/_id", '/', nullptr},
      {"hits/hits/+1/_id", '/', nullptr},     {"hits/hits/99999999999999999999999/_id", '/', nullptr},
      {"hits/total/value/x", '/', nullptr},   {"hits/total/", '/', nullptr},  // a trailing separator names ""
      {"/x", '/', "empty key"},               {"a/b", '.', "slash key"},
  };
  for (const auto& [path, separator, expected] : cases) {
    SCOPED_TRACE(path);
    const kxVariant* found = std::as_const(root).getPath(path, separator);
    EXPECT_EQ(static_cast<const kxVariant*>(root.editPath(path, separator)), found);
    EXPECT_EQ(kxVariant::GetPath(root.getMap(), path, separator), found);
    EXPECT_EQ(found ? found->toString() : "(none)", expected ? expected : "(none)");
  }
}

TEST(VariantPathTest, SetPathCreatesMissingMapsButNeverOverwritesAScalar) {
  kxVariant body;
  ASSERT_TRUE(body.setPath("query/bool/filter", "doc"));
  ASSERT_TRUE(body.setPath("query/bool/must", kxVariantListImpl{kxVariant()}));
  ASSERT_TRUE(body.setPath("query/bool/must/0/ids", "x"));  // a null list element becomes a map
  EXPECT_EQ(body, kxVariant(kxVariantMapImpl{{"query", kxVariantMapImpl{{"bool", kxVariantMapImpl{
      {"filter", "doc"}, {"must", kxVariantListImpl{kxVariantMapImpl{{"ids", "x"}}}}}}}}}));
  const kxVariant before = body;
  EXPECT_FALSE(body.setPath("query/bool/filter/deeper", 1));
  EXPECT_FALSE(body.setPath("query/bool/must/5", 1));
  EXPECT_FALSE(body.setPath("query/bool/must/name", 1));
  EXPECT_FALSE(kxVariant::SetPath(body.editMap(), "", 1));
  EXPECT_EQ(body, before);
  ASSERT_TRUE(body.setPath("", 7));
  EXPECT_EQ(body, kxVariant(7));

  kxVariantMapImpl payload{{"azp", "client"}, {"aud", kxVariantListImpl{"a", "b"}}};  // the map-rooted forms
  kxVariant::EditPath(payload, "aud/0")->editString() = "z";
  EXPECT_EQ(payload["aud"], kxVariant(kxVariantListImpl{"z", "b"}));
  ASSERT_TRUE(kxVariant::SetPath(payload, "ext/roles", kxVariantListImpl{"admin"}));
  EXPECT_EQ(kxVariant::GetPath(payload, "ext/roles/0")->getString(), "admin");
  EXPECT_FALSE(kxVariant::SetPath(payload, "azp/x", 1));
}

}  // namespace
