// Percent-encoding and component checks shared by the parser and the encoders of Url.
#pragma once

#include <list>
#include <string>
#include <string_view>
#include <utility>

namespace kx {
namespace url {
namespace detail {

enum class ComponentCheck { kOk, kInvalidUtf8, kForbiddenChar };

// Well-formed UTF-8 first (no stray continuation byte, no truncated sequence, nothing above U+10FFFF,
// no overlong form or surrogate), then no ASCII control character (0x00-0x1F, 0x7F).
ComponentCheck CheckComponent(std::string_view text);

// Percent-decodes `text` in place ("+" is kept) and checks the result with CheckComponent. On failure the
// text is wiped and false returned; the decoded length never exceeds the encoded length.
bool DecodeInPlace(std::string& text);
// DecodeInPlace for a component of a URL the parser has already checked: `text` must be printable ASCII,
// so only the bytes that escapes produce are checked (the whole text only when one of them is not
// printable ASCII).
bool DecodeParsedInPlace(std::string& text);

// Splits a query the way uriDissectQueryMallocA does and appends the decoded pairs to `pairs`: items are
// cut at "&", the first "=" of an item separates key and value (an item without "=" has the value ""),
// empty items are skipped, and keys and values are unescaped with "+" read as a space. Items are checked
// in order, each key before its value, with CheckComponent, except that a text holding a decoded NUL
// ("%00") gives kInvalidUtf8. At the first failure the pairs appended so far stay and that failure is
// returned.
// `query` must be printable ASCII, as the parser guarantees. With `spare`, the pairs are built in nodes
// taken from it (their strings' buffers reused) before new ones are allocated.
ComponentCheck DissectQuery(std::string_view query, std::list<std::pair<std::string, std::string>>& pairs,
                            std::list<std::pair<std::string, std::string>>* spare = nullptr);

// Appends the percent-encoded form of `text` (unreserved characters kept, everything else "%XX").
void AppendEncoded(std::string& out, std::string_view text);

}  // namespace detail
}  // namespace url
}  // namespace kx
