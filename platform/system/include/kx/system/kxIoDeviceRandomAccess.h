// kxIoDeviceRandomAccess is a device with a position: its size is known and the next read or write can
// be moved anywhere in it. The transfer layer checks for it (dynamic_cast) to let a request body be
// rewound on redirects and authentication retries, and to announce the body's length up front.
//
//   if (auto* ra = dynamic_cast<kx::kxIoDeviceRandomAccess*>(&body)) {
//     int64_t length = ra->getRemainingSize();           // -1 when unknown
//     if (!ra->seekFrom(0, kx::kxIoDeviceRandomAccess::SO_Begin)) { /* cannot rewind */ }
//   }
//
// Positions and sizes are signed 64-bit byte counts; -1 means unknown. A seek that fails returns false
// and sets the device error (so it is sticky like any other failure): "seek to a negative position",
// "seek beyond the end of the device" (for devices that cannot grow), "seek position out of range"
// (an offset that overflows), "seek from the end of a device of unknown size".
//
// Thread-safety: not thread-safe.
// Ownership: as kxIoDevice.
#pragma once

#include <kx/system/kxExport.h>
#include <kx/system/kxIoDevice.h>

#include <cstdint>

namespace kx {

class KX_EXPORT kxIoDeviceRandomAccess : public kxIoDevice {
 public:
  enum SeekOrigin : unsigned char {
    SO_Begin = 0,
    SO_Current = 1,
    SO_End = 2,
  };

  explicit kxIoDeviceRandomAccess(DataWay way) : kxIoDevice(way) {}
  ~kxIoDeviceRandomAccess() override;

  // Virtual operations appended after those of kxIoDevice, in this order.

  // The current position, from the start of the device; -1 when unknown.
  virtual int64_t getPosition() const = 0;
  // The size in bytes; -1 when unknown.
  virtual int64_t getSize() const = 0;
  // Moves to the absolute `position`. Fails (false, error set) when the device is in error or the
  // position is not reachable.
  virtual bool seek(int64_t position) = 0;

  // Moves relative to `origin`; checks for overflow before calling seek().
  bool seekFrom(int64_t offset, SeekOrigin origin);
  // Bytes between the position and the end; -1 when either is unknown, 0 past the end.
  int64_t getRemainingSize() const;
};

}  // namespace kx
