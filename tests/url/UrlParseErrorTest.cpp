// Pins every parse failure text, including those that only a uriparser allocation failure can produce.
#include "url/UrlParseError.h"

#include <gtest/gtest.h>

namespace kx {
namespace url {
namespace detail {
namespace {

TEST(UrlParseErrorTest, EveryTextIsExact) {
  EXPECT_EQ(FormatUrlParseError(UrlParseError::kInvalidUtf8), "Invalid utf8 string");
  EXPECT_EQ(FormatUrlParseError(UrlParseError::kForbiddenChar), "Found ASCII forbidden char in string");
  EXPECT_EQ(FormatUrlParseError(UrlParseError::kUriSyntax, 7), "fail to parse uri UriParser syntax error @7");
  EXPECT_EQ(FormatUrlParseError(UrlParseError::kUriFailure, 3), "fail to parse uri UriParser error 3");
  EXPECT_EQ(FormatUrlParseError(UrlParseError::kNormalize, 3), "fail to normalize uri UriParser error 3");
  EXPECT_EQ(FormatUrlParseError(UrlParseError::kUserInfoColonMissing), "invalid url user info, ':' is missing");
  EXPECT_EQ(FormatUrlParseError(UrlParseError::kCredentialsUtf8), "invalid utf8 string in credentials");
  EXPECT_EQ(FormatUrlParseError(UrlParseError::kPort), "fail to parse port");
  EXPECT_EQ(FormatUrlParseError(UrlParseError::kPathUtf8), "Invalid utf-8 string in path");
  EXPECT_EQ(FormatUrlParseError(UrlParseError::kQuerySplit, 3),
            "fail to split query parameters UriParser error 3");
  EXPECT_EQ(FormatUrlParseError(UrlParseError::kFragmentUtf8), "Invalid utf8 string in fragment");
}

}  // namespace
}  // namespace detail
}  // namespace url
}  // namespace kx
