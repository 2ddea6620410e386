#include <kx/json/Json2Variant.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

namespace {

using kx::kxVariant;
using kx::kxVariantListImpl;
using kx::kxVariantMapImpl;
using kx::json::Json2Variant;

// Parses from an exactly sized heap copy, so that reading one byte past the input shows under ASan.
bool Parse(const std::string& text, kxVariant& out, std::string* error = nullptr) {
  const std::vector<char> exact(text.begin(), text.end());
  return Json2Variant::Convert(exact.data(), exact.size(), out, error);
}

TEST(JsonTest, ParsesWritesCanonicallyAndParsesBackEqual) {
  const std::pair<std::string, std::string> cases[] = {  // input, the canonical text it is written back as
      {" \t\r\n{ \"b\":1,\"B\":[1 , null,true],\"a\":3,\"a\":{\"x\":2} }\n", "{\"B\":[1,null,true],\"a\":{\"x\":2},\"b\":1}"},
      {R"(["\u0001\u001f a\u0000b","\u00e9\u20AC\ud83d\ude00"])", "[\"\\u0001\\u001F a\\u0000b\",\"\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\"]"},
      {"[-9223372036854775808,9223372036854775807,-0,9223372036854775808,-9223372036854775809]",
       "[-9223372036854775808,9223372036854775807,0,9223372036854776000.0,-9223372036854776000.0]"},
      {"123456789012345678901234567890", "1.2345678901234568e29"},  // beyond uint64: a double
      {"[1.0,-0.0,1E300,5e-324,2.4703282292062328e-324,1.7976931348623157e308]",
       "[1.0,-0.0,1e300,5e-324,5e-324,1.7976931348623157e308]"},
      {"[0.1000000000000000055511151231257827021181583404541015625,1e-324,-1e-400,0." + std::string(400, '0') + "1e-10]",
       "[0.1,0.0,-0.0,0.0]"},  // underflow is a zero with its sign, however it is spelled
  };
  for (const auto& [input, canonical] : cases) {
    kxVariant value, again;
    std::string error, written;
    ASSERT_TRUE(Parse(input, value, &error)) << input << ": " << error;
    ASSERT_TRUE(Json2Variant::Convert(value, written, &error)) << error;
    EXPECT_EQ(written, canonical);
    ASSERT_TRUE(Parse(written, again, &error)) << error;
    EXPECT_EQ(again, value);
  }
}

TEST(JsonTest, RejectsWithTheOffsetAndLeavesTheOutputAlone) {
  const std::string cases[] = {
      "1e400", "1.8e308", "1" + std::string(400, '0'), "10.0e308",  // beyond the largest double
      R"("\ud800")", R"("\ud800\u0041")", R"("\udc00")", R"({"\udfff":1})", "\"\xed\xa0\x80\"", "{\"\xc3\":1}",
      std::string("\"a\0b\"", 5), "1 2", std::string("{}\0{}", 5), std::string("1\0", 2),
  };
  for (const std::string& input : cases) {
    kxVariant value("untouched");
    std::string error;
    EXPECT_FALSE(Parse(input, value, &error)) << input;
    EXPECT_EQ(error.rfind("JSON parse error at offset ", 0), 0u) << error;
    EXPECT_EQ(value, kxVariant("untouched"));
  }
  kxVariant value;
  std::string error;
  EXPECT_FALSE(Parse("[1] x", value, &error));
  EXPECT_EQ(error, "JSON parse error at offset 4: The document root must not be followed by other values.");
  EXPECT_FALSE(Parse("", value, &error));
  EXPECT_EQ(error, "JSON parse error at offset 0: The document is empty.");
  EXPECT_FALSE(Json2Variant::Convert(nullptr, 0, value));  // no error pointer: nothing to write
}

TEST(JsonTest, MapFormReadsOnlyObjectsAndWritesBack) {
  std::string error, json;
  kxVariantMapImpl map{{"old", 1}};
  EXPECT_FALSE(Json2Variant::Convert(std::string_view("[1]"), map, &error));
  EXPECT_EQ(error, "JSON value is not an object");
  EXPECT_EQ(map.count("old"), 1u);
  ASSERT_TRUE(Json2Variant::Convert(std::string_view("{\"typ\":\"JWT\",\"exp\":5}"), map, &error)) << error;
  EXPECT_EQ(map, (kxVariantMapImpl{{"typ", "JWT"}, {"exp", 5}}));
  ASSERT_TRUE(Json2Variant::Convert(map, json, &error)) << error;
  EXPECT_EQ(json, "{\"exp\":5,\"typ\":\"JWT\"}");
}

TEST(JsonTest, ValuesWithoutJsonFormFailAndLeaveTheTextAlone) {
  const std::pair<kxVariant, const char*> cases[] = {
      {kxVariantListImpl{1, std::nan("")}, "cannot write a NaN or infinite number as JSON"},
      {kxVariantMapImpl{{"a", -std::numeric_limits<double>::infinity()}}, "cannot write a NaN or infinite number as JSON"},
      {kxVariantListImpl{std::string("ok\xe2\x82")}, "cannot write a string that is not valid UTF-8 as JSON"},
      {kxVariantMapImpl{{"\xc0\xaf", 1}}, "cannot write a string that is not valid UTF-8 as JSON"},
  };
  for (const auto& [value, text] : cases) {
    std::string json = "previous", error;
    EXPECT_FALSE(Json2Variant::Convert(value, json, &error));
    EXPECT_EQ(error, text);
    EXPECT_EQ(json, "previous");
  }
}

// Numbers are converted by this library, not by the JSON reader: every double must survive the trip.
TEST(JsonTest, RandomDoublesReadBackBitForBit) {
  std::string json;
  kxVariant back;
  std::mt19937_64 random(20240229);
  for (int i = 0; i < 20000; ++i) {
    const uint64_t bits = random();
    double number, read;
    std::memcpy(&number, &bits, sizeof number);
    if (!std::isfinite(number)) continue;
    ASSERT_TRUE(Json2Variant::Convert(kxVariant(number), json) && Json2Variant::Convert(json, back)) << json;
    read = back.toDouble();
    ASSERT_TRUE(back.isDouble() && std::memcmp(&read, &number, sizeof read) == 0) << json;
  }
}

TEST(JsonTest, DeepNestingParsesWritesAndFreesWithoutRecursion) {
  constexpr size_t kDepth = 100000;
  std::string objects;
  for (size_t i = 0; i < kDepth; ++i) objects += "{\"k\":[";
  objects += "0";
  for (size_t i = 0; i < kDepth; ++i) objects += "]}";
  for (const std::string& json : {std::string(kDepth, '[') + std::string(kDepth, ']'), objects}) {
    kxVariant value;
    std::string error, written;
    ASSERT_TRUE(Json2Variant::Convert(json, value, &error) && Json2Variant::Convert(value, written, &error)) << error;
    EXPECT_EQ(written, json);
  }
}

}  // namespace
