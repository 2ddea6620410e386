#include <kx/system/kxVariant.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>

namespace {

using kx::kxVariant;
using kx::kxVariantListImpl;
using kx::kxVariantMapImpl;

constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
constexpr int64_t kMax = std::numeric_limits<int64_t>::max();

TEST(VariantTest, IntegerTypesKeepTheirValueAndHugeUnsignedBecomesDouble) {
  EXPECT_EQ(kxVariant(int8_t{-5}).toInt64(), -5);
  EXPECT_EQ(kxVariant(uint32_t{4000000000u}).toInt64(), 4000000000);
  EXPECT_TRUE(kxVariant(uint64_t{9223372036854775807u}).isInt64());
  const kxVariant huge(uint64_t{18446744073709551615u});
  ASSERT_TRUE(huge.isDouble());
  EXPECT_EQ(huge.toDouble(), 18446744073709551615.0);
  EXPECT_TRUE(kxVariant(true).isBool());
  EXPECT_TRUE(kxVariant(static_cast<const char*>(nullptr)).isNull());
  EXPECT_EQ(kxVariant("text").getString(), "text");
}

// One row per conversion of one value: the expected result and whether it was a real reading.
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
    {"False", kxVariant(false), "false", true, 0, true},
    {"Int64Min", kxVariant(kMin), "-9223372036854775808", true, kMin, true},
    {"Int64Max", kxVariant(kMax), "9223372036854775807", true, kMax, true},
    {"DoubleTenth", kxVariant(0.1), "0.1", true, 0, true},
    {"DoubleTruncatesTowardZero", kxVariant(-3.9), "-3.9", true, -3, true},
    {"DoubleIntegral", kxVariant(1.0), "1", true, 1, true},
    {"DoubleHugeSaturates", kxVariant(1e300), "1e+300", true, kMax, false},
    {"DoubleHugeNegativeSaturates", kxVariant(-1e300), "-1e+300", true, kMin, false},
    {"DoubleNan", kxVariant(std::nan("")), "nan", true, 0, false},
    {"StringDecimal", kxVariant("42"), "42", true, 42, true},
    {"StringWithBlanks", kxVariant(" 42\t"), " 42\t", true, 42, true},
    {"StringNegative", kxVariant("-7"), "-7", true, -7, true},
    {"StringFloating", kxVariant("4.2e1"), "4.2e1", true, 42, true},
    {"StringInt64Max", kxVariant("9223372036854775807"), "9223372036854775807", true, kMax, true},
    {"StringPastInt64Max", kxVariant("9223372036854775808"), "9223372036854775808", true, kMax, false},
    {"StringPlusSign", kxVariant("+5"), "+5", true, 0, false},
    {"StringTrailingGarbage", kxVariant("12abc"), "12abc", true, 0, false},
    {"StringEmpty", kxVariant(""), "", true, 0, false},
    {"List", kxVariant(kxVariantListImpl{1, 2}), "", false, 0, false},
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
  EXPECT_TRUE(kxVariant("true").toBool(&ok));
  EXPECT_TRUE(ok);
  EXPECT_FALSE(kxVariant("0").toBool(&ok));
  EXPECT_TRUE(ok);
  EXPECT_FALSE(kxVariant("yes").toBool(&ok));
  EXPECT_FALSE(ok);
  EXPECT_TRUE(kxVariant(int64_t{-1}).toBool());
  EXPECT_DOUBLE_EQ(kxVariant(" 2.5 ").toDouble(&ok), 2.5);
  EXPECT_TRUE(ok);
  EXPECT_EQ(kxVariant("x").toDouble(&ok), 0.0);
  EXPECT_FALSE(ok);
}

TEST(VariantTest, AccessorsOfAnotherFormAreEmptyAndEditReplaces) {
  kxVariant value(5);
  EXPECT_TRUE(value.getString().empty());
  EXPECT_TRUE(value.getList().empty());
  EXPECT_TRUE(value.getMap().empty());
  EXPECT_EQ(value.getMember("a"), nullptr);
  EXPECT_EQ(value.getAt(0), nullptr);
  value.editMap()["a"] = "x";
  ASSERT_TRUE(value.isMap());
  EXPECT_EQ(value.size(), 1u);
  value.append(1);
  value.append("two");
  ASSERT_TRUE(value.isList());
  ASSERT_EQ(value.size(), 2u);
  EXPECT_EQ(*value.getAt(1), kxVariant("two"));
  value.editString() = "s";
  EXPECT_EQ(value.getString(), "s");
}

TEST(VariantTest, EqualityIsDeepAndStrictOnForm) {
  const kxVariant a(kxVariantMapImpl{{"k", kxVariantListImpl{1, "x", kxVariantMapImpl{{"z", nullptr}}}}});
  kxVariant b = a;
  EXPECT_EQ(a, b);
  b["k"].editList()[2]["z"] = false;
  EXPECT_NE(a, b);
  EXPECT_NE(kxVariant(1), kxVariant(1.0));
  EXPECT_EQ(kxVariant(0.0), kxVariant(-0.0));
  EXPECT_NE(kxVariant(kxVariantMapImpl{{"a", 1}}), kxVariant(kxVariantMapImpl{{"b", 1}}));
  EXPECT_NE(kxVariant(kxVariantListImpl{1, 2}), kxVariant(kxVariantListImpl{2, 1}));
  EXPECT_NE(kxVariant(kxVariantListImpl{1}), kxVariant(kxVariantListImpl{1, 1}));
}

TEST(VariantTest, CopiesAreIndependentAndAssignmentFromAChildWorks) {
  kxVariant original(kxVariantMapImpl{{"a", kxVariantMapImpl{{"b", "deep"}}}});
  kxVariant copy(original);
  copy["a"]["b"] = "changed";
  EXPECT_EQ(original.getPath("a/b")->getString(), "deep");

  kxVariant tree = original;
  tree = tree["a"];  // the source dies with the old value: the copy must be taken first
  EXPECT_EQ(tree, kxVariant(kxVariantMapImpl{{"b", "deep"}}));
  tree = std::move(tree["b"]);
  EXPECT_EQ(tree, kxVariant("deep"));
  tree = tree;  // self-assignment keeps the value
  EXPECT_EQ(tree.getString(), "deep");

  kxVariant moved(std::move(original));
  EXPECT_TRUE(original.isNull());  // NOLINT(bugprone-use-after-move): a moved-from value is null
  EXPECT_TRUE(moved.isMap());
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
  EXPECT_EQ(leaf->getString(), "leaf");
  *leaf = "other";
  EXPECT_NE(copy, root);
  root = kxVariant();
  EXPECT_TRUE(root.isNull());
}

}  // namespace
