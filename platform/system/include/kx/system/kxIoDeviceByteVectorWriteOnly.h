// kxIoDeviceByteVectorWriteOnly collects everything written to it in a std::vector<char>: the sink for
// binary data kept in memory (a downloaded file part, a key) and for callers that already work with
// byte vectors. Same rules as kxIoDeviceStringWriteOnly.
//
//   std::vector<char> bytes;
//   kx::kxIoDeviceByteVectorWriteOnly sink(bytes);
//   sink.setMaxSize(64 * 1024);
//   if (!part.writeBackToDevice(sink)) log(part.getDeviceErrorMsg());
//
// A write beyond the maximum size (default: unlimited) is refused as a whole with "write exceeds the
// maximum size of the device"; an allocation failure sets "out of memory". Reading sets "read called
// on a write only device". atEnd() is always true.
//
// Thread-safety: not thread-safe.
// Ownership: a lent vector is borrowed, appended to (never cleared), and must outlive the device.
#pragma once

#include <kx/system/kxExport.h>
#include <kx/system/kxIoDevice.h>

#include <cstddef>
#include <vector>

namespace kx {

class KX_EXPORT kxIoDeviceByteVectorWriteOnly : public kxIoDevice {
 public:
  // Writes into a vector of its own.
  kxIoDeviceByteVectorWriteOnly();
  // Appends to `target`.
  explicit kxIoDeviceByteVectorWriteOnly(std::vector<char>& target);
  ~kxIoDeviceByteVectorWriteOnly() override;

  size_t readBytes(char* buffer, size_t size) override;
  size_t writeBytes(const char* data, size_t size) override;
  bool atEnd() const override;

  const std::vector<char>& getBytes() const { return *target_; }
  std::vector<char>& editBytes() { return *target_; }
  // Moves the content out, leaving the vector empty.
  std::vector<char> takeBytes();

  // Caps the vector's total size, counting what a lent vector held already.
  void setMaxSize(size_t maxSize) { maxSize_ = maxSize; }
  size_t getMaxSize() const { return maxSize_; }

 private:
  std::vector<char> owned_;
  std::vector<char>* target_;
  size_t maxSize_;
};

}  // namespace kx
