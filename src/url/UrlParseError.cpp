#include "url/UrlParseError.h"

namespace kx {
namespace url {
namespace detail {

std::string_view UrlParseErrorText(UrlParseError error) {
  // No default on purpose: -Wswitch flags an error without its text. The texts are the library's
  // published messages; some read oddly and stay so (callers match them).
  switch (error) {
    case UrlParseError::kInvalidUtf8:
      return "Invalid utf8 string";
    case UrlParseError::kForbiddenChar:
      return "Found ASCII forbidden char in string";
    case UrlParseError::kUriSyntax:
      return "fail to parse uri UriParser syntax error @";
    case UrlParseError::kUriFailure:
      return "fail to parse uri UriParser error ";
    case UrlParseError::kNormalize:
      return "fail to normalize uri UriParser error ";
    case UrlParseError::kUserInfoColonMissing:
      return "invalid url user info, ':' is missing";
    case UrlParseError::kCredentialsUtf8:
      return "invalid utf8 string in credentials";
    case UrlParseError::kPort:
      return "fail to parse port";
    case UrlParseError::kPathUtf8:
      return "Invalid utf-8 string in path";
    case UrlParseError::kQuerySplit:
      return "fail to split query parameters UriParser error ";
    case UrlParseError::kFragmentUtf8:
      return "Invalid utf8 string in fragment";
  }
  return "unknown url parse error";
}

bool UrlParseErrorCarriesValue(UrlParseError error) {
  switch (error) {
    case UrlParseError::kUriSyntax:
    case UrlParseError::kUriFailure:
    case UrlParseError::kNormalize:
    case UrlParseError::kQuerySplit:
      return true;
    case UrlParseError::kInvalidUtf8:
    case UrlParseError::kForbiddenChar:
    case UrlParseError::kUserInfoColonMissing:
    case UrlParseError::kCredentialsUtf8:
    case UrlParseError::kPort:
    case UrlParseError::kPathUtf8:
    case UrlParseError::kFragmentUtf8:
      return false;
  }
  return false;
}

std::string FormatUrlParseError(UrlParseError error, long long value) {
  std::string text(UrlParseErrorText(error));
  if (UrlParseErrorCarriesValue(error)) text += std::to_string(value);
  return text;
}

}  // namespace detail
}  // namespace url
}  // namespace kx
