// kxIoDeviceNullWriteOnly accepts every byte and keeps none: the sink for a response body nobody needs
// (a HEAD-like probe, a drained error page) when the transfer still wants somewhere to write. It
// counts what it swallowed.
//
//   kx::kxIoDeviceNullWriteOnly discard;
//   source.writeBackToDevice(discard);                   // drains `source`
//   uint64_t dropped = discard.getByteCount();
//
// Reading sets "read called on a write only device". atEnd() is always true.
//
// Thread-safety: not thread-safe.
// Ownership: none.
#pragma once

#include <kx/system/kxExport.h>
#include <kx/system/kxIoDevice.h>

#include <cstddef>
#include <cstdint>

namespace kx {

class KX_EXPORT kxIoDeviceNullWriteOnly : public kxIoDevice {
 public:
  kxIoDeviceNullWriteOnly();
  ~kxIoDeviceNullWriteOnly() override;

  size_t readBytes(char* buffer, size_t size) override;
  // Accepts all `size` bytes (0 only when in error).
  size_t writeBytes(const char* data, size_t size) override;
  bool atEnd() const override;

  uint64_t getByteCount() const { return byteCount_; }
  void resetByteCount() { byteCount_ = 0; }

 private:
  uint64_t byteCount_ = 0;
};

}  // namespace kx
