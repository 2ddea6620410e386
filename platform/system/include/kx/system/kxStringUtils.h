// String helpers shared by every subsystem. All operate on bytes; none depends on the process locale
// (a Turkish or any other locale gives the same answers as "C").
//
// Thread-safety: stateless; every function may be called from any thread.
#pragma once

#include <kx/system/kxExport.h>

#include <cstdint>
#include <list>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace kx {
namespace kxStringUtils {

// Decimal text of a signed or unsigned integer.
KX_EXPORT std::string ToDecimal(int64_t value);
KX_EXPORT std::string ToDecimalUnsigned(uint64_t value);
// Whole-text decimal conversion with an optional leading '-' (no blanks, no '+'); false on anything
// else or on overflow, leaving `value` unchanged.
KX_EXPORT bool FromDecimal(std::string_view text, int64_t& value);

// A duration in milliseconds as short human text with `precision` decimals in the largest fitting unit:
// "850ms", "1.5s", "2.0min", "1.2h", "3.0d". Negative values keep their sign.
KX_EXPORT std::string humanizeDuration(int64_t milliseconds, int precision = 1);

// The six C-locale blanks: ' ', '\t', '\n', '\v', '\f', '\r'.
KX_EXPORT bool IsAsciiSpace(char c);
KX_EXPORT char AsciiToLower(char c);  // 'A'..'Z' only; every other byte unchanged
KX_EXPORT char AsciiToUpper(char c);  // 'a'..'z' only
KX_EXPORT std::string AsciiToLower(std::string_view text);
KX_EXPORT std::string AsciiToUpper(std::string_view text);
KX_EXPORT bool EqualsIgnoreAsciiCase(std::string_view a, std::string_view b);
KX_EXPORT bool StartsWithIgnoreAsciiCase(std::string_view text, std::string_view prefix);

// Leading/trailing IsAsciiSpace bytes removed.
KX_EXPORT std::string_view TrimView(std::string_view text);
KX_EXPORT std::string Trim(std::string_view text);
KX_EXPORT void TrimInPlace(std::string& text);

// Cuts `text` at every occurrence of `separator`; keeps empty pieces ("a,,b" gives 3, "" gives [""]).
KX_EXPORT std::vector<std::string> Split(std::string_view text, char separator);
// As Split but drops empty pieces.
KX_EXPORT std::vector<std::string> SplitSkipEmpty(std::string_view text, char separator);

// Elements joined with `separator`, each enclosed in `quote` (which may be empty).
KX_EXPORT std::string Join(const std::vector<std::string>& items, std::string_view separator,
                           std::string_view quote = {});
KX_EXPORT std::string Join(const std::list<std::string>& items, std::string_view separator,
                           std::string_view quote = {});
KX_EXPORT std::string Join(const std::set<std::string>& items, std::string_view separator,
                           std::string_view quote = {});

// True when a byte is an ASCII control character: 0x00..0x1F or 0x7F.
KX_EXPORT bool ContainsAsciiNonPrintableChar(std::string_view text);

// Validates UTF-8 (no overlongs, no surrogates, nothing above U+10FFFF).
KX_EXPORT bool IsValidUtf8(std::string_view text);
// Latin-1 bytes to UTF-8.
KX_EXPORT std::string Latin1ToUtf8(std::string_view text);
// UTF-8 to Latin-1; false when a code point is above U+00FF or the input is not valid UTF-8.
KX_EXPORT bool Utf8ToLatin1(std::string_view text, std::string& out);

// Zeroes every byte of the string's allocated storage (capacity, including the short-string buffer),
// then sets the length to 0. For secrets: the bytes are gone from memory, not just from view.
KX_EXPORT void SecureClear(std::string& secret);
// Zeroes `size` bytes in a way the optimiser cannot drop.
KX_EXPORT void SecureZero(void* data, size_t size);

}  // namespace kxStringUtils
}  // namespace kx
