// Fuzz target for HttpHeaders::SplitHttpHeader: any byte sequence as one raw response-header line.
#include <kx/http/HttpHeaders.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <string>
#include <string_view>

#include "header_fuzz_check.h"

namespace {

constexpr std::string_view kSingleValueNames[] = {"date",          "host",        "content-location",
                                                  "expires",       "last-modified", "retry-after",
                                                  "accept-datetime", "if-modified-since", "if-unmodified-since"};

bool IsSingleValueName(std::string_view name) {
  for (std::string_view candidate : kSingleValueNames) {
    if (candidate == name) return true;
  }
  return false;
}

std::string_view Trim(std::string_view text) {
  while (!text.empty() && kx_fuzz::IsBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && kx_fuzz::IsBlank(text.back())) text.remove_suffix(1);
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using kx::http::HttpHeaders;
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);

  std::string name;
  std::list<std::string> values;
  const bool ok = HttpHeaders::SplitHttpHeader(bytes.data(), bytes.size(), name, values);

  // Outputs are emptied first: stale content must not change the answer.
  std::string name2 = "Stale";
  std::list<std::string> values2{"stale", ""};
  KX_FUZZ_CHECK(HttpHeaders::SplitHttpHeader(bytes.data(), bytes.size(), name2, values2) == ok);
  KX_FUZZ_CHECK(name2 == name && values2 == values);

  // The line ends at its first NUL; nothing after it is seen, so no output holds a NUL.
  const std::string_view input = bytes.substr(0, bytes.find('\0'));
  KX_FUZZ_CHECK(name.find('\0') == std::string::npos);
  for (const std::string& value : values) KX_FUZZ_CHECK(value.find('\0') == std::string::npos);

  KX_FUZZ_CHECK(name.size() <= size);
  KX_FUZZ_CHECK(kx_fuzz::IsTrimmed(name));
  KX_FUZZ_CHECK(!ok || !name.empty());
  KX_FUZZ_CHECK(ok || name.empty() || values.empty());  // an unclosed quote leaves no values

  const size_t colon = input.find(':');
  if (colon == std::string_view::npos) {
    // Status line or blank line: the trimmed line is the name, kept in its own case.
    KX_FUZZ_CHECK(name == Trim(input));
    KX_FUZZ_CHECK(values.empty());
    KX_FUZZ_CHECK(ok == !name.empty());
    return 0;
  }

  KX_FUZZ_CHECK(name.find(':') == std::string::npos);
  KX_FUZZ_CHECK(!kx_fuzz::HasAsciiUpper(name));
  KX_FUZZ_CHECK(name.size() == Trim(input.substr(0, colon)).size());
  if (colon + 1 == input.size()) KX_FUZZ_CHECK(values.empty());
  if (IsSingleValueName(name)) KX_FUZZ_CHECK(values.size() <= 1);

  // Every value is a trimmed, disjoint piece of the text after the ':'.
  const std::string_view rest = input.substr(colon + 1);
  size_t total = 0;
  for (const std::string& value : values) {
    KX_FUZZ_CHECK(kx_fuzz::IsTrimmed(value));
    KX_FUZZ_CHECK(value.size() <= rest.size());
    KX_FUZZ_CHECK(rest.find(value) != std::string_view::npos);
    total += value.size();
  }
  KX_FUZZ_CHECK(total <= rest.size());

  const std::string trimmedRest(Trim(rest));
  if (ok && colon + 1 < input.size() && !IsSingleValueName(name)) {
    // The line splitter and the public value splitter must agree on the same text.
    std::list<std::string> direct;
    KX_FUZZ_CHECK(HttpHeaders::ParseMultiValueHeader(trimmedRest.c_str(), direct));
    KX_FUZZ_CHECK(direct == values);
  }

  if (ok) {
    HttpHeaders headers;
    headers.addHeaderValues(name, values);
    const std::list<std::string>* stored = headers.find(name);
    KX_FUZZ_CHECK(stored != nullptr && *stored == values);
    KX_FUZZ_CHECK(headers.contains(HttpHeaders::NormalizeHeaderName(name)));
  }
  return 0;
}
