#include <kx/system/kxStringUtils.h>

#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <limits>

namespace kx {
namespace kxStringUtils {

std::string ToDecimal(int64_t value) {
  char buffer[24];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  return std::string(buffer, result.ptr);
}

std::string ToDecimalUnsigned(uint64_t value) {
  char buffer[24];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  return std::string(buffer, result.ptr);
}

bool FromDecimal(std::string_view text, int64_t& value) {
  if (text.empty()) return false;
  int64_t parsed = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), parsed, 10);
  if (result.ec != std::errc() || result.ptr != text.data() + text.size()) return false;
  value = parsed;
  return true;
}

std::string humanizeDuration(int64_t milliseconds, int precision) {
  if (precision < 0) precision = 0;
  if (precision > 9) precision = 9;
  const bool negative = milliseconds < 0;
  // Work on the magnitude as a double so INT64_MIN has a magnitude too.
  const double magnitude = negative ? -static_cast<double>(milliseconds) : static_cast<double>(milliseconds);
  struct Unit {
    double ms;
    const char* name;
  };
  static constexpr Unit kUnits[] = {{86400000.0, "d"}, {3600000.0, "h"}, {60000.0, "min"}, {1000.0, "s"}};
  char buffer[64];
  for (const Unit& unit : kUnits) {
    if (magnitude >= unit.ms) {
      std::snprintf(buffer, sizeof buffer, "%s%.*f%s", negative ? "-" : "", precision, magnitude / unit.ms,
                    unit.name);
      return buffer;
    }
  }
  std::snprintf(buffer, sizeof buffer, "%s%.0fms", negative ? "-" : "", magnitude);
  return buffer;
}

bool IsAsciiSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

char AsciiToLower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }
char AsciiToUpper(char c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c; }

std::string AsciiToLower(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = AsciiToLower(c);
  return out;
}

std::string AsciiToUpper(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = AsciiToUpper(c);
  return out;
}

bool EqualsIgnoreAsciiCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (AsciiToLower(a[i]) != AsciiToLower(b[i])) return false;
  }
  return true;
}

bool StartsWithIgnoreAsciiCase(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() && EqualsIgnoreAsciiCase(text.substr(0, prefix.size()), prefix);
}

std::string_view TrimView(std::string_view text) {
  size_t begin = 0;
  size_t end = text.size();
  while (begin < end && IsAsciiSpace(text[begin])) ++begin;
  while (end > begin && IsAsciiSpace(text[end - 1])) --end;
  return text.substr(begin, end - begin);
}

std::string Trim(std::string_view text) { return std::string(TrimView(text)); }

void TrimInPlace(std::string& text) {
  const std::string_view view = TrimView(text);
  const size_t begin = static_cast<size_t>(view.data() - text.data());
  const size_t length = view.size();
  text.erase(begin + length);
  text.erase(0, begin);
}

std::vector<std::string> Split(std::string_view text, char separator) {
  std::vector<std::string> pieces;
  size_t start = 0;
  while (true) {
    const size_t found = text.find(separator, start);
    if (found == std::string_view::npos) {
      pieces.emplace_back(text.substr(start));
      return pieces;
    }
    pieces.emplace_back(text.substr(start, found - start));
    start = found + 1;
  }
}

std::vector<std::string> SplitSkipEmpty(std::string_view text, char separator) {
  std::vector<std::string> pieces;
  size_t start = 0;
  while (start <= text.size()) {
    size_t found = text.find(separator, start);
    if (found == std::string_view::npos) found = text.size();
    if (found > start) pieces.emplace_back(text.substr(start, found - start));
    start = found + 1;
  }
  return pieces;
}

namespace {
template <typename Container>
std::string JoinImpl(const Container& items, std::string_view separator, std::string_view quote) {
  std::string out;
  bool first = true;
  for (const auto& item : items) {
    if (!first) out.append(separator);
    first = false;
    out.append(quote);
    out.append(item);
    out.append(quote);
  }
  return out;
}
}  // namespace

std::string Join(const std::vector<std::string>& items, std::string_view separator, std::string_view quote) {
  return JoinImpl(items, separator, quote);
}
std::string Join(const std::list<std::string>& items, std::string_view separator, std::string_view quote) {
  return JoinImpl(items, separator, quote);
}
std::string Join(const std::set<std::string>& items, std::string_view separator, std::string_view quote) {
  return JoinImpl(items, separator, quote);
}

bool ContainsAsciiNonPrintableChar(std::string_view text) {
  for (const char c : text) {
    const auto u = static_cast<unsigned char>(c);
    if (u < 0x20 || u == 0x7F) return true;
  }
  return false;
}

namespace {
// Decodes one UTF-8 sequence at text[i]; returns its length or 0 when it is not well formed
// (overlong forms, surrogates and code points above U+10FFFF are refused).
size_t DecodeUtf8(std::string_view text, size_t i, uint32_t& cp) {
  const auto b0 = static_cast<unsigned char>(text[i]);
  if (b0 < 0x80) {
    cp = b0;
    return 1;
  }
  size_t length;
  uint32_t min;
  if ((b0 & 0xE0) == 0xC0) {
    length = 2;
    cp = b0 & 0x1F;
    min = 0x80;
  } else if ((b0 & 0xF0) == 0xE0) {
    length = 3;
    cp = b0 & 0x0F;
    min = 0x800;
  } else if ((b0 & 0xF8) == 0xF0) {
    length = 4;
    cp = b0 & 0x07;
    min = 0x10000;
  } else {
    return 0;
  }
  if (i + length > text.size()) return 0;
  for (size_t k = 1; k < length; ++k) {
    const auto b = static_cast<unsigned char>(text[i + k]);
    if ((b & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (b & 0x3F);
  }
  if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
  return length;
}
}  // namespace

bool IsValidUtf8(std::string_view text) {
  size_t i = 0;
  uint32_t cp = 0;
  while (i < text.size()) {
    const size_t length = DecodeUtf8(text, i, cp);
    if (length == 0) return false;
    i += length;
  }
  return true;
}

std::string Latin1ToUtf8(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    const auto u = static_cast<unsigned char>(c);
    if (u < 0x80) {
      out.push_back(c);
    } else {
      out.push_back(static_cast<char>(0xC0 | (u >> 6)));
      out.push_back(static_cast<char>(0x80 | (u & 0x3F)));
    }
  }
  return out;
}

bool Utf8ToLatin1(std::string_view text, std::string& out) {
  std::string result;
  result.reserve(text.size());
  size_t i = 0;
  uint32_t cp = 0;
  while (i < text.size()) {
    const size_t length = DecodeUtf8(text, i, cp);
    if (length == 0 || cp > 0xFF) return false;
    result.push_back(static_cast<char>(cp));
    i += length;
  }
  out = std::move(result);
  return true;
}

void SecureZero(void* data, size_t size) {
  if (data == nullptr || size == 0) return;
  // explicit_bzero is a memset the compiler may not remove as a dead store, at memset's speed (a
  // volatile byte loop would be just as safe but several times slower on long secrets).
  explicit_bzero(data, size);
}

void SecureClear(std::string& secret) {
  // data() points at the heap block or at the in-object short buffer; capacity() is the usable size of
  // either (the terminating NUL lives one past it), so the whole storage is wiped, not just size().
  SecureZero(secret.data(), secret.capacity());
  secret.clear();
}

}  // namespace kxStringUtils
}  // namespace kx
