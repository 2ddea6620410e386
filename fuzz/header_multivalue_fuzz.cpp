// Fuzz target for HttpHeaders::ParseMultiValueHeader: the input up to its first NUL as one header value.
#include <kx/http/HttpHeaders.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <string>
#include <string_view>

#include "header_fuzz_check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using kx::http::HttpHeaders;
  // c_str() of an exactly built string: reading past the terminating NUL is caught by the sanitizers.
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::string_view view(text.c_str());

  std::list<std::string> values{"kept"};
  const bool ok = HttpHeaders::ParseMultiValueHeader(text.c_str(), values);
  if (!ok) {
    KX_FUZZ_CHECK(values.empty());
    // Only an open quoted run fails.
    KX_FUZZ_CHECK(view.find('"') != std::string_view::npos);
    return 0;
  }
  KX_FUZZ_CHECK(values.size() >= 2 && values.front() == "kept");  // appended, never replaced
  values.pop_front();

  size_t commas = 0;
  for (char c : view) commas += c == ',' ? 1 : 0;
  KX_FUZZ_CHECK(values.size() <= commas + 1);

  size_t total = 0;
  for (const std::string& value : values) {
    KX_FUZZ_CHECK(kx_fuzz::IsTrimmed(value));
    KX_FUZZ_CHECK(value.size() <= view.size());
    KX_FUZZ_CHECK(view.find(value) != std::string_view::npos);
    total += value.size();
  }
  // Items are disjoint and each separator comma is consumed.
  KX_FUZZ_CHECK(total + values.size() - 1 <= view.size());

  // Without quotes every comma separates: the result is the plain comma split, each piece trimmed.
  if (view.find('"') == std::string_view::npos) {
    KX_FUZZ_CHECK(values.size() == commas + 1);
    auto it = values.begin();
    size_t start = 0;
    while (true) {
      const size_t comma = view.find(',', start);
      std::string_view piece = view.substr(start, comma == std::string_view::npos ? view.npos : comma - start);
      while (!piece.empty() && kx_fuzz::IsBlank(piece.front())) piece.remove_prefix(1);
      while (!piece.empty() && kx_fuzz::IsBlank(piece.back())) piece.remove_suffix(1);
      KX_FUZZ_CHECK(*it == piece);
      ++it;
      if (comma == std::string_view::npos) break;
      start = comma + 1;
    }
  }
  return 0;
}
