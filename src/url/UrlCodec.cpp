#include "url/UrlCodec.h"

#include <kx/system/kxStringUtils.h>

#include <uriparser/Uri.h>
#include <utf8.h>

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

// Unescapes `text` in place with uriparser, starting at the first byte unescaping can change ("%", and
// "+" when it becomes a space): the bytes before it would be copied onto themselves.
void UnescapeInPlace(std::string& text, bool plusToSpace) {
  // A plain loop: std::string::find_first_of calls memchr once per byte of the text.
  size_t start = 0;
  if (plusToSpace) {
    while (start < text.size() && text[start] != '%' && text[start] != '+') ++start;
  } else {
    start = text.find('%');
  }
  if (start >= text.size()) return;
  // The length comes from the returned end, never from strlen: "%00" becomes a real NUL byte.
  const char* end = uriUnescapeInPlaceExA(text.data() + start, plusToSpace ? URI_TRUE : URI_FALSE,
                                          URI_BR_DONT_TOUCH);
  // Zero the bytes the shorter result leaves behind, then drop them.
  const size_t length = static_cast<size_t>(end - text.data());
  std::memset(text.data() + length, 0, text.size() - length);
  text.resize(length);
}

}  // namespace

bool DecodeInPlace(std::string& text) {
  // uriparser's unescaping stops at the first NUL byte and would hand back the text before it. A raw NUL
  // is a control character, which the decoded text may not hold, so the text is refused as a whole.
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

ComponentCheck DissectQuery(std::string_view query, std::list<std::pair<std::string, std::string>>& pairs) {
  size_t start = 0;
  while (start < query.size()) {
    size_t end = query.find('&', start);
    if (end == std::string_view::npos) end = query.size();
    if (end > start) {
      const std::string_view item = query.substr(start, end - start);
      const size_t equals = item.find('=');
      auto& [key, value] = pairs.emplace_back();
      if (equals == std::string_view::npos) {
        key.assign(item);
      } else {
        key.assign(item.substr(0, equals));
        value.assign(item.substr(equals + 1));
      }
      UnescapeInPlace(key, true);
      UnescapeInPlace(value, true);
      ComponentCheck check = CheckComponent(key);
      if (check == ComponentCheck::kOk) check = CheckComponent(value);
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
