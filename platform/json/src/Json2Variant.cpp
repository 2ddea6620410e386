#include <kx/json/Json2Variant.h>

#include <kx/system/kxStringUtils.h>

// RapidJSON 1.1.0's internal stack computes `top + size` while its pointers are still null, before its
// first allocation. That is harmless in practice but formally undefined, and clang's UBSan (unlike GCC's)
// reports it, which would stop every sanitized fuzz run at the first input.
#if defined(__clang__)
#pragma clang attribute push(__attribute__((no_sanitize("pointer-overflow"))), apply_to = function)
#endif
#include <rapidjson/encodings.h>
#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>
#include <rapidjson/writer.h>
#if defined(__clang__)
#pragma clang attribute pop
#endif

#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

namespace kx {
namespace json {

namespace {

using MapImpl = kxVariant::kxVariantMapImpl;
using ListImpl = kxVariant::kxVariantListImpl;

// Failures of our own; parse failures found by RapidJSON keep RapidJSON's texts.
enum class Failure { kNotAnObject, kNonFiniteNumber, kInvalidUtf8String, kStringTooLong };

const char* FailureText(Failure failure) {
  switch (failure) {  // no default on purpose: -Wswitch flags a failure without a text
    case Failure::kNotAnObject:
      return "JSON value is not an object";
    case Failure::kNonFiniteNumber:
      return "cannot write a NaN or infinite number as JSON";
    case Failure::kInvalidUtf8String:
      return "cannot write a string that is not valid UTF-8 as JSON";
    case Failure::kStringTooLong:
      return "cannot write a string longer than 4 GiB as JSON";
  }
  return "JSON conversion error";
}

void Report(std::string* error, Failure failure) {
  if (error) *error = FailureText(failure);
}

void ReportParseError(std::string* error, rapidjson::ParseErrorCode code, size_t offset) {
  if (!error) return;
  *error = "JSON parse error at offset ";
  *error += kxStringUtils::ToDecimalUnsigned(offset);
  *error += ": ";
  *error += rapidjson::GetParseError_En(code);
}

// RapidJSON turns a \u escape of a lone low surrogate (\uDC00..\uDFFF) into the bytes ED B0..BF xx, which
// are not UTF-8; its encoding validation only looks at raw bytes, so the decoded text is checked here.
// Raw surrogate bytes never get this far, and every surrogate's encoding starts with ED A0..BF.
bool HasEncodedSurrogate(const char* text, size_t length) {
  const char* end = text + length;
  for (const char* p = text; p < end; ++p) {
    p = static_cast<const char*>(std::memchr(p, '\xED', static_cast<size_t>(end - p)));
    if (!p) return false;
    if (p + 1 < end && static_cast<unsigned char>(p[1]) >= 0xA0) return true;
  }
  return false;
}

// Whether a JSON number that std::from_chars found out of range is below the smallest denormal (it reads
// as zero, as any correct strtod gives) rather than above the largest double. The decimal exponent of
// the first significant digit decides: the text has one, or from_chars would have returned zero.
bool IsBelowDoubleRange(std::string_view number) {
  size_t i = number.empty() || number[0] != '-' ? 0 : 1;
  int64_t digitsBeforePoint = 0;
  int64_t digitIndex = 0;
  int64_t firstSignificant = -1;
  bool afterPoint = false;
  for (; i < number.size() && number[i] != 'e' && number[i] != 'E'; ++i) {
    if (number[i] == '.') {
      afterPoint = true;
      continue;
    }
    if (!afterPoint) ++digitsBeforePoint;
    if (firstSignificant < 0 && number[i] != '0') firstSignificant = digitIndex;
    ++digitIndex;
  }
  int64_t exponent = 0;
  if (i < number.size()) {
    ++i;
    bool negative = false;
    if (i < number.size() && (number[i] == '-' || number[i] == '+')) negative = number[i++] == '-';
    // Saturate: RapidJSON lets any number of exponent digits through.
    for (; i < number.size() && exponent < 1000000000; ++i) exponent = exponent * 10 + (number[i] - '0');
    if (negative) exponent = -exponent;
  }
  return digitsBeforePoint - firstSignificant - 1 + exponent < 0;
}

// SAX handler that builds the variant directly. `open_` holds the containers being filled, innermost
// last; a pointer stays valid because a container only grows while it is the innermost one, and an
// element is only added to a parent once the child in its last slot has been closed.
class VariantBuilder {
 public:
  bool Null() { return add(kxVariant()); }
  bool Bool(bool value) { return add(kxVariant(value)); }
  // Numbers arrive as text (kParseNumbersAsStringsFlag, see RawNumber); these complete the handler.
  bool Int(int value) { return add(kxVariant(value)); }
  bool Uint(unsigned value) { return add(kxVariant(value)); }
  bool Int64(int64_t value) { return add(kxVariant(value)); }
  bool Uint64(uint64_t value) { return add(kxVariant(value)); }
  bool Double(double value) { return add(kxVariant(value)); }

