#include <kx/json/Json2Variant.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
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

struct RoundTripCase {
  const char* name;
  std::string input;
  std::string written;  // the canonical text the parsed value is written back as
};

const RoundTripCase kRoundTripCases[] = {
    {"BlanksEverywhere", " \t\r\n{ \"a\" : [ 1 , null,true ] }\n", "{\"a\":[1,null,true]}"},
    {"KeysSortedByBytes", "{\"b\":1,\"B\":2,\"a\":3}", "{\"B\":2,\"a\":3,\"b\":1}"},
    {"RepeatedKeyLastWins", "{\"a\":1,\"a\":{\"x\":2}}", "{\"a\":{\"x\":2}}"},
    {"ShortEscapes", R"(["\"\\\/\b\f\n\r\t"])", R"(["\"\\/\b\f\n\r\t"])"},
    {"ControlAndNulEscapes", R"(["\u0001\u001f a\u0000b"])", R"(["\u0001\u001F a\u0000b"])"},
    {"DeleteIsNotEscaped", "[\"\x7f\"]", "[\"\x7f\"]"},
    {"EscapesBecomeUtf8", R"(["\u00e9\u20AC\ud83d\ude00"])", "[\"\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\"]"},
    {"RawUtf8Kept", "{\"cl\xc3\xa9\":\"\xf4\x8f\xbf\xbf\"}", "{\"cl\xc3\xa9\":\"\xf4\x8f\xbf\xbf\"}"},
    {"Int64Limits", "[-9223372036854775808,9223372036854775807,-0]", "[-9223372036854775808,9223372036854775807,0]"},
    {"PastInt64IsDouble", "[9223372036854775808,-9223372036854775809]",
     "[9223372036854776000.0,-9223372036854776000.0]"},
    {"BeyondUint64IsDouble", "123456789012345678901234567890", "1.2345678901234568e29"},
    {"DoubleForms", "[1.0,-0.0,0.1,1E300,5e-324]", "[1.0,-0.0,0.1,1e300,5e-324]"},
    {"DoubleLongMantissa", "0.1000000000000000055511151231257827021181583404541015625", "0.1"},
    {"DoubleAboveHalfOfSmallest", "2.4703282292062328e-324", "5e-324"},
    {"DoubleUnderflowIsZeroWithSign", "[1e-324,-1e-400]", "[0.0,-0.0]"},
    {"DoubleUnderflowLongFraction", "0." + std::string(400, '0') + "1e-10", "0.0"},
    {"DoubleLargest", "1.7976931348623157e308", "1.7976931348623157e308"},
};

class JsonRoundTripTest : public testing::TestWithParam<RoundTripCase> {};

TEST_P(JsonRoundTripTest, ParsesWritesAndParsesBackEqual) {
  const RoundTripCase& c = GetParam();
  kxVariant value;
  std::string error;
  ASSERT_TRUE(Parse(c.input, value, &error)) << error;
  std::string written;
  ASSERT_TRUE(Json2Variant::Convert(value, written, &error)) << error;
  EXPECT_EQ(written, c.written);
  kxVariant again;
  ASSERT_TRUE(Parse(written, again, &error)) << error;
  EXPECT_EQ(again, value);
}

INSTANTIATE_TEST_SUITE_P(Json, JsonRoundTripTest, testing::ValuesIn(kRoundTripCases),
                         [](const auto& info) { return std::string(info.param.name); });

struct RejectCase {
  const char* name;
  std::string input;
};

const RejectCase kRejectCases[] = {
    {"Empty", ""},
    {"UnclosedArray", "[1,"},
    {"LeadingZero", "01"},
    {"NumberTooBigForDouble", "1e400"},
    {"NumberJustAboveLargestDouble", "1.8e308"},
    {"NumberTooBigByDigits", "1" + std::string(400, '0')},
    {"NumberTooBigWithFraction", "10.0e308"},
    {"LoneHighSurrogate", R"("\ud800")"},
    {"HighSurrogateThenLetter", R"("\ud800\u0041")"},
    {"LoneLowSurrogate", R"("\udc00")"},
    {"LoneLowSurrogateInKey", R"({"\udfff":1})"},
    {"RawNulInString", std::string("\"a\0b\"", 5)},
    {"TrailingValue", "1 2"},
    {"TrailingNulThenGarbage", std::string("{}\0{}", 5)},
    {"TrailingNul", std::string("1\0", 2)},
    {"Utf8Overlong", "\"\xc0\xaf\""},
    {"Utf8EncodedSurrogate", "\"\xed\xa0\x80\""},
    {"Utf8AboveMaxCodePoint", "\"\xf4\x90\x80\x80\""},
    {"Utf8TruncatedBeforeQuote", "\"\xe2\x82\""},
    {"Utf8InvalidInKey", "{\"\xc3\":1}"},
};

class JsonRejectTest : public testing::TestWithParam<RejectCase> {};

TEST_P(JsonRejectTest, FailsWithOffsetAndLeavesOutputAlone) {
  kxVariant value("untouched");
  std::string error;
  EXPECT_FALSE(Parse(GetParam().input, value, &error));
  EXPECT_EQ(error.rfind("JSON parse error at offset ", 0), 0u) << error;
  EXPECT_EQ(value, kxVariant("untouched"));
}

INSTANTIATE_TEST_SUITE_P(Json, JsonRejectTest, testing::ValuesIn(kRejectCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(JsonTest, ErrorTextsNameTheOffendingOffset) {
  kxVariant value;
  std::string error;
  EXPECT_FALSE(Parse("[1] x", value, &error));
  EXPECT_EQ(error, "JSON parse error at offset 4: The document root must not be followed by other values.");
  EXPECT_FALSE(Parse("", value, &error));
  EXPECT_EQ(error, "JSON parse error at offset 0: The document is empty.");
  EXPECT_FALSE(Json2Variant::Convert(nullptr, 0, value));  // no error pointer: nothing to write

  kxVariantMapImpl map{{"old", 1}};
  EXPECT_FALSE(Json2Variant::Convert(std::string_view("[1]"), map, &error));
  EXPECT_EQ(error, "JSON value is not an object");
  EXPECT_EQ(map.count("old"), 1u);
  ASSERT_TRUE(Json2Variant::Convert(std::string_view("{\"typ\":\"JWT\",\"exp\":5}"), map, &error)) << error;
  EXPECT_EQ(map, (kxVariantMapImpl{{"typ", "JWT"}, {"exp", 5}}));
  std::string json;  // and back, from the map itself
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
    std::string json = "previous";
    std::string error;
    EXPECT_FALSE(Json2Variant::Convert(value, json, &error));
    EXPECT_EQ(error, text);
    EXPECT_EQ(json, "previous");
  }
}

TEST(JsonTest, EveryControlByteIsEscapedAndReadsBack) {
  std::string all;
  for (int c = 1; c < 0x80; ++c) all.push_back(static_cast<char>(c));
  std::string json;
  ASSERT_TRUE(Json2Variant::Convert(kxVariant(all), json));
  for (char c : json) EXPECT_GE(static_cast<unsigned char>(c), 0x20) << json;
  kxVariant back;
  ASSERT_TRUE(Json2Variant::Convert(json, back));
  EXPECT_EQ(back.getString(), all);
}

TEST(JsonTest, RandomDoublesReadBackBitForBit) {
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
    const double read = back.toDouble();
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
    ASSERT_TRUE(Json2Variant::Convert(json, value, &error)) << error;
    ASSERT_TRUE(Json2Variant::Convert(value, written, &error)) << error;
    EXPECT_EQ(written, json);
  }
}

}  // namespace
