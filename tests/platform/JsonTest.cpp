#include <kx/json/Json2Variant.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace {

using kx::kxVariant;
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
    {"EmptyObject", "{}", "{}"},
    {"EmptyArray", " [ ] ", "[]"},
    {"Literals", "[null,true,false]", "[null,true,false]"},
    {"BlanksEverywhere", " \t\r\n{ \"a\" : [ 1 , 2 ] }\n", "{\"a\":[1,2]}"},
    {"KeysSortedByBytes", "{\"b\":1,\"B\":2,\"a\":3}", "{\"B\":2,\"a\":3,\"b\":1}"},
    {"RepeatedKeyLastWins", "{\"a\":1,\"a\":{\"x\":2}}", "{\"a\":{\"x\":2}}"},
    {"ShortEscapes", R"(["\"\\\/\b\f\n\r\t"])", R"(["\"\\/\b\f\n\r\t"])"},
    {"ControlEscape", R"(["\u0001\u001f"])", R"(["\u0001\u001F"])"},
    {"EscapedNulKept", R"(["a\u0000b"])", R"(["a\u0000b"])"},
    {"DeleteIsNotEscaped", "[\"\x7f\"]", "[\"\x7f\"]"},
    {"LatinEscapeBecomesUtf8", R"(["\u00e9"])", "[\"\xc3\xa9\"]"},
    {"BmpEscapeBecomesUtf8", R"(["\u20AC"])", "[\"\xe2\x82\xac\"]"},
    {"SurrogatePairBecomesOneCodePoint", R"(["\ud83d\ude00"])", "[\"\xf0\x9f\x98\x80\"]"},
    {"RawUtf8Kept", "{\"cl\xc3\xa9\":\"\xf4\x8f\xbf\xbf\"}", "{\"cl\xc3\xa9\":\"\xf4\x8f\xbf\xbf\"}"},
    {"Int64Min", "-9223372036854775808", "-9223372036854775808"},
    {"Int64Max", "9223372036854775807", "9223372036854775807"},
    {"NegativeZeroInteger", "-0", "0"},
    {"PastInt64MaxIsDouble", "9223372036854775808", "9223372036854776000.0"},
    {"Uint64MaxIsDouble", "18446744073709551615", "18446744073709553000.0"},
    {"PastInt64MinIsDouble", "-9223372036854775809", "-9223372036854776000.0"},
    {"BeyondUint64IsDouble", "123456789012345678901234567890", "1.2345678901234568e29"},
    {"DoubleKeepsFraction", "1.0", "1.0"},
    {"DoubleNegativeZero", "-0.0", "-0.0"},
    {"DoubleTenth", "0.1", "0.1"},
    {"DoubleExponent", "1E300", "1e300"},
    {"DoubleSmallest", "5e-324", "5e-324"},
    {"DoubleFullPrecision", "2.2250738585072011e-308", "2.225073858507201e-308"},
    {"DoubleLongMantissa", "0.1000000000000000055511151231257827021181583404541015625", "0.1"},
    {"DoubleAboveHalfOfSmallest", "2.4703282292062328e-324", "5e-324"},
    {"DoubleUnderflowIsZero", "1e-324", "0.0"},
    {"DoubleUnderflowKeepsSign", "-1e-400", "-0.0"},
    {"DoubleUnderflowLongFraction", "0.00000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000001e-10", "0.0"},
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

TEST(JsonParseTest, NumbersKeepTheirForm) {
  kxVariant value;
  ASSERT_TRUE(Parse("[9223372036854775807,-9223372036854775808,9223372036854775808,1.0,1e2,7]", value));
  const auto& list = value.getList();
  ASSERT_EQ(list.size(), 6u);
  EXPECT_EQ(list[0], kxVariant(std::numeric_limits<int64_t>::max()));
  EXPECT_EQ(list[1], kxVariant(std::numeric_limits<int64_t>::min()));
  EXPECT_EQ(list[2], kxVariant(9223372036854775808.0));
  EXPECT_EQ(list[3], kxVariant(1.0));
  EXPECT_EQ(list[4], kxVariant(100.0));
  EXPECT_EQ(list[5], kxVariant(7));
}

struct RejectCase {
  const char* name;
  std::string input;
};