  // RapidJSON 1.1.0 checks the number grammar well, but its full-precision conversion returns NaN for
  // some inputs ("1e-324"), so the text it validated is converted here with std::from_chars, which
  // rounds correctly. Integers that fit stay 64-bit integers; everything else becomes a double.
  bool RawNumber(const char* text, rapidjson::SizeType length, bool) {
    const char* end = text + length;
    if (std::string_view(text, length).find_first_of(".eE") == std::string_view::npos) {
      int64_t integer = 0;
      const auto result = std::from_chars(text, end, integer);
      if (result.ec == std::errc() && result.ptr == end) return add(kxVariant(integer));
    }
    double number = 0;
    const auto result = std::from_chars(text, end, number);
    if (result.ec == std::errc::result_out_of_range) {
      if (!IsBelowDoubleRange(std::string_view(text, length))) return fail(rapidjson::kParseErrorNumberTooBig);
      number = text[0] == '-' ? -0.0 : 0.0;
    } else if (result.ec != std::errc() || result.ptr != end) {
      return fail(rapidjson::kParseErrorValueInvalid);
    }
    return add(kxVariant(number));
  }

  bool String(const char* text, rapidjson::SizeType length, bool) {
    if (HasEncodedSurrogate(text, length)) return fail(rapidjson::kParseErrorStringUnicodeSurrogateInvalid);
    return add(kxVariant(std::string(text, length)));
  }

  bool Key(const char* text, rapidjson::SizeType length, bool) {
    if (HasEncodedSurrogate(text, length)) return fail(rapidjson::kParseErrorStringUnicodeSurrogateInvalid);
    key_.assign(text, length);
    return true;
  }

  bool StartObject() { return open(kxVariant(MapImpl())); }
  bool EndObject(rapidjson::SizeType) { return close(); }
  bool StartArray() { return open(kxVariant(ListImpl())); }
  bool EndArray(rapidjson::SizeType) { return close(); }

  // Why the handler stopped the parse (RapidJSON then only reports kParseErrorTermination).
  rapidjson::ParseErrorCode failure() const { return failure_; }
  kxVariant& root() { return root_; }

 private:
  kxVariant* place(kxVariant&& value) {
    if (open_.empty()) {
      root_ = std::move(value);
      return &root_;
    }
    kxVariant* top = open_.back();
    if (top->isList()) {
      ListImpl& list = top->editList();
      list.push_back(std::move(value));
      return &list.back();
    }
    MapImpl& map = top->editMap();
    return &map.insert_or_assign(std::move(key_), std::move(value)).first->second;
  }

  bool add(kxVariant&& value) {
    place(std::move(value));
    return true;
  }

  bool open(kxVariant&& container) {
    open_.push_back(place(std::move(container)));
    return true;
  }

  bool close() {
    open_.pop_back();
    return true;
  }

  bool fail(rapidjson::ParseErrorCode code) {
    failure_ = code;
    return false;
  }

  kxVariant root_;
  std::vector<kxVariant*> open_;
  std::string key_;
  rapidjson::ParseErrorCode failure_ = rapidjson::kParseErrorNone;
};

bool IsJsonBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

// Appends straight to the caller's string, so the text is not copied out of a RapidJSON buffer.
class StringOutput {
 public:
  using Ch = char;
  explicit StringOutput(std::string& out) : out_(out) {}
  void Put(char c) { out_.push_back(c); }
  void Flush() {}

 private:
  std::string& out_;
};

using JsonWriter = rapidjson::Writer<StringOutput>;

// Writes a variant with an explicit stack of open containers instead of recursion, so a deeply nested
// value cannot exhaust the call stack; RapidJSON's writer keeps its own nesting state on the heap.
class VariantWriter {
 public:
  explicit VariantWriter(std::string& out) : output_(out), writer_(output_) {}

  bool write(const kxVariant& value) {
    if (!emit(value)) return false;
    return drain();
  }

  bool write(const MapImpl& map) {
    writer_.StartObject();
    frames_.push_back(Frame{nullptr, 0, &map, map.begin()});
    return drain();
  }

  Failure failure() const { return failure_; }

 private:
  struct Frame {
    const ListImpl* list;
    size_t index;
    const MapImpl* map;
    MapImpl::const_iterator member;
  };

