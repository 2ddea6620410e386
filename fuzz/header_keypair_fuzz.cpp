// Fuzz target for HttpHeaders::ExtractHeaderKeyPairValues: the input cut at '\n' into items.
#include <kx/http/HttpHeaders.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <set>
#include <string>
#include <string_view>

#include "header_fuzz_check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using kx::http::HttpHeaders;
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  std::list<std::string> items;
  if (!input.empty()) {
    size_t start = 0;
    while (true) {
      const size_t cut = input.find('\n', start);
      items.emplace_back(input.substr(start, cut == std::string_view::npos ? input.npos : cut - start));
      if (cut == std::string_view::npos) break;
      start = cut + 1;
    }
  }

  // A key stored before the call must block an item with the same key and never be replaced.
  std::map<std::string, std::string> pairs{{"present", "before"}};
  const bool ok = HttpHeaders::ExtractHeaderKeyPairValues(items, pairs);

  KX_FUZZ_CHECK(pairs.at("present") == "before");  // nothing is ever replaced
  KX_FUZZ_CHECK(pairs.size() <= items.size() + 1);
  if (ok) KX_FUZZ_CHECK(pairs.size() == items.size() + 1);

  // Walk the items as the caller sees them: each stored item is the first with its key, and the walk
  // stops at the first item that could not be stored, which must be the reason for a false result.
  std::set<std::string> seen{"present"};
  size_t stored = 0;
  bool stopped = false;
  for (const std::string& item : items) {
    const size_t equal = item.find('=');
    if (item.empty() || equal == std::string::npos) {
      stopped = true;
      break;
    }
    std::string_view key(item.data(), equal);
    std::string_view value(item.data() + equal + 1, item.size() - equal - 1);
    while (!key.empty() && kx_fuzz::IsBlank(key.front())) key.remove_prefix(1);
    while (!key.empty() && kx_fuzz::IsBlank(key.back())) key.remove_suffix(1);
    while (!value.empty() && kx_fuzz::IsBlank(value.front())) value.remove_prefix(1);
    while (!value.empty() && kx_fuzz::IsBlank(value.back())) value.remove_suffix(1);
    if (!seen.insert(std::string(key)).second) {
      stopped = true;
      break;
    }
    const auto it = pairs.find(std::string(key));
    KX_FUZZ_CHECK(it != pairs.end() && it->second == value);
    KX_FUZZ_CHECK(it->first.size() + it->second.size() < item.size());
    ++stored;
  }
  KX_FUZZ_CHECK(ok == !stopped);
  KX_FUZZ_CHECK(pairs.size() == stored + 1);
  return 0;
}
