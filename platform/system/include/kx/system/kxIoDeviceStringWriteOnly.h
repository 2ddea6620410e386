// kxIoDeviceStringWriteOnly collects everything written to it in a std::string: the usual sink for a
// response body that is wanted whole (JSON, an error page) and for tests. It writes either into a
// string it owns or appends to one the caller lends. For binary bodies kept as bytes, see
// kxIoDeviceByteVectorWriteOnly.
//
//   kx::kxIoDeviceStringWriteOnly sink;
//   sink.setMaxSize(1 << 20);                            // refuse bodies over 1 MiB
//   ... hand &sink to a transfer as its response sink ...
//   std::string body = sink.takeString();
//
// A write that would make the string longer than the maximum size (default: unlimited) is refused as
// a whole and sets "write exceeds the maximum size of the device"; an allocation failure sets "out of
// memory". Reading sets "read called on a write only device". atEnd() is always true (nothing to
// deliver).
//
// Thread-safety: not thread-safe.
// Ownership: a lent string is borrowed, appended to (never cleared), and must outlive the device.
#pragma once

#include <kx/system/kxExport.h>
#include <kx/system/kxIoDevice.h>

#include <cstddef>
#include <string>

namespace kx {

class KX_EXPORT kxIoDeviceStringWriteOnly : public kxIoDevice {
 public:
  // Writes into a string of its own.
  kxIoDeviceStringWriteOnly();
  // Appends to `target`.
  explicit kxIoDeviceStringWriteOnly(std::string& target);
  ~kxIoDeviceStringWriteOnly() override;

  size_t readBytes(char* buffer, size_t size) override;
  size_t writeBytes(const char* data, size_t size) override;
  bool atEnd() const override;

  // The string written to (the owned one or the lent one).
  const std::string& getString() const { return *target_; }
  std::string& editString() { return *target_; }
  // Moves the content out, leaving the string empty.
  std::string takeString();

  // Caps the string's total length, counting what a lent string held already.
  void setMaxSize(size_t maxSize) { maxSize_ = maxSize; }
  size_t getMaxSize() const { return maxSize_; }

 private:
  std::string owned_;
  std::string* target_;
  size_t maxSize_;
};

}  // namespace kx