  bool text(const std::string& value, bool isKey) {
    if (value.size() > std::numeric_limits<rapidjson::SizeType>::max()) return fail(Failure::kStringTooLong);
    if (!kxStringUtils::IsValidUtf8(value)) return fail(Failure::kInvalidUtf8String);
    const auto length = static_cast<rapidjson::SizeType>(value.size());
    return isKey ? writer_.Key(value.data(), length) : writer_.String(value.data(), length);
  }

  bool emit(const kxVariant& value) {
    switch (value.getType()) {
      case kxVariant::Type::Null:
        return writer_.Null();
      case kxVariant::Type::Bool:
        return writer_.Bool(value.toBool());
      case kxVariant::Type::Int64:
        return writer_.Int64(value.toInt64());
      case kxVariant::Type::Double: {
        const double number = value.toDouble();
        if (!std::isfinite(number)) return fail(Failure::kNonFiniteNumber);
        return writer_.Double(number);
      }
      case kxVariant::Type::String:
        return text(value.getString(), false);
      case kxVariant::Type::List:
        writer_.StartArray();
        frames_.push_back(Frame{&value.getList(), 0, nullptr, {}});
        return true;
      case kxVariant::Type::Map:
        writer_.StartObject();
        frames_.push_back(Frame{nullptr, 0, &value.getMap(), value.getMap().begin()});
        return true;
    }
    return false;
  }

  bool drain() {
    while (!frames_.empty()) {
      // No reference into frames_ is held across emit(), which may grow it.
      Frame& frame = frames_.back();
      if (frame.list) {
        if (frame.index == frame.list->size()) {
          writer_.EndArray();
          frames_.pop_back();
          continue;
        }
        const kxVariant& element = (*frame.list)[frame.index++];
        if (!emit(element)) return false;
      } else {
        if (frame.member == frame.map->end()) {
          writer_.EndObject();
          frames_.pop_back();
          continue;
        }
        const auto& member = *frame.member++;
        if (!text(member.first, true) || !emit(member.second)) return false;
      }
    }
    return true;
  }

  bool fail(Failure failure) {
    failure_ = failure;
    return false;
  }

  StringOutput output_;
  JsonWriter writer_;
  std::vector<Frame> frames_;
  Failure failure_ = Failure::kNonFiniteNumber;
};

template <typename Value>
bool WriteJson(const Value& value, std::string& json, std::string* error) {
  std::string text;
  VariantWriter writer(text);
  if (!writer.write(value)) {
    Report(error, writer.failure());
    return false;
  }
  json.swap(text);
  return true;
}

}  // namespace

bool Json2Variant::Convert(const char* data, size_t size, kxVariant& out, std::string* error) {
  if (!data) size = 0;
  // Iterative parsing keeps the nesting state on the heap; stopping after the value lets the trailing
  // check below see every remaining byte, NUL included (RapidJSON's own check stops at a NUL byte).
  constexpr unsigned kFlags = rapidjson::kParseIterativeFlag | rapidjson::kParseValidateEncodingFlag |
                              rapidjson::kParseNumbersAsStringsFlag | rapidjson::kParseStopWhenDoneFlag;
  rapidjson::MemoryStream stream(data, size);
  VariantBuilder builder;
  rapidjson::Reader reader;
  const rapidjson::ParseResult result = reader.Parse<kFlags>(stream, builder);
  if (result.IsError()) {
    const rapidjson::ParseErrorCode code =
        result.Code() == rapidjson::kParseErrorTermination ? builder.failure() : result.Code();
    ReportParseError(error, code, result.Offset());
    return false;
  }
  size_t position = stream.Tell();
  while (position < size && IsJsonBlank(data[position])) ++position;
  if (position != size) {
    ReportParseError(error, rapidjson::kParseErrorDocumentRootNotSingular, position);
    return false;
  }
  out.swap(builder.root());
  return true;
}

bool Json2Variant::Convert(std::string_view json, kxVariant& out, std::string* error) {
  return Convert(json.data(), json.size(), out, error);
}

bool Json2Variant::Convert(const char* data, size_t size, kxVariant::kxVariantMapImpl& out, std::string* error) {
  kxVariant value;
  if (!Convert(data, size, value, error)) return false;
  if (!value.isMap()) {
    Report(error, Failure::kNotAnObject);
    return false;
  }
  out.swap(value.editMap());
  return true;
}

bool Json2Variant::Convert(std::string_view json, kxVariant::kxVariantMapImpl& out, std::string* error) {
  return Convert(json.data(), json.size(), out, error);
}

bool Json2Variant::Convert(const kxVariant& value, std::string& json, std::string* error) {
  return WriteJson(value, json, error);
}

bool Json2Variant::Convert(const kxVariant::kxVariantMapImpl& value, std::string& json, std::string* error) {
  return WriteJson(value, json, error);
}

}  // namespace json
}  // namespace kx
