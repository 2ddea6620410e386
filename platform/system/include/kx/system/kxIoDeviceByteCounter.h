// kxIoDeviceByteCounter passes bytes through unchanged to or from its delegate and counts them: how
// long a body from a caller's device turned out to be, how much a sink received. It reads in the
// direction of the delegation it is given.
//
//   kx::kxIoDeviceByteCounter counter;
//   counter.beginDelegation(&callerDevice, kx::kxIoDevice::DW_Read);
//   counter.writeBackToDevice(sink);
//   uint64_t length = counter.getByteCount();
//   counter.endDelegation();
//
// The count holds the bytes the delegate actually delivered or accepted; it restarts at 0 when a
// delegation begins and is kept after it ends. Errors, atEnd() and texts are the delegate's, as for any
// kxIoDeviceDelegable.
//
// Thread-safety: not thread-safe.
// Ownership: the delegate is borrowed (see kxIoDeviceDelegable).
#pragma once

#include <kx/system/kxExport.h>
#include <kx/system/kxIoDeviceDelegable.h>

#include <cstddef>
#include <cstdint>

namespace kx {

class KX_EXPORT kxIoDeviceByteCounter : public kxIoDeviceDelegable {
 public:
  // `way` is only the direction before the first delegation; beginDelegation sets the real one.
  explicit kxIoDeviceByteCounter(DataWay way = DW_Read);
  ~kxIoDeviceByteCounter() override;

  size_t readBytes(char* buffer, size_t size) override;
  size_t writeBytes(const char* data, size_t size) override;

  uint64_t getByteCount() const { return byteCount_; }
  void resetByteCount() { byteCount_ = 0; }

 protected:
  bool beginDelegationImpl() override;

 private:
  uint64_t byteCount_ = 0;
};

}  // namespace kx
