#include <kx/system/kxCancelInterfaceProxyReadOnly.h>

namespace kx {

bool kxCancelInterfaceProxyReadOnly::shouldCancel() const {
  if (flag_ != nullptr && flag_->load(std::memory_order_acquire)) return true;
  return target_ != nullptr && target_->shouldCancel();
}

}  // namespace kx
