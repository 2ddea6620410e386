#include <kx/system/kxCancelInterfaceProxy.h>

namespace kx {

bool kxCancelInterfaceProxy::shouldCancel() const {
  if (flag_ != nullptr && flag_->load(std::memory_order_acquire)) return true;
  return target_ != nullptr && target_->shouldCancel();
}

void kxCancelInterfaceProxy::cancel() {
  if (flag_ != nullptr) flag_->store(true, std::memory_order_release);
  if (target_ != nullptr) target_->cancel();
}

}  // namespace kx
