// kxIoDeviceByteContainerReadOnly reads bytes the caller already holds in memory (a buffer, a string's
// data, a generated header text) without copying them. It is random access, so a transfer can rewind
// it, and its size is known up front. For bytes the device should own, use kxIoDeviceStringReadOnly.
//
//   static const char kBody[] = "{\"query\":{}}";
//   kx::kxIoDeviceByteContainerReadOnly body(kBody, sizeof kBody - 1);
//   char buffer[4];
//   size_t n = body.read(buffer, sizeof buffer);        // 4: "{\"qu"
//
// Reads deliver min(asked, remaining) bytes; atEnd() is true exactly when the position reaches the
// size, so a reader never needs an extra empty read to find the end. seek() accepts 0..size inclusive;
// beyond the size it fails with "seek beyond the end of the device". Null data with a non-zero size is
// refused ("null data with a non-zero size") and leaves an empty, failed device. Writing sets "write
// called on a read only device".
//
// Thread-safety: not thread-safe.
// Ownership: the bytes are borrowed and must stay valid and unchanged while the device may read them.
#pragma once

#include <kx/system/kxExport.h>
#include <kx/system/kxIoDeviceRandomAccess.h>

#include <cstddef>
#include <cstdint>

namespace kx {

class KX_EXPORT kxIoDeviceByteContainerReadOnly : public kxIoDeviceRandomAccess {
 public:
  // An empty device (at its end).
  kxIoDeviceByteContainerReadOnly();
  kxIoDeviceByteContainerReadOnly(const void* data, size_t size);
  ~kxIoDeviceByteContainerReadOnly() override;

  // Points the device at other bytes, at position 0, and clears any error.
  void setData(const void* data, size_t size);
  const char* getData() const { return data_; }

  size_t readBytes(char* buffer, size_t size) override;
  size_t writeBytes(const char* data, size_t size) override;
  bool atEnd() const override;
  int64_t getPosition() const override;
  int64_t getSize() const override;
  bool seek(int64_t position) override;

 private:
  const char* data_ = nullptr;
  size_t size_ = 0;
  size_t position_ = 0;
};

}  // namespace kx
