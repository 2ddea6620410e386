// kxCancelInterfaceProxy is the cancellable form of kxCancelInterfaceProxyReadOnly: an optional flag
// owned by the caller and an optional target token, both of which cancel() triggers.
//
//   std::atomic<bool> stopped{false};
//   kx::kxCancelInterfaceProxy cancel(&stopped, &parentToken);
//   cancel.cancel();   // sets `stopped` and cancels parentToken
//
// shouldCancel(): true when the flag exists and is set; otherwise the target's answer when there is a
// target; otherwise false.
// cancel(): sets the flag when there is one and calls the target's cancel() when there is one. With
// neither it does nothing, and shouldCancel() stays false.
//
// The flag is a std::atomic<bool> (not a plain bool) because it is set and read on different threads.
//
// Thread-safety: thread-safe as long as the target is; the pointers are fixed at construction.
// Ownership: owns neither the flag nor the target; both must outlive the proxy.
#pragma once

#include <kx/system/kxCancelInterface.h>
#include <kx/system/kxExport.h>

#include <atomic>

namespace kx {

class KX_EXPORT kxCancelInterfaceProxy : public kxCancelInterface {
 public:
  explicit kxCancelInterfaceProxy(std::atomic<bool>* flag = nullptr, kxCancelInterface* target = nullptr)
      : flag_(flag), target_(target) {}

  bool shouldCancel() const override;
  void cancel() override;

  std::atomic<bool>* getFlag() const { return flag_; }
  kxCancelInterface* getTarget() const { return target_; }

 private:
  std::atomic<bool>* flag_;
  kxCancelInterface* target_;
};

}  // namespace kx