const RejectCase kRejectCases[] = {
    {"Empty", ""},
    {"OnlyBlanks", " \n\t"},
    {"UnclosedObject", "{"},
    {"UnclosedArray", "[1,"},
    {"MissingComma", "[1 2]"},
    {"TrailingComma", "[1,]"},
    {"MemberWithoutValue", "{\"a\"}"},
    {"MemberWithEmptyValue", "{\"a\":}"},
    {"UnquotedKey", "{a:1}"},
    {"SingleQuotes", "['a']"},
    {"TruncatedLiteral", "tru"},
    {"WrongLiteral", "nul1"},
    {"NanLiteral", "NaN"},
    {"Comment", "/**/1"},
    {"LeadingZero", "01"},
    {"PlusSign", "+1"},
    {"MissingFraction", "1."},
    {"MissingExponent", "1e"},
    {"LoneMinus", "-"},
    {"NumberTooBigForDouble", "1e400"},
    {"NumberJustAboveLargestDouble", "1.8e308"},
    {"NumberTooBigByDigits", "1" + std::string(400, '0')},
    {"NumberTooBigWithFraction", "10.0e308"},
    {"UnterminatedString", "\"abc"},
    {"UnknownEscape", R"("\x")"},
    {"BadHexEscape", R"("\u12G4")"},
    {"TruncatedHexEscape", R"("\u12)"},
    {"LoneHighSurrogate", R"("\ud800")"},
    {"HighSurrogateThenLetter", R"("\ud800\u0041")"},
    {"LoneLowSurrogate", R"("\udc00")"},
    {"LoneLowSurrogateInKey", R"({"\udfff":1})"},
    {"RawNewlineInString", "\"a\nb\""},
    {"RawNulInString", std::string("\"a\0b\"", 5)},
    {"TrailingValue", "1 2"},
    {"TrailingGarbage", "[1]x"},
    {"TrailingNulThenGarbage", std::string("{}\0{}", 5)},
    {"TrailingNul", std::string("1\0", 2)},
    {"Utf8Byte0xFF", "\"\xff\""},
    {"Utf8LoneContinuation", "\"\x80\""},
    {"Utf8Overlong", "\"\xc0\xaf\""},
    {"Utf8OverlongThreeBytes", "\"\xe0\x80\xaf\""},
    {"Utf8EncodedSurrogate", "\"\xed\xa0\x80\""},
    {"Utf8AboveMaxCodePoint", "\"\xf4\x90\x80\x80\""},
    {"Utf8TruncatedAtEnd", "\"\xe2\x82"},
    {"Utf8TruncatedBeforeQuote", "\"\xe2\x82\""},
    {"Utf8InvalidInKey", "{\"\xc3\":1}"},
    {"Utf8OutsideString", "\xef\xbb\xbf{}"},
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

TEST(JsonParseTest, ErrorTextsNameTheOffendingOffset) {
  kxVariant value;
  std::string error;
  EXPECT_FALSE(Parse("[1,]", value, &error));
  EXPECT_EQ(error, "JSON parse error at offset 3: Invalid value.");
  EXPECT_FALSE(Parse("[1] x", value, &error));
  EXPECT_EQ(error, "JSON parse error at offset 4: The document root must not be followed by other values.");
  EXPECT_FALSE(Parse("", value, &error));
  EXPECT_EQ(error, "JSON parse error at offset 0: The document is empty.");
  EXPECT_FALSE(Json2Variant::Convert(nullptr, 0, value));  // no error pointer: nothing to write
}

TEST(JsonParseTest, MapOverloadWantsAnObject) {
  kx::kxVariantMapImpl map{{"old", 1}};
  std::string error;
  EXPECT_FALSE(Json2Variant::Convert(std::string_view("[1]"), map, &error));
  EXPECT_EQ(error, "JSON value is not an object");
  EXPECT_FALSE(Json2Variant::Convert(std::string_view("{"), map, &error));
  EXPECT_EQ(map.count("old"), 1u);
  ASSERT_TRUE(Json2Variant::Convert(std::string_view("{\"typ\":\"JWT\",\"exp\":5}"), map, &error)) << error;
  EXPECT_EQ(map.size(), 2u);
  EXPECT_EQ(map["typ"].getString(), "JWT");
  EXPECT_EQ(map["exp"].toInt64(), 5);
}

}  // namespace
