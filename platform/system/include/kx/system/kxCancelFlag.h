// kxCancelFlag is the simplest cancellation token: one atomic boolean. Keep it next to the operation,
// pass its address as the cancel interface, and call cancel() from any thread to stop the operation.
//
//   kx::kxCancelFlag stop;
//   std::thread t([&] { connection.getHttpData(url, ..., &stop, ...); });
//   stop.cancel();
//
// flag() exposes the boolean itself for the proxies (kxCancelInterfaceProxy), so one flag can stop
// several operations that also listen to other tokens.
//
// Thread-safety: thread-safe. Not copyable.
#pragma once

#include <kx/system/kxCancelInterface.h>
#include <kx/system/kxExport.h>

#include <atomic>

namespace kx {

class KX_EXPORT kxCancelFlag : public kxCancelInterface {
 public:
  kxCancelFlag() = default;
  kxCancelFlag(const kxCancelFlag&) = delete;
  kxCancelFlag& operator=(const kxCancelFlag&) = delete;

  bool shouldCancel() const override { return flag_.load(std::memory_order_acquire); }
  void cancel() override { flag_.store(true, std::memory_order_release); }
  // Clears the flag so the token can serve another operation.
  void reset() { flag_.store(false, std::memory_order_release); }

  std::atomic<bool>* flag() { return &flag_; }

 private:
  std::atomic<bool> flag_{false};
};

}  // namespace kx
