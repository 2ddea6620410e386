// Invariant checks shared by the header fuzz targets: a violated invariant aborts, so libFuzzer records
// the input as a crash just as it would a memory error.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string_view>

#define KX_FUZZ_CHECK(condition)                                                        \
  do {                                                                                  \
    if (!(condition)) {                                                                 \
      std::fprintf(stderr, "%s:%d: invariant failed: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                     \
    }                                                                                   \
  } while (0)

namespace kx_fuzz {

inline bool IsBlank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

// No leading or trailing byte of the six C-locale blanks.
inline bool IsTrimmed(std::string_view text) {
  return text.empty() || (!IsBlank(text.front()) && !IsBlank(text.back()));
}

inline bool HasAsciiUpper(std::string_view text) {
  for (char c : text) {
    if (c >= 'A' && c <= 'Z') return true;
  }
  return false;
}

}  // namespace kx_fuzz
