#include <kx/system/kxIoDeviceStringWriteOnly.h>

#include <limits>
#include <utility>

#include "kxIoDeviceAppend.h"

namespace kx {

kxIoDeviceStringWriteOnly::kxIoDeviceStringWriteOnly()
    : kxIoDevice(DW_Write), target_(&owned_), maxSize_(std::numeric_limits<size_t>::max()) {}

kxIoDeviceStringWriteOnly::kxIoDeviceStringWriteOnly(std::string& target)
    : kxIoDevice(DW_Write), target_(&target), maxSize_(std::numeric_limits<size_t>::max()) {}

kxIoDeviceStringWriteOnly::~kxIoDeviceStringWriteOnly() = default;

size_t kxIoDeviceStringWriteOnly::readBytes(char* /*buffer*/, size_t /*size*/) {
  readAllowed();  // a write device: sets the direction error
  return 0;
}

size_t kxIoDeviceStringWriteOnly::writeBytes(const char* data, size_t size) {
  if (!writeAllowed() || size == 0) return 0;
  if (data == nullptr) {
    setDeviceError(detail::kxIoDeviceErrorText(detail::kxIoDeviceErrc::kNullBuffer));
    return 0;
  }
  return detail::kxIoDeviceAppend(*this, *target_, data, size, maxSize_);
}

bool kxIoDeviceStringWriteOnly::atEnd() const { return true; }

std::string kxIoDeviceStringWriteOnly::takeString() {
  std::string content = std::move(*target_);
  target_->clear();  // a moved-from string is valid but unspecified
  return content;
}

}  // namespace kx
