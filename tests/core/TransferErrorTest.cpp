// Pins every text a transfer can leave behind, with its values in place.
#include "core/TransferError.h"

#include <gtest/gtest.h>

namespace kx {
namespace http {
namespace detail {
namespace {

using E = TransferError;

TEST(TransferErrorTest, EveryTextIsExact) {
  EXPECT_EQ(FormatTransferError(E::kNotInitialized), "Corvix library not initialized.");
  EXPECT_EQ(FormatTransferError(E::kSetupFailed), "Fail to setupconnection");
  EXPECT_EQ(FormatTransferError(E::kInvalidUrl), "Invalid http url");
  EXPECT_EQ(FormatTransferError(E::kAuthenticator, {"no token"}), "Authenticator return an error : no token");
  EXPECT_EQ(FormatTransferError(E::kUserCallback), "User callback return and error");
  EXPECT_EQ(FormatTransferError(E::kSetHeaders), "Error while setting connection parameters");
  EXPECT_EQ(FormatTransferError(E::kSetUrl), "Error while setting url");
  EXPECT_EQ(FormatTransferError(E::kCanceled, {"1.5s", "http://h/"}), "Curl easy perform canceled after 1.5s, http://h/");
  EXPECT_EQ(FormatTransferError(E::kPerform, {"2ms", "http://h/"}), "Curl easy perform error after 2ms, http://h/");
  EXPECT_EQ(FormatTransferError(E::kBadStatus, {"404", "200", "http://h/"}),
            "bad html response code, got 404, expect 200 http://h/");
  EXPECT_EQ(FormatTransferError(E::kBadContentType, {"text/html", "application/json", "http://h/"}),
            "bad content type, got text/html, expect application/json http://h/");
  EXPECT_EQ(FormatTransferError(E::kReceivedBody, {"oops"}), "received [oops]");
  EXPECT_EQ(FormatTransferError(E::kDeviceInError, {"disk full"}), "(device in error : disk full)");
  EXPECT_EQ(FormatTransferError(E::kRedirectWithoutBody, {"303"}),
            "redirect 303 not followed: the request body would not be sent again");
  EXPECT_EQ(FormatTransferError(E::kBodyStalled), "request body device delivered no data before its end");
  EXPECT_EQ(FormatTransferError(E::kBodyRestart), "request body cannot be sent again from its start");
  EXPECT_EQ(FormatTransferError(E::kNullBody), "request body is null with a non-zero size");
  EXPECT_EQ(FormatTransferError(E::kHelperGet, {"R"}), "Http GET error R");
  EXPECT_EQ(FormatTransferError(E::kHelperHead, {"R"}), "Http HEAD error R");
  EXPECT_EQ(FormatTransferError(E::kHelperPut, {"R"}), "Http PUT error R");
  EXPECT_EQ(FormatTransferError(E::kHelperPost, {"R"}), "Http POST error R");
  EXPECT_EQ(FormatTransferError(E::kHelperDelete, {"R"}), "Http DELETE error R");
  // An empty value keeps the text around it (a wrong status with no body still reports "received []").
  EXPECT_EQ(FormatTransferError(E::kReceivedBody), "received []");
}

}  // namespace
}  // namespace detail
}  // namespace http
}  // namespace kx
