#include <kx/system/kxIoDeviceByteCounter.h>

namespace kx {

kxIoDeviceByteCounter::kxIoDeviceByteCounter(DataWay way) : kxIoDeviceDelegable(way) {}

kxIoDeviceByteCounter::~kxIoDeviceByteCounter() = default;

size_t kxIoDeviceByteCounter::readBytes(char* buffer, size_t size) {
  const size_t n = kxIoDeviceDelegable::readBytes(buffer, size);
  byteCount_ += n;
  return n;
}

size_t kxIoDeviceByteCounter::writeBytes(const char* data, size_t size) {
  const size_t n = kxIoDeviceDelegable::writeBytes(data, size);
  byteCount_ += n;
  return n;
}

bool kxIoDeviceByteCounter::beginDelegationImpl() {
  byteCount_ = 0;
  return true;
}

}  // namespace kx
