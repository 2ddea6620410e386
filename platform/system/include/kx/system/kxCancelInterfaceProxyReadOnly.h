// kxCancelInterfaceProxyReadOnly answers shouldCancel() from two optional sources: a flag owned by the
// caller and another token (the target). It lets an operation listen both to its own stop flag and to a
// token handed down by its caller.
//
//   std::atomic<bool> stopThisJob{false};
//   kx::kxCancelInterfaceProxyReadOnly cancel(&stopThisJob, callerToken);   // either one stops the job
//
// shouldCancel(): true when the flag exists and is set; otherwise the target's answer when there is a
// target; otherwise false. A proxy with neither never cancels.
//
// The flag is a std::atomic<bool> (not a plain bool) because it is set and read on different threads.
//
// Thread-safety: thread-safe as long as the target is; the pointers are fixed at construction.
// Ownership: owns neither the flag nor the target; both must outlive the proxy.
#pragma once

#include <kx/system/kxCancelInterfaceReadOnly.h>
#include <kx/system/kxExport.h>

#include <atomic>

namespace kx {

class KX_EXPORT kxCancelInterfaceProxyReadOnly : public kxCancelInterfaceReadOnly {
 public:
  explicit kxCancelInterfaceProxyReadOnly(const std::atomic<bool>* flag = nullptr,
                                          const kxCancelInterfaceReadOnly* target = nullptr)
      : flag_(flag), target_(target) {}

  bool shouldCancel() const override;

  const std::atomic<bool>* getFlag() const { return flag_; }
  const kxCancelInterfaceReadOnly* getTarget() const { return target_; }

 private:
  const std::atomic<bool>* flag_;
  const kxCancelInterfaceReadOnly* target_;
};

}  // namespace kx
