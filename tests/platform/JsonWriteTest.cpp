#include <kx/json/Json2Variant.h>
#include <kx/json/Lumara.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <string>

namespace {

using kx::kxVariant;
using kx::kxVariantListImpl;
using kx::kxVariantMapImpl;
using kx::json::Json2Variant;

TEST(JsonWriteTest, WritesCompactTextWithSortedKeys) {
  kxVariant body;
  body["size"] = 2;
  body["_source"] = kxVariantListImpl{"title", "date"};
  body.setPath("query/ids/values", kxVariantListImpl{"id\"1", "\xc3\xa9"});
  body["ratio"] = 0.5;
  body["none"] = nullptr;
  std::string json;
  ASSERT_TRUE(Json2Variant::Convert(body, json));
  EXPECT_EQ(json,
            "{\"_source\":[\"title\",\"date\"],\"none\":null,\"query\":{\"ids\":{\"values\":[\"id\\\"1\",\"\xc3\xa9\"]}},"
            "\"ratio\":0.5,\"size\":2}");
  std::string fromMap;
  ASSERT_TRUE(Json2Variant::Convert(body.getMap(), fromMap));
  EXPECT_EQ(fromMap, json);
  ASSERT_TRUE(Json2Variant::Convert(kxVariantMapImpl{}, fromMap));
  EXPECT_EQ(fromMap, "{}");
}

TEST(JsonWriteTest, ValuesWithoutJsonFormFailAndLeaveTheTextAlone) {
  struct Case {
    const char* name;
    kxVariant value;
    const char* error;
  };
  const Case cases[] = {
      {"NaN", kxVariantListImpl{1, std::nan("")}, "cannot write a NaN or infinite number as JSON"},
      {"Infinity", kxVariantMapImpl{{"a", std::numeric_limits<double>::infinity()}},
       "cannot write a NaN or infinite number as JSON"},
      {"NegativeInfinity", -std::numeric_limits<double>::infinity(), "cannot write a NaN or infinite number as JSON"},
      {"BadUtf8Value", "\xff", "cannot write a string that is not valid UTF-8 as JSON"},
      {"TruncatedUtf8Value", kxVariantListImpl{std::string("ok\xe2\x82")},
       "cannot write a string that is not valid UTF-8 as JSON"},
      {"BadUtf8Key", kxVariantMapImpl{{"\xc0\xaf", 1}}, "cannot write a string that is not valid UTF-8 as JSON"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::string json = "previous";
    std::string error;
    EXPECT_FALSE(Json2Variant::Convert(c.value, json, &error));
    EXPECT_EQ(error, c.error);
    EXPECT_EQ(json, "previous");
  }
}

TEST(JsonWriteTest, EveryControlByteIsEscapedAndReadsBack) {
  std::string all;
  for (int c = 1; c < 0x80; ++c) all.push_back(static_cast<char>(c));
  std::string json;
  ASSERT_TRUE(Json2Variant::Convert(kxVariant(all), json));
  for (char c : json) EXPECT_GE(static_cast<unsigned char>(c), 0x20) << json;
  EXPECT_NE(json.find("\\u001F"), std::string::npos);
  kxVariant back;
  ASSERT_TRUE(Json2Variant::Convert(json, back));
  EXPECT_EQ(back.getString(), all);
}

TEST(JsonWriteTest, RandomDoublesReadBackBitForBit) {
  std::mt19937_64 random(20240229);
  for (int i = 0; i < 20000; ++i) {
    const uint64_t bits = random();
    double number;
    std::memcpy(&number, &bits, sizeof number);
    if (!std::isfinite(number)) continue;
    std::string json;
    ASSERT_TRUE(Json2Variant::Convert(kxVariant(number), json));
    kxVariant back;
    ASSERT_TRUE(Json2Variant::Convert(json, back)) << json;
    ASSERT_TRUE(back.isDouble()) << json;
    const double read = back.toDouble();
    ASSERT_EQ(std::memcmp(&read, &number, sizeof read), 0) << json;
  }
}

TEST(JsonWriteTest, DeepNestingParsesWritesAndFreesWithoutRecursion) {
  constexpr size_t kDepth = 100000;
  std::string objects;
  for (size_t i = 0; i < kDepth; ++i) objects += "{\"k\":[";
  objects += "0";
  for (size_t i = 0; i < kDepth; ++i) objects += "]}";
  for (const std::string& json : {std::string(kDepth, '[') + std::string(kDepth, ']'), objects}) {
    kxVariant value;
    std::string error;
    ASSERT_TRUE(Json2Variant::Convert(json, value, &error)) << error;
    std::string written;
    ASSERT_TRUE(Json2Variant::Convert(value, written, &error)) << error;
    EXPECT_EQ(written, json);
  }
  kxVariant value;
  std::string error;
  EXPECT_FALSE(Json2Variant::Convert(std::string(kDepth, '['), value, &error));
  EXPECT_EQ(error, "JSON parse error at offset 100000: Invalid value.");
}

TEST(LumaraTest, InitialisationIsCountedAndExtraTerminationIsHarmless) {
  const bool before = kx::json::isKxLumaraInitialized();
  kx::json::initializeKxLumara();
  kx::json::initializeKxLumara();
  kx::json::terminateKxLumara();
  EXPECT_TRUE(kx::json::isKxLumaraInitialized());
  kx::json::terminateKxLumara();
  EXPECT_EQ(kx::json::isKxLumaraInitialized(), before);
  if (!before) {
    // An unmatched termination must not make the next initialisation disappear.
    kx::json::terminateKxLumara();
    kx::json::initializeKxLumara();
    EXPECT_TRUE(kx::json::isKxLumaraInitialized());
    kx::json::terminateKxLumara();
    EXPECT_FALSE(kx::json::isKxLumaraInitialized());
  }
}

}  // namespace
