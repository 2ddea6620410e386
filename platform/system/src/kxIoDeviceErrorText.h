// The texts of the stream device family, kept in one table (kxIoDeviceErrorText.cpp) so that every
// device reports the same condition with the same words. Code branches on the enum or on the bool a
// call returns, never on these texts.
#pragma once

#include <string>
#include <string_view>

namespace kx::detail {

enum class kxIoDeviceErrc {
  kInvalidDataWay,
  kReadOnWriteDevice,
  kWriteOnReadDevice,
  kReadNotImplemented,
  kWriteNotImplemented,
  kNullBuffer,
  kWriteAcceptedNothing,
  kWriteAcceptedTooMuch,
  kReadDeliveredTooMuch,
  kWriteBackToItself,
  kWriteBackTargetNotWritable,
  kWriteBackTargetError,
  kWriteBackStalled,
  kOutOfMemory,
  kDelegationRead,
  kDelegationWrite,
  kDelegationNullDelegate,
  kDelegationToItself,
  kDelegationActive,
  kDelegationInactive,
  kDelegationBeginFailed,
  kDelegationEndFailed,
  kSeekNegative,
  kSeekBeyondEnd,
  kSeekOverflow,
  kSeekSizeUnknown,
  kSeekFailed,
  kNullData,
  kMaxSizeExceeded,
  kFileNotOpen,
  kFileAlreadyOpen,
  kFilePathEmpty,
  kFilePathInvalid,
  kFileInvalidFlags,
  kFileOpenFailed,
  kFileReadFailed,
  kFileWriteFailed,
  kFileCloseFailed,
};

// The fixed text of `code`.
std::string_view kxIoDeviceErrorText(kxIoDeviceErrc code);
// The fixed text followed by `value` (texts that take a value end with their separating blank).
std::string kxIoDeviceErrorText(kxIoDeviceErrc code, std::string_view value);
// The C library's text for an errno value, thread-safe.
std::string kxIoDeviceErrnoText(int error);

}  // namespace kx::detail
