// Feeds the input to the search result parser twice: whole, and cut into pieces whose sizes come from the
// input's first byte. Both runs must report the same hits, total, scroll identifier, error and end state:
// a scanner that loses its place at a piece boundary shows up as a difference. Where RapidJSON accepts
// the body and the parser finished it, the number of hits must match the DOM's "hits"/"hits".
#include <kx/elasticsearch/SearchResultParserLambda.h>

// RapidJSON 1.1.0's stack computes `top + size` on null pointers before its first allocation: formally
// undefined, reported by clang's UBSan, harmless; kept out of the sanitizer's view as the platform does.
#if defined(__clang__)
#pragma clang attribute push(__attribute__((no_sanitize("pointer-overflow"))), apply_to = function)
#endif
#include <rapidjson/document.h>
#if defined(__clang__)
#pragma clang attribute pop
#endif

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

struct Run {
  std::string record;  // every callback's arguments, then the end state
  size_t hits = 0;
  bool finished = false;
};

Run Feed(const char* body, size_t size, unsigned seed) {
  Run run;
  kx::elasticsearch::SearchResultParserLambda parser(
      [&](const std::string& id, const std::string& source, const std::string& score, const std::string& highlight,
          const std::string& type, const int64_t* ts) {
        ++run.hits;
        run.record += id + '\x1f' + source + '\x1f' + score + '\x1f' + highlight + '\x1f' + type + '\x1f' +
                      (ts != nullptr ? std::to_string(*ts) : "-") + '\x1e';
      });
  uint32_t state = seed * 2654435761u + 1;
  for (size_t at = 0; at < size && parser.good();) {
    size_t piece = size;
    if (seed != 0) {
      state = state * 1103515245u + 12345u;
      piece = 1 + (state >> 16) % (seed % 64 + 1);
    }
    if (piece > size - at) piece = size - at;
    at += parser.writeBytes(body + at, piece);
  }
  bool exact = false;
  std::string error;
  run.finished = parser.finish(&error);
  run.record += std::to_string(parser.getTotalHitCount(&exact)) + (exact ? "e" : "n") + parser.getScrollId() +
                '\x1f' + parser.getErrorMessage() + '\x1f' + error;
  return run;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const unsigned seed = data[0] | 1u;
  const char* body = reinterpret_cast<const char*>(data + 1);
  const Run whole = Feed(body, size - 1, 0);
  const Run cut = Feed(body, size - 1, seed);
  if (whole.record != cut.record) {
    std::fprintf(stderr, "search_result_fuzz: pieces of up to %u bytes differ\nwhole: %s\ncut:   %s\n", seed % 64 + 1,
                 whole.record.c_str(), cut.record.c_str());
    std::abort();
  }
  rapidjson::Document dom;
  dom.Parse<rapidjson::kParseIterativeFlag>(body, size - 1);
  if (!whole.finished || dom.HasParseError() || !dom.IsObject()) return 0;
  const auto hits = dom.FindMember("hits");
  if (hits == dom.MemberEnd() || !hits->value.IsObject()) return 0;
  const auto list = hits->value.FindMember("hits");
  if (list == hits->value.MemberEnd() || !list->value.IsArray()) return 0;
  if (whole.hits != list->value.Size()) {
    std::fprintf(stderr, "search_result_fuzz: %zu hits, the DOM has %u\n", whole.hits, list->value.Size());
    std::abort();
  }
  return 0;
}
