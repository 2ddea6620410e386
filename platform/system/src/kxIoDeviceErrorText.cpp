#include "kxIoDeviceErrorText.h"

#include <cstring>

namespace kx::detail {

std::string_view kxIoDeviceErrorText(kxIoDeviceErrc code) {
  switch (code) {  // no default on purpose: -Wswitch flags a code left without a text
    case kxIoDeviceErrc::kInvalidDataWay:            return "invalid data way";
    case kxIoDeviceErrc::kReadOnWriteDevice:         return "read called on a write only device";
    case kxIoDeviceErrc::kWriteOnReadDevice:         return "write called on a read only device";
    case kxIoDeviceErrc::kReadNotImplemented:        return "readBytes not implemented";
    case kxIoDeviceErrc::kWriteNotImplemented:       return "writeBytes not implemented";
    case kxIoDeviceErrc::kNullBuffer:                return "null buffer with a non-zero size";
    case kxIoDeviceErrc::kWriteAcceptedNothing:      return "writeBytes accepted no data";
    case kxIoDeviceErrc::kWriteAcceptedTooMuch:      return "writeBytes accepted more data than given";
    case kxIoDeviceErrc::kReadDeliveredTooMuch:      return "readBytes delivered more data than asked";
    case kxIoDeviceErrc::kWriteBackToItself:         return "writeBackToDevice target is the source device";
    case kxIoDeviceErrc::kWriteBackTargetNotWritable:return "writeBackToDevice target device is not writable";
    case kxIoDeviceErrc::kWriteBackTargetError:      return "writeBackToDevice target device error ";
    case kxIoDeviceErrc::kWriteBackStalled:          return "writeBackToDevice source delivered no data before its end";
    case kxIoDeviceErrc::kOutOfMemory:               return "out of memory";
    case kxIoDeviceErrc::kDelegationRead:            return "call read on a write delegation mode device";
    case kxIoDeviceErrc::kDelegationWrite:           return "call write on a read delegation mode device";
    case kxIoDeviceErrc::kDelegationNullDelegate:    return "beginDelegation with a null delegate";
    case kxIoDeviceErrc::kDelegationToItself:        return "beginDelegation onto the device itself";
    case kxIoDeviceErrc::kDelegationActive:          return "beginDelegation while already delegating";
    case kxIoDeviceErrc::kDelegationInactive:        return "endDelegation without an active delegation";
    case kxIoDeviceErrc::kDelegationBeginFailed:     return "beginDelegation failed";
    case kxIoDeviceErrc::kDelegationEndFailed:       return "endDelegation failed";
    case kxIoDeviceErrc::kSeekNegative:              return "seek to a negative position";
    case kxIoDeviceErrc::kSeekBeyondEnd:             return "seek beyond the end of the device";
    case kxIoDeviceErrc::kSeekOverflow:              return "seek position out of range";
    case kxIoDeviceErrc::kSeekSizeUnknown:           return "seek from the end of a device of unknown size";
    case kxIoDeviceErrc::kSeekFailed:                return "seek failed : ";
    case kxIoDeviceErrc::kNullData:                  return "null data with a non-zero size";
    case kxIoDeviceErrc::kMaxSizeExceeded:           return "write exceeds the maximum size of the device";
    case kxIoDeviceErrc::kFileNotOpen:               return "file is not open";
    case kxIoDeviceErrc::kFileAlreadyOpen:           return "file is already open";
    case kxIoDeviceErrc::kFilePathEmpty:             return "empty file path";
    case kxIoDeviceErrc::kFilePathInvalid:           return "file path is not valid UTF-8";
    case kxIoDeviceErrc::kFileInvalidFlags:          return "invalid file open flags";
    case kxIoDeviceErrc::kFileOpenFailed:            return "Failed to open file ";
    case kxIoDeviceErrc::kFileReadFailed:            return "file read error : ";
    case kxIoDeviceErrc::kFileWriteFailed:           return "file write error : ";
    case kxIoDeviceErrc::kFileCloseFailed:           return "file close error : ";
  }
  return "unknown device error";
}

std::string kxIoDeviceErrorText(kxIoDeviceErrc code, std::string_view value) {
  const std::string_view fixed = kxIoDeviceErrorText(code);
  std::string text;
  text.reserve(fixed.size() + value.size());
  text.append(fixed).append(value);
  return text;
}

std::string kxIoDeviceErrnoText(int error) {
  char buffer[256];
  // GNU strerror_r: returns either `buffer` or a static string, never an error code.
  const char* text = strerror_r(error, buffer, sizeof buffer);
  return text ? std::string(text) : std::string("errno ") + std::to_string(error);
}

}  // namespace kx::detail
