#include <kx/system/kxIoDeviceNullWriteOnly.h>

namespace kx {

kxIoDeviceNullWriteOnly::kxIoDeviceNullWriteOnly() : kxIoDevice(DW_Write) {}

kxIoDeviceNullWriteOnly::~kxIoDeviceNullWriteOnly() = default;

size_t kxIoDeviceNullWriteOnly::readBytes(char* /*buffer*/, size_t /*size*/) {
  readAllowed();  // a write device: sets the direction error
  return 0;
}

size_t kxIoDeviceNullWriteOnly::writeBytes(const char* /*data*/, size_t size) {
  if (!writeAllowed()) return 0;
  byteCount_ += size;
  return size;
}

bool kxIoDeviceNullWriteOnly::atEnd() const { return true; }

}  // namespace kx
