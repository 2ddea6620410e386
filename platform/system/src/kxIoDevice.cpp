#include <kx/system/kxIoDevice.h>

#include <new>
#include <stdexcept>

#include "kxIoDeviceErrorText.h"

namespace kx {

using detail::kxIoDeviceErrc;
using detail::kxIoDeviceErrorText;

namespace {

// Large enough that a file or socket copy is not dominated by per-call overhead, small enough to live
// in every worker thread's scratch vector.
constexpr size_t kDefaultCopyPieceSize = 16 * 1024;

bool IsValidDataWay(kxIoDevice::DataWay way) {
  return way == kxIoDevice::DW_Read || way == kxIoDevice::DW_Write;
}

}  // namespace

kxIoDevice::kxIoDevice(DataWay way) : way_(way) {
  if (!IsValidDataWay(way)) setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kInvalidDataWay));
}

kxIoDevice::~kxIoDevice() = default;

size_t kxIoDevice::readBytes(char* /*buffer*/, size_t /*size*/) {
  if (readAllowed()) setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kReadNotImplemented));
  return 0;
}

size_t kxIoDevice::writeBytes(const char* /*data*/, size_t /*size*/) {
  if (writeAllowed()) setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kWriteNotImplemented));
  return 0;
}

bool kxIoDevice::hasDeviceError() const { return error_; }

std::string kxIoDevice::getDeviceErrorMsg() const { return errorMsg_; }

size_t kxIoDevice::read(char* buffer, size_t size) {
  if (size == 0 || hasDeviceError()) return 0;
  if (buffer == nullptr) {
    setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kNullBuffer));
    return 0;
  }
  const size_t n = readBytes(buffer, size);
  if (n > size) {
    // The bytes past `size` already overran the caller's buffer; all we can do is stop the stream.
    setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kReadDeliveredTooMuch));
    return 0;
  }
  return n;
}

size_t kxIoDevice::write(const char* data, size_t size) {
  if (size == 0 || hasDeviceError()) return 0;
  if (data == nullptr) {
    setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kNullBuffer));
    return 0;
  }
  const size_t n = writeBytes(data, size);
  if (n > size) {
    setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kWriteAcceptedTooMuch));
    return 0;
  }
  return n;
}

bool kxIoDevice::writeAll(const char* data, size_t size) {
  while (size > 0) {
    const size_t n = write(data, size);
    if (n == 0) {
      if (!hasDeviceError()) setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kWriteAcceptedNothing));
      return false;
    }
    data += n;
    size -= n;
  }
  return !hasDeviceError();
}

bool kxIoDevice::writeBackToDevice(kxIoDevice& target, size_t* count, std::vector<char>* scratch) {
  size_t copied = 0;
  if (count) *count = 0;
  if (&target == this) {
    setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kWriteBackToItself));
    return false;
  }
  if (!readAllowed()) return false;
  // Checked before the first read: a refusal discovered after it would lose the bytes read.
  if (target.hasDeviceError()) {
    setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kWriteBackTargetError, target.getDeviceErrorMsg()));
    return false;
  }
  if (target.getDataWay() != DW_Write) {
    setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kWriteBackTargetNotWritable));
    return false;
  }

  std::vector<char> own;
  std::vector<char>& buffer = scratch ? *scratch : own;
  try {
    if (buffer.empty()) buffer.resize(kDefaultCopyPieceSize);
  } catch (const std::exception&) {
    setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kOutOfMemory));
    return false;
  }

  while (!atEnd()) {
    if (hasDeviceError()) return false;
    const size_t n = read(buffer.data(), buffer.size());
    if (n == 0) {
      if (hasDeviceError()) return false;
      if (atEnd()) break;
      // A source that has nothing now but is not at its end would make this loop spin; a copy of "the
      // rest" cannot finish, so it fails instead of waiting.
      setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kWriteBackStalled));
      return false;
    }
    const char* piece = buffer.data();
    size_t left = n;
    while (left > 0) {
      const size_t w = target.write(piece, left);
      if (w == 0) {
        if (!target.hasDeviceError()) {
          target.setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kWriteAcceptedNothing));
        }
        setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kWriteBackTargetError, target.getDeviceErrorMsg()));
        return false;
      }
      piece += w;
      left -= w;
      copied += w;
      if (count) *count = copied;
    }
  }
  return !hasDeviceError();
}

void kxIoDevice::setDeviceError(std::string_view text) {
  if (error_) return;
  error_ = true;
  try {
    errorMsg_.assign(text);
  } catch (const std::exception&) {
    // The flag is what stops the stream; a text that cannot be stored must not turn into a throw.
    errorMsg_.clear();
  }
}

void kxIoDevice::clearDeviceError() {
  error_ = false;
  errorMsg_.clear();
}

bool kxIoDevice::readAllowed() {
  if (hasDeviceError()) return false;
  if (way_ != DW_Read) {
    setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kReadOnWriteDevice));
    return false;
  }
  return true;
}

bool kxIoDevice::writeAllowed() {
  if (hasDeviceError()) return false;
  if (way_ != DW_Write) {
    setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kWriteOnReadDevice));
    return false;
  }
  return true;
}

void kxIoDevice::setDataWay(DataWay way) {
  if (!IsValidDataWay(way)) {
    setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kInvalidDataWay));
    return;
  }
  way_ = way;
}

}  // namespace kx
