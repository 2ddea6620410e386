// Json2Variant converts JSON text (RFC 8259, UTF-8) to a kxVariant and a kxVariant back to JSON text.
// Every JSON body of the library goes through it: token endpoint answers, JWT headers and payloads, JWK
// sets, search requests.
//
//   kx::kxVariant value;
//   std::string error;
//   if (!kx::json::Json2Variant::Convert(body, value, &error)) log(error);
//   std::string text;
//   kx::json::Json2Variant::Convert(value, text);   // compact, keys in ascending byte order
//
// Reading (text -> variant):
//   - exactly one JSON value, optionally surrounded by blanks (space, tab, CR, LF); anything after it, an
//     empty text and a NUL byte outside a string are errors;
//   - strings must be valid UTF-8 (no overlong forms, no surrogates, nothing above U+10FFFF); escapes are
//     decoded, \u surrogate pairs to their code point; a lone surrogate escape is an error;
//   - numbers without fraction or exponent that fit a signed 64-bit integer become integers; larger ones
//     (2^63 and beyond) and all others become doubles, correctly rounded; a number below the smallest
//     double reads as a zero of its sign, one above the largest double is an error;
//   - in an object with a repeated key the last value wins;
//   - nesting depth is limited only by memory: neither the reader nor kxVariant recurses per level.
//   On failure false is returned, `out` is left unchanged and `error` (optional) receives
//   "JSON parse error at offset <byte offset>: <reason>".
//
// Writing (variant -> text): compact text without blanks; strings escaped as JSON requires (quote,
// backslash and control characters; other characters are written as UTF-8, '/' is not escaped); doubles
// in the shortest text that reads back to the same double, always with a fraction or exponent ("1.0",
// "1e300"), so they read back as doubles. A NaN or infinite double and a string (value or key) that is
// not valid UTF-8 have no JSON form: the conversion fails, `json` is left unchanged and `error` receives
// the reason. Text written from a variant reads back to an equal variant.
//
// Thread-safety: stateless; any function may be called from any thread.
#pragma once

#include <kx/system/kxExport.h>
#include <kx/system/kxVariant.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace kx {
namespace json {

class KX_EXPORT Json2Variant {
 public:
  // JSON text to a value. `data` may be null when `size` is 0.
  static bool Convert(const char* data, size_t size, kxVariant& out, std::string* error = nullptr);
  static bool Convert(std::string_view json, kxVariant& out, std::string* error = nullptr);

  // JSON text whose value must be an object, to a map; any other value fails with
  // "JSON value is not an object".
  static bool Convert(const char* data, size_t size, kxVariant::kxVariantMapImpl& out,
                      std::string* error = nullptr);
  static bool Convert(std::string_view json, kxVariant::kxVariantMapImpl& out, std::string* error = nullptr);

  // A value, or a map as a JSON object, to JSON text (replaces `json`).
  static bool Convert(const kxVariant& value, std::string& json, std::string* error = nullptr);
  static bool Convert(const kxVariant::kxVariantMapImpl& value, std::string& json, std::string* error = nullptr);

  // Two strings would otherwise silently mean "write this text as a JSON string literal"; wrap the text in
  // a kxVariant when that is really wanted.
  static bool Convert(const std::string& json, std::string& out, std::string* error = nullptr) = delete;
  static bool Convert(std::string_view json, std::string& out, std::string* error = nullptr) = delete;
};

}  // namespace json
}  // namespace kx
