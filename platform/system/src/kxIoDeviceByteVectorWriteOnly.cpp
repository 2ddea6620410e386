#include <kx/system/kxIoDeviceByteVectorWriteOnly.h>

#include <limits>
#include <utility>

#include "kxIoDeviceAppend.h"

namespace kx {

kxIoDeviceByteVectorWriteOnly::kxIoDeviceByteVectorWriteOnly()
    : kxIoDevice(DW_Write), target_(&owned_), maxSize_(std::numeric_limits<size_t>::max()) {}

kxIoDeviceByteVectorWriteOnly::kxIoDeviceByteVectorWriteOnly(std::vector<char>& target)
    : kxIoDevice(DW_Write), target_(&target), maxSize_(std::numeric_limits<size_t>::max()) {}

kxIoDeviceByteVectorWriteOnly::~kxIoDeviceByteVectorWriteOnly() = default;

size_t kxIoDeviceByteVectorWriteOnly::readBytes(char* /*buffer*/, size_t /*size*/) {
  readAllowed();  // a write device: sets the direction error
  return 0;
}

size_t kxIoDeviceByteVectorWriteOnly::writeBytes(const char* data, size_t size) {
  if (!writeAllowed() || size == 0) return 0;
  if (data == nullptr) {
    setDeviceError(detail::kxIoDeviceErrorText(detail::kxIoDeviceErrc::kNullBuffer));
    return 0;
  }
  return detail::kxIoDeviceAppend(*this, *target_, data, size, maxSize_);
}

bool kxIoDeviceByteVectorWriteOnly::atEnd() const { return true; }

std::vector<char> kxIoDeviceByteVectorWriteOnly::takeBytes() {
  std::vector<char> content = std::move(*target_);
  target_->clear();
  return content;
}

}  // namespace kx
