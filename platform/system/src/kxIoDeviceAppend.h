// Shared body of the growable in-memory sinks (string and byte vector): append with a size cap,
// turning allocation failures into a device error instead of an exception.
#pragma once

#include <kx/system/kxIoDevice.h>

#include <cstddef>
#include <exception>

#include "kxIoDeviceErrorText.h"

namespace kx::detail {

template <typename Container>
size_t kxIoDeviceAppend(kxIoDevice& device, Container& target, const char* data, size_t size,
                        size_t maxSize) {
  if (target.size() > maxSize || size > maxSize - target.size()) {
    device.setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kMaxSizeExceeded));
    return 0;
  }
  try {
    target.insert(target.end(), data, data + size);
  } catch (const std::exception&) {
    device.setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kOutOfMemory));
    return 0;
  }
  return size;
}

}  // namespace kx::detail
