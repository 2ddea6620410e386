// The CURLcode names shown in connection error reports: the deliberate oddities at the table's edges,
// and that every code in between has a name of its own (a missing or shifted case repeats a neighbour's).
#include <gtest/gtest.h>

#include "core/HttpConnectionState.h"

#include <string>

namespace {

using kx::http::detail::CurlCodeName;
using kx::http::detail::CurlErrorText;

TEST(CurlCodeNameTest, EdgesKeepTheirOdditiesAndEveryCodeBetweenHasItsOwnName) {
  EXPECT_STREQ(CurlCodeName(0), "CURLE_OK ");  // trailing blank kept on purpose
  EXPECT_STREQ(CurlCodeName(99), "CURLE_UNRECOVERABLE_POLL");
  EXPECT_STREQ(CurlCodeName(100), "CURL_LAST");
  for (int code : {101, 102, 1000, -1}) EXPECT_STREQ(CurlCodeName(code), "Unknown Curl error code") << code;
  for (int code = 1; code < 100; ++code) {
    const std::string name = CurlCodeName(code);
    EXPECT_EQ(name.rfind("CURLE_", 0), 0u) << code << " " << name;
    EXPECT_NE(name, CurlCodeName(code - 1)) << code;
  }
}

TEST(CurlErrorTextTest, JoinsNameCodeAndCurlSentence) {
  EXPECT_EQ(CurlErrorText(28), "CURLE_OPERATION_TIMEDOUT (28), Timeout was reached");
  EXPECT_EQ(CurlErrorText(0), "CURLE_OK  (0), No error");
  EXPECT_EQ(CurlErrorText(101), "Unknown Curl error code (101), Unknown error");
}

}  // namespace
