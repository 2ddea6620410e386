#include <kx/system/kxIoDeviceRandomAccess.h>

#include "kxIoDeviceErrorText.h"

namespace kx {

using detail::kxIoDeviceErrc;
using detail::kxIoDeviceErrorText;

kxIoDeviceRandomAccess::~kxIoDeviceRandomAccess() = default;

bool kxIoDeviceRandomAccess::seekFrom(int64_t offset, SeekOrigin origin) {
  if (hasDeviceError()) return false;
  int64_t base = 0;
  switch (origin) {
    case SO_Begin:
      base = 0;
      break;
    case SO_Current:
      base = getPosition();
      if (base < 0) {
        setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kSeekOverflow));
        return false;
      }
      break;
    case SO_End:
      base = getSize();
      if (base < 0) {
        setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kSeekSizeUnknown));
        return false;
      }
      break;
    default:
      setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kSeekOverflow));
      return false;
  }
  int64_t target = 0;
  if (__builtin_add_overflow(base, offset, &target)) {
    setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kSeekOverflow));
    return false;
  }
  return seek(target);
}

int64_t kxIoDeviceRandomAccess::getRemainingSize() const {
  const int64_t size = getSize();
  const int64_t position = getPosition();
  if (size < 0 || position < 0) return -1;
  return position >= size ? 0 : size - position;
}

}  // namespace kx
