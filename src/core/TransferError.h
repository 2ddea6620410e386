// The texts a transfer leaves behind (HttpConnection's error text, the request helpers' extra report
// lines and log records), one enum and one table, so that the code branches on the enum and a golden
// test pins every text. A text that carries values is stored as the pieces around them: piece 0, value
// 0, piece 1, value 1, ... so no caller assembles a message by hand.
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>

namespace kx {
namespace http {
namespace detail {

enum class TransferError {
  kNotInitialized,      // no value
  kSetupFailed,         // no value
  kInvalidUrl,          // no value
  kAuthenticator,       // the authenticator's own text
  kUserCallback,        // no value
  kSetHeaders,          // no value
  kSetUrl,              // no value
  kCanceled,            // elapsed time, displayable URL
  kPerform,             // elapsed time, displayable URL
  kBadStatus,           // received status, expected status, displayable URL
  kBadContentType,      // received type, expected type, displayable URL
  kReceivedBody,        // the start of the unexpected answer's body
  kDeviceInError,       // the device's error text
  kRedirectWithoutBody, // the redirect status
  kBodyStalled,         // no value
  kBodyRestart,         // no value
  kNullBody,            // no value
  kHelperGet,           // the connection's report
  kHelperHead,
  kHelperPut,
  kHelperPost,
  kHelperDelete,
};

// The text with `values` put between its pieces; missing values count as empty, extra ones are ignored.
std::string FormatTransferError(TransferError error, std::initializer_list<std::string_view> values = {});

}  // namespace detail
}  // namespace http
}  // namespace kx
