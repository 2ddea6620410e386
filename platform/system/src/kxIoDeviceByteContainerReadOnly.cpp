#include <kx/system/kxIoDeviceByteContainerReadOnly.h>

#include <cstring>

#include "kxIoDeviceErrorText.h"

namespace kx {

using detail::kxIoDeviceErrc;
using detail::kxIoDeviceErrorText;

kxIoDeviceByteContainerReadOnly::kxIoDeviceByteContainerReadOnly() : kxIoDeviceRandomAccess(DW_Read) {}

kxIoDeviceByteContainerReadOnly::kxIoDeviceByteContainerReadOnly(const void* data, size_t size)
    : kxIoDeviceRandomAccess(DW_Read) {
  setData(data, size);
}

kxIoDeviceByteContainerReadOnly::~kxIoDeviceByteContainerReadOnly() = default;

void kxIoDeviceByteContainerReadOnly::setData(const void* data, size_t size) {
  clearDeviceError();
  position_ = 0;
  if (data == nullptr && size > 0) {
    data_ = nullptr;
    size_ = 0;
    setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kNullData));
    return;
  }
  data_ = static_cast<const char*>(data);
  size_ = size;
}

size_t kxIoDeviceByteContainerReadOnly::readBytes(char* buffer, size_t size) {
  if (!readAllowed() || size == 0) return 0;
  if (buffer == nullptr) {
    setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kNullBuffer));
    return 0;
  }
  const size_t remaining = size_ - position_;
  const size_t n = size < remaining ? size : remaining;
  if (n > 0) std::memcpy(buffer, data_ + position_, n);
  position_ += n;
  return n;
}

size_t kxIoDeviceByteContainerReadOnly::writeBytes(const char* /*data*/, size_t /*size*/) {
  writeAllowed();  // a read device: sets the direction error
  return 0;
}

bool kxIoDeviceByteContainerReadOnly::atEnd() const { return position_ >= size_; }

int64_t kxIoDeviceByteContainerReadOnly::getPosition() const { return static_cast<int64_t>(position_); }

int64_t kxIoDeviceByteContainerReadOnly::getSize() const { return static_cast<int64_t>(size_); }

bool kxIoDeviceByteContainerReadOnly::seek(int64_t position) {
  if (hasDeviceError()) return false;
  if (position < 0) {
    setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kSeekNegative));
    return false;
  }
  if (static_cast<uint64_t>(position) > size_) {
    setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kSeekBeyondEnd));
    return false;
  }
  position_ = static_cast<size_t>(position);
  return true;
}

}  // namespace kx
