// The failure texts of Url::fromEncodedUtf8String, one enum and one table, so that the parser branches
// on the enum and a golden test can pin every text.
#pragma once

#include <string>
#include <string_view>

namespace kx {
namespace url {
namespace detail {

enum class UrlParseError {
  kInvalidUtf8,
  kForbiddenChar,
  kUriSyntax,     // carries the byte offset of the error
  kUriFailure,    // carries the uriparser result code
  kNormalize,     // carries the uriparser result code
  kUserInfoColonMissing,
  kCredentialsUtf8,
  kPort,
  kPathUtf8,
  // Carries the uriparser result code. Only an allocation failure inside uriDissectQueryMallocA gave it;
  // the parser now splits queries itself (same pairs, no per-item malloc), so it is kept with the
  // published texts but not produced.
  kQuerySplit,
  kFragmentUtf8,
};

// The fixed text of an error; for the errors that carry a value it is the part before the value.
std::string_view UrlParseErrorText(UrlParseError error);
// True for the errors whose message ends with a decimal value.
bool UrlParseErrorCarriesValue(UrlParseError error);
// The full message: the fixed text, then `value` in decimal when the error carries one.
std::string FormatUrlParseError(UrlParseError error, long long value = 0);

}  // namespace detail
}  // namespace url
}  // namespace kx
