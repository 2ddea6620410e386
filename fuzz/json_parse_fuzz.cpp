// Parses arbitrary bytes as JSON. Whatever parses must write back, the text must parse again to an equal
// value, and writing that value must give the same text: a reader and writer that disagree on any
// escape, number or nesting would break the JSON bodies and tokens the library signs and sends.
#include <kx/json/Json2Variant.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

[[noreturn]] void Fail(const char* what, const std::string& detail) {
  std::fprintf(stderr, "json_parse_fuzz: %s: %s\n", what, detail.c_str());
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using kx::json::Json2Variant;
  kx::kxVariant value;
  std::string error;
  if (!Json2Variant::Convert(reinterpret_cast<const char*>(data), size, value, &error)) {
    if (error.empty()) Fail("rejected input without an error text", "");
    return 0;
  }
  // A parsed value holds only valid UTF-8 and finite numbers, so it always has a JSON form.
  std::string written;
  if (!Json2Variant::Convert(value, written, &error)) Fail("parsed value cannot be written", error);
  kx::kxVariant again;
  if (!Json2Variant::Convert(written, again, &error)) Fail("written text does not parse", error + " in " + written);
  if (!(again == value)) Fail("value changed on a round trip", written);
  std::string rewritten;
  if (!Json2Variant::Convert(again, rewritten, &error)) Fail("second write failed", error);
  if (rewritten != written) Fail("writing is not stable", written + " vs " + rewritten);
  return 0;
}
