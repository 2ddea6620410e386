#include "url/UrlCodec.h"

#include <kx/system/kxStringUtils.h>

#include <uriparser/Uri.h>
#include <utf8.h>

#include <array>
#include <cstdint>
#include <cstring>

namespace kx {
namespace url {
namespace detail {

namespace {

// True when every byte is printable ASCII (0x20..0x7E), eight bytes at a time. Such text is valid UTF-8
// without control characters, which is what nearly every URL component is; anything else goes through
// the exact checks below. Both word tests are exact as yes/no answers (no byte is missed).
bool IsPrintableAscii(std::string_view text) {
  constexpr uint64_t kOnes = 0x0101010101010101ULL;
  constexpr uint64_t kHighBits = 0x8080808080808080ULL;
  const char* p = text.data();
  size_t left = text.size();
  for (; left >= 8; p += 8, left -= 8) {
    uint64_t word;
    std::memcpy(&word, p, 8);
    const uint64_t below0x20 = (word - 0x20 * kOnes) & ~word & kHighBits;
    const uint64_t above0x7E = ((word + kOnes) | word) & kHighBits;
    if ((below0x20 | above0x7E) != 0) return false;
  }
  for (; left > 0; ++p, --left) {
    const auto byte = static_cast<unsigned char>(*p);
    if (byte < 0x20 || byte > 0x7E) return false;
  }
  return true;
}

}  // namespace

ComponentCheck CheckComponent(std::string_view text) {
  if (IsPrintableAscii(text)) return ComponentCheck::kOk;
  if (utf8::find_invalid(text.begin(), text.end()) != text.end()) return ComponentCheck::kInvalidUtf8;
  if (kxStringUtils::ContainsAsciiNonPrintableChar(text)) return ComponentCheck::kForbiddenChar;
  return ComponentCheck::kOk;
}

namespace {

// The value of each byte as a hex digit, -1 for the others.
constexpr auto kHexValues = [] {
  std::array<int8_t, 256> values{};
  for (int c = 0; c < 256; ++c) {
    values[c] = c >= '0' && c <= '9'   ? static_cast<int8_t>(c - '0')
                : c >= 'a' && c <= 'f' ? static_cast<int8_t>(c - 'a' + 10)
                : c >= 'A' && c <= 'F' ? static_cast<int8_t>(c - 'A' + 10)
                                       : int8_t{-1};
  }
  return values;
}();

int HexValue(char c) { return kHexValues[static_cast<unsigned char>(c)]; }

// The high bit of every byte of `word` equal to `wanted`, except that a byte after a match may be
// marked too (the borrow of the subtraction); the lowest marked byte is always a true match.
uint64_t MatchingBytes(uint64_t word, char wanted) {
  constexpr uint64_t kOnes = 0x0101010101010101ULL;
  const uint64_t x = word ^ (kOnes * static_cast<unsigned char>(wanted));
  return (x - kOnes) & ~x & (kOnes * 0x80);
}

// Unescapes `text` in place exactly as uriUnescapeInPlaceExA(plusToSpace, URI_BR_DONT_TOUCH) does: "%"
// and two hex digits become that byte, any other "%" stays as it is, "+" becomes a space when asked,
// every other byte is kept. Unlike uriparser it does not stop at a NUL, and it reports which kinds of
// byte the escapes produced: the parser's raw text is printable ASCII already, so without a control or
// high byte from an escape the decoded text needs no second scan, and with high bytes alone only the
// UTF-8 check. A loop of our own because uriparser's, through a C string and a switch per byte, was a
// tenth of the parse.
enum Produced : unsigned { kOnlyPrintable = 0, kControl = 1, kHigh = 2 };

unsigned UnescapeInPlace(std::string& text, bool plusToSpace) {
  char* const data = text.data();
  const size_t size = text.size();
  // Nothing moves before the first byte unescaping can change.
  size_t read = 0;
  if (plusToSpace) {
    while (read < size && data[read] != '%' && data[read] != '+') ++read;
  } else {
    const void* percent = std::memchr(data, '%', size);
    read = percent != nullptr ? static_cast<size_t>(static_cast<const char*>(percent) - data) : size;
  }
  if (read == size) return kOnlyPrintable;
  size_t write = read;
  unsigned produced = kOnlyPrintable;
  while (read < size) {
    // Eight bytes at a time up to the next byte that changes: most of a query is plain text.
    if (size - read >= 8) {
      uint64_t word;
      std::memcpy(&word, data + read, 8);
      const uint64_t special = MatchingBytes(word, '%') | (plusToSpace ? MatchingBytes(word, '+') : 0);
      // The lowest marked byte is exact; bytes after it may be marked falsely, which costs nothing.
      const size_t plain = special == 0 ? 8 : static_cast<size_t>(__builtin_ctzll(special)) / 8;
      if (plain == 8) {
        std::memcpy(data + write, &word, 8);  // loaded before stored: fine when the ranges overlap
      } else {
        for (size_t i = 0; i < plain; ++i) data[write + i] = data[read + i];
      }
      write += plain;
      read += plain;
      if (plain == 8) continue;
    }
    const char c = data[read];
    if (c == '%' && size - read > 2) {
      const int high = HexValue(data[read + 1]);
      const int low = HexValue(data[read + 2]);
      if ((high | low) >= 0) {
        const int byte = high * 16 + low;
        produced |= byte >= 0x80 ? kHigh : (byte < 0x20 || byte == 0x7F) ? kControl : kOnlyPrintable;
        data[write++] = static_cast<char>(byte);
        read += 3;
        continue;
      }
    }
    data[write++] = (c == '+' && plusToSpace) ? ' ' : c;
    ++read;
  }
  // Zero the bytes the shorter result leaves behind, then drop them.
  std::memset(data + write, 0, size - write);
  text.resize(write);
  return produced;
}

// A decoded NUL can only come from "%00" (the parser refuses raw control characters first). It is refused
// as invalid text rather than as a control character: uriparser's C strings would have cut the value
// there without a trace, and callers have always seen "%00" reported that way.
ComponentCheck CheckQueryText(const std::string& text) {
  const ComponentCheck check = CheckComponent(text);
  if (check != ComponentCheck::kOk && std::memchr(text.data(), '\0', text.size()) != nullptr) {
    return ComponentCheck::kInvalidUtf8;
  }
  return check;
}

}  // namespace

bool DecodeInPlace(std::string& text) {
  // A raw NUL is a control character, which the decoded text may not hold: refused before any work.
  if (std::memchr(text.data(), '\0', text.size()) != nullptr) {
    kxStringUtils::SecureClear(text);
    return false;
  }
  UnescapeInPlace(text, false);
  if (CheckComponent(text) != ComponentCheck::kOk) {
    kxStringUtils::SecureClear(text);
    return false;
  }
  return true;
}

namespace {

// The check of a decoded parser component, from what its escapes produced: a control byte fails either
// way (as invalid UTF-8 or as a control character), high bytes alone need only the UTF-8 check.
ComponentCheck CheckDecoded(const std::string& text, unsigned produced) {
  if (produced == kOnlyPrintable) return ComponentCheck::kOk;
  if ((produced & kControl) != 0) return CheckComponent(text);
  return utf8::find_invalid(text.begin(), text.end()) == text.end() ? ComponentCheck::kOk
                                                                    : ComponentCheck::kInvalidUtf8;
}

}  // namespace

bool DecodeParsedInPlace(std::string& text) {
  if (CheckDecoded(text, UnescapeInPlace(text, false)) != ComponentCheck::kOk) {
    kxStringUtils::SecureClear(text);
    return false;
  }
  return true;
}

ComponentCheck DissectQuery(std::string_view query, std::list<std::pair<std::string, std::string>>& pairs,
                            std::list<std::pair<std::string, std::string>>* spare) {
  size_t start = 0;
  while (start < query.size()) {
    size_t end = query.find('&', start);
    if (end == std::string_view::npos) end = query.size();
    if (end > start) {
      const std::string_view item = query.substr(start, end - start);
      const size_t equals = item.find('=');
      if (spare != nullptr && !spare->empty()) {
        pairs.splice(pairs.end(), *spare, spare->begin());
      } else {
        pairs.emplace_back();
      }
      auto& [key, value] = pairs.back();
      if (equals == std::string_view::npos) {
        key.assign(item);
        value.clear();
      } else {
        key.assign(item.substr(0, equals));
        value.assign(item.substr(equals + 1));
      }
      const unsigned keyProduced = UnescapeInPlace(key, true);
      const unsigned valueProduced = UnescapeInPlace(value, true);
      ComponentCheck check = (keyProduced & kControl) != 0 ? CheckQueryText(key) : CheckDecoded(key, keyProduced);
      if (check == ComponentCheck::kOk) {
        check = (valueProduced & kControl) != 0 ? CheckQueryText(value) : CheckDecoded(value, valueProduced);
      }
      if (check != ComponentCheck::kOk) return check;
    }
    start = end + 1;
  }
  return ComponentCheck::kOk;
}

void AppendEncoded(std::string& out, std::string_view text) {
  if (text.empty()) return;
  const size_t start = out.size();
  // Three output bytes per input byte at most, plus the terminator uriparser writes.
  out.resize(start + 3 * text.size() + 1);
  char* write = out.data() + start;
  const char* read = text.data();
  const char* const end = read + text.size();
  while (read < end) {
    // uriEscapeExA stops at a NUL even when given the end of the range, so NULs are escaped here and
    // the text between them is handed over piece by piece.
    const void* found = std::memchr(read, '\0', static_cast<size_t>(end - read));
    const char* const pieceEnd = found != nullptr ? static_cast<const char*>(found) : end;
    if (pieceEnd > read) write = uriEscapeExA(read, pieceEnd, write, URI_FALSE, URI_FALSE);
    if (pieceEnd < end) {
      std::memcpy(write, "%00", 3);
      write += 3;
      read = pieceEnd + 1;
    } else {
      read = end;
    }
  }
  out.resize(static_cast<size_t>(write - out.data()));
}

}  // namespace detail
}  // namespace url
}  // namespace kx
