// kxCancelInterfaceReadOnly is the read side of a cancellation token: long operations (a transfer, a
// wait for many jobs) poll shouldCancel() and stop early when it answers true. Operations take it by
// const pointer; null means "never cancelled".
//
//   bool Copy(Source& s, const kx::kxCancelInterfaceReadOnly* cancel) {
//     while (s.more()) {
//       if (cancel != nullptr && cancel->shouldCancel()) return false;
//       ...
//     }
//   }
//
// Thread-safety: implementations must be thread-safe; shouldCancel() is typically called on a worker
// thread while another thread cancels.
#pragma once

#include <kx/system/kxExport.h>

namespace kx {

class KX_EXPORT kxCancelInterfaceReadOnly {
 public:
  virtual ~kxCancelInterfaceReadOnly();
  // True once the operation should stop. Must be cheap: it is polled often.
  virtual bool shouldCancel() const = 0;

 protected:
  kxCancelInterfaceReadOnly() = default;
  kxCancelInterfaceReadOnly(const kxCancelInterfaceReadOnly&) = default;
  kxCancelInterfaceReadOnly& operator=(const kxCancelInterfaceReadOnly&) = default;
};

}  // namespace kx
