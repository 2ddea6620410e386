#include "core/TransferError.h"

#include <array>

namespace kx {
namespace http {
namespace detail {
namespace {

// The pieces around a text's values: pieces[0] value0 pieces[1] value1 ... pieces[values].
struct Pieces {
  int values;
  std::array<std::string_view, 4> pieces;
};

Pieces PiecesOf(TransferError error) {
  // No default on purpose: -Wswitch flags an error without its text. Several texts read oddly ("return
  // and error", "html response code", "setupconnection"); callers and log readers match them as they are.
  switch (error) {
    case TransferError::kNotInitialized:
      return {0, {"Corvix library not initialized."}};
    case TransferError::kSetupFailed:
      return {0, {"Fail to setupconnection"}};
    case TransferError::kInvalidUrl:
      return {0, {"Invalid http url"}};
    case TransferError::kAuthenticator:
      return {1, {"Authenticator return an error : "}};
    case TransferError::kUserCallback:
      return {0, {"User callback return and error"}};
    case TransferError::kSetHeaders:
      return {0, {"Error while setting connection parameters"}};
    case TransferError::kSetUrl:
      return {0, {"Error while setting url"}};
    case TransferError::kCanceled:
      return {2, {"Curl easy perform canceled after ", ", "}};
    case TransferError::kPerform:
      return {2, {"Curl easy perform error after ", ", "}};
    case TransferError::kBadStatus:
      return {3, {"bad html response code, got ", ", expect ", " "}};
    case TransferError::kBadContentType:
      return {3, {"bad content type, got ", ", expect ", " "}};
    case TransferError::kReceivedBody:
      return {1, {"received [", "]"}};
    case TransferError::kDeviceInError:
      return {1, {"(device in error : ", ")"}};
    case TransferError::kRedirectWithoutBody:
      return {1, {"redirect ", " not followed: the request body would not be sent again"}};
    case TransferError::kBodyStalled:
      return {0, {"request body device delivered no data before its end"}};
    case TransferError::kBodyRestart:
      return {0, {"request body cannot be sent again from its start"}};
    case TransferError::kNullBody:
      return {0, {"request body is null with a non-zero size"}};
    case TransferError::kHelperGet:
      return {1, {"Http GET error "}};
    case TransferError::kHelperHead:
      return {1, {"Http HEAD error "}};
    case TransferError::kHelperPut:
      return {1, {"Http PUT error "}};
    case TransferError::kHelperPost:
      return {1, {"Http POST error "}};
    case TransferError::kHelperDelete:
      return {1, {"Http DELETE error "}};
  }
  return {0, {"unknown transfer error"}};
}

}  // namespace

std::string FormatTransferError(TransferError error, std::initializer_list<std::string_view> values) {
  const Pieces entry = PiecesOf(error);
  std::string text(entry.pieces[0]);
  auto value = values.begin();
  for (int i = 0; i < entry.values; ++i) {
    if (value != values.end()) text += *value++;
    text += entry.pieces[static_cast<size_t>(i) + 1];
  }
  return text;
}

}  // namespace detail
}  // namespace http
}  // namespace kx
