// kxCancelInterface is a cancellation token that can also be triggered: cancel() makes shouldCancel()
// answer true from then on. Hand the read-only base to the operation and keep this side to cancel it.
// kxCancelFlag is the ready-made implementation; kxCancelInterfaceProxy combines a flag and a target.
//
// Thread-safety: implementations must be thread-safe; cancel() and shouldCancel() run on different
// threads.
#pragma once

#include <kx/system/kxCancelInterfaceReadOnly.h>
#include <kx/system/kxExport.h>

namespace kx {

class KX_EXPORT kxCancelInterface : public kxCancelInterfaceReadOnly {
 public:
  ~kxCancelInterface() override;
  // Requests cancellation. Idempotent.
  virtual void cancel() = 0;

 protected:
  kxCancelInterface() = default;
  kxCancelInterface(const kxCancelInterface&) = default;
  kxCancelInterface& operator=(const kxCancelInterface&) = default;
};

}  // namespace kx
